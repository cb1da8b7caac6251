// Messages between the server process and the client processes, as the library handles them.
// The server sends everything it holds to a client that connects, then each document it
// applies; a client builds a fresh version from a full send and switches to it at the end.
#include "core/kyrProcessMessages.h"

#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>

#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "core/kyrRoutingInfo.h"
#include "health/hmHealthMonitor.h"
#include "ipc/kyrClientProcess.h"
#include "ipc/kyrMessage.h"
#include "ipc/kyrServerProcess.h"
#include "runtime/kyrLibUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// The client processes (by pid) that report a server application routable, and the connector
// the first report came through (by name: it may be gone by the time a client leaves).
struct SappEntry {
  char* name;  // the map's key
  KyrList* pids;
  char* groupName;
  char* connectorURL;
};

void sendToClients(Kyr* kyr, KyrMessage* msg, int fd) {
  if (fd == -1) {
    kyrServerProcessBroadcastMessage(kyr->serverProcess, msg);
  } else {
    kyrServerProcessSendMessage(kyr->serverProcess, msg, fd);
  }
}

SappEntry* sappEntryFor(Kyr* kyr, KyrConnector* c, const char* name) {
  auto* entry = static_cast<SappEntry*>(kyrHashGet(kyr->sappMap, name));
  if (entry != nullptr) return entry;
  entry = kyrNew<SappEntry>();
  entry->name = kyrStrdup(name);
  entry->pids = kyrListCreate(nullptr);
  entry->groupName = kyrStrdup(c->cg->name);
  entry->connectorURL = kyrStrdup(c->URL);
  kyrHashPut(kyr->sappMap, entry->name, entry);
  return entry;
}

KyrConnector* connectorOf(Kyr* kyr, const SappEntry* entry) {
  KyrConnectorGroup* cg = kyrFindConnectorGroup(kyr, entry->groupName);
  return cg != nullptr ? kyrConnectorGroupFindConnector(cg, entry->connectorURL) : nullptr;
}

// A client that went away holds no route any more: one only it still held is routable nowhere
// now. Its reports carried its pid, and the socket's peer is that same process.
void withdrawRoutesOfPeer(Kyr* kyr, int fd) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.pid <= 0) return;
  KyrHashIterator it;
  kyrHashIteratorStart(kyr->sappMap, &it);
  while (kyrHashNext(&it) != nullptr) {
    auto* entry = static_cast<SappEntry*>(kyrHashThisVal(&it));
    if (entry == nullptr || !kyrListRemoveObject(entry->pids, kyrIntAsObject(peer.pid)) ||
        !kyrListIsEmpty(entry->pids)) {
      continue;
    }
    KyrConnector* c = connectorOf(kyr, entry);
    if (c != nullptr) kyrConnectorPostRoutingChange(c, entry->name, false);
  }
}

// A publisher hears that an application is routable once every client process routes to it,
// and that it is not once none does.
void sappMapProcessing(Kyr* kyr, KyrConnector* c, json_t* doc, int pid) {
  int clients = kyrServerProcessGetClientCount(kyr->serverProcess);
  size_t i;
  json_t* name;
  json_array_foreach(json_object_get(doc, "addRoutes"), i, name) {
    if (!json_is_string(name)) continue;
    SappEntry* entry = sappEntryFor(kyr, c, json_string_value(name));
    if (kyrListAddUnique(entry->pids, kyrIntAsObject(pid)) &&
        kyrListGetCount(entry->pids) == clients) {
      kyrConnectorPostRoutingChange(c, entry->name, true);
    }
  }
  json_array_foreach(json_object_get(doc, "delRoutes"), i, name) {
    if (!json_is_string(name)) continue;
    auto* entry = static_cast<SappEntry*>(kyrHashGet(kyr->sappMap, json_string_value(name)));
    if (entry == nullptr) {
      kyrConnectorPostRoutingChange(c, json_string_value(name), false);
    } else if (kyrListRemoveObject(entry->pids, kyrIntAsObject(pid)) &&
               kyrListIsEmpty(entry->pids)) {
      kyrConnectorPostRoutingChange(c, entry->name, false);
    }
  }
}

void routeChangeFromClient(Kyr* kyr, KyrMessage* msg) {
  json_t* doc = kyrStrToJson(kyr, msg->body, "CLIENT TO SERVER");
  if (doc == nullptr) return;
  KyrConnector* c = kyrFindConnectorFromJson(kyr, doc, false);
  if (c != nullptr && (json_object_get(doc, "addRoutes") != nullptr ||
                       json_object_get(doc, "delRoutes") != nullptr)) {
    // Held while the routes are weighed, then posted together.
    kyrConnectorSetProcessingJSON(c, true);
    sappMapProcessing(kyr, c, doc, msg->hdr.pid);
    kyrConnectorSetProcessingJSON(c, false);
  }
  json_decref(doc);
}

void documentFromServer(Kyr* kyr, KyrMessage* msg) {
  json_t* doc = kyrStrToJson(kyr, msg->body, "KYR daemon");
  if (doc == nullptr) return;
  KyrConnector* c = kyrFindConnectorFromJson(kyr, doc, true);
  if (c == nullptr) {
    json_decref(doc);
    return;
  }
  kyrHandleJson(doc, msg->body, c);
}

void beginRoutingInfo(Kyr* kyr) {
  KyrRoutingInfo* old = kyr->newRoutingInfo;
  kyr->newRoutingInfo = kyrRoutingInfoCreate(kyr);
  kyrRoutingInfoRelease(old);
}

void endRoutingInfo(Kyr* kyr) {
  KyrRoutingInfo* built = kyr->newRoutingInfo;
  if (built != nullptr) {
    kyr->newRoutingInfo = nullptr;
    kyrSwitchToNewRoutingInfo(kyr, built);
  }
  kyrSetState(kyr, STARTED, "child process started");
}

void sendContents(Kyr* kyr, KyrMessageType type, const char* text, int fd) {
  KyrMessage msg = kyrMessageWithText(type, text);
  sendToClients(kyr, &msg, fd);
}

}  // namespace

void kyrSappEntryDelete(void* object) {
  auto* entry = static_cast<SappEntry*>(object);
  kyrListDestroy(entry->pids);
  kyrFree(entry->name);
  kyrFree(entry->groupName);
  kyrFree(entry->connectorURL);
  kyrDelete(entry);
}

void sendAllRoutingInfoToClient(Kyr* kyr, int fd) {
  if (kyr->serverProcess == nullptr) return;
  trTrace(kyr->trCtx, kyr->ipcProcessRec, TR_LEVEL_DEBUG, "sendAllRoutingInfoToClient enter\n");
  sendContents(kyr, MT_S2C_BEGIN_ROUTING_INFO, nullptr, fd);
  for (KyrListEle* e = kyrListGetHead(kyr->connectorGroupList); e != nullptr;
       e = kyrListGetNext(e)) {
    auto* cg = static_cast<KyrConnectorGroup*>(kyrListEleGetObject(e));
    if (cg->curConnector == nullptr || cg->curConnector->json == nullptr) continue;
    char* text = json_dumps(cg->curConnector->json, JSON_COMPACT);
    if (text != nullptr) sendContents(kyr, MT_S2C_ROUTING_INFO, text, fd);
    free(text);
  }
  sendContents(kyr, MT_S2C_END_ROUTING_INFO, nullptr, fd);
  trTrace(kyr->trCtx, kyr->ipcProcessRec, TR_LEVEL_DEBUG, "sendAllRoutingInfoToClient exit\n");
}

void kyrUpdateControlState(Kyr* kyr, int fd) {
  if (!kyrIsServerProcess(kyr) || kyr->serverProcess == nullptr) return;
  json_t* state = kyrConnectorGroupsToJSON(kyr);
  char* text = json_dumps(state, JSON_COMPACT);
  json_decref(state);
  if (text != nullptr) sendContents(kyr, MT_S2C_SET_CONTROL_STATE, text, fd);
  free(text);
}

void kyrServerProcessBroadcastDocument(Kyr* kyr, const char* text, bool isDelta) {
  if (kyr->serverProcess == nullptr) return;
  sendContents(kyr, isDelta ? MT_S2C_ROUTING_INFO_DELTA : MT_S2C_ROUTING_INFO, text, -1);
}

int kyrServerProcessHandleMessage(Kyr* kyr, KyrMessage* msg, int fd) {
  kyrControlLockAssertHeld();
  int type = msg->hdr.type;
  trTrace(kyr->trCtx, kyr->ipcProcessRec, TR_LEVEL_DEBUG,
          "kyrServerProcessHandleMessage - being handling message type %d", type);
  switch (type) {
    case MT_CONNECTED:
      sendAllRoutingInfoToClient(kyr, fd);
      kyrUpdateControlState(kyr, fd);
      break;
    case MT_C2S_JSON:
      if (msg->body != nullptr) routeChangeFromClient(kyr, msg);
      break;
    case MT_CLIENT_TO_SERVER_HEALTH_TRIGGER:
      hmServerProcessHandleMessage(kyr, msg->body, static_cast<size_t>(msg->hdr.len), fd);
      break;
    default:
      break;
  }
  trTrace(kyr->trCtx, kyr->ipcProcessRec, TR_LEVEL_DEBUG,
          "kyrServerProcessHandleMessage - end handling message type %d", type);
  return 0;
}

void kyrServerProcessClientGone(Kyr* kyr, int fd) {
  trDebug(kyr->trCtx, kyr->ipcProcessRec, "kyrServerProcessClientGone: fd=%d\n", fd);
  withdrawRoutesOfPeer(kyr, fd);
  hmClientProcessCleanup(kyr, fd);
}

int kyrClientProcessHandleMessage(Kyr* kyr, KyrMessage* msg) {
  kyrControlLockAssertHeld();
  switch (msg->hdr.type) {
    case MT_CONNECTED:
      trDebug(kyr->trCtx, kyr->ipcProcessRec, "clientProcess: connected\n");
      break;
    case MT_S2C_BEGIN_ROUTING_INFO:
      beginRoutingInfo(kyr);
      break;
    case MT_S2C_ROUTING_INFO:
    case MT_S2C_ROUTING_INFO_DELTA:
      if (msg->body != nullptr) documentFromServer(kyr, msg);
      break;
    case MT_S2C_END_ROUTING_INFO:
      endRoutingInfo(kyr);
      break;
    case MT_S2C_SET_CONTROL_STATE:
      if (msg->body != nullptr) {
        json_t* state = kyrStrToJson(kyr, msg->body, "setControlState");
        if (state != nullptr) {
          json_decref(kyr->controlState);
          kyr->controlState = state;
        }
      }
      break;
    default:
      trTrace(kyr->trCtx, kyr->ipcProcessRec, TR_LEVEL_INFO,
              "IPC client: received unknown message type: %d\n", msg->hdr.type);
      break;
  }
  return 0;
}

namespace {

void sendJsonAsync(Kyr* kyr, void* obj) {
  auto* text = static_cast<char*>(obj);
  KyrMessage msg = kyrMessageWithText(MT_C2S_JSON, text);
  if (kyrClientProcessSendMessage(kyr, &msg) != 0) {
    trDebug(kyr->trCtx, kyr->ipcProcessRec, "kyrClientProcessSendJson: send failed\n");
  }
  kyrFree(text);
}

}  // namespace

int kyrClientProcessSendJson(Kyr* kyr, json_t* doc) {
  if (!kyrIsClientProcess(kyr)) return -1;
  char* text = json_dumps(doc, JSON_COMPACT);
  if (text == nullptr) return -1;
  // Sent from the worker: the caller may hold the control lock, and a send can wait on a busy
  // server process.
  kyrProcessAsync(kyr, kyrStrdup(text), sendJsonAsync);
  free(text);
  return 0;
}

}  // namespace kyr

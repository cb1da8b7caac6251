// Connectors: creation into their group's list, lookup by group and URL, references, state
// changes, the stored complete document and the queue of route changes.
#include "connector/kyrConnector.h"

#include <cstring>

#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "runtime/kyrLibUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// Connector properties carry no known names yet; every set is refused.
const char* noConnectorProperty(void*, const char*, const char*) { return nullptr; }

void connectorFree(KyrConnector* c) {
  KyrConnectorGroup* cg = c->cg;
  trDebug(cg->trCtx, cg->debugCtl, "connector was deleted: %s\n", c->URL);
  json_decref(c->json);
  json_decref(c->addRoutes);
  json_decref(c->delRoutes);
  kyrLockDestroy(c->routesLock);
  kyrListDestroy(c->outstandingRestRequestList);
  kyrPropertiesDelete(c->props);
  kyrFree(c->URL);
  kyrDelete(c);
  kyrConnectorGroupReleaseRef(cg, "kyrConnectorDelete");
}

}  // namespace

KyrConnector* kyrConnectorCreate2(KyrConnectorGroup* cg, const char* url) {
  kyrControlLockAssertHeld();
  auto* c = kyrNew<KyrConnector>();
  c->refcnt = 1;  // the group's list
  c->kyr = cg->kyr;
  c->cg = cg;
  c->URL = kyrStrdup(url);
  c->state = STOPPED;
  c->props = kyrPropertiesCreate(noConnectorProperty, c);
  c->vid = -1;
  c->restVersion = -1;
  c->outstandingRestRequestList = kyrListCreate(nullptr);
  c->routesLock = kyrLockCreate("KyrConnector.routesLock");
  kyrConnectorGroupObtainRef(cg, "kyrConnectorCreate");
  c->listEle = kyrListAddTail(cg->connectorList, c);
  trDebug(cg->trCtx, cg->debugCtl, "kyrConnectorCreate: connector group %s, URL %s\n", cg->name,
          url);
  return c;
}

void kyrConnectorSetState(KyrConnector* c, KyrComponentState state, const char* reason) {
  if (c->state == state) return;
  KyrComponentState old = c->state;
  c->state = state;
  trDebug(c->cg->trCtx, c->cg->debugCtl,
          "KYR connector %s state change from %s to %s, reason: %s\n", c->URL, kyrState2String(old),
          kyrState2String(state), reason);
  if (c->kyr->env.stateChange.kyrConnector != nullptr) {
    c->kyr->env.stateChange.kyrConnector(c, state, const_cast<char*>(reason));
  }
}

void kyrConnectorSetJSON(KyrConnector* c, json_t* json) {
  json_t* old = c->json;
  c->json = json;
  json_decref(old);
}

void kyrConnectorSetProcessingJSON(KyrConnector* c, bool processing) {
  c->processingJSON = processing;
  // Routes that changed while the document was applied go out now, in one request.
  if (!processing) kyrConnectorFlushRoutingChanges(c);
}

void kyrConnectorObtainRef(KyrConnector* c, const char* reason) {
  int count = ++c->refcnt;
  trTrace(c->cg->trCtx, c->cg->debugCtl, TR_LEVEL_DEBUG,
          "Obtained reference to connector %s, refcnt: %d, reason: %s\n", c->URL, count, reason);
}

void kyrConnectorReleaseRef(KyrConnector* c, const char* reason) {
  // Traced before the count drops, as for the handle: afterwards another holder may free it.
  trTrace(c->cg->trCtx, c->cg->debugCtl, TR_LEVEL_DEBUG,
          "Released reference to connector %s, refcnt: %d, reason: %s\n", c->URL,
          c->refcnt.load() - 1, reason);
  if (--c->refcnt < 1) connectorFree(c);
}

KyrConnector* kyrConnectorGroupFindConnector(KyrConnectorGroup* cg, const char* url) {
  if (url == nullptr) return nullptr;
  for (KyrListEle* e = kyrListGetHead(cg->connectorList); e != nullptr; e = kyrListGetNext(e)) {
    auto* c = static_cast<KyrConnector*>(kyrListEleGetObject(e));
    if (strcmp(c->URL, url) == 0) return c;
  }
  return nullptr;
}

void kyrConnectorGroupRemoveConnector(KyrConnectorGroup* cg, KyrConnector* c) {
  if (kyrListFindAndRemove(cg->connectorList, c) == nullptr) return;
  c->listEle = nullptr;
  if (cg->curConnector == c) cg->curConnector = nullptr;
  kyrConnectorStop(c);
  kyrConnectorReleaseRef(c, "kyrConnectorGroupRemoveConnector");
}

KyrConnectorGroup* kyrFindConnectorGroup(Kyr* kyr, const char* name) {
  if (name == nullptr) return nullptr;
  for (KyrListEle* e = kyrListGetHead(kyr->connectorGroupList); e != nullptr;
       e = kyrListGetNext(e)) {
    auto* cg = static_cast<KyrConnectorGroup*>(kyrListEleGetObject(e));
    if (strcmp(cg->name, name) == 0) return cg;
  }
  return nullptr;
}

KyrConnector* kyrFindConnectorFromJson(Kyr* kyr, json_t* json, bool create) {
  if (json == nullptr) {
    trTrace(kyr->trCtx, kyr->processRec, TR_LEVEL_INFO, "kyrFindConnectorFromJson - null json");
    return nullptr;
  }
  const char* groupName = json_string_value(json_object_get(json, "connectorGroupName"));
  if (groupName == nullptr) {
    trTrace(kyr->trCtx, kyr->processRec, TR_LEVEL_INFO,
            "kyrFindConnectorFromJson - json had no connector group name");
    return nullptr;
  }
  const char* url = json_string_value(json_object_get(json, "connectorURL"));
  if (url == nullptr) {
    trTrace(kyr->trCtx, kyr->processRec, TR_LEVEL_INFO,
            "kyrFindConnectorFromJson - json had no connector URL");
    return nullptr;
  }
  KyrConnectorGroup* cg = kyrFindConnectorGroup(kyr, groupName);
  if (cg == nullptr) {
    trTrace(kyr->trCtx, kyr->processRec, TR_LEVEL_INFO,
            "kyrFindConnectorFromJson - did not find connector group %s", groupName);
    return nullptr;
  }
  KyrConnector* c = kyrConnectorGroupFindConnector(cg, url);
  if (c == nullptr && create) c = kyrConnectorCreate2(cg, url);
  if (c == nullptr) {
    trTrace(kyr->trCtx, kyr->processRec, TR_LEVEL_INFO,
            "kyrFindConnectorFromJson - did not find connector with URL %s", url);
  }
  return c;
}

}  // namespace kyr

using namespace kyr;

extern "C" {

KyrConnector* kyrConnectorCreate(KyrConnectorGroup* cg, const char* url) {
  if (cg == nullptr || url == nullptr) return nullptr;
  ControlLockGuard guard("kyrConnectorCreate");
  return kyrConnectorCreate2(cg, url);
}

const char* kyrConnectorGetURL(KyrConnector* connector) {
  return connector != nullptr ? connector->URL : nullptr;
}

KyrConnectorGroup* kyrConnectorGetConnectorGroup(KyrConnector* connector) {
  return connector != nullptr ? connector->cg : nullptr;
}

KyrComponentState kyrConnectorGetState(KyrConnector* connector) {
  return connector != nullptr ? connector->state.load() : INVALID;
}

void kyrConnectorDelete(KyrConnector* connector) {
  if (connector == nullptr) return;
  ControlLockGuard guard("kyrConnectorDelete");
  KyrConnectorGroup* cg = connector->cg;
  bool wasInUse = cg->curConnector == connector;
  kyrConnectorGroupRemoveConnector(cg, connector);
  // The group polled through this connector: it goes on with the next one.
  if (wasInUse && (cg->state == STARTING || cg->state == STARTED)) {
    kyrConnectorGroupRunWork(cg, true);
  }
}

}  // extern "C"

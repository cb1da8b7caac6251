// Endpoints of servers: creation, the protocol list they join, their properties, the host's
// object for each (obtained while the server runs, recreated when the host must see new
// values), and the public getters the host reads them through.
#include <cstring>

#include "core/kyr.h"
#include "core/kyrRoutingInfo.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "selection/kyrTargetSelector.h"
#include "selection/kyrTargetSelectorInternal.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

bool serverIsRunning(const TargetServer* server) {
  return server->state != nullptr && strcmp(server->state, "STOPPED") != 0;
}

// The host built its object from the old host, port and protocol; give it a fresh one.
void recreateHostObject(KyrTargetEndpoint* tep) {
  if (tep->envTargetEndpoint == nullptr) return;
  endPointReleaseHostObject(tep);
  endPointObtainHostObject(tep);
}

void unlist(KyrTargetEndpoint* tep) {
  if (!tep->listed) return;
  kyrListFindAndRemove(tep->server->endPoints[tep->protoIndex], tep);
  tep->listed = false;
}

}  // namespace

EnvTargetEndpoint* envTargetEndPointObtainRef(Kyr* kyr, KyrTargetEndpoint* tep) {
  return endPointRefObtain(kyr, tep->name, tep);
}

void envTargetEndPointReleaseRef(Kyr* kyr, KyrTargetEndpoint* tep) {
  endPointRefRelease(kyr, tep->name);
}

void endPointObtainHostObject(KyrTargetEndpoint* tep) {
  if (tep->envTargetEndpoint != nullptr) return;
  tep->envTargetEndpoint = envTargetEndPointObtainRef(tep->server->selector->kyr, tep);
}

void endPointReleaseHostObject(KyrTargetEndpoint* tep) {
  if (tep->envTargetEndpoint == nullptr) return;
  envTargetEndPointReleaseRef(tep->server->selector->kyr, tep);
  tep->envTargetEndpoint = nullptr;
}

KyrTargetEndpoint* tsEndPointCreate(TargetServer* server, const char* name) {
  if (server == nullptr || name == nullptr) return nullptr;
  auto* tep = kyrNew<KyrTargetEndpoint>();
  tep->name = kyrStrdup(name);
  tep->refcnt = 1;
  tep->server = server;
  tep->port = -1;
  tep->protoIndex = -1;
  tep->persistentTimeout = kDefaultPersistentTimeoutSecs;
  TargetSelector* ts = server->selector;
  KyrLockGuard guard(ts->lock, "tsEndPointCreate");
  tsServerObtainRef(server);
  tep->registryEle = kyrListAddTail(ts->allEndPoints, tep);
  return tep;
}

bool tsEndPointInit(KyrTargetEndpoint* tep) {
  TargetServer* server = tep->server;
  KyrLockGuard guard(server->selector->lock, "tsEndPointInit");
  if (tep->protoIndex < 0) return false;
  if (!tep->listed) {
    kyrListAddTail(server->endPoints[tep->protoIndex], tep);
    tep->listed = true;
  }
  if (!serverIsRunning(server)) return true;
  endPointObtainHostObject(tep);
  return tep->envTargetEndpoint != nullptr;
}

void tsEndPointObtainRef(KyrTargetEndpoint* tep) { ++tep->refcnt; }

void tsEndPointReleaseRef(KyrTargetEndpoint* tep) {
  if (--tep->refcnt < 1) tsEndPointFree(tep);
}

void tsEndPointDelete(KyrTargetEndpoint* tep) {
  KyrLockGuard guard(tep->server->selector->lock, "tsEndPointDelete");
  tsEndPointReleaseRef(tep);
}

void tsEndPointFree(KyrTargetEndpoint* tep) {
  TargetServer* server = tep->server;
  endPointReleaseHostObject(tep);
  unlist(tep);
  kyrListRemove(server->selector->allEndPoints, tep->registryEle);
  kyrFree(tep->name);
  kyrFree(tep->host);
  kyrFree(tep->sslProfile);
  kyrFree(tep->namedEndpoint);
  kyrDelete(tep);
  tsServerReleaseRef(server);
}

bool tsEndPointSetPropStr(KyrTargetEndpoint* tep, const char* name, const char* value) {
  if (name == nullptr) return false;
  TargetServer* server = tep->server;
  KyrLockGuard guard(server->selector->lock, "tsEndPointSetPropStr");
  if (strcmp(name, "protocol") == 0) {
    int index = getProtoIndex(value);
    // A listed endpoint follows its protocol so the lists stay true to what they hold.
    if (tep->listed && index != tep->protoIndex) {
      unlist(tep);
      if (index >= 0) {
        kyrListAddTail(server->endPoints[index], tep);
        tep->listed = true;
      }
    }
    tep->protoIndex = index;
  } else if (strcmp(name, "host") == 0) {
    kyrRoutingInfoReplaceText(server->selector->ri, &tep->host, value);
  } else if (strcmp(name, "namedEndpoint") == 0) {
    kyrRoutingInfoReplaceText(server->selector->ri, &tep->namedEndpoint, value);
  } else {
    return false;
  }
  recreateHostObject(tep);
  return true;
}

bool tsEndPointSetPropInt(KyrTargetEndpoint* tep, const char* name, int value) {
  if (name == nullptr) return false;
  KyrLockGuard guard(tep->server->selector->lock, "tsEndPointSetPropInt");
  if (strcmp(name, "port") == 0) {
    kyrPublish(tep->port, value);
  } else if (strcmp(name, "persistentTimeout") == 0) {
    kyrPublish(tep->persistentTimeout, value);
  } else {
    return false;
  }
  recreateHostObject(tep);
  return true;
}

bool tsEndPointSetPropBool(KyrTargetEndpoint*, const char*, bool) {
  // "isActive" is sent by publishers but has no meaning here; every name is refused on purpose,
  // so the reader's diagnostics show it as not applied.
  return false;
}

const char* tsEndPointGetName(KyrTargetEndpoint* tep) { return tep->name; }
const char* tsEndpointGetHost(KyrTargetEndpoint* tep) { return tep->host; }
int tsEndpointGetPort(KyrTargetEndpoint* tep) { return tep->port; }
TargetServer* tsEndPointGetServer(KyrTargetEndpoint* tep) { return tep->server; }
EnvTargetEndpoint* tsEndPointGetEnvEndPoint(KyrTargetEndpoint* tep) {
  return tep->envTargetEndpoint;
}

}  // namespace kyr

// ---- Public getters: the host reads an endpoint it was handed. A null endpoint, or one
// without a server, gives the values a new server would have.

using kyr::kyrPublished;
using kyr::TargetServer;

namespace {

TargetServer* serverOf(KyrTargetEndpoint* tep) { return tep != nullptr ? tep->server : nullptr; }

}  // namespace

extern "C" {

const char* kyrTargetEndpointGetName(KyrTargetEndpoint* tep) {
  return tep != nullptr ? tep->name : nullptr;
}

KyrConnector* kyrTargetEndpointGetConnector(KyrTargetEndpoint* tep) {
  TargetServer* server = serverOf(tep);
  return server != nullptr ? server->connector : nullptr;
}

const char* kyrTargetEndpointGetClusterName(KyrTargetEndpoint* tep) {
  TargetServer* server = serverOf(tep);
  return server != nullptr && server->cluster != nullptr ? server->cluster->name : nullptr;
}

const char* kyrTargetEndpointGetProtocol(KyrTargetEndpoint* tep) {
  return kyr::getProtoName(tep != nullptr ? tep->protoIndex : -1);
}

const char* kyrTargetEndpointGetHostName(KyrTargetEndpoint* tep) {
  return tep != nullptr ? kyrPublished(tep->host) : nullptr;
}

int kyrTargetEndpointGetPort(KyrTargetEndpoint* tep) {
  return tep != nullptr ? kyrPublished(tep->port) : -1;
}

const char* kyrTargetEndpointGetCloneId(KyrTargetEndpoint* tep) {
  TargetServer* server = serverOf(tep);
  return server != nullptr ? kyrPublished(server->cloneId) : nullptr;
}

int kyrTargetEndpointGetConnectTimeout(KyrTargetEndpoint* tep) {
  TargetServer* server = serverOf(tep);
  return server != nullptr ? kyrPublished(server->connectTimeout) : kyr::kDefaultConnectTimeoutSecs;
}

int kyrTargetEndpointGetIOTimeout(KyrTargetEndpoint* tep) {
  TargetServer* server = serverOf(tep);
  return server != nullptr ? kyrPublished(server->ioTimeout) : kyr::kDefaultIoTimeoutSecs;
}

int kyrTargetEndpointGetIOTimeoutRetry(KyrTargetEndpoint* tep) {
  TargetServer* server = serverOf(tep);
  return server != nullptr && server->cluster != nullptr
             ? kyrPublished(server->cluster->ioTimeoutRetry)
             : -1;
}

int kyrTargetEndpointGetPersistentTimeout(KyrTargetEndpoint* tep) {
  return tep != nullptr ? kyrPublished(tep->persistentTimeout) : kyr::kDefaultPersistentTimeoutSecs;
}

Boolean kyrTargetEndpointGetExtendedHandshake(KyrTargetEndpoint* tep) {
  TargetServer* server = serverOf(tep);
  return server != nullptr && kyrPublished(server->extendedHandshake);
}

Boolean kyrTargetEndpointGetWaitForContinue(KyrTargetEndpoint* tep) {
  TargetServer* server = serverOf(tep);
  return server != nullptr && kyrPublished(server->waitForContinue);
}

const char* kyrTargetEndpointGetNamedEndpoint(KyrTargetEndpoint* tep) {
  return tep != nullptr ? kyrPublished(tep->namedEndpoint) : nullptr;
}

EnvTargetEndpoint* kyrTargetEndpointGetEnvTargetEndpoint(KyrTargetEndpoint* tep) {
  return tep != nullptr ? tep->envTargetEndpoint : nullptr;
}

int kyrTargetEndpointGetWsIOTimeout(KyrTargetEndpoint* tep) {
  TargetServer* server = serverOf(tep);
  return server != nullptr ? kyrPublished(server->wsIoTimeout) : kyr::kDefaultWsIoTimeoutSecs;
}

int kyrTargetEndpointGetWsIdleTimeout(KyrTargetEndpoint* tep) {
  TargetServer* server = serverOf(tep);
  return server != nullptr ? kyrPublished(server->wsIdleTimeout) : kyr::kDefaultWsIdleTimeoutSecs;
}

}  // extern "C"

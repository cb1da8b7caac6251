// Servers (cluster members): creation and deletion, properties with the rule that the library's
// own server feeds the handle's custom properties instead, run state with its effect on
// endpoint host objects, selectability, connect back-off and response-time calculators.
#include <algorithm>
#include <cstring>

#include "health/hmHealthMonitor.h"
#include "health/hmHealthPolicy.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "runtime/kyrUtil.h"
#include "selection/kyrTargetSelector.h"
#include "selection/kyrTargetSelectorInternal.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

constexpr KyrTime kInitialRetryInterval = 50;
constexpr KyrTime kMaxRetryInterval = 60000;

bool isStopped(const char* state) { return state != nullptr && strcmp(state, "STOPPED") == 0; }

bool isOwnServer(TargetServer* server) {
  const char* own = kyrGetServerPath(server->selector->kyr);
  return own != nullptr && strcmp(server->name, own) == 0;
}

void forEachEndPoint(TargetServer* server, void (*fn)(KyrTargetEndpoint*)) {
  for (KyrList* list : server->endPoints) {
    for (KyrListEle* e = kyrListGetHead(list); e != nullptr; e = kyrListGetNext(e)) {
      fn(static_cast<KyrTargetEndpoint*>(kyrListEleGetObject(e)));
    }
  }
}

// The clone ID map and the node's list stop naming the server. The selector lock must be held.
void leaveLookups(TargetServer* server) {
  TargetSelector* ts = server->selector;
  // Another server may have claimed the same clone ID later; its entry stays.
  if (server->cloneId != nullptr && kyrHashGet(ts->serverMapByCloneId, server->cloneId) == server) {
    kyrHashPut(ts->serverMapByCloneId, server->cloneId, nullptr);
  }
  kyrListFindAndRemove(server->node->servers, server);
}

void setStateLocked(TargetServer* server, const char* state) {
  TargetSelector* ts = server->selector;
  char* old = server->state;
  server->state = kyrStrdup(state);
  if (old == nullptr || strcmp(old, state) != 0) {
    trLog(ts->trCtx, ts->serverStateRec, state, kyrNullText(old), server->name);
  }
  if (isStopped(old) != isStopped(state)) {
    if (isStopped(state)) {
      forEachEndPoint(server, endPointReleaseHostObject);
    } else {
      forEachEndPoint(server, endPointObtainHostObject);
    }
  }
  kyrFree(old);
  bool wasStarted = server->started;
  server->started = strcmp(state, "STARTED") == 0;
  if (server->started != wasStarted) {
    serverRecomputeSelectability(server);
    if (server->started) initRetry(server);
  }
  // A server that is not running is no longer slow: its policies are told so, and it starts
  // its measurements afresh when it comes back.
  if (!server->started) {
    hmCheckHealthPolicies(server->selector->kyr, nullptr, server, server->healthPolicies, 0, 0);
    initCalculators(server);
  }
}

}  // namespace

void initRetry(TargetServer* server) {
  TargetSelector* ts = server->selector;
  kyrPublish(server->nextRetryInterval, kInitialRetryInterval);
  kyrPublish(server->nextRetryTime, 0);
  trDebug(ts->trCtx, ts->controlRec, "initRetry: resetting retry interval and next retry time\n");
}

void initCalculators(TargetServer* server) {
  kyrAvgCalcInit(&server->avgResponseTimeCalc, kyrTimeFromSeconds(15));
  kyrTimeoutCalcInit(&server->timeoutCalc, kyrTimeFromSeconds(60));
  server->avgResponseTime = 0;
}

TargetServer* tsServerCreate(TargetNode* node, const char* name, KyrConnector* connector) {
  if (node == nullptr || name == nullptr) return nullptr;
  TargetSelector* ts = node->selector;
  auto* server = kyrNew<TargetServer>();
  server->name = kyrStrdup(name);
  server->type = KYRSERVERTYPE_UNKNOWN;
  server->refcnt = 1;
  server->node = node;
  server->selector = ts;
  server->connector = connector;
  server->state = kyrStrdup("STOPPED");
  server->weight = -1;
  server->connectTimeout = kDefaultConnectTimeoutSecs;
  server->ioTimeout = kDefaultIoTimeoutSecs;
  server->wsIoTimeout = kDefaultWsIoTimeoutSecs;
  server->wsIdleTimeout = kDefaultWsIdleTimeoutSecs;
  server->maxConnections = 99999;
  server->maintenanceMode = NormalMM;
  for (KyrList*& list : server->endPoints) list = kyrListCreate(nullptr);
  server->linkRequests = kyrListCreate(linkServerToWebModuleRequestDelete);
  server->serverApplications = kyrListCreate(nullptr);
  server->healthPolicies = kyrListCreate(hmHealthPolicyLinkDelete);
  {
    KyrLockGuard guard(ts->lock, "tsServerCreate");
    tsNodeObtainRef(node);
    server->registryEle = kyrListAddTail(ts->allServers, server);
    initRetry(server);
    initCalculators(server);
    // A new server is stopped; its verdicts say so from the start.
    serverRecomputeSelectability(server);
  }
  trDebug(ts->trCtx, ts->controlRec, "serverCreate: %s\n", name);
  return server;
}

bool tsServerInit(TargetServer* server) {
  KyrLockGuard guard(server->selector->lock, "tsServerInit");
  kyrListAddUnique(server->node->servers, server);
  return true;
}

void tsServerObtainRef(TargetServer* server) { ++server->refcnt; }

void tsServerReleaseRef(TargetServer* server) {
  if (--server->refcnt < 1) tsServerFree(server);
}

void tsServerDelete(TargetServer* server) {
  TargetSelector* ts = server->selector;
  KyrLockGuard guard(ts->lock, "tsServerDelete");
  // Its applications and endpoints, and requests, may keep the server's memory for a while;
  // the cell no longer has it, so neither affinity nor load balancing may find it meanwhile.
  server->deleted = true;
  leaveLookups(server);
  serverRecomputeSelectability(server);
  tsServerReleaseRef(server);
}

void tsServerFree(TargetServer* server) {
  TargetSelector* ts = server->selector;
  trDebug(ts->trCtx, ts->controlRec, "serverDelete: %s\n", server->name);
  kyrListDestroy(server->linkRequests);
  kyrListDestroy(server->serverApplications);
  kyrListDestroy(server->healthPolicies);
  // Applications and endpoints hold a reference on the server, so none is left here: either
  // they went first or the whole version is being deleted, which frees them first.
  for (KyrList* list : server->endPoints) kyrListDestroy(list);
  leaveLookups(server);
  if (server->cluster != nullptr) kyrListFindAndRemove(server->cluster->servers, server);
  kyrListRemove(ts->allServers, server->registryEle);
  TargetNode* node = server->node;
  kyrFree(server->name);
  kyrFree(server->state);
  kyrFree(server->cloneId);
  kyrFree(server->sessionAffinityCookies);
  kyrDelete(server);
  tsNodeReleaseRef(node);
}

// ---- Properties ----------------------------------------------------------------------------

void tsServerSetState(TargetServer* server, const char* state) {
  if (state == nullptr) return;
  KyrLockGuard guard(server->selector->lock, "tsServerSetState");
  setStateLocked(server, state);
}

void tsServerSetCloneId(TargetServer* server, const char* cloneId) {
  if (cloneId == nullptr || *cloneId == '\0') return;
  KyrLockGuard guard(server->selector->lock, "tsServerSetCloneId");
  // Deliberately first one wins: affinity cookies already issued carry the first clone ID.
  if (server->cloneId != nullptr) return;
  kyrPublish(server->cloneId, kyrStrdup(cloneId));
  kyrHashPut(server->selector->serverMapByCloneId, server->cloneId, server);
}

void tsServerSetMaintenanceMode(TargetServer* server, const char* mode) {
  KyrLockGuard guard(server->selector->lock, "tsServerSetMaintenanceMode");
  if (mode != nullptr) {
    if (strcmp(mode, "false") == 0) {
      server->maintenanceMode = NormalMM;
    } else if (strcmp(mode, "affinity") == 0) {
      server->maintenanceMode = AffinityMM;
    } else if (strcmp(mode, "break") == 0) {
      server->maintenanceMode = BreakMM;
    }
  }
  serverRecomputeSelectability(server);
}

void tsServerSetWeight(TargetServer* server, int weight) {
  KyrLockGuard guard(server->selector->lock, "tsServerSetWeight");
  int old = server->weight;
  server->weight = weight;
  if (old <= 0 || weight <= 0) serverRecomputeSelectability(server);
}

void tsServerSetSessionAffinityCookies(TargetServer* server, const char* cookies) {
  if (cookies == nullptr) return;
  KyrLockGuard guard(server->selector->lock, "tsServerSetSessionAffinityCookies");
  kyrReplaceCountedStr(&server->sessionAffinityCookies, cookies);
}

void tsServerSetType(TargetServer* server, KyrServerType type) {
  KyrLockGuard guard(server->selector->lock, "tsServerSetType");
  server->type = type;
}

void tsServerSetCloneSeparatorChange(TargetServer* server, bool change) {
  KyrLockGuard guard(server->selector->lock, "tsServerSetCloneSeparatorChange");
  server->cloneSeparatorChange = change;
}

bool tsServerSetPropStr(TargetServer* server, const char* name, const char* value) {
  if (name == nullptr) return false;
  if (isOwnServer(server)) return kyrSetServerCustomProperty(server->selector->kyr, name, value);
  if (strcmp(name, "id") == 0) {
    tsServerSetCloneId(server, value);
  } else if (strcmp(name, "state") == 0) {
    tsServerSetState(server, value);
  } else if (strcmp(name, "server.maintenancemode") == 0) {
    tsServerSetMaintenanceMode(server, value);
  } else if (strcmp(name, "sessionAffinityCookies") == 0) {
    tsServerSetSessionAffinityCookies(server, value);
  } else if (strcmp(name, "type") == 0) {
    tsServerSetType(server, convertToKyrServerTypeEnum(value));
  } else {
    return false;
  }
  return true;
}

bool tsServerSetPropInt(TargetServer* server, const char* name, int value) {
  if (name == nullptr) return false;
  if (strcmp(name, "weight") == 0) {
    tsServerSetWeight(server, value);
    return true;
  }
  static const struct {
    const char* name;
    int TargetServer::*field;
  } kFields[] = {
      {"connectTimeout", &TargetServer::connectTimeout},
      {"ioTimeout", &TargetServer::ioTimeout},
      {"wsIoTimeout", &TargetServer::wsIoTimeout},
      {"wsIdleTimeout", &TargetServer::wsIdleTimeout},
      {"maxConnections", &TargetServer::maxConnections},
  };
  for (const auto& f : kFields) {
    if (strcmp(name, f.name) == 0) {
      // Selection reads these under the lock; the endpoint getters hand them to the host
      // without it.
      KyrLockGuard guard(server->selector->lock, "tsServerSetPropInt");
      kyrPublish(server->*f.field, value);
      return true;
    }
  }
  return false;
}

bool tsServerSetPropBool(TargetServer* server, const char* name, bool value) {
  if (name == nullptr) return false;
  if (strcmp(name, "cloneSeparatorChange") == 0) {
    tsServerSetCloneSeparatorChange(server, value);
  } else if (strcmp(name, "waitForContinue") == 0) {
    kyrPublish(server->waitForContinue, value);
  } else if (strcmp(name, "extendedHandshake") == 0) {
    kyrPublish(server->extendedHandshake, value);
  } else {
    return false;
  }
  return true;
}

bool tsServerSetPropNull(TargetServer* server, const char* name) {
  if (isOwnServer(server)) return kyrSetServerCustomProperty(server->selector->kyr, name, nullptr);
  return true;
}

// ---- Getters -------------------------------------------------------------------------------

KyrServerType tsServerGetType(TargetServer* server) { return server->type; }
const char* tsServerGetName(TargetServer* server) { return server->name; }
const char* tsServerGetSessionAffinityCookies(TargetServer* server) {
  return server->sessionAffinityCookies;
}
bool tsServerGetCloneSeparatorChange(TargetServer* server) { return server->cloneSeparatorChange; }
const char* tsServerGetCloneId(TargetServer* server) { return server->cloneId; }
Cluster* tsServerGetCluster(TargetServer* server) { return server->cluster; }
TargetNode* tsServerGetNode(TargetServer* server) { return server->node; }
KyrConnector* tsServerGetConnector(TargetServer* server) { return server->connector; }

// ---- Selectability -------------------------------------------------------------------------

void serverRecomputeSelectability(TargetServer* server) {
  kyrLockAssertHeld(server->selector->lock);
  const char* noAffinity = nullptr;
  const char* noLoadBalancing = nullptr;
  if (server->deleted) {
    noAffinity = noLoadBalancing = "server was deleted";
  } else if (!server->started) {
    noAffinity = noLoadBalancing = "server is not started";
  } else if (server->maintenanceMode == BreakMM) {
    noAffinity = noLoadBalancing = "server is in break maintenance mode";
  } else if (server->weight < 1) {
    noLoadBalancing = "server weight is 0";
  } else if (server->maintenanceMode == AffinityMM) {
    noLoadBalancing = "server is in affinity maintenance mode";
  } else if (server->node->maintenanceMode) {
    noLoadBalancing = "server is on node in maintenance mode";
  }
  server->reasonForNoAffinity = noAffinity;
  server->reasonForNoLoadBalancing = noLoadBalancing;
  TargetSelector* ts = server->selector;
  trDebug(ts->trCtx, ts->controlRec, "serverRecomputeSelectability: reasonForNoAffinity: %s %s\n",
          server->name, kyrNullText(noAffinity));
  trDebug(ts->trCtx, ts->controlRec,
          "serverRecomputeSelectability: reasonForNoLoadBalancing: %s %s\n", server->name,
          kyrNullText(noLoadBalancing));
}

// ---- Back-off and calculators ----------------------------------------------------------------

// Every forwarded request reports its connect, and nearly every server has nothing to reset:
// that case is told from the back-off fields alone (written atomically under the lock), so the
// common report takes no selector lock. A failure racing with it is ordered after it, as it
// would be if the lock had been taken first.
void tsServerConnectSuccess(TargetServer* server) {
  TargetSelector* ts = server->selector;
  bool reset = kyrPublished(server->nextRetryInterval) == kInitialRetryInterval &&
               kyrPublished(server->nextRetryTime) == 0;
  if (reset && !trEnabled(ts->trCtx, ts->controlRec)) return;
  KyrLockGuard guard(ts->lock, "tsServerConnectSuccess");
  initRetry(server);
}

void tsServerConnectFailure(TargetServer* server) {
  TargetSelector* ts = server->selector;
  KyrLockGuard guard(ts->lock, "tsServerConnectFailure");
  KyrTime interval = server->nextRetryInterval;
  kyrPublish(server->nextRetryTime, kyrGetCurrentTime() + interval);
  kyrPublish(server->nextRetryInterval, std::min(interval * 10, kMaxRetryInterval));
  trDebug(ts->trCtx, ts->balanceRec,
          "tsServerConnectFailure: connect failure to the server %s; nextRetryInterval=%lu, "
          "nextRetryTime=%lu",
          server->name, static_cast<unsigned long>(server->nextRetryInterval),
          static_cast<unsigned long>(server->nextRetryTime));
}

void serverUpdateAvgResponseTime(TargetServer* server, KyrTime t) { server->avgResponseTime = t; }

}  // namespace kyr

// Server applications and the virtual clusters of web modules: an application's state decides
// whether the publisher is told its route is routable, and a module link waits for the
// application it names when the link arrives first.
#include <cstring>

#include "connector/kyrConnector.h"
#include "mapping/kyrRequestMapper.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "selection/kyrTargetSelector.h"
#include "selection/kyrTargetSelectorInternal.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

constexpr const char* kStoppedReason = "server application is STOPPED";

TargetServerApplication* findSapp(TargetServer* server, const char* appName) {
  for (KyrListEle* e = kyrListGetHead(server->serverApplications); e != nullptr;
       e = kyrListGetNext(e)) {
    auto* sapp = static_cast<TargetServerApplication*>(kyrListEleGetObject(e));
    if (strcmp(sapp->name, appName) == 0) return sapp;
  }
  return nullptr;
}

void rebuildSappArray(VirtualCluster* vc) {
  free(vc->sappArray);
  vc->sappArray = reinterpret_cast<TargetServerApplication**>(kyrListCreateArray(vc->sappList));
}

VirtualCluster* findOrCreateVirtualCluster(TargetSelector* ts, const char* moduleName) {
  auto* vc = static_cast<VirtualCluster*>(kyrHashGet(ts->virtualClusterMap, moduleName));
  if (vc != nullptr) return vc;
  vc = kyrNew<VirtualCluster>();
  vc->name = kyrStrdup(moduleName);
  vc->selector = ts;
  vc->sappList = kyrListCreate(nullptr);
  vc->clusterList = kyrListCreate(nullptr);
  rebuildSappArray(vc);
  kyrHashPut(ts->virtualClusterMap, vc->name, vc);
  return vc;
}

void virtualClusterAdd(VirtualCluster* vc, TargetServerApplication* sapp) {
  // Once only: a repeated link must not double the application's share of the load.
  if (kyrListAddUnique(vc->sappList, sapp)) rebuildSappArray(vc);
}

void virtualClusterRemove(VirtualCluster* vc, TargetServerApplication* sapp) {
  if (kyrListFindAndRemove(vc->sappList, sapp) == nullptr) return;
  rebuildSappArray(vc);
  vc->loadBalanceIndex = 0;
}

void postRoutingChange(TargetServerApplication* sapp, bool routable) {
  if (sapp->connector != nullptr)
    kyrConnectorPostRoutingChange(sapp->connector, sapp->path, routable);
}

// The selector lock must be held.
void setStateLocked(TargetServerApplication* sapp, const char* state) {
  if (sapp->state != nullptr && state != nullptr && strcmp(sapp->state, state) == 0) return;
  kyrReplaceCountedStr(&sapp->state, state);
  sappRecomputeSelectability(sapp);
  bool wasRoutable = sapp->routable;
  bool isRoutable = sapp->reasonForNoAffinity == nullptr;
  TargetServer* server = sapp->server;
  if (!wasRoutable && isRoutable) {
    for (KyrListEle* e = kyrListGetHead(server->linkRequests); e != nullptr;) {
      KyrListEle* next = kyrListGetNext(e);
      auto* request = static_cast<LinkServerToWebModuleRequest*>(kyrListEleGetObject(e));
      if (strcmp(request->appName, sapp->name) == 0 &&
          handleLinkServerToWebModuleRequest(server, request)) {
        kyrListDelete(server->linkRequests, e);
      }
      e = next;
    }
    postRoutingChange(sapp, true);
    sapp->routable = true;
  } else if (wasRoutable && !isRoutable && sapp->outstandingRequestCount == 0) {
    // With requests outstanding the publisher is told once they have drained.
    postRoutingChange(sapp, false);
    sapp->routable = false;
  }
  TargetSelector* ts = server->selector;
  trDebug(ts->trCtx, ts->controlRec,
          "serverApplicationSetState: path='%s' (%p), state='%s', wasRoutable=%d, "
          "isRoutable=%d, count=%d\n",
          sapp->path, static_cast<void*>(sapp), kyrNullText(sapp->state), wasRoutable ? 1 : 0,
          isRoutable ? 1 : 0, sapp->outstandingRequestCount);
}

}  // namespace

// ---- Server applications -------------------------------------------------------------------

TargetServerApplication* tsServerApplicationCreate(TargetServer* server, const char* path,
                                                   KyrConnector* connector) {
  if (server == nullptr || path == nullptr) return nullptr;
  TargetSelector* ts = server->selector;
  auto* sapp = kyrNew<TargetServerApplication>();
  char* name = kyrPathToName(path);  // a plain copy
  sapp->name = kyrStrdup(name);
  free(name);
  sapp->path = kyrStrdup(path);
  sapp->refcnt = 1;
  sapp->server = server;
  sapp->state = kyrStrdup("STOPPED");
  sapp->reasonForNoLoadBalancing = kStoppedReason;
  sapp->reasonForNoAffinity = kStoppedReason;
  sapp->connector = connector;
  if (connector != nullptr) kyrConnectorObtainRef(connector, "tsServerApplicationCreate");
  {
    KyrLockGuard guard(ts->lock, "tsServerApplicationCreate");
    tsServerObtainRef(server);
    sapp->registryEle = kyrListAddTail(ts->allSapps, sapp);
    kyrListAddTail(server->serverApplications, sapp);
  }
  trDebug(ts->trCtx, ts->controlRec, "tsServerApplicationCreate: name='%s', path='%s' (%p)\n",
          sapp->name, sapp->path, static_cast<void*>(sapp));
  return sapp;
}

void tsServerApplicationInit(TargetServerApplication*) {}

void tsServerApplicationObtainRef(TargetServerApplication* sapp) { ++sapp->refcnt; }

void tsServerApplicationReleaseRef(TargetServerApplication* sapp) {
  if (--sapp->refcnt >= 1) return;
  // A routable application going away tells its publisher, as a stop would.
  setStateLocked(sapp, "STOPPED");
  tsServerApplicationFree(sapp);
}

void tsServerApplicationDelete(TargetServerApplication* sapp) {
  KyrLockGuard guard(sapp->server->selector->lock, "tsServerApplicationDelete");
  tsServerApplicationReleaseRef(sapp);
}

void tsServerApplicationFree(TargetServerApplication* sapp) {
  TargetServer* server = sapp->server;
  TargetSelector* ts = server->selector;
  if (sapp->connector != nullptr)
    kyrConnectorReleaseRef(sapp->connector, "serverApplicationDelete");
  virtualClustersRemoveSapp(ts, sapp);
  kyrListFindAndRemove(server->serverApplications, sapp);
  kyrListRemove(ts->allSapps, sapp->registryEle);
  kyrFree(sapp->name);
  kyrFree(sapp->path);
  kyrFree(sapp->state);
  kyrDelete(sapp);
  tsServerReleaseRef(server);
}

bool tsServerApplicationSetPropStr(TargetServerApplication* sapp, const char* name,
                                   const char* value) {
  if (name == nullptr || strcmp(name, "state") != 0) return false;
  serverApplicationSetState(sapp, value);
  return true;
}

bool tsServerApplicationSetPropInt(TargetServerApplication*, const char*, int) { return false; }
bool tsServerApplicationSetPropBool(TargetServerApplication*, const char*, bool) { return false; }

void serverApplicationSetState(TargetServerApplication* sapp, const char* state) {
  KyrLockGuard guard(sapp->server->selector->lock, "serverApplicationSetState");
  setStateLocked(sapp, state);
}

TargetServer* tsServerApplicationGetServer(TargetServerApplication* sapp) { return sapp->server; }

void sappRecomputeSelectability(TargetServerApplication* sapp) {
  const char* noAffinity;
  const char* noLoadBalancing;
  const char* state = sapp->state;
  if (state == nullptr) {
    noAffinity = noLoadBalancing = "null state";
  } else if (kyrStrCmpIgnoreCase(state, "STARTED") == 0) {
    noAffinity = noLoadBalancing = nullptr;
  } else if (kyrStrCmpIgnoreCase(state, "AFFINITY") == 0) {
    noAffinity = nullptr;
    noLoadBalancing = "in affinity mode";
  } else if (kyrStrCmpIgnoreCase(state, "QUIESCING") == 0) {
    noAffinity = noLoadBalancing = "in QUIESCING state";
  } else if (kyrStrCmpIgnoreCase(state, "QUIESCED") == 0) {
    noAffinity = noLoadBalancing = "in QUIESCE state";
  } else {
    noAffinity = noLoadBalancing = "not STARTED";
  }
  sapp->reasonForNoAffinity = noAffinity;
  sapp->reasonForNoLoadBalancing = noLoadBalancing;
  TargetSelector* ts = sapp->server->selector;
  trDebug(ts->trCtx, ts->controlRec, "sappRecomputeSelectability: reasonForNoAffinity: %s %s\n",
          sapp->path, kyrNullText(noAffinity));
  trDebug(ts->trCtx, ts->controlRec,
          "sappRecomputeSelectability: reasonForNoLoadBalancing: %s %s\n", sapp->path,
          kyrNullText(noLoadBalancing));
}

namespace {

const char* serverVerdict(TargetServerApplication* sapp, const char* sappReason,
                          const char* serverReason, KyrTime now) {
  if (sappReason != nullptr) return sappReason;
  if (serverReason != nullptr) return serverReason;
  if (now < sapp->server->nextRetryTime) return "connect failure";
  if (sapp->server->cluster == nullptr) return "no cluster associated with the server";
  return nullptr;
}

}  // namespace

const char* sappIsSelectableForAffinity(TargetServerApplication* sapp, KyrTime now) {
  return serverVerdict(sapp, sapp->reasonForNoAffinity, sapp->server->reasonForNoAffinity, now);
}

const char* sappIsSelectableForLoadBalancing(TargetServerApplication* sapp, KyrTime now) {
  return serverVerdict(sapp, sapp->reasonForNoLoadBalancing, sapp->server->reasonForNoLoadBalancing,
                       now);
}

// ---- Virtual clusters ----------------------------------------------------------------------

VirtualCluster* tsVirtualClusterCreate(TargetSelector* ts, WebModule* webModule,
                                       const char* moduleName) {
  if (moduleName == nullptr) return nullptr;
  KyrLockGuard guard(ts->lock, "tsVirtualClusterCreate");
  VirtualCluster* vc = findOrCreateVirtualCluster(ts, moduleName);
  vc->webModule = webModule;
  vc->cluster = nullptr;
  return vc;
}

void tsVirtualClusterDelete(VirtualCluster* vc) {
  TargetSelector* ts = vc->selector;
  KyrLockGuard guard(ts->lock, "tsVirtualClusterDelete");
  // Only our own entry: a later virtual cluster of the same module may have replaced it.
  if (kyrHashGet(ts->virtualClusterMap, vc->name) == vc) {
    kyrHashPut(ts->virtualClusterMap, vc->name, nullptr);
  }
  virtualClusterFree(vc);
}

void virtualClusterFree(void* p) {
  auto* vc = static_cast<VirtualCluster*>(p);
  kyrListDestroy(vc->sappList);
  kyrListDestroy(vc->clusterList);
  free(vc->sappArray);
  kyrFree(vc->name);
  kyrDelete(vc);
}

void virtualClustersRemoveSapp(TargetSelector* ts, TargetServerApplication* sapp) {
  KyrHashIterator hi;
  for (kyrHashIteratorStart(ts->virtualClusterMap, &hi); kyrHashNext(&hi) != nullptr;) {
    virtualClusterRemove(static_cast<VirtualCluster*>(kyrHashThisVal(&hi)), sapp);
  }
}

// ---- Module links --------------------------------------------------------------------------

void linkServerToWebModuleRequestDelete(void* p) {
  auto* request = static_cast<LinkServerToWebModuleRequest*>(p);
  kyrFree(request->appName);
  kyrFree(request->moduleName);
  kyrDelete(request);
}

bool handleLinkServerToWebModuleRequest(TargetServer* server,
                                        const LinkServerToWebModuleRequest* request) {
  TargetSelector* ts = server->selector;
  TargetServerApplication* sapp = findSapp(server, request->appName);
  if (sapp == nullptr) {
    trDebug(ts->trCtx, ts->controlRec,
            "virtualClusterAdd: defer because sapp '%s' was not found for server '%s'\n",
            request->appName, server->name);
    return false;
  }
  trDebug(ts->trCtx, ts->controlRec, "virtualClusterAdd: module='%s', appName='%s'\n",
          request->moduleName, request->appName);
  virtualClusterAdd(findOrCreateVirtualCluster(ts, request->moduleName), sapp);
  return true;
}

bool tsLinkServerToWebModuleByName(TargetServer* server, const char* moduleName,
                                   const char* appName, bool add) {
  if (server == nullptr || moduleName == nullptr || appName == nullptr) return false;
  TargetSelector* ts = server->selector;
  trTrace(ts->trCtx, ts->controlRec, TR_LEVEL_DEBUG,
          "tsLinkServerToWebModule: server='%s', module='%s', app='%s', add=%d\n", server->name,
          moduleName, appName, add ? 1 : 0);
  KyrLockGuard guard(ts->lock, "tsLinkServerToWebModule");
  if (add) {
    auto* request = kyrNew<LinkServerToWebModuleRequest>();
    request->appName = kyrStrdup(appName);
    request->moduleName = kyrStrdup(moduleName);
    if (handleLinkServerToWebModuleRequest(server, request)) {
      linkServerToWebModuleRequestDelete(request);
    } else {
      kyrListAddTail(server->linkRequests, request);
    }
  } else {
    // A link still waiting for its application is withdrawn too, or it would appear later.
    for (KyrListEle* e = kyrListGetHead(server->linkRequests); e != nullptr;) {
      KyrListEle* next = kyrListGetNext(e);
      auto* request = static_cast<LinkServerToWebModuleRequest*>(kyrListEleGetObject(e));
      if (strcmp(request->appName, appName) == 0 && strcmp(request->moduleName, moduleName) == 0) {
        kyrListDelete(server->linkRequests, e);
      }
      e = next;
    }
    auto* vc = static_cast<VirtualCluster*>(kyrHashGet(ts->virtualClusterMap, moduleName));
    TargetServerApplication* sapp = findSapp(server, appName);
    if (vc != nullptr && sapp != nullptr) virtualClusterRemove(vc, sapp);
  }
  return true;
}

bool tsLinkServerToWebModule(TargetServer* server, WebModule* webModule, bool add) {
  if (webModule == nullptr) return false;
  return tsLinkServerToWebModuleByName(server, rmWebModuleGetName(webModule),
                                       rmWebModuleGetAppSimpleName(webModule), add);
}

}  // namespace kyr

// The target selector of one routing-information version with its nodes, clusters and partition
// data, the text conversions of the model's enums, and the linking of clusters to servers and
// to virtual clusters. Servers, applications and endpoints live in their own files.
#include "selection/kyrTargetSelector.h"

#include <cstring>

#include "core/kyrRoutingInfo.h"
#include "health/hmHealthPolicy.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "runtime/kyrUtil.h"
#include "selection/kyrTargetSelectorInternal.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// List destructors of a version being deleted: nothing holds these objects any more, so they
// are freed regardless of their counts (the counts only defer frees while requests run).
void nodeDestroy(void* node) { tsNodeFree(static_cast<TargetNode*>(node)); }
void clusterDestroy(void* cluster) { tsClusterFree(static_cast<Cluster*>(cluster)); }
void serverDestroy(void* server) { tsServerFree(static_cast<TargetServer*>(server)); }
void sappDestroy(void* sapp) {
  tsServerApplicationFree(static_cast<TargetServerApplication*>(sapp));
}
void endPointDestroy(void* tep) { tsEndPointFree(static_cast<KyrTargetEndpoint*>(tep)); }

void freeUntilEmpty(KyrList* list, KyrDestructorFcn destroy) {
  // Each free removes its own element, so always take the head afresh.
  while (!kyrListIsEmpty(list)) destroy(kyrListEleGetObject(kyrListGetHead(list)));
}

void clusterRecomputeHead(VirtualCluster* vc) {
  vc->cluster = static_cast<Cluster*>(kyrListEleGetObject(kyrListGetHead(vc->clusterList)));
}

}  // namespace

// ---- Text conversions ----------------------------------------------------------------------

KyrServerType convertToKyrServerTypeEnum(const char* text) {
  static const struct {
    const char* text;
    KyrServerType type;
  } kTypes[] = {
      {"APPLICATION_SERVER", KYRSERVERTYPE_APPLICATION_SERVER},
      {"NODE_AGENT", KYRSERVERTYPE_NODE_AGENT},
      {"DEPLOYMENT_MANAGER", KYRSERVERTYPE_DEPLOYMENT_MANAGER},
      {"WEB_SERVER", KYRSERVERTYPE_WEB_SERVER},
      {"BRAMBLE_SERVER", KYRSERVERTYPE_BRAMBLE_SERVER},
  };
  if (text == nullptr) return KYRSERVERTYPE_UNKNOWN;
  for (const auto& t : kTypes) {
    if (strcmp(text, t.text) == 0) return t.type;
  }
  return KYRSERVERTYPE_UNKNOWN;
}

const char* mm2str(MaintenanceMode mode) {
  switch (mode) {
    case NormalMM:
      return "normal";
    case AffinityMM:
      return "affinity";
    case BreakMM:
      return "break";
  }
  return "unknown server maintenance mode";
}

int getProtoIndex(const char* protocol) {
  if (protocol == nullptr) return -1;
  if (strcmp(protocol, "http") == 0) return kHttpProtoIndex;
  if (strcmp(protocol, "https") == 0) return kHttpsProtoIndex;
  return -1;
}

const char* getProtoName(int index) {
  if (index == kHttpProtoIndex) return "http";
  if (index == kHttpsProtoIndex) return "https";
  return "invalidProtocol";
}

// ---- Selector ------------------------------------------------------------------------------

TargetSelector* tsCreate(KyrRoutingInfo* ri) {
  auto* ts = kyrNew<TargetSelector>();
  ts->ri = ri;
  ts->kyr = ri->kyr;
  ts->lock = kyrLockCreate("TargetSelector");
  ts->virtualClusterMap = kyrHashMapCreate2(virtualClusterFree);
  ts->serverMapByCloneId = kyrHashMapCreate();
  ts->nodes = kyrListCreate(nullptr);
  ts->clusters = kyrListCreate(nullptr);
  ts->allServers = kyrListCreate(nullptr);
  ts->allSapps = kyrListCreate(nullptr);
  ts->allEndPoints = kyrListCreate(nullptr);
  TrMgr* mgr = ts->kyr->trMgr;
  ts->trCtx = trMgrGetDefaultContext(mgr);
  ts->selectRec = trRecordGet(mgr, "http.request.select.process");
  ts->rolloutRec = trRecordGet(mgr, "http.request.select.editionRollout");
  ts->affinityRec = trRecordGet(mgr, "http.request.select.affinity.process");
  ts->keepAffinityRec = trRecordGet(mgr, "http.request.select.affinity.keep");
  ts->breakAffinityRec = trRecordGet(mgr, "http.request.select.affinity.break");
  ts->balanceRec = trRecordGet(mgr, "http.request.select.balance");
  ts->error503Rec = trRecordGet(mgr, "http.response.error.503");
  ts->controlRec = trRecordGet(mgr, "control.selector");
  ts->serverStateRec = trRecordGet(mgr, "control.serverStateChange");
  trDebug(ts->trCtx, ts->controlRec, "TargetSelector created\n");
  return ts;
}

KyrRoutingInfo* tsGetRoutingInfo(TargetSelector* ts) { return ts->ri; }

void tsDelete(TargetSelector* ts) {
  if (ts == nullptr) return;
  {
    KyrLockGuard guard(ts->lock, "tsDelete");
    // Virtual clusters go first: they only borrow their server applications, and an
    // application freed while they exist would search every one of them.
    kyrHashMapClean(ts->virtualClusterMap);
    // Children next: each free unlinks itself from parents that are still there.
    freeUntilEmpty(ts->allSapps, sappDestroy);
    freeUntilEmpty(ts->allEndPoints, endPointDestroy);
    freeUntilEmpty(ts->allServers, serverDestroy);
    freeUntilEmpty(ts->clusters, clusterDestroy);
    freeUntilEmpty(ts->nodes, nodeDestroy);
    kyrListDestroy(ts->allSapps);
    kyrListDestroy(ts->allEndPoints);
    kyrListDestroy(ts->allServers);
    kyrListDestroy(ts->clusters);
    kyrListDestroy(ts->nodes);
    kyrHashMapDestroy(ts->serverMapByCloneId);
    kyrHashMapDestroy(ts->virtualClusterMap);
  }
  kyrLockDestroy(ts->lock);
  kyrDelete(ts);
}

// ---- Nodes ---------------------------------------------------------------------------------

TargetNode* tsNodeCreate(TargetSelector* ts, const char* name) {
  auto* node = kyrNew<TargetNode>();
  node->name = kyrStrdup(name);
  node->refcnt = 1;
  node->selector = ts;
  node->servers = kyrListCreate(nullptr);
  {
    KyrLockGuard guard(ts->lock, "tsNodeCreate");
    kyrListAddTail(ts->nodes, node);
  }
  trDebug(ts->trCtx, ts->controlRec, "nodeCreate: %s\n", name);
  return node;
}

const char* tsNodeGetName(TargetNode* node) { return node->name; }

void tsNodeObtainRef(TargetNode* node) { ++node->refcnt; }

void tsNodeReleaseRef(TargetNode* node) {
  TargetSelector* ts = node->selector;
  if (--node->refcnt < 1) {
    trDebug(ts->trCtx, ts->controlRec, "nodeDelete: delete %s\n", node->name);
    tsNodeFree(node);
  } else {
    trDebug(ts->trCtx, ts->controlRec, "nodeDelete: release %s (refcnt=%d)\n", node->name,
            node->refcnt);
  }
}

void tsNodeDelete(TargetNode* node) {
  KyrLockGuard guard(node->selector->lock, "tsNodeDelete");
  tsNodeReleaseRef(node);
}

void tsNodeFree(TargetNode* node) {
  // Servers hold a reference on their node, so only a version's deletion gets here with servers
  // still listed; they are freed by then.
  kyrListFindAndRemove(node->selector->nodes, node);
  kyrListDestroy(node->servers);
  kyrFree(node->name);
  kyrDelete(node);
}

bool tsNodeSetPropStr(TargetNode* node, const char* name, const char* value) {
  if (name == nullptr || strcmp(name, "cp.node.maintenancemode") != 0 || value == nullptr) {
    return false;
  }
  bool mode;
  if (strcmp(value, "true") == 0) {
    mode = true;
  } else if (strcmp(value, "false") == 0) {
    mode = false;
  } else {
    return false;
  }
  KyrLockGuard guard(node->selector->lock, "tsNodeSetPropStr");
  node->maintenanceMode = mode;
  for (KyrListEle* e = kyrListGetHead(node->servers); e != nullptr; e = kyrListGetNext(e)) {
    serverRecomputeSelectability(static_cast<TargetServer*>(kyrListEleGetObject(e)));
  }
  return true;
}

// ---- Clusters ------------------------------------------------------------------------------

Cluster* tsClusterCreate(TargetSelector* ts, const char* name) {
  auto* cluster = kyrNew<Cluster>();
  cluster->name = kyrStrdup(name);
  cluster->refcnt = 1;
  cluster->serverType = KYRSERVERTYPE_UNKNOWN;
  cluster->servers = kyrListCreate(nullptr);
  cluster->selector = ts;
  cluster->ioTimeoutRetry = -1;
  {
    KyrLockGuard guard(ts->lock, "tsClusterCreate");
    kyrListAddTail(ts->clusters, cluster);
  }
  trDebug(ts->trCtx, ts->controlRec, "Created cluster %p for %s\n", static_cast<void*>(cluster),
          name);
  return cluster;
}

const char* tsClusterGetName(Cluster* cluster) { return cluster->name; }

void tsClusterObtainRef(Cluster* cluster) { ++cluster->refcnt; }

void tsClusterReleaseRef(Cluster* cluster) {
  if (--cluster->refcnt < 1) tsClusterFree(cluster);
}

void tsClusterDelete(Cluster* cluster) {
  KyrLockGuard guard(cluster->selector->lock, "tsClusterDelete");
  tsClusterReleaseRef(cluster);
}

void tsClusterFree(Cluster* cluster) {
  TargetSelector* ts = cluster->selector;
  trDebug(ts->trCtx, ts->controlRec, "Deleting the cluster %p -- %s\n", static_cast<void*>(cluster),
          cluster->name);
  kyrListFindAndRemove(ts->clusters, cluster);
  // Members and modules point back at the cluster without holding it; they must not keep a
  // pointer to freed memory when the routing data deletes a cluster before unlinking it.
  for (KyrListEle* e = kyrListGetHead(cluster->servers); e != nullptr; e = kyrListGetNext(e)) {
    auto* server = static_cast<TargetServer*>(kyrListEleGetObject(e));
    if (server->cluster == cluster) server->cluster = nullptr;
  }
  virtualClustersRemoveCluster(ts, cluster);
  kyrListDestroy(cluster->servers);
  tsPartitionIDDataDelete(cluster->partitionIDData);
  kyrFree(cluster->sessionAffinityCookies);
  kyrFree(cluster->cloneIdSeparator);
  kyrFree(cluster->name);
  kyrDelete(cluster);
}

void tsClusterSetCloneIdSeparator(Cluster* cluster, const char* separator) {
  if (separator == nullptr) return;
  KyrLockGuard guard(cluster->selector->lock, "tsClusterSetCloneIdSeparator");
  kyrReplaceCountedStr(&cluster->cloneIdSeparator, separator);
}

void tsClusterSetSessionAffinityCookies(Cluster* cluster, const char* cookies) {
  if (cookies == nullptr) return;
  KyrLockGuard guard(cluster->selector->lock, "tsClusterSetSessionAffinityCookies");
  kyrReplaceCountedStr(&cluster->sessionAffinityCookies, cookies);
}

void tsClusterSetServerType(Cluster* cluster, KyrServerType type) {
  KyrLockGuard guard(cluster->selector->lock, "tsClusterSetServerType");
  cluster->serverType = type;
}
void tsClusterSetIoTimeoutRetry(Cluster* cluster, int retry) {
  // The endpoint getters hand it to the host without the lock.
  KyrLockGuard guard(cluster->selector->lock, "tsClusterSetIoTimeoutRetry");
  kyrPublish(cluster->ioTimeoutRetry, retry);
}
void tsClusterSetLearnServerIds(Cluster* cluster, bool learn) {
  KyrLockGuard guard(cluster->selector->lock, "tsClusterSetLearnServerIds");
  cluster->learnServerIds = learn;
}

bool tsClusterSetPropStr(Cluster* cluster, const char* name, const char* value) {
  if (name == nullptr) return false;
  if (strcmp(name, "cloneIdSeparator") == 0) {
    tsClusterSetCloneIdSeparator(cluster, value);
  } else if (strcmp(name, "cookieNames") == 0) {
    tsClusterSetSessionAffinityCookies(cluster, value);
  } else if (strcmp(name, "serverType") == 0) {
    tsClusterSetServerType(cluster, convertToKyrServerTypeEnum(value));
  } else if (strcmp(name, "appEditionRolloutState") == 0) {
    // Only the first five characters count: "BEGIN_..." variants all start a rollout.
    KyrLockGuard guard(cluster->selector->lock, "tsClusterSetPropStr");
    cluster->editionRolloutInProgress = value != nullptr && strncmp(value, "BEGIN", 5) == 0;
  } else {
    return false;
  }
  return true;
}

bool tsClusterSetPropInt(Cluster* cluster, const char* name, int value) {
  if (name == nullptr || strcmp(name, "ioTimeoutRetry") != 0) return false;
  tsClusterSetIoTimeoutRetry(cluster, value);
  return true;
}

bool tsClusterSetPropBool(Cluster* cluster, const char* name, bool value) {
  if (name == nullptr || strcmp(name, "learnCloneIds") != 0) return false;
  tsClusterSetLearnServerIds(cluster, value);
  return true;
}

// ---- Links ---------------------------------------------------------------------------------

void tsLinkServerToHealthPolicy(TargetServer* server, HealthPolicy* policy, bool add) {
  if (server == nullptr || policy == nullptr) return;
  KyrLockGuard guard(server->selector->lock, "tsLinkServerToHealthPolicy");
  hmLinkServerToHealthPolicy(server->selector->kyr, server, server->healthPolicies, policy, add);
}

bool tsLinkClusterServer(Cluster* cluster, TargetServer* server, bool add) {
  TargetSelector* ts = cluster->selector;
  KyrLockGuard guard(ts->lock, "tsLinkClusterServer");
  if (add) {
    if (server->cluster != nullptr && server->cluster != cluster) {
      // A server is a member of one cluster: moving it must not leave it listed in the old one.
      kyrListFindAndRemove(server->cluster->servers, server);
    }
    kyrListAddUnique(cluster->servers, server);
    server->cluster = cluster;
    trDebug(ts->trCtx, ts->controlRec,
            "tsLinkClusterServer: Added server %s to the cluster %s. cluster->servers size %d\n",
            server->name, cluster->name, kyrListGetCount(cluster->servers));
  } else if (server->cluster == cluster) {
    kyrListFindAndRemove(cluster->servers, server);
    server->cluster = nullptr;
    trDebug(ts->trCtx, ts->controlRec,
            "tsLinkClusterServer: Removed server %s from the cluster %s. cluster->servers size "
            "%d\n",
            server->name, cluster->name, kyrListGetCount(cluster->servers));
  }
  return true;
}

void tsServerSetCluster(TargetServer* server, Cluster* cluster) {
  if (server != nullptr && cluster != nullptr) server->cluster = cluster;
}

bool tsLinkVirtualClusterToCluster(VirtualCluster* vc, Cluster* cluster, bool add) {
  KyrLockGuard guard(vc->selector->lock, "tsLinkVirtualClusterToCluster");
  if (add) {
    kyrListAddUnique(vc->clusterList, cluster);
  } else {
    kyrListFindAndRemove(vc->clusterList, cluster);
  }
  clusterRecomputeHead(vc);
  return true;
}

void virtualClustersRemoveCluster(TargetSelector* ts, Cluster* cluster) {
  KyrHashIterator hi;
  for (kyrHashIteratorStart(ts->virtualClusterMap, &hi); kyrHashNext(&hi) != nullptr;) {
    auto* vc = static_cast<VirtualCluster*>(kyrHashThisVal(&hi));
    if (kyrListFindAndRemove(vc->clusterList, cluster) != nullptr) clusterRecomputeHead(vc);
  }
}

// ---- Partition data ------------------------------------------------------------------------

PartitionIDData* tsPartitionIDDataCreate(KyrHashMap* map, const char* version) {
  auto* data = kyrNew<PartitionIDData>();
  data->partition2CloneIdMap = map;
  data->version = kyrStrdup(version);
  return data;
}

PartitionIDData* tsDefaultPartitionIDData() {
  return tsPartitionIDDataCreate(kyrHashMapCreate2([](void* v) { kyrFree(v); }), "-1");
}

const char* tsPartitionIDDataGetVersion(PartitionIDData* data) {
  return data != nullptr ? data->version : nullptr;
}

void tsPartitionIDDataDelete(PartitionIDData* data) {
  if (data == nullptr) return;
  kyrHashMapDestroy(data->partition2CloneIdMap);
  kyrFree(data->version);
  kyrDelete(data);
}

}  // namespace kyr

// The target model of one routing-information version: nodes, clusters, servers (cluster
// members) with their endpoints, the applications on each server, and one virtual cluster per
// web module listing the server applications that can serve it. The routing-data reader builds
// it through the create/setProp/init/delete/link calls below; target selection reads the fields
// and the selectability verdicts under the selector lock.
//
// Implementation files: kyrTargetSelector.cpp (selector, nodes, clusters, partition data),
// kyrTargetServer.cpp (servers, state, back-off), kyrServerApplication.cpp (server applications
// and virtual clusters), kyrTargetEndpoint.cpp (endpoints and their host objects),
// kyrTargetSelectorJson.cpp (state dumps); target selection for one request in
// kyrTargetSelect.cpp (tsSelect, endpoints, protocol maps), kyrAffinity.cpp (affinity policies,
// session and clone IDs) and kyrLoadBalance.cpp (load balancing, completion, request references).
#pragma once

#include <jansson.h>

#include <string>

#include "kyrlib.h"
#include "runtime/kyrHash.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrList.h"
#include "runtime/kyrLock.h"
#include "runtime/kyrTime.h"

namespace kyr {

struct KyrRoutingInfo;
struct WebModule;           // the request mapper's module object; only stored here
struct HttpAffinityPolicy;  // owned by its web module; a virtual cluster only caches it
struct TargetSelector;
struct TargetServer;

enum MaintenanceMode { NormalMM = 0, AffinityMM = 1, BreakMM = 2 };

// Reference counts of every model object below start at 1 (the routing data's hold, dropped
// by the object's delete call); each request routed to an object adds one, and a child (server
// application, endpoint, server) holds one on its parent (server, server, node) so that the
// routing data may delete objects in any order. All counts are guarded by the selector lock.
// Each object starts on a cache line of its own, and what every request changes (the counts,
// the load-balancing rotation, the response-time calculators) lies on a line after the fields
// that requests only read: two request threads on two cores go through the same objects, and
// each write moves the written line to the writer's core. Read-only lines stay in both.

struct HealthPolicy;

struct alignas(kCacheLineSize) TargetNode {
  char* name;
  bool maintenanceMode;  // guarded by selector->lock
  TargetSelector* selector;
  KyrList* servers;  // of TargetServer, not owning; guarded by selector->lock
  alignas(kCacheLineSize) int refcnt;
};

struct PartitionIDData {
  KyrHashMap* partition2CloneIdMap;  // partition ID -> clone ID
  char* version;
};

struct alignas(kCacheLineSize) Cluster {
  char* name;
  // The cluster's fields are guarded by selector->lock: affinity policies are built from them
  // on request threads.
  char* sessionAffinityCookies;  // comma separated cookie names, or null
  char* cloneIdSeparator;
  bool learnServerIds;
  KyrServerType serverType;
  KyrList* servers;  // of TargetServer, not owning
  TargetSelector* selector;
  PartitionIDData* partitionIDData;
  bool editionRolloutInProgress;
  int ioTimeoutRetry;  // -1: not set
  alignas(kCacheLineSize) int refcnt;
};

struct LinkServerToWebModuleRequest {
  char* appName;
  char* moduleName;
};

enum { kHttpProtoIndex = 0, kHttpsProtoIndex = 1, kProtoCount = 2 };

// One cluster member. Unless a field says otherwise it is guarded by selector->lock.
struct alignas(kCacheLineSize) TargetServer {
  char* name;  // the full object name
  KyrServerType type;
  TargetNode* node;  // the server holds a reference on it
  TargetSelector* selector;
  KyrConnector* connector;  // the connector that published the server; not dereferenced here
  char* state;
  char* cloneId;  // set once, published: responses read it without the lock
  char* sessionAffinityCookies;
  bool cloneSeparatorChange;
  bool started;  // state is exactly "STARTED"
  bool deleted;  // the routing data deleted it; only references keep it
  int weight;    // below 1: never chosen by load balancing
  // Handed to the host through the endpoint getters without the lock (plain stores).
  int connectTimeout;
  int ioTimeout;
  int wsIoTimeout;
  int wsIdleTimeout;
  int maxConnections;  // negative: unlimited
  bool waitForContinue;
  bool extendedHandshake;
  MaintenanceMode maintenanceMode;
  const char* reasonForNoLoadBalancing;  // static text; null: load balancing may pick it
  const char* reasonForNoAffinity;       // static text; null: affinity may pick it
  KyrList* endPoints[kProtoCount];       // of KyrTargetEndpoint: "http", "https"
  // The connect back-off: written under the lock with atomic stores, because a connect success
  // reads both without it to see whether there is anything to reset.
  KyrTime nextRetryInterval;
  KyrTime nextRetryTime;  // not selectable before this time
  struct Cluster* cluster;
  KyrList* linkRequests;        // of LinkServerToWebModuleRequest, owning
  KyrList* serverApplications;  // of TargetServerApplication, not owning
  KyrList* healthPolicies;      // of HealthPolicyLink, owning
  KyrListEle* registryEle;      // this server's element in selector->allServers
  alignas(kCacheLineSize) int refcnt;
  int outstandingRequestCount;
  KyrTime avgResponseTime;
  KyrAvgCalc avgResponseTimeCalc;
  KyrTimeoutCalc timeoutCalc;
};

// One application on one server ("sapp"). Fields guarded by server->selector->lock.
struct alignas(kCacheLineSize) TargetServerApplication {
  char* name;            // the application name: the last segment of path
  char* path;            // the full object name
  TargetServer* server;  // the sapp holds a reference on it
  char* state;
  const char* reasonForNoLoadBalancing;
  const char* reasonForNoAffinity;
  bool routable;            // the publisher was last told that this route is routable
  KyrConnector* connector;  // a reference is held while the sapp lives
  KyrListEle* registryEle;  // element in selector->allSapps
  alignas(kCacheLineSize) int refcnt;
  int outstandingRequestCount;
};

// One web module's view of the servers able to serve it.
struct alignas(kCacheLineSize) VirtualCluster {
  char* name;  // module name; the key of selector->virtualClusterMap
  TargetSelector* selector;
  KyrList* sappList;                    // of TargetServerApplication, not owning
  TargetServerApplication** sappArray;  // null-terminated copy of sappList (plain allocation)
  KyrList* clusterList;                 // of Cluster, not owning
  struct Cluster* cluster;              // head of clusterList, or null
  WebModule* webModule;
  alignas(kCacheLineSize) int loadBalanceIndex;
};

struct TargetSelector {
  Kyr* kyr;
  KyrRoutingInfo* ri;
  KyrLock* lock;  // the selector lock
  // Everything below is guarded by lock.
  KyrHashMap* virtualClusterMap;   // module name -> VirtualCluster, owning
  KyrHashMap* serverMapByCloneId;  // clone ID -> TargetServer, not owning
  KyrList* nodes;                  // of TargetNode
  KyrList* clusters;               // of Cluster
  // Every live server, server application and endpoint of this version, whether or not it
  // reached the model's lists, so that deleting the version frees them all.
  KyrList* allServers;
  KyrList* allSapps;
  KyrList* allEndPoints;
  TrContext* trCtx;
  TrRecord* selectRec;
  TrRecord* rolloutRec;
  TrRecord* affinityRec;
  TrRecord* keepAffinityRec;
  TrRecord* breakAffinityRec;
  TrRecord* balanceRec;
  TrRecord* error503Rec;
  TrRecord* controlRec;
  TrRecord* serverStateRec;
};

// ---- Text conversions ----------------------------------------------------------------------
KyrServerType convertToKyrServerTypeEnum(const char* text);  // exact match; else UNKNOWN
const char* mm2str(MaintenanceMode mode);
int getProtoIndex(const char* protocol);  // "http" 0, "https" 1, else -1
const char* getProtoName(int index);      // "invalidProtocol" outside 0..1

// ---- Selector ------------------------------------------------------------------------------
TargetSelector* tsCreate(KyrRoutingInfo* ri);
KyrRoutingInfo* tsGetRoutingInfo(TargetSelector* ts);
// Frees every object of the model. Only for a version no request holds any more.
void tsDelete(TargetSelector* ts);

// ---- Nodes ---------------------------------------------------------------------------------
TargetNode* tsNodeCreate(TargetSelector* ts, const char* name);
const char* tsNodeGetName(TargetNode* node);
void tsNodeDelete(TargetNode* node);
bool tsNodeSetPropStr(TargetNode* node, const char* name, const char* value);

// ---- Clusters ------------------------------------------------------------------------------
Cluster* tsClusterCreate(TargetSelector* ts, const char* name);
const char* tsClusterGetName(Cluster* cluster);
void tsClusterDelete(Cluster* cluster);
bool tsClusterSetPropStr(Cluster* cluster, const char* name, const char* value);
bool tsClusterSetPropInt(Cluster* cluster, const char* name, int value);
bool tsClusterSetPropBool(Cluster* cluster, const char* name, bool value);
void tsClusterSetCloneIdSeparator(Cluster* cluster, const char* separator);
void tsClusterSetSessionAffinityCookies(Cluster* cluster, const char* cookies);
void tsClusterSetServerType(Cluster* cluster, KyrServerType type);
void tsClusterSetIoTimeoutRetry(Cluster* cluster, int retry);
void tsClusterSetLearnServerIds(Cluster* cluster, bool learn);

// ---- Servers -------------------------------------------------------------------------------
// The server is not on its node until tsServerInit.
TargetServer* tsServerCreate(TargetNode* node, const char* name, KyrConnector* connector);
bool tsServerInit(TargetServer* server);
void tsServerDelete(TargetServer* server);
bool tsServerSetPropStr(TargetServer* server, const char* name, const char* value);
bool tsServerSetPropInt(TargetServer* server, const char* name, int value);
bool tsServerSetPropBool(TargetServer* server, const char* name, bool value);
bool tsServerSetPropNull(TargetServer* server, const char* name);
void tsServerSetState(TargetServer* server, const char* state);
void tsServerSetCloneId(TargetServer* server, const char* cloneId);
void tsServerSetMaintenanceMode(TargetServer* server, const char* mode);
void tsServerSetWeight(TargetServer* server, int weight);
void tsServerSetSessionAffinityCookies(TargetServer* server, const char* cookies);
void tsServerSetType(TargetServer* server, KyrServerType type);
void tsServerSetCloneSeparatorChange(TargetServer* server, bool change);
void tsServerSetCluster(TargetServer* server, Cluster* cluster);

KyrServerType tsServerGetType(TargetServer* server);
const char* tsServerGetName(TargetServer* server);
const char* tsServerGetSessionAffinityCookies(TargetServer* server);
bool tsServerGetCloneSeparatorChange(TargetServer* server);
const char* tsServerGetCloneId(TargetServer* server);
Cluster* tsServerGetCluster(TargetServer* server);
TargetNode* tsServerGetNode(TargetServer* server);
KyrConnector* tsServerGetConnector(TargetServer* server);

// Connect outcomes reported by request threads; each takes the selector lock.
void tsServerConnectSuccess(TargetServer* server);
void tsServerConnectFailure(TargetServer* server);
void serverUpdateAvgResponseTime(TargetServer* server, KyrTime t);

// ---- Server applications -------------------------------------------------------------------
TargetServerApplication* tsServerApplicationCreate(TargetServer* server, const char* path,
                                                   KyrConnector* connector);
void tsServerApplicationInit(TargetServerApplication* sapp);
void tsServerApplicationDelete(TargetServerApplication* sapp);
bool tsServerApplicationSetPropStr(TargetServerApplication* sapp, const char* name,
                                   const char* value);
bool tsServerApplicationSetPropInt(TargetServerApplication* sapp, const char* name, int value);
bool tsServerApplicationSetPropBool(TargetServerApplication* sapp, const char* name, bool value);
void serverApplicationSetState(TargetServerApplication* sapp, const char* state);
TargetServer* tsServerApplicationGetServer(TargetServerApplication* sapp);

// ---- Endpoints -----------------------------------------------------------------------------
KyrTargetEndpoint* tsEndPointCreate(TargetServer* server, const char* name);
bool tsEndPointInit(KyrTargetEndpoint* tep);
void tsEndPointDelete(KyrTargetEndpoint* tep);
bool tsEndPointSetPropStr(KyrTargetEndpoint* tep, const char* name, const char* value);
bool tsEndPointSetPropInt(KyrTargetEndpoint* tep, const char* name, int value);
bool tsEndPointSetPropBool(KyrTargetEndpoint* tep, const char* name, bool value);
const char* tsEndPointGetName(KyrTargetEndpoint* tep);
const char* tsEndpointGetHost(KyrTargetEndpoint* tep);
int tsEndpointGetPort(KyrTargetEndpoint* tep);
TargetServer* tsEndPointGetServer(KyrTargetEndpoint* tep);
EnvTargetEndpoint* tsEndPointGetEnvEndPoint(KyrTargetEndpoint* tep);

// The host's object for an endpoint, shared by every endpoint of the same name.
EnvTargetEndpoint* envTargetEndPointObtainRef(Kyr* kyr, KyrTargetEndpoint* tep);
void envTargetEndPointReleaseRef(Kyr* kyr, KyrTargetEndpoint* tep);

// ---- Virtual clusters and links --------------------------------------------------------------
VirtualCluster* tsVirtualClusterCreate(TargetSelector* ts, WebModule* webModule,
                                       const char* moduleName);
void tsVirtualClusterDelete(VirtualCluster* vc);
bool tsLinkClusterServer(Cluster* cluster, TargetServer* server, bool add);
// Under the selector lock: the server's link to the policy, made or dropped.
void tsLinkServerToHealthPolicy(TargetServer* server, HealthPolicy* policy, bool add);
// The module link by names: the relationship handler passes the web module's name and its
// application's simple name. A link to a server application not created yet is kept and
// retried when that application becomes routable.
bool tsLinkServerToWebModuleByName(TargetServer* server, const char* moduleName,
                                   const char* appName, bool add);
bool tsLinkServerToWebModule(TargetServer* server, WebModule* webModule, bool add);
bool tsLinkVirtualClusterToCluster(VirtualCluster* vc, Cluster* cluster, bool add);

// ---- Partition data ------------------------------------------------------------------------
PartitionIDData* tsPartitionIDDataCreate(KyrHashMap* map, const char* version);
PartitionIDData* tsDefaultPartitionIDData();
const char* tsPartitionIDDataGetVersion(PartitionIDData* data);
void tsPartitionIDDataDelete(PartitionIDData* data);

// ---- For target selection: the selector lock must be held ---------------------------------
// The first reason why the server application cannot be chosen now, or null.
const char* sappIsSelectableForAffinity(TargetServerApplication* sapp, KyrTime now);
const char* sappIsSelectableForLoadBalancing(TargetServerApplication* sapp, KyrTime now);
// Per-request references; a release may free the object (and, through it, its parents).
void tsNodeObtainRef(TargetNode* node);
void tsNodeReleaseRef(TargetNode* node);
void tsClusterObtainRef(Cluster* cluster);
void tsClusterReleaseRef(Cluster* cluster);
void tsServerObtainRef(TargetServer* server);
void tsServerReleaseRef(TargetServer* server);
void tsServerApplicationObtainRef(TargetServerApplication* sapp);
void tsServerApplicationReleaseRef(TargetServerApplication* sapp);
void tsEndPointObtainRef(KyrTargetEndpoint* tep);
void tsEndPointReleaseRef(KyrTargetEndpoint* tep);
void serverRecomputeSelectability(TargetServer* server);
void sappRecomputeSelectability(TargetServerApplication* sapp);

// ---- Target selection for one request -----------------------------------------------------
// What a request says about its session, asked of the host before the selector lock is taken:
// the host's callbacks may block, and every request thread waits for that lock.
struct SessionIds {
  struct Cookie {
    const char* name;   // the policy's
    const char* value;  // the host's
  };
  // Requests carry one session cookie as a rule; one naming more than this many of its module's
  // session cookies is judged by the first ones.
  static constexpr int kMaxCookies = 8;
  HttpAffinityPolicy* policy = nullptr;  // whose cookie names were asked; null: none were
  Cookie cookies[kMaxCookies] = {};      // the cookies the request carries, in the policy's order
  int cookieCount = 0;
  const char* path = nullptr;    // the host's path
  const char* urlSid = nullptr;  // after "jsessionid" and one separator in the path, or null
};
// Reads the request's values of the policy's session cookies and its path parameter.
void getSessionIds(KyrHttpContext* ctx, HttpAffinityPolicy* policy, SessionIds* ids);
// The endpoint for the request, or null with a reject (status and reason) on the context. Takes
// the selector lock itself.
KyrTargetEndpoint* tsSelect(TargetSelector* ts, KyrHttpContext* ctx);
// The outbound protocol index for an inbound one under an SSL map mode.
int mapProtocol(int inboundIndex, KyrSSLMapMode mode);
// Releases the references the context's target holds and clears the target in the context.
// Takes the selector lock.
void tsTargetInfoDecrementRefCnt(KyrHttpContext* ctx);
// Request completion: gives back the outstanding count and feeds the server's calculators.
// Returns the application's remaining count. Takes the selector lock.
int tsServerApplicationDecrementOutstandingRequestCount(KyrHttpContext* ctx,
                                                        TargetServerApplication* sapp, KyrTime now,
                                                        KyrTime serviceTime, bool timeout);

// The steps of a selection; each expects the selector lock held.
KyrTargetEndpoint* selectEndpoint(KyrHttpContext* ctx, TargetSelector* ts, KyrList* endpoints);
HttpAffinityPolicy* virtualClusterGetAffinityPolicy(VirtualCluster* vc);
HttpAffinityPolicy* getAffinityPolicy(TargetSelector* ts, WebModule* webModule, Cluster* cluster);
HttpAffinityPolicy* getDefaultPolicy(TargetSelector* ts, WebModule* webModule);
const char* getCloneIDSeparator(Cluster* cluster);
// The server application that the request's session cookie or "jsessionid" path parameter
// names, or null; `reason` collects why each clone ID found could not be used. `policy` is the
// module's, as virtualClusterGetAffinityPolicy(vc) gave it under the same lock.
TargetServerApplication* getAffinityTargetServerApplication(KyrHttpContext* ctx, VirtualCluster* vc,
                                                            HttpAffinityPolicy* policy,
                                                            const char* appName, KyrTime now,
                                                            const SessionIds& ids,
                                                            std::string* reason);
// The session ID of the "jsessionid" path parameter read with the request's session (traced).
const char* getSessionIdFromUrl(TargetSelector* ts, KyrHttpContext* ctx, const SessionIds& ids);
TargetServerApplication* getAffinitySappFromSid(KyrHttpContext* ctx, VirtualCluster* vc,
                                                const char* appName, const char* sid,
                                                const char* delimiter, KyrTime now,
                                                std::string* reason);
// The text saying why the server takes no more requests, or empty while it is below its limit.
std::string checkIfMaxConnectionsExceeded(TargetServer* server);
bool maxConnectionsExceeded(const TargetServer* server);
TargetServerApplication* wlorLoadBalance(VirtualCluster* vc, TargetSelector* ts, KyrTime now,
                                         KyrHttpContext* ctx);
// One reference each on the application, the endpoint, the server, its node and its cluster.
void tsTargetInfoIncrementRefCnt(TargetServerApplication* sapp, KyrTargetEndpoint* tep);

// ---- State dumps ---------------------------------------------------------------------------
// tsToJSON takes the selector lock; the others expect it held. New references.
json_t* tsToJSON(TargetSelector* ts);
json_t* tsClusterToJSON(Cluster* cluster, bool verbose);
json_t* tsServerToJSON(TargetServer* server, bool verbose);
json_t* tsServerApplicationToJSON(TargetServerApplication* sapp, bool verbose);

}  // namespace kyr

// The endpoint handed to the host (opaque in the public header). Guarded by the selector lock
// except for reads through the public getters, which see values the routing data set.
struct alignas(kyr::kCacheLineSize) KyrTargetEndpoint {
  char* name;
  kyr::TargetServer* server;  // the endpoint holds a reference on it
  char* host;
  int port;
  int protoIndex;  // 0 "http", 1 "https", -1 unknown
  char* sslProfile;
  char* namedEndpoint;
  int persistentTimeout;
  EnvTargetEndpoint* envTargetEndpoint;  // the host's object, null until obtained
  bool listed;                           // on server->endPoints[protoIndex]
  kyr::KyrListEle* registryEle;          // element in selector->allEndPoints
  alignas(kyr::kCacheLineSize) int refcnt;
};

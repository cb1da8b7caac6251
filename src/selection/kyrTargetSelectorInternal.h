// Helpers shared by the target model's implementation files and not meant for its users: the
// free functions that the reference counts and the selector's deletion end in, and the steps of
// server state changes that touch endpoints and module links.
#pragma once

#include "selection/kyrTargetSelector.h"

namespace kyr {

// A new server's and endpoint's time-outs in seconds, which the endpoint getters also give for
// an endpoint without a server.
inline constexpr int kDefaultConnectTimeoutSecs = 5;
inline constexpr int kDefaultIoTimeoutSecs = 900;
inline constexpr int kDefaultWsIoTimeoutSecs = 30;
inline constexpr int kDefaultWsIdleTimeoutSecs = 900;
inline constexpr int kDefaultPersistentTimeoutSecs = 30;

// Each expects the selector lock held; the object leaves the model's lists and is freed, and
// the references it held on its parents are released.
void tsNodeFree(TargetNode* node);
void tsClusterFree(Cluster* cluster);
void tsServerFree(TargetServer* server);
void tsServerApplicationFree(TargetServerApplication* sapp);
void tsEndPointFree(KyrTargetEndpoint* tep);
void virtualClusterFree(void* vc);

// Selector lock held.
void initRetry(TargetServer* server);
void initCalculators(TargetServer* server);
void endPointObtainHostObject(KyrTargetEndpoint* tep);
void endPointReleaseHostObject(KyrTargetEndpoint* tep);
// Adds the sapp named by the request to the module's virtual cluster; false when the server has
// no such sapp yet.
bool handleLinkServerToWebModuleRequest(TargetServer* server,
                                        const LinkServerToWebModuleRequest* request);
void linkServerToWebModuleRequestDelete(void* request);
// Removes the sapp from every virtual cluster, or the cluster from every virtual cluster.
void virtualClustersRemoveSapp(TargetSelector* ts, TargetServerApplication* sapp);
void virtualClustersRemoveCluster(TargetSelector* ts, Cluster* cluster);

}  // namespace kyr

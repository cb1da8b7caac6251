// The choice of a target for one request: the module's virtual cluster, affinity first and load
// balancing otherwise, the outbound protocol under the SSL map mode, the endpoint of the chosen
// server, and the rejects (with status and reason) when nothing can take the request.
#include <jansson.h>

#include <cstdlib>
#include <string>

#include "core/kyrRoutingInfo.h"
#include "mapping/kyrRequestMapper.h"
#include "request/kyrHttpContext.h"
#include "runtime/kyrProperties.h"
#include "runtime/kyrUtil.h"
#include "selection/kyrTargetSelector.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// Outbound protocol index by inbound protocol index, one table per SSL map mode.
constexpr int kSslDirectMap[kProtoCount] = {kHttpProtoIndex, kHttpsProtoIndex};
constexpr int kSslOffLoadMap[kProtoCount] = {kHttpProtoIndex, kHttpProtoIndex};
constexpr int kSslOnLoadMap[kProtoCount] = {kHttpsProtoIndex, kHttpsProtoIndex};

// What the locked part of a selection found. A reject code other than 0 means that the module
// cannot be served at all; otherwise a null endpoint means that no server could take it.
struct Choice {
  KyrTargetEndpoint* endpoint = nullptr;
  TargetServerApplication* sapp = nullptr;
  Cluster* cluster = nullptr;  // referenced with the endpoint
  bool rolloutInProgress = false;
  bool affinityBroken = false;  // the request is told so, after the lock
  int rejectCode = 0;
  const char* rejectReason = nullptr;
  // Set instead of a choice when the session was read for another policy than the module's:
  // the module's, for which the request is to be asked again.
  HttpAffinityPolicy* askAgainFor = nullptr;
};

// What selection knows of the request before it takes the lock.
struct Request {
  const char* moduleName;
  int moduleHash;
  const char* appName;
  int inbound;  // protocol index
  KyrTime now;
  bool debug;  // whether selectRec writes, asked once per selection
  SessionIds session;
  bool sessionFinal;  // asked again already: used whatever the policy is by now
};

Choice reject(TrContext* tr, TargetSelector* ts, int code, const char* reason, const char* fmt,
              const char* moduleName) {
  trDebug(tr, ts->selectRec, fmt, moduleName);
  Choice choice;
  choice.rejectCode = code;
  choice.rejectReason = reason;
  return choice;
}

// The context's mode, else the library's, else the module's, else inbound maps to outbound.
KyrSSLMapMode resolveSSLMapMode(KyrHttpContext* ctx, TargetSelector* ts, VirtualCluster* vc) {
  KyrSSLMapMode mode = kyrHttpContextGetSSLMapMode(ctx);
  if (mode == NullMapMode) mode = kyrGetSSLMapMode(ts->kyr);
  if (mode == NullMapMode && vc->webModule != nullptr)
    mode = rmWebModuleGetSSLMapMode(vc->webModule);
  return mode == NullMapMode ? MapInboundToOutbound : mode;
}

// Affinity keeps the session's server unless the server is at its connection limit; an
// affinity that names no usable server is traced and reported in `broken`, for the header
// that says so, which is written once the selector lock is released.
TargetServerApplication* affinityTarget(TargetSelector* ts, KyrHttpContext* ctx, VirtualCluster* vc,
                                        HttpAffinityPolicy* policy, const Request& rq,
                                        bool* broken) {
  TrContext* tr = kyrHttpContextGetTrContext(ctx);
  std::string reason;
  TargetServerApplication* sapp =
      getAffinityTargetServerApplication(ctx, vc, policy, rq.appName, rq.now, rq.session, &reason);
  if (sapp == nullptr) {
    if (!reason.empty()) {
      trLog(tr, ts->breakAffinityRec, reason.c_str());
      *broken = true;
    }
    return nullptr;
  }
  TargetServer* server = sapp->server;
  std::string limit = checkIfMaxConnectionsExceeded(server);
  if (limit.empty()) {
    trDebug(tr, ts->keepAffinityRec, "tsSelect: keeping affinity to %s ; cluster is:%s\n",
            server->name, server->cluster != nullptr ? server->cluster->name : "null");
    return sapp;
  }
  trLog(tr, ts->breakAffinityRec, limit.c_str());
  *broken = true;
  if (trEnabled(tr, ts->selectRec)) {
    trContextDebug(tr, ts->selectRec,
                   "tsSelect: Breaking affinity for the request %s with ctx=%p because %s\n",
                   kyrHttpContextGetURL(ctx), static_cast<void*>(ctx), limit.c_str());
  }
  return nullptr;
}

// Steps that need the model to hold still: everything from the module lookup to the counts and
// references of the chosen target.
Choice chooseTarget(TargetSelector* ts, KyrHttpContext* ctx, const Request& rq) {
  TrContext* tr = kyrHttpContextGetTrContext(ctx);
  const char* moduleName = rq.moduleName;
  KyrLockGuard guard(ts->lock, "tsSelect");
  auto* vc =
      static_cast<VirtualCluster*>(kyrHashGet2(ts->virtualClusterMap, moduleName, rq.moduleHash));
  if (vc == nullptr) {
    return reject(tr, ts, 404, "web module not found by selector",
                  "tsSelect: module '%s' was not found; Error Status Code=404\n", moduleName);
  }
  if (vc->cluster == nullptr) {
    return reject(tr, ts, 500, "no cluster",
                  "tsSelect: module '%s' has no cluster; Error Status Code=500\n", moduleName);
  }
  HttpAffinityPolicy* policy = virtualClusterGetAffinityPolicy(vc);
  if (policy == nullptr) {
    return reject(tr, ts, 500, "no affinity policy",
                  "tsSelect: module '%s' has no affinity policy; Error Status Code=500\n",
                  moduleName);
  }
  Choice choice;
  if (policy != rq.session.policy && !rq.sessionFinal) {
    choice.askAgainFor = policy;
    return choice;
  }
  int outbound = mapProtocol(rq.inbound, resolveSSLMapMode(ctx, ts, vc));
  choice.rolloutInProgress = vc->cluster->editionRolloutInProgress;
  TargetServerApplication* sapp = affinityTarget(ts, ctx, vc, policy, rq, &choice.affinityBroken);
  if (sapp == nullptr) sapp = wlorLoadBalance(vc, ts, rq.now, ctx);
  if (sapp == nullptr) return choice;
  TargetServer* server = sapp->server;
  // A server without an endpoint of the wanted protocol is reached over the other one.
  KyrList* endpoints = server->endPoints[outbound];
  if (kyrListIsEmpty(endpoints)) endpoints = server->endPoints[1 - outbound];
  if (kyrListIsEmpty(endpoints)) return choice;
  KyrTargetEndpoint* tep = selectEndpoint(ctx, ts, endpoints);
  ++server->outstandingRequestCount;
  ++sapp->outstandingRequestCount;
  tsTargetInfoIncrementRefCnt(sapp, tep);
  if (rq.debug) {
    trContextDebug(tr, ts->selectRec,
                   "tsSelect: incremented endpoint refcnt: refcnt=%d, ctx=%p, endpoint='%s'\n",
                   tep->refcnt, static_cast<void*>(ctx), tep->name);
  }
  choice.endpoint = tep;
  choice.sapp = sapp;
  choice.cluster = server->cluster;
  return choice;
}

// 504 when an earlier attempt of this request timed out, else 503; with the 503 record enabled
// the state of the module's cluster goes with it.
void rejectNoServer(TargetSelector* ts, KyrHttpContext* ctx) {
  TrContext* tr = kyrHttpContextGetTrContext(ctx);
  bool timedOut = kyrHttpContextGetNumOfResponseTimeouts(ctx) > 0;
  if (timedOut) {
    kyrHttpContextSetReject(ctx, 504, "response timed out");
    trDebug(tr, ts->selectRec, "tsSelect: response timed out; Error Status Code=504\n");
  } else {
    kyrHttpContextSetReject(ctx, 503, "no server was found running web module");
    trDebug(tr, ts->selectRec, "tsSelect: no server was found; Error Status Code=503\n");
  }
  if (!trEnabled(tr, ts->error503Rec)) return;
  // Read afresh: a rollout wait maps the request again and replaces the context's strings.
  const char* moduleName = kyrHttpContextGetModuleName(ctx);
  json_t* dump = nullptr;
  if (moduleName != nullptr) {
    KyrLockGuard guard(ts->lock, "tsSelect-dump");
    auto* vc = static_cast<VirtualCluster*>(kyrHashGet(ts->virtualClusterMap, moduleName));
    if (vc != nullptr && vc->cluster != nullptr) dump = tsClusterToJSON(vc->cluster, false);
  }
  char* text = dump != nullptr ? json_dumps(dump, 0) : nullptr;
  trContextDebug(
      tr, ts->error503Rec,
      timedOut ? "504 response for module '%s':\n%s\n" : "503 response for module '%s':\n%s\n",
      kyrNullText(moduleName), kyrNullText(text));
  free(text);
  json_decref(dump);
}

}  // namespace

int mapProtocol(int inboundIndex, KyrSSLMapMode mode) {
  if (inboundIndex < 0 || inboundIndex >= kProtoCount) return inboundIndex;
  switch (mode) {
    case MapInboundToOutbound:
      return kSslDirectMap[inboundIndex];
    case SSLOffLoad:
      return kSslOffLoadMap[inboundIndex];
    case SSLOnLoad:
      return kSslOnLoadMap[inboundIndex];
    default:
      return inboundIndex;
  }
}

KyrTargetEndpoint* selectEndpoint(KyrHttpContext* ctx, TargetSelector* ts, KyrList* endpoints) {
  kyrLockAssertHeld(ts->lock);
  auto* first = static_cast<KyrTargetEndpoint*>(kyrListEleGetObject(kyrListGetHead(endpoints)));
  // With one endpoint there is nothing to choose: spare the property lookup on the hot path.
  if (kyrListGetCount(endpoints) == 1) return first;
  std::string enabled;
  kyrPropertyCopy(kyrGetProperties(ts->kyr), "enableEndpointSelectionBasedOnMatchedVHost",
                  &enabled);
  if (kyrStrCmpIgnoreCase(enabled.c_str(), "TRUE") != 0) return first;
  const char* vhostName = kyrHttpContextGetMatchedVHostName(ctx);
  trDebug(kyrHttpContextGetTrContext(ctx), ts->selectRec,
          "enableEndpointSelectionBasedOnMatchedVHost is set, picking endpoint based on the "
          "matched virtual host %s\n.",
          kyrNullText(vhostName));
  if (vhostName == nullptr) return first;
  const VHostMatcher* vhosts =
      getVHostMatcher(rmGetURLMatcher(kyrRoutingInfoGetRequestMapper(ts->ri)), vhostName);
  if (vhosts == nullptr) return first;
  for (KyrListEle* e = kyrListGetHead(endpoints); e != nullptr; e = kyrListGetNext(e)) {
    auto* tep = static_cast<KyrTargetEndpoint*>(kyrListEleGetObject(e));
    if (tep->host != nullptr && matchVHost(vhosts, tep->host, tep->port, ctx)) return tep;
  }
  return first;
}

KyrTargetEndpoint* tsSelect(TargetSelector* ts, KyrHttpContext* ctx) {
  TrContext* tr = kyrHttpContextGetTrContext(ctx);
  kyrHttpContextSetPerformedLoadBalancing(ctx, false);
  const char* moduleName = kyrHttpContextGetModuleName(ctx);
  if (moduleName == nullptr) {
    kyrHttpContextSetReject(ctx, 500, "null module name");
    trDebug(tr, ts->error503Rec, "tsSelect: null module name; Error Status Code=500\n");
    return nullptr;
  }
  const char* protocol = kyrHttpContextGetProtocol(ctx);
  if (protocol == nullptr) {
    kyrHttpContextSetReject(ctx, 500, "null protocol");
    trDebug(tr, ts->error503Rec, "tsSelect: null protocol; Error Status Code=500\n");
    return nullptr;
  }
  int inbound = getProtoIndex(protocol);
  if (inbound < 0) {
    kyrHttpContextSetReject(ctx, 500, "negative protocol index");
    trDebug(tr, ts->error503Rec, "tsSelect: negative protocol index; Error Status Code=500\n");
    return nullptr;
  }
  Request rq{};
  rq.moduleName = moduleName;
  rq.appName = kyrHttpContextGetApplicationName(ctx);
  rq.inbound = inbound;
  rq.debug = trEnabled(tr, ts->selectRec);
  if (rq.debug) {
    trContextDebug(tr, ts->selectRec, "tsSelect: protocol=%s, appName=%s, moduleName=%s\n",
                   protocol, kyrNullText(rq.appName), moduleName);
  }
  rq.now = kyrGetCurrentTime();
  // Work that needs no lock is done before it: the module's hash (the module names are long)
  // and the session, read with the policy the mapped module has; a module whose policy is not
  // built yet, or was replaced, is asked again once the selection has the module's own.
  WebModule* wm = ctx->webModule;
  rq.moduleHash = wm != nullptr ? wm->nameHash : kyrHashCompute(moduleName);
  getSessionIds(ctx, wm != nullptr ? wmGetHttpAffinityPolicy(wm) : nullptr, &rq.session);
  Choice choice = chooseTarget(ts, ctx, rq);
  if (choice.askAgainFor != nullptr) {
    getSessionIds(ctx, choice.askAgainFor, &rq.session);
    rq.sessionFinal = true;
    choice = chooseTarget(ts, ctx, rq);
  }
  // A host callback, so not under the selector lock.
  if (choice.affinityBroken) kyrHttpContextBreakAffinity(ctx);
  if (choice.rejectCode != 0) {
    kyrHttpContextSetReject(ctx, choice.rejectCode, choice.rejectReason);
    return nullptr;
  }
  // An earlier attempt of this request gives its target back before the new one is stored.
  tsTargetInfoDecrementRefCnt(ctx);
  KyrTargetEndpoint* tep = choice.endpoint;
  TargetServerApplication* sapp = choice.sapp;
  Cluster* cluster = choice.cluster;
  if (tep == nullptr && choice.rolloutInProgress) {
    tep = kyrHttpContextWaitForRollout(ctx);
    sapp = kyrHttpContextGetMyTargetServerApplication(ctx);
    cluster = ctx->targetCluster;
  }
  if (tep == nullptr) {
    rejectNoServer(ts, ctx);
    return nullptr;
  }
  ctx->targetCluster = cluster;
  kyrHttpContextSetMyTargetInfo(ctx, tep, sapp);
  trTrace(tr, ts->selectRec, 7, "route selection is %s\n", tep->name);
  return tep;
}

}  // namespace kyr

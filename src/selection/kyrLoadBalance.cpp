// Weighted least-outstanding-requests load balancing over a module's virtual cluster, the
// connection limit of a server, and the bookkeeping of one routed request: the references its
// target holds and the outstanding counts and statistics it gives back when it completes.
#include <string>

#include "connector/kyrConnector.h"
#include "health/hmHealthMonitor.h"
#include "request/kyrHttpContext.h"
#include "selection/kyrTargetSelector.h"
#include "trace/trWrite.h"

namespace kyr {

bool maxConnectionsExceeded(const TargetServer* server) {
  return server->maxConnections >= 0 && server->outstandingRequestCount >= server->maxConnections;
}

std::string checkIfMaxConnectionsExceeded(TargetServer* server) {
  if (!maxConnectionsExceeded(server)) return {};
  return "number of outstanding requests '" + std::to_string(server->outstandingRequestCount) +
         "' exceeded maximum connections '" + std::to_string(server->maxConnections) +
         "' for the server " + server->name;
}

namespace {

constexpr const char* kConnectionLimit = "connection limit";

// Why load balancing may not send this request to the application now, or null. Static text,
// so a balanced request builds no string; the connection limit is written out in full only for
// the trace line.
const char* skipReason(KyrHttpContext* ctx, TargetServerApplication* sapp, KyrTime now) {
  if (const char* reason = sappIsSelectableForLoadBalancing(sapp, now)) return reason;
  if (kyrHttpContextIsFailedServerApp(ctx, sapp)) {
    return "previously failed to route this request to this server";
  }
  return maxConnectionsExceeded(sapp->server) ? kConnectionLimit : nullptr;
}

}  // namespace

TargetServerApplication* wlorLoadBalance(VirtualCluster* vc, TargetSelector* ts, KyrTime now,
                                         KyrHttpContext* ctx) {
  kyrLockAssertHeld(ts->lock);
  TrContext* tr = kyrHttpContextGetTrContext(ctx);
  TargetServerApplication** sapps = vc->sappArray;
  if (sapps == nullptr || sapps[0] == nullptr) {
    trDebug(tr, ts->error503Rec,
            "503 error: no servers are running web module '%s; Error Status Code=503'\n", vc->name);
    return nullptr;
  }
  const bool debug = trEnabled(tr, ts->balanceRec);  // asked once per call
  int i = vc->loadBalanceIndex;
  if (debug) trContextDebug(tr, ts->balanceRec, "wlor: start at index %d\n", i);
  TargetServerApplication* best = nullptr;
  TargetServerApplication* first = nullptr;
  for (;;) {
    TargetServerApplication* sapp = sapps[i];
    if (sapp == nullptr) {
      i = 0;
      sapp = sapps[0];
    }
    if (sapp == first) {
      if (debug) trContextDebug(tr, ts->balanceRec, "wlor: done searching\n");
      break;
    }
    if (first == nullptr) first = sapp;
    TargetServer* server = sapp->server;
    if (const char* reason = skipReason(ctx, sapp, now)) {
      if (debug) {
        std::string text =
            reason == kConnectionLimit ? checkIfMaxConnectionsExceeded(server) : reason;
        trContextDebug(tr, ts->balanceRec,
                       "wlor: skipping server application='%s' (%p), reason=%s\n", sapp->name,
                       static_cast<void*>(sapp), text.c_str());
      }
      ++i;
      continue;
    }
    int weight = server->weight;
    int count = server->outstandingRequestCount;
    if (debug) {
      trContextDebug(
          tr, ts->balanceRec,
          "wlor: comparing server='%s', started=%s, weight=%d, outstandingRequestCount=%d\n",
          server->name, server->started ? "true" : "false", weight, count);
    }
    ++i;
    if (count == 0) {
      // An idle server is taken at once, and the rotation moves just past it, so idle servers
      // share the requests in turn.
      best = sapp;
      break;
    }
    // Lower count per unit of weight wins; on equal ratios the one met first stays.
    if (best == nullptr ||
        count * best->server->weight < best->server->outstandingRequestCount * weight) {
      best = sapp;
    }
  }
  // After a full pass without an idle server i is back where the pass began.
  vc->loadBalanceIndex = i;
  if (best == nullptr) return nullptr;
  kyrHttpContextSetPerformedLoadBalancing(ctx, true);
  if (debug) {
    trContextDebug(tr, ts->balanceRec, "wlor: finished - %s, %s\n", best->server->name, best->name);
  }
  return best;
}

void tsTargetInfoIncrementRefCnt(TargetServerApplication* sapp, KyrTargetEndpoint* tep) {
  TargetServer* server = sapp->server;
  tsServerApplicationObtainRef(sapp);
  tsEndPointObtainRef(tep);
  tsServerObtainRef(server);
  tsNodeObtainRef(server->node);
  if (server->cluster != nullptr) tsClusterObtainRef(server->cluster);
}

void tsTargetInfoDecrementRefCnt(KyrHttpContext* ctx) {
  TargetServerApplication* sapp = kyrHttpContextGetMyTargetServerApplication(ctx);
  if (sapp == nullptr) return;
  KyrTargetEndpoint* tep = kyrHttpContextGetMyTargetEndPoint(ctx);
  TargetServer* server = sapp->server;
  TargetSelector* ts = server->selector;
  {
    KyrLockGuard guard(ts->lock, "tsTargetInfoDecrementRefCnt");
    // Read before any release: each release may free its object.
    TargetNode* node = server->node;
    Cluster* cluster = ctx->targetCluster;
    trDebug(kyrHttpContextGetTrContext(ctx), ts->selectRec,
            "decrementing endpoint refcnt: refcnt=%d, ctx=%p, tep='%s'\n", tep->refcnt - 1,
            static_cast<void*>(ctx), tep->name);
    tsServerApplicationReleaseRef(sapp);
    tsEndPointReleaseRef(tep);
    tsServerReleaseRef(server);
    tsNodeReleaseRef(node);
    if (cluster != nullptr) tsClusterReleaseRef(cluster);
  }
  kyrHttpContextResetMyTargetInfo(ctx);
}

int tsServerApplicationDecrementOutstandingRequestCount(KyrHttpContext* ctx,
                                                        TargetServerApplication* sapp, KyrTime now,
                                                        KyrTime serviceTime, bool timeout) {
  TargetServer* server = sapp->server;
  KyrLockGuard guard(server->selector->lock, "tsServerApplicationDecrementOutstandingRequestCount");
  --server->outstandingRequestCount;
  int count = --sapp->outstandingRequestCount;
  if (server->started && now != 0) {
    // A timed-out request, or one that never got as far as a response (a connect failure
    // reports the service time still unset), has no service time to average; it still counts
    // as a completion.
    const auto unset = static_cast<KyrTime>(-1);
    KyrTime avg = timeout || serviceTime == unset
                      ? unset
                      : kyrAvgCalcAddSample(&server->avgResponseTimeCalc, now, serviceTime);
    long pct = kyrTimeoutCalcAddSample(&server->timeoutCalc, now, timeout);
    // Stored under the lock: the state dumps read it there.
    if (avg != unset) serverUpdateAvgResponseTime(server, avg);
    if (avg != unset || pct != -1) {
      hmCheckHealthPolicies(server->selector->kyr, ctx, server, server->healthPolicies, avg, pct);
    }
  }
  // An application that stopped being routable while requests were still out is reported to
  // its publisher once the last of them is done.
  if (count == 0 && sapp->routable && sapp->reasonForNoAffinity != nullptr) {
    sapp->routable = false;
    if (sapp->connector != nullptr) {
      kyrConnectorPostRoutingChange(sapp->connector, sapp->path, false);
    }
  }
  return count;
}

}  // namespace kyr

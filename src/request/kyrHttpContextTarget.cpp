// The request context's side of target selection: asking for the endpoint (with the per-request
// limits), waiting out an application rollout, and the host's progress reports, which feed the
// chosen server's outstanding counts, back-off and statistics and may send the request on to
// another server.
#include "request/kyrHttpContext.h"
#include "selection/kyrTargetSelector.h"
#include "trace/trWrite.h"

namespace kyr {

int kyrHttpContextSetMyTargetInfo(KyrHttpContext* ctx, KyrTargetEndpoint* tep,
                                  TargetServerApplication* sapp) {
  ctx->targetEndpoint = tep;
  ctx->targetServerApplication = sapp;
  ctx->outstandingRequestCountIsIncremented = true;
  kyrHttpContextAddPrivateHeaders(ctx);
  return 0;
}

TargetServerApplication* kyrHttpContextGetMyTargetServerApplication(KyrHttpContext* ctx) {
  return ctx->targetServerApplication;
}

Boolean kyrHttpContextIsFailedServerApp(KyrHttpContext* ctx, TargetServerApplication* sapp) {
  return kyrListFind(ctx->failedServerApps, sapp) != nullptr;
}

namespace {

bool isFailure(KyrHttpContextState state) {
  return state == CONNECT_FAILURE || state == REQUEST_SEND_ERROR || state == RESPONSE_READ_ERROR ||
         state == RESPONSE_TIMEOUT;
}

// A request stops being outstanding once it is past sending, whatever the outcome.
bool endsOutstanding(KyrHttpContextState state) {
  return state != CONNECT_SUCCESS && state != REQUEST_SENDING && state != REQUEST_SENT;
}

// Returns the time it read, or 0 when the state needed none (connects are not timed).
KyrTime recordServiceTime(KyrHttpContext* ctx, KyrHttpContextState state) {
  constexpr auto kUnset = static_cast<KyrTime>(-1);
  bool starts =
      state == REQUEST_SENDING || (state == REQUEST_SENT && ctx->serviceTimeStart == kUnset);
  bool ends = state == RESPONSE_ARRIVED || state == RESPONSE_TIMEOUT;
  if (!starts && !ends) return 0;
  KyrTime now = kyrGetCurrentTime();
  if (starts) {
    ctx->serviceTimeStart = now;
  } else if (ctx->serviceTimeStart != 0) {
    ctx->serviceTime = now - ctx->serviceTimeStart;
  }
  return now;
}

// What the report means for the chosen server and for this request's next attempt.
void applyToTarget(KyrHttpContext* ctx, KyrHttpContextState state, const char* msg) {
  KyrTime now = recordServiceTime(ctx, state);
  if (state == RESPONSE_ARRIVED) kyrHttpContextPerformResponseProcessing(ctx);
  TargetServerApplication* sapp = ctx->targetServerApplication;
  if (sapp == nullptr) return;
  if (ctx->outstandingRequestCountIsIncremented && endsOutstanding(state)) {
    tsServerApplicationDecrementOutstandingRequestCount(
        ctx, sapp, now != 0 ? now : kyrGetCurrentTime(), ctx->serviceTime,
        state == RESPONSE_TIMEOUT);
    ctx->outstandingRequestCountIsIncremented = false;
  }
  TargetServer* server = sapp->server;
  if (state == CONNECT_FAILURE) {
    tsServerConnectFailure(server);
    trLog(ctx->trContext, ctx->connectFailure, server->name, msg != nullptr ? msg : "");
  } else if (state == CONNECT_SUCCESS) {
    tsServerConnectSuccess(server);
  }
  if (!isFailure(state)) return;
  if (state == RESPONSE_TIMEOUT) ++ctx->responseTimeouts;
  kyrListAddTail(ctx->failedServerApps, sapp);
  // The next target query selects again, avoiding this application.
  tsTargetInfoDecrementRefCnt(ctx);
  // Deliberately not counted for connect failures: a server that cannot be reached has not
  // seen the request, so trying another one does not use up the request's endpoint limit.
  if (state != CONNECT_FAILURE) ++ctx->failureCount;
}

}  // namespace

}  // namespace kyr

using namespace kyr;

extern "C" {

KyrTargetEndpoint* kyrHttpContextGetTargetEndpoint(KyrHttpContext* ctx) {
  if (ctx->targetEndpoint != nullptr) return ctx->targetEndpoint;
  Kyr* kyr = ctx->kyr;
  if (KyrTargetEndpoint* fixed = kyrGetTargetEndpoint(kyr)) return fixed;
  if (kyrHttpContextGetApplicationEditionName(ctx) == nullptr) return nullptr;
  if (ctx->failureCount >= kyrGetMaxTargetEndpointsPerRequest(kyr)) return nullptr;
  KyrTime maxElapsed = kyrGetMaxElapsedTimePerRequest(kyr);
  if (maxElapsed != static_cast<KyrTime>(-1) &&
      kyrTimeElapsedMilliSeconds(ctx->startTime) >= maxElapsed) {
    kyrHttpContextSetReject(ctx, 504, "MaxElapsedTimePerRequest exceeded");
    return nullptr;
  }
  // A chosen endpoint is stored in the context by the selection itself.
  return tsSelect(kyrRoutingInfoGetTargetSelector(ctx->routingInfo), ctx);
}

KyrTargetEndpoint* kyrHttpContextWaitForRollout(KyrHttpContext* ctx) {
  int seconds = kyrGetMaxSecondsToWaitDuringAtomicRollout(ctx->kyr);
  if (seconds < 1) {
    trTrace(ctx->trContext, ctx->rolloutRec, 7, "waiting during application rollout is disabled\n");
    return nullptr;
  }
  // Once per request: the target queries below come back here while the rollout lasts.
  if (ctx->waitedForRollout) return nullptr;
  ctx->waitedForRollout = true;
  for (int i = 0; i < seconds; ++i) {
    kyrSleep(1);
    ctx->requestMapped = false;  // the rollout may have moved the request to another edition
    if (KyrTargetEndpoint* tep = kyrHttpContextGetTargetEndpoint(ctx)) {
      trTrace(ctx->trContext, ctx->rolloutRec, 7,
              "successful wait for rollout of application '%s'\n",
              ctx->applicationName.text != nullptr ? ctx->applicationName.text : "null");
      return tep;
    }
  }
  trTrace(ctx->trContext, ctx->rolloutRec, 7, "timed out waiting for rollout of application '%s'\n",
          ctx->applicationName.text != nullptr ? ctx->applicationName.text : "null");
  return nullptr;
}

void kyrHttpContextSetState(KyrHttpContext* ctx, KyrHttpContextState state, int subState,
                            const char* msg) {
  if (ctx->targetEndpoint != nullptr) applyToTarget(ctx, state, msg);
  ctx->state = state;
  ctx->subState = subState;
  ctx->stateMsg = msg;
  trDebug(ctx->trContext, ctx->debugStateChange,
          "kyrHttpContextSetState: state=%s, subState=%d, msg=%s\n",
          kyrHttpContextStateToString(state), subState, msg != nullptr ? msg : "");
}

void kyrHttpContextResetMyTargetInfo(KyrHttpContext* ctx) {
  ctx->targetEndpoint = nullptr;
  ctx->targetServerApplication = nullptr;
  ctx->targetCluster = nullptr;
  ctx->outstandingRequestCountIsIncremented = false;
}

const char* kyrHttpContextGetTargetEndpointServerName(KyrHttpContext* ctx) {
  KyrTargetEndpoint* tep = ctx->targetEndpoint;
  return tep != nullptr && tep->server != nullptr ? tep->server->name : nullptr;
}

}  // extern "C"

// Obtaining, pooling and releasing request contexts, request mapping once per request, the
// host's decisions recorded on the context (permit, reject, redirect) and the plain accessors.
#include "request/kyrHttpContext.h"

#include <cstring>
#include <string>

#include "lang/kyrRule.h"
#include "mapping/kyrRequestMapper.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "runtime/kyrTime.h"
#include "selection/kyrTargetSelector.h"
#include "trace/trContext.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

const EnvCallBacks& env(KyrHttpContext* ctx) { return ctx->kyr->env; }

// Stores a copy of `value` (null clears). The value may be the text itself: the copy is made
// before the old text is given up.
void contextTextSet(KyrHttpContext* ctx, ContextText* t, const char* value) {
  char* copy = nullptr;
  bool onHeap = false;
  if (value != nullptr) {
    size_t size = strlen(value) + 1;
    if (size <= kContextTextSpace - ctx->textSpaceUsed) {
      copy = ctx->textSpace + ctx->textSpaceUsed;
      ctx->textSpaceUsed += size;
      memcpy(copy, value, size);
    } else {
      copy = kyrStrdup(value);
      onHeap = true;
    }
  }
  if (t->onHeap) kyrFree(t->text);
  *t = {copy, onHeap};
}

// Every text the context owns, so clearing and freeing walk one list and miss none.
template <class Fn>
void forEachText(KyrHttpContext* ctx, Fn fn) {
  for (ContextText* t :
       {&ctx->applicationName, &ctx->moduleName, &ctx->editionName, &ctx->vHostName,
        &ctx->contextRoot, &ctx->redirectURL, &ctx->errorMsg, &ctx->url}) {
    fn(t);
  }
}

KyrHttpContext* createContext(Kyr* kyr) {
  auto* ctx = kyrNew<KyrHttpContext>();
  ctx->kyr = kyr;
  ctx->trContext = trContextCreate(kyr->trMgr);
  ctx->trSpec = trSpecCreate(kyr->trMgr, ":NOTICE");
  trSpecRefObtain(ctx->trSpec);  // one for the context object, one handed to its trace context
  trContextSetSpec(ctx->trContext, ctx->trSpec);
  TrMgr* mgr = kyr->trMgr;
  ctx->debugMap = trRecordGet(mgr, "http.request.map.url");
  ctx->debugStateChange = trRecordGet(mgr, "http.stateChange");
  ctx->rolloutRec = trRecordGet(mgr, "http.request.select.editionRollout");
  ctx->trRecTraceRuleMatches = trRecordGet(mgr, "http.request.rules.traceRuleMatch");
  ctx->debugRules = trRecordGet(mgr, "http.request.rules.process");
  ctx->responseProcess = trRecordGet(mgr, "http.response.process");
  ctx->requestProcess = trRecordGet(mgr, "http.request.process");
  ctx->connectFailure = trRecordGet(mgr, "http.request.connectFailure");
  ctx->failedServerApps = kyrListCreate(nullptr);
  return ctx;
}

// Own shard first: it holds the context this thread released last, whose cache lines are
// still on this core. An empty shard is passed without its lock.
KyrHttpContext* takeFromPool(Kyr* kyr) {
  unsigned own = kyrThreadSlot();
  for (unsigned i = 0; i < kThreadSlots; ++i) {
    KyrContextPool& pool = kyr->contextPools[(own + i) % kThreadSlots];
    if (pool.size.load(std::memory_order_relaxed) == 0) continue;
    KyrLockGuard guard(pool.contextPoolLock, "removeKyrHttpContextFromPool");
    KyrHttpContext* ctx = pool.contextPool;
    if (ctx == nullptr) continue;
    pool.contextPool = ctx->poolNext;
    pool.size.store(pool.size.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
    ctx->poolNext = nullptr;
    ctx->state = INITIAL;
    ctx->stateMsg = "from pool";
    return ctx;
  }
  return nullptr;
}

// Installs the trace specification of the first rule of `rules` that the request matches and logs
// the match; false when none matches. The set's lock must be held: rules change under it.
bool applyFirstMatch(KyrHttpContext* ctx, KyrRules* rules) {
  KyrRule* rule = kyrRulesFindMatchingRule(ctx->trContext, rules, ctx);
  auto* spec = rule != nullptr ? static_cast<TrSpec*>(kyrRuleGetObject(rule)) : nullptr;
  if (spec == nullptr) return false;
  trSpecRefObtain(spec);
  trContextSetSpec(ctx->trContext, spec);
  trLog(ctx->trContext, ctx->trRecTraceRuleMatches, kyrRuleGetOrder(rule),
        kyrRuleGetTypeString(rule), kyrRuleGetExpressionString(rule),
        kyrHttpContextGetVirtualHost(ctx), kyrHttpContextGetVirtualPort(ctx),
        kyrHttpContextGetPath(ctx));
  return true;
}

// The handle's own request-trace rules first, then this server's trace rule sets of the
// version the request holds. The handle's set's lock also guards the version's list of sets.
bool applyRequestTraceRules(KyrHttpContext* ctx) {
  KyrRules* own = ctx->kyr->requestTraceRules;
  // Most handles have no request-trace rules at all: then no request takes the shared lock.
  if (kyrRulesIsEmpty(own) &&
      (ctx->routingInfo == nullptr || kyrPublished(ctx->routingInfo->traceRuleSetCount) == 0)) {
    return false;
  }
  KyrLockGuard guard(own->lock, "initRequestTraceSpec");
  if (applyFirstMatch(ctx, own)) return true;
  if (ctx->routingInfo == nullptr) return false;
  for (KyrListEle* e = kyrListGetHead(ctx->routingInfo->traceRuleSets); e != nullptr;
       e = kyrListGetNext(e)) {
    auto* rules = static_cast<KyrRules*>(kyrListEleGetObject(e));
    KyrLockGuard setGuard(rules->lock, "initRequestTraceSpec");
    if (applyFirstMatch(ctx, rules)) return true;
  }
  return false;
}

// A request matching a request-trace rule traces with its specification; otherwise with the
// "DefaultRequestTraceSpec" custom property when one is set, else with the handle's default.
void initRequestTraceSpec(KyrHttpContext* ctx) {
  Kyr* kyr = ctx->kyr;
  if (applyRequestTraceRules(ctx)) return;
  TrSpec* spec = nullptr;
  // Read unlocked to spare every request the shared lock while the property is unset.
  if (kyrPublished(kyr->customPropDefaultRequestTraceSpec) != nullptr) {
    KyrLockGuard guard(kyr->trSpecLock, "initRequestTraceSpec");
    spec = kyr->customPropDefaultRequestTraceSpec;
    if (spec != nullptr) trSpecRefObtain(spec);
  }
  if (spec != nullptr) {
    trDebug(kyr->trCtx, kyr->processRec,
            "initRequestTraceSpec tracing with custom property 'DefaultRequestTraceSpec' trace "
            "spec.");
    trContextSetSpec(ctx->trContext, spec);
    return;
  }
  trDebug(kyr->trCtx, kyr->processRec, "initRequestTraceSpec tracing with DEFAULT trace spec");
  trContextShareSpec(ctx->trContext, kyr->trCtx);
}

void initContext(KyrHttpContext* ctx, EnvHttpContext* envHttpContext) {
  ctx->envHttpContext = envHttpContext;
  ctx->requestMapped = false;
  ctx->waitedForRollout = false;
  ctx->requestMappingResult = 0;
  ctx->targetEndpoint = nullptr;
  ctx->targetServerApplication = nullptr;
  ctx->targetCluster = nullptr;
  ctx->outstandingRequestCountIsIncremented = false;
  ctx->serviceTimeStart = static_cast<KyrTime>(-1);
  ctx->serviceTime = static_cast<KyrTime>(-1);
  ctx->failureCount = 0;
  ctx->responseTimeouts = 0;
  ctx->sslMapMode = NullMapMode;
  ctx->state = INITIAL;
  ctx->subState = 0;
  ctx->stateMsg = nullptr;
  ctx->action = NONE;
  ctx->errorCode = 0;
  ctx->policy = nullptr;
  ctx->webModule = nullptr;
  ctx->sticky = false;
  ctx->performedLoadBalancing = false;
  ctx->privateHeadersAdded = false;
  ctx->routingInfo = kyrRoutingInfoObtain(ctx->kyr);
  ctx->startTime = kyrGetCurrentTime();
  initRequestTraceSpec(ctx);
}

void cleanContext(KyrHttpContext* ctx) {
  tsTargetInfoDecrementRefCnt(ctx);
  forEachText(ctx, [](ContextText* t) {
    if (t->onHeap) kyrFree(t->text);
    *t = {nullptr, false};
  });
  ctx->textSpaceUsed = 0;
  kyrListClean(ctx->failedServerApps);
}

// The bound is checked against the sum of the shards: threads releasing into other shards at
// the same moment can take the pool past it by one context each.
bool returnToPool(KyrHttpContext* ctx) {
  Kyr* kyr = ctx->kyr;
  KyrContextPool& pool = kyr->contextPools[kyrThreadSlot()];
  KyrLockGuard guard(pool.contextPoolLock, "addKyrHttpContextToPool");
  if (!kyrIsUsable(kyr)) return false;
  if (kyr->maxHttpContextPoolSize >= 0 && kyr->maxHttpContextPoolSize <= kyrContextPoolSize(kyr)) {
    return false;
  }
  ctx->state = CACHED;
  ctx->poolNext = pool.contextPool;
  pool.contextPool = ctx;
  pool.size.store(pool.size.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  return true;
}

int performRequestMapping(KyrHttpContext* ctx) {
  if (ctx->requestMapped) {
    trDebug(ctx->trContext, ctx->debugMap, "performRequestMapping: return previous result: %d\n",
            ctx->requestMappingResult);
    return ctx->requestMappingResult;
  }
  ctx->requestMapped = true;
  ctx->requestMappingResult = rmMapRequest(kyrRoutingInfoGetRequestMapper(ctx->routingInfo), ctx);
  return ctx->requestMappingResult;
}

}  // namespace

void kyrHttpContextDelete(void* p) {
  auto* ctx = static_cast<KyrHttpContext*>(p);
  ctx->state = FREE;
  cleanContext(ctx);
  trSpecRefRelease(ctx->trSpec);
  trContextDelete(ctx->trContext);
  kyrListDestroy(ctx->failedServerApps);
  kyrDelete(ctx);
}

int kyrContextPoolSize(Kyr* kyr) {
  int sum = 0;
  for (const KyrContextPool& pool : kyr->contextPools) {
    sum += pool.size.load(std::memory_order_relaxed);
  }
  return sum;
}

void kyrContextPoolsEmpty(Kyr* kyr) {
  for (KyrContextPool& pool : kyr->contextPools) {
    while (KyrHttpContext* ctx = pool.contextPool) {
      pool.contextPool = ctx->poolNext;
      kyrHttpContextDelete(ctx);
    }
    pool.size.store(0, std::memory_order_relaxed);
  }
}

void kyrHttpContextSetAffinityPolicy(KyrHttpContext* ctx, HttpAffinityPolicy* policy) {
  ctx->policy = policy;
}
HttpAffinityPolicy* kyrHttpContextGetAffinityPolicy(KyrHttpContext* ctx) { return ctx->policy; }

void kyrHttpContextSetWebModule(KyrHttpContext* ctx, WebModule* wm) {
  kyrHttpContextSetModuleName(ctx, wm->name);
  ctx->webModule = wm;
}

}  // namespace kyr

using namespace kyr;

extern "C" {

KyrHttpContext* kyrHttpContextObtain(Kyr* kyr, EnvHttpContext* envHttpContext) {
  if (kyr == nullptr) return nullptr;
  KyrHttpContext* ctx = takeFromPool(kyr);
  if (ctx == nullptr) ctx = createContext(kyr);
  initContext(ctx, envHttpContext);
  return ctx;
}

void kyrHttpContextRelease(KyrHttpContext* ctx) {
  if (ctx == nullptr) return;
  KyrRoutingInfo* ri = ctx->routingInfo;
  ctx->routingInfo = nullptr;
  cleanContext(ctx);
  if (!returnToPool(ctx)) kyrHttpContextDelete(ctx);
  // Last: this may delete the version, and with it the handle's final reference.
  kyrRoutingInfoRelease(ri);
}

int kyrHttpContextShouldHandle(KyrHttpContext* ctx) { return performRequestMapping(ctx); }

const char* kyrHttpContextGetApplicationEditionName(KyrHttpContext* ctx) {
  int result = performRequestMapping(ctx);
  if (result == 1) return ctx->editionName.text;
  ctx->action = REJECT;
  ctx->errorCode = result == 0 ? 404 : 500;
  return nullptr;
}

void kyrHttpContextSetPermit(KyrHttpContext* ctx, const char* editionName, Boolean sticky) {
  ctx->action = PERMIT;
  contextTextSet(ctx, &ctx->editionName, editionName);
  ctx->sticky = sticky;
}

void kyrHttpContextSetReject(KyrHttpContext* ctx, int errorCode, const char* errorMsg) {
  ctx->action = REJECT;
  ctx->errorCode = errorCode;
  contextTextSet(ctx, &ctx->errorMsg, errorMsg);
}

void kyrHttpContextSetRedirect(KyrHttpContext* ctx, const char* url) {
  ctx->action = REDIRECT;
  contextTextSet(ctx, &ctx->redirectURL, url);
}

int kyrHttpContextCancelRequest(KyrHttpContext* ctx) {
  if (ctx->state != REQUEST_SUSPENDED) return 1;
  ctx->state = REQUEST_CANCELED;
  auto resume = env(ctx).http.request.resume;
  if (resume == nullptr) {
    // The host suspended a request it has no way to resume: the cancel cannot reach it.
    trDebug(ctx->trContext, ctx->requestProcess,
            "kyrHttpContextCancelRequest: the host has no http.request.resume\n");
    return -1;
  }
  return resume(ctx->envHttpContext) == 0 ? 0 : -1;
}

const char* kyrHttpContextGetURL(KyrHttpContext* ctx) {
  if (ctx->url.text == nullptr) {
    const char* protocol = kyrHttpContextGetProtocol(ctx);
    const char* host = kyrHttpContextGetVirtualHost(ctx);
    const char* path = kyrHttpContextGetPath(ctx);
    std::string url = std::string(protocol != nullptr ? protocol : "") + "://" +
                      (host != nullptr ? host : "") + ":" +
                      std::to_string(kyrHttpContextGetVirtualPort(ctx)) + "/" +
                      (path != nullptr ? path : "");
    contextTextSet(ctx, &ctx->url, url.c_str());
  }
  return ctx->url.text;
}

const char* kyrHttpContextStateToString(KyrHttpContextState state) {
  static const char* const kNames[] = {"INITIAL",
                                       "OBTAINED",
                                       "REQUEST_ARRIVED",
                                       "KYR_REQUEST_PROCESSING",
                                       "WEB_MODULE_SELECTED",
                                       "REQUEST_SUSPENDED",
                                       "REQUEST_CANCELED",
                                       "TARGET_SELECTED",
                                       "CONNECT_SUCCESS",
                                       "CONNECT_FAILURE",
                                       "REQUEST_SENDING",
                                       "REQUEST_SENT",
                                       "REQUEST_SEND_ERROR",
                                       "RESPONSE_ARRIVED",
                                       "RESPONSE_TIMEOUT",
                                       "RESPONSE_READ_ERROR",
                                       "RESPONSE_PROCESSING",
                                       "RESPONSE_PROCESSED",
                                       "RESPONSE_SENDING",
                                       "RESPONSE_SENT",
                                       "RESPONSE_SEND_ERROR",
                                       "CACHED",
                                       "FREE"};
  auto index = static_cast<size_t>(state);
  return index < sizeof kNames / sizeof kNames[0] ? kNames[index] : "UNKNOWN";
}

EnvHttpContext* kyrHttpContextGetEnvContext(KyrHttpContext* ctx) { return ctx->envHttpContext; }
Kyr* kyrHttpContextGetKyr(KyrHttpContext* ctx) { return ctx->kyr; }
TrContext* kyrHttpContextGetTrContext(KyrHttpContext* ctx) { return ctx->trContext; }

const char* kyrHttpContextGetProtocol(KyrHttpContext* ctx) {
  return env(ctx).http.request.getProtocol(ctx->envHttpContext);
}
const char* kyrHttpContextGetVirtualHost(KyrHttpContext* ctx) {
  return env(ctx).http.request.getVirtualHost(ctx->envHttpContext);
}
int kyrHttpContextGetVirtualPort(KyrHttpContext* ctx) {
  return env(ctx).http.request.getVirtualPort(ctx->envHttpContext);
}
const char* kyrHttpContextGetPath(KyrHttpContext* ctx) {
  return env(ctx).http.request.getPath(ctx->envHttpContext);
}

const char* kyrHttpContextGetApplicationName(KyrHttpContext* ctx) {
  return ctx->applicationName.text;
}
void kyrHttpContextSetApplicationName(KyrHttpContext* ctx, const char* name) {
  contextTextSet(ctx, &ctx->applicationName, name);
}
const char* kyrHttpContextGetModuleName(KyrHttpContext* ctx) { return ctx->moduleName.text; }
void kyrHttpContextSetModuleName(KyrHttpContext* ctx, const char* name) {
  ctx->webModule = nullptr;
  contextTextSet(ctx, &ctx->moduleName, name);
}
const char* kyrHttpContextGetMatchedVHostName(KyrHttpContext* ctx) { return ctx->vHostName.text; }
void kyrHttpContextSetMatchedVHostName(KyrHttpContext* ctx, const char* name) {
  contextTextSet(ctx, &ctx->vHostName, name);
}
void kyrHttpContextSetEditionName(KyrHttpContext* ctx, const char* name) {
  contextTextSet(ctx, &ctx->editionName, name);
}
void kyrHttpContextSetContextRoot(KyrHttpContext* ctx, const char* contextRoot) {
  contextTextSet(ctx, &ctx->contextRoot, contextRoot);
}
KyrTargetEndpoint* kyrHttpContextGetMyTargetEndPoint(KyrHttpContext* ctx) {
  return ctx->targetEndpoint;
}
KyrAction kyrHttpContextGetAction(KyrHttpContext* ctx) { return ctx->action; }
int kyrHttpContextGetErrorCode(KyrHttpContext* ctx) { return ctx->errorCode; }
const char* kyrHttpContextGetErrorMsg(KyrHttpContext* ctx) { return ctx->errorMsg.text; }
Boolean kyrHttpContextGetSticky(KyrHttpContext* ctx) { return ctx->sticky; }
const char* kyrHttpContextGetRedirectURL(KyrHttpContext* ctx) { return ctx->redirectURL.text; }
KyrHttpContextState kyrHttpContextGetState(KyrHttpContext* ctx) { return ctx->state; }
int kyrHttpContextGetSubState(KyrHttpContext* ctx) { return ctx->subState; }
const char* kyrHttpContextGetMessage(KyrHttpContext* ctx) { return ctx->stateMsg; }
int kyrHttpContextGetNumOfResponseTimeouts(KyrHttpContext* ctx) { return ctx->responseTimeouts; }
KyrSSLMapMode kyrHttpContextGetSSLMapMode(KyrHttpContext* ctx) { return ctx->sslMapMode; }
void kyrHttpContextSetSSLMapMode(KyrHttpContext* ctx, KyrSSLMapMode mode) {
  ctx->sslMapMode = mode;
}
void kyrHttpContextSetPerformedLoadBalancing(KyrHttpContext* ctx, Boolean performed) {
  ctx->performedLoadBalancing = performed;
}

}  // extern "C"

// The request context: one HTTP request on its way through the library, from the host's obtain
// to its release. It pins the routing version that was current at obtain, so one request sees
// one model however the routing data changes meanwhile.
#pragma once

#include "core/kyr.h"
#include "core/kyrRoutingInfo.h"

namespace kyr {
struct Cluster;
struct TargetServerApplication;
struct HttpAffinityPolicy;
struct WebModule;

// A text the context owns: a copy in the context's text space, or a counted copy of its own when
// the space is full. Mapping stores about six names per request; copying them into space that
// comes with the context spares an allocation and a free for each, and release empties the space
// again, so a released context holds no text.
struct ContextText {
  char* text;   // null while unset
  bool onHeap;  // a counted copy, freed when replaced or cleared
};
constexpr size_t kContextTextSpace = 1024;
}  // namespace kyr

struct KyrHttpContext {
  Kyr* kyr;
  TrContext* trContext;  // the request's own, so a request-trace rule can trace it alone
  TrSpec* trSpec;        // ":NOTICE", held for the life of the context object
  kyr::KyrRoutingInfo* routingInfo;
  EnvHttpContext* envHttpContext;
  Boolean requestMapped;
  Boolean waitedForRollout;
  int requestMappingResult;
  KyrTargetEndpoint* targetEndpoint;
  kyr::TargetServerApplication* targetServerApplication;
  // The target server's cluster when it was chosen: the request holds a reference on it until
  // the target is released, so its (immutable) name is readable without the selector lock.
  kyr::Cluster* targetCluster;
  Boolean outstandingRequestCountIsIncremented;
  kyr::KyrTime startTime;
  kyr::KyrTime serviceTimeStart;
  kyr::KyrTime serviceTime;
  kyr::KyrList* failedServerApps;
  KyrHttpContext* poolNext;  // while pooled: the next older context of the shard
  int failureCount;
  int responseTimeouts;
  KyrSSLMapMode sslMapMode;
  KyrHttpContextState state;
  int subState;
  const char* stateMsg;  // the host's text, not copied
  KyrAction action;
  int errorCode;
  kyr::ContextText errorMsg;
  kyr::ContextText redirectURL;
  kyr::ContextText applicationName;
  kyr::ContextText moduleName;
  // The mapped module whose name moduleName holds, or null when the name was set on its own.
  // Retired with the version the context holds, so readable for the whole request.
  kyr::WebModule* webModule;
  kyr::ContextText editionName;
  kyr::ContextText vHostName;
  kyr::ContextText contextRoot;
  kyr::HttpAffinityPolicy* policy;
  Boolean sticky;
  kyr::ContextText url;
  Boolean performedLoadBalancing;
  Boolean privateHeadersAdded;
  char textSpace[kyr::kContextTextSpace];  // where the texts above are copied; emptied on release
  size_t textSpaceUsed;
  TrRecord* debugMap;
  TrRecord* debugStateChange;
  TrRecord* rolloutRec;
  TrRecord* trRecTraceRuleMatches;
  TrRecord* debugRules;
  TrRecord* responseProcess;
  TrRecord* requestProcess;
  TrRecord* connectFailure;
};

namespace kyr {

// The handle's pool destructor: frees a context that will not be used again.
void kyrHttpContextDelete(void* ctx);
// Contexts pooled in all of the handle's shards; exact only while no request thread runs.
int kyrContextPoolSize(Kyr* kyr);
// Frees every pooled context; for the handle's end, when no request thread runs.
void kyrContextPoolsEmpty(Kyr* kyr);

void kyrHttpContextSetAffinityPolicy(KyrHttpContext* ctx, HttpAffinityPolicy* policy);
// The module the request was mapped to: its name becomes the context's module name.
void kyrHttpContextSetWebModule(KyrHttpContext* ctx, WebModule* wm);
HttpAffinityPolicy* kyrHttpContextGetAffinityPolicy(KyrHttpContext* ctx);

// The target the selector chose (the request holds references on it); counts the request as
// outstanding and adds the private headers. Returns 0.
int kyrHttpContextSetMyTargetInfo(KyrHttpContext* ctx, KyrTargetEndpoint* tep,
                                  TargetServerApplication* sapp);
TargetServerApplication* kyrHttpContextGetMyTargetServerApplication(KyrHttpContext* ctx);
// Whether an earlier attempt of this request failed on the application.
Boolean kyrHttpContextIsFailedServerApp(KyrHttpContext* ctx, TargetServerApplication* sapp);

// The value (everything after the first "=") of the first "Set-Cookie" of the response that
// names one of the policy's session cookies, or null. Points into the host's header text.
const char* getResponseSessionCookie(KyrHttpContext* ctx);
// The request's value of the first of the policy's session cookies it carries, or null.
const char* getRequestSessionCookieValue(KyrHttpContext* ctx);

}  // namespace kyr

// The request context: one HTTP request on its way through the library, from the host's obtain
// to its release. It pins the routing version that was current at obtain, so one request sees
// one model however the routing data changes meanwhile.
#pragma once

#include "core/kyr.h"
#include "core/kyrRoutingInfo.h"

namespace kyr {
struct TargetServerApplication;
struct HttpAffinityPolicy;
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
  Boolean outstandingRequestCountIsIncremented;
  kyr::KyrTime startTime;
  kyr::KyrTime serviceTimeStart;
  kyr::KyrTime serviceTime;
  kyr::KyrList* failedServerApps;
  int failureCount;
  int responseTimeouts;
  KyrSSLMapMode sslMapMode;
  KyrHttpContextState state;
  int subState;
  const char* stateMsg;  // the host's text, not copied
  KyrAction action;
  int errorCode;
  char* errorMsg;
  char* redirectURL;
  char* applicationName;
  char* moduleName;
  char* editionName;
  char* vHostName;
  char* contextRoot;
  kyr::HttpAffinityPolicy* policy;
  Boolean sticky;
  char* url;
  Boolean performedLoadBalancing;
  Boolean privateHeadersAdded;
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

void kyrHttpContextSetAffinityPolicy(KyrHttpContext* ctx, HttpAffinityPolicy* policy);
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

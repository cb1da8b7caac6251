// Session affinity: the affinity policy of a web module (which cookies carry the session and how
// clone IDs are separated in them), and the way from a request's session cookie or "jsessionid"
// path parameter through its clone IDs (or partition IDs) to a server application that can
// take the request.
#include <cstring>
#include <string>
#include <vector>

#include "core/kyrPartitionData.h"
#include "mapping/kyrRequestMapper.h"
#include "request/kyrHttpContext.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrProperties.h"
#include "runtime/kyrUtil.h"
#include "selection/kyrTargetSelector.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// The null-terminated array of counted copies that a policy owns; empty names are dropped.
char** splitCookieNames(const char* text) {
  char* copy = kyrStrdup(text);
  std::vector<const char*> names;
  char* last = nullptr;
  for (char* name = kyrStrtok(copy, ",", &last); name != nullptr;
       name = kyrStrtok(nullptr, ",", &last)) {
    names.push_back(name);
  }
  auto** array = static_cast<char**>(kyrMalloc((names.size() + 1) * sizeof(char*)));
  for (size_t i = 0; i < names.size(); ++i) array[i] = kyrStrdup(names[i]);
  kyrFree(copy);
  return array;
}

// The path parameter that carries a session when cookies cannot, as sent and in upper case (the
// lower-case spelling is the name itself).
constexpr char kUrlSessionParam[] = "jsessionid";
constexpr char kUrlSessionParamUpper[] = "JSESSIONID";

// The session ID after the parameter: the name, one separator ("=" as a rule), then the rest of
// the path to its end.
const char* sessionIdInPath(const char* path) {
  if (path == nullptr) return nullptr;
  const char* found = strstr(path, kUrlSessionParam);
  if (found == nullptr) found = strstr(path, kUrlSessionParamUpper);
  if (found == nullptr) return nullptr;
  size_t start = static_cast<size_t>(found - path) + sizeof kUrlSessionParam;
  return strlen(path) > start ? path + start : nullptr;
}

TargetServerApplication* findSapp(TargetServer* server, const char* appName) {
  if (appName == nullptr) return nullptr;
  for (KyrListEle* e = kyrListGetHead(server->serverApplications); e != nullptr;
       e = kyrListGetNext(e)) {
    auto* sapp = static_cast<TargetServerApplication*>(kyrListEleGetObject(e));
    if (strcmp(sapp->name, appName) == 0) return sapp;
  }
  return nullptr;
}

// A candidate may be a partition ID that one of the module's clusters maps to a clone ID. The
// partition lock is held for the lookup only: the mapped clone ID is copied out.
bool getRealCloneId(KyrHttpContext* ctx, VirtualCluster* vc, const char* candidate,
                    std::string* cloneId) {
  TargetSelector* ts = vc->selector;
  Kyr* kyr = ts->kyr;
  if (!kyrAnyPartitionData(kyr)) return false;
  bool mapped = false;
  {
    KyrLockGuard guard(kyr->partitionIDData.lock, "getRealCloneId");
    for (KyrListEle* e = kyrListGetHead(vc->clusterList); e != nullptr && !mapped;
         e = kyrListGetNext(e)) {
      auto* cluster = static_cast<Cluster*>(kyrListEleGetObject(e));
      PartitionIDData* data = kyrGetPartitionData(kyr, cluster->name);
      if (data == nullptr) continue;
      auto* value = static_cast<const char*>(kyrHashGet(data->partition2CloneIdMap, candidate));
      if (value != nullptr) {
        *cloneId = value;
        mapped = true;
      }
    }
  }
  if (mapped) {
    trDebug(kyrHttpContextGetTrContext(ctx), ts->affinityRec,
            "getAffinitySappFromSid: '%s' is a partition ID which is mapped to clone ID '%s'\n",
            candidate, cloneId->c_str());
  }
  return mapped;
}

}  // namespace

// ---- Policies ------------------------------------------------------------------------------

const char* getCloneIDSeparator(Cluster* cluster) {
  if (cluster->serverType == KYRSERVERTYPE_APPLICATION_SERVER) {
    for (KyrListEle* e = kyrListGetHead(cluster->servers); e != nullptr; e = kyrListGetNext(e)) {
      if (static_cast<TargetServer*>(kyrListEleGetObject(e))->cloneSeparatorChange) return "+";
    }
  }
  return cluster->cloneIdSeparator != nullptr ? cluster->cloneIdSeparator : ":";
}

HttpAffinityPolicy* getDefaultPolicy(TargetSelector* ts, WebModule* webModule) {
  KyrProperties* props = kyrGetProperties(ts->kyr);
  std::string descriptor;
  if (kyrPropertyCopy(props, "HttpSessionAffinityPolicyDescriptor", &descriptor)) {
    return hapCreate1(webModule, descriptor.c_str());
  }
  std::string cookies;
  if (!kyrPropertyCopy(props, "HttpSessionCookies", &cookies)) {
    std::string name = "ZQJSESSIONID";
    kyrPropertyCopy(props, "TarnwickSessionCookieName", &name);
    // Deliberately no comma before the name: the default list ends in the run-together name
    // "SSLJSESSIONIDZQJSESSIONID", and it is kept exactly as it has always been.
    cookies = "JSESSIONID,SSLJSESSIONID" + name;
  }
  return hapCreate(webModule, splitCookieNames(cookies.c_str()), ":", false);
}

HttpAffinityPolicy* getAffinityPolicy(TargetSelector* ts, WebModule* webModule, Cluster* cluster) {
  if (HttpAffinityPolicy* hap = wmGetHttpAffinityPolicy(webModule)) return hap;
  if (cluster == nullptr) return getDefaultPolicy(ts, webModule);
  const char* cookies = wmGetSessionAffinityCookies(webModule);
  if (cookies == nullptr) cookies = appGetSessionAffinityCookies(wmGetApplication(webModule));
  if (cookies == nullptr) {
    // Only the first member is asked. Its plain "JSESSIONID" is the server default, not a
    // choice, so the cluster's own setting is preferred to it.
    auto* first = static_cast<TargetServer*>(kyrListEleGetObject(kyrListGetHead(cluster->servers)));
    if (first != nullptr && first->sessionAffinityCookies != nullptr &&
        strcmp(first->sessionAffinityCookies, "JSESSIONID") != 0) {
      cookies = first->sessionAffinityCookies;
    }
  }
  if (cookies == nullptr) cookies = cluster->sessionAffinityCookies;
  if (cookies == nullptr) cookies = "ZQJSESSIONID,JSESSIONID";
  HttpAffinityPolicy* hap = hapCreate(webModule, splitCookieNames(cookies),
                                      getCloneIDSeparator(cluster), cluster->learnServerIds);
  trDebug(ts->trCtx, ts->affinityRec,
          "getAffinityPolicy: returning cookieNames %s for web module %s\n", cookies,
          wmGetName(webModule));
  return hap;
}

HttpAffinityPolicy* virtualClusterGetAffinityPolicy(VirtualCluster* vc) {
  if (vc->webModule == nullptr) return nullptr;
  // Built once and then kept by the module; asking the module each time follows a module whose
  // policy the request mapper has dropped for rebuilding.
  return getAffinityPolicy(vc->selector, vc->webModule, vc->cluster);
}

// ---- Session IDs ---------------------------------------------------------------------------

void getSessionIds(KyrHttpContext* ctx, HttpAffinityPolicy* policy, SessionIds* ids) {
  ids->policy = policy;
  ids->cookieCount = 0;
  char** names = policy != nullptr ? hapGetCookieNames(policy) : nullptr;
  const EnvCallBacks* env = kyrGetEnvCallBacks(kyrHttpContextGetKyr(ctx));
  EnvHttpContext* request = kyrHttpContextGetEnvContext(ctx);
  for (char** name = names; name != nullptr && *name != nullptr; ++name) {
    if (ids->cookieCount == SessionIds::kMaxCookies) break;
    const char* value = env->http.request.getCookieValue(request, *name);
    if (value != nullptr) ids->cookies[ids->cookieCount++] = {*name, value};
  }
  ids->path = kyrHttpContextGetPath(ctx);
  ids->urlSid = sessionIdInPath(ids->path);
}

const char* getSessionIdFromUrl(TargetSelector* ts, KyrHttpContext* ctx, const SessionIds& ids) {
  TrContext* tr = kyrHttpContextGetTrContext(ctx);
  trTrace(tr, ts->affinityRec, TR_LEVEL_DEBUG, "getSessionIdFromUrl: URL obtained='%s'\n",
          kyrNullText(ids.path));
  if (ids.urlSid != nullptr) {
    trDebug(tr, ts->affinityRec, "getSessionIdFromUrl: session id='%s'\n", ids.urlSid);
  }
  return ids.urlSid;
}

TargetServerApplication* getAffinitySappFromSid(KyrHttpContext* ctx, VirtualCluster* vc,
                                                const char* appName, const char* sid,
                                                const char* delimiter, KyrTime now,
                                                std::string* reason) {
  TargetSelector* ts = vc->selector;
  TrContext* tr = kyrHttpContextGetTrContext(ctx);
  const bool debug = trEnabled(tr, ts->affinityRec);  // asked once per call
  // The first piece is the session's own ID; every further piece names a server. The pieces
  // are taken where they lie rather than copied out with kyrStrSplit (same pieces: empty ones
  // between two delimiters count, a trailing delimiter adds none), which would allocate on
  // every request that carries a session.
  size_t delimiterLen = delimiter != nullptr ? strlen(delimiter) : 0;
  const char* next = delimiterLen > 0 ? strstr(sid, delimiter) : nullptr;
  if (debug && (next == nullptr || next[delimiterLen] == '\0')) {
    trContextDebug(tr, ts->affinityRec, "getCloneIds: no cloneIds found in the session cookie");
  }
  std::string why;
  TargetServerApplication* result = nullptr;
  while (next != nullptr && result == nullptr) {
    const char* start = next + delimiterLen;
    next = strstr(start, delimiter);
    if (next == nullptr && *start == '\0') break;
    std::string candidate(start,
                          next != nullptr ? static_cast<size_t>(next - start) : strlen(start));
    if (debug)
      trContextDebug(tr, ts->affinityRec, "getCloneIds: found cloneId %s", candidate.c_str());
    std::string mapped;
    const char* cloneId =
        getRealCloneId(ctx, vc, candidate.c_str(), &mapped) ? mapped.c_str() : candidate.c_str();
    auto* server = static_cast<TargetServer*>(kyrHashGet(ts->serverMapByCloneId, cloneId));
    if (server == nullptr) {
      why += std::string("Server was not found for cloneId '") + cloneId + "'\n";
      continue;
    }
    TargetServerApplication* sapp = findSapp(server, appName);
    if (sapp == nullptr) {
      why += std::string("Server application was not found for cloneId '") + cloneId + "'\n";
      continue;
    }
    if (const char* verdict = sappIsSelectableForAffinity(sapp, now)) {
      why += std::string("Server application for cloneId '") + cloneId +
             "' is not selectable because " + verdict + "\n";
      continue;
    }
    if (debug) {
      trContextDebug(tr, ts->affinityRec,
                     "getAffinitySappFromSid: Found routable sapp for partitionId=%s, cloneId=%s\n",
                     candidate.c_str(), cloneId);
    }
    result = sapp;
  }
  if (result == nullptr) {
    if (debug) {
      trContextDebug(tr, ts->affinityRec,
                     "getAffinitySappFromSid: a routable sapp was not found for any cloneId in the "
                     "sessionId '%s' because:\n\t %s\n",
                     sid, why.c_str());
    }
    *reason += why;
  }
  return result;
}

// The cookies were read before the lock with the policy the module had then; when a document
// has replaced it since, they are still used, as if the request had come a moment earlier.
TargetServerApplication* getAffinityTargetServerApplication(KyrHttpContext* ctx, VirtualCluster* vc,
                                                            HttpAffinityPolicy* policy,
                                                            const char* appName, KyrTime now,
                                                            const SessionIds& ids,
                                                            std::string* reason) {
  TargetSelector* ts = vc->selector;
  const char* delimiter = ":";
  if (policy != nullptr) {
    delimiter = hapGetDelimiter(policy);
    kyrHttpContextSetAffinityPolicy(ctx, policy);
  }
  std::string collected;
  for (int i = 0; i < ids.cookieCount; ++i) {
    const SessionIds::Cookie& cookie = ids.cookies[i];
    trDebug(kyrHttpContextGetTrContext(ctx), ts->affinityRec,
            "getAffinityTargetServerApplication: Found session cookie '%s' with value '%s'\n",
            cookie.name, cookie.value);
    TargetServerApplication* sapp =
        getAffinitySappFromSid(ctx, vc, appName, cookie.value, delimiter, now, &collected);
    if (sapp != nullptr) return sapp;
  }
  if (const char* sid = getSessionIdFromUrl(ts, ctx, ids)) {
    TargetServerApplication* sapp =
        getAffinitySappFromSid(ctx, vc, appName, sid, delimiter, now, &collected);
    if (sapp != nullptr) return sapp;
  }
  *reason += collected;
  return nullptr;
}

}  // namespace kyr

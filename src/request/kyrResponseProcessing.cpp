// What the library takes from a response before the host returns it: the partition table that
// the application server sends along (consumed, never shown to the client), clone IDs learnt
// from session cookies, and the affinity cookies that bring the session's later requests back
// to the same server.
#include <cstring>
#include <string>

#include "core/kyrPartitionData.h"
#include "mapping/kyrRequestMapper.h"
#include "request/kyrHttpContext.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "runtime/kyrUtil.h"
#include "selection/kyrTargetSelector.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// Stands in for the session ID in the cookies written here: only the clone ID after it counts.
constexpr const char* kPlaceholderSessionId = "aa";

const EnvCallBacks& env(KyrHttpContext* ctx) { return ctx->kyr->env; }

char** policyCookieNames(KyrHttpContext* ctx) {
  return ctx->policy != nullptr ? hapGetCookieNames(ctx->policy) : nullptr;
}

// The delimiter the selection side assumes when a policy names none.
const char* policyDelimiter(KyrHttpContext* ctx) {
  const char* delimiter = ctx->policy != nullptr ? hapGetDelimiter(ctx->policy) : nullptr;
  return delimiter != nullptr ? delimiter : ":";
}

void freeEntry(void* block) { kyrFree(block); }

// "partitionID:cloneID;..." as partition data; entries without both parts are skipped. The map
// borrows its keys, so each entry is one block holding the clone ID (the value) followed by the
// partition ID (the key), and freeing the value frees the key with it.
PartitionIDData* parsePartitionTable(const char* table, const char* version) {
  KyrHashMap* map = kyrHashMapCreate2(freeEntry);
  char** entries = kyrStrSplit(table, ";");
  for (char** entry = entries; entry != nullptr && *entry != nullptr; ++entry) {
    char** parts = kyrStrSplit(*entry, ":");
    if (parts[0] != nullptr && parts[1] != nullptr && *parts[0] != '\0' && *parts[1] != '\0') {
      size_t cloneLen = strlen(parts[1]);
      size_t partitionLen = strlen(parts[0]);
      auto* block = static_cast<char*>(kyrMalloc(cloneLen + 1 + partitionLen + 1));
      memcpy(block, parts[1], cloneLen + 1);
      memcpy(block + cloneLen + 1, parts[0], partitionLen + 1);
      kyrFree(kyrHashPut(map, block + cloneLen + 1, block));  // a repeated ID: the last wins
    }
    kyrFreeStrSplitArray(parts);
  }
  kyrFreeStrSplitArray(entries);
  return tsPartitionIDDataCreate(map, version);
}

// The table belongs to the cluster the request was routed to, on which it holds a reference.
void storePartitionTable(KyrHttpContext* ctx, const char* table, const char* version) {
  const Cluster* cluster = ctx->targetCluster;
  if (cluster != nullptr && *cluster->name != '\0') {
    kyrSetPartitionData(ctx->kyr, cluster->name, parsePartitionTable(table, version));
  }
}

// Clone IDs are set once, possibly by another request's response, and published when set.
std::string serverCloneId(TargetServer* server) {
  const char* cloneId = kyrPublished(server->cloneId);
  return cloneId != nullptr ? cloneId : "";
}

// Every response callback is optional: a host without the one a step needs loses that step
// alone, and the request goes on.
void skipStep(KyrHttpContext* ctx, const char* callback, const char* step) {
  trDebug(ctx->trContext, ctx->responseProcess,
          "kyrHttpContextPerformResponseProcessing: the host has no %s; %s skipped\n", callback,
          step);
}

// Through the host's cookie setter when it has one, else as a "Set-Cookie" header.
void writeCookie(KyrHttpContext* ctx, const char* name, const char* value) {
  const auto& rs = env(ctx).http.response;
  if (rs.setCookieValue != nullptr) {
    rs.setCookieValue(ctx->envHttpContext, const_cast<char*>(name), const_cast<char*>(value));
    return;
  }
  if (rs.setHeaderValue == nullptr) {
    skipStep(ctx, "http.response.setCookieValue or setHeaderValue", name);
    return;
  }
  std::string header = std::string(name) + "=" + (value != nullptr ? value : "");
  rs.setHeaderValue(ctx->envHttpContext, const_cast<char*>("Set-Cookie"), header.data());
}

// The server's clone ID from the second field of the session cookie's value.
bool learnCloneId(KyrHttpContext* ctx, TargetServer* server, const std::string& value) {
  if (ctx->policy == nullptr || !hapGetLearnServerIDs(ctx->policy)) return false;
  char** fields = kyrStrSplit(value.c_str(), hapGetDelimiter(ctx->policy));
  bool learnt = fields != nullptr && fields[0] != nullptr && fields[1] != nullptr;
  if (learnt) {
    tsServerSetPropStr(server, "id", fields[1]);
    trDebug(ctx->trContext, ctx->responseProcess,
            "kyrHttpContextPerformResponseProcessing: matched server %s for cloneID %s\n",
            server->name, fields[1]);
  }
  kyrFreeStrSplitArray(fields);
  return learnt;
}

// "ZQJSESSIONID" carries the clone ID with the session cookie's own attributes. A session
// cookie without attributes deliberately yields a cookie without a value.
void setCloneIdCookie(KyrHttpContext* ctx, TargetServer* server, const char* sessionCookie) {
  std::string cloneId = serverCloneId(server);
  if (cloneId.empty()) return;
  const char* attributes = strchr(sessionCookie, ';');
  std::string value;
  if (attributes != nullptr) {
    value = kPlaceholderSessionId + std::string(policyDelimiter(ctx)) + cloneId + attributes;
  }
  const char* text = attributes != nullptr ? value.c_str() : nullptr;
  trDebug(ctx->trContext, ctx->responseProcess,
          "kyrHttpContextPerformResponseProcessing: setting cookie ZQJSESSIONID=%s\n",
          kyrNullText(text));
  writeCookie(ctx, "ZQJSESSIONID", text);
}

// The sticky-routing cookie of a permit-sticky rule, for a session the application has not
// started. "ZQJESSIONID" is spelt without the S on purpose: clients hold cookies of exactly
// that name.
void setStickyCookie(KyrHttpContext* ctx, TargetServer* server) {
  std::string cloneId = serverCloneId(server);
  if (cloneId.empty()) return;
  std::string value = kPlaceholderSessionId + std::string(policyDelimiter(ctx)) + cloneId +
                      "; Path=" + (ctx->contextRoot.text != nullptr ? ctx->contextRoot.text : "");
  // The trace line deliberately names the other cookie; trace readers search for that name.
  trDebug(ctx->trContext, ctx->responseProcess,
          "kyrHttpContextPerformResponseProcessing: setting sticky cookie ZQJSESSIONID=%s\n",
          value.c_str());
  writeCookie(ctx, "ZQJESSIONID", value.c_str());
}

// A Set-Cookie value that names the cookie somewhere (a plain substring test, on purpose) and
// has a "=" after its first character.
bool namesCookie(const char* setCookie, const char* name) {
  if (setCookie == nullptr || strstr(setCookie, name) == nullptr) return false;
  const char* eq = strchr(setCookie, '=');
  return eq != nullptr && eq > setCookie;
}

}  // namespace

const char* getResponseSessionCookie(KyrHttpContext* ctx) {
  const auto& rs = env(ctx).http.response;
  auto* setCookieName = const_cast<char*>("Set-Cookie");
  for (char** name = policyCookieNames(ctx); name != nullptr && *name != nullptr; ++name) {
    const char* found = nullptr;
    if (rs.getHeaderValues != nullptr) {
      char** values = rs.getHeaderValues(ctx->envHttpContext, setCookieName);
      for (char** v = values; v != nullptr && *v != nullptr && found == nullptr; ++v) {
        if (namesCookie(*v, *name)) found = *v;
      }
    } else if (rs.getHeaderValue != nullptr) {
      const char* value = rs.getHeaderValue(ctx->envHttpContext, setCookieName);
      if (namesCookie(value, *name)) found = value;
    }
    if (found != nullptr) {
      const char* cookie = strchr(found, '=') + 1;
      trDebug(ctx->trContext, ctx->responseProcess,
              "getResponseSessionCookie: Found %s=%s in the response\n", *name, cookie);
      return cookie;
    }
  }
  trDebug(ctx->trContext, ctx->responseProcess,
          "getResponseSessionCookie: No session cookie found in the response\n");
  return nullptr;
}

const char* getRequestSessionCookieValue(KyrHttpContext* ctx) {
  const auto& rq = env(ctx).http.request;
  for (char** name = policyCookieNames(ctx); name != nullptr && *name != nullptr; ++name) {
    if (const char* value = rq.getCookieValue(ctx->envHttpContext, *name)) return value;
  }
  return nullptr;
}

}  // namespace kyr

using namespace kyr;

extern "C" {

int kyrHttpContextPerformResponseProcessing(KyrHttpContext* ctx) {
  const auto& rs = env(ctx).http.response;
  EnvHttpContext* response = ctx->envHttpContext;
  auto* tableHeader = const_cast<char*>("$ZQPT");
  auto* versionHeader = const_cast<char*>("_ZQ_HAPRT_WLMVERSION");
  const char* table = nullptr;
  const char* version = nullptr;
  if (rs.getHeaderValue != nullptr) {
    table = rs.getHeaderValue(response, tableHeader);
    version = rs.getHeaderValue(response, versionHeader);
  } else {
    skipStep(ctx, "http.response.getHeaderValue", "partition table");
  }
  trDebug(ctx->trContext, ctx->responseProcess,
          "kyrHttpContextPerformResponseProcessing: zqptHdr=%s, partitionVerHdr=%s\n",
          kyrNullText(table), kyrNullText(version));
  if (table != nullptr && version != nullptr) {
    if (ctx->targetEndpoint != nullptr) storePartitionTable(ctx, table, version);
    // Internal to the servers and the library: the client never sees them.
    if (rs.setHeaderValue != nullptr) {
      rs.setHeaderValue(response, tableHeader, nullptr);
      rs.setHeaderValue(response, versionHeader, nullptr);
    } else {
      skipStep(ctx, "http.response.setHeaderValue", "removing the partition table headers");
    }
  }
  // A request routed by affinity already carries the cookies that brought it here.
  if (!ctx->performedLoadBalancing || ctx->targetServerApplication == nullptr) return 0;
  TargetServer* server = ctx->targetServerApplication->server;
  const char* sessionCookie = getResponseSessionCookie(ctx);
  if (sessionCookie != nullptr && tsServerGetType(server) != KYRSERVERTYPE_APPLICATION_SERVER) {
    std::string value(sessionCookie, strcspn(sessionCookie, ";"));
    if (!learnCloneId(ctx, server, value)) setCloneIdCookie(ctx, server, sessionCookie);
  }
  if (ctx->sticky && sessionCookie == nullptr && getRequestSessionCookieValue(ctx) == nullptr) {
    setStickyCookie(ctx, server);
  }
  return 0;
}

}  // extern "C"

// The private request headers that tell the application server about the client's own
// connection (the host forwards the request, so the server would otherwise only see the host)
// and which partition table version the library knows for the target's cluster.
#include <cstring>
#include <string>

#include "core/kyrPartitionData.h"
#include "request/kyrHttpContext.h"
#include "selection/kyrTargetSelector.h"

namespace kyr {
namespace {

int setHeader(KyrHttpContext* ctx, const char* name, const char* value) {
  return ctx->kyr->env.http.request.setHeaderValue(ctx->envHttpContext, const_cast<char*>(name),
                                                   const_cast<char*>(value));
}

// Set even when private headers are disabled: the server compares it with its own table and
// sends a new one when they differ.
void setPartitionTableVersionHeader(KyrHttpContext* ctx) {
  Kyr* kyr = ctx->kyr;
  // The request holds a reference on its target's cluster, so the name needs no selector lock.
  const char* cluster = ctx->targetEndpoint != nullptr && ctx->targetCluster != nullptr
                            ? ctx->targetCluster->name
                            : nullptr;
  if (cluster == nullptr || !kyrAnyPartitionData(kyr)) {
    setHeader(ctx, "_ZQ_HAPRT_WLMVERSION", "-1");
    return;
  }
  // The host is called under the partition lock, which keeps the version text alive until the
  // host has copied it.
  KyrLockGuard partitionGuard(kyr->partitionIDData.lock, "setPartitionTableVersionHeader");
  PartitionIDData* data = kyrGetPartitionData(kyr, cluster);
  const char* version = data != nullptr ? tsPartitionIDDataGetVersion(data) : nullptr;
  setHeader(ctx, "_ZQ_HAPRT_WLMVERSION", version != nullptr ? version : "-1");
}

}  // namespace
}  // namespace kyr

using namespace kyr;

extern "C" {

int kyrHttpContextAddPrivateHeaders(KyrHttpContext* ctx) {
  if (ctx->privateHeadersAdded) return 0;
  ctx->privateHeadersAdded = true;
  setPartitionTableVersionHeader(ctx);
  Kyr* kyr = ctx->kyr;
  if (kyrPrivateHeadersDisabled(kyr)) return 0;
  const auto& rq = kyr->env.http.request;
  EnvHttpContext* request = ctx->envHttpContext;
  const char* clientIp = rq.getClientIpAddr(request);
  if (!kyrIsTrustedProxy(kyr, clientIp)) return 0;
  const char* protocol = rq.getProtocol(request);
  std::string port = std::to_string(rq.getVirtualPort(request));
  // The order is part of the protocol with the application servers.
  setHeader(ctx, "$ZQRA", clientIp);
  // Deliberately the address again, not the client's host name: servers rely on finding the
  // address under both names.
  setHeader(ctx, "$ZQRH", clientIp);
  setHeader(ctx, "$ZQSN", rq.getVirtualHost(request));
  setHeader(ctx, "$ZQSP", port.c_str());
  setHeader(ctx, "$ZQPR", rq.getProtocolVersion(request));
  setHeader(ctx, "$ZQSC", protocol);
  setHeader(ctx, "$ZQIS", protocol != nullptr && strcmp(protocol, "https") == 0 ? "TRUE" : "FALSE");
  setHeader(ctx, "$ZQCC", rq.getClientCertificate(request));
  setHeader(ctx, "$ZQCS", rq.getSSLCipherSuite(request));
  setHeader(ctx, "$ZQSI", rq.getSSLSessionId(request));
  setHeader(ctx, "$ZQAT", rq.getAuthType(request));
  setHeader(ctx, "$ZQRU", rq.getUserName(request));
  return 0;
}

int kyrHttpContextBreakAffinity(KyrHttpContext* ctx) { return setHeader(ctx, "$ZQFO", "true"); }

}  // extern "C"

// A host for benchmarks: the callbacks kyrCreate requires, answering nothing, and a trace
// printer that prints nothing, so figures measure the library and not the host.
#pragma once

#include "kyrlib.h"

namespace kyrbench {

inline char* noText(EnvHttpContext*) { return nullptr; }
inline int noPort(EnvHttpContext*) { return 0; }
inline int noSet(EnvHttpContext*, char*, char*) { return 0; }
inline char* noCookie(EnvHttpContext*, char*) { return nullptr; }
inline void quiet(TrContext*, va_list) {}

inline EnvCallBacks quietCallbacks() {
  EnvCallBacks env{};
  env.version = KYR_ENV_CALLBACKS_VERSION;
  auto& rq = env.http.request;
  rq.getProtocol = rq.getVirtualHost = rq.getPath = rq.getClientIpAddr = noText;
  rq.getProtocolVersion = rq.getClientCertificate = rq.getSSLCipherSuite = noText;
  rq.getSSLSessionId = rq.getAuthType = rq.getUserName = noText;
  rq.getVirtualPort = rq.getListeningPort = noPort;
  rq.setHeaderValue = noSet;
  rq.getCookieValue = noCookie;
  env.trace.printf = quiet;
  return env;
}

// One handle for a whole benchmark program, for those that only need its trace manager.
inline Kyr* sharedKyr() {
  static Kyr* kyr = [] {
    EnvCallBacks env = quietCallbacks();
    return kyrCreate(&env, nullptr, KYR_TRACE_CATALOGUE);
  }();
  return kyr;
}

}  // namespace kyrbench

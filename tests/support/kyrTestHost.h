// A host for tests: a callback table over a toy request (`EnvHttpContext` is the host's type, so
// tests define it), a recorder of the state changes the library reports, and a create call that
// reads the shipped trace catalogue.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "kyrlib.h"

// The toy request a test builds and hands to the library in place of a web server's request.
struct EnvHttpContext {
  std::string protocol = "http";
  std::string protocolVersion = "HTTP/1.1";
  std::string method = "GET";
  std::string virtualHost = "localhost";
  int virtualPort = 80;
  int listeningPort = 80;
  std::string path = "/";
  std::string queryString;
  std::string clientIp = "127.0.0.1";
  std::string localAddress = "127.0.0.1";
  std::map<std::string, std::string> headers;
  std::map<std::string, std::string> cookies;
  int responseCode = 200;
  std::map<std::string, std::string> responseHeaders;
  std::map<std::string, std::string> responseCookies;
};

namespace kyrtest {

// One report through stateChange.kyr, stateChange.kyrConnectorGroup or stateChange.kyrConnector.
struct StateChange {
  const void* object;
  KyrComponentState state;
  std::string reason;
};

class StateChanges {
 public:
  void add(const void* object, KyrComponentState state, const char* reason) {
    std::lock_guard<std::mutex> guard(lock_);
    changes_.push_back({object, state, reason != nullptr ? reason : ""});
  }
  std::vector<StateChange> of(const void* object) {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<StateChange> mine;
    for (const auto& c : changes_) {
      if (c.object == object) mine.push_back(c);
    }
    return mine;
  }
  void clear() {
    std::lock_guard<std::mutex> guard(lock_);
    changes_.clear();
  }

 private:
  std::mutex lock_;  // request threads and the worker thread report concurrently
  std::vector<StateChange> changes_;
};

// Callbacks carry no user data, so the recorder is process-wide.
inline StateChanges& stateChanges() {
  static StateChanges changes;
  return changes;
}

namespace host {

// The library never frees what these return; pointers into the toy request stay valid while it
// lives, which is the contract a real host keeps too.
inline char* str(const std::string& s) { return const_cast<char*>(s.c_str()); }
inline char* lookup(const std::map<std::string, std::string>& m, const char* name) {
  auto it = m.find(name);
  return it == m.end() ? nullptr : str(it->second);
}

inline char* getClientIpAddr(EnvHttpContext* r) { return str(r->clientIp); }
inline char* getClientHostName(EnvHttpContext*) { return nullptr; }
inline char* getProtocolVersion(EnvHttpContext* r) { return str(r->protocolVersion); }
inline int getListeningPort(EnvHttpContext* r) { return r->listeningPort; }
inline char* getVirtualHost(EnvHttpContext* r) { return str(r->virtualHost); }
inline char* getLocalAddress(EnvHttpContext* r) { return str(r->localAddress); }
inline int getVirtualPort(EnvHttpContext* r) { return r->virtualPort; }
inline char* getProtocol(EnvHttpContext* r) { return str(r->protocol); }
inline char* getMethod(EnvHttpContext* r) { return str(r->method); }
inline char* getPath(EnvHttpContext* r) { return str(r->path); }
inline char* getQueryString(EnvHttpContext* r) {
  return r->queryString.empty() ? nullptr : str(r->queryString);
}
inline char* none(EnvHttpContext*) { return nullptr; }
inline char** noGroups(EnvHttpContext*) { return nullptr; }
inline char* getHeaderValue(EnvHttpContext* r, char* name) { return lookup(r->headers, name); }
inline int setHeaderValue(EnvHttpContext* r, char* name, char* value) {
  if (value == nullptr) {
    r->headers.erase(name);
  } else {
    r->headers[name] = value;
  }
  return 0;
}
inline char* getCookieValue(EnvHttpContext* r, char* name) { return lookup(r->cookies, name); }
inline int getResponseCode(EnvHttpContext* r) { return r->responseCode; }
inline char* getResponseHeader(EnvHttpContext* r, char* name) {
  return lookup(r->responseHeaders, name);
}
inline int setResponseHeader(EnvHttpContext* r, char* name, char* value) {
  if (value == nullptr) {
    r->responseHeaders.erase(name);
  } else {
    r->responseHeaders[name] = value;
  }
  return 0;
}
inline int setResponseCookie(EnvHttpContext* r, char* name, char* value) {
  r->responseCookies[name] = value != nullptr ? value : "";
  return 0;
}
inline void kyrState(Kyr* kyr, KyrComponentState state, char* reason) {
  stateChanges().add(kyr, state, reason);
}
inline void groupState(KyrConnectorGroup* group, KyrComponentState state, char* reason) {
  stateChanges().add(group, state, reason);
}
inline void connectorState(KyrConnector* connector, KyrComponentState state, char* reason) {
  stateChanges().add(connector, state, reason);
}

}  // namespace host

// A complete table; tests clear members to exercise kyrCreate's checks.
inline EnvCallBacks completeCallbacks() {
  EnvCallBacks env{};
  env.version = KYR_ENV_CALLBACKS_VERSION;
  auto& rq = env.http.request;
  rq.getClientIpAddr = host::getClientIpAddr;
  rq.getClientHostName = host::getClientHostName;
  rq.getProtocolVersion = host::getProtocolVersion;
  rq.getListeningPort = host::getListeningPort;
  rq.getVirtualHost = host::getVirtualHost;
  rq.getLocalAddress = host::getLocalAddress;
  rq.getVirtualPort = host::getVirtualPort;
  rq.getProtocol = host::getProtocol;
  rq.getMethod = host::getMethod;
  rq.getPath = host::getPath;
  rq.getQueryString = host::getQueryString;
  rq.getAuthType = host::none;
  rq.getUserName = host::none;
  rq.getGroupNames = host::noGroups;
  rq.getClientCertificate = host::none;
  rq.getSSLCipherSuite = host::none;
  rq.getSSLSessionId = host::none;
  rq.getHeaderValue = host::getHeaderValue;
  rq.setHeaderValue = host::setHeaderValue;
  rq.getCookieValue = host::getCookieValue;
  auto& rs = env.http.response;
  rs.getResponseCode = host::getResponseCode;
  rs.getHeaderValue = host::getResponseHeader;
  rs.setHeaderValue = host::setResponseHeader;
  rs.setCookieValue = host::setResponseCookie;
  env.stateChange.kyr = host::kyrState;
  env.stateChange.kyrConnectorGroup = host::groupState;
  env.stateChange.kyrConnector = host::connectorState;
  env.trace.printf = trDefaultPrintf;
  return env;
}

// Owns a callback table; create() reads the catalogue the library ships.
struct TestHost {
  EnvCallBacks env = completeCallbacks();
  Kyr* create() { return kyrCreate(&env, nullptr, KYR_TRACE_CATALOGUE); }
};

}  // namespace kyrtest

// The callbacks of kyrroute's host. Values handed to the library point into the host request,
// which outlives the library's use of them (one request at a time).
#include "host.h"

#include <strings.h>

namespace kyrroute {
namespace {

char* text(const std::string& s) { return const_cast<char*>(s.c_str()); }

std::pair<std::string, std::string>* find(std::vector<std::pair<std::string, std::string>>& list,
                                          const char* name) {
  for (auto& entry : list) {
    if (strcasecmp(entry.first.c_str(), name) == 0) return &entry;
  }
  return nullptr;
}

// Setting NULL removes the header, as the library does with headers it consumes.
int setIn(std::vector<std::pair<std::string, std::string>>& list, const char* name,
          const char* value) {
  auto* entry = find(list, name);
  if (value == nullptr) {
    if (entry != nullptr) list.erase(list.begin() + (entry - list.data()));
  } else if (entry != nullptr) {
    entry->second = value;
  } else {
    list.emplace_back(name, value);
  }
  return 0;
}

char* getClientIpAddr(EnvHttpContext*) { return const_cast<char*>("127.0.0.1"); }
char* getClientHostName(EnvHttpContext*) { return const_cast<char*>("localhost"); }
char* getLocalAddress(EnvHttpContext*) { return const_cast<char*>("127.0.0.1"); }
char* getProtocolVersion(EnvHttpContext*) { return const_cast<char*>("HTTP/1.1"); }
char* none(EnvHttpContext*) { return nullptr; }
int getPort(EnvHttpContext* r) { return r->request->port; }
char* getVirtualHost(EnvHttpContext* r) { return text(r->request->host); }
char* getProtocol(EnvHttpContext* r) { return text(r->request->protocol); }
char* getMethod(EnvHttpContext* r) { return text(r->request->method); }
char* getPath(EnvHttpContext* r) { return text(r->request->path); }
char* getQueryString(EnvHttpContext* r) {
  return r->request->query.empty() ? nullptr : text(r->request->query);
}

char** getGroupNames(EnvHttpContext*) { return nullptr; }

char* getHeaderValue(EnvHttpContext* r, char* name) {
  auto* entry = find(r->headers, name);
  return entry != nullptr ? text(entry->second) : nullptr;
}

int setHeaderValue(EnvHttpContext* r, char* name, char* value) {
  r->headersSet.emplace_back(name, value != nullptr ? value : "(none)");
  return setIn(r->headers, name, value);
}

char* getCookieValue(EnvHttpContext* r, char* name) {
  auto it = r->request->cookies.find(name);
  return it != r->request->cookies.end() ? text(it->second) : nullptr;
}

int resume(EnvHttpContext*) { return 0; }

int getResponseCode(EnvHttpContext* r) { return r->responseCode; }

char* getResponseHeader(EnvHttpContext* r, char* name) {
  auto* entry = find(r->responseHeaders, name);
  return entry != nullptr ? text(entry->second) : nullptr;
}

int setResponseHeader(EnvHttpContext* r, char* name, char* value) {
  return setIn(r->responseHeaders, name, value);
}

int setCookieValue(EnvHttpContext* r, char* name, char* value) {
  r->cookiesSet.emplace_back(name, value != nullptr ? value : "");
  return 0;
}

char* noResponseCookie(EnvHttpContext*, char*) { return nullptr; }

}  // namespace

EnvCallBacks hostCallbacks(TrPrintf printf) {
  EnvCallBacks env{};
  env.version = KYR_ENV_CALLBACKS_VERSION;
  auto& rq = env.http.request;
  rq.getClientIpAddr = getClientIpAddr;
  rq.getClientHostName = getClientHostName;
  rq.getProtocolVersion = getProtocolVersion;
  rq.getListeningPort = getPort;
  rq.getVirtualHost = getVirtualHost;
  rq.getLocalAddress = getLocalAddress;
  rq.getVirtualPort = getPort;
  rq.getProtocol = getProtocol;
  rq.getMethod = getMethod;
  rq.getPath = getPath;
  rq.getQueryString = getQueryString;
  rq.getAuthType = none;
  rq.getUserName = none;
  rq.getGroupNames = getGroupNames;
  rq.getClientCertificate = none;
  rq.getSSLCipherSuite = none;
  rq.getSSLSessionId = none;
  rq.getHeaderValue = getHeaderValue;
  rq.setHeaderValue = setHeaderValue;
  rq.getCookieValue = getCookieValue;
  rq.resume = resume;
  auto& rs = env.http.response;
  rs.getResponseCode = getResponseCode;
  rs.getHeaderValue = getResponseHeader;
  rs.setHeaderValue = setResponseHeader;
  rs.getCookieValue = noResponseCookie;
  rs.setCookieValue = setCookieValue;
  env.trace.printf = printf;
  return env;
}

EnvHttpContext hostRequest(const Request& request,
                           const std::vector<std::pair<std::string, std::string>>& response) {
  EnvHttpContext r;
  r.request = &request;
  r.headers = request.headers;
  r.responseHeaders = response;
  return r;
}

}  // namespace kyrroute

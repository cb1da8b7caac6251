// kyrroute as a host: the callback table the library calls for a request, answering from a
// parsed request and recording what the library writes back (request headers it sets, response
// headers it removes, cookies it sets).
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kyrlib.h"
#include "request.h"

struct EnvHttpContext {
  const kyrroute::Request* request;
  std::vector<std::pair<std::string, std::string>> headers;     // the request's, as changed
  std::vector<std::pair<std::string, std::string>> headersSet;  // by the library, in order
  int responseCode = 200;
  std::vector<std::pair<std::string, std::string>> responseHeaders;
  std::vector<std::pair<std::string, std::string>> cookiesSet;  // response cookies, in order
  std::vector<std::string> groupNames;                          // none: no authenticated user
};

namespace kyrroute {

// A complete table; `printf` receives the library's trace output.
EnvCallBacks hostCallbacks(TrPrintf printf);

// A fresh host request for `request`, with the response headers a server would send.
EnvHttpContext hostRequest(const Request& request,
                           const std::vector<std::pair<std::string, std::string>>& response);

}  // namespace kyrroute

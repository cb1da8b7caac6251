// One library handle as kyrroute uses it: routing documents loaded from files as a publisher
// would deliver them, or learnt from publishers through a connector group, the reader's
// diagnostics collected, and requests routed one at a time.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "kyrlib.h"
#include "request.h"

namespace kyrroute {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct Diagnostic {
  std::string document;  // the file being loaded
  std::string text;
};

// What the library decided for one request.
struct Decision {
  std::string request;
  int mapping = 0;  // 1 mapped, 0 not mapped, -1 bad request
  std::string module, application, edition;
  KyrAction action = NONE;
  bool sticky = false;
  int errorCode = 0;
  std::string errorMsg, redirectURL;
  bool routed = false;
  std::string server, cloneId, protocol, host;
  int port = 0;
  HeaderList headersSet;  // request headers the library set, in order
  HeaderList cookiesSet;  // response cookies it set on the simulated response
};

// The publishers the routing data is learnt from, as one connector group.
struct Publishers {
  std::vector<std::string> urls;  // tried in this order
  std::string group = "kyrroute";
  std::vector<std::string> properties;  // "NAME=VALUE" settings of the group
};

class Library {
 public:
  // The handle reads the trace catalogue at `catalogue`; `serverName` is this web server's
  // name in the cell ("cell_node_server"), which decides what applies to it alone. `adjust`
  // may change the host's callback table before the handle is created from it.
  Library(const std::string& catalogue, const std::string& serverName,
          const std::function<void(EnvCallBacks&)>& adjust = {});
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  bool ok() const { return kyr_ != nullptr; }
  // Applies the file's document; false with `error` set when it cannot be read or parsed.
  bool load(const std::string& path, std::string& error);
  // Creates the connector group with one connector per publisher and starts the handle without
  // waiting; false with `error` set when the group refuses one of its settings.
  bool startPublishers(const Publishers& publishers, std::string& error);
  // startPublishers, then waits until a publisher delivered a complete document; false with
  // `error` set when every publisher failed or none did within `timeoutSecs` (0: no limit).
  bool learnFrom(const Publishers& publishers, int timeoutSecs, std::string& error);
  KyrComponentState state() const { return kyrGetState(kyr_); }
  const std::vector<Diagnostic>& diagnostics() const { return diagnostics_; }
  // Routes the request through the whole life of a request context; `response` are the headers
  // of the simulated response, which comes after the request's service time for its server.
  Decision route(const Request& request, const HeaderList& response);
  std::string stateReport();

 private:
  static void capture(TrContext* context, va_list args);

  EnvCallBacks env_;
  Kyr* kyr_ = nullptr;
  KyrConnector* connector_ = nullptr;  // the documents loaded from files come through it
  bool started_ = false;
  std::string loading_;  // the file being applied, for diagnostics
  std::vector<Diagnostic> diagnostics_;
};

}  // namespace kyrroute

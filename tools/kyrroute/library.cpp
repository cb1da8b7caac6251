// kyrroute's use of the library. The reader reports problems inside a document as debug lines
// of "control.process" and bad JSON on "control.error.invalidJSON"; kyrroute turns both on and
// keeps the lines that describe a problem, once each (the reader passes over a delta twice).
#include "library.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "host.h"

namespace kyrroute {
namespace {

Library* g_current = nullptr;  // the trace callback carries no user data; one handle at a time
// The thread applying a file's document, the one whose trace lines are diagnostics. The
// library's own threads trace too (connectors, requests, also after kyrDestroy returned): they
// read only this, never the handle's fields, which belong to the loading thread.
std::atomic<std::thread::id> g_loadingThread;

// Beginnings of the reader's lines that report a problem.
const char* const kProblems[] = {"object with no type",
                                 "no object handler for type",
                                 "object of type",
                                 "no parent name for",
                                 "parent for ",
                                 "failed to ",
                                 "set operation but object",
                                 "unknown type for property",
                                 "skip ",
                                 "no relationship handler",
                                 "no colon found",
                                 "unexpected ",
                                 "deltaObjects failure",
                                 "deltaRel: failed",
                                 "Invalid JSON",
                                 "kyrRuleInit:",
                                 "Rule expression '"};

bool isProblem(const std::string& text) {
  // URIs are stored in their module, never as objects of their own: not a problem.
  if (text.rfind("failed to create uri object", 0) == 0) return false;
  for (const char* p : kProblems) {
    if (text.rfind(p, 0) == 0) return true;
  }
  return false;
}

std::string orEmpty(const char* s) { return s != nullptr ? s : ""; }

// A rule that failed to parse is shown with a caret under the position the parser stopped at.
std::string withCaret(const std::string& text) {
  static const std::string kStart = "Rule expression '";
  static const std::string kAt = "' failed to parse at position ";
  size_t at = text.rfind(kAt);
  if (text.rfind(kStart, 0) != 0 || at == std::string::npos) return text;
  std::string expression = text.substr(kStart.size(), at - kStart.size());
  int position = atoi(text.c_str() + at + kAt.size());
  if (position < 0 || static_cast<size_t>(position) > expression.size()) return text;
  return text + "\n      " + expression + "\n      " + std::string(position, ' ') + "^";
}

std::string joined(const std::vector<std::string>& urls) {
  std::string text;
  for (const std::string& url : urls) text += (text.empty() ? "" : ", ") + url;
  return text;
}

}  // namespace

Library::Library(const std::string& catalogue, const std::string& serverName,
                 const std::function<void(EnvCallBacks&)>& adjust)
    : env_(hostCallbacks(capture)) {
  g_current = this;
  if (adjust) adjust(env_);
  kyr_ = kyrCreate(&env_, nullptr, catalogue.c_str());
  if (kyr_ == nullptr) return;
  kyrSetServerName(kyr_, serverName.c_str());
  kyrSetDefaultTraceSpec(kyr_, ":NOTICE,control.process:DEBUG,control.error:DEBUG");
}

Library::~Library() {
  if (kyr_ != nullptr) {
    if (started_) kyrStop(kyr_);
    kyrDestroy(kyr_);
  }
  g_current = nullptr;
}

void Library::capture(TrContext* context, va_list args) {
  if (g_loadingThread.load() != std::this_thread::get_id()) return;
  const char* format = trContextGetFormat(context);
  if (format == nullptr) return;
  char buffer[4096];
  vsnprintf(buffer, sizeof buffer, format, args);
  std::string text = buffer;
  while (!text.empty() && text.back() == '\n') text.pop_back();
  if (!isProblem(text)) return;
  // Bad JSON is reported with the whole document; its name and the parser's words suffice.
  size_t document = text.find("; document:");
  if (document != std::string::npos) text.erase(document);
  text = withCaret(text);
  for (const Diagnostic& d : g_current->diagnostics_) {
    if (d.document == g_current->loading_ && d.text == text) return;
  }
  g_current->diagnostics_.push_back({g_current->loading_, text});
}

bool Library::load(const std::string& path, std::string& error) {
  std::ifstream in(path);
  if (!in) {
    error = "cannot read " + path + ": " + strerror(errno);
    return false;
  }
  std::stringstream text;
  text << in.rdbuf();
  // Files are applied as one publisher's documents; this group is never started, so it exists
  // only for handles that load files.
  if (connector_ == nullptr) {
    connector_ = kyrConnectorCreate(kyrConnectorGroupCreate(kyr_, "kyrroute"), "file:");
  }
  loading_ = path;
  g_loadingThread = std::this_thread::get_id();
  size_t before = diagnostics_.size();
  kyrControlLock("kyrroute");
  int64_t version = kyrHandleJsonFromRestService(text.str().c_str(), connector_);
  kyrControlUnlock();
  g_loadingThread = std::thread::id();
  loading_.clear();
  if (version == -1 && diagnostics_.size() > before &&
      diagnostics_.back().text.rfind("Invalid JSON", 0) == 0) {
    error = path + " is not valid JSON: " + diagnostics_.back().text;
    return false;
  }
  return true;
}

bool Library::startPublishers(const Publishers& publishers, std::string& error) {
  KyrConnectorGroup* group = kyrConnectorGroupCreate(kyr_, publishers.group.c_str());
  for (const std::string& property : publishers.properties) {
    size_t equals = property.find('=');
    if (equals == std::string::npos || equals == 0) {
      error = "group property '" + property + "' is not NAME=VALUE";
      return false;
    }
    std::string name = property.substr(0, equals);
    if (!kyrConnectorGroupSetProperty(group, name.c_str(), property.c_str() + equals + 1)) {
      error = "the connector group refuses the property '" + property + "'";
      return false;
    }
  }
  for (const std::string& url : publishers.urls) kyrConnectorCreate(group, url.c_str());
  if (kyrStart(kyr_, -1) != 0) {
    error = "the library could not be started";
    return false;
  }
  started_ = true;
  return true;
}

bool Library::learnFrom(const Publishers& publishers, int timeoutSecs, std::string& error) {
  if (!startPublishers(publishers, error)) return false;
  // The handle is STARTED once a publisher answered the initial request with a complete
  // document, which the library has applied by then.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSecs);
  for (;;) {
    KyrComponentState now = state();
    if (now == STARTED) return true;
    if (now == FAILED) {
      error = "every publisher failed: " + joined(publishers.urls);
      return false;
    }
    if (timeoutSecs > 0 && std::chrono::steady_clock::now() >= deadline) {
      error = "no publisher delivered the routing data within " + std::to_string(timeoutSecs) +
              " s: " + joined(publishers.urls);
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

Decision Library::route(const Request& request, const HeaderList& response) {
  Decision d;
  d.request = request.text;
  EnvHttpContext host = hostRequest(request, response);
  KyrHttpContext* ctx = kyrHttpContextObtain(kyr_, &host);
  d.mapping = kyrHttpContextShouldHandle(ctx);
  d.edition = orEmpty(kyrHttpContextGetApplicationEditionName(ctx));
  d.module = orEmpty(kyrHttpContextGetModuleName(ctx));
  d.application = orEmpty(kyrHttpContextGetApplicationName(ctx));
  KyrTargetEndpoint* tep = d.mapping == 1 && kyrHttpContextGetAction(ctx) == PERMIT
                               ? kyrHttpContextGetTargetEndpoint(ctx)
                               : nullptr;
  if (tep != nullptr) {
    d.routed = true;
    d.server = orEmpty(kyrHttpContextGetTargetEndpointServerName(ctx));
    d.cloneId = orEmpty(kyrTargetEndpointGetCloneId(tep));
    d.protocol = orEmpty(kyrTargetEndpointGetProtocol(tep));
    d.host = orEmpty(kyrTargetEndpointGetHostName(tep));
    d.port = kyrTargetEndpointGetPort(tep);
    // The request goes out and, after the simulated server's service time, its response comes
    // back. The library times the request itself between the two reports, as it does for a
    // real server, so the wait is what it measures.
    for (KyrHttpContextState state : {CONNECT_SUCCESS, REQUEST_SENDING, REQUEST_SENT}) {
      kyrHttpContextSetState(ctx, state, 0, nullptr);
    }
    int serviceTimeMs = request.serviceTimes.forServer(d.server);
    if (serviceTimeMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(serviceTimeMs));
    for (KyrHttpContextState state : {RESPONSE_ARRIVED, RESPONSE_SENT}) {
      kyrHttpContextSetState(ctx, state, 0, nullptr);
    }
  }
  d.action = kyrHttpContextGetAction(ctx);
  d.sticky = kyrHttpContextGetSticky(ctx);
  d.errorCode = kyrHttpContextGetErrorCode(ctx);
  d.errorMsg = orEmpty(kyrHttpContextGetErrorMsg(ctx));
  d.redirectURL = orEmpty(kyrHttpContextGetRedirectURL(ctx));
  d.headersSet = host.headersSet;
  d.cookiesSet = host.cookiesSet;
  kyrHttpContextRelease(ctx);
  return d;
}

std::string Library::stateReport() {
  char* text = kyrToJSONString(kyr_);
  std::string report = orEmpty(text);
  free(text);
  return report;
}

}  // namespace kyrroute

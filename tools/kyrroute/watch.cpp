// kyrroute watch. The library's built-in transport is wrapped: open keeps each client's publisher
// URL, and an initial request or long poll is sent with a callback of ours that summarises the
// answer's document and then hands the untouched response to the library's own callback, which
// applies and frees it. Route changes and the other requests pass straight through.
#include "watch.h"

#include <jansson.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "connector/kyrBuiltinTransport.h"

namespace kyrroute {
namespace {

// Shared by the main thread and the library's request threads. Deliberately never freed: a
// request thread may still be answering while the process ends.
struct Watch {
  EnvCallBacks builtin;  // the library's own transport, which the wrappers call
  WatchOptions options;
  std::mutex outputLock;  // one line at a time on standard output
  // Guarded by outputLock.
  int documents = 0;
  bool closing = false;  // no more lines: the count was reached or the watch is ending
};

Watch* g_watch = nullptr;

// What the wrapped open hands the library as its client.
struct WatchClient {
  EnvConnectorClient* inner;
  std::string url;
};

// One initial request or long poll in flight. The URL is a copy: the client may be closed
// before the answer comes.
struct PendingAnswer {
  KyrHttpResponseCallBack callback;
  KyrHttpResponseContext* passback;
  std::string url;
};

// The objects of an operation's "objects" (an array or a single object), children included.
int countObjects(json_t* objects) {
  if (json_is_object(objects)) return 1 + countObjects(json_object_get(objects, "objects"));
  int count = 0;
  if (json_is_array(objects)) {
    size_t i;
    json_t* object;
    json_array_foreach(objects, i, object) { count += countObjects(object); }
  }
  return count;
}

int operationObjects(json_t* document, const char* operation) {
  json_t* op = json_object_get(document, operation);
  return json_is_object(op) ? countObjects(json_object_get(op, "objects")) : 0;
}

// The line for one answer's document; false when the body is no document. The library reads a
// missing "delta" as a delta and a missing "version" as -1, and so does the summary.
bool documentLine(const char* body, const std::string& url, bool json, std::string& text) {
  json_error_t error;
  json_t* document = json_loads(body, 0, &error);
  bool readable = json_is_object(document);
  json_t* line;
  if (!readable) {
    line =
        json_pack("{s:s, s:s, s:s}", "document", "unreadable", "error",
                  document == nullptr ? error.text : "not a JSON object", "publisher", url.c_str());
  } else {
    json_t* version = json_object_get(document, "version");
    line =
        json_pack("{s:s, s:I, s:i, s:i, s:i, s:s}", "document",
                  json_is_false(json_object_get(document, "delta")) ? "complete" : "delta",
                  "version", json_is_integer(version) ? json_integer_value(version) : -1, "added",
                  operationObjects(document, "add"), "deleted", operationObjects(document, "del"),
                  "set", operationObjects(document, "set"), "publisher", url.c_str());
  }
  json_decref(document);
  if (json) {
    char* dumped = json_dumps(line, JSON_COMPACT | JSON_PRESERVE_ORDER);
    text = dumped;
    free(dumped);
  } else if (!readable) {
    text = "document unreadable from " + url + ": " +
           json_string_value(json_object_get(line, "error"));
  } else {
    auto number = [&](const char* key) {
      return std::to_string(json_integer_value(json_object_get(line, key)));
    };
    text = std::string("document ") + json_string_value(json_object_get(line, "document")) +
           " version " + number("version") + ": " + number("added") + " added, " +
           number("deleted") + " deleted, " + number("set") + " set, from " + url;
  }
  json_decref(line);
  return readable;
}

void printLine(const std::string& text) {
  fputs(text.c_str(), stdout);
  fputc('\n', stdout);
  fflush(stdout);
}

void answer(KyrHttpResponse* response, KyrHttpResponseContext* passback) {
  auto* pending = reinterpret_cast<PendingAnswer*>(passback);
  // No response, a time-out or an error status carries no document the library would apply.
  bool document = response != nullptr && !response->timed_out && !response->aborted &&
                  response->responseCode >= 200 && response->responseCode < 300 &&
                  response->body != nullptr;
  if (document) {
    std::string text;
    bool readable = documentLine(response->body, pending->url, g_watch->options.json, text);
    std::lock_guard<std::mutex> guard(g_watch->outputLock);
    if (!g_watch->closing) {
      printLine(text);
      if (readable && ++g_watch->documents == g_watch->options.count) g_watch->closing = true;
    }
  }
  KyrHttpResponseCallBack callback = pending->callback;
  KyrHttpResponseContext* original = pending->passback;
  delete pending;
  callback(response, original);
}

// The initial request posts the interest specification; a long poll asks for the deltas after
// the version held.
bool bringsDocument(const char* method, const char* uri, const char* body) {
  if (strcmp(method, "GET") == 0) return strstr(uri, "&vid=") != nullptr;
  return strcmp(method, "POST") == 0 && body != nullptr && strncmp(body, "{'interests'", 12) == 0;
}

EnvConnectorClient* watchOpen(KyrConnector* connector) {
  EnvConnectorClient* inner = g_watch->builtin.http.connector.open(connector);
  if (inner == nullptr) return nullptr;
  return reinterpret_cast<EnvConnectorClient*>(
      new WatchClient{inner, kyrConnectorGetURL(connector)});
}

int watchSendRequest(EnvConnectorClient* client, const char* method, const char* uri,
                     const char* body, int timeoutInSecs, KyrHttpResponseCallBack callback,
                     KyrHttpResponseContext* passback) {
  auto* watched = reinterpret_cast<WatchClient*>(client);
  auto send = g_watch->builtin.http.connector.sendRequest;
  if (watched == nullptr || method == nullptr || uri == nullptr ||
      !bringsDocument(method, uri, body)) {
    return send(watched != nullptr ? watched->inner : nullptr, method, uri, body, timeoutInSecs,
                callback, passback);
  }
  auto* pending = new PendingAnswer{callback, passback, watched->url};
  int status = send(watched->inner, method, uri, body, timeoutInSecs, answer,
                    reinterpret_cast<KyrHttpResponseContext*>(pending));
  if (status != 0) delete pending;
  return status;
}

void watchClose(EnvConnectorClient* client) {
  auto* watched = reinterpret_cast<WatchClient*>(client);
  if (watched == nullptr) return;
  g_watch->builtin.http.connector.close(watched->inner);
  delete watched;
}

// Kept to itself: the library calls this under its control lock, so it must not call back.
const char* stateName(KyrComponentState state) {
  switch (state) {
    case STARTING:
      return "STARTING";
    case STARTED:
      return "STARTED";
    case PARTIAL_START:
      return "PARTIAL START";
    case FAILED:
      return "FAILED";
    case STOPPING:
      return "STOPPING";
    case STOPPED:
      return "STOPPED";
    case DELETED:
      return "DELETED";
    default:
      return "INVALID";
  }
}

void stateChanged(Kyr*, KyrComponentState state, char* reason) {
  std::string text;
  if (g_watch->options.json) {
    json_t* line = json_pack("{s:s, s:s}", "state", stateName(state), "reason",
                             reason != nullptr ? reason : "");
    char* dumped = json_dumps(line, JSON_COMPACT | JSON_PRESERVE_ORDER);
    text = dumped;
    free(dumped);
    json_decref(line);
  } else {
    text =
        std::string("state ") + stateName(state) + " (" + (reason != nullptr ? reason : "") + ")";
  }
  std::lock_guard<std::mutex> guard(g_watch->outputLock);
  if (!g_watch->closing) printLine(text);
}

sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

void blockStopSignals() {
  sigset_t set = stopSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void watchCallbacks(EnvCallBacks& env, const WatchOptions& options) {
  g_watch = new Watch();
  g_watch->options = options;
  kyr::kyrUseBuiltinConnectorTransport(&g_watch->builtin);
  env.http.connector.open = watchOpen;
  env.http.connector.sendRequest = watchSendRequest;
  env.http.connector.freeResponse = g_watch->builtin.http.connector.freeResponse;
  env.http.connector.close = watchClose;
  env.stateChange.kyr = stateChanged;
}

int watch(Library& library, const Publishers& publishers, const WatchOptions& options) {
  std::string error;
  if (!library.startPublishers(publishers, error)) {
    fprintf(stderr, "kyrroute: %s\n", error.c_str());
    return 2;
  }
  std::string urls;
  for (const std::string& url : publishers.urls) urls += (urls.empty() ? "" : ", ") + url;
  sigset_t signals = stopSignals();
  const timespec tick{0, 20 * 1000 * 1000};
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.timeoutSecs);
  for (;;) {
    // The wait for a stop signal is the loop's clock.
    if (sigtimedwait(&signals, nullptr, &tick) > 0) break;
    int documents;
    {
      std::lock_guard<std::mutex> guard(g_watch->outputLock);
      documents = g_watch->documents;
    }
    if (options.count > 0 && documents >= options.count) break;
    if (documents > 0) continue;
    // Before the first document a failure ends the watch; later ones the library retries.
    if (library.state() == FAILED) error = "every publisher failed: " + urls;
    if (options.timeoutSecs > 0 && std::chrono::steady_clock::now() >= deadline) {
      error = "no document from the publishers within " + std::to_string(options.timeoutSecs) +
              " s: " + urls;
    }
    if (!error.empty()) break;
  }
  {
    std::lock_guard<std::mutex> guard(g_watch->outputLock);
    g_watch->closing = true;
  }
  if (!error.empty()) {
    fprintf(stderr, "kyrroute: %s\n", error.c_str());
    return 2;
  }
  return 0;
}

}  // namespace kyrroute

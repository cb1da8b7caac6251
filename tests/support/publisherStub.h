// Loopback publishers for tests of connector groups: one that accepts and never answers (to keep a
// request in flight), one that serves a routing document, long polls and deltas the test pushes,
// and a port nobody listens on. Each serves 127.0.0.1 only, from one thread of its own that polls
// with a short time-out, so every wait is bounded and the destructor ends it promptly.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <jansson.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace kyrtest {

// Polls the condition until it holds or the time is up; whether it held.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds within = std::chrono::seconds(10)) {
  auto deadline = std::chrono::steady_clock::now() + within;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

namespace stub {

constexpr int kPollMs = 50;  // longest a serving thread waits before it looks at its flags again

// A listening socket on 127.0.0.1:port (0: any free port), or -1. SO_REUSEADDR lets a publisher
// that closed its listener open it again on the same port while old connections linger.
inline int listenOn(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 16) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

inline int portOf(int fd) {
  sockaddr_in addr{};
  socklen_t length = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length);
  return ntohs(addr.sin_port);
}

inline std::string urlFor(int port) { return "http://127.0.0.1:" + std::to_string(port); }

// Accepts one waiting connection; its sends give up after a second, so a peer that stops reading
// cannot hold the serving thread.
inline int acceptFrom(int listener) {
  int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd >= 0) {
    timeval oneSecond{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &oneSecond, sizeof oneSecond);
  }
  return fd;
}

// Wakes a serving thread out of its poll: the write end is signalled, the read end polled.
class WakePipe {
 public:
  WakePipe() {
    if (pipe2(fds_, O_CLOEXEC | O_NONBLOCK) != 0) fds_[0] = fds_[1] = -1;
  }
  ~WakePipe() {
    close(fds_[0]);
    close(fds_[1]);
  }
  WakePipe(const WakePipe&) = delete;
  WakePipe& operator=(const WakePipe&) = delete;

  int fd() const { return fds_[0]; }
  void signal() {
    char c = 1;
    [[maybe_unused]] ssize_t n = write(fds_[1], &c, 1);
  }
  void drain() {
    char buf[64];
    while (read(fds_[0], buf, sizeof buf) > 0) {
    }
  }

 private:
  int fds_[2];
};

}  // namespace stub

// A port on 127.0.0.1 that was free a moment ago and has no listener: connects to it are
// refused.
inline int closedPort() {
  int fd = stub::listenOn(0);
  int port = stub::portOf(fd);
  close(fd);
  return port;
}
inline std::string closedPortUrl() { return stub::urlFor(closedPort()); }

// One HTTP request as a publisher received it.
struct PublisherRequest {
  std::string method;
  std::string uri;
  std::string body;
  bool routeChange = false;  // a POST of "addRoutes" or "delRoutes"
};

// A publisher of routing data. It holds a complete document at a version and the deltas pushed
// on top of it, numbered one after the other:
//  - a POST whose body is a JSON object with "addRoutes" or "delRoutes" is a route change: kept
//    in routeChanges() and answered 200 "{}";
//  - any other POST is an initial request (its body, the interest specification, is not JSON and
//    is not read): answered with the complete document, "delta": false, at the document's
//    version;
//  - a GET with "vid=V&wait=W": V older than the current version answers the delta that follows
//    V at once (the complete document when V is none this publisher gave out); V current holds
//    the request until a delta is pushed, W seconds pass (then an empty delta at the current
//    version) or the publisher stops.
// It can also answer every request with an error status, refuse connections, and restart on
// the same port. Every request is recorded. Connections are served concurrently by one thread.
// A publisher made not to answer reads and discards whatever arrives and records nothing, so a
// request sent to it stays in flight until the sender gives up or the test ends.
class Publisher {
 public:
  explicit Publisher(const std::string& document, bool answers = true) : answers_(answers) {
    json_error_t error;
    json_t* doc = json_loads(document.c_str(), 0, &error);
    if (!json_is_object(doc)) {
      json_decref(doc);
      doc = json_object();
    }
    json_t* version = json_object_get(doc, "version");
    docVersion_ = current_ = json_is_integer(version) ? json_integer_value(version) : 1;
    json_object_set_new(doc, "version", json_integer(docVersion_));
    json_object_set_new(doc, "delta", json_false());
    document_ = dump(doc);
    json_decref(doc);
    listener_ = stub::listenOn(0);
    port_ = stub::portOf(listener_);
    thread_ = std::thread([this] { serve(); });
  }
  ~Publisher() {
    {
      std::lock_guard<std::mutex> guard(lock_);
      stop_ = true;
    }
    wake_.signal();
    thread_.join();
    for (Conn& c : conns_) close(c.fd);
    if (listener_ >= 0) close(listener_);
  }
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  std::string url() const { return stub::urlFor(port_); }
  int port() const { return port_; }
  int64_t version() const {
    std::lock_guard<std::mutex> guard(lock_);
    return current_;
  }

  // Adds a delta (a JSON object; "delta" defaults to true) at the next version, which it returns,
  // and answers the polls waiting for it.
  int64_t pushDelta(const std::string& json) {
    json_error_t error;
    json_t* delta = json_loads(json.c_str(), 0, &error);
    if (!json_is_object(delta)) {
      json_decref(delta);
      delta = json_object();
    }
    std::lock_guard<std::mutex> guard(lock_);
    int64_t version = ++current_;
    json_object_set_new(delta, "version", json_integer(version));
    if (json_object_get(delta, "delta") == nullptr)
      json_object_set_new(delta, "delta", json_true());
    deltas_.push_back(dump(delta));
    json_decref(delta);
    wake_.signal();
    return version;
  }

  // Every request from now on is answered with this status and a short body; 0 restores normal
  // service. Polls already held are answered normally.
  void failWith(int status) {
    std::lock_guard<std::mutex> guard(lock_);
    failStatus_ = status;
  }
  // true: the listener and every connection close, so connects are refused; false: listens again
  // on the same port. Done when it returns.
  void refuse(bool refusing) { command(refusing ? Cmd::Refuse : Cmd::Listen); }
  // Closes every connection (held polls included, unanswered) and the listener, and listens again
  // on the same port. Done when it returns.
  void restart() { command(Cmd::Restart); }

  std::vector<PublisherRequest> requests() const {
    std::lock_guard<std::mutex> guard(lock_);
    return requests_;
  }
  // The URIs of the requests with this method, in arrival order.
  std::vector<std::string> uris(const std::string& method) const {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<std::string> found;
    for (const auto& r : requests_) {
      if (r.method == method) found.push_back(r.uri);
    }
    return found;
  }
  // The URIs of the initial requests (the POSTs that are no route change), in arrival order.
  std::vector<std::string> inits() const {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<std::string> found;
    for (const auto& r : requests_) {
      if (r.method == "POST" && !r.routeChange) found.push_back(r.uri);
    }
    return found;
  }
  // The bodies of the route changes received, in arrival order.
  std::vector<std::string> routeChanges() const {
    std::lock_guard<std::mutex> guard(lock_);
    return routeChanges_;
  }
  bool waitForRequests(size_t n,
                       std::chrono::milliseconds within = std::chrono::seconds(10)) const {
    std::unique_lock<std::mutex> guard(lock_);
    return arrived_.wait_for(guard, within, [&] { return requests_.size() >= n; });
  }
  // Polls held now, waiting for a delta or their time-out.
  int heldPolls() const {
    std::lock_guard<std::mutex> guard(lock_);
    return static_cast<int>(
        std::count_if(conns_.begin(), conns_.end(), [](const Conn& c) { return c.held; }));
  }
  int connections() const {  // accepted so far
    std::lock_guard<std::mutex> guard(lock_);
    return accepted_;
  }
  int openConnections() const {  // not yet closed by their peer
    std::lock_guard<std::mutex> guard(lock_);
    return static_cast<int>(conns_.size());
  }
  long bytesReceived() const {
    std::lock_guard<std::mutex> guard(lock_);
    return received_;
  }
  // "add NAME" and "del NAME" for each route starting with the prefix in the route changes
  // received, in arrival order.
  std::vector<std::string> routeEvents(const std::string& prefix = "") const {
    std::vector<std::string> events;
    for (const std::string& body : routeChanges()) {
      json_t* json = json_loads(body.c_str(), 0, nullptr);
      for (const char* key : {"addRoutes", "delRoutes"}) {
        size_t i;
        json_t* name;
        json_array_foreach(json_object_get(json, key), i, name) {
          const char* text = json_string_value(name);
          if (text != nullptr && std::string(text).starts_with(prefix))
            events.push_back(std::string(key, 3) + " " + text);
        }
      }
      json_decref(json);
    }
    return events;
  }

 private:
  enum class Cmd { Refuse, Listen, Restart };

  struct Conn {
    int fd = -1;
    std::string in;  // bytes received and not yet taken as a request
    bool held = false;
    int64_t heldVid = 0;
    std::chrono::steady_clock::time_point heldUntil;
  };

  static std::string dump(json_t* json) {
    char* text = json_dumps(json, JSON_COMPACT);
    std::string s = text != nullptr ? text : "{}";
    free(text);
    return s;
  }

  static void respond(int fd, int status, const std::string& body) {
    std::string reply =
        "HTTP/1.1 " + std::to_string(status) + (status == 200 ? " OK" : " Failing") +
        "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\n\r\n" + body;
    size_t sent = 0;
    while (sent < reply.size()) {
      ssize_t n = send(fd, reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) return;
      sent += static_cast<size_t>(n);
    }
  }

  static int64_t queryValue(const std::string& uri, const char* name, int64_t otherwise) {
    std::smatch value;
    std::regex key(std::string("[?&]") + name + "=(-?[0-9]+)");
    return std::regex_search(uri, value, key) ? std::stoll(value[1]) : otherwise;
  }

  static bool isRouteChange(const std::string& body) {
    json_error_t error;
    json_t* json = json_loads(body.c_str(), 0, &error);
    bool routes = json_is_object(json) && (json_object_get(json, "addRoutes") != nullptr ||
                                           json_object_get(json, "delRoutes") != nullptr);
    json_decref(json);
    return routes;
  }

  // Takes one complete request off the front of the connection's input, if there is one.
  static bool takeRequest(Conn& c, PublisherRequest& request) {
    size_t headEnd = c.in.find("\r\n\r\n");
    if (headEnd == std::string::npos) return false;
    std::string head = c.in.substr(0, headEnd);
    static const std::regex kLength("\r\ncontent-length: *([0-9]+)", std::regex::icase);
    static const std::regex kRequestLine("^([^ ]*) ?([^ ]*)");
    std::smatch length, line;
    size_t bodySize = std::regex_search(head, length, kLength) ? std::stoul(length[1]) : 0;
    if (c.in.size() < headEnd + 4 + bodySize) return false;
    std::regex_search(head, line, kRequestLine);
    request.method = line[1];
    request.uri = line[2];
    request.body = c.in.substr(headEnd + 4, bodySize);
    c.in.erase(0, headEnd + 4 + bodySize);
    return true;
  }

  // Answers a poll for version vid, or holds it. The lock must be held.
  void answerPoll(Conn& c, int64_t vid, int64_t waitSecs) {
    if (vid >= docVersion_ && vid < current_) {
      respond(c.fd, 200, deltas_[static_cast<size_t>(vid - docVersion_)]);
    } else if (vid != current_) {
      respond(c.fd, 200, document_);
    } else if (waitSecs <= 0) {
      respond(c.fd, 200, "{\"version\":" + std::to_string(current_) + "}");
    } else {
      c.held = true;
      c.heldVid = vid;
      c.heldUntil = std::chrono::steady_clock::now() + std::chrono::seconds(waitSecs);
    }
  }

  // Serves the requests complete in the connection's input; a held poll keeps the ones behind it
  // waiting, as HTTP/1.1 answers in order. The lock must be held.
  void serveInput(Conn& c) {
    PublisherRequest request;
    while (!c.held && takeRequest(c, request)) {
      request.routeChange = request.method == "POST" && isRouteChange(request.body);
      requests_.push_back(request);
      arrived_.notify_all();
      if (failStatus_ != 0) {
        respond(c.fd, failStatus_, "{\"error\":\"failing as told\"}");
      } else if (request.routeChange) {
        routeChanges_.push_back(request.body);
        respond(c.fd, 200, "{}");
      } else if (request.method == "POST") {
        respond(c.fd, 200, document_);
      } else {
        answerPoll(c, queryValue(request.uri, "vid", -1), queryValue(request.uri, "wait", 0));
      }
    }
  }

  // Answers the held polls a new delta or their time-out released. The lock must be held.
  void releaseHeld() {
    auto now = std::chrono::steady_clock::now();
    for (Conn& c : conns_) {
      if (!c.held) continue;
      if (c.heldVid < current_) {
        c.held = false;
        answerPoll(c, c.heldVid, 0);
      } else if (now >= c.heldUntil) {
        c.held = false;
        respond(c.fd, 200, "{\"version\":" + std::to_string(current_) + "}");
      } else {
        continue;
      }
      serveInput(c);
    }
  }

  // Hands a command to the serving thread, which owns the sockets, and waits until it is done.
  void command(Cmd cmd) {
    std::unique_lock<std::mutex> guard(lock_);
    commands_.push_back(cmd);
    uint64_t ticket = ++issued_;
    wake_.signal();
    done_.wait_for(guard, std::chrono::seconds(5), [&] { return executed_ >= ticket; });
  }

  // The lock must be held.
  void closeAll() {
    for (Conn& c : conns_) close(c.fd);
    conns_.clear();
    if (listener_ >= 0) close(listener_);
    listener_ = -1;
  }
  void execute(Cmd cmd) {
    if (cmd != Cmd::Listen) closeAll();
    if (cmd != Cmd::Refuse && listener_ < 0) listener_ = stub::listenOn(port_);
    ++executed_;
    done_.notify_all();
  }

  void serve() {
    std::unique_lock<std::mutex> guard(lock_);
    while (!stop_) {
      for (Cmd cmd : commands_) execute(cmd);
      commands_.clear();
      std::vector<pollfd> fds{{wake_.fd(), POLLIN, 0}, {listener_, POLLIN, 0}};
      for (const Conn& c : conns_) fds.push_back({c.fd, POLLIN, 0});
      guard.unlock();  // tests push deltas and read records while this thread waits
      int ready = poll(fds.data(), fds.size(), stub::kPollMs);
      guard.lock();
      if (ready > 0 && fds[0].revents != 0) wake_.drain();
      if (ready > 0 && (fds[1].revents & POLLIN) && listener_ >= 0) {
        int fd = stub::acceptFrom(listener_);
        if (fd >= 0) {
          conns_.emplace_back().fd = fd;
          ++accepted_;
        }
      }
      for (size_t i = 2; ready > 0 && i < fds.size(); ++i) {
        if (fds[i].revents == 0) continue;
        auto c = std::find_if(conns_.begin(), conns_.end(),
                              [&](const Conn& conn) { return conn.fd == fds[i].fd; });
        if (c == conns_.end()) continue;
        char buf[4096];
        ssize_t n = recv(c->fd, buf, sizeof buf, 0);
        if (n <= 0) {
          close(c->fd);
          conns_.erase(c);
          continue;
        }
        received_ += n;
        if (answers_) c->in.append(buf, static_cast<size_t>(n));
        serveInput(*c);
      }
      releaseHeld();
    }
    executed_ = issued_;  // commands left unrun wait no longer
    done_.notify_all();
  }

  mutable std::mutex lock_;
  mutable std::condition_variable arrived_;  // a request was recorded
  std::condition_variable done_;             // a command was executed
  // Guarded by lock_:
  std::string document_;  // the complete document as answered, at docVersion_
  int64_t docVersion_ = 1;
  int64_t current_ = 1;              // the version of the last delta, docVersion_ without one
  std::vector<std::string> deltas_;  // deltas_[i] is at docVersion_ + 1 + i
  int failStatus_ = 0;
  std::vector<PublisherRequest> requests_;
  std::vector<std::string> routeChanges_;
  // The sockets are opened and closed by the serving thread alone, so the ones it polls stay
  // valid while it waits without the lock.
  std::vector<Conn> conns_;
  int listener_ = -1;
  int accepted_ = 0;
  long received_ = 0;
  std::vector<Cmd> commands_;
  uint64_t issued_ = 0;
  uint64_t executed_ = 0;
  bool stop_ = false;

  const bool answers_;
  int port_ = 0;
  stub::WakePipe wake_;
  std::thread thread_;
};

// Keeps a request in flight: a publisher that does not answer.
class SilentPublisher : public Publisher {
 public:
  SilentPublisher() : Publisher("{}", false) {}
};

}  // namespace kyrtest

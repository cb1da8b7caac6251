// What the publisher has seen of its web servers, for /status: each web server by group and
// name with its last poll, the version it holds and its polls waiting, and the latest route
// changes and health policy triggers they sent. Everything is bounded, so a client inventing
// names cannot grow it without end. Not thread-safe: the publisher's lock guards it.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>

namespace kyrpublish {

class Activity {
 public:
  // A request from the web server `server` of `group`, from `address`.
  void init(const std::string& group, const std::string& server, const std::string& address);
  void poll(const std::string& group, const std::string& server, const std::string& address,
            int64_t vid);
  void held(const std::string& group, const std::string& server, int change);
  // Keep the reporter's copy of the body (a reference is taken).
  void routeChange(const std::string& group, const std::string& server, json_t* body);
  void healthTrigger(const std::string& group, const std::string& server, json_t* body);

  // { "webServers": [...], "routeChanges": {...}, "healthTriggers": {...} } members, set
  // into `status`.
  void report(json_t* status) const;

 private:
  struct WebServer {
    std::string address;
    long long lastSeenMs = 0, lastPollMs = 0;
    int64_t vid = -1;
    int waiting = 0;
    uint64_t inits = 0, polls = 0;
  };
  struct History {
    std::deque<json_t*> latest;  // newest last, each with "time", "group" and "server"
    uint64_t received = 0;
    ~History();
    void add(const std::string& group, const std::string& server, json_t* body);
    json_t* report() const;
  };

  WebServer* seen(const std::string& group, const std::string& server, const std::string& address);

  std::map<std::pair<std::string, std::string>, WebServer> webServers_;
  History routeChanges_, healthTriggers_;
};

}  // namespace kyrpublish

// The web servers table and the two histories behind /status.
#include "activity.h"

#include "log.h"

namespace kyrpublish {
namespace {

constexpr size_t kMaxWebServers = 10000;
constexpr size_t kHistory = 100;

json_t* timeValue(long long ms) {
  return ms == 0 ? json_null() : json_string(formatTime(ms).c_str());
}

}  // namespace

Activity::History::~History() {
  for (json_t* entry : latest) json_decref(entry);
}

void Activity::History::add(const std::string& group, const std::string& server, json_t* body) {
  json_t* entry = json_deep_copy(body);
  json_object_set_new(entry, "time", timeValue(nowMs()));
  json_object_set_new(entry, "group", json_string(group.c_str()));
  json_object_set_new(entry, "server", json_string(server.c_str()));
  latest.push_back(entry);
  if (latest.size() > kHistory) {
    json_decref(latest.front());
    latest.pop_front();
  }
  ++received;
}

json_t* Activity::History::report() const {
  json_t* entries = json_array();
  for (json_t* entry : latest) json_array_append(entries, entry);
  json_t* report = json_object();
  json_object_set_new(report, "received", json_integer(static_cast<json_int_t>(received)));
  json_object_set_new(report, "latest", entries);
  return report;
}

// The entry for a web server, made when new. When the table is full, the one seen longest ago
// with no poll waiting makes room; when every one has a poll waiting, the newcomer goes
// unrecorded (its requests are served all the same).
Activity::WebServer* Activity::seen(const std::string& group, const std::string& server,
                                    const std::string& address) {
  auto key = std::make_pair(group, server);
  auto found = webServers_.find(key);
  if (found == webServers_.end() && webServers_.size() >= kMaxWebServers) {
    auto oldest = webServers_.end();
    for (auto it = webServers_.begin(); it != webServers_.end(); ++it) {
      if (it->second.waiting == 0 &&
          (oldest == webServers_.end() || it->second.lastSeenMs < oldest->second.lastSeenMs)) {
        oldest = it;
      }
    }
    if (oldest == webServers_.end()) return nullptr;
    webServers_.erase(oldest);
  }
  WebServer& entry = webServers_[key];
  entry.address = address;
  entry.lastSeenMs = nowMs();
  return &entry;
}

void Activity::init(const std::string& group, const std::string& server,
                    const std::string& address) {
  if (WebServer* entry = seen(group, server, address)) ++entry->inits;
}

void Activity::poll(const std::string& group, const std::string& server, const std::string& address,
                    int64_t vid) {
  WebServer* entry = seen(group, server, address);
  if (entry == nullptr) return;
  ++entry->polls;
  entry->lastPollMs = entry->lastSeenMs;
  entry->vid = vid;
}

void Activity::held(const std::string& group, const std::string& server, int change) {
  auto found = webServers_.find({group, server});
  if (found != webServers_.end()) found->second.waiting += change;
}

void Activity::routeChange(const std::string& group, const std::string& server, json_t* body) {
  routeChanges_.add(group, server, body);
}

void Activity::healthTrigger(const std::string& group, const std::string& server, json_t* body) {
  healthTriggers_.add(group, server, body);
}

void Activity::report(json_t* status) const {
  json_t* webServers = json_array();
  for (const auto& [key, entry] : webServers_) {
    json_t* o = json_object();
    json_object_set_new(o, "server", json_string(key.second.c_str()));
    json_object_set_new(o, "group", json_string(key.first.c_str()));
    json_object_set_new(o, "address", json_string(entry.address.c_str()));
    json_object_set_new(o, "lastPoll", timeValue(entry.lastPollMs));
    json_object_set_new(o, "vid", json_integer(entry.vid));
    json_object_set_new(o, "pollsWaiting", json_integer(entry.waiting));
    json_object_set_new(o, "inits", json_integer(static_cast<json_int_t>(entry.inits)));
    json_object_set_new(o, "polls", json_integer(static_cast<json_int_t>(entry.polls)));
    json_array_append_new(webServers, o);
  }
  json_object_set_new(status, "webServers", webServers);
  json_object_set_new(status, "routeChanges", routeChanges_.report());
  json_object_set_new(status, "healthTriggers", healthTriggers_.report());
}

}  // namespace kyrpublish

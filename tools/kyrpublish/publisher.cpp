// Serving the groups. Every request and every edit runs under one lock; the expensive part of
// an edit (reading and checking the file) runs before it is taken, so web servers are only
// held up for the diff and the fan-out.
#include "publisher.h"

#include <cinttypes>
#include <cstdlib>

#include "log.h"

namespace kyrpublish {
namespace {

std::string compact(json_t* json) {
  char* text = json_dumps(json, JSON_COMPACT);
  std::string result = text != nullptr ? text : "";
  free(text);
  return result;
}

Reply answer(Text body) { return Reply{200, std::move(body), true}; }

}  // namespace

Reply refusal(unsigned status, const std::string& reason) {
  return Reply{status, std::make_shared<const std::string>(reason + "\n"), false};
}

Publisher::Publisher(CellFiles files, size_t keep)
    : files_(std::move(files)),
      keep_(keep),
      held_(lock_, [this](HeldPoll* poll) { release(poll); }) {}

bool Publisher::load(std::string& error) {
  for (const std::string& group : files_.groups()) {
    json_t* document = loadDocument(files_.pathOf(group), error);
    if (document == nullptr) return false;
    Group& g = groups_[group];
    g.feed = std::make_unique<Feed>(document, keep_);
    g.changedMs = nowMs();
  }
  return true;
}

bool Publisher::start(Resume resume, std::string& error) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    resume_ = std::move(resume);
  }
  return held_.start(error);
}

void Publisher::stop() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
    Reply stopping = refusal(503, "the publisher is stopping");
    for (HeldPoll* poll : held_.takeAll()) {
      activity_.held(poll->group, poll->server, -1);
      resume_(poll, stopping);
    }
  }
  held_.stop();
}

Feed* Publisher::feedOf(const std::string& group, Reply& refused) {
  auto found = groups_.find(files_.oneFile() ? kAnyGroup : group);
  if (found == groups_.end()) {
    refused = refusal(404, "unknown group '" + group + "'");
    return nullptr;
  }
  if (!found->second.feed) {
    refused =
        refusal(503, "group '" + group + "' has no servable document: " + found->second.problem);
  }
  return found->second.feed.get();
}

Reply Publisher::init(const RestQuery& query, const std::string& address) {
  Reply refused;
  Feed* feed = feedOf(query.group, refused);
  if (feed == nullptr) return refused;
  activity_.init(query.group, query.server, address);
  Text document = feed->complete();
  logLine("init from '%s' (%s) for group '%s': complete document version %" PRId64 ", %zu bytes",
          query.server.c_str(), address.c_str(), query.group.c_str(), feed->version(),
          document->size());
  return answer(document);
}

std::optional<Reply> Publisher::poll(const RestQuery& query, const std::string& address,
                                     HeldPoll* hold) {
  Reply refused;
  Feed* feed = feedOf(query.group, refused);
  if (feed == nullptr) return refused;
  if (stopping_) return refusal(503, "the publisher is stopping");
  activity_.poll(query.group, query.server, address, query.vid);
  if (query.vid != feed->version()) {
    // It missed edits (or holds a version this publisher never had): answered at once.
    Text body = feed->since(query.vid);
    logLine("poll from '%s' (%s) for group '%s' holds version %" PRId64
            ": answered at once with version %" PRId64 ", %zu bytes",
            query.server.c_str(), address.c_str(), query.group.c_str(), query.vid, feed->version(),
            body->size());
    return answer(body);
  }
  if (query.waitSecs == 0) return answer(feed->unchanged());
  hold->feed = feed;
  hold->group = query.group;
  hold->server = query.server;
  hold->vid = query.vid;
  hold->deadlineMs = HeldPolls::steadyMs() + query.waitSecs * 1000LL;
  held_.add(hold);
  activity_.held(query.group, query.server, 1);
  return std::nullopt;
}

// Its wait ran out, or its web server hung up: that one gets the same answer, which fails to
// go out and closes the connection.
void Publisher::release(HeldPoll* poll) {
  activity_.held(poll->group, poll->server, -1);
  resume_(poll, answer(poll->feed->unchanged()));
}

size_t Publisher::answerWaiting(Feed* feed) {
  std::vector<HeldPoll*> polls = held_.takeFeed(feed);
  for (HeldPoll* poll : polls) {
    activity_.held(poll->group, poll->server, -1);
    resume_(poll, answer(feed->since(poll->vid)));
  }
  return polls.size();
}

Reply Publisher::routeChange(const RestQuery& query, json_t* body) {
  activity_.routeChange(query.group, query.server, body);
  logLine("route change from '%s' for group '%s': %s", query.server.c_str(), query.group.c_str(),
          compact(body).c_str());
  return answer(std::make_shared<const std::string>("{}"));
}

Reply Publisher::healthTrigger(const RestQuery& query, json_t* body) {
  activity_.healthTrigger(query.group, query.server, body);
  logLine("health policy trigger from '%s' for group '%s': %s", query.server.c_str(),
          query.group.c_str(), compact(body).c_str());
  return answer(std::make_shared<const std::string>("{}"));
}

Reply Publisher::push(const RestQuery& query, const std::string& body) {
  if (!files_.oneFile() && query.group.empty()) {
    return refusal(400, "name the group: ?name=GROUP");
  }
  Reply refused;
  Feed* feed = feedOf(query.group, refused);
  if (feed == nullptr) return refused;
  json_error_t error;
  json_t* delta = json_loadb(body.data(), body.size(), 0, &error);
  if (!json_is_object(delta)) {
    json_decref(delta);
    return refusal(400, std::string("the delta is not a JSON object") +
                            (delta == nullptr ? std::string(": ") + error.text : ""));
  }
  std::string problem = feed->push(delta);
  if (!problem.empty()) return refusal(400, problem);
  groups_[files_.oneFile() ? kAnyGroup : query.group].changedMs = nowMs();
  size_t answered = answerWaiting(feed);
  logLine("pushed delta for group '%s': version %" PRId64 ", answered %zu waiting polls",
          query.group.empty() ? kAnyGroup : query.group.c_str(), feed->version(), answered);
  json_t* result = json_pack("{s:I}", "version", static_cast<json_int_t>(feed->version()));
  Text text = std::make_shared<const std::string>(compact(result));
  json_decref(result);
  return answer(text);
}

void Publisher::reload(const std::set<std::string>& fileNames) {
  std::set<std::string> changed;
  for (const std::string& name : fileNames) {
    if (name.empty()) {
      // Events were lost: every group may have changed.
      for (const std::string& group : files_.groups()) changed.insert(group);
    } else if (auto group = files_.groupOf(name)) {
      changed.insert(*group);
    }
  }
  for (const std::string& group : changed) reloadGroup(group);
}

void Publisher::reloadGroup(const std::string& group) {
  std::string path = files_.pathOf(group);
  std::string error;
  json_t* document = loadDocument(path, error);
  std::lock_guard<std::mutex> guard(lock_);
  Group& g = groups_[group];
  if (document == nullptr) {
    g.problem = error;
    if (g.feed) {
      logLine("edit refused, still serving version %" PRId64 ": %s", g.feed->version(),
              error.c_str());
    } else {
      logLine("group '%s' cannot be served: %s", group.c_str(), error.c_str());
    }
    return;
  }
  g.problem.clear();
  if (!g.feed) {
    g.feed = std::make_unique<Feed>(document, keep_);
    g.changedMs = nowMs();
    logLine("new group '%s' from %s: version 1", group.c_str(), path.c_str());
    return;
  }
  if (!g.feed->replace(document)) {
    logLine("%s was written without a change: still version %" PRId64, path.c_str(),
            g.feed->version());
    return;
  }
  g.changedMs = nowMs();
  size_t answered = answerWaiting(g.feed.get());
  logLine("edit of %s: version %" PRId64
          ", delta of %zu bytes, answered %zu waiting polls in %lld ms",
          path.c_str(), g.feed->version(), g.feed->since(g.feed->version() - 1)->size(), answered,
          nowMs() - g.changedMs);
}

Reply Publisher::status() {
  json_t* groups = json_array();
  for (const auto& [name, g] : groups_) {
    json_t* o = json_object();
    json_object_set_new(o, "name", json_string(name.c_str()));
    json_object_set_new(o, "file", json_string(files_.pathOf(name).c_str()));
    json_object_set_new(o, "version", g.feed ? json_integer(g.feed->version()) : json_null());
    json_object_set_new(o, "deltasKept",
                        json_integer(g.feed ? static_cast<json_int_t>(g.feed->deltasKept()) : 0));
    json_object_set_new(o, "pollsWaiting",
                        json_integer(static_cast<json_int_t>(held_.waiting(g.feed.get()))));
    json_object_set_new(o, "lastChange", json_string(formatTime(g.changedMs).c_str()));
    json_object_set_new(o, "problem",
                        g.problem.empty() ? json_null() : json_string(g.problem.c_str()));
    json_array_append_new(groups, o);
  }
  json_t* status = json_object();
  json_object_set_new(status, "groups", groups);
  activity_.report(status);
  Text text = std::make_shared<const std::string>(compact(status));
  json_decref(status);
  return answer(text);
}

}  // namespace kyrpublish

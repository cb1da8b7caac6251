// The publisher: the groups it serves, each with its feed of versions, and what it does for
// each request of the REST protocol, for an edit of the cell files and for a delta pushed by
// hand. It knows nothing of HTTP: the server hands it parsed requests under its lock and
// resumes the held polls it lets go.
#pragma once

#include <jansson.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "activity.h"
#include "cellFiles.h"
#include "feed.h"
#include "heldPolls.h"
#include "restRequest.h"

namespace kyrpublish {

struct Reply {
  unsigned status = 200;
  Text body;
  bool json = true;  // else one line of text/plain: the reason of a refusal
};

// A refusal: the status and a one-line reason.
Reply refusal(unsigned status, const std::string& reason);

class Publisher {
 public:
  // Hands a released poll and its answer back to the HTTP server; called with the lock held.
  using Resume = std::function<void(HeldPoll* poll, const Reply& reply)>;

  Publisher(CellFiles files, size_t keep);
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  // Reads every document; false and `error` naming the first that cannot be served.
  bool load(std::string& error);
  bool start(Resume resume, std::string& error);
  // Answers every held poll 503 and refuses new ones, so the web servers move on at once.
  void stop();

  std::mutex& lock() { return lock_; }

  // The requests; the lock must be held for each.
  Reply init(const RestQuery& query, const std::string& address);
  // No reply when the poll is held: `hold` is registered and its connection must be suspended
  // before the lock is let go, so no edit can resume it first.
  std::optional<Reply> poll(const RestQuery& query, const std::string& address, HeldPoll* hold);
  Reply routeChange(const RestQuery& query, json_t* body);
  Reply healthTrigger(const RestQuery& query, json_t* body);
  Reply push(const RestQuery& query, const std::string& body);
  Reply status();

  // From the cell watcher: rereads the files named and fans out what moved. Takes the lock.
  void reload(const std::set<std::string>& fileNames);

 private:
  struct Group {
    std::unique_ptr<Feed> feed;  // null while the group's file has never been servable
    long long changedMs = 0;
    std::string problem;  // why the last edit was refused; empty after a good one
  };

  // The feed a web server's group name is served from, or a refusal.
  Feed* feedOf(const std::string& group, Reply& refused);
  // The lock must be held: hands every poll waiting on the feed its answer; how many.
  size_t answerWaiting(Feed* feed);
  void release(HeldPoll* poll);
  void reloadGroup(const std::string& group);

  CellFiles files_;
  size_t keep_;
  Resume resume_;  // guarded by lock_
  std::mutex lock_;
  // Guarded by lock_.
  std::map<std::string, Group> groups_;  // kAnyGroup alone for one file
  Activity activity_;
  bool stopping_ = false;
  HeldPolls held_;  // last: its thread calls back into the members above
};

}  // namespace kyrpublish

// The long polls the publisher holds: each waits, its connection suspended, until its feed
// moves, its wait runs out or its web server hangs up. A suspended connection costs no thread
// and is not watched by the HTTP server, so one thread here watches every deadline and every
// held socket for the peer's hang-up, and hands what ended back to the publisher.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace kyrpublish {

class Feed;

// One held long poll. It lives in its connection's request state; the publisher fills in the
// answer when it lets it go.
struct HeldPoll {
  Feed* feed = nullptr;
  std::string group, server;   // as the web server named them
  int64_t vid = 0;             // the version the web server holds
  long long deadlineMs = 0;    // steady-clock milliseconds when it is answered unchanged
  int fd = -1;                 // the connection's socket, watched for a hang-up
  void* connection = nullptr;  // the HTTP server's connection, to resume
  uint64_t id = 0;             // set by HeldPolls::add
};

class HeldPolls {
 public:
  // Called on the watching thread, with the lock held, for a poll taken out because its wait
  // ran out or its web server hung up.
  using Release = std::function<void(HeldPoll*)>;

  HeldPolls(std::mutex& lock, Release release);
  ~HeldPolls();
  HeldPolls(const HeldPolls&) = delete;
  HeldPolls& operator=(const HeldPolls&) = delete;

  bool start(std::string& error);
  // Ends the watching thread; the lock must not be held.
  void stop();

  // The lock must be held for all of these.
  void add(HeldPoll* poll);
  std::vector<HeldPoll*> takeFeed(const Feed* feed);
  std::vector<HeldPoll*> takeAll();
  size_t waiting(const Feed* feed) const;
  size_t size() const { return byId_.size(); }

  static long long steadyMs();

 private:
  void remove(HeldPoll* poll);
  void run();

  std::mutex& lock_;
  Release release_;
  int epoll_ = -1;  // the held sockets (hang-ups) and wake_
  int wake_ = -1;   // an eventfd: a nearer deadline or the end
  std::thread thread_;
  // Guarded by lock_.
  bool stopping_ = false;
  uint64_t nextId_ = 1;
  std::unordered_map<uint64_t, HeldPoll*> byId_;
  std::set<std::pair<long long, uint64_t>> byDeadline_;
  std::unordered_map<const Feed*, std::unordered_set<HeldPoll*>> byFeed_;
};

}  // namespace kyrpublish

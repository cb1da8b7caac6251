// Deadlines in an ordered set, hang-ups through an epoll set of the held sockets. Events carry
// a poll's id, never its address: by the time the thread takes the lock, the poll may have been
// answered by an edit and its connection gone.
#include "heldPolls.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

#include "log.h"

namespace kyrpublish {
namespace {

constexpr uint64_t kWakeId = 0;  // poll ids start at 1

}  // namespace

HeldPolls::HeldPolls(std::mutex& lock, Release release)
    : lock_(lock), release_(std::move(release)) {}

HeldPolls::~HeldPolls() {
  stop();
  if (epoll_ >= 0) close(epoll_);
  if (wake_ >= 0) close(wake_);
}

long long HeldPolls::steadyMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

bool HeldPolls::start(std::string& error) {
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kWakeId;
  if (epoll_ < 0 || wake_ < 0 || epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &event) != 0) {
    error = std::string("cannot watch held polls: ") + strerror(errno);
    return false;
  }
  thread_ = std::thread([this] { run(); });
  return true;
}

void HeldPolls::stop() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
  }
  uint64_t one = 1;
  if (write(wake_, &one, sizeof one) != sizeof one) logLine("cannot stop the poll watcher");
  thread_.join();
}

void HeldPolls::add(HeldPoll* poll) {
  poll->id = nextId_++;
  bool nearest = byDeadline_.empty() || poll->deadlineMs < byDeadline_.begin()->first;
  byId_[poll->id] = poll;
  byDeadline_.emplace(poll->deadlineMs, poll->id);
  byFeed_[poll->feed].insert(poll);
  // Only the peer's hang-up matters: a web server sends nothing more while its poll waits.
  epoll_event event{};
  event.events = EPOLLRDHUP;
  event.data.u64 = poll->id;
  if (poll->fd >= 0 && epoll_ctl(epoll_, EPOLL_CTL_ADD, poll->fd, &event) != 0) {
    logLine("cannot watch a held poll's socket for hang-ups: %s", strerror(errno));
  }
  uint64_t one = 1;
  if (nearest && write(wake_, &one, sizeof one) != sizeof one) {
    logLine("cannot wake the poll watcher: %s", strerror(errno));
  }
}

// Out of every index, and its socket out of the epoll set before the HTTP server takes the
// connection back and may close it.
void HeldPolls::remove(HeldPoll* poll) {
  if (poll->fd >= 0) epoll_ctl(epoll_, EPOLL_CTL_DEL, poll->fd, nullptr);
  byId_.erase(poll->id);
  byDeadline_.erase({poll->deadlineMs, poll->id});
  auto feed = byFeed_.find(poll->feed);
  feed->second.erase(poll);
  if (feed->second.empty()) byFeed_.erase(feed);
}

std::vector<HeldPoll*> HeldPolls::takeFeed(const Feed* feed) {
  std::vector<HeldPoll*> taken;
  auto found = byFeed_.find(feed);
  if (found == byFeed_.end()) return taken;
  taken.assign(found->second.begin(), found->second.end());
  for (HeldPoll* poll : taken) remove(poll);
  return taken;
}

std::vector<HeldPoll*> HeldPolls::takeAll() {
  std::vector<HeldPoll*> taken;
  for (auto& [id, poll] : byId_) taken.push_back(poll);
  for (HeldPoll* poll : taken) remove(poll);
  return taken;
}

size_t HeldPolls::waiting(const Feed* feed) const {
  auto found = byFeed_.find(feed);
  return found == byFeed_.end() ? 0 : found->second.size();
}

void HeldPolls::run() {
  epoll_event events[256];
  for (;;) {
    int timeoutMs = -1;
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (stopping_) return;
      if (!byDeadline_.empty()) {
        long long left = byDeadline_.begin()->first - steadyMs();
        timeoutMs =
            static_cast<int>(std::max(0LL, std::min(left, static_cast<long long>(INT_MAX))));
      }
    }
    // Waits without the lock: requests and edits go on meanwhile.
    int ready = epoll_wait(epoll_, events, 256, timeoutMs);
    if (ready < 0 && errno != EINTR) {
      logLine("the poll watcher stopped: %s", strerror(errno));
      return;
    }
    std::lock_guard<std::mutex> guard(lock_);
    if (stopping_) return;
    for (int i = 0; i < ready; ++i) {
      uint64_t id = events[i].data.u64;
      if (id == kWakeId) {
        uint64_t count;
        if (read(wake_, &count, sizeof count) < 0 && errno != EAGAIN) logLine("wake read failed");
        continue;
      }
      auto found = byId_.find(id);
      if (found == byId_.end()) continue;
      HeldPoll* poll = found->second;
      remove(poll);
      release_(poll);
    }
    long long now = steadyMs();
    while (!byDeadline_.empty() && byDeadline_.begin()->first <= now) {
      HeldPoll* poll = byId_.at(byDeadline_.begin()->second);
      remove(poll);
      release_(poll);
    }
  }
}

}  // namespace kyrpublish

// The watcher's thread: wait for an event, then keep collecting until the directory has been
// quiet for kQuietMs (a write in several pieces, or a temporary file and its rename, becomes
// one report), but never longer than kLongestMs, so a file written without pause is still read.
#include "cellWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "log.h"

namespace kyrpublish {
namespace {

constexpr int kQuietMs = 50;
constexpr int kLongestMs = 1000;
constexpr uint32_t kEvents =
    IN_CLOSE_WRITE | IN_MODIFY | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_MOVED_FROM;

}  // namespace

CellWatcher::CellWatcher(std::string directory, Changed changed)
    : directory_(std::move(directory)), changed_(std::move(changed)) {}

CellWatcher::~CellWatcher() {
  stop();
  if (inotify_ >= 0) close(inotify_);
  if (stop_ >= 0) close(stop_);
}

bool CellWatcher::start(std::string& error) {
  inotify_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  stop_ = eventfd(0, EFD_CLOEXEC);
  if (inotify_ < 0 || stop_ < 0 || inotify_add_watch(inotify_, directory_.c_str(), kEvents) < 0) {
    error = "cannot watch " + directory_ + ": " + strerror(errno);
    return false;
  }
  thread_ = std::thread([this] { run(); });
  return true;
}

void CellWatcher::stop() {
  if (!thread_.joinable()) return;
  uint64_t one = 1;
  if (write(stop_, &one, sizeof one) != sizeof one) logLine("cannot stop the cell watcher");
  thread_.join();
}

bool CellWatcher::readEvents(std::set<std::string>& names) {
  alignas(inotify_event) char buffer[8192];
  for (;;) {
    ssize_t length = read(inotify_, buffer, sizeof buffer);
    if (length < 0) return errno == EAGAIN;
    for (char* p = buffer; p < buffer + length;) {
      auto* event = reinterpret_cast<inotify_event*>(p);
      if (event->len > 0) names.insert(event->name);
      // Events were lost: every file may have changed.
      if (event->mask & IN_Q_OVERFLOW) names.insert("");
      p += sizeof(inotify_event) + event->len;
    }
  }
}

void CellWatcher::run() {
  using Clock = std::chrono::steady_clock;
  pollfd fds[2] = {{inotify_, POLLIN, 0}, {stop_, POLLIN, 0}};
  std::set<std::string> names;
  Clock::time_point first;
  for (;;) {
    int timeoutMs = -1;
    if (!names.empty()) {
      auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - first);
      timeoutMs = std::max(0, std::min(kQuietMs, kLongestMs - static_cast<int>(elapsed.count())));
    }
    int ready = poll(fds, 2, timeoutMs);
    if (ready < 0 && errno != EINTR) {
      logLine("the cell watcher stopped: %s", strerror(errno));
      return;
    }
    if (fds[1].revents != 0) return;
    if (ready > 0 && (fds[0].revents & POLLIN)) {
      if (names.empty()) first = Clock::now();
      if (!readEvents(names)) {
        logLine("the cell watcher stopped: %s", strerror(errno));
        return;
      }
      if (timeoutMs != 0) continue;
    }
    if (ready == 0 || timeoutMs == 0) {
      if (names.empty()) continue;
      changed_(names);
      names.clear();
    }
  }
}

}  // namespace kyrpublish

// Watches the cell's directory with inotify and reports which files changed, once they have
// been quiet for a moment. Watching the directory, not the file, sees both an in-place write
// and an editor's write-then-rename, which replaces the file a file watch would follow.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <thread>

namespace kyrpublish {

class CellWatcher {
 public:
  // Called on the watcher's thread with the names (within the directory) that changed.
  using Changed = std::function<void(const std::set<std::string>& fileNames)>;

  CellWatcher(std::string directory, Changed changed);
  ~CellWatcher();
  CellWatcher(const CellWatcher&) = delete;
  CellWatcher& operator=(const CellWatcher&) = delete;

  // False and `error` set when the directory cannot be watched.
  bool start(std::string& error);
  // Ends the thread and waits for it; a report in progress finishes first.
  void stop();

 private:
  void run();
  // Adds the names of the events waiting on the inotify descriptor; false when it failed.
  bool readEvents(std::set<std::string>& names);

  std::string directory_;
  Changed changed_;
  int inotify_ = -1;
  int stop_ = -1;  // an eventfd: written once to end the thread
  std::thread thread_;
};

}  // namespace kyrpublish

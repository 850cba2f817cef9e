#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "src/directory/directory.h"

namespace gv::directory {

/// Tells watchers of changes, one after the other on the event loop, however many threads make
/// them.
class NoticeQueue : public std::enable_shared_from_this<NoticeQueue> {
 public:
  void add(Directory::Watcher watcher);
  /// Lines a notice up. May be called under the lock that orders the changes.
  void push(Notice notice);
  /// Has tell what was pushed. To be called after the unlock: it posts to the event loop.
  void flush();

 private:
  void drain();

  std::mutex mutex_;  // guards what follows
  std::vector<std::shared_ptr<const Directory::Watcher>> watchers_;
  std::deque<Notice> notices_;
  bool isTelling_ = false;
};

}  // namespace gv::directory

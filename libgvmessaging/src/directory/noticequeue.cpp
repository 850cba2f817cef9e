#include "src/directory/noticequeue.h"

#include <stdexcept>

#include <gv/eventloop.h>
#include <gv/log.h>

namespace gv::directory {

void NoticeQueue::add(Directory::Watcher watcher) {
  const std::lock_guard lock(mutex_);
  watchers_.push_back(std::make_shared<const Directory::Watcher>(std::move(watcher)));
}

void NoticeQueue::push(Notice notice) {
  const std::lock_guard lock(mutex_);
  notices_.push_back(std::move(notice));
}

void NoticeQueue::flush() {
  {
    const std::lock_guard lock(mutex_);
    if (isTelling_ || notices_.empty()) return;
    isTelling_ = true;
  }
  try {
    getEventLoop()->post([self = shared_from_this()] { self->drain(); });
  } catch (const std::exception&) {  // a forked child: nobody is left to be told
    const std::lock_guard lock(mutex_);
    notices_.clear();
    isTelling_ = false;
  }
}

void NoticeQueue::drain() {
  for (;;) {
    Notice notice;
    std::vector<std::shared_ptr<const Directory::Watcher>> watchers;
    {
      const std::lock_guard lock(mutex_);
      // Cleared together with the look: what is pushed later finds nobody telling.
      isTelling_ = !notices_.empty();
      if (!isTelling_) return;
      notice = std::move(notices_.front());
      notices_.pop_front();
      watchers = watchers_;
    }
    for (const auto& watcher : watchers) {
      try {
        (*watcher)(notice);
      } catch (const std::exception& error) {
        GV_LOG(log::Level::Warning, "gvmessaging.directory", "notice",
               "telling of service '" + notice.name + "' failed: " + error.what());
      }
    }
  }
}

}  // namespace gv::directory

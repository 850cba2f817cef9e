#pragma once

#include <gv/log.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace house {

/// Collects the log records written while it lives, from every thread.
class LogCapture {
 public:
  LogCapture() {
    id_ = gv::log::addHandler("test capture", [shared = shared_](const gv::log::Record& record) {
      std::lock_guard lock(shared->mutex);
      shared->records.push_back(record);
      shared->changed.notify_all();
    });
  }
  ~LogCapture() { gv::log::removeHandler(id_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// A copy of what was written so far, in the order of the calls of each thread.
  std::vector<gv::log::Record> records() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->records;
  }

  /// Records whose text contains `part`.
  int count(const std::string& part) const {
    std::lock_guard lock(shared_->mutex);
    return static_cast<int>(std::count_if(shared_->records.begin(), shared_->records.end(),
                                          [&](const auto& r) { return contains(r, part); }));
  }

  /// Waits until some record's text contains `part`; false when none did in 20 s: a failure.
  [[nodiscard]] bool waitForText(const std::string& part) const {
    std::unique_lock lock(shared_->mutex);
    return shared_->changed.wait_for(lock, std::chrono::seconds(20), [&] {
      return std::any_of(shared_->records.begin(), shared_->records.end(),
                         [&](const auto& r) { return contains(r, part); });
    });
  }

 private:
  struct Shared {
    mutable std::mutex mutex;  // guards records
    std::condition_variable changed;
    std::vector<gv::log::Record> records;
  };

  static bool contains(const gv::log::Record& record, const std::string& part) {
    return record.text.find(part) != std::string::npos;
  }

  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
  gv::log::HandlerId id_;
};

}  // namespace house

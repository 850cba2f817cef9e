#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "src/net/stream.h"

namespace gv::net {

/// Keeps what a stream delivers, and waits for it. Waits end after a minute, with what is there.
class StreamRecorder : public StreamHandler {
 public:
  using OnBytes = std::function<void(std::span<const char>)>;

  /// @p onBytes runs in the thread that reads, with each piece, before it is recorded.
  explicit StreamRecorder(OnBytes onBytes = {}) : onBytes_(std::move(onBytes)) {}

  std::span<char> inputSpace() override { return space_; }
  void onInput(std::size_t count) override {
    if (count == 0) return;
    const std::span<const char> bytes = std::span(space_).first(count);
    if (onBytes_) onBytes_(bytes);
    const std::lock_guard lock(mutex_);
    afterEnd_ = afterEnd_ || ends_ > 0;
    bytes_.append(bytes.begin(), bytes.end());
    changed_.notify_all();
  }

  void onClosed(const std::string& cause) override {
    const std::lock_guard lock(mutex_);
    cause_ = cause;
    ++ends_;
    changed_.notify_all();
  }

  std::string waitForBytes(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, guard, [&] { return bytes_.size() >= count; });
    return bytes_;
  }

  std::string waitForEnd() {
    std::unique_lock lock(mutex_);
    const bool ended = changed_.wait_for(lock, guard, [&] { return ends_ > 0; });
    return ended ? cause_ : "still open";
  }

  std::string bytes() const {
    const std::lock_guard lock(mutex_);
    return bytes_;
  }

  int ends() const {
    const std::lock_guard lock(mutex_);
    return ends_;
  }

  bool gotBytesAfterEnd() const {
    const std::lock_guard lock(mutex_);
    return afterEnd_;
  }

 private:
  static constexpr std::chrono::seconds guard{60};

  const OnBytes onBytes_;
  std::vector<char> space_ = std::vector<char>(std::size_t{64} << 10);
  mutable std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  std::string bytes_;
  std::string cause_;
  int ends_ = 0;
  bool afterEnd_ = false;
};

/// Hands values from one thread to another, in order.
template <class T>
class Handover {
 public:
  void give(T value) {
    const std::lock_guard lock(mutex_);
    values_.push_back(std::move(value));
    changed_.notify_all();
  }

  T take() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::seconds(60), [&] { return !values_.empty(); }))
      throw std::runtime_error("nothing was handed over");
    T value = std::move(values_.front());
    values_.pop_front();
    return value;
  }

  std::size_t waiting() const {
    const std::lock_guard lock(mutex_);
    return values_.size();
  }

 private:
  mutable std::mutex mutex_;  // guards values_
  std::condition_variable changed_;
  std::deque<T> values_;
};

}  // namespace gv::net

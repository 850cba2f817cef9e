#pragma once

#include <atomic>

namespace house {

/// Counts live objects: those that hold a `LiveCounter::Mark`, copied and moved-from ones as well.
class LiveCounter {
 public:
  class Mark {
   public:
    explicit Mark(LiveCounter& counter) : counter_(&counter) { counter_->live_.fetch_add(1); }
    Mark(const Mark& other) : Mark(*other.counter_) {}
    Mark& operator=(const Mark&) { return *this; }
    ~Mark() { counter_->live_.fetch_sub(1); }

   private:
    LiveCounter* counter_;
  };

  LiveCounter() = default;
  LiveCounter(const LiveCounter&) = delete;
  LiveCounter& operator=(const LiveCounter&) = delete;

  int live() const { return live_.load(); }

 private:
  std::atomic<int> live_{0};
};

}  // namespace house

#pragma once

#include <atomic>

namespace house {

/// Counts the live instances of one kind of object, so that a test can end with "none is left".
/// A class is counted by holding a `LiveCounter::Mark` as a member. Any thread may read the count.
/// The counter outlives all its marks.
class LiveCounter {
 public:
  /// Counts as one instance for as long as it lives; copies and moved-from marks count as well.
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

  /// Instances alive now.
  int live() const { return live_.load(); }

 private:
  std::atomic<int> live_{0};
};

}  // namespace house

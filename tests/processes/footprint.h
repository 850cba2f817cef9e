#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "observe.h"

namespace processes {

/// What a process holds before and after.
class Footprint {
 public:
  explicit Footprint(std::function<Figures()> figures)
      : figures_(std::move(figures)), descriptors_(figures_().descriptors) {}

  /// The threads that there may be, too.
  void take() { threads_ = std::max(threads_, figures_().threads); }

  void expectNoMoreDescriptors() const {
    EXPECT_TRUE(becomesTrue([&] { return figures_().descriptors <= descriptors_; }))
        << figures_().descriptors << " descriptors, before " << descriptors_;
  }

  void expectNoMore() const {
    expectNoMoreDescriptors();
    // One more may have been started for a moment's load; a leak would be one a round.
    EXPECT_TRUE(becomesTrue([&] { return figures_().threads <= threads_ + 2; }))
        << figures_().threads << " threads, at first " << threads_;
  }

 private:
  const std::function<Figures()> figures_;
  const int descriptors_;
  int threads_ = 0;
};

}  // namespace processes

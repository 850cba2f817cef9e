#include <gv/blocking.h>

#include <gtest/gtest.h>

#include <gv/future.h>

namespace {

struct Counter final : gv::BlockingObserver {
  void willBlock() noexcept override {
    ++announced;
    ++depth;
  }
  void hasUnblocked() noexcept override { --depth; }
  int announced = 0;
  int depth = 0;
};

TEST(BlockingRegion, TellsEachObserverOfItsOutermostRegion) {
  Counter outer, inner;
  {
    gv::BlockingObserverScope outerScope(&outer);
    gv::BlockingRegion region;
    gv::BlockingRegion nested;
    gv::BlockingObserverScope innerScope(&inner);
    gv::BlockingRegion below;
    EXPECT_EQ(outer.depth, 1);
    EXPECT_EQ(inner.depth, 1);
  }
  gv::BlockingRegion unwatched;
  EXPECT_EQ(outer.announced, 1);
  EXPECT_EQ(inner.announced, 1);
  EXPECT_EQ(outer.depth + inner.depth, 0);
}

TEST(BlockingRegion, FutureAnnouncesASleepAndNothingElse) {
  Counter counter;
  gv::BlockingObserverScope scope(&counter);
  gv::Promise<int> promise;
  auto future = promise.future();
  future.wait(0);
  EXPECT_EQ(counter.announced, 0);
  future.wait(5);
  EXPECT_EQ(counter.announced, 1);
  EXPECT_EQ(counter.depth, 0);
  promise.setValue(1);
  future.value();
  EXPECT_EQ(counter.announced, 1);
}

}  // namespace

#include "src/taskqueue.h"

#include <gtest/gtest.h>

namespace gv::detail {
namespace {

using std::chrono::seconds;

TaskPointer task() {
  return std::make_shared<Task>();
}

TEST(TaskQueue, RemovedTasksNeitherRunNorCount) {
  TaskQueue queue;
  const Clock::time_point now{};
  auto first = task(), second = task(), third = task();
  queue.push(first, now);
  queue.push(second, now + seconds(1));
  queue.push(third, now + seconds(2));
  EXPECT_TRUE(queue.remove(*second));
  EXPECT_FALSE(queue.remove(*second));
  EXPECT_EQ(queue.size(), 2u);
  EXPECT_TRUE(queue.remove(*first));
  EXPECT_EQ(queue.oldest(), now + seconds(2));
  EXPECT_EQ(queue.pop(), third);
  EXPECT_FALSE(queue.remove(*third));
  EXPECT_EQ(queue.pop(), nullptr);
  EXPECT_EQ(queue.size(), 0u);
}

TEST(TaskQueue, DelayedTasksComeDueInTheOrderOfTheirTimes) {
  TaskQueue queue;
  const Clock::time_point now{};
  auto late = task(), early = task(), removed = task();
  queue.schedule(late, now + seconds(3));
  queue.schedule(early, now + seconds(2));
  queue.schedule(removed, now + seconds(1));
  EXPECT_TRUE(queue.remove(*removed));
  EXPECT_EQ(queue.nextDue(), now + seconds(2));
  EXPECT_EQ(queue.releaseDue(now + seconds(1)), 0u);
  EXPECT_EQ(queue.releaseDue(now + seconds(3)), 2u);
  EXPECT_EQ(queue.pop(), early);
  EXPECT_EQ(queue.pop(), late);
  EXPECT_FALSE(queue.nextDue());
}

TEST(TaskQueue, OnlyRefusableTasksAreTakenForRefusal) {
  TaskQueue queue;
  auto plain = task(), call = task(), removedCall = task();
  call->refuse = removedCall->refuse = [] {};
  queue.push(call, {});
  queue.push(removedCall, {});
  queue.push(plain, {});
  queue.remove(*removedCall);
  EXPECT_EQ(queue.takeRefusable(), std::vector<TaskPointer>{call});
  EXPECT_EQ(queue.size(), 1u);
  EXPECT_EQ(queue.pop(), plain);
}

}  // namespace
}  // namespace gv::detail

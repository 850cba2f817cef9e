#include "src/serialqueue.h"

#include <gtest/gtest.h>

namespace gv {
namespace {

TEST(SerialQueues, LetGoOfTasksThatTheirLoopDoesNotComeToRun) {
  const Promise<void> begun, release;
  std::weak_ptr<SerialQueue> weak;
  Future<void> first;
  {
    EventLoop loop({.minThreads = 1, .maxThreads = 1, .stopWithin = std::chrono::milliseconds(1)});
    first = loop.async([begun, release] {
      begun.setValue();
      release.future().wait();
    });
    begun.future().wait();
    const auto queue = std::make_shared<SerialQueue>(&loop);
    weak = queue;
    queue->post([queue] { ADD_FAILURE() << "the only thread was taken"; });
  }
  EXPECT_TRUE(weak.expired());
  release.setValue();
  first.wait();
}

}  // namespace
}  // namespace gv

// What waits for many sockets: the system's own way, and the one that every system has.

#include "src/net/readiness.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string_view>
#include <thread>

#include "src/net/pollset.h"
#include "support/watchdog.h"

namespace gv::net {
namespace {

constexpr int noLimit = -1;

struct SocketPair {
  SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0); }
  ~SocketPair() {
    for (const int end : ends) ::close(end);
  }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;

  void tell() const { EXPECT_EQ(::write(ends[1], "x", 1), 1); }

  std::array<int, 2> ends{};
};

template <class Set>
class Readiness : public testing::Test {
 protected:
  /// What becomes ready next; a set may return without before.
  Ready next() {
    std::size_t count = 0;
    while (count == 0) count = set.wait(ready, noLimit);
    EXPECT_EQ(count, 1u);
    return ready[0];
  }

  house::Watchdog watchdog{"a set of sockets"};
  Set set;
  std::array<Ready, 4> ready{};
  const SocketPair pair;
};

using Sets = testing::Types<ReadinessSet, PollSet>;
TYPED_TEST_SUITE(Readiness, Sets);

TYPED_TEST(Readiness, TellsWhatIsWatchedForAsLongAsItIsReady) {
  const int end = this->pair.ends[0];
  EXPECT_TRUE(this->set.watch(end, 7, {}, {.read = true}));
  this->set.wait(this->ready, 0);
  EXPECT_EQ(this->set.wait(this->ready, 1), 0u);
  this->pair.tell();
  for (int twice = 0; twice < 2; ++twice) {
    const Ready seen = this->next();
    EXPECT_TRUE(seen.key == 7 && seen.canRead && !seen.canWrite);
  }
  EXPECT_TRUE(this->set.watch(end, 7, {.read = true}, {.read = true, .write = true}));
  EXPECT_TRUE(this->next().canWrite);
  EXPECT_TRUE(this->set.watch(end, 7, {.read = true, .write = true}, {}));
  this->set.wait(this->ready, 0);
  EXPECT_EQ(this->set.wait(this->ready, 1), 0u);
}

TYPED_TEST(Readiness, SeesWakingsAndChangesWhileItWaits) {
  const int end = this->pair.ends[0];
  std::thread other([&] {
    this->set.watch(end, 8, {}, {.read = true});
    this->pair.tell();
  });
  EXPECT_EQ(this->next().key, 8u);
  other.join();
  this->set.watch(end, 8, {.read = true}, {});
  this->set.wake();
  EXPECT_EQ(this->set.wait(this->ready, noLimit), 0u) << "also one that came before the wait";
}

TYPED_TEST(Readiness, TellsOfPeersThatHaveGone) {
  this->set.watch(this->pair.ends[0], 9, {}, {.read = true, .write = true});
  ::shutdown(this->pair.ends[1], SHUT_RDWR);
  EXPECT_TRUE(this->next().canRead);
}

TYPED_TEST(Readiness, LeavesNobodyOutWhereThereIsRoomForFewOnly) {
  std::array<SocketPair, 3> pairs;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    this->set.watch(pairs[i].ends[0], i, {}, {.read = true});
    pairs[i].tell();
  }
  std::array<Ready, 1> one{};
  std::array<bool, 3> seen{};
  while (!(seen[0] && seen[1] && seen[2]))
    if (this->set.wait(one, noLimit) == 1) seen[one[0].key] = true;
}

}  // namespace
}  // namespace gv::net

#include "src/net/deadpeers.h"

#include <gtest/gtest.h>

#include <vector>

namespace gv::net {
namespace {

using namespace std::chrono_literals;

/// A look every 3 s; the answer after the last one.
bool isDeathAfter(const std::vector<SendingState>& looks) {
  Silence silence;
  Silence::TimePoint now{};
  for (const SendingState& seen : looks) silence.look(seen, now += 3s);
  return silence.isDeath(30s);
}

/// So many looks that show the same state, each with that time more since the acknowledgement.
std::vector<SendingState> looks(int count, SendingState state, std::chrono::milliseconds step = 3s,
                                unsigned retransmissionsEach = 0) {
  std::vector<SendingState> result;
  for (int i = 0; i < count; ++i) {
    result.push_back(state);
    state.sinceAcknowledgement += step;
    state.retransmissions += retransmissionsEach;
  }
  return result;
}

constexpr SendingState quiet{0, 0, 65536, 0, 7, 3'600s};
constexpr SendingState underWay{1, 0, 65536, 0, 7, 3'600s};
constexpr SendingState closedWindow{0, 5000, 0, 0, 7, 100ms};
constexpr SendingState probedTwice{0, 5000, 0, 2, 7, 100ms};
constexpr SendingState sentIntoClosedWindow{2, 5000, 0, 0, 7, 100ms};

TEST(Silence, IsDeathOnlyWhereAnAcknowledgementWasDueForTheWholeBound) {
  const std::vector<SendingState> answered = looks(1, {1, 0, 65536, 0, 8, 1s});
  std::vector<SendingState> lateAnswer = looks(10, underWay);
  lateAnswer.insert(lateAnswer.end(), answered.begin(), answered.end());
  std::vector<SendingState> silentAgain = lateAnswer;
  for (const SendingState& later : looks(10, {1, 0, 65536, 0, 8, 4s})) silentAgain.push_back(later);
  std::vector<SendingState> allAnswered = looks(9, underWay);
  allAnswered.push_back(quiet);
  for (const SendingState& later : looks(3, underWay)) allAnswered.push_back(later);

  const struct {
    const char* what;
    std::vector<SendingState> seen;
    bool isDeath;
  } cases[] = {
      {"nothing to acknowledge", looks(100, quiet), false},
      {"the first look, after a long quiet time", looks(1, underWay), false},
      {"not yet the whole bound", looks(10, underWay), false},
      {"the whole bound", looks(11, underWay), true},
      {"an answer at the last moment", lateAnswer, false},
      {"the whole bound after that answer", silentAgain, true},
      {"all was acknowledged meanwhile", allAnswered, false},
      {"a busy peer", looks(100, {9, 0, 65536, 0, 7, 2s}, 0s, 3), false},
      {"a closed window, its probes answered or far apart", looks(100, closedWindow), false},
      {"two unanswered probes, not yet the bound", looks(9, probedTwice), false},
      {"two unanswered probes", looks(11, probedTwice), true},
      {"bytes under way as the window closed, tried again far apart",
       looks(30, sentIntoClosedWindow), false},
      {"the same, tried often and in vain", looks(12, sentIntoClosedWindow, 3s, 1), true},
      {"the same, answered each time", looks(100, sentIntoClosedWindow, 0s, 1), false},
  };
  for (const auto& one : cases) EXPECT_EQ(isDeathAfter(one.seen), one.isDeath) << one.what;
}

}  // namespace
}  // namespace gv::net

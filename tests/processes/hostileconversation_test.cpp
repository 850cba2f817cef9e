// A real client's conversation, fed back to the robot in pieces and cut short, while another client
// goes on calling.

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>

#include "conversation.h"
#include "robotprocess.h"
#include "steadyclient.h"
#include "support/faultproxy.h"
#include "support/sanitized.h"
#include "support/watchdog.h"

namespace processes {
namespace {

/// Records what a client says that joins, publishes a module, calls the robot and leaves.
house::Recording recordConversation(const RobotProcess& robot) {
  house::FaultProxy between(robot.port());
  auto recording = between.recordNext();
  const auto client =
      JX::JXBroker::createBroker("recorded", "127.0.0.1", 0, "127.0.0.1", between.port());
  JX::createModule<JX::JXModule>(client, "Recorded");
  JX::JXProxy proxy(client, "Robot");
  proxy.call<int>("add", 19, 23);
  proxy.call<JX::JXValue>("echo", JX::JXValue("hello"));
  errorOf([&] { proxy.call<void>("fail", "as it must"); });
  errorOf([&] { JX::JXProxy(client, "Nobody"); });
  client->isModulePresent("Robot");
  client->shutdown();
  return recording.get();
}

class HostileConversation : public testing::Test {
 protected:
  HostileConversation() {
    // What the first connections make the robot keep is no leak.
    for (int i = 0; i < 20; ++i) replay(1);
    atStart = robot.figures();
  }

  /// Ends each test: nothing is left in the robot, and the other client never noticed.
  void TearDown() override {
    EXPECT_TRUE(becomesTrue([&] { return robot.figures().descriptors <= atStart.descriptors; }))
        << robot.figures().descriptors << " descriptors, " << atStart.descriptors << " before";
    const long grown = robot.figures().residentKiB - atStart.residentKiB;
    RecordProperty("residentKiBGrown", std::to_string(grown));
    if (!house::isSanitized) {
      EXPECT_LT(grown, 8 * 1024);
    }
    int calls = 0;
    EXPECT_NO_THROW(calls = steady.stop());
    EXPECT_GT(calls, 0);
    EXPECT_TRUE(robot.end());
  }

  house::RawPeer connect() const { return house::RawPeer::connectTo(robot.port()); }

  /// Sends the conversation in pieces of that size; each of its calls must be answered.
  void replay(std::size_t pieceSize) const {
    house::RawPeer peer = connect();
    for (std::string_view rest = recording.toServer; !rest.empty();
         rest.remove_prefix(std::min(pieceSize, rest.size())))
      ASSERT_TRUE(peer.send(rest.substr(0, pieceSize)));
    std::vector<std::uint32_t> asked;
    for (const FrameBytes& frame : frames)
      if (frame.type() == Call) asked.push_back(frame.messageId());
    std::vector<std::uint32_t> answered;
    while (answered.size() < asked.size()) {
      const auto frame = receiveFrame(peer);
      ASSERT_TRUE(frame) << "closed after " << answered.size() << " answers";
      if (frame->type() == Reply || frame->type() == Error) answered.push_back(frame->messageId());
    }
    EXPECT_THAT(answered, testing::UnorderedElementsAreArray(asked));
  }

  house::Watchdog watchdog{"hostile conversations", std::chrono::seconds(115)};
  RobotProcess robot;
  house::Recording recording = recordConversation(robot);
  std::vector<FrameBytes> frames = framesOf(recording.toServer);
  SteadyClient steady{robot};
  Figures atStart;
};

TEST_F(HostileConversation, IsAnsweredHoweverItIsCutIntoWrites) {
  EXPECT_GE(frames.size(), 6u);
  for (const std::size_t pieceSize : {1u, 2u, 63u, 64u, 65u, 1000u, 1'000'000u}) replay(pieceSize);
}

TEST_F(HostileConversation, MayEndAtAnyOffset) {
  const std::string_view all = recording.toServer;
  int slowestMs = 0;
  for (std::size_t cut = 0; cut <= all.size(); cut += cut < 2000 && !house::isSanitized ? 1 : 7) {
    const auto start = Clock::now();
    house::RawPeer peer = connect();
    peer.send(all.substr(0, cut));
    if (cut % 3 == 2) {
      peer.reset();
      continue;
    }
    peer.finishSending();
    peer.receiveToTheEnd();
    slowestMs = std::max(slowestMs, millisecondsSince(start));
  }
  RecordProperty("bytes", static_cast<int>(all.size()));
  RecordProperty("slowestMilliseconds", slowestMs);
  EXPECT_LT(slowestMs, 5000);
}

TEST_F(HostileConversation, HoldsNoMemoryForPayloadsThatAreOnlyAnnounced) {
  const std::string& hello = frames.front().bytes();
  const std::string announced = frames.back().announcing(64u << 20);
  std::vector<house::RawPeer> peers;
  for (int i = 0; i < 50; ++i) {
    peers.push_back(connect());
    peers.back().send(hello);
    ASSERT_TRUE(receiveFrame(peers.back()));
    peers.back().send(announced);
  }
  replay(1'000'000);  // the robot has read on since
  if (!house::isSanitized) {
    EXPECT_LT(robot.figures().residentKiB - atStart.residentKiB, 8 * 1024);
  }
  for (house::RawPeer& peer : peers) {
    peer.finishSending();
    peer.receiveToTheEnd();
  }
}

}  // namespace
}  // namespace processes

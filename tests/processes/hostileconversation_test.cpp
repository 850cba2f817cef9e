// A real client's conversation, fed back to the robot in pieces and with lies in it, while another
// client goes on calling.

#include <gmock/gmock.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>

#include "recordingproxy.h"
#include "robotprocess.h"
#include "scale.h"
#include "steadyclient.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using namespace std::string_literals;

const std::string sumOf19And23 = "\x92\x13\x17";
const std::string textInDynamic = "\x91\x92\xA1s\xA5hello";

/// Records what a client says that joins, publishes a module, calls the robot and leaves.
Recording recordConversation(const RobotProcess& robot) {
  RecordingProxy between(robot.port());
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
  return between.recording();
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
    if (!isSanitized) {
      EXPECT_LT(grown, 8 * 1024);
    }
    int calls = 0;
    EXPECT_NO_THROW(calls = steady.stop());
    EXPECT_GT(calls, 0);
    EXPECT_TRUE(robot.end());
  }

  HostilePeer connect() const { return HostilePeer::connectTo(robot.port()); }

  const FrameBytes& hello() const { return frames.front(); }

  /// A call of the robot's that the recorded client made with this payload.
  const FrameBytes& callWith(const std::string& payload) const {
    const auto found = std::find_if(frames.begin(), frames.end(), [&](const FrameBytes& frame) {
      return frame.type() == Call && frame.payload() == payload;
    });
    if (found == frames.end()) throw std::runtime_error("a call that was not recorded");
    return *found;
  }

  /// A connection whose handshake is done.
  HostilePeer connectAndGreet() const {
    HostilePeer peer = connect();
    peer.send(hello().bytes());
    const auto welcome = peer.receiveFrame();
    if (!welcome || welcome->type() != Welcome) throw std::runtime_error("no welcome");
    return peer;
  }

  /// Sends the conversation in pieces of that size; each of its calls must be answered.
  void replay(std::size_t pieceSize) const {
    HostilePeer peer = connect();
    for (std::string_view rest = recording.toServer; !rest.empty();
         rest.remove_prefix(std::min(pieceSize, rest.size())))
      ASSERT_TRUE(peer.send(rest.substr(0, pieceSize)));
    std::vector<std::uint32_t> asked;
    for (const FrameBytes& frame : frames)
      if (frame.type() == Call) asked.push_back(frame.messageId());
    std::vector<std::uint32_t> answered;
    while (answered.size() < asked.size()) {
      const auto frame = peer.receiveFrame();
      ASSERT_TRUE(frame) << "closed after " << answered.size() << " answers";
      if (frame->type() == Reply || frame->type() == Error) answered.push_back(frame->messageId());
    }
    EXPECT_THAT(answered, testing::UnorderedElementsAreArray(asked));
  }

  house::Watchdog watchdog{"hostile conversations", std::chrono::seconds(115)};
  RobotProcess robot;
  Recording recording = recordConversation(robot);
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
  for (std::size_t cut = 0; cut <= all.size(); cut += cut < 2000 && !isSanitized ? 1 : 7) {
    const auto start = Clock::now();
    HostilePeer peer = connect();
    peer.send(all.substr(0, cut));
    if (cut % 3 == 2) {
      peer.reset();
      continue;
    }
    peer.finishSending();
    ASSERT_TRUE(peer.isClosedByOther()) << "cut after " << cut << " bytes";
    slowestMs = std::max(slowestMs, millisecondsSince(start));
  }
  RecordProperty("bytes", static_cast<int>(all.size()));
  RecordProperty("slowestMilliseconds", slowestMs);
  EXPECT_LT(slowestMs, 5000);
}

struct Lie {
  const char* name;
  std::string bytes;
};

TEST_F(HostileConversation, EndsWhereAFrameLies) {
  const FrameBytes& call = callWith(sumOf19And23);
  const std::string greeting(hello().payload());
  const std::vector<Lie> early = {
      {"another protocol", "GET / HTTP/1.1\r\n\r\n"},
      {"a call", call.bytes()},
      {"over the limit of a handshake", hello().withNumber(PayloadSizeAt, (64u << 10) + 1).bytes()},
      {"half a greeting", hello().withPayload(greeting.substr(0, greeting.size() / 2)).bytes()}};
  for (const Lie& lie : early) {
    HostilePeer peer = connect();
    peer.send(lie.bytes);
    EXPECT_TRUE(peer.isClosedByOther()) << lie.name << " before the handshake";
  }
  const std::vector<Lie> late = {
      {"a second greeting", hello().bytes()},
      {"an unknown type", call.withByte(TypeAt, 255).bytes()},
      {"size just over the limit", call.withNumber(PayloadSizeAt, (64u << 20) + 1).bytes()},
      // What is left of the payload cannot begin a frame.
      {"size too small", call.withNumber(PayloadSizeAt, 2).bytes()}};
  for (const Lie& lie : late) {
    HostilePeer peer = connectAndGreet();
    peer.send(lie.bytes);
    EXPECT_TRUE(peer.isClosedByOther()) << lie.name << " after the handshake";
  }
}

TEST_F(HostileConversation, GoesOnWhereACallLies) {
  const FrameBytes& add = callWith(sumOf19And23);
  const FrameBytes& echo = callWith(textInDynamic);
  const std::string countless = "\xDD\xFF\xFF\xFF\xFF";
  const std::vector<Lie> answered = {
      {"an unknown service", add.withNumber(ServiceAt, 0xfffffffe).bytes()},
      {"an unknown method", add.withNumber(MemberAt, 0xffffffff).bytes()},
      {"countless arguments", add.withPayload(countless).bytes()},
      {"an unknown type", echo.withPayload("\x91\x92\xA1Z\xC0").bytes()},
      {"countless content", echo.withPayload("\x91\x92\xA2\x61v" + countless).bytes()}};
  const std::vector<Lie> ignored = {
      {"a reply to no call", add.withByte(TypeAt, Reply).bytes()},
      {"a post without arguments", add.withByte(TypeAt, Post).withPayload("").bytes()}};
  HostilePeer peer = connectAndGreet();
  const auto next = [&peer] {
    const auto frame = peer.receiveFrame();
    return frame ? *frame : throw std::runtime_error("closed");
  };
  for (const Lie& lie : answered) {
    peer.send(lie.bytes);
    EXPECT_EQ(next().type(), Error) << lie.name;
  }
  for (const Lie& lie : ignored) peer.send(lie.bytes);
  peer.send(add.bytes());
  EXPECT_EQ(next().payload(), "\x2A") << "the good call after all of them";
}

TEST_F(HostileConversation, HoldsNoMemoryForPayloadsThatAreOnlyAnnounced) {
  const std::string announced = callWith(sumOf19And23).withNumber(PayloadSizeAt, 64u << 20).bytes();
  std::vector<HostilePeer> peers;
  for (int i = 0; i < 50; ++i) {
    peers.push_back(connectAndGreet());
    peers.back().send(announced);
  }
  // Its answer says that the robot has read on since.
  connectAndGreet();
  if (!isSanitized) {
    EXPECT_LT(robot.figures().residentKiB - atStart.residentKiB, 8 * 1024);
  }
  for (HostilePeer& peer : peers) {
    peer.finishSending();
    EXPECT_TRUE(peer.isClosedByOther());
  }
}

}  // namespace
}  // namespace processes

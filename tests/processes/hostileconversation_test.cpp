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

/// Lies of a frame's header; each ends a connection, before the handshake and after it.
std::vector<Lie> liesInTheHeader(const FrameBytes& good) {
  const auto size = static_cast<std::uint32_t>(good.payload().size());
  return {{"magic", good.withByte(2, 'g').bytes()},
          {"version", good.withByte(VersionAt, 2).bytes()},
          {"type 0", good.withByte(TypeAt, 0).bytes()},
          {"type 255", good.withByte(TypeAt, 255).bytes()},
          {"flags", good.withByte(FlagsAt, 128).bytes()},
          {"reserved bytes", good.withByte(Reserved6At, 1).bytes()},
          {"later reserved bytes", good.withByte(Reserved44At + 3, 1).bytes()},
          {"size over every limit", good.withNumber(PayloadSizeAt, 0xffffffff).bytes()},
          {"size just over the limit", good.withNumber(PayloadSizeAt, (64u << 20) + 1).bytes()},
          // What is left of the payload cannot begin a frame.
          {"size too small", good.withNumber(PayloadSizeAt, size - 1).bytes()}};
}

TEST_F(HostileConversation, EndsWithAFrameWhoseHeaderLies) {
  for (const Lie& lie : liesInTheHeader(hello())) {
    HostilePeer peer = connect();
    peer.send(lie.bytes);
    EXPECT_TRUE(peer.isClosedByOther()) << lie.name << " before the handshake";
  }
  for (const Lie& lie : liesInTheHeader(callWith(sumOf19And23))) {
    HostilePeer peer = connectAndGreet();
    peer.send(lie.bytes);
    EXPECT_TRUE(peer.isClosedByOther()) << lie.name << " after the handshake";
  }
}

TEST_F(HostileConversation, EndsWithWhatIsNoHandshake) {
  const FrameBytes& call = callWith(sumOf19And23);
  const std::string greeting(hello().payload());
  const std::vector<Lie> lies = {
      {"another protocol", "GET / HTTP/1.1\r\n\r\n"},
      {"a TLS greeting", "\x16\x03\x01\x02\x00\x01"s},
      {"one wrong byte", "X"},
      {"a call", call.bytes()},
      {"a post", call.withByte(TypeAt, Post).bytes()},
      {"a reply", call.withByte(TypeAt, Reply).bytes()},
      {"an error", call.withByte(TypeAt, Error).bytes()},
      {"a welcome", hello().withByte(TypeAt, Welcome).bytes()},
      {"over the limit of a handshake", hello().withNumber(PayloadSizeAt, (64u << 10) + 1).bytes()},
      {"an empty greeting", hello().withPayload("").bytes()},
      {"a greeting and more", hello().withPayload(greeting + "x").bytes()},
      {"half a greeting", hello().withPayload(greeting.substr(0, greeting.size() / 2)).bytes()},
      {"a later version", hello().withPayload("\x95\x02" + greeting.substr(2)).bytes()},
      {"too few fields", hello().withPayload("\x94\x01"s).bytes()},
      {"countless capabilities", hello().withPayload("\x95\x01\xDF\xFF\xFF\xFF\xFF"s).bytes()},
      {"noise", hello().withPayload(std::string(60000, '\xC1')).bytes()}};
  for (const Lie& lie : lies) {
    HostilePeer peer = connect();
    peer.send(lie.bytes);
    EXPECT_TRUE(peer.isClosedByOther()) << lie.name;
  }
  for (const FrameType type : {Hello, Welcome}) {
    HostilePeer peer = connectAndGreet();
    peer.send(hello().withByte(TypeAt, type).bytes());
    EXPECT_TRUE(peer.isClosedByOther()) << "a second handshake with type " << type;
  }
}

/// A dynamic value in so many others.
std::string nested(int levels) {
  std::string payload = "\x91";
  for (int i = 0; i < levels; ++i) payload += "\x92\xA2\x61v\x91";
  return payload + "\xC0";
}

/// Payloads of "add" that are not two numbers.
const std::vector<Lie>& liesInArguments() {
  static const std::vector<Lie> lies = {{"nothing", ""},
                                        {"no array", "\x13"},
                                        {"too few", "\x91\x13"},
                                        {"too many", "\x93\x13\x17\x01"},
                                        {"more bytes", sumOf19And23 + "\x01"},
                                        {"texts", "\x92\xA1s\xA1t"},
                                        {"a number too large", "\x92\x13\xCE\xFF\xFF\xFF\xFF"},
                                        {"countless", "\xDD\xFF\xFF\xFF\xFF"},
                                        {"many", "\xDC\xFF\xFF"s},
                                        {"a map", "\xDF\x00\x00\x00\x02\x13\x17"s},
                                        {"an endless text", "\x92\x13\xDB\xFF\xFF\xFF\xFF"},
                                        {"an extension", "\x92\x13\xD4\x01\x01"},
                                        {"a code that is never used", "\x92\x13\xC1"},
                                        {"arrays in arrays", std::string(60000, '\x91')}};
  return lies;
}

/// Payloads of "echo" that are not one dynamic value.
std::vector<Lie> liesInDynamicValues() {
  const auto withSignature = [](const std::string& signature) {
    const auto size = static_cast<unsigned char>(signature.size());
    return "\x91\x92\xD9"s + std::string(1, static_cast<char>(size)) + signature + "\xC0";
  };
  return {{"an unknown type", withSignature("Z")},
          {"half a list", withSignature("a")},
          {"half a map", withSignature("a{s")},
          {"two types", withSignature("ii")},
          {"no type", withSignature("")},
          {"no bytes of text", withSignature("s\0"s)},
          {"a dynamic value as content", withSignature("v")},
          {"a signature too deep", withSignature(std::string(200, 'a') + "i")},
          {"values too deep", nested(65)},
          {"values far too deep", nested(10000)},
          {"another content", "\x91\x92\xA1s\x05"},
          {"countless content", "\x91\x92\xA2\x61v\xDD\xFF\xFF\xFF\xFF"},
          {"a countless map", "\x91\x92\xA5\x61{sv}\xDF\xFF\xFF\xFF\xFF"},
          {"endless bytes", "\x91\x92\xA1r\xC6\xFF\xFF\xFF\xFF"},
          {"a third part", "\x91\x93\xA1s\xA1x\xA1y"}};
}

TEST_F(HostileConversation, AnswersACallThatLiesWithAnErrorAndGoesOn) {
  const FrameBytes& add = callWith(sumOf19And23);
  const FrameBytes& echo = callWith(textInDynamic);
  std::vector<Lie> lies = {
      {"unknown service", add.withNumber(ServiceAt, 0xfffffffe).bytes()},
      {"unknown object", add.withNumber(ObjectAt, 1).bytes()},
      {"unknown method", add.withNumber(MemberAt, 0xffffffff).bytes()},
      {"unknown method of the framework", add.withNumber(MemberAt, 98).bytes()},
      {"unknown method of the directory",
       add.withNumber(ServiceAt, 1).withNumber(MemberAt, 0xffffffff).bytes()}};
  for (const Lie& lie : liesInArguments())
    lies.push_back({lie.name, add.withPayload(lie.bytes).bytes()});
  for (const Lie& lie : liesInDynamicValues())
    lies.push_back({lie.name, echo.withPayload(lie.bytes).bytes()});

  HostilePeer peer = connectAndGreet();
  for (const Lie& lie : lies) {
    ASSERT_TRUE(peer.send(lie.bytes)) << lie.name;
    const auto answer = peer.receiveFrame();
    ASSERT_TRUE(answer) << lie.name;
    EXPECT_EQ(answer->type(), Error) << lie.name;
    peer.send(add.bytes());
    const auto sum = peer.receiveFrame();
    ASSERT_TRUE(sum) << lie.name;
    EXPECT_EQ(sum->payload(), "\x2A") << "the good call after: " << lie.name;
  }
}

TEST_F(HostileConversation, IgnoresWhatAsksForNoAnswerAndGoesOn) {
  const FrameBytes& add = callWith(sumOf19And23);
  HostilePeer peer = connectAndGreet();
  for (const FrameBytes& frame : {add.withByte(TypeAt, Reply), add.withByte(TypeAt, Error),
                                  add.withByte(TypeAt, Reply).withNumber(MessageIdAt, 0),
                                  add.withByte(TypeAt, Post).withNumber(ServiceAt, 0xfffffffe),
                                  add.withByte(TypeAt, Post).withPayload("\xDD\xFF\xFF\xFF\xFF"),
                                  add.withByte(TypeAt, Post)}) {
    peer.send(frame.bytes());
    peer.send(add.bytes());
    const auto sum = peer.receiveFrame();
    ASSERT_TRUE(sum) << "type " << frame.type();
    EXPECT_EQ(sum->payload(), "\x2A");
  }
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

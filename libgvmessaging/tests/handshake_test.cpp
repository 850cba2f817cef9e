// The handshake as a decision: what each side makes of each frame it may get first.

#include "src/rpc/handshake.h"

#include <gmock/gmock.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"

namespace gv::rpc {
namespace {

using testing::HasSubstr;
using testing::Not;
using wire::FrameType;

Greeting greetingOf(const std::string& session) {
  Greeting greeting;
  greeting.capabilities = {{"unknown", AnyValue::from(1)}};
  greeting.sessionId = session;
  greeting.machineId = "machine";
  greeting.processId = 7;
  return greeting;
}

HandshakeStep stepWith(Role role, FrameType type, const std::vector<char>& payload) {
  wire::Frame frame;
  frame.header.type = type;
  frame.payload.assign(payload);
  return Handshake(role, greetingOf("own"), wire::Limits()).step(frame);
}

std::vector<char> payloadOf(const std::string& text) {
  std::vector<char> payload;
  wire::writeValue(payload, AnyReference::from(text), "s");
  return payload;
}

TEST(Handshake, ReadsCapabilitiesThatItDoesNotKnow) {
  const std::vector<char> good = encodeGreeting(greetingOf("peer"));
  EXPECT_EQ(encodeGreeting(decodeGreeting(good, wire::Limits())), good);
}

TEST(Handshake, RefusesGreetingsThatAreNoneAndTellsOnlyTheClientWhy) {
  Greeting later = greetingOf("peer");
  later.version = 2;
  std::vector<char> longer = encodeGreeting(greetingOf("peer"));
  longer.push_back('\xc0');
  Greeting costly = greetingOf("peer");
  costly.capabilities["much"] = AnyValue::from(std::vector<AnyValue>(30'000));
  const struct {
    std::vector<char> payload;
    const char* text;
  } rows[] = {{encodeGreeting(later), "version 2 of the protocol, this side version 1"},
              {encodeGreeting(greetingOf("")), "names no session"},
              {encodeGreeting(greetingOf(std::string(256, 'x'))), "names no session"},
              {{}, "malformed payload"},
              {payloadOf("hello"), "a string where"},
              {longer, "more bytes follow"},
              {encodeGreeting(costly), "more memory than is allowed"}};
  for (const auto& row : rows) {
    const HandshakeStep served = stepWith(Role::Server, FrameType::Hello, row.payload);
    EXPECT_FALSE(served.peer);
    EXPECT_THAT(served.refusal, HasSubstr(row.text));
    ASSERT_EQ(served.answers.size(), 1u) << row.text;
    EXPECT_EQ(served.answers[0].type, FrameType::Error);
    EXPECT_EQ(served.answers[0].payload, payloadOf(served.refusal));
    const HandshakeStep met = stepWith(Role::Client, FrameType::Welcome, row.payload);
    EXPECT_TRUE(!met.peer && met.answers.empty());
    EXPECT_EQ(met.refusal, served.refusal);
  }
}

// ---- With keys

using Keys = std::shared_ptr<const KeyRing>;

const std::string firstKey = "an old key, to be replaced";
const std::string secondKey = "a new key, that replaces it";

Keys keysOf(const std::string& text) {
  return text.empty() ? nullptr : KeyRing::parse(text);
}

wire::Frame frameOf(const HandshakeFrame& sent) {
  wire::Frame frame;
  frame.header.type = sent.type;
  frame.payload.assign(sent.payload);
  return frame;
}

/// Somebody between the two sides, who sees and may change each frame.
using Between = std::function<void(HandshakeFrame&)>;

/// What two sides come to that hear each other; "" where both are open.
struct Outcome {
  std::string client;
  std::string server;
};

Outcome converse(const Keys& clientKeys, const Keys& serverKeys, const Between& between = {}) {
  Handshake sides[] = {{Role::Client, Identity(greetingOf("client"), clientKeys), wire::Limits()},
                       {Role::Server, Identity(greetingOf("server"), serverKeys), wire::Limits()}};
  std::string ends[2] = {"waits", "waits"};
  std::deque<std::pair<int, HandshakeFrame>> onTheWay;
  const auto carryOut = [&](int side, HandshakeStep step) {
    for (HandshakeFrame& frame : step.answers) onTheWay.emplace_back(1 - side, std::move(frame));
    if (step.peer) ends[side] = "";
    if (!step.refusal.empty()) ends[side] = step.refusal;
  };
  carryOut(0, sides[0].begin());
  while (!onTheWay.empty()) {
    auto [side, frame] = std::move(onTheWay.front());
    onTheWay.pop_front();
    if (between) between(frame);
    if (ends[side] == "waits") carryOut(side, sides[side].step(frameOf(frame)));
  }
  return {ends[0], ends[1]};
}

TEST(Handshake, OpensForThoseWhoProveAKeyOfTheOtherSide) {
  const std::string both = firstKey + "\n" + secondKey;
  const std::string changed = "# the new one first\n\n  " + secondKey + "\t\r\n" + firstKey;
  const struct {
    std::string client, server;
    bool opens;
  } rows[] = {{"", "", true},
              {firstKey, firstKey, true},
              {firstKey, secondKey, false},
              {firstKey, "", false},
              {"", firstKey, false},
              {firstKey, both, true},
              {both, firstKey, true},
              {both, changed, true},
              {changed, secondKey, true},
              {changed, firstKey, false}};
  for (const auto& row : rows) {
    const Outcome outcome = converse(keysOf(row.client), keysOf(row.server));
    EXPECT_EQ(outcome.client.empty() && outcome.server.empty(), row.opens)
        << row.client << " / " << row.server << ": " << outcome.client << ", " << outcome.server;
    // Who asks for a key opens for nobody without it, whatever the other side thinks.
    if (!row.opens) {
      EXPECT_TRUE(row.client.empty() || !outcome.client.empty());
      EXPECT_TRUE(row.server.empty() || !outcome.server.empty());
    }
    for (const std::string& text : {outcome.client, outcome.server})
      EXPECT_THAT(text, Not(HasSubstr("to be replaced")));
  }
}

TEST(Handshake, OpensForNobodyWhoCutsReplaysReflectsOrChangesIt) {
  const Keys keys = keysOf(firstKey);
  std::map<std::pair<int, FrameType>, HandshakeFrame>
      earlier;  // by how many of the type came before
  std::map<FrameType, int> seen;
  converse(keys, keys, [&](HandshakeFrame& frame) {
    earlier[{seen[frame.type]++, frame.type}] = frame;
  });
  ASSERT_EQ(earlier.size(), 5u);
  const auto replayed = [&](FrameType type, int which) -> Between {
    return [&, type, which, count = 0](HandshakeFrame& frame) mutable {
      if (frame.type == type && count++ == which) frame = earlier.at({which, type});
    };
  };
  // What the client has proved comes back as the server's.
  const auto reflected = [last = HandshakeFrame()](HandshakeFrame& frame) mutable {
    if (frame.type != FrameType::Proof) return;
    if (last.payload.empty()) last = frame;
    frame = last;
  };
  const auto stripped = [](HandshakeFrame& frame) {
    if (frame.type != FrameType::Hello) return;
    Greeting greeting = decodeGreeting(frame.payload, wire::Limits());
    greeting.capabilities.erase("nonce");
    frame.payload = encodeGreeting(greeting);
  };
  const auto renamed = [](FrameType type) -> Between {
    return [type](HandshakeFrame& frame) {
      if (frame.type != type) return;
      Greeting greeting = decodeGreeting(frame.payload, wire::Limits());
      greeting.sessionId = "somebody else";
      frame.payload = encodeGreeting(greeting);
    };
  };
  const auto shortened = [](HandshakeFrame& frame) {
    if (frame.type == FrameType::Proof) frame.payload = {'\xc4', '\x01', frame.payload.at(2)};
  };
  const struct {
    const char* name;
    Between between;
    bool mayOpenTheServer;  // whose client is the right one, and refuses
  } rows[] = {{"an old hello", replayed(FrameType::Hello, 0), false},
              {"an old challenge", replayed(FrameType::Challenge, 0), false},
              {"an old proof of the client", replayed(FrameType::Proof, 0), false},
              {"an old proof of the server", replayed(FrameType::Proof, 1), true},
              {"a reflected proof", reflected, true},
              {"a hello that offers no key", stripped, false},
              {"another client", renamed(FrameType::Hello), false},
              {"another server", renamed(FrameType::Welcome), true},
              {"proofs of a byte", shortened, false}};
  for (const auto& row : rows) {
    const Outcome outcome = converse(keys, keys, row.between);
    EXPECT_NE(outcome.client, "") << row.name;
    EXPECT_EQ(outcome.server.empty(), row.mayOpenTheServer) << row.name << ": " << outcome.server;
  }
}

TEST(Handshake, OpensForNobodyWhenOneBitOfAProofOrChallengeDiffers) {
  const Keys keys = keysOf(firstKey);
  for (std::size_t at = 2; at < 34; ++at)
    for (const int which : {0, 1, 2}) {  // challenge, the client's proof, the server's
      int count = 0;
      const Outcome outcome = converse(keys, keys, [&](HandshakeFrame& frame) {
        const bool isIts = frame.type == FrameType::Challenge || frame.type == FrameType::Proof;
        if (isIts && count++ == which) frame.payload.at(at) ^= 1 << (at % 8);
      });
      ASSERT_NE(outcome.client, "") << at << " of " << which;
    }
}

TEST(KeyRing, RefusesAFileWithoutAKeyOrWithBytesThatAreNone) {
  for (const char* text : {"", "\n \t\n", "# only a remark", "key\n\x01\x02"})
    EXPECT_THROW(KeyRing::parse(text), std::runtime_error) << text;
  EXPECT_TRUE(KeyRing::parse("short")->hasShortKey());
  EXPECT_FALSE(KeyRing::parse(firstKey)->hasShortKey());
}

}  // namespace
}  // namespace gv::rpc

// The handshake as a decision: what each side makes of each frame it may get first.

#include "src/rpc/handshake.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"

namespace gv::rpc {
namespace {

using testing::HasSubstr;
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
  frame.payload.assign(payload.begin(), payload.end());
  return stepHandshake(role, greetingOf("own"), wire::Limits(), frame);
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
    ASSERT_TRUE(served.answer) << row.text;
    EXPECT_EQ(served.answer->type, FrameType::Error);
    EXPECT_EQ(served.answer->payload, payloadOf(served.refusal));
    const HandshakeStep met = stepWith(Role::Client, FrameType::Welcome, row.payload);
    EXPECT_FALSE(met.peer || met.answer);
    EXPECT_EQ(met.refusal, served.refusal);
  }
}

}  // namespace
}  // namespace gv::rpc

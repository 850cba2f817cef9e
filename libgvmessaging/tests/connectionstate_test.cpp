// One connection without a network: each state meets each event, at every place in the bytes.

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gvtype/dynamicobjectbuilder.h>
#include <gvtype/struct.h>

#include "memorypeer.h"
#include "src/net/readers.h"
#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"
#include "support/watchdog.h"

namespace gv {
namespace {

using rpc::Role;
using testing::ElementsAre;
using testing::HasSubstr;
using wire::FrameType;

constexpr unsigned notebookId = 7;
constexpr unsigned addId = 100;
constexpr unsigned noteId = 101;

std::string frame(FrameType type, std::string_view payload, std::uint64_t messageId = 0,
                  unsigned member = 0, unsigned service = notebookId, unsigned object = 0) {
  wire::FrameHeader header;
  header.type = type;
  header.messageId = messageId;
  header.service = service;
  header.object = object;
  header.member = member;
  return frameText(header, payload);
}

rpc::Greeting greetingOf(const std::string& session) {
  rpc::Greeting greeting;
  greeting.sessionId = session;
  return greeting;
}

/// A frame of that type whose payload is well formed.
std::string plausible(FrameType type) {
  switch (type) {
    case FrameType::Hello:
    case FrameType::Welcome:
      return greetingFrame(type, greetingOf("peer"));
    case FrameType::Challenge:
    case FrameType::Proof:
      return frame(type, "\xc4\x20" + std::string(32, 'x'), 0, 0, 0);
    case FrameType::Error:
      return frame(type, "\xa2no", 9);
    default:
      return frame(type, "\x92\x01\x02", 9, addId);
  }
}

/// Whether a connection ended for the frame being none that may come.
bool isRefusal(const std::string& cause) {
  return cause.find("another frame before") != std::string::npos ||
         cause.find("handshake frame after") != std::string::npos ||
         cause.find("GV_AUTH_KEY_FILE") != std::string::npos;
}

std::string errorText(std::string_view answer) {
  if (headerOf(answer).type != FrameType::Error) return "no error";
  std::string text;
  wire::readValue(answer.substr(wire::frameHeaderSize), AnyReference::from(text), wire::Limits());
  return text;
}

/// Notes which thread makes it.
struct Noted {
  int value = 0;
  std::thread::id maker = std::this_thread::get_id();
};
GV_STRUCT(Noted, value)

class ConnectionState : public testing::Test {
 protected:
  MemoryPeer makePeer(Role role, const wire::Limits& limits = {},
                      std::shared_ptr<const rpc::KeyRing> keys = nullptr) {
    DynamicObjectBuilder builder;
    builder.advertiseMethod("add", [counted = runs](int a, int b) {
      ++*counted;
      return a + b;
    });
    builder.advertiseMethod("note", [counted = runs](const std::string&) { ++*counted; });
    return {role, {greetingOf("own"), std::move(keys)}, {{notebookId, builder.object()}}, limits};
  }
  /// Calls add(1, 2) of an open client's peer; the call's frame is in `sent`.
  static Future<AnyReference> callAdd(MemoryPeer& peer, std::string& sent) {
    DynamicObjectBuilder builder;
    builder.advertiseMethod("add", [](int, int) { return 0; });
    const MetaMethod add = *builder.object().metaObject().method(addId);
    auto result = peer.connection->call(notebookId, add, makeParameters(1, 2), MetaCallType::Auto);
    sent = peer.hear();
    return result;
  }
  static void open(MemoryPeer& peer) {
    const bool isServer = peer.connection->role() == Role::Server;
    peer.tell(greetingFrame(isServer ? FrameType::Hello : FrameType::Welcome, greetingOf("peer")));
    peer.hear();
    EXPECT_TRUE(peer.connection->isOpen());
  }

  using Counter = std::shared_ptr<std::atomic<int>>;  // of methods that may outrun a test
  static Counter makeCounter() { return std::make_shared<std::atomic<int>>(0); }

  house::Watchdog watchdog{"a connection in memory", std::chrono::seconds(100)};
  Counter runs = makeCounter();
};

/// The far end of a handshake with keys, which the test takes step by step.
struct KeyedHandshake {
  static constexpr const char* key = "a key of these tests";

  KeyedHandshake(MemoryPeer& told, Role own)
      : peer(told), handshake(own, {greetingOf("peer"), rpc::KeyRing::parse(key)}, {}) {
    keep(handshake.begin());
  }
  void keep(rpc::HandshakeStep step) {
    for (rpc::HandshakeFrame& answer : step.answers) next.push_back(std::move(answer));
  }
  /// What it says next; the peer's answer to that is heard, where it is not its turn to speak on.
  std::string say() {
    if (next.empty()) hear();
    const rpc::HandshakeFrame said = next.front();
    next.erase(next.begin());
    return frame(said.type, {said.payload.data(), said.payload.size()}, 0, 0, 0);
  }
  void hear() {
    const std::string bytes = peer.hear();
    wire::Frame heard{headerOf(bytes), {}};
    heard.payload.assign(std::span(bytes).subspan(wire::frameHeaderSize));
    keep(handshake.step(heard));
  }

  MemoryPeer& peer;
  rpc::Handshake handshake;
  std::vector<rpc::HandshakeFrame> next;
};

TEST_F(ConnectionState, LetsPassWhatMayComeNextAndNothingElse) {
  using Types = std::vector<FrameType>;
  const Types open = {FrameType::Call, FrameType::Post, FrameType::Reply, FrameType::Error,
                      FrameType::Event};
  const struct {
    Role role;
    bool hasKeys;
    int said;  // of the handshake, by the peer
    Types may;
  } rows[] = {{Role::Server, false, 0, {FrameType::Hello}},
              {Role::Server, false, 1, open},
              {Role::Client, false, 0, {FrameType::Welcome, FrameType::Error}},
              {Role::Client, false, 1, open},
              {Role::Server, true, 0, {FrameType::Hello}},
              {Role::Server, true, 1, {FrameType::Proof}},
              {Role::Server, true, 2, open},
              {Role::Client, true, 0, {FrameType::Challenge, FrameType::Error}},
              {Role::Client, true, 1, {FrameType::Proof, FrameType::Error}},
              {Role::Client, true, 2, {FrameType::Welcome}},
              {Role::Client, true, 3, open}};
  for (const auto& row : rows)
    for (int type = 1; type <= static_cast<int>(FrameType::Proof); ++type) {
      SCOPED_TRACE(testing::Message()
                   << static_cast<int>(row.role) << row.hasKeys << row.said << type);
      const auto keys = row.hasKeys ? rpc::KeyRing::parse(KeyedHandshake::key) : nullptr;
      MemoryPeer peer = makePeer(row.role, {}, keys);
      KeyedHandshake far(peer, row.role == Role::Server ? Role::Client : Role::Server);
      for (int i = 0; i < row.said; ++i)
        peer.tell(row.hasKeys
                      ? far.say()
                      : greetingFrame(far.next.empty() ? FrameType::Welcome : FrameType::Hello,
                                      greetingOf("peer")));
      const bool isOpen = row.may == open;
      ASSERT_EQ(peer.connection->isOpen(), isOpen);

      const bool mayPass = std::count(row.may.begin(), row.may.end(), FrameType(type)) > 0;
      const bool isTurn = !isOpen && row.hasKeys && mayPass && FrameType(type) != FrameType::Error;
      peer.tell(isTurn ? far.say() : plausible(FrameType(type)));
      const bool isStopped = !peer.causes.empty() && isRefusal(peer.causes[0]);
      EXPECT_EQ(isStopped, !mayPass) << (peer.causes.empty() ? "goes on" : peer.causes[0]);
      if (isTurn) {
        EXPECT_TRUE(peer.causes.empty()) << peer.causes[0];
      }
      if (!isOpen) {
        EXPECT_EQ(*runs, 0);
      }
      runs = makeCounter();
    }
}

TEST_F(ConnectionState, EndsWithTheCauseThatItWasGivenAndHearsNothingMore) {
  MemoryPeer ended = makePeer(Role::Server);
  open(ended);
  ended.connection->close("done");
  for (int type = 1; type <= static_cast<int>(FrameType::Proof); ++type)
    ended.tell(plausible(FrameType(type)));
  EXPECT_THAT(ended.causes, ElementsAre("done"));
  EXPECT_EQ(ended.heardSoFar(), "");
  EXPECT_EQ(*runs, 0);
}

TEST_F(ConnectionState, BoundsPayloadsMoreTightlyDuringTheHandshake) {
  const wire::Limits limits;
  const auto isRefused = [](MemoryPeer& peer, FrameType type, std::uint32_t size) {
    std::string header = frame(type, "");
    for (std::size_t i = 0; i < 4; ++i) header[8 + i] = static_cast<char>(size >> (8 * i) & 0xff);
    peer.tell(header);
    return !peer.causes.empty();
  };
  for (const std::uint32_t above : {0u, 1u}) {
    MemoryPeer handshaking = makePeer(Role::Server);
    EXPECT_EQ(isRefused(handshaking, FrameType::Hello, limits.handshakePayload + above),
              above == 1);
    MemoryPeer opened = makePeer(Role::Server);
    open(opened);
    EXPECT_EQ(isRefused(opened, FrameType::Call, limits.payload + above), above == 1);
  }
}

TEST_F(ConnectionState, IsTheSameForEverySplitOfTheBytes) {
  // Calls that are answered at once, so that the answers are in order.
  const std::string bytes =
      greetingFrame(FrameType::Hello, greetingOf("peer")) + frame(FrameType::Call, "\x90", 1, 2) +
      frame(FrameType::Reply, "\x01", 77) + frame(FrameType::Call, "\x90", 2, 2, 99) +
      frame(FrameType::Call, std::string("\x91\xc4\0", 3), 3, 2);
  const auto answersTo = [&](std::size_t cut, std::size_t piece) {
    MemoryPeer peer = makePeer(Role::Server);
    peer.tell(bytes.substr(0, cut), piece);
    peer.tell(bytes.substr(cut), piece);
    return peer.heardSoFar();
  };
  const std::string whole = answersTo(0, bytes.size());
  EXPECT_GT(whole.size(), 4 * wire::frameHeaderSize);
  EXPECT_EQ(answersTo(0, 1), whole);
  for (std::size_t cut = 1; cut < bytes.size(); ++cut)
    ASSERT_EQ(answersTo(cut, bytes.size()), whole) << cut;
}

TEST_F(ConnectionState, EndsOnceWhereverThePeerVanishes) {
  const std::string hello = greetingFrame(FrameType::Hello, greetingOf("peer"));
  const std::string bytes = hello + frame(FrameType::Post, "\x92\x01\x02", 1, noteId);
  for (std::size_t at = 0; at < bytes.size(); ++at)
    for (const bool isCut : {true, false}) {
      MemoryPeer peer = makePeer(Role::Server);
      peer.tell(bytes.substr(0, at));
      isCut ? peer.cut() : peer.close();
      ASSERT_THAT(peer.causes, ElementsAre(isCut ? "cut" : "connection closed by peer")) << at;
      ASSERT_EQ(peer.opened, at >= hello.size() ? 1 : 0) << at;
      ASSERT_FALSE(peer.connection->isOpen());
    }
  const std::string reply = frame(FrameType::Reply, "\x03");
  for (std::size_t at = 0; at <= reply.size(); ++at) {
    MemoryPeer peer = makePeer(Role::Client);
    open(peer);
    std::string sent;
    const auto sum = callAdd(peer, sent);
    std::string answer = reply;
    answer.replace(24, 8, sent, 24, 8);
    peer.tell(answer.substr(0, at));
    peer.cut();
    if (at == reply.size())
      EXPECT_EQ(sum.value().to<int>(), 3);
    else
      EXPECT_THAT(sum.error(), HasSubstr("was lost: cut")) << at;
  }
  EXPECT_EQ(*runs, 0);
}

TEST_F(ConnectionState, MakesNothingOfItsUsersInAThreadThatReadsWhileItWaits) {
  MemoryPeer peer = makePeer(Role::Client);
  open(peer);
  DynamicObjectBuilder builder;
  const unsigned id = builder.advertiseMethod("make", [] { return Noted(); });
  const MetaMethod make = *builder.object().metaObject().method(id);
  const auto made = detail::futureOfResult<Noted>([&](auto sink) {
    peer.connection->call(notebookId, make, {}, MetaCallType::Auto, std::move(sink));
  });
  std::string answer = frame(FrameType::Reply, "\x91\x05");
  answer.replace(24, 8, peer.hear(), 24, 8);
  {
    const net::Readers::Borrowing borrowing;
    peer.tell(answer);
  }
  EXPECT_EQ(made.value().value, 5);
  EXPECT_NE(made.value().maker, std::this_thread::get_id());
}

TEST_F(ConnectionState, LosesNoFrameBehindOneThatWasChanged) {
  const std::string many = std::string(
                               "\x91\x92\xa2"
                               "ai\xdc\0\xc8",
                               9) +
                           std::string(200, '\x05');
  const std::string call = frame(FrameType::Call, many, 1, noteId);
  const std::string next = frame(FrameType::Call, "\x90", 2, 2);
  MemoryPeer fresh = makePeer(Role::Server);
  open(fresh);
  fresh.tell(next);
  const std::string answer = fresh.hear();
  for (std::size_t at = 0; at < call.size(); ++at) {
    if (at >= 8 && at < 12) continue;  // of another size, it is another frame
    for (const int change : {0x01, 0x80}) {
      std::string changed = call;
      changed[at] = static_cast<char>(changed[at] ^ change);
      MemoryPeer peer = makePeer(Role::Server);
      open(peer);
      peer.tell(changed + next);
      std::string heard = peer.hear();
      while (!heard.empty() && heard != answer) heard = peer.hear();
      ASSERT_EQ(heard == answer, peer.connection->isOpen()) << at;
    }
  }
  EXPECT_EQ(*runs, 0);
}

TEST_F(ConnectionState, TakesOneReplyToEachCallAndNoOthers) {
  MemoryPeer peer = makePeer(Role::Client);
  open(peer);
  std::array<std::string, 2> sent;
  const auto first = callAdd(peer, sent[0]);
  const auto second = callAdd(peer, sent[1]);
  const auto replyTo = [&](const std::string& call, FrameType type, std::string_view payload) {
    peer.tell(frame(type, payload, headerOf(call).messageId));
  };
  peer.tell(frame(FrameType::Reply, "\x01", headerOf(sent[1]).messageId + 1));
  EXPECT_TRUE(first.isRunning() && second.isRunning());
  replyTo(sent[1], FrameType::Reply, "\x02");
  replyTo(sent[1], FrameType::Reply, "\x03");
  replyTo(sent[1], FrameType::Error, "\xa2no");
  EXPECT_TRUE(first.isRunning());
  EXPECT_EQ(second.value().to<int>(), 2);
  replyTo(sent[0], FrameType::Error, "\xa2no");
  EXPECT_EQ(first.error(), "no");
  EXPECT_EQ(peer.connection->figures().repliesIgnored, 3u);
  EXPECT_TRUE(peer.connection->isOpen());
}

TEST_F(ConnectionState, AnswersTwoCallsOfOneIdApart) {
  MemoryPeer peer = makePeer(Role::Server);
  open(peer);
  peer.tell(frame(FrameType::Call, "\x92\x01\x02", 5, addId) +
            frame(FrameType::Call, "\x92\x01\x02", 5, addId));
  EXPECT_EQ(peer.hear(), peer.hear());
  EXPECT_EQ(*runs, 2);
}

// What follows a payload, or what is missing of it, concerns its call alone, whatever the frame is.
TEST_F(ConnectionState, OutlivesPayloadsThatAreWrong) {
  const std::tuple<std::string, std::string, const char*> rows[] = {
      {"\x92\x01\x02\xc0", "\x03\xc0", "more bytes follow"},
      {"\x92\x01", std::string("\xd2\0", 2), "ends too early"},
      {"", "", "malformed"},
      {"\x92\x01\xa1x", "\xa1x", "a string where int32 is expected"},
      {"\xdd\x7f\xff\xff\xff", "\xdd\x7f\xff\xff\xff", "more elements than"}};
  for (const auto& [arguments, result, text] : rows) {
    MemoryPeer server = makePeer(Role::Server);
    open(server);
    EXPECT_THAT(errorText(server.ask(frame(FrameType::Call, arguments, 1, addId))),
                HasSubstr(text));
    server.tell(frame(FrameType::Post, arguments, 2, addId));
    server.ask(frame(FrameType::Call, "\x90", 3, 2));
    while (server.connection->figures().postsDropped == 0) std::this_thread::yield();
    EXPECT_TRUE(server.connection->isOpen());

    MemoryPeer client = makePeer(Role::Client);
    open(client);
    std::string sent;
    const auto call = callAdd(client, sent);
    client.tell(frame(FrameType::Reply, result, headerOf(sent).messageId));
    EXPECT_THAT(call.error(), HasSubstr(text));
    const auto failing = callAdd(client, sent);
    client.tell(frame(FrameType::Error, result + "\xa1\xa1\xa1", headerOf(sent).messageId));
    EXPECT_THAT(failing.error(), HasSubstr("cannot be read"));
    EXPECT_TRUE(client.connection->isOpen());
  }
  EXPECT_EQ(*runs, 0);
}

TEST_F(ConnectionState, AnswersCallsOfAnythingAndTellsNoAddresses) {
  MemoryPeer peer = makePeer(Role::Server);
  open(peer);
  constexpr unsigned last = 0xffffffff;
  std::uint64_t id = 0;
  for (const unsigned service : {0u, 2u, notebookId, 0x80000000u, last})
    for (const unsigned object : {0u, 1u, last})
      for (unsigned member = 0; member < 110; ++member) {
        const std::string answer =
            peer.ask(frame(FrameType::Call, "\x90", ++id, member, service, object));
        ASSERT_EQ(headerOf(answer).messageId, id);
        const bool isThere =
            object == 0 && ((service == notebookId && (member == 2 || member == 7)) ||
                            (member == 9 && (service == notebookId || service == 0)));
        ASSERT_EQ(headerOf(answer).type == FrameType::Reply, isThere) << service << ' ' << member;
        ASSERT_THAT(errorText(answer), testing::Not(HasSubstr("0x")));
      }
  EXPECT_EQ(*runs, 0);
}

}  // namespace
}  // namespace gv

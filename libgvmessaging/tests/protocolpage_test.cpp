// docs/protocol.md is held to its word: what it shows in hex is what is written and read.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <limits>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gvtype/dynamicobjectbuilder.h>
#include <gvtype/genericfunctionparameters.h>
#include <gvtype/struct.h>

#include "memorypeer.h"
#include "src/directory/directoryobject.h"
#include "src/directory/directorytable.h"
#include "src/rpc/remoteobject.h"
#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"
#include "support/watchdog.h"

namespace gv {
namespace {

struct Key {
  bool on = false;
  std::int8_t code = 0;
};
GV_STRUCT(Key, on, code)

/// The lines of a section, those of its subsections included.
std::vector<std::string> linesOf(const std::string& section) {
  std::ifstream page(GVMESSAGING_PROTOCOL_PAGE);
  std::vector<std::string> lines;
  bool isInside = false;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with("## ")) isInside = line == "## " + section;
    if (isInside) lines.push_back(line);
  }
  EXPECT_FALSE(lines.empty()) << section;
  return lines;
}

/// The bytes that a text begins with, each two upper-case hexadecimal digits.
std::string bytesOf(const std::string& text) {
  std::istringstream words(text);
  std::string bytes;
  for (std::string word; words >> word;) {
    if (word.size() != 2 || word.find_first_not_of("0123456789ABCDEF") != std::string::npos) break;
    bytes += static_cast<char>(std::stoi(word, nullptr, 16));
  }
  return bytes;
}

/// The rows of the table under a headline, cells without blanks and backticks at their ends.
std::vector<std::vector<std::string>> tableOf(const std::string& section,
                                              const std::string& headline) {
  const auto lines = linesOf(section);
  std::vector<std::vector<std::string>> rows;
  auto line = std::find(lines.begin(), lines.end(), headline);
  for (std::advance(line, line == lines.end() ? 0 : 2);
       line != lines.end() && line->starts_with("|"); ++line) {
    std::istringstream cells(line->substr(1));
    auto& row = rows.emplace_back();
    for (std::string cell; std::getline(cells, cell, '|');) {
      const auto begin = cell.find_first_not_of(" `");
      if (begin == std::string::npos) continue;
      row.push_back(cell.substr(begin, cell.find_last_not_of(" `") + 1 - begin));
    }
  }
  EXPECT_FALSE(rows.empty()) << headline;
  return rows;
}

/// The blocks of bytes in a section, in order.
std::vector<std::string> blocksOf(const std::string& section) {
  std::vector<std::string> blocks;
  bool isInside = false;
  for (const std::string& line : linesOf(section)) {
    if (line.starts_with("```")) {
      isInside = !isInside;
      if (isInside) blocks.emplace_back();
    } else if (isInside) {
      blocks.back() += bytesOf(line);
    }
  }
  return blocks;
}

std::string text(const std::vector<char>& bytes) {
  return {bytes.begin(), bytes.end()};
}

TEST(ProtocolPage, ShowsHowEachKindOfValueIsWrittenAndRead) {
  using Optional = std::optional<std::optional<int>>;
  std::map<std::string, AnyValue> values = {
      {"true", AnyValue::from(true)},
      {"the smallest int8", AnyValue::from(std::numeric_limits<std::int8_t>::min())},
      {"200", AnyValue::from(std::uint8_t{200})},
      {"-1000", AnyValue::from(std::int16_t{-1000})},
      {"1000", AnyValue::from(1000)},
      {"the smallest int64", AnyValue::from(std::numeric_limits<std::int64_t>::min())},
      {"the largest uint64", AnyValue::from(std::numeric_limits<std::uint64_t>::max())},
      {"0.5 in 4 bytes", AnyValue::from(0.5f)},
      {"2.0", AnyValue::from(2.0)},
      {"negative zero", AnyValue::from(-0.0)},
      {"infinity", AnyValue::from(std::numeric_limits<double>::infinity())},
      {"\"hi\" and a byte that is not UTF-8", AnyValue::from("hi\xff")},
      {"the raw bytes 0 and 255", AnyValue::from(Buffer("\0\xff", 2))},
      {"a list of true and false", AnyValue::from(std::vector<bool>{true, false})},
      {"{\"a\": [1, 2]}", AnyValue::from(std::map<std::string, std::vector<int>>{{"a", {1, 2}}})},
      {"a list of nothing and 7", AnyValue::from(std::vector<std::optional<int>>{std::nullopt, 7})},
      {"an optional within an optional, empty", AnyValue::from(Optional(std::optional<int>()))},
      {"a struct of true and -1", AnyValue::from(Key{true, -1})},
      {"an empty dynamic", AnyValue()},
      {"a dynamic 5", AnyValue::from(5)},
      {"a dynamic list of \"a\" and nothing",
       AnyValue::from(std::vector<AnyValue>{AnyValue::from("a"), AnyValue()})},
      {"the arguments 2 and -3", AnyValue::from(std::tuple<int, int>(2, -3))}};
  for (const auto& row : tableOf("Values", "| value | signature | bytes |")) {
    const std::string& signature = row.at(1);
    const std::string bytes = bytesOf(row.at(2));
    SCOPED_TRACE(row.at(0));
    std::vector<char> written;
    if (signature == "V") {
      wire::writeValue(written, AnyReference::ofVoid(), signature);
      wire::readValue(bytes, AnyReference::ofVoid(), wire::Limits());
    } else if (signature == "(s*)") {
      wire::writeArguments(written, makeParameters(std::string("hi"), 1.5), signature);
      std::string first;
      std::vector<AnyValue> tail;
      wire::readArguments(bytes, {AnyReference::from(first)}, &tail, wire::Limits());
      EXPECT_EQ(std::tuple(first, tail.at(0)), std::tuple("hi", AnyValue::from(1.5)));
    } else {
      const auto value = values.extract(row.at(0));
      ASSERT_TRUE(value);
      wire::writeValue(written, value.mapped().asReference(), signature);
      const AnyValue read = AnyValue::makeDefault(signature);
      wire::readValue(bytes, read.asReference(), wire::Limits());
      std::vector<char> again;
      wire::writeValue(again, read.asReference(), signature);
      EXPECT_EQ(text(again), bytes);
      if (signature == "v")
        EXPECT_EQ(read.to<AnyValue>(), value.mapped());
      else
        EXPECT_EQ(read, value.mapped());
    }
    EXPECT_EQ(text(written), bytes);
  }
  EXPECT_TRUE(values.empty()) << values.begin()->first << " is not on the page";
}

TEST(ProtocolPage, ShowsWhereEachFieldOfAHeaderStands) {
  const std::string bytes = blocksOf("Framing").at(0);
  wire::FrameHeader expected;
  expected.type = wire::FrameType::Call;
  expected.callType = wire::CallType::Queued;
  expected.payloadSize = 0x00030201;
  expected.service = 0x11121314;
  expected.object = 0x21222324;
  expected.member = 0x81828384;
  expected.messageId = 0x8102030405060708;
  expected.parentCall = 0xf1f2f3f4f5f6f7f8;
  expected.deadlineMs = 30'000;
  for (std::size_t i = 0; i < 16; ++i) expected.traceId[i] = static_cast<std::uint8_t>(0xe0 + i);
  EXPECT_EQ(headerOf(bytes), expected);
  std::array<char, wire::frameHeaderSize> encoded;
  encoded.fill('\x55');
  wire::encodeHeader(expected, encoded);
  EXPECT_EQ(std::string(encoded.data(), encoded.size()), bytes);
}

/// The conversation of the page, by its frames.
struct Conversation {
  const std::vector<std::string> frames = blocksOf("A conversation");
  const std::string& hello = frames.at(0);
  const std::string& welcome = frames.at(1);
  const std::string& add = frames.at(2);
  const std::string& sum = frames.at(3);
  const std::string& fail = frames.at(4);
  const std::string& failure = frames.at(5);
  const std::string& note = frames.at(6);

  static rpc::Greeting greetingOf(const std::string& frame) {
    return rpc::decodeGreeting(std::span(frame).subspan(wire::frameHeaderSize), wire::Limits());
  }
};

TEST(ProtocolPage, ShowsTheProofsOfAKey) {
  const Conversation page;
  const auto payloadOf = [](const std::string& frame) {
    return std::span(frame).subspan(wire::frameHeaderSize);
  };
  std::string challenge;
  for (char byte = 0; byte < 32; ++byte) challenge += byte;
  const auto ring = rpc::KeyRing::parse("correct horse battery staple");
  const auto rows = tableOf("Handshake", "| proof | bytes |");
  ASSERT_EQ(rows.size(), 2u);
  const rpc::Proof proofs[] = {
      ring->prove(rpc::clientStatement(payloadOf(page.hello), challenge)),
      ring->prove(rpc::serverStatement(payloadOf(page.hello), challenge, payloadOf(page.welcome)))};
  for (std::size_t i = 0; i < 2; ++i)
    EXPECT_EQ(bytesOf(rows[i].at(1)), std::string(proofs[i].begin(), proofs[i].end()));
}

/// The server's object of the conversation.
Object<Empty> makeNotebook(const Promise<std::string>& noted) {
  DynamicObjectBuilder builder;
  builder.advertiseMethod("add", [](int a, int b) { return a + b; });
  builder.advertiseMethod(
      "fail", [](const std::string& what) { throw std::runtime_error("out of " + what); });
  builder.advertiseMethod("note", [noted](const std::string& words, const AnyArguments& more) {
    Promise<std::string>(noted).setValue(words + std::to_string(more.args.at(0).to<double>()));
  });
  return builder.object();
}

TEST(ProtocolPage, ShowsAConversationThatTheServerHolds) {
  const house::Watchdog watchdog("a conversation", std::chrono::seconds(60));
  const Conversation page;
  ASSERT_EQ(page.frames.size(), 7u);
  Promise<std::string> noted;
  MemoryPeer client(rpc::Role::Server, Conversation::greetingOf(page.welcome),
                    {{7, makeNotebook(noted)}});
  EXPECT_EQ(client.ask(page.hello), page.welcome);
  EXPECT_EQ(client.ask(page.add), page.sum);
  EXPECT_EQ(client.ask(page.fail), page.failure);
  client.tell(page.note);
  EXPECT_EQ(noted.future().value(), "hi1.500000");
}

/// The frame with another's message id and trace id, which the caller chooses.
std::string withIdsOf(const std::string& chosen, std::string frame) {
  return frame.replace(24, 8, chosen, 24, 8).replace(48, 16, chosen, 48, 16);
}

TEST(ProtocolPage, ShowsAConversationThatTheClientHolds) {
  const house::Watchdog watchdog("a conversation", std::chrono::seconds(60));
  const Conversation page;
  MemoryPeer server(rpc::Role::Client, Conversation::greetingOf(page.hello), {});
  EXPECT_EQ(server.hear(), page.hello);
  server.tell(page.welcome);
  ASSERT_TRUE(server.connection->isOpen());
  const MetaObject methods = makeNotebook(Promise<std::string>()).metaObject();
  const auto call = [&](unsigned member, const GenericFunctionParameters& arguments, auto type) {
    return server.connection->call(7, *methods.method(member), arguments, type);
  };
  const auto sum = call(100, makeParameters(2, 3), MetaCallType::Auto);
  const std::string add = server.hear();
  EXPECT_EQ(withIdsOf(page.add, add), page.add);
  server.tell(page.sum.substr(0, 24) + add.substr(24, 8) + page.sum.substr(32));
  EXPECT_EQ(sum.value().to<int>(), 5);

  const auto failure = call(101, makeParameters(std::string("ink")), MetaCallType::Queued);
  const std::string fail = server.hear();
  EXPECT_EQ(withIdsOf(page.fail, fail), page.fail);
  server.tell(page.failure.substr(0, 24) + fail.substr(24, 8) + page.failure.substr(32));
  EXPECT_EQ(failure.error(), "out of ink");

  server.connection->post(7, *methods.method(102), makeParameters(std::string("hi"), 1.5));
  EXPECT_EQ(withIdsOf(page.note, server.hear()), page.note);
}

/// The signature of the figures of something, as its table on the page has it.
std::string figuresSignature(const std::string& of) {
  const std::map<std::string, std::string> structs = {{"EventLoopFigures", "of the event loop"},
                                                      {"ConnectionFigures", "of a connection"},
                                                      {"CallFigures", "of a call or post"},
                                                      {"Figures", "of a session"}};
  const std::string name = of.substr(of.find_last_of(' ') + 1);
  const auto found = structs.find(name);
  if (found == structs.end()) return of;
  std::string types, fields = "<" + name;
  for (const auto& row :
       tableOf("Figures", "| field | type | " + found->second + ", `" + name + "` |")) {
    types += figuresSignature(row.at(1));
    fields += "," + row.at(0);
  }
  return (of.starts_with("a list of ") ? "a(" : "(") + types + ")" + fields + ">";
}

TEST(ProtocolPage, NamesEachOfTheFigures) {
  std::string signature;
  appendSignature(signature, getType<Figures>());
  EXPECT_EQ(figuresSignature("Figures"), signature);
}

TEST(ProtocolPage, ListsTheMembersOfTheDirectoryAndOfEveryObject) {
  const Object<Empty> directory = directory::makeDirectoryObject(
      std::make_shared<directory::DirectoryTable>(directory::Registrant()), {});
  std::map<std::string, unsigned> own;
  for (const auto& [id, method] : directory.metaObject().methodMap()) own[method.toString()] = id;
  for (const auto& row : tableOf("Calls", "| member | name | signature | result |")) {
    const auto method = own.extract(row.at(1) + row.at(2));
    ASSERT_TRUE(method) << row.at(1);
    EXPECT_EQ(std::to_string(method.mapped()), row.at(0)) << row.at(1);
  }
  for (const auto& [id, signal] : directory.metaObject().signalMap()) own[signal.toString()] = id;
  for (const char* headline : {"| method | what it does |", "| signal | when it is emitted |"})
    for (const auto& row : tableOf("The service directory", headline))
      EXPECT_TRUE(own.extract(row.at(0))) << row.at(0);
  EXPECT_TRUE(own.empty()) << own.begin()->first << " is not on the page";
}

}  // namespace
}  // namespace gv

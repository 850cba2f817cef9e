#include "src/wire/frame.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include "src/wire/framereader.h"
#include "src/wire/limits.h"
#include "src/wire/message.h"

namespace gv::wire {
namespace {

using HeaderBytes = std::array<char, frameHeaderSize>;

FrameHeader sampleHeader() {
  FrameHeader header;
  header.type = FrameType::Call;
  header.callType = CallType::Queued;
  header.payloadSize = 0x00030201;
  header.service = 0x11121314;
  header.object = 0x21222324;
  header.member = 0x81828384;
  header.messageId = 0x8102030405060708;
  header.parentCall = 0xf1f2f3f4f5f6f7f8;
  header.deadlineMs = 0x00007530;
  for (std::size_t i = 0; i < 16; ++i) header.traceId[i] = static_cast<std::uint8_t>(0xe0 + i);
  return header;
}

HeaderBytes sample() {
  HeaderBytes bytes;
  encodeHeader(sampleHeader(), bytes);
  return bytes;
}

std::string refusal(const HeaderBytes& bytes) {
  FrameHeader header;
  return decodeHeader(bytes, header).value_or("accepted");
}

std::vector<char> frameBytes(FrameHeader header, const std::string& payload) {
  header.payloadSize = static_cast<std::uint32_t>(payload.size());
  std::vector<char> bytes(frameHeaderSize);
  encodeHeader(header, std::span(bytes).first<frameHeaderSize>());
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

// Two frames with and one without payload, in one piece.
std::vector<char> conversation() {
  std::vector<char> bytes;
  for (const std::string& payload : {std::string("first"), std::string(), std::string(300, 'x')}) {
    FrameHeader header = sampleHeader();
    header.messageId = payload.size();
    const auto frame = frameBytes(header, payload);
    bytes.insert(bytes.end(), frame.begin(), frame.end());
  }
  return bytes;
}

/// Gives the reader some bytes as a stream does, and takes the frames that are complete. False when
/// they were refused.
template <class F>
bool feed(FrameReader& reader, std::span<const char> bytes, const F& onFrame) {
  Frame frame;
  while (reader.error().empty() && !bytes.empty()) {
    const std::span<char> space = reader.space();
    const std::size_t count = std::min(space.size(), bytes.size());
    std::copy_n(bytes.begin(), count, space.begin());
    reader.fill(count);
    bytes = bytes.subspan(count);
    while (reader.next(frame)) onFrame(frame);
  }
  return reader.error().empty();
}

class Collector {
 public:
  bool feed(std::span<const char> bytes) {
    return wire::feed(reader, bytes, [this](const Frame& frame) {
      payloads.emplace_back(frame.payload.begin(), frame.payload.end());
      EXPECT_EQ(frame.header.messageId, frame.payload.size());
    });
  }

  FrameReader reader{1000};
  std::vector<std::string> payloads;
};

const std::vector<std::string> conversationPayloads = {"first", "", std::string(300, 'x')};

// Every value of each byte that has a fixed meaning: only the known ones pass.
TEST(FrameHeader, RefusesWhatItDoesNotKnow) {
  for (const std::size_t at : {0, 1, 2, 3, 4, 5, 6, 7, 44, 45, 46, 47}) {
    int accepted = 0;
    for (int value = 0; value < 256; ++value) {
      HeaderBytes bytes = sample();
      bytes[at] = static_cast<char>(value);
      accepted += refusal(bytes) == "accepted";
    }
    // The sample is a queued call: of the types, only Call and Post have a call type.
    EXPECT_EQ(at == 4 ? 2 : at == 5 ? 3 : 1, accepted) << "byte " << at;
  }
}

TEST(FrameHeader, SaysWhatItRefuses) {
  const struct {
    std::size_t at;
    unsigned char value;
    const char* text;
  } rows[] = {{3, 9, "unsupported framing version 9, expected 1"},
              {4, 8, "unknown frame type 8"},
              {5, 0x82, "unknown frame flags 130"}};
  for (const auto& row : rows) {
    HeaderBytes bytes = sample();
    bytes[row.at] = static_cast<char>(row.value);
    EXPECT_EQ(row.text, refusal(bytes));
  }
}

TEST(FrameReader, YieldsTheSameFramesForEverySplitInTwo) {
  const auto bytes = conversation();
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    Collector collector;
    ASSERT_TRUE(collector.feed(std::span(bytes).first(cut)));
    ASSERT_TRUE(collector.feed(std::span(bytes).subspan(cut)));
    ASSERT_EQ(conversationPayloads, collector.payloads) << "cut at " << cut;
  }
}

TEST(FrameReader, RefusesALyingSizeBeforeItAllocates) {
  for (const std::uint32_t size : {1001u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
    FrameHeader header = sampleHeader();
    header.payloadSize = size;
    HeaderBytes bytes;
    encodeHeader(header, bytes);
    Collector collector;
    EXPECT_FALSE(collector.feed(bytes));
    EXPECT_EQ("frame payload of " + std::to_string(size) + " bytes is over the limit of 1000",
              collector.reader.error());
    EXPECT_EQ(0u, collector.reader.storage());
  }
}

TEST(FrameReader, HoldsLittleMoreThanWhatArrived) {
  const Limits limits;
  FrameHeader header = sampleHeader();
  header.payloadSize = limits.payload;
  HeaderBytes bytes;
  encodeHeader(header, bytes);
  Collector collector;
  collector.reader.setLimit(limits.payload);
  ASSERT_TRUE(collector.feed(bytes));
  EXPECT_GE(256u, collector.reader.storage());
  const std::vector<char> piece(100'000);
  for (std::size_t arrived = piece.size(); arrived < 5'000'000; arrived += piece.size()) {
    ASSERT_TRUE(collector.feed(piece));
    ASSERT_GE(collector.reader.storage(), arrived);
    ASSERT_LE(collector.reader.storage(), 2 * arrived + 131072);
  }
}

TEST(FrameReader, RefusesForeignProtocolsAtTheFirstWrongByte) {
  struct Case {
    std::string start;
    std::size_t accepted;  // bytes that still could have begun a frame
  };
  for (const auto& [start, accepted] : {Case{"GET / HTTP/1.1\r\n", 1}, Case{"\x16\x03\x01", 0},
                                        Case{"GV\n", 2}, Case{"GVM\x02", 3}}) {
    Collector collector;
    const std::span<const char> bytes(start);
    EXPECT_TRUE(collector.feed(bytes.first(accepted))) << start;
    EXPECT_FALSE(collector.feed(bytes.subspan(accepted, 1))) << start;
    EXPECT_NE("", collector.reader.error());
  }
}

TEST(FrameReader, AppliesAChangedLimitToTheNextFrameOfTheSameBytes) {
  const auto bytes = conversation();
  FrameReader reader(5);  // exactly the first payload; 300 is exactly the last
  int frames = 0;
  const bool fed = feed(reader, bytes, [&](const Frame&) {
    if (++frames == 1) reader.setLimit(300);
  });
  EXPECT_TRUE(fed) << reader.error();
  EXPECT_EQ(3, frames);
}

TEST(FrameReader, CanBeStoppedByItsHandler) {
  const auto bytes = conversation();
  FrameReader reader(1000);
  int frames = 0;
  EXPECT_FALSE(feed(reader, bytes, [&](const Frame&) {
    ++frames;
    reader.stop("not now");
  }));
  EXPECT_EQ(1, frames);
  EXPECT_EQ("not now", reader.error());
  Frame after;
  EXPECT_FALSE(reader.next(after));
  EXPECT_EQ("not now", reader.error());
}

/// Of static duration: it goes after the main thread's own objects.
struct SendsLate {
  ~SendsLate() {
    if (threadSpare<Output::Bytes>()) std::_Exit(3);
    Message late;
    late.finish({});
  }
};

TEST(TheMainThread, SendsAtExitWithoutWhatItHadKept) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto end = [] {
    static const SendsLate late;
    { const Message first; }
    std::exit(0);
  };
  EXPECT_EXIT(end(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace gv::wire

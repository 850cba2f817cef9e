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

/// A queued call: of the types, only Call and Post have a call type.
FrameHeader sampleHeader(std::uint32_t payloadSize = 0) {
  FrameHeader header;
  header.type = FrameType::Call;
  header.callType = CallType::Queued;
  header.payloadSize = payloadSize;
  return header;
}

HeaderBytes sample(std::uint32_t payloadSize = 0) {
  HeaderBytes bytes;
  encodeHeader(sampleHeader(payloadSize), bytes);
  return bytes;
}

std::string refusal(const HeaderBytes& bytes) {
  FrameHeader header;
  return decodeHeader(bytes, header).value_or("accepted");
}

/// Two frames with and one without payload, in one piece.
std::vector<char> conversation() {
  std::vector<char> bytes;
  for (const std::uint32_t size : {5u, 0u, 300u}) {
    const HeaderBytes header = sample(size);
    bytes.insert(bytes.end(), header.begin(), header.end());
    bytes.resize(bytes.size() + size, 'x');
  }
  return bytes;
}

/// Gives the reader some bytes as a stream does, and takes the frames that are complete. False when
/// they were refused.
template <class F = void (*)(const Frame&)>
bool feed(
    FrameReader& reader, std::span<const char> bytes, const F& onFrame = [](const Frame&) {}) {
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

// Every value of each byte that has a fixed meaning: only the known ones pass.
TEST(FrameHeader, RefusesWhatItDoesNotKnow) {
  for (const std::size_t at : {0, 1, 2, 3, 4, 5, 6, 7, 44, 45, 46, 47}) {
    int accepted = 0;
    for (int value = 0; value < 256; ++value) {
      HeaderBytes bytes = sample();
      bytes[at] = static_cast<char>(value);
      accepted += refusal(bytes) == "accepted";
    }
    EXPECT_EQ(at == 4 ? 2 : at == 5 ? 3 : 1, accepted) << "byte " << at;
  }
}

TEST(FrameHeader, SaysWhatItRefuses) {
  const struct {
    std::size_t at;
    unsigned char value;
    const char* text;
  } rows[] = {{3, 9, "unsupported framing version 9, expected 1"},
              {4, 10, "unknown frame type 10"},
              {5, 0x82, "unknown frame flags 130"}};
  for (const auto& row : rows) {
    HeaderBytes bytes = sample();
    bytes[row.at] = static_cast<char>(row.value);
    EXPECT_EQ(row.text, refusal(bytes));
  }
}

TEST(FrameReader, RefusesALyingSizeBeforeItAllocates) {
  for (const std::uint32_t size : {1001u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
    FrameReader reader(1000);
    EXPECT_FALSE(feed(reader, sample(size)));
    EXPECT_EQ("frame payload of " + std::to_string(size) + " bytes is over the limit of 1000",
              reader.error());
    EXPECT_EQ(0u, reader.storage());
  }
}

TEST(FrameReader, HoldsLittleMoreThanWhatArrived) {
  const Limits limits;
  FrameReader reader(limits.payload);
  ASSERT_TRUE(feed(reader, sample(limits.payload)));
  EXPECT_GE(256u, reader.storage());
  const std::vector<char> piece(100'000);
  for (std::size_t arrived = piece.size(); arrived < 5'000'000; arrived += piece.size()) {
    ASSERT_TRUE(feed(reader, piece));
    ASSERT_GE(reader.storage(), arrived);
    ASSERT_LE(reader.storage(), 2 * arrived + 131072);
  }
}

TEST(FrameReader, TakesLargeAndSmallPayloadsHoweverTheyArrive) {
  std::vector<char> sent;
  std::vector<char> payloads;
  std::vector<std::size_t> sizes{200'000, 40'000, 0, 5, 32'768, 32'769, 65'536, 1};
  for (const std::size_t size : sizes) {
    const HeaderBytes header = sample(static_cast<std::uint32_t>(size));
    sent.insert(sent.end(), header.begin(), header.end());
    for (std::size_t i = 0; i < size; ++i)
      payloads.push_back(static_cast<char>(payloads.size() % 251));
    sent.insert(sent.end(), payloads.end() - static_cast<std::ptrdiff_t>(size), payloads.end());
  }
  for (const std::size_t piece :
       {std::size_t{63}, std::size_t{4'097}, std::size_t{40'000}, sent.size()}) {
    FrameReader reader(Limits().payload);
    std::vector<std::size_t> takenSizes;
    std::vector<char> taken;
    for (std::span<const char> rest(sent); !rest.empty();) {
      const auto now = rest.first(std::min(piece, rest.size()));
      rest = rest.subspan(now.size());
      ASSERT_TRUE(feed(reader, now, [&](const Frame& frame) {
        takenSizes.push_back(frame.payload.size());
        taken.insert(taken.end(), frame.bytes().begin(), frame.bytes().end());
      }));
    }
    EXPECT_EQ(takenSizes, sizes) << piece;
    EXPECT_TRUE(taken == payloads) << piece;
  }
}

TEST(FrameReader, RefusesForeignProtocolsAtTheFirstWrongByte) {
  struct Case {
    std::string start;
    std::size_t accepted;  // bytes that still could have begun a frame
  };
  for (const auto& [start, accepted] : {Case{"GET / HTTP/1.1\r\n", 1}, Case{"\x16\x03\x01", 0},
                                        Case{"GV\n", 2}, Case{"GVM\x02", 3}}) {
    FrameReader reader(1000);
    const std::span<const char> bytes(start);
    EXPECT_TRUE(feed(reader, bytes.first(accepted))) << start;
    EXPECT_FALSE(feed(reader, bytes.subspan(accepted, 1))) << start;
    EXPECT_NE("", reader.error());
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

// However bytes are split on their way, the same frames come out of them, or the same error.

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "law.h"
#include "src/wire/framereader.h"

namespace {

using gv::wire::Frame;
using gv::wire::FrameReader;

constexpr std::uint32_t payloadLimit = 4096;

struct Outcome {
  std::vector<Frame> frames;
  std::string error;
};

/// Feeds pieces of the sizes that `sizes` gives, over and over; without any, all at once.
Outcome read(std::span<const char> bytes, std::span<const std::uint8_t> sizes) {
  FrameReader reader(payloadLimit);
  Outcome outcome;
  std::size_t taken = 0;
  for (std::size_t round = 0; taken < bytes.size(); ++round) {
    const std::size_t wanted = sizes.empty() ? bytes.size() : sizes[round % sizes.size()] % 70 + 1;
    const auto piece = bytes.subspan(taken, std::min(wanted, bytes.size() - taken));
    taken += piece.size();
    for (auto rest = piece; !rest.empty() && reader.error().empty();) {
      const std::span<char> space = reader.space();
      const std::size_t count = std::min(space.size(), rest.size());
      std::copy_n(rest.begin(), count, space.begin());
      reader.fill(count);
      rest = rest.subspan(count);
      for (Frame frame; reader.next(frame);) outcome.frames.push_back(std::move(frame));
    }
    fuzz::require(reader.storage() <= 2 * taken + (128u << 10), "storage follows what arrived");
  }
  outcome.error = reader.error();
  return outcome;
}

void requireSame(const Outcome& a, const Outcome& b) {
  fuzz::require(a.error == b.error, "the same error for every split");
  fuzz::require(a.frames.size() == b.frames.size(), "the same number of frames for every split");
  for (std::size_t i = 0; i < a.frames.size(); ++i) {
    fuzz::require(a.frames[i].header == b.frames[i].header, "the same header for every split");
    fuzz::require(std::ranges::equal(a.frames[i].bytes(), b.frames[i].bytes()),
                  "the same payload for every split");
    fuzz::require(a.frames[i].payload.size() <= payloadLimit, "no payload over the limit");
  }
}

/// What was accepted is what it is written as.
void requireFixedPoint(std::span<const char> bytes, const Outcome& outcome) {
  std::size_t at = 0;
  for (const Frame& frame : outcome.frames) {
    std::array<char, gv::wire::frameHeaderSize> header;
    gv::wire::encodeHeader(frame.header, header);
    fuzz::require(std::equal(header.begin(), header.end(), bytes.begin() + at),
                  "a header is written as it was read");
    at += header.size() + frame.payload.size();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 4) return 0;
  const std::span<const std::uint8_t> sizes(data, 4);
  const std::span<const char> bytes(reinterpret_cast<const char*>(data + 4), size - 4);
  const Outcome whole = read(bytes, {});
  requireSame(whole, read(bytes, sizes));
  requireFixedPoint(bytes, whole);
  return 0;
}

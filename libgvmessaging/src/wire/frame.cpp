#include "src/wire/frame.h"

#include <algorithm>
#include <concepts>

namespace gv::wire {
namespace {

// Where each field begins; docs/protocol.md has the same table.
constexpr std::size_t typeAt = 4;
constexpr std::size_t flagsAt = 5;
constexpr std::size_t reserved6At = 6;
constexpr std::size_t payloadSizeAt = 8;
constexpr std::size_t serviceAt = 12;
constexpr std::size_t objectAt = 16;
constexpr std::size_t memberAt = 20;
constexpr std::size_t messageIdAt = 24;
constexpr std::size_t parentCallAt = 32;
constexpr std::size_t deadlineAt = 40;
constexpr std::size_t reserved44At = 44;
constexpr std::size_t traceIdAt = 48;

constexpr std::uint8_t callTypeBits = 0x3;

using In = std::span<const char, frameHeaderSize>;
using Out = std::span<char, frameHeaderSize>;

template <std::unsigned_integral T>
void put(Out out, std::size_t at, T value) {
  for (std::size_t i = 0; i < sizeof(T); ++i)
    out[at + i] = static_cast<char>(static_cast<std::uint8_t>(value >> (8 * i)));
}

template <std::unsigned_integral T>
T take(In in, std::size_t at) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i)
    value =
        static_cast<T>(value | static_cast<T>(static_cast<std::uint8_t>(in[at + i])) << (8 * i));
  return value;
}

std::optional<std::string> checkFixed(In in) {
  if (auto error = refuseStart(in)) return error;
  const auto type = take<std::uint8_t>(in, typeAt);
  if (type < static_cast<std::uint8_t>(FrameType::Hello) ||
      type > static_cast<std::uint8_t>(FrameType::Proof))
    return "unknown frame type " + std::to_string(type);
  const auto flags = take<std::uint8_t>(in, flagsAt);
  if ((flags & ~callTypeBits) != 0 || flags > static_cast<std::uint8_t>(CallType::Queued))
    return "unknown frame flags " + std::to_string(flags);
  const bool asks = type == static_cast<std::uint8_t>(FrameType::Call) ||
                    type == static_cast<std::uint8_t>(FrameType::Post);
  if (flags != 0 && !asks) return "flags in a frame that is no call";
  if (take<std::uint16_t>(in, reserved6At) != 0 || take<std::uint32_t>(in, reserved44At) != 0)
    return "reserved bytes of the frame header are not 0";
  return {};
}

}  // namespace

void encodeHeader(const FrameHeader& header, Out out) {
  std::fill(out.begin(), out.end(), '\0');
  std::copy(frameMagic.begin(), frameMagic.end(), out.begin());
  put(out, typeAt, static_cast<std::uint8_t>(header.type));
  put(out, flagsAt, static_cast<std::uint8_t>(header.callType));
  put(out, payloadSizeAt, header.payloadSize);
  put(out, serviceAt, header.service);
  put(out, objectAt, header.object);
  put(out, memberAt, header.member);
  put(out, messageIdAt, header.messageId);
  put(out, parentCallAt, header.parentCall);
  put(out, deadlineAt, header.deadlineMs);
  for (std::size_t i = 0; i < header.traceId.size(); ++i)
    put(out, traceIdAt + i, header.traceId[i]);
}

std::optional<std::string> refuseStart(std::span<const char> start) {
  constexpr std::size_t versionAt = frameMagic.size() - 1;
  const std::size_t letters = std::min(start.size(), versionAt);
  if (!std::equal(start.begin(), start.begin() + letters, frameMagic.begin()))
    return "not a frame of this protocol";
  if (start.size() > versionAt && start[versionAt] != frameMagic[versionAt])
    return "unsupported framing version " +
           std::to_string(static_cast<std::uint8_t>(start[versionAt])) + ", expected " +
           std::to_string(frameMagic[versionAt]);
  return {};
}

std::optional<std::string> decodeHeader(In in, FrameHeader& header) {
  if (auto error = checkFixed(in)) return error;
  header.type = static_cast<FrameType>(take<std::uint8_t>(in, typeAt));
  header.callType = static_cast<CallType>(take<std::uint8_t>(in, flagsAt));
  header.payloadSize = take<std::uint32_t>(in, payloadSizeAt);
  header.service = take<std::uint32_t>(in, serviceAt);
  header.object = take<std::uint32_t>(in, objectAt);
  header.member = take<std::uint32_t>(in, memberAt);
  header.messageId = take<std::uint64_t>(in, messageIdAt);
  header.parentCall = take<std::uint64_t>(in, parentCallAt);
  header.deadlineMs = take<std::uint32_t>(in, deadlineAt);
  for (std::size_t i = 0; i < header.traceId.size(); ++i)
    header.traceId[i] = take<std::uint8_t>(in, traceIdAt + i);
  return {};
}

}  // namespace gv::wire

#pragma once

#include <time.h>

#include <array>
#include <chrono>
#include <cstdint>

#include "src/rpc/objectaddress.h"
#include "src/wire/frame.h"

namespace gv::rpc {

/// Steady milliseconds, some behind the time: for a fraction of the price of a steady_clock, as
/// every call reads it.
inline std::int64_t coarseMilliseconds() {
#ifdef CLOCK_MONOTONIC_COARSE
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
#else
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
#endif
}

/// What is known of a call or post while it is under way. A value.
struct CallRecord {
  CallRecord() = default;
  /// Of one that begins now. Of a call that this side makes, `parentOver` is the connection over
  /// which the parent came.
  explicit CallRecord(const wire::FrameHeader& header, std::uint64_t parentOver = 0)
      : address(header.service, header.object),
        member(header.member),
        isPost(header.type == wire::FrameType::Post),
        message(header.messageId),
        parent(header.parentCall),
        parentConnection(parentOver),
        trace(header.traceId),
        begin(coarseMilliseconds()) {}

  ObjectAddress address;
  std::uint32_t member = 0;
  bool isServed = false;
  bool isPost = false;
  std::uint64_t message = 0;
  std::uint64_t parent = 0;
  std::uint64_t parentConnection = 0;
  std::array<std::uint8_t, 16> trace{};
  std::int64_t begin = 0;
};

}  // namespace gv::rpc

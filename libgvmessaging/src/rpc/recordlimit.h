#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include <gvmessaging/api.h>

namespace gv::rpc {

/// How often a record is written that others can cause at will: one of each kind in a second.
/// Decides only: it has no clock and no lock. Of more kinds at a time than it has places for, those
/// that find none share one.
class GVMESSAGING_API RecordLimit {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::seconds interval{1};
  static constexpr std::size_t mostKinds = 256;

  /// Whether a record of this kind is to be written now. If so: how many were left out before it.
  std::optional<std::uint64_t> admit(const std::string& kind, Time now);

 private:
  struct Entry {
    std::optional<Time> written;
    std::uint64_t leftOut = 0;
  };

  Entry& entryOf(const std::string& kind, Time now);
  void forgetQuiet(Time now);

  std::unordered_map<std::string, Entry> kinds_;
  Entry shared_;  // of the kinds without a place, and those forgotten
};

}  // namespace gv::rpc

#include "src/rpc/pendingcalls.h"

#include <utility>

namespace gv::rpc {

std::uint64_t PendingCalls::add(PendingCall call) {
  if (free_.empty()) {
    places_.emplace_back();
    free_.push_back(static_cast<std::uint32_t>(places_.size() - 1));
  }
  const std::uint32_t index = free_.back();
  free_.pop_back();
  Place& place = places_[index];
  place.call = std::move(call);
  ++place.uses;
  return std::uint64_t{place.uses} << 32 | (std::uint64_t{index} + 1);
}

std::optional<PendingCall> PendingCalls::take(std::uint64_t id) {
  const std::uint64_t index = (id & 0xffffffff) - 1;
  if (index >= places_.size()) return std::nullopt;
  Place& place = places_[index];
  if (!place.call || place.uses != id >> 32) return std::nullopt;
  free_.push_back(static_cast<std::uint32_t>(index));
  return std::exchange(place.call, std::nullopt);
}

std::vector<PendingCall> PendingCalls::takeAll() {
  std::vector<PendingCall> calls;
  for (Place& place : places_)
    if (place.call) calls.push_back(std::move(*place.call));
  places_.clear();
  free_.clear();
  return calls;
}

}  // namespace gv::rpc

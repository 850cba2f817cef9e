#include "src/rpc/pendingcalls.h"

#include <utility>

namespace gv::rpc {

std::uint64_t PendingCalls::add(PendingCall call, const CallRecord& record) {
  if (free_.empty()) {
    places_.push_back({{}, {}, firstUse_});
    free_.push_back(static_cast<std::uint32_t>(places_.size() - 1));
  }
  const std::uint32_t index = free_.back();
  free_.pop_back();
  Place& place = places_[index];
  place.call = std::move(call);
  place.record = record;
  ++place.uses;
  return idOf(index);
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

void PendingCalls::list(std::vector<CallRecord>& calls) const {
  for (std::size_t index = 0; index < places_.size(); ++index)
    if (places_[index].call) calls.emplace_back(places_[index].record).message = idOf(index);
}

}  // namespace gv::rpc

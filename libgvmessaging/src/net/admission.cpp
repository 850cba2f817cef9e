#include "src/net/admission.h"

#include <algorithm>
#include <utility>

namespace gv::net {

Admission::Admission(const wire::Limits& limits, std::size_t descriptors) : limits_(limits) {
  const auto share = static_cast<unsigned>(std::clamp<std::size_t>(descriptors / 4, 4, 1u << 16));
  limits_.unfinishedHandshakes = std::min(limits.unfinishedHandshakes, share / 2);
  limits_.unfinishedPerAddress =
      std::min(limits.unfinishedPerAddress, std::max(1u, limits_.unfinishedHandshakes / 2));
  limits_.parkedConnections =
      std::min(limits.parkedConnections, share - limits_.unfinishedHandshakes);
}

Admission::Decision Admission::arrived(Id id, const std::string& address, Time now) {
  Decision decision;
  parked_.push_back({id, address, now});
  placeParked(now, decision);
  while (parked_.size() > limits_.parkedConnections) dropOldestParked(decision);
  return decision;
}

Admission::Decision Admission::outOfDescriptors(Time now) {
  Decision decision;
  if (!parked_.empty())
    dropOldestParked(decision);
  else if (!unfinished_.empty() && now - unfinished_.front().since >= limits_.makeRoomAfter / 4)
    drop(unfinished_.begin(), decision);
  return decision;
}

void Admission::dropOldestParked(Decision& decision) {
  decision.close.push_back(parked_.front().id);
  parked_.pop_front();
}

Admission::Decision Admission::finished(Id id, Time now) {
  const auto isIt = [id](const Entry& entry) { return entry.id == id; };
  std::erase_if(parked_, isIt);
  const auto entry = std::find_if(unfinished_.begin(), unfinished_.end(), isIt);
  if (entry != unfinished_.end()) leave(entry);
  return timePassed(now);
}

Admission::Decision Admission::timePassed(Time now) {
  Decision decision;
  placeParked(now, decision);
  return decision;
}

// Never in the past when asked after a decision: who could have gone by then has gone.
std::optional<Admission::Time> Admission::nextLook() const {
  std::optional<Time> next;
  const std::string* seen = nullptr;  // a flood comes from few addresses: each is asked for once
  for (const Entry& waiting : parked_) {
    if (seen && *seen == waiting.address) continue;
    seen = &waiting.address;
    const auto oldest = oldestInTheWayOf(waiting.address);
    if (oldest == unfinished_.end()) continue;
    const Time time = oldest->since + patience();
    next = next ? std::min(*next, time) : time;
  }
  return next;
}

std::chrono::milliseconds Admission::patience() const {
  return parked_.size() < limits_.parkedConnections ? limits_.makeRoomAfter
                                                    : limits_.makeRoomAfter / 4;
}

// Newest first. One whose address has no place does not keep those of other addresses waiting.
void Admission::placeParked(Time now, Decision& decision) {
  std::string refused;  // as in nextLook()
  for (std::size_t i = parked_.size(); i-- > 0;) {
    const auto parked = parked_.begin() + static_cast<std::ptrdiff_t>(i);
    if (parked->address == refused) continue;
    if (!hasPlace(parked->address) && !makeRoom(parked->address, now, decision)) {
      refused = parked->address;
      continue;
    }
    Entry entry = std::move(*parked);
    parked_.erase(parked);
    begin(std::move(entry), now, decision);
  }
}

// Whose place one from `address` could take: of its own address where that has its share.
Admission::Entries::const_iterator Admission::oldestInTheWayOf(const std::string& address) const {
  const auto count = perAddress_.find(address);
  const bool ownOnly = count != perAddress_.end() && count->second >= limits_.unfinishedPerAddress;
  return std::find_if(unfinished_.begin(), unfinished_.end(),
                      [&](const Entry& entry) { return !ownOnly || entry.address == address; });
}

bool Admission::makeRoom(const std::string& address, Time now, Decision& decision) {
  const auto oldest = oldestInTheWayOf(address);
  if (oldest == unfinished_.end() || now - oldest->since < patience()) return false;
  drop(oldest, decision);
  return true;
}

void Admission::drop(Entries::const_iterator unfinished, Decision& decision) {
  decision.close.push_back(unfinished->id);
  leave(unfinished);
}

bool Admission::hasPlace(const std::string& address) const {
  const auto count = perAddress_.find(address);
  return unfinished_.size() < limits_.unfinishedHandshakes &&
         (count == perAddress_.end() || count->second < limits_.unfinishedPerAddress);
}

void Admission::begin(Entry entry, Time now, Decision& decision) {
  entry.since = now;
  ++perAddress_[entry.address];
  decision.start.push_back(entry.id);
  unfinished_.push_back(std::move(entry));
}

void Admission::leave(Entries::const_iterator entry) {
  const auto count = perAddress_.find(entry->address);
  if (--count->second == 0) perAddress_.erase(count);
  unfinished_.erase(entry);
}

}  // namespace gv::net

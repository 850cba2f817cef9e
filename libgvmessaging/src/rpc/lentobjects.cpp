#include "src/rpc/lentobjects.h"

#include <stdexcept>
#include <string>

namespace gv::rpc {

unsigned LentObjects::lend(const Object<Empty>& object) {
  const std::lock_guard lock(mutex_);
  if (isEnded_) throw std::runtime_error("the connection has ended");
  const auto known = numbers_.find(object.share().get());
  if (known != numbers_.end()) {
    lent_.at(known->second).count += 1;
    return known->second;
  }
  if (lent_.size() >= limit_)
    throw std::runtime_error("more than " + std::to_string(limit_) +
                             " objects would be lent to one peer");
  const unsigned number = newNumberLocked();
  lent_.emplace(number, Lent{object, 1});
  numbers_.emplace(object.share().get(), number);
  return number;
}

/// Numbers rise, so that one is not used again before four thousand million others were.
unsigned LentObjects::newNumberLocked() {
  do ++lastNumber_;
  while (lastNumber_ == 0 || lent_.contains(lastNumber_));
  return lastNumber_;
}

bool LentObjects::takeBack(unsigned number, std::uint64_t count, Object<Empty>& last) {
  const std::lock_guard lock(mutex_);
  const auto found = lent_.find(number);
  if (found == lent_.end() || found->second.count < count) return false;
  found->second.count -= count;
  if (found->second.count > 0) return true;
  last = std::move(found->second.object);
  numbers_.erase(last.share().get());
  lent_.erase(found);
  return true;
}

Object<Empty> LentObjects::find(unsigned number) const {
  const std::lock_guard lock(mutex_);
  const auto found = lent_.find(number);
  return found == lent_.end() ? Object<Empty>() : found->second.object;
}

std::vector<Object<Empty>> LentObjects::end() {
  std::vector<Object<Empty>> objects;
  const std::lock_guard lock(mutex_);
  isEnded_ = true;
  for (auto& [number, lent] : lent_) objects.push_back(std::move(lent.object));
  lent_.clear();
  numbers_.clear();
  return objects;
}

}  // namespace gv::rpc

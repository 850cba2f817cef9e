#include "src/net/readysocket.h"

#include <algorithm>

namespace gv::net {

std::uint64_t ReadySockets::add(const std::weak_ptr<ReadySocket>& socket) {
  const std::lock_guard lock(mutex_);
  sockets_.emplace(++lastKey_, socket);
  return lastKey_;
}

void ReadySockets::remove(std::uint64_t key) {
  const std::lock_guard lock(mutex_);
  sockets_.erase(key);
}

std::shared_ptr<ReadySocket> ReadySockets::find(std::uint64_t key) const {
  const std::lock_guard lock(mutex_);
  const auto found = sockets_.find(key);
  return found == sockets_.end() ? nullptr : found->second.lock();
}

bool ReadySockets::lend(std::uint64_t key) {
  const std::lock_guard lock(mutex_);
  const bool isFirst = lent_.empty();
  lendLocked(key);
  return isFirst;
}

// Once: sockets are lent and taken back far more often than they are looked at.
void ReadySockets::lendLocked(std::uint64_t key) {
  if (std::find(lent_.begin(), lent_.end(), key) == lent_.end()) lent_.push_back(key);
  areLent_ = true;
}

void ReadySockets::lookAfterLent() {
  std::vector<std::uint64_t> lent;
  {
    const std::lock_guard lock(mutex_);
    lent.swap(lent_);
    areLent_ = false;
  }
  std::erase_if(lent, [this](std::uint64_t key) {
    const auto socket = find(key);
    return !socket || !socket->isStillLent();
  });
  const std::lock_guard lock(mutex_);
  for (const std::uint64_t key : lent) lendLocked(key);
}

}  // namespace gv::net

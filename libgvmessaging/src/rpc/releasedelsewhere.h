#pragma once

#include <memory>
#include <optional>
#include <utility>

#include <gv/eventloop.h>

#include "src/net/reactor.h"
#include "src/net/readers.h"

namespace gv::rpc {

/// True in the network's thread, and in one that reads for others while it waits.
inline bool isUserCodeBanned() {
  return net::Reactor::isThisThread() || net::Readers::Borrowing::isActive();
}

/// Holds something of the user's for code that runs in the network's thread, or in one that reads
/// while it waits: when it goes there, what it holds is destroyed on the event loop instead; where
/// the thread is a reader, that may be handed over meanwhile. A destructor is foreign code.
template <class T>
class ReleasedElsewhere {
 public:
  explicit ReleasedElsewhere(T&& value) : value_(std::move(value)) {}
  ~ReleasedElsewhere() {
    const net::Readers::ForeignCode destructor;
    if (isUserCodeBanned()) hand();
    value_.reset();
  }
  ReleasedElsewhere(const ReleasedElsewhere&) = delete;
  ReleasedElsewhere& operator=(const ReleasedElsewhere&) = delete;

  T& value() { return *value_; }

 private:
  void hand() {
    try {
      auto kept = std::make_shared<T>(std::move(*value_));
      getEventLoop()->post([kept = std::move(kept)]() mutable { kept.reset(); });
    } catch (const std::exception&) {
      // In a forked child nobody else is left to do it.
    }
  }

  std::optional<T> value_;
};

template <class T>
std::shared_ptr<T> releasedElsewhere(T value) {
  const auto holder = std::make_shared<ReleasedElsewhere<T>>(std::move(value));
  return {holder, &holder->value()};
}
template <class T>
std::shared_ptr<T> releasedElsewhere(std::unique_ptr<T> value) {
  T* const held = value.get();
  return {std::make_shared<ReleasedElsewhere<std::unique_ptr<T>>>(std::move(value)), held};
}

}  // namespace gv::rpc

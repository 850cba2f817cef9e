#pragma once

#include <memory>
#include <utility>

#include <gv/eventloop.h>

#include "src/net/reactor.h"
#include "src/net/readers.h"

namespace gv::rpc {

/// Holds something of the user's for code that runs in the network's thread, or in one that reads
/// while it waits: when the last holder lets go there, it is destroyed on the event loop instead;
/// where the thread is a reader, that may be handed over meanwhile. A destructor is foreign code.
template <class T>
std::shared_ptr<T> releasedElsewhere(std::unique_ptr<T> value) {
  return std::shared_ptr<T>(value.release(), [](T* held) {
    const net::Readers::ForeignCode destructor;
    std::unique_ptr<T> owner(held);
    if (!net::Reactor::isThisThread() && !net::Readers::Borrowing::isActive()) return;
    try {
      getEventLoop()->post(
          [shared = std::shared_ptr<T>(std::move(owner))]() mutable { shared.reset(); });
    } catch (const std::exception&) {
      // In a forked child nobody else is left to do it.
    }
  });
}
template <class T>
std::shared_ptr<T> releasedElsewhere(T value) {
  return releasedElsewhere(std::make_unique<T>(std::move(value)));
}

}  // namespace gv::rpc

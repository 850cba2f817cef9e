#pragma once

#include <memory>
#include <utility>

#include <gv/eventloop.h>

#include "src/net/reactor.h"

namespace gv::rpc {

/// Holds something of the user's for code that runs in the network's thread: when the last holder
/// lets go there, it is destroyed on the event loop instead. A destructor is foreign code.
template <class T>
std::shared_ptr<T> releasedElsewhere(T value) {
  return std::shared_ptr<T>(new T(std::move(value)), [](T* held) {
    std::unique_ptr<T> owner(held);
    if (!net::Reactor::isThisThread()) return;
    try {
      getEventLoop()->post(
          [shared = std::shared_ptr<T>(std::move(owner))]() mutable { shared.reset(); });
    } catch (const std::exception&) {
      // In a forked child nobody else is left to do it.
    }
  });
}

}  // namespace gv::rpc

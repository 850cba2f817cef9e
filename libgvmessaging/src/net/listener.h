#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <gvmessaging/api.h>

#include "src/net/stream.h"
#include "src/wire/limits.h"

namespace gv::net {

/// A listening port. Accepts from listen() to close(); keeps nothing alive beyond its own handlers.
///
/// Accepting takes a fraction of one processor at most, however many come; the others wait in the
/// system's queue. Where no descriptor is left for a newcomer, an older one makes room, or it is
/// accepted with a spare descriptor and closed at once. Where there is no memory either, accepting
/// is tried again every 100 ms.
class GVMESSAGING_API Listener {
 public:
  /// Gets each new connection, not yet started, in the network's thread. Dropping it closes it.
  using AcceptHandler = std::function<void(std::shared_ptr<Stream>)>;

  /// Called there when no descriptor is left: drops a connection, if there is one to be dropped.
  using MakeRoom = std::function<bool()>;

  /// Listens on @p host (a name or address; resolving a name may block) and @p port, 0 for any free
  /// one. Throws std::runtime_error that names host, port and cause.
  static std::shared_ptr<Listener> listen(const std::string& host, std::uint16_t port,
                                          AcceptHandler onAccepted, const wire::Limits& limits = {},
                                          MakeRoom makeRoom = {});

  virtual ~Listener() = default;

  /// The port, as bound.
  virtual std::uint16_t boundPort() const = 0;

  /// The numeric address, as bound.
  virtual const std::string& boundAddress() const = 0;

  /// Stops listening, from any thread; the port is free when it returns. The handler may still be
  /// running, or get one connection that was accepted before, and is let go then. Repeated calls do
  /// nothing; dropping the listener does the same.
  virtual void close() = 0;
};

}  // namespace gv::net

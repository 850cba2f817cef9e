#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <gvmessaging/api.h>

#include "src/net/stream.h"
#include "src/wire/limits.h"

namespace gv::net {

/// How an attempt to connect ended: with a stream, not yet started, or with why there is none.
struct ConnectResult {
  std::shared_ptr<Stream> stream;
  std::string error;  ///< Names host, port and cause; empty with a stream.
};

/// One attempt to connect to one address, from connect() to its result. Dropping the handle does
/// not end it.
class GVMESSAGING_API Connector {
 public:
  /// Gets the result, exactly once, in the network's thread, never from within connect().
  using ResultHandler = std::function<void(ConnectResult)>;

  /// Connects to @p host, a numeric address, within @p bound. Never blocks.
  static std::shared_ptr<Connector> connect(const std::string& host, std::uint16_t port,
                                            std::chrono::milliseconds bound, ResultHandler onResult,
                                            const wire::Limits& limits = {});

  virtual ~Connector() = default;

  /// Ends the attempt, from any thread: the result is an error, unless it was settled before.
  virtual void cancel() = 0;
};

}  // namespace gv::net

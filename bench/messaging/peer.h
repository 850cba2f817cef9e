#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include <gvtype/buffer.h>

namespace bench {

/// One connection to a server, as the workloads use it. Of one thread.
class Peer {
 public:
  static constexpr std::size_t listSize = 100;
  static constexpr int callsInFlight = 64;

  virtual ~Peer() = default;

  virtual int add(int a, int b) = 0;

  /// The size of what came back.
  virtual std::size_t echo(const gv::Buffer& bytes) = 0;

  /// Has a list of `listSize` values of three types sent back; how many came. Each side builds the
  /// values from the bytes, and the bytes from the values.
  virtual std::size_t list() = 0;

  /// Sums per second, with `callsInFlight` calls under way at every moment.
  virtual double addInFlight(std::chrono::duration<double> time) = 0;
};

/// A way to serve and to call.
struct Kind {
  const char* name;
  /// Serves on a free port of 127.0.0.1 until the process is ended; calls announce() when ready.
  void (*serve)(void (*announce)(const std::string& address));
  std::unique_ptr<Peer> (*connect)(const std::string& address);
};

/// The framework's public interface: sessions and objects.
extern const Kind gvKind;

/// What the sockets of the system give: blocking calls, a thread of the server for each connection.
extern const Kind rawKind;

}  // namespace bench

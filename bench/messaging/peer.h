#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace bench {

/// One connection to a server, as the workloads use it.
class Peer {
 public:
  using Seconds = std::chrono::duration<double>;

  static constexpr int listSize = 100;
  static constexpr int callsInFlight = 64;

  virtual ~Peer() = default;

  /// May be called from several threads where the peer isShareable().
  virtual int add(int a, int b) = 0;
  virtual bool isShareable() const { return true; }

  /// How many bytes come back of so many.
  virtual std::size_t echo(std::size_t size) = 0;

  /// Has a list of `listSize` values of three types sent back; how many came. Each side builds the
  /// values from the bytes, and the bytes from the values.
  virtual std::size_t list() = 0;

  /// Sums per second, with `callsInFlight` calls of one thread under way at every moment; 0 where
  /// the peer has no such calls.
  virtual double addInFlight(Seconds time) = 0;
  /// The same with calls that the server puts into its queue of tasks.
  virtual double addQueued(Seconds) { return 0; }
  /// The same sum with arguments and result of the peer's dynamic type; false without one.
  virtual bool addUntyped(int, int) { return false; }
};

/// A way to serve and to call.
struct Kind {
  const char* name;
  /// Serves on a port of 127.0.0.1, a free one for 0, until the process is ended; calls
  /// announce() when ready.
  void (*serve)(std::uint16_t port, void (*announce)(int port));
  std::unique_ptr<Peer> (*connect)(std::uint16_t port);
  /// Reports what calls and tasks within this process take; null where there are none.
  void (*reportInProcess)();
};

/// The robot's interface: brokers, modules and proxies.
extern const Kind jxKind;

/// The framework's public interface: sessions and objects.
extern const Kind gvKind;

/// What the sockets of the system give: blocking calls, a thread of the server for each connection.
extern const Kind rawKind;

}  // namespace bench

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gvmessaging/serviceinfo.h>

namespace gv::directory {

inline constexpr unsigned directoryServiceId = 1;
inline constexpr const char* directoryName = "ServiceDirectory";

/// Who registers services: a connection to the directory and what its handshake said. A value.
struct Registrant {
  std::uint64_t connectionId = 0;  ///< Never used again; 0: the session that has the directory.
  std::string machineId;
  unsigned processId = 0;
  std::string sessionId;
  std::string address;  ///< Numeric, where it came from; empty for the directory's own session.
};

/// One change of what others can see.
struct Notice {
  bool isAdded = false;  ///< Else removed.
  unsigned serviceId = 0;
  std::string name;
};

/// The table of a network's services. Every operation may be called from any thread; none blocks.
/// Errors are std::runtime_error with a text that names what was asked for.
///
/// An entry is reserved, then ready, then withdrawn, by the registrant that reserved it and nobody
/// else; others see it while it is ready. Ids rise and are never used again, 1 is the directory
/// itself.
class Directory {
 public:
  using Watcher = std::function<void(const Notice&)>;

  virtual ~Directory() = default;

  /// Reserves a name. Refused outside the grammar (isValidName), while the name is taken, and to a
  /// registrant that claims the session of another one.
  virtual unsigned reserve(const Registrant& who, const std::string& name) = 0;
  virtual void makeReady(const Registrant& who, unsigned id) = 0;
  virtual void withdraw(const Registrant& who, unsigned id) = 0;
  /// Replaces where all services of a registrant are reached. Those that it cannot have are left
  /// out.
  virtual void announce(const Registrant& who, const std::vector<std::string>& endpoints) = 0;
  /// Withdraws all that came over a connection. May come twice.
  virtual void connectionLost(std::uint64_t connectionId) = 0;

  /// A ready entry, with the endpoints of its registrant. An error where there is none.
  virtual ServiceInfo find(const std::string& name) const = 0;
  /// All ready entries, by rising id.
  virtual std::vector<ServiceInfo> list() const = 0;

  /// Tells of every change from now on, in the order of the changes, one at a time, on the event
  /// loop, and with no lock held. Whoever is told of an addition finds it.
  virtual void watch(Watcher watcher) = 0;
};

}  // namespace gv::directory

#pragma once

#include <array>
#include <cstdint>
#include <string>

#include <gvmessaging/api.h>

namespace gv::rpc {

class Connection;

/// Whose peer calls the service directory in this thread; null for this process's own session, and
/// while other methods run.
GVMESSAGING_API const Connection* directoryCaller();

/// Sets it while the scope lives.
class GVMESSAGING_API DirectoryCallerScope {
 public:
  explicit DirectoryCallerScope(const Connection* caller);
  ~DirectoryCallerScope();
  DirectoryCallerScope(const DirectoryCallerScope&) = delete;
  DirectoryCallerScope& operator=(const DirectoryCallerScope&) = delete;

 private:
  const Connection* const previous_;
};

/// The trace of the current call, or a fresh random one.
std::array<std::uint8_t, 16> traceIdForNewCall();
/// Where a row of ids begins, so that those of different rows, in whatever process, differ.
std::uint32_t randomIdStart();
/// An id for a new post or subscription, unique in this process.
std::uint64_t nextCallId();
/// A random id as 32 hexadecimal digits.
std::string randomHexId();

}  // namespace gv::rpc

#pragma once

#include <array>
#include <cstdint>
#include <string>

#include <gvmessaging/api.h>

namespace gv::rpc {

class Connection;

/// The call that the calling thread is serving; all zero outside of one. Calls made meanwhile carry
/// it on as their parent.
struct CallContext {
  /// Whose peer calls the service directory; null for this process's own session, and while other
  /// methods run.
  const Connection* caller = nullptr;
  std::uint64_t callId = 0;
  std::array<std::uint8_t, 16> traceId{};

  GVMESSAGING_API static const CallContext& current();
};

/// Makes `context` the thread's current one while the scope lives.
class GVMESSAGING_API CallContextScope {
 public:
  explicit CallContextScope(const CallContext& context);
  ~CallContextScope();
  CallContextScope(const CallContextScope&) = delete;
  CallContextScope& operator=(const CallContextScope&) = delete;

 private:
  CallContext previous_;
};

/// The trace of the current call, or a fresh random one.
std::array<std::uint8_t, 16> traceIdForNewCall();
/// An id for a new call, unique in this process.
std::uint64_t nextCallId();
/// A random id as 32 hexadecimal digits.
std::string randomHexId();

}  // namespace gv::rpc

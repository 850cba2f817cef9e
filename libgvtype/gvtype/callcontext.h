#pragma once

#include <array>
#include <cstdint>

#include <gvtype/api.h>

namespace gv {

/// The call of another process that the calling thread is serving; all zero outside of one. Calls
/// made meanwhile carry it on as their parent. A body that is queued, or waits for its turn, takes
/// along that of the thread that called it. A record.
struct CallContext {
  std::uint64_t connection = 0;  ///< The number, in this process, of the one it came over.
  std::uint64_t call = 0;        ///< Its message id there.
  std::array<std::uint8_t, 16> trace{};

  GVTYPE_API static const CallContext& current();
};

/// Makes `context` the thread's current one while the scope lives.
class GVTYPE_API CallContextScope {
 public:
  explicit CallContextScope(const CallContext& context);
  ~CallContextScope();
  CallContextScope(const CallContextScope&) = delete;
  CallContextScope& operator=(const CallContextScope&) = delete;

 private:
  const CallContext previous_;
};

}  // namespace gv

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gvtype/metacall.h>

#include "src/rpc/callcontext.h"
#include "src/rpc/callrecord.h"

namespace gv::rpc {

/// A call that waits for its reply.
struct PendingCall {
  std::unique_ptr<ResultSink> sink;
  std::string returnSignature;
};

/// The calls of one connection that wait for their replies, by message id. An id is not used again
/// before 2^32 other calls had its place, and those of two connections differ, if not by a rare
/// chance. Guarded by its owner.
class PendingCalls {
 public:
  PendingCalls() : firstUse_(randomIdStart()) {}

  /// Returns the call's id, never 0, which `record` lacks.
  std::uint64_t add(PendingCall call, const CallRecord& record);
  std::optional<PendingCall> take(std::uint64_t id);
  std::vector<PendingCall> takeAll();
  void list(std::vector<CallRecord>& calls) const;

 private:
  struct Place {
    std::optional<PendingCall> call;
    CallRecord record;  // while there is a call
    std::uint32_t uses;
  };

  std::uint64_t idOf(std::size_t index) const {
    return std::uint64_t{places_[index].uses} << 32 | (index + 1);
  }

  const std::uint32_t firstUse_;
  std::vector<Place> places_;
  std::vector<std::uint32_t> free_;  // of places_
};

}  // namespace gv::rpc

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gvtype/metacall.h>

namespace gv::rpc {

/// A call that waits for its reply.
struct PendingCall {
  std::unique_ptr<ResultSink> sink;
  std::string returnSignature;
};

/// The calls of one connection that wait for their replies, by message id. An id is not used again
/// before 2^32 other calls had its place. Guarded by its owner.
class PendingCalls {
 public:
  /// Returns the call's id, never 0.
  std::uint64_t add(PendingCall call);
  std::optional<PendingCall> take(std::uint64_t id);
  std::vector<PendingCall> takeAll();

 private:
  struct Place {
    std::optional<PendingCall> call;
    std::uint32_t uses = 0;
  };

  std::vector<Place> places_;
  std::vector<std::uint32_t> free_;  // of places_
};

}  // namespace gv::rpc

#pragma once

#include <concepts>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <gvmessaging/api.h>
#include <gvtype/anyvalue.h>
#include <gvtype/functionref.h>

#include "src/wire/framereader.h"
#include "src/wire/limits.h"
#include "src/wire/objectpassage.h"

namespace gv::wire {

/// A payload that is not the value it should be: malformed, of another type, cut, followed by more
/// bytes, or beyond a limit. The text says which and where.
class GVMESSAGING_API PayloadError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~PayloadError() override;
};

/// Bytes to read values from. Raw bytes that are large and most of a frame's payload stay where
/// they arrived, if their type can share them.
struct Encoded {
  // NOLINTBEGIN: implicit, as what holds bytes is as good as they are
  template <std::convertible_to<std::span<const char>> Bytes>
  Encoded(const Bytes& of) : bytes(of) {}
  Encoded(const Frame& frame) : bytes(frame.bytes()), keeper(&frame.payload) {}
  // NOLINTEND

  std::span<const char> bytes;
  const Payload* keeper = nullptr;  // of all of them
};

/// Decodes a payload that is one value into `target`, an existing value of the expected type, in
/// one pass and without recursion. What it allocates is bounded by the limits and grows with the
/// bytes read, never with a count that they announce. Throws PayloadError; `target` is then a valid
/// value with unspecified content. Without `objects` no object is accepted; where `objects` throws
/// that is a PayloadError, too.
GVMESSAGING_API void readValue(const Encoded& payload, const AnyReference& target,
                               const Limits& limits, IncomingObjects* objects = nullptr);

/// Decodes the arguments of a call: one value for each target, and then, where `tail` is given,
/// dynamic values that are appended to it.
GVMESSAGING_API void readArguments(const Encoded& payload, const std::vector<AnyReference>& targets,
                                   std::vector<AnyValue>* tail, const Limits& limits,
                                   IncomingObjects* objects = nullptr);

/// Finds the objects in a payload of any type, in the order in which reading it receives them. Ends
/// early where the payload is malformed; may throw PayloadError then.
GVMESSAGING_API void forEachObject(std::span<const char> payload, const Limits& limits,
                                   FunctionRef<void(const PassedObject&)> visit);

}  // namespace gv::wire

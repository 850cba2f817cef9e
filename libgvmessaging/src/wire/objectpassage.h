#pragma once

#include <cstdint>
#include <tuple>

#include <gvtype/metaobjectdescription.h>
#include <gvtype/object.h>

namespace gv::wire {

/// What a payload says of an object in it: which one, as its owner numbers it, and, where it is the
/// sender's, what it offers.
struct PassedObject {
  bool isReceivers = false;   ///< It was lent by the receiver, and comes home.
  std::uint32_t service = 0;  ///< 0: an object that was lent.
  std::uint32_t number = 0;
  MetaObjectDescription description{};  ///< Of the sender's objects only.
};

/// The types of MessagePack's ext values for the two, and what their bytes hold.
inline constexpr std::int8_t sendersObjectCode = 1;
inline constexpr std::int8_t receiversObjectCode = 2;
using SendersObject = std::tuple<std::uint32_t, MetaObjectDescription>;  // number, description
using ReceiversObject = std::tuple<std::uint32_t, std::uint32_t>;        // service, number

/// Turns objects into what a payload says of them. May throw std::runtime_error.
class OutgoingObjects {
 public:
  virtual ~OutgoingObjects() = default;
  /// The object is not null.
  virtual PassedObject pass(const Object<Empty>& object) = 0;
};

/// The other way round.
class IncomingObjects {
 public:
  virtual ~IncomingObjects() = default;
  virtual Object<Empty> receive(const PassedObject& passed) = 0;
};

}  // namespace gv::wire

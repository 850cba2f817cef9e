#pragma once

namespace gv::rpc {

/// How the two ends of a connection name an object of one of them: by the number of a service, or,
/// with service 0, by the number under which it was lent.
struct ObjectAddress {
  ObjectAddress() = default;
  ObjectAddress(unsigned serviceId, unsigned lentNumber = 0)  // NOLINT: a service is an address
      : service(serviceId), object(lentNumber) {}

  unsigned service = 0;
  unsigned object = 0;
};

}  // namespace gv::rpc

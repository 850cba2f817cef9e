#pragma once

#include <cstdint>

namespace gv::net {

/// One descriptor of a set that can be used without blocking, or has failed: then it is ready for
/// whatever it was watched for.
struct Ready {
  std::uint64_t key;
  bool canRead;
  bool canWrite;
};

/// What a descriptor is watched for.
struct Interest {
  bool read = false;
  bool write = false;
  bool operator==(const Interest&) const = default;
};

}  // namespace gv::net

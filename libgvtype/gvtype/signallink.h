#pragma once

#include <cstdint>

namespace gv {

/// One connection of a handler to a signal, for disconnecting it. Unique in the process, never 0.
using SignalLink = std::uint64_t;

}  // namespace gv

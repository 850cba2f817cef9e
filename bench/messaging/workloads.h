#pragma once

#include <string>

#include "messaging/peer.h"

namespace bench {

/// Runs the workloads that `letters` names against the server at `address`, and writes each figure
/// as a line "kind workload metric value unit".
///
///   A  one call at a time: time of a call
///   B  64 calls in flight from one thread: calls per second
///   C  echoes of 1 KiB, 64 KiB and 1 MiB: calls per second
///   D  a list of 100 dynamic values there and back: calls per second
///   G  1 to 64 threads, each with a connection of its own: calls per second
///
/// `scale` shortens all of them; 1 is the usual length. Throws where an answer is wrong.
void runWorkloads(const Kind& kind, const std::string& address, const std::string& letters,
                  double scale);

/// Makes so many calls, one at a time, and nothing else.
void callOnly(const Kind& kind, const std::string& address, int calls);

}  // namespace bench

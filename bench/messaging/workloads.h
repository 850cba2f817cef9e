#pragma once

#include <cstdint>

#include <sys/types.h>

#include "messaging/peer.h"

namespace bench {

/// Runs the workloads that BENCH_ONLY of the environment names, or all, against the server on
/// `port`, the process `server`, and reports each figure.
///
///   A  one call at a time: time of a call, also with values of the peer's dynamic type
///   B  64 calls in flight from one thread, and 8 threads on one connection: calls per second
///   C  echoes of 1 KiB, 64 KiB and 1 MiB: calls per second
///   D  a list of 100 dynamic values there and back: calls per second
///   E  calls and tasks within this process
///   F  memory and threads of the idle server; memory of 1,000 connections of either side
///   G  1 to 64 threads, each with a connection of its own: calls per second
///
/// Throws where an answer is wrong.
void runWorkloads(const Kind& kind, std::uint16_t port, pid_t server);

/// Makes so many calls, one at a time, and nothing else.
void callOnly(const Kind& kind, std::uint16_t port, int calls);

}  // namespace bench

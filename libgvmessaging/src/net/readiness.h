#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <gvmessaging/api.h>

#include "src/net/ready.h"
#ifndef __linux__
#include "src/net/pollset.h"
#endif

namespace gv::net {

#ifdef __linux__

/// Waits for many descriptors at once, in the system's own way. Any thread may change it while
/// another one waits.
class GVMESSAGING_API ReadinessSet {
 public:
  /// Throws std::system_error.
  ReadinessSet();
  ~ReadinessSet();
  ReadinessSet(const ReadinessSet&) = delete;
  ReadinessSet& operator=(const ReadinessSet&) = delete;

  using Interest = net::Interest;

  /// Watches a descriptor for as long as it is ready, instead of what it was watched for before;
  /// without any interest not at all. False when the system refuses.
  bool watch(int descriptor, std::uint64_t key, Interest before, Interest now);

  /// Waits until one is ready, wake() is called or the time is over; -1 for no limit. Returns how
  /// many were put into `ready`.
  std::size_t wait(std::span<Ready> ready, int timeoutMs);
  /// Ends a wait, or the next one.
  void wake();

 private:
  const int set_;
  const int waker_;
};

#else

using ReadinessSet = PollSet;

#endif

}  // namespace gv::net

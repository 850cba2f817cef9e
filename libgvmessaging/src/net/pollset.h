#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <span>
#include <vector>

#include <gvmessaging/api.h>

#include "src/net/ready.h"

namespace gv::net {

/// A ReadinessSet of what every system has: poll(2). Each wait costs as much as there are
/// descriptors; it also ends when what is watched changes.
class GVMESSAGING_API PollSet {
 public:
  using Interest = net::Interest;

  /// Throws std::system_error.
  PollSet();
  ~PollSet();
  PollSet(const PollSet&) = delete;
  PollSet& operator=(const PollSet&) = delete;

  bool watch(int descriptor, std::uint64_t key, Interest before, Interest now);
  std::size_t wait(std::span<Ready> ready, int timeoutMs);
  void wake();

 private:
  struct Watched {
    std::uint64_t key;
    Interest interest;
  };

  int waker_[2];           // a pipe
  std::size_t first_ = 0;  // of the waiting thread: where to begin, so that all have their turn

  std::mutex mutex_;  // guards watched_
  std::map<int, Watched> watched_;
};

}  // namespace gv::net

#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <deque>
#include <span>
#include <vector>

#include "src/net/stream.h"

namespace gv::net {

/// Output that waits for the system to take it, in order. Guarded by its owner; bytes stay where
/// they are while others are pushed behind them.
class OutputQueue {
 public:
  bool empty() const { return chunks_.empty(); }
  std::size_t bytes() const { return bytes_; }

  using Chunk = std::vector<char>;  // never grows beyond the capacity it was made with

  /// A copy of @p pieces but for their first @p sent bytes.
  static Chunk copyOf(std::span<const Bytes> pieces, std::size_t sent = 0);

  /// Copies @p pieces behind all others: little, as the owner's mutex is held for that long.
  void push(std::span<const Bytes> pieces);
  void push(Chunk chunk);
  /// As push, but before all others, none of which was sent in part.
  void pushFront(Chunk chunk);

  /// Points @p buffers at the first chunks; returns how many were set.
  std::size_t gather(std::span<iovec> buffers);

  /// Forgets the first @p count bytes.
  void consume(std::size_t count);

  void clear();

 private:
  std::deque<Chunk> chunks_;  // none of them sent to its end
  std::size_t sent_ = 0;      // of the first one
  std::size_t bytes_ = 0;     // not sent yet, of all chunks
};

}  // namespace gv::net

#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <deque>
#include <span>
#include <vector>

namespace gv::net {

/// Output that waits for the system to take it, in order. Guarded by its owner; buffers stay where
/// they are while others are pushed behind them.
class OutputQueue {
 public:
  bool empty() const { return pieces_.empty(); }
  std::size_t bytes() const { return bytes_; }

  void push(std::span<const char> head, std::vector<char> body);

  /// Puts what is left of @p head and @p body after their first @p sent bytes before all others.
  void pushRest(std::span<const char> head, std::vector<char> body, std::size_t sent);

  /// Points @p buffers at the first pieces; returns how many were set.
  std::size_t gather(std::span<iovec> buffers);

  /// Forgets the first @p count bytes.
  void consume(std::size_t count);

  void clear();

 private:
  struct Piece {
    std::vector<char> bytes;
    std::size_t sent;
  };

  std::deque<Piece> pieces_;  // none of them sent to its end
  std::size_t bytes_ = 0;     // not sent yet, of all pieces
};

}  // namespace gv::net

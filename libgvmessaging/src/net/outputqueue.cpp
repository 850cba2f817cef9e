#include "src/net/outputqueue.h"

#include <algorithm>
#include <utility>

namespace gv::net {

void OutputQueue::push(std::span<const char> head, std::vector<char> body) {
  bytes_ += head.size() + body.size();
  if (!head.empty()) pieces_.push_back({{head.begin(), head.end()}, 0});
  if (!body.empty()) pieces_.push_back({std::move(body), 0});
}

void OutputQueue::pushRest(std::span<const char> head, std::vector<char> body, std::size_t sent) {
  const std::size_t sentOfHead = std::min(sent, head.size());
  const std::size_t sentOfBody = sent - sentOfHead;
  bytes_ += head.size() + body.size() - sent;
  if (sentOfBody < body.size()) pieces_.push_front({std::move(body), sentOfBody});
  if (sentOfHead < head.size()) pieces_.push_front({{head.begin(), head.end()}, sentOfHead});
}

std::size_t OutputQueue::gather(std::span<iovec> buffers) {
  const std::size_t count = std::min(buffers.size(), pieces_.size());
  for (std::size_t i = 0; i < count; ++i) {
    Piece& piece = pieces_[i];
    buffers[i] = {piece.bytes.data() + piece.sent, piece.bytes.size() - piece.sent};
  }
  return count;
}

void OutputQueue::consume(std::size_t count) {
  bytes_ -= count;
  while (count > 0) {
    Piece& first = pieces_.front();
    const std::size_t taken = std::min(count, first.bytes.size() - first.sent);
    first.sent += taken;
    count -= taken;
    if (first.sent == first.bytes.size()) pieces_.pop_front();
  }
}

void OutputQueue::clear() {
  pieces_.clear();
  bytes_ = 0;
}

}  // namespace gv::net

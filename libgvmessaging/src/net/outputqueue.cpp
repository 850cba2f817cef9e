#include "src/net/outputqueue.h"

#include <algorithm>
#include <utility>

namespace gv::net {
namespace {

// Room for some frames more than the one that made the chunk.
constexpr std::size_t chunkSize = 8u << 10;

std::size_t sizeOf(std::span<const Bytes> pieces) {
  std::size_t size = 0;
  for (const Bytes piece : pieces) size += piece.size();
  return size;
}

void append(std::vector<char>& chunk, std::span<const Bytes> pieces, std::size_t leaveOut) {
  for (const Bytes piece : pieces) {
    const std::size_t skipped = std::min(leaveOut, piece.size());
    leaveOut -= skipped;
    chunk.insert(chunk.end(), piece.begin() + static_cast<std::ptrdiff_t>(skipped), piece.end());
  }
}

}  // namespace

void OutputQueue::push(std::span<const Bytes> pieces, std::size_t sent) {
  const std::size_t size = sizeOf(pieces) - sent;
  if (size == 0) return;
  if (chunks_.empty() || chunks_.back().capacity() - chunks_.back().size() < size) {
    chunks_.emplace_back();
    chunks_.back().reserve(std::max(size, chunkSize));
  }
  append(chunks_.back(), pieces, sent);
  bytes_ += size;
}

void OutputQueue::pushFront(std::span<const Bytes> pieces, std::size_t sent) {
  const std::size_t size = sizeOf(pieces) - sent;
  if (size == 0) return;
  Chunk chunk;
  chunk.reserve(size);
  append(chunk, pieces, sent);
  chunks_.push_front(std::move(chunk));
  bytes_ += size;
}

std::size_t OutputQueue::gather(std::span<iovec> buffers) {
  const std::size_t count = std::min(buffers.size(), chunks_.size());
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t sent = i == 0 ? sent_ : 0;
    buffers[i] = {chunks_[i].data() + sent, chunks_[i].size() - sent};
  }
  return count;
}

void OutputQueue::consume(std::size_t count) {
  bytes_ -= count;
  sent_ += count;
  while (!chunks_.empty() && sent_ >= chunks_.front().size()) {
    sent_ -= chunks_.front().size();
    chunks_.pop_front();
  }
}

void OutputQueue::clear() {
  chunks_.clear();
  sent_ = 0;
  bytes_ = 0;
}

}  // namespace gv::net

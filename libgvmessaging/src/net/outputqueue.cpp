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

}  // namespace

OutputQueue::Chunk OutputQueue::copyOf(std::span<const Bytes> pieces, std::size_t sent) {
  Chunk chunk;
  chunk.reserve(sizeOf(pieces) - sent);
  for (const Bytes piece : pieces) {
    const std::size_t skipped = std::min(sent, piece.size());
    sent -= skipped;
    chunk.insert(chunk.end(), piece.begin() + static_cast<std::ptrdiff_t>(skipped), piece.end());
  }
  return chunk;
}

void OutputQueue::push(std::span<const Bytes> pieces) {
  const std::size_t size = sizeOf(pieces);
  if (size == 0) return;
  if (chunks_.empty() || chunks_.back().capacity() - chunks_.back().size() < size) {
    chunks_.emplace_back();
    chunks_.back().reserve(std::max(size, chunkSize));
  }
  Chunk& chunk = chunks_.back();
  for (const Bytes piece : pieces) chunk.insert(chunk.end(), piece.begin(), piece.end());
  bytes_ += size;
}

void OutputQueue::push(Chunk chunk) {
  if (chunk.empty()) return;
  bytes_ += chunk.size();
  chunks_.push_back(std::move(chunk));
}

void OutputQueue::pushFront(Chunk chunk) {
  if (chunk.empty()) return;
  bytes_ += chunk.size();
  chunks_.push_front(std::move(chunk));
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

// The writing side of a TCP stream.

#include <algorithm>
#include <array>
#include <utility>

#include "src/net/deadpeers.h"
#include "src/net/tcpstream.h"
#include "src/net/turn.h"

namespace gv::net {
namespace {

// Writes that a sender does for others before it leaves the rest to the readers.
constexpr int writeRounds = 4;
constexpr std::size_t gatheredPieces = 64;

// Output of one turn of reading that is worth a write of its own.
constexpr std::size_t putOffMost = 64u << 10;

// What is sent from where it is rather than copied to wait for the end of the turn.
constexpr std::size_t leastAtOnce = 16u << 10;

}  // namespace

// A large copy is made while the mutex is not held: the reader would wait for it.
bool TcpStream::send(std::span<const Bytes> pieces) {
  std::size_t size = 0;
  for (const Bytes& piece : pieces) size += piece.size();
  const bool isLarge = size >= leastAtOnce;
  OutputQueue::Chunk copy;
  Lock lock(mutex_);
  if (isLarge && state_ == State::Open && (writing_ || !output_.empty())) {
    lock.unlock();
    copy = OutputQueue::copyOf(pieces);
    lock.lock();
  }
  if (state_ != State::Open) return false;
  const bool mayPutOff = Turn::mayPutOff(this) && !isLarge;
  if (writing_ || !output_.empty() || mayPutOff) {
    isLarge ? output_.push(std::move(copy)) : output_.push(pieces);
    if (output_.bytes() > putOffMost || !mayPutOff) flushLocked(lock);
    chokeLocked();
    return true;
  }
  std::array<iovec, gatheredPieces> buffers;
  const std::size_t count = std::min(pieces.size(), buffers.size());
  for (std::size_t i = 0; i < count; ++i)
    buffers[i] = {const_cast<char*>(pieces[i].data()), pieces[i].size()};
  writing_ = true;
  direct_ = size;
  lock.unlock();
  const Transfer sent = sendSome(descriptor_, std::span(buffers).first(count));
  DeadPeers::onWritten();
  OutputQueue::Chunk rest;
  std::string failure;
  try {
    if (sent.bytes < size && !sent.error) rest = OutputQueue::copyOf(pieces, sent.bytes);
  } catch (const std::exception& error) {
    failure = error.what();
  }
  lock.lock();
  direct_ = 0;
  if (!failure.empty()) endLocked(failure);  // half a message must not be followed by another
  output_.pushFront(std::move(rest));
  writeRoundsLocked(lock, sent);
  chokeLocked();
  return failure.empty();
}

/// What was read already may ask for more.
void TcpStream::chokeLocked() {
  if (output_.bytes() > limits_.outputStop) hasLeft_ = true;
}

std::size_t TcpStream::pendingBytes() const {
  const Lock lock(mutex_);
  return output_.bytes() + direct_;
}

// The system says that there is room when there is much of it: a slow peer takes long until then.
std::chrono::milliseconds TcpStream::stalledFor() const {
  using std::chrono::milliseconds;
  const Lock lock(mutex_);
  if (!awaitsWritable_ || isFinished_) return {};
  const auto now = std::chrono::steady_clock::now();
  const std::size_t before = std::exchange(unacknowledged_, unacknowledgedBytes(descriptor_));
  if (before == 0 || unacknowledged_ < before) stalledAt_ = now;
  return std::chrono::duration_cast<milliseconds>(now - stalledAt_);
}

// Nobody else is about to write what waits.
void TcpStream::flushLocked(Lock& lock) {
  if (writing_ || awaitsWritable_ || output_.empty() || state_ == State::Closing) return;
  writing_ = true;
  writeRoundsLocked(lock, {});
}

// One system call for many frames. Only who has the writer's role consumes, so the chunks stay.
Transfer TcpStream::writeQueued(Lock& lock) {
  std::array<iovec, gatheredPieces> buffers;
  const std::size_t count = output_.gather(buffers);
  lock.unlock();
  const Transfer sent = sendSome(descriptor_, std::span(buffers).first(count));
  DeadPeers::onWritten();
  lock.lock();
  output_.consume(sent.bytes);
  return sent;
}

void TcpStream::writeRoundsLocked(Lock& lock, Transfer last) {
  for (int round = 0; round < writeRounds; ++round) {
    if (last.wouldBlock || last.error || output_.empty() || state_ == State::Closing) break;
    last = writeQueued(lock);
  }
  writing_ = false;
  afterWriteLocked(last);
}

void TcpStream::afterWriteLocked(const Transfer& last) {
  if (last.error && state_ != State::Closing) {
    readRest_ = state_ == State::Open;
    endLocked(lossText(last.error));
  }
  if (state_ == State::Closing) return finishIfFreeLocked();  // close() left it to the writer
  awaitsWritable_ = !output_.empty();
  if (awaitsWritable_) unacknowledged_ = 0;
  if (isPaused_ && !isResting_ && output_.bytes() <= limits_.outputSlow) {
    isPaused_ = false;
    pauseTimer_.reset();
  }
  watchLocked();
  shutdownIfFlushedLocked();
}

void TcpStream::onWritable() {
  Lock lock(mutex_);
  awaitsWritable_ = false;
  if (!output_.empty()) return flushLocked(lock);
  watchLocked();
}

}  // namespace gv::net

#include "src/net/memorystream.h"

#include <algorithm>
#include <array>
#include <mutex>

namespace gv::net {

/// What one side has done.
struct MemoryStream::End {
  enum class State { Open, Flushing, Closed };

  State state = State::Open;
  std::string cause;  // once it is not Open
  std::string sent;   // and not arrived on the other side
};

struct MemoryStream::Link {
  std::mutex mutex;  // guards what follows
  std::array<End, 2> ends;
};

MemoryStream::Pair MemoryStream::makePair() {
  const auto link = std::make_shared<Link>();
  return {std::shared_ptr<MemoryStream>(new MemoryStream(link, 0)),
          std::shared_ptr<MemoryStream>(new MemoryStream(link, 1))};
}

MemoryStream::~MemoryStream() {
  close("dropped");
}

MemoryStream::End& MemoryStream::own() const {
  return link_->ends[static_cast<std::size_t>(side_)];
}

MemoryStream::End& MemoryStream::other() const {
  return link_->ends[static_cast<std::size_t>(1 - side_)];
}

void MemoryStream::start(std::shared_ptr<StreamHandler> handler) {
  handler_ = std::move(handler);
}

std::size_t MemoryStream::step(std::size_t most) {
  const std::size_t count = handOver(most);
  std::string cause;
  {
    const std::lock_guard lock(link_->mutex);
    if (count > 0 || !handler_ || !endIsDueLocked(cause)) return count;
    own().state = End::State::Closed;
  }
  const auto handler = std::exchange(handler_, nullptr);
  handler->onClosed(cause);
  return 0;
}

std::size_t MemoryStream::handOver(std::size_t most) {
  std::size_t total = 0;
  while (total < most && handler_ && mayReceive()) {
    try {
      const std::size_t count = takeInto(handler_->inputSpace(), most - total);
      total += count;
      handler_->onInput(count);
    } catch (const std::exception& error) {
      close(error.what());
    }
  }
  return total;
}

bool MemoryStream::mayReceive() const {
  const std::lock_guard lock(link_->mutex);
  if (own().state == End::State::Flushing) other().sent.clear();
  return own().state == End::State::Open && !other().sent.empty();
}

std::size_t MemoryStream::takeInto(std::span<char> space, std::size_t most) {
  const std::lock_guard lock(link_->mutex);
  std::string& arriving = other().sent;
  const std::size_t count = std::min({most, space.size(), arriving.size()});
  std::copy_n(arriving.begin(), count, space.begin());
  arriving.erase(0, count);
  return count;
}

bool MemoryStream::endIsDueLocked(std::string& cause) const {
  using State = End::State;
  cause = own().cause;
  const bool isFlushed = own().sent.empty() || other().state == State::Closed;
  if (own().state == State::Closed || (own().state == State::Flushing && isFlushed)) return true;
  if (own().state != State::Open || other().state == State::Open || !other().sent.empty())
    return false;
  cause = "connection closed by peer";
  return true;
}

std::string MemoryStream::take() {
  const std::lock_guard lock(link_->mutex);
  return std::exchange(other().sent, {});
}

bool MemoryStream::hasEnded() const {
  const std::lock_guard lock(link_->mutex);
  return own().state == End::State::Closed ||
         (other().state != End::State::Open && other().sent.empty());
}

void MemoryStream::cut(const std::string& cause) {
  const std::lock_guard lock(link_->mutex);
  for (End& end : link_->ends) {
    if (end.state == End::State::Closed) continue;
    end = {End::State::Closed, cause, {}};
  }
}

bool MemoryStream::send(std::span<const Bytes> pieces) {
  const std::lock_guard lock(link_->mutex);
  if (own().state != End::State::Open) return false;
  if (other().state == End::State::Closed) return true;  // on its way to nobody
  for (const Bytes piece : pieces) own().sent.append(piece.begin(), piece.end());
  return true;
}

std::size_t MemoryStream::pendingBytes() const {
  const std::lock_guard lock(link_->mutex);
  return own().sent.size();
}

void MemoryStream::close(const std::string& cause) {
  const std::lock_guard lock(link_->mutex);
  if (own().state == End::State::Closed) return;
  own() = {End::State::Closed, own().state == End::State::Open ? cause : own().cause, {}};
}

void MemoryStream::closeAfterFlush(const std::string& cause, std::chrono::milliseconds) {
  const std::lock_guard lock(link_->mutex);
  if (own().state != End::State::Open) return;
  own().state = End::State::Flushing;
  own().cause = cause;
}

const std::string& MemoryStream::peerName() const {
  static const std::string name = "memory";
  return name;
}

const std::string& MemoryStream::peerAddress() const {
  static const std::string loopback = "127.0.0.1";
  return loopback;
}

const std::string& MemoryStream::localAddress() const {
  return peerAddress();
}

}  // namespace gv::net

// A TCP stream: reading, its life, its end. tcpstream_write.cpp has the writing.

#include "src/net/tcpstream.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <exception>
#include <utility>

#include <gv/detail/poll.h>

#include "src/net/deadpeers.h"
#include "src/net/reactor.h"
#include "src/net/turn.h"

namespace gv::net {
namespace {

using Clock = std::chrono::steady_clock;

// Reads of one connection before others have their turn.
constexpr int roundsInTurn = 4;

// While output waits beyond the limit, one buffer is read each time this has passed.
constexpr std::chrono::milliseconds slowReadPause{50};
// After a turn of a peer that has much under way.
constexpr std::chrono::milliseconds rest{1};

// After a failed write: more than the system holds for one connection.
constexpr int restRounds = 64;

// Callers that follow each other within this time are worth lending the socket to.
constexpr std::chrono::milliseconds steadyCalls{1};

asio::ip::address plainAddress(const Endpoint& endpoint) {
  const asio::ip::address address = endpoint.address();
  if (address.is_v6() && address.to_v6().is_v4_mapped())
    return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
  return address;
}

std::string localAddressOf(int descriptor) {
  Endpoint endpoint;
  socklen_t size = static_cast<socklen_t>(endpoint.capacity());
  if (::getsockname(descriptor, endpoint.data(), &size) != 0) return {};
  endpoint.resize(size);
  return endpointAddress(endpoint);
}

}  // namespace

std::string endpointAddress(const Endpoint& endpoint) {
  return plainAddress(endpoint).to_string();
}

std::string endpointName(const Endpoint& endpoint) {
  const asio::ip::address address = plainAddress(endpoint);
  const std::string text = address.to_string();
  return "tcp://" + (address.is_v6() ? "[" + text + "]" : text) + ":" +
         std::to_string(endpoint.port());
}

TcpStream::TcpStream(int descriptor, const Endpoint& peer, const wire::Limits& limits)
    : limits_(limits),
      peerName_(endpointName(peer)),
      peerAddress_(endpointAddress(peer)),
      localAddress_(localAddressOf(descriptor)),
      descriptor_(descriptor) {
  tuneConnection(descriptor_);
}

TcpStream::~TcpStream() {
  if (!isFinished_) releaseSocket();
}

void TcpStream::start(std::shared_ptr<StreamHandler> handler) {
  Reactor::post([self = shared_from_this()] { self->track(); });
  Lock lock(mutex_);
  isStarted_ = true;
  handler_ = std::move(handler);
  if (!isFinished_) {
    keptAlive_ = shared_from_this();
    DeadPeers::watch(descriptor_, weak_from_this());
    return watchLocked();
  }
  const auto ended = std::exchange(handler_, nullptr);
  lock.unlock();
  Reactor::post([ended, cause = cause_] { ended->onClosed(cause); });
}

void TcpStream::track() {
  {
    const Lock lock(mutex_);
    if (isFinished_) return;
  }
  Reactor::track(shared_from_this());
}

TcpStream::State TcpStream::state() const {
  const Lock lock(mutex_);
  return state_;
}

// ---- Reading

void TcpStream::watchLocked() {
  const bool reads = isStarted_ && state_ != State::Closing && !isPaused_ && !isLent_;
  if (reads) goOnLaterLocked();
  const ReadinessSet::Interest wanted{.read = reads, .write = awaitsWritable_};
  if (wanted == watched_ || isFinished_) return;  // the descriptor may be another's by now
  try {
    if (key_ == 0) key_ = Readers::enroll(weak_from_this());
  } catch (const std::exception& error) {  // no thread can be made, or no descriptor is left
    return endLocked(error.what());
  }
  if (!Readers::watch(descriptor_, key_, watched_, wanted))
    return endLocked("the system cannot watch the connection's socket");
  watched_ = wanted;
}

/// For what the handler has left no byte has to come.
void TcpStream::goOnLaterLocked() {
  if (!hasLeft_ || state_ != State::Open || reading_ != Reading::Nobody || key_ == 0) return;
  if (!std::exchange(isToGoOn_, true)) Readers::goOn(key_);
}

bool TcpStream::takeReadingLocked(Reading by) {
  if (state_ == State::Closing || reading_ != Reading::Nobody) return false;
  reading_ = by;
  return true;
}

void TcpStream::giveBackReading() {
  Lock lock(mutex_);
  flushLocked(lock);
  reading_ = Reading::Nobody;
  const bool isToRest = isToRest_.exchange(false, std::memory_order_relaxed);
  const bool isSlow = output_.bytes() > limits_.outputSlow;
  if (state_ == State::Open && (isSlow || isToRest) && !isPaused_) {
    pauseLocked(isSlow ? slowReadPause : rest);
    isResting_ = !isSlow;
  }
  watchLocked();
  finishIfFreeLocked();
}

/// Where it was paused or lent meanwhile, it is told again when it is watched again.
void TcpStream::onTurn() {
  {
    const Lock lock(mutex_);
    isToGoOn_ = false;
    if (isPaused_ || isLent_) return;
  }
  onReady(true, false);
}

void TcpStream::onReady(bool canRead, bool canWrite) {
  if (canWrite) onWritable();
  if (!canRead) return;
  Lock lock(mutex_);
  if (isToGoOn_ || !takeReadingLocked(Reading::Leader)) return;  // its turn is yet to come
  const int rounds = output_.bytes() > limits_.outputSlow ? 1 : roundsInTurn;
  lock.unlock();
  read(rounds);
}

void TcpStream::leaveRest() {
  hasLeft_ = true;
  giveBackReading();
}

void TcpStream::read(int rounds) {
  {
    const Turn turn(this);
    while (rounds-- > 0 && readOnce()) {
    }
    if (turn.isLost()) return;
  }
  giveBackReading();
}

// True when there may be more at once, and it is still this thread's turn.
bool TcpStream::readOnce() {
  const Transfer got = receive();
  if (Turn::isLost(this) || got.wouldBlock) return false;
  if (got.error || got.bytes == 0) {
    Lock lock(mutex_);
    if (!got.error) flushLocked(lock);  // what this turn put off: it may have closed its side only
    endLocked(got.error ? lossText(got.error) : "connection closed by peer");
    return false;
  }
  return got.isFull && !hasLeft_ && state() != State::Closing;
}

Transfer TcpStream::receive() {
  // Held: when this thread is replaced, the stream may let go of it before it has returned.
  const auto handler = handler_;
  if (!handler || state() != State::Open) {
    std::array<char, 16u << 10> unwanted;
    return receiveSome(descriptor_, unwanted);
  }
  Transfer got;
  if (hasLeft_ && hasLeft_.exchange(false)) {
    callHandler([&] { handler->onInput(0); });
    got.wouldBlock = hasLeft_ || Turn::isLost(this) || state() != State::Open;
    if (got.wouldBlock) return got;
  }
  callHandler([&] {
    got = receiveSome(descriptor_, handler->inputSpace());
    handler->onInput(got.bytes);
  });
  return got;
}

template <class F>
void TcpStream::callHandler(const F& call) {
  try {
    call();
  } catch (const std::exception& error) {
    close(std::string("handler failed: ") + error.what());
  } catch (...) {
    close("handler failed: unknown exception");
  }
}

bool TcpStream::hasLostTurn() const {
  return Turn::isLost(this);
}

bool TcpStream::isTurnOver() {
  if (!hasLeft_ && Turn::isOver(this)) hasLeft_ = true;
  return hasLeft_;
}

void TcpStream::pauseLocked(std::chrono::milliseconds time) {
  isPaused_ = true;
  isResting_ = false;
  const auto resume = [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    const Lock lock(self->mutex_);
    self->isPaused_ = false;
    if (self->state_ == State::Open && self->output_.bytes() > self->limits_.outputStop)
      self->pauseLocked(slowReadPause);
    self->watchLocked();
  };
  try {
    pauseTimer_ = Timer::start(time, resume);
  } catch (const std::exception&) {
    isPaused_ = false;  // the process exits
  }
}

// ---- Lending the socket to a caller that waits

void TcpStream::readWhile(const std::function<bool()>& isWanted) {
  Lock lock(mutex_);
  flushLocked(lock);
  const auto now = Clock::now();
  patience_.waited(now - std::exchange(lastBorrowed_, now));
  const auto longest = patience_.next();
  const bool isWorth = longest.count() > 0 && state_ == State::Open && isStarted_ && !isPaused_ &&
                       now >= unaskedUntil_;
  if (!isWorth || !detail::Pollers::enter()) return patience_.notPolled();
  const bool isTaken = takeReadingLocked(Reading::Caller);
  if (isTaken && !std::exchange(isLent_, true)) {
    watchLocked();
    Readers::lend(key_);
  }
  lock.unlock();
  const bool isOver = isTaken && borrow(isWanted, longest);
  detail::Pollers::leave();
  lock.lock();
  if (!isTaken) return patience_.notPolled();
  lastBorrowed_ = Clock::now();
  patience_.polled(isOver, lastBorrowed_ - now);
  if (!isOver || lastBorrowed_ < unaskedUntil_) isLent_ = false;
  lock.unlock();
  giveBackReading();
}

/// True when what was waited for has come.
bool TcpStream::borrow(const std::function<bool()>& isWanted, std::chrono::microseconds longest) {
  const Readers::Borrowing scope;
  const Turn none(nullptr);  // a call that waits here may have lost its turn of this very stream
  auto now = Clock::now();
  const auto end = now + longest;
  do {
    // First of all: what is waited for takes longer than this, and may want this very processor.
    detail::Pollers::giveWay(now);
    readOnce();
    if (!isWanted()) return true;
    now = Clock::now();  // that took its time, which was not given away
  } while (state() != State::Closing && now < end);
  return false;
}

void TcpStream::expectUnasked() {
  constexpr std::chrono::milliseconds forSome(100);
  const Lock lock(mutex_);
  unaskedUntil_ = Clock::now() + forSome;
}

bool TcpStream::isStillLent() {
  const Lock lock(mutex_);
  if (!isLent_) return false;
  if (reading_ == Reading::Caller || Clock::now() - lastBorrowed_ < steadyCalls) return true;
  isLent_ = false;
  watchLocked();
  return false;
}

// ---- The end

void TcpStream::close(const std::string& cause) {
  const Lock lock(mutex_);
  readRest_ = false;
  endLocked(cause);
}

// The first cause stays: the one that closeAfterFlush() gave, too.
void TcpStream::endLocked(const std::string& cause) {
  if (state_ == State::Closing) return;
  if (state_ == State::Open) cause_ = cause;
  state_ = State::Closing;
  finishIfFreeLocked();
}

void TcpStream::finishIfFreeLocked() {
  const bool isFree = !writing_ && reading_ == Reading::Nobody;
  if (state_ != State::Closing || !isFree || std::exchange(isFinishing_, true)) return;
  output_.clear();
  Reactor::postEnd([self = shared_from_this()] { self->finish(); });
}

void TcpStream::finish() {
  readRest();
  Lock lock(mutex_);
  releaseSocket();
  isFinished_ = true;
  const auto kept = std::move(keptAlive_);
  pauseTimer_.reset();
  flushTimer_.reset();
  const auto handler = std::exchange(handler_, nullptr);
  lock.unlock();
  if (handler) handler->onClosed(cause_);
  Reactor::untrack(this);
}

void TcpStream::releaseSocket() {
  Readers::watch(descriptor_, key_, watched_, {});
  if (key_ != 0) Readers::dismiss(key_);
  DeadPeers::forget(descriptor_);
  ::close(descriptor_);
}

// When writing failed first, what the peer said before it went is still in the system's buffer, and
// before it what a turn has left to the handler.
void TcpStream::readRest() {
  const auto wanted = [this] {
    const Lock lock(mutex_);
    return readRest_ && handler_;
  };
  if (!wanted()) return;
  hasLeft_ = false;  // nothing sets it any more: no turn is under way, and nothing is sent
  callHandler([this] { handler_->onInput(0); });
  for (int round = 0; round < restRounds && wanted(); ++round) {
    Transfer got;
    callHandler([&] {
      got = receiveSome(descriptor_, handler_->inputSpace());
      handler_->onInput(got.bytes);
    });
    if (got.bytes == 0) return;
  }
}

void TcpStream::closeAfterFlush(const std::string& cause, std::chrono::milliseconds bound) {
  Lock lock(mutex_);
  if (state_ != State::Open) return;
  state_ = State::Flushing;
  cause_ = cause;
  const auto late = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->close({});
  };
  try {
    flushTimer_ = Timer::start(bound, late);
  } catch (const std::exception&) {
    return endLocked(cause);  // the process exits
  }
  flushLocked(lock);
  shutdownIfFlushedLocked();
  // Reading goes on to the peer's end: closing with unread input would reset the connection, and
  // the peer would lose what was just sent.
  isPaused_ = false;
  watchLocked();
}

void TcpStream::shutdownIfFlushedLocked() {
  if (state_ == State::Flushing && !writing_ && output_.empty()) ::shutdown(descriptor_, SHUT_WR);
}

}  // namespace gv::net

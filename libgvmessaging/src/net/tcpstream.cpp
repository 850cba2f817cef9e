#include "src/net/tcpstream.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <asio/post.hpp>
#include <exception>
#include <utility>

#include "src/net/reactor.h"

namespace gv::net {
namespace {

// Reads of one connection before others have their turn.
constexpr int roundsInTurn = 4;

// Writes that a sender does for others before it leaves the rest to the reactor.
constexpr int writeRounds = 4;
constexpr std::size_t gatheredPieces = 64;

// While output waits beyond the limit, one buffer is read each time this has passed.
constexpr std::chrono::milliseconds slowReadPause{50};

// After a failed write: more than the system holds for one connection.
constexpr int restRounds = 64;

asio::ip::address plainAddress(const Endpoint& endpoint) {
  const asio::ip::address address = endpoint.address();
  if (address.is_v6() && address.to_v6().is_v4_mapped())
    return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
  return address;
}

std::string localAddressOf(const asio::ip::tcp::socket& socket) {
  std::error_code error;
  const Endpoint endpoint = socket.local_endpoint(error);
  return error ? std::string() : endpointAddress(endpoint);
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

TcpStream::TcpStream(asio::ip::tcp::socket socket, const Endpoint& peer, const wire::Limits& limits)
    : context_(Reactor::context()),
      limits_(limits),
      peerName_(endpointName(peer)),
      peerAddress_(endpointAddress(peer)),
      localAddress_(localAddressOf(socket)),
      descriptor_(socket.native_handle()),
      socket_(std::move(socket)),
      slowTimer_(context_),
      flushTimer_(context_) {
  tuneConnection(descriptor_);
}

void TcpStream::start(std::shared_ptr<StreamHandler> handler) {
  asio::post(context_, [self = shared_from_this(), handler = std::move(handler)]() mutable {
    self->handler_ = std::move(handler);
    if (!self->finished_) {
      Reactor::track(self);
      return self->waitReadable();
    }
    const auto ended = std::exchange(self->handler_, nullptr);
    ended->onClosed(self->cause_);
  });
}

bool TcpStream::send(std::span<const Bytes> pieces) {
  Lock lock(mutex_);
  if (state_ != State::Open) return false;
  if (writing_ || !output_.empty()) {
    output_.push(pieces);
    return true;
  }
  std::array<iovec, gatheredPieces> buffers;
  const std::size_t count = std::min(pieces.size(), buffers.size());
  std::size_t size = 0;
  for (std::size_t i = 0; i < count; ++i) {
    buffers[i] = {const_cast<char*>(pieces[i].data()), pieces[i].size()};
    size += pieces[i].size();
  }
  writing_ = true;
  direct_ = size;
  lock.unlock();
  const Transfer sent = sendSome(descriptor_, std::span(buffers).first(count));
  lock.lock();
  direct_ = 0;
  output_.pushFront(pieces, sent.bytes);
  writeRoundsLocked(lock, sent);
  return true;
}

std::size_t TcpStream::pendingBytes() const {
  const Lock lock(mutex_);
  return output_.bytes() + direct_;
}

// One system call for many frames. Only the thread that set writing_ consumes, so the pieces stay.
Transfer TcpStream::writeQueued(Lock& lock) {
  std::array<iovec, gatheredPieces> buffers;
  const std::size_t count = output_.gather(buffers);
  lock.unlock();
  const Transfer sent = sendSome(descriptor_, std::span(buffers).first(count));
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
  if (state_ == State::Closing) {
    output_.clear();
    postFinish();  // close() left it to the writer
  } else if (last.error) {
    readRest_ = state_ == State::Open;
    endLocked(last.error.message());
  } else if (!output_.empty()) {
    if (std::exchange(awaitsWritable_, true)) return;
    asio::post(context_, [self = shared_from_this()] { self->waitWritable(); });
  } else if (state_ == State::Flushing) {
    asio::post(context_, [self = shared_from_this()] { self->shutdownWrite(); });
  }
}

void TcpStream::waitWritable() {
  if (finished_) return;
  socket_.async_wait(asio::ip::tcp::socket::wait_write,
                     [self = shared_from_this()](std::error_code) { self->onWritable(); });
}

void TcpStream::onWritable() {
  if (finished_) return;
  Lock lock(mutex_);
  awaitsWritable_ = false;
  if (state_ == State::Closing || writing_) return;
  writing_ = true;
  writeRoundsLocked(lock, {});
  const bool mayRead = output_.bytes() <= limits_.outputSlow;
  lock.unlock();
  if (mayRead) slowTimer_.cancel();
}

void TcpStream::waitReadable() {
  if (finished_ || std::exchange(reading_, true)) return;
  const auto resume = [self = shared_from_this()](int rounds) {
    self->reading_ = false;
    self->readAndWait(rounds);
  };
  if (state() == State::Open && pendingBytes() > limits_.outputSlow) {
    slowTimer_.expires_after(slowReadPause);
    slowTimer_.async_wait([resume](std::error_code) { resume(1); });
  } else {
    socket_.async_wait(asio::ip::tcp::socket::wait_read,
                       [resume](std::error_code) { resume(roundsInTurn); });
  }
}

void TcpStream::readAndWait(int rounds) {
  if (finished_) return;
  const bool mayRead = state() != State::Open || pendingBytes() <= limits_.outputStop;
  while (mayRead && rounds-- > 0 && readOnce()) {
  }
  if (state() != State::Closing) waitReadable();
}

// True when there may be more at once.
bool TcpStream::readOnce() {
  const Transfer got = receive();
  if (got.wouldBlock) return false;
  if (got.error || got.bytes == 0) {
    const Lock lock(mutex_);
    endLocked(got.error ? got.error.message() : "connection closed by peer");
    return false;
  }
  return state() != State::Closing;
}

Transfer TcpStream::receive() {
  if (!handler_ || state() != State::Open) {
    std::array<char, 16u << 10> unwanted;
    return receiveSome(descriptor_, unwanted);
  }
  Transfer got;
  callHandler([&] {
    got = receiveSome(descriptor_, handler_->inputSpace());
    handler_->onInput(got.bytes);
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
  if (writing_) return;  // the writer goes on from here
  output_.clear();
  postFinish();
}

void TcpStream::postFinish() {
  asio::post(context_, [self = shared_from_this()] { self->finish(); });
}

void TcpStream::finish() {
  if (finished_) return;
  readRest();
  finished_ = true;
  std::error_code ignored;
  socket_.close(ignored);
  slowTimer_.cancel();
  flushTimer_.cancel();
  if (const auto handler = std::exchange(handler_, nullptr)) handler->onClosed(cause_);
}

// When writing failed first, what the peer said before it went is still in the system's buffer.
void TcpStream::readRest() {
  const auto wanted = [this] {
    const Lock lock(mutex_);
    return readRest_ && handler_;
  };
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
  const Lock lock(mutex_);
  if (state_ != State::Open) return;
  state_ = State::Flushing;
  cause_ = cause;
  asio::post(context_, [self = shared_from_this(), bound] { self->beginFlush(bound); });
}

void TcpStream::beginFlush(std::chrono::milliseconds bound) {
  if (finished_) return;
  flushTimer_.expires_after(bound);
  flushTimer_.async_wait([self = shared_from_this()](std::error_code error) {
    if (!error) self->close({});
  });
  Lock lock(mutex_);
  const bool flushed = !writing_ && output_.empty();
  lock.unlock();
  if (flushed) shutdownWrite();
  // Reading goes on to the peer's end: closing with unread input would reset the connection, and
  // the peer would lose what was just sent.
  slowTimer_.cancel();
  waitReadable();
}

void TcpStream::shutdownWrite() {
  if (!finished_) ::shutdown(descriptor_, SHUT_WR);
}

TcpStream::State TcpStream::state() const {
  const Lock lock(mutex_);
  return state_;
}

}  // namespace gv::net

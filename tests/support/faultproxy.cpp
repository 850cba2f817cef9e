#include "support/faultproxy.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <iterator>
#include <list>
#include <mutex>
#include <optional>
#include <random>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "support/rawpeer.h"

namespace house {
namespace {

using Clock = std::chrono::steady_clock;

// How much may wait in one direction before its sender is made to wait.
constexpr std::size_t mostWaiting = 1u << 20;
constexpr std::size_t readSize = 64u << 10;

[[noreturn]] void fail() {
  throw std::system_error(errno, std::system_category());
}

/// None when the socket is not ready for it.
std::optional<std::size_t> transferred(ssize_t result) {
  if (result >= 0) return static_cast<std::size_t>(result);
  if (errno != EAGAIN && errno != EINTR) fail();
  return {};
}

struct Waiting {
  Clock::time_point due;
  std::string bytes;  // none: the end
  std::size_t passed = 0;
};

/// One direction of a connection.
struct Way {
  std::size_t taken = 0;  // since the faults were set
  std::deque<Waiting> waiting;
  std::size_t waitingBytes = 0;
  bool isRead = false;   // to the end
  bool isEnded = false;  // so was it written
  bool isFull = false;   // the receiver takes no more just now
  std::string recorded;
};

enum Direction : std::size_t { ToServer, ToClient };

struct Connection {
  RawPeer peers[2];  // the one that sends ToServer, and the one that sends ToClient
  Way ways[2];
  bool isCut = false;  // the ends were sent, what still comes is dropped
  std::optional<std::promise<Recording>> recording;
};

std::size_t mayTake(const Connection& connection, std::size_t direction, const Faults& faults) {
  const Way& way = connection.ways[direction];
  const std::size_t end = std::min({faults.stallAt, faults.cutAt, faults.resetAt});
  if (way.isRead) return 0;
  if (connection.isCut) return readSize;
  if (way.taken >= end || way.waitingBytes >= mostWaiting) return 0;
  return std::min(readSize, end - way.taken);
}

}  // namespace

struct FaultProxy::State {
  State(int port, const Faults& bothWays)
      : serverPort(port), faults{bothWays, bothWays}, wakeUp(::eventfd(0, EFD_CLOEXEC)) {
    if (wakeUp < 0) fail();
    thread = std::thread([this] { run(); });
  }

  ~State() {
    change([this] { isOver = true; });
    thread.join();
    ::close(wakeUp);
  }

  template <class F>
  void change(const F& what) {
    const std::lock_guard lock(mutex);
    what();
    const std::uint64_t one = 1;
    if (::write(wakeUp, &one, sizeof one) < 0) fail();
  }

  void set(Direction direction, const Faults& wanted) {
    change([&] {
      faults[direction] = wanted;
      for (Connection& connection : connections) connection.ways[direction].taken = 0;
    });
  }

  void run();
  void waitFor(std::unique_lock<std::mutex>& lock);
  void accept();
  bool goOn(Connection& connection);
  void take(Connection& connection, std::size_t direction);
  void pass(Connection& connection, std::size_t direction);
  bool passPiece(Connection& connection, std::size_t direction);
  bool isDue(const Connection& connection, std::size_t direction, std::size_t offset) const;
  void cut(Connection& connection);

  const int serverPort;
  RawListener listener{128};

  std::mutex mutex;  // guards what follows; the thread does not hold it while it waits
  Faults faults[2];
  std::list<Connection> connections;
  std::optional<std::promise<Recording>> nextRecording;
  std::mt19937 random{17};
  bool isOver = false;

  const int wakeUp;
  std::thread thread;
};

void FaultProxy::State::run() {
  std::unique_lock lock(mutex);
  while (!isOver) {
    waitFor(lock);
    for (auto at = connections.begin(); at != connections.end();)
      at = goOn(*at) ? std::next(at) : connections.erase(at);
  }
}

void FaultProxy::State::waitFor(std::unique_lock<std::mutex>& lock) {
  std::vector<pollfd> sockets = {{wakeUp, POLLIN, 0}, {listener.descriptor(), POLLIN, 0}};
  auto wakeAt = Clock::time_point::max();
  for (const Connection& connection : connections)
    for (const std::size_t direction : {ToServer, ToClient}) {
      const Way& out = connection.ways[1 - direction];
      int events = mayTake(connection, direction, faults[direction]) > 0 ? POLLIN : 0;
      if (out.isFull) events |= POLLOUT;
      if (!out.isFull && !out.waiting.empty()) wakeAt = std::min(wakeAt, out.waiting[0].due);
      if (events != 0)
        sockets.push_back(
            {connection.peers[direction].descriptor(), static_cast<short>(events), 0});
    }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(wakeAt - Clock::now());
  const bool isForever = wakeAt == Clock::time_point::max();
  lock.unlock();
  ::poll(sockets.data(), sockets.size(),
         isForever ? -1 : static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
  lock.lock();
  std::uint64_t count = 0;
  if (sockets[0].revents != 0 && ::read(wakeUp, &count, sizeof count) < 0) fail();
  if (sockets[1].revents != 0) accept();
}

void FaultProxy::State::accept() {
  RawPeer client = listener.accept();
  try {
    RawPeer server = RawPeer::connectTo(serverPort);
    connections.push_back({{std::move(client), std::move(server)}, {}, false, {}});
    connections.back().recording.swap(nextRecording);
  } catch (const std::system_error&) {  // so is it told that there is no server
    client.reset();
  }
}

/// False when nothing is left of it.
bool FaultProxy::State::goOn(Connection& connection) {
  auto& [toServer, toClient] = connection.ways;
  try {
    for (const std::size_t direction : {ToServer, ToClient}) {
      take(connection, direction);
      pass(connection, direction);
      if (isDue(connection, direction, faults[direction].resetAt))
        throw std::system_error(ECONNRESET, std::system_category());
      if (isDue(connection, direction, faults[direction].cutAt)) cut(connection);
    }
    if (!toServer.isEnded || !toClient.isEnded) return true;
  } catch (const std::system_error&) {
    for (RawPeer& peer : connection.peers) peer.reset();
  }
  if (connection.recording) connection.recording->set_value({toServer.recorded, toClient.recorded});
  return false;
}

void FaultProxy::State::take(Connection& connection, std::size_t direction) {
  Way& way = connection.ways[direction];
  const Faults& what = faults[direction];
  std::string bytes(mayTake(connection, direction, what), '\0');
  if (bytes.empty()) return;
  const auto got = transferred(
      ::recv(connection.peers[direction].descriptor(), bytes.data(), bytes.size(), MSG_DONTWAIT));
  if (!got) return;
  bytes.resize(*got);
  way.isRead = bytes.empty();
  if (connection.isCut) {
    way.isEnded = way.isRead;
    return;
  }
  if (connection.recording) way.recorded += bytes;
  if (way.taken <= what.corruptAt && what.corruptAt - way.taken < bytes.size())
    bytes[what.corruptAt - way.taken] ^= '\xff';
  way.taken += bytes.size();
  way.waitingBytes += bytes.size();
  way.waiting.push_back({Clock::now() + what.delay, std::move(bytes)});
}

void FaultProxy::State::pass(Connection& connection, std::size_t direction) {
  Way& way = connection.ways[direction];
  way.isFull = false;
  while (!way.waiting.empty() && way.waiting[0].due <= Clock::now()) {
    if (way.waiting[0].bytes.empty()) {
      connection.peers[1 - direction].finishSending();
      way.isEnded = true;
      way.waiting.pop_front();
    } else if (!passPiece(connection, direction)) {
      return;
    }
  }
}

/// False when the next one has to wait: for room, or to come by itself.
bool FaultProxy::State::passPiece(Connection& connection, std::size_t direction) {
  Way& way = connection.ways[direction];
  Waiting& first = way.waiting[0];
  const std::size_t pieces = faults[direction].pieces;
  std::size_t size = first.bytes.size() - first.passed;
  if (pieces > 0) size = std::min(size, 1 + random() % pieces);
  const auto sent =
      transferred(::send(connection.peers[1 - direction].descriptor(),
                         first.bytes.data() + first.passed, size, MSG_DONTWAIT | MSG_NOSIGNAL));
  way.isFull = !sent;
  if (!sent) return false;
  first.passed += *sent;
  way.waitingBytes -= *sent;
  if (first.passed == first.bytes.size()) way.waiting.pop_front();
  return pieces == 0;
}

/// Whether all has passed before this offset, which is one.
bool FaultProxy::State::isDue(const Connection& connection, std::size_t direction,
                              std::size_t offset) const {
  const Way& way = connection.ways[direction];
  return !connection.isCut && way.waiting.empty() && offset <= way.taken;
}

void FaultProxy::State::cut(Connection& connection) {
  connection.isCut = true;
  for (const std::size_t direction : {ToServer, ToClient}) {
    connection.ways[direction].waiting.clear();
    connection.ways[direction].isEnded = connection.ways[direction].isRead;
    connection.peers[direction].finishSending();
  }
}

FaultProxy::FaultProxy(int serverPort, const Faults& bothWays)
    : state_(std::make_unique<State>(serverPort, bothWays)) {}

FaultProxy::~FaultProxy() = default;

int FaultProxy::port() const {
  return state_->listener.port();
}

void FaultProxy::toServer(const Faults& faults) {
  state_->set(ToServer, faults);
}

void FaultProxy::toClient(const Faults& faults) {
  state_->set(ToClient, faults);
}

bool FaultProxy::hasHeardClient() const {
  const std::lock_guard lock(state_->mutex);
  return std::any_of(state_->connections.begin(), state_->connections.end(),
                     [](const Connection& each) { return each.ways[ToServer].taken > 0; });
}

std::future<Recording> FaultProxy::recordNext() {
  std::future<Recording> recording;
  state_->change([&] { recording = state_->nextRecording.emplace().get_future(); });
  return recording;
}

}  // namespace house

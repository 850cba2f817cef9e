#include "src/net/deadpeers.h"

#include <netinet/in.h>
#include <sys/socket.h>
#ifdef __linux__
#include <linux/tcp.h>
#endif

#include <charconv>
#include <exception>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include <gv/log.h>
#include <gv/os.h>

#include "src/net/timer.h"

namespace gv::net {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds usualTimeout{30'000};
constexpr int looksWithinBound = 10;
constexpr unsigned attemptsOfAClosedWindow = 2;

// The system's times are rounded: an acknowledgement just before a look counts at the next one too.
constexpr milliseconds rounding{50};

milliseconds timeoutFromEnvironment() {
  const std::string text = os::getenv("GV_PEER_TIMEOUT_MS");
  int asked = 0;
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, asked);
  if (error == std::errc() && stopped == end && asked > 0) return milliseconds(asked);
  if (!text.empty())
    GV_LOG(log::Level::Warning, "gvmessaging.net", "peerTimeout",
           "GV_PEER_TIMEOUT_MS: expected a number above 0, not \"" + text + "\"");
  return usualTimeout;
}

std::string noSignOfLife() {
  const auto count = peerTimeout().count();
  return "no sign of life for " +
         (count % 1000 == 0 ? std::to_string(count / 1000) + " s" : std::to_string(count) + " ms");
}

std::optional<SendingState> sendingState([[maybe_unused]] int descriptor) {
#ifdef __linux__
  tcp_info info{};
  socklen_t size = sizeof info;
  if (::getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return std::nullopt;
  return SendingState{info.tcpi_unacked, info.tcpi_notsent_bytes,
                      // A system that does not tell it is believed to keep its windows open.
                      size < sizeof info ? 1 : info.tcpi_snd_wnd, info.tcpi_probes,
                      info.tcpi_total_retrans, milliseconds(info.tcpi_last_ack_recv)};
#else
  return std::nullopt;
#endif
}

struct Watched {
  std::weak_ptr<Stream> stream;
  Silence silence;
};

struct Table {
  std::mutex mutex;  // guards what follows, and keeps the descriptors open during a look
  std::unordered_map<int, Watched> watched;
  std::shared_ptr<Timer> nextLook;
};

// Never destroyed: streams may end in destructors of static objects.
Table& table() {
  static Table* const instance = new Table;
  return *instance;
}

}  // namespace

milliseconds peerTimeout() {
  static const milliseconds timeout = timeoutFromEnvironment();
  return timeout;
}

std::string lossText(const std::error_code& error) {
  return error == std::errc::timed_out ? noSignOfLife() : error.message();
}

void Silence::look(const SendingState& seen, TimePoint now) {
  const bool isNew = !since_;
  const bool wasAnswered = !isNew && seen.sinceAcknowledgement <= now - lastLook_ + rounding;
  lastLook_ = now;
  if (seen.inFlight == 0 && seen.unsentBytes == 0) return since_.reset();
  if (isNew || wasAnswered) {
    since_ = isNew ? now : now - seen.sinceAcknowledgement;
    retransmissionsBefore_ = seen.retransmissions;
  }
  unanswered_ = seen.probes + seen.retransmissions - retransmissionsBefore_;
  mustAnswer_ = seen.inFlight > 0 && seen.window > 0;
}

bool Silence::isDeath(milliseconds bound) const {
  return since_ && lastLook_ - *since_ >= bound &&
         (mustAnswer_ || unanswered_ >= attemptsOfAClosedWindow);
}

std::atomic<bool> DeadPeers::isLooking_{false};

void DeadPeers::watch(int descriptor, std::weak_ptr<Stream> stream) {
  const std::lock_guard lock(table().mutex);
  table().watched[descriptor] = {std::move(stream), {}};
}

void DeadPeers::forget(int descriptor) {
  std::weak_ptr<Stream> forgotten;  // goes after the unlock
  const std::lock_guard lock(table().mutex);
  if (const auto found = table().watched.find(descriptor); found != table().watched.end()) {
    forgotten = std::move(found->second.stream);
    table().watched.erase(found);
  }
}

void DeadPeers::beginLooking() {
  if (isLooking_.exchange(true)) return;
  const std::lock_guard lock(table().mutex);
  try {
    table().nextLook = Timer::start(peerTimeout() / looksWithinBound, look);
  } catch (const std::exception&) {
    // The process is exiting, and the network with it: nothing is to be watched any more.
  }
}

void DeadPeers::look() {
  // First: who writes behind our look at its socket sees that nobody looks, and begins anew. The
  // lock of the socket in the system orders the two.
  isLooking_.store(false);
  bool isAnyAwaiting = false;
  std::vector<std::weak_ptr<Stream>> dead;
  {
    const std::lock_guard lock(table().mutex);
    const auto now = std::chrono::steady_clock::now();
    for (auto& [descriptor, entry] : table().watched) {
      const auto seen = sendingState(descriptor);
      if (!seen) continue;
      entry.silence.look(*seen, now);
      if (entry.silence.isDeath(peerTimeout())) dead.push_back(entry.stream);
      isAnyAwaiting = isAnyAwaiting || entry.silence.isAwaiting();
    }
  }
  if (isAnyAwaiting) beginLooking();
  for (const auto& weak : dead)
    if (const auto stream = weak.lock()) stream->close(noSignOfLife());
}

}  // namespace gv::net

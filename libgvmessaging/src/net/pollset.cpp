#include "src/net/pollset.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace gv::net {

PollSet::PollSet() {
  if (::pipe(waker_) != 0) throw std::system_error(errno, std::system_category(), "pipe");
  for (const int end : waker_) {
    ::fcntl(end, F_SETFD, FD_CLOEXEC);
    ::fcntl(end, F_SETFL, O_NONBLOCK);
  }
}

PollSet::~PollSet() {
  for (const int end : waker_) ::close(end);
}

bool PollSet::watch(int descriptor, std::uint64_t key, Interest before, Interest now) {
  if (before == now) return true;
  {
    const std::lock_guard lock(mutex_);
    if (now.read || now.write)
      watched_[descriptor] = {key, now};
    else
      watched_.erase(descriptor);
  }
  wake();  // who waits does so for what was watched before
  return true;
}

std::size_t PollSet::wait(std::span<Ready> ready, int timeoutMs) {
  std::vector<pollfd> polled = {{waker_[0], POLLIN, 0}};
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [descriptor, watched] : watched_) {
      const int events =
          (watched.interest.read ? POLLIN : 0) | (watched.interest.write ? POLLOUT : 0);
      polled.push_back({descriptor, static_cast<short>(events), 0});
    }
  }
  if (::poll(polled.data(), static_cast<nfds_t>(polled.size()), timeoutMs) <= 0) return 0;
  std::array<char, 64> words;
  while (polled[0].revents != 0 && ::read(waker_[0], words.data(), words.size()) > 0) {
  }
  const std::lock_guard lock(mutex_);
  std::size_t found = 0;
  for (std::size_t i = 1; i < polled.size() && found < ready.size(); ++i) {
    const pollfd& each = polled[1 + (first_ + i) % (polled.size() - 1)];
    const auto watched = watched_.find(each.fd);
    if (each.revents == 0 || watched == watched_.end()) continue;
    const bool failed = (each.revents & ~(POLLIN | POLLOUT)) != 0;
    // What was watched meanwhile in place of it is looked at the next time.
    const Interest wanted = watched->second.interest;
    const Ready now{watched->second.key, wanted.read && (failed || (each.revents & POLLIN) != 0),
                    wanted.write && (failed || (each.revents & POLLOUT) != 0)};
    if (now.canRead || now.canWrite) ready[found++] = now;
  }
  first_ += found;
  return found;
}

void PollSet::wake() {
  const char word = 0;
  static_cast<void>(!::write(waker_[1], &word, 1));
}

}  // namespace gv::net

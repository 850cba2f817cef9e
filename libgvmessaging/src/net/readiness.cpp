#include "src/net/readiness.h"

#ifdef __linux__

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace gv::net {
namespace {

constexpr std::uint64_t wakerKey = ~std::uint64_t{0};

int checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::system_category(), what);
  return result;
}

}  // namespace

ReadinessSet::ReadinessSet()
    : set_(checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
      waker_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (waker_ < 0 || !watch(waker_, wakerKey, {}, {.read = true})) {
    const int error = errno;
    ::close(set_);
    throw std::system_error(error, std::system_category(), "eventfd");
  }
}

ReadinessSet::~ReadinessSet() {
  ::close(waker_);
  ::close(set_);
}

bool ReadinessSet::watch(int descriptor, std::uint64_t key, Interest before, Interest now) {
  if (before == now) return true;
  const bool wasIn = before.read || before.write;
  const bool isIn = now.read || now.write;
  epoll_event event{};
  event.data.u64 = key;
  event.events = (now.read ? EPOLLIN : 0u) | (now.write ? EPOLLOUT : 0u);
  const int operation = !isIn ? EPOLL_CTL_DEL : wasIn ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  return ::epoll_ctl(set_, operation, descriptor, &event) == 0;
}

std::size_t ReadinessSet::wait(std::span<Ready> ready, int timeoutMs) {
  std::array<epoll_event, 64> events;
  const int most = static_cast<int>(std::min(events.size(), ready.size()));
  const int count = ::epoll_wait(set_, events.data(), most, timeoutMs);
  std::size_t found = 0;
  for (int i = 0; i < count; ++i) {
    const auto& event = events[static_cast<std::size_t>(i)];
    if (event.data.u64 == wakerKey) {
      std::uint64_t ignored = 0;
      static_cast<void>(!::read(waker_, &ignored, sizeof ignored));
      continue;
    }
    const bool failed = (event.events & (EPOLLERR | EPOLLHUP)) != 0;
    ready[found++] = {event.data.u64, failed || (event.events & EPOLLIN) != 0,
                      failed || (event.events & EPOLLOUT) != 0};
  }
  return found;
}

void ReadinessSet::wake() {
  const std::uint64_t one = 1;
  static_cast<void>(!::write(waker_, &one, sizeof one));
}

}  // namespace gv::net

#endif

#include <gv/detail/poll.h>

#include <atomic>

#include <gv/os.h>

#include "src/pollingrest.h"

namespace gv::detail {
namespace {

std::atomic<int> pollers{0};
PollingRest rest;

int mostPollers() noexcept {
  static const int most =
      os::getenv("GV_POLLING") == "0" ? 0 : static_cast<int>(std::thread::hardware_concurrency());
  return most;
}

}  // namespace

bool Pollers::enter() noexcept {
  if (rest.isOn()) return false;
  if (pollers.fetch_add(1, std::memory_order_relaxed) < mostPollers()) return true;
  leave();
  return false;
}

void Pollers::leave() noexcept {
  pollers.fetch_sub(1, std::memory_order_relaxed);
}

Pollers::Time Pollers::giveWay(Time before) noexcept {
  std::this_thread::yield();
  const auto now = std::chrono::steady_clock::now();
  rest.gaveWay(before, now);
  return now;
}

}  // namespace gv::detail

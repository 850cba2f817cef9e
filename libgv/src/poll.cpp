#include <gv/detail/poll.h>

#include <atomic>

#include <gv/os.h>

namespace gv::detail {
namespace {

std::atomic<int> pollers{0};

int mostPollers() noexcept {
  static const int most =
      os::getenv("GV_POLLING") == "0" ? 0 : static_cast<int>(std::thread::hardware_concurrency());
  return most;
}

}  // namespace

bool Pollers::enter() noexcept {
  if (pollers.fetch_add(1, std::memory_order_relaxed) < mostPollers()) return true;
  leave();
  return false;
}

void Pollers::leave() noexcept {
  pollers.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace gv::detail

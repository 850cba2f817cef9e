#include "src/net/timer.h"

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>

#include "src/net/reactor.h"

namespace gv::net {
namespace {

/// The part that the pending wait shares. Its timer is touched in the network's thread only.
struct Wait : std::enable_shared_from_this<Wait> {
  explicit Wait(std::function<void()> what)
      : context(Reactor::context()), timer(context), task(std::move(what)) {}

  void begin(std::chrono::milliseconds delay) {
    timer.expires_after(delay);
    timer.async_wait([self = shared_from_this()](const asio::error_code& error) {
      auto toRun = std::move(self->task);
      self->task = nullptr;
      if (!error && !self->isCanceled && toRun) toRun();
    });
  }

  asio::io_context& context;
  asio::steady_timer timer;
  std::function<void()> task;           // of the network's thread; goes when the wait has ended
  std::atomic<bool> isCanceled{false};  // set by any thread, so that a due task is kept back too
};

class AsioTimer final : public Timer {
 public:
  AsioTimer(std::chrono::milliseconds delay, std::function<void()> task)
      : wait_(std::make_shared<Wait>(std::move(task))) {
    asio::post(wait_->context, [wait = wait_, delay] { wait->begin(delay); });
  }
  ~AsioTimer() override { cancel(); }

  void cancel() override {
    if (!wait_->isCanceled.exchange(true))
      asio::post(wait_->context, [wait = wait_] { wait->timer.cancel(); });
  }

 private:
  const std::shared_ptr<Wait> wait_;
};

}  // namespace

std::shared_ptr<Timer> Timer::start(std::chrono::milliseconds delay, std::function<void()> task) {
  return std::make_shared<AsioTimer>(delay, std::move(task));
}

}  // namespace gv::net

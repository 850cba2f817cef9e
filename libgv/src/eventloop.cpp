#include <gv/eventloop.h>

#include <atomic>
#include <charconv>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <gv/log.h>
#include <gv/os.h>

#include "src/pool.h"

namespace gv {
namespace {

/// What the process's own loop is made from, and whether it has been made.
struct Plan {
  std::mutex mutex;  // guards both
  EventLoop::Settings settings;
  bool isCarriedOut = false;
};

Plan& plan() {
  static Plan* const plan = new Plan;
  return *plan;
}

/// Returns what there is to complain of.
std::string readThreads(const char* variable, unsigned& threads) {
  const std::string text = os::getenv(variable);
  if (text.empty()) return {};
  unsigned number = 0;
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stopped != end || number == 0) {
    return std::string(variable) + ": expected a number above 0, not \"" + text + "\"\n";
  }
  threads = number;
  return {};
}

EventLoop::Settings finalSettings(std::string& complaints) {
  const std::lock_guard lock(plan().mutex);
  plan().isCarriedOut = true;
  EventLoop::Settings settings = plan().settings;
  complaints += readThreads("GV_EVENTLOOP_MIN_THREADS", settings.minThreads);
  complaints += readThreads("GV_EVENTLOOP_MAX_THREADS", settings.maxThreads);
  return settings;
}

}  // namespace

EventLoop::EventLoop(Settings settings) : pool_(std::make_shared<detail::Pool>(settings)) {}

EventLoop::~EventLoop() {
  pool_->stop();
}

void EventLoop::submit(detail::TaskPointer task, std::chrono::milliseconds delay) {
  pool_->submit(std::move(task), delay);
}

bool EventLoop::trySubmit(detail::TaskPointer task) {
  return pool_->trySubmit(std::move(task));
}

std::string EventLoop::refusalText() const {
  return "all " + std::to_string(pool_->maxThreads()) +
         " threads of the event loop are blocked or busy, and GV_EVENTLOOP_MAX_THREADS (" +
         std::to_string(pool_->maxThreads()) + ") allows no more";
}

EventLoop::Guest::Guest(EventLoop& loop) : pool_(loop.pool_) {
  pool_->addGuest();
}

EventLoop::Guest::~Guest() {
  pool_->removeGuest();
}

void EventLoop::Guest::willBlock() noexcept {
  pool_->workerWillBlock();
}

void EventLoop::Guest::hasUnblocked() noexcept {
  pool_->workerHasUnblocked();
}

bool EventLoop::hasRoom() const noexcept {
  return pool_->hasRoom();
}

bool EventLoop::isInThisContext() const noexcept {
  return pool_->isCurrent();
}

EventLoop::Figures EventLoop::figures() const {
  return pool_->figures();
}

void EventLoop::runService(std::string name, std::function<void()> body,
                           std::function<void()> stop) {
  pool_->runService(std::move(name), std::move(body), std::move(stop));
}

EventLoop* getEventLoop() {
  static std::string* const complaints = new std::string;
  // Not destroyed: threads that do not end in time still use it.
  static EventLoop* const loop = [] {
    auto* const made = new EventLoop(finalSettings(*complaints));
    std::atexit([] { getEventLoop()->pool_->stop(); });
    return made;
  }();
  // Told when the loop stands: a log handler may use it.
  static std::atomic<bool> isTold{complaints->empty()};
  if (!isTold.load(std::memory_order_relaxed) && !isTold.exchange(true)) {
    complaints->pop_back();
    GV_LOG(log::Level::Warning, "gv.eventloop", "getEventLoop", *complaints);
  }
  return loop;
}

void setEventLoopSettings(const EventLoop::Settings& settings) {
  const std::lock_guard lock(plan().mutex);
  if (plan().isCarriedOut) {
    throw std::logic_error("setEventLoopSettings: the process's event loop has been made already");
  }
  plan().settings = settings;
}

}  // namespace gv

#include <gv/eventloop.h>

#include <charconv>
#include <cstdlib>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gv/log.h>
#include <gv/os.h>

#include "src/pool.h"

namespace gv {
namespace {

detail::TaskPointer makeTask(const std::shared_ptr<detail::Pool>& pool,
                             std::function<void()> function) {
  if (!function) throw std::invalid_argument("EventLoop::post: the task is an empty function");
  auto task = std::make_shared<detail::Task>();
  task->function = std::move(function);
  task->pool = pool;
  return task;
}

bool cancelTask(detail::Task& task) {
  if (const auto pool = task.pool.lock()) return pool->cancel(task);
  return task.state == detail::Task::State::Dropped;
}

void readThreads(const char* variable, unsigned& threads) {
  const std::string text = os::getenv(variable);
  if (text.empty()) return;
  unsigned number = 0;
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number);
  if (error == std::errc() && stopped == end && number > 0) {
    threads = number;
  } else {
    GV_LOG(log::Level::Warning, "gv.eventloop", "getEventLoop",
           std::string(variable) + ": expected a number above 0, not \"" + text + "\"");
  }
}

EventLoop::Settings settingsFromEnvironment() {
  EventLoop::Settings settings;
  readThreads("GV_EVENTLOOP_MIN_THREADS", settings.minThreads);
  readThreads("GV_EVENTLOOP_MAX_THREADS", settings.maxThreads);
  return settings;
}

}  // namespace

bool TaskHandle::cancel() const {
  return task_ && cancelTask(*task_);
}

EventLoop::EventLoop(Settings settings) : pool_(std::make_shared<detail::Pool>(settings)) {}

EventLoop::~EventLoop() {
  pool_->stop();
}

TaskHandle EventLoop::post(std::function<void()> task, std::chrono::milliseconds delay) {
  auto made = makeTask(pool_, std::move(task));
  pool_->submit(made, delay, false);
  return TaskHandle(std::move(made));
}

void EventLoop::postCancelable(std::function<void()> task,
                               const std::shared_ptr<detail::FutureState>& future,
                               std::chrono::milliseconds delay) {
  auto made = makeTask(pool_, std::move(task));
  // Weak both: the task holds the promise, whose future holds this.
  future->setCancelAction([weakTask = std::weak_ptr(made), weakFuture = std::weak_ptr(future)] {
    const auto unstarted = weakTask.lock();
    const auto canceled = weakFuture.lock();
    if (!unstarted || !canceled) return;
    // Keeps the promise from breaking while the task that holds it is dropped.
    canceled->addPromise();
    if (cancelTask(*unstarted)) {
      canceled->claim();
      canceled->finishCanceled();
    }
    canceled->removePromise();
  });
  pool_->submit(made, delay, false);
}

bool EventLoop::tryPost(std::function<void()> task, std::function<void()> refuse) {
  auto made = makeTask(pool_, std::move(task));
  made->refuse = std::move(refuse);
  return pool_->submit(made, std::chrono::milliseconds(0), true);
}

std::string EventLoop::refusalText() const {
  return "all " + std::to_string(pool_->maxThreads()) +
         " threads of the event loop are blocked, and GV_EVENTLOOP_MAX_THREADS (" +
         std::to_string(pool_->maxThreads()) + ") allows no more";
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
  // Not destroyed: threads that do not end in time still use it.
  static EventLoop* const loop = new EventLoop(settingsFromEnvironment());
  static const int registered = std::atexit([] { getEventLoop()->pool_->stop(); });
  static_cast<void>(registered);
  return loop;
}

}  // namespace gv

#include "subscriber.h"

#include <algorithm>

#include <gv/log.h>

namespace gv {

Subscriber::Subscriber(std::string signal, AnyFunction handler, std::shared_ptr<SerialQueue> queue)
    : signal_(std::move(signal)), handler_(std::move(handler)), queue_(std::move(queue)) {}

void Subscriber::run(std::span<const AnyReference> arguments) {
  if (!enter()) return;
  try {
    handler_.callInto(arguments, nullptr);
  } catch (...) {
    GV_LOG(log::Level::Error, "gv.signal", "emit",
           "a handler of the signal '" + signal_ + "' failed: " + detail::currentError().text);
  }
  leave();
}

void Subscriber::post(GenericFunctionParameters arguments) {
  queue_->post(
      [self = shared_from_this(), arguments = std::move(arguments)] { self->run(arguments); });
}

Future<void> Subscriber::disconnect() {
  const Disconnection own{std::this_thread::get_id(), Promise<void>()};
  {
    const std::lock_guard lock(mutex_);
    isGone_ = true;
    if (runsOutsideLocked(own.thread)) {
      disconnection_ = own;
      return own.settled.future();
    }
  }
  own.settled.setValue();
  return own.settled.future();
}

bool Subscriber::enter() {
  const std::lock_guard lock(mutex_);
  if (isGone_) return false;
  running_.push_back(std::this_thread::get_id());
  return true;
}

void Subscriber::leave() {
  std::optional<Disconnection> ended;
  {
    const std::lock_guard lock(mutex_);
    running_.erase(std::find(running_.begin(), running_.end(), std::this_thread::get_id()));
    if (disconnection_ && !runsOutsideLocked(disconnection_->thread)) ended.swap(disconnection_);
  }
  if (ended) ended->settled.setValue();
}

bool Subscriber::runsOutsideLocked(std::thread::id thread) const {
  return std::any_of(running_.begin(), running_.end(),
                     [thread](std::thread::id running) { return running != thread; });
}

}  // namespace gv

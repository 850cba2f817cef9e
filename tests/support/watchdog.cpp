#include "support/watchdog.h"

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "support/rounds.h"

namespace house {

struct Watchdog::State {
  std::mutex mutex;  // guards ended
  std::condition_variable changed;
  bool ended = false;
  std::thread thread;
};

Watchdog::Watchdog(std::string what, std::chrono::milliseconds limit) : state_(new State) {
  state_->thread =
      std::thread([state = state_, what = std::move(what), limit = limit * roundsFactor()] {
        std::unique_lock lock(state->mutex);
        if (state->changed.wait_for(lock, limit, [state] { return state->ended; })) return;
        std::fprintf(stderr, "watchdog: '%s' still runs after %lld ms\n", what.c_str(),
                     static_cast<long long>(limit.count()));
        std::abort();
      });
}

Watchdog::~Watchdog() {
  {
    std::lock_guard lock(state_->mutex);
    state_->ended = true;
  }
  state_->changed.notify_all();
  state_->thread.join();
  delete state_;
}

}  // namespace house

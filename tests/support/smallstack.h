#pragma once

#include <pthread.h>

#include <functional>
#include <stdexcept>

namespace house {

/// Runs it on a thread of 256 KiB of stack.
inline void runOnSmallStack(std::function<void()> action) {
  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  ::pthread_attr_setstacksize(&attributes, 256 << 10);
  const auto run = [](void* held) -> void* {
    (*static_cast<std::function<void()>*>(held))();
    return nullptr;
  };
  pthread_t thread;
  const int error = ::pthread_create(&thread, &attributes, run, &action);
  ::pthread_attr_destroy(&attributes);
  if (error != 0) throw std::runtime_error("no thread with a small stack");
  ::pthread_join(thread, nullptr);
}

}  // namespace house

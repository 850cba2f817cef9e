#include "src/net/reactor.h"

#include <pthread.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <exception>
#include <stdexcept>
#include <utility>

#include <gv/eventloop.h>
#include <gv/log.h>

namespace gv::net {
namespace {

struct Core {
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
};

thread_local bool inReactorThread = false;

// Relaxed: the one thread of a forked child set it itself.
std::atomic<bool> forked{false};

void run(asio::io_context& context) {
  inReactorThread = true;
  for (bool stopped = false; !stopped;) {
    try {
      context.run();
      stopped = true;
    } catch (const std::exception& error) {
      GV_LOG(log::Level::Error, "gvmessaging.net", "run",
             std::string("a handler failed: ") + error.what());
    } catch (...) {
      GV_LOG(log::Level::Error, "gvmessaging.net", "run", "a handler failed: unknown exception");
    }
  }
}

Core* startCore() {
  auto* core = new Core;
  pthread_atfork(nullptr, nullptr, [] { forked.store(true, std::memory_order_relaxed); });
  getEventLoop()->runService(
      "gv-net", [core] { run(core->context); }, [core] { core->context.stop(); });
  return core;
}

// Never destroyed: streams may be dropped by destructors of static objects.
Core& core() {
  static Core* const instance = startCore();
  if (forked.load(std::memory_order_relaxed))
    throw std::runtime_error("the network cannot be used in a process forked from its user");
  return *instance;
}

}  // namespace

asio::io_context& Reactor::context() {
  return core().context;
}

void Reactor::post(std::function<void()> task) {
  asio::post(context(), std::move(task));
}

bool Reactor::isThisThread() {
  return inReactorThread;
}

}  // namespace gv::net

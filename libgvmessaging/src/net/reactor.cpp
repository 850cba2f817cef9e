#include "src/net/reactor.h"

#include <pthread.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <exception>
#include <stdexcept>
#include <unordered_map>
#include <utility>

#include <gv/detail/futurestate.h>
#include <gv/eventloop.h>
#include <gv/log.h>

#include "src/net/readers.h"

namespace gv::net {
namespace {

struct Core {
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
  std::unordered_map<const Stream*, std::weak_ptr<Stream>> streams;  // of the network's thread
  std::atomic<bool> hasEnded{false};                                 // set as the process exits
};

thread_local bool inReactorThread = false;

// Relaxed: the one thread of a forked child set it itself.
std::atomic<bool> forked{false};

void run(asio::io_context& context) {
  inReactorThread = true;
  const detail::CallbacksElsewhere callbacks(&Readers::post);
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

void stopWhenAllHaveEnded(Core& core) {
  if (core.hasEnded && core.streams.empty()) core.context.stop();
}

/// Nothing would ever answer once the thread has gone: whoever waits is told so first.
void end(Core& core) {
  core.hasEnded = true;
  asio::post(core.context, [&core] {
    for (const auto& [raw, weak] : core.streams)
      if (const auto stream = weak.lock()) stream->close("the process is exiting");
    std::erase_if(core.streams, [](const auto& entry) { return entry.second.expired(); });
    stopWhenAllHaveEnded(core);
  });
}

Core* startCore() {
  auto* core = new Core;
  pthread_atfork(nullptr, nullptr, [] { forked.store(true, std::memory_order_relaxed); });
  getEventLoop()->runService(
      "gv-net", [core] { run(core->context); }, [core] { end(*core); });
  return core;
}

// Never destroyed: streams may be dropped by destructors of static objects.
Core& instance() {
  static Core* const core = startCore();
  return *core;
}

Core& usableCore() {
  Core& core = instance();
  if (Reactor::isForked())
    throw std::runtime_error("the network cannot be used in a process forked from its user");
  if (core.hasEnded) throw std::runtime_error("the process is exiting");
  return core;
}

}  // namespace

asio::io_context& Reactor::context() {
  return usableCore().context;
}

void Reactor::post(std::function<void()> task) {
  asio::post(context(), std::move(task));
}

void Reactor::postEnd(std::function<void()> task) {
  asio::post(instance().context, std::move(task));
}

void Reactor::track(const std::shared_ptr<Stream>& stream) {
  instance().streams.emplace(stream.get(), stream);
  if (instance().hasEnded) stream->close("the process is exiting");
}

void Reactor::untrack(const Stream* stream) {
  instance().streams.erase(stream);
  stopWhenAllHaveEnded(instance());
}

bool Reactor::isForked() {
  return forked.load(std::memory_order_relaxed);
}

bool Reactor::isThisThread() {
  return inReactorThread;
}

}  // namespace gv::net

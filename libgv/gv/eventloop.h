#pragma once

#include <chrono>
#include <concepts>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include <gv/api.h>
#include <gv/detail/task.h>
#include <gv/future.h>

namespace gv {

/// A task that was posted. A handle: dropping it changes nothing, it may outlive the loop.
class GV_API TaskHandle {
 public:
  TaskHandle() noexcept = default;

  /// Whether it is one of a task.
  explicit operator bool() const noexcept { return task_ != nullptr; }

  /// Keeps the task from running, if it has not started. True: it has not run and never will; its
  /// function is destroyed (in this thread, unless it went before). False: it has started, or the
  /// handle is empty. Any thread, the task's own too.
  bool cancel() const { return task_ && task_->drop(); }

 private:
  friend class EventLoop;
  explicit TaskHandle(std::shared_ptr<detail::Task> task) noexcept : task_(std::move(task)) {}

  std::shared_ptr<detail::Task> task_;
};

/// An elastic pool of threads that runs tasks, at once or after a delay.
///
/// A posted task starts promptly even when all running ones are blocked: a wait announced by a
/// `BlockingRegion` (as `Future::wait` does) is answered by another thread at once, a task that
/// blocks unannounced is found within some ten milliseconds. Threads that idle for a while retire.
/// At the ceiling tasks queue, and warnings say how many and how long.
///
/// Tasks start in the order posted, on several threads: those after one another may overlap. What a
/// task throws is logged as an error and goes nowhere. All operations may be called from any
/// thread, tasks included. In a forked child a loop made before the fork has no threads: `post` and
/// its like throw std::runtime_error there; where a task forked, its return ends the child.
class GV_API EventLoop {
 public:
  /// How a loop grows and shrinks.
  struct Settings {
    /// Kept when idle, grown to on demand; 0: number of cores.
    unsigned minThreads = 0;
    /// The ceiling, at least 1; wins over minThreads.
    unsigned maxThreads = 512;
    /// About how long a task waits behind others that block unannounced; at least 1 ms.
    std::chrono::milliseconds growAfter{10};
    /// Idle time after which a thread above the minimum goes.
    std::chrono::milliseconds retireAfter{5000};
    /// How long the end waits for services, and then for running tasks. (The thread_local objects
    /// of threads that have ended by then are waited for without limit.)
    std::chrono::milliseconds stopWithin{500};
  };

  /// How busy a loop is at one moment.
  struct Figures {
    unsigned threads;                       ///< of the pool, idle ones included
    unsigned blocked;                       ///< threads in an announced wait
    unsigned maxThreads;                    ///< the ceiling
    std::size_t queued;                     ///< tasks due that have not started
    std::size_t delayed;                    ///< tasks whose delay runs
    std::chrono::milliseconds longestWait;  ///< how long the oldest of them has waited
  };

  /// A loop apart from the process's own. Threads start when there is work.
  explicit EventLoop(Settings settings);
  /// Drops the tasks that have not started and waits for running ones, at most for the time set;
  /// those still running then are left to end by themselves. May run on a thread of this loop.
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// Runs the task, which may be movable only, on a thread of the loop, not before the delay is
  /// over. It is destroyed there when it has run. After the process began to exit the task is
  /// dropped instead. Throws std::invalid_argument for an empty function, std::system_error when
  /// not even a first thread can be made.
  template <std::invocable F>
  TaskHandle post(F task, std::chrono::milliseconds delay = std::chrono::milliseconds(0)) {
    checkNotEmpty(task);
    auto posted = std::make_shared<detail::FunctionTask<F>>(std::move(task));
    submit(posted, delay);
    return TaskHandle(std::move(posted));
  }

  /// Runs a function like `post` and gives the future of its result (or of what it throws).
  /// `Future::cancel` keeps it from running while it has not started: the future is cancelled then,
  /// and goes on otherwise. Dropped unstarted: a broken promise.
  template <std::invocable F>
  auto async(F function, std::chrono::milliseconds delay = std::chrono::milliseconds(0))
      -> Future<std::decay_t<std::invoke_result_t<F&>>> {
    using Result = std::decay_t<std::invoke_result_t<F&>>;
    checkNotEmpty(function);
    auto task = std::make_shared<detail::AsyncTask<F, Result>>(std::move(function));
    auto future = detail::Settler::future<Result>(task);
    submit(std::move(task), delay);
    return future;
  }

  /// As `post`, for calls that come in from elsewhere and can be answered with an error, so that
  /// nested calls end in an answer. An empty handle, and the task is not taken: as many threads as
  /// allowed exist and all of them are in an announced wait (or none exists and none can be made).
  /// When that comes about while the task is queued, it is dropped and `refuse` runs in its place,
  /// on the loop's own timer thread: it must neither block nor wait. `refusalText` says why in both
  /// cases.
  template <std::invocable F, std::invocable G>
  TaskHandle tryPost(F task, G refuse) {
    using Call = detail::CallTask<F, G>;
    auto posted = std::make_shared<Call>(std::move(task), std::move(refuse));
    return trySubmit(posted) ? TaskHandle(std::move(posted)) : TaskHandle();
  }
  /// The text for such an answer: it names the ceiling and the number.
  std::string refusalText() const;

  /// A thread of another owner that runs a call, as the loop's own would. While this lives it
  /// counts as one of the loop's threads; so do its waits, of which the owner tells. Made, told and
  /// destroyed by that thread.
  class GV_API Guest {
   public:
    explicit Guest(EventLoop& loop);
    ~Guest();
    Guest(const Guest&) = delete;
    Guest& operator=(const Guest&) = delete;

    void willBlock() noexcept;
    void hasUnblocked() noexcept;

   private:
    const std::shared_ptr<detail::Pool> pool_;
  };
  /// Whether a guest may run a call: there are fewer threads than the ceiling; or some are busy
  /// rather than in a wait, and guests alone are fewer than the ceiling.
  bool hasRoom() const noexcept;

  /// True on a thread of this loop.
  bool isInThisContext() const noexcept;
  Figures figures() const;

  /// Runs `body` on a thread of its own, outside the pool, until it returns; the thread carries
  /// the first 15 bytes of `name`. At the end of the loop (for the process's own: at exit) `stop`
  /// is called, once, and has to make `body` return soon. It is not called once the end of
  /// `body` was seen. What body throws is logged and ends it. After the loop's end the body is
  /// dropped without having run. Throws std::system_error when no thread can be made.
  void runService(std::string name, std::function<void()> body, std::function<void()> stop);

 private:
  friend GV_API EventLoop* getEventLoop();

  /// Only what can be empty is asked.
  template <class F>
  static void checkNotEmpty(const F& function) {
    if constexpr (std::is_pointer_v<F> || requires { function.operator bool(); }) {
      if (!function) throw std::invalid_argument("EventLoop: the task is an empty function");
    }
  }
  void submit(detail::TaskPointer task, std::chrono::milliseconds delay);
  bool trySubmit(detail::TaskPointer task);

  const std::shared_ptr<detail::Pool> pool_;
};

/// The process's own loop, made at the first call and never destroyed. Its size comes from
/// GV_EVENTLOOP_MIN_THREADS (default: number of cores) and GV_EVENTLOOP_MAX_THREADS (default 512),
/// all else and the defaults from `setEventLoopSettings`.
///
/// When the process exits, no more tasks start, services are stopped, and tasks still running get
/// `stopWithin` to end; those that do not are left to the system.
GV_API EventLoop* getEventLoop();

/// How the process's own loop is to be made; the environment's numbers win. Call it first thing in
/// `main`: throws std::logic_error once the loop exists.
GV_API void setEventLoopSettings(const EventLoop::Settings& settings);

}  // namespace gv

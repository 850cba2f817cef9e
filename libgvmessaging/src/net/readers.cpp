#include "src/net/readers.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include <gv/blocking.h>
#include <gv/detail/futurestate.h>
#include <gv/detail/poll.h>
#include <gv/eventloop.h>
#include <gv/log.h>

#include "src/net/patience.h"
#include "src/net/reactor.h"
#include "src/net/waitingcalls.h"

namespace gv::net {
namespace {

using Clock = std::chrono::steady_clock;
using Lock = std::unique_lock<std::mutex>;

// A leader that is in one call of foreign code for one to two of these is replaced.
constexpr std::chrono::milliseconds tick(5);
// Ticks of an idle leader after which the spare stops looking.
constexpr int idleTicks = 200;
// How long spare threads beyond the one that watches are kept.
constexpr std::chrono::seconds keepSpares(5);
constexpr int lentLookMs = 1;
// How often the leader looks at calls that wait for room.
constexpr int waitingLookMs = 100;
// How long the leader runs tasks before sockets have their turn.
constexpr std::chrono::microseconds tasksTurn(200);

class Team;

/// One thread. Own: it may use what belongs to the leader, if it leads. Foreign: it leads and runs
/// foreign code. Replaced: it did when another one took the lead.
struct Reader final : BlockingObserver {
  enum class Phase { Own, Foreign, Replaced };

  explicit Reader(Team& owner) : team(owner) {}
  void willBlock() noexcept override;
  void hasUnblocked() noexcept override;

  Team& team;
  std::atomic<Phase> phase{
      Phase::Own};                 // to Replaced under the team's mutex, by whoever replaces it
  std::atomic<unsigned> calls{0};  // of foreign code, to tell one from the next
  bool isBlocked = false;          // of the team's mutex; written by its own thread alone
  std::optional<EventLoop::Guest> guest;  // of the team's mutex; while it is replaced
  std::condition_variable wake;
};

thread_local Reader* currentReader = nullptr;
thread_local bool isBorrowing = false;

class Team {
 public:
  std::uint64_t enroll(const std::weak_ptr<ReadySocket>& socket);
  void dismiss(std::uint64_t key) { sockets_.remove(key); }
  ReadinessSet& readiness() { return readiness_; }
  void lend(std::uint64_t key);
  void goOn(std::uint64_t key);
  void post(std::function<void()> task);
  void postWhenThereIsRoom(WaitingCalls::Call call);
  bool hasSpare() const { return hasSpare_.load(std::memory_order_relaxed); }
  void willBlock(Reader& reader) noexcept;
  void hasUnblocked(Reader& reader) noexcept;
  void stop();

 private:
  void startFirstReaderLocked();
  void startReaderLocked();
  void run(const std::shared_ptr<Reader>& self);
  void lead(Reader& self);
  bool awaitLead(Lock& lock, Reader& self);
  void watchLeaderLocked(Lock& lock, Reader& self);
  void replaceLocked(Reader& leader);
  void appointLocked();
  void setSparesLocked();
  void ensureSpare();
  std::size_t waitForSockets();
  std::size_t sleep();
  void handle(const Ready& ready);
  void giveTurns();
  bool mayRunCalls() const { return hasSpare() && getEventLoop()->hasRoom(); }
  bool hasOtherWork() const { return hasTasks_ || areToGoOn_ || mayAttend(); }
  bool mayAttend() const { return waiting_.areLate() || (waiting_.areThere() && mayRunCalls()); }
  bool takeTask(std::function<void()>& task);
  void runTasks();
  void attendToWaiting();
  void runForeign(std::function<void()>& task);

  ReadySockets sockets_;
  ReadinessSet readiness_;
  WaitingCalls waiting_;  // for room

  // Of the leader; handed over with the lead
  std::shared_ptr<ReadySocket> current_;  // which it is reading
  std::size_t firstWork_ = 0;             // what else comes first in its next round
  std::array<Ready, 64> ready_;
  Patience patience_;
  bool lacksSpare_ = false;  // none could be made, and that was told

  std::atomic<bool> leaderSleeps_{false};
  std::atomic<bool> watcherSleeps_{false};
  std::atomic<bool> hasSpare_{false};
  std::atomic<bool> isStopping_{false};
  std::atomic<bool> hasTasks_{false};
  std::atomic<bool> areToGoOn_{false};

  std::mutex mutex_;  // guards what follows
  std::deque<std::function<void()>> tasks_;
  std::deque<std::uint64_t> toGoOn_;  // sockets, by key, each once
  Reader* leader_ = nullptr;
  std::vector<Reader*> spares_;  // parked; the first one watches the leader
  bool isStarting_ = false;      // a thread was started that has not come to park yet
};

// ---- Leading

/// Sockets first, and what else there is in turn: who leads now may have replaced one that was long
/// in one kind of work, and the next of that kind may take as long.
void Team::lead(Reader& self) {
  constexpr std::array works = {&Team::giveTurns, &Team::runTasks, &Team::attendToWaiting};
  const auto isReplaced = [&self] {
    return self.phase == Reader::Phase::Replaced || Reactor::isForked();
  };
  ensureSpare();
  if (const auto unfinished = std::exchange(current_, nullptr)) unfinished->leaveRest();
  while (!isReplaced()) {
    if (!hasSpare()) ensureSpare();
    const std::size_t first = std::exchange(firstWork_, (firstWork_ + 1) % works.size());
    const std::size_t count = waitForSockets();
    if (sockets_.areLent()) sockets_.lookAfterLent();
    for (std::size_t i = 0; i < count; ++i) {
      // Those that a replaced thread does not come to are still ready for the next leader.
      handle(ready_[i]);
      if (isReplaced()) return;
    }
    current_.reset();
    for (std::size_t i = 0; i < works.size(); ++i) {
      (this->*works[(first + i) % works.size()])();
      if (isReplaced()) return;
    }
    if (isStopping_ && !hasTasks_) return;
  }
}

void Team::post(std::function<void()> task) {
  {
    const std::lock_guard lock(mutex_);
    startFirstReaderLocked();
    if (leader_ || isStarting_) {
      tasks_.push_back(std::exchange(task, nullptr));
      hasTasks_ = true;
    }
  }
  // It is still here when the process exits.
  task ? task() : readiness_.wake();
}

void Team::goOn(std::uint64_t key) {
  {
    const std::lock_guard lock(mutex_);
    if (isStopping_) return;
    toGoOn_.push_back(key);
    areToGoOn_ = true;
  }
  if (!currentReader || currentReader->phase != Reader::Phase::Own) readiness_.wake();
}

void Team::postWhenThereIsRoom(WaitingCalls::Call call) {
  if (isStopping_) return;
  waiting_.add(std::move(call));
  readiness_.wake();
}

bool Team::takeTask(std::function<void()>& task) {
  const std::lock_guard lock(mutex_);
  if (tasks_.empty()) return false;
  task = std::move(tasks_.front());
  tasks_.pop_front();
  hasTasks_ = !tasks_.empty();
  return true;
}

/// For a while: many that each are over soon must not keep the sockets waiting either.
void Team::runTasks() {
  if (!hasTasks_) return;
  const auto end = Clock::now() + tasksTurn;
  std::function<void()> task;
  do {
    if (!takeTask(task)) return;
    runForeign(task);
  } while (!Readers::isReplaced() && !Reactor::isForked() && Clock::now() < end);
}

/// Runs one: it is a call as any other, which may take its time.
void Team::attendToWaiting() {
  if (!waiting_.areThere() || isStopping_) return;
  std::vector<WaitingCalls::Call> refused;
  auto call = waiting_.take(mayRunCalls(), refused);
  for (auto& each : refused)  // each of which may log, and wait
    Readers::isReplaced() ? post(std::move(each.refuse)) : runForeign(each.refuse);
  if (call) runForeign(call);
}

/// And destroys it.
void Team::runForeign(std::function<void()>& task) {
  const Readers::ForeignCode foreign;
  try {
    task();
  } catch (...) {
    GV_LOG(log::Level::Error, "gvmessaging.net", "post",
           "a callback failed: " + gv::detail::currentError().text);
  }
  task = nullptr;
}

/// To the sockets that are to go on now: a turn each, and those that they add have theirs when the
/// others were looked at.
void Team::giveTurns() {
  if (!areToGoOn_) return;
  std::size_t count = 0;
  for (bool isFirst = true; isFirst || count > 0; isFirst = false) {
    std::uint64_t key = 0;
    {
      const std::lock_guard lock(mutex_);
      if (isFirst) count = toGoOn_.size();
      if (count == 0 || toGoOn_.empty()) return;
      key = toGoOn_.front();
      toGoOn_.pop_front();
      areToGoOn_ = !toGoOn_.empty();
    }
    --count;
    const auto socket = sockets_.find(key);
    current_ = socket;
    if (socket) socket->onTurn();
    if (Readers::isReplaced() || Reactor::isForked()) return;
    current_.reset();
  }
}

void Team::handle(const Ready& ready) {
  const auto socket = sockets_.find(ready.key);
  current_ = socket;
  if (socket) socket->onReady(ready.canRead, ready.canWrite);
}

/// Looks without waiting where that would be the first look of a poll, or there is other work.
std::size_t Team::waitForSockets() {
  const auto begin = Clock::now();
  const auto longest = patience_.next();
  std::size_t count = 0;
  if (longest.count() > 0 || hasOtherWork()) {
    count = readiness_.wait(ready_, 0);
    if (count > 0 || hasOtherWork()) return count;
  }
  if (longest.count() > 0) {
    detail::pollBriefly([&] { return (count = readiness_.wait(ready_, 0)) > 0; }, longest);
    patience_.polled(count > 0, Clock::now() - begin);
  } else {
    patience_.notPolled();
  }
  if (count == 0) count = sleep();
  patience_.waited(Clock::now() - begin);
  return count;
}

std::size_t Team::sleep() {
  leaderSleeps_ = true;
  // The word to wake may have come, and gone, while it polled.
  const int longestMs = isStopping_ || hasOtherWork() ? 0
                        : sockets_.areLent()          ? lentLookMs
                        : waiting_.areThere()         ? waitingLookMs
                                                      : -1;
  const std::size_t count = readiness_.wait(ready_, longestMs);
  leaderSleeps_ = false;
  // One of the two sees the other: the watcher says that it sleeps before it looks at the leader.
  if (watcherSleeps_) {
    const std::lock_guard lock(mutex_);
    watcherSleeps_ = false;
    if (!spares_.empty()) spares_.front()->wake.notify_one();
  }
  return count;
}

// ---- Being replaced

void Reader::willBlock() noexcept {
  if (phase != Phase::Own) team.willBlock(*this);
}

void Reader::hasUnblocked() noexcept {
  if (isBlocked) team.hasUnblocked(*this);
}

void Team::willBlock(Reader& reader) noexcept {
  const std::lock_guard lock(mutex_);
  replaceLocked(reader);
  reader.isBlocked = true;
  if (reader.phase == Reader::Phase::Replaced) reader.guest->willBlock();
}

void Team::hasUnblocked(Reader& reader) noexcept {
  const std::lock_guard lock(mutex_);
  reader.isBlocked = false;
  if (reader.phase == Reader::Phase::Replaced) reader.guest->hasUnblocked();
}

/// Unless there is nobody who could take the lead, or it has just come back by itself.
void Team::replaceLocked(Reader& leader) {
  if (leader_ != &leader || spares_.empty()) return;
  auto expected = Reader::Phase::Foreign;
  if (!leader.phase.compare_exchange_strong(expected, Reader::Phase::Replaced)) return;
  leader.guest.emplace(*getEventLoop());
  appointLocked();
  if (leader.isBlocked) leader.guest->willBlock();  // since before there was a spare
}

void Team::appointLocked() {
  leader_ = spares_.back();  // the one that watches last
  spares_.pop_back();
  setSparesLocked();
  leader_->wake.notify_one();
}

/// One that is about to come counts: it finds the leader in its call, and replaces it then.
void Team::setSparesLocked() {
  hasSpare_ = !spares_.empty() || isStarting_;
}

void Team::ensureSpare() {
  try {
    const std::lock_guard lock(mutex_);
    if (spares_.empty() && !isStarting_ && !isStopping_) startReaderLocked();
    lacksSpare_ = false;
  } catch (const std::exception& error) {
    // Until there is one, calls go to the pool.
    if (std::exchange(lacksSpare_, true)) return;
    GV_LOG(log::Level::Warning, "gvmessaging.net", "ensureSpare",
           std::string("no spare thread to read the network: ") + error.what());
  }
}

// ---- Threads

std::uint64_t Team::enroll(const std::weak_ptr<ReadySocket>& socket) {
  {
    const std::lock_guard lock(mutex_);
    startFirstReaderLocked();
  }
  return sockets_.add(socket);
}

void Team::lend(std::uint64_t key) {
  if (sockets_.lend(key)) readiness_.wake();
}

void Team::startFirstReaderLocked() {
  if (!leader_ && spares_.empty() && !isStarting_ && !isStopping_) startReaderLocked();
}

void Team::startReaderLocked() {
  const auto reader = std::make_shared<Reader>(*this);
  isStarting_ = true;
  try {
    getEventLoop()->runService(
        "gv-read", [this, reader] { run(reader); }, [this] { stop(); });
  } catch (...) {
    isStarting_ = false;
    throw;
  }
  setSparesLocked();
}

void Team::run(const std::shared_ptr<Reader>& self) {
  currentReader = self.get();
  const BlockingObserverScope scope(self.get());
  Lock lock(mutex_);
  isStarting_ = false;
  spares_.push_back(self.get());
  if (!leader_) appointLocked();
  setSparesLocked();
  while (awaitLead(lock, *self)) {
    lock.unlock();
    lead(*self);
    if (Reactor::isForked()) return;  // the call forked: this is the child
    lock.lock();
    self->guest.reset();
    if (waiting_.areThere()) readiness_.wake();
    self->phase = Reader::Phase::Own;
    const bool leads = leader_ == self.get();  // nobody replaced it: it stops
    if (isStopping_ && (!leads || tasks_.empty())) break;
    if (leads) continue;
    spares_.push_back(self.get());
    setSparesLocked();
  }
  if (leader_ == self.get()) leader_ = nullptr;
  std::erase(spares_, self.get());
  setSparesLocked();
  currentReader = nullptr;
}

/// False when this thread is to end.
bool Team::awaitLead(Lock& lock, Reader& self) {
  while (leader_ != &self && !isStopping_) {
    if (spares_.front() == &self) {
      watchLeaderLocked(lock, self);
    } else if (self.wake.wait_for(lock, keepSpares) == std::cv_status::timeout &&
               leader_ != &self && spares_.front() != &self) {
      return false;
    }
  }
  // Who was appointed has a socket to give back, also at the end.
  return leader_ == &self || !isStopping_;
}

void Team::watchLeaderLocked(Lock& lock, Reader& self) {
  unsigned calls = 0;
  int idle = 0;
  bool wasInCall = false;
  while (leader_ != &self && !isStopping_) {
    const bool isInCall = leader_->phase == Reader::Phase::Foreign;
    if (isInCall && wasInCall && leader_->calls == calls) {
      replaceLocked(*leader_);
      wasInCall = false;
      continue;
    }
    wasInCall = isInCall;
    calls = leader_->calls;
    idle = leaderSleeps_ ? idle + 1 : 0;
    if (idle < idleTicks) {
      self.wake.wait_for(lock, tick);
      continue;
    }
    watcherSleeps_ = true;
    if (leaderSleeps_)
      self.wake.wait(lock, [&] { return !watcherSleeps_ || leader_ == &self || isStopping_; });
    watcherSleeps_ = false;
    idle = 0;
  }
}

void Team::stop() {
  {
    const std::lock_guard lock(mutex_);
    isStopping_ = true;
    for (Reader* spare : spares_) spare->wake.notify_one();
  }
  readiness_.wake();
}

Team& team() {
  static Team& team = *new Team;  // never destroyed: sockets may be dropped by static objects
  return team;
}

}  // namespace

std::uint64_t Readers::enroll(const std::weak_ptr<ReadySocket>& socket) {
  return team().enroll(socket);
}

void Readers::dismiss(std::uint64_t key) {
  team().dismiss(key);
}

bool Readers::watch(int descriptor, std::uint64_t key, ReadinessSet::Interest before,
                    ReadinessSet::Interest now) {
  return team().readiness().watch(descriptor, key, before, now);
}

void Readers::lend(std::uint64_t key) {
  team().lend(key);
}

void Readers::goOn(std::uint64_t key) {
  team().goOn(key);
}

void Readers::post(std::function<void()> task) {
  team().post(std::move(task));
}

void Readers::postWhenThereIsRoom(WaitingCalls::Call call) {
  team().postWhenThereIsRoom(std::move(call));
}

bool Readers::mayRunForeignCode() {
  return currentReader && currentReader->phase == Reader::Phase::Own && team().hasSpare();
}

bool Readers::isReplaced() {
  return currentReader && currentReader->phase == Reader::Phase::Replaced;
}

Readers::ForeignCode::ForeignCode()
    : isOutermost_(currentReader && currentReader->phase == Reader::Phase::Own) {
  if (!isOutermost_) return;
  currentReader->calls.fetch_add(1, std::memory_order_relaxed);
  currentReader->phase.store(Reader::Phase::Foreign, std::memory_order_release);
}

Readers::ForeignCode::~ForeignCode() {
  if (!isOutermost_) return;
  auto expected = Reader::Phase::Foreign;
  currentReader->phase.compare_exchange_strong(expected, Reader::Phase::Own);
}

Readers::Borrowing::Borrowing() : callbacks_(&Readers::post) {
  isBorrowing = true;
}

Readers::Borrowing::~Borrowing() {
  isBorrowing = false;
}

bool Readers::Borrowing::isActive() {
  return isBorrowing;
}

}  // namespace gv::net

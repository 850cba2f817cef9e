// Ends a process in the midst of work, in the way named by its argument. Run by exit_test.cpp.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <latch>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gv/eventloop.h>
#include <gv/log.h>

namespace {

gv::EventLoop& loop() {
  return *gv::getEventLoop();
}

void waitUntilBlocked(unsigned threads) {
  while (loop().figures().blocked < threads) std::this_thread::yield();
}

/// Made before the loop and so destroyed after its end.
struct UsesTheLoopLate {
  std::atomic<bool> isActive{false};
  ~UsesTheLoopLate() {
    if (!isActive) return;
    const auto late = loop().async([] {});
    if (late.errorState() != gv::FutureException::State::BrokenPromise) std::_Exit(3);
  }
};
UsesTheLoopLate usesTheLoopLate;

std::latch neverOpened(1);
gv::Promise<void> neverSettled;

int blockedInFutures() {
  for (int i = 0; i < 10; ++i) loop().post([] { neverSettled.future().wait(); });
  waitUntilBlocked(10);
  return 0;
}

int blockedInForeignCode() {
  std::latch started(4);
  for (int i = 0; i < 4; ++i) {
    loop().post([&started] {
      started.count_down();
      neverOpened.wait();
    });
  }
  started.wait();
  return 0;
}

int busy() {
  static std::atomic<bool> isStarted{false};
  loop().post([] {
    isStarted = true;
    while (true) loop().post([] {});
  });
  while (!isStarted) std::this_thread::yield();
  return 0;
}

int delayedTasks() {
  loop().post([] { std::_Exit(4); }, std::chrono::hours(1));
  loop().post([] {}, std::chrono::milliseconds(1));
  return 0;
}

int exitInTask() {
  loop().post([] { std::exit(0); });
  neverOpened.wait();  // not a future: this thread must not wake when static promises break
  return 5;
}

int waiterOfQueuedTask() {
  // The waiter's task can never start; the end of the loop has to wake it.
  const auto never = loop().async([] {}, std::chrono::hours(1));
  loop().post([never] { never.wait(); });
  waitUntilBlocked(1);
  return 0;
}

int services() {
  static gv::Promise<void> stop;
  loop().runService(
      "stops", [] { stop.future().wait(); }, [] { stop.setValue(); });
  loop().runService(
      "deaf", [] { neverSettled.future().wait(); }, [] {});
  return 0;
}

int lateUse() {
  loop().async([] {}).value();
  usesTheLoopLate.isActive = true;
  return 0;
}

int postInForkedChild() {
  loop().async([] {}).value();
  const pid_t child = fork();
  if (child == 0) {
    try {
      loop().post([] {});
    } catch (const std::runtime_error& error) {
      std::cout << error.what() << std::endl;
      _exit(0);  // what the threads of the parent held at the fork looks like a leak here
    }
    _exit(6);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 7;
}

/// Other threads are inside handlers, removing handlers and writing to stderr at each fork.
int forkWhileLogging() {
  if (!std::freopen("/dev/null", "w", stderr)) return 9;
  const auto linger = [](const gv::log::Record&) { std::this_thread::yield(); };
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int i = 0; i < 3; ++i) {
    writers.emplace_back([&] {
      while (!stop) {
        const auto handler = gv::log::addHandler("short", linger);
        gv::log::setLevel(gv::log::Level::Info, "fork");
        gv::log::write(gv::log::Level::Info, "fork", "", "", 0, "noise");
        gv::log::removeHandler(handler);
      }
    });
  }
  const auto inherited = gv::log::addHandler("inherited", linger);
  gv::log::HandlerId own = 0;
  own = gv::log::addHandler("own", [&own](const gv::log::Record& record) {
    if (record.text == "from the child") gv::log::removeHandler(own);
  });
  int status = 0;
  for (int round = 0; round < 150 && status == 0; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);  // a deadlock ends the child by a signal
      GV_LOG(gv::log::Level::Info, "fork.child", "", "from the child");
      gv::log::removeHandler(inherited);
      _exit(0);
    }
    waitpid(child, &status, 0);
  }
  stop = true;
  for (auto& writer : writers) writer.join();
  return status == 0 ? 0 : 10;
}

/// The environment's numbers win over the program's, where they can be read; who is told that one
/// cannot may use the loop already.
int readSettings() {
  setenv("GV_EVENTLOOP_MIN_THREADS", "many", 1);
  setenv("GV_EVENTLOOP_MAX_THREADS", "7", 1);
  gv::EventLoop::Settings settings;
  settings.minThreads = 1;
  settings.maxThreads = 3;
  gv::setEventLoopSettings(settings);
  std::string complaint;
  gv::log::addHandler("complaint", [&](const gv::log::Record& record) {
    complaint = record.text;
    loop().async([] {}).wait();
  });
  if (loop().figures().maxThreads != 7) return 11;
  std::cout << complaint << std::endl;
  try {
    gv::setEventLoopSettings(settings);
  } catch (const std::logic_error&) {
    return 0;
  }
  return 12;
}

int logLines() {
  gv::log::write(gv::log::Level::Verbose, "chatty.one", "logLines", "", 0, "forged\n{}%n");
  gv::log::write(gv::log::Level::Info, "other", "logLines", "", 0, "unwanted");
  return 0;
}

int logToClosedPipe() {
  int ends[2];
  if (pipe(ends) != 0) return 8;
  close(ends[0]);
  dup2(ends[1], STDERR_FILENO);
  gv::log::write(gv::log::Level::Error, "pipe", "", "", 0, "nobody reads this");
  std::cout << "survived" << std::endl;
  return 0;
}

/// Logs more than the standard error takes, which nobody reads; then reads it, and checks that each
/// record came or was counted.
int logUnread(int readEnd, int writeEnd) {
  dup2(writeEnd, STDERR_FILENO);
  int records = 0;
  const auto log = [&records](const std::string& text) {
    gv::log::write(gv::log::Level::Error, "unread", "", "", 0, "record " + text);
    ++records;
  };
  // Some are longer than what a pipe takes in one piece, and some are cut short by its end.
  for (int i = 0; i < 2000; ++i) log(std::string(i % 50 == 0 ? 9000 : i % 97, '-'));
  std::string text, last;
  do {  // a terminal makes room after a while
    last = "the last one, " + std::to_string(records);
    log(last);
    char bytes[4096];
    pollfd readable{readEnd, POLLIN, 0};
    while (poll(&readable, 1, 100) == 1)
      text.append(bytes, static_cast<std::size_t>(read(readEnd, bytes, sizeof bytes)));
  } while (text.find(last) == std::string::npos);
  const std::string note = "nobody read the standard error: ";
  int lost = 0, notes = 0, begun = 0;
  for (auto at = text.find(note); at != std::string::npos; at = text.find(note, at + 1)) {
    const auto end = text.find_first_not_of("0123456789", at += note.size());
    if (text.compare(end, 13, " records are ") != 0) continue;  // one that was cut short itself
    lost += std::stoi(text.substr(at));
    ++notes;
  }
  for (auto at = text.find("unread: record"); at != std::string::npos; ++begun)
    at = text.find("unread: record", at + 1);
  // The first of those that were lost may have begun.
  const int told = begun + lost;
  return notes == 0 ? 8 : told >= records && told <= records + notes ? 0 : 9;
}

int logToUnreadPipe() {
  int ends[2];
  return pipe(ends) == 0 ? logUnread(ends[0], ends[1]) : 7;
}

int logToUnreadSocket() {
  int ends[2];
  return socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0 ? logUnread(ends[0], ends[1]) : 7;
}

int logToUnreadTerminal() {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) return 7;
  return logUnread(master, open(ptsname(master), O_RDWR | O_NOCTTY));
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, std::function<int()>> ways{
      {"blocked-in-futures", blockedInFutures},
      {"blocked-in-foreign-code", blockedInForeignCode},
      {"busy", busy},
      {"delayed-tasks", delayedTasks},
      {"exit-in-task", exitInTask},
      {"waiter-of-queued-task", waiterOfQueuedTask},
      {"services", services},
      {"late-use", lateUse},
      {"fork", postInForkedChild},
      {"fork-while-logging", forkWhileLogging},
      {"settings", readSettings},
      {"log-lines", logLines},
      {"log-to-closed-pipe", logToClosedPipe},
      {"log-to-unread-pipe", logToUnreadPipe},
      {"log-to-unread-socket", logToUnreadSocket},
      {"log-to-unread-terminal", logToUnreadTerminal},
  };
  const auto way = ways.find(argc > 1 ? argv[1] : "");
  return way == ways.end() ? 2 : way->second();
}

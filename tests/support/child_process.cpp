#include "support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

extern char** environ;

namespace house {
namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
  int readEnd = -1;
  int writeEnd = -1;

  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2: no descriptors left");
    readEnd = ends[0];
    writeEnd = ends[1];
  }
  ~Pipe() {
    closeEnd(readEnd);
    closeEnd(writeEnd);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  static void closeEnd(int& end) {
    if (end >= 0) ::close(end);
    end = -1;
  }
};

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (auto& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

int millisecondsLeft(Clock::time_point end) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

struct ChildProcess::State {
  std::string program;
  pid_t pid = -1;
  int exitDescriptor = -1;  // readable once the program has ended
  bool exited = false;
  Pipe out;
  Pipe err;
  std::string outText;
  std::string errText;
  std::optional<Ending> ending;

  ~State() { Pipe::closeEnd(exitDescriptor); }

  // Takes in what is there; at the end of the stream, closes it.
  static void take(Pipe& pipe, std::string& text) {
    char buffer[4096];
    const ssize_t n = ::read(pipe.readEnd, buffer, sizeof buffer);
    if (n > 0) {
      text.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      Pipe::closeEnd(pipe.readEnd);
    }
  }

  // One round of reading, at most until `end`; false when nothing happened by then.
  bool pump(Clock::time_point end) {
    pollfd fds[3] = {{out.readEnd, POLLIN, 0}, {err.readEnd, POLLIN, 0}, {-1, POLLIN, 0}};
    if (!exited) fds[2].fd = exitDescriptor;
    const int ready = ::poll(fds, 3, millisecondsLeft(end));
    if (ready < 0 && errno == EINTR) return true;
    if (ready <= 0) return false;
    if (fds[0].revents != 0) take(out, outText);
    if (fds[1].revents != 0) take(err, errText);
    if (fds[2].revents != 0) exited = true;
    return true;
  }

  void readWhatIsThere() {
    while (pump(Clock::now())) {
    }
  }

  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error(program + ": " + what + "; standard output:\n" + outText +
                             "standard error:\n" + errText);
  }

  void reap() {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    ending.emplace();
    if (WIFEXITED(status)) ending->exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) ending->signal = WTERMSIG(status);
  }
};

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const std::vector<std::string>& environment)
    : state_(std::make_unique<State>()) {
  state_->program = program;
  std::vector<std::string> words{program};
  // A test that is aborted must not leave a child behind that burns the processor.
  constexpr const char* setpriv = "/usr/bin/setpriv";
  const bool diesWithParent = ::access(program.c_str(), X_OK) == 0 && ::access(setpriv, X_OK) == 0;
  if (diesWithParent)  // resolved here: /proc/self is another one there
    words = {setpriv, "--pdeathsig", "KILL", "--", std::filesystem::canonical(program)};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> variables(environment);
  for (char** variable = environ; *variable != nullptr; ++variable) variables.push_back(*variable);
  auto argv = pointers(words);
  auto envp = pointers(variables);

  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&actions, state_->out.writeEnd, 1);
  ::posix_spawn_file_actions_adddup2(&actions, state_->err.writeEnd, 2);
  const int error =
      ::posix_spawn(&state_->pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start " + program + ": " + std::strerror(error));
  Pipe::closeEnd(state_->out.writeEnd);
  Pipe::closeEnd(state_->err.writeEnd);
  state_->exitDescriptor = static_cast<int>(::syscall(SYS_pidfd_open, state_->pid, 0));
  if (state_->exitDescriptor < 0) {
    ::kill(state_->pid, SIGKILL);
    state_->reap();
    throw std::runtime_error("cannot watch " + program + ": " + std::strerror(errno));
  }
}

ChildProcess::~ChildProcess() {
  if (state_->pid > 0 && !state_->ending) {
    ::kill(state_->pid, SIGKILL);
    state_->reap();
  }
}

pid_t ChildProcess::pid() const {
  return state_->pid;
}

std::string ChildProcess::waitForLine(const std::string& part, Milliseconds guard) {
  const auto end = Clock::now() + guard;
  for (std::size_t start = 0;;) {
    const auto newline = state_->outText.find('\n', start);
    if (newline != std::string::npos) {
      const auto line = state_->outText.substr(start, newline - start);
      if (line.find(part) != std::string::npos) return line;
      start = newline + 1;
      continue;
    }
    if (state_->out.readEnd < 0) state_->fail("ended before a line with '" + part + "'");
    if (!state_->pump(end)) state_->fail("wrote no line with '" + part + "' in time");
  }
}

std::string ChildProcess::standardOutput() {
  state_->readWhatIsThere();
  return state_->outText;
}

std::string ChildProcess::standardError() {
  state_->readWhatIsThere();
  return state_->errText;
}

bool ChildProcess::kill(int signal) {
  // Until it is reaped, the pid cannot be taken by another process.
  return !state_->ending && ::kill(state_->pid, signal) == 0;
}

ChildProcess::Ending ChildProcess::waitForExit(Milliseconds guard) {
  const auto end = Clock::now() + guard;
  while (!state_->exited) {
    if (!state_->pump(end)) state_->fail("did not end in time");
  }
  // Not to the end of the outputs: a program it left behind may hold them open.
  state_->readWhatIsThere();
  if (!state_->ending) state_->reap();
  return *state_->ending;
}

}  // namespace house

#include "support/child_process.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>

namespace house {
namespace {

int openDescriptors() {
  int count = 0;
  DIR* folder = ::opendir("/proc/self/fd");
  while (::readdir(folder) != nullptr) ++count;
  ::closedir(folder);
  return count;
}

TEST(ChildProcess, GivesOutputsAndExitCode) {
  ChildProcess child("/bin/sh", {"-c", "echo out; echo $WHO >&2; exit 3"}, {"WHO=me"});
  const auto ending = child.waitForExit();
  EXPECT_EQ(ending.exitCode, 3);
  EXPECT_FALSE(ending.signal);
  EXPECT_EQ(child.standardOutput(), "out\n");
  EXPECT_EQ(child.standardError(), "me\n");
  EXPECT_FALSE(child.kill(SIGTERM));
}

TEST(ChildProcess, WaitsForItsReadyLineAndTellsTheSignalThatEndedIt) {
  ChildProcess child("/bin/sh", {"-c", "echo early; echo ready on 7; exec sleep 1000"});
  EXPECT_EQ(child.waitForLine("ready"), "ready on 7");
  EXPECT_TRUE(child.kill(SIGKILL));
  EXPECT_EQ(child.waitForExit().signal, SIGKILL);
}

TEST(ChildProcess, SaysWhatItSawWhenTheReadyLineNeverComes) {
  ChildProcess silent("/bin/sh", {"-c", "echo other; exec sleep 1000"});
  EXPECT_THROW(silent.waitForLine("ready", std::chrono::milliseconds(100)), std::runtime_error);
  ChildProcess ended("/bin/sh", {"-c", "echo port in use"});
  try {
    ended.waitForLine("ready");
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find("port in use"), std::string::npos);
  }
}

TEST(ChildProcess, LeavesNoProcessAndNoDescriptorBehind) {
  const int before = openDescriptors();
  pid_t pid = 0;
  {
    ChildProcess running("/bin/sh", {"-c", "echo ready; exec sleep 1000"});
    running.waitForLine("ready");
    pid = running.pid();
    EXPECT_THROW(ChildProcess("/nowhere/program"), std::runtime_error);
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace
}  // namespace house

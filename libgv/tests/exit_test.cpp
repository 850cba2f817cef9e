#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/sanitized.h"

namespace {

/// Runs the program to its end, which has to be quiet: code 0, in time, no complaint.
house::ChildProcess::Ending endOf(house::ChildProcess& program) {
  const auto ending = program.waitForExit();
  EXPECT_EQ(ending.exitCode, 0) << program.standardError();
  return ending;
}

class Exit : public ::testing::TestWithParam<const char*> {};

TEST_P(Exit, IsQuietAndBounded) {
  for (int run = 0; run < 3; ++run) {
    const auto start = std::chrono::steady_clock::now();
    house::ChildProcess program(GV_EXIT_PROGRAM, {GetParam()});
    endOf(program);
    EXPECT_EQ(program.standardError(), "");
    EXPECT_LT(std::chrono::steady_clock::now() - start,
              std::chrono::seconds(house::isSanitized ? 30 : 10));
  }
}

std::vector<const char*> ways() {
  std::vector<const char*> all = {
      "blocked-in-futures", "blocked-in-foreign-code", "busy",     "delayed-tasks",
      "exit-in-task",       "waiter-of-queued-task",   "services", "late-use"};
#ifndef __SANITIZE_ADDRESS__  // whose own allocator may stay locked in the child of a fork
  all.push_back("fork-while-logging");
#endif
  return all;
}

INSTANTIATE_TEST_SUITE_P(Ways, Exit, ::testing::ValuesIn(ways()), [](const auto& way) {
  std::string name;
  for (const char c : std::string(way.param)) {
    if (c != '-') name += c;
  }
  return name;
});

TEST(ForkedChild, IsToldThatTheLoopHasNoThreadsThere) {
  house::ChildProcess program(GV_EXIT_PROGRAM, {"fork"});
  program.waitForLine("before the process forked");
  endOf(program);
}

TEST(Settings, ComeFromProgramAndEnvironment) {
  house::ChildProcess program(GV_EXIT_PROGRAM, {"settings"});
  program.waitForLine("GV_EVENTLOOP_MIN_THREADS: expected a number above 0, not \"many\"");
  endOf(program);
}

TEST(DefaultHandler, WritesWhatGvLogEnablesEscaped) {
  house::ChildProcess program(GV_EXIT_PROGRAM, {"log-lines"},
                              {"GV_LOG=warning,nonsense,chatty.*=verbose"});
  endOf(program);
  const std::string text = program.standardError();
  EXPECT_NE(text.find("chatty.one: logLines: forged\\n{}%n\n"), std::string::npos) << text;
  EXPECT_NE(text.find("cannot read \"nonsense\""), std::string::npos) << text;
  EXPECT_EQ(text.find("unwanted"), std::string::npos) << text;
}

TEST(DefaultHandler, ClosedStandardErrorDoesNotEndTheProcess) {
  house::ChildProcess program(GV_EXIT_PROGRAM, {"log-to-closed-pipe"});
  program.waitForLine("survived");
  endOf(program);
}

TEST(DefaultHandler, LosesAndCountsWhatNobodyReads) {
  for (const char* way : {"log-to-unread-pipe", "log-to-unread-socket", "log-to-unread-terminal"}) {
    house::ChildProcess program(GV_EXIT_PROGRAM, {way});
    EXPECT_EQ(program.waitForExit().exitCode, 0) << way;
  }
}

}  // namespace

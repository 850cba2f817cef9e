// The page about brokers: each snippet stands in the example, which does what it says.

#include <gmock/gmock.h>
#include <signal.h>

#include <string>

#include "support/child_process.h"
#include "support/page.h"

namespace {

TEST(BrokersPage, ShowsWhatTheExampleDoes) {
  EXPECT_GT(house::expectSnippetsIn(house::textOf(SOURCES "station.cpp"), house::textOf(PAGE)), 5);

  house::ChildProcess master(PROGRAM);
  const std::string line = master.waitForLine("listening on ");
  const std::string port = line.substr(line.rfind(' ') + 1);
  const std::string begin = "sees ServiceDirectory\nsees Base\nsees Arm\nBase answers: 1\n";
  const std::string end = "Arm answers: 1\nshut down\n";

  house::ChildProcess child(PROGRAM, {port});
  child.waitForLine("Base answers");
  child.kill(SIGINT);
  EXPECT_EQ(child.waitForExit().exitCode, 0) << child.standardError();
  EXPECT_EQ(child.standardOutput(), begin + "told to end\n" + end);

  house::ChildProcess left(PROGRAM, {port});
  left.waitForLine("Base answers");
  master.kill(SIGINT);
  EXPECT_EQ(master.waitForExit().exitCode, 0) << master.standardError();
  EXPECT_EQ(master.standardOutput(), line + "\nshut down\n");
  EXPECT_EQ(left.waitForExit().exitCode, 0) << left.standardError();
  EXPECT_EQ(left.standardOutput(), begin + "the master has gone\n" + end);

  house::ChildProcess late(PROGRAM, {port});
  EXPECT_EQ(late.waitForExit().exitCode, 1);
  EXPECT_EQ(late.standardOutput(), "shut down\n");
  EXPECT_NE(late.standardError().find("Cannot connect to tcp://127.0.0.1:" + port),
            std::string::npos);
}

}  // namespace

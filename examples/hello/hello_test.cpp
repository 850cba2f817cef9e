// The two programs as a person runs them.

#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "support/child_process.h"

namespace {

using house::ChildProcess;

std::string portIn(const std::string& readyLine) {
  return readyLine.substr(readyLine.rfind(':') + 1);
}

TEST(Hello, TheClientsCallsComeBackAsExpectedAndBothEndWell) {
  ChildProcess robot(HELLO_ROBOT, {"127.0.0.1", "0"});
  const std::string port = portIn(robot.waitForLine("listening on tcp://127.0.0.1:"));
  ChildProcess client(HELLO_CLIENT, {"127.0.0.1", port});
  EXPECT_EQ(client.waitForExit().exitCode, 0) << client.standardOutput();
  EXPECT_NE(client.standardOutput().find("Hello, Ada!"), std::string::npos);
  robot.kill(SIGTERM);
  EXPECT_EQ(robot.waitForExit().exitCode, 0) << robot.standardError();
}

TEST(Hello, ARobotOnAPortInUseSaysSoAndFails) {
  ChildProcess first(HELLO_ROBOT, {"127.0.0.1", "0"});
  const std::string port = portIn(first.waitForLine("listening on"));
  ChildProcess second(HELLO_ROBOT, {"127.0.0.1", port});
  EXPECT_EQ(second.waitForExit().exitCode, 1);
  EXPECT_NE(second.standardError().find("can't listen on tcp://127.0.0.1:" + port),
            std::string::npos);
  first.kill(SIGINT);
  EXPECT_EQ(first.waitForExit().exitCode, 0);
}

TEST(Hello, AClientWithoutARobotSaysSoAndFails) {
  std::string port;
  {
    ChildProcess robot(HELLO_ROBOT, {"127.0.0.1", "0"});
    port = portIn(robot.waitForLine("listening on"));
  }
  ChildProcess client(HELLO_CLIENT, {"127.0.0.1", port});
  EXPECT_EQ(client.waitForExit().exitCode, 1);
  EXPECT_NE(client.standardError().find("Cannot connect to tcp://127.0.0.1:" + port),
            std::string::npos);
}

TEST(Hello, WrongArgumentsShowTheUsage) {
  for (const char* port : {"-1", "65536", "12x", ""}) {
    ChildProcess robot(HELLO_ROBOT, {"127.0.0.1", port});
    EXPECT_EQ(robot.waitForExit().exitCode, 1) << port;
    EXPECT_NE(robot.standardError().find("usage: hello_robot"), std::string::npos) << port;
  }
  ChildProcess client(HELLO_CLIENT, {"127.0.0.1", "0"});
  EXPECT_EQ(client.waitForExit().exitCode, 1);
  EXPECT_NE(client.standardError().find("usage: hello_client"), std::string::npos);
}

}  // namespace

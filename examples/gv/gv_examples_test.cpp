// The examples as a person runs them: the robot in one process, the client in another.

#include <gtest/gtest.h>
#include <signal.h>

#include <ostream>
#include <string>

#include "support/child_process.h"

namespace {

using house::ChildProcess;

struct Example {
  std::string name;
  std::string robotSays;  // but for the line that it is listening
  std::string clientSays;
};

void PrintTo(const Example& example, std::ostream* out) {
  *out << example.name;
}

std::string programOf(const std::string& name) {
  return std::string(GV_EXAMPLES) + "/gv_" + name;
}

class GvExamples : public testing::TestWithParam<Example> {};

TEST_P(GvExamples, TellWhatTheySawAndEndWell) {
  ChildProcess robot(programOf(GetParam().name), {"robot", "tcp://127.0.0.1:0"});
  const std::string ready = robot.waitForLine("listening on tcp://127.0.0.1:");
  ChildProcess client(programOf(GetParam().name), {"client", ready.substr(ready.find("tcp://"))});
  EXPECT_EQ(client.waitForExit().exitCode, 0) << client.standardError();
  EXPECT_EQ(client.standardOutput(), GetParam().clientSays);
  robot.kill(SIGTERM);
  EXPECT_EQ(robot.waitForExit().exitCode, 0) << robot.standardError();
  EXPECT_EQ(robot.standardOutput(), ready + "\n" + GetParam().robotSays);
}

const Example examples[] = {
    {"publish", "",
     "service ServiceDirectory\n"
     "service Arm\n"
     "An arm with two fingers.\n"
     "method grip(d): Closes the fingers, and tells how far they are apart then, in mm.\n"
     "signal touched(d)\n"
     "signal speed(i)\n"
     "property speed(i)\n"},
    {"call", "",
     "the door is at 3, 4\n"
     "landmark 7 is at 7, 14\n"
     "the way to the door is 5 m\n"
     "error: an empty path has no length\n"},
    {"signal", "",
     "step 1, 0.25 m\n"
     "step 2, 0.5 m\n"
     "step 3, 0.75 m\n"
     "walked on unheard\n"},
    {"property", "turning the head to 30\n",
     "the angle is 0\n"
     "told that it is 30\n"
     "the angle is 30\n"
     "error: property 'angle': cannot convert string to double\n"},
    {"future", "",
     "hot soup with salt\n"
     "hot tea\n"
     "error: the toast is burnt\n"
     "the stew takes too long\n"},
};

INSTANTIATE_TEST_SUITE_P(Each, GvExamples, testing::ValuesIn(examples),
                         [](const auto& example) { return example.param.name; });

TEST(GvSides, AClientWithoutARobotSaysSoAndAWrongRoleShowsTheUsage) {
  ChildProcess client(programOf("call"), {"client", "tcp://127.0.0.1:1"});
  EXPECT_EQ(client.waitForExit().exitCode, 1);
  EXPECT_NE(client.standardError().find("tcp://127.0.0.1:1"), std::string::npos);
  ChildProcess neither(programOf("call"), {"watch", "tcp://127.0.0.1:1"});
  EXPECT_EQ(neither.waitForExit().exitCode, 1);
  EXPECT_NE(neither.standardError().find("usage: "), std::string::npos);
}

}  // namespace

// The page for authors of modules: each snippet stands in the example, which does what it says.

#include <gmock/gmock.h>

#include <string>

#include "support/child_process.h"
#include "support/page.h"

namespace {

TEST(ModulesPage, ShowsWhatTheExampleDoes) {
  const std::string folder = SOURCES;
  const std::string program =
      house::textOf(folder + "camera.h") + house::textOf(folder + "camera.cpp");
  EXPECT_GT(house::expectSnippetsIn(program, house::textOf(PAGE)), 5);

  house::ChildProcess camera(PROGRAM);
  EXPECT_EQ(camera.waitForExit().exitCode, 0) << camera.standardError();
  EXPECT_EQ(camera.standardOutput(),
            "picture 1\n"
            "Camera::take: the width must be 1 to 4096, not 0\n"
            "filmed until it was stopped\n"
            "picture 1\n"
            "[\"take\", \"Takes a picture.\", [[\"width\", \"In pixels, 1 to 4096.\"]], \"\", "
            "\"Which picture it is, from 1 on.\"]\n");
}

}  // namespace

// The page for authors of modules: each snippet stands in the example, which does what it says.

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>
#include <string>

#include "support/child_process.h"

namespace {

using testing::HasSubstr;

std::string textOf(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

TEST(ModulesPage, ShowsWhatTheExampleDoes) {
  const std::string folder = MODULES_FOLDER "/";
  const std::string program = textOf(folder + "camera.h") + textOf(folder + "camera.cpp");
  const std::string page = textOf(MODULES_PAGE);
  const std::string begin = "```cpp\n", end = "```\n";
  int snippets = 0;
  for (auto at = page.find(begin); at != std::string::npos; at = page.find(begin, at)) {
    at += begin.size();
    EXPECT_THAT(program, HasSubstr(page.substr(at, page.find(end, at) - at)));
    ++snippets;
  }
  EXPECT_GT(snippets, 5);

  house::ChildProcess camera(CAMERA);
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

#pragma once

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>
#include <string>

namespace house {

inline std::string textOf(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

/// Expects that each C++ snippet of a page stands in a program's text. Returns how many there are.
inline int expectSnippetsIn(const std::string& program, const std::string& page) {
  const std::string begin = "```cpp\n", end = "```\n";
  int snippets = 0;
  for (auto at = page.find(begin); at != std::string::npos; at = page.find(begin, at)) {
    at += begin.size();
    EXPECT_THAT(program, testing::HasSubstr(page.substr(at, page.find(end, at) - at)));
    ++snippets;
  }
  return snippets;
}

}  // namespace house

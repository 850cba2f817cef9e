#include "src/logfilter.h"

#include <gtest/gtest.h>

#include "src/stderrhandler.h"

namespace gv::log {
namespace {

TEST(LogFilter, PatternMatchesTheWholeName) {
  EXPECT_TRUE(matchesPattern("*", ""));
  EXPECT_TRUE(matchesPattern("*broker*er", "my.broker.manager"));
  EXPECT_TRUE(matchesPattern("gv.?og", "gv.log"));
  EXPECT_FALSE(matchesPattern("JXBroker", "JXBroker.manager"));
  EXPECT_FALSE(matchesPattern("a*b", "acbc"));
}

TEST(LogFilter, HostilePatternEndsSoon) {
  const std::string text(20000, 'a');
  std::string pattern;
  for (int i = 0; i < 30; ++i) pattern += "a*";
  EXPECT_FALSE(matchesPattern(pattern + "b", text));
}

TEST(LogFilter, ReadsTheEnvironmentsNotation) {
  Filters filters;
  EXPECT_EQ(applyFilters(" warning , JXBroker*=verbose,", filters), "");
  EXPECT_EQ(filters.levelOf("other"), Level::Warning);
  EXPECT_EQ(filters.levelOf("JXBroker.manager"), Level::Verbose);
  EXPECT_EQ(applyFilters("loud,=info,gv=debug", filters), "loud");
  EXPECT_EQ(filters.levelOf("gv"), Level::Debug);
  EXPECT_EQ(applyFilters("*=error", filters), "");
  EXPECT_EQ(filters.levelOf("gv"), Level::Error) << "the last rule that matches decides";
}

TEST(LogEscape, ControlCharactersCannotForgeLinesOrSteerTerminals) {
  EXPECT_EQ(escapeControls("a\nb\r\t\x1b[2J\x7f"), "a\\nb\\r\\t\\x1b[2J\\x7f");
  EXPECT_EQ(escapeControls("\xc2\x9b"
                           "31m"),
            "\\xc2\\x9b31m");
  EXPECT_EQ(escapeControls("gr\xc3\xbc\xc3\x9f \xc2\xa9 {} %n"),
            "gr\xc3\xbc\xc3\x9f \xc2\xa9 {} %n");
  EXPECT_EQ(escapeControls(std::string_view("\0", 1)), "\\x00");
}

}  // namespace
}  // namespace gv::log

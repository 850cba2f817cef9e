// The page for callers: each snippet stands in the example, which does what it says.

#include <gmock/gmock.h>

#include <string>

#include "support/child_process.h"
#include "support/page.h"

namespace {

TEST(CallsPage, ShowsWhatTheExampleDoes) {
  const std::string page = house::textOf(PAGE);
  EXPECT_GT(house::expectSnippetsIn(house::textOf(SOURCES "calls.cpp"), page), 5);

  house::ChildProcess calls(PROGRAM);
  EXPECT_EQ(calls.waitForExit().exitCode, 0) << calls.standardError();
  const std::string failures =
      "unknown method 'trun(si)': there is no method of that name; did you mean: turn(sd)?\n"
      "no single method matches 'turn(ss)'; candidate(s): turn(sd); argument 2 cannot convert from "
      "s to d\n"
      "Return argument conversion error: cannot convert double 0.5 to int32: the value does not "
      "fit\n"
      "JXProxy(Arm).pcall Can't find single match for turn\n"
      "  Candidate(s):\n"
      "  turn(sd)\n";
  EXPECT_EQ(calls.standardOutput(),
            "elbow from 0 to 45\n"
            "wrist from 0.0, now [[\"elbow\", 45.0], [\"wrist\", 30.0]]\n"
            "waved, and was stopped\n"
            "found as a method of 2 arguments\n"
            "not yet, so something else meanwhile\n"
            "Arm::turn: elbow turns from -90 to 90\n" +
                failures + "\n");
  EXPECT_THAT(page, testing::HasSubstr(failures));
}

}  // namespace

#include "src/rpc/recordlimit.h"

#include <gtest/gtest.h>

namespace gv::rpc {
namespace {

using namespace std::chrono_literals;

std::string kind(std::size_t number) {
  return "kind " + std::to_string(number);
}

TEST(RecordLimit, WritesOneOfEachKindInASecondAndCountsTheRest) {
  RecordLimit limit;
  const RecordLimit::Time start(5h);
  EXPECT_EQ(limit.admit("a", start), 0u);
  EXPECT_EQ(limit.admit("b", start), 0u);
  for (int i = 0; i < 7; ++i) EXPECT_FALSE(limit.admit("a", start + 999ms));
  EXPECT_EQ(limit.admit("a", start + 1s), 7u);
  EXPECT_FALSE(limit.admit("a", start + 1s));
  EXPECT_EQ(limit.admit("b", start + 9s), 0u);
}

TEST(RecordLimit, IsNeitherBlindedNorFilledByAnyNumberOfKinds) {
  RecordLimit limit;
  const RecordLimit::Time start(5h);
  int written = 0;
  for (std::size_t i = 0; i < 100'000; ++i) written += limit.admit(kind(i), start).has_value();
  EXPECT_EQ(written, static_cast<int>(RecordLimit::mostKinds) + 1) << "and one that is shared";
  EXPECT_FALSE(limit.admit(kind(0), start + 1ms));
  EXPECT_EQ(limit.admit(kind(100'000), start + 1s), 0u) << "the quiet ones made room";
  EXPECT_FALSE(limit.admit(kind(100'000), start + 1s));
  int leftOut = 0;
  for (std::size_t i = 0; i < 2 * RecordLimit::mostKinds; ++i)
    leftOut += static_cast<int>(limit.admit(kind(i), start + 3s).value_or(0));
  EXPECT_EQ(leftOut, 100'000 - written + 2) << "each is told of once";
}

}  // namespace
}  // namespace gv::rpc

#include <gtest/gtest.h>
#include <jxerror/jxerror.h>
#include <jxvalue/jxvalue.h>

#include <utility>

#include "support/smallstack.h"

namespace JX {
namespace {

constexpr int deep = 100000;

// `depth` arrays inside each other, each with a scalar on both sides of the next.
JXValue nested(int depth, int innermost) {
  JXValue value = innermost;
  for (int i = 0; i < depth; ++i) {
    JXValue outer;
    outer[2] = "after";
    outer[0] = i;
    outer[1] = std::move(value);
    value = std::move(outer);
  }
  return value;
}

TEST(JXValueDepth, CopiesComparesAndDestroysVeryDeepValues) {
  house::runOnSmallStack([] {
    JXValue value = nested(deep, 1);
    const JXValue copy = value;
    EXPECT_TRUE(copy == value);
    EXPECT_TRUE(copy < nested(deep, 2));
    value = JXValue();
    EXPECT_EQ(copy.getSize(), 3);
  });
}

TEST(JXValueDepth, DestroysTheDeepPartThatIsReplacedOrCutOff) {
  house::runOnSmallStack([] {
    JXValue value = nested(deep, 1);
    value[1][1] = 0;
    EXPECT_EQ(value[1][1], JXValue(0));
    value.arrayPush(nested(deep, 1));
    value.arraySetSize(0);
    EXPECT_EQ(value.getSize(), 0);
  });
}

TEST(JXValueDepth, CopiesAndDestroysEveryShapeOfASmallTree) {
  // Each bit of `shape` says whether an element is a leaf or opens an array of two.
  for (unsigned shape = 0; shape < 4096; ++shape) {
    JXValue root;
    std::vector<int> path;
    for (unsigned bits = shape; bits != 0; bits >>= 2) {
      JXValue* place = &root;
      for (const int index : path) place = &(*place)[index];
      place->arraySetSize(static_cast<int>(bits & 3));
      if ((bits & 3) > 1) (*place)[1] = "leaf";
      path.push_back((bits & 3) == 3 ? 2 : 0);
    }
    EXPECT_EQ(JXValue(root), root);
  }
}

TEST(JXValueDepth, RefusesJsonBeyond64LevelsBothWays) {
  JXValue value = std::vector<int>{};
  for (int i = 1; i < 64; ++i) value = std::vector<JXValue>{value};
  const std::string text = value.toJson();
  EXPECT_EQ(JXValue::fromJson(text), value);
  EXPECT_THROW(JXValue::fromJson("[" + text + "]"), JXError);
  EXPECT_THROW(JXValue(std::vector<JXValue>{value}).toJson(), JXError);
  EXPECT_THROW(nested(deep, 1).toJson(), JXError);
  EXPECT_THROW(JXValue::fromJson(std::string(deep, '[')), JXError);
}

}  // namespace
}  // namespace JX

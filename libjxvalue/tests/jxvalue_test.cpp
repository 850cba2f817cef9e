#include <gtest/gtest.h>
#include <jxerror/jxerror.h>
#include <jxvalue/jxvalue.h>

#include <cstdint>
#include <limits>
#include <type_traits>

namespace JX {
namespace {

constexpr auto nan = std::numeric_limits<double>::quiet_NaN();

static_assert(!std::is_constructible_v<JXValue, const int*>, "a pointer must not become a bool");
static_assert(!std::is_constructible_v<JXValue, std::nullptr_t>);
static_assert(!std::is_constructible_v<JXValue, std::vector<const int*>>);
static_assert(std::is_nothrow_move_constructible_v<JXValue>);

JXValue array(std::vector<JXValue> elements) {
  return JXValue(elements);
}

// One of each group, in ascending order.
const std::vector<JXValue>& ladder() {
  static const std::vector<JXValue> values = {
      JXValue(),
      false,
      true,
      std::numeric_limits<std::int64_t>::min(),
      -1,
      0u,
      std::numeric_limits<std::int64_t>::max(),
      std::numeric_limits<std::uint64_t>::max(),
      nan,
      -1.5,
      0.0,
      "",
      "a",
      "b",
      JXValue::binary("a", 1),
      JXValue::binary("b", 1),
      array({}),
      array({1}),
      array({1, 1}),
      array({array({1}), 2}),
  };
  return values;
}

TEST(JXValue, RefusesToReadIntegersThatDoNotFit) {
  EXPECT_EQ(JXValue(std::int64_t{-7}).toInt(), -7);
  EXPECT_EQ(JXValue(7ULL).toInt64(), 7);
  EXPECT_THROW(JXValue(std::int64_t{1} << 31).toInt(), JXError);
  EXPECT_THROW(JXValue(3000000000u).toInt(), JXError);
  EXPECT_THROW(JXValue(-1).toUInt64(), JXError);
  EXPECT_THROW(JXValue(~0ULL).toInt64(), JXError);
  EXPECT_EQ(JXValue(std::int64_t{1} << 53).toDouble(), 0x1p53);
  EXPECT_THROW(JXValue((std::int64_t{1} << 53) + 1).toDouble(), JXError);
  EXPECT_THROW(JXValue(~0ULL).toDouble(), JXError);
}

TEST(JXValue, NeverReadsAnotherKind) {
  const auto reads = [](auto read) {
    try {
      read();
      return true;
    } catch (const JXError&) {
      return false;
    }
  };
  for (const auto& value : ladder()) {
    EXPECT_EQ(reads([&] { value.toBool(); }), value.isBool());
    EXPECT_EQ(reads([&] { value.toString(); }), value.isString());
    EXPECT_EQ(reads([&] { value.toBinary(); }), value.isBinary());
    EXPECT_EQ(reads([&] { value.getSize(); }), value.isArray() || !value.isValid());
    EXPECT_FALSE(reads([&] { value.toInt64(); }) && !value.isInt());
    EXPECT_FALSE(reads([&] { value.toDouble(); }) && !value.isInt() && !value.isFloat());
  }
  EXPECT_THROW(JXValue(static_cast<const char*>(nullptr)), JXError);
}

TEST(JXValue, GrowsByPositionOnlyWhenChangeable) {
  JXValue value;
  value[2] = "third";
  EXPECT_EQ(value, array({JXValue(), JXValue(), "third"}));
  const JXValue& constant = value;
  EXPECT_THROW(constant[3], JXError);
  EXPECT_THROW(value[-1], JXError);
  EXPECT_THROW(value.arraySetSize(-1), JXError);
  EXPECT_EQ(value.getSize(), 3);
  value.arraySetSize(1);
  EXPECT_EQ(value, array({JXValue()}));
  JXValue text("text");
  EXPECT_THROW(text[0], JXError);
  EXPECT_THROW(text.arrayPush(1), JXError);
  EXPECT_EQ(text, JXValue("text"));
}

TEST(JXValue, CopiesAreIndependent) {
  const JXValue original = array({array({1, "two"}), 3});
  JXValue copy = original;
  copy[0][1] = "changed";
  copy[0].arrayPush(4);
  EXPECT_EQ(original, array({array({1, "two"}), 3}));
  JXValue moved = std::move(copy);
  EXPECT_EQ(moved[0].getSize(), 3);
  EXPECT_FALSE(copy.isValid());
}

TEST(JXValue, SurvivesBeingAssignedToAPartOfItselfAndBack) {
  JXValue value = array({array({1, 2}), 3});
  value[1] = value;
  EXPECT_EQ(value, array({array({1, 2}), array({array({1, 2}), 3})}));
  value.arrayPush(value[0]);
  value.arrayPush(value);
  EXPECT_EQ(value.getSize(), 4);
  value = value[1];
  EXPECT_EQ(value, array({array({1, 2}), 3}));
  value = std::move(value[0]);
  EXPECT_EQ(value, array({1, 2}));
}

TEST(JXValue, HasOneTotalOrderThatEqualityAgreesWith) {
  EXPECT_EQ(JXValue(1), JXValue(1ULL));
  EXPECT_LT(JXValue(-1), JXValue(0ULL));
  const auto& values = ladder();
  for (std::size_t i = 0; i < values.size(); ++i) {
    for (std::size_t j = 0; j < values.size(); ++j) {
      EXPECT_EQ(values[i] < values[j], i < j) << i << " and " << j;
      EXPECT_EQ(values[i] == values[j], i == j) << i << " and " << j;
    }
  }
}

}  // namespace
}  // namespace JX

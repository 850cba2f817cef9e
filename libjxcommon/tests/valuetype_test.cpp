// JXValue in the type system: what becomes what, in both directions, and what is refused.

#include <gtest/gtest.h>
#include <gvtype/conversion.h>
#include <gvtype/futuretype.h>
#include <jxcommon/jxvaluetype.h>

#include <map>
#include <optional>
#include <tuple>

namespace JX {
namespace {

using gv::AnyReference;
using gv::AnyValue;

const gv::DynamicOps& operations = *gv::getType<JXValue>()->dynamic;

TEST(ValueType, EachKindKeepsItsContentBothWays) {
  const std::string bytes("a\0b", 3);
  const std::vector<AnyValue> mixed = {AnyValue::from(AnyValue::from(1)), AnyValue()};
  const struct {
    AnyValue source;
    JXValue expected;
    const char* content;
  } rows[] = {
      {AnyValue::from(true), true, "b"},
      {AnyValue::from(std::int8_t{-128}), -128, "i"},
      {AnyValue::from(std::uint8_t{255}), 255u, "u"},
      {AnyValue::from(std::uint32_t{UINT32_MAX}), UINT32_MAX, "u"},
      {AnyValue::from(std::int64_t{INT64_MIN}), std::int64_t{INT64_MIN}, "x"},
      {AnyValue::from(std::uint64_t{UINT64_MAX}), std::uint64_t{UINT64_MAX}, "t"},
      {AnyValue::from(0.5f), 0.5, "d"},
      {AnyValue::from(bytes), bytes, "s"},
      {AnyValue::from(gv::Buffer(bytes.data(), 3)), JXValue::binary(bytes.data(), 3), "r"},
      {AnyValue::from(std::vector<bool>{true}), std::vector<JXValue>{true}, "av"},
      {AnyValue::from(std::make_tuple(1, bytes)), std::vector<JXValue>{1, bytes}, "av"},
      {AnyValue::from(std::map<int, bool>{{1, true}}), JXValue::fromJson("[[1, true]]"), "av"},
      {AnyValue::from(mixed), JXValue::fromJson("[1, null]"), "av"},
      {AnyValue::from(std::optional<int>(5)), JXValue(5), "i"},
      {AnyValue::from(std::optional<int>()), JXValue(), ""},
      {AnyValue(), JXValue(), ""},
  };
  for (const auto& row : rows) {
    JXValue value("to be replaced");
    operations.assign(&value, row.source.asReference());
    EXPECT_EQ(value, row.expected) << row.source.signature();
    const AnyReference content = operations.content(&value);
    EXPECT_EQ(content.signature(), row.content) << row.source.signature();
    EXPECT_EQ(AnyValue::copyOf(content).to<AnyValue>().to<JXValue>(), row.expected);
  }
}

TEST(ValueType, ArraysConvertElementByElement) {
  const JXValue array = std::vector<JXValue>{1, 2.0, std::vector<JXValue>{true}};
  const auto tuple = AnyReference::from(array).to<std::tuple<int, int, std::vector<bool>>>();
  EXPECT_EQ(tuple, std::make_tuple(1, 2, std::vector<bool>{true}));
  EXPECT_THROW(AnyReference::from(array).to<std::vector<int>>(), gv::ConversionError);
}

AnyValue nested(int levels) {  // of a list and a dynamic value each
  AnyValue value = AnyValue::from(1);
  for (int i = 0; i < levels; ++i) value = AnyValue::from(std::vector<AnyValue>{value});
  return value;
}

TEST(ValueType, WhatIsNoValueAndWhatIsTooDeepIsRefused) {
  struct Undescribed {};
  using Reason = gv::ConversionError::Reason;
  const auto reasonOf = [](const AnyReference& source) {
    try {
      source.to<JXValue>();
    } catch (const gv::ConversionError& error) {
      return error.reason();
    }
    throw std::logic_error("it became a JXValue");
  };
  EXPECT_EQ(reasonOf(AnyReference::own(Undescribed())), Reason::Kind);
  EXPECT_EQ(reasonOf(AnyReference::own(gv::makeReadyFuture(1))), Reason::Kind);
  EXPECT_TRUE(nested(31).to<JXValue>().isArray());
  EXPECT_EQ(reasonOf(AnyReference::own(std::vector<std::vector<AnyValue>>{{nested(31)}})),
            Reason::Value);
}

}  // namespace
}  // namespace JX

#include <gtest/gtest.h>
#include <jxerror/jxerror.h>
#include <jxvalue/jxvalue.h>

#include <limits>
#include <nlohmann/json.hpp>

namespace JX {
namespace {

using Limits = std::numeric_limits<double>;

std::string errorOf(const std::string& text) {
  try {
    JXValue::fromJson(text);
  } catch (const JXError& error) {
    return error.description();
  }
  return "no error";
}

TEST(JXValueJson, ReturnsEveryValueUnchanged) {
  std::string everyByte;
  for (int i = 0; i < 256; ++i) everyByte += static_cast<char>(i);
  const std::vector<JXValue> values = {JXValue(),
                                       false,
                                       std::numeric_limits<std::int64_t>::min(),
                                       ~0ULL,
                                       0.1,
                                       Limits::max(),
                                       Limits::denorm_min(),
                                       -Limits::infinity(),
                                       Limits::quiet_NaN(),
                                       std::string("nul\0", 4),
                                       everyByte,
                                       "\xed\xa0\x80",
                                       "cut \xe2\x82",
                                       JXValue::binary(everyByte.data(), 254),
                                       JXValue::binary(everyByte.data(), 255),
                                       JXValue::binary("", 0)};
  for (const auto& value : values) {
    const std::string text = value.toJson();
    EXPECT_TRUE(nlohmann::json::accept(text)) << text;
    EXPECT_EQ(JXValue::fromJson(text), value) << text;
  }
  EXPECT_EQ(JXValue::fromJson(JXValue(values).toJson()), JXValue(values));
}

TEST(JXValueJson, GivesIntegersTheFirstTypeThatHoldsThem) {
  EXPECT_EQ(JXValue::fromJson("2147483647").kind(), JXValue::Kind::Int);
  EXPECT_EQ(JXValue::fromJson("-2147483649").kind(), JXValue::Kind::Int64);
  EXPECT_EQ(JXValue::fromJson("9223372036854775807").kind(), JXValue::Kind::Int64);
  EXPECT_EQ(JXValue::fromJson("9223372036854775808").kind(), JXValue::Kind::UInt64);
  EXPECT_EQ(JXValue::fromJson("1e2").kind(), JXValue::Kind::Float);
}

TEST(JXValueJson, RefusesWhatItCannotHold) {
  const char* refused[] = {"",
                           "[1,]",
                           "[1] 2",
                           "'a'",
                           "\"\xff\"",
                           "nan",
                           "1e999",
                           "18446744073709551616",
                           "-9223372036854775809",
                           "{}",
                           R"({"a": "b"})",
                           R"({"$binary": 1})",
                           R"({"$binary": {}})",
                           R"({"$binary": "A"})",
                           R"({"$binary": "AP9="})",
                           R"({"$binary": "AP8=AA"})",
                           R"({"$float": "1"})",
                           R"({"$binary": "", "$binary": ""})"};
  for (const auto* text : refused) EXPECT_NE(errorOf(text), "no error") << text;
  EXPECT_NE(errorOf("[1,\n 2,, 3]").find("line 2, column 4"), std::string::npos);
}

}  // namespace
}  // namespace JX

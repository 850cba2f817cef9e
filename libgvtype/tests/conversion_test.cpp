// The conversion table: what converts to what, and that nothing is ever lost in silence.

#include <gvtype/conversion.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <gvtype/dynamicobjectbuilder.h>
#include <gvtype/futuretype.h>
#include <gvtype/genericvalues.h>
#include <gvtype/struct.h>

#include "support/thrown.h"

namespace gv {
namespace {

struct Minutes {
  int minute = 0;
  int second = 0;
};
GV_STRUCT(Minutes, minute, second)
/// Of the same values, at the same places, as minutes.
struct Seconds {
  int second = 0;
  int minute = 0;
};
GV_STRUCT(Seconds, second, minute)

/// The value converted, or nothing when the conversion is refused.
template <class To, class From>
std::optional<To> converted(const From& value) {
  try {
    return AnyReference::from(value).template to<To>();
  } catch (const ConversionError&) {
    return std::nullopt;
  }
}

template <class To, class From>
std::string errorOf(const From& value) {
  return house::errorOf<ConversionError>([&] { AnyReference::from(value).template to<To>(); });
}

template <class T>
class IntegerConversion : public testing::Test {};
using Integers = testing::Types<std::int8_t, std::uint8_t, std::int16_t, std::uint16_t,
                                std::int32_t, std::uint32_t, std::int64_t, std::uint64_t>;
TYPED_TEST_SUITE(IntegerConversion, Integers);

TYPED_TEST(IntegerConversion, TakesExactlyWhatFits) {
  using Limits = std::numeric_limits<TypeParam>;
  EXPECT_EQ(converted<TypeParam>(static_cast<std::int64_t>(1)), TypeParam{1});
  EXPECT_EQ(converted<std::int64_t>(Limits::min()), static_cast<std::int64_t>(Limits::min()));
  EXPECT_EQ(converted<std::uint64_t>(Limits::max()), static_cast<std::uint64_t>(Limits::max()));
  if constexpr (sizeof(TypeParam) < 8) {
    EXPECT_EQ(converted<TypeParam>(static_cast<std::int64_t>(Limits::max())), Limits::max());
    EXPECT_EQ(converted<TypeParam>(static_cast<std::int64_t>(Limits::max()) + 1), std::nullopt);
    EXPECT_EQ(converted<TypeParam>(static_cast<std::int64_t>(Limits::min()) - 1), std::nullopt);
  }
  EXPECT_EQ(
      converted<TypeParam>(std::int64_t{-1}),
      Limits::is_signed ? std::optional<TypeParam>(static_cast<TypeParam>(-1)) : std::nullopt);
  // From floats at the edge: the first number beyond the range is a power of two, hence exact.
  EXPECT_EQ(converted<TypeParam>(std::ldexp(1.0, Limits::digits)), std::nullopt);
  EXPECT_EQ(converted<TypeParam>(std::ldexp(1.0, Limits::digits - 1)),
            static_cast<TypeParam>(TypeParam{1} << (Limits::digits - 1)));
  EXPECT_EQ(converted<TypeParam>(0.5), std::nullopt);
}

TEST(Conversion, KeepsLargeIntegersApart) {
  EXPECT_EQ(converted<std::int64_t>(std::numeric_limits<std::uint64_t>::max()), std::nullopt);
  EXPECT_EQ(converted<std::uint64_t>(std::numeric_limits<std::int64_t>::min()), std::nullopt);
  EXPECT_EQ(converted<double>((std::int64_t{1} << 53) + 1), std::nullopt);
  EXPECT_EQ(converted<double>(std::int64_t{1} << 53), 9007199254740992.0);
  EXPECT_EQ(converted<double>(std::numeric_limits<std::int64_t>::min()), -9223372036854775808.0);
  EXPECT_EQ(converted<float>(16777217), std::nullopt);
}

TEST(Conversion, OfBoolsAndFloats) {
  EXPECT_EQ(converted<int>(true), 1);
  EXPECT_EQ(converted<bool>(0), false);
  EXPECT_EQ(converted<bool>(2), std::nullopt);
  EXPECT_EQ(converted<bool>(1.0), std::nullopt);
  EXPECT_EQ(converted<float>(0.5), 0.5f);
  EXPECT_EQ(converted<float>(0.1), std::nullopt);
  EXPECT_EQ(converted<float>(1e300), std::nullopt);
  EXPECT_TRUE(std::isnan(*converted<float>(std::nan(""))));
  EXPECT_EQ(converted<float>(-std::numeric_limits<double>::infinity()),
            -std::numeric_limits<float>::infinity());
  EXPECT_EQ(converted<int>(std::nan("")), std::nullopt);
}

TEST(Conversion, GoesElementByElementThroughContainers) {
  EXPECT_EQ(converted<std::vector<double>>(std::vector<int>{1, 2}), (std::vector<double>{1, 2}));
  EXPECT_EQ(converted<std::vector<bool>>(std::vector<int>{1, 0}), (std::vector<bool>{true, false}));
  EXPECT_EQ(converted<std::vector<int>>(std::vector<bool>{true}), std::vector<int>{1});
  const std::vector<AnyValue> dynamic = {AnyValue::from(1), AnyValue::from("a")};
  using Pair = std::pair<int, std::string>;
  EXPECT_EQ((converted<Pair>(dynamic)), (Pair{1, "a"}));
  EXPECT_EQ((converted<std::tuple<int>>(dynamic)), std::nullopt);
  EXPECT_EQ(converted<std::vector<int>>(std::tuple<int, long>{1, 2}), (std::vector<int>{1, 2}));
  const std::map<std::string, int> map = {{"a", 1}};
  EXPECT_EQ((converted<std::map<std::string, long>>(map)), (std::map<std::string, long>{{"a", 1}}));
  EXPECT_EQ(converted<std::vector<int>>(map), std::nullopt);
  MapValue twice{"a{vi}", {{AnyValue::from("a"), AnyValue::from(1)}}};
  EXPECT_EQ((converted<std::map<std::string, int>>(twice)), map);
  twice.entries.push_back(twice.entries[0]);
  EXPECT_EQ((errorOf<std::map<std::string, int>>(twice)),
            "cannot convert map to map<string, int32>: two of its keys become the same");
}

TEST(Conversion, OfListsOfPairsMakesMaps) {
  using Map = std::map<bool, int>;
  using Dynamics = std::vector<AnyValue>;
  const auto pair = [](auto... members) {
    return AnyValue::from(Dynamics{AnyValue::from(members)...});
  };
  EXPECT_EQ(converted<Map>(std::vector<std::tuple<bool, long>>{{true, 1}}), (Map{{true, 1}}));
  EXPECT_EQ(
      (converted<std::map<bool, bool>>(Dynamics{AnyValue::from(std::vector<bool>{true, false})})),
      (std::map<bool, bool>{{true, false}}));
  EXPECT_EQ(converted<Map>(Dynamics{pair(true, 1), pair(false, 2)}), (Map{{false, 2}, {true, 1}}));
  EXPECT_EQ(converted<Map>(Dynamics{}), Map());
  EXPECT_EQ(converted<Map>(Dynamics{pair(true, 1), pair(true, 2)}), std::nullopt) << "same keys";
  for (const Dynamics& no :
       {Dynamics{pair(true)}, Dynamics{pair(true, 1, 1)}, Dynamics{AnyValue()}})
    EXPECT_EQ(converted<Map>(no), std::nullopt);
  EXPECT_EQ(converted<Map>(std::vector<std::vector<int>>{{1, 2}}), std::nullopt) << "a matrix";
  EXPECT_EQ(converted<Map>(std::vector<Minutes>{{1, 2}}), std::nullopt) << "structs";
  EXPECT_EQ(errorOf<Map>(Dynamics{pair(true, 1), pair(true)}),
            "cannot convert list<dynamic> to map<bool, int32>: an element is no pair (element 2)");
}

TEST(Conversion, OfListsOfPairsMakesMapsOnlyWhereNoListWillDo) {
  bool looksAtValue = false;
  const auto cost = [&](const auto& value, const std::string& signature) {
    return conversionCost(AnyReference::from(value), signature, &looksAtValue);
  };
  using Pairs = std::vector<std::pair<std::string, int>>;
  EXPECT_EQ(cost(Pairs(), "a{ii}"), -1) << "by type, also without elements";
  EXPECT_EQ(cost(std::vector<short>{}, "a{ii}"), -1);
  EXPECT_LT(cost(std::vector<std::pair<std::string, short>>{}, "a(si)"), cost(Pairs(), "a{si}"));
  EXPECT_FALSE(looksAtValue);
  for (const auto& list : {std::vector<AnyValue>{}, {AnyValue::from(std::make_pair(1, 2.0))}})
    for (const char* signature : {"av", "a(dd)", "a(ii)"})
      EXPECT_LT(cost(list, signature), cost(list, "a{id}")) << signature;
}

TEST(Conversion, ThroughGenericValuesComesBackUnchanged) {
  using Nested = std::map<std::string, std::vector<std::pair<int, std::string>>>;
  const Nested value = {{"a", {{1, "x"}, {2, "y"}}}, {"b", {}}};
  const AnyReference reference = AnyReference::from(value);
  const AnyValue generic = convertTo(reference, reference.signature());
  EXPECT_EQ(generic.signature(), "a{sa(is)}");
  EXPECT_NE(generic.type(), getType<Nested>());
  EXPECT_EQ(generic.to<Nested>(), value);
}

TEST(Conversion, KeepsTheEmptyOptionalApartFromTheOneThatHoldsNothing) {
  using Twice = std::optional<std::optional<int>>;
  EXPECT_EQ(AnyValue().to<Twice>(), Twice());
  EXPECT_FALSE(AnyReference::own(Twice()).to<AnyValue>().isValid());
  const Twice holdsNothing{std::optional<int>()};
  EXPECT_EQ(AnyReference::from(holdsNothing).to<AnyValue>().to<Twice>(), holdsNothing);
  const AnyValue generic = convertTo(AnyReference::from(holdsNothing), "mmx");
  EXPECT_EQ(generic.signature(), "mmx");
  EXPECT_EQ(generic.to<Twice>(), holdsNothing);
}

TEST(Conversion, ErrorsNameTypesAndPlace) {
  EXPECT_EQ(errorOf<int>(std::string("x")), "cannot convert string to int32");
  EXPECT_EQ(errorOf<std::uint8_t>(300),
            "cannot convert int32 300 to uint8: the value does not fit");
  using Lists = std::vector<std::vector<AnyValue>>;
  const Lists lists = {{}, {AnyValue::from(1), AnyValue::from("x")}};
  EXPECT_EQ(errorOf<std::vector<std::vector<int>>>(lists),
            "cannot convert string to int32 (element 2, element 2)");
  EXPECT_EQ(errorOf<std::vector<int>>(std::vector<std::optional<int>>{std::nullopt}),
            "cannot convert optional<int32> to int32: the optional is empty (element 1)");
  EXPECT_EQ(errorOf<int>(makeFailedFuture<int>("no power")),
            "cannot convert future<int32> to int32: the future failed: no power");
}

TEST(Order, IsTotalOverAllKinds) {
  const std::vector<AnyValue> ascending = {
      AnyValue(),
      AnyValue::from(std::nan("")),
      AnyValue::from(-1),
      AnyValue::from(0.5),
      AnyValue::from(9007199254740992.0),
      AnyValue::from((std::int64_t{1} << 53) + 1),
      AnyValue::from(std::numeric_limits<std::uint64_t>::max()),
      AnyValue::from("a"),
      AnyValue::from("b"),
      AnyValue::from(std::tuple<int, int>{1, 2}),
      AnyValue::from(std::vector<int>{1, 2, 0}),
      AnyValue::from(std::map<std::string, int>{{"a", 1}, {"b", 2}}),
      AnyValue::from(std::map<std::string, int>{{"a", 2}}),
      AnyValue::from(Minutes{1, 2}),
      AnyValue::from(Seconds{1, 2})};
  for (std::size_t i = 0; i < ascending.size(); ++i)
    for (std::size_t j = 0; j < ascending.size(); ++j) {
      EXPECT_EQ(ascending[i] < ascending[j], i < j) << i << " " << j;
      EXPECT_EQ(ascending[i] == ascending[j], i == j) << i << " " << j;
    }
  EXPECT_EQ(AnyValue::from(1), AnyValue::from(1.0));
  EXPECT_EQ(AnyValue::from(std::vector<int>{1, 2}), AnyValue::from(std::tuple<int, long>{1, 2}));
  EXPECT_EQ(AnyValue::from(std::map<int, int, std::greater<>>{{1, 2}, {3, 4}}),
            AnyValue::from(std::map<int, int>{{1, 2}, {3, 4}}));
  EXPECT_EQ(AnyValue::from(Minutes{1, 2}),
            convertTo(AnyReference::own(Minutes{1, 2}), "(xx)<Any,second,minute>"));
  const auto object = [] { return AnyValue::from(DynamicObjectBuilder().object()); };
  const AnyValue one = object();
  EXPECT_EQ(one, AnyValue(one));
  EXPECT_FALSE(one == object());
}

}  // namespace
}  // namespace gv

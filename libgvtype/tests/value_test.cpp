// Value laws: copies, moves, aliases, lifetimes.

#include <gvtype/anyvalue.h>

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gvtype/genericfunctionparameters.h>

#include "support/live_counter.h"

namespace gv {
namespace {

house::LiveCounter largeOnes;
house::LiveCounter uncopyableOnes;

/// Counts its instances; too large to live inline.
struct Large {
  house::LiveCounter::Mark mark{largeOnes};
  std::array<char, 100> bytes{};
};
/// Counts its instances; throws when it is copied.
struct Uncopyable {
  house::LiveCounter::Mark mark{uncopyableOnes};
  Uncopyable() = default;
  Uncopyable(Uncopyable&&) noexcept = default;
  Uncopyable(const Uncopyable&) { throw std::runtime_error("no copy"); }
  Uncopyable& operator=(const Uncopyable&) = default;
};

TEST(AnyValue, CopiesAreIndependentAndAliasesSafe) {
  AnyValue list = AnyValue::from(std::vector<AnyValue>{AnyValue::from("inner")});
  const AnyValue copy = list;
  auto& elements = *list.asReference().as<std::vector<AnyValue>>();
  elements.push_back(AnyValue::from(1));
  EXPECT_EQ(copy.to<std::vector<AnyValue>>().size(), 1u);
  list = elements[0];  // the source dies with what it replaces
  EXPECT_EQ(list.to<std::string>(), "inner");
  list = *&list;
  EXPECT_EQ(list.to<std::string>(), "inner");
}

TEST(AnyValue, MovedFromIsEmptyAndUsable) {
  AnyValue a = AnyValue::from(std::string(100, 'x'));
  AnyValue b = std::move(a);
  EXPECT_FALSE(a.isValid());
  EXPECT_EQ(a.signature(), "");
  a = AnyValue::from(5);
  b = std::move(a);
  EXPECT_EQ(b.to<int>(), 5);
}

TEST(AnyValue, DestroysExactlyWhatItHolds) {
  {
    AnyValue value = AnyValue::from(Large());
    const AnyValue copy = value;
    EXPECT_EQ(largeOnes.live(), 2);
    value = AnyValue::from(1);
    EXPECT_EQ(largeOnes.live(), 1);
  }
  EXPECT_EQ(largeOnes.live(), 0);
  {
    const AnyValue value = AnyValue::from(Uncopyable());
    EXPECT_THROW(AnyValue{value}, std::runtime_error);
    EXPECT_THROW(AnyValue::from(Large()).to<int>(), std::runtime_error);
  }
  EXPECT_EQ(uncopyableOnes.live(), 0);
  EXPECT_EQ(largeOnes.live(), 0);
}

TEST(AnyReference, ThatIsAResultOutlivesItsMakerOnAnyThread) {
  AnyReference result = AnyReference::own(Large());
  const AnyReference copy = result;
  result = {};
  std::thread reader([copy] { EXPECT_NE(copy.as<Large>(), nullptr); });
  reader.join();
  EXPECT_EQ(largeOnes.live(), 1);
}

TEST(Parameters, CopiesOutliveTheCallersValues) {
  GenericFunctionParameters copies;
  {
    const std::string text(100, 'x');
    copies = makeParameters(text, 5).copy();
  }
  EXPECT_EQ(copies[0].to<std::string>(), std::string(100, 'x'));
  EXPECT_EQ(copies[1].to<int>(), 5);
}

}  // namespace
}  // namespace gv

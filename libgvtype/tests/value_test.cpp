// Value laws: copies, moves, aliases, lifetimes.

#include <gvtype/anyvalue.h>

#include <gmock/gmock.h>

#include <array>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gvtype/conversion.h>
#include <gvtype/genericfunctionparameters.h>
#include <gvtype/print.h>

#include "support/live_counter.h"
#include "support/log_capture.h"
#include "support/smallstack.h"
#include "support/thrown.h"

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

/// A list and a dynamic value each; more than may be made is made in place.
AnyValue nested(int lists) {
  AnyValue value = AnyValue::from(1);
  for (int i = 0; i < lists; ++i) {
    AnyValue outer = AnyValue::from(std::vector<AnyValue>());
    outer.asReference().as<std::vector<AnyValue>>()->push_back(std::move(value));
    value = std::move(outer);
  }
  return value;
}

TEST(AnyValue, NestsTo64LevelsInEveryWalk) {
  const std::string tooDeep = "a value nests deeper than 64 levels";
  AnyValue good = AnyValue::from(std::vector<int>{1});  // 31 lists of dynamic values around it
  for (int i = 0; i < 31; ++i) good = AnyValue::from(std::vector<AnyValue>{good});
  EXPECT_EQ(good, AnyValue(good));
  EXPECT_EQ(AnyReference::from(good).to<std::vector<AnyValue>>().size(), 1u);
  const std::vector<AnyValue> list{good};
  EXPECT_EQ(house::errorOf<ConversionError>([&] { AnyValue::from(list); }), tooDeep);
  EXPECT_EQ(house::errorOf<ConversionError>([&] { AnyValue::copyOf(AnyReference::from(list)); }),
            tooDeep);
  const AnyValue bad = nested(200);
  EXPECT_EQ(house::errorOf<ConversionError>([&] { AnyValue{bad}; }), tooDeep);
  EXPECT_EQ(house::errorOf<ConversionError>([&] { static_cast<void>(bad == nested(200)); }),
            tooDeep);
  EXPECT_EQ(house::errorOf<ConversionError>([&] { bad.to<std::vector<AnyValue>>(); }), tooDeep);
  EXPECT_THAT(toText(bad.asReference()), testing::HasSubstr("[...]"));
  bool looksAtValue = false;
  EXPECT_GE(conversionCost(bad.asReference(), "av", &looksAtValue), 0);
  EXPECT_EQ(good, good);  // the count is back where it was
}

TEST(AnyValue, OfAMillionLevelsDiesOnASmallStack) {
  AnyValue value = nested(1'000'000);
  house::runOnSmallStack([&] { value = {}; });
  EXPECT_FALSE(value.isValid());
}

/// Its destructor throws, unless it was moved from.
struct Throwing {
  bool isArmed = true;
  Throwing() = default;
  Throwing(Throwing&& other) : isArmed(std::exchange(other.isArmed, false)) {}
  ~Throwing() noexcept(false) {
    if (isArmed) throw std::runtime_error("from a destructor");
  }
};

TEST(AnyValue, OutlivesADestructorThatThrows) {
  const house::LogCapture log;
  { const AnyValue value = AnyValue::from(Throwing()); }
  { const AnyReference reference = AnyReference::own(Throwing()); }
  EXPECT_EQ(log.count("Throwing threw"), 2);
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
  const auto copies = makeParameters(std::string(100, 'x')).copy();
  EXPECT_EQ(copies[0].to<std::string>(), std::string(100, 'x'));
}

}  // namespace
}  // namespace gv

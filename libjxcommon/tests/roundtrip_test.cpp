// Values of every kind as arguments and results, near and far, typed and untyped.

#include <gvtype/dynamicobjectbuilder.h>

#include <cstring>
#include <limits>

#include "callsfixture.h"
#include "support/generator.h"
#include "support/rounds.h"

namespace JX {
namespace {

bool areOfTheSameKinds(const JXValue& a, const JXValue& b) {
  if (a.kind() != b.kind()) return false;
  if (a.kind() != JXValue::Kind::Array) return true;
  for (int i = 0; i < a.getSize(); ++i)
    if (!areOfTheSameKinds(a[i], b[i])) return false;
  return true;
}

/// Equal, which numbers of several types may be, and of the same types.
template <class T>
bool isSame(const T& a, const T& b) {
  if constexpr (std::is_same_v<T, JXValue>)
    return a == b && areOfTheSameKinds(a, b);
  else if constexpr (std::is_same_v<T, gv::AnyValue>)
    return a == b && a.asReference().signature() == b.asReference().signature();
  else
    return gv::AnyValue::from(a) == gv::AnyValue::from(b);
}

class RoundTrips : public Calls {
 protected:
  /// Calls `check` with a value of each type that is echoed, and the name of the method.
  template <class F>
  void forEachType(F check) {
    int number = 0;
    std::apply([&](auto... values) { (check(values, "echo" + std::to_string(number++)), ...); },
               EchoedTypes());
  }

  JXProxy echoes{broker, "Echoes"};
};

INSTANTIATE_TEST_SUITE_P(A, RoundTrips, everywhere, nameOfPlace);

TEST_P(RoundTrips, BringGeneratedValuesBackUnchanged) {
  for (unsigned seed = 0; seed < static_cast<unsigned>(house::rounds(100)); ++seed) {
    SCOPED_TRACE(seed);
    house::Generator generator(seed);
    forEachType([&]<class T>(T& value, const std::string& method) {
      generator.fill(gv::AnyReference::from(value), 3);
      EXPECT_TRUE(isSame(echoes.call<T>(method, value), value)) << method;
      const auto untyped = gv::AnyReference::from(value).template to<JXValue>();
      EXPECT_TRUE(isSame(echoes.genericCall(method, std::vector<JXValue>{untyped}), untyped))
          << method;
      EXPECT_TRUE(isSame(echoes.call<JXValue>(method, untyped), untyped)) << method;
    });
    if (HasFailure()) break;
  }
}

template <class T>
std::vector<T> limitsOf() {
  using Limit = std::numeric_limits<T>;
  if constexpr (std::is_floating_point_v<T>)
    return {Limit::max(),      Limit::lowest(),    Limit::min(),       Limit::denorm_min(), -T{0},
            Limit::infinity(), -Limit::infinity(), Limit::quiet_NaN(), Limit::epsilon()};
  else
    return {Limit::min(), Limit::max(), T{0}, T{1}};
}

TEST_P(RoundTrips, BringTheLimitsOfNumbersBackBitByBit) {
  forEachType([&]<class T>(T&, const std::string& method) {
    if constexpr (std::is_arithmetic_v<T>) {
      for (const T limit : limitsOf<T>()) {
        const T typed = echoes.call<T>(method, limit);
        const T untyped =
            gv::AnyReference::own(echoes.genericCall(method, std::vector<JXValue>{limit}))
                .template to<T>();
        EXPECT_EQ(std::memcmp(&typed, &limit, sizeof limit), 0) << method << ": " << limit;
        EXPECT_EQ(std::memcmp(&untyped, &limit, sizeof limit), 0) << method << ": " << limit;
      }
    }
  });
}

TEST_P(RoundTrips, BringObjectsBackThatStillCanBeCalled) {
  gv::DynamicObjectBuilder builder;
  builder.advertiseMethod("answer", [] { return 42; });
  const auto object = builder.object();
  const auto back = echoes.call<gv::Object<gv::Empty>>("echoObject", object);
  EXPECT_EQ(back.call<int>("answer"), 42);
  EXPECT_EQ(errorOf([&] { echoes.call<JXValue>("echoObject", object); }).line(), 48);
}

}  // namespace
}  // namespace JX

#include <benchmark/benchmark.h>

#include <string>

#include <gvtype/dynamicobjectbuilder.h>
#include <gvtype/object.h>

#include "allocations.h"

namespace {

/// An object with an unambiguous `add` and five overloads of `pick`.
gv::Object<gv::Empty> makeObject() {
  gv::DynamicObjectBuilder builder;
  builder.advertiseMethod("add", [](int a, int b) { return a + b; });
  builder.advertiseMethod("pick", [](int) { return 1; });
  builder.advertiseMethod("pick", [](const std::string&) { return 2; });
  builder.advertiseMethod("pick", [](int, int) { return 3; });
  builder.advertiseMethod("pick", [](int, const std::string&) { return 4; });
  builder.advertiseMethod("pick", [](double, double) { return 5; });
  return builder.object();
}

void callByName(benchmark::State& state) {
  const auto object = makeObject();
  const std::string name = "add";
  bench::CountAllocations count(state);
  const gv::GenericObject& generic = *object.share();
  for (auto _ : state) benchmark::DoNotOptimize(generic.call<int>(name, 1, 2));
}
BENCHMARK(callByName)->Name("call of an object's method/by name");

void callResolved(benchmark::State& state) {
  const auto object = makeObject();
  int a = 1, b = 2;
  const gv::GenericFunctionParameters arguments{gv::AnyReference::from(a),
                                                gv::AnyReference::from(b)};
  const auto id = static_cast<unsigned>(object.metaObject().findMethod("add", arguments));
  bench::CountAllocations count(state);
  const gv::GenericObject& generic = *object.share();
  for (auto _ : state) benchmark::DoNotOptimize(generic.call<int>(id, 1, 2));
}
BENCHMARK(callResolved)->Name("call of an object's method/by resolved id");

void pickOverload(benchmark::State& state) {
  const auto object = makeObject();
  const std::string name = "pick";
  int a = 1;
  const std::string b = "b";
  const gv::GenericFunctionParameters arguments{gv::AnyReference::from(a),
                                                gv::AnyReference::from(b)};
  bench::CountAllocations count(state);
  for (auto _ : state) benchmark::DoNotOptimize(object.metaObject().findMethod(name, arguments));
}
BENCHMARK(pickOverload)->Name("choice among five overloads/gv::MetaObject");

}  // namespace

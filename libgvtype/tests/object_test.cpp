// Meta-objects, overloads, dynamic objects and their handles.

#include <gvtype/dynamicobjectbuilder.h>

#include <gmock/gmock.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include <gv/eventloop.h>
#include <gvtype/conversion.h>
#include <gvtype/metaobjectdescription.h>

#include "support/thrown.h"

namespace gv {
namespace {

using testing::HasSubstr;

constexpr int guardMs = 20'000;

std::string errorOf(const Future<AnyReference>& result) {
  return result.hasError(guardMs) ? result.error() : "no error";
}

TEST(DynamicObject, FailsTheFutureForWhatTheCallerNamedWrongly) {
  DynamicObjectBuilder builder;
  builder.advertiseMethod("twice", [](int n) { return 2 * n; });
  const Object<Empty> object = builder.object();
  EXPECT_THAT(errorOf(object.metaCall("thrice", makeParameters(1))), HasSubstr("'thrice(i)'"));
  EXPECT_THAT(errorOf(object.metaCall("TWIC", {})), HasSubstr("; did you mean: twice(i)?"));
  EXPECT_THAT(errorOf(object.metaCall("twice", makeParameters(std::string("x")))),
              HasSubstr("twice(i)"));
  EXPECT_THAT(errorOf(object.metaCall(4711, {})), HasSubstr("4711"));
  EXPECT_THROW(Object<Empty>().call<int>("twice", 1), std::runtime_error);
}

/// What a call that throws FutureException says; the same whichever road it takes.
template <class R, class... A>
std::string thrownBy(const GenericObject& object, const char* method, const A&... arguments) {
  return house::errorOf<FutureException>([&] { object.call<R>(method, arguments...); });
}

TEST(GenericObject, CallsAtOnceOrLaterWithTheSameOutcome) {
  struct Derived : DynamicObject {};
  for (const auto& object : {boost::shared_ptr<DynamicObject>(boost::make_shared<DynamicObject>()),
                             boost::shared_ptr<DynamicObject>(boost::make_shared<Derived>())}) {
    DynamicObjectBuilder builder(object.get());
    const unsigned id = builder.advertiseMethod("add", [](int a, int b) { return a + b; });
    builder.advertiseMethod("fail", [] { throw std::runtime_error("out of ink"); });
    const unsigned odd = builder.advertiseMethod("odd", [] { throw 5; });
    builder.advertiseMethod("later", [] { return makeReadyFuture(3); });
    builder.advertiseMethod(
        "away", [] { return getEventLoop()->isInThisContext(); }, MetaCallType::Queued);
    builder.advertiseMethod("text", [] { return std::string("text"); });
    const GenericObject& generic = *object->manageable();
    EXPECT_EQ(id, MetaObject::firstOwnId);
    EXPECT_EQ(generic.call<int>("add", 1, 2), 3);
    EXPECT_EQ(generic.call<int>(id, 1, 2.0), 3);
    EXPECT_EQ(generic.metaCall(id, makeParameters(1, 2)).value(guardMs).to<int>(), 3);
    EXPECT_EQ(generic.call<long>("add(ii)", 1, 2), 3);
    EXPECT_EQ(generic.call<std::string>("text"), "text");
    EXPECT_EQ(generic.call<int>("later"), 3);
    EXPECT_TRUE(generic.call<bool>("away"));
    generic.call<void>("add", 1, 2);
    EXPECT_EQ(thrownBy<int>(generic, "fail"), "out of ink");
    EXPECT_EQ(thrownBy<int>(generic, "odd"), "unknown exception");
    EXPECT_EQ(errorOf(generic.metaCall(odd, {}, MetaCallType::Queued)), "unknown exception");
    EXPECT_THAT(thrownBy<int>(generic, "add", 1), HasSubstr("add(ii)"));
    EXPECT_EQ(thrownBy<int>(generic, "text"),
              "Unable to convert call result to target type: from string to int32");
    EXPECT_THROW(generic.call<int>(4711U), FutureException);
  }
}

TEST(DynamicObject, RunsEachCallTypeWhereItMust) {
  DynamicObjectBuilder builder;
  builder.advertiseMethod("thread",
                          [] { return std::hash<std::thread::id>()(std::this_thread::get_id()); });
  const Object<Empty> object = builder.object();
  const auto here = std::hash<std::thread::id>()(std::this_thread::get_id());
  EXPECT_EQ(object.call<std::size_t>("thread"), here);
  EXPECT_NE(object.async<std::size_t>("thread").value(guardMs), here);
}

TEST(DynamicObject, OfTheSingleThreadedModelRunsOneCallAtATimeInOrder) {
  DynamicObjectBuilder builder;
  builder.setThreadingModel(ObjectThreadingModel::SingleThread);
  std::atomic<int> inside{0};
  std::vector<int> order;
  builder.advertiseMethod("step", [&](int n) {
    const bool isAlone = inside.fetch_add(1) == 0;
    order.push_back(n);
    inside.fetch_sub(1);
    return isAlone;
  });
  const Object<Empty> object = builder.object();
  std::vector<Future<bool>> results;
  for (int i = 0; i < 500; ++i) results.push_back(object.async<bool>("step", i));
  for (auto& result : results) EXPECT_TRUE(result.value(guardMs));
  for (int i = 0; i < 500; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

TEST(DynamicObject, OfTheSingleThreadedModelThatBlocksHoldsUpItselfAlone) {
  const Promise<void> release;
  const auto make = [&release] {
    DynamicObjectBuilder builder;
    builder.setThreadingModel(ObjectThreadingModel::SingleThread);
    builder.advertiseMethod("block", [&release] { release.future().wait(guardMs); });
    builder.advertiseMethod("one", [] { return 1; });
    return builder.object();
  };
  const Object<Empty> blocked = make();
  const Object<Empty> free = make();
  const auto blocking = blocked.async<void>("block");
  const auto behind = blocked.async<int>("one");
  for (int i = 0; i < 70; ++i) EXPECT_EQ(free.async<int>("one").value(guardMs), 1);
  EXPECT_TRUE(behind.isRunning());
  release.setValue();
  EXPECT_EQ(behind.value(guardMs), 1);
  blocking.value(guardMs);
}

TEST(DynamicObject, OfTheSingleThreadedModelMayCallItself) {
  DynamicObjectBuilder builder;
  builder.setThreadingModel(ObjectThreadingModel::SingleThread);
  WeakObject<Empty> self;
  std::thread::id ran;
  const auto inner = [&ran] { ran = std::this_thread::get_id(); };
  builder.advertiseMethod("auto", inner);
  builder.advertiseMethod("queued", inner, MetaCallType::Queued);
  builder.advertiseMethod("outer", [&](const std::string& name) {
    self.lock().call<void>(name);
    return ran == std::this_thread::get_id();
  });
  const Object<Empty> object = builder.object();
  self = object;
  for (const std::string name : {"auto", "queued"})
    EXPECT_TRUE(object.async<bool>("outer", name).value(guardMs)) << name << " ran beside it";
}

TEST(DynamicObject, CanBeExtendedWhileCallsRun) {
  DynamicObjectBuilder builder;
  builder.advertiseMethod("first", [] { return 1; });
  const Object<Empty> object = builder.object();
  std::thread caller([&] {
    for (int i = 0; i < 2000; ++i) EXPECT_EQ(object.call<int>("first"), 1);
  });
  for (int i = 0; i < 300; ++i) builder.advertiseMethod("m" + std::to_string(i), [i] { return i; });
  caller.join();
  EXPECT_EQ(object.call<int>("m299"), 299);
}

TEST(DynamicObject, RefusesNamesOutsideTheGrammar) {
  DynamicObjectBuilder builder;
  for (const std::string& name :
       std::vector<std::string>{"", " a", "a/b", "a(b", "a\n", std::string(256, 'a')})
    EXPECT_THROW(builder.advertiseMethod(name, [] {}), std::runtime_error) << name;
  builder.advertiseMethod("__pCall", [] {});
}

TEST(DynamicObject, RefusesWhatIsNoMember) {
  DynamicObjectBuilder builder;
  const AnyFunction function = AnyFunction::from([] {}).withInstance();
  const auto advertise = [&](const char* parameters, const char* result, const AnyFunction& body) {
    MetaMethodBuilder method;
    method.setName("m");
    method.setParametersSignature(parameters);
    method.setReturnSignature(result);
    return builder.xAdvertiseMethod(method, body);
  };
  EXPECT_THROW(advertise("i", "V", function), std::runtime_error);
  EXPECT_THROW(advertise("()", "", function), std::runtime_error);
  EXPECT_THROW(advertise("()", "(*)", function), std::runtime_error);
  EXPECT_THROW(advertise("()", "V", AnyFunction::from([] {})), std::runtime_error);
  unsigned last = advertise("()", "V", {});
  EXPECT_EQ(last, MetaObject::firstOwnId) << "a failure leaves nothing behind";
  while (last < MetaObject::firstOwnId + MetaObject::mostOwnMembers - 1)
    last = advertise("()", "V", function);
  EXPECT_THROW(builder.advertiseProperty("p", 1), std::runtime_error);
  EXPECT_THROW(builder.advertiseMethod("m", [] {}), std::runtime_error);
  const auto description = describeMetaObject(builder.object().metaObject());
  EXPECT_EQ(makeMetaObject(description).methodMap().rbegin()->first, last);
}

TEST(Overloads, AreChosenByTheArguments) {
  DynamicObjectBuilder builder;
  const int forInt = static_cast<int>(builder.advertiseMethod("f", [](int) {}));
  const int forText = static_cast<int>(builder.advertiseMethod("f", [](const std::string&) {}));
  const int forTwo = static_cast<int>(builder.advertiseMethod("f", [](int, int) {}));
  builder.advertiseMethod("f", [](int) {});
  const MetaObject meta = builder.object().metaObject();
  bool canCache = false;
  EXPECT_EQ(meta.findMethod("f", makeParameters(1), &canCache), forInt);
  EXPECT_TRUE(canCache);
  EXPECT_EQ(meta.findMethod("f", makeParameters(std::int8_t{1})), forInt);
  EXPECT_EQ(meta.findMethod("f", makeParameters(std::string()), &canCache), forText);
  EXPECT_EQ(meta.findMethod("f", makeParameters(AnyValue::from("x")), &canCache), forText);
  EXPECT_FALSE(canCache);
  EXPECT_EQ(meta.findMethod("f", makeParameters(1, 2)), forTwo);
  EXPECT_LT(meta.findMethod("f", makeParameters(std::vector<int>())), 0);
  builder.advertiseMethod("f", [](const std::vector<std::string>&) {});
  const int forList = static_cast<int>(builder.advertiseMethod("f", [](std::vector<double>) {}));
  const MetaObject lists = builder.object().metaObject();
  for (const std::vector<int>& list : {std::vector<int>(), std::vector<int>{1}}) {
    EXPECT_EQ(lists.findMethod("f", makeParameters(list), &canCache), forList);
    EXPECT_TRUE(canCache);
  }
  const std::vector<AnyValue> dynamics = {AnyValue::from(1)};
  EXPECT_EQ(lists.findMethod("f", makeParameters(dynamics), &canCache), forList);
  EXPECT_FALSE(canCache);
  EXPECT_LT(meta.findMethod("f", {}), 0);
  EXPECT_EQ(meta.findMethod("f").size(), 4u);
  const int own = static_cast<int>(builder.advertiseMethod("properties", [] { return 1; }));
  EXPECT_EQ(builder.object().metaObject().findMethod("properties", {}), own)
      << "the framework's own method of that name steps back";
}

TEST(Overloads, ThatFitEquallyWellAreAmbiguous) {
  DynamicObjectBuilder builder;
  builder.advertiseMethod("g", [](std::int16_t) {});
  builder.advertiseMethod("g", [](std::int8_t) {});
  EXPECT_LT(builder.object().metaObject().findMethod("g", makeParameters(1)), 0);
  EXPECT_THAT(builder.object().metaObject().explainNoMatch("g", makeParameters(1)),
              HasSubstr("g(n) g(c)"));
}

TEST(MetaObject, SurvivesItsDescription) {
  DynamicObjectBuilder builder;
  builder.setDescription("An object.");
  MetaMethodBuilder method;
  method.setName("add");
  method.setDescription("Adds.");
  method.appendParameter("a", "One.");
  method.setReturnDescription("The sum.");
  struct Adder {
    int add(int a, const std::string&) { return a; }
  } adder;
  const unsigned id = builder.advertiseMethod(method, &adder, &Adder::add);
  EXPECT_EQ((builder.advertiseSignal<int, std::string>("moved")), id + 1);
  EXPECT_EQ(builder.advertiseProperty<int>("volume", 5), id + 2);
  EXPECT_THROW(builder.advertiseSignal<>("a/b"), std::runtime_error);
  const MetaObject original = builder.object().metaObject();
  const MetaObject copy = makeMetaObject(describeMetaObject(original));
  EXPECT_EQ(describeMetaObject(copy), describeMetaObject(original));
  EXPECT_EQ(copy.findMethod("add")[0].toString(), "add(is)");
  EXPECT_EQ(copy.signalNamed("moved").toString(), "moved(is)");
  EXPECT_EQ(copy.propertyNamed("volume").toString(), copy.signalNamed("volume").toString());
  EXPECT_EQ(copy.signalMap().size(), 2u);
  using Breaker = void (*)(MetaObjectDescription&);
  for (const Breaker breakIt : std::initializer_list<Breaker>{
           [](auto& d) { std::get<2>(std::get<1>(d).back()) = "(i"; },
           [](auto& d) { std::get<3>(std::get<1>(d).back()) = "(*)"; },
           [](auto& d) { std::get<0>(std::get<1>(d).back()) = 1U << 31; },
           [](auto& d) { std::get<1>(d).back() = std::get<1>(d).front(); },
           [](auto& d) { std::get<2>(std::get<2>(d).back()) = "i"; },
           [](auto& d) { std::get<0>(std::get<2>(d).back()) = std::get<0>(std::get<1>(d).back()); },
           [](auto& d) { std::get<0>(std::get<3>(d).back()) = std::get<0>(std::get<2>(d).back()); },
           [](auto& d) { std::get<1>(std::get<3>(d).back()) = "a/b"; },
           [](auto& d) { std::get<2>(std::get<3>(d).back()) = ""; }}) {
    auto broken = describeMetaObject(original);
    breakIt(broken);
    EXPECT_THROW(makeMetaObject(broken), std::runtime_error);
  }
}

struct Lamp : DynamicObject {
  Lamp() {
    DynamicObjectBuilder(this).advertiseMethod("isOn", [this] { return isOn; });
  }
  bool isOn = true;
};

TEST(Handles, WeakOnesExpireWithTheCountTheyWereMadeFrom) {
  auto owner = boost::make_shared<Lamp>();
  const WeakObject<Empty> weak{Object<Empty>(Object<Lamp>(owner))};
  const WeakObject<Lamp> typed{Object<Lamp>(owner)};
  EXPECT_TRUE(weak.lock()) << "the handle has gone, the owner has not";
  EXPECT_TRUE(typed.lock());
  owner.reset();
  EXPECT_FALSE(weak.lock());
  EXPECT_FALSE(typed.lock());
}

TEST(Handles, KnowTheClassOfAnObjectOfThisProcess) {
  auto owner = boost::make_shared<Lamp>();
  const Object<Empty> untyped = Object<Lamp>(owner);
  EXPECT_TRUE(untyped.call<bool>("isOn"));
  Object<Lamp> lamp(untyped);
  ASSERT_TRUE(lamp);
  EXPECT_EQ(lamp.get(), owner.get());
  lamp->isOn = false;
  EXPECT_FALSE((*lamp).isOn);
  EXPECT_EQ(Object<Empty>(lamp), untyped);
  EXPECT_EQ(owner.use_count(), 3) << "all handles share one count";
  EXPECT_FALSE(Object<Lamp>(DynamicObjectBuilder().object()));
  EXPECT_THROW(static_cast<void>(Object<Lamp>()->isOn), std::runtime_error);
  const AnyValue value = AnyValue::from(untyped);
  EXPECT_EQ(value.signature(), "o");
  EXPECT_EQ(value.to<Object<Empty>>(), untyped);
  EXPECT_EQ(value.to<Object<Lamp>>().get(), owner.get());
  EXPECT_EQ(AnyValue::from(lamp), value);
  EXPECT_THROW(AnyValue::from(DynamicObjectBuilder().object()).to<Object<Lamp>>(), ConversionError);
}

TEST(Results, ConvertWithTheTextsThatCallersKnow) {
  const auto errorFor = []<class R>(const AnyReference& value, R) {
    Promise<R> promise;
    handleFuture<R>(value, promise);
    return promise.future().error(guardMs);
  };
  EXPECT_EQ(errorFor(AnyReference::own(std::string("x")), 0),
            "Unable to convert call result to target type: from string to int32");
  EXPECT_THAT(errorFor(AnyReference::own(300), std::uint8_t{}),
              HasSubstr("Return argument conversion error: cannot convert int32 300 to uint8"));
}

TEST(Results, ThatAreFuturesAreWaitedFor) {
  Promise<int> inner;
  Promise<long> outer;
  handleFuture<long>(AnyReference::own(inner.future()), outer);
  EXPECT_TRUE(outer.future().isRunning());
  inner.setValue(7);
  EXPECT_EQ(outer.future().value(guardMs), 7);
  Promise<int> failing;
  Promise<void> nothing;
  handleFuture<void>(AnyReference::own(failing.future()), nothing);
  failing.setError("late trouble");
  EXPECT_EQ(nothing.future().error(guardMs), "late trouble");
  handleFuture<void>(AnyReference::own(failing.future()), nothing);  // has ended: stays so
  EXPECT_NO_THROW(handleFuture<long>(AnyReference::own(8), outer));
}

}  // namespace
}  // namespace gv

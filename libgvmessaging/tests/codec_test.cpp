// Values on the wire: what is written comes back, and what lies is refused.

#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"

#include <gmock/gmock.h>

#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <gvtype/dynamicobjectbuilder.h>
#include <gvtype/genericfunctionparameters.h>
#include <gvtype/print.h>
#include <gvtype/struct.h>

#include "support/thrown.h"

namespace gv::wire {
namespace {

using testing::HasSubstr;

std::vector<char> bytes(const std::string& text) {
  return {text.begin(), text.end()};
}

std::vector<char> written(const AnyReference& value, const std::string& signature) {
  std::vector<char> payload;
  writeValue(payload, value, signature);
  return payload;
}

template <class T>
T roundTrip(const T& value) {
  const AnyReference reference = AnyReference::from(value);
  T back{};
  readValue(written(reference, reference.signature()), AnyReference::from(back), Limits());
  return back;
}

std::string errorOf(const std::vector<char>& payload, const std::string& signature,
                    const Limits& limits = {}) {
  const AnyValue target = AnyValue::makeDefault(signature);
  return house::errorOf<PayloadError>([&] { readValue(payload, target.asReference(), limits); });
}

struct Point {
  int x = 0;
  double y = 0;
  auto operator<=>(const Point&) const = default;
};
GV_STRUCT(Point, x, y)
/// The fields of a point in another order.
struct Reversed {
  double y = 0;
  int x = 0;
};
GV_STRUCT(Reversed, y, x)

TEST(Codec, ConvertsArgumentsToTheMethodsTypes) {
  std::vector<char> payload;
  const std::vector<AnyValue> list = {AnyValue::from(1), AnyValue::from(2.0)};
  writeArguments(payload, makeParameters(std::int8_t{5}, list, std::string("tail")), "(xai*)");
  std::int64_t number = 0;
  std::vector<int> numbers;
  std::vector<AnyValue> tail;
  readArguments(payload, {AnyReference::from(number), AnyReference::from(numbers)}, &tail,
                Limits());
  EXPECT_EQ(number, 5);
  EXPECT_EQ(numbers, (std::vector<int>{1, 2}));
  ASSERT_EQ(tail.size(), 1u);
  EXPECT_EQ(tail[0].to<std::string>(), "tail");
  Point point;
  readValue(written(AnyReference::own(Reversed{2.5, 7}), "(id)<Point,x,y>"),
            AnyReference::from(point), Limits());
  EXPECT_EQ(point, (Point{7, 2.5}));
  EXPECT_THROW(writeArguments(payload, makeParameters(std::string("x")), "(i)"), ConversionError);
  EXPECT_THROW(writeArguments(payload, makeParameters(Limits()), "(v)"), ConversionError);
  EXPECT_THROW(writeArguments(payload, makeParameters(1, 2), "(i)"), ConversionError);
}

TEST(Codec, RefusesEveryPairOfDifferentKinds) {
  const std::map<std::string, AnyValue> samples = {
      {"b", AnyValue::from(true)},
      {"i", AnyValue::from(-7)},
      {"d", AnyValue::from(0.5)},
      {"s", AnyValue::from("text")},
      {"r", AnyValue::from(Buffer("b", 1))},
      {"as", AnyValue::from(std::vector<std::string>{"a"})},
      {"a{si}", AnyValue::from(std::map<std::string, int>{{"a", 1}})},
      {"(id)", AnyValue::from(std::tuple<int, double>{1, 2})},
      {"mmi", AnyValue::from(std::optional<std::optional<int>>(std::optional<int>(7)))}};
  for (const auto& [from, value] : samples)
    for (const auto& [to, unused] : samples)
      EXPECT_EQ(errorOf(written(value.asReference(), from), to) == "no error",
                from == to || (from == "i" && to == "d"))  // an exact integer is a float, too
          << from << " as " << to;
  EXPECT_THAT(errorOf(written(AnyReference::from(samples.at("i")), "v"), "v"),
              HasSubstr("no error"));
}

TEST(Codec, TakesNoIntegerBeyondTheRangeOfItsType) {
  const auto takes = [](const std::string& type, const auto& number) {
    const AnyReference value = AnyReference::from(number);
    return errorOf(written(value, value.signature()), type) == "no error";
  };
  const struct {
    const char* type;
    std::int64_t least, most;
  } ranges[] = {{"c", -128, 127}, {"y", 0, 255},        {"n", -32768, 32767},
                {"q", 0, 65535},  {"u", 0, 0xffffffff}, {"i", -0x80000000LL, 0x7fffffff}};
  for (const auto& [type, least, most] : ranges) {
    EXPECT_TRUE(takes(type, least) && takes(type, most)) << type;
    EXPECT_FALSE(takes(type, least - 1) || takes(type, most + 1)) << type;
  }
  const std::uint64_t beyond = std::uint64_t{1} << 63;
  EXPECT_TRUE(takes("t", beyond) && !takes("x", beyond) && !takes("t", -1));
}

TEST(Codec, RefusesLiesBeforeTheyCostAnything) {
  EXPECT_THAT(errorOf(bytes("\xdd\xff\xff\xff\xff"), "ai"), HasSubstr("more elements than"));
  EXPECT_THAT(errorOf(bytes(std::string("\xdf\x20\0\0\0", 5)), "a{si}"),
              HasSubstr("more elements than"));
  EXPECT_THAT(errorOf(bytes("\xdb\xff\xff\xff\xff"), "s"), HasSubstr("ends too early"));
  EXPECT_THAT(errorOf(bytes("\xc1"), "i"), HasSubstr("malformed"));
  EXPECT_THAT(errorOf(bytes("\xd4\x01\x01"), "v"), HasSubstr("extension"));
  EXPECT_THAT(errorOf({}, "i"), HasSubstr("malformed"));
  EXPECT_THAT(errorOf(bytes("\x92\xa2(i\x01"), "v"), HasSubstr("malformed signature"));
  EXPECT_THAT(errorOf(bytes("\x92\xa1v\x01"), "v"), HasSubstr("cannot have the signature"));
  EXPECT_THAT(errorOf(bytes("\x92\xa2mo\x90"), "v"), HasSubstr("cannot be sent"));
  EXPECT_THAT(errorOf(bytes("\x92\x01\x02"), "mi"), HasSubstr("2 elements where 1"));
  std::map<int, int> map;
  EXPECT_THROW(readValue(bytes("\x82\x01\x02\x01\x03"), AnyReference::from(map), Limits()),
               PayloadError);
}

TEST(Codec, PaysForTheSignatureInEveryElementThatItDescribes) {
  const std::string signature = "aa{s(" + std::string(4000, 's') + ")}";
  std::string lists = "\x92\xda";
  lists += {static_cast<char>(signature.size() >> 8), static_cast<char>(signature.size() & 0xff)};
  lists += signature + "\xdc\xea\x60" + std::string(60'000, '\x80');  // that many empty maps
  Limits small;
  small.decodedBytes = std::size_t{1} << 20;
  EXPECT_THAT(errorOf(bytes(lists), "v", small), HasSubstr("more memory than is allowed"));
}

TEST(Codec, BoundsNestingAndMemory) {
  std::string nested;
  for (int i = 0; i < 100; ++i)
    nested +=
        "\x92\xa2"
        "av"
        "\x91";
  EXPECT_THAT(errorOf(bytes(nested + "\xc0"), "v"), HasSubstr("nests deeper"));
  // Half the limit in lists and half in dynamic values is what may be made, written and read.
  AnyValue deep = AnyValue::from(std::vector<int>{1});
  for (int i = 0; i < 31; ++i) deep = AnyValue::from(std::vector<AnyValue>{deep});
  EXPECT_EQ(roundTrip(deep), deep);
  EXPECT_THROW(written(AnyReference::own(std::vector<AnyValue>{deep}), "av"), ConversionError);

  Limits small;
  small.decodedBytes = 1000;
  const std::vector<AnyValue> nils(500);
  EXPECT_THAT(errorOf(written(AnyReference::from(nils), "av"), "av", small),
              HasSubstr("more memory than is allowed"));
  const std::vector<Buffer> buffers(15, Buffer("b", 1));  // each has a block of its own
  EXPECT_THAT(errorOf(written(AnyReference::from(buffers), "ar"), "ar", small),
              HasSubstr("more memory than is allowed"));
}

TEST(Codec, TakesADynamicValueReadAtOnceExactlyAsOneReadByParts) {
  // Each within a list; the second way to write an array of two is never read at once.
  const auto outcome = [](const std::string& head, const std::string& rest, std::size_t budget,
                          unsigned nesting) {
    Limits limits;
    limits.decodedBytes = budget;
    limits.nesting = nesting;
    std::vector<AnyValue> list;
    const std::string error = house::errorOf<PayloadError>(
        [&] { readValue(bytes("\x92\xc0" + head + rest), AnyReference::from(list), limits); });
    if (error != "no error") return error;
    return list.at(1).signature() + toText(list.at(1).asReference());
  };
  const std::string parts[] = {std::string("\xa1x\xd3\xff\0\0\0\0\0\0\0", 11),
                               "\xa1x\x05",
                               "\xa1i\xd0\x80",
                               "\xa1i\xe0",
                               "\xa1i\xce\xff\xff\xff\xff",
                               "\xa1u\xff",
                               "\xa1t\xcc\xff",
                               "\xa1y\xcd\x01\x02",
                               "\xa1x\xc3",
                               std::string("\xa1"
                                           "d\xcb\x3f\xe0\0\0\0\0\0\0",
                                           11),
                               "\xa1"
                               "d\x01",
                               "\xa1"
                               "b\xc3",
                               "\xa1s\xa0",
                               "\xa1s\xaf" + std::string(15, 'i'),
                               "\xa1s\xb0" + std::string(16, 'h'),
                               "\xa1s\xc4\x01z",
                               "\xa1s\xc0",
                               "\xa1v\xc0",
                               "\xa1z\x01",
                               "\xa1x\xc1"};
  const std::string longHead("\xdc\0\2", 3);
  const auto expectSame = [&](const std::string& rest, std::size_t budget, unsigned nesting) {
    EXPECT_EQ(outcome("\x92", rest, budget, nesting), outcome(longHead, rest, budget, nesting))
        << rest << " of " << budget;
  };
  for (const std::string& part : parts) {
    for (std::size_t size = 0; size <= part.size(); ++size)
      expectSame(part.substr(0, size), 100'000, 64);
    expectSame(part + "\x01", 100'000, 64);
    for (const unsigned nesting : {1u, 2u}) expectSame(part, 100'000, nesting);
    for (std::size_t budget = 50; budget < 400; ++budget) expectSame(part, budget, 64);
  }
}

TEST(Codec, WritesObjectsAsDocumented) {
  struct Passage : OutgoingObjects, IncomingObjects {
    PassedObject pass(const Object<Empty>&) override { return passed; }
    Object<Empty> receive(const PassedObject& received) override {
      EXPECT_EQ(received.isReceivers, passed.isReceivers);
      EXPECT_EQ(received.number, passed.number);
      return object;
    }
    PassedObject passed;
    const Object<Empty> object = DynamicObjectBuilder().object();
  } passage;
  for (const auto& [isReceivers, number, bytes] :
       {std::tuple(false, 5u, std::string("\xc7\x07\x01\x92\x05\x94\xa0\x90\x90\x90")),
        std::tuple(true, 3u, std::string("\xc7\x03\x02\x92\x00\x03", 6))}) {
    passage.passed = {isReceivers, 0, number, {}};
    Output out(&passage);
    writeValue(out, AnyReference::from(passage.object), "o");
    std::vector<char> written;
    out.copyTo(written);
    EXPECT_EQ(std::string(written.begin(), written.end()), bytes);
    Object<Empty> back;
    readValue(written, AnyReference::from(back), Limits(), &passage);
    EXPECT_EQ(back, passage.object);
    EXPECT_THROW(readValue(written, AnyReference::from(back), Limits()), PayloadError);
  }
}

TEST(Codec, SendsLargeValuesFromWhereTheyStandAndCopiesConvertedOnes) {
  const std::string large(Output::leastBorrowed, 'l');
  const std::string small(large.size() - 1, 's');
  const AnyValue dynamic = AnyValue::from(Buffer(large.data(), large.size()));
  const std::optional<std::string> optional = large;  // converts to a string
  Output out;
  writeArguments(out,
                 std::vector<AnyReference>{AnyReference::from(large), AnyReference::from(dynamic),
                                           AnyReference::from(small), AnyReference::from(optional)},
                 "(svss)");
  const auto pieces = out.pieces();
  ASSERT_EQ(pieces.size(), 5u);
  EXPECT_EQ(pieces[1].data(), large.data());
  EXPECT_EQ(pieces[3].data(), dynamic.asReference().as<Buffer>()->data());
  std::vector<char> copied;
  out.copyTo(copied);
  EXPECT_EQ(copied.size(), out.size());
  std::string first, third, fourth;
  AnyValue second;
  readArguments(copied,
                {AnyReference::from(first), AnyReference::from(second), AnyReference::from(third),
                 AnyReference::from(fourth)},
                nullptr, Limits());
  EXPECT_EQ(std::tie(first, second, third, fourth), std::tie(large, dynamic, small, large));
}

TEST(Codec, KeepsRawBytesThatAreMostOfAFrameWhereTheyArrived) {
  const std::string large(Output::leastBorrowed, 'l');
  const Buffer sent(large.data(), large.size());
  struct Row {
    std::string beside;
    bool isKept;
  };
  for (const Row& row : {Row{"short", true}, Row{large, false}}) {
    Output out;
    writeArguments(out, std::vector{AnyReference::from(sent), AnyReference::from(row.beside)},
                   "(rs)");
    std::vector<char> written;
    out.copyTo(written);
    Frame frame;
    frame.payload.assign(written);
    const char* const begin = frame.payload.data();
    Buffer back;
    std::string beside;
    readArguments(frame, {AnyReference::from(back), AnyReference::from(beside)}, nullptr, Limits());
    EXPECT_EQ(back.data() > begin && back.data() < begin + written.size(), row.isKept);
    frame.payload.assign(std::vector<char>(written.size(), 'n'));  // the next frame's
    EXPECT_EQ(back, sent);
    Buffer moved = std::move(back);
    EXPECT_EQ(back, Buffer());  // NOLINT: defined
    EXPECT_EQ(moved, sent);
  }
}

/// Processor seconds of this thread, the best of three.
template <class F>
double secondsFor(const F& work) {
  double best = std::numeric_limits<double>::max();
  for (int round = 0; round < 3; ++round) {
    timespec begin{}, end{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &begin);
    work();
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
    best = std::min(best, static_cast<double>(end.tv_sec - begin.tv_sec) +
                              1e-9 * static_cast<double>(end.tv_nsec - begin.tv_nsec));
  }
  return best;
}

/// How many times as long as a copy of the value, which touches as much memory, its decoding takes.
double copiesToRead(const AnyValue& value, const std::string& signature) {
  const std::vector<char> payload = written(value.asReference(), signature);
  const double read = secondsFor([&] {
    const AnyValue target =
        signature == "v" ? AnyValue::makeDefault("v") : AnyValue::make(value.type());
    readValue(payload, target.asReference(), Limits());
  });
  return read / secondsFor([&] { const AnyValue copy = AnyValue::copyOf(value.asReference()); });
}

TEST(Codec, TakesTimeInProportionToWhatItReads) {
  // Freed memory stays here: what the system takes for giving it anew is not in proportion.
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  const auto strings = [](int count) {
    return AnyValue::from(std::vector<std::string>(static_cast<std::size_t>(count), "ab"));
  };
  const auto map = [](int count) {
    std::map<std::string, int> content;
    for (int i = 0; i < count; ++i) content[std::to_string(i)] = i;
    return AnyValue::from(content);
  };
  const auto dynamics = [](int count) {
    return AnyValue::from(
        std::vector<AnyValue>(static_cast<std::size_t>(count), AnyValue::from(1)));
  };
  const auto growth = [](const auto& make, const std::string& signature) {
    return copiesToRead(make(64'000), signature) / copiesToRead(make(2'000), signature);
  };
  // Of 32 times as much: in proportion it would be 1, by the square 32.
  EXPECT_LT(growth(strings, "as"), 10);
  EXPECT_LT(growth(map, "a{si}"), 10);
  EXPECT_LT(growth(map, "v"), 10) << "a map that knows its types by signature only";
  EXPECT_LT(growth(dynamics, "av"), 10);
}

}  // namespace
}  // namespace gv::wire

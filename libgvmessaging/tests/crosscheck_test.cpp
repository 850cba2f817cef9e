// Values of every kind, generated: they come back unchanged, an independent codec reads and writes
// the same, and no cut or changed byte does harm.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <msgpack.hpp>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gvtype/buffer.h>
#include <gvtype/struct.h>

#include "src/wire/parser.h"
#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"
#include "support/generator.h"

namespace gv::wire {
namespace {

using house::Generator;
using nlohmann::json;

enum class Level : std::uint8_t { Low, High };
struct Crumb {
  std::int16_t x = 0;
  std::vector<float> path;
  bool operator==(const Crumb&) const = default;
};
GV_STRUCT(Crumb, x, path)

/// Statically typed, with every kind in it.
using Everything =
    std::tuple<bool, std::int8_t, std::uint64_t, float, double, std::string, Buffer,
               std::vector<bool>, std::map<std::string, std::vector<std::pair<int, AnyValue>>>,
               AnyValue, std::vector<std::optional<std::optional<Level>>>, Crumb>;

/// Equal, and of the same kinds: an integer is no float here.
bool isSame(const json& a, const json& b) {
  constexpr auto lenient = json::error_handler_t::ignore;
  return a == b && a.dump(-1, ' ', false, lenient) == b.dump(-1, ' ', false, lenient);
}

std::vector<char> written(const AnyReference& value, const std::string& signature) {
  std::vector<char> payload;
  writeValue(payload, value, signature);
  return payload;
}

/// Each codec reads what the other wrote; `back` is another value of the type of `value`.
void crossCheck(Generator generator, const AnyReference& value, const AnyReference& back) {
  const json content = generator.fill(value, 4);
  const std::string signature = value.signature();
  const std::vector<char> ours = written(value, signature);
  readValue(ours, back, Limits());
  EXPECT_EQ(written(back, signature), ours) << "by our own codec";
  if (generator.usedOtherKeys()) return;
  EXPECT_TRUE(isSame(json::from_msgpack(ours), content)) << "by the other codec";
  const std::vector<std::uint8_t> theirs = json::to_msgpack(content);
  readValue(std::string_view(reinterpret_cast<const char*>(theirs.data()), theirs.size()), back,
            Limits());
  EXPECT_EQ(AnyValue::copyOf(back), AnyValue::copyOf(value)) << "what the other codec wrote";
  EXPECT_TRUE(isSame(json::from_msgpack(written(back, signature)), content));
}

TEST(Codec, AgreesWithAnIndependentOneOnGeneratedValues) {
  for (unsigned seed = 0; seed < 1000; ++seed) {
    SCOPED_TRACE(seed);
    Generator generator(seed);
    const std::string signature = generator.signature(4);
    const AnyValue made = AnyValue::makeDefault(signature);
    const AnyValue read = AnyValue::makeDefault(signature);
    crossCheck(generator, made.asReference(), read.asReference());
    const Everything all;
    const Everything back;
    crossCheck(generator, AnyReference::from(all), AnyReference::from(back));
    if (HasFailure()) break;
  }
}

/// Whether a payload is accepted as a dynamic value.
bool isDynamic(std::span<const char> payload, AnyValue& value) {
  try {
    readValue(payload, AnyReference::from(value), Limits());
    return true;
  } catch (const PayloadError&) {
    return false;
  }
}

TEST(Codec, IsCleanAtEveryCutAndEveryChangedByte) {
  const Everything all;
  Generator(5).fill(AnyReference::from(all), 2);
  const std::vector<char> good = written(AnyReference::from(all), "v");
  AnyValue back;
  ASSERT_TRUE(isDynamic(good, back));
  EXPECT_EQ(back.signature(), AnyReference::from(all).signature());
  EXPECT_EQ(back.to<Everything>(), all);
  for (std::size_t i = 0; i < good.size(); ++i) {
    EXPECT_FALSE(isDynamic(std::span(good).first(i), back)) << "cut at " << i;
    for (const int change : {0x01, 0x10, 0x80, 0xff}) {
      std::vector<char> changed = good;
      changed[i] = static_cast<char>(changed[i] ^ change);
      isDynamic(changed, back);  // accepted or refused; the sanitizers watch
    }
  }
}

/// Writes down all that a parser says.
struct Transcript {
  std::string text;

  bool say(const std::string& what) {
    text += what + ' ';
    return true;
  }
  bool visit_nil() { return say("nil"); }
  bool visit_boolean(bool value) { return say(value ? "yes" : "no"); }
  bool visit_positive_integer(std::uint64_t value) { return say(std::to_string(value)); }
  bool visit_negative_integer(std::int64_t value) { return say(std::to_string(value)); }
  bool visit_float32(float value) {
    return say("f" + std::to_string(std::bit_cast<std::uint32_t>(value)));
  }
  bool visit_float64(double value) {
    return say("d" + std::to_string(std::bit_cast<std::uint64_t>(value)));
  }
  bool visit_str(const char* bytes, std::uint32_t size) {
    return say("s" + std::string(bytes, size));
  }
  bool visit_bin(const char* bytes, std::uint32_t size) {
    return say("b" + std::string(bytes, size));
  }
  bool visit_ext(const char* bytes, std::uint32_t size) {
    return say("x" + std::string(bytes, size));
  }
  bool start_array(std::uint32_t count) { return say("[" + std::to_string(count)); }
  bool start_array_item() { return say("("); }
  bool end_array_item() { return say(")"); }
  bool end_array() { return say("]"); }
  bool start_map(std::uint32_t count) { return say("{" + std::to_string(count)); }
  bool start_map_key() { return say("k"); }
  bool end_map_key() { return say("."); }
  bool start_map_value() { return say("v"); }
  bool end_map_value() { return say(";"); }
  bool end_map() { return say("}"); }
  void parse_error(std::size_t, std::size_t) { say("malformed"); }
  void insufficient_bytes(std::size_t, std::size_t) { say("short"); }
};

TEST(Codec, ParsesAnyBytesAsTheLibraryThatPacksThem) {
  std::mt19937 random(7);
  const auto any = [&random](unsigned below) { return static_cast<unsigned>(random() % below); };
  for (unsigned round = 0; round < 200'000; ++round) {
    std::string bytes;
    for (unsigned size = 1 + any(24); bytes.size() < size;)  // many a length of four bytes is small
      bytes += static_cast<char>(any(3) == 0 ? 0x80 + any(0x80) : std::max(8u, any(16)) - 8);
    bytes.front() = static_cast<char>(round);
    Transcript ours, theirs;
    Parser parser(bytes, ours);
    const bool isRead = parser.parse();
    std::size_t offset = 0;
    ASSERT_EQ(isRead, msgpack::parse(bytes.data(), bytes.size(), offset, theirs));
    ASSERT_EQ(ours.text, theirs.text);
    if (isRead) {
      ASSERT_EQ(parser.offset(), offset);
    }
  }
}

TEST(Codec, KeepsWhatIsNotANumber) {
  for (const char* signature : {"f", "d"}) {
    const AnyValue back = AnyValue::makeDefault(signature);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    readValue(written(AnyReference::from(nan), signature), back.asReference(), Limits());
    EXPECT_TRUE(std::isnan(back.to<double>()));
  }
}

}  // namespace
}  // namespace gv::wire

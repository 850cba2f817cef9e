// Values of every kind, generated: they come back unchanged, an independent codec reads and writes
// the same, and no cut or changed byte does harm.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gvtype/buffer.h>
#include <gvtype/struct.h>

#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"

namespace gv::wire {
namespace {

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

/// Makes up values, and says what another codec should see in each.
class Generator {
 public:
  explicit Generator(unsigned seed) : random_(seed) {}

  std::string signature(int depth, bool inDynamic = false) {
    static const std::string scalars = "bcynqiuxtfdsr";
    const std::size_t kinds = scalars.size() + (depth > 0 ? 5 : 0);
    const std::size_t kind = below(kinds);
    if (kind < scalars.size()) return {scalars[kind]};
    switch (kind - scalars.size()) {
      case 0:
        return "a" + signature(depth - 1);
      case 1:
        return "a{" + (below(3) == 0 ? signature(depth - 1) : "s") + signature(depth - 1) + "}";
      case 2:
        return "(" + signature(depth - 1) + signature(depth - 1) + ")";
      case 3:
        return "m" + signature(depth - 1);
      default:
        return inDynamic ? "s" : "v";
    }
  }

  /// Whether a map got keys that are no strings, which the other codec does not know.
  bool usedOtherKeys() const { return usedOtherKeys_; }

  /// Gives the value at @p target a content, and returns that.
  json fill(const AnyReference& target, int depth) {
    const TypeInterface& type = *target.type();
    void* value = target.pointer();
    switch (type.kind) {
      case TypeKind::Bool:
        return *static_cast<bool*>(value) = below(2) == 1;
      case TypeKind::Int:
        return integer(type, value);
      case TypeKind::Float:
        return type.size == sizeof(float) ? real(*static_cast<float*>(value))
                                          : real(*static_cast<double*>(value));
      case TypeKind::String:
      case TypeKind::Raw:
        return bytes(type, value);
      case TypeKind::List:
        return list(*type.list, value, depth);
      case TypeKind::Map:
        return map(*type.map, value, depth);
      case TypeKind::Tuple: {
        json content = json::array();
        for (std::size_t i = 0; i < type.tuple->size(value); ++i)
          content.push_back(fill(type.tuple->member(value, i), depth));
        return content;
      }
      case TypeKind::Optional: {
        json content = json::array();
        if (below(3) != 0) content.push_back(fill(type.optional->emplace(value), depth));
        return content;
      }
      default:
        return dynamic(*type.dynamic, value, depth);
    }
  }

 private:
  std::size_t below(std::size_t end) { return random_() % end; }

  json integer(const TypeInterface& type, void* value) {
    // Random bits, or few: every length of the encoding comes up.
    std::uint64_t bits = random_();
    if (below(4) != 0) bits >>= below(64);
    const std::size_t unused = 64 - 8 * type.size;
    std::int64_t number = static_cast<std::int64_t>(bits << unused) >> unused;
    if (!type.isSigned) number = static_cast<std::int64_t>(bits << unused >> unused);
    convertInto(type.isSigned ? AnyReference::from(number)
                              : AnyReference::own(static_cast<std::uint64_t>(number)),
                &type, value);
    if (type.isSigned && number < 0) return number;
    return static_cast<std::uint64_t>(number);
  }

  template <class T>
  json real(T& value) {
    using Limit = std::numeric_limits<T>;
    const T special[] = {0, -T{0}, T{1.5}, Limit::max(), Limit::denorm_min(), -Limit::infinity()};
    const std::size_t choice = below(8);
    value = choice < 6 ? special[choice]
                       : std::ldexp(static_cast<T>(random_()), static_cast<int>(below(40)) - 80);
    return static_cast<double>(value);
  }

  json bytes(const TypeInterface& type, void* value) {
    // About the sizes where the length of the length changes.
    const std::size_t sizes[] = {0, 5, 31, 32, 255, 256, below(300), below(70'000)};
    std::string text(sizes[below(sizes[7] % 9 == 0 ? 8 : 7)], '\0');
    for (char& byte : text) byte = static_cast<char>(random_());
    type.bytes->assign(value, text);
    if (type.kind == TypeKind::String) return text;
    return json::binary({text.begin(), text.end()});
  }

  json list(const ListOps& ops, void* value, int depth) {
    json content = json::array();
    ops.clear(value);
    for (std::size_t left = below(10) == 0 ? 20 : below(4); left > 0; --left) {
      if (ops.emplace) {
        content.push_back(fill(ops.emplace(value), depth));
      } else {
        const AnyValue element = AnyValue::make(ops.elementType());
        content.push_back(fill(element.asReference(), depth));
        ops.push(value, element.asReference().pointer());
      }
    }
    return content;
  }

  json map(const MapOps& ops, void* value, int depth) {
    json content = json::object();
    ops.clear(value);
    for (std::size_t left = below(5); left > 0; --left) {
      AnyValue key = ops.makeKey(value);
      AnyValue mapped = ops.makeValue(value);
      const json keyContent = fill(key.asReference(), depth);
      const std::string name =
          keyContent.is_string() ? keyContent.get<std::string>() : std::to_string(content.size());
      const json mappedContent = fill(mapped.asReference(), depth);
      if (content.contains(name) || isIn(ops, value, key)) continue;
      content[name] = mappedContent;
      usedOtherKeys_ = usedOtherKeys_ || !keyContent.is_string();
      key.updateNesting();
      mapped.updateNesting();
      ops.insert(value, std::move(key), std::move(mapped));
    }
    return content;
  }

  static bool isIn(const MapOps& ops, const void* map, const AnyValue& wanted) {
    bool found = false;
    ops.forEach(map, [&](const AnyReference& key, const AnyReference&) {
      found = found || AnyValue::copyOf(key) == wanted;
    });
    return found;
  }

  json dynamic(const DynamicOps& ops, void* value, int depth) {
    if (below(5) == 0) {
      ops.assign(value, {});
      return nullptr;
    }
    const std::string inner = signature(depth > 0 ? depth - 1 : 0, true);
    const AnyValue content = AnyValue::makeDefault(inner);
    json seen = fill(content.asReference(), depth > 0 ? depth - 1 : 0);
    ops.assign(value, content.asReference());
    return json::array({inner, std::move(seen)});
  }

  std::mt19937_64 random_;
  bool usedOtherKeys_ = false;
};

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
  readValue({reinterpret_cast<const char*>(theirs.data()), theirs.size()}, back, Limits());
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

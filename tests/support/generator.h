#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <utility>

#include <gvtype/anyvalue.h>
#include <gvtype/conversion.h>
#include <nlohmann/json.hpp>

namespace house {

/// Makes up values, and says what another codec should see in each.
class Generator {
 public:
  using json = nlohmann::json;

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
  json fill(const gv::AnyReference& target, int depth) {
    const gv::TypeInterface& type = *target.type();
    void* value = target.pointer();
    switch (type.kind) {
      case gv::TypeKind::Bool:
        return *static_cast<bool*>(value) = below(2) == 1;
      case gv::TypeKind::Int:
        return integer(type, value);
      case gv::TypeKind::Float:
        return type.size == sizeof(float) ? real(*static_cast<float*>(value))
                                          : real(*static_cast<double*>(value));
      case gv::TypeKind::String:
      case gv::TypeKind::Raw:
        return bytes(type, value);
      case gv::TypeKind::List:
        return list(*type.list, value, depth);
      case gv::TypeKind::Map:
        return map(*type.map, value, depth);
      case gv::TypeKind::Tuple: {
        json content = json::array();
        for (std::size_t i = 0; i < type.tuple->size(value); ++i)
          content.push_back(fill(type.tuple->member(value, i), depth));
        return content;
      }
      case gv::TypeKind::Optional: {
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

  json integer(const gv::TypeInterface& type, void* value) {
    // Random bits, or few: every length of the encoding comes up.
    std::uint64_t bits = random_();
    if (below(4) != 0) bits >>= below(64);
    const std::size_t unused = 64 - 8 * type.size;
    std::int64_t number = static_cast<std::int64_t>(bits << unused) >> unused;
    if (!type.isSigned) number = static_cast<std::int64_t>(bits << unused >> unused);
    gv::convertInto(type.isSigned ? gv::AnyReference::from(number)
                                  : gv::AnyReference::own(static_cast<std::uint64_t>(number)),
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

  json bytes(const gv::TypeInterface& type, void* value) {
    // About the sizes where the length of the length changes.
    const std::size_t sizes[] = {0, 5, 31, 32, 255, 256, below(300), below(70'000)};
    std::string text(sizes[below(sizes[7] % 9 == 0 ? 8 : 7)], '\0');
    for (char& byte : text) byte = static_cast<char>(random_());
    type.bytes->assign(value, text);
    if (type.kind == gv::TypeKind::String) return text;
    return json::binary({text.begin(), text.end()});
  }

  json list(const gv::ListOps& ops, void* value, int depth) {
    json content = json::array();
    ops.clear(value);
    for (std::size_t left = below(10) == 0 ? 20 : below(4); left > 0; --left) {
      if (ops.emplace) {
        content.push_back(fill(ops.emplace(value), depth));
      } else {
        const gv::AnyValue element = gv::AnyValue::make(ops.elementType());
        content.push_back(fill(element.asReference(), depth));
        ops.push(value, element.asReference().pointer());
      }
    }
    return content;
  }

  json map(const gv::MapOps& ops, void* value, int depth) {
    json content = json::object();
    ops.clear(value);
    for (std::size_t left = below(5); left > 0; --left) {
      gv::AnyValue key = ops.makeKey(value);
      gv::AnyValue mapped = ops.makeValue(value);
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

  static bool isIn(const gv::MapOps& ops, const void* map, const gv::AnyValue& wanted) {
    bool found = false;
    ops.forEach(map, [&](const gv::AnyReference& key, const gv::AnyReference&) {
      found = found || gv::AnyValue::copyOf(key) == wanted;
    });
    return found;
  }

  json dynamic(const gv::DynamicOps& ops, void* value, int depth) {
    if (below(5) == 0) {
      ops.assign(value, {});
      return nullptr;
    }
    const std::string inner = signature(depth > 0 ? depth - 1 : 0, true);
    const gv::AnyValue content = gv::AnyValue::makeDefault(inner);
    json seen = fill(content.asReference(), depth > 0 ? depth - 1 : 0);
    ops.assign(value, content.asReference());
    return json::array({inner, std::move(seen)});
  }

  std::mt19937_64 random_;
  bool usedOtherKeys_ = false;
};

}  // namespace house

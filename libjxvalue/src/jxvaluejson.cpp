#include <jxvalue/jxvalue.h>

#include <jxerror/jxerror.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "base64.h"

namespace JX {
namespace {

using Json = nlohmann::json;

constexpr std::size_t maxDepth = 64;
constexpr const char* binaryKey = "$binary";
constexpr const char* textKey = "$text";
constexpr const char* floatKey = "$float";

std::string tooDeep() {
  return "arrays nest deeper than " + std::to_string(maxDepth);
}

std::string special(const char* key, const std::string& content) {
  return std::string("{\"") + key + "\": \"" + content + "\"}";
}

std::string textToJson(const std::string& text) {
  try {
    return Json(text).dump();
  } catch (const Json::type_error&) {  // not UTF-8
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    return special(textKey, detail::base64Encode(bytes, text.size()));
  }
}

std::string floatToJson(double number) {
  if (std::isnan(number)) return special(floatKey, "nan");
  if (std::isinf(number)) return special(floatKey, number > 0 ? "inf" : "-inf");
  char buffer[32];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, number).ptr;
  std::string text(buffer, end);
  if (text.find('.') == std::string::npos) {
    text.insert(std::min(text.find('e'), text.size()), ".0");
  }
  return text;
}

void appendJson(const JXValue& value, std::size_t depth, std::string& out) {
  switch (value.kind()) {
    case JXValue::Kind::Invalid:
      out += "null";
      return;
    case JXValue::Kind::Bool:
      out += value.toBool() ? "true" : "false";
      return;
    case JXValue::Kind::UInt64:
      out += std::to_string(value.toUInt64());
      return;
    case JXValue::Kind::Float:
      out += floatToJson(value.toDouble());
      return;
    case JXValue::Kind::String:
      out += textToJson(value.toString());
      return;
    case JXValue::Kind::Binary: {
      const auto& bytes = value.toBinary();
      out += special(binaryKey, detail::base64Encode(bytes.data(), bytes.size()));
      return;
    }
    case JXValue::Kind::Array:
      if (depth == maxDepth) throw JXError("JXValue", "toJson", tooDeep());
      out += '[';
      for (int i = 0; i < value.getSize(); ++i) {
        if (i > 0) out += ", ";
        appendJson(value[i], depth + 1, out);
      }
      out += ']';
      return;
    default:
      out += std::to_string(value.toInt64());
      return;
  }
}

/// Builds the value while the parser reads, so that the depth is checked before it is reached.
class Reader : public nlohmann::json_sax<Json> {
 public:
  JXValue take() { return std::move(result_); }

  bool null() override { return add(JXValue()); }
  bool boolean(bool value) override { return add(value); }

  bool number_integer(number_integer_t number) override {
    if (std::in_range<int>(number)) return add(static_cast<int>(number));
    return add(std::int64_t{number});
  }

  bool number_unsigned(number_unsigned_t number) override {
    if (std::in_range<std::int64_t>(number))
      return number_integer(static_cast<std::int64_t>(number));
    return add(std::uint64_t{number});
  }

  bool number_float(number_float_t number, const string_t& digits) override {
    // The parser hands over integers beyond 64 bits as floats.
    if (digits.find_first_of(".eE") == std::string::npos) {
      fail("the integer " + digits + " does not fit into 64 bits");
    }
    return add(number);
  }

  bool string(string_t& text) override {
    if (!key_) return add(std::move(text));
    if (special_) failObject();
    special_ = specialValue(text);
    return true;
  }

  bool binary(binary_t&) override { return false; }

  bool start_array(std::size_t) override {
    if (key_ || inObject_) failObject();
    if (open_.size() == maxDepth) fail(tooDeep());
    open_.emplace_back().arraySetSize(0);
    return true;
  }

  bool end_array() override {
    JXValue done = std::move(open_.back());
    open_.pop_back();
    return add(std::move(done));
  }

  bool start_object(std::size_t) override {
    if (inObject_) failObject();
    inObject_ = true;
    return true;
  }

  bool key(string_t& name) override {
    if (key_) failObject();
    key_ = std::move(name);
    return true;
  }

  bool end_object() override {
    if (!special_) failObject();
    JXValue value = std::move(*special_);
    inObject_ = false;
    key_.reset();
    special_.reset();
    return add(std::move(value));
  }

  bool parse_error(std::size_t, const std::string&, const Json::exception& error) override {
    fail(error.what());
  }

 private:
  [[noreturn]] static void fail(const std::string& text) {
    throw JXError("JXValue", "fromJson", text);
  }

  [[noreturn]] void failObject() const {
    fail("the only objects are those of one entry, \"" + std::string(binaryKey) + "\", \"" +
         textKey + "\" or \"" + floatKey + "\", with a text");
  }

  bool add(JXValue value) {
    if (inObject_) failObject();
    if (open_.empty()) {
      result_ = std::move(value);
    } else {
      open_.back().arrayPush(std::move(value));
    }
    return true;
  }

  JXValue specialValue(const std::string& content) const {
    if (*key_ == floatKey) {
      constexpr double infinity = std::numeric_limits<double>::infinity();
      if (content == "nan") return std::numeric_limits<double>::quiet_NaN();
      if (content == "inf") return infinity;
      if (content == "-inf") return -infinity;
      fail("\"" + content + "\" is none of nan, inf and -inf");
    }
    if (*key_ != binaryKey && *key_ != textKey) failObject();
    const auto bytes = detail::base64Decode(content);
    if (!bytes) fail("the content of \"" + *key_ + "\" is not base64");
    if (*key_ == textKey) return std::string(bytes->begin(), bytes->end());
    return JXValue::binary(bytes->data(), bytes->size());
  }

  JXValue result_;
  std::vector<JXValue> open_;       // the arrays around the place being read, outermost first
  bool inObject_ = false;           // between the braces of an object
  std::optional<std::string> key_;  // its key, once read
  std::optional<JXValue> special_;  // what it stands for, once read
};

}  // namespace

std::string JXValue::toJson() const {
  std::string text;
  appendJson(*this, 0, text);
  return text;
}

JXValue JXValue::fromJson(const std::string& text) {
  Reader reader;
  Json::sax_parse(text, &reader);
  return reader.take();
}

}  // namespace JX

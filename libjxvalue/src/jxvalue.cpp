#include <jxvalue/jxvalue.h>

#include <jxerror/jxerror.h>

#include <type_traits>
#include <utility>

namespace JX {
namespace {

constexpr const char* kindNames[] = {"invalid", "bool",  "int",    "unsigned int", "int64",
                                     "uint64",  "float", "string", "binary",       "array"};

[[noreturn]] void fail(const char* method, const std::string& text) {
  throw JXError("JXValue", method, text);
}

[[noreturn]] void failKind(const JXValue& value, const char* method) {
  fail(method, std::string("the value is of kind ") + kindNames[static_cast<int>(value.kind())]);
}

// Calls `use` with the integer in the width and sign it has.
template <class Use>
auto withInteger(const JXValue& value, const auto& storage, const char* method, Use use) {
  switch (value.kind()) {
    case JXValue::Kind::Int:
      return use(std::get<std::int32_t>(storage));
    case JXValue::Kind::UInt:
      return use(std::get<std::uint32_t>(storage));
    case JXValue::Kind::Int64:
      return use(std::get<std::int64_t>(storage));
    case JXValue::Kind::UInt64:
      return use(std::get<std::uint64_t>(storage));
    default:
      failKind(value, method);
  }
}

template <class Target>
Target toInteger(const JXValue& value, const auto& storage, const char* method) {
  return withInteger(value, storage, method, [&](auto number) {
    if (!std::in_range<Target>(number)) {
      fail(method, std::to_string(number) + " does not fit");
    }
    return static_cast<Target>(number);
  });
}

constexpr double twoTo64 = 18446744073709551616.0;

double integerToDouble(auto number) {
  const auto result = static_cast<double>(number);
  // The upper end rounds to a power of two that casting back would overflow.
  constexpr double end = std::is_signed_v<decltype(number)> ? twoTo64 / 2 : twoTo64;
  if (result >= end || static_cast<decltype(number)>(result) != number) {
    fail("toDouble", std::to_string(number) + " has no exact value as a double");
  }
  return result;
}

}  // namespace

JXValue::JXValue() noexcept = default;
JXValue::JXValue(int value) noexcept : storage_(std::int32_t{value}) {}
JXValue::JXValue(unsigned value) noexcept : storage_(std::uint32_t{value}) {}
JXValue::JXValue(long value) noexcept : storage_(std::int64_t{value}) {}
JXValue::JXValue(unsigned long value) noexcept : storage_(std::uint64_t{value}) {}
JXValue::JXValue(long long value) noexcept : storage_(std::int64_t{value}) {}
JXValue::JXValue(unsigned long long value) noexcept : storage_(std::uint64_t{value}) {}
JXValue::JXValue(float value) noexcept : storage_(double{value}) {}
JXValue::JXValue(double value) noexcept : storage_(value) {}
JXValue::JXValue(std::string text) : storage_(std::move(text)) {}

JXValue::JXValue(const char* text) {
  if (text == nullptr) fail("JXValue", "the text is a null pointer");
  storage_.emplace<std::string>(text);
}

JXValue JXValue::binary(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  JXValue result;
  result.storage_.emplace<Binary>(bytes, bytes + size);
  return result;
}

// Delegates, so that a copy that runs out of memory half-way is destroyed as any other value.
JXValue::JXValue(const JXValue& other) : JXValue() {
  if (!other.isArray()) {
    storage_ = other.storage_;
    return;
  }
  // A list of what is still to copy instead of recursion: depth must not cost stack.
  std::vector<std::pair<const Array*, Array*>> pending;
  const auto open = [&pending](const JXValue& from, JXValue& to) {
    const auto& source = std::get<Array>(from.storage_);
    pending.emplace_back(&source, &to.storage_.emplace<Array>(source.size()));
  };
  open(other, *this);
  while (!pending.empty()) {
    const auto [source, target] = pending.back();
    pending.pop_back();
    for (std::size_t i = 0; i < source->size(); ++i) {
      const JXValue& from = (*source)[i];
      if (from.isArray()) {
        open(from, (*target)[i]);
      } else {
        (*target)[i].storage_ = from.storage_;
      }
    }
  }
}

JXValue::JXValue(JXValue&& other) noexcept : storage_(std::move(other.storage_)) {
  other.storage_.emplace<std::monostate>();
}

JXValue& JXValue::operator=(JXValue other) noexcept {
  if (isArray())
    storage_.swap(other.storage_);  // it dies in a JXValue's destructor, however deep it is
  else
    storage_ = std::move(other.storage_);
  return *this;
}

JXValue::~JXValue() {
  if (!isArray()) return;
  // Neither recursion, which deep values would take too far, nor a list, whose memory a destructor
  // may not ask for: the first slot of an opened array links to the array that held it.
  Array current;
  const auto open = [&current](JXValue& held) {
    Array opened = std::move(std::get<Array>(held.storage_));
    held.storage_ = std::monostate();
    if (opened.empty()) return;
    std::swap(opened.front().storage_, held.storage_);
    JXValue link;
    link.storage_.emplace<Array>(std::move(current));
    std::swap(opened.front().storage_, link.storage_);
    current = std::move(opened);
  };
  while (isArray()) open(*this);
  while (!current.empty()) {
    if (current.size() == 1) {
      Array parent = std::move(std::get<Array>(current.front().storage_));
      current = std::move(parent);
      continue;
    }
    std::swap(storage_, current.back().storage_);
    current.pop_back();
    while (isArray()) open(*this);
    storage_ = std::monostate();
  }
}

bool JXValue::toBool() const {
  if (!isBool()) failKind(*this, "toBool");
  return std::get<bool>(storage_);
}

int JXValue::toInt() const {
  return toInteger<int>(*this, storage_, "toInt");
}
unsigned JXValue::toUInt() const {
  return toInteger<unsigned>(*this, storage_, "toUInt");
}

std::int64_t JXValue::toInt64() const {
  return toInteger<std::int64_t>(*this, storage_, "toInt64");
}

std::uint64_t JXValue::toUInt64() const {
  return toInteger<std::uint64_t>(*this, storage_, "toUInt64");
}

double JXValue::toDouble() const {
  if (isFloat()) return std::get<double>(storage_);
  return withInteger(*this, storage_, "toDouble",
                     [](auto number) { return integerToDouble(number); });
}

const std::string& JXValue::toString() const& {
  if (!isString()) failKind(*this, "toString");
  return std::get<std::string>(storage_);
}

std::string JXValue::toString() && {
  return std::as_const(*this).toString();
}

const std::vector<unsigned char>& JXValue::toBinary() const& {
  if (!isBinary()) failKind(*this, "toBinary");
  return std::get<Binary>(storage_);
}

std::vector<unsigned char> JXValue::toBinary() && {
  return std::as_const(*this).toBinary();
}

void JXValue::arraySetSize(int size) {
  if (size < 0) fail("arraySetSize", "the size " + std::to_string(size) + " is negative");
  if (!isArray()) storage_.emplace<Array>();
  std::get<Array>(storage_).resize(static_cast<std::size_t>(size));
}

int JXValue::getSize() const {
  if (!isValid()) return 0;
  if (!isArray()) failKind(*this, "getSize");
  return static_cast<int>(std::get<Array>(storage_).size());
}

JXValue::Array& JXValue::changeableArray(const char* method) {
  if (!isValid()) storage_.emplace<Array>();
  if (!isArray()) failKind(*this, method);
  return std::get<Array>(storage_);
}

JXValue& JXValue::operator[](int index) {
  if (index < 0) fail("operator[]", "the index " + std::to_string(index) + " is negative");
  auto& array = changeableArray("operator[]");
  const auto place = static_cast<std::size_t>(index);
  if (place >= array.size()) array.resize(place + 1);
  return array[place];
}

const JXValue& JXValue::operator[](int index) const {
  const int size = getSize();
  if (index < 0 || index >= size) {
    fail("operator[]", "the index " + std::to_string(index) + " is outside an array of " +
                           std::to_string(size) + " elements");
  }
  return std::get<Array>(storage_)[static_cast<std::size_t>(index)];
}

void JXValue::arrayPush(JXValue value) {
  changeableArray("arrayPush").push_back(std::move(value));
}

}  // namespace JX

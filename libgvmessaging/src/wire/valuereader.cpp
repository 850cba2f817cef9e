#include "src/wire/valuereader.h"

#include <bit>
#include <cstdint>
#include <cstring>
#include <deque>
#include <msgpack.hpp>
#include <optional>
#include <utility>

#include <gvtype/conversion.h>
#include <gvtype/signature.h>

#include "src/wire/output.h"
#include "src/wire/parser.h"

namespace gv::wire {
namespace {

/// Where a value goes. A reference that never owns: copied for each part of a payload.
class Slot {
 public:
  Slot() = default;
  Slot(const AnyReference& reference)  // NOLINT: implicit, as references become slots everywhere
      : type_(reference.type()), pointer_(reference.pointer()) {}

  bool isValid() const { return type_ != nullptr; }
  const TypeInterface* type() const { return type_; }
  void* pointer() const { return pointer_; }
  AnyValue* asAnyValue() const {
    return sameType(type_, getType<AnyValue>()) ? static_cast<AnyValue*>(pointer_) : nullptr;
  }

 private:
  const TypeInterface* type_ = nullptr;
  void* pointer_ = nullptr;
};

/// A container that is being read. References into one stay good while others come and go above it.
struct Level {
  enum class Kind { Arguments, List, Map, Tuple, Optional, Dynamic };

  Kind kind{};
  Slot container{};
  std::size_t index = 0;
  AnyValue key;           // of a map's entry
  AnyValue item;          // of an entry, of a dynamic value, of a list of bits
  std::string signature;  // of a dynamic value
};

PassedObject readPassed(std::span<const char> ext, const Limits& limits, std::size_t& budget);

/// Receives the parts of a payload from MessagePack's parser and puts them where they belong.
class Decoder : public msgpack::null_visitor {
 public:
  Decoder(const Encoded& payload, const Limits& limits, IncomingObjects* objects = nullptr)
      : payloadSize_(payload.bytes.size()),
        keeper_(payload.keeper),
        budget_(limits.decodedBytes),
        nesting_(limits.nesting),
        objects_(objects) {}
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  std::size_t budget() const { return budget_; }

  void expect(const AnyReference& target) { slot_ = target; }
  void expectArguments(const std::vector<AnyReference>& targets, std::vector<AnyValue>* tail) {
    targets_ = &targets;
    tail_ = tail;
  }

  /// Most dynamic values hold a number or a short string: such a one is read at once, for what its
  /// parts would be charged. What is unusual or wrong in any way is left to the reading by parts.
  std::size_t readWhole(std::span<const char> rest) {
    constexpr std::size_t head = 3;  // an array of two, a string of one character
    if (!slot_.isValid() || slot_.type()->kind != TypeKind::Dynamic || rest.size() <= head ||
        rest[0] != '\x92' || rest[1] != '\xa1' || depth_ == mostLevels())
      return 0;
    const auto body = rest.subspan(head);
    const std::size_t size = readFlat(rest[2], body);
    return size == 0 ? 0 : head + size;
  }

  bool visit_nil() {
    const TypeKind kind = slotKind("nil");
    if (kind == TypeKind::Dynamic)
      slot_.type()->dynamic->assign(slot_.pointer(), {});
    else if (kind == TypeKind::Object)
      slot_.type()->object->set(slot_.pointer(), {});
    else if (kind != TypeKind::Void)
      mismatch("nil");
    return true;
  }
  bool visit_boolean(bool value) {
    if (slotKind("a bool") != TypeKind::Bool) mismatch("a bool");
    convertInto(AnyReference::from(value), slot_.type(), slot_.pointer());
    return true;
  }
  bool visit_positive_integer(std::uint64_t value) { return takeInteger(value); }
  bool visit_negative_integer(std::int64_t value) { return takeInteger(value); }
  bool visit_float32(float value) { return takeFloat(AnyReference::from(value)); }
  bool visit_float64(double value) { return takeFloat(AnyReference::from(value)); }
  bool visit_str(const char* text, std::uint32_t size) {
    return takeBytes(TypeKind::String, "a string", {text, size});
  }
  bool visit_bin(const char* bytes, std::uint32_t size) {
    return takeBytes(TypeKind::Raw, "raw bytes", {bytes, size});
  }
  bool visit_ext(const char* bytes, std::uint32_t size) {
    if (slotKind("an extension value") != TypeKind::Object) mismatch("an extension value");
    if (!objects_) throw PayloadError("it has an object, which cannot be sent here" + where());
    Limits rest;
    rest.decodedBytes = budget_;
    rest.nesting = nesting_;
    const Object<Empty> object = objects_->receive(readPassed({bytes, size}, rest, budget_));
    if (!slot_.type()->object->set(slot_.pointer(), object))
      throw PayloadError("it has an object of another class, or of another process, than expected" +
                         where());
    return true;
  }

  bool start_array(std::uint32_t count) {
    checkCount(count);
    if (depth_ == 0 && targets_) {
      startArguments(count);
      return true;
    }
    switch (slotKind("an array")) {
      case TypeKind::List:
        slot_.type()->list->clear(slot_.pointer());
        push(Level::Kind::List);
        break;
      case TypeKind::Tuple:
        checkSize(count, slot_.type()->tuple->size(slot_.pointer()));
        push(Level::Kind::Tuple);
        break;
      case TypeKind::Optional:
        if (count > 1) checkSize(count, 1);
        slot_.type()->optional->reset(slot_.pointer());
        push(Level::Kind::Optional);
        break;
      case TypeKind::Dynamic:
        checkSize(count, 2);
        push(Level::Kind::Dynamic);
        break;
      default:
        mismatch("an array");
    }
    return true;
  }
  bool start_array_item() {
    Level& level = top();
    switch (level.kind) {
      case Level::Kind::Arguments:
        if (level.index < targets_->size())
          slot_ = (*targets_)[level.index];
        else
          slot_ = AnyReference::from(tail_->emplace_back());
        break;
      case Level::Kind::List:
        startElement(level);
        break;
      case Level::Kind::Tuple:
        slot_ = level.container.type()->tuple->member(level.container.pointer(), level.index);
        break;
      case Level::Kind::Optional:
        chargeGeneric(level.container);
        slot_ = level.container.type()->optional->emplace(level.container.pointer());
        break;
      default:
        slot_ = level.index == 0 ? AnyReference::from(level.signature) : level.item.asReference();
    }
    charge(slot_.type()->size);
    return true;
  }
  bool end_array_item() {
    Level& level = top();
    const ListOps* list = level.kind == Level::Kind::List ? level.container.type()->list : nullptr;
    if (list && !list->emplace)
      list->push(level.container.pointer(), level.item.asReference().pointer());
    if (level.kind == Level::Kind::Dynamic && level.index == 0) startContent(level);
    ++level.index;
    return true;
  }
  bool end_array() {
    Level& level = top();
    if (level.kind == Level::Kind::Dynamic) {
      level.item.updateNesting();
      if (AnyValue* value = level.container.asAnyValue())
        *value = std::move(level.item);
      else
        level.container.type()->dynamic->assign(level.container.pointer(),
                                                level.item.asReference());
    }
    pop();
    return true;
  }

  bool start_map(std::uint32_t count) {
    checkCount(count);
    if (slotKind("a map") != TypeKind::Map) mismatch("a map");
    slot_.type()->map->clear(slot_.pointer());
    push(Level::Kind::Map);
    return true;
  }
  bool start_map_key() {
    Level& level = top();
    chargeGeneric(level.container);
    level.key = level.container.type()->map->makeKey(level.container.pointer());
    return startPart(level.key);
  }
  bool start_map_value() {
    Level& level = top();
    level.item = level.container.type()->map->makeValue(level.container.pointer());
    return startPart(level.item);
  }
  bool end_map_value() {
    Level& level = top();
    const MapOps* map = level.container.type()->map;
    map->insert(level.container.pointer(), std::move(level.key), std::move(level.item));
    if (map->size(level.container.pointer()) != level.index + 1)
      throw PayloadError("a key of a map comes twice" + where());
    ++level.index;
    return true;
  }
  bool end_map() {
    pop();
    return true;
  }

  void parse_error(std::size_t, std::size_t) { throw PayloadError("it is malformed"); }
  void insufficient_bytes(std::size_t, std::size_t) { throw PayloadError("it ends too early"); }

 private:
  Level& top() { return *top_; }
  const Level& top() const { return *top_; }

  TypeKind slotKind(const char* found) const {
    if (!slot_.isValid()) mismatch(found);
    return slot_.type()->kind;
  }
  [[noreturn]] void mismatch(const char* found) const {
    throw PayloadError(std::string("it has ") + found + " where " +
                       (slot_.isValid() ? typeName(slot_.type()) : "the arguments of a call") +
                       " is expected" + where());
  }
  std::string where() const {
    if (depth_ == 0) return {};
    const Level& level = top();
    return std::string(level.kind == Level::Kind::Arguments ? " (argument " : " (element ") +
           std::to_string(level.index + 1) + ")";
  }

  /// Each element takes a byte at least, so more elements than bytes are a lie.
  void checkCount(std::uint32_t count) const {
    if (count > payloadSize_) throw PayloadError("it announces more elements than it has bytes");
  }
  void checkSize(std::size_t count, std::size_t expected) const {
    if (count != expected)
      throw PayloadError("it has " + std::to_string(count) + " elements where " +
                         std::to_string(expected) + " are expected" + where());
  }
  void charge(std::size_t bytes) {
    if (bytes + 1 > budget_) throw PayloadError("its values take more memory than is allowed");
    budget_ -= bytes + 1;
  }
  std::size_t mostLevels() const {
    return nesting_ + (targets_ ? 1 : 0);  // the arguments are no level
  }
  void push(Level::Kind kind) {
    if (depth_ == mostLevels())
      throw PayloadError("it nests deeper than " + std::to_string(nesting_) + " levels");
    if (depth_ > 0 && !inner_) inner_.emplace();
    if (depth_ > 0 && depth_ > inner_->size()) inner_->emplace_back();
    ++depth_;
    findTop();
    top_->kind = kind;
    top_->container = slot_;
    top_->index = 0;
  }
  void pop() {
    --depth_;
    findTop();
  }
  void findTop() { top_ = depth_ < 2 ? &outermost_ : &(*inner_)[depth_ - 2]; }

  void startArguments(std::uint32_t count) {
    if (count < targets_->size() || (count > targets_->size() && !tail_))
      throw PayloadError("it has " + std::to_string(count) + " arguments where " +
                         std::to_string(targets_->size()) + " are expected");
    push(Level::Kind::Arguments);
  }
  /// The elements of a generic container are made from its signature, each with a copy of its part
  /// and, for a tuple, with all its members: that is paid for before it is done.
  void chargeGeneric(const Slot& container) {
    if (const auto ownSignature = container.type()->ownSignature)
      chargeDefault(ownSignature(container.pointer()));
  }
  void chargeDefault(const std::string& signature) {
    charge((signature.size() + 1) * sizeof(AnyValue));
  }
  void startElement(Level& level) {
    chargeGeneric(level.container);
    const ListOps* list = level.container.type()->list;
    if (list->emplace) {
      slot_ = list->emplace(level.container.pointer());
    } else {
      level.item = AnyValue::make(list->elementType());
      slot_ = level.item.asReference();
    }
  }
  void startContent(Level& level) {
    constexpr std::string_view flatCodes = "bcynqiuxtfdsr";
    if (level.signature.size() == 1 && flatCodes.find(level.signature[0]) != flatCodes.npos) {
      charge(flatDefault);
      level.item = AnyValue::makeDefault(level.signature);
      return;
    }
    if (level.signature == "v" || level.signature == "V" || level.signature.empty())
      throw PayloadError("a dynamic value cannot have the signature '" + level.signature + "'");
    const Signature checked(level.signature);  // refuses a malformed or very long one
    if (signatureHasCode(level.signature, 'X') ||
        (!objects_ && signatureHasCode(level.signature, 'o')))
      throw PayloadError("a value of the signature '" + level.signature + "' cannot be sent");
    chargeDefault(checked.toString());
    level.item = AnyValue::makeDefault(checked.toString());
  }
  bool startPart(const AnyValue& part) {
    slot_ = part.asReference();
    charge(sizeof(AnyValue));
    return true;
  }

  /// The size of the content, 0 where it was left.
  std::size_t readFlat(char code, std::span<const char> body) {
    const auto tag = static_cast<std::uint8_t>(body[0]);
    if (code == 's') {
      const std::size_t size = tag & 0x1f;
      if ((tag & 0xe0) != 0xa0 || body.size() <= size) return 0;
      const auto text = body.subspan(1, size);
      return holdFlat<std::string>({text.data(), size}, size + 1) ? 1 + size : 0;
    }
    if (code == 'd') {
      if (tag != 0xcb || body.size() <= 8) return 0;
      return holdFlat(std::bit_cast<double>(bigEndian(body.subspan(1, 8)))) ? 9 : 0;
    }
    if (code == 'b') return (tag & 0xfe) == 0xc2 && holdFlat(tag == 0xc3) ? 1 : 0;
    if (tag < 0x80) return holdInteger(code, tag) ? 1 : 0;
    if (tag >= 0xe0) return holdInteger(code, static_cast<std::int8_t>(tag)) ? 1 : 0;
    if (tag < 0xcc || tag > 0xd3) return 0;
    const std::size_t width = std::size_t{1} << (tag & 3);
    if (body.size() <= width) return 0;
    const std::uint64_t number = bigEndian(body.subspan(1, width));
    if (tag < 0xd0) return holdInteger(code, number) ? 1 + width : 0;
    const std::size_t unused = 64 - 8 * width;  // the sign comes down from the top
    return holdInteger(code, static_cast<std::int64_t>(number << unused) >> unused) ? 1 + width : 0;
  }
  static std::uint64_t bigEndian(std::span<const char> bytes) {
    std::uint64_t number = 0;
    for (const char byte : bytes) number = number << 8 | static_cast<std::uint8_t>(byte);
    return number;
  }
  template <class Value>
  bool holdInteger(char code, Value value) {
    switch (code) {
      case 'i':
        return std::in_range<std::int32_t>(value) && holdFlat(static_cast<std::int32_t>(value));
      case 'u':
        return std::in_range<std::uint32_t>(value) && holdFlat(static_cast<std::uint32_t>(value));
      case 'x':
        return std::in_range<std::int64_t>(value) && holdFlat(static_cast<std::int64_t>(value));
      case 't':
        return std::in_range<std::uint64_t>(value) && holdFlat(static_cast<std::uint64_t>(value));
      default:
        return false;
    }
  }
  /// Puts the content into the slot's dynamic value; false where the budget does not suffice.
  template <class T>
  bool holdFlat(T content, std::size_t ofBytes = 0) {
    constexpr std::size_t ofSignature = sizeof(std::string) + 1 + 2;
    const std::size_t cost = ofSignature + flatDefault + 1 + sizeof(T) + 1 + ofBytes;
    if (cost > budget_) return false;
    budget_ -= cost;
    if (AnyValue* value = slot_.asAnyValue())
      value->emplace(getType<T>(), [&](void* memory) {
        ::new (memory) T(std::move(content));
        return true;
      });
    else
      slot_.type()->dynamic->assign(slot_.pointer(), AnyReference::from(content));
    return true;
  }

  template <class Value>
  bool takeInteger(Value value) {
    const TypeKind kind = slotKind("an integer");
    if (kind != TypeKind::Int && kind != TypeKind::Float) mismatch("an integer");
    if (!storeInteger(value)) convertInto(AnyReference::from(value), slot_.type(), slot_.pointer());
    return true;
  }
  /// What most integers are. False for those of the rarer types, and what does not fit.
  template <class Value>
  bool storeInteger(Value value) {
    switch (slot_.type()->code) {
      case 'i':
        return storeAs<std::int32_t>(value);
      case 'u':
        return storeAs<std::uint32_t>(value);
      case 'x':
        return storeAs<std::int64_t>(value);
      case 't':
        return storeAs<std::uint64_t>(value);
      default:
        return false;
    }
  }
  template <class T, class Value>
  bool storeAs(Value value) {
    if (!std::in_range<T>(value)) return false;
    const T stored = static_cast<T>(value);
    std::memcpy(slot_.pointer(), &stored, sizeof stored);
    return true;
  }
  bool takeFloat(const AnyReference& value) {
    if (slotKind("a float") != TypeKind::Float) mismatch("a float");
    convertInto(value, slot_.type(), slot_.pointer());
    return true;
  }
  bool takeBytes(TypeKind kind, const char* found, std::string_view bytes) {
    if (slotKind(found) != kind) mismatch(found);
    const BytesOps* ops = slot_.type()->bytes;
    charge(bytes.size() + (ops->share && !bytes.empty() ? sharedBlock : 0));
    const bool isKept = keeper_ && ops->share && bytes.size() >= Output::leastBorrowed &&
                        bytes.size() > payloadSize_ / 2;
    if (isKept)
      ops->share(slot_.pointer(), bytes, keeper_->keep());
    else
      ops->assign(slot_.pointer(), bytes);
    return true;
  }

  /// What a default value of a flat type is charged.
  static constexpr std::size_t flatDefault = 2 * sizeof(AnyValue);
  /// What holds bytes that are shared takes beside them, about.
  static constexpr std::size_t sharedBlock = 48;

  const std::size_t payloadSize_;
  const Payload* const keeper_;
  std::size_t budget_;
  const unsigned nesting_;
  IncomingObjects* const objects_;
  Slot slot_;  // where the next value goes
  const std::vector<AnyReference>* targets_ = nullptr;
  std::vector<AnyValue>* tail_ = nullptr;
  std::size_t depth_ = 0;  // how many levels are being read
  Level outermost_;
  std::optional<std::deque<Level>> inner_;  // those that were left wait to be used again
  Level* top_ = &outermost_;
};

void decode(std::span<const char> payload, Decoder& decoder) {
  Parser parser(payload, decoder);
  try {
    if (!parser.parse()) throw PayloadError("it ends too early");
  } catch (const PayloadError& error) {
    throw PayloadError(std::string("malformed payload: ") + error.what());
  } catch (const std::exception& error) {
    throw PayloadError(std::string("malformed payload: ") + error.what());
  }
  if (parser.offset() != payload.size())
    throw PayloadError("malformed payload: more bytes follow the value");
}

template <class T>
T readBody(std::span<const char> body, const Limits& limits, std::size_t& budget) {
  T value;
  Decoder decoder(body, limits);
  decoder.expect(AnyReference::from(value));
  decode(body, decoder);
  budget = decoder.budget();
  return value;
}

/// Reads an ext value, whose first byte is its type; `budget` is what its decoding leaves.
PassedObject readPassed(std::span<const char> ext, const Limits& limits, std::size_t& budget) {
  const auto body = ext.subspan(1);
  switch (static_cast<std::int8_t>(ext.front())) {
    case sendersObjectCode: {
      auto [number, description] = readBody<SendersObject>(body, limits, budget);
      return {false, 0, number, std::move(description)};
    }
    case receiversObjectCode: {
      const auto [service, number] = readBody<ReceiversObject>(body, limits, budget);
      return {true, service, number, {}};
    }
    default:
      throw PayloadError("it has an extension value of unknown type");
  }
}

/// Looks for objects only, whatever the types of the values around them.
class ObjectFinder : public msgpack::null_visitor {
 public:
  ObjectFinder(const Limits& limits, FunctionRef<void(const PassedObject&)> visit)
      : limits_(limits), budget_(limits.decodedBytes), visit_(visit) {}

  bool visit_ext(const char* bytes, std::uint32_t size) {
    Limits rest = limits_;
    rest.decodedBytes = budget_;
    visit_(readPassed({bytes, size}, rest, budget_));
    return true;
  }
  bool start_array(std::uint32_t) { return enter(); }
  bool end_array() { return leave(); }
  bool start_map(std::uint32_t) { return enter(); }
  bool end_map() { return leave(); }

 private:
  bool enter() { return ++depth_ <= limits_.nesting + 1; }
  bool leave() { return --depth_, true; }

  const Limits& limits_;
  std::size_t budget_;
  const FunctionRef<void(const PassedObject&)> visit_;
  unsigned depth_ = 0;
};

}  // namespace

PayloadError::~PayloadError() = default;

void readValue(const Encoded& payload, const AnyReference& target, const Limits& limits,
               IncomingObjects* objects) {
  Decoder decoder(payload, limits, objects);
  decoder.expect(target);
  decode(payload.bytes, decoder);
}

void readArguments(const Encoded& payload, const std::vector<AnyReference>& targets,
                   std::vector<AnyValue>* tail, const Limits& limits, IncomingObjects* objects) {
  Decoder decoder(payload, limits, objects);
  decoder.expectArguments(targets, tail);
  decode(payload.bytes, decoder);
}

void forEachObject(std::span<const char> payload, const Limits& limits,
                   FunctionRef<void(const PassedObject&)> visit) {
  ObjectFinder finder(limits, visit);
  Parser(payload, finder).parse();
}

}  // namespace gv::wire

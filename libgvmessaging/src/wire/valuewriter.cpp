#include "src/wire/valuewriter.h"

#include <bit>
#include <boost/container/small_vector.hpp>
#include <cstdint>
#include <limits>
#include <msgpack.hpp>
#include <utility>

#include <gvtype/genericfunctionparameters.h>
#include <gvtype/nesting.h>
#include <gvtype/signature.h>

namespace gv::wire {
namespace {

using Packer = msgpack::packer<Output>;
using Members = boost::container::small_vector<std::string_view, 8>;

ConversionPlace inside(const ConversionPlace& place, const char* word, std::size_t index) {
  return {&place, word, index + 1};
}

std::uint32_t checkedSize(std::size_t size) {
  if (size > std::numeric_limits<std::uint32_t>::max())
    throw ConversionError(ConversionError::Reason::Value, "a value is too large to be sent");
  return static_cast<std::uint32_t>(size);
}

class Writer {
 public:
  explicit Writer(Output& out) : out_(out), packer_(out) {}

  Packer& packer() { return packer_; }

  void write(const AnyReference& value, std::string_view signature, const ConversionPlace& place) {
    if (signature == "V") {
      packer_.pack_nil();
      return;
    }
    if (signature == "X") refuse(value.type());
    if (signature == "v") {
      const NestingLevel level;
      return writeDynamic(value, place);
    }
    if (value.isValid() && value.type()->kind == TypeKind::Dynamic) {
      const NestingLevel level;
      return write(contentOf(value), signature, place);
    }
    if (!writeAsItIs(value, signature, place)) {
      const AnyValue converted = convertTo(value, signature, place);
      const Copying scope(*this);
      writeAsItIs(converted.asReference(), signature, place);
    }
  }

 private:
  /// While it lives, all is copied: the values written do not last.
  struct Copying {
    explicit Copying(Writer& writer)
        : isBorrowing(writer.isBorrowing_), previous(std::exchange(isBorrowing, false)) {}
    ~Copying() { isBorrowing = previous; }
    Copying(const Copying&) = delete;
    Copying& operator=(const Copying&) = delete;
    bool& isBorrowing;
    const bool previous;
  };

  static bool isScalar(char code) { return code != 0 && code != 'v'; }
  static std::string_view codeOf(const AnyReference& value) { return {&value.type()->code, 1}; }

  [[noreturn]] static void refuse(const TypeInterface* type) {
    throw ConversionError(ConversionError::Reason::Kind,
                          "a value of type " + typeName(type) + " cannot be sent");
  }

  static AnyReference contentOf(const AnyReference& dynamic) {
    return dynamic.type()->dynamic->content(dynamic.pointer());
  }

  void writeDynamic(const AnyReference& value, const ConversionPlace& place) {
    if (!value.isValid()) {
      packer_.pack_nil();
      return;
    }
    const TypeInterface* type = value.type();
    if (type->kind == TypeKind::Dynamic) return writeDynamic(contentOf(value), place);
    if (type->kind == TypeKind::Void || type->kind == TypeKind::Future) refuse(type);
    if (isScalar(type->code)) {
      packer_.pack_array(2);
      writeString(codeOf(value));
      return writeScalar(value);
    }
    const std::string signature = value.signature();
    if (signatureHasCode(signature, 'X')) refuse(type);
    packer_.pack_array(2);
    writeString(signature);
    write(value, signature, place);
  }

  /// False where the value is of another type than the signature says.
  bool writeAsItIs(const AnyReference& value, std::string_view signature,
                   const ConversionPlace& place) {
    if (!value.isValid()) return false;
    if (isScalar(value.type()->code)) {
      if (signature != codeOf(value)) return false;
      writeScalar(value);
      return true;
    }
    const NestingLevel level;
    switch (value.type()->kind) {
      case TypeKind::List:
        return writeList(value, signature, place);
      case TypeKind::Map:
        return writeMap(value, signature, place);
      case TypeKind::Tuple:
        return writeTuple(value, signature, place);
      case TypeKind::Optional:
        return writeOptional(value, signature, place);
      default:
        return false;
    }
  }

  void writeScalar(const AnyReference& value) {
    const void* pointer = value.pointer();
    switch (value.type()->code) {
      case 'b':
        packer_.pack(*static_cast<const bool*>(pointer));
        return;
      case 'f':
        return writeFloat<std::uint32_t>('\xca', *static_cast<const float*>(pointer));
      case 'd':
        return writeFloat<std::uint64_t>('\xcb', *static_cast<const double*>(pointer));
      case 'c':
        packer_.pack(*static_cast<const std::int8_t*>(pointer));
        return;
      case 'y':
        packer_.pack(*static_cast<const std::uint8_t*>(pointer));
        return;
      case 'n':
        packer_.pack(*static_cast<const std::int16_t*>(pointer));
        return;
      case 'q':
        packer_.pack(*static_cast<const std::uint16_t*>(pointer));
        return;
      case 'i':
        packer_.pack(*static_cast<const std::int32_t*>(pointer));
        return;
      case 'u':
        packer_.pack(*static_cast<const std::uint32_t*>(pointer));
        return;
      case 'x':
        packer_.pack(*static_cast<const std::int64_t*>(pointer));
        return;
      case 't':
        packer_.pack(*static_cast<const std::uint64_t*>(pointer));
        return;
      case 's':
        return writeString(value.type()->bytes->view(pointer));
      case 'r': {
        const std::string_view bytes = value.type()->bytes->view(pointer);
        packer_.pack_bin(checkedSize(bytes.size()));
        return writeBody(bytes);
      }
      case 'o':
        return writeObject(value);
      default:
        refuse(value.type());
    }
  }

  /// The packer would make an integer of a whole number, and lose the sign of -0.0 so.
  template <class Bits, class Float>
  void writeFloat(char code, Float value) {
    const auto bits = std::bit_cast<Bits>(value);
    char bytes[1 + sizeof bits] = {code};
    for (std::size_t i = 0; i < sizeof bits; ++i)
      bytes[1 + i] = static_cast<char>(bits >> (8 * (sizeof bits - 1 - i)) & 0xff);
    out_.write(bytes, sizeof bytes);
  }

  void writeString(std::string_view text) {
    packer_.pack_str(checkedSize(text.size()));
    writeBody(text);
  }

  void writeBody(std::string_view bytes) {
    if (isBorrowing_ && bytes.size() >= Output::leastBorrowed)
      out_.borrow(bytes);
    else
      out_.write(bytes.data(), bytes.size());
  }

  void writeObject(const AnyReference& value) {
    const Object<Empty> object = value.type()->object->get(value.pointer());
    if (!object) {
      packer_.pack_nil();
      return;
    }
    if (!out_.objects()) refuse(value.type());
    PassedObject passed = out_.objects()->pass(object);
    Output body;
    if (passed.isReceivers)
      writeOwn(body, ReceiversObject{passed.service, passed.number});
    else
      writeOwn(body, SendersObject{passed.number, std::move(passed.description)});
    const auto code = passed.isReceivers ? receiversObjectCode : sendersObjectCode;
    packer_.pack_ext(body.size(), code);
    body.appendTo(out_);
  }

  template <class T>
  static void writeOwn(Output& out, const T& value) {
    const AnyReference reference = AnyReference::from(value);
    Writer writer(out);
    writer.isBorrowing_ = false;
    writer.write(reference, reference.signature(), {});
  }

  bool writeList(const AnyReference& value, std::string_view signature,
                 const ConversionPlace& place) {
    if (!signature.starts_with('a') || signature.starts_with("a{")) return false;
    const ListOps* list = value.type()->list;
    packer_.pack_array(checkedSize(list->size(value.pointer())));
    std::size_t index = 0;
    list->forEach(value.pointer(), [&](const AnyReference& element) {
      write(element, signature.substr(1), inside(place, "element", index++));
    });
    return true;
  }

  bool writeMap(const AnyReference& value, std::string_view signature,
                const ConversionPlace& place) {
    if (!signature.starts_with("a{")) return false;
    const std::string_view inner = signature.substr(2, signature.size() - 3);
    const std::size_t keyLength = signatureLength(inner);
    const MapOps* map = value.type()->map;
    packer_.pack_map(checkedSize(map->size(value.pointer())));
    std::size_t index = 0;
    map->forEach(value.pointer(), [&](const AnyReference& key, const AnyReference& mapped) {
      write(key, inner.substr(0, keyLength), inside(place, "key", index));
      write(mapped, inner.substr(keyLength), inside(place, "value", index++));
    });
    return true;
  }

  bool writeTuple(const AnyReference& value, std::string_view signature,
                  const ConversionPlace& place) {
    if (!signature.starts_with('(')) return false;
    const auto members = signatureMembers<Members>(signature);
    const TupleOps* tuple = value.type()->tuple;
    if (tuple->size(value.pointer()) != members.size() || !isInOrder(value, signature))
      return false;
    packer_.pack_array(checkedSize(members.size()));
    for (std::size_t i = 0; i < members.size(); ++i)
      write(tuple->member(value.pointer(), i), members[i], inside(place, "element", i));
    return true;
  }

  /// False between structs that name their fields differently: conversion puts them in order.
  static bool isInOrder(const AnyReference& value, std::string_view signature) {
    const std::string_view wanted = signatureAnnotation(signature);
    if (wanted.empty()) return true;
    const std::string own = value.signature();
    const std::string_view annotation = signatureAnnotation(own);
    return annotation.empty() || annotation == wanted;
  }

  bool writeOptional(const AnyReference& value, std::string_view signature,
                     const ConversionPlace& place) {
    if (!signature.starts_with('m')) return false;
    const AnyReference content = value.type()->optional->content(value.pointer());
    packer_.pack_array(content.isValid() ? 1 : 0);
    if (content.isValid()) write(content, signature.substr(1), place);
    return true;
  }

  Output& out_;
  Packer packer_;
  bool isBorrowing_ = true;
};

}  // namespace

void writeValue(Output& out, const AnyReference& value, std::string_view signature,
                const ConversionPlace& place) {
  Writer(out).write(value, signature, place);
}

void writeValue(std::vector<char>& out, const AnyReference& value, std::string_view signature) {
  Output output;
  writeValue(output, value, signature);
  output.copyTo(out);
}

void writeArguments(std::vector<char>& out, const GenericFunctionParameters& arguments,
                    std::string_view signature) {
  Output output;
  writeArguments(output, arguments, signature);
  output.copyTo(out);
}

void writeArguments(Output& out, std::span<const AnyReference> arguments,
                    std::string_view signature) {
  auto parameters = signatureMembers<Members>(signature);
  const bool hasTail = !parameters.empty() && parameters.back() == "*";
  if (hasTail) parameters.pop_back();
  if (arguments.size() < parameters.size() || (arguments.size() > parameters.size() && !hasTail))
    throw ConversionError(ConversionError::Reason::Kind,
                          "expected " + std::string(hasTail ? "at least " : "") +
                              std::to_string(parameters.size()) + " argument(s), got " +
                              std::to_string(arguments.size()));
  Writer writer(out);
  writer.packer().pack_array(checkedSize(arguments.size()));
  for (std::size_t i = 0; i < arguments.size(); ++i)
    writer.write(arguments[i], i < parameters.size() ? parameters[i] : "v",
                 {nullptr, "argument", i + 1});
}

}  // namespace gv::wire

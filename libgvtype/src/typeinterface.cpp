#include <gvtype/typeinterface.h>

#include <boost/core/demangle.hpp>

#include <gv/log.h>
#include <gvtype/anyreference.h>

namespace gv {
namespace {

char integerCode(const TypeInterface& type) {
  switch (type.size) {
    case 1:
      return type.isSigned ? 'c' : 'y';
    case 2:
      return type.isSigned ? 'n' : 'q';
    case 4:
      return type.isSigned ? 'i' : 'u';
    default:
      return type.isSigned ? 'x' : 't';
  }
}

/// The structs around the type whose signature is being made.
struct Enclosing {
  const TypeInterface* type;
  const Enclosing* outer;
};

void appendPart(std::string& text, const TypeInterface* type, const Enclosing* outer) {
  if (type->code) {
    // Only a future of nothing brings a V into another type, where no signature may have one.
    text += type->code == 'V' && outer ? 'X' : type->code;
    return;
  }
  const Enclosing own{type, outer};
  const auto appendMembers = [&] {
    for (std::size_t i = 0; i < type->memberCount; ++i) appendPart(text, type->memberType(i), &own);
  };
  switch (type->kind) {
    case TypeKind::List:
      text += 'a';
      return appendPart(text, type->list->elementType(), &own);
    case TypeKind::Optional:
      text += 'm';
      return appendPart(text, type->optional->elementType(), &own);
    case TypeKind::Future:
      return appendPart(text, type->future->valueType(), outer);
    case TypeKind::Map:
      text += "a{";
      if (!type->memberType) text += "vv";  // a generic map: its values say more
      appendMembers();
      text += '}';
      return;
    default:
      break;
  }
  for (const Enclosing* around = outer; around; around = around->outer)
    if (sameType(around->type, type)) {
      text += 'X';
      return;
    }
  text += '(';
  appendMembers();
  text += ')';
  if (!type->annotation.empty()) text.append("<").append(type->annotation).append(">");
}

}  // namespace

std::string typeName(const TypeInterface* type) {
  if (!type) return "nothing";
  std::string name;
  switch (type->kind) {
    case TypeKind::Void:
      return "void";
    case TypeKind::Bool:
      return "bool";
    case TypeKind::Int:
      return (type->isSigned ? "int" : "uint") + std::to_string(type->size * 8);
    case TypeKind::Float:
      return type->size == 4 ? "float" : "double";
    case TypeKind::String:
      return "string";
    case TypeKind::Raw:
      return "raw";
    case TypeKind::List:
      return "list<" + typeName(type->list->elementType()) + ">";
    case TypeKind::Map:
      if (!type->memberType) return "map";
      name = "map<";
      break;
    case TypeKind::Tuple:
      if (!type->annotation.empty())
        return std::string(type->annotation.substr(0, type->annotation.find(',')));
      if (!type->memberType) return "tuple";
      name = "tuple<";
      break;
    case TypeKind::Optional:
      return "optional<" + typeName(type->optional->elementType()) + ">";
    case TypeKind::Dynamic:
      return "dynamic";
    case TypeKind::Object:
      return "object";
    case TypeKind::Future:
      return "future<" + typeName(type->future->valueType()) + ">";
    case TypeKind::Unknown:
      return boost::core::demangle(type->info->name());
  }
  for (std::size_t i = 0; i < type->memberCount; ++i)
    name += (i > 0 ? ", " : "") + typeName(type->memberType(i));
  return name + ">";
}

void appendSignature(std::string& text, const TypeInterface* type) {
  appendPart(text, type, nullptr);
}

char detail::codeOf(const TypeInterface& type) {
  switch (type.kind) {
    case TypeKind::Void:
      return 'V';
    case TypeKind::Bool:
      return 'b';
    case TypeKind::Int:
      return integerCode(type);
    case TypeKind::Float:
      return type.size == 4 ? 'f' : 'd';
    case TypeKind::String:
      return 's';
    case TypeKind::Raw:
      return 'r';
    case TypeKind::Dynamic:
      return 'v';
    case TypeKind::Object:
      return 'o';
    case TypeKind::Unknown:
      return 'X';
    default:
      return 0;
  }
}

void detail::reportThrow(const std::type_info& type) noexcept {
  try {
    GV_LOG(log::Level::Warning, "gv.type", "destroy",
           "the destructor of a " + boost::core::demangle(type.name()) +
               " threw; the exception is dropped");
  } catch (...) {  // no memory left for the text
  }
}

}  // namespace gv

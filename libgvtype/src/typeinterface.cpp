#include <gvtype/typeinterface.h>

#include <cstdlib>
#include <memory>

#include <boost/core/demangle.hpp>

#include <gvtype/anyreference.h>

namespace gv {
namespace {

char integerCode(const TypeInterface* type) {
  switch (type->size) {
    case 1:
      return type->isSigned ? 'c' : 'y';
    case 2:
      return type->isSigned ? 'n' : 'q';
    case 4:
      return type->isSigned ? 'i' : 'u';
    default:
      return type->isSigned ? 'x' : 't';
  }
}

void appendMembers(std::string& text, const TypeInterface* type,
                   void (*append)(std::string&, const TypeInterface*), const char* separator) {
  for (std::size_t i = 0; i < type->memberCount; ++i) {
    if (i > 0) text += separator;
    append(text, type->memberTypes[i]);
  }
}

void appendName(std::string& text, const TypeInterface* type) {
  text += typeName(type);
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
      if (type->memberCount == 0) return "map";
      name = "map<";
      break;
    case TypeKind::Tuple:
      if (!type->memberTypes) return "tuple";
      name = "tuple<";
      break;
    case TypeKind::Dynamic:
      return "dynamic";
    case TypeKind::Object:
      return "object";
    case TypeKind::Future:
      return "future<" + typeName(type->future->valueType()) + ">";
    case TypeKind::Unknown:
      return boost::core::demangle(type->info->name());
  }
  appendMembers(name, type, appendName, ", ");
  return name + ">";
}

void appendSignature(std::string& text, const TypeInterface* type) {
  switch (type->kind) {
    case TypeKind::Void:
      text += 'V';
      return;
    case TypeKind::Bool:
      text += 'b';
      return;
    case TypeKind::Int:
      text += integerCode(type);
      return;
    case TypeKind::Float:
      text += type->size == 4 ? 'f' : 'd';
      return;
    case TypeKind::String:
      text += 's';
      return;
    case TypeKind::Raw:
      text += 'r';
      return;
    case TypeKind::List:
      text += 'a';
      appendSignature(text, type->list->elementType());
      return;
    case TypeKind::Map:
      text += "a{";
      if (type->memberCount == 0) text += "vv";  // a generic map: its values say more
      appendMembers(text, type, appendSignature, "");
      text += '}';
      return;
    case TypeKind::Tuple:
      text += '(';
      appendMembers(text, type, appendSignature, "");
      text += ')';
      return;
    case TypeKind::Dynamic:
      text += 'v';
      return;
    case TypeKind::Object:
      text += 'o';
      return;
    case TypeKind::Future:
      appendSignature(text, type->future->valueType());
      return;
    case TypeKind::Unknown:
      text += 'X';
      return;
  }
}

}  // namespace gv

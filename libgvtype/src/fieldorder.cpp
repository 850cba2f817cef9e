#include "fieldorder.h"

#include <algorithm>

#include <gvtype/signature.h>

namespace gv {
namespace {

/// What stands behind the struct's name: ",x,y".
std::string_view fieldsOf(std::string_view annotation) {
  const std::size_t comma = annotation.find(',');
  return comma == std::string_view::npos ? std::string_view() : annotation.substr(comma);
}

}  // namespace

std::string_view annotationOf(const AnyReference& value) {
  const TypeInterface* type = value.type();
  return type->ownSignature ? signatureAnnotation(type->ownSignature(value.pointer()))
                            : type->annotation;
}

std::vector<std::string_view> fieldNames(std::string_view annotation) {
  std::vector<std::string_view> names;
  for (std::string_view rest = fieldsOf(annotation); !rest.empty();) {
    const std::size_t end = std::min(rest.find(',', 1), rest.size());
    names.push_back(rest.substr(1, end - 1));
    rest.remove_prefix(end);
  }
  return names;
}

FieldOrder::FieldOrder(std::string_view source, std::string_view target) {
  if (source.empty() || target.empty() || fieldsOf(source) == fieldsOf(target)) return;
  const auto from = fieldNames(source);
  const auto to = fieldNames(target);
  isPossible_ =
      from.size() == to.size() && std::is_permutation(from.begin(), from.end(), to.begin());
  if (!isPossible_) return;
  for (const std::string_view name : to)
    order_.push_back(
        static_cast<std::size_t>(std::find(from.begin(), from.end(), name) - from.begin()));
}

}  // namespace gv

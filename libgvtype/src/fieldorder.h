#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include <gvtype/anyreference.h>

namespace gv {

/// Name and fields of a struct's value, "Point,x,y"; empty for every other value.
std::string_view annotationOf(const AnyReference& value);

/// The names of the fields in an annotation.
std::vector<std::string_view> fieldNames(std::string_view annotation);

/// How the members of one tuple fill those of another, given the annotations of both: by position,
/// or by name between structs whose fields stand in another order. Both must have as many members.
class FieldOrder {
 public:
  FieldOrder(std::string_view source, std::string_view target);

  /// False between structs of other field names.
  bool isPossible() const { return isPossible_; }
  bool isByPosition() const { return order_.empty(); }
  /// The source's member for one of the target's, where they go by name.
  std::size_t sourceOf(std::size_t target) const { return order_[target]; }

 private:
  bool isPossible_ = true;
  std::vector<std::size_t> order_;
};

}  // namespace gv

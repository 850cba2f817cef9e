#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace gv {

/// A name that could have been meant, and how it is shown.
struct NamedText {
  std::string_view name;
  std::string text;
};

/// "; did you mean: greet(s), greets(ss)?" with the at most three members whose names are nearest
/// to `asked`, in upper or lower case: by edit distance, or because one name begins the other.
/// Empty where none is near.
std::string suggestNearest(std::string_view asked, const std::vector<NamedText>& members);

}  // namespace gv

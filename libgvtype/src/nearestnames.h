#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace gv {

/// The places of the at most three names that are nearest to `asked`, in upper or lower case, the
/// nearest first: by edit distance, or because one name begins the other. Of 10,000 names most are
/// told apart by their lengths.
std::vector<std::size_t> nearestNames(std::string_view asked,
                                      const std::vector<std::string_view>& names);

/// "; did you mean: greet(s), greets(ss)?" with the members nearest to `asked`, of a map of members
/// by id. Empty where none is near.
template <class Members>
std::string suggestNearest(std::string_view asked, const Members& members) {
  std::vector<std::string_view> names;
  std::vector<const typename Members::mapped_type*> named;
  for (const auto& [uid, member] : members) {
    names.emplace_back(member.name());
    named.push_back(&member);
  }
  std::string text;
  for (const std::size_t place : nearestNames(asked, names))
    text += (text.empty() ? "; did you mean: " : ", ") + named[place]->toString();
  return text.empty() ? text : text + "?";
}

}  // namespace gv

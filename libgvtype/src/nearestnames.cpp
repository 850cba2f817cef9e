#include "nearestnames.h"

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <utility>

namespace gv {
namespace {

constexpr std::size_t longestCompared = 64;  // the time goes with the product of the lengths

std::string lower(std::string_view name) {
  std::string text(name);
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

/// SIZE_MAX where it is more than `most`.
std::size_t editDistance(const std::string& a, const std::string& b, std::size_t most) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i);
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = std::exchange(row[j], std::min({replaced, row[j] + 1, row[j - 1] + 1}));
    }
    if (*std::min_element(row.begin(), row.end()) > most) return SIZE_MAX;
  }
  return row.back() <= most ? row.back() : SIZE_MAX;
}

/// The lower the nearer; SIZE_MAX where a name cannot have been meant.
std::size_t distance(const std::string& asked, const std::string& name) {
  const auto [shorter, longer] = std::minmax({asked.size(), name.size()});
  const std::size_t most = 1 + shorter / 4;
  if (longer <= longestCompared && longer - shorter <= most)
    if (const std::size_t edits = editDistance(asked, name, most); edits != SIZE_MAX) return edits;
  const bool begins = name.starts_with(asked) || asked.starts_with(name);
  return begins ? longestCompared + longer : SIZE_MAX;
}

}  // namespace

std::vector<std::size_t> nearestNames(std::string_view asked,
                                      const std::vector<std::string_view>& names) {
  constexpr std::size_t most = 3;
  if (asked.empty()) return {};
  const std::string wanted = lower(asked);
  std::vector<std::pair<std::size_t, std::size_t>> near;
  for (std::size_t place = 0; place < names.size(); ++place)
    if (const std::size_t far = distance(wanted, lower(names[place])); far != SIZE_MAX)
      near.emplace_back(far, place);
  const std::size_t count = std::min(most, near.size());
  std::partial_sort(near.begin(), near.begin() + static_cast<std::ptrdiff_t>(count), near.end());
  std::vector<std::size_t> places;
  for (std::size_t i = 0; i < count; ++i) places.push_back(near[i].second);
  return places;
}

}  // namespace gv

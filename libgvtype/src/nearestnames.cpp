#include "nearestnames.h"

#include <algorithm>
#include <cstdint>
#include <numeric>

namespace gv {
namespace {

constexpr std::size_t longestCompared = 64;  // the time goes with the product of the lengths

std::string lower(std::string_view name) {
  std::string text(name);
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

std::size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i);
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = std::exchange(row[j], std::min({replaced, row[j] + 1, row[j - 1] + 1}));
    }
  }
  return row.back();
}

/// The lower the nearer; SIZE_MAX where a name cannot have been meant.
std::size_t distance(const std::string& asked, const std::string& name) {
  if (asked.empty()) return SIZE_MAX;
  if (asked.size() <= longestCompared && name.size() <= longestCompared) {
    const std::size_t edits = editDistance(asked, name);
    if (edits <= 1 + std::min(asked.size(), name.size()) / 4) return edits;
  }
  const bool begins = name.starts_with(asked) || asked.starts_with(name);
  return begins ? longestCompared + std::max(asked.size(), name.size()) : SIZE_MAX;
}

}  // namespace

std::string suggestNearest(std::string_view asked, const std::vector<NamedText>& members) {
  constexpr std::size_t most = 3;
  const std::string wanted = lower(asked);
  std::vector<std::pair<std::size_t, const NamedText*>> near;
  for (const NamedText& member : members)
    if (const std::size_t far = distance(wanted, lower(member.name)); far != SIZE_MAX)
      near.emplace_back(far, &member);
  std::stable_sort(near.begin(), near.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  if (near.size() > most) near.resize(most);
  std::string text;
  for (const auto& entry : near)
    text += (text.empty() ? "; did you mean: " : ", ") + entry.second->text;
  return text.empty() ? text : text + "?";
}

}  // namespace gv

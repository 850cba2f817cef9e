#include "src/logfilter.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

namespace gv::log {
namespace {

constexpr std::array<std::pair<std::string_view, Level>, 7> levelNames{{
    {"silent", Level::Silent},
    {"fatal", Level::Fatal},
    {"error", Level::Error},
    {"warning", Level::Warning},
    {"info", Level::Info},
    {"verbose", Level::Verbose},
    {"debug", Level::Debug},
}};

std::optional<Level> parseLevel(std::string_view name) {
  for (const auto& [known, level] : levelNames) {
    if (name == known) return level;
  }
  return std::nullopt;
}

std::string_view trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

bool matchesPattern(std::string_view pattern, std::string_view text) {
  // Going back to the last star only keeps this at worst quadratic, whatever the pattern.
  std::size_t p = 0, t = 0, star = pattern.npos, resume = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      resume = t;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (star != pattern.npos) {
      p = star + 1;
      t = ++resume;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', p) == pattern.npos;
}

void Filters::set(Level level, std::string pattern) {
  // What the new rule hides for ever goes, so that repeated calls do not pile up rules.
  std::erase_if(rules_,
                [&](const Rule& rule) { return pattern == "*" || rule.pattern == pattern; });
  rules_.push_back({std::move(pattern), level});
}

Level Filters::levelOf(std::string_view category) const {
  const auto rule = std::find_if(rules_.rbegin(), rules_.rend(), [&](const Rule& candidate) {
    return matchesPattern(candidate.pattern, category);
  });
  return rule == rules_.rend() ? Level::Info : rule->level;
}

std::string applyFilters(std::string_view text, Filters& filters) {
  std::string unreadable;
  while (!text.empty()) {
    const auto comma = std::min(text.find(','), text.size());
    const std::string_view item = trim(text.substr(0, comma));
    text.remove_prefix(std::min(comma + 1, text.size()));
    if (item.empty()) continue;

    const auto equals = item.rfind('=');
    const bool hasPattern = equals != item.npos;
    const auto level = parseLevel(trim(hasPattern ? item.substr(equals + 1) : item));
    const std::string_view pattern = hasPattern ? trim(item.substr(0, equals)) : "*";
    if (level && !pattern.empty()) {
      filters.set(*level, std::string(pattern));
    } else if (unreadable.empty()) {
      unreadable = item;
    }
  }
  return unreadable;
}

}  // namespace gv::log

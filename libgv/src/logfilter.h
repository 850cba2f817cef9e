#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <gv/api.h>
#include <gv/log.h>

namespace gv::log {

/// True when the whole text matches the pattern: `*` any text, `?` any one byte.
GV_API bool matchesPattern(std::string_view pattern, std::string_view text);

/// Which level each category has, from the patterns set so far.
class GV_API Filters {
 public:
  /// Later patterns win over earlier ones.
  void set(Level level, std::string pattern);
  Level levelOf(std::string_view category) const;

 private:
  struct Rule {
    std::string pattern;
    Level level;
  };
  std::vector<Rule> rules_;  // oldest first
};

/// Applies a text such as `info,JXBroker*=verbose`. Items that cannot be read are left out; the
/// return value names the first of them, and is empty when there is none.
GV_API std::string applyFilters(std::string_view text, Filters& filters);

}  // namespace gv::log

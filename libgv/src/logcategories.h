#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <gv/log.h>

#include "src/logfilter.h"

namespace gv::log {

/// All registered categories and the filters that give them their levels.
class CategoryTable {
 public:
  /// Made at the first use, filters from GV_LOG; never destroyed.
  static CategoryTable& instance();

  const Category& category(const std::string& name);
  bool isEnabled(const std::string& name, Level level) const;
  void setLevel(Level level, const std::string& pattern);

  /// A fork happens between the two, on this thread, so that the child finds nothing half done.
  void lockForFork() { mutex_.lock(); }
  void unlockAfterFork() { mutex_.unlock(); }

 private:
  CategoryTable();

  mutable std::mutex mutex_;  // guards both below, and the writing of levels
  Filters filters_;
  std::map<std::string, std::unique_ptr<Category>, std::less<>> categories_;
};

}  // namespace gv::log

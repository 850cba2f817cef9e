#include "src/logcategories.h"

#include <chrono>
#include <mutex>

#include <gv/os.h>

#include "src/stderrhandler.h"

namespace gv::log {

CategoryTable& CategoryTable::instance() {
  // Not destroyed: records are written until the very end of the process.
  static CategoryTable* const table = new CategoryTable;
  return *table;
}

CategoryTable::CategoryTable() {
  const std::string unreadable = applyFilters(os::getenv("GV_LOG"), filters_);
  if (unreadable.empty()) return;
  // Handed over directly: an ordinary record would need the table that is being made.
  writeToStderr({Level::Warning, "gv.log", "setLevel", "",
                 "GV_LOG: cannot read \"" + unreadable + "\", expected level or pattern=level", 0,
                 os::gettid(), std::chrono::system_clock::now()});
}

const Category& CategoryTable::category(const std::string& name) {
  std::lock_guard lock(mutex_);
  std::unique_ptr<Category>& entry = categories_[name];
  if (!entry) entry.reset(new Category(name, filters_.levelOf(name)));
  return *entry;
}

bool CategoryTable::isEnabled(const std::string& name, Level level) const {
  std::lock_guard lock(mutex_);
  const auto found = categories_.find(name);
  if (found != categories_.end()) return found->second->isEnabled(level);
  // Not registered here: names may come from anywhere, and the table never shrinks.
  return level != Level::Silent && level <= filters_.levelOf(name);
}

void CategoryTable::setLevel(Level level, const std::string& pattern) {
  std::lock_guard lock(mutex_);
  filters_.set(level, pattern);
  for (const auto& [name, category] : categories_) {
    category->level_.store(filters_.levelOf(name), std::memory_order_relaxed);
  }
}

}  // namespace gv::log

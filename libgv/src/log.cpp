#include <gv/log.h>

#include <utility>

#include <gv/os.h>

#include "src/logcategories.h"
#include "src/loghandlers.h"

namespace gv::log {

HandlerId addHandler(const std::string& name, std::function<void(const Record&)> handler) {
  return HandlerTable::instance().add(name, std::move(handler));
}

void removeHandler(HandlerId id) {
  HandlerTable::instance().remove(id);
}

void setLevel(Level level, const std::string& categoryPattern) {
  CategoryTable::instance().setLevel(level, categoryPattern);
}

bool isEnabled(const std::string& category, Level level) {
  return CategoryTable::instance().isEnabled(category, level);
}

void addCategory(const std::string& name) {
  category(name);
}

const Category& category(const std::string& name) {
  return CategoryTable::instance().category(name);
}

static void dispatch(Level level, const std::string& category, const std::string& function,
                     const std::string& file, int line, const std::string& text) {
  HandlerTable::instance().dispatch({level, category, function, file, text, line, os::gettid(),
                                     std::chrono::system_clock::now()});
}

void write(Level level, const std::string& category, const std::string& function,
           const std::string& file, int line, const std::string& text) {
  if (isEnabled(category, level)) dispatch(level, category, function, file, line, text);
}

void write(Level level, const Category& category, const std::string& function,
           const std::string& file, int line, const std::string& text) {
  if (category.isEnabled(level)) dispatch(level, category.name(), function, file, line, text);
}

}  // namespace gv::log

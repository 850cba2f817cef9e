#include <gv/log.h>

#include <pthread.h>

#include <utility>

#include <gv/os.h>

#include "src/logcategories.h"
#include "src/loghandlers.h"
#include "src/stderrhandler.h"

namespace gv::log {
namespace {

// The tables are made here at the latest: a fork while another thread makes one would leave the
// child waiting for it for ever.
void beforeFork() {
  CategoryTable::instance().lockForFork();
  HandlerTable::instance().lockForFork();
}

void afterForkInParent() {
  HandlerTable::instance().unlockInParent();
  CategoryTable::instance().unlockAfterFork();
}

void afterForkInChild() {
  HandlerTable::instance().unlockInChild();
  CategoryTable::instance().unlockAfterFork();
  renewStderrAfterFork();
}

[[maybe_unused]] const int watchesForks =
    pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);

void dispatch(Level level, std::string category, std::string function, std::string file, int line,
              std::string text) {
  HandlerTable::instance().dispatch({level, std::move(category), std::move(function),
                                     std::move(file), std::move(text), line, os::gettid(),
                                     std::chrono::system_clock::now()});
}

}  // namespace

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

void write(Level level, const std::string& category, const std::string& function,
           const std::string& file, int line, const std::string& text) {
  if (isEnabled(category, level)) dispatch(level, category, function, file, line, text);
}

void write(Level level, const Category& category, std::string function, std::string file, int line,
           std::string text) {
  if (!category.isEnabled(level)) return;
  dispatch(level, category.name(), std::move(function), std::move(file), line, std::move(text));
}

}  // namespace gv::log

// The table of posted calls by itself: what it tells the log of, and its ids.

#include <gtest/gtest.h>
#include <gv/log.h>

#include <functional>
#include <memory>

#include "jxmodulecore_p.h"
#include "support/log_capture.h"

namespace JX {
namespace {

using gv::log::Level;

TEST(TaskTable, TellsTheLogWhatItIsAskedFor) {
  gv::log::setLevel(Level::Verbose);
  JXModuleCorePrivate table("Lonely", {});
  const std::unique_ptr<JXPCallTask> five(table.addTask(5));
  const auto waitAsTask6 = [&] {
    table.currentTask.reset(table.addTask(6));
    EXPECT_TRUE(table.wait(6, 1));
  };
  const struct {
    std::function<void()> action;
    Level level;
    const char* function;
    const char* text;
  } rows[] = {
      {[&] { EXPECT_FALSE(table.wait(1, 0)); }, Level::Verbose, "wait",
       "Cant stop task 1 because it is not found."},
      {[&] { table.stop(1); }, Level::Verbose, "stop", "Cant stop task 1 because it is not found."},
      {[&] { table.removeTask(1); }, Level::Error, "removeTask",
       "Error: Asking to remove task 1 but current thread is not assigned to a task."},
      {[&] { table.removeTask(5); }, Level::Error, "removeTask",
       "Error: Asking to remove task 5 but current thread is not assigned to a task."},
      {[&] { table.removeTaskRemote(1); }, Level::Error, "removeTaskRemote",
       "Error: Asking to remove non-existing task 1"},
      {[&] { table.stop(5); }, Level::Info, "stop", "Lonely :Task 5 asked to stop"},
      {waitAsTask6, Level::Warning, "wait", "Lonely :Task 6 waits for its own end"},
      {[&] { table.removeTask(5); }, Level::Error, "removeTask",
       "Error: Asking to remove task 5 but current thread is assigned to task 6"},
      {[&] { table.removeTask(5); }, Level::Error, "removeTask",
       "Error: Asking to remove task 5 but current thread is not assigned to a task."},
  };
  EXPECT_TRUE(table.isRunning(5));
  for (const auto& row : rows) {
    const house::LogCapture log;
    row.action();
    const auto records = log.records();
    ASSERT_EQ(records.size(), 1u) << row.text;
    EXPECT_EQ(records[0].text, row.text);
    EXPECT_EQ(records[0].level, row.level) << row.text;
    EXPECT_EQ(records[0].function, row.function) << row.text;
    EXPECT_EQ(records[0].category, "jxcommon.jxmodulecore");
  }
  EXPECT_FALSE(table.isRunning(5)) << "the entry is gone all the same";
  EXPECT_TRUE(five->stopRequested);
  EXPECT_EQ(table.getMethodID(), 6u);
  table.removeTask(6);
  EXPECT_FALSE(table.isPCalled() || table.isRunning(6) || table.isStopRequired(6));
  EXPECT_EQ(table.getMethodID(), 0xFFFFFFFFu);
}

}  // namespace
}  // namespace JX

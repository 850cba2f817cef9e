#include <gtest/gtest.h>
#include <jxerror/jxerror.h>

#include <exception>
#include <type_traits>

namespace JX {
namespace {

TEST(JXError, NamesModuleMethodAndReasonAndAddsThePositionOnlyToTheLongText) {
  const JXError error("Motion", "walk", "no legs", "../src/motion.cpp", 12);
  EXPECT_STREQ(error.what(), "Motion::walk: no legs");
  EXPECT_EQ(error.description(), "no legs");
  EXPECT_EQ(error.toString(), "Motion::walk: no legs (../src/motion.cpp:12)");
  EXPECT_EQ(JXError("Motion", "walk", "no legs").toString(), "Motion::walk: no legs");
}

TEST(JXError, IsCaughtAsAStandardExceptionWithAllItsFieldsAfterARethrow) {
  std::exception_ptr kept;
  try {
    throw JXError("M", "m", "d", "f", 3);
  } catch (const std::runtime_error&) {
    kept = std::current_exception();
  }
  try {
    std::rethrow_exception(kept);
  } catch (const JXError& error) {
    EXPECT_EQ(error.moduleName() + error.methodName() + error.file(), "Mmf");
    EXPECT_EQ(error.line(), 3);
  }
}

TEST(JXError, StaysWholeWhenMovedFromAndNeverThrowsInACopy) {
  static_assert(std::is_nothrow_copy_constructible_v<JXError>);
  static_assert(std::is_nothrow_copy_assignable_v<JXError>);
  JXError first("M", "m", "first");
  JXError second(std::move(first));
  EXPECT_EQ(first.description(), second.description());
  second = JXError("M", "m", "second");
  EXPECT_STREQ(second.what(), "M::m: second");
  EXPECT_EQ(first.description(), "first");
}

}  // namespace
}  // namespace JX

// A type is the same type in every shared library.

#include <gtest/gtest.h>

#include "tests/foreignlibrary.h"

namespace {

TEST(ForeignTypes, AreTheSameTypesAsOurs) {
  const gv::AnyValue numbers = foreign::makeNumbers();
  const gv::AnyValue point = foreign::makePoint();
  ASSERT_NE(numbers.type(), gv::getType<std::vector<int>>()) << "the libraries share descriptions";
  const auto* list = numbers.asReference().as<std::vector<int>>();
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(*list, (std::vector<int>{1, 2}));
  ASSERT_NE(point.asReference().as<foreign::Point>(), nullptr);
  EXPECT_EQ(point.to<foreign::Point>().y, 4);
}

}  // namespace

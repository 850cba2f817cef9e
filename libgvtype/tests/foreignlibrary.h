#pragma once

#include <gvtype/struct.h>

namespace foreign {

struct Point {
  int x = 0;
  int y = 0;
};
GV_STRUCT(Point, x, y)

// From a shared library of hidden visibility, which has descriptions of these types of its own.
[[gnu::visibility("default")]] gv::AnyValue makeNumbers();
[[gnu::visibility("default")]] gv::AnyValue makePoint();

}  // namespace foreign

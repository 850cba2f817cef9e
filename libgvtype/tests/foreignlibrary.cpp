#include "tests/foreignlibrary.h"

namespace foreign {

gv::AnyValue makeNumbers() {
  return gv::AnyValue::from(std::vector<int>{1, 2});
}

gv::AnyValue makePoint() {
  return gv::AnyValue::from(Point{3, 4});
}

}  // namespace foreign

// Call an object: with values of your own types, one of several methods of a name, and wrongly.

#include <cmath>
#include <stdexcept>
#include <vector>

#include <gvtype/dynamicobjectbuilder.h>
#include <gvtype/struct.h>

#include "sides.h"

namespace example {

struct Point {
  double x, y;
};
GV_STRUCT(Point, x, y)

void offer(gv::Session& session) {
  gv::DynamicObjectBuilder map;
  map.advertiseMethod("length", [](const std::vector<Point>& path) {
    if (path.empty()) throw std::invalid_argument("an empty path has no length");
    double sum = 0;
    for (std::size_t i = 1; i < path.size(); ++i)
      sum += std::hypot(path[i].x - path[i - 1].x, path[i].y - path[i - 1].y);
    return sum;
  });
  map.advertiseMethod("find", [](const std::string& name) {
    return name == "door" ? Point{3, 4} : Point{0, 0};
  });
  map.advertiseMethod("find", [](int number) { return Point{number * 1.0, number * 2.0}; });
  session.registerService("Map", map.object()).value();
}

void use(gv::Session& session) {
  const gv::Object<gv::Empty> map = session.service("Map").value();

  const std::string name = "door";
  const auto door = map.call<Point>("find", name);
  std::cout << "the door is at " << door.x << ", " << door.y << '\n';
  const auto landmark = map.call<Point>("find", 7);
  std::cout << "landmark 7 is at " << landmark.x << ", " << landmark.y << '\n';
  std::cout << "the way to the door is "
            << map.call<double>("length", std::vector{Point{0, 0}, door}) << " m\n";
  try {
    map.call<double>("length", std::vector<Point>());
  } catch (const gv::FutureException& error) {
    std::cout << "error: " << error.what() << '\n';
  }
}

}  // namespace example

int main(int count, char** arguments) {
  return example::play(count, arguments, example::offer, example::use);
}

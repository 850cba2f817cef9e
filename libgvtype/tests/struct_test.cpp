// Described structs, enumerations and optionals, and values as text.

#include <gvtype/struct.h>

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gvtype/conversion.h>
#include <gvtype/futuretype.h>
#include <gvtype/genericvalues.h>
#include <gvtype/print.h>

namespace robot {

struct Point {
  int x = 0;
  int y = 0;
  bool operator==(const Point&) const = default;
};
GV_STRUCT(Point, x, y)

enum class Gait : std::uint8_t { Walk = 1, Run = 200 };

namespace arm {

struct Pose {
  Point at;
  std::optional<std::string> name;
  Gait gait = Gait::Walk;
  bool operator==(const Pose&) const = default;
};
GV_STRUCT(Pose, at, name, gait)

struct Tree {
  int value = 0;
  std::vector<Tree> branches;
  std::map<int, Tree> named;
  bool operator==(const Tree&) const = default;
};
GV_STRUCT(Tree, value, branches, named)

}  // namespace arm

struct Reversed {
  double y = 0;
  long x = 0;
};
GV_STRUCT(Reversed, y, x)

struct Wide {
  int a = 1, b = 2, c = 3, d = 4, e = 5, f = 6, g = 7, h = 8, i = 9, j = 10, k = 11, l = 12, m = 13,
      n = 14, o = 15, p = 16, q = 17;
};
GV_STRUCT(Wide, a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p, q)

/// Derives from a described struct, and is none by that.
struct Derived : Point {};

}  // namespace robot

namespace gv {
namespace {

using robot::Gait;
using robot::Point;
using robot::arm::Pose;
using robot::arm::Tree;

TEST(Struct, HasASignatureWithTheNamesOfItsFields) {
  EXPECT_EQ(AnyValue::from(Pose()).signature(), "((ii)<Point,x,y>msy)<Pose,at,name,gait>");
  EXPECT_EQ(AnyValue::from(robot::Wide()).to<std::vector<int>>().size(), 17u);
  EXPECT_EQ(AnyValue::from(robot::Derived()).signature(), "X");
  EXPECT_EQ(typeName(getType<std::optional<Pose>>()), "optional<Pose>");
}

TEST(Struct, ConvertsByNameToStructsAndByPositionToTuples) {
  EXPECT_EQ(AnyValue::from(robot::Reversed{1, 2}).to<Point>(), (Point{2, 1}));
  EXPECT_EQ((AnyValue::from(Point{1, 2}).to<std::pair<long, int>>()), (std::pair<long, int>{1, 2}));
  EXPECT_EQ(AnyValue::from(std::make_tuple(1, 2.0)).to<Point>(), (Point{1, 2}));
  const Pose pose{{1, 2}, "home", Gait::Run};
  const AnyReference reference = AnyReference::from(pose);
  const AnyValue generic = convertTo(reference, reference.signature());
  EXPECT_NE(generic.asReference().as<TupleValue>(), nullptr);
  EXPECT_EQ(generic.to<Pose>(), pose);
  EXPECT_EQ(convertTo(AnyReference::from(pose.at), "(dx)<Any,y,x>").to<robot::Reversed>().x, 1);
}

TEST(Struct, MayHoldContainersOfItself) {
  const Tree tree{1, {{2, {}, {}}, {3, {{4, {}, {}}}, {}}}, {{5, {6, {}, {}}}}};
  EXPECT_EQ(AnyValue::from(tree).signature(), "(iaXa{iX})<Tree,value,branches,named>");
  EXPECT_EQ(AnyValue::from(AnyValue::from(tree)).to<Tree>(), tree);
  EXPECT_EQ(toText(AnyReference::from(tree.branches[1])),
            "Tree{value: 3, branches: [Tree{value: 4, branches: [], named: {}}], named: {}}");
}

TEST(Text, ShowsEveryKindAndIsBounded) {
  const std::vector<std::pair<AnyValue, std::string>> rows = {
      {AnyValue(), "nothing"},
      {AnyValue::from(true), "true"},
      {AnyValue::from(std::int8_t{-7}), "-7"},
      {AnyValue::from(0.1f), "0.1"},
      {AnyValue::from("a\"\\\n\x01\xc3\xa4"), "\"a\\\"\\\\\\n\\x01\xc3\xa4\""},
      {AnyValue::from(Buffer("abc", 3)), "raw(3 bytes)"},
      {AnyValue::from(std::make_tuple(1, std::vector<bool>{true, false})), "(1, [true, false])"},
      {AnyValue::from(std::map<std::string, AnyValue>{{"a", AnyValue::from(1)}, {"b", {}}}),
       "{\"a\": 1, \"b\": nothing}"},
      {AnyValue::from(Pose{{1, 2}, {}, Gait::Run}),
       "Pose{at: Point{x: 1, y: 2}, name: nothing, gait: 200}"},
      {AnyValue::from(makeReadyFuture(1)), "<future<int32>>"}};
  for (const auto& [value, text] : rows) EXPECT_EQ(toText(value.asReference()), text);
  const std::vector<std::string> many(100000, "text");
  EXPECT_EQ(toText(AnyReference::from(many), 10), "[\"text\", \"...");
}

}  // namespace
}  // namespace gv

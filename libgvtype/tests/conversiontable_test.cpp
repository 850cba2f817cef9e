// The table of docs/conversions.md, cell by cell: what the page says is what the code does.

#include <gvtype/conversion.h>

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gvtype/futuretype.h>
#include <gvtype/print.h>
#include <gvtype/signature.h>
#include <gvtype/struct.h>

namespace gv {
namespace {

struct Point {
  int x = 0;
  int y = 0;
};
GV_STRUCT(Point, x, y)
struct Swapped {
  int y = 0;
  int x = 0;
};
GV_STRUCT(Swapped, y, x)
struct Size {
  int width = 0;
  int height = 0;
};
GV_STRUCT(Size, width, height)
struct Label {
  std::string text;
  int number = 0;
};
GV_STRUCT(Label, text, number)
struct Thing {};
struct Opaque {};
struct OtherOpaque {};

}  // namespace

/// Stands for an object's handle: what matters here is its kind.
template <>
struct TypeTraits<Thing> {
  static void describe(TypeInterface& type) { type.kind = TypeKind::Object; }
};

namespace {

using Samples = std::map<std::string, std::vector<AnyReference>>;

template <class... T>
std::vector<AnyReference> listOf(T... values) {
  return {AnyReference::own(std::move(values))...};
}

/// Values of each kind that hold nothing of other kinds on purpose.
Samples plainSamples() {
  return {{"void", {AnyReference::ofVoid()}},
          {"bool", listOf(true)},
          {"int", listOf(1, 16777217)},
          {"float", listOf(1.0, 0.1)},
          {"string", listOf(std::string("1"))},
          {"raw", listOf(Buffer("1", 1))},
          {"list", listOf(std::vector<long>{1, 2}, std::vector<std::string>{"a", "b"},
                          std::vector<std::pair<std::string, int>>{{"a", 1}})},
          {"map", listOf(std::map<std::string, long>{{"a", 1}}, std::map<int, Buffer>{{1, {}}})},
          {"tuple", listOf(std::make_pair(1L, 2L), std::make_tuple(std::string(), 1))},
          {"struct", listOf(Swapped{1, 2}, Size{3, 4}, Label())},
          {"object", listOf(Thing())},
          {"unknown", listOf(Opaque(), OtherOpaque())}};
}

template <class T>
void addHolders(Samples& samples, const T& value) {
  samples["optional"].push_back(AnyReference::own(std::make_optional(value)));
  samples["dynamic"].push_back(AnyReference::own(AnyValue::from(value)));
  samples["future"].push_back(AnyReference::own(makeReadyFuture(value)));
}

Samples allSamples() {
  Samples samples = plainSamples();
  [&](const auto&... values) { (addHolders(samples, values), ...); }(
      true, 1, 0.5, std::string("a"), Buffer(), std::vector<int>{1, 2}, std::make_pair(1, 2),
      std::map<std::string, int>(), Point(), Thing(), Opaque(), makeReadyFuture(1),
      makeReadyFuture());
  samples["optional"].push_back(AnyReference::own(std::optional<int>()));
  samples["dynamic"].push_back(AnyReference::own(AnyValue()));
  samples["dynamic"].push_back(AnyReference::own(AnyValue::make(getType<void>())));
  samples["future"].push_back(AnyReference::own(makeReadyFuture()));
  static const Promise<int> running;
  samples["future"].push_back(AnyReference::own(running.future()));
  samples["future"].push_back(AnyReference::own(makeFailedFuture<int>("no")));
  return samples;
}

std::map<std::string, std::vector<const TypeInterface*>> targets() {
  return {{"void", {getType<void>()}},
          {"bool", {getType<bool>()}},
          {"int", {getType<std::int8_t>()}},
          {"float", {getType<float>()}},
          {"string", {getType<std::string>()}},
          {"raw", {getType<Buffer>()}},
          {"list", {getType<std::vector<int>>()}},
          {"map", {getType<std::map<std::string, int>>()}},
          {"tuple", {getType<std::pair<int, int>>()}},
          {"struct", {getType<Point>()}},
          {"optional",
           {getType<std::optional<std::int8_t>>(), getType<std::optional<Buffer>>(),
            getType<std::optional<std::string>>(), getType<std::optional<std::vector<int>>>(),
            getType<std::optional<std::map<std::string, int>>>(), getType<std::optional<Point>>(),
            getType<std::optional<Thing>>(), getType<std::optional<Opaque>>()}},
          {"dynamic", {getType<AnyValue>()}},
          {"object", {getType<Thing>()}},
          {"future", {getType<Future<int>>()}},
          {"unknown", {getType<Opaque>()}}};
}

enum class Outcome { Done, Never, DoesNotFit };

Outcome outcomeOf(const AnyReference& source, const TypeInterface* type) {
  try {
    const AnyValue target = AnyValue::make(type);
    convertInto(source, type, target.asReference().pointer());
    return Outcome::Done;
  } catch (const ConversionError& error) {
    return error.reason() == ConversionError::Reason::Kind ? Outcome::Never : Outcome::DoesNotFit;
  }
}

/// The word that the table has for these outcomes.
std::string wordFor(const std::set<Outcome>& outcomes) {
  if (!outcomes.contains(Outcome::Done)) return outcomes.contains(Outcome::DoesNotFit) ? "?" : "-";
  if (outcomes.contains(Outcome::Never)) return "inside";
  return outcomes.contains(Outcome::DoesNotFit) ? "fits" : "yes";
}

/// What a conversion costs agrees with what it does; a signature cannot tell two unknown types
/// apart, nor a future from its value.
void requireCost(const AnyReference& source, const TypeInterface* type, Outcome outcome) {
  std::string signature;
  appendSignature(signature, type);
  if (signatureHasCode(signature, 'X') || type->kind == TypeKind::Future) return;
  bool looksAtValue = false;
  const int cost = conversionCost(source, signature, &looksAtValue);
  if (outcome == Outcome::DoesNotFit) return;
  EXPECT_EQ(cost >= 0, outcome == Outcome::Done) << toText(source) << " to " << typeName(type);
}

std::vector<std::string> cellsOf(const std::string& line) {
  std::vector<std::string> cells;
  std::istringstream stream(line);
  for (std::string cell; std::getline(stream, cell, '|');) {
    const std::size_t first = cell.find_first_not_of(' ');
    cells.push_back(first == std::string::npos
                        ? ""
                        : cell.substr(first, cell.find_last_not_of(' ') + 1 - first));
  }
  if (!cells.empty()) cells.erase(cells.begin());  // before the first bar
  return cells;
}

TEST(ConversionTable, IsWhatTheCodeDoes) {
  std::ifstream page(CONVERSIONS_PAGE);
  const Samples samples = allSamples();
  const auto types = targets();
  std::vector<std::string> columns;
  std::size_t rows = 0;
  for (std::string line; std::getline(page, line);) {
    const std::vector<std::string> cells = cellsOf(line);
    if (!line.starts_with('|') || cells[0].starts_with('-')) continue;
    if (columns.empty()) {
      columns = cells;
      ASSERT_EQ(columns.size(), types.size() + 1);
      continue;
    }
    ++rows;
    ASSERT_EQ(cells.size(), columns.size()) << line;
    for (std::size_t i = 1; i < cells.size(); ++i) {
      std::set<Outcome> outcomes;
      for (const AnyReference& source : samples.at(cells[0]))
        for (const TypeInterface* type : types.at(columns[i])) {
          outcomes.insert(outcomeOf(source, type));
          requireCost(source, type, outcomeOf(source, type));
        }
      EXPECT_EQ(wordFor(outcomes), cells[i]) << cells[0] << " to " << columns[i];
    }
  }
  EXPECT_EQ(rows, samples.size());
}

}  // namespace
}  // namespace gv

#include <gtest/gtest.h>

#include "hosts/memory/memory_host.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::hosts::memory {
namespace {

Record anchored_record(Record start, Record end, Record old_start, Record old_end) {
  return {{"path", "a.py"},  {"line_start", start},       {"line_end", end},
          {"symbol", "a.f"}, {"symbol_start", old_start}, {"symbol_end", old_end}};
}

struct RelocateCase {
  const char* what;
  Line start, end, old_start, old_end, now_start, now_end;
  LineRange expected;
};

void PrintTo(const RelocateCase& c, std::ostream* out) { *out << c.what; }

class RelocatedRange : public ::testing::TestWithParam<RelocateCase> {};

TEST_P(RelocatedRange, MovesWithTheDeclaration) {
  const RelocateCase& c = GetParam();
  const auto symbol = sym("a.f", c.now_start, c.now_end);
  EXPECT_EQ(cr::relocated_range(anchored_record(c.start, c.end, c.old_start, c.old_end), symbol),
            c.expected)
      << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RelocatedRange,
    ::testing::Values(RelocateCase{"whole", 10, 20, 10, 20, 30, 45, {30, 45}},
                      RelocateCase{"inside unchanged", 12, 15, 10, 20, 10, 20, {12, 15}},
                      RelocateCase{"inside down", 12, 15, 10, 20, 30, 40, {32, 35}},
                      RelocateCase{"inside up", 55, 58, 50, 60, 40, 52, {45, 48}},
                      RelocateCase{"ends on last line", 12, 20, 10, 20, 30, 40, {32, 40}},
                      RelocateCase{"starts on first line", 10, 15, 10, 20, 30, 45, {30, 35}},
                      RelocateCase{"shrank under end", 12, 20, 10, 20, 30, 34, {32, 34}},
                      RelocateCase{"shrank under start", 15, 20, 10, 20, 30, 33, {33, 33}},
                      RelocateCase{"inverted inside", 18, 12, 10, 20, 30, 40, {32, 32}},
                      RelocateCase{"straddles end", 10, 25, 10, 20, 30, 35, {30, 45}},
                      RelocateCase{"straddles start", 8, 12, 10, 20, 30, 40, {28, 32}},
                      RelocateCase{"outside", 1, 3, 10, 20, 5, 15, {-4, -2}},
                      RelocateCase{"zero shift outside", 1, 3, 10, 20, 10, 12, {1, 3}},
                      RelocateCase{"zero shift whole", 10, 20, 10, 20, 10, 12, {10, 12}}),
    [](const auto& info) {
      std::string name = info.param.what;
      std::replace(name.begin(), name.end(), ' ', '_');
      return name;
    });

TEST(RelocatedRangeRecord, ComparesAfterConversionAndFailsOnMissingOrAbsurdValues) {
  const auto symbol = sym("a.f", 30, 45);
  EXPECT_EQ(cr::relocated_range(anchored_record("10", 20, " 10 ", 20), symbol),
            (LineRange{30, 45}));

  Record missing = anchored_record(12, 15, 10, 20);
  missing.erase("symbol_end");
  EXPECT_THROW(cr::relocated_range(missing, symbol), MissingKey);
  EXPECT_THROW(cr::relocated_range(anchored_record(nullptr, 15, 10, 20), symbol),
               cr::RecordTypeError);
  // A shift that leaves the range of a line is an error, not a wrapped number.
  const auto far = sym("a.f", std::numeric_limits<Line>::max(), std::numeric_limits<Line>::max());
  EXPECT_THROW(cr::relocated_range(anchored_record(1, 3, -5, -2), far), cr::RecordValueError);
}

TEST(FindAgain, ByQualifiedNameThenNameNearestTheOldStart) {
  const std::vector<Symbol> symbols = {sym("m.C.load", 200, 210), sym("m.D.load", 50, 60),
                                       sym("m.E.save", 47, 49), sym("m.F.save", 53, 55)};
  const Symbol *far_fqn = &symbols[0], *near_name = &symbols[1], *above = &symbols[2];
  struct Case {
    Record citation;
    const Symbol* expected;
  } cases[] = {
      // The qualified match wins however far away it is.
      {{{"symbol", "m.C.load"}, {"name", "load"}, {"symbol_start", 50}}, far_fqn},
      // No qualified match: by name, nearest the old start.
      {{{"symbol", "m.X.load"}, {"name", "load"}, {"symbol_start", 190}}, far_fqn},
      {{{"symbol", "m.X.load"}, {"name", "load"}, {"symbol_start", "55"}}, near_name},
      // Equal distance above and below: the first listed.
      {{{"symbol", "gone"}, {"name", "save"}, {"symbol_start", 50}}, above},
      // No symbol_start measures from line 0; an empty symbol counts as absent.
      {{{"symbol", ""}, {"name", "load"}}, near_name},
      // false and 0 are names that are there, though no declaration has them.
      {{{"symbol", false}, {"name", "load"}, {"symbol_start", 190}}, far_fqn},
      {{{"symbol", 0}, {"name", 0}}, nullptr},
      {{{"name", ""}, {"symbol", ""}}, nullptr},
      {{{"symbol", "nothing"}, {"name", "nothing"}}, nullptr},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(cr::detail::find_again(symbols, c.citation), c.expected) << c.citation;
  }
  EXPECT_EQ(cr::detail::find_again({}, cases[0].citation), nullptr);
  EXPECT_THROW(cr::detail::find_again(symbols, {{"symbol", "m.C.load"}, {"symbol_start", "x"}}),
               cr::RecordValueError);
}

}  // namespace
}  // namespace tolbarrow::hosts::memory

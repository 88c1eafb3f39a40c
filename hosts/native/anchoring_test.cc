#include "hosts/native/anchoring.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/temp_dir.h"

namespace tolbarrow::hosts::native {
namespace {

using testing::TempDir;
using wiki::LineRange;
using wiki::Record;
using wiki::Symbol;

const std::vector<Symbol> kSymbols = {
    {"A", "A", "class", 1, 20},         {"A.m", "m", "member", 3, 8},
    {"A.m.x", "x", "variable", 4, 4},   {"A.n", "n", "member", 10, 12},
    {"A.n2", "n2", "function", 10, 12}, {"g", "g", "function", 30, 30},
};

struct AnchorCase {
  const char* name;
  wiki::Line first, last;
  const char* expected;  // fqn, or nullptr
};
void PrintTo(const AnchorCase& c, std::ostream* out) { *out << c.name; }

class AnchorTest : public ::testing::TestWithParam<AnchorCase> {};

TEST_P(AnchorTest, PicksTheInnermostHoldingDeclaration) {
  CtagsAnchoring anchoring;
  const Symbol* found = anchoring.anchor_symbol(kSymbols, GetParam().first, GetParam().last);
  if (GetParam().expected == nullptr) {
    EXPECT_EQ(found, nullptr) << found->fqn;
  } else {
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->fqn, GetParam().expected);
    EXPECT_GE(found, kSymbols.data());  // an element, not a copy
    EXPECT_LT(found, kSymbols.data() + kSymbols.size());
  }
}

INSTANTIATE_TEST_SUITE_P(Anchoring, AnchorTest,
                         ::testing::Values(AnchorCase{"inner", 5, 6, "A.m"},
                                           AnchorCase{"whole_inner_span", 3, 8, "A.m"},
                                           AnchorCase{"variable_skipped", 4, 4, "A.m"},
                                           AnchorCase{"crossing_two_goes_out", 7, 11, "A"},
                                           AnchorCase{"equal_spans_first_wins", 10, 11, "A.n"},
                                           AnchorCase{"one_line_declaration", 30, 30, "g"},
                                           AnchorCase{"past_the_end", 30, 31, nullptr},
                                           AnchorCase{"outside_all", 25, 26, nullptr}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Anchoring, AnchoredSetsTheDeclarationAndKeepsTheRest) {
  CtagsAnchoring anchoring;
  const Record record = Record::parse(R"({"z":1,"path":"a.py","line_start":5,"name":"old"})");
  EXPECT_EQ(anchoring.anchored(record, {6, 7}, &kSymbols[1]).dump(),
            R"({"z":1,"path":"a.py","line_start":6,"name":"m","line_end":7,"symbol":"A.m",)"
            R"("symbol_start":3,"symbol_end":8})");
  EXPECT_EQ(anchoring.anchored(record, {6, 7}, nullptr).dump(),
            R"({"z":1,"path":"a.py","line_start":6,"name":"old","line_end":7})");
  EXPECT_TRUE(anchoring.unanchored_kind("variable"));
  EXPECT_FALSE(anchoring.unanchored_kind("member"));
}

struct FitCase {
  const char* name;
  wiki::Line first, last, count;
  std::optional<LineRange> expected;
};
void PrintTo(const FitCase& c, std::ostream* out) { *out << c.name; }

class FitTest : public ::testing::TestWithParam<FitCase> {};

TEST_P(FitTest, ClampsIntoTheFile) {
  TempDir repo;
  SqliteStore store(repo.path());
  IndexCitationRanges ranges(store);
  const auto& c = GetParam();
  EXPECT_EQ(ranges.fit_range(c.first, c.last, c.count), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Ranges, FitTest,
                         ::testing::Values(FitCase{"inside", 2, 4, 10, LineRange{2, 4}},
                                           FitCase{"whole_file", 1, 10, 10, LineRange{1, 10}},
                                           FitCase{"tail_clamped", 8, 12, 10, LineRange{8, 10}},
                                           FitCase{"head_clamped", -2, 3, 10, LineRange{1, 3}},
                                           FitCase{"starts_on_last_line", 10, 11, 10,
                                                   LineRange{10, 10}},
                                           FitCase{"starts_past_end", 11, 12, 10, std::nullopt},
                                           FitCase{"ends_before_first", -3, 0, 10, std::nullopt},
                                           FitCase{"reversed", 5, 4, 10, std::nullopt},
                                           FitCase{"empty_file", 1, 1, 0, std::nullopt}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Ranges, CountsFromTheCurrentIndexOnceAndNeverOutside) {
  TempDir repo, outside;
  repo.write("a.py", "1\n2\n3\n");
  repo.write("b.py", "1\n2");
  repo.write("empty.py", "");
  outside.write("secret.py", "1\n2\n3\n4\n");
  std::filesystem::create_symlink(outside.path() / "secret.py", repo.path() / "link.py");
  SqliteStore store(repo.path());
  struct stat st;
  ASSERT_EQ(::stat((repo.path() / "a.py").c_str(), &st), 0);
  // The index says 99 lines for a.py's current size and mtime: the count comes from it.
  store.apply(
      {.touched = {{"a.py", "h", st.st_size,
                    static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec,
                    99}}});
  IndexCitationRanges ranges(store);
  auto counts = ranges.line_counts(repo.path());
  EXPECT_EQ(counts->count("a.py"), 99);
  EXPECT_EQ(counts->count("b.py"), 2);
  EXPECT_EQ(counts->count("empty.py"), 0);
  EXPECT_EQ(counts->count("missing.py"), 0);
  EXPECT_EQ(counts->count("link.py"), 0);
  EXPECT_EQ(counts->count("../" + outside.path().filename().string() + "/secret.py"), 0);
  EXPECT_EQ(counts->count(outside.path().string() + "/secret.py"), 0);

  repo.write("b.py", "1\n2\n3\n4\n5\n");
  EXPECT_EQ(counts->count("b.py"), 2);  // counted once per refresh
  EXPECT_EQ(ranges.line_counts(repo.path())->count("b.py"), 5);
  repo.write("a.py", "1\n");  // the index is stale: the file counts
  EXPECT_EQ(ranges.line_counts(repo.path())->count("a.py"), 1);
}

}  // namespace
}  // namespace tolbarrow::hosts::native

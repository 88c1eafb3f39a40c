#include "hosts/native/command/hunks.h"

#include <gtest/gtest.h>

namespace tolbarrow::hosts::native::command {
namespace {

TEST(Hunks, ParsesRenames) {
  using namespace std::string_literals;
  EXPECT_EQ(parse_renames("R100\0src/a.py\0lib/a.py\0R087\0b c.py\0d\ne.py\0"s),
            (std::map<std::string, std::string>{{"src/a.py", "lib/a.py"}, {"b c.py", "d\ne.py"}}));
  EXPECT_TRUE(parse_renames("").empty());
}

// Old line -> new line through hunk headers of `git diff -U0` (other lines of the diff ignored),
// and an unchanged line back.
TEST(Hunks, TranslatesLinesThroughHunks) {
  struct Case {
    const char* name;
    std::string diff;
    std::vector<std::pair<wiki::Line, std::optional<wiki::Line>>> unchanged, in_place;
  };
  const Case cases[] = {
      {"two lines inserted after line 3",
       "@@ -3,0 +4,2 @@\n+a\n+b\n",
       {{1, 1}, {3, 3}, {4, 6}, {9, 11}},
       {}},
      {"lines 2-3 deleted",
       "@@ -2,2 +1,0 @@\n-a\n-b\n",
       {{1, 1}, {2, std::nullopt}, {3, std::nullopt}, {4, 2}},
       {{2, std::nullopt}}},
      {"lines 4-5 became three",
       "@@ -4,2 +4,3 @@\n",
       {{3, 3}, {4, std::nullopt}, {5, std::nullopt}, {6, 7}},
       {{4, std::nullopt}, {5, std::nullopt}}},
      {"line 6 changed in place after two inserted",
       "@@ -1,0 +2,2 @@\n@@ -6 +8 @@\n",
       {{1, 1}, {5, 7}, {6, std::nullopt}, {7, 9}},
       {{6, 8}, {7, 9}}},
      {"inserted before the first line", "@@ -0,0 +1,2 @@\n", {{1, 3}, {2, 4}}, {}},
      {"last line deleted", "@@ -10 +9,0 @@\n", {{9, 9}, {10, std::nullopt}}, {}},
      {"line appended after the last", "@@ -10,0 +11 @@\n", {{10, 10}}, {}},
      {"no hunks", "diff --git a/x b/x\n", {{1, 1}, {100, 100}}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const LineMap map(parse_hunks(c.diff));
    for (const auto& [line, want] : c.unchanged) {
      EXPECT_EQ(map.unchanged(line), want) << line;
      if (want) {
        EXPECT_EQ(map.old_of(*want), line) << *want;  // and back
      }
    }
    for (const auto& [line, want] : c.in_place) EXPECT_EQ(map.in_place(line), want) << line;
  }
}

}  // namespace
}  // namespace tolbarrow::hosts::native::command

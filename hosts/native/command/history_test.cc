#include "hosts/native/command/history.h"

#include <gtest/gtest.h>

#include <fstream>

#include "hosts/native/command/anchors.h"
#include "tests/temp_dir.h"

namespace tolbarrow::hosts::native::command {
namespace {

using detail::LineMap;
using detail::parse_hunks;
using wiki::Record;

TEST(History, ReadsTheBranchsMark) {
  struct Case {
    const char* name;
    std::optional<std::string> file;  // nullopt: no anchors file
    std::optional<Mark> mark;
    const char* error;  // a part of the error message; null: none
  };
  const std::string pages = R"({"version": 1, "pages": {})";
  const Case cases[] = {
      {"no file", std::nullopt, std::nullopt, nullptr},
      {"no marks", pages + "}", std::nullopt, nullptr},
      {"other branch only", pages + R"(, "refreshed": {"dev": {"commit": "ab12"}}})", std::nullopt,
       nullptr},
      {"clean", pages + R"(, "refreshed": {"main": {"commit": "ab12", "clean": true}}})",
       Mark{"ab12", true, {}}, nullptr},
      {"dirty", pages + R"(, "refreshed": {"main": {"commit": "ab12", "clean": false,
         "dirty": {"src/a.py": "cd34"}}, "dev": {"commit": "ef"}}})",
       Mark{"ab12", false, {{"src/a.py", "cd34"}}}, nullptr},
      {"not an object", pages + R"(, "refreshed": {"main": "ab12"}})", std::nullopt,
       "\"refreshed\" of branch \"main\": not an object"},
      {"commit not hex", pages + R"(, "refreshed": {"main": {"commit": "HEAD"}}})", std::nullopt,
       "\"commit\" is not a commit id"},
      {"no commit", pages + R"(, "refreshed": {"main": {"clean": true}}})", std::nullopt,
       "\"commit\" is not a commit id"},
      {"dirty not an object", pages + R"(, "refreshed": {"main": {"commit": "ab", "dirty": []}}})",
       std::nullopt, "\"dirty\" is not an object"},
      {"blob not text", pages + R"(, "refreshed": {"main": {"commit": "ab", "dirty": {"a": 1}}}})",
       std::nullopt, "\"dirty\": \"a\" is not a blob id"},
      // Only the top-level member counts: a page or a record member of that name is no mark.
      {"marks before pages named like them",
       R"({"version": 1, "refreshed": {"main": {"commit": "ab12"}}, "pages": {"refreshed": [
         {"path": "a.py", "line_start": 1, "line_end": 2, "refreshed": {"main": {"commit": "ef"}}}
       ]}})",
       Mark{"ab12", true, {}}, nullptr},
      {"a page named like the marks only",
       R"({"version": 1, "pages": {"refreshed": [{"main": {"commit": "ef"}}]}})", std::nullopt,
       nullptr},
      {"not JSON after the marks", pages + R"(, "refreshed": {"main": {"commit": "ab12"}}, })",
       std::nullopt, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testing::TempDir dir;
    const auto file = dir.path() / kAnchorsFileName;
    if (c.file) std::ofstream(file) << *c.file;
    if (c.error) {
      try {
        read_mark(file, "main");
        ADD_FAILURE() << "no error";
      } catch (const AnchorsError& e) {
        EXPECT_NE(std::string(e.what()).find(file.string() + ": "), std::string::npos);
        EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos) << e.what();
      }
    } else {
      EXPECT_EQ(read_mark(file, "main"), c.mark);
    }
  }
}

// The anchors file's text made page by page is the one dump_anchors makes of all the pages, and
// AnchorsText::is tells that text from any other.
TEST(Anchors, TextMadePageByPageIsTheDump) {
  const std::vector<StoredPage> pages = {
      {.page_id = "a", .citations = {Record{{"path", "x.py"}, {"line_start", 1}, {"line_end", 2}}}},
      {.page_id = "b/c", .citations = {}},
      {.page_id = "d",
       .citations = {Record{{"path", "y.py"}, {"line_start", 3}, {"line_end", 3}},
                     Record{{"path", "z.py"}, {"line_start", 4}, {"line_end", 9}}}},
  };
  const Record marks = {{kRefreshedKey, {{"main", {{"commit", "ab12"}, {"clean", true}}}}}};
  const Record other_marks = {{kRefreshedKey, {{"main", {{"commit", "cd34"}, {"clean", true}}}}}};
  struct Case {
    const char* name;
    std::vector<StoredPage> pages;
    Record extra;
  };
  const Case cases[] = {
      {"no pages", {}, Record()},
      {"pages", pages, Record()},
      {"pages and marks", pages, marks},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string dump = dump_anchors(c.pages, c.extra);
    AnchorsText text;
    for (const StoredPage& page : c.pages) text.add(page);
    EXPECT_TRUE(text.is(dump, c.extra));
    EXPECT_FALSE(text.is(dump.substr(0, dump.size() - 1), c.extra));
    EXPECT_FALSE(text.is(dump.substr(0, 10), c.extra));
    EXPECT_FALSE(text.is(dump + "\n", c.extra));
    EXPECT_FALSE(text.is(dump_anchors(c.pages, other_marks), c.extra));
    EXPECT_FALSE(text.is(dump_anchors({pages[1]}, c.extra), c.extra));
    EXPECT_EQ(std::move(text).take(c.extra), dump);
  }
}

TEST(History, ParsesRenames) {
  using namespace std::string_literals;
  EXPECT_EQ(detail::parse_renames("R100\0src/a.py\0lib/a.py\0R087\0b c.py\0d\ne.py\0"s),
            (std::map<std::string, std::string>{{"src/a.py", "lib/a.py"}, {"b c.py", "d\ne.py"}}));
  EXPECT_TRUE(detail::parse_renames("").empty());
}

// Old line -> new line through hunk headers of `git diff -U0` (other lines of the diff ignored).
TEST(History, TranslatesLinesThroughHunks) {
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
    for (const auto& [line, want] : c.unchanged) EXPECT_EQ(map.unchanged(line), want) << line;
    for (const auto& [line, want] : c.in_place) EXPECT_EQ(map.in_place(line), want) << line;
  }
}

Record record(wiki::Line start, wiki::Line end, wiki::Line symbol_start, wiki::Line symbol_end) {
  return {{"path", "a.py"},  {"line_start", start},          {"line_end", end},
          {"symbol", "A.f"}, {"symbol_start", symbol_start}, {"symbol_end", symbol_end},
          {"name", "f"}};
}

// A record carried through one file's diff: both cited lines unchanged, or left to the refresh.
TEST(History, CarriesARecordWhereGitSaysItsLinesAreUnchanged) {
  struct Case {
    const char* name;
    const char* diff;
    Record from;
    std::optional<Record> to;
  };
  const Case cases[] = {
      {"shifted whole", "@@ -2,0 +3,3 @@\n", record(12, 13, 10, 20), record(15, 16, 13, 23)},
      {"lines inserted inside the declaration above the cited lines", "@@ -11,0 +12,2 @@\n",
       record(12, 13, 10, 20), record(14, 15, 10, 22)},
      {"a cited line changed", "@@ -13 +13 @@\n", record(12, 13, 10, 20), std::nullopt},
      {"the declaration's first line changed in place", "@@ -10 +10 @@\n", record(12, 13, 10, 20),
       record(12, 13, 10, 20)},
      {"the declaration's first line deleted: its distance stays", "@@ -10 +9,0 @@\n",
       record(12, 13, 10, 20), record(11, 12, 9, 19)},
      {"the declaration's last line grew: its distance stays", "@@ -20 +20,3 @@\n",
       record(12, 13, 10, 20), record(12, 13, 10, 20)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(detail::translated(c.from, LineMap(parse_hunks(c.diff))), c.to);
  }
}

TEST(History, CarriesACitationWithinTheDeclarationFoundAgain) {
  struct Case {
    const char* name;
    Record from;
    bool within;               // carried_within
    const char* inner;         // the diff of the declaration's lines
    std::optional<Record> to;  // through `inner`, into the declaration at 30-42
  };
  const Case cases[] = {
      {"two lines inserted above, inside", record(12, 13, 10, 20), true, "@@ -1,0 +2,2 @@\n",
       record(34, 35, 30, 42)},
      {"a line removed below", record(12, 13, 10, 20), true, "@@ -5 +4,0 @@\n",
       record(32, 33, 30, 42)},
      {"a cited line changed", record(12, 13, 10, 20), true, "@@ -4 +4 @@\n", std::nullopt},
      {"the first line only", record(10, 10, 10, 20), true, "@@ -2,0 +3 @@\n",
       record(30, 30, 30, 42)},
      {"all of the declaration", record(10, 20, 10, 20), false, "", std::nullopt},
      {"before the declaration", record(8, 9, 10, 20), false, "", std::nullopt},
      {"running past its end", record(18, 22, 10, 20), false, "", std::nullopt},
  };
  const wiki::Symbol now{"A.f", "f", "function", 30, 42};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(detail::carried_within(c.from), c.within);
    if (c.within) {
      EXPECT_EQ(detail::within_declaration(c.from, &now, LineMap(parse_hunks(c.inner))), c.to);
    }
  }
}

}  // namespace
}  // namespace tolbarrow::hosts::native::command

#include "hosts/native/citation_syntax.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

namespace tolbarrow::hosts::native {
namespace {

using wiki::CitationKey;
using wiki::Text;

struct Found {
  std::string path;
  wiki::Line first, last;
  std::size_t start;
  friend bool operator==(const Found&, const Found&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Found& f) {
    return out << f.path << "#" << f.first << "-" << f.last << "@" << f.start;
  }
};

std::vector<Found> find_all(const std::string& text) {
  MarkdownCitationSyntax syntax;
  std::vector<Found> out;
  syntax.find(Text(text), [&](const wiki::Citation& c) {
    out.push_back({c.key.path, c.key.start, c.key.end, c.start});
  });
  return out;
}

struct FindCase {
  const char* name;
  std::string text;
  std::vector<Found> expected;
};

void PrintTo(const FindCase& c, std::ostream* out) { *out << c.name; }

class FindTest : public ::testing::TestWithParam<FindCase> {};

TEST_P(FindTest, FindsCitationsOutsideCode) {
  EXPECT_EQ(find_all(GetParam().text), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Syntax, FindTest,
    ::testing::Values(
        FindCase{"range", "See [f](/src/a.py#L10-L12).", {{"src/a.py", 10, 12, 4}}},
        FindCase{"one_line", "[m](/src/main.cc#L7)", {{"src/main.cc", 7, 7, 0}}},
        FindCase{"percent_decoded", "[x](/my%20dir/a%2Fb.py#L1-L2)", {{"my dir/a/b.py", 1, 2, 0}}},
        FindCase{"bad_escape_kept", "[x](/a%zz.py#L1)", {{"a%zz.py", 1, 1, 0}}},
        FindCase{"code_offsets_count_points", "é→ [a](/a.py#L1)", {{"a.py", 1, 1, 3}}},
        FindCase{
            "backtick_fence", "```py\n[a](/a.py#L1)\n```\n[b](/b.py#L2)\n", {{"b.py", 2, 2, 24}}},
        FindCase{"tilde_fence_indented_in_list",
                 "- item\n  ~~~~\n  [a](/a.py#L1)\n  ~~~\n  ~~~~\n[b](/b.py#L2)",
                 {{"b.py", 2, 2, 43}}},
        FindCase{"unclosed_fence_runs_to_end", "x\n```\n[a](/a.py#L1)\n", {}},
        FindCase{"inline_span", "`[a](/a.py#L1)` and [b](/b.py#L2)", {{"b.py", 2, 2, 20}}},
        FindCase{
            "double_backtick_span", "``a ` [a](/a.py#L1)`` [b](/b.py#L2)", {{"b.py", 2, 2, 22}}},
        FindCase{"longer_run_inside_span", "`x ``[a](/a.py#L1)`` y`", {}},
        FindCase{"span_holding_target", "[a `](/a.py#L1)`", {}},
        FindCase{"span_in_link_text", "[`f()`](/a.py#L3-L4)", {{"a.py", 3, 4, 0}}},
        FindCase{"lone_backtick_is_literal", "a ` b [x](/a.py#L2)", {{"a.py", 2, 2, 6}}},
        FindCase{"span_ends_at_blank_line", "a `b\n\n[x](/a.py#L2) `", {{"a.py", 2, 2, 6}}},
        FindCase{"spans_in_later_paragraphs",
                 "`a` `b\n\n`[x](/x.py#L1)` `c\n\nd `[y](/y.py#L1)` [z](/z.py#L2)",
                 {{"z.py", 2, 2, 46}}},
        FindCase{"not_citations",
                 "[a](a.py#L1) [b](/b.py) [c](https://x/c.py#L1) [d](/d.py#10) [e](/e.py#L1-5)",
                 {}}),
    [](const auto& info) { return std::string(info.param.name); });

struct RewriteCase {
  const char* name;
  std::string text;
  std::vector<std::pair<CitationKey, wiki::Move>> moves;
  std::string expected;
};

void PrintTo(const RewriteCase& c, std::ostream* out) { *out << c.name; }

class RewriteTest : public ::testing::TestWithParam<RewriteCase> {};

TEST_P(RewriteTest, ChangesOnlyMovedFragments) {
  wiki::Moves moves;
  for (const auto& [key, range] : GetParam().moves) moves.set(key, range);
  MarkdownCitationSyntax syntax;
  EXPECT_EQ(syntax.rewrite(Text(GetParam().text), moves), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Syntax, RewriteTest,
    ::testing::Values(RewriteCase{"range_to_range",
                                  "a [f](/a.py#L1-L2) b [g](/a.py#L5-L6)",
                                  {{{"a.py", 1, 2}, {11, 12}}},
                                  "a [f](/a.py#L11-L12) b [g](/a.py#L5-L6)"},
                      RewriteCase{"range_to_one_line_and_back",
                                  "[f](/a.py#L1-L2) [g](/b.py#L7)",
                                  {{{"a.py", 1, 2}, {4, 4}}, {{"b.py", 7, 7}, {8, 9}}},
                                  "[f](/a.py#L4) [g](/b.py#L8-L9)"},
                      RewriteCase{
                          "crlf_and_non_ascii_kept",
                          "Ünïcödé → [f](/a.py#L1)\r\n\r\n日本 [g](/my%20d/b.py#L3-L4)\r\n",
                          {{{"a.py", 1, 1}, {2, 2}}, {{"my d/b.py", 3, 4}, {30, 31}}},
                          "Ünïcödé → [f](/a.py#L2)\r\n\r\n日本 [g](/my%20d/b.py#L30-L31)\r\n"},
                      RewriteCase{"every_repeat_moves",
                                  "[f](/a.py#L1) [again](/a.py#L1)",
                                  {{{"a.py", 1, 1}, {3, 3}}},
                                  "[f](/a.py#L3) [again](/a.py#L3)"},
                      RewriteCase{"code_untouched",
                                  "```\n[f](/a.py#L1)\n```\n`[f](/a.py#L1)` [f](/a.py#L1)",
                                  {{{"a.py", 1, 1}, {3, 3}}},
                                  "```\n[f](/a.py#L1)\n```\n`[f](/a.py#L1)` [f](/a.py#L3)"},
                      RewriteCase{"no_moves", "[f](/a.py#L1)\r\n", {}, "[f](/a.py#L1)\r\n"},
                      RewriteCase{"path_and_lines",
                                  "a [f](/a.py#L1-L2) b [g](/a.py#L5)\n",
                                  {{{"a.py", 1, 2}, {3, 3, "src/b.py"}}},
                                  "a [f](/src/b.py#L3) b [g](/a.py#L5)\n"},
                      RewriteCase{"escaped_path_kept_when_only_lines_change",
                                  "[f](/my%20d/a.py#L1) [g](/c.py#L2)",
                                  {{{"my d/a.py", 1, 1}, {4, 6, "my d/a.py"}},
                                   {{"c.py", 2, 2}, {2, 2, "c d(1)%.py"}}},
                                  "[f](/my%20d/a.py#L4-L6) [g](/c%20d%281%29%25.py#L2)"},
                      RewriteCase{"renamed_in_code_untouched",
                                  "`[f](/a.py#L1)` [f](/a.py#L1)",
                                  {{{"a.py", 1, 1}, {1, 1, "b.py"}}},
                                  "`[f](/a.py#L1)` [f](/b.py#L1)"}),
    [](const auto& info) { return std::string(info.param.name); });

struct LastEndCase {
  const char* name;
  std::string text;
  std::size_t start, end;
  std::optional<std::size_t> expected;
};

void PrintTo(const LastEndCase& c, std::ostream* out) { *out << c.name; }

class LastEndTest : public ::testing::TestWithParam<LastEndCase> {};

TEST_P(LastEndTest, EndsOfLastMatchInBounds) {
  MarkdownCitationSyntax syntax;
  const auto& c = GetParam();
  EXPECT_EQ(syntax.last_end(Text(c.text), c.start, c.end), c.expected);
}

// "[a](/a.py#L1)" is 13 code points.
INSTANTIATE_TEST_SUITE_P(
    Syntax, LastEndTest,
    ::testing::Values(LastEndCase{"last_of_two", "[a](/a.py#L1) [b](/b.py#L2) x", 0, 29, 27},
                      LastEndCase{"end_cuts_second", "[a](/a.py#L1) [b](/b.py#L2) x", 0, 26, 13},
                      LastEndCase{"start_skips_first", "[a](/a.py#L1) x", 1, 15, std::nullopt},
                      LastEndCase{"code_counts", "`[a](/a.py#L1)`", 0, 15, 14},
                      LastEndCase{"points_not_bytes", "日本[a](/a.py#L1)", 0, 15, 15},
                      LastEndCase{"empty_bounds", "[a](/a.py#L1)", 5, 5, std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tolbarrow::hosts::native

namespace tolbarrow::hosts::native {
namespace {

// Pages made to be slow: runs and openers that close nothing. Each is scanned in about the time
// of a plain page of its size (a search that rescanned the rest of the paragraph for each of them
// took time in the square of the page).
TEST(CitationScan, HostilePagesTakeAboutTheTimeOfAPlainOne) {
  constexpr std::size_t kSize = 2'000'000;
  auto grow = [](const std::function<std::string(std::size_t)>& piece) {
    std::string page;
    for (std::size_t i = 1; page.size() < kSize; ++i) page += piece(i);
    return page;
  };
  auto seconds = [](const std::string& page) {
    MarkdownCitationSyntax syntax;
    const Text text(page);
    const auto start = std::chrono::steady_clock::now();
    std::size_t found = 0;
    syntax.find(text, [&](const wiki::Citation&) { ++found; });
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  const double plain = seconds(grow([](std::size_t) {
    return std::string("Some prose with `code` and a [link](/src/a.py#L1-L2) in it.\n");
  }));
  struct Case {
    const char* name;
    std::function<std::string(std::size_t)> piece;
  } cases[] = {
      {"a run of each length", [](std::size_t i) { return std::string(i, '`') + "x"; }},
      {"one length, never twice", [](std::size_t i) { return i % 2 ? "`` x " : "` x "; }},
      {"escaped runs", [](std::size_t i) { return "\\" + std::string(i % 50 + 1, '`') + "a"; }},
      {"brackets", [](std::size_t) { return std::string("[[a]"); }},
      {"link openers", [](std::size_t) { return std::string("[a](/src/a.py"); }},
      {"fragments", [](std::size_t) { return std::string("[a](/b#L1-"); }},
  };
  for (const Case& c : cases) {
    const double hostile = seconds(grow(c.piece));
    EXPECT_LT(hostile, 20 * plain + 0.5) << c.name << ": plain " << plain << " s";
  }
}

}  // namespace
}  // namespace tolbarrow::hosts::native

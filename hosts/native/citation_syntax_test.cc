#include "hosts/native/citation_syntax.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

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
        FindCase{"reference_without_text", "a [][p] b\n\n[p]: /a.py#L1\n", {{"a.py", 1, 1, 2}}},
        FindCase{"not_citations",
                 "[b](/b.py) [c](https://x/c.py#L1) [d](/d.py#10) [e](/e.py#L1-5) [f](../f.py#L1) "
                 "[g](/g.py?x#L1) [h](//host/h.py#L1) [i](/i.py#L1x)",
                 {}}),
    [](const auto& info) { return std::string(info.param.name); });

// Each form a link is written in: what it cites from the page's folder, and the page after every
// citation found moved ten lines down (the rewrite touches the line numbers only).
struct FormCase {
  const char* name;
  std::string folder;
  std::string text;
  std::vector<Found> expected;
  std::string moved;
};

void PrintTo(const FormCase& c, std::ostream* out) { *out << c.name; }

class FormTest : public ::testing::TestWithParam<FormCase> {};

// `syntax` finds `expected` in `text`, and rewrites it to `moved` with every citation found moved
// ten lines down.
void expect_found_and_moved(MarkdownCitationSyntax& syntax, const Text& text,
                            const std::vector<Found>& expected, const std::string& moved) {
  std::vector<Found> found;
  wiki::Moves moves;
  syntax.find(text, [&](const wiki::Citation& f) {
    found.push_back({f.key.path, f.key.start, f.key.end, f.start});
    moves.set(f.key, {f.key.start + 10, f.key.end + 10});
  });
  EXPECT_EQ(found, expected);
  EXPECT_EQ(syntax.rewrite(text, moves), moved);
}

TEST_P(FormTest, FindsAndRewritesEachForm) {
  const FormCase& c = GetParam();
  MarkdownCitationSyntax syntax;
  syntax.set_page_folder(c.folder);
  const Text text(c.text);
  expect_found_and_moved(syntax, text, c.expected, c.moved);
}

INSTANTIATE_TEST_SUITE_P(
    Syntax, FormTest,
    ::testing::Values(
        FormCase{"relative_from_the_page_folder",
                 "docs/guide",
                 "[a](../../src/a.py#L4-L9) [b](b.py#L4) [c](./c.py#L3) [d](/d.py#L1)",
                 {{"src/a.py", 4, 9, 0},
                  {"docs/guide/b.py", 4, 4, 26},
                  {"docs/guide/c.py", 3, 3, 39},
                  {"d.py", 1, 1, 54}},
                 "[a](../../src/a.py#L14-L19) [b](b.py#L14) [c](./c.py#L13) [d](/d.py#L11)"},
        FormCase{"relative_leaving_the_repository",
                 "docs",
                 "[a](../../a.py#L1) [b](../b.py#L2)",
                 {{"b.py", 2, 2, 19}},
                 "[a](../../a.py#L1) [b](../b.py#L12)"},
        FormCase{
            "reference_definition_is_the_citation",
            "docs",
            "See [the parser][parse], [parse][] and [parse].\n\n[parse]: ../src/p.py#L10-L12\n",
            {{"src/p.py", 10, 12, 4}, {"src/p.py", 10, 12, 25}, {"src/p.py", 10, 12, 39}},
            "See [the parser][parse], [parse][] and [parse].\n\n[parse]: ../src/p.py#L20-L22\n"},
        FormCase{"unused_definition_is_none", "", "[x]: /a.py#L1\n", {}, "[x]: /a.py#L1\n"},
        FormCase{"angle_brackets_title_escapes",
                 "",
                 "[a](</src/my file.py#L3> \"t\") [b](/src/a.py#L3 'x') [c](/my%20d/c.py#L5)",
                 {{"src/my file.py", 3, 3, 0}, {"src/a.py", 3, 3, 30}, {"my d/c.py", 5, 5, 52}},
                 "[a](</src/my file.py#L13> \"t\") [b](/src/a.py#L13 'x') [c](/my%20d/c.py#L15)"},
        FormCase{"columns_kept",
                 "",
                 "[a](/a.py#L4C1-L9C5) [b](/b.py#L2C3)",
                 {{"a.py", 4, 9, 0}, {"b.py", 2, 2, 21}},
                 "[a](/a.py#L14C1-L19C5) [b](/b.py#L12C3)"},
        FormCase{"emphasis_and_images_in_link_text",
                 "",
                 "**[*a*](/a.py#L1)** [![i](/i.png)](/b.py#L2)",
                 {{"a.py", 1, 1, 2}, {"b.py", 2, 2, 20}},
                 "**[*a*](/a.py#L11)** [![i](/i.png)](/b.py#L12)"},
        FormCase{"not_rendered_as_links",
                 "",
                 "![i](/i.py#L1) <!-- [c](/c.py#L1) -->\n\n    [ind](/ind.py#L1)\n\n"
                 "<div>\n[h](/h.py#L1)\n</div>\n\n[e](/a\\_b.py#L1) [k](/k.py#L1) ![a "
                 "[l](/l.py#L1)](/i.png)",
                 {{"k.py", 1, 1, 107}},
                 "![i](/i.py#L1) <!-- [c](/c.py#L1) -->\n\n    [ind](/ind.py#L1)\n\n"
                 "<div>\n[h](/h.py#L1)\n</div>\n\n[e](/a\\_b.py#L1) [k](/k.py#L11) ![a "
                 "[l](/l.py#L1)](/i.png)"}),
    [](const auto& info) { return std::string(info.param.name); });

struct RewriteCase {
  const char* name;
  std::string text;
  std::vector<std::pair<CitationKey, wiki::LineRange>> moves;
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
                      RewriteCase{"no_moves", "[f](/a.py#L1)\r\n", {}, "[f](/a.py#L1)\r\n"}),
    [](const auto& info) { return std::string(info.param.name); });

struct RetargetCase {
  const char* name;
  std::string text;
  std::vector<std::pair<CitationKey, CitationKey>> targets;
  std::string expected;
  std::string folder = "";
};

void PrintTo(const RetargetCase& c, std::ostream* out) { *out << c.name; }

class RetargetTest : public ::testing::TestWithParam<RetargetCase> {};

// Moves to another path: the path is rewritten in the form it was written in.
TEST_P(RetargetTest, ChangesOnlyTargetedPathsAndFragments) {
  wiki::Moves moves;
  for (const auto& [from, to] : GetParam().targets) moves.set(from, {to.start, to.end, to.path});
  MarkdownCitationSyntax syntax;
  syntax.set_page_folder(GetParam().folder);
  EXPECT_EQ(syntax.rewrite(Text(GetParam().text), moves), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Syntax, RetargetTest,
    ::testing::Values(RetargetCase{"path_and_lines",
                                   "a [f](/a.py#L1-L2) b [g](/a.py#L5)\n",
                                   {{{"a.py", 1, 2}, {"src/b.py", 3, 3}}},
                                   "a [f](/src/b.py#L3) b [g](/a.py#L5)\n"},
                      RetargetCase{"escaped_path_kept_when_only_lines_change",
                                   "[f](/my%20d/a.py#L1) [g](/c.py#L2)",
                                   {{{"my d/a.py", 1, 1}, {"my d/a.py", 4, 6}},
                                    {{"c.py", 2, 2}, {"c d(1)%.py", 2, 2}}},
                                   "[f](/my%20d/a.py#L4-L6) [g](/c%20d%281%29%25.py#L2)"},
                      RetargetCase{"relative_stays_relative",
                                   "[a](../src/a.py#L1) [b](./b.py#L2) [c](<../my%20d/c.py#L3>) "
                                   "[d](../my%20d/d.py#L4)\n\n[r]: ../src/a.py#L1\n[r] [r]",
                                   {{{"src/a.py", 1, 1}, {"lib/a2.py", 5, 5}},
                                    {{"docs/b.py", 2, 2}, {"docs/sub/b b.py", 2, 2}},
                                    {{"my d/c.py", 3, 3}, {"my d/c c.py", 3, 3}},
                                    {{"my d/d.py", 4, 4}, {"my d/e e.py", 4, 4}}},
                                   "[a](../lib/a2.py#L5) [b](./sub/b%20b.py#L2) "
                                   "[c](<../my%20d/c c.py#L3>) [d](../my%20d/e%20e.py#L4)\n\n"
                                   "[r]: ../lib/a2.py#L5\n[r] [r]",
                                   "docs"},
                      RetargetCase{"code_untouched",
                                   "`[f](/a.py#L1)` [f](/a.py#L1)",
                                   {{{"a.py", 1, 1}, {"b.py", 1, 1}}},
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
                      LastEndCase{"code_does_not_count", "`[a](/a.py#L1)`", 0, 15, std::nullopt},
                      LastEndCase{"title_and_reference_use",
                                  "[a](/a.py#L1 \"t)\") [b] x\n\n[b]: /b.py#L2", 0, 24, 22},
                      LastEndCase{"points_not_bytes", "日本[a](/a.py#L1)", 0, 15, 15},
                      LastEndCase{"empty_bounds", "[a](/a.py#L1)", 5, 5, std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

// Lines of one paragraph, none a citation.
std::string prose(std::size_t lines) {
  std::string out;
  for (std::size_t i = 0; i < lines; ++i) out += "more prose, [a link](/b) and `code`\n";
  return out;
}

// A citation as the scan gives it: its bytes, its path and its fragment's bytes.
struct Seen {
  std::size_t begin, end;
  std::string path, fragment;
  friend bool operator==(const Seen&, const Seen&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Seen& s) {
    return out << s.path << "#" << s.fragment << "@" << s.begin << "-" << s.end;
  }
};

std::vector<Seen> seen(const std::string& page) {
  std::vector<Seen> out;
  for (const WrittenCitation& c : written_citations(page, "")) {
    out.push_back({c.begin, c.end, c.key.path,
                   page.substr(c.fragment_begin, c.fragment_end - c.fragment_begin)});
  }
  return out;
}

struct LongParagraphCase {
  const char* name;
  std::string page;
  // Each citation: the bytes it spans, found after the given context (and after the citation
  // before it), its path and fragment.
  struct Expected {
    std::string context, span, path, fragment;
  };
  std::vector<Expected> expected;
};

void PrintTo(const LongParagraphCase& c, std::ostream* out) { *out << c.name; }

class LongParagraphTest : public ::testing::TestWithParam<LongParagraphCase> {};

// A paragraph of more than a thousand lines, in a container or not, holds every citation at its
// bytes, links and definitions over several lines and far apart included.
TEST_P(LongParagraphTest, FindsEveryCitationAtItsBytes) {
  const LongParagraphCase& c = GetParam();
  std::vector<Seen> expected;
  std::size_t from = 0;
  for (const auto& e : c.expected) {
    const std::size_t begin = c.page.find(e.context + e.span, from) + e.context.size();
    from = begin + e.span.size();
    expected.push_back({begin, from, e.path, e.fragment});
  }
  EXPECT_EQ(seen(c.page), expected);
}

// 1500 lines of one paragraph, a link on each, each line after the first starting `line_start`.
LongParagraphCase every_line(const char* name, const char* first_start, const char* line_start,
                             const char* line_end) {
  LongParagraphCase c{name, "", {}};
  for (int i = 1; i <= 1500; ++i) {
    const std::string fragment = "L" + std::to_string(i);
    const std::string link = "[f](/src/a.py#" + fragment + ")";
    c.page += (i == 1 ? first_start : line_start) + ("see " + link + " x") + line_end;
    c.expected.push_back({"see ", link, "src/a.py", fragment});
  }
  return c;
}

// A definition's label of 999 characters, the most md4c takes, over a CRLF line break.
const std::string kLongLabel = std::string(500, 'a') + "\r\n" + std::string(498, 'b');

INSTANTIATE_TEST_SUITE_P(
    Scan, LongParagraphTest,
    ::testing::Values(
        every_line("a_link_on_every_line", "", "", "\n"),
        every_line("crlf_line_ends", "", "", "\r\n"),
        every_line("hard_line_breaks", "", "", "  \n"),
        every_line("in_a_block_quote", "> ", "> ", "\n"),
        every_line("in_a_list_item", "- ", "  ", "\n"),
        every_line("ending_in_a_quote", "", "", " \"\n"),
        LongParagraphCase{"links_over_two_lines",
                          prose(600) +
                              "see [two\nlines](/a.py#L2) [f](\n/a.py#L3) [g](/a.py#L4 \"a)\n" +
                              "b\") x\n" + prose(600),
                          {{{"see ", "[two\nlines](/a.py#L2)", "a.py", "L2"},
                            {" ", "[f](\n/a.py#L3)", "a.py", "L3"},
                            {" ", "[g](/a.py#L4 \"a)\nb\")", "a.py", "L4"}}}},
        LongParagraphCase{"definitions_over_lines_used_far_below",
                          "[d]:\n/a.py#L5\n[long\nlabel]: /a.py#L6 'ti\nt\nle'\n[" + kLongLabel +
                              "]: /a.py#L7\r\n[e]: /a.py#L8\n" + prose(1200) +
                              "use [d], [x][d], [long label], [e] and [" + kLongLabel + "] x\n",
                          {{{"use ", "[d]", "a.py", "L5"},
                            {", ", "[x][d]", "a.py", "L5"},
                            {", ", "[long label]", "a.py", "L6"},
                            {", ", "[e]", "a.py", "L8"},
                            {"and ", "[" + kLongLabel + "]", "a.py", "L7"}}}},
        LongParagraphCase{
            "breaks_that_end_something_stay",
            prose(600) + "# heading `x\ny [d](/a.py#L9) `\n```\n[in](/a.py#L10)\n```\n" +
                "see [a](</a\nb.py#L11>) `[b](/a.py#L12)\ncode`\nz `x\n" +
                "1. [n](/a.py#L13) `\n<!--\ncomment -->\nsee [f](/a.py#L14) x\n" + prose(600),
            {{{"y ", "[d](/a.py#L9)", "a.py", "L9"},
              {"1. ", "[n](/a.py#L13)", "a.py", "L13"},
              {"see ", "[f](/a.py#L14)", "a.py", "L14"}}}}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tolbarrow::hosts::native

namespace tolbarrow::hosts::native {
namespace {

// Links to this repository's files on its forge: what each cites (p: a permalink, found but not
// given to the refresh), and the page after every citation found moved ten lines down.
struct ForgeCase {
  const char* name;
  std::string text;
  std::vector<Found> expected;
  std::string moved;
  std::size_t permalinks = 0;
};

void PrintTo(const ForgeCase& c, std::ostream* out) { *out << c.name; }

class ForgeTest : public ::testing::TestWithParam<ForgeCase> {};

TEST_P(ForgeTest, FindsAndRewritesThisRepositorysForgeLinks) {
  const ForgeCase& c = GetParam();
  MarkdownCitationSyntax syntax;
  syntax.set_page_folder("docs");
  syntax.set_forge(std::make_shared<const Forge>(Forge{"github.com", "o/r", {"feature/x"}}));
  const Text text(c.text);
  expect_found_and_moved(syntax, text, c.expected, c.moved);
  const auto all = written_citations(c.text, "docs", syntax.forge());
  EXPECT_EQ(std::count_if(all.begin(), all.end(), [](const auto& w) { return w.permalink; }),
            static_cast<std::ptrdiff_t>(c.permalinks));
  EXPECT_EQ(syntax.has_permalink(text), c.permalinks > 0);
}

INSTANTIATE_TEST_SUITE_P(
    Syntax, ForgeTest,
    ::testing::Values(
        ForgeCase{"branch_and_gitlab_forms",
                  "[a](https://github.com/o/r/blob/main/src/a.py#L3) "
                  "[b](http://GitHub.com/O/R/-/blob/v1/src/b.py#L7-9)",
                  {{"src/a.py", 3, 3, 0}, {"src/b.py", 7, 9, 50}},
                  "[a](https://github.com/o/r/blob/main/src/a.py#L13) "
                  "[b](http://GitHub.com/O/R/-/blob/v1/src/b.py#L17-19)"},
        ForgeCase{"ref_with_a_slash_query_escapes",
                  "[a](<https://github.com/o/r/blob/feature/x/my%20d/a.py?plain=1#L2-L4> \"t\")",
                  {{"my d/a.py", 2, 4, 0}},
                  "[a](<https://github.com/o/r/blob/feature/x/my%20d/a.py?plain=1#L12-L14> \"t\")"},
        ForgeCase{"autolink_and_a_ref_written_in_full",
                  "<https://github.com/o/r/blob/main/a.py#L3> "
                  "[b](https://github.com/o/r/blob/refs/heads/abcdef1/b.py#L2)",
                  {{"a.py", 3, 3, 0}, {"b.py", 2, 2, 43}},
                  "<https://github.com/o/r/blob/main/a.py#L13> "
                  "[b](https://github.com/o/r/blob/refs/heads/abcdef1/b.py#L12)"},
        ForgeCase{"gitlab_form_beside_a_plain_link",
                  "[a](https://github.com/o/r/-/blob/main/a.py#L5) [b](/a.py#L5)",
                  {{"a.py", 5, 5, 0}, {"a.py", 5, 5, 48}},
                  "[a](https://github.com/o/r/-/blob/main/a.py#L15) [b](/a.py#L15)"},
        ForgeCase{
            "permalinks_are_left_alone",
            "[p](https://github.com/o/r/blob/1a2b3c4/src/a.py#L3) [q][d]\n\n"
            "[d]: https://github.com/o/r/blob/0123456789abcdef0123456789abcdef01234567/a.py#L1\n",
            {},
            "[p](https://github.com/o/r/blob/1a2b3c4/src/a.py#L3) [q][d]\n\n"
            "[d]: https://github.com/o/r/blob/0123456789abcdef0123456789abcdef01234567/a.py#L1\n",
            2},
        ForgeCase{
            "not_this_repository",
            "[a](https://github.com/o/r2/blob/main/a.py#L1) "
            "[b](https://gitlab.com/o/r/blob/main/a.py#L1) "
            "[c](https://github.com/o/r/tree/main/a.py#L1) "
            "[d](https://github.com/o/r/blob/main#L1) [e](ftp://github.com/o/r/blob/m/a#L1)",
            {},
            "[a](https://github.com/o/r2/blob/main/a.py#L1) "
            "[b](https://gitlab.com/o/r/blob/main/a.py#L1) "
            "[c](https://github.com/o/r/tree/main/a.py#L1) "
            "[d](https://github.com/o/r/blob/main#L1) [e](ftp://github.com/o/r/blob/m/a#L1)"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Forge, RenamedFileKeepsTheFormAndAPermalinkIsRepointed) {
  const Forge forge{"gitlab.com", "g/r", {}};
  MarkdownCitationSyntax syntax;
  syntax.set_forge(std::make_shared<const Forge>(forge));
  const Text text("[a](https://gitlab.com/g/r/-/blob/main/src/a.py#L3-5)");
  wiki::Moves moves;
  moves.set({"src/a.py", 3, 5}, {4, 6, "lib/a b.py"});
  EXPECT_EQ(syntax.rewrite(text, moves),
            "[a](https://gitlab.com/g/r/-/blob/main/lib/a%20b.py#L4-6)");

  const std::string page = "x [p](https://gitlab.com/g/r/-/blob/1a2b3c4/src/a.py?plain=1#L3-5) y";
  const auto links = written_citations(page, "", &forge);
  ASSERT_EQ(links.size(), 1u);
  EXPECT_EQ(repointed(page, links[0], "9f8e7d6", "src/b.py", {7, 7}),
            "x [p](https://gitlab.com/g/r/-/blob/9f8e7d6/src/b.py?plain=1#L7) y");
  EXPECT_EQ(repointed(page, links[0], "9f8e7d6", "src/a.py", {7, 9}),
            "x [p](https://gitlab.com/g/r/-/blob/9f8e7d6/src/a.py?plain=1#L7-9) y");
  // GitLab's form writes a range that a single line grows into its own way.
  const std::string one = "[p](https://gitlab.com/g/r/-/blob/1a2b3c4/a.py#L3)";
  EXPECT_EQ(repointed(one, written_citations(one, "", &forge).at(0), "9f8e7d6", "a.py", {4, 6}),
            "[p](https://gitlab.com/g/r/-/blob/9f8e7d6/a.py#L4-6)");
}

TEST(Forge, OfRemoteAndWebAddresses) {
  struct Case {
    const char* url;
    std::optional<std::pair<std::string, std::string>> expected;
  } cases[] = {
      {"https://github.com/o/r.git", {{"github.com", "o/r"}}},
      {"git@GitHub.com:o/r.git", {{"github.com", "o/r"}}},
      {"ssh://git@gitlab.example.com:2222/g/sub/r.git", {{"gitlab.example.com", "g/sub/r"}}},
      {"https://user@git.example.com:8443/g/r/", {{"git.example.com:8443", "g/r"}}},
      {"https://gitlab.com/g/r/-/tree/main", {{"gitlab.com", "g/r"}}},
      {"/srv/git/r.git", std::nullopt},
      {"../r", std::nullopt},
      {"https://github.com/", std::nullopt},
  };
  for (const Case& c : cases) {
    const std::optional<Forge> forge = forge_of(c.url);
    ASSERT_EQ(forge.has_value(), c.expected.has_value()) << c.url;
    if (forge) {
      EXPECT_EQ(std::pair(forge->host, forge->path), *c.expected) << c.url;
    }
  }
}

// Pages made to be slow: runs and openers that close nothing, one paragraph of many lines (plain,
// in containers, with line ends a parser may read otherwise than spaces). Each is scanned in about
// the time of a plain page of its size, in short paragraphs (a search that rescanned the rest of
// the paragraph, or walked its lines, for each of them took time in the square of the page).
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
  const std::string line = "Some prose with `code` and a [link](/src/a.py#L1-L2) in it.\n";
  const double plain = seconds(grow([&](std::size_t i) { return i % 10 ? line : line + "\n"; }));
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
      {"one paragraph, a link on each line",
       [](std::size_t) { return std::string("see [f](/a.py#L1)\n"); }},
      {"the same in a block quote",
       [](std::size_t) { return std::string("> see [f](/a.py#L1)\n"); }},
      {"the same in a list item",
       [](std::size_t i) { return std::string(i == 1 ? "- " : "  ") + "see [f](/a.py#L1)\n"; }},
      {"the same, each line ending in a quote",
       [](std::size_t) { return std::string("see [f](/a.py#L1) \"\n"); }},
      {"reference links far below their definition",
       [](std::size_t i) { return std::string(i == 1 ? "[r]: /a.py#L1\n" : "see [r] x)\n"); }},
  };
  for (const Case& c : cases) {
    const double hostile = seconds(grow(c.piece));
    EXPECT_LT(hostile, 20 * plain + 0.5) << c.name << ": plain " << plain << " s";
  }
}

}  // namespace
}  // namespace tolbarrow::hosts::native

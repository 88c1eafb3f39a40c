#include "hosts/native/first_sight.h"

#include <gtest/gtest.h>

#include "hosts/native/anchoring.h"
#include "hosts/native/citation_syntax.h"
#include "hosts/native/indexer.h"
#include "hosts/native/page_sync.h"
#include "tests/temp_dir.h"

namespace tolbarrow::hosts::native {
namespace {

using testing::TempDir;
using wiki::Symbol;

TEST(FirstSight, NamesAreMatchedInFull) {
  struct Case {
    const char* name;
    Symbol symbol;
    const char* path;
    bool names;
  };
  const Symbol method{"StatusPrinter::BuildEdgeStarted(const Edge*,int64_t)", "BuildEdgeStarted",
                      "function", 10, 20};
  const Symbol ctor{"StatusPrinter::StatusPrinter(State*)", "StatusPrinter", "function", 3, 8};
  const std::vector<Case> cases = {
      {"StatusPrinter::BuildEdgeStarted", method, "src/status.cc", true},
      {"BuildEdgeStarted", method, "src/status.cc", true},
      {"StatusPrinter::BuildEdgeStarted", ctor, "src/status.cc", false},  // not cut at ':'
      {"StatusPrinter", ctor, "src/status.cc", true},
      {"Other::BuildEdgeStarted", method, "src/status.cc", false},
      {"Printer::BuildEdgeStarted", method, "src/status.cc", false},  // whole parts only
      {"Class.method", {"Class.method", "method", "member", 1, 2}, "a.py", true},
      {"Other.method", {"Class.method", "method", "member", 1, 2}, "a.py", false},
      {"Class.method.extra", {"Class.method", "method", "member", 1, 2}, "a.py", false},
      {"mod.f", {"f", "f", "function", 1, 2}, "pkg/mod.py", true},
      {"pkg.mod.f", {"f", "f", "function", 1, 2}, "pkg/mod.py", true},
      {"other.f", {"f", "f", "function", 1, 2}, "pkg/mod.py", false},
      {"pkg.f", {"f", "f", "function", 1, 2}, "pkg/__init__.py", true},
      {"ns::f", {"ns::f(int)", "f", "function", 1, 2}, "a.cc", true},
      {"f", {"f@overload(x:int)->int", "f", "function", 1, 1}, "a.py", true},
      {"Config", {"Config@TYPE_CHECKING", "Config", "class", 1, 3}, "a.py", true},
      {"C.x", {"C.x.setter", "x", "member", 1, 2}, "a.py", true},
      {"BuildTest.NoWork", {"BuildTest.NoWork", "NoWork", "function", 1, 2}, "t.cc", true},
      {"NoWork.BuildTest", {"BuildTest.NoWork", "NoWork", "function", 1, 2}, "t.cc", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(detail::names_symbol(c.name, c.symbol, c.path), c.names)
        << c.name << " / " << c.symbol.fqn;
  }
}

TEST(FirstSight, ReadsTheNamesOfBacktickedSpans) {
  const std::vector<std::pair<const char*, std::vector<std::string>>> cases = {
      {"`StatusPrinter::BuildEdgeStarted` starts it", {"StatusPrinter::BuildEdgeStarted"}},
      {"`mod.f()` calls `Class::m(int a)`", {"mod.f", "Class::m"}},
      {"`TEST(BuildTest, NoWork)` checks", {"BuildTest.NoWork"}},
      {"see `src/a.py`, `x = 1` and `a..b`", {}},
      {"an unclosed `span", {}},
  };
  for (const auto& [prose, names] : cases) EXPECT_EQ(detail::prose_names(prose), names) << prose;
}

constexpr const char* kCode =
    "class Printer:\n"        // 1
    "    def start(self):\n"  // 2
    "        a = 1\n"         // 3
    "        return a\n"      // 4
    "\n"                      // 5
    "    def stop(self):\n"   // 6
    "        return 2\n"      // 7
    "\n"                      // 8
    "LIMIT = 3\n"             // 9
    "\n"                      // 10
    "def stop():\n"           // 11
    "    return 3\n";         // 12

TEST(FirstSight, AnchorsNewCitationsInPlace) {
  TempDir repo;
  repo.write("src/printer.py", kCode);
  repo.write("docs/p.md",
             "`Printer.start` sets it up [start](/src/printer.py#L3-L4).\n"       // line 1
             "\n"                                                                 //
             "The class `Printer` keeps it [Printer](/src/printer.py#L3).\n"      // line 3
             "\n"                                                                 //
             "In `printer.Printer.stop()` it ends [stop](/src/printer.py#L7).\n"  // line 5
             "\n"                                                                 //
             "Then `Printer.stop` runs [x](/src/printer.py#L12).\n"               // line 7
             "\n"                                                                 //
             "The limit `stop` [limit](/src/printer.py#L9).\n"                    // line 9
             "\n"                                                                 //
             "Nothing named [plain](/src/printer.py#L2-L4).\n");                  // line 11
  SqliteStore store(repo.path());
  MarkdownCitationSyntax syntax;
  CtagsAnchoring anchoring;
  sync_pages(store, syntax, "main", repo.path() / "docs");
  Indexer(store).update();
  const FirstSightStats stats =
      anchor_first_sight(store, syntax, anchoring, "main", repo.path() / "docs");

  std::vector<std::tuple<wiki::Line, wiki::Line, std::string>> got;
  const std::vector<StoredPage> pages = store.pages("main");
  ASSERT_EQ(pages.size(), 1u);
  for (const wiki::Record& r : pages[0].citations) {
    got.emplace_back(r["line_start"].get<wiki::Line>(), r["line_end"].get<wiki::Line>(),
                     r.value("symbol", std::string("-")));
  }
  EXPECT_EQ(got, (std::vector<std::tuple<wiki::Line, wiki::Line, std::string>>{
                     {3, 4, "Printer.start"},  // named and innermost
                     {3, 3, "Printer"},        // the named holder, not the innermost
                     {7, 7, "Printer.stop"},   // module and name: the method, not stop()
                     {12, 12, "stop"},         // names other code: the holder all the same
                     {9, 9, "-"},              // held by no declaration: left to the refresh
                     {2, 4, "Printer.start"},  // no name: the innermost
                 }));
  EXPECT_EQ(stats.anchored, 5u);
  ASSERT_EQ(stats.misnamed.size(), 1u);
  const Misnamed& m = stats.misnamed[0];
  EXPECT_EQ(m.page_id, "p");
  EXPECT_EQ(m.page_line, 7);
  EXPECT_EQ(m.link, "[x](/src/printer.py#L12)");
  EXPECT_EQ(m.named, "Printer.stop");
  EXPECT_EQ(m.named_at, "src/printer.py#L6-L7");

  // Seen once, anchored: a second pass changes nothing and reports nothing.
  const FirstSightStats again =
      anchor_first_sight(store, syntax, anchoring, "main", repo.path() / "docs");
  EXPECT_EQ(again.anchored, 0u);
  EXPECT_TRUE(again.misnamed.empty());
}

}  // namespace
}  // namespace tolbarrow::hosts::native

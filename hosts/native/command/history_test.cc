#include "hosts/native/command/history.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>

#include "hosts/native/command/anchors.h"
#include "hosts/native/command/git_repo_for_tests.h"
#include "hosts/native/indexer.h"
#include "hosts/native/process.h"
#include "tests/temp_dir.h"

namespace tolbarrow::hosts::native::command {
namespace {

using wiki::Record;

// The hash of a citation's text: its lines without their ends and trailing white space, so that
// the same lines hash alike wherever they are and however their ends are written; nothing for
// lines that are not all in the file.
TEST(History, HashesTheCitedLinesText) {
  const std::string file = "def f():\n    a = 1  \n    b = 2\n";
  const std::string crlf = "def f():\r\n    a = 1\r\n    b = 2";
  EXPECT_EQ(cited_text_hash(file, 2, 3), cited_text_hash(crlf, 2, 3));
  EXPECT_EQ(cited_text_hash(file, 2, 3).size(), 9u);  // a hash of each line
  EXPECT_NE(cited_text_hash(file, 2, 2), cited_text_hash(file, 3, 3));
  EXPECT_NE(cited_text_hash(file, 1, 2), cited_text_hash(file, 1, 3));
  for (const auto& [first, last] : {std::pair(0, 1), std::pair(3, 2), std::pair(3, 4)}) {
    EXPECT_EQ(cited_text_hash(file, first, last), "") << first << "-" << last;
  }
}

// Where a cited text is now within its declaration: the place nearest where the refresh would put
// it, the earlier of two as near; none outside the lines given.
TEST(History, FindsTheCitedTextNearestItsLanding) {
  const std::string file = "x\ny\nx\ny\nz\nx\ny\n";  // "x y" at 1, 3 and 6
  const std::string xy = cited_text_hash(file, 1, 2);
  const struct {
    wiki::LineRange within;
    wiki::Line near;
    std::optional<wiki::LineRange> want;
  } cases[] = {
      {{1, 7}, 1, wiki::LineRange{1, 2}},   {{1, 7}, 4, wiki::LineRange{3, 4}},
      {{1, 7}, 5, wiki::LineRange{6, 7}},   {{1, 7}, 2, wiki::LineRange{1, 2}},  // 1 and 3 as near
      {{2, 5}, 1, wiki::LineRange{3, 4}},   {{4, 6}, 5, std::nullopt},  // 6-7 ends past line 6
      {{1, 100}, 9, wiki::LineRange{6, 7}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(detail::find_text(file, xy, 2, c.within, c.near), c.want)
        << c.within.first << "-" << c.within.last << " near " << c.near;
  }
  EXPECT_EQ(detail::find_text(file, cited_text_hash(file, 5, 5), 1, {1, 7}, 1),
            (wiki::LineRange{5, 5}));
  EXPECT_EQ(detail::find_text(file, "", 1, {1, 7}, 1), std::nullopt);
}

// A qualified name that changed only in its parameter types, or in the name the index generates
// for an anonymous namespace, names the declaration it was: when that declaration is the only one
// so named, and none has the old name itself.
TEST(History, FollowsADeclarationWhoseSignatureChanged) {
  const struct {
    const char* a;
    const char* b;
    bool same;
  } names[] = {
      {"f(int)", "f(long)", true},
      {"ns::A::A(const std::string&,FILE*)", "ns::A::A(const std::string&)", true},
      {"leveldb::__anon46bacdd30111::Stats::Add(int)",
       "leveldb::__anon008c292b0111::Stats::Add(int)", true},
      {"__anon1a::S::f()", "__anon2b::T::f()", false},
      {"ns::TEST::Cmp::Compare(int) const", "ns::TEST_F::Cmp::Compare(int) const override", true},
      {"ns::TEST::Cmp::Compare(int)", "ns::TEST_F::Other::Compare(int)", false},
      {"ns::LATEST::f()", "ns::LATEST_F::f()", false},
      {"A::f(int)", "B::f(int)", false},
      {"f", "g", false},
      {"A.run", "A.run", true},
      {"A.run", "A.runner", false},
  };
  for (const auto& n : names) {
    EXPECT_EQ(detail::same_but_signature(n.a, n.b), n.same) << n.a << " / " << n.b;
  }
  auto symbol = [](std::string fqn, std::string name) {
    wiki::Symbol s;
    s.fqn = std::move(fqn);
    s.name = std::move(name);
    return s;
  };
  const std::vector<wiki::Symbol> one = {symbol("A", "A"), symbol("A::A(long)", "A"),
                                         symbol("g(int)", "g")},
                                  two = {symbol("f(long)", "f"), symbol("f(double)", "f")};
  EXPECT_EQ(detail::renamed_in_signature(one, "A::A(int)"), &one[1]);
  EXPECT_EQ(detail::renamed_in_signature(one, "A::A(long)"), nullptr);  // it is there itself
  EXPECT_EQ(detail::renamed_in_signature(two, "f(int)"), nullptr);      // which of two?
  EXPECT_EQ(detail::renamed_in_signature(one, "h(int)"), nullptr);
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
  const Record marks = {{"more", {{"main", {{"commit", "ab12"}, {"clean", true}}}}}};
  const Record other_marks = {{"more", {{"main", {{"commit", "cd34"}, {"clean", true}}}}}};
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

namespace fs = std::filesystem;

// carry() as a run calls it, for branch "main" and the wiki directory docs/.
// A run passes the paths its pages cite, which answer an unchanged work tree alone; reporting
// runs here do so, and writing runs leave the answer to the stored records, so that both ways are
// held to the same cases.
Carried carry_docs(SqliteStore& store, bool write, std::vector<std::string>& notes) {
  std::vector<std::string> cited;
  for (const StoredPage& page : store.pages("main")) {
    for (const Record& record : page.citations) cited.push_back(record.at("path"));
  }
  return carry(
      store, "main", store.repo_root() / "docs",
      [&](const std::string& line) { notes.push_back(line); }, write, "", write ? nullptr : &cited);
}

// Where the carrying puts each stored citation: "page path Lx-Ly; ", nothing for one it leaves.
std::string summary(const Carried& carried) {
  std::string out;
  for (const auto& [page, records] : carried.records) {
    for (const auto& [from, record] : records) {
      out += page + " " + record.at("path").get<std::string>() + " L" +
             std::to_string(record.at("line_start").get<wiki::Line>()) + "-L" +
             std::to_string(record.at("line_end").get<wiki::Line>()) + "; ";
    }
  }
  return out;
}

// Carrying from what a citation was placed against (its record's blob) to the work tree: nothing
// when the file holds that content now, however it stood against the commit; git's diff from that
// content otherwise; a renamed file followed from the last commit that has the old path; and a
// blob this repository does not have left to the check by text.
TEST(History, CarriesFromWhatEachCitationWasPlacedAgainst) {
  const std::string code = "def f():\n    return 1\n\n\ndef g():\n    return 2\n";  // g: L5-L6
  const std::string two_more = "# one\n# two\n" + code, three_more = "# zero\n" + two_more;
  const auto page = [](const char* path, int start) {
    return "[g](/" + std::string(path) + "#L" + std::to_string(start) + "-L" +
           std::to_string(start + 1) + ")\n";
  };
  struct Case {
    const char* name;
    std::string placed;  // a.py when the citation was placed (committed: `code`)
    std::function<void(const GitRepo&)> after;
    std::string page_after;
    std::string carried;         // summary()
    const char* blob = nullptr;  // instead of the placed content's
  };
  const Case cases[] = {
      {"nothing changed", code, [](const GitRepo&) {}, page("a.py", 5), ""},
      {"placed on an edit not committed, the same now", two_more, [](const GitRepo&) {},
       page("a.py", 7), ""},
      {"a file not cited edited since", code, [](const GitRepo& r) { r.write("b.py", "y = 2\n"); },
       page("a.py", 5), ""},
      {"the cited file edited since", code, [&](const GitRepo& r) { r.write("a.py", two_more); },
       page("a.py", 7), "p a.py L7-L8; "},
      {"placed on an edit, edited again since", two_more,
       [&](const GitRepo& r) { r.write("a.py", three_more); }, page("a.py", 8), "p a.py L8-L9; "},
      {"placed on an edit, restored since", two_more,
       [&](const GitRepo& r) { r.write("a.py", code); }, page("a.py", 5), "p a.py L5-L6; "},
      {"the same text, committed since", two_more, [](const GitRepo& r) { r.commit(); },
       page("a.py", 7), ""},
      {"an edit committed since", code,
       [&](const GitRepo& r) {
         r.write("a.py", two_more);
         r.commit();
       },
       page("a.py", 7), "p a.py L7-L8; "},
      {"moved since, the move not added", code,
       [](const GitRepo& r) { fs::rename(r.root() / "a.py", r.root() / "m.py"); }, page("m.py", 5),
       "p m.py L5-L6; "},
      {"moved and committed since", code,
       [](const GitRepo& r) {
         r.git({"mv", "a.py", "m.py"});
         r.commit();
       },
       page("m.py", 5), "p m.py L5-L6; "},
      {"placed against content not in the repository", code,
       [&](const GitRepo& r) { r.write("a.py", two_more); }, page("a.py", 5), "",
       "eeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeee"},
  };
  for (const Case& c : cases) {
    for (const bool write : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (write ? ", writing" : ", reporting"));
      GitRepo repo;
      repo.write("a.py", code);
      repo.write("b.py", "y = 1\n");
      repo.commit();
      const wiki::Line start = c.placed == code ? 5 : 7;
      const std::string cited_then = page("a.py", start);
      repo.write("docs/p.md", cited_then);
      repo.write("a.py", c.placed);
      const std::string blob =
          c.blob ? c.blob : repo.git({"hash-object", "-w", "--stdin"}, c.placed).substr(0, 40);
      c.after(repo);
      SqliteStore store(repo.root());
      const Record cited{{"path", "a.py"}, {"line_start", start},   {"line_end", start + 1},
                         {"symbol", "g"},  {"symbol_start", start}, {"symbol_end", start + 1},
                         {"name", "g"},    {"blob", blob}};
      store.replace_pages("main", {StoredPage{"p", "p.md", {cited}, std::nullopt, std::nullopt}});
      Indexer(store, std::nullopt, {}, "docs").update();

      std::vector<std::string> notes;
      const Carried carried = carry_docs(store, write, notes);
      EXPECT_EQ(summary(carried), c.carried);
      EXPECT_EQ(read_bytes(repo.root() / "docs/p.md"), cited_then);  // the refresh writes it
      EXPECT_EQ(notes.size(), c.blob ? 1u : 0u);
      if (c.blob && !notes.empty()) {
        EXPECT_NE(notes[0].find("not in this repository"), std::string::npos) << notes[0];
      }
      // A carried record is placed anew: against the file now, with its lines' text.
      for (const auto& [page_id, records] : carried.records) {
        for (const auto& [from, record] : records) {
          if (c.carried.find("a.py") != std::string::npos) {
            EXPECT_NE(record.value("blob", ""), blob);
          }
          EXPECT_EQ(record.value("text", ""),
                    cited_text_hash(read_bytes(repo.root() / record.at("path").get<std::string>()),
                                    record.at("line_start"), record.at("line_end")));
        }
      }
    }
  }
}

// An anchors file of the first format kept a mark per branch under "refreshed": each record
// without a blob gets the mark's blob for a file the mark lists as changed, else its commit's.
TEST(History, PlacesFirstFormatRecordsFromTheBranchsMark) {
  GitRepo repo;
  repo.write("a.py", "one\n");
  repo.write("b.py", "b\n");
  repo.commit();
  const std::string first = repo.head(), a_first = repo.blob("one\n"), b = repo.blob("b\n");
  repo.write("a.py", "two\n");
  repo.commit();
  const std::string second = repo.head(), a_second = repo.blob("two\n");
  const auto cites = [](const char* path) {
    return Record{{"path", path}, {"line_start", 1}, {"line_end", 1}, {"symbol", nullptr}};
  };
  const auto mark = [](const std::string& commit, Record dirty = Record::object()) {
    return Record{{"commit", commit}, {"dirty", std::move(dirty)}};
  };
  const Record marks{{"main", mark(first, {{"b.py", "0123"}})}, {"topic", mark(second)}};
  struct Case {
    const char* name;
    Record marks;
    std::string branch;
    std::vector<std::optional<std::string>> blobs;  // of a.py, b.py, gone.py, a.py placed before
  };
  const Case cases[] = {
      {"the branch's own mark", marks, "main", {a_first, "0123", std::nullopt, "kept"}},
      {"another branch's", marks, "topic", {a_second, b, std::nullopt, "kept"}},
      {"no mark of the branch among two", marks, "other", {{}, {}, {}, "kept"}},
      {"the one mark there", Record{{"main", mark(first)}}, "other", {a_first, b, {}, "kept"}},
      {"a commit that is no object id",
       Record{{"main", mark("HEAD")}},
       "main",
       {{}, {}, {}, "kept"}},
  };
  for (const Case& c : cases) {
    std::map<std::string, std::vector<Record>> pages{
        {"p", {cites("a.py"), cites("b.py"), cites("gone.py"), cites("a.py")}}};
    pages["p"][3][kBlobMember] = "kept";
    place_from_marks(repo.root(), c.marks, c.branch, pages);
    for (std::size_t i = 0; i < c.blobs.size(); ++i) {
      const Record& r = pages["p"][i];
      const std::optional<std::string> got =
          r.contains(kBlobMember) ? std::optional(r[kBlobMember].get<std::string>()) : std::nullopt;
      EXPECT_EQ(got, c.blobs[i]) << c.name << ", record " << i;
    }
  }
}

}  // namespace
}  // namespace tolbarrow::hosts::native::command

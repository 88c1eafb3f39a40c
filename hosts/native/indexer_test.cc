#include "hosts/native/indexer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <tuple>

#include "hosts/native/process.h"
#include "hosts/native/repo_paths.h"
#include "tests/temp_dir.h"

namespace tolbarrow::hosts::native {
namespace {

using testing::TempDir;
using wiki::Symbol;

constexpr const char* kPython =
    "LIMIT = 3\n"
    "\n"
    "class A:\n"
    "    def m(self):\n"
    "        return 1\n"
    "\n"
    "def f():\n"
    "    pass\n";

constexpr const char* kCpp =
    "namespace ns {\n"
    "class C {\n"
    " public:\n"
    "  int g() {\n"
    "    return 1;\n"
    "  }\n"
    "};\n"
    "int free_fn(int a) { return a; }\n"
    "}  // namespace ns\n";

TEST(Indexer, GivesFqnsAndReadsOnlyChangedFiles) {
  TempDir repo;
  ASSERT_EQ(run_process({"git", "init", "-q"}, repo.path()).exit_code, 0);
  repo.write("src/a.py", kPython);
  repo.write("src/b.cc", kCpp);
  repo.write(".gitignore", "ignored.py\n");
  repo.write("ignored.py", "def hidden(): pass\n");
  SqliteStore store(repo.path());
  Indexer indexer(store);

  IndexStats stats = indexer.update();
  EXPECT_EQ(indexer.ctags_runs(), 1u);
  EXPECT_EQ(stats.reindexed, 3u);  // the two sources and .gitignore
  EXPECT_EQ(store.get_symbols_by_path("src/a.py"),
            (std::vector<Symbol>{{"LIMIT", "LIMIT", "variable", 1, 1},
                                 {"A", "A", "class", 3, 5},
                                 {"A.m", "m", "member", 4, 5},
                                 {"f", "f", "function", 7, 8}}));
  EXPECT_EQ(store.get_symbols_by_path("src/b.cc"),
            (std::vector<Symbol>{{"ns", "ns", "namespace", 1, 9},
                                 {"ns::C", "C", "class", 2, 7},
                                 {"ns::C::g()", "g", "function", 4, 6},
                                 {"ns::free_fn(int)", "free_fn", "function", 8, 8}}));
  EXPECT_FALSE(store.is_indexed("ignored.py"));
  EXPECT_EQ(store.file("src/a.py")->line_count, 8);

  stats = indexer.update();  // nothing changed: no ctags at all
  EXPECT_EQ(indexer.ctags_runs(), 1u);
  EXPECT_EQ(stats.reindexed + stats.touched + stats.removed, 0u);

  // Same content, new mtime: the hash confirms it, ctags is not run.
  std::filesystem::last_write_time(
      repo.path() / "src/b.cc",
      std::filesystem::last_write_time(repo.path() / "src/b.cc") + std::chrono::seconds(5));
  stats = indexer.update();
  EXPECT_EQ(indexer.ctags_runs(), 1u);
  EXPECT_EQ(stats.touched, 1u);

  repo.write("src/a.py", std::string("\n\n") + kPython);
  std::filesystem::remove(repo.path() / "src/b.cc");
  repo.write("new.py", "def g():\n    pass\n");  // untracked files count
  stats = indexer.update();
  EXPECT_EQ(indexer.ctags_runs(), 2u);
  EXPECT_EQ(stats.reindexed, 2u);
  EXPECT_EQ(stats.removed, 1u);
  EXPECT_EQ(store.get_symbols_by_path("src/a.py")[2], (Symbol{"A.m", "m", "member", 6, 7}));
  EXPECT_FALSE(store.is_indexed("src/b.cc"));
  EXPECT_TRUE(store.get_symbols_by_path("src/b.cc").empty());
  EXPECT_TRUE(store.is_indexed("new.py"));
}

// The wiki's pages and large markdown files are indexed as files, without ctags reading them:
// ctags takes minutes on a page of a few megabytes. (file, bytes, whether it has declarations)
TEST(Indexer, GivesCtagsNeitherWikiPagesNorLargeMarkdown) {
  TempDir repo;
  const std::string section = "# Section\n\ntext\n";
  const std::string filler(Indexer::kMarkdownParseLimit, '\n');
  const std::vector<std::tuple<std::string, std::string, bool>> cases = {
      {"docs/page.md", section, false},
      {"docs/sub/deep.md", section, false},
      {"docs/code.py", "def f():\n    pass\n", true},
      {"docs.md", section, true},
      {"notes/small.md", section, true},
      {"notes/at_limit.md", section + filler.substr(section.size()), true},
      {"notes/over_limit.md", section + filler.substr(section.size() - 1), false},
      {"notes/over_limit.markdown", section + filler, false}};
  for (const auto& [path, text, _] : cases) repo.write(path, text);
  SqliteStore store(repo.path());
  Indexer indexer(store, std::nullopt, {}, "docs/");
  const IndexStats stats = indexer.update();
  EXPECT_EQ(stats.files, cases.size());
  EXPECT_EQ(indexer.ctags_runs(), 1u);
  for (const auto& [path, text, declared] : cases) {
    SCOPED_TRACE(path);
    EXPECT_EQ(store.file(path)->line_count, count_lines(text));
    EXPECT_EQ(!store.get_symbols_by_path(path).empty(), declared);
  }
  EXPECT_EQ(stats.reindexed, 4u);
  // The wiki at the repository's root: every page is a wiki page.
  EXPECT_FALSE(Indexer(store, std::nullopt, {}, ".").parsed("notes/small.md", 10));
  EXPECT_TRUE(Indexer(store, std::nullopt, {}, ".").parsed("notes/code.py", 10));
}

// A file that the page sync read is taken as read while stat tells of it what it told before that
// read: any other stat (a write, a replacement) and the file is read again.
TEST(Indexer, TakesAFileReadAlreadyWhileItsStatIsTheSame) {
  const std::string text = "# Page\n\ntext\n";
  struct Case {
    const char* name;
    std::function<void(ReadFile&)> change;  // what differs from the stat before the read
    bool taken;
  };
  const Case cases[] = {
      {"as read", [](ReadFile&) {}, true},
      {"another size", [](ReadFile& r) { ++r.facts.size; }, false},
      {"modified since", [](ReadFile& r) { --r.facts.mtime_ns; }, false},
      {"changed since", [](ReadFile& r) { --r.ctime_ns; }, false},
      {"another inode", [](ReadFile& r) { ++r.inode; }, false},
      {"another device", [](ReadFile& r) { ++r.device; }, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir repo;
    repo.write("docs/page.md", text);
    struct stat st;
    ASSERT_EQ(::stat((repo.path() / "docs/page.md").c_str(), &st), 0);
    // Facts that reading the file would not give: where they come from shows.
    ReadFile read{
        {"docs/page.md", "as read", st.st_size,
         static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec, 99},
        static_cast<std::uint64_t>(st.st_dev),
        static_cast<std::uint64_t>(st.st_ino),
        static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec};
    c.change(read);
    SqliteStore store(repo.path());
    Indexer indexer(store, std::nullopt, {}, "docs");
    indexer.read_already({{"docs/page.md", read}});
    indexer.update();
    const std::optional<FileFacts> facts = store.file("docs/page.md");
    ASSERT_TRUE(facts);
    EXPECT_EQ(facts->hash, c.taken ? "as read" : sha256_hex(text));
    EXPECT_EQ(facts->line_count, c.taken ? 99 : count_lines(text));
  }
}

// Declarations that ctags names alike get distinct identities; (fqn, name, start line) of each
// declaration the index keeps, in order.
struct IdentityCase {
  const char* what;
  const char* file;
  const char* text;
  std::vector<std::tuple<std::string, std::string, wiki::Line>> expected;
};

TEST(Indexer, TellsAlikeNamedDeclarationsApart) {
  const std::vector<IdentityCase> cases = {
      {"test bodies take their arguments",
       "t.cc",
       "TEST(BuildTest, NoWork) {\n}\n"
       "TEST_F(BuildTest,\n       Split) {\n}\n"
       "namespace ns {\nTYPED_TEST(Typed, Works) {}\n}\n"
       "BOOST_AUTO_TEST_CASE(parses) {}\n"
       "OTHER_MACRO(a, b) {}\n",
       {{"BuildTest.NoWork", "NoWork", 1},
        {"BuildTest.Split", "Split", 3},
        {"ns", "ns", 6},
        {"ns::Typed.Works", "Works", 7},
        {"parses", "parses", 9},
        {"OTHER_MACRO(a, b)", "OTHER_MACRO", 10}}},
      {"C++ overloads carry their parameter types",
       "o.cc",
       "namespace ns {\n"
       "int f(int a) { return a; }\n"
       "int f(const std::string& s, int n = 3) { return n; }\n"
       "int f(void) { return 0; }\n"
       "struct S { int g() const { return 1; } int g(unsigned long) { return 2; } };\n"
       "}\n",
       {{"ns", "ns", 1},
        {"ns::f(int)", "f", 2},
        {"ns::f(const std::string&,int)", "f", 3},
        {"ns::f()", "f", 4},
        {"ns::S", "S", 5},
        {"ns::S::g() const", "g", 5},
        {"ns::S::g(unsigned long)", "g", 5}}},
      {"overload stubs and TYPE_CHECKING twins are kept apart; setters are named",
       "p.py",
       "from typing import TYPE_CHECKING, overload\n"
       "import typing\n"
       "if TYPE_CHECKING:\n"
       "    class Foo:\n"
       "        def m(self) -> int: ...\n"
       "else:\n"
       "    class Foo:\n"
       "        def m(self):\n"
       "            return 1\n"
       "@overload\n"
       "def f(x: int) -> int: ...\n"
       "@typing.overload  # str\n"
       "# a comment between\n"
       "def f(\n"
       "    x: str,\n"
       ") -> str: ...\n"
       "def f(x):\n"
       "    return x\n"
       "@overload\n"
       "def only_stub(x: int) -> int: ...\n"
       "@overload\n"
       "def only_stub(x: int) -> int: ...\n"
       "class C:\n"
       "    @property\n"
       "    def x(self):\n"
       "        return 1\n"
       "    @x.setter\n"
       "    def x(self, value):\n"
       "        pass\n"
       "    @overload\n"
       "    def load(self, x: int) -> int: ...\n"
       "    def load(self, x):\n"
       "        return x\n",
       {{"Foo@TYPE_CHECKING", "Foo", 4},
        {"Foo.m@TYPE_CHECKING", "m", 5},
        {"Foo", "Foo", 7},
        {"Foo.m", "m", 8},
        {"f@overload(x:int)->int", "f", 11},
        {"f@overload(x:str)->str", "f", 14},
        {"f", "f", 17},
        {"only_stub@overload(x:int)->int", "only_stub", 20},
        {"only_stub@overload(x:int)->int#2", "only_stub", 22},
        {"C", "C", 23},
        {"C.x", "x", 25},
        {"C.x.setter", "x", 28},
        {"C.load@overload(self,x:int)->int", "load", 31},
        {"C.load", "load", 32}}},
  };
  for (const IdentityCase& c : cases) {
    TempDir repo;
    repo.write(c.file, c.text);
    SqliteStore store(repo.path());
    Indexer(store).update();
    std::vector<std::tuple<std::string, std::string, wiki::Line>> got;
    for (const Symbol& s : store.get_symbols_by_path(c.file)) {
      if (s.kind != "variable" && s.kind != "unknown" && s.kind != "module")
        got.emplace_back(s.fqn, s.name, s.start_line);
    }
    EXPECT_EQ(got, c.expected) << c.what;
  }
}

TEST(Indexer, ReindexesEveryFileOnceWhenTheFormatChanged) {
  TempDir repo;
  repo.write("a.cc", "int f(int a) { return a; }\n");
  repo.write("b.py", "def g():\n    pass\n");
  SqliteStore store(repo.path());
  IndexChange older;  // an index of the first format: plain fqns, no format recorded
  for (const char* path : {"a.cc", "b.py"}) {
    Indexer(store).update();
    older.indexed.emplace_back(*store.file(path), std::vector<Symbol>{{"old", "old", "x", 1, 1}});
  }
  older.index_format = 0;
  store.apply(older);
  Indexer indexer(store);
  EXPECT_EQ(indexer.update().reindexed, 2u);
  EXPECT_EQ(store.index_format(), kIndexFormat);
  EXPECT_EQ(store.get_symbols_by_path("a.cc")[0].fqn, "f(int)");
  EXPECT_EQ(indexer.update().reindexed, 0u);
}

TEST(Indexer, WalkSkipsHiddenFoldersOutsideGit) {
  TempDir repo;
  SqliteStore store(repo.path());  // its database at the root is no file of the index
  repo.write("a.py", "def f():\n    pass\n");
  repo.write(".hidden/b.py", "def g():\n    pass\n");
  repo.write("sub/c.py", "def h():\n    pass\n");
  const std::vector<std::string> listed = repository_files(repo.path());
  EXPECT_EQ(std::count(listed.begin(), listed.end(), ".hidden/b.py"), 0);
  EXPECT_EQ(std::count(listed.begin(), listed.end(), ".citation-refresh.db"), 1);
  Indexer indexer(store);
  indexer.update();
  std::vector<std::string> indexed;
  for (const FileFacts& facts : store.files()) indexed.push_back(facts.path);
  EXPECT_EQ(indexed, (std::vector<std::string>{"a.py", "sub/c.py"}));
}

// A file listed and read for the index that is gone, or a directory, by the time the indexer reads
// it again (after ctags, for what ctags does not tell): another process's temporary file renamed
// meanwhile, say. The update goes on; the next one drops the file.
TEST(Indexer, AFileGoneBeforeItIsReadAgainDoesNotStopTheUpdate) {
  const std::pair<const char*, const char*> cases[] = {
      {"removed", "rm src/gone.py"},
      {"replaced by a directory", "rm src/gone.py && mkdir src/gone.py"},
  };
  for (const auto& [what, replace] : cases) {
    SCOPED_TRACE(what);
    TempDir repo, tools;
    ASSERT_EQ(run_process({"git", "init", "-q"}, repo.path()).exit_code, 0);
    repo.write("src/a.py", kPython);
    repo.write("src/gone.py", "def g():\n    pass\n");
    // ctags as it is, then the file goes (ctags runs in the repository's root).
    tools.write("ctags",
                std::string("#!/bin/sh\nctags \"$@\"\nstatus=$?\n") + replace + "\nexit $status\n");
    std::filesystem::permissions(tools / "ctags", std::filesystem::perms::owner_all);
    SqliteStore store(repo.path());
    Indexer indexer(store, (tools / "ctags").string());
    EXPECT_NO_THROW(indexer.update());
    EXPECT_EQ(indexer.ctags_runs(), 1u);
    EXPECT_EQ(store.get_symbols_by_path("src/a.py").size(), 4u);
    EXPECT_EQ(indexer.update().removed, 1u);
    EXPECT_FALSE(store.is_indexed("src/gone.py"));
  }
}

}  // namespace
}  // namespace tolbarrow::hosts::native

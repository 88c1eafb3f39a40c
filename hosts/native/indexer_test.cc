#include "hosts/native/indexer.h"

#include <gtest/gtest.h>

#include "hosts/native/process.h"
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
                                 {"ns::C::g", "g", "function", 4, 6},
                                 {"ns::free_fn", "free_fn", "function", 8, 8}}));
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

}  // namespace
}  // namespace tolbarrow::hosts::native

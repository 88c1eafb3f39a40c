#include <gtest/gtest.h>

#include "hosts/native/indexer.h"
#include "hosts/native/native_host.h"
#include "hosts/native/page_sync.h"
#include "hosts/native/process.h"
#include "tests/temp_dir.h"

namespace tolbarrow::hosts::native {
namespace {

namespace cr = wiki::citation_refresh;
using testing::TempDir;

constexpr const char* kCode =
    "def f():\n"
    "    return 1\n"
    "\n"
    "def g():\n"
    "    return 2\n"
    "\n"
    "def h():\n"
    "    return 3\n";

// f and g move down three lines; h is gone.
constexpr const char* kMovedCode =
    "import os\n"
    "\n"
    "\n"
    "def f():\n"
    "    return 1\n"
    "\n"
    "def g():\n"
    "    return 2\n";

constexpr const char* kPage =
    "# Ünïcode → page\n"
    "\n"
    "The `f` function returns one [f](/src/a.py#L1-L2).\n"
    "The `g` function returns two [g](/src/a.py#L4-L5).\n"
    "The `h` function returns three [h](/src/a.py#L7-L8).\n"
    "```\n"
    "[f](/src/a.py#L1-L2)\n"
    "```\n";

// A repository with src/a.py and one wiki page, indexed and synced.
class EndToEnd : public ::testing::Test {
 protected:
  EndToEnd() : store(repo.path()), indexer(store), native(store) {
    repo.write("src/a.py", kCode);
    repo.write("wiki/page.md", kPage);
    indexer.update();
    sync_pages(store, native.syntax, "main", wiki_dir);
  }
  cr::CitationRefresh refresh() {
    return cr::refresh_citations_if_free(native.host(), store, "main", wiki_dir, repo.path());
  }

  TempDir repo;
  bool git = run_process({"git", "init", "-q"}, repo.path()).exit_code == 0;  // before the store
  std::filesystem::path wiki_dir = repo.path() / "wiki";
  SqliteStore store;
  Indexer indexer;
  NativeHost native;
};

TEST_F(EndToEnd, CitationsFollowTheirCodeAndALostOneIsReported) {
  ASSERT_TRUE(git);
  EXPECT_EQ(store.file(), repo.path() / ".git" / "citation-refresh.db");
  // The first refresh anchors the citations to the functions their sentences name.
  const cr::CitationRefresh first = refresh();
  EXPECT_EQ(first.repaired, 0);
  EXPECT_EQ(first.unrepairable, 0);
  EXPECT_EQ(repo.read("wiki/page.md"), kPage);
  const auto anchored = store.pages("main")[0].citations;
  ASSERT_EQ(anchored.size(), 3u);
  EXPECT_EQ(anchored[0].value("symbol", ""), "f");
  EXPECT_EQ(anchored[2].value("symbol", ""), "h");

  repo.write("src/a.py", kMovedCode);
  indexer.update();
  const cr::CitationRefresh second = refresh();
  EXPECT_EQ(second.repaired, 2);
  EXPECT_EQ(second.unrepairable, 1);
  EXPECT_EQ(second.pages_written, 1);
  ASSERT_EQ(second.lost.size(), 1u);
  EXPECT_EQ(second.lost[0].value("name", ""), "h");
  EXPECT_EQ(second.lost[0].value("lines", ""), "L7-L8");

  std::string expected = kPage;
  expected.replace(expected.find("#L4-L5"), 6, "#L7-L8");  // g first: f takes its old lines
  expected.replace(expected.find("#L1-L2"), 6, "#L4-L5");
  EXPECT_EQ(repo.read("wiki/page.md"), expected);
  const StoredPage page = store.pages("main")[0];
  EXPECT_EQ(page.content_hash, sha256_hex(expected));
  EXPECT_EQ(page.citations[0].value("line_start", 0), 4);
  EXPECT_EQ(page.citations[1].value("line_end", 0), 8);
  EXPECT_EQ(page.citations[2].value("line_start", 0), 7);  // the lost one is kept as it was
}

TEST_F(EndToEnd, AnotherWriterMakesTheRefreshReportOnly) {
  refresh();
  repo.write("src/a.py", kMovedCode);
  indexer.update();
  FlockWriteLock other(repo.path(), wiki_dir);
  other.acquire();
  const cr::CitationRefresh result = refresh();
  other.release();
  EXPECT_EQ(result.repaired, 0);
  EXPECT_EQ(result.moved.at("page"), 2);
  EXPECT_EQ(result.unrepairable, 1);
  EXPECT_EQ(repo.read("wiki/page.md"), kPage);
}

}  // namespace
}  // namespace tolbarrow::hosts::native

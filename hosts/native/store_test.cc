#include "hosts/native/store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>

#include "tests/temp_dir.h"

namespace tolbarrow::hosts::native {
namespace {

using testing::TempDir;
using wiki::Record;

// A row's field as JSON text, which shows key order and number types.
std::string field_text(const wiki::PageRow& row, std::string_view key) {
  const auto value = row.field(key);
  return value ? value->dump() : "absent";
}

TEST(Store, KeepsExactlyWhatItIsGivenAcrossReopen) {
  TempDir repo;
  const auto odd = Record::parse(
      R"({"zeta":1,"path":"a.py","line_start":"3","line_end":4.5,"extra":[true,null,{"b":1,"a":2}]})");
  {
    SqliteStore store(repo.path());
    store.replace_pages("main", {{"b/page", "b/page.md", {odd}, std::nullopt, "h1"},
                                 {"a", "a.md", {}, Record::parse(R"({"prose":"x","n":-1})"), {}}});
    store.replace_pages("other", {{"c", "c.md", {}, std::nullopt, std::nullopt}});
    store.apply({.indexed = {{{"a.py", "hash", 10, 20, 3},
                              {{"A.f", "f", "member", 2, 3}, {"A", "A", "class", 1, 3}}}}});
    auto rows = store.get_wiki_pages("main");
    ASSERT_EQ(rows.size(), 2u);
    wiki::PageUpdate update;
    update.citations = {odd, Record::parse(R"({"path":"b.py","line_start":1,"line_end":2})")};
    update.build_cache = Record::parse(R"({"prose":"y","z":0.1})");
    store.update_wiki_page_citations("main", *rows[1], update);  // no content hash: kept
  }
  SqliteStore store(repo.path());
  EXPECT_EQ(store.file(), repo.path() / ".citation-refresh.db");
  auto rows = store.get_wiki_pages("main");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(field_text(*rows[0], "page_id"), R"("a")");  // ordered by page id
  EXPECT_EQ(field_text(*rows[0], "citations"), "[]");
  EXPECT_EQ(field_text(*rows[0], "build_cache"), R"({"prose":"x","n":-1})");
  EXPECT_EQ(field_text(*rows[0], "content_hash"), "absent");
  EXPECT_EQ(field_text(*rows[1], "rel_path"), R"("b/page.md")");
  EXPECT_EQ(field_text(*rows[1], "citations"),
            "[" + odd.dump() + R"(,{"path":"b.py","line_start":1,"line_end":2}])");
  EXPECT_EQ(field_text(*rows[1], "build_cache"), R"({"prose":"y","z":0.1})");
  EXPECT_EQ(field_text(*rows[1], "content_hash"), R"("h1")");
  EXPECT_EQ(store.get_wiki_pages("other").size(), 1u);
  EXPECT_EQ(store.get_symbols_by_path("a.py"),
            (std::vector<wiki::Symbol>{{"A.f", "f", "member", 2, 3}, {"A", "A", "class", 1, 3}}));
  EXPECT_EQ(store.file("a.py"), (FileFacts{"a.py", "hash", 10, 20, 3}));

  wiki::PageUpdate hashed;
  hashed.content_hash = "h2";
  store.update_wiki_page_citations("main", *rows[1], hashed);
  EXPECT_EQ(field_text(*store.get_wiki_pages("main")[1], "content_hash"), R"("h2")");
  EXPECT_EQ(field_text(*store.get_wiki_pages("main")[1], "build_cache"), "absent");

  const auto gone = store.get_wiki_pages("other");
  store.replace_pages("other", {});
  try {
    store.update_wiki_page_citations("other", *gone[0], hashed);
    FAIL() << "updated a page that is gone";
  } catch (const StoreError& error) {
    EXPECT_NE(std::string(error.what()).find(store.file().string()), std::string::npos);
  }
}

TEST(Store, LivesInTheGitDirectoryAndHashesWithSha256) {
  TempDir repo;
  std::filesystem::create_directory(repo.path() / ".git");
  SqliteStore store(repo.path());
  EXPECT_EQ(store.file(), repo.path() / ".git" / "citation-refresh.db");
  EXPECT_EQ(store.text_hash("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Store, RefusesANewerSchema) {
  TempDir repo;
  const auto db_file = repo.path() / "x.db";
  { SqliteStore store(repo.path(), db_file); }
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(db_file.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "PRAGMA user_version=2", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  try {
    SqliteStore store(repo.path(), db_file);
    FAIL() << "opened a newer database";
  } catch (const StoreError& error) {
    EXPECT_NE(std::string(error.what())
                  .find(db_file.string() + ": the database has schema "
                                           "version 2, newer"),
              std::string::npos)
        << error.what();
  }
}

TEST(Store, PathsLeadingOutsideTheRepositoryAreNeverIndexed) {
  TempDir repo, outside;
  repo.write("src/a.py", "x\n");
  outside.write("secret.py", "x\n");
  std::filesystem::create_directory_symlink(outside.path(), repo.path() / "out");
  std::filesystem::create_symlink(outside.path() / "secret.py", repo.path() / "link.py");
  SqliteStore store(repo.path());
  const std::vector<std::string> hostile = {
      "/etc/passwd", "../x.py", "src/../../x.py", "src/../a.py", "out/secret.py", "link.py", ""};
  IndexChange change;
  for (const auto& path : hostile) change.touched.push_back({path, "h", 1, 1, 1});
  change.touched.push_back({"src/a.py", "h", 1, 1, 1});
  store.apply(change);
  for (const auto& path : hostile) EXPECT_FALSE(store.is_indexed(path)) << path;
  EXPECT_TRUE(store.is_indexed("src/a.py"));
  EXPECT_FALSE(store.is_indexed("src/b.py"));
}

// ContainedPaths keeps each directory's resolution; every answer must be contained_path's, for
// links of files and directories inside and outside the root, missing parts and odd spellings.
TEST(Store, ContainedPathsAnswersAsContainedPath) {
  TempDir repo, outside;
  repo.write("src/a.py", "x\n");
  repo.write("src/deep/b.py", "x\n");
  outside.write("secret.py", "x\n");
  namespace fs = std::filesystem;
  fs::create_directory_symlink(outside.path(), repo.path() / "out");
  fs::create_directory_symlink(repo.path() / "src", repo.path() / "in");
  fs::create_symlink(outside.path() / "secret.py", repo.path() / "src/link.py");
  fs::create_symlink(repo.path() / "src/deep/b.py", repo.path() / "src/inlink.py");
  fs::create_symlink("loop.py", repo.path() / "src/loop.py");
  const fs::path root = canonical_root(repo.path());
  const std::vector<std::string> paths = {
      "src/a.py",      "src/deep/b.py", "src/missing.py", "nodir/x.py", "src/a.py/x",
      "out/secret.py", "src/link.py",   "src/inlink.py",  "in/a.py",    "in/deep/b.py",
      "src/loop.py",   "src//a.py",     "./src/a.py",     "src/./a.py", "src/",
      "src",           "../x.py",       "/etc/passwd",    "",           "a.py"};
  ContainedPaths contained(root);
  for (int pass = 0; pass < 2; ++pass) {  // the second from the kept directories
    for (const std::string& path : paths) {
      EXPECT_EQ(contained(path), contained_path(root, path)) << path << " pass " << pass;
      // A status learnt on the way is the file's own stat: never a link's, nor a missing one's.
      struct stat status, own;
      bool stated = false;
      const auto file = contained(path, status, stated);
      if (!stated) continue;
      ASSERT_TRUE(file && ::stat(file->c_str(), &own) == 0) << path;
      EXPECT_EQ(std::pair(status.st_ino, status.st_mode), std::pair(own.st_ino, own.st_mode))
          << path;
    }
  }
  struct stat status;
  bool stated = false;
  EXPECT_TRUE(contained("src/a.py", status, stated) && stated);
  EXPECT_TRUE(contained("src/inlink.py", status, stated) && !stated);
  EXPECT_TRUE(contained("in/a.py"));
  EXPECT_FALSE(contained("src/link.py"));
}

// A kept refresh result stands for the inputs it was kept with: any change of what a refresh
// reads from the store changes the digest of its inputs.
TEST(Store, RefreshInputsChangeWithEverythingARefreshReads) {
  const auto page = [](const char* citations, std::optional<Record> cache, const char* hash) {
    return StoredPage{"a", "a.md", {Record::parse(citations)}, std::move(cache), hash};
  };
  const char* cited = R"({"path":"a.py","line_start":1,"line_end":2})";
  const FileFacts facts{"a.py", "h", 10, 20, 3};
  const wiki::Symbol symbol{"A", "A", "class", 1, 3};
  const std::vector<std::pair<const char*, std::function<void(SqliteStore&)>>> changes = {
      {"records",
       [&](SqliteStore& s) {
         s.update_pages("main", {page(R"({"path":"a.py","line_start":1,"line_end":3})", {}, "h")},
                        {});
       }},
      {"build cache",
       [&](SqliteStore& s) { s.update_pages("main", {page(cited, Record::object(), "h")}, {}); }},
      {"content hash", [&](SqliteStore& s) { s.update_pages("main", {page(cited, {}, "g")}, {}); }},
      {"rel path",
       [&](SqliteStore& s) {
         s.update_pages("main", {{"a", "b.md", {Record::parse(cited)}, std::nullopt, "h"}}, {});
       }},
      {"page added",
       [&](SqliteStore& s) {
         s.update_pages("main", {{"b", "b.md", {}, std::nullopt, "h"}}, {});
       }},
      {"page removed", [&](SqliteStore& s) { s.update_pages("main", {}, {"a"}); }},
      {"file hash",
       [&](SqliteStore& s) {
         s.apply({.touched = {{"a.py", "g", 10, 20, 3}}});
       }},
      {"line count",
       [&](SqliteStore& s) {
         s.apply({.touched = {{"a.py", "h", 10, 20, 4}}});
       }},
      {"declaration",
       [&](SqliteStore& s) {
         s.apply({.indexed = {{facts, {{"A", "A", "class", 1, 2}}}}});
       }},
      {"file added",
       [&](SqliteStore& s) {
         s.apply({.touched = {{"b.py", "h", 1, 1, 1}}});
       }},
      {"file removed", [&](SqliteStore& s) { s.apply({.removed = {"a.py"}}); }},
      {"index format", [&](SqliteStore& s) { s.apply({.index_format = 7}); }},
  };
  // Before any result is kept the digest is of the tables; from then on, of the counts of writes
  // to them.
  for (const bool counted : {false, true}) {
    for (const auto& [what, change] : changes) {
      TempDir repo;
      const auto db_file = repo.path() / "x.db";
      if (!counted) {  // a store made before the counts: none of their tables and triggers
        { SqliteStore made(repo.path(), db_file); }
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(db_file.c_str(), &db), SQLITE_OK);
        std::string drop;
        for (const char* table : {"pages", "files", "symbols"}) {
          for (const char* what : {"added", "changed", "removed"}) {
            drop += std::string("DROP TRIGGER ") + table + "_" + what + ";";
          }
        }
        drop += "DROP TABLE page_revisions; DROP TABLE index_revision;";
        ASSERT_EQ(sqlite3_exec(db, drop.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(db);
      }
      SqliteStore store(repo.path(), db_file);
      store.replace_pages("main", {page(cited, {}, "h")});
      store.replace_pages("other", {page(cited, {}, "h")});
      store.apply({.indexed = {{facts, {symbol}}}, .index_format = 2});
      const std::string before = store.refresh_inputs("main");
      if (counted) store.keep_refresh("main", before, "kept");
      store.update_pages("other", {}, {"a"});                // another branch's pages are not read
      store.apply({.touched = {{"a.py", "h", 11, 21, 3}}});  // nor a file's size and mtime
      EXPECT_EQ(store.refresh_inputs("main"), before) << what << " counted " << counted;
      if (counted) {
        EXPECT_EQ(store.kept_refresh("main", before), "kept") << what;
        EXPECT_EQ(store.kept_refresh("other", before), std::nullopt) << what;
      }
      change(store);
      const std::string after = store.refresh_inputs("main");
      EXPECT_NE(after, before) << what << " counted " << counted;
      EXPECT_EQ(store.kept_refresh("main", after), std::nullopt) << what;
    }
  }
}

// The anchors file counts as written from the pages until any page of its branch changes.
TEST(Store, AnyPageChangeMakesTheWrittenAnchorsFileStale) {
  const std::vector<std::pair<const char*, std::function<void(SqliteStore&)>>> changes = {
      {"refresh update",
       [](SqliteStore& s) {
         s.update_wiki_page_citations("main", *s.get_wiki_pages("main")[0], wiki::PageUpdate{});
       }},
      {"sync", [](SqliteStore& s) { s.update_pages("main", {}, {"a"}); }},
      {"replace", [](SqliteStore& s) { s.replace_pages("main", {}); }},
      {"seed", [](SqliteStore& s) { s.replace_pages("main", {}, "other"); }},
  };
  for (const auto& [what, change] : changes) {
    TempDir repo;
    SqliteStore store(repo.path());
    store.replace_pages("main", {{"a", "a.md", {}, std::nullopt, "h"}}, "seeded");
    EXPECT_EQ(store.anchors_seeded("main"), "seeded") << what;
    EXPECT_FALSE(store.anchors_current("main", "seeded")) << what;
    store.anchors_written("main", "w");
    store.anchors_written("other", "w");
    store.update_pages("main", {}, {});  // no change
    EXPECT_TRUE(store.anchors_current("main", "w")) << what;
    change(store);
    EXPECT_FALSE(store.anchors_current("main", "w")) << what;
    EXPECT_TRUE(store.anchors_current("other", "w")) << what;
  }
}

// The history mark counts only with the anchors file of its time, and until a seeding.
TEST(Store, KeepsTheHistoryMarkWithItsAnchorsFile) {
  TempDir repo;
  SqliteStore store(repo.path());
  store.replace_pages("main", {{"p", "p.md", {}, std::nullopt, "old"}});
  store.set_history_mark("main", "blobs ab", "anchors1");
  EXPECT_EQ(store.history_mark("main", "anchors1"), "blobs ab");
  EXPECT_FALSE(store.history_mark("main", "anchors2"));  // another anchors file
  EXPECT_FALSE(store.history_mark("other", "anchors1"));
  store.replace_pages("main", store.pages("main"));  // not a seeding
  EXPECT_TRUE(store.history_mark("main", "anchors1"));
  store.replace_pages("main", store.pages("main"), "anchors1");  // the same file, seeded again
  EXPECT_FALSE(store.history_mark("main", "anchors1"));
}

}  // namespace
}  // namespace tolbarrow::hosts::native

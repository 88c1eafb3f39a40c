#include "hosts/native/page_sync.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "hosts/native/citation_syntax.h"
#include "tests/temp_dir.h"

namespace tolbarrow::hosts::native {
namespace {

using testing::TempDir;
using wiki::Record;

std::string citations_text(const StoredPage& page) { return Record(page.citations).dump(); }

TEST(PageSync, MakesPageFilesThePagesOfTheBranch) {
  TempDir repo;
  const auto wiki_dir = repo.path() / "wiki";
  repo.write("wiki/a.md",
             "[f](/src/a.py#L1-L3) kept, [g](/src/a.py#L7) new, `[h](/src/h.py#L1)` code.\n");
  repo.write("wiki/sub/b.md", "[k](/src/b.cc#L2-L4) [k again](/src/b.cc#L2-L4)\n");
  repo.write("wiki/.hidden/c.md", "[x](/x.py#L1)\n");
  repo.write("wiki/notes.txt", "[x](/x.py#L1)\n");
  SqliteStore store(repo.path());
  const Record anchored =
      Record::parse(R"({"path":"src/a.py","line_start":1,"line_end":3,"symbol":"f","extra":true})");
  const Record gone = Record::parse(R"({"path":"src/a.py","line_start":20,"line_end":21})");
  const Record unreadable = Record::parse(R"({"path":"src/a.py","line_start":"x","line_end":1})");
  store.replace_pages("main",
                      {{"a", "a.md", {gone, anchored, unreadable}, Record{{"prose", "p"}}, "old"},
                       {"deleted", "deleted.md", {}, std::nullopt, std::nullopt}});
  store.replace_pages("other", {{"a", "a.md", {gone}, std::nullopt, std::nullopt}});

  MarkdownCitationSyntax syntax;
  const SyncStats stats = sync_pages(store, syntax, "main", wiki_dir);
  EXPECT_EQ(stats.pages, 2u);
  EXPECT_EQ(stats.citations_added, 2u);
  EXPECT_EQ(stats.citations_dropped, 1u);
  EXPECT_EQ(stats.pages_removed, 1u);

  const auto pages = store.pages("main");
  ASSERT_EQ(pages.size(), 2u);
  EXPECT_EQ(pages[0].page_id, "a");
  EXPECT_EQ(pages[0].rel_path, "a.md");
  EXPECT_EQ(citations_text(pages[0]), "[" + anchored.dump() + "," + unreadable.dump() +
                                          R"(,{"path":"src/a.py","line_start":7,"line_end":7}])");
  EXPECT_EQ(pages[0].build_cache, (Record{{"prose", "p"}}));
  EXPECT_EQ(pages[0].content_hash, sha256_hex(repo.read("wiki/a.md")));
  EXPECT_EQ(pages[1].page_id, "sub/b");
  EXPECT_EQ(pages[1].rel_path, "sub/b.md");
  EXPECT_EQ(citations_text(pages[1]), R"([{"path":"src/b.cc","line_start":2,"line_end":4}])");
  EXPECT_EQ(citations_text(store.pages("other")[0]), "[" + gone.dump() + "]");  // untouched

  // What it read, for the indexer: each page by its path from the repository root, as read.
  std::vector<std::string> read;
  for (const auto& [path, file] : stats.read) {
    read.push_back(path);
    EXPECT_EQ(file.facts.path, path);
    EXPECT_EQ(file.facts.hash, sha256_hex(repo.read(path)));
    EXPECT_EQ(file.facts.line_count, count_lines(repo.read(path)));
    EXPECT_EQ(file.facts.size, static_cast<std::int64_t>(repo.read(path).size()));
  }
  EXPECT_EQ(read, (std::vector<std::string>{"wiki/a.md", "wiki/sub/b.md"}));

  // A second sync finds nothing to do.
  const SyncStats again = sync_pages(store, syntax, "main", wiki_dir);
  EXPECT_EQ(again.citations_added + again.citations_dropped + again.pages_removed, 0u);
}

// A page cites each key once however often its text repeats it, on short pages and long ones.
TEST(PageSync, EachKeyIsCitedOnceInTextOrder) {
  for (const int distinct : {3, 31, 32, 33, 80}) {
    TempDir repo;
    std::string text;
    std::vector<wiki::CitationKey> keys;
    for (int i = 0; i < distinct; ++i) {
      keys.push_back({"src/a.py", i + 1, i + 1});
      text += "[f](/src/a.py#L" + std::to_string(i + 1) + ") ";
      if (i % 3 == 0) text += "[f](/src/a.py#L1) ";
    }
    text += "[f](/src/a.py#L" + std::to_string(distinct) + ")\n";
    repo.write("wiki/a.md", text);
    SqliteStore store(repo.path());
    MarkdownCitationSyntax syntax;
    const SyncStats stats = sync_pages(store, syntax, "main", repo.path() / "wiki");
    EXPECT_EQ(stats.citations_added, keys.size()) << distinct;
    ASSERT_EQ(stats.cited.size(), 1u);
    EXPECT_EQ(stats.cited[0].second, keys) << distinct;
  }
}

// Symbolic links in the wiki: a loop anywhere must not stop the walk, and no page is read through
// a link that leads outside the repository.
TEST(PageSync, FollowsOnlyLinksToFilesInsideTheRepository) {
  TempDir base;
  const auto repo = base.path() / "repo";
  const auto wiki_dir = repo / "wiki";
  base.write("repo/wiki/plain.md", "[f](/src/a.py#L1)\n");
  base.write("repo/notes/kept.md", "[g](/src/a.py#L2)\n");
  base.write("outside/secret.md", "[s](/src/a.py#L3)\n");
  base.write("outside/dir/deep.md", "[d](/src/a.py#L4)\n");
  const std::vector<std::pair<std::string, std::string>> links = {
      {"wiki/loop.md", "b"},
      {"wiki/b", "loop.md"},
      {"wiki/self", "."},
      {"wiki/gone.md", "nowhere.md"},
      {"wiki/in.md", "../notes/kept.md"},
      {"wiki/out.md", "../../outside/secret.md"},
      {"wiki/outdir", "../../outside/dir"}};
  for (const auto& [link, target] : links) std::filesystem::create_symlink(target, repo / link);

  SqliteStore store(repo);
  MarkdownCitationSyntax syntax;
  SyncStats stats = sync_pages(store, syntax, "main", wiki_dir);
  std::vector<std::string> pages;
  for (const StoredPage& page : store.pages("main")) pages.push_back(page.rel_path);
  EXPECT_EQ(pages, (std::vector<std::string>{"in.md", "plain.md"}));
  ASSERT_EQ(stats.skipped.size(), 3u);
  std::sort(stats.skipped.begin(), stats.skipped.end());
  EXPECT_EQ(stats.skipped[0].rfind((wiki_dir / "gone.md").string() + ": ", 0), 0u);
  EXPECT_EQ(stats.skipped[1].rfind((wiki_dir / "loop.md").string() + ": ", 0), 0u);
  EXPECT_NE(stats.skipped[1].find("symbolic links"), std::string::npos);
  EXPECT_EQ(stats.skipped[2].rfind((wiki_dir / "out.md").string() + ": ", 0), 0u);
  EXPECT_NE(stats.skipped[2].find("outside the repository"), std::string::npos);
}

// A page file found with the text of the page's origin (the refresh stored the page's new records,
// and their text never reached the file) takes the origin's records and build cache back; a file
// with any other text keeps the stored records that its citations still name.
TEST(PageSync, APageFileWithItsOriginsTextTakesTheOriginsRecords) {
  const std::string old_text = "[f](/a.py#L1-L2)\n", new_text = "[f](/a.py#L5-L6)\n";
  const Record old_record = Record::parse(
      R"({"path":"a.py","line_start":1,"line_end":2,"symbol":"f","symbol_start":1,"symbol_end":2})");
  const Record new_record = Record::parse(
      R"({"path":"a.py","line_start":5,"line_end":6,"symbol":"f","symbol_start":5,"symbol_end":6})");
  const Record plain = Record::parse(R"({"path":"a.py","line_start":1,"line_end":2})");
  struct Case {
    const char* name;
    std::string file;
    std::vector<Record> records;
    std::optional<Record> build_cache;
  };
  const Case cases[] = {
      {"the origin's text", old_text, {old_record}, Record{{"prose", "old"}}},
      {"the new text", new_text, {new_record}, Record{{"prose", "new"}}},
      {"another text citing the origin's lines",
       old_text + "more\n",
       {plain},
       Record{{"prose", "new"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir repo;
    repo.write("wiki/p.md", c.file);
    SqliteStore store(repo.path());
    store.replace_pages(
        "main", {{"p", "p.md", {old_record}, Record{{"prose", "old"}}, sha256_hex(old_text)}});
    wiki::PageUpdate update;
    update.citations = {new_record};
    update.build_cache = Record{{"prose", "new"}};
    update.content_hash = sha256_hex(new_text);
    store.update_wiki_page_citations("main", *store.get_wiki_pages("main").at(0),
                                     std::move(update));
    MarkdownCitationSyntax syntax;
    sync_pages(store, syntax, "main", repo.path() / "wiki");
    const std::vector<StoredPage> pages = store.pages("main");
    ASSERT_EQ(pages.size(), 1u);
    EXPECT_EQ(citations_text(pages[0]), Record(c.records).dump());
    EXPECT_EQ(pages[0].build_cache, c.build_cache);
    EXPECT_EQ(pages[0].content_hash, sha256_hex(c.file));
  }
}

}  // namespace
}  // namespace tolbarrow::hosts::native

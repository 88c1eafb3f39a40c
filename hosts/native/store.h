// The native host's store: one SQLite database per repository holding its index (files and
// their declarations) and the wiki pages of each branch.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "hosts/native/repo_paths.h"
#include "workers/wiki/repository.h"

struct sqlite3;
struct sqlite3_stmt;

namespace tolbarrow::hosts::native {

namespace wiki = tolbarrow::workers::wiki;

// A failure of the store; the message names the database file.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The git directory of the work tree at `repo_root` (its ".git" folder, or the folder that a
// ".git" file names), or nullopt when it has none.
std::optional<std::filesystem::path> git_dir(const std::filesystem::path& repo_root);

// What the index knows of one file of the repository.
struct FileFacts {
  std::string path;  // relative to the repository root
  std::string hash;  // SHA-256 of the content, lower-case hex
  std::int64_t size = 0;
  std::int64_t mtime_ns = 0;
  wiki::Line line_count = 0;
  friend bool operator==(const FileFacts&, const FileFacts&) = default;
};

// A file's facts as read once, with what stat told of the file just before the read: they hold
// while stat tells the same (same device, inode, size, modification and change times; any write
// or replacement changes one of them).
struct ReadFile {
  FileFacts facts;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t ctime_ns = 0;
};

// One wiki page as the store keeps it.
struct StoredPage {
  std::string page_id;
  std::string rel_path;                     // relative to the wiki directory
  std::vector<wiki::Record> citations;      // kept exactly: key order, extra keys, JSON types
  std::optional<wiki::Record> build_cache;  // nullopt: none
  std::optional<std::string> content_hash;
};

// A stored page without its records and build cache.
struct PageHead {
  std::string page_id;
  std::string rel_path;
  std::optional<std::string> content_hash;
};

// One change of the index, applied as one transaction.
struct IndexChange {
  // Files whose facts change while their declarations stay (same content, new mtime).
  std::vector<FileFacts> touched;
  // Files indexed anew, with all their declarations in index order.
  std::vector<std::pair<FileFacts, std::vector<wiki::Symbol>>> indexed;
  // Files that left the repository.
  std::vector<std::string> removed;
  // When set, the format of the index's declarations (SqliteStore::index_format) from now on.
  std::optional<int> index_format;
};

class SqliteStore : public wiki::Repository {
 public:
  static constexpr int kSchemaVersion = 1;

  // Where a repository's database lives unless told otherwise: citation-refresh.db in its git
  // directory (.git, or the directory a .git file points to), else .citation-refresh.db at the
  // repository root.
  static std::filesystem::path default_path(const std::filesystem::path& repo_root);

  // Opens (creating when missing) the database of the repository at `repo_root`: `db_file`, or
  // default_path(repo_root). Throws StoreError for a database of a newer schema version.
  explicit SqliteStore(const std::filesystem::path& repo_root,
                       std::optional<std::filesystem::path> db_file = std::nullopt);
  ~SqliteStore() override;
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  const std::filesystem::path& file() const { return file_; }
  const std::filesystem::path& repo_root() const { return root_; }

  // ---- Repository ----
  std::vector<wiki::Symbol> get_symbols_by_path(const std::string& path) override;
  // A file of the index that may be read: paths that lead outside the repository never are.
  bool is_indexed(const std::string& path) override;
  // The branch's pages ordered by page id.
  std::vector<std::unique_ptr<const wiki::PageRow>> get_wiki_pages(
      const std::string& branch) override;
  // Stores the update's citations and build cache, and its content hash when it has one. The
  // store keeps no other texts of a page than its build cache (whose prose the refresh already
  // rewrote), so the moves have nothing more to change. Throws StoreError when the page is not
  // in the store.
  void update_wiki_page_citations(const std::string& branch, const wiki::PageRow& row,
                                  wiki::PageUpdate update) override;
  // SHA-256 of the text, lower-case hex.
  std::string text_hash(const std::string& text) override;

  // ---- Index ----
  std::vector<FileFacts> files();
  std::optional<FileFacts> file(const std::string& path);
  void apply(const IndexChange& change);
  // The format of the declarations the index holds, as the indexer last recorded it; 0 when none
  // was recorded (a database of the first format). The indexer re-indexes every file once when
  // it differs from its own.
  int index_format();

  // ---- Pages ----
  std::vector<StoredPage> pages(const std::string& branch);
  // Gives `visit` the branch's pages one at a time, in page id order (as pages() orders them), so
  // that a caller that needs each page once holds one page's records at a time.
  void each_page(const std::string& branch, const std::function<void(StoredPage&&)>& visit);
  // The branch's pages ordered by page id, their records left unread.
  std::vector<PageHead> page_heads(const std::string& branch);
  // Makes `pages` the branch's pages: each is stored as given, and pages of the branch not among
  // them are removed. With `seeded_from`, also records it as the anchors file the pages took
  // (anchors_seeded). One transaction.
  void replace_pages(const std::string& branch, const std::vector<StoredPage>& pages,
                     std::optional<std::string> seeded_from = std::nullopt);
  // Stores `changed` (new pages or new versions of stored ones) and removes the pages `removed`
  // of the branch; other pages stay as they are. Forgets the branch's page origins. One
  // transaction; nothing is written when both are empty.
  void update_pages(const std::string& branch, const std::vector<StoredPage>& changed,
                    const std::vector<std::string>& removed);
  // The page as it was before the refresh last gave it a new text (update_wiki_page_citations
  // with a content hash): the records, build cache and content hash of the text it was written
  // from. A page file found with that hash is a write that never happened, and those records
  // are its records. nullopt when there is none.
  std::optional<StoredPage> page_origin(const std::string& branch, const std::string& page_id);

  // ---- A refresh that changed nothing ----
  // A digest of all that a refresh of `branch` reads from the store: every column of the
  // branch's pages, and the whole index (its format, each file's path, content hash and line
  // count, each declaration). Equal digests: the refresh reads the same. Once a result has been
  // kept, the database counts every write to those (see kRevisions) and the digest is of the
  // counts; until then it is of the tables themselves.
  std::string refresh_inputs(const std::string& branch);
  // The result kept with keep_refresh for `branch`, when it was kept for these `inputs`.
  std::optional<std::string> kept_refresh(const std::string& branch, const std::string& inputs);
  // Keeps `result` as the refresh of `branch` whose inputs were `inputs`, in place of the one
  // kept before.
  void keep_refresh(const std::string& branch, const std::string& inputs,
                    const std::string& result);

  // ---- The anchors file ----
  // SHA-256 of the anchors file whose records the branch's pages last took, by seeding or by
  // writing the file; nullopt when none.
  std::optional<std::string> anchors_seeded(const std::string& branch);
  // Whether the anchors file whose SHA-256 is `hash` was written from the branch's pages and no
  // page of the branch changed since.
  bool anchors_current(const std::string& branch, const std::string& hash);
  // Records that the anchors file whose SHA-256 is `hash` now holds the branch's pages.
  void anchors_written(const std::string& branch, const std::string& hash);

  // ---- Carrying between refreshes ----
  // Makes `mark` the branch's history mark, valid while the anchors file's SHA-256 is
  // `anchors_hash` ("" for no file). Seeding the pages from an anchors file forgets the mark.
  void set_history_mark(const std::string& branch, const std::string& mark,
                        const std::string& anchors_hash);
  // The mark the branch's records were last carried to, when the anchors file's SHA-256 is still
  // the `anchors_hash` of that time and no anchors file was seeded since; else nullopt.
  std::optional<std::string> history_mark(const std::string& branch,
                                          const std::string& anchors_hash);

 private:
  void transaction(const std::function<void()>& body);
  void exec(const char* sql);
  // Within a transaction that changes pages of `branch`: the anchors file no longer holds them.
  void pages_changed(const std::string& branch);

  std::filesystem::path root_;
  std::filesystem::path file_;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* symbols_by_path_ = nullptr;  // get_symbols_by_path's statement
  // is_indexed's answers since the files table last changed: a refresh asks it for every
  // citation, and the answer needs a walk of the path's components. What it answers from, read
  // once: the files table's paths, and the resolution of each directory holding one.
  std::unordered_map<std::string, bool> indexed_;
  std::optional<std::unordered_set<std::string>> index_paths_;
  std::optional<ContainedPaths> contained_;
};

// SHA-256 of `bytes`, lower-case hex.
std::string sha256_hex(std::string_view bytes);

}  // namespace tolbarrow::hosts::native

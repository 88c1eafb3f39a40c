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
#include <vector>

#include "workers/wiki/repository.h"

struct sqlite3;

namespace tolbarrow::hosts::native {

namespace wiki = tolbarrow::workers::wiki;

// A failure of the store; the message names the database file.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What the index knows of one file of the repository.
struct FileFacts {
  std::string path;  // relative to the repository root
  std::string hash;  // SHA-256 of the content, lower-case hex
  std::int64_t size = 0;
  std::int64_t mtime_ns = 0;
  wiki::Line line_count = 0;
  friend bool operator==(const FileFacts&, const FileFacts&) = default;
};

// One wiki page as the store keeps it.
struct StoredPage {
  std::string page_id;
  std::string rel_path;                     // relative to the wiki directory
  std::vector<wiki::Record> citations;      // kept exactly: key order, extra keys, JSON types
  std::optional<wiki::Record> build_cache;  // nullopt: none
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
                                  const wiki::PageUpdate& update) override;
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
  // Makes `pages` the branch's pages: each is stored as given, and pages of the branch not among
  // them are removed. One transaction.
  void replace_pages(const std::string& branch, const std::vector<StoredPage>& pages);

 private:
  void transaction(const std::function<void()>& body);
  void exec(const char* sql);

  std::filesystem::path root_;
  std::filesystem::path file_;
  sqlite3* db_ = nullptr;
  // is_indexed's answers since the files table last changed: a refresh asks it for every
  // citation, and the answer needs a walk of the path's components.
  std::unordered_map<std::string, bool> indexed_;
};

// SHA-256 of `bytes`, lower-case hex.
std::string sha256_hex(std::string_view bytes);

}  // namespace tolbarrow::hosts::native

#include "hosts/native/store.h"

#include <openssl/evp.h>
#include <sqlite3.h>

#include <fstream>

#include "hosts/native/repo_paths.h"

namespace tolbarrow::hosts::native {
namespace fs = std::filesystem;
namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE files(
  path TEXT PRIMARY KEY,
  hash TEXT NOT NULL,
  size INTEGER NOT NULL,
  mtime_ns INTEGER NOT NULL,
  line_count INTEGER NOT NULL
) WITHOUT ROWID;
CREATE TABLE symbols(
  path TEXT NOT NULL,
  ord INTEGER NOT NULL,
  fqn TEXT NOT NULL,
  name TEXT NOT NULL,
  kind TEXT NOT NULL,
  start_line INTEGER NOT NULL,
  end_line INTEGER NOT NULL,
  PRIMARY KEY(path, ord)
) WITHOUT ROWID;
CREATE TABLE pages(
  branch TEXT NOT NULL,
  page_id TEXT NOT NULL,
  rel_path TEXT NOT NULL,
  citations TEXT NOT NULL,
  build_cache TEXT,
  content_hash TEXT,
  PRIMARY KEY(branch, page_id)
) WITHOUT ROWID;
)sql";

// Settings of the store; added without a schema version change (a database of version 1 made
// before it has no such table until the index first records its format).
constexpr const char* kMeta =
    "CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID";

// What the store keeps of the pages besides the pages; added without a schema version change.
// page_origins: a page as it was before the refresh gave it a new text, until the next sync.
// anchors_files: per branch, the SHA-256 of the anchors file the pages last took (seeded) and of
// the one written from them while no page changed since (written, else NULL).
// history_marks: per branch, the state of the work tree its records were last carried to (the
// command's JSON), while the anchors file has the SHA-256 `anchors` ('' for none).
constexpr const char* kPageState = R"sql(
CREATE TABLE IF NOT EXISTS page_origins(
  branch TEXT NOT NULL,
  page_id TEXT NOT NULL,
  citations TEXT NOT NULL,
  build_cache TEXT,
  content_hash TEXT,
  PRIMARY KEY(branch, page_id)
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS anchors_files(
  branch TEXT PRIMARY KEY,
  seeded TEXT,
  written TEXT
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS history_marks(
  branch TEXT PRIMARY KEY,
  mark TEXT NOT NULL,
  anchors TEXT NOT NULL
) WITHOUT ROWID;
)sql";

// The refresh result kept for the inputs it was made from; added without a schema version change
// (created when first kept).
constexpr const char* kKeptRefreshes =
    "CREATE TABLE IF NOT EXISTS kept_refreshes(branch TEXT PRIMARY KEY, inputs TEXT NOT NULL, "
    "result TEXT NOT NULL) WITHOUT ROWID";

// Counts of the changes to what a refresh reads, kept by the database itself: every write to a
// branch's pages counts for that branch, every write to the index (a file's path, content hash
// or line count, a declaration) for the index; a file put again with the same three (a new size
// or modification time: INSERT OR REPLACE) does not count. A refresh's inputs are then these
// counts, read in an instant, instead of a digest of the tables. Added without a schema version
// change (created with a new store, or with the first result kept in an older one); the
// triggers count whatever program writes the tables.
constexpr const char* kRevisions = R"sql(
CREATE TABLE IF NOT EXISTS page_revisions(branch TEXT PRIMARY KEY, n INTEGER NOT NULL)
  WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS index_revision(n INTEGER NOT NULL);
INSERT INTO index_revision SELECT 0 WHERE NOT EXISTS (SELECT 1 FROM index_revision);
CREATE TRIGGER IF NOT EXISTS pages_added AFTER INSERT ON pages BEGIN
  INSERT INTO page_revisions VALUES (NEW.branch, 1) ON CONFLICT(branch) DO UPDATE SET n = n + 1;
END;
CREATE TRIGGER IF NOT EXISTS pages_changed AFTER UPDATE ON pages BEGIN
  INSERT INTO page_revisions VALUES (OLD.branch, 1) ON CONFLICT(branch) DO UPDATE SET n = n + 1;
  INSERT INTO page_revisions VALUES (NEW.branch, 1) ON CONFLICT(branch) DO UPDATE SET n = n + 1;
END;
CREATE TRIGGER IF NOT EXISTS pages_removed AFTER DELETE ON pages BEGIN
  INSERT INTO page_revisions VALUES (OLD.branch, 1) ON CONFLICT(branch) DO UPDATE SET n = n + 1;
END;
CREATE TRIGGER IF NOT EXISTS files_added BEFORE INSERT ON files
WHEN NOT EXISTS (SELECT 1 FROM files WHERE path = NEW.path AND hash = NEW.hash AND
                 line_count = NEW.line_count) BEGIN
  UPDATE index_revision SET n = n + 1;
END;
CREATE TRIGGER IF NOT EXISTS files_changed AFTER UPDATE OF path, hash, line_count ON files BEGIN
  UPDATE index_revision SET n = n + 1;
END;
CREATE TRIGGER IF NOT EXISTS files_removed AFTER DELETE ON files BEGIN
  UPDATE index_revision SET n = n + 1;
END;
CREATE TRIGGER IF NOT EXISTS symbols_added AFTER INSERT ON symbols BEGIN
  UPDATE index_revision SET n = n + 1;
END;
CREATE TRIGGER IF NOT EXISTS symbols_changed AFTER UPDATE ON symbols BEGIN
  UPDATE index_revision SET n = n + 1;
END;
CREATE TRIGGER IF NOT EXISTS symbols_removed AFTER DELETE ON symbols BEGIN
  UPDATE index_revision SET n = n + 1;
END;
)sql";

[[noreturn]] void fail(sqlite3* db, const fs::path& file, const std::string& what) {
  throw StoreError(file.string() + ": " + what + ": " + sqlite3_errmsg(db));
}

// A prepared statement, finalized when it goes. Errors name the database file.
class Statement {
 public:
  Statement(sqlite3* db, const fs::path& file, const char* sql) : db_(db), file_(file) {
    if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) fail_("prepare");
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(int i, std::string_view text) {
    check(
        sqlite3_bind_text(stmt_, i, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT));
    return *this;
  }
  Statement& bind(int i, std::int64_t value) {
    check(sqlite3_bind_int64(stmt_, i, value));
    return *this;
  }
  Statement& bind(int i, const std::string& text) { return bind(i, std::string_view(text)); }
  Statement& bind(int i, const char* text) { return bind(i, std::string_view(text)); }
  Statement& bind(int i, const std::optional<std::string>& text) {
    if (text) return bind(i, std::string_view(*text));
    check(sqlite3_bind_null(stmt_, i));
    return *this;
  }
  // Whether a row came.
  bool step() {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc != SQLITE_DONE) fail_("step");
    return false;
  }
  void run() {
    step();
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }
  std::string text(int col) const {
    const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, col));
    return p ? std::string(p, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, col))) : "";
  }
  bool null(int col) const { return sqlite3_column_type(stmt_, col) == SQLITE_NULL; }
  std::int64_t integer(int col) const { return sqlite3_column_int64(stmt_, col); }
  sqlite3_stmt* handle() const { return stmt_; }

 private:
  void check(int rc) {
    if (rc != SQLITE_OK) fail_("bind");
  }
  [[noreturn]] void fail_(const std::string& what) const { fail(db_, file_, what); }

  sqlite3* db_;
  const fs::path& file_;
  sqlite3_stmt* stmt_ = nullptr;
};

wiki::Record parse_json(const std::string& text, const fs::path& file, const char* what) {
  try {
    return wiki::Record::parse(text);
  } catch (const wiki::Record::parse_error& error) {
    throw StoreError(file.string() + ": stored " + what + " is not JSON: " + error.what());
  }
}

StoredPage read_page(const Statement& s, const fs::path& file) {
  StoredPage page{s.text(0), s.text(1), {}, std::nullopt, std::nullopt};
  const wiki::Record citations = parse_json(s.text(2), file, "citations");
  if (!citations.is_array()) {
    throw StoreError(file.string() + ": stored citations of page " + page.page_id +
                     " are not a list");
  }
  page.citations.assign(citations.begin(), citations.end());
  if (!s.null(3)) page.build_cache = parse_json(s.text(3), file, "build cache");
  if (!s.null(4)) page.content_hash = s.text(4);
  return page;
}

// A page row over the store's columns of the page: the JSON columns are parsed when the refresh
// asks for them, and a row is not built as one JSON value first.
class StoredRow : public wiki::PageRow {
 public:
  StoredRow(const Statement& s, const fs::path& file)
      : file_(file),
        page_id_(s.text(0)),
        rel_path_(s.text(1)),
        citations_(s.text(2)),
        build_cache_(s.null(3) ? std::nullopt : std::optional(s.text(3))),
        content_hash_(s.null(4) ? std::nullopt : std::optional(s.text(4))) {}

  std::optional<wiki::Record> field(std::string_view key) const override {
    if (key == "page_id") return wiki::Record(page_id_);
    if (key == "rel_path") return wiki::Record(rel_path_);
    if (key == "citations") {
      wiki::Record citations = parse_json(citations_, file_, "citations");
      if (!citations.is_array()) {
        throw StoreError(file_.string() + ": stored citations of page " + page_id_ +
                         " are not a list");
      }
      return citations;
    }
    if (key == "build_cache" && build_cache_)
      return parse_json(*build_cache_, file_, "build cache");
    if (key == "content_hash" && content_hash_) return wiki::Record(*content_hash_);
    return std::nullopt;
  }

 private:
  fs::path file_;
  std::string page_id_, rel_path_, citations_;
  std::optional<std::string> build_cache_, content_hash_;
};

// SHA-256 over a sequence of values, each with its length before it (so that no two sequences
// run together alike), a null apart from every text.
class Digest {
 public:
  Digest() : ctx_(EVP_MD_CTX_new()) {
    if (ctx_ == nullptr || EVP_DigestInit_ex(ctx_, EVP_sha256(), nullptr) != 1) {
      EVP_MD_CTX_free(ctx_);
      throw std::runtime_error("SHA-256 failed");
    }
  }
  ~Digest() { EVP_MD_CTX_free(ctx_); }
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;

  void add(std::string_view text) {
    add_length(text.size());
    update(text.data(), text.size());
  }
  void add(std::int64_t value) { update(&value, sizeof value); }
  void add_null() { add_length(~std::uint64_t{0}); }
  // The column of a statement's current row.
  void add_column(sqlite3_stmt* stmt, int col) {
    switch (sqlite3_column_type(stmt, col)) {
      case SQLITE_NULL:
        add_null();
        break;
      case SQLITE_INTEGER:
        add_length(~std::uint64_t{1});
        add(static_cast<std::int64_t>(sqlite3_column_int64(stmt, col)));
        break;
      default: {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, col));
        add(std::string_view(text ? text : "",
                             static_cast<std::size_t>(sqlite3_column_bytes(stmt, col))));
      }
    }
  }
  std::string hex() {
    flush();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(ctx_, digest, &length) != 1) throw std::runtime_error("SHA-256 failed");
    static constexpr char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
      out += hex[digest[i] >> 4];
      out += hex[digest[i] & 15];
    }
    return out;
  }

 private:
  void add_length(std::uint64_t length) { update(&length, sizeof length); }
  // The bytes are gathered and handed over in large pieces: a table's digest is made of millions
  // of small values, and each call into the library has a cost of its own.
  void update(const void* data, std::size_t size) {
    pending_.append(static_cast<const char*>(data), size);
    if (pending_.size() >= kPiece) flush();
  }
  void flush() {
    if (EVP_DigestUpdate(ctx_, pending_.data(), pending_.size()) != 1) {
      throw std::runtime_error("SHA-256 failed");
    }
    pending_.clear();
  }
  static constexpr std::size_t kPiece = 1 << 16;
  EVP_MD_CTX* ctx_;
  std::string pending_;
};

std::string dump(const wiki::Record& value) { return value.dump(); }

std::string dump_citations(const std::vector<wiki::Record>& citations) {
  return dump(wiki::Record(citations));
}

// Runs `put`, an insert of a page's six columns in table order, for `page`.
void put_page(Statement& put, const std::string& branch, const StoredPage& page) {
  put.bind(1, branch).bind(2, page.page_id).bind(3, page.rel_path);
  put.bind(4, dump_citations(page.citations));
  put.bind(5, page.build_cache ? std::optional(dump(*page.build_cache)) : std::nullopt);
  put.bind(6, page.content_hash);
  put.run();
}

}  // namespace

// The directory that a .git file ("gitdir: <path>") points to, relative to the file's folder.
std::optional<fs::path> git_dir(const fs::path& repo_root) {
  const fs::path dot_git = repo_root / ".git";
  std::error_code error;
  if (fs::is_directory(dot_git, error)) return dot_git;
  if (!fs::is_regular_file(dot_git, error)) return std::nullopt;
  std::ifstream in(dot_git);
  std::string line;
  std::getline(in, line);
  constexpr std::string_view prefix = "gitdir: ";
  if (line.rfind(prefix, 0) != 0) return std::nullopt;
  fs::path dir = line.substr(prefix.size());
  if (dir.is_relative()) dir = repo_root / dir;
  return fs::is_directory(dir, error) ? std::optional(dir) : std::nullopt;
}

std::string sha256_hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("SHA-256 failed");
  }
  static constexpr char hex[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * length);
  for (unsigned int i = 0; i < length; ++i) {
    out += hex[digest[i] >> 4];
    out += hex[digest[i] & 15];
  }
  return out;
}

fs::path SqliteStore::default_path(const fs::path& repo_root) {
  if (auto dir = git_dir(repo_root)) return *dir / "citation-refresh.db";
  return repo_root / ".citation-refresh.db";
}

SqliteStore::SqliteStore(const fs::path& repo_root, std::optional<fs::path> db_file)
    : root_(canonical_root(repo_root)), file_(db_file ? *db_file : default_path(repo_root)) {
  if (sqlite3_open_v2(file_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    const std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    db_ = nullptr;
    throw StoreError(file_.string() + ": cannot open the database: " + message);
  }
  try {
    sqlite3_busy_timeout(db_, 10000);
    // Refuse a newer database before changing anything of it.
    auto version = [this] {
      Statement s(db_, file_, "PRAGMA user_version");
      s.step();
      return static_cast<int>(s.integer(0));
    };
    const int found = version();
    if (found > kSchemaVersion) {
      throw StoreError(file_.string() + ": the database has schema version " +
                       std::to_string(found) + ", newer than version " +
                       std::to_string(kSchemaVersion) +
                       " that this program knows; refusing to use it");
    }
    exec("PRAGMA journal_mode=WAL");
    if (found == 0) {
      transaction([&] {
        if (version() != 0) return;  // another process created it meanwhile
        exec(kSchema);
        exec(kRevisions);
        exec(("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str());
      });
    }
    Statement tables(db_, file_,
                     "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND "
                     "name IN ('page_origins', 'anchors_files', 'history_marks')");
    tables.step();
    if (tables.integer(0) != 3) transaction([&] { exec(kPageState); });
  } catch (...) {
    sqlite3_close(db_);
    db_ = nullptr;
    throw;
  }
}

SqliteStore::~SqliteStore() {
  sqlite3_finalize(symbols_by_path_);
  sqlite3_close(db_);
}

void SqliteStore::exec(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    const std::string text = message ? message : sqlite3_errmsg(db_);
    sqlite3_free(message);
    throw StoreError(file_.string() + ": " + text);
  }
}

void SqliteStore::transaction(const std::function<void()>& body) {
  exec("BEGIN IMMEDIATE");
  try {
    body();
    exec("COMMIT");
  } catch (...) {
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
}

std::vector<wiki::Symbol> SqliteStore::get_symbols_by_path(const std::string& path) {
  // Prepared once: a refresh asks for every cited file's declarations.
  if (symbols_by_path_ == nullptr &&
      sqlite3_prepare_v3(
          db_,
          "SELECT fqn, name, kind, start_line, end_line FROM symbols WHERE path = ? ORDER BY ord",
          -1, SQLITE_PREPARE_PERSISTENT, &symbols_by_path_, nullptr) != SQLITE_OK) {
    fail(db_, file_, "prepare");
  }
  sqlite3_stmt* s = symbols_by_path_;
  std::vector<wiki::Symbol> out;
  int rc = sqlite3_bind_text(s, 1, path.data(), static_cast<int>(path.size()), SQLITE_STATIC);
  const auto text = [s](int col) {
    const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(s, col));
    return p ? std::string(p, static_cast<std::size_t>(sqlite3_column_bytes(s, col))) : "";
  };
  while (rc == SQLITE_OK && (rc = sqlite3_step(s)) == SQLITE_ROW) {
    out.push_back(
        {text(0), text(1), text(2), sqlite3_column_int64(s, 3), sqlite3_column_int64(s, 4)});
    rc = SQLITE_OK;
  }
  sqlite3_reset(s);
  sqlite3_clear_bindings(s);
  if (rc != SQLITE_DONE) fail(db_, file_, "step");
  return out;
}

bool SqliteStore::is_indexed(const std::string& path) {
  if (auto it = indexed_.find(path); it != indexed_.end()) return it->second;
  if (!index_paths_) {
    index_paths_.emplace();
    Statement s(db_, file_, "SELECT path FROM files");
    while (s.step()) index_paths_->insert(s.text(0));
    contained_.emplace(root_);
  }
  const bool known = index_paths_->count(path) != 0 && (*contained_)(path).has_value();
  indexed_.emplace(path, known);
  return known;
}

std::vector<std::unique_ptr<const wiki::PageRow>> SqliteStore::get_wiki_pages(
    const std::string& branch) {
  Statement s(db_, file_,
              "SELECT page_id, rel_path, citations, build_cache, content_hash FROM pages "
              "WHERE branch = ? ORDER BY page_id");
  s.bind(1, branch);
  std::vector<std::unique_ptr<const wiki::PageRow>> rows;
  while (s.step()) rows.push_back(std::make_unique<StoredRow>(s, file_));
  return rows;
}

void SqliteStore::update_wiki_page_citations(const std::string& branch, const wiki::PageRow& row,
                                             wiki::PageUpdate update) {
  const std::optional<wiki::Record> id = row.field("page_id");
  if (!id) throw wiki::MissingKey("page_id");
  const std::string page_id = id->is_string() ? id->get<std::string>() : id->dump();
  transaction([&] {
    if (update.content_hash) {
      Statement keep(db_, file_,
                     "INSERT OR REPLACE INTO page_origins SELECT branch, page_id, citations, "
                     "build_cache, content_hash FROM pages WHERE branch = ? AND page_id = ?");
      keep.bind(1, branch).bind(2, page_id);
      keep.run();
    }
    Statement s(db_, file_,
                "UPDATE pages SET citations = ?, build_cache = ?, "
                "content_hash = coalesce(?, content_hash) WHERE branch = ? AND page_id = ?");
    s.bind(1, dump_citations(update.citations));
    s.bind(2, update.build_cache ? std::optional(dump(*update.build_cache)) : std::nullopt);
    s.bind(3, update.content_hash);
    s.bind(4, branch).bind(5, page_id);
    s.run();
    if (sqlite3_changes(db_) != 1) {
      throw StoreError(file_.string() + ": no page " + page_id + " of branch " + branch);
    }
    pages_changed(branch);
  });
}

std::string SqliteStore::text_hash(const std::string& text) { return sha256_hex(text); }

std::vector<FileFacts> SqliteStore::files() {
  Statement s(db_, file_, "SELECT path, hash, size, mtime_ns, line_count FROM files ORDER BY path");
  std::vector<FileFacts> out;
  while (s.step()) out.push_back({s.text(0), s.text(1), s.integer(2), s.integer(3), s.integer(4)});
  return out;
}

std::optional<FileFacts> SqliteStore::file(const std::string& path) {
  Statement s(db_, file_,
              "SELECT path, hash, size, mtime_ns, line_count FROM files WHERE path = ?");
  s.bind(1, path);
  if (!s.step()) return std::nullopt;
  return FileFacts{s.text(0), s.text(1), s.integer(2), s.integer(3), s.integer(4)};
}

void SqliteStore::apply(const IndexChange& change) {
  indexed_.clear();
  index_paths_.reset();
  contained_.reset();
  transaction([&] {
    Statement put(db_, file_, "INSERT OR REPLACE INTO files VALUES (?, ?, ?, ?, ?)");
    Statement drop_file(db_, file_, "DELETE FROM files WHERE path = ?");
    Statement drop_symbols(db_, file_, "DELETE FROM symbols WHERE path = ?");
    Statement add_symbol(db_, file_, "INSERT INTO symbols VALUES (?, ?, ?, ?, ?, ?, ?)");
    auto put_facts = [&](const FileFacts& f) {
      put.bind(1, f.path).bind(2, f.hash).bind(3, f.size).bind(4, f.mtime_ns).bind(5, f.line_count);
      put.run();
    };
    for (const FileFacts& facts : change.touched) put_facts(facts);
    for (const auto& [facts, symbols] : change.indexed) {
      put_facts(facts);
      drop_symbols.bind(1, facts.path);
      drop_symbols.run();
      std::int64_t ord = 0;
      for (const wiki::Symbol& s : symbols) {
        add_symbol.bind(1, facts.path).bind(2, ord++).bind(3, s.fqn).bind(4, s.name);
        add_symbol.bind(5, s.kind).bind(6, s.start_line).bind(7, s.end_line);
        add_symbol.run();
      }
    }
    for (const std::string& path : change.removed) {
      drop_file.bind(1, path);
      drop_file.run();
      drop_symbols.bind(1, path);
      drop_symbols.run();
    }
    if (change.index_format) {
      exec(kMeta);
      Statement put_format(db_, file_, "INSERT OR REPLACE INTO meta VALUES ('index_format', ?)");
      put_format.bind(1, std::int64_t{*change.index_format});
      put_format.run();
    }
  });
}

int SqliteStore::index_format() {
  Statement has(db_, file_, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'meta'");
  if (!has.step()) return 0;
  Statement s(db_, file_, "SELECT value FROM meta WHERE key = 'index_format'");
  return s.step() ? static_cast<int>(s.integer(0)) : 0;
}

std::vector<StoredPage> SqliteStore::pages(const std::string& branch) {
  std::vector<StoredPage> out;
  each_page(branch, [&](StoredPage&& page) { out.push_back(std::move(page)); });
  return out;
}

void SqliteStore::each_page(const std::string& branch,
                            const std::function<void(StoredPage&&)>& visit) {
  Statement s(db_, file_,
              "SELECT page_id, rel_path, citations, build_cache, content_hash FROM pages "
              "WHERE branch = ? ORDER BY page_id");
  s.bind(1, branch);
  while (s.step()) visit(read_page(s, file_));
}

std::vector<PageHead> SqliteStore::page_heads(const std::string& branch) {
  Statement s(
      db_, file_,
      "SELECT page_id, rel_path, content_hash FROM pages WHERE branch = ? ORDER BY page_id");
  s.bind(1, branch);
  std::vector<PageHead> out;
  while (s.step()) {
    out.push_back({s.text(0), s.text(1), s.null(2) ? std::nullopt : std::optional(s.text(2))});
  }
  return out;
}

void SqliteStore::pages_changed(const std::string& branch) {
  Statement s(db_, file_,
              "UPDATE anchors_files SET written = NULL WHERE branch = ? AND written IS NOT NULL");
  s.bind(1, branch);
  s.run();
}

void SqliteStore::replace_pages(const std::string& branch, const std::vector<StoredPage>& pages,
                                std::optional<std::string> seeded_from) {
  transaction([&] {
    Statement clear(db_, file_, "DELETE FROM pages WHERE branch = ?");
    Statement put(db_, file_, "INSERT INTO pages VALUES (?, ?, ?, ?, ?, ?)");
    clear.bind(1, branch);
    clear.run();
    for (const StoredPage& page : pages) put_page(put, branch, page);
    if (seeded_from) {
      Statement seeded(db_, file_, "INSERT OR REPLACE INTO anchors_files VALUES (?, ?, NULL)");
      seeded.bind(1, branch).bind(2, *seeded_from);
      seeded.run();
      Statement forget(db_, file_, "DELETE FROM history_marks WHERE branch = ?");
      forget.bind(1, branch);
      forget.run();
    } else {
      pages_changed(branch);
    }
  });
}

void SqliteStore::update_pages(const std::string& branch, const std::vector<StoredPage>& changed,
                               const std::vector<std::string>& removed) {
  if (changed.empty() && removed.empty()) return;
  transaction([&] {
    Statement forget(db_, file_, "DELETE FROM page_origins WHERE branch = ?");
    forget.bind(1, branch);
    forget.run();
    Statement put(db_, file_,
                  "INSERT OR REPLACE INTO pages (branch, page_id, rel_path, citations, "
                  "build_cache, content_hash) VALUES (?, ?, ?, ?, ?, ?)");
    for (const StoredPage& page : changed) put_page(put, branch, page);
    Statement drop(db_, file_, "DELETE FROM pages WHERE branch = ? AND page_id = ?");
    for (const std::string& page_id : removed) {
      drop.bind(1, branch).bind(2, page_id);
      drop.run();
    }
    pages_changed(branch);
  });
}

std::optional<StoredPage> SqliteStore::page_origin(const std::string& branch,
                                                   const std::string& page_id) {
  Statement s(db_, file_,
              "SELECT page_id, '', citations, build_cache, content_hash FROM page_origins "
              "WHERE branch = ? AND page_id = ?");
  s.bind(1, branch).bind(2, page_id);
  if (!s.step()) return std::nullopt;
  return read_page(s, file_);
}

std::string SqliteStore::refresh_inputs(const std::string& branch) {
  Digest digest;
  Statement counted(db_, file_,
                    "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'index_revision'");
  if (counted.step()) {
    // The counts, with the index's format (a setting, not a table the triggers watch).
    Statement index(db_, file_, "SELECT n FROM index_revision");
    Statement pages(db_, file_, "SELECT n FROM page_revisions WHERE branch = ?");
    pages.bind(1, branch);
    digest.add("counted");
    digest.add(branch);
    digest.add(std::int64_t{index_format()});
    digest.add(index.step() ? index.integer(0) : std::int64_t{-1});
    digest.add(pages.step() ? pages.integer(0) : std::int64_t{0});
    return digest.hex();
  }
  // Before the counts exist: each query's rows, every column, each query's end marked.
  auto add_rows = [&](const char* sql, const std::string* bind) {
    Statement s(db_, file_, sql);
    if (bind) s.bind(1, *bind);
    sqlite3_stmt* stmt = s.handle();
    const int columns = sqlite3_column_count(stmt);
    while (s.step()) {
      for (int col = 0; col < columns; ++col) digest.add_column(stmt, col);
    }
    digest.add_null();
  };
  digest.add(branch);
  add_rows(
      "SELECT page_id, rel_path, citations, build_cache, content_hash FROM pages "
      "WHERE branch = ? ORDER BY page_id",
      &branch);
  digest.add(std::int64_t{index_format()});
  add_rows("SELECT path, hash, line_count FROM files ORDER BY path", nullptr);
  add_rows(
      "SELECT path, ord, fqn, name, kind, start_line, end_line FROM symbols ORDER BY path, ord",
      nullptr);
  return digest.hex();
}

std::optional<std::string> SqliteStore::kept_refresh(const std::string& branch,
                                                     const std::string& inputs) {
  Statement has(db_, file_,
                "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'kept_refreshes'");
  if (!has.step()) return std::nullopt;
  Statement s(db_, file_, "SELECT result FROM kept_refreshes WHERE branch = ? AND inputs = ?");
  s.bind(1, branch).bind(2, inputs);
  if (!s.step()) return std::nullopt;
  return s.text(0);
}

void SqliteStore::keep_refresh(const std::string& branch, const std::string& inputs,
                               const std::string& result) {
  transaction([&] {
    exec(kKeptRefreshes);
    exec(kRevisions);
    Statement s(db_, file_, "INSERT OR REPLACE INTO kept_refreshes VALUES (?, ?, ?)");
    s.bind(1, branch).bind(2, inputs).bind(3, result);
    s.run();
  });
}

std::optional<std::string> SqliteStore::anchors_seeded(const std::string& branch) {
  Statement s(db_, file_, "SELECT seeded FROM anchors_files WHERE branch = ?");
  s.bind(1, branch);
  if (!s.step() || s.null(0)) return std::nullopt;
  return s.text(0);
}

bool SqliteStore::anchors_current(const std::string& branch, const std::string& hash) {
  Statement s(db_, file_, "SELECT 1 FROM anchors_files WHERE branch = ? AND written = ?");
  s.bind(1, branch).bind(2, hash);
  return s.step();
}

void SqliteStore::anchors_written(const std::string& branch, const std::string& hash) {
  transaction([&] {
    Statement s(db_, file_, "INSERT OR REPLACE INTO anchors_files VALUES (?, ?, ?)");
    s.bind(1, branch).bind(2, hash).bind(3, hash);
    s.run();
  });
}

void SqliteStore::set_history_mark(const std::string& branch, const std::string& mark,
                                   const std::string& anchors_hash) {
  transaction([&] {
    Statement put_mark(db_, file_, "INSERT OR REPLACE INTO history_marks VALUES (?, ?, ?)");
    put_mark.bind(1, branch).bind(2, mark).bind(3, anchors_hash);
    put_mark.run();
  });
}

std::optional<std::string> SqliteStore::history_mark(const std::string& branch,
                                                     const std::string& anchors_hash) {
  Statement s(db_, file_, "SELECT mark FROM history_marks WHERE branch = ? AND anchors = ?");
  s.bind(1, branch).bind(2, anchors_hash);
  if (!s.step()) return std::nullopt;
  return s.text(0);
}

}  // namespace tolbarrow::hosts::native

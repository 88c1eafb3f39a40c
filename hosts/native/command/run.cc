#include "hosts/native/command/run.h"

#include <spdlog/logger.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <map>
#include <set>
#include <string_view>
#include <tuple>
#include <unordered_set>

#include "hosts/native/anchoring.h"
#include "hosts/native/command/anchors.h"
#include "hosts/native/command/git_plumbing.h"
#include "hosts/native/command/history.h"
#include "hosts/native/command/permalinks.h"
#include "hosts/native/command/state_files.h"
#include "hosts/native/command/terminal.h"
#include "hosts/native/first_sight.h"
#include "hosts/native/indexer.h"
#include "hosts/native/landing.h"
#include "hosts/native/native_host.h"
#include "hosts/native/page_sync.h"
#include "hosts/native/process.h"
#include "hosts/native/repo_paths.h"

namespace tolbarrow::hosts::native::command {
namespace fs = std::filesystem;
namespace cr = wiki::citation_refresh;
namespace {

struct Place {
  fs::path root;
  std::string branch;
  fs::path wiki;
  fs::path db;
};

Place locate(const Options& options) {
  Place place;
  const fs::path cwd = fs::current_path();
  if (options.repo) {
    if (!fs::is_directory(*options.repo)) {
      throw CommandError(options.repo->string() + ": no such directory (--repo)");
    }
    place.root = canonical_root(*options.repo);
  } else if (auto top = git_output(cwd, {"rev-parse", "--show-toplevel"}); top && !top->empty()) {
    place.root = canonical_root(*top);
  } else {
    throw CommandError(cwd.string() + ": not inside a git work tree; pass --repo DIR");
  }

  if (options.branch) {
    place.branch = *options.branch;
  } else if (auto name = git_output(place.root, {"symbolic-ref", "--quiet", "--short", "HEAD"})) {
    place.branch = *name;
  } else if (auto commit = git_output(place.root, {"rev-parse", "--verify", "--quiet", "HEAD"})) {
    place.branch = *commit;  // a detached head
  } else if (git_output(place.root, {"rev-parse", "--is-inside-work-tree"}) != "true") {
    throw CommandError(place.root.string() +
                       ": not a git work tree (--repo); pass --branch NAME to refresh it "
                       "without git");
  } else {
    throw CommandError(place.root.string() + ": cannot tell the branch; pass --branch NAME");
  }
  if (place.branch.empty()) throw CommandError("--branch: the branch name is empty");

  place.wiki = options.wiki.is_absolute() ? options.wiki : place.root / options.wiki;
  if (!fs::is_directory(place.wiki)) {
    throw CommandError(place.wiki.string() + ": no such wiki directory (--wiki)");
  }
  place.db = options.db ? fs::absolute(*options.db) : SqliteStore::default_path(place.root);
  refuse_places(place.root, place.wiki, place.db);
  return place;
}

// This repository's forge: --forge-url's, else the `origin` remote's (none when there is no such
// remote, or it names no host and path); with the branch and tag names that may hold a '/'.
std::shared_ptr<const Forge> find_forge(const Options& options, const Place& place,
                                        const std::function<void(const std::string&)>& detail) {
  std::optional<Forge> forge;
  if (options.forge_url) {
    forge = forge_of(*options.forge_url);
    if (!forge) {
      throw CommandError("--forge-url: " + *options.forge_url +
                         " names no host and repository; give it as https://HOST/OWNER/REPO");
    }
  } else if (auto url = git_output(place.root, {"config", "--get", "remote.origin.url"})) {
    forge = forge_of(*url);
  }
  if (!forge) {
    detail("no forge (no origin remote): forge links are not citations");
    return nullptr;
  }
  if (auto refs = git_output(place.root, {"for-each-ref", "--format=%(refname)", "refs/heads",
                                          "refs/tags", "refs/remotes"})) {
    for (const std::string& ref : split(*refs, '\n')) {
      std::string_view name = ref;
      for (const std::string_view prefix : {"refs/heads/", "refs/tags/", "refs/remotes/"}) {
        if (!name.starts_with(prefix)) continue;
        name.remove_prefix(prefix.size());
        if (prefix == "refs/remotes/")
          name.remove_prefix(std::min(name.find('/') + 1, name.size()));
      }
      if (!name.empty() && name != "HEAD") forge->refs.emplace_back(name);
    }
  }
  std::sort(forge->refs.begin(), forge->refs.end());
  detail("forge links of https://" + forge->host + "/" + forge->path + " are citations");
  return std::make_shared<const Forge>(std::move(*forge));
}

// The universal-ctags program: the one found at build time, else the first ctags on PATH that is
// universal-ctags.
std::string find_ctags() {
  if (::access(TOLBARROW_CTAGS, X_OK) == 0) return TOLBARROW_CTAGS;
  const ProcessResult version = run_process({"ctags", "--version"}, fs::current_path());
  if (version.exit_code == 0 && version.out.find("Universal Ctags") != std::string::npos) {
    return "ctags";
  }
  throw CommandError(std::string("ctags: universal-ctags not found (") + TOLBARROW_CTAGS +
                     " is missing" +
                     (version.exit_code == 127 ? "" : ", and the ctags on PATH is another one") +
                     "); install the universal-ctags package");
}

// A copy of the store in a temporary directory, removed when it goes: a run that reports only
// may index and sync into it without changing the repository's store.
class ScratchStore {
 public:
  explicit ScratchStore(const fs::path& db) {
    std::string pattern = (fs::temp_directory_path() / "citation-refresh-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw CommandError(pattern + ": cannot create a temporary directory");
    }
    dir_ = pattern;
    file_ = dir_ / "store.db";
    try {
      if (!db.empty() && fs::exists(db)) copy(db);
    } catch (...) {
      std::error_code ignored;
      fs::remove_all(dir_, ignored);
      throw;
    }
  }
  ~ScratchStore() {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }
  ScratchStore(const ScratchStore&) = delete;
  ScratchStore& operator=(const ScratchStore&) = delete;
  const fs::path& file() const { return file_; }

 private:
  // One consistent snapshot, whatever another process writes meanwhile.
  void copy(const fs::path& db) {
    sqlite3* handle = nullptr;
    auto fail = [&](const std::string& what) {
      const std::string message = handle ? sqlite3_errmsg(handle) : "out of memory";
      sqlite3_close(handle);
      throw CommandError(db.string() + ": " + what + ": " + message);
    };
    // Read-write, so that closing the last connection removes the WAL files it opened; nothing
    // is written.
    if (sqlite3_open_v2(db.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
      fail("cannot open the database");
    }
    sqlite3_busy_timeout(handle, 10000);
    sqlite3_stmt* stmt = nullptr;
    int version = 0;
    if (sqlite3_prepare_v2(handle, "PRAGMA user_version", -1, &stmt, nullptr) != SQLITE_OK) {
      fail("not a database");
    }
    if (sqlite3_step(stmt) == SQLITE_ROW) version = sqlite3_column_int(stmt, 0);
    sqlite3_finalize(stmt);
    if (version > SqliteStore::kSchemaVersion) {
      sqlite3_close(handle);
      throw CommandError(db.string() + ": the database has schema version " +
                         std::to_string(version) + ", newer than version " +
                         std::to_string(SqliteStore::kSchemaVersion) +
                         " that this program knows; refusing to use it");
    }
    const std::string sql = "VACUUM INTO " + wiki::Record(file_.string()).dump();
    if (sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
      fail("cannot copy the database");
    }
    sqlite3_close(handle);
  }

  fs::path dir_;
  fs::path file_;
};

// Citations of files that the index does not hold, which the refresh leaves alone: it moves no
// citation of them, so the keys the sync found are still those of the page texts, but for the
// files followed to their new names before the refresh.
std::vector<MissingCitation> missing_citations(SqliteStore& store, const SyncStats& synced,
                                               const std::vector<FollowedRename>& renamed) {
  std::set<std::pair<std::string, std::string>> followed;  // page id, old path
  for (const FollowedRename& rename : renamed) followed.emplace(rename.page_id, rename.from);
  std::vector<MissingCitation> missing;
  for (const auto& [page_id, keys] : synced.cited) {
    for (const wiki::CitationKey& key : keys) {
      if (key.start < 1 || followed.count({page_id, key.path}) || store.is_indexed(key.path)) {
        continue;
      }
      missing.push_back(
          {page_id, key.path, "L" + std::to_string(key.start) + "-L" + std::to_string(key.end)});
    }
  }
  return missing;
}

// Holds back each page file write of the refresh until the store has taken the page's new
// records (and, with them, the records the page's text was written from, its origin). A run
// stopped between the two leaves the old text with the store's origin of the same hash, which the
// next sync takes back; the other order would leave a new text beside records that are not its.
class StoreBeforePages : public wiki::FileSystem, public wiki::Repository {
 public:
  StoreBeforePages(wiki::FileSystem& files, SqliteStore& store) : files_(files), store_(store) {}

  bool is_file(const fs::path& path) override { return files_.is_file(path); }
  std::string read_file(const fs::path& path) override {
    last_read_ = path;
    return files_.read_file(path);
  }
  void append(const fs::path& path, std::string_view content) override {
    flush();
    wrote_ = true;
    files_.append(path, content);
  }
  void remove_file(const fs::path& path) override {
    flush();
    wrote_ = true;
    files_.remove_file(path);
  }
  void atomic_write(const fs::path& path, std::string_view content) override {
    // The command makes no "digests.json" where the wiki has none.
    if (path.filename() == "digests.json" && !files_.is_file(path)) return;
    flush();
    wrote_ = true;
    if (page_file_name(path)) {
      pending_.emplace(path, std::string(content));
    } else {
      files_.atomic_write(path, content);
    }
  }

  std::vector<wiki::Symbol> get_symbols_by_path(const std::string& path) override {
    return store_.get_symbols_by_path(path);
  }
  bool is_indexed(const std::string& path) override { return store_.is_indexed(path); }
  std::vector<std::unique_ptr<const wiki::PageRow>> get_wiki_pages(
      const std::string& branch) override {
    return store_.get_wiki_pages(branch);
  }
  void update_wiki_page_citations(const std::string& branch, const wiki::PageRow& row,
                                  wiki::PageUpdate update) override {
    wrote_ = true;
    store_.update_wiki_page_citations(branch, row, std::move(update));
    flush();
  }
  std::string text_hash(const std::string& text) override { return store_.text_hash(text); }

  // Writes the page held back, if any.
  void flush() {
    if (!pending_) return;
    const auto [path, content] = std::move(*pending_);
    pending_.reset();
    files_.atomic_write(path, content);
    pages_written_.insert(path.lexically_normal());
  }
  // The page files written.
  const std::set<fs::path>& pages_written() const { return pages_written_; }

  // Whether the refresh wrote anything: a file, or a page to the store.
  bool wrote() const { return wrote_; }
  // The file read last: while the refresh places a page's citations, that page.
  const fs::path& last_read() const { return last_read_; }

 private:
  wiki::FileSystem& files_;
  SqliteStore& store_;
  fs::path last_read_;
  std::optional<std::pair<fs::path, std::string>> pending_;
  std::set<fs::path> pages_written_;
  bool wrote_ = false;
};

// What a refresh reads besides the page texts (which the sync has just found to be those whose
// hashes the store holds): the store's pages and index (SqliteStore::refresh_inputs), this
// program, the repository and the wiki directory. nullopt when the program cannot be told.
std::optional<std::string> refresh_inputs(SqliteStore& store, const Place& place) {
  struct stat program;
  if (::stat("/proc/self/exe", &program) != 0) return std::nullopt;
  const std::string identity =
      std::to_string(program.st_dev) + " " + std::to_string(program.st_ino) + " " +
      std::to_string(program.st_size) + " " + std::to_string(program.st_mtim.tv_sec) + "." +
      std::to_string(program.st_mtim.tv_nsec);
  return sha256_hex(store.refresh_inputs(place.branch) + '\0' + identity + '\0' +
                    place.root.string() + '\0' + place.wiki.string());
}

// The result of a refresh that wrote nothing, as the store keeps it: what was lost (nothing
// moved or was repaired).
std::string kept_text(const cr::CitationRefresh& result) {
  return wiki::Record{{"unrepairable", result.unrepairable}, {"lost", result.lost}}.dump();
}

std::optional<cr::CitationRefresh> from_kept_text(const std::string& text) {
  const wiki::Record kept = wiki::Record::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!kept.is_object()) return std::nullopt;
  const auto unrepairable = kept.find("unrepairable"), lost = kept.find("lost");
  if (unrepairable == kept.end() || !unrepairable->is_number_integer() || lost == kept.end() ||
      !lost->is_array()) {
    return std::nullopt;
  }
  cr::CitationRefresh result;
  result.unrepairable = unrepairable->get<std::int64_t>();
  result.lost.assign(lost->begin(), lost->end());
  return result;
}

// The SHA-256 of a file's bytes as read once, with what stat told of the file just before.
struct KnownHash {
  struct stat before;
  std::string hash;
};

std::optional<KnownHash> read_known(const fs::path& file, std::string& bytes) {
  struct stat before;
  const bool stated = ::stat(file.c_str(), &before) == 0;
  bytes = read_bytes(file);
  if (!stated) return std::nullopt;
  return KnownHash{before, sha256_hex(bytes)};
}

// The SHA-256 of the file's bytes: `known`'s while the file is still the one it was read from
// (same device, inode, size, modification and change times: any write or replacement changes
// one of them), else read again.
std::string known_hash(const fs::path& file, const std::optional<KnownHash>& known) {
  struct stat now;
  if (known && ::stat(file.c_str(), &now) == 0) {
    const struct stat& was = known->before;
    if (now.st_dev == was.st_dev && now.st_ino == was.st_ino && now.st_size == was.st_size &&
        now.st_mtim.tv_sec == was.st_mtim.tv_sec && now.st_mtim.tv_nsec == was.st_mtim.tv_nsec &&
        now.st_ctim.tv_sec == was.st_ctim.tv_sec && now.st_ctim.tv_nsec == was.st_ctim.tv_nsec) {
      return known->hash;
    }
  }
  return sha256_hex(read_bytes(file));
}

// The wiki's write lock, held by a writing run from its first write to its last, and given up
// however the run ends.
class HeldLock {
 public:
  // Takes the lock; false (nothing held) when another process holds it.
  bool take(const fs::path& root, const fs::path& wiki_dir) {
    lock_ = std::make_unique<FlockWriteLock>(root, wiki_dir);
    try {
      lock_->acquire();
      return true;
    } catch (const wiki::WikiBusy&) {
      lock_.reset();
      return false;
    }
  }
  // Gives the lock up; an error of the release reaches the caller.
  void release() {
    if (!lock_) return;
    const std::unique_ptr<FlockWriteLock> lock = std::move(lock_);
    lock->release();
  }
  ~HeldLock() {
    try {
      release();
    } catch (...) {  // the run's own error is on its way
    }
  }

 private:
  std::unique_ptr<FlockWriteLock> lock_;
};

// Writes the anchors file from the store when it changed, its records placed against the work
// tree (write_anchors_placed); under the wiki's write lock. A file that the store knows it wrote,
// with no page changed since, is not read back.
bool write_anchors(SqliteStore& store, const std::string& branch, const fs::path& file,
                   const std::vector<std::string>& cited,
                   const std::optional<KnownHash>& known = std::nullopt) {
  std::error_code error;
  if (fs::exists(file, error) && store.anchors_current(branch, known_hash(file, known))) {
    return false;
  }
  const std::optional<std::string> written = write_anchors_placed(store, branch, file, cited);
  store.anchors_written(branch, written ? *written : known_hash(file, known));
  return written.has_value();
}

// The citations of the pages that the anchors file `anchors` (nullopt: there is none) holds no
// record of, in page order, then text order: --check calls them stale, since a run would anchor
// them against the code as it is then, not as it was when they were written.
std::vector<MissingCitation> unanchored_citations(const std::optional<Anchors>& anchors,
                                                  const SyncStats& synced,
                                                  const std::vector<MissingCitation>& missing) {
  std::set<std::pair<std::string, std::string>> missing_at;  // page id, "path Lx-Ly"
  for (const MissingCitation& m : missing) missing_at.emplace(m.page_id, m.path + " " + m.lines);
  std::vector<MissingCitation> out;
  for (const auto& [page_id, keys] : synced.cited) {
    std::unordered_set<wiki::CitationKey, wiki::CitationKeyHash> recorded;
    if (anchors) {
      if (auto page = anchors->find(page_id); page != anchors->end()) {
        for (const wiki::Record& record : page->second) {
          if (auto key = key_of(record)) recorded.insert(*key);
        }
      }
    }
    std::unordered_set<wiki::CitationKey, wiki::CitationKeyHash> told;
    for (const wiki::CitationKey& key : keys) {
      const std::string lines = "L" + std::to_string(key.start) + "-L" + std::to_string(key.end);
      if (key.start < 1 || recorded.count(key) || !told.insert(key).second ||
          missing_at.count({page_id, key.path + " " + lines})) {
        continue;
      }
      out.push_back({page_id, key.path, lines});
    }
  }
  return out;
}

// The citations the history carried, told apart from those the refresh moved by their
// declaration: each is listed once, as renamed (its file, whatever its lines did) or carried (its
// lines), and counted there, not among the moved or repaired.
void told_carried(Outcome& outcome) {
  cr::CitationRefresh& result = outcome.result;
  auto lines = [](wiki::Line first, wiki::Line last) {
    return "L" + std::to_string(first) + "-L" + std::to_string(last);
  };
  for (const cr::CarriedMove& c : result.carried) {
    const std::string& path = c.to.path.empty() ? c.from.path : c.to.path;
    if (!c.to.path.empty()) {
      outcome.renamed.push_back({c.page_id, c.from.path, path, lines(c.to.first, c.to.last)});
    } else if (c.from.start != c.to.first || c.from.end != c.to.last) {
      ++outcome.translated[c.page_id];
    }
    if (outcome.reported_only) {
      auto moved = result.moved.find(c.page_id);
      if (moved != result.moved.end() && --moved->second == 0) result.moved.erase(moved);
    } else {
      --result.repaired;
    }
  }
}

// Each citation the refresh gives new lines, by page file and key (in key order): the answers of
// the landing check it asks before placing a stored citation, with the page it reads last (the
// refresh reads a page, then places its citations).
using PageMoves =
    std::map<fs::path, std::map<std::tuple<std::string, wiki::Line, wiki::Line>, wiki::LineRange>>;

// It also refuses to place a citation whose lines no file has.
class WatchedLanding : public wiki::LandingCheck {
 public:
  WatchedLanding(wiki::LandingCheck& inner, const StoreBeforePages& pages,
                 wiki::CitationRanges& ranges, const fs::path& root, const Carried& carried)
      : inner_(inner), pages_(pages), ranges_(ranges), root_(root), carried_(carried) {}

  bool accepts(const std::string& path, const wiki::Record& cited, const wiki::Symbol* found,
               wiki::LineRange lines) override {
    const std::optional<wiki::CitationKey> key = key_of(cited);
    // Lines no file has stay as written: reported, never rewritten. Line 0 and a reversed range;
    // and lines past the end of the file for a citation that follows no declaration (one that
    // does may outlive the lines its file lost).
    if (key && (key->start < 1 || key->end < key->start)) return false;
    if (const auto symbol = cited.find("symbol");
        key && (symbol == cited.end() || symbol->is_null())) {
      if (!counts_) counts_ = ranges_.line_counts(root_);
      if (key->end > counts_->count(path)) return false;
    }
    if (!inner_.accepts(path, cited, found, lines)) return false;
    // A citation the history carried is told by the refresh's result, from its key on the page.
    if (key && !carried_.gave(cited) && (key->start != lines.first || key->end != lines.last)) {
      moves_[pages_.last_read()].insert_or_assign({key->path, key->start, key->end}, lines);
    }
    return true;
  }
  const PageMoves& moves() const { return moves_; }

 private:
  wiki::LandingCheck& inner_;
  const StoreBeforePages& pages_;
  wiki::CitationRanges& ranges_;
  fs::path root_;
  std::unique_ptr<wiki::LineCounts> counts_;
  const Carried& carried_;
  PageMoves moves_;
};

// "Lx-Ly" as lines; 0-0 when it is not that.
wiki::LineRange parse_lines(std::string_view text) {
  const std::size_t dash = text.find("-L");
  wiki::LineRange lines;
  if (!text.starts_with("L") || dash == std::string_view::npos) return lines;
  std::from_chars(text.data() + 1, text.data() + dash, lines.first);
  std::from_chars(text.data() + dash + 2, text.data() + text.size(), lines.last);
  return lines;
}

// Why the lines of `key` cannot be in any file, or nothing. `line_count` gives the lines of its
// file when the refresh lost it (nullopt otherwise: a citation placed is not past the end).
std::string invalid_lines(const wiki::CitationKey& key, std::optional<wiki::Line> line_count) {
  if (key.start < 1 || key.end < 1) return "line 0 is no line; lines count from 1";
  if (key.end < key.start) {
    return "the range is reversed: L" + std::to_string(key.start) + " comes after L" +
           std::to_string(key.end);
  }
  if (line_count && key.end > *line_count) {
    return "past the end of the file, which has " + std::to_string(*line_count) +
           (*line_count == 1 ? " line" : " lines");
  }
  return "";
}

// What the run found, one finding per citation on its page (see Outcome::findings).
std::vector<Finding> gather_findings(const Outcome& outcome, SqliteStore& store, const Place& place,
                                     const SyncStats& synced, const PageMoves& moves,
                                     wiki::FileSystem& pages, wiki::CitationRanges& ranges,
                                     const std::shared_ptr<const Forge>& forge) {
  std::map<std::string, std::string> rel_of;  // page id -> path relative to the wiki
  std::map<fs::path, std::string> id_of;      // page file -> page id
  for (PageHead& head : store.page_heads(place.branch)) {
    id_of.emplace(place.wiki / head.rel_path, head.page_id);
    rel_of.emplace(std::move(head.page_id), std::move(head.rel_path));
  }
  std::vector<Finding> found;
  auto add = [&](const std::string& page_id, FindingKind kind, const std::string& path,
                 wiki::LineRange lines) -> Finding& {
    Finding& f = found.emplace_back();
    f.page_id = page_id;
    const auto rel = rel_of.find(page_id);
    f.page = rel == rel_of.end()
                 ? page_id
                 : (place.wiki / rel->second).lexically_relative(place.root).generic_string();
    f.kind = kind;
    f.path = path;
    f.lines = lines;
    return f;
  };

  using PageKey = std::tuple<std::string, std::string, wiki::Line, wiki::Line>;  // page id, key
  // The citations whose landing the landing check took, and their new lines.
  std::map<PageKey, wiki::LineRange> landed;
  for (const auto& [file, keys] : moves) {
    const auto id = id_of.find(file);
    if (id == id_of.end()) continue;
    for (const auto& [key, to] : keys) {
      const auto& [path, start, end] = key;
      landed.emplace(PageKey{id->second, path, start, end}, to);
    }
  }

  // Citations whose lines cannot be in any file: that, rather than what else befell them.
  std::set<PageKey> invalid;
  for (const auto& [page_id, keys] : synced.cited) {
    for (const wiki::CitationKey& key : keys) {
      const std::string why = invalid_lines(key, std::nullopt);
      if (why.empty()) continue;
      add(page_id, FindingKind::invalid, key.path, {key.start, key.end}).reason = why;
      invalid.emplace(page_id, key.path, key.start, key.end);
    }
  }
  std::unique_ptr<wiki::LineCounts> counts;
  std::set<PageKey> lost_at;
  for (const wiki::Record& lost : outcome.result.lost) {
    const std::string page_id = lost.value("page_id", ""), path = lost.value("path", "");
    const wiki::LineRange lines = parse_lines(lost.value("lines", ""));
    lost_at.emplace(page_id, path, lines.first, lines.last);
    if (invalid.count({page_id, path, lines.first, lines.last})) continue;
    std::optional<wiki::Line> line_count;
    if (lines.first >= 1 && store.is_indexed(path)) {
      if (!counts) counts = ranges.line_counts(place.root);
      line_count = counts->count(path);
    }
    const std::string name = lost.value("name", ""), given = lost.value("reason", "");
    std::string reason = !given.empty() ? given
                         : name.empty() ? std::string("no declaration holds these lines")
                                        : "`" + name + "` is gone";
    // A citation whose declaration is gone is lost with it, though its lines also left the file:
    // the declaration is what the reader has to look for.
    const auto gone = [&] {
      if (name.empty()) return false;
      const std::vector<wiki::Symbol> symbols = store.get_symbols_by_path(path);
      return std::none_of(symbols.begin(), symbols.end(),
                          [&](const wiki::Symbol& s) { return s.fqn == name || s.name == name; });
    };
    // A move the refresh held back (another citation of the page has those lines) is lost, not
    // invalid: its lines were valid until its code moved. The refresh gives such a citation a
    // reason telling where its code is (its landing is not always among the watched moves).
    const bool held_back = given.starts_with("its code is at ");
    if (const std::string why = invalid_lines({path, lines.first, lines.last}, line_count);
        !why.empty() && !held_back && !gone()) {
      add(page_id, FindingKind::invalid, path, lines).reason =
          given.empty() ? why : why + "; " + given;
      continue;
    }
    add(page_id, FindingKind::lost, path, lines).reason = std::move(reason);
  }
  const auto valid = [&](const std::string& page_id, const std::string& path,
                         wiki::LineRange lines) {
    return !invalid.count({page_id, path, lines.first, lines.last});
  };
  // A landing the refresh took and then held back (it would have met another citation's key) is
  // told as lost.
  for (const auto& [key, to] : landed) {
    if (lost_at.count(key)) continue;
    const auto& [page_id, path, start, end] = key;
    add(page_id, FindingKind::moved, path, {start, end}).new_lines = to;
  }
  // Each citation the history carried, once: renamed when its file was, else carried.
  for (const cr::CarriedMove& c : outcome.result.carried) {
    const bool renamed = !c.to.path.empty() && c.to.path != c.from.path;
    Finding& f = add(c.page_id, renamed ? FindingKind::renamed : FindingKind::carried, c.from.path,
                     {c.from.start, c.from.end});
    if (renamed) f.new_path = c.to.path;
    f.new_lines = wiki::LineRange{c.to.first, c.to.last};
  }
  for (const MissingCitation& m : outcome.missing) {
    if (valid(m.page_id, m.path, parse_lines(m.lines))) {
      add(m.page_id, FindingKind::missing, m.path, parse_lines(m.lines));
    }
  }
  for (const MissingCitation& m : outcome.unanchored) {
    if (valid(m.page_id, m.path, parse_lines(m.lines))) {
      add(m.page_id, FindingKind::unanchored, m.path, parse_lines(m.lines));
    }
  }
  MarkdownCitationSyntax syntax(forge);
  for (const Misnamed& m : outcome.misnamed) {
    const auto rel = rel_of.find(m.page_id);
    syntax.set_page_folder(rel == rel_of.end() ? std::string()
                                               : page_folder(place.root, place.wiki / rel->second));
    const std::vector<Placed> link = place_citations(syntax, wiki::Text(m.link, "a link"));
    if (link.empty()) continue;
    const wiki::CitationKey& key = link.front().key;
    add(m.page_id, FindingKind::misnamed, key.path, {key.start, key.end}).reason =
        "the prose names `" + m.named + "`, at " + m.named_at + ", which does not hold these lines";
  }
  for (Finding& f : found) {
    f.action =
        outcome.reported_only || (f.kind != FindingKind::moved && f.kind != FindingKind::carried &&
                                  f.kind != FindingKind::renamed);
  }

  // Each finding at each of its citation's places on its page: only the pages with findings are
  // read again.
  std::map<std::string, std::vector<Placed>> placed;
  for (const Finding& f : found) {
    const auto rel = rel_of.find(f.page_id);
    if (rel == rel_of.end() || placed.count(f.page_id)) continue;
    try {
      std::string bytes = pages.read_file(place.wiki / rel->second);
      // CR LF and a lone CR end a line, as the refresh reads them.
      std::string text;
      text.reserve(bytes.size());
      for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] != '\r') {
          text += bytes[i];
        } else if (i + 1 >= bytes.size() || bytes[i + 1] != '\n') {
          text += '\n';
        }
      }
      syntax.set_page_folder(page_folder(place.root, place.wiki / rel->second));
      placed.emplace(f.page_id, place_citations(syntax, wiki::Text(std::move(text), rel->second)));
    } catch (const std::exception&) {
      placed.emplace(f.page_id, std::vector<Placed>());  // gone meanwhile: no places
    }
  }
  // Pages are read as they are on disk: a run that writes nothing finds its citations as they
  // are written, one that writes as it wrote them (carried, then moved).
  const bool written = !outcome.reported_only;
  return at_their_places(std::move(found), placed, [&](const Finding& f) {
    using Key = wiki::CitationKey;
    const Key before{f.path, f.lines.first, f.lines.last};
    if (!written || !f.new_lines ||
        (f.kind != FindingKind::moved && f.kind != FindingKind::carried &&
         f.kind != FindingKind::renamed)) {
      return std::vector<Key>{before};
    }
    return std::vector<Key>{
        {f.new_path.empty() ? f.path : f.new_path, f.new_lines->first, f.new_lines->last}};
  });
}

}  // namespace

Outcome run(const Options& options) {
  const Place place = locate(options);
  check_state_files(place.wiki, kAnchorsFileName);
  const std::string ctags = find_ctags();
  const fs::path anchors_file = place.wiki / kAnchorsFileName;
  std::optional<std::string> anchors;  // the anchors file's bytes
  std::optional<KnownHash> anchors_known;
  if (std::error_code error; fs::exists(anchors_file, error)) {
    anchors_known = read_known(anchors_file, anchors.emplace());
  }
  const std::string anchors_hash =
      anchors ? (anchors_known ? anchors_known->hash : sha256_hex(*anchors)) : "";
  Progress progress(!options.quiet && ::isatty(STDERR_FILENO) == 1);
  auto note = [&](const std::string& line) {
    if (!options.quiet) std::fprintf(stderr, "citation-refresh: %s\n", line.c_str());
  };
  auto detail = [&](const std::string& line) {
    if (options.verbose) note(line);
  };
  detail("repository " + place.root.string() + ", branch " + place.branch + ", wiki " +
         place.wiki.string());
  const std::shared_ptr<const Forge> forge = find_forge(options, place, detail);

  // The anchors file's records, read once: they are the state (seeding below), and --check tells
  // the citations they do not know.
  OlderAnchors older;
  std::optional<Anchors> recorded;
  if (anchors) recorded = parse_anchors(*anchors, anchors_file, &older);

  Outcome outcome;
  outcome.reported_only = options.check;
  // Syncs the pages into `store`, first the anchors file's records unless the store took that
  // file already (the same file again would undo the pages a stopped run rewrote).
  SyncStats synced;
  auto sync = [&](SqliteStore& store) {
    if (!anchors && store.page_heads(place.branch).empty()) {
      note("no " + anchors_file.string() +
           " and no stored pages: anchoring citations from their prose");
    }
    // The committed file rules: a file the store has not taken yet (edited, merged, checked out)
    // replaces the stored records. A file of an earlier version is taken once more, its records
    // given what they were placed against from the marks it kept; the next writing run writes it
    // in the current version.
    if (anchors && (older.version != 0 || store.anchors_seeded(place.branch) != anchors_hash)) {
      Anchors records = *recorded;
      if (older.version != 0) place_from_marks(place.root, older.marks, place.branch, records);
      seed_pages(store, place.branch, records, anchors_hash);
      detail("took the records of " + anchors_file.string());
    }
    MarkdownCitationSyntax syntax(forge);
    progress.begin("reading pages");
    synced = sync_pages(store, syntax, place.branch, place.wiki);
    progress.end();
    for (const std::string& why : synced.skipped) note("skipped " + why);
    detail(std::to_string(synced.pages) + " pages, " + std::to_string(synced.citations_added) +
           " new citations, " + std::to_string(synced.citations_dropped) + " citations gone");
  };

  // A writing run holds the wiki's write lock from here to its end: while another run writes the
  // wiki, this one only reports.
  HeldLock lock;
  std::unique_ptr<SqliteStore> store;
  std::unique_ptr<ScratchStore> scratch;
  if (!options.check) {
    if (lock.take(place.root, place.wiki)) {
      store = open_store(place.root, place.db, note);
      detail("store " + store->file().string());
      sync(*store);
      remove_leftovers(synced.leftovers);
    } else {
      note(std::string(cr::BUSY_MESSAGE));
      outcome.busy = outcome.reported_only = true;
    }
  }
  if (outcome.reported_only) {
    try {
      scratch = std::make_unique<ScratchStore>(place.db);
    } catch (const CommandError&) {
      if (!store_unreadable(place.db)) throw;
      note(place.db.string() +
           ": not a readable database; reporting from the anchors file and "
           "the pages (a writing run sets it aside and rebuilds it)");
      scratch = std::make_unique<ScratchStore>(fs::path());
    }
    store = std::make_unique<SqliteStore>(place.root, scratch->file());
    sync(*store);
  }

  progress.begin("indexing");
  // The wiki's anchors and digest files (the digest journal too) are the tool's state, not code.
  const auto state_file = [&](const fs::path& file) {
    return fs::weakly_canonical(file).lexically_relative(store->repo_root()).generic_string();
  };
  Indexer indexer(*store, ctags,
                  {state_file(anchors_file), state_file(place.wiki / "digests.json"),
                   state_file(place.wiki / std::string(cr::DIGEST_JOURNAL))},
                  state_file(place.wiki));
  indexer.read_already(std::move(synced.read));  // the pages, read and hashed by the sync
  const IndexStats indexed = indexer.update();
  progress.end();
  detail(std::to_string(indexed.files) + " files indexed, " + std::to_string(indexed.reindexed) +
         " read by ctags, " + std::to_string(indexed.removed) + " gone");

  // Where the stored citations stand since what each was placed against (renamed files, git's
  // diff): the refresh asks it of each stored citation and moves those it carries.
  std::vector<std::string> cited;  // the paths the pages cite, each once
  {
    std::unordered_set<std::string_view> seen;
    for (const auto& [page_id, keys] : synced.cited) {
      for (const wiki::CitationKey& key : keys) {
        if (seen.insert(key.path).second) cited.push_back(key.path);
      }
    }
  }
  Carried carried;
  if (options.follow_history) {
    std::error_code error;
    const std::string hash =
        fs::exists(anchors_file, error) ? known_hash(anchors_file, anchors_known) : std::string();
    carried = carry(*store, place.branch, place.wiki, note, !outcome.reported_only, hash, &cited);
    if (!carried.cited.empty()) cited = carried.cited;
  }

  // Citations seen for the first time are anchored where they stand, before the refresh. Only
  // a sync that added citations leaves records to anchor: other runs skip the pass.
  auto first_sight = [&] {
    if (synced.citations_added == 0) return;
    MarkdownCitationSyntax syntax(forge);
    CtagsAnchoring anchoring;
    outcome.misnamed =
        anchor_first_sight(*store, syntax, anchoring, place.branch, place.wiki).misnamed;
  };
  first_sight();

  // A refresh that wrote nothing left all it read as it was: a later refresh that would read the
  // same takes the result kept then instead (see refresh_inputs). Not with citations carried,
  // nor with a digest journal left to finish: the refresh reads those too.
  std::error_code no_journal;
  const bool reusable = carried.records.empty() &&
                        !fs::exists(place.wiki / std::string(cr::DIGEST_JOURNAL), no_journal) &&
                        !no_journal;
  std::optional<std::string> inputs;
  auto kept = [&]() -> std::optional<cr::CitationRefresh> {
    if (!reusable || !(inputs = refresh_inputs(*store, place))) return std::nullopt;
    const std::optional<std::string> text = store->kept_refresh(place.branch, *inputs);
    return text ? from_kept_text(*text) : std::nullopt;
  };

  NativeHost native(*store);
  native.syntax.set_forge(forge);
  native.file_system.allow(place.wiki);
  CountingFileSystem counted(native.file_system, progress);
  StoreBeforePages ordered(counted, *store);
  PageFolders pages(ordered, native.syntax, place.root);
  const std::shared_ptr<spdlog::logger> log = make_refresh_log(options.quiet);
  TextLandingCheck landing(place.root);
  landing.refuse(std::move(carried.gone));
  WatchedLanding watched(landing, ordered, native.ranges, place.root, carried);
  const cr::Host host{.syntax = native.syntax,
                      .anchoring = native.anchoring,
                      .ranges = native.ranges,
                      .file_system = pages,
                      .locks = native.locks,
                      .logger = log,
                      .landing = &watched,
                      // Also without following history (nothing carried): a citation that
                      // follows no declaration then stays where it stands.
                      .history = &carried};
  // Each lost citation whose landing was refused says why.
  auto with_reasons = [&](cr::CitationRefresh result) {
    for (wiki::Record& lost : result.lost) {
      const std::string lines = lost.value("lines", "");
      const std::size_t dash = lines.find("-L");
      if (!lines.starts_with("L") || dash == std::string::npos) continue;
      const wiki::CitationKey key{lost.value("path", ""), std::stoll(lines.substr(1, dash - 1)),
                                  std::stoll(lines.substr(dash + 2))};
      if (auto why = landing.refused().find(key); why != landing.refused().end()) {
        lost["reason"] = why->second;
      }
    }
    return result;
  };
  progress.begin("refreshing pages", synced.pages);
  if (std::optional<cr::CitationRefresh> reused = kept()) {
    outcome.result = std::move(*reused);
  } else if (outcome.reported_only) {
    outcome.result = with_reasons(cr::refresh_citations(host, ordered, place.branch, place.wiki,
                                                        place.root, {.write = false}));
  } else {
    // The lock is held: the refresh writes (refresh_citations_if_free would take it again).
    outcome.result =
        with_reasons(cr::refresh_citations(host, ordered, place.branch, place.wiki, place.root));
    ordered.flush();
    if (inputs && !ordered.wrote()) {
      store->keep_refresh(place.branch, *inputs, kept_text(outcome.result));
    }
  }
  ordered.flush();
  progress.end();
  told_carried(outcome);

  // Permalinks, after the refresh: a page it rewrote is read as written. The lock is still held.
  std::set<fs::path> permalink_pages;
  std::vector<Finding> permalinks = follow_permalinks(
      {place.root, place.wiki, synced.permalinked, forge.get()}, options.update_permalinks,
      !outcome.reported_only, native.file_system, permalink_pages);
  for (const fs::path& page : permalink_pages) {
    if (!ordered.pages_written().count(page.lexically_normal())) ++outcome.result.pages_written;
  }
  // A permalink to a commit the forge does not have yet leads nowhere.
  if (!permalink_pages.empty() && git_output(place.root, {"remote"}).value_or("") != "" &&
      git_output(place.root, {"branch", "--remotes", "--contains", "HEAD"}).value_or("x").empty()) {
    note(
        "permalinks now point at HEAD, which no remote branch holds yet: push it, or they lead "
        "nowhere");
  }

  if (!outcome.reported_only) {
    // The records now stand at the state the carrying worked from.
    if (options.follow_history && !carried.state.empty()) {
      std::error_code error;
      store->set_history_mark(
          place.branch, carried.state,
          fs::exists(anchors_file, error) ? known_hash(anchors_file, anchors_known) : "");
    }
    outcome.anchors_written =
        write_anchors(*store, place.branch, anchors_file, cited, anchors_known);
    if (outcome.anchors_written) detail("wrote " + anchors_file.string());
    lock.release();
  }

  outcome.missing = missing_citations(*store, synced, outcome.renamed);
  if (options.check) outcome.unanchored = unanchored_citations(recorded, synced, outcome.missing);
  outcome.findings = gather_findings(outcome, *store, place, synced, watched.moves(),
                                     native.file_system, native.ranges, forge);
  if (!permalinks.empty()) {
    outcome.findings.insert(outcome.findings.end(), std::make_move_iterator(permalinks.begin()),
                            std::make_move_iterator(permalinks.end()));
    std::stable_sort(
        outcome.findings.begin(), outcome.findings.end(), [](const Finding& a, const Finding& b) {
          return std::tie(a.page, a.line, a.column) < std::tie(b.page, b.line, b.column);
        });
  }
  outcome.stale = std::any_of(outcome.findings.begin(), outcome.findings.end(),
                              [](const Finding& f) { return f.action; });
  return outcome;
}

}  // namespace tolbarrow::hosts::native::command

// The citation refresh: keeps the code citations of a branch's wiki pointing at the code they
// cite. This header presents the whole module: its records, its operations and its start-up.
//
//   auto module = citation_refresh::Module::load(host_modules);
//   CitationRefresh result =
//       module.refresh_citations_if_free(repository, "main", wiki_dir, repo_root);
//
// Everything the module knows of citations, declarations and pages comes through the host
// services of workers/wiki/ (citation_ranges, lock, repo_facts, types, verify, Repository,
// Symbol); it owns no storage and keeps no state between calls. Errors are exceptions; a host's
// error reaches the caller unchanged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "workers/wiki/citation_ranges.h"
#include "workers/wiki/citation_refresh/regex.h"
#include "workers/wiki/lock.h"
#include "workers/wiki/repo_facts.h"
#include "workers/wiki/repository.h"
#include "workers/wiki/symbol.h"
#include "workers/wiki/text.h"
#include "workers/wiki/types.h"
#include "workers/wiki/verify.h"

namespace spdlog {
class logger;
}

namespace tolbarrow::workers::wiki::citation_refresh {

// The module's full name, which is also the name of its logger.
inline constexpr std::string_view MODULE_NAME = "tolbarrow.workers.wiki.citation_refresh";
// The one line the module logs (at info level), when another writer holds the wiki's lock.
inline constexpr std::string_view BUSY_MESSAGE =
    "wiki citation refresh: the wiki is being written; reporting only";

// ---- Errors of the module's own -------------------------------------------------------------

// A record value of the wrong kind where a line number is needed (null, a map, a list).
class RecordTypeError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

// A record value of the right kind that does not hold a usable line number (text that is not a
// decimal integer, a number beyond the range of a line).
class RecordValueError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

// ---- Records ----------------------------------------------------------------------------------

// Map equality of records: the same keys with equal values, whatever their order (nested maps
// likewise). Numbers compare by value (3 equals 3.0).
bool records_equal(const Record& a, const Record& b);

// A record value as a line number: integers as they are, numbers with a fraction truncated
// toward zero, text holding an optionally signed decimal integer with optional surrounding white
// space, true and false as 1 and 0. Anything else throws RecordTypeError (null, maps, lists) or
// RecordValueError (other text, values beyond a 64-bit line). `what` names the value in errors.
Line to_line(const Record& value, std::string_view what);

// A record value as text, for the path of a stored key: text as it is, any other value as its
// JSON text (so that it never equals a real file path).
std::string to_path(const Record& value);

// The stored key of a citation record or digest citation: (`path`, absent ""; `line_start`,
// absent 0; `line_end`, absent 0).
CitationKey stored_key(const Record& record);

// ---- Results ----------------------------------------------------------------------------------

// The result of one refresh. Mutable; a refresh fills it in place.
struct CitationRefresh {
  std::int64_t repaired = 0;       // writing mode: citations whose lines moved and were rewritten
  std::int64_t unrepairable = 0;   // citations whose symbol is gone (entries of `lost`)
  std::int64_t pages_written = 0;  // page files written
  std::vector<Record> lost;        // {page_id, path, lines, name} per unrepairable citation
  nlohmann::ordered_map<std::string, std::int64_t> moved;  // report-only: page id -> moved count
};
// Field-wise equality (the order of `moved` does not count).
bool operator==(const CitationRefresh& a, const CitationRefresh& b);
std::string to_string(const CitationRefresh& result);
std::ostream& operator<<(std::ostream& out, const CitationRefresh& result);

// A lost pair of a page: the citation's key and the name of the declaration it cited.
using LostPair = std::pair<CitationKey, std::string>;

// ---- Start-up ---------------------------------------------------------------------------------

// The host's modules, as the host hands them over. A module the host lacks is nullopt.
struct HostModules {
  std::optional<citation_ranges::Module> citation_ranges;
  std::optional<lock::Module> lock;
  std::optional<repo_facts::Module> repo_facts;
  std::optional<types::Module> types;
  std::optional<verify::Module> verify;
};

// Raised by Module::load when a host module or one of its names cannot be bound. `name` is the
// dotted name that is missing, e.g. "verify.anchored" or "lock".
class HostBindingError : public std::runtime_error {
 public:
  explicit HostBindingError(std::string name);
  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

class Module;

// How a refresh runs: in writing mode (the default) or report-only.
struct RefreshOptions {
  bool write = true;  // false: report only, write nothing anywhere
};

namespace detail {

// How many characters before a citation the claim of a legacy citation is looked for in.
inline constexpr std::size_t CLAIM_WINDOW = 260;
// One backticked span of prose, group 1 its inside.
inline constexpr std::string_view CLAIM_IDENT_PATTERN = "`([^`\\n]{2,80})`";
// The prepared span pattern (compiled once, on first use).
const Regex& CLAIM_IDENT_RE();

// The result of one page's refresh. Entries are in the order the page text first cites them.
struct PageRefresh {
  Moves moves;                    // new range of each citation whose lines change
  KeyedMap<Record> anchors;       // new record of each stored citation whose record changes
  std::vector<LostPair> lost;     // each citation that can no longer be placed

  PageRefresh(Moves moves, KeyedMap<Record> anchors, std::vector<LostPair> lost)
      : moves(std::move(moves)), anchors(std::move(anchors)), lost(std::move(lost)) {}
  friend bool operator==(const PageRefresh&, const PageRefresh&);
};

// The per-refresh cache of cited files: each path's symbols are asked of the index once.
class Files {
 public:
  Files(const Module& module, Repository& repository, std::filesystem::path repo_root);

  // The declarations of `path` (the path exactly as cited), asked of the index on first use and
  // the same list afterwards. A failed query stores nothing.
  const Symbols& symbols(const std::string& path);
  // Whether the index knows `path`; asked anew on every call.
  bool indexed(const std::string& path);
  // The file's line count, from the host's LineCounts object made for this refresh.
  HostValue line_count(const std::string& path) const { return line_count_(path); }

  Repository& repository() const { return repository_; }
  const std::filesystem::path& repo_root() const { return repo_root_; }

 private:
  Repository& repository_;
  std::filesystem::path repo_root_;
  std::unordered_map<std::string, Symbols> symbols_;
  citation_ranges::LineCount line_count_;
};

// Finds the declaration that an anchored citation cites among the file's current `symbols`: by
// fully qualified name, else by name, nearest the old start line; null when there is none.
SymbolPtr find_again(const Symbols& symbols, const Record& citation);

// Chooses the declaration that a legacy citation of lines start..end is anchored to, and the
// range it takes with it, from the identifiers `names` that its claim names (nearest last).
std::pair<SymbolPtr, LineRange> legacy_anchor(const Module& module, const Symbols& symbols,
                                              Line start, Line end,
                                              const std::vector<std::string>& names);

// Works out one page's moves, new anchors and lost citations. Changes nothing.
PageRefresh refresh_page(const Module& module, const Text& text,
                         const std::vector<Record>& citations, Files& files);

// The page's new citation records: each stored record replaced by its anchored record, if any.
std::vector<Record> apply(const std::vector<Record>& citations, const PageRefresh& page);

// The digest map of "digests.json" at `path`; an empty map when it is absent, unreadable, not
// UTF-8, not JSON, or not a JSON object. Never throws.
Record read_digests(const std::filesystem::path& path);

// Moves the citation ranges of one page's digest in place. `digest` may be null (no entry) or any
// JSON value; only a map with citations is changed.
void move_digest_citations(Record* digest, const Moves& moves);

// The text of "digests.json": 2-space indentation, members in the map's order, non-ASCII as
// UTF-8, no line feed at the end.
std::string dump_digests(const Record& digests);

// A build cache as one-line JSON text: ", " between items, ": " after keys, non-ASCII as UTF-8.
std::string dump_one_line(const Record& value);

// The wiki directory's write lock, for a writer that is not the wiki generator.
class WikiDirLock {
 public:
  WikiDirLock(const Module& module, std::filesystem::path wiki_dir);

  // Runs `block` holding the lock: acquires before it (a failed acquisition runs nothing and
  // releases nothing), releases exactly once after it however it ends. An error of the block
  // passes on after the release; an error of the release is the one that reaches the caller.
  void held(const std::function<void()>& block);

 private:
  std::unique_ptr<lock::WriteLockMixin> mixin_;
};

}  // namespace detail

// Where an anchored citation's lines are now, given its declaration as the index holds it now.
// Reads `line_start`, `line_end`, `symbol_start` and `symbol_end` by strict lookup (MissingKey)
// and converts them with to_line. Line arithmetic that would overflow throws RecordValueError.
LineRange relocated_range(const Record& citation, const Symbol& symbol);

// The loaded module: the host services bound at start-up, the logger, and the operations.
class Module {
 public:
  // Binds the host services in order (citation_ranges: LineCounts, fit_range; lock:
  // WriteLockMixin; repo_facts: _atomic_write, _text_hash; types: _CITATION_RE, citation_key;
  // verify: _SKIP_IDENT_EXTS, _UNANCHORED_KINDS, anchor_symbol, anchored, prose_citations,
  // rewrite_citations), then takes `logger` (a new stderr logger named MODULE_NAME when null)
  // and prepares the span pattern. Throws HostBindingError naming the first name it cannot bind.
  // Reads no file, takes no lock and calls no host service.
  static Module load(HostModules host, std::shared_ptr<spdlog::logger> logger = nullptr);

  // Refreshes under the wiki directory's write lock; while another writer holds it, logs
  // BUSY_MESSAGE and only reports.
  CitationRefresh refresh_citations_if_free(Repository& repository, const std::string& branch,
                                            const std::filesystem::path& wiki_dir,
                                            const std::filesystem::path& repo_root) const;

  // Refreshes every citation of the branch's wiki. The caller holds the wiki's write lock when
  // `write` is true.
  CitationRefresh refresh_citations(Repository& repository, const std::string& branch,
                                    const std::filesystem::path& wiki_dir,
                                    const std::filesystem::path& repo_root,
                                    RefreshOptions options = RefreshOptions()) const;

  // The identifiers that the claim before the citation at code-point offset `position` names,
  // nearest last. Reads at most CLAIM_WINDOW characters before `position`.
  std::vector<std::string> claim_identifiers(const Text& text, std::size_t position) const;

  const citation_ranges::Module& citation_ranges() const { return host_.citation_ranges; }
  const lock::Module& lock() const { return host_.lock; }
  const repo_facts::Module& repo_facts() const { return host_.repo_facts; }
  const types::Module& types() const { return host_.types; }
  const verify::Module& verify() const { return host_.verify; }
  spdlog::logger& logger() const { return *logger_; }

 private:
  struct Bound {
    citation_ranges::Module citation_ranges;
    lock::Module lock;
    repo_facts::Module repo_facts;
    types::Module types;
    verify::Module verify;
  };
  Module(Bound host, std::shared_ptr<spdlog::logger> logger);

  Bound host_;
  std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace tolbarrow::workers::wiki::citation_refresh

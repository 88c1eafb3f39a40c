// The citation refresh: keeps the code citations of a branch's wiki pointing at the code they
// cite. This is the module's one public header: what a caller and a host use.
//
//   citation_refresh::Host host{.syntax = ..., .anchoring = ..., .ranges = ...,
//                               .file_system = ..., .locks = ...};
//   CitationRefresh result =
//       citation_refresh::refresh_citations_if_free(host, repository, "main", wiki_dir, root);
//
// Everything the module knows of citations, declarations and pages comes through the host
// interfaces of workers/wiki/ (Repository, CitationSyntax, Anchoring, CitationRanges,
// FileSystem, WriteLocks); it owns no storage and keeps no state between calls. Errors are
// exceptions; a host's error reaches the caller unchanged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "workers/wiki/citation_ranges.h"
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
// The file beside "digests.json" that holds the digest changes of pages a writing refresh has
// written but not yet put in "digests.json"; the next writing refresh finishes them. Like the
// digest file it is the tool's state, not a page or code.
inline constexpr std::string_view DIGEST_JOURNAL = ".digests-pending.json";

// ---- Errors of the module's own ---------------------------------------------------------------
// Besides these: MissingKey (types.h), InvalidUtf8 (text.h) for a page file that is not UTF-8,
// and std::filesystem::filesystem_error.

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

// ---- The host ---------------------------------------------------------------------------------

// The host's services, besides the Repository that each call is given. The refresh calls them on
// the caller's thread, one at a time, and keeps none of them beyond the call.
struct Host {
  CitationSyntax& syntax;
  Anchoring& anchoring;
  CitationRanges& ranges;
  FileSystem& file_system;
  WriteLocks& locks;
  // Where the module's one log line goes; null: a stderr logger named MODULE_NAME.
  std::shared_ptr<spdlog::logger> logger = nullptr;
  // Asked, when given, before a stored citation is given new lines or kept where it is. With it,
  // no citation is moved onto the path and lines that another citation of its page keeps, or
  // moves to as well (the two would become one record): it stays, and is lost with the reason.
  LandingCheck* landing = nullptr;
  // Asked, when given, where each stored citation stands now before its declaration is looked
  // for; a citation it carries to another path or lines is moved like any other. A stored
  // citation without a declaration then stays where the history puts it, or where it stands: it
  // is not anchored from its prose.
  History* history = nullptr;
  // Whether the host sees each service call of the plain refresh, in its order, and nothing else:
  // a cited file's line count is asked of LineCounts for every citation placed, anchored() is
  // called for every citation placed (with or without a stored record, in report-only mode too),
  // and a writing refresh writes a page, updates its record and then moves its digest, reading
  // "digests.json" when the first page with moves has been updated and writing it once after the
  // last page, with no journal beside it. For hosts that observe their calls (the Python host,
  // whose callers count, log and fail them). Otherwise the refresh takes a faster path with the
  // same results: line counts kept per path, anchored() asked only where its record is used, and
  // the digest changes journaled before each page write (DigestFile).
  bool every_call = false;
};

// ---- Results ----------------------------------------------------------------------------------

// A citation that the host's History carried: where it was, and its move.
struct CarriedMove {
  std::string page_id;
  CitationKey from;
  Move to;  // the path stays when to.path is empty
  friend bool operator==(const CarriedMove&, const CarriedMove&) = default;
};

// The result of one refresh.
struct CitationRefresh {
  std::int64_t repaired = 0;       // writing mode: citations whose lines moved and were rewritten
  std::int64_t unrepairable = 0;   // citations whose declaration is gone (entries of `lost`)
  std::int64_t pages_written = 0;  // page files written
  std::vector<Record> lost;        // {page_id, path, lines, name} per unrepairable citation
  nlohmann::ordered_map<std::string, std::int64_t> moved;  // report-only: page id -> moved count
  // With a History: each citation it carried that moved, in page order, then text order.
  std::vector<CarriedMove> carried;
};
// Field-wise equality (the order of `moved` does not count).
bool operator==(const CitationRefresh& a, const CitationRefresh& b);
std::string to_string(const CitationRefresh& result);
std::ostream& operator<<(std::ostream& out, const CitationRefresh& result);

// How a refresh runs: in writing mode (the default) or report-only.
struct RefreshOptions {
  bool write = true;  // false: report only, write nothing anywhere
};

// ---- Operations -------------------------------------------------------------------------------

// Refreshes under the wiki directory's write lock; while another writer holds it, logs
// BUSY_MESSAGE and only reports.
CitationRefresh refresh_citations_if_free(const Host& host, Repository& repository,
                                          const std::string& branch,
                                          const std::filesystem::path& wiki_dir,
                                          const std::filesystem::path& repo_root);

// Refreshes every citation of the branch's wiki. The caller holds the wiki's write lock when
// `options.write` is true.
CitationRefresh refresh_citations(const Host& host, Repository& repository,
                                  const std::string& branch, const std::filesystem::path& wiki_dir,
                                  const std::filesystem::path& repo_root,
                                  RefreshOptions options = RefreshOptions());

// The identifiers that the claim before the citation at code-point offset `position` names,
// nearest last. Reads at most 260 characters before `position`. Throws std::out_of_range when
// `position` is past the end of the text.
std::vector<std::string> claim_identifiers(const Host& host, const Text& text,
                                           std::size_t position);

// Where an anchored citation's lines are now, given its declaration as the index holds it now.
// Reads `line_start`, `line_end`, `symbol_start` and `symbol_end` (MissingKey when one is
// absent). Line arithmetic that would overflow throws RecordValueError.
LineRange relocated_range(const Record& citation, const Symbol& symbol);

// Map equality of records: the same keys with equal values, whatever their order (nested maps
// likewise). Numbers compare by value (3 equals 3.0).
bool records_equal(const Record& a, const Record& b);

}  // namespace tolbarrow::workers::wiki::citation_refresh

// One run of citation-refresh: sync the wiki's pages into the store, bring the index up to date,
// refresh the citations, keep the anchors file, and find the citations of files not in the index.
#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "hosts/native/command/findings.h"
#include "hosts/native/command/history.h"
#include "hosts/native/first_sight.h"
#include "workers/wiki/citation_refresh.h"

namespace tolbarrow::hosts::native::command {

namespace wiki = tolbarrow::workers::wiki;

struct Options {
  std::optional<std::filesystem::path> repo;  // default: the git work tree around the cwd
  std::filesystem::path wiki = "docs";        // relative: to the repository root
  std::optional<std::string> branch;          // default: the current branch, or HEAD's commit
  std::optional<std::filesystem::path> db;    // default: SqliteStore::default_path
  bool check = false;                         // report only, persisting nothing
  // Before the refresh, follow renamed files and carry citations across git's diff since the
  // commit the wiki was last refreshed at.
  bool follow_history = true;
  // This repository's address on its forge (https://github.com/OWNER/REPO), whose file links are
  // citations too; default: read from the `origin` remote.
  std::optional<std::string> forge_url;
  // Point each permalink whose code moved at HEAD's commit and the lines there.
  bool update_permalinks = false;
  bool quiet = false;
  bool verbose = false;
};

// A failure the user can act on; the message names the file or program and the problem.
class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A citation of a file that the index does not hold (deleted, moved, mistyped).
struct MissingCitation {
  std::string page_id;
  std::string path;
  std::string lines;  // "Lx-Ly"
};

struct Outcome {
  wiki::citation_refresh::CitationRefresh result;
  std::vector<MissingCitation> missing;  // in page order, then text order
  // --check: citations the anchors file holds no record of (a run would anchor them), in page
  // order, then text order.
  std::vector<MissingCitation> unanchored;
  bool reported_only = false;    // --check, or another run was writing the wiki
  bool busy = false;             // another run was writing the wiki
  bool anchors_written = false;  // the anchors file changed
  // Carried from where the wiki was last refreshed, before the refresh (see history.h).
  std::vector<FollowedRename> renamed;
  std::map<std::string, std::int64_t> translated;  // page id -> citations
  // New citations whose prose names a declaration that does not hold their lines.
  std::vector<Misnamed> misnamed;
  // Every finding above, one per citation on its page, in page order, then page line and column;
  // with the citations whose lines cannot be in any file (invalid).
  std::vector<Finding> findings;
  // Whether a finding needs action: with --check, whether the docs are stale.
  bool stale = false;
};

// Runs the command. Notes and progress go to stderr (none when quiet); errors are exceptions.
Outcome run(const Options& options);

}  // namespace tolbarrow::hosts::native::command

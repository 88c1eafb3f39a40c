// Where the wiki's citations stand in the repository's history: what each was placed against,
// and from there where it is in the work tree now. A cited file that git says was renamed is
// followed, and the lines of each anchored citation (and of its declaration) are translated
// through git's diff of the cited file where git says those lines did not change. The refresh
// asks this of each stored citation (Carried, the core's History) and moves it as it decides.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "hosts/native/command/git_plumbing.h"
#include "hosts/native/command/hunks.h"
#include "hosts/native/landing.h"
#include "hosts/native/store.h"
#include "workers/wiki/repo_facts.h"
#include "workers/wiki/verify.h"

namespace tolbarrow::hosts::native::command {

namespace wiki = tolbarrow::workers::wiki;

// What a citation was placed against travels with its record, so that any run, on any branch and
// in any clone, can carry it from there to the work tree: `blob`, the git blob id of the cited
// file's content when the record's lines were last placed, and `text`, a hash of the cited lines'
// text then (cited_text_hash, landing.h). A record whose path or lines change loses both; the
// anchors file's writer gives them anew from the work tree (place_records).
inline constexpr const char* kBlobMember = "blob";
inline constexpr const char* kTextMember = "text";

// Gives the records of an anchors file of the first format their `blob` from the work tree's
// mark that file kept for the branch under "refreshed" (`marks`; the one mark there when none is
// the branch's): the mark's blob for a file that differed from its commit, else the commit's
// blob of the file. Records that have a blob, or whose file the commit does not hold, stay.
void place_from_marks(const std::filesystem::path& root, const wiki::Record& marks,
                      const std::string& branch,
                      std::map<std::string, std::vector<wiki::Record>>& pages);

// Writes the anchors file from the branch's stored pages when its text would change, after giving
// every record without `blob` and `text` those of the work tree now (stored with it). `cited`,
// the paths the pages cite, says which files' state the records now stand at: it is kept in the
// store as the state they were carried to (SqliteStore::history_mark, with the new file's
// SHA-256), so that the next run with nothing changed carries nothing at the cost of reading no
// record. Returns the SHA-256 of the text written, nullopt when nothing was written. Under the
// wiki's write lock.
std::optional<std::string> write_anchors_placed(SqliteStore& store, const std::string& branch,
                                                const std::filesystem::path& file,
                                                const std::vector<std::string>& cited);

// A citation whose file was renamed, now pointing at the new path.
struct FollowedRename {
  std::string page_id;
  std::string from;
  std::string to;
  std::string lines;  // "Lx-Ly", after translation
};

// Where the branch's stored citations stand in the work tree, from what each was placed against:
// the refresh asks it of each stored citation before it looks for its declaration (the core's
// History), so that one decision moves a citation's link, its digest entry and its record.
struct Carried : wiki::History {
  // Page id -> stored key -> the record the citation is carried to: its path and lines now, its
  // declaration's lines now, and `blob` and `text` of the work tree at those lines.
  std::unordered_map<std::string, wiki::KeyedMap<wiki::Record>> records;
  // The paths the pages cite after the carrying, each once, sorted.
  std::vector<std::string> cited;
  // The state of those files (state_of their blobs): where the records stand once the refresh has
  // taken the carrying (SqliteStore::set_history_mark).
  std::string state;
  // Citations whose declaration is gone while another of its name, which stood elsewhere in the
  // file when they were placed, would take them: by path and lines as stored, why they are lost
  // ("`a.f` is gone; `b.f` is at src/a.py#L3-L5").
  std::unordered_map<wiki::CitationKey, std::string, wiki::CitationKeyHash> gone;

  const wiki::Record* carried(std::string_view page_id, const wiki::Record& cited) override;
  // Whether `record` is one that carried() gave.
  bool gave(const wiki::Record& record) const { return given_.count(&record) != 0; }

 private:
  std::unordered_set<const wiki::Record*> given_;
};

// Works out where the branch's stored citations stand in the work tree: a cited file that git
// says was renamed is followed; an anchored record's lines are translated through git's diff from
// its `blob` to the file now where git says they are unchanged (within its declaration found again
// when they changed); and a record whose cited text (`text`) is no longer where the refresh would
// put it is carried to the place within its declaration that holds that text, when one does.
// Nothing is written: the refresh moves what it carries. `note` gets one line when some blobs are
// not in the repository (a shallow clone): their records are checked by their text alone. With
// `keep_blobs`, the work tree's contents of the cited files are written to git's object store,
// so that a later run can diff from them.
//
// `anchors_hash` is the anchors file's SHA-256 now ("" for none). `cited`, when given, lists the
// paths the branch's pages cite (as the page sync found them): a work tree in the state the
// records were last carried to (SqliteStore::history_mark) is told without reading the stored
// records, and nothing is carried.
Carried carry(SqliteStore& store, const std::string& branch, const std::filesystem::path& wiki_dir,
              const std::function<void(const std::string&)>& note, bool keep_blobs,
              const std::string& anchors_hash, const std::vector<std::string>* cited = nullptr);

// ---- The carrying's parts ----
namespace detail {

// `record` carried through `map`: its lines translated when git says both are unchanged, its
// declaration's first and last line then too (a changed one keeps its distance from the cited
// lines, so that the refresh's offset stays what it was). nullopt: left as it is.
std::optional<wiki::Record> translated(const wiki::Record& record, const LineMap& map);

// Whether a citation whose lines git says changed is carried by a diff within its declaration:
// it lies inside its stored declaration and is not all of it (for those outside, or of all of
// it, the refresh's own rule is exact).
bool carried_within(const wiki::Record& record);

// A citation inside its declaration carried through `inner`, the diff of the declaration's lines
// then against the lines of the declaration `now` that the refresh finds again: the cited lines'
// places among the declaration's lines, when that diff says they are unchanged, and the
// declaration's lines now. nullopt: left to the refresh.
std::optional<wiki::Record> within_declaration(const wiki::Record& record, const wiki::Symbol* now,
                                               const LineMap& inner);

// Where the `count` lines whose text has the hash `text` (cited_text_hash) are within lines
// within.first..within.last of `content`: of several places, the one whose first line is nearest
// `near`, the earlier of two as near; nullopt when there is none.
std::optional<wiki::LineRange> find_text(std::string_view content, const std::string& text,
                                         wiki::Line count, wiki::LineRange within, wiki::Line near);

// Whether two qualified names name one declaration whose signature changed: equal once the
// parameter list is left out (C++ functions carry their parameter types) and an anonymous
// namespace's generated name ("__anon" and hex digits, which depend on the file's path and on how
// many anonymous scopes come before it) is read as "__anon", and a test macro named in a scope
// (TEST_F, TEST_P: a class declared in a test's body) as TEST.
bool same_but_signature(std::string_view a, std::string_view b);

// The declaration among `symbols` that the one named `fqn` became when its qualified name changed
// only in its signature (same_but_signature): the only one so named. Null when one has `fqn`
// itself, or none or several are so named.
const wiki::Symbol* renamed_in_signature(const std::vector<wiki::Symbol>& symbols,
                                         std::string_view fqn);

}  // namespace detail

}  // namespace tolbarrow::hosts::native::command

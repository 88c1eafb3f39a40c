// Where the wiki stands in the repository's history, and carrying its citations from there to
// the work tree before the refresh: a cited file that git says was renamed is followed, and the
// lines of each anchored citation (and of its declaration) are translated through git's diff of
// the cited file where git says those lines did not change. The refresh then decides as always.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/native/store.h"
#include "workers/wiki/repo_facts.h"

namespace tolbarrow::hosts::native::command {

namespace wiki = tolbarrow::workers::wiki;

// The anchors file's member that keeps, per branch, the state the records were refreshed at.
inline constexpr const char* kRefreshedKey = "refreshed";

// The state of the work tree when a branch's wiki was last refreshed: the commit checked out,
// whether every cited file matched it, and for each cited file that did not, the git blob of the
// content the citations were placed in.
struct Mark {
  std::string commit;
  bool clean = true;
  std::map<std::string, std::string> dirty;  // cited path -> blob id
  friend bool operator==(const Mark&, const Mark&) = default;
};

// A mark from its JSON object; `fail` (which throws) is told what is wrong with it.
Mark parse_mark(const wiki::Record& json, const std::function<void(const std::string&)>& fail);

// The mark the anchors file `file` keeps for `branch`; nullopt when it has none (a file written
// before marks were kept, or no file). The caller has read the file once already, so it parses.
std::optional<Mark> read_mark(const std::filesystem::path& file, const std::string& branch);

// The mark to carry the branch's records from: the one the store keeps with the records it last
// carried (SqliteStore::history_mark), while the anchors file `anchors_file` is the file of that
// time (its SHA-256 `anchors_hash`, "" when there is none); else the anchors file's own.
std::optional<Mark> carried_from(SqliteStore& store, const std::string& branch,
                                 const std::filesystem::path& anchors_file,
                                 const std::string& anchors_hash);

// The work tree's mark now, for the cited files `paths`; nullopt before the first commit. With
// `keep_blobs`, the content of each changed cited file is written to git's object store, so that
// a later run can diff from it. `wiki`, the wiki directory relative to `root` (wiki_in), is not
// looked at but for the cited files in it.
std::optional<Mark> current_mark(const std::filesystem::path& root,
                                 const std::vector<std::string>& paths, bool keep_blobs,
                                 const std::string& wiki = {});

// The wiki directory `wiki_dir` relative to the repository root `root`, as current_mark takes it:
// "" when it is not inside the root.
std::string wiki_in(const std::filesystem::path& root, const std::filesystem::path& wiki_dir);

// Writes the anchors file for the branch's pages when its records changed, or when it has no
// mark for the branch: then with `mark(paths)` as the branch's mark, `paths` the paths the pages'
// records cite (each once, sorted). A file whose records did not change keeps its mark, so that a
// run after a commit does not rewrite it. Returns the SHA-256 of the text it wrote, nullopt when it
// wrote nothing. A file written with a new mark has it kept in the store too
// (SqliteStore::history_mark, with that SHA-256), so that the next run need not read the file for
// it. Under the wiki's write lock.
std::optional<std::string> write_anchors_marked(
    SqliteStore& store, const std::string& branch, const std::filesystem::path& file,
    const std::function<std::optional<Mark>(const std::vector<std::string>&)>& mark);

// A citation whose file was renamed, now pointing at the new path.
struct FollowedRename {
  std::string page_id;
  std::string from;
  std::string to;
  std::string lines;  // "Lx-Ly", after translation
};

struct Carried {
  std::vector<FollowedRename> renamed;             // in page order, then record order
  std::map<std::string, std::int64_t> translated;  // page id -> citations whose lines changed
  // Without writing: page file -> its new text, for each page that changed. The store already
  // holds the records.
  std::map<std::filesystem::path, std::string> texts;
  bool empty() const { return renamed.empty() && translated.empty(); }
};

// Carries the branch's stored citations from `mark` to the work tree: renames, then line
// translation, as the header says. `note` gets one line when the mark's commit is not in the
// repository (a shallow clone): then nothing is carried.
//
// A writing run (`write`, under the wiki's write lock) never carries the same diff twice, and
// never leaves a page file, its records and its digest apart, wherever it stops. One store
// transaction holds the carried records, the pages' origins, each page still to rewrite (its old
// and new text's hashes, the citation keys that change, the digest's changes) and the work tree's
// mark as the one the records now stand at; the mark is kept even when nothing moved, so that a
// refresh that moves the records later in the run is never followed by a carry from the older
// mark. Only then are the page files and "digests.json" written (finish_carried). A run stopped
// before the transaction carried nothing; one stopped after it is finished by the next writing run
// before it reads any page. Without `write`, the store (a scratch copy) takes the records and the
// new texts are returned.
//
// `anchors_hash` is the anchors file's SHA-256 now ("" for none), kept with the mark. `cited`, when
// given, lists the paths the branch's pages cite (as the page sync found them): a work tree in the
// mark's state for each of them is told without reading the stored records.
Carried carry(SqliteStore& store, const std::string& branch, const std::filesystem::path& wiki_dir,
              const Mark& mark, const std::function<void(const std::string&)>& note, bool write,
              const std::string& anchors_hash, const std::vector<std::string>* cited = nullptr);

// Brings the page files and "digests.json" to the records that the store took for them by
// carrying: a page file that still has the text its new one was made from is rewritten (the new
// text made again must have the hash recorded with it); each digest change of a page whose file
// now has its new text applies to the digest citation at its index that still has its old key,
// so that finishing twice changes nothing the second time. Then forgets the pages to rewrite.
// Under the wiki's write lock, before the pages are read.
void finish_carried(SqliteStore& store, const std::string& branch,
                    const std::filesystem::path& wiki_dir);

// A file system that answers reads of the files in `texts` from memory and everything else from
// `base`, to which writes go. A run that writes nothing refreshes the carried pages through it.
class OverlayFileSystem : public wiki::FileSystem {
 public:
  OverlayFileSystem(wiki::FileSystem& base, std::map<std::filesystem::path, std::string> texts)
      : base_(base), texts_(std::move(texts)) {}
  bool is_file(const std::filesystem::path& path) override;
  std::string read_file(const std::filesystem::path& path) override;
  void atomic_write(const std::filesystem::path& path, std::string_view content) override;
  void append(const std::filesystem::path& path, std::string_view content) override {
    base_.append(path, content);
  }
  void remove_file(const std::filesystem::path& path) override { base_.remove_file(path); }

 private:
  wiki::FileSystem& base_;
  std::map<std::filesystem::path, std::string> texts_;
};

// ---- The carrying's parts ----
namespace detail {

// One hunk of `git diff -U0`: old lines [old_start, old_start + old_count) became new lines
// [new_start, new_start + new_count). A count of 0 is an insertion (or removal) after the start.
struct Hunk {
  wiki::Line old_start, old_count, new_start, new_count;
};

// Old line -> new line through one file's hunks.
class LineMap {
 public:
  explicit LineMap(std::vector<Hunk> hunks) : hunks_(std::move(hunks)) {}

  // The new line of an old line that git says is unchanged; nullopt for a changed line.
  std::optional<wiki::Line> unchanged(wiki::Line n) const {
    wiki::Line delta = 0;
    for (const Hunk& h : hunks_) {
      if (h.old_count > 0 && h.old_start <= n && n < h.old_start + h.old_count) return std::nullopt;
      const wiki::Line after = h.old_count > 0 ? h.old_start + h.old_count : h.old_start + 1;
      if (n >= after) delta += h.new_count - h.old_count;
    }
    return n + delta;
  }

  // The new line of an old line, also for a line changed in place: one of a hunk that replaced
  // as many lines as it removed takes the same place among the new ones.
  std::optional<wiki::Line> in_place(wiki::Line n) const {
    if (auto line = unchanged(n)) return line;
    for (const Hunk& h : hunks_) {
      if (h.old_start <= n && n < h.old_start + h.old_count && h.old_count == h.new_count) {
        return h.new_start + (n - h.old_start);
      }
    }
    return std::nullopt;
  }

 private:
  std::vector<Hunk> hunks_;
};

// The hunks of a `git diff -U0` output.
std::vector<Hunk> parse_hunks(const std::string& diff);

// Old path -> new path from the output of `git diff --name-status -z --diff-filter=R`.
std::map<std::string, std::string> parse_renames(std::string_view name_status);

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

}  // namespace detail

}  // namespace tolbarrow::hosts::native::command

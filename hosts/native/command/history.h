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

// The mark the anchors file `file` keeps for `branch`; nullopt when it has none (a file written
// before marks were kept, or no file). The caller has read the file once already, so it parses.
std::optional<Mark> read_mark(const std::filesystem::path& file, const std::string& branch);

// The work tree's mark now, for the cited files `paths`; nullopt before the first commit. With
// `keep_blobs`, the content of each changed cited file is written to git's object store, so that
// a later run can diff from it.
std::optional<Mark> current_mark(const std::filesystem::path& root,
                                 const std::vector<std::string>& paths, bool keep_blobs);

// Writes the anchors file for the branch's pages when its records changed, or when it has no
// mark for the branch: then with `mark()` as the branch's mark. A file whose records did not
// change keeps its mark, so that a run after a commit does not rewrite it. Returns whether it
// wrote. Under the wiki's write lock.
bool write_anchors_marked(SqliteStore& store, const std::string& branch,
                          const std::filesystem::path& file,
                          const std::function<std::optional<Mark>()>& mark);

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
  // Page file -> its new text, for each page that changed. The store already holds the records.
  std::map<std::filesystem::path, std::string> texts;
  bool empty() const { return renamed.empty() && translated.empty(); }
};

// Carries the branch's stored citations from `mark` to the work tree: renames, then line
// translation, as the header says. Changes the store's records (one transaction) and returns the
// pages' new texts for the caller to write (or keep in memory, for a run that writes nothing).
// `note` gets one line when the mark's commit is not in the repository (a shallow clone): then
// nothing is carried.
Carried carry(SqliteStore& store, const std::string& branch, const std::filesystem::path& wiki_dir,
              const Mark& mark, const std::function<void(const std::string&)>& note);

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

}  // namespace tolbarrow::hosts::native::command

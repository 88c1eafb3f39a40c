// Paths that citations and the index name inside a repository, and what they may lead to.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "workers/wiki/repo_facts.h"
#include "workers/wiki/types.h"

namespace tolbarrow::hosts::native {

namespace wiki = tolbarrow::workers::wiki;

// The file that `rel` names under `root`, or nullopt when it must never be read: `rel` is empty,
// absolute, holds a NUL byte or a ".." component, or leads outside `root` once symbolic links are
// followed. `root` should be canonical (see canonical_root). Nothing is read; the file need not
// exist.
std::optional<std::filesystem::path> contained_path(const std::filesystem::path& root,
                                                    std::string_view rel);

// contained_path for many paths under one root, each directory's symbolic links followed once:
// a directory's resolution is kept for every later path in it, and a path in it costs one lstat
// (or the full walk when it is itself a link). A path whose components are not all plain names
// ("a//b", "./a") takes contained_path's own walk. Keep it no longer than the tree stays as it
// is: a directory replaced by a link meanwhile would still resolve as before.
class ContainedPaths {
 public:
  // `root` should be canonical (see canonical_root).
  explicit ContainedPaths(std::filesystem::path root) : root_(std::move(root)) {}
  std::optional<std::filesystem::path> operator()(std::string_view rel);
  // As above; when the lstat taken on the way found the file and no symbolic link there, that
  // status (which is then the file's stat) is put in `status` and `stated` is set, so that a
  // caller needs no stat of its own.
  std::optional<std::filesystem::path> operator()(std::string_view rel, struct stat& status,
                                                  bool& stated);
  const std::filesystem::path& root() const { return root_; }

 private:
  std::filesystem::path root_;
  // Directory relative to the root -> its weakly canonical path; nullopt where that failed.
  std::unordered_map<std::string, std::optional<std::filesystem::path>> dirs_;
};

// The canonical form of a repository root; throws std::filesystem::filesystem_error naming it when
// it does not exist.
std::filesystem::path canonical_root(const std::filesystem::path& root);

// Number of lines of `bytes`: its line breaks, plus one for a last line without one. An empty
// file has no lines.
wiki::Line count_lines(std::string_view bytes);

// The whole content of the file at `path`; throws std::filesystem::filesystem_error naming it.
std::string read_bytes(const std::filesystem::path& path);

// `after`, the text of `before` as the refresh read it (CR LF and lone CR as LF) with changes
// inside its lines, with each line's end as it was in `before`. `after` as it is when the two do
// not have the same lines (then some change was not inside a line).
std::string keep_line_ends(std::string_view before, std::string_view after);

// The operating system's file system that reads and writes only files lying inside the
// repository (or a directory allowed besides it, such as a wiki kept elsewhere) once symbolic
// links are followed: a page or "digests.json" that is a link to somewhere else is refused,
// read_file throwing std::filesystem::filesystem_error naming it, instead of copied into the
// repository, and no write leaves the repository.
//
// A write reaches its folder from the root one name at a time, never through a symbolic link
// that appeared after the path was resolved. atomic_write writes a link's target (which must lie
// inside) and leaves the link; it keeps a ".md" page's line ends (see keep_line_ends), and writes
// an unnamed temporary file that is named only for the rename, so that a kill leaves nothing
// behind. append and remove_file never follow a link in the file's own place.
class ContainedFileSystem : public wiki::RealFileSystem {
 public:
  // `root` should be canonical (see canonical_root).
  explicit ContainedFileSystem(std::filesystem::path root) : roots_{std::move(root)} {}
  void allow(const std::filesystem::path& dir);
  std::string read_file(const std::filesystem::path& path) override;
  void atomic_write(const std::filesystem::path& path, std::string_view content) override;
  void append(const std::filesystem::path& path, std::string_view content) override;
  void remove_file(const std::filesystem::path& path) override;

 private:
  // Where a write of `path` goes: its folder, open, and the name in it.
  struct Place {
    int dir;
    std::string name;
    std::filesystem::path real;
  };
  Place place_to_write(const std::filesystem::path& path, bool follow) const;

  std::vector<std::filesystem::path> roots_;
};

}  // namespace tolbarrow::hosts::native

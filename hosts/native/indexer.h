// The repository's index of declarations, made with universal-ctags and kept in the store.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/native/store.h"

namespace tolbarrow::hosts::native {

// The files of the repository at `root`, relative to it: `git ls-files -co --exclude-standard` in
// a git work tree (tracked and untracked files, not the ignored ones), else every file of a walk
// that skips hidden folders.
std::vector<std::string> repository_files(const std::filesystem::path& root);

// ctags' scope separator for `language`: "::" for C and C++, "." for every other language.
std::string_view scope_separator(std::string_view language);

// One tag of ctags' JSON output: the declaration as ctags names it (fqn: scope and name joined
// with the language's separator; a declaration given no end line ends at its start line), and the
// fields that tell declarations of one name apart.
struct CtagsTag {
  wiki::Symbol symbol;
  std::string language;
  std::string scope;
  std::string signature;  // "(int a,const char * b) const", as ctags gives it; "" when none
  bool typed = false;     // ctags gave a type (a C++ function's return type; never a macro's)
  std::string typeref;    // that type, "int" for ctags' "typename:int"; "" when none
};

// Tags by file from ctags' JSON output, in ctags' order.
std::vector<std::pair<std::string, std::vector<CtagsTag>>> parse_ctags_json(
    std::string_view output);

// The index's declarations of one file from its tags (in ctags' order, which is the file's
// order) and its text. Declarations that ctags names alike are told apart as hosts/native/README.md
// describes: test-framework macro bodies take their identity from their arguments, C++ functions
// carry their parameter types in their fqn, Python property setters and deleters carry the
// decorator's attribute, and Python declarations that only type checkers see are kept apart from
// the implementation: an @overload stub carries its signature, whatever an `if TYPE_CHECKING:`
// branch declares carries a marker.
std::vector<wiki::Symbol> identify(std::vector<CtagsTag> tags, std::string_view text);

// The format of the declarations identify() makes; a store holding another is re-indexed.
inline constexpr int kIndexFormat = 3;

// What one update did.
struct IndexStats {
  std::size_t files = 0;      // files of the repository now in the index
  std::size_t reindexed = 0;  // files given to ctags
  std::size_t touched = 0;    // files whose size or mtime changed but whose content did not
  std::size_t removed = 0;    // files that left the index
};

class Indexer {
 public:
  // Files per ctags process.
  static constexpr std::size_t kBatch = 500;

  // Markdown files larger than this are indexed without declarations: the time ctags' markdown
  // parser takes grows with the square of the file (a 1 MB page of 1,000 sections: 19 s).
  static constexpr std::int64_t kMarkdownParseLimit = 256 * 1024;

  // `ctags`: the program to run; the one found at build time when not given. `state_files`:
  // files of the tool's own state (paths relative to the repository root, such as the wiki's
  // anchors and digest files), which are never indexed as code. `wiki_dir`: the wiki directory
  // relative to the root ("." for the root itself, empty for none); its pages (`*.md`) are
  // indexed as files but never given to ctags.
  explicit Indexer(SqliteStore& store, std::optional<std::string> ctags = std::nullopt,
                   std::vector<std::string> state_files = {}, std::string wiki_dir = {});

  // Whether ctags reads the file at `path` (relative to the root) of `size` bytes for its
  // declarations: every file but the wiki's pages and markdown files over kMarkdownParseLimit.
  // The others are indexed as files (hash, size, line count), with no declarations.
  bool parsed(const std::string& path, std::int64_t size) const;

  // Brings the store's index up to date with the work tree. A file is read only when its size or
  // mtime differs from the index's, and given to ctags only when its content hash differs too
  // (every file is, once, when the store's index_format is not kIndexFormat);
  // the store's database files, and files that cannot be passed safely, are left out of the index:
  // those that are no regular file,
  // lead outside the repository through a symbolic link, or have a line break in their name.
  IndexStats update();

  // Files read already (by the page sync, say), by path relative to the root: update() takes the
  // hash and line count of one whose stat still tells what it told before that read, instead of
  // reading the file again.
  void read_already(std::map<std::string, ReadFile> files) { read_already_ = std::move(files); }

  // ctags processes this indexer started.
  std::size_t ctags_runs() const { return ctags_runs_; }

 private:
  std::vector<std::pair<std::string, std::vector<CtagsTag>>> run_ctags(
      const std::vector<std::string>& paths);

  SqliteStore& store_;
  std::vector<std::string> state_files_;
  std::string wiki_dir_;
  std::string ctags_;
  std::size_t ctags_runs_ = 0;
  std::map<std::string, ReadFile> read_already_;
};

}  // namespace tolbarrow::hosts::native

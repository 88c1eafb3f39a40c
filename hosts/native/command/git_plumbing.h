// What the carrying asks of git: file contents by object name, line maps of many diffs in one
// process, renames seen from the last commit that has a path, and the blob id of each cited file
// in the work tree. Each function runs git in the repository root; a git that fails throws
// CommandError naming the git command, and a git that is not installed says so.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "hosts/native/command/hunks.h"

namespace tolbarrow::hosts::native::command {

// git's output with its last line breaks trimmed, or nullopt when git fails (a question such as
// "is there a HEAD?"); CommandError only when git is not installed.
std::optional<std::string> git_output(const std::filesystem::path& root,
                                      std::vector<std::string> args);

// The non-empty fields of `text` between `sep`s.
std::vector<std::string> split(std::string_view text, char sep);

// The line map of each pair's old text to its new text by git's own diff: one git process for
// all of them.
std::vector<LineMap> diff_lines(const std::filesystem::path& root,
                                const std::vector<std::pair<std::string, std::string>>& pairs);

// Contents of git objects ("commit:path" or a blob id), nullopt for one that is not there, in
// one git process.
std::vector<std::optional<std::string>> cat_files(const std::filesystem::path& root,
                                                  const std::vector<std::string>& names);

// Old path -> new path for the cited files `gone` from the work tree that git's rename detection
// says were renamed: each diffed from the last commit that has it (HEAD, or the parent of the
// last commit that touched it), so that a rename committed on any branch, or not committed at
// all (a plain `mv`), is followed. Paths whose history this clone does not have stay unfollowed.
std::map<std::string, std::string> renames_of(const std::filesystem::path& root,
                                              const std::vector<std::string>& gone);

// The git blob id of each of `paths` as the work tree holds it now (git's null id, forty zeros,
// for one that is gone); one `git status`, one `git ls-files` and, for the files that differ
// from git's index, one `git hash-object`. With `keep_blobs`, those contents are written to git's
// object store, so that a later run can diff from them. `wiki`, the wiki directory relative to
// the root (wiki_in), is left out of the status but for the cited files in it. Empty when the
// root is no git work tree.
std::map<std::string, std::string> work_tree_blobs(const std::filesystem::path& root,
                                                   const std::vector<std::string>& paths,
                                                   bool keep_blobs, const std::string& wiki = {});

// One text for the work tree's state of the cited files: equal texts, the same content of every
// one of them. A run that finds the state its records were last carried to has nothing to carry.
std::string state_of(const std::map<std::string, std::string>& blobs);

// The full id of the commit `name` names ("1a2b3c4", "HEAD"); nullopt when this clone has none.
std::optional<std::string> commit_of(const std::filesystem::path& root, const std::string& name);

// The shortest name of `commit` of at least `digits` hexadecimal digits that is still unique.
std::string short_id(const std::filesystem::path& root, const std::string& commit,
                     std::size_t digits);

// Old path -> new path for the files that git's rename detection says were renamed from commit
// `from` to commit `to`.
std::map<std::string, std::string> renames_between(const std::filesystem::path& root,
                                                   const std::string& from, const std::string& to);

// The wiki directory `wiki_dir` relative to the repository root `root`, as work_tree_blobs takes
// it: "" when it is not inside the root.
std::string wiki_in(const std::filesystem::path& root, const std::filesystem::path& wiki_dir);

}  // namespace tolbarrow::hosts::native::command

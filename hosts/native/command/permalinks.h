// Permalinks: forge links to a commit of this repository, such as
// https://github.com/o/r/blob/1a2b3c4/src/a.py#L10-L20. They are frozen on purpose, so the refresh
// never moves them; a run tells where the code each one cites stands at HEAD (git's diff of its
// file from that commit, renames followed), and can point those whose code moved at HEAD's
// commit and the lines there.
#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "hosts/native/citation_syntax.h"
#include "hosts/native/command/findings.h"
#include "workers/wiki/repo_facts.h"

namespace tolbarrow::hosts::native::command {

struct PermalinkPages {
  std::filesystem::path root, wiki_dir;
  // The pages with permalinks: page id and path relative to `wiki_dir`.
  std::vector<std::pair<std::string, std::string>> pages;
  const Forge* forge = nullptr;
};

// One finding per permalink whose code is not where the link has it at HEAD: at other lines or
// in a renamed file (new_lines, new_path), changed since, gone, or at a commit this clone lacks
// (reason); in page order, then page line and column. A permalink whose lines git's diff leaves
// unchanged and in place says nothing. With `update`, each one whose code moved unchanged gets
// new_commit, HEAD's id as long as the one written; with `write` too, each page holding such a
// permalink is written through `files` with them pointed there (nothing else on the page changes),
// and its file added to `written`. Pages are read through `files`.
std::vector<Finding> follow_permalinks(const PermalinkPages& pages, bool update, bool write,
                                       wiki::FileSystem& files,
                                       std::set<std::filesystem::path>& written);

}  // namespace tolbarrow::hosts::native::command

// Anchoring citations seen for the first time, in place: to the declaration holding their lines.
#pragma once

#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/native/citation_syntax.h"
#include "hosts/native/store.h"
#include "workers/wiki/verify.h"

namespace tolbarrow::hosts::native {

// A citation whose prose names a declaration that does not hold its lines.
struct Misnamed {
  std::string page_id;
  wiki::Line page_line = 0;  // 1-based line of the page where the link starts
  std::string link;          // the link as written, "[parse](/src/a.py#L3-L5)"
  std::string named;         // the name as the prose writes it, "Parser.parse"
  std::string named_at;      // where that declaration is, "src/a.py#L10-L20"
};

struct FirstSightStats {
  std::size_t anchored = 0;  // records given their declaration
  std::vector<Misnamed> misnamed;
};

namespace detail {

// The names of the backticked spans in `prose` (the text before a link, back to the previous
// citation), nearest the link last: a call's arguments are left off (`mod.f()` is "mod.f", and
// `Class::method(int)` is "Class::method"), and a span holding a path, white space or nothing
// like a name is none.
std::vector<std::string> prose_names(std::string_view prose);

// Whether `name` names `symbol` of the file `path`: its parts (split at "::" and ".") are the last
// parts of the declaration's qualified name, which the file's module path ("pkg.mod" for
// pkg/mod.py) may precede. All of them count: `Class::method` names no other `method`.
bool names_symbol(std::string_view name, const wiki::Symbol& symbol, std::string_view path);

}  // namespace detail

// Gives every record of `branch` that has no declaration yet (a citation neither the anchors file
// nor the store has seen) the declaration holding its lines, without changing them: the
// innermost one, or among several holders the innermost one that the prose before the citation
// names. A record whose lines no declaration holds is left as it is. When the prose names
// declarations of the file and none of them holds the lines, the citation is anchored all the
// same and listed in `misnamed` (the name nearest the link, and where that declaration is).
// Pages are read from `wiki_dir`; the records that change are stored in one transaction.
FirstSightStats anchor_first_sight(SqliteStore& store, MarkdownCitationSyntax& syntax,
                                   wiki::Anchoring& anchoring, const std::string& branch,
                                   const std::filesystem::path& wiki_dir);

}  // namespace tolbarrow::hosts::native

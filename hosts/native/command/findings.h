// What a run found, one finding per citation on its page, and the three ways the command prints
// them: compiler-style lines, GitHub workflow annotations and JSON.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "workers/wiki/text.h"
#include "workers/wiki/types.h"
#include "workers/wiki/verify.h"

namespace tolbarrow::hosts::native::command {

namespace wiki = tolbarrow::workers::wiki;

// What became, or would become, of a citation. A new kind is one more value here, one more name
// in kind_name() and one more wording in describe().
enum class FindingKind {
  moved,       // its declaration moved: the refresh gives it new lines
  carried,     // carried across git's diff of its file to new lines
  renamed,     // its file was renamed: it follows the file
  lost,        // its declaration is gone, or its lines changed beyond recognition
  missing,     // its file is not in the repository
  unanchored,  // --check: the anchors file has no record of it
  misnamed,    // new, and its prose names a declaration that does not hold its lines
  invalid,     // its lines cannot be in any file: line 0, reversed, past the end of the file
  permalink,   // a forge link to an older commit whose code is elsewhere at HEAD, or gone
};

// The JSON and annotation name of `kind`: "moved", "lost", "missing", ...
std::string_view kind_name(FindingKind kind);

struct Finding {
  std::string page;       // the page file, relative to the repository root: "docs/guide.md"
  std::string page_id;    // the page's id: "guide"
  wiki::Line line = 0;    // 1-based page line where the link starts; 0 when it was not found
  wiki::Line column = 0;  // 1-based, in characters (code points) of that line
  std::string link;       // the link as written: "[parse](/src/a.py#L10-L12)"
  FindingKind kind = FindingKind::lost;
  std::string path;  // the cited path, as the page has it
  wiki::LineRange lines;
  std::string new_path;                      // renamed: the file's new path
  std::optional<wiki::LineRange> new_lines;  // moved, carried, renamed: the lines now
  std::string reason;                        // lost, invalid, misnamed, permalink: why
  // permalink: the commit as the link has it, and HEAD's that --update-permalinks points it at
  // (empty when it is left as it is).
  std::string commit, new_commit;
  // Whether a person (or a writing run) has to act: everything a run that wrote nothing found,
  // and what no run can fix (lost, missing, invalid, misnamed).
  bool action = true;
};

// A citation as the findings write it: "src/a.py#L10-L12", or "src/a.py#L7" for one line.
std::string cited(std::string_view path, wiki::LineRange lines);

// The finding's line after its "page:line:column: ": "src/a.py#L10-L12 -> #L14-L16 (moved)".
// `written`: the run wrote its changes (else they are what a run would do).
std::string describe(const Finding& finding, bool written);

// The finding as a compiler-style line: "docs/guide.md:42:17: src/a.py#L10-L12 -> ...".
std::string compiler_line(const Finding& finding, bool written);

// The finding as a GitHub workflow command: "::error file=docs/guide.md,line=42,col=17::...";
// a warning when it needs no action.
std::string github_line(const Finding& finding, bool written);

// The finding as a member of the JSON "findings" list (see the command's README).
nlohmann::ordered_json finding_json(const Finding& finding);

// GitHub's escapes for a workflow command's message (%, CR, LF) and, with `property`, also for a
// property value (':' and ',').
std::string github_escape(std::string_view text, bool property);

// The 1-based line and column (in code points) of byte offsets of one text, asked in increasing
// order so that each byte is counted once (an earlier offset starts over). A line ends at LF, CR
// LF or a lone CR, as the refresh reads lines.
class LineCursor {
 public:
  explicit LineCursor(std::string_view bytes) : bytes_(bytes) {}
  std::pair<wiki::Line, wiki::Line> at(std::size_t offset);

 private:
  std::string_view bytes_;
  std::size_t at_ = 0;
  wiki::Line line_ = 1, column_ = 1;
};

// Where each citation of one page text stands: its key, 1-based line and column (in code points)
// and the link as written, in text order.
struct Placed {
  wiki::CitationKey key;
  wiki::Line line = 0;
  wiki::Line column = 0;
  std::string link;
};
std::vector<Placed> place_citations(wiki::CitationSyntax& syntax, const wiki::Text& text);

// The findings given each occurrence of their citation on their page: a finding whose key is on
// the page `n` times becomes `n` findings, one per place; one whose key is not there stays, with
// line 0. `pages` holds the citations of each finding's page, by page id; `keys` gives the keys
// the finding's citation may have on the page, the first found counting. Sorted by page, then
// line and column.
std::vector<Finding> at_their_places(
    std::vector<Finding> findings, const std::map<std::string, std::vector<Placed>>& pages,
    const std::function<std::vector<wiki::CitationKey>(const Finding&)>& keys);

}  // namespace tolbarrow::hosts::native::command

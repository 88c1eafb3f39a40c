// Markdown citations: links whose target is a repository-root-relative path with a line fragment,
// such as [the parser](/src/parse.py#L10-L12) or [main](/src/main.cc#L7).
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "workers/wiki/verify.h"

namespace tolbarrow::hosts::native {

namespace wiki = tolbarrow::workers::wiki;

// A byte range [begin, end) of a page text.
struct ByteRange {
  std::size_t begin = 0;
  std::size_t end = 0;
};

// The byte ranges of `text` that are code, in text order: fenced code blocks (``` and ~~~, from
// the opening fence line through the closing one, or to the end of the text when unclosed) and
// inline code spans (a run of n backticks up to the next run of exactly n backticks in the same
// paragraph). A fence may be indented by any run of spaces and tabs, so that fences inside list
// items count.
std::vector<ByteRange> code_ranges(std::string_view text);

// `path` with every %XX escape (two hexadecimal digits) replaced by its byte; a '%' that does not
// start such an escape stays as it is.
std::string percent_decode(std::string_view path);

class MarkdownCitationSyntax : public wiki::CitationSyntax {
 public:
  // A citation's key is its percent-decoded path without the leading '/', and its lines (#L7 is
  // lines 7 to 7). Links inside code are not citations.
  void find(const wiki::Text& text,
            const std::function<void(const wiki::Citation&)>& each) override;
  // A plain search for the citation pattern that does not look at code blocks or spans.
  std::optional<std::size_t> last_end(const wiki::Text& text, std::size_t start,
                                      std::size_t end) override;
  // Rewrites only the line fragment of each moved citation: #Lx when its new range is one line,
  // #Lx-Ly otherwise; and its path, for a move to another path (written with %XX escapes for the
  // bytes a citation's path cannot hold). A path that stays is kept as written.
  std::string rewrite(const wiki::Text& text, const wiki::Moves& moves) override;
};

}  // namespace tolbarrow::hosts::native

// What a citation cited, kept as the text of its lines, and the refresh's landings checked against
// it: a citation is given new lines only where they hold text like what it cited.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "workers/wiki/types.h"
#include "workers/wiki/verify.h"

namespace tolbarrow::hosts::native {

namespace wiki = tolbarrow::workers::wiki;

// The text of lines first..last (1-based) of a file's content, as a record keeps it (`text`):
// each line, without its line end and trailing white space, as the first 4 hex digits of its
// SHA-256, separated by spaces; for more than kLinesKept lines, "#" and 16 hex digits of the
// SHA-256 of all of them. "" when the lines are not all in the content.
inline constexpr wiki::Line kLinesKept = 64;
std::string cited_text_hash(std::string_view content, wiki::Line first, wiki::Line last);

// Whether the text `now` (cited_text_hash) is like the text `then`: at least half the lines of
// the longer of the two are lines of the other, in the same order. A text kept whole ("#...") is
// like only itself.
bool similar_text(std::string_view then, std::string_view now);

// The work tree's files under a repository root, each read once, by path relative to the root; a
// path that leads outside the root, or to no regular file, has no content.
class WorkTreeFiles {
 public:
  explicit WorkTreeFiles(std::filesystem::path root) : root_(std::move(root)) {}
  const std::optional<std::string>& operator()(const std::string& path);

 private:
  std::filesystem::path root_;
  std::map<std::string, std::optional<std::string>> contents_;
};

// Refuses a landing that holds other code: when the refresh would give a citation other lines, or
// found its declaration only by its name under another qualified name, the new lines must hold text
// like what the citation cited (its record's `text`). A citation of a whole declaration found by
// its qualified name (its parameter types aside) follows it whatever its body became. A citation
// that follows no declaration is checked wherever it lands, in place too. A record without `text`
// is taken as it lands. Files are read from the work tree under `root`, each once.
class TextLandingCheck : public wiki::LandingCheck {
 public:
  explicit TextLandingCheck(std::filesystem::path root) : content_(std::move(root)) {}

  bool accepts(const std::string& path, const wiki::Record& cited, const wiki::Symbol* found,
               wiki::LineRange lines) override;

  // Citations known to be lost before the refresh (their declaration gone, say), by path and
  // lines, with why: refused wherever they would land.
  void refuse(std::unordered_map<wiki::CitationKey, std::string, wiki::CitationKeyHash> known) {
    refused_.insert(known.begin(), known.end());
    known_ = std::move(known);
  }

  // Why each refused citation was refused, by its path and lines as cited: "`a.f` is gone; `b.f`
  // is at src/b.py#L3-L5", or "the cited lines changed beyond recognition".
  const std::unordered_map<wiki::CitationKey, std::string, wiki::CitationKeyHash>& refused() const {
    return refused_;
  }

 private:
  WorkTreeFiles content_;
  std::unordered_map<wiki::CitationKey, std::string, wiki::CitationKeyHash> refused_, known_;
};

}  // namespace tolbarrow::hosts::native

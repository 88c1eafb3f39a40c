// How citations anchor to ctags declarations, and how their ranges fit their files.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "hosts/native/store.h"
#include "workers/wiki/citation_ranges.h"
#include "workers/wiki/verify.h"

namespace tolbarrow::hosts::native {

// Anchoring over ctags' kind vocabulary (long kind names).
//
// Unanchored kinds are those of declarations too small or too vague to follow a citation by:
// variables, constants, locals, parameters, enumerators, extern variables; imports, includes,
// modules, packages and namespaces; and "unknown". "member" stays anchored: it is the kind of
// Python methods as well as of C++ data members.
class CtagsAnchoring : public wiki::Anchoring {
 public:
  const std::vector<std::string>& file_name_endings() override;
  bool unanchored_kind(const std::string& kind) override;
  // The innermost declaration (the shortest span) whose lines hold all of first..last, skipping
  // unanchored kinds; among equal spans, the first in index order.
  const wiki::Symbol* anchor_symbol(std::span<const wiki::Symbol> symbols, wiki::Line first,
                                    wiki::Line last) override;
  // Sets symbol (the fqn), name, symbol_start and symbol_end; every other key stays in place.
  wiki::Record anchored(const wiki::Record& citation, wiki::LineRange lines,
                        const wiki::Symbol* symbol) override;
};

// Line counts from the index where its facts are current (same size and mtime as the file on
// disk), else from the file itself; a file is counted once per refresh. A path that is missing,
// no regular file, or not safe to read (see contained_path) has 0 lines.
class IndexCitationRanges : public wiki::CitationRanges {
 public:
  explicit IndexCitationRanges(SqliteStore& store) : store_(store) {}
  std::unique_ptr<wiki::LineCounts> line_counts(const std::filesystem::path& repo_root) override;
  // first..last clamped into 1..line_count; nullopt when the file has no lines, the range starts
  // past its end, ends before line 1, or ends before it starts.
  std::optional<wiki::LineRange> fit_range(wiki::Line first, wiki::Line last,
                                           wiki::Line line_count) override;

 private:
  SqliteStore& store_;
};

}  // namespace tolbarrow::hosts::native

// Line numbers through a diff: the hunks of `git diff -U0` and the map they make from a file's
// old lines to its new ones, and the renames of `git diff --name-status`.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "workers/wiki/types.h"

namespace tolbarrow::hosts::native::command {

namespace wiki = tolbarrow::workers::wiki;

// One hunk of `git diff -U0`: old lines [old_start, old_start + old_count) became new lines
// [new_start, new_start + new_count). A count of 0 is an insertion (or removal) after the start.
struct Hunk {
  wiki::Line old_start, old_count, new_start, new_count;
};

// Old line -> new line through one file's hunks.
class LineMap {
 public:
  explicit LineMap(std::vector<Hunk> hunks) : hunks_(std::move(hunks)) {}

  // The new line of an old line that git says is unchanged; nullopt for a changed line.
  std::optional<wiki::Line> unchanged(wiki::Line n) const { return across(n, false); }

  // The old line of a new line that git says is unchanged; nullopt for a changed line.
  std::optional<wiki::Line> old_of(wiki::Line n) const { return across(n, true); }

  // The new line of an old line, also for a line changed in place: one of a hunk that replaced
  // as many lines as it removed takes the same place among the new ones.
  std::optional<wiki::Line> in_place(wiki::Line n) const {
    if (auto line = unchanged(n)) return line;
    for (const Hunk& h : hunks_) {
      if (h.old_start <= n && n < h.old_start + h.old_count && h.old_count == h.new_count) {
        return h.new_start + (n - h.old_start);
      }
    }
    return std::nullopt;
  }

 private:
  // Line `n` of one side of the hunks (the old one; `backwards`: the new one) on the other side,
  // when no hunk changed it.
  std::optional<wiki::Line> across(wiki::Line n, bool backwards) const {
    wiki::Line delta = 0;
    for (const Hunk& h : hunks_) {
      const wiki::Line start = backwards ? h.new_start : h.old_start;
      const wiki::Line count = backwards ? h.new_count : h.old_count;
      const wiki::Line other = backwards ? h.old_count : h.new_count;
      if (count > 0 && start <= n && n < start + count) return std::nullopt;
      if (n >= (count > 0 ? start + count : start + 1)) delta += other - count;
    }
    return n + delta;
  }

  std::vector<Hunk> hunks_;
};

// The hunks of a `git diff -U0` output.
std::vector<Hunk> parse_hunks(const std::string& diff);

// Old path -> new path from the output of `git diff --name-status -z --diff-filter=R`.
std::map<std::string, std::string> parse_renames(std::string_view name_status);

}  // namespace tolbarrow::hosts::native::command

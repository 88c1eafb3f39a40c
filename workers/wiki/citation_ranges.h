// File line counts and fitting a citation's range into its file.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "workers/wiki/types.h"

namespace tolbarrow::workers::wiki {

// Every call may throw; the error reaches the caller of the refresh unchanged.

// The line counts of one refresh's cited files.
class LineCounts {
 public:
  virtual ~LineCounts() = default;
  // The number of lines of `path` (relative to the repository root); what it is for a missing
  // file is the host's choice, as long as fit_range understands it.
  virtual Line count(const std::string& path) = 0;
};

class CitationRanges {
 public:
  virtual ~CitationRanges() = default;
  // The line counts of files under `repo_root`. Made once per refresh.
  virtual std::unique_ptr<LineCounts> line_counts(const std::filesystem::path& repo_root) = 0;
  // The range first..last fitted into a file of `line_count` lines, or nullopt when the citation
  // can no longer be placed there (it is then reported lost). `line_count` is a count that
  // LineCounts::count just gave.
  virtual std::optional<LineRange> fit_range(Line first, Line last, Line line_count) = 0;
};

}  // namespace tolbarrow::workers::wiki

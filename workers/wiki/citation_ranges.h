// The host module `citation_ranges`: file line counts and fitting a range into a file.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "workers/wiki/types.h"

namespace tolbarrow::workers::wiki::citation_ranges {

// Every service may raise; the module catches nothing of them, so the error reaches the caller of
// the refresh unchanged. Services are called on the caller's thread, one at a time.

// A `LineCounts` object: called with a path relative to the repository root, it gives that file's
// line count in the form `fit_range` takes it (a Line for C++ hosts; what it is for a missing
// file is the host's choice).
using LineCount = std::function<HostValue(const std::string& path)>;

struct Module {
  // `LineCounts(repo_root)`: made once per refresh.
  std::function<LineCount(const std::filesystem::path& repo_root)> LineCounts;
  // `fit_range(first, last, line_count)`: the range fitted into the file, or nullopt when the
  // citation can no longer be placed there (it is then reported lost).
  std::function<std::optional<LineRange>(Line, Line, const HostValue&)> fit_range;
};

}  // namespace tolbarrow::workers::wiki::citation_ranges

// Reading whole files, for page texts and "digests.json".
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

namespace tolbarrow::workers::wiki::citation_refresh::internal {

// Reads the whole file at `path` into `out`; on failure sets `error` and leaves `out` unspecified.
void read_bytes(const std::filesystem::path& path, std::string& out, std::error_code& error);

}  // namespace tolbarrow::workers::wiki::citation_refresh::internal

#include "hosts/native/repo_paths.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>

namespace tolbarrow::hosts::native {
namespace fs = std::filesystem;

fs::path canonical_root(const fs::path& root) { return fs::canonical(root); }

std::optional<fs::path> contained_path(const fs::path& root, std::string_view rel) {
  if (rel.empty() || rel.find('\0') != std::string_view::npos) return std::nullopt;
  const fs::path relative{std::string(rel)};
  if (relative.is_absolute() || relative.has_root_name() || relative.has_root_directory()) {
    return std::nullopt;
  }
  for (const fs::path& part : relative) {
    if (part == "..") return std::nullopt;
  }
  // weakly_canonical follows every symbolic link of the part that exists.
  std::error_code error;
  const fs::path resolved = fs::weakly_canonical(root / relative, error);
  if (error) return std::nullopt;
  const auto root_end =
      std::mismatch(root.begin(), root.end(), resolved.begin(), resolved.end()).first;
  if (root_end != root.end() || resolved == root) return std::nullopt;
  return resolved;
}

namespace {

bool inside(const fs::path& file, const fs::path& dir) {
  return std::mismatch(dir.begin(), dir.end(), file.begin(), file.end()).first == dir.end();
}

}  // namespace

void ContainedFileSystem::allow(const fs::path& dir) {
  std::error_code error;
  const fs::path real = fs::weakly_canonical(dir, error);
  if (!error) roots_.push_back(real);
}

std::string ContainedFileSystem::read_file(const fs::path& path) {
  std::error_code error;
  const fs::path real = fs::canonical(path, error);
  if (!error && std::none_of(roots_.begin(), roots_.end(),
                             [&](const fs::path& root) { return inside(real, root); })) {
    throw fs::filesystem_error("leads outside the repository to " + real.string(), path,
                               std::make_error_code(std::errc::permission_denied));
  }
  return RealFileSystem::read_file(path);
}

wiki::Line count_lines(std::string_view bytes) {
  if (bytes.empty()) return 0;
  const auto breaks = static_cast<wiki::Line>(std::count(bytes.begin(), bytes.end(), '\n'));
  return breaks + (bytes.back() == '\n' ? 0 : 1);
}

std::string read_bytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw fs::filesystem_error("cannot read file", path,
                               std::error_code(errno ? errno : EIO, std::generic_category()));
  }
  std::ostringstream out;
  out << in.rdbuf();
  if (in.bad()) {
    throw fs::filesystem_error("cannot read file", path, std::make_error_code(std::errc::io_error));
  }
  return out.str();
}

}  // namespace tolbarrow::hosts::native

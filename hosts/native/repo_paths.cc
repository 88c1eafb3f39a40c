#include "hosts/native/repo_paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace tolbarrow::hosts::native {
namespace fs = std::filesystem;

fs::path canonical_root(const fs::path& root) { return fs::canonical(root); }

namespace {

// Whether `rel` may name a file under a root at all: not empty, no NUL byte, relative, no "..".
bool relative_inside(std::string_view rel) {
  if (rel.empty() || rel.find('\0') != std::string_view::npos) return false;
  const fs::path relative{std::string(rel)};
  if (relative.is_absolute() || relative.has_root_name() || relative.has_root_directory()) {
    return false;
  }
  for (const fs::path& part : relative) {
    if (part == "..") return false;
  }
  return true;
}

// `resolved` when it lies strictly inside `root`.
std::optional<fs::path> inside_root(const fs::path& root, fs::path resolved) {
  const auto root_end =
      std::mismatch(root.begin(), root.end(), resolved.begin(), resolved.end()).first;
  if (root_end != root.end() || resolved == root) return std::nullopt;
  return resolved;
}

// Whether every '/'-separated component of `rel` is a name other than "." and "..".
bool plain_names(std::string_view rel) {
  std::size_t at = 0;
  for (;;) {
    const std::size_t end = std::min(rel.find('/', at), rel.size());
    const std::string_view part = rel.substr(at, end - at);
    if (part.empty() || part == "." || part == "..") return false;
    if (end == rel.size()) return true;
    at = end + 1;
  }
}

}  // namespace

std::optional<fs::path> contained_path(const fs::path& root, std::string_view rel) {
  if (!relative_inside(rel)) return std::nullopt;
  // weakly_canonical follows every symbolic link of the part that exists.
  std::error_code error;
  fs::path resolved = fs::weakly_canonical(root / fs::path(std::string(rel)), error);
  if (error) return std::nullopt;
  return inside_root(root, std::move(resolved));
}

std::optional<fs::path> ContainedPaths::operator()(std::string_view rel) {
  struct stat status;
  bool stated = false;
  return (*this)(rel, status, stated);
}

std::optional<fs::path> ContainedPaths::operator()(std::string_view rel, struct stat& status,
                                                   bool& stated) {
  stated = false;
  if (!relative_inside(rel)) return std::nullopt;
  if (!plain_names(rel)) return contained_path(root_, rel);
  const std::size_t slash = rel.rfind('/');
  const std::string_view dir = slash == std::string_view::npos ? "" : rel.substr(0, slash);
  const std::string_view name = slash == std::string_view::npos ? rel : rel.substr(slash + 1);
  auto [entry, added] = dirs_.try_emplace(std::string(dir));
  if (added) {
    std::error_code error;
    fs::path resolved =
        dir.empty() ? root_ : fs::weakly_canonical(root_ / fs::path(std::string(dir)), error);
    if (!error) entry->second = std::move(resolved);
  }
  if (!entry->second) return std::nullopt;
  // The directory as weakly_canonical leaves it, then the name: what weakly_canonical gives for
  // the whole path unless the name is itself a link (or cannot be looked at).
  fs::path candidate = *entry->second / fs::path(std::string(name));
  const bool found = ::lstat(candidate.c_str(), &status) == 0;
  if (found ? S_ISLNK(status.st_mode) : errno != ENOENT) return contained_path(root_, rel);
  std::optional<fs::path> file = inside_root(root_, std::move(candidate));
  stated = found && file.has_value();
  return file;
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
  // One read into a buffer of the file's size: a stream copy costs more than reading and hashing
  // the bytes, and the command reads every page this way.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    throw fs::filesystem_error("cannot read file", path,
                               std::error_code(errno, std::generic_category()));
  }
  auto fail = [&] {
    const int error = errno ? errno : EIO;
    ::close(fd);
    throw fs::filesystem_error("cannot read file", path,
                               std::error_code(error, std::generic_category()));
  };
  struct stat st;
  if (::fstat(fd, &st) != 0) fail();
  std::string out(S_ISREG(st.st_mode) ? static_cast<std::size_t>(st.st_size) : 0, '\0');
  std::size_t size = 0;
  while (size < out.size()) {
    const ssize_t got = ::read(fd, out.data() + size, out.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail();
    if (got == 0) break;
    size += static_cast<std::size_t>(got);
  }
  out.resize(size);
  // Whatever the size did not tell: a file that grew meanwhile, or one that is not regular.
  char more[16384];
  for (;;) {
    const ssize_t got = ::read(fd, more, sizeof more);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail();
    if (got == 0) break;
    out.append(more, static_cast<std::size_t>(got));
  }
  ::close(fd);
  return out;
}

}  // namespace tolbarrow::hosts::native

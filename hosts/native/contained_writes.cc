// ContainedFileSystem's writes: every file is reached from the repository root one folder at a
// time without following a symbolic link, so that no write leaves the repository, and a page
// keeps the line ends it had.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>

#include "hosts/native/repo_paths.h"

namespace tolbarrow::hosts::native {
namespace fs = std::filesystem;
using wiki::write_all;
namespace {

[[noreturn]] void fail(const std::string& what, const fs::path& path, int error) {
  throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

// Closes a descriptor on scope exit.
struct Fd {
  int fd = -1;
  explicit Fd(int f) : fd(f) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

bool inside(const fs::path& file, const fs::path& dir) {
  return std::mismatch(dir.begin(), dir.end(), file.begin(), file.end()).first == dir.end();
}

// The folder `dir` (a canonical path inside `root`), opened from `root` one name at a time with
// O_NOFOLLOW: a folder replaced by a symbolic link since `dir` was resolved stops the write
// (ELOOP or ENOTDIR) instead of leading it elsewhere. `path` is the file the write is for.
int open_folder(const fs::path& root, const fs::path& dir, const fs::path& path) {
  int fd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) fail("cannot open the repository folder " + root.string() + " to write", path, errno);
  for (const fs::path& part : dir.lexically_relative(root)) {
    if (part == "." || part.empty()) continue;
    const int next = ::openat(fd, part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    const int error = errno;
    ::close(fd);
    if (next < 0) {
      fail(error == ELOOP || error == ENOTDIR
               ? "a folder on the way became a symbolic link during the run; not written"
               : "cannot open the folder to write",
           path, error);
    }
    fd = next;
  }
  return fd;
}

std::string read_at(int dir, const std::string& name, const fs::path& path) {
  Fd file(::openat(dir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (file.fd < 0) fail("cannot read", path, errno);
  std::string out;
  char buffer[1 << 16];
  for (;;) {
    const ssize_t n = ::read(file.fd, buffer, sizeof buffer);
    if (n > 0) {
      out.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0) {
      return out;
    } else if (errno != EINTR) {
      fail("cannot read", path, errno);
    }
  }
}

// The text's lines, each with its end ("\r\n", "\r", "\n", or none for a last line without one).
std::vector<std::pair<std::string_view, std::string_view>> lines_of(std::string_view text) {
  std::vector<std::pair<std::string_view, std::string_view>> lines;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = std::min(text.find_first_of("\r\n", at), text.size());
    std::size_t next = end;
    if (end < text.size()) next += text.compare(end, 2, "\r\n") == 0 ? 2 : 1;
    lines.emplace_back(text.substr(at, end - at), text.substr(end, next - end));
    at = next;
  }
  return lines;
}

std::string temporary_name(const std::string& name) {
  std::random_device random;
  return "." + name + ".tmp-" + std::to_string(random());
}

}  // namespace

std::string keep_line_ends(std::string_view before, std::string_view after) {
  if (before.find('\r') == std::string_view::npos) return std::string(after);
  const auto old_lines = lines_of(before);
  const auto new_lines = lines_of(after);
  if (old_lines.size() != new_lines.size()) return std::string(after);
  std::string out;
  out.reserve(before.size() + after.size() - std::min(after.size(), before.size()) + 16);
  for (std::size_t i = 0; i < new_lines.size(); ++i) {
    // A line that has an end keeps the old one; the last line keeps having none or one.
    if (new_lines[i].second.empty() != old_lines[i].second.empty()) return std::string(after);
    out += new_lines[i].first;
    out += old_lines[i].second;
  }
  return out;
}

ContainedFileSystem::Place ContainedFileSystem::place_to_write(const fs::path& path,
                                                               bool follow) const {
  std::error_code error;
  // The folder, links followed; the name itself only when `follow` (a page linked to another).
  fs::path real = follow ? fs::weakly_canonical(path, error)
                         : fs::weakly_canonical(path.parent_path(), error) / path.filename();
  if (error) fail("cannot resolve", path, error.value());
  const auto root = std::find_if(roots_.begin(), roots_.end(),
                                 [&](const fs::path& r) { return inside(real.parent_path(), r); });
  if (root == roots_.end()) {
    fail("leads outside the repository to " + real.string() + "; not written", path, EACCES);
  }
  Place place{open_folder(*root, real.parent_path(), path), real.filename().string(), real};
  return place;
}

void ContainedFileSystem::atomic_write(const fs::path& path, std::string_view content) {
  const Place place = place_to_write(path, /*follow=*/true);
  const Fd dir(place.dir);
  const std::string& name = place.name;

  // The new file keeps the old one's mode (a new file takes the default mode) and, for a page,
  // its line ends: the refresh reads a page with CR LF and lone CR as LF and changes no line end.
  mode_t mode = 0666;
  bool kept_mode = false;
  std::string kept;
  struct stat info {};
  if (::fstatat(dir.fd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode)) {
    mode = info.st_mode & 07777, kept_mode = true;
    if (place.real.extension() == ".md") {
      kept = keep_line_ends(read_at(dir.fd, name, path), content);
      content = kept;
    }
  }

  // An unnamed file, named only for the moment of the rename: a run killed while writing leaves
  // nothing in the folder. File systems without O_TMPFILE take a named temporary file.
  std::string temp;
  {
    Fd file(::openat(dir.fd, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode));
    const bool unnamed = file.fd >= 0;
    if (!unnamed) {
      temp = temporary_name(name);
      file.fd = ::openat(dir.fd, temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                         mode);
      if (file.fd < 0) fail("cannot create a temporary file beside", path, errno);
    }
    try {
      if (kept_mode && ::fchmod(file.fd, mode) != 0) fail("cannot set the mode of", path, errno);
      write_all(file.fd, content, path);
      if (::fsync(file.fd) != 0) fail("cannot flush", path, errno);
      if (unnamed) {
        const std::string self = "/proc/self/fd/" + std::to_string(file.fd);
        for (int tries = 0;; ++tries) {
          temp = temporary_name(name);
          if (::linkat(AT_FDCWD, self.c_str(), dir.fd, temp.c_str(), AT_SYMLINK_FOLLOW) == 0) break;
          if (errno != EEXIST || tries == 10) {
            temp.clear();
            fail("cannot create a temporary file beside", path, errno);
          }
        }
      }
    } catch (...) {
      if (!temp.empty()) ::unlinkat(dir.fd, temp.c_str(), 0);
      throw;
    }
  }
  if (::renameat(dir.fd, temp.c_str(), dir.fd, name.c_str()) != 0) {
    const int error = errno;
    ::unlinkat(dir.fd, temp.c_str(), 0);
    fail("cannot replace", path, error);
  }
  if (::fsync(dir.fd) != 0) fail("cannot flush the folder of", path, errno);
}

void ContainedFileSystem::append(const fs::path& path, std::string_view content) {
  const Place place = place_to_write(path, /*follow=*/false);
  const Fd dir(place.dir);
  const bool existed = ::faccessat(dir.fd, place.name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
  {
    Fd file(::openat(dir.fd, place.name.c_str(),
                     O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (file.fd < 0) {
      fail(errno == ELOOP ? "is a symbolic link; not written through it" : "cannot open", path,
           errno);
    }
    write_all(file.fd, content, path);
    if (::fsync(file.fd) != 0) fail("cannot flush", path, errno);
  }
  // A new file's name is on disk once its folder is.
  if (!existed && ::fsync(dir.fd) != 0) fail("cannot flush the folder of", path, errno);
}

void ContainedFileSystem::remove_file(const fs::path& path) {
  std::error_code error;
  if (!fs::exists(fs::symlink_status(path, error))) return;
  const Place place = place_to_write(path, /*follow=*/false);
  const Fd dir(place.dir);
  if (::unlinkat(dir.fd, place.name.c_str(), 0) != 0 && errno != ENOENT) {
    fail("cannot remove", path, errno);
  }
}

}  // namespace tolbarrow::hosts::native

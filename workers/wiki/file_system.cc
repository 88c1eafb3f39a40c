// The operating system's file system, as the refresh reads and writes page files and the digest
// file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <random>

#include "workers/wiki/repo_facts.h"

namespace tolbarrow::workers::wiki {
namespace fs = std::filesystem;
namespace {

[[noreturn]] void fail(const char* what, const fs::path& path, int error) {
  throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

// Closes a descriptor on scope exit.
struct Fd {
  int fd;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

}  // namespace

void write_all(int fd, std::string_view content, const fs::path& path) {
  while (!content.empty()) {
    const ssize_t n = ::write(fd, content.data(), content.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      fail("cannot write", path, errno);
    }
    content.remove_prefix(static_cast<std::size_t>(n));
  }
}

bool RealFileSystem::is_file(const fs::path& path) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (error) {
    const int e = error.value();
    if (e == ENOENT || e == ENOTDIR || e == ELOOP || e == ENAMETOOLONG) return false;
    throw fs::filesystem_error("cannot look at file", path, error);
  }
  return fs::is_regular_file(status);
}

std::string RealFileSystem::read_file(const fs::path& path) {
  Fd file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  if (file.fd < 0) fail("cannot open", path, errno);
  std::string out;
  struct stat info {};
  if (::fstat(file.fd, &info) == 0 && info.st_size > 0)
    out.reserve(static_cast<std::size_t>(info.st_size));
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

void RealFileSystem::atomic_write(const fs::path& path, std::string_view content) {
  const fs::path dir = path.has_parent_path() ? path.parent_path() : fs::path(".");
  std::random_device random;
  const fs::path temp = dir / ("." + path.filename().string() + ".tmp-" + std::to_string(random()));

  // The new file keeps the old one's mode (a new file takes the default mode).
  mode_t mode = 0666;
  struct stat info {};
  bool kept_mode = false;
  if (::stat(path.c_str(), &info) == 0) mode = info.st_mode & 07777, kept_mode = true;

  {
    Fd file{::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode)};
    if (file.fd < 0) fail("cannot create temporary file", temp, errno);
    try {
      if (kept_mode && ::fchmod(file.fd, mode) != 0) fail("cannot set mode of", temp, errno);
      write_all(file.fd, content, temp);
      if (::fsync(file.fd) != 0) fail("cannot flush", temp, errno);
    } catch (...) {
      ::unlink(temp.c_str());
      throw;
    }
  }
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::unlink(temp.c_str());
    fail("cannot replace", path, error);
  }
  Fd directory{::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  if (directory.fd < 0 || ::fsync(directory.fd) != 0) fail("cannot flush directory", dir, errno);
}

void RealFileSystem::append(const fs::path& path, std::string_view content) {
  const bool existed = ::access(path.c_str(), F_OK) == 0;
  {
    Fd file{::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666)};
    if (file.fd < 0) fail("cannot open", path, errno);
    write_all(file.fd, content, path);
    if (::fsync(file.fd) != 0) fail("cannot flush", path, errno);
  }
  if (existed) return;
  // A new file's name is on disk once its directory is.
  const fs::path dir = path.has_parent_path() ? path.parent_path() : fs::path(".");
  Fd directory{::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  if (directory.fd < 0 || ::fsync(directory.fd) != 0) fail("cannot flush directory", dir, errno);
}

void RealFileSystem::remove_file(const fs::path& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) fail("cannot remove", path, errno);
}

}  // namespace tolbarrow::workers::wiki

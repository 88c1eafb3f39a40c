#include "hosts/native/write_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include "hosts/native/store.h"
#include "workers/wiki/types.h"

namespace tolbarrow::hosts::native {
namespace {

std::system_error os_error(const std::string& what, const std::filesystem::path& file) {
  return std::system_error(errno, std::generic_category(), file.string() + ": " + what);
}

std::string random_nonce() {
  unsigned char bytes[8];
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
    throw std::system_error(errno, std::generic_category(), "getrandom");
  }
  std::string hex;
  for (unsigned char b : bytes) {
    char two[3];
    std::snprintf(two, sizeof two, "%02x", b);
    hex += two;
  }
  return hex;
}

// What the current holder wrote into the lock file, for the busy message.
std::string holder_of(int fd) {
  char buffer[128];
  const ssize_t n = pread(fd, buffer, sizeof buffer - 1, 0);
  if (n <= 0) return "unknown holder";
  std::string text(buffer, static_cast<std::size_t>(n));
  while (!text.empty() && (text.back() == '\n' || text.back() == '\0')) text.pop_back();
  return text.empty() ? "unknown holder" : text;
}

// The wiki's path relative to the root as one file name.
std::string lock_name(const std::filesystem::path& repo_root,
                      const std::filesystem::path& wiki_dir) {
  std::error_code error;
  std::filesystem::path wiki = std::filesystem::weakly_canonical(wiki_dir, error);
  if (error) wiki = std::filesystem::absolute(wiki_dir).lexically_normal();
  std::filesystem::path root = std::filesystem::weakly_canonical(repo_root, error);
  if (error) root = std::filesystem::absolute(repo_root).lexically_normal();
  std::string rel = wiki.lexically_relative(root).generic_string();
  if (rel.empty() || rel.rfind("..", 0) == 0) rel = wiki.generic_string();
  std::string name;
  for (const char c : rel) {
    if (c == '%') {
      name += "%25";
    } else if (c == '/') {
      name += "%2F";
    } else if (c == '.' && name.empty()) {
      name += "%2E";
    } else {
      name += c;
    }
  }
  return name;
}

}  // namespace

std::filesystem::path write_lock_file(const std::filesystem::path& repo_root,
                                      const std::filesystem::path& wiki_dir) {
  const std::optional<std::filesystem::path> git = git_dir(repo_root);
  const std::filesystem::path dir =
      git ? *git / "citation-refresh" : repo_root / ".citation-refresh";
  return dir / (lock_name(repo_root, wiki_dir) + ".lock");
}

FlockWriteLock::FlockWriteLock(const std::filesystem::path& repo_root,
                               const std::filesystem::path& wiki_dir)
    : file_(write_lock_file(repo_root, wiki_dir)) {}

FlockWriteLock::~FlockWriteLock() {
  if (fd_ >= 0) ::close(fd_);  // closing the last descriptor drops the flock
}

void FlockWriteLock::acquire() {
  if (fd_ >= 0) throw std::logic_error(file_.string() + ": write lock acquired twice");
  // The folder is made here, once; a symbolic link in the lock's place is never followed.
  if (::mkdir(file_.parent_path().c_str(), 0755) != 0 && errno != EEXIST) {
    throw os_error("cannot make the folder of the write lock file", file_);
  }
  const int fd = ::open(file_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) throw os_error("cannot open the write lock file", file_);
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    if (error == EWOULDBLOCK) {
      const std::string holder = holder_of(fd);
      ::close(fd);
      throw wiki::WikiBusy(file_.string() + ": the wiki is being written (" + holder + ")");
    }
    ::close(fd);
    errno = error;
    throw os_error("cannot lock the write lock file", file_);
  }
  fd_ = fd;
  try {
    nonce_ = random_nonce();
    const std::string info = "pid " + std::to_string(::getpid()) + " nonce " + nonce_ + "\n";
    if (::ftruncate(fd_, 0) != 0 ||
        ::pwrite(fd_, info.data(), info.size(), 0) != static_cast<ssize_t>(info.size())) {
      throw os_error("cannot write the write lock file", file_);
    }
  } catch (...) {
    ::close(fd_);
    fd_ = -1;
    nonce_.clear();
    throw;
  }
}

void FlockWriteLock::release() {
  if (fd_ < 0) throw std::logic_error(file_.string() + ": write lock released while not held");
  // Clear the diagnostics first so that the file never names a writer that is gone; a failure
  // here is harmless, the flock is what counts.
  [[maybe_unused]] const int ignored = ::ftruncate(fd_, 0);
  const int fd = fd_;
  fd_ = -1;
  nonce_.clear();
  if (::close(fd) != 0) throw os_error("cannot close the write lock file", file_);
}

std::unique_ptr<wiki::WriteLock> FlockWriteLocks::open(const std::filesystem::path& wiki_dir) {
  return std::make_unique<FlockWriteLock>(root_, wiki_dir);
}

}  // namespace tolbarrow::hosts::native

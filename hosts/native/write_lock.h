// The wiki directory's write lock: flock(2) on a lock file kept in the repository's git directory,
// where git keeps its own locks, so that nothing of it is left among the pages.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "workers/wiki/lock.h"

namespace tolbarrow::hosts::native {

namespace wiki = tolbarrow::workers::wiki;

// The lock file of the wiki directory `wiki_dir` of the repository at `repo_root`:
// <git dir>/citation-refresh/<name>.lock, or <repo_root>/.citation-refresh/<name>.lock when the
// root has no git directory, where <name> is the wiki's path relative to the root with '%', '/'
// and a leading '.' written as %25, %2F and %2E (a wiki outside the root is named by its absolute
// path). The file stays; only its flock counts.
std::filesystem::path write_lock_file(const std::filesystem::path& repo_root,
                                      const std::filesystem::path& wiki_dir);

// One writer's hold. acquire() opens (creating it and its folder, never through a symbolic link)
// the lock file and takes an exclusive,
// non-blocking flock; another holder makes it throw WikiBusy at once, naming the file and the
// holder it recorded. The kernel releases the lock when the holder's process dies, so a crashed
// writer never leaves the wiki locked. The holder writes "pid <pid> nonce <hex>" into the file
// for diagnostics only.
class FlockWriteLock : public wiki::WriteLock {
 public:
  FlockWriteLock(const std::filesystem::path& repo_root, const std::filesystem::path& wiki_dir);
  ~FlockWriteLock() override;
  FlockWriteLock(const FlockWriteLock&) = delete;
  FlockWriteLock& operator=(const FlockWriteLock&) = delete;

  void acquire() override;
  void release() override;

  const std::filesystem::path& file() const { return file_; }
  // The nonce this holder wrote (empty while not held).
  const std::string& nonce() const { return nonce_; }

 private:
  std::filesystem::path file_;
  int fd_ = -1;
  std::string nonce_;
};

// The write locks of the wiki directories of one repository.
class FlockWriteLocks : public wiki::WriteLocks {
 public:
  explicit FlockWriteLocks(std::filesystem::path repo_root) : root_(std::move(repo_root)) {}
  std::unique_ptr<wiki::WriteLock> open(const std::filesystem::path& wiki_dir) override;

 private:
  std::filesystem::path root_;
};

}  // namespace tolbarrow::hosts::native

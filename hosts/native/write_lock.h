// The wiki directory's write lock: flock(2) on a lock file in the wiki directory.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "workers/wiki/lock.h"

namespace tolbarrow::hosts::native {

namespace wiki = tolbarrow::workers::wiki;

// The lock file's name inside the wiki directory. The file stays; only its flock counts.
inline constexpr const char* kLockFileName = ".citation-refresh.lock";

// One writer's hold. acquire() opens (creating) the lock file and takes an exclusive,
// non-blocking flock; another holder makes it throw WikiBusy at once, naming the file and the
// holder it recorded. The kernel releases the lock when the holder's process dies, so a crashed
// writer never leaves the wiki locked. The holder writes "pid <pid> nonce <hex>" into the file
// for diagnostics only.
class FlockWriteLock : public wiki::WriteLock {
 public:
  explicit FlockWriteLock(std::filesystem::path wiki_dir);
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

class FlockWriteLocks : public wiki::WriteLocks {
 public:
  std::unique_ptr<wiki::WriteLock> open(const std::filesystem::path& wiki_dir) override;
};

}  // namespace tolbarrow::hosts::native

// The wiki directory's write lock that every writer of a wiki takes.
#pragma once

#include <filesystem>
#include <memory>

namespace tolbarrow::workers::wiki {

// One writer's hold on a wiki directory's write lock.
class WriteLock {
 public:
  virtual ~WriteLock() = default;
  // Takes the lock, or throws WikiBusy (types.h) when another writer holds it. Any other error
  // reaches the caller of the refresh unchanged.
  virtual void acquire() = 0;
  // Gives the lock up. Called once after each successful acquire().
  virtual void release() = 0;
};

class WriteLocks {
 public:
  virtual ~WriteLocks() = default;
  // A writer's lock for `wiki_dir`. Opening takes no lock and touches no file.
  virtual std::unique_ptr<WriteLock> open(const std::filesystem::path& wiki_dir) = 0;
};

}  // namespace tolbarrow::workers::wiki

// The host module `lock`: the wiki directory's write lock that every writer of a wiki takes.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tolbarrow::workers::wiki::lock {

// The state a writer object gives the host's lock behaviour: the directory whose lock it takes,
// the record of the lock it holds (none while it holds none) and the time of the held lock's last
// refresh (0.0 while there has been none). What they hold while the lock is held is the host's.
struct WriteLockState {
  std::filesystem::path wiki_dir;
  std::optional<std::string> held_lock_nonce;
  double lock_refreshed_at = 0.0;
};

// A writer object with the host's lock behaviour mixed in (`WriteLockMixin`).
class WriteLockMixin {
 public:
  virtual ~WriteLockMixin() = default;
  // Takes the wiki directory's write lock, or raises WikiBusy when another writer holds it.
  virtual void acquire_write_lock() = 0;
  // Gives the lock up.
  virtual void release_write_lock() = 0;
};

// Makes a writer object from its first state. Making it takes no lock and touches no file.
using WriteLockFactory = std::function<std::unique_ptr<WriteLockMixin>(WriteLockState)>;

// `acquire_write_lock` raising WikiBusy is the one host error the module catches (to fall back to
// a report-only refresh); every other error of the lock reaches the caller unchanged.
struct Module {
  WriteLockFactory WriteLockMixin;
};

}  // namespace tolbarrow::workers::wiki::lock

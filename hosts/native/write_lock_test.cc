#include "hosts/native/write_lock.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/temp_dir.h"
#include "workers/wiki/types.h"

namespace tolbarrow::hosts::native {
namespace {

using testing::TempDir;

TEST(WriteLock, SecondHolderIsBusyUntilTheFirstReleases) {
  TempDir dir;
  FlockWriteLocks locks;
  auto first = locks.open(dir.path());
  auto second = locks.open(dir.path());
  EXPECT_FALSE(std::filesystem::exists(dir.path() / kLockFileName));  // opening touches nothing

  first->acquire();
  const std::string nonce = static_cast<FlockWriteLock&>(*first).nonce();
  EXPECT_EQ(dir.read(kLockFileName), "pid " + std::to_string(getpid()) + " nonce " + nonce + "\n");
  try {
    second->acquire();
    FAIL() << "second holder took the lock";
  } catch (const wiki::WikiBusy& busy) {
    EXPECT_NE(std::string(busy.what()).find(nonce), std::string::npos) << busy.what();
  }
  first->release();
  second->acquire();
  second->release();
}

TEST(WriteLock, KilledHolderFreesTheLock) {
  TempDir dir;
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    try {
      FlockWriteLock lock(dir.path());
      lock.acquire();
      const char byte = 'x';
      [[maybe_unused]] auto written = write(ready[1], &byte, 1);
      pause();
    } catch (...) {
    }
    _exit(1);
  }
  close(ready[1]);
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);

  FlockWriteLock lock(dir.path());
  EXPECT_THROW(lock.acquire(), wiki::WikiBusy);
  kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  lock.acquire();  // the kernel dropped the dead holder's lock
  lock.release();
}

}  // namespace
}  // namespace tolbarrow::hosts::native

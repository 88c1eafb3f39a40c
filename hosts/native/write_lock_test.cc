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
  FlockWriteLocks locks(dir.path());
  auto first = locks.open(dir.path());
  auto second = locks.open(dir.path());
  const std::filesystem::path file = static_cast<FlockWriteLock&>(*first).file();
  EXPECT_FALSE(std::filesystem::exists(file));  // opening touches nothing

  first->acquire();
  const std::string nonce = static_cast<FlockWriteLock&>(*first).nonce();
  EXPECT_EQ(dir.read(file.lexically_relative(dir.path())),
            "pid " + std::to_string(getpid()) + " nonce " + nonce + "\n");
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
      FlockWriteLock lock(dir.path(), dir.path() / "docs");
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

  FlockWriteLock lock(dir.path(), dir.path() / "docs");
  EXPECT_THROW(lock.acquire(), wiki::WikiBusy);
  kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  lock.acquire();  // the kernel dropped the dead holder's lock
  lock.release();
}

// Where each wiki's lock lives: in the git directory, never in the wiki, one file per wiki.
TEST(WriteLock, LockFileLivesInTheGitDirectory) {
  TempDir dir;
  std::filesystem::create_directories(dir / ".git");
  std::filesystem::create_directories(dir / "other");
  dir.write("linked.git/HEAD", "");
  dir.write("other/.git", "gitdir: ../linked.git\n");
  struct Case {
    std::string root, wiki, lock;
  } cases[] = {
      {"", "docs", ".git/citation-refresh/docs.lock"},
      {"", "a/b", ".git/citation-refresh/a%2Fb.lock"},
      {"", "a%2Fb", ".git/citation-refresh/a%252Fb.lock"},
      {"", ".", ".git/citation-refresh/%2E.lock"},
      {"", ".wiki", ".git/citation-refresh/%2Ewiki.lock"},
      {"other", "docs", "other/../linked.git/citation-refresh/docs.lock"},
      {"plain", "docs", "plain/.citation-refresh/docs.lock"},
  };
  for (const Case& c : cases) {
    const std::filesystem::path root = dir / c.root;
    EXPECT_EQ(write_lock_file(root, root / c.wiki).lexically_normal(),
              (dir / c.lock).lexically_normal())
        << c.root << " " << c.wiki;
  }
}

// A lock file that is a symbolic link (to a file outside, say) is refused, never truncated.
TEST(WriteLock, ALinkInTheLockPlaceIsNotFollowed) {
  TempDir dir;
  std::filesystem::create_directories(dir / ".git/citation-refresh");
  dir.write("outside.txt", "keep me");
  std::filesystem::create_symlink(dir / "outside.txt", dir / ".git/citation-refresh/docs.lock");
  FlockWriteLock lock(dir.path(), dir / "docs");
  try {
    lock.acquire();
    FAIL() << "acquired through a link";
  } catch (const std::system_error& error) {
    EXPECT_NE(std::string(error.what()).find("docs.lock"), std::string::npos) << error.what();
  }
  EXPECT_EQ(dir.read("outside.txt"), "keep me");
}

}  // namespace
}  // namespace tolbarrow::hosts::native

#include <gtest/gtest.h>

#include "hosts/memory/memory_host.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::hosts::memory {
namespace {

using Calls = std::vector<std::string>;
const Calls kBusyLog = {"info: wiki citation refresh: the wiki is being written; reporting only"};

class GuardedRefresh : public ::testing::Test {
 protected:
  GuardedRefresh() {
    repo.files = {"src/a.py"};
    repo.symbols["src/a.py"] = {sym("a.f", 18, 30)};
    repo.pages.push_back({{"page_id", "p"},
                          {"rel_path", "p.md"},
                          {"citations",
                           {{{"path", "src/a.py"},
                             {"line_start", 10},
                             {"line_end", 12},
                             {"symbol", "a.f"},
                             {"name", "f"},
                             {"symbol_start", 8},
                             {"symbol_end", 20}}}}});
    host.file_system.files["/wiki/p.md"] = "`f` " + cite("src/a.py", 10, 12);
  }
  cr::CitationRefresh run() {
    return cr::refresh_citations_if_free(host.host(), repo, "main", "/wiki", "/repo");
  }

  MemoryHost host;
  MemoryRepository repo;
};

TEST_F(GuardedRefresh, WritesUnderTheLockWhenItIsFree) {
  EXPECT_EQ(run(), (cr::CitationRefresh{.repaired = 1, .pages_written = 1}));
  EXPECT_EQ(host.calls, (Calls{"lock /wiki", "acquire", "read p.md", "read digests.json",
                               "write p.md", "write digests.json", "release"}));
  EXPECT_TRUE(host.log_lines.empty());
}

TEST_F(GuardedRefresh, OnlyReportsWhileAnotherWriterHoldsTheLock) {
  host.busy = true;
  EXPECT_EQ(run(), (cr::CitationRefresh{.moved = {{"p", 1}}}));
  EXPECT_EQ(host.calls, (Calls{"lock /wiki", "acquire", "read p.md"}));
  EXPECT_EQ(host.log_lines, kBusyLog);
}

// The wiki generator may find the wiki taken only once the refresh is under way.
TEST_F(GuardedRefresh, BusyInsideTheLockedRefreshReleasesAndOnlyReports) {
  int busy = 1;
  repo.fault = [&](const std::string& service) {
    if (service == "get_wiki_pages" && busy-- > 0) throw WikiBusy("generator started");
  };
  EXPECT_EQ(run(), (cr::CitationRefresh{.moved = {{"p", 1}}}));
  EXPECT_EQ(host.calls, (Calls{"lock /wiki", "acquire", "release", "read p.md"}));
  EXPECT_EQ(host.log_lines, kBusyLog);
}

TEST_F(GuardedRefresh, ReleasesOnceAndPassesOnTheRefreshError) {
  repo.fail_update = "p";
  EXPECT_THROW(run(), std::runtime_error);
  EXPECT_EQ(host.calls.back(), "release");
  EXPECT_EQ(std::count(host.calls.begin(), host.calls.end(), "release"), 1);
  EXPECT_TRUE(host.log_lines.empty());
}

TEST(WikiDirLock, ReleaseErrorReachesTheCallerAfterOneRelease) {
  MemoryHost host;
  host.release_fails = true;
  cr::detail::WikiDirLock lock(host.host(), "/wiki");
  try {
    lock.held([] { throw std::logic_error("block failed"); });
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "release failed");
  }
  EXPECT_EQ(host.calls, (Calls{"lock /wiki", "acquire", "release"}));
}

TEST(WikiDirLock, AHostThatOpensNoLockIsAnErrorNotACrash) {
  struct NoLock : MemoryHost {
    std::unique_ptr<WriteLock> open(const fs::path&) override { return nullptr; }
  } host;
  EXPECT_THROW(cr::detail::WikiDirLock(host.host(), "/wiki"), std::logic_error);
}

}  // namespace
}  // namespace tolbarrow::hosts::memory

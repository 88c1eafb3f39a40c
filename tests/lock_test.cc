#include <gtest/gtest.h>

#include "testing/fake_host.h"

namespace tolbarrow::testing {
namespace {

using Calls = std::vector<std::string>;

class GuardedRefresh : public ::testing::Test {
 protected:
  GuardedRefresh() {
    repo.files = {"src/a.py"};
    repo.symbols["src/a.py"] = {sym("a.f", 18, 30)};
    repo.pages.push_back({{"page_id", "p"},
                          {"rel_path", "p.md"},
                          {"citations",
                           {{{"path", "src/a.py"}, {"line_start", 10}, {"line_end", 12},
                             {"symbol", "a.f"}, {"name", "f"}, {"symbol_start", 8},
                             {"symbol_end", 20}}}}});
    wiki.write("p.md", "`f` " + cite("src/a.py", 10, 12));
  }
  cr::CitationRefresh run() {
    return module.refresh_citations_if_free(repo, "main", wiki.path(), "/repo");
  }

  FakeHost host;
  FakeRepository repo;
  cr::Module module = host.load();
  TempDir wiki;
};

TEST_F(GuardedRefresh, WritesUnderTheLockWhenItIsFree) {
  EXPECT_EQ(run(), (cr::CitationRefresh{.repaired = 1, .pages_written = 1}));
  EXPECT_EQ(host.calls, (Calls{"lock " + wiki.path().string(), "acquire", "write p.md",
                               "write digests.json", "release"}));
  EXPECT_TRUE(host.log_lines.empty());
}

TEST_F(GuardedRefresh, OnlyReportsWhileAnotherWriterHoldsTheLock) {
  host.busy = true;
  EXPECT_EQ(run(), (cr::CitationRefresh{.moved = {{"p", 1}}}));
  EXPECT_EQ(host.calls, (Calls{"lock " + wiki.path().string(), "acquire"}));
  EXPECT_EQ(host.log_lines,
            Calls{"info: wiki citation refresh: the wiki is being written; reporting only"});
}

TEST_F(GuardedRefresh, ReleasesOnceAndPassesOnTheRefreshError) {
  repo.fail_update = "p";
  EXPECT_THROW(run(), std::runtime_error);
  EXPECT_EQ(host.calls.back(), "release");
  EXPECT_EQ(std::count(host.calls.begin(), host.calls.end(), "release"), 1);
  EXPECT_TRUE(host.log_lines.empty());
}

TEST(WikiDirLock, ReleaseErrorReachesTheCallerAfterOneRelease) {
  FakeHost host;
  const cr::Module module = host.load();
  host.release_fails = true;
  cr::detail::WikiDirLock lock(module, "/wiki");
  try {
    lock.held([] { throw std::logic_error("block failed"); });
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "release failed");
  }
  EXPECT_EQ(host.calls, (Calls{"lock /wiki", "acquire", "release"}));
}

TEST(ModuleLoad, NamesTheFirstHostServiceItCannotBind) {
  FakeHost host;
  const std::vector<std::pair<std::function<void(cr::HostModules&)>, std::string>> cases = {
      {[](auto& m) { m.citation_ranges.reset(); }, "citation_ranges"},
      {[](auto& m) { m.lock->WriteLockMixin = nullptr; }, "lock.WriteLockMixin"},
      {[](auto& m) { m.repo_facts->text_hash = nullptr; m.verify.reset(); }, "repo_facts._text_hash"},
      {[](auto& m) { m.types->CITATION_RE = nullptr; }, "types._CITATION_RE"},
      {[](auto& m) { m.verify->UNANCHORED_KINDS.reset(); }, "verify._UNANCHORED_KINDS"},
      {[](auto& m) { m.verify->rewrite_citations = nullptr; }, "verify.rewrite_citations"},
  };
  for (const auto& [remove, name] : cases) {
    cr::HostModules modules = host.modules();
    remove(modules);
    try {
      cr::Module::load(modules, host.logger);
      ADD_FAILURE() << "loaded without " << name;
    } catch (const cr::HostBindingError& e) {
      EXPECT_EQ(e.name(), name);
      EXPECT_NE(std::string(e.what()).find(name), std::string::npos);
    }
  }
  EXPECT_TRUE(host.calls.empty());  // start-up calls no host service
}

}  // namespace
}  // namespace tolbarrow::testing

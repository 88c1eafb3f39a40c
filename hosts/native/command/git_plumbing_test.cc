#include "hosts/native/command/git_plumbing.h"

#include <gtest/gtest.h>

#include "hosts/native/command/git_repo_for_tests.h"

namespace tolbarrow::hosts::native::command {
namespace {

// The blob of each cited file as the work tree holds it, over a real repository: the index's for
// a file as it holds it, the content's for one that differs or is untracked, git's null id for one
// that is gone. Only with keep_blobs are contents written to git's object store.
TEST(History, TellsTheBlobOfEachCitedFileNow) {
  struct Case {
    const char* name;
    std::function<void(const GitRepo&)> change;
    std::map<std::string, std::optional<std::string>> cited;  // path -> its text; nullopt: gone
  };
  const Case cases[] = {
      {"nothing changed", [](const GitRepo&) {}, {{"a.py", "x = 1\n"}, {"b.py", "y = 1\n"}}},
      {"a cited file edited",
       [](const GitRepo& r) { r.write("a.py", "x = 2\n"); },
       {{"a.py", "x = 2\n"}, {"b.py", "y = 1\n"}}},
      {"an edit staged",
       [](const GitRepo& r) {
         r.write("a.py", "x = 3\n");
         r.git({"add", "."});
       },
       {{"a.py", "x = 3\n"}}},
      {"an untracked cited file",
       [](const GitRepo& r) { r.write("new.py", "z = 1\n"); },
       {{"new.py", "z = 1\n"}, {"a.py", "x = 1\n"}}},
      {"a cited file deleted",
       [](const GitRepo& r) { fs::remove(r.root() / "a.py"); },
       {{"a.py", std::nullopt}, {"b.py", "y = 1\n"}}},
      {"a cited file moved, the move not added",
       [](const GitRepo& r) { fs::rename(r.root() / "a.py", r.root() / "c.py"); },
       {{"a.py", std::nullopt}, {"c.py", "x = 1\n"}}},
      {"a cited file replaced by a directory",
       [](const GitRepo& r) {
         fs::remove(r.root() / "a.py");
         r.write("a.py/in.py", "w = 1\n");
       },
       {{"a.py", std::nullopt}}},
      {"an edit committed",
       [](const GitRepo& r) {
         r.write("a.py", "x = 4\n");
         r.commit();
       },
       {{"a.py", "x = 4\n"}}},
      {"a cited path that never was", [](const GitRepo&) {}, {{"nowhere.py", std::nullopt}}},
      {"a page of the wiki edited, a file in it cited",
       [](const GitRepo& r) {
         r.write("docs/p.md", "edited\n");
         r.write("docs/cited.txt", "c = 1\n");
       },
       {{"a.py", "x = 1\n"}, {"docs/cited.txt", "c = 1\n"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    GitRepo repo;
    repo.write("a.py", "x = 1\n");
    repo.write("b.py", "y = 1\n");
    repo.commit();
    c.change(repo);
    std::map<std::string, std::string> want;
    std::vector<std::string> paths;
    for (const auto& [path, text] : c.cited) {
      want[path] = text ? repo.blob(*text) : std::string(40, '0');
      paths.push_back(path);
    }
    std::map<std::string, bool> stored;  // blob -> whether git holds it before
    for (const auto& [path, blob] : want) stored[blob] = repo.has_object(blob);
    EXPECT_EQ(work_tree_blobs(repo.root(), paths, false, "docs"), want);
    for (const auto& [blob, held] : stored) EXPECT_EQ(repo.has_object(blob), held) << blob;
    EXPECT_EQ(work_tree_blobs(repo.root(), paths, true, "docs"), want);
    for (const auto& [path, text] : c.cited) {
      if (text) {
        EXPECT_TRUE(repo.has_object(want[path])) << path;
      }
    }
  }
  testing::TempDir no_git;
  EXPECT_TRUE(work_tree_blobs(no_git.path(), {"a.py"}, true).empty());
}

// The wiki directory as the work tree's mark leaves it out: only a directory strictly inside the
// root may be left out, else git status would be told to skip the whole tree or a path outside.
TEST(History, TellsTheWikiDirectoryInsideTheRoot) {
  testing::TempDir dir;
  const fs::path root = fs::canonical(dir.path()) / "repo";
  fs::create_directories(root / "docs" / "wiki");
  fs::create_directories(dir.path() / "elsewhere");
  fs::create_directory_symlink(root / "docs", root / "linked");
  const struct {
    fs::path wiki;
    std::string want;
  } cases[] = {
      {root / "docs", "docs"},
      {root / "docs/", "docs"},
      {root / "docs" / "wiki", "docs/wiki"},
      {root / "linked", "docs"},  // by where the link leads
      {root / "not-yet", "not-yet"},
      {root, ""},
      {root / ".", ""},
      {dir.path() / "elsewhere", ""},
      {root / ".." / "elsewhere", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(wiki_in(root, c.wiki), c.want) << c.wiki;
  }
}

}  // namespace
}  // namespace tolbarrow::hosts::native::command

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "hosts/native/repo_paths.h"
#include "tests/temp_dir.h"

namespace tolbarrow::hosts::native {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

TEST(KeepLineEnds, EachLineKeepsItsEnd) {
  struct Case {
    const char* name;
    std::string before, after, want;
  } cases[] = {
      {"no carriage return", "a L1\nb\n", "a L3\nb\n", "a L3\nb\n"},
      {"crlf", "a L1\r\nb\r\n", "a L3\nb\n", "a L3\r\nb\r\n"},
      {"mixed and lone cr", "a\r\nb L1\nc\rd", "a\nb L3\nc\nd", "a\r\nb L3\nc\rd"},
      {"empty lines", "\r\n\r\nx L1\r\n", "\n\nx L3\n", "\r\n\r\nx L3\r\n"},
      {"no last end", "a L1\r\nb", "a L3\nb", "a L3\r\nb"},
      {"already kept", "a L1\r\nb\r\n", "a L3\r\nb\r\n", "a L3\r\nb\r\n"},
      {"a line more", "a L1\r\nb\r\n", "a L3\nb\nc\n", "a L3\nb\nc\n"},
      {"a last end added", "a\r\nb", "a\nb\n", "a\nb\n"},
  };
  for (const Case& c : cases) EXPECT_EQ(keep_line_ends(c.before, c.after), c.want) << c.name;
}

// Every write of the contained file system, against links that lead out of the repository and
// links inside it.
TEST(ContainedFileSystem, NoWriteLeavesTheRepository) {
  TempDir dir;
  const fs::path root = dir / "repo";
  dir.write("outside/victim", "keep me");
  dir.write("repo/docs/page.md", "a L1\r\n");
  fs::create_symlink("page.md", root / "docs/alias.md");
  fs::create_symlink(dir / "outside/victim", root / "docs/out.md");
  fs::create_symlink(dir / "outside", root / "docs/away");
  fs::create_symlink(dir / "outside/new", root / "docs/dangling");
  ContainedFileSystem files(fs::canonical(root));

  files.atomic_write(root / "docs/alias.md", "a L3\n");
  EXPECT_EQ(dir.read("repo/docs/page.md"), "a L3\r\n");  // through the link, line ends kept
  EXPECT_TRUE(fs::is_symlink(root / "docs/alias.md"));

  struct Case {
    const char* name;
    std::function<void()> write;
  } cases[] = {
      {"page linked out", [&] { files.atomic_write(root / "docs/out.md", "x"); }},
      {"folder linked out", [&] { files.atomic_write(root / "docs/away/victim", "x"); }},
      {"append through a folder link", [&] { files.append(root / "docs/away/new", "x"); }},
      {"append to a dangling link", [&] { files.append(root / "docs/dangling", "x"); }},
      {"remove through a folder link", [&] { files.remove_file(root / "docs/away/victim"); }},
  };
  for (const Case& c : cases) {
    EXPECT_THROW(c.write(), fs::filesystem_error) << c.name;
    EXPECT_EQ(dir.read("outside/victim"), "keep me") << c.name;
    EXPECT_FALSE(fs::exists(dir / "outside/new")) << c.name;
  }
  std::vector<std::string> left;
  for (const auto& entry : fs::directory_iterator(root / "docs")) {
    left.push_back(entry.path().filename().string());
  }
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, (std::vector<std::string>{"alias.md", "away", "dangling", "out.md", "page.md"}));
}

}  // namespace
}  // namespace tolbarrow::hosts::native

// A git work tree in a temporary directory, for the command's tests.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/native/process.h"
#include "hosts/native/repo_paths.h"
#include "tests/temp_dir.h"

namespace tolbarrow::hosts::native::command {

namespace fs = std::filesystem;

// A git work tree in a temporary directory; a git command that fails fails the test.
class GitRepo {
 public:
  GitRepo() { git({"init", "-q"}); }
  const fs::path& root() const { return root_; }
  std::string git(std::vector<std::string> args, std::string_view input = {}) const {
    args.insert(args.begin(), {"git", "-c", "user.name=t", "-c", "user.email=t@example.org", "-c",
                               "commit.gpgsign=false"});
    const ProcessResult result = run_process(args, root_, input);
    EXPECT_EQ(result.exit_code, 0) << args[7] << ": " << result.err;
    return result.out;
  }
  void write(const std::string& rel, const std::string& text) const { dir_.write(rel, text); }
  void commit() const {
    git({"add", "-A"});
    git({"commit", "-q", "-m", "change"});
  }
  std::string head() const { return git({"rev-parse", "HEAD"}).substr(0, 40); }
  // The blob id git gives `text`, without storing it.
  std::string blob(const std::string& text) const {
    return git({"hash-object", "--stdin"}, text).substr(0, 40);
  }
  bool has_object(const std::string& id) const {
    return run_process({"git", "cat-file", "-e", id}, root_).exit_code == 0;
  }

 private:
  testing::TempDir dir_;
  fs::path root_ = canonical_root(dir_.path());
};

}  // namespace tolbarrow::hosts::native::command

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/temp_dir.h"
#include "workers/wiki/repo_facts.h"

namespace tolbarrow::workers::wiki {
namespace {

TEST(RealFileSystem, AtomicWriteReplacesContentAndKeepsTheMode) {
  testing::TempDir dir;
  RealFileSystem files;
  dir.write("page.md", "old");
  ::chmod((dir / "page.md").c_str(), 0640);
  files.atomic_write(dir / "page.md", "new \xC3\xA9");
  EXPECT_EQ(dir.read("page.md"), "new \xC3\xA9");
  struct stat info {};
  ASSERT_EQ(::stat((dir / "page.md").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0640u);
  // Nothing is left beside the file.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

TEST(RealFileSystem, ErrorsNameThePath) {
  testing::TempDir dir;
  RealFileSystem files;
  EXPECT_FALSE(files.is_file(dir / "absent.md"));
  EXPECT_FALSE(files.is_file(dir.path()));
  EXPECT_FALSE(files.is_file(dir / "absent/below.md"));
  try {
    files.atomic_write(dir / "absent/page.md", "x");
    FAIL() << "wrote into a missing directory";
  } catch (const std::filesystem::filesystem_error& e) {
    EXPECT_NE(std::string(e.what()).find("absent"), std::string::npos) << e.what();
  }
  EXPECT_THROW(files.read_file(dir / "absent.md"), std::filesystem::filesystem_error);
}

}  // namespace
}  // namespace tolbarrow::workers::wiki

// A temporary directory removed at the end of the test, for what must touch real files.
#pragma once

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

namespace tolbarrow::testing {

class TempDir {
 public:
  TempDir() {
    std::random_device random;
    path_ = std::filesystem::temp_directory_path() /
            ("wiki-test-" + std::to_string(random()) + std::to_string(random()));
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& rel) const { return path_ / rel; }
  void write(const std::string& rel, const std::string& content) const {
    std::filesystem::create_directories((path_ / rel).parent_path());
    std::ofstream(path_ / rel, std::ios::binary | std::ios::trunc) << content;
  }
  std::string read(const std::string& rel) const {
    std::ifstream in(path_ / rel, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }

 private:
  std::filesystem::path path_;
};

}  // namespace tolbarrow::testing

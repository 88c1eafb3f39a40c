// The files the refresh reads and writes: page files and the wiki's digest file.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tolbarrow::workers::wiki {

// Errors are std::filesystem::filesystem_error naming the path; the refresh lets them reach its
// caller (except for an absent digest file, which it treats as no digest).
class FileSystem {
 public:
  virtual ~FileSystem() = default;
  // Whether `path` is an existing regular file (a symbolic link counts by its target). A path
  // that leads to nothing (missing, not a directory on the way, a link loop, a name too long) is
  // no file; any other failure to look throws.
  virtual bool is_file(const std::filesystem::path& path) = 0;
  // The whole content of the file at `path`, as bytes.
  virtual std::string read_file(const std::filesystem::path& path) = 0;
  // Replaces the file's content as one step, so that a reader sees the old content or the new,
  // never a mix.
  virtual void atomic_write(const std::filesystem::path& path, std::string_view content) = 0;
  // Adds `content` at the end of the file at `path` (created when absent) and returns once it is
  // on disk. A failure, or a crash, may leave a part of it written.
  virtual void append(const std::filesystem::path& path, std::string_view content) = 0;
  // Removes the file at `path`; a file that is not there is no error.
  virtual void remove_file(const std::filesystem::path& path) = 0;
};

// Writes all of `content` to the descriptor `fd`, again after an interrupted write; a failure
// throws std::filesystem::filesystem_error naming `path`.
void write_all(int fd, std::string_view content, const std::filesystem::path& path);

// The operating system's file system. atomic_write writes a temporary file in the same
// directory, flushes it to disk, renames it over the file (keeping the file's mode) and flushes
// the directory.
class RealFileSystem : public FileSystem {
 public:
  bool is_file(const std::filesystem::path& path) override;
  std::string read_file(const std::filesystem::path& path) override;
  void atomic_write(const std::filesystem::path& path, std::string_view content) override;
  void append(const std::filesystem::path& path, std::string_view content) override;
  void remove_file(const std::filesystem::path& path) override;
};

}  // namespace tolbarrow::workers::wiki

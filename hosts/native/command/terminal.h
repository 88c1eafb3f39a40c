// What the command shows on a terminal: a progress line on stderr while a step takes more than a
// moment, and colour where the stream is a terminal and NO_COLOR is not set.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "workers/wiki/repo_facts.h"

namespace spdlog {
class logger;
}

namespace tolbarrow::hosts::native::command {

namespace wiki = tolbarrow::workers::wiki;

// Whether `stream` (stdout or stderr) is a terminal that may be coloured.
bool colour_for(std::FILE* stream);

// `text` between the escape codes of `code` ("1;31" bold red) when `on`.
std::string paint(bool on, std::string_view code, std::string_view text);

// A one-line progress display on stderr: "<label> <done>/<total>" (or "<label>…" without a
// total), drawn only after the current step has taken `delay`, redrawn a few times a second, and
// erased when the step ends. Does nothing when disabled.
class Progress {
 public:
  explicit Progress(bool enabled, std::chrono::milliseconds delay = std::chrono::milliseconds(400));
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void begin(std::string label, std::size_t total = 0);
  void step() { ++done_; }
  void end();

 private:
  void loop();
  void erase_locked();

  bool enabled_;
  std::chrono::milliseconds delay_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::string label_;
  std::size_t total_ = 0;
  std::atomic<std::size_t> done_ = 0;
  std::chrono::steady_clock::time_point since_;
  bool active_ = false, drawn_ = false, stop_ = false;
  std::thread thread_;
};

// The host's file system, counting each page read as one step of `progress`.
class CountingFileSystem : public wiki::FileSystem {
 public:
  CountingFileSystem(wiki::FileSystem& inner, Progress& progress)
      : inner_(inner), progress_(progress) {}
  bool is_file(const std::filesystem::path& path) override { return inner_.is_file(path); }
  std::string read_file(const std::filesystem::path& path) override;
  void atomic_write(const std::filesystem::path& path, std::string_view content) override {
    inner_.atomic_write(path, content);
  }
  void append(const std::filesystem::path& path, std::string_view content) override {
    inner_.append(path, content);
  }
  void remove_file(const std::filesystem::path& path) override { inner_.remove_file(path); }

 private:
  wiki::FileSystem& inner_;
  Progress& progress_;
};

// The logger handed to the refresh: its lines go to stderr prefixed with the program's name
// (none when quiet).
std::shared_ptr<spdlog::logger> make_refresh_log(bool quiet);

}  // namespace tolbarrow::hosts::native::command

#include "hosts/native/command/terminal.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <unistd.h>

#include <cstdlib>

#include "workers/wiki/citation_refresh.h"

namespace tolbarrow::hosts::native::command {
namespace {

class RefreshSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit RefreshSink(bool quiet) : quiet_(quiet) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    const std::string_view text(msg.payload.data(), msg.payload.size());
    if (!quiet_) std::fprintf(stderr, "citation-refresh: %.*s\n", int(text.size()), text.data());
  }
  void flush_() override { std::fflush(stderr); }

 private:
  bool quiet_;
};

}  // namespace

bool colour_for(std::FILE* stream) {
  return std::getenv("NO_COLOR") == nullptr && ::isatty(::fileno(stream)) == 1;
}

std::string paint(bool on, std::string_view code, std::string_view text) {
  if (!on) return std::string(text);
  return "\033[" + std::string(code) + "m" + std::string(text) + "\033[0m";
}

Progress::Progress(bool enabled, std::chrono::milliseconds delay)
    : enabled_(enabled), delay_(delay) {
  if (enabled_) thread_ = std::thread([this] { loop(); });
}

Progress::~Progress() {
  if (!enabled_) return;
  {
    std::lock_guard lock(mutex_);
    erase_locked();
    stop_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void Progress::begin(std::string label, std::size_t total) {
  if (!enabled_) return;
  std::lock_guard lock(mutex_);
  erase_locked();
  label_ = std::move(label);
  total_ = total;
  done_ = 0;
  since_ = std::chrono::steady_clock::now();
  active_ = true;
  wake_.notify_all();
}

void Progress::end() {
  if (!enabled_) return;
  std::lock_guard lock(mutex_);
  erase_locked();
  active_ = false;
}

void Progress::erase_locked() {
  if (drawn_) std::fputs("\r\033[K", stderr), std::fflush(stderr);
  drawn_ = false;
}

void Progress::loop() {
  std::unique_lock lock(mutex_);
  while (!stop_) {
    wake_.wait_for(lock, std::chrono::milliseconds(120));
    if (stop_ || !active_ || std::chrono::steady_clock::now() - since_ < delay_) continue;
    std::string line = "\r\033[K" + label_;
    if (total_ > 0) {
      line += " " + std::to_string(done_.load()) + "/" + std::to_string(total_);
    } else {
      static constexpr const char* kSpin[] = {"|", "/", "-", "\\"};
      const auto ticks = std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::steady_clock::now() - since_)
                             .count() /
                         120;
      line += std::string(" ") + kSpin[ticks % 4];
    }
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
    drawn_ = true;
  }
}

std::string CountingFileSystem::read_file(const std::filesystem::path& path) {
  std::string bytes = inner_.read_file(path);
  if (path.extension() == ".md") progress_.step();
  return bytes;
}

std::shared_ptr<spdlog::logger> make_refresh_log(bool quiet) {
  auto logger = std::make_shared<spdlog::logger>(std::string(wiki::citation_refresh::MODULE_NAME),
                                                 std::make_shared<RefreshSink>(quiet));
  logger->set_level(spdlog::level::info);
  return logger;
}

}  // namespace tolbarrow::hosts::native::command

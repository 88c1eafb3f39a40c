// The C++-only side of the Python boundary benchmark: the same refresh as the Python host's, on the
// same generated data, through the core with the in-memory host (page files on disk).
//
//   refresh_driver DATA.json report|write|claims REPEAT
//
// DATA.json (written by python_refresh_bench.py) holds the index (files with their line counts,
// declarations per file), the page rows, the wiki directory and the repository root. In write
// mode the wiki directory is restored from its pristine copy (WIKI_DIR + ".pristine") before each
// run, outside the timing. Page files are read from disk; the time of their atomic writes is the
// host's, as it is for the Python host, and is left out. Prints the best run's seconds and the
// citations counted, as JSON.
#include <chrono>
#include <fstream>
#include <iostream>

#include "hosts/memory/memory_host.h"

namespace tolbarrow::hosts::memory {
namespace {

double seconds_since(std::chrono::steady_clock::time_point began) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
}

// The disk, with the time spent in atomic writes (the host's service) kept apart.
class TimedDisk : public RealFileSystem {
 public:
  double write_seconds = 0;
  void atomic_write(const fs::path& path, std::string_view content) override {
    const auto began = std::chrono::steady_clock::now();
    RealFileSystem::atomic_write(path, content);
    write_seconds += seconds_since(began);
  }
};

void restore(const fs::path& wiki_dir) {
  fs::remove_all(wiki_dir);
  fs::copy(fs::path(wiki_dir.string() + ".pristine"), wiki_dir, fs::copy_options::recursive);
}

int run(const fs::path& data_path, const std::string& mode, int repeat) {
  std::ifstream in(data_path);
  const Record data = Record::parse(in);
  const fs::path wiki_dir = data.at("wiki_dir").get<std::string>();
  const fs::path repo_root = data.at("repo_root").get<std::string>();

  MemoryHost host;
  MemoryRepository repo;
  TimedDisk disk;
  for (const auto& [path, lines] : data.at("files").items()) {
    repo.files.insert(path);
    host.line_counts_by_path[path] = lines.get<Line>();
  }
  for (const auto& [path, symbols] : data.at("symbols").items()) {
    auto& list = repo.symbols[path];
    for (const auto& s : symbols) {
      list.push_back(Symbol{s[0].get<std::string>(), s[1].get<std::string>(),
                            s[2].get<std::string>(), s[3].get<Line>(), s[4].get<Line>()});
    }
  }
  std::int64_t citations = 0;
  double best = 1e300;
  for (int i = 0; i < repeat; ++i) {
    repo.pages = data.at("pages").get<std::vector<Record>>();
    repo.updates.clear();
    if (mode == "write") restore(wiki_dir);
    cr::Host services{.syntax = host,
                      .anchoring = host,
                      .ranges = host,
                      .file_system = disk,
                      .locks = host,
                      .logger = host.logger};
    host.anchor_calls.clear();
    disk.write_seconds = 0;
    const auto began = std::chrono::steady_clock::now();
    if (mode == "claims") {
      citations = 0;
      for (const Record& page : repo.pages) {
        const Text text(disk.read_file(wiki_dir / page.at("rel_path").get<std::string>()));
        host.find(text, [&](const Citation& c) {
          cr::claim_identifiers(services, text, c.start);
          ++citations;
        });
      }
    } else {
      const auto result = cr::refresh_citations(services, repo, "main", wiki_dir, repo_root,
                                                {.write = mode == "write"});
      citations = 0;
      for (const Record& page : data.at("pages")) citations += page.at("citations").size();
      if (i == 0) std::cerr << cr::to_string(result).substr(0, 120) << "\n";
    }
    best = std::min(best, seconds_since(began) - disk.write_seconds);
  }
  std::cout << Record{{"seconds", best}, {"citations", citations}}.dump() << "\n";
  return 0;
}

}  // namespace
}  // namespace tolbarrow::hosts::memory

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: refresh_driver DATA.json report|write|claims REPEAT\n";
    return 2;
  }
  try {
    return tolbarrow::hosts::memory::run(argv[1], argv[2], std::stoi(argv[3]));
  } catch (const std::exception& e) {
    std::cerr << "refresh_driver: " << e.what() << "\n";
    return 1;
  }
}

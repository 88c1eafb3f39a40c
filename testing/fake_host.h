// In-memory host: every host service of workers/wiki/, recording what it is asked.
// Page citations are written "(path#Lfirst-Llast)".
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "workers/wiki/citation_refresh.h"

namespace tolbarrow::workers::wiki {
// Readable failure messages.
void PrintTo(const CitationKey& key, std::ostream* out);
void PrintTo(const LineRange& range, std::ostream* out);
void PrintTo(const Moves& moves, std::ostream* out);
}  // namespace tolbarrow::workers::wiki

namespace tolbarrow::testing {

using namespace tolbarrow::workers::wiki;
namespace cr = tolbarrow::workers::wiki::citation_refresh;

SymbolPtr sym(std::string fqn, Line start, Line end, std::string kind = "function");
std::string cite(const std::string& path, Line first, Line last);

// The host modules and what they were asked.
class FakeHost {
 public:
  FakeHost();

  cr::HostModules modules();
  cr::Module load() { return cr::Module::load(modules(), logger); }

  // Host state the tests set.
  std::map<std::string, Line> line_counts;  // default 1000 lines
  std::vector<std::string> skip_exts{".py", ".md"};
  std::set<std::string> unanchored_kinds{"module"};
  bool busy = false;               // acquiring the lock raises WikiBusy
  bool release_fails = false;      // releasing the lock raises
  std::shared_ptr<spdlog::logger> logger;
  std::vector<std::string> log_lines;  // what the logger received, as "level: text"

  // What the host was asked, in order: "lock <dir>", "acquire", "release", "write <file name>"
  std::vector<std::string> calls;
  std::vector<std::string> anchor_calls;  // "first-last" of each anchor_symbol call
  int pattern_searches = 0;

 private:
  std::shared_ptr<const CitationPattern> pattern_;
};

// A Repository that keeps what it is given, as a page store does.
class FakeRepository : public Repository {
 public:
  std::map<std::string, Symbols> symbols;
  std::set<std::string> files;
  std::vector<Record> pages;  // rows of every branch

  struct Update {
    std::string branch, page_id;
    PageUpdate update;
  };
  std::vector<Update> updates;
  std::map<std::string, int> symbol_queries, file_queries;
  std::string fail_update;  // a page id whose update raises

  Symbols get_symbols_by_path(const std::string& path) override;
  std::optional<Record> get_file_by_path(const std::string& path) override;
  std::vector<PageRowPtr> get_wiki_pages(const std::string& branch) override;
  void update_wiki_page_citations(const std::string& branch, const std::string& page_id,
                                  PageUpdate update) override;
};

// A temporary directory removed at the end of the test.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::filesystem::path& path() const { return path_; }
  void write(const std::string& rel, const std::string& content) const;
  std::string read(const std::string& rel) const;

 private:
  std::filesystem::path path_;
};

}  // namespace tolbarrow::testing

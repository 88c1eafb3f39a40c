// The in-memory host: every host service of workers/wiki/ held in memory, recording what it is
// asked. The C++ tests and the benchmarks stand it behind the module. Page citations are written
// "(path#Lfirst-Llast)".
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "workers/wiki/citation_refresh.h"

namespace tolbarrow::workers::wiki {
// Readable failure messages.
void PrintTo(const CitationKey& key, std::ostream* out);
void PrintTo(const LineRange& range, std::ostream* out);
void PrintTo(const Moves& moves, std::ostream* out);
void PrintTo(const Symbol& symbol, std::ostream* out);
}  // namespace tolbarrow::workers::wiki

namespace tolbarrow::hosts::memory {

using namespace tolbarrow::workers::wiki;
namespace cr = tolbarrow::workers::wiki::citation_refresh;
namespace fs = std::filesystem;

// A declaration named by its fully qualified name; its simple name is the last dotted part.
Symbol sym(std::string fqn, Line start, Line end, std::string kind = "function");
// A citation as this host writes it in page text.
std::string cite(const std::string& path, Line first, Line last);

// Files in memory. Reads, writes and faults are recorded in the host's `calls`.
class MemoryFileSystem : public FileSystem {
 public:
  explicit MemoryFileSystem(std::vector<std::string>& calls) : calls_(calls) {}

  // Paths ordered by their text: a path is one string here, and comparing it so is much cheaper
  // than comparing it element by element.
  struct ByText {
    bool operator()(const fs::path& a, const fs::path& b) const { return a.native() < b.native(); }
  };
  using Files = std::map<fs::path, std::string, ByText>;
  Files files;                     // regular files and their bytes
  std::set<fs::path> directories;  // paths that exist but are no regular file
  // Called before each operation ("read", "write", "append", "remove") on a path; throwing from it
  // fails that operation, as a full disk or an I/O error would.
  std::function<void(const std::string& operation, const fs::path& path)> fault;

  bool is_file(const fs::path& path) override;
  std::string read_file(const fs::path& path) override;
  void atomic_write(const fs::path& path, std::string_view content) override;
  void append(const fs::path& path, std::string_view content) override;
  void remove_file(const fs::path& path) override;

 private:
  std::vector<std::string>& calls_;
};

// The host services besides the Repository, in one object; host() presents them to the module.
class MemoryHost : public CitationSyntax,
                   public Anchoring,
                   public CitationRanges,
                   public WriteLocks {
 public:
  MemoryHost();
  cr::Host host();

  // Host state the tests set.
  std::unordered_map<std::string, Line> line_counts_by_path;  // default 1000 lines
  std::vector<std::string> skip_exts{".py", ".md"};
  std::set<std::string> unanchored_kinds{"module"};
  bool busy = false;           // acquiring the lock throws WikiBusy
  bool release_fails = false;  // releasing the lock throws
  std::shared_ptr<spdlog::logger> logger;
  std::vector<std::string> log_lines;  // what the logger received, as "level: text"

  // What the host was asked, in order: "lock <dir>", "acquire", "release", "read <file name>",
  // "write <file name>", "append <file name>", "remove <file name>".
  std::vector<std::string> calls;
  std::vector<std::string> anchor_calls;  // "first-last" of each anchor_symbol call
  int pattern_searches = 0;
  MemoryFileSystem file_system{calls};

  // CitationSyntax
  void find(const Text& text, const std::function<void(const Citation&)>& each) override;
  std::optional<std::size_t> last_end(const Text& text, std::size_t start,
                                      std::size_t end) override;
  std::string rewrite(const Text& text, const Moves& moves) override;
  // Anchoring
  const std::vector<std::string>& file_name_endings() override { return skip_exts; }
  bool unanchored_kind(const std::string& kind) override { return unanchored_kinds.count(kind); }
  const Symbol* anchor_symbol(std::span<const Symbol> symbols, Line first, Line last) override;
  Record anchored(const Record& citation, LineRange lines, const Symbol* symbol) override;
  // CitationRanges
  std::unique_ptr<LineCounts> line_counts(const fs::path& repo_root) override;
  std::optional<LineRange> fit_range(Line first, Line last, Line line_count) override;
  // WriteLocks
  std::unique_ptr<WriteLock> open(const fs::path& wiki_dir) override;

 private:
  // One citation that find() found, and its span in bytes.
  struct Scanned {
    Citation citation;
    std::size_t byte_begin = 0, byte_end = 0;
  };
  // The citations of the text find() scanned last (by Text::id()): last_end() and rewrite() of
  // that text read them instead of searching it again, as the refresh asks for both of the page
  // it has just scanned.
  const std::vector<Scanned>* scanned(const Text& text) const;
  std::uint64_t scanned_id_ = 0;
  std::vector<Scanned> scanned_;
  // The same citations' spans in code points, packed apart so that last_end() searches a small
  // table; it gallops from where it last stopped, since a refresh asks in the page's order.
  std::vector<std::pair<std::size_t, std::size_t>> spans_;
  std::size_t last_hit_ = 0;
};

// A Repository that keeps what it is given, as a page store does.
class MemoryRepository : public Repository {
 public:
  std::map<std::string, std::vector<Symbol>> symbols;
  std::set<std::string> files;
  std::vector<Record> pages;  // rows of every branch

  struct Update {
    std::string branch, page_id;
    PageUpdate update;
  };
  std::vector<Update> updates;
  std::map<std::string, int> symbol_queries, file_queries;
  std::string fail_update;  // a page id whose update throws
  // Called with the service's name ("get_wiki_pages", ...) as each call begins; throwing from it
  // fails that call.
  std::function<void(const std::string& service)> fault;

  std::vector<Symbol> get_symbols_by_path(const std::string& path) override;
  bool is_indexed(const std::string& path) override;
  std::vector<std::unique_ptr<const PageRow>> get_wiki_pages(const std::string& branch) override;
  void update_wiki_page_citations(const std::string& branch, const PageRow& row,
                                  PageUpdate update) override;
  std::string text_hash(const std::string& text) override;
};

}  // namespace tolbarrow::hosts::memory

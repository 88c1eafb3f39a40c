#include "hosts/native/anchoring.h"

#include <sys/stat.h>

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "hosts/native/repo_paths.h"

namespace tolbarrow::hosts::native {
namespace fs = std::filesystem;
namespace {

class IndexLineCounts : public wiki::LineCounts {
 public:
  IndexLineCounts(SqliteStore& store, fs::path root) : store_(store), contained_(std::move(root)) {}

  wiki::Line count(const std::string& path) override {
    auto it = counts_.find(path);
    if (it == counts_.end()) it = counts_.emplace(path, measure(path)).first;
    return it->second;
  }

 private:
  wiki::Line measure(const std::string& path) {
    const auto file = contained_(path);
    struct stat st;
    if (!file || ::stat(file->c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return 0;
    const std::int64_t mtime_ns =
        static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    if (!facts_) {  // the index's facts, read once: a refresh counts every cited file
      facts_.emplace();
      for (FileFacts& facts : store_.files()) facts_->emplace(facts.path, std::move(facts));
    }
    if (const auto facts = facts_->find(path); facts != facts_->end() &&
                                               facts->second.size == st.st_size &&
                                               facts->second.mtime_ns == mtime_ns) {
      return facts->second.line_count;
    }
    return count_lines(read_bytes(*file));
  }

  SqliteStore& store_;
  ContainedPaths contained_;  // each directory's links followed once per refresh
  std::unordered_map<std::string, wiki::Line> counts_;
  std::optional<std::unordered_map<std::string, FileFacts>> facts_;
};

}  // namespace

const std::vector<std::string>& CtagsAnchoring::file_name_endings() {
  static const std::vector<std::string> endings = {
      ".py",    ".pyi",   ".c",          ".h",      ".cc",   ".cpp",   ".cxx",  ".hh",    ".hpp",
      ".hxx",   ".cu",    ".go",         ".rs",     ".java", ".kt",    ".kts",  ".scala", ".swift",
      ".m",     ".mm",    ".cs",         ".fs",     ".js",   ".jsx",   ".mjs",  ".cjs",   ".ts",
      ".tsx",   ".rb",    ".php",        ".pl",     ".pm",   ".lua",   ".r",    ".jl",    ".ex",
      ".exs",   ".erl",   ".hs",         ".ml",     ".sh",   ".bash",  ".zsh",  ".ps1",   ".sql",
      ".proto", ".cmake", ".mk",         ".md",     ".rst",  ".txt",   ".json", ".yaml",  ".yml",
      ".toml",  ".ini",   ".cfg",        ".conf",   ".xml",  ".html",  ".css",  ".scss",  ".lock",
      ".csv",   ".ipynb", ".dockerfile", ".gradle", ".vue",  ".svelte"};
  return endings;
}

bool CtagsAnchoring::unanchored_kind(const std::string& kind) {
  static const std::unordered_set<std::string> kinds = {
      "variable", "constant", "local",  "parameter", "enumerator", "externvar",
      "import",   "include",  "module", "package",   "namespace",  "unknown"};
  return kinds.count(kind) != 0;
}

const wiki::Symbol* CtagsAnchoring::anchor_symbol(std::span<const wiki::Symbol> symbols,
                                                  wiki::Line first, wiki::Line last) {
  const wiki::Symbol* best = nullptr;
  for (const wiki::Symbol& s : symbols) {
    if (s.start_line > first || s.end_line < last || unanchored_kind(s.kind)) continue;
    if (best == nullptr || s.end_line - s.start_line < best->end_line - best->start_line) best = &s;
  }
  return best;
}

wiki::Record CtagsAnchoring::anchored(const wiki::Record& citation, wiki::LineRange lines,
                                      const wiki::Symbol* symbol) {
  wiki::Record out = wiki::anchored_record(citation, lines, symbol);
  // What the record was placed against (the command's "blob" and "text") holds only for the lines
  // it was placed on: a record given other lines is placed anew when the anchors file is written.
  const auto start = citation.find("line_start"), end = citation.find("line_end");
  if (start == citation.end() || end == citation.end() || *start != lines.first ||
      *end != lines.last) {
    out.erase("blob");
    out.erase("text");
  }
  return out;
}

std::unique_ptr<wiki::LineCounts> IndexCitationRanges::line_counts(const fs::path& repo_root) {
  return std::make_unique<IndexLineCounts>(store_, canonical_root(repo_root));
}

std::optional<wiki::LineRange> IndexCitationRanges::fit_range(wiki::Line first, wiki::Line last,
                                                              wiki::Line line_count) {
  if (line_count <= 0 || first > line_count || last < 1 || last < first) return std::nullopt;
  return wiki::LineRange{std::max<wiki::Line>(first, 1), std::min(last, line_count)};
}

}  // namespace tolbarrow::hosts::native

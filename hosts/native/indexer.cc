#include "hosts/native/indexer.h"

#include <sys/stat.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>

#include "hosts/native/process.h"
#include "hosts/native/repo_paths.h"

#ifndef TOLBARROW_CTAGS
#define TOLBARROW_CTAGS "ctags"
#endif

namespace tolbarrow::hosts::native {
namespace fs = std::filesystem;
namespace {

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> out;
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t next = text.find(separator, at);
    if (next == std::string::npos) next = text.size();
    if (next > at) out.push_back(text.substr(at, next - at));
    at = next + 1;
  }
  return out;
}

std::vector<std::string> walk(const fs::path& root) {
  std::vector<std::string> out;
  auto it = fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied);
  for (; it != fs::recursive_directory_iterator(); ++it) {
    const std::string name = it->path().filename().string();
    if (it->is_directory() && !it->is_symlink() && !name.empty() && name[0] == '.') {
      it.disable_recursion_pending();
      continue;
    }
    if (!it->is_directory()) out.push_back(fs::relative(it->path(), root).generic_string());
  }
  return out;
}

}  // namespace

std::vector<std::string> repository_files(const fs::path& root) {
  const ProcessResult inside = run_process({"git", "rev-parse", "--is-inside-work-tree"}, root);
  if (inside.exit_code != 0 || inside.out.rfind("true", 0) != 0) return walk(root);
  const ProcessResult listed =
      run_process({"git", "ls-files", "-co", "--exclude-standard", "-z"}, root);
  if (listed.exit_code != 0) {
    throw std::runtime_error(root.string() + ": git ls-files failed: " + listed.err);
  }
  return split(listed.out, '\0');
}

std::string_view scope_separator(std::string_view language) {
  return language == "C" || language == "C++" ? "::" : ".";
}

std::vector<std::pair<std::string, std::vector<wiki::Symbol>>> parse_ctags_json(
    std::string_view output) {
  std::vector<std::pair<std::string, std::vector<wiki::Symbol>>> out;
  std::unordered_map<std::string, std::size_t> slot;
  std::size_t at = 0;
  while (at < output.size()) {
    std::size_t next = output.find('\n', at);
    if (next == std::string_view::npos) next = output.size();
    const std::string_view line = output.substr(at, next - at);
    at = next + 1;
    if (line.empty()) continue;
    const auto tag = nlohmann::json::parse(line, nullptr, false);
    if (tag.is_discarded())
      throw std::runtime_error("ctags gave a line that is not JSON: " + std::string(line));
    if (tag.value("_type", "") != "tag") continue;
    wiki::Symbol symbol;
    symbol.name = tag.value("name", "");
    symbol.kind = tag.value("kind", "");
    symbol.start_line = tag.value("line", wiki::Line{0});
    symbol.end_line = tag.value("end", symbol.start_line);
    const std::string scope = tag.value("scope", "");
    symbol.fqn = scope.empty() ? symbol.name
                               : scope + std::string(scope_separator(tag.value("language", ""))) +
                                     symbol.name;
    const std::string path = tag.value("path", "");
    auto [it, added] = slot.try_emplace(path, out.size());
    if (added) out.emplace_back(path, std::vector<wiki::Symbol>{});
    out[it->second].second.push_back(std::move(symbol));
  }
  return out;
}

Indexer::Indexer(SqliteStore& store, std::optional<std::string> ctags)
    : store_(store), ctags_(ctags ? *ctags : TOLBARROW_CTAGS) {}

std::vector<std::pair<std::string, std::vector<wiki::Symbol>>> Indexer::run_ctags(
    const std::vector<std::string>& paths) {
  std::string list;
  for (const std::string& path : paths) list += path + "\n";
  ++ctags_runs_;
  // --options=NONE: no user or project option file changes what the index holds. Fields: n line,
  // e end line, K/z long kind names, S signature, l language (for the scope separator).
  // --sort=no keeps each file's declarations in the order ctags meets them: the index order.
  const ProcessResult result = run_process({ctags_, "--options=NONE", "--output-format=json",
                                            "--fields=+neKzSl", "--sort=no", "-f", "-", "-L", "-"},
                                           store_.repo_root(), list);
  if (result.exit_code != 0) {
    throw std::runtime_error(ctags_ + " failed in " + store_.repo_root().string() + " (exit " +
                             std::to_string(result.exit_code) + "): " + result.err);
  }
  return parse_ctags_json(result.out);
}

IndexStats Indexer::update() {
  const fs::path& root = store_.repo_root();
  std::map<std::string, FileFacts> known;
  for (FileFacts& facts : store_.files()) known.emplace(facts.path, std::move(facts));

  IndexStats stats;
  IndexChange change;
  std::vector<FileFacts> changed;  // content differs: for ctags
  std::set<std::string> present;
  // The store's own files are no part of the repository's code.
  std::unordered_set<std::string> own;
  const fs::path db = fs::weakly_canonical(store_.file());
  const std::string db_rel = db.lexically_relative(root).generic_string();
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) own.insert(db_rel + suffix);

  for (const std::string& path : repository_files(root)) {
    if (path.find('\n') != std::string::npos || own.count(path)) continue;
    const auto file = contained_path(root, path);
    struct stat st;
    if (!file || ::stat(file->c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    present.insert(path);
    FileFacts facts{path, "", st.st_size,
                    static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec,
                    0};
    auto old = known.find(path);
    if (old != known.end() && old->second.size == facts.size &&
        old->second.mtime_ns == facts.mtime_ns) {
      continue;
    }
    const std::string bytes = read_bytes(*file);
    facts.hash = sha256_hex(bytes);
    facts.line_count = count_lines(bytes);
    facts.size = static_cast<std::int64_t>(bytes.size());
    if (old != known.end() && old->second.hash == facts.hash) {
      change.touched.push_back(std::move(facts));
    } else {
      changed.push_back(std::move(facts));
    }
  }
  for (const auto& [path, facts] : known) {
    if (!present.count(path)) change.removed.push_back(path);
  }

  for (std::size_t begin = 0; begin < changed.size(); begin += kBatch) {
    const std::size_t end = std::min(changed.size(), begin + kBatch);
    std::vector<std::string> paths;
    for (std::size_t i = begin; i < end; ++i) paths.push_back(changed[i].path);
    auto tags = run_ctags(paths);
    std::unordered_map<std::string, std::vector<wiki::Symbol>*> by_path;
    for (auto& [path, symbols] : tags) by_path[path] = &symbols;
    for (std::size_t i = begin; i < end; ++i) {
      auto found = by_path.find(changed[i].path);
      change.indexed.emplace_back(std::move(changed[i]), found == by_path.end()
                                                             ? std::vector<wiki::Symbol>{}
                                                             : std::move(*found->second));
    }
  }
  store_.apply(change);
  stats.files = present.size();
  stats.reindexed = change.indexed.size();
  stats.touched = change.touched.size();
  stats.removed = change.removed.size();
  return stats;
}

}  // namespace tolbarrow::hosts::native

#include "hosts/native/first_sight.h"

#include <algorithm>
#include <map>
#include <optional>

#include "hosts/native/repo_paths.h"

namespace tolbarrow::hosts::native {
namespace fs = std::filesystem;
namespace {

// How far back from a link its prose is read, at most (code points).
constexpr std::size_t kProseWindow = 1000;

// `text` split at "::" and ".", or nothing when a part is empty or holds white space.
std::optional<std::vector<std::string>> parts_of(std::string_view text) {
  std::vector<std::string> out;
  std::string part;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    const bool end = i == text.size();
    const bool colons = !end && text.substr(i, 2) == "::";
    if (end || colons || text[i] == '.') {
      if (part.empty()) return std::nullopt;
      out.push_back(std::move(part));
      part.clear();
      if (colons) ++i;
      continue;
    }
    const char c = text[i];
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') return std::nullopt;
    part += c;
  }
  return out;
}

// A declaration's qualified name as prose may write it: its fqn without what the index adds to
// tell alike declarations apart (C++ parameter types, a Python stub's signature or
// TYPE_CHECKING marker, a property accessor), preceded by the file's module path.
std::vector<std::string> chain_of(const wiki::Symbol& symbol, std::string_view path) {
  std::string_view fqn = symbol.fqn;
  fqn = fqn.substr(0, fqn.find('@'));
  fqn = fqn.substr(0, fqn.find('('));
  for (std::string_view accessor : {".setter", ".deleter"}) {
    if (fqn.size() > accessor.size() && fqn.ends_with(accessor) && symbol.name + "." != accessor)
      fqn.remove_suffix(accessor.size());
  }
  std::vector<std::string> chain;
  // "src/pkg/mod.py" -> src, pkg, mod; a package's __init__ is the package.
  std::string_view file =
      path.substr(0, path.rfind('.') == std::string_view::npos ? path.size() : path.rfind('.'));
  if (path.rfind('/') != std::string_view::npos && path.rfind('.') < path.rfind('/')) file = path;
  std::size_t at = 0;
  while (at <= file.size()) {
    std::size_t next = file.find('/', at);
    if (next == std::string_view::npos) next = file.size();
    const std::string_view part = file.substr(at, next - at);
    if (!part.empty() && part != "__init__") chain.emplace_back(part);
    at = next + 1;
  }
  if (auto parts = parts_of(fqn)) chain.insert(chain.end(), parts->begin(), parts->end());
  return chain;
}

std::size_t span_of(const wiki::Symbol& s) {
  return static_cast<std::size_t>(s.end_line - s.start_line);
}

std::string lines_text(wiki::Line first, wiki::Line last) {
  return "L" + std::to_string(first) + "-L" + std::to_string(last);
}

}  // namespace

namespace detail {

std::vector<std::string> prose_names(std::string_view prose) {
  std::vector<std::string> out;
  std::size_t at = 0;
  while (true) {
    const std::size_t open = prose.find('`', at);
    if (open == std::string_view::npos) break;
    const std::size_t close = prose.find('`', open + 1);
    if (close == std::string_view::npos) break;
    at = close + 1;
    std::string_view span = prose.substr(open + 1, close - open - 1);
    while (!span.empty() && span.front() == ' ') span.remove_prefix(1);
    while (!span.empty() && span.back() == ' ') span.remove_suffix(1);
    if (span.empty() || span.find('/') != std::string_view::npos ||
        span.find('\n') != std::string_view::npos) {
      continue;
    }
    // A test macro names its suite and test: `TEST(BuildTest, NoWork)` is BuildTest.NoWork.
    if (const std::size_t paren = span.find('('); paren != std::string_view::npos) {
      const std::string_view head = span.substr(0, paren);
      const bool macro = !head.empty() && std::all_of(head.begin(), head.end(), [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
      });
      const std::size_t comma = span.find(',', paren);
      if (macro && comma != std::string_view::npos && span.back() == ')') {
        std::string suite(span.substr(paren + 1, comma - paren - 1));
        std::string test(span.substr(comma + 1, span.size() - comma - 2));
        std::erase(suite, ' ');
        std::erase(test, ' ');
        if (parts_of(suite) && parts_of(test)) out.push_back(suite + "." + test);
        continue;
      }
      span = span.substr(0, paren);  // a call names what it calls
    }
    if (parts_of(span)) out.emplace_back(span);
  }
  return out;
}

bool names_symbol(std::string_view name, const wiki::Symbol& symbol, std::string_view path) {
  const auto parts = parts_of(name);
  if (!parts) return false;
  const std::vector<std::string> chain = chain_of(symbol, path);
  return parts->size() <= chain.size() && chain.back() == symbol.name &&
         std::equal(parts->rbegin(), parts->rend(), chain.rbegin());
}

}  // namespace detail

FirstSightStats anchor_first_sight(SqliteStore& store, MarkdownCitationSyntax& syntax,
                                   wiki::Anchoring& anchoring, const std::string& branch,
                                   const fs::path& wiki_dir) {
  FirstSightStats stats;
  std::vector<StoredPage> changed;
  std::map<std::string, std::vector<wiki::Symbol>> symbols_of;
  store.each_page(branch, [&](StoredPage&& page) {
    const auto unseen = [](const wiki::Record& r) {
      return !r.contains("symbol") && r.contains("path") && r["path"].is_string() &&
             r.contains("line_start") && r["line_start"].is_number_integer() &&
             r.contains("line_end") && r["line_end"].is_number_integer();
    };
    if (std::none_of(page.citations.begin(), page.citations.end(), unseen)) return;
    std::string bytes;
    try {
      bytes = read_bytes(wiki_dir / page.rel_path);
    } catch (const fs::filesystem_error&) {
      return;  // gone since the sync: the refresh reports it
    }
    const wiki::Text text(std::move(bytes), (wiki_dir / page.rel_path).string());
    syntax.set_page_folder(page_folder(store.repo_root(), wiki_dir / page.rel_path));
    std::vector<wiki::Citation> cited;
    syntax.find(text, [&](const wiki::Citation& c) { cited.push_back(c); });

    bool page_changed = false;
    for (wiki::Record& record : page.citations) {
      if (!unseen(record)) continue;
      const wiki::CitationKey key{record["path"].get<std::string>(),
                                  record["line_start"].get<wiki::Line>(),
                                  record["line_end"].get<wiki::Line>()};
      const auto at = std::find_if(cited.begin(), cited.end(),
                                   [&](const wiki::Citation& c) { return c.key == key; });
      if (at == cited.end()) continue;
      auto [it, added] = symbols_of.try_emplace(key.path);
      if (added) it->second = store.get_symbols_by_path(key.path);
      const std::vector<wiki::Symbol>& symbols = it->second;
      const wiki::Symbol* innermost = anchoring.anchor_symbol(symbols, key.start, key.end);
      if (innermost == nullptr) continue;  // no declaration holds the lines

      // The prose: back to the previous citation, within the window.
      const std::size_t from = at == cited.begin() ? 0 : std::prev(at)->start;
      std::size_t begin = std::max(from, at->start > kProseWindow ? at->start - kProseWindow : 0);
      if (at != cited.begin()) {
        if (auto end = syntax.last_end(text, from, at->start)) begin = std::max(begin, *end);
      }
      const std::vector<std::string> names =
          detail::prose_names(text.slice(std::min(begin, at->start), at->start));

      const wiki::Symbol* chosen = nullptr;
      const wiki::Symbol* elsewhere = nullptr;
      std::string elsewhere_name;
      for (const wiki::Symbol& s : symbols) {
        if (anchoring.unanchored_kind(s.kind)) continue;
        const bool holds = s.start_line <= key.start && key.end <= s.end_line;
        for (const std::string& name : names) {
          if (!detail::names_symbol(name, s, key.path)) continue;
          if (holds && (chosen == nullptr || span_of(s) < span_of(*chosen))) chosen = &s;
          // The name nearest the link (the last written) wins the report.
          const auto rank = [&](const std::string& n) {
            return std::find(names.begin(), names.end(), n) - names.begin();
          };
          if (!holds && (elsewhere == nullptr || rank(name) > rank(elsewhere_name))) {
            elsewhere = &s;
            elsewhere_name = name;
          }
        }
      }
      if (chosen == nullptr) {
        chosen = innermost;
        if (elsewhere != nullptr) {
          const std::size_t link_end =
              syntax
                  .last_end(text, at->start,
                            std::next(at) == cited.end() ? text.length() : std::next(at)->start)
                  .value_or(at->start);
          const std::string_view before =
              std::string_view(text.str()).substr(0, text.byte_at(at->start));
          stats.misnamed.push_back(
              {page.page_id,
               static_cast<wiki::Line>(std::count(before.begin(), before.end(), '\n') + 1),
               std::string(text.slice(at->start, link_end)), elsewhere_name,
               key.path + "#" + lines_text(elsewhere->start_line, elsewhere->end_line)});
        }
      }
      record = anchoring.anchored(record, {key.start, key.end}, chosen);
      ++stats.anchored;
      page_changed = true;
    }
    if (page_changed) changed.push_back(std::move(page));
  });
  if (!changed.empty()) store.update_pages(branch, changed, {});
  return stats;
}

}  // namespace tolbarrow::hosts::native

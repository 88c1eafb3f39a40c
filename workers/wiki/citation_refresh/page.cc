// One page's refresh: the cited-file cache, working out each citation's move, anchor or loss, and
// turning that into the page's new citation records.
#include <unordered_set>

#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::workers::wiki::citation_refresh::detail {

bool operator==(const PageRefresh& a, const PageRefresh& b) {
  if (!(a.moves == b.moves) || a.anchors.size() != b.anchors.size() || a.lost != b.lost) {
    return false;
  }
  for (const auto& [key, record] : a.anchors) {
    const Record* other = b.anchors.find(key);
    if (other == nullptr || !records_equal(record, *other)) return false;
  }
  return true;
}

Files::Files(const Host& host, Repository& repository, std::filesystem::path repo_root)
    : repository_(repository),
      repo_root_(std::move(repo_root)),
      line_counts_(host.ranges.line_counts(repo_root_)) {
  if (!line_counts_) throw std::logic_error("CitationRanges::line_counts gave no LineCounts");
}

std::span<const Symbol> Files::symbols(const std::string& path) {
  auto it = symbols_.find(path);
  if (it == symbols_.end())
    it = symbols_.emplace(path, repository_.get_symbols_by_path(path)).first;
  return it->second;
}

PageRefresh refresh_page(const Host& host, const Text& text, const std::vector<Record>& citations,
                         Files& files) {
  // Stored records by stored key; a later record replaces an earlier one with the same key.
  std::unordered_map<CitationKey, const Record*, CitationKeyHash> stored;
  stored.reserve(citations.size());
  for (const Record& record : citations) stored[stored_key(record)] = &record;

  PageRefresh result({}, {}, {});
  std::unordered_set<CitationKey, CitationKeyHash> seen;

  host.syntax.find(text, [&](const Citation& citation) {
    const CitationKey& key = citation.key;
    // Skipped citations do not enter `seen`: a repeat of one is tested again.
    if (seen.count(key) || key.start < 1 || !files.indexed(key.path)) return;
    seen.insert(key);
    const std::span<const Symbol> symbols = files.symbols(key.path);

    auto found_stored = stored.find(key);
    const Record* stored_record = found_stored == stored.end() ? nullptr : found_stored->second;
    Record fresh;
    if (stored_record == nullptr) {
      fresh = Record{{"path", key.path}, {"line_start", key.start}, {"line_end", key.end}};
    }
    const Record& cite = stored_record != nullptr ? *stored_record : fresh;
    const Symbol* found = nullptr;
    LineRange proposed;
    if (const Record* symbol = present_member(cite, "symbol")) {
      // An anchored citation follows its declaration, or is lost with it.
      found = find_again(symbols, cite);
      if (found == nullptr) {
        const Record* name = present_member(cite, "name");
        result.lost.emplace_back(key, to_path(name != nullptr ? *name : *symbol));
        return;
      }
      proposed = relocated_range(cite, *found);
    } else {
      const auto names = claim_identifiers(host, text, citation.start);
      std::tie(found, proposed) = legacy_anchor(host, symbols, key.start, key.end, names);
    }

    const Line line_count = files.line_count(key.path);
    const auto fitted = host.ranges.fit_range(proposed.first, proposed.last, line_count);
    if (!fitted) {
      result.lost.emplace_back(key, found != nullptr ? found->name : std::string());
      return;
    }
    if (*fitted != LineRange{key.start, key.end}) result.moves.set(key, *fitted);

    Record updated = host.anchoring.anchored(cite, *fitted, found);
    if (stored_record != nullptr && !records_equal(updated, cite)) {
      result.anchors.set(key, std::move(updated));
    }
  });
  return result;
}

std::vector<Record> apply(const std::vector<Record>& citations, const PageRefresh& page) {
  std::vector<Record> out;
  out.reserve(citations.size());
  for (const Record& record : citations) {
    const Record* anchored = page.anchors.find(stored_key(record));
    out.push_back(anchored != nullptr ? *anchored : record);
  }
  return out;
}

}  // namespace tolbarrow::workers::wiki::citation_refresh::detail

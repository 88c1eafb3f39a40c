// One page's refresh: the cited-file cache, working out each citation's move, anchor or loss, and
// turning that into the page's new citation records.
#include <algorithm>
#include <deque>
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

std::uint32_t PathNumbers::number(std::string_view path) {
  if (slots_.size() < 2 * (spans_.size() + 1)) grow();
  const std::size_t hash = std::hash<std::string_view>()(path);
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
    Slot& slot = slots_[at];
    if (slot.number == 0) {
      slot = {hash, static_cast<std::uint32_t>(spans_.size() + 1)};
      spans_.emplace_back(text_.size(), path.size());
      text_.append(path);
      return slot.number - 1;
    }
    if (slot.hash == hash && this->path(slot.number - 1) == path) return slot.number - 1;
  }
}

std::string_view PathNumbers::path(std::uint32_t n) const {
  const auto [offset, size] = spans_[n];
  return std::string_view(text_).substr(offset, size);
}

void PathNumbers::grow() {
  std::vector<Slot> old(std::max<std::size_t>(64, 2 * slots_.size()));
  old.swap(slots_);
  const std::size_t mask = slots_.size() - 1;
  for (const Slot& slot : old) {
    if (slot.number == 0) continue;
    std::size_t at = slot.hash & mask;
    while (slots_[at].number != 0) at = (at + 1) & mask;
    slots_[at] = slot;
  }
}

Files::File& Files::file(const std::string& path) {
  // A citation asks for its path's symbols and then its line count: the second finds it here.
  if (last_ && numbers_.path(*last_) == path) return files_[*last_];
  const std::uint32_t n = numbers_.number(path);
  if (n == files_.size()) files_.emplace_back();
  last_ = n;
  return files_[n];
}

std::span<const Symbol> Files::symbols(const std::string& path) {
  File& entry = file(path);
  if (!entry.symbols) entry.symbols = repository_.get_symbols_by_path(path);
  return *entry.symbols;
}

Line Files::line_count(const std::string& path) {
  File& entry = file(path);
  if (!entry.line_count) entry.line_count = line_counts_->count(path);
  return *entry.line_count;
}

PageRefresh refresh_page(const Host& host, const Text& text, const std::vector<Record>& citations,
                         Files& files, bool anchor) {
  // Stored records by stored key, the key's path a view of the record; a later record replaces
  // an earlier one with the same key. `seen`: a citation with the key was refreshed.
  struct Stored {
    const Record* record;
    bool seen;
  };
  std::unordered_map<CitationKeyView, Stored, CitationKeyViewHash> stored;
  stored.reserve(citations.size());
  std::deque<std::string> paths;  // paths that are not text, as their JSON text
  std::string path;
  for (const Record& record : citations) {
    path.clear();
    CitationKeyView key = stored_key_view(record, path);
    if (!path.empty()) key.path = paths.emplace_back(std::move(path));
    stored.insert_or_assign(key, Stored{&record, false});
  }

  PageRefresh result({}, {}, {});
  std::unordered_set<CitationKey, CitationKeyHash> seen;  // refreshed citations with no record
  std::vector<std::string_view> names;  // the claim of the current legacy citation

  host.syntax.find(text, [&](const Citation& citation) {
    const CitationKey& key = citation.key;
    auto found_stored = stored.find(key_view(key));
    Stored* entry = found_stored == stored.end() ? nullptr : &found_stored->second;
    // Skipped citations are not marked seen: a repeat of one is tested again.
    if ((entry != nullptr ? entry->seen : seen.count(key) != 0) || key.start < 1 ||
        !files.indexed(key.path)) {
      return;
    }
    if (entry != nullptr) {
      entry->seen = true;
    } else {
      seen.insert(key);
    }
    const std::span<const Symbol> symbols = files.symbols(key.path);

    // A citation without a stored record is placed as a legacy one; it has no record to anchor.
    const Record* stored_record = entry != nullptr ? entry->record : nullptr;
    const Symbol* found = nullptr;
    LineRange proposed;
    const Record* symbol =
        stored_record != nullptr ? present_member(*stored_record, "symbol") : nullptr;
    if (symbol != nullptr) {
      // An anchored citation follows its declaration, or is lost with it.
      found = find_again(symbols, *stored_record);
      if (found == nullptr) {
        const Record* name = present_member(*stored_record, "name");
        result.lost.emplace_back(key, to_path(name != nullptr ? *name : *symbol));
        return;
      }
      proposed = relocated_range(*stored_record, *found);
    } else {
      claim_names(host, text, citation.start, names);
      std::tie(found, proposed) = legacy_anchor(host, symbols, key.start, key.end,
                                                std::span<const std::string_view>(names));
    }

    const Line line_count = files.line_count(key.path);
    const auto fitted = host.ranges.fit_range(proposed.first, proposed.last, line_count);
    if (!fitted) {
      result.lost.emplace_back(key, found != nullptr ? found->name : std::string());
      return;
    }
    if (*fitted != LineRange{key.start, key.end}) result.moves.set(key, *fitted);

    if (anchor && stored_record != nullptr) {
      Record updated = host.anchoring.anchored(*stored_record, *fitted, found);
      if (!records_equal(updated, *stored_record)) result.anchors.set(key, std::move(updated));
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

std::vector<Record> apply(const std::vector<Record>& citations, KeyedMap<Record>&& anchors) {
  std::vector<Record> out;
  out.reserve(citations.size());
  // Where each anchored record went: a second stored record with the same key gets a copy.
  std::unordered_map<const Record*, std::size_t> taken;
  for (const Record& record : citations) {
    Record* anchored = anchors.empty() ? nullptr : anchors.find(stored_key(record));
    if (anchored == nullptr) {
      out.push_back(record);
      continue;
    }
    const auto [at, first] = taken.try_emplace(anchored, out.size());
    out.push_back(first ? std::move(*anchored) : Record(out[at->second]));
  }
  return out;
}

}  // namespace tolbarrow::workers::wiki::citation_refresh::detail

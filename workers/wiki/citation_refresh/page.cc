// One page's refresh: the cited-file cache, working out each citation's move, anchor or loss, and
// turning that into the page's new citation records.
#include <algorithm>
#include <cstring>
#include <forward_list>
#include <span>
#include <unordered_map>
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

const PathNumbers::Slot& PathNumbers::slot(std::string_view path, std::size_t hash) const {
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
    const Slot& slot = slots_[at];
    if (slot.number == 0) return slot;
    if (slot.hash == hash && slot.size == path.size() &&
        std::memcmp(slot.text, path.data(), std::min(path.size(), kInline)) == 0 &&
        (path.size() <= kInline || this->path(slot.number - 1) == path)) {
      return slot;
    }
  }
}

std::uint32_t PathNumbers::number(std::string_view path, std::size_t hash) {
  if (4 * (spans_.size() + 1) > 3 * slots_.size()) grow();
  Slot& found = const_cast<Slot&>(slot(path, hash));
  if (found.number == 0) {
    found.hash = hash;
    found.number = static_cast<std::uint32_t>(spans_.size() + 1);
    found.size = static_cast<std::uint32_t>(path.size());
    std::memcpy(found.text, path.data(), std::min(path.size(), kInline));
    spans_.emplace_back(text_.size(), path.size());
    text_.append(path);
  }
  return found.number - 1;
}

std::optional<std::uint32_t> PathNumbers::find(std::string_view path, std::size_t hash) const {
  if (slots_.empty()) return std::nullopt;
  const Slot& found = slot(path, hash);
  if (found.number == 0) return std::nullopt;
  return found.number - 1;
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

Files::File& Files::entry(std::uint32_t n) {
  if (n == files_.size()) files_.emplace_back();
  return files_[n];
}

std::optional<std::uint32_t> Files::ready(std::string_view path, std::size_t hash) {
  const std::optional<std::uint32_t> n = numbers_.find(path, hash);
  if (n && *n < files_.size() && files_[*n].symbols) {
    const File& file = files_[*n];
    __builtin_prefetch(file.keys.data());
    __builtin_prefetch(file.keys.data() + 4);
    __builtin_prefetch(file.symbols->data());
  }
  return n;
}

const Symbol* Files::likely(std::uint32_t n, std::string_view fqn) const {
  if (n >= files_.size() || !files_[n].symbols) return nullptr;
  const File& file = files_[n];
  const std::size_t hash = name_hash(fqn);
  for (std::size_t i = 0; i < file.keys.size(); ++i) {
    if (file.keys[i].fqn == hash) return &(*file.symbols)[i];
  }
  return nullptr;
}

const Files::File& Files::cited(std::uint32_t n, const std::string& path) {
  File& file = entry(n);
  if (!file.symbols) {
    std::vector<Symbol> symbols = repository_.get_symbols_by_path(path);
    file.keys.clear();
    file.keys.reserve(symbols.size());
    for (const Symbol& symbol : symbols)
      file.keys.push_back({name_hash(symbol.fqn), name_hash(symbol.name)});
    file.symbols = std::move(symbols);
  }
  return file;
}

Line Files::line_count(std::uint32_t n, const std::string& path) {
  File& file = entry(n);
  if (!file.line_count) file.line_count = line_counts_->count(path);
  return *file.line_count;
}

std::span<const Symbol> Files::symbols(const std::string& path) {
  return *cited(number(path, hash_text(path)), path).symbols;
}

Line Files::line_count(const std::string& path) {
  return line_count(number(path, hash_text(path)), path);
}

namespace {

// A page's stored records by stored key, and the keys of the citations refreshed on the page.
// One flat table for both, made anew for each page: a page holds few citations.
class PageCitations {
 public:
  static constexpr std::uint32_t kNoNumber = static_cast<std::uint32_t>(-1);
  struct Entry {
    CitationKeyView key;
    const Record* record = nullptr;    // null: a citation of the text with no stored record
    CitationMembers members;           // of `record`
    std::uint32_t number = kNoNumber;  // the number of the key's path in the refresh's Files
    bool seen = false;                 // a citation with this key was refreshed
  };

  explicit PageCitations(std::size_t records) {
    entries_.reserve(records);
    index_.reserve(records);
  }

  Entry* find(const CitationKeyView& key, std::size_t hash) {
    const std::size_t at =
        index_.find(hash, [&](std::size_t entry) { return entries_[entry].key == key; });
    return at == HashSlots::kNone ? nullptr : &entries_[at];
  }
  std::span<const Entry> entries() const { return entries_; }
  // Adds an entry for `key`, which find() does not know; its path must outlive the table.
  Entry& add(const CitationKeyView& key, std::size_t hash) {
    index_.add(hash, entries_.size());
    entries_.push_back({key});
    return entries_.back();
  }

 private:
  std::vector<Entry> entries_;  // add() may move them: callers hold none across it
  HashSlots index_;
};

// Holds back each move that would give a citation the key (path and lines) that another citation
// of the page keeps, or moves to as well: records are keyed by it, so the two would become one,
// and the next refresh would move both as one. Each such citation stays as written and is lost,
// with why; holding one back may bring it onto another's new key, so this goes on until no two
// meet. `names` holds the declaration name of each move.
void keep_keys_apart(std::span<const PageCitations::Entry> entries, PageRefresh& result,
                     const KeyedMap<std::string>& names) {
  using Keys = std::unordered_map<CitationKeyView, std::size_t, CitationKeyViewHash>;
  std::vector<bool> held(result.moves.size(), false);
  for (bool again = true; again;) {
    again = false;
    // Where each move goes, and how many go there.
    Keys from, to;
    std::size_t i = 0;
    for (const auto& [key, move] : result.moves) {
      if (!held[i]) {
        from.emplace(key_view(key), i);
        ++to[{move.path.empty() ? std::string_view(key.path) : move.path, move.first, move.last}];
      }
      ++i;
    }
    // A key taken by a citation that stays.
    std::unordered_set<CitationKeyView, CitationKeyViewHash> kept;
    for (const PageCitations::Entry& entry : entries) {
      if (entry.seen && !from.count(entry.key) && to.count(entry.key)) kept.insert(entry.key);
    }
    i = 0;
    for (const auto& [key, move] : result.moves) {
      const CitationKeyView target{move.path.empty() ? std::string_view(key.path) : move.path,
                                   move.first, move.last};
      if (!held[i] && (to[target] > 1 || kept.count(target))) held[i] = again = true;
      ++i;
    }
  }
  if (std::find(held.begin(), held.end(), true) == held.end()) return;

  Moves moves;
  std::size_t i = 0;
  for (const auto& [key, move] : result.moves) {
    if (!held[i++]) {
      moves.set(key, move);
      continue;
    }
    const std::string* name = names.find(key);
    result.lost.emplace_back(key, name != nullptr ? *name : std::string());
    std::string where = move.path.empty() ? key.path : move.path;
    where += "#L" + std::to_string(move.first);
    if (move.last != move.first) where += "-L" + std::to_string(move.last);
    result.reasons.set(key, "its code is at " + where +
                                " now, lines that another citation of this page cites; settle that "
                                "one first");
  }
  KeyedMap<Record> anchors;
  for (auto& [key, record] : result.anchors) {
    if (moves.contains(key) || !names.contains(key)) anchors.set(key, record);
  }
  std::erase_if(result.carried, [&](const auto& c) { return !moves.contains(c.first); });
  result.moves = std::move(moves);
  result.anchors = std::move(anchors);
}

}  // namespace

PageRefresh refresh_page(const Host& host, const Text& text, const std::vector<Record>& citations,
                         Files& files, bool anchor, std::string_view page_id) {
  // Stored records by stored key, the key's path a view of the record; a later record replaces
  // an earlier one with the same key.
  PageCitations page(citations.size());
  std::forward_list<std::string> paths;  // paths of keys that no record holds as text
  std::string path;
  for (const Record& record : citations) {
    path.clear();
    const CitationMembers members = members_of(record);
    CitationKeyView key = stored_key_view(record, members, path);
    if (!path.empty()) key.path = paths.emplace_front(std::move(path));
    const std::size_t path_hash = hash_text(key.path);
    const std::size_t hash = CitationKeyHash::combine(path_hash, key.start, key.end);
    PageCitations::Entry* entry = page.find(key, hash);
    if (entry == nullptr) entry = &page.add(key, hash);
    entry->record = &record;
    entry->members = members;
    if (const auto number = files.ready(key.path, path_hash)) entry->number = *number;
    if (const Record* symbol = members.symbol; symbol != nullptr && symbol->is_string()) {
      __builtin_prefetch(symbol->get_ref<const std::string&>().data());
    }
  }
  // The declarations the anchored records most likely cite, by their keys (on their way to the
  // cache since the loop above), so that those loads overlap too.
  for (const PageCitations::Entry& entry : page.entries()) {
    const Record* symbol = entry.members.symbol;
    if (entry.number == PageCitations::kNoNumber || symbol == nullptr || !symbol->is_string()) {
      continue;
    }
    if (const Symbol* likely = files.likely(entry.number, symbol->get_ref<const std::string&>())) {
      __builtin_prefetch(likely);
      __builtin_prefetch(reinterpret_cast<const char*>(likely) + 64);
    }
  }

  PageRefresh result({}, {}, {});
  std::vector<std::string_view> names;  // the claim of the current legacy citation
  KeyedMap<std::string> move_names;     // the declaration's name of each move

  host.syntax.find(text, [&](const Citation& citation) {
    const CitationKey& key = citation.key;
    const std::size_t path_hash = hash_text(key.path);
    const std::size_t hash = CitationKeyHash::combine(path_hash, key.start, key.end);
    PageCitations::Entry* entry = page.find(key_view(key), hash);
    // Skipped citations are not marked seen: a repeat of one is tested again.
    if ((entry != nullptr && entry->seen) || key.start < 1) return;
    // The host's history speaks first for a stored citation: it may carry it to other lines, or
    // to the file's new path. What it gives stands for the stored record from here on.
    const Record* carried = nullptr;
    CitationMembers carried_members;
    std::string moved_to;  // the path the history carried the citation to, when another
    if (host.history != nullptr && entry != nullptr && entry->record != nullptr) {
      carried = host.history->carried(page_id, *entry->record);
      if (carried != nullptr) {
        carried_members = members_of(*carried);
        if (const Record* to = carried_members.path;
            to != nullptr && to->is_string() && to->get_ref<const std::string&>() != key.path) {
          moved_to = to->get<std::string>();
        }
      }
    }
    const std::string& path = moved_to.empty() ? key.path : moved_to;
    if (!files.indexed(path)) return;
    if (entry == nullptr) {
      entry = &page.add({paths.emplace_front(key.path), key.start, key.end}, hash);
    }
    entry->seen = true;
    std::uint32_t number;
    if (!moved_to.empty()) {
      number = files.number(path, hash_text(path));
    } else {
      if (entry->number == PageCitations::kNoNumber)
        entry->number = files.number(key.path, path_hash);
      number = entry->number;
    }
    const Files::File& file = files.cited(number, path);
    const std::span<const Symbol> symbols = *file.symbols;

    // A citation without a stored record is placed as a legacy one; it has no record to anchor.
    const Record* stored_record = carried != nullptr ? carried : entry->record;
    const CitationMembers& members = carried != nullptr ? carried_members : entry->members;
    const Symbol* found = nullptr;
    LineRange proposed;
    const Record* symbol = stored_record != nullptr ? if_present(members.symbol) : nullptr;
    if (symbol != nullptr) {
      // An anchored citation follows its declaration, or is lost with it.
      found = find_again(symbols, file.keys, members);
      if (found == nullptr) {
        const Record* name = if_present(members.name);
        result.lost.emplace_back(key, to_path(name != nullptr ? *name : *symbol));
        return;
      }
      proposed = relocated_range(members, *found);
    } else if (host.history != nullptr && stored_record != nullptr) {
      // A host that keeps a history stores a citation without a declaration when none holds its
      // lines: it stays where its history carries it, else where it stands, and is never
      // anchored from its prose.
      proposed = {key.start, key.end};
      if (carried != nullptr && carried_members.line_start != nullptr &&
          carried_members.line_end != nullptr) {
        proposed = {to_line(*carried_members.line_start, "line_start"),
                    to_line(*carried_members.line_end, "line_end")};
      }
    } else {
      claim_names(host, text, citation.start, names);
      std::tie(found, proposed) = legacy_anchor(host, symbols, file.keys, key.start, key.end,
                                                std::span<const std::string_view>(names));
    }

    const Line line_count =
        host.every_call ? files.count_lines(path) : files.line_count(number, path);
    const auto fitted = host.ranges.fit_range(proposed.first, proposed.last, line_count);
    if (!fitted) {
      result.lost.emplace_back(key, found != nullptr ? found->name : std::string());
      return;
    }
    if (host.landing != nullptr && stored_record != nullptr &&
        !host.landing->accepts(path, *stored_record, found, *fitted)) {
      const Record* name = if_present(members.name);
      result.lost.emplace_back(key, name != nullptr     ? to_path(*name)
                                    : symbol != nullptr ? to_path(*symbol)
                                    : found != nullptr  ? found->name
                                                        : std::string());
      return;
    }
    if (*fitted != LineRange{key.start, key.end} || !moved_to.empty()) {
      Move move(*fitted, std::move(moved_to));
      if (carried != nullptr) result.carried.emplace_back(key, move);
      result.moves.set(key, std::move(move));
      if (host.landing != nullptr) {
        const Record* name = if_present(members.name);
        move_names.set(key, name != nullptr     ? to_path(*name)
                            : symbol != nullptr ? to_path(*symbol)
                            : found != nullptr  ? found->name
                                                : std::string());
      }
    }

    if (host.every_call && stored_record == nullptr) {
      // The new record that stands for a citation the store lacks; it takes no anchors entry.
      Record cite = Record::object();
      auto& members = static_cast<Record::object_t::Container&>(cite.get_ref<Record::object_t&>());
      members.reserve(3);
      members.emplace_back("path", key.path);
      members.emplace_back("line_start", key.start);
      members.emplace_back("line_end", key.end);
      host.anchoring.anchored_unused(cite, *fitted, found);
    } else if (anchor && stored_record != nullptr) {
      Record updated = host.anchoring.anchored(*stored_record, *fitted, found);
      if (!records_equal(updated, *entry->record)) result.anchors.set(key, std::move(updated));
    } else if (host.every_call) {
      host.anchoring.anchored_unused(*stored_record, *fitted, found);
    }
  });
  if (!move_names.empty()) keep_keys_apart(page.entries(), result, move_names);
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

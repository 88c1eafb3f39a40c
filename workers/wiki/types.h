// Values that cross the boundary between the citation refresh and its host: line ranges,
// citation records, citation keys and the maps keyed by them, and the busy-wiki error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tolbarrow::workers::wiki {

// A line number or a difference of line numbers. Lines count from 1.
using Line = std::int64_t;

// A line range: first and last line, both included.
struct LineRange {
  Line first = 0;
  Line last = 0;
  friend bool operator==(const LineRange&, const LineRange&) = default;
};

// A string-keyed map of JSON values that keeps its key order: citation records, build caches,
// digests. nlohmann's own == compares objects in key order; records compare with
// records_equal() (citation_refresh.h), for which key order does not count.
using Record = nlohmann::ordered_json;

// The identity of a citation within one page: (path, first line, last line). It equals, and
// hashes like, the stored key of a record with the same path and lines.
struct CitationKey {
  std::string path;
  Line start = 0;
  Line end = 0;
  friend bool operator==(const CitationKey&, const CitationKey&) = default;
};

struct CitationKeyHash {
  std::size_t operator()(const CitationKey& k) const noexcept {
    return combine(std::hash<std::string>()(k.path), k.start, k.end);
  }
  // The hash of a key from its path's hash and its lines.
  static std::size_t combine(std::size_t h, Line start, Line end) noexcept {
    h ^= std::hash<Line>()(start) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
    h ^= std::hash<Line>()(end) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
    return h;
  }
};

// The index of a table of items kept in insertion order elsewhere (a vector): item numbers by
// hash, in one flat array of slots (open addressing, a power of two, at most half full). A
// search compares hashes first and asks `is` about an item only where they agree.
class HashSlots {
 public:
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  // Room for `items` items without growing.
  void reserve(std::size_t items) {
    std::size_t size = slots_.empty() ? 16 : slots_.size();
    while (size < 2 * items) size *= 2;
    if (size > slots_.size()) resize(size);
  }
  // The number of the item under `hash` for which `is(number)` holds, or kNone.
  template <class Is>
  std::size_t find(std::size_t hash, Is is) const {
    if (slots_.empty()) return kNone;
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
      const Slot& slot = slots_[at];
      if (slot.item == kNone) return kNone;
      if (slot.hash == hash && is(slot.item)) return slot.item;
    }
  }
  // Files item number `item` (not filed before) under `hash`.
  void add(std::size_t hash, std::size_t item) {
    reserve(++count_);
    place(hash, item);
  }

 private:
  struct Slot {
    std::size_t hash = 0;
    std::size_t item = kNone;  // kNone: empty
  };
  void place(std::size_t hash, std::size_t item) {
    const std::size_t mask = slots_.size() - 1;
    std::size_t at = hash & mask;
    while (slots_[at].item != kNone) at = (at + 1) & mask;
    slots_[at] = {hash, item};
  }
  void resize(std::size_t size) {
    std::vector<Slot> old(size);
    old.swap(slots_);
    for (const Slot& slot : old) {
      if (slot.item != kNone) place(slot.hash, slot.item);
    }
  }

  std::vector<Slot> slots_;
  std::size_t count_ = 0;
};

// A map keyed by CitationKey that keeps the order in which keys were first inserted (results of
// a page's refresh list their entries in text order, and hosts see them in that order). Each key
// is held once, beside its value; HashSlots finds it (a refresh fills such maps for every page,
// so they make no allocation per key).
template <class V>
class KeyedMap {
 public:
  using value_type = std::pair<CitationKey, V>;

  bool empty() const { return items_.empty(); }
  std::size_t size() const { return items_.size(); }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }

  const V* find(const CitationKey& key) const {
    const std::size_t at = position(key, CitationKeyHash()(key));
    return at == HashSlots::kNone ? nullptr : &items_[at].second;
  }
  V* find(const CitationKey& key) {
    const std::size_t at = position(key, CitationKeyHash()(key));
    return at == HashSlots::kNone ? nullptr : &items_[at].second;
  }
  bool contains(const CitationKey& key) const { return find(key) != nullptr; }
  // Sets the value under `key`; a new key goes last, an existing key keeps its place.
  void set(CitationKey key, V value) {
    const std::size_t hash = CitationKeyHash()(key);
    if (const std::size_t at = position(key, hash); at != HashSlots::kNone) {
      items_[at].second = std::move(value);
      return;
    }
    index_.add(hash, items_.size());
    items_.emplace_back(std::move(key), std::move(value));
  }

  friend bool operator==(const KeyedMap& a, const KeyedMap& b) {
    if (a.size() != b.size()) return false;
    for (const auto& [k, v] : a.items_) {
      const V* other = b.find(k);
      if (other == nullptr || !(*other == v)) return false;
    }
    return true;
  }

 private:
  std::size_t position(const CitationKey& key, std::size_t hash) const {
    return index_.find(hash, [&](std::size_t item) { return items_[item].first == key; });
  }

  std::vector<value_type> items_;
  HashSlots index_;
};

// Where a citation goes: its new lines, and its new path when its file was renamed (empty: the
// path stays). A move is read as a LineRange wherever only the lines count.
struct Move : LineRange {
  std::string path;
  Move() = default;
  Move(Line first, Line last, std::string path = {})
      : LineRange{first, last}, path(std::move(path)) {}
  Move(const LineRange& lines, std::string path = {})  // NOLINT: a LineRange is a move in place
      : LineRange(lines), path(std::move(path)) {}
  friend bool operator==(const Move&, const Move&) = default;
};

// The move of each citation whose lines or path change, keyed by its CitationKey.
using Moves = KeyedMap<Move>;

// Raised by a write lock when another writer of the wiki holds it. The guarded refresh catches
// it to fall back to reporting only; hosts whose own busy error is of another kind derive from
// this to carry it.
class WikiBusy : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Raised when a record or page row lacks a key that must be read.
class MissingKey : public std::runtime_error {
 public:
  explicit MissingKey(const std::string& key)
      : std::runtime_error("missing key: " + key), key_(key) {}
  const std::string& key() const { return key_; }

 private:
  std::string key_;
};

}  // namespace tolbarrow::workers::wiki

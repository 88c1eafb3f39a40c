// Records and values that cross the boundary between the citation refresh and its host, and the
// host's `types` module: the citation pattern, citation keys and the busy-wiki error.
#pragma once

#include <any>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "workers/wiki/text.h"

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
// digests. Note that nlohmann's own == compares objects in key order; records compare with
// records_equal() (citation_refresh.h), for which key order does not count.
using Record = nlohmann::ordered_json;

// A host value that the module only hands back to the host (a content hash, a line count). C++
// hosts put plain values in it; the Python host puts its own objects.
using HostValue = std::any;

// A host object carried through the module unchanged, so that the host gets back the very object
// it gave (a Symbol's or a CitationKey's own object). Null for values made in C++.
using HostObject = std::shared_ptr<const void>;

// The identity of a citation within one page: (path, first line, last line). It equals, and
// hashes like, the stored key of a record with the same path and lines. A key made by the host's
// `citation_key` carries the host's own key object in `host`, which takes no part in equality.
struct CitationKey {
  std::string path;
  Line start = 0;
  Line end = 0;
  HostObject host;

  CitationKey() = default;
  CitationKey(std::string path, Line start, Line end, HostObject host = {})
      : path(std::move(path)), start(start), end(end), host(std::move(host)) {}

  friend bool operator==(const CitationKey& a, const CitationKey& b) {
    return a.start == b.start && a.end == b.end && a.path == b.path;
  }
};

struct CitationKeyHash {
  std::size_t operator()(const CitationKey& k) const noexcept {
    std::size_t h = std::hash<std::string>()(k.path);
    h ^= std::hash<Line>()(k.start) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
    h ^= std::hash<Line>()(k.end) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
    return h;
  }
};

// A map keyed by CitationKey that keeps the order in which keys were first inserted (results of
// a page's refresh list their entries in text order, and hosts see them in that order).
template <class V>
class KeyedMap {
 public:
  using value_type = std::pair<CitationKey, V>;

  bool empty() const { return items_.empty(); }
  std::size_t size() const { return items_.size(); }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }

  const V* find(const CitationKey& key) const {
    auto it = index_.find(key);
    return it == index_.end() ? nullptr : &items_[it->second].second;
  }
  bool contains(const CitationKey& key) const { return index_.count(key) != 0; }
  // Sets the value under `key`; a new key goes last, an existing key keeps its place (and key).
  void set(CitationKey key, V value) {
    auto [it, added] = index_.try_emplace(key, items_.size());
    if (added) {
      items_.emplace_back(std::move(key), std::move(value));
    } else {
      items_[it->second].second = std::move(value);
    }
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
  std::vector<value_type> items_;
  std::unordered_map<CitationKey, std::size_t, CitationKeyHash> index_;
};

// The new line range of each citation whose lines change, keyed by its CitationKey.
using Moves = KeyedMap<LineRange>;

// One citation found in a page text by `verify.prose_citations`. The module reads only its start
// offset and hands it back to `types.citation_key`; hosts derive from it to carry their own
// match.
class CitationMatch {
 public:
  virtual ~CitationMatch() = default;
  // Offset, in code points, of the citation's first character in the page text.
  virtual std::size_t start() const = 0;
};
using CitationMatchPtr = std::shared_ptr<const CitationMatch>;

// One match of the host's citation pattern: the code-point offset just past it (its `end()`).
struct PatternMatch {
  std::size_t end = 0;
};

// The host's regular expression of one citation in page text (`_CITATION_RE`).
class CitationPattern {
 public:
  virtual ~CitationPattern() = default;
  // The non-overlapping matches, left to right, that start at or after `start` and end at or
  // before `end` (code points). The search is bounded, not a search of a copy: the text counts as
  // ending at `end`, and characters before `start` stay visible to look-behind assertions.
  virtual std::vector<PatternMatch> finditer(const Text& text, std::size_t start,
                                             std::size_t end) const = 0;
};

// Raised by a write lock when another writer of the wiki holds it (`_WikiBusy`). Hosts whose
// own busy error is of another kind derive from this to carry it.
class WikiBusy : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

namespace types {

// The host module `types`. `CitationKey` and `_WikiBusy` are the C++ types above; the module binds
// the two services below.
// Both services may raise; the error reaches the caller of the refresh unchanged.
struct Module {
  // `_CITATION_RE`: the citation pattern of page text.
  std::shared_ptr<const CitationPattern> CITATION_RE;
  // `citation_key`: the CitationKey of a match that `verify.prose_citations` yielded. May raise.
  std::function<CitationKey(const CitationMatch&)> citation_key;
};

}  // namespace types
}  // namespace tolbarrow::workers::wiki

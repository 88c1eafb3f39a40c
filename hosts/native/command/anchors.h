// The anchors file: the wiki's citation records (each citation's declaration) kept as text in the
// wiki directory and committed with the pages, so that a clone without a local store still knows
// where each citation's declaration was. The local store caches it.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/native/store.h"

namespace tolbarrow::hosts::native::command {

inline constexpr const char* kAnchorsFileName = ".citation-anchors.json";
// Version 2 keeps with each record what it was placed against (history.h); version 1 kept, per
// branch, the state of the work tree under "refreshed" instead. A file of version 1 is read, and
// the next writing run writes it anew.
inline constexpr int kAnchorsVersion = 2;

// A malformed anchors file; the message names the file and the problem.
class AnchorsError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A record's citation key, when it is an object whose path and lines are plain values.
std::optional<wiki::CitationKey> key_of(const wiki::Record& record);

// Page id -> the page's citation records, in the store's order.
using Anchors = std::map<std::string, std::vector<wiki::Record>>;

// The records of the anchors file `file` whose content is `bytes`. Throws AnchorsError for a
// file that is not UTF-8 JSON of the expected shape (a merge conflict left in it, say). For a file
// of an earlier version, `older` (when given) is set to its version and `marks` to its
// "refreshed" member (null when it has none).
struct OlderAnchors {
  int version = 0;  // 0: the file is of the current version
  wiki::Record marks;
};
Anchors parse_anchors(const std::string& bytes, const std::filesystem::path& file,
                      OlderAnchors* older = nullptr);

// The file's text for `pages`: pretty-printed JSON, pages in page id order, one citation record
// per line in the store's order, so that concurrent edits of different pages merge cleanly. The
// members of `extra` (an object) follow "pages", an object's members one per line.
std::string dump_anchors(const std::vector<StoredPage>& pages, const wiki::Record& extra = {});

// The same text made page by page, pages added in page id order (as SqliteStore::each_page gives
// them): only the text is held, never every page's records at once.
class AnchorsText {
 public:
  AnchorsText();
  // Room for a text of about `bytes` (the file's size before): the text grows without copies.
  void reserve(std::size_t bytes) { text_.reserve(bytes); }
  void add(const StoredPage& page);
  // Whether `text` is the whole file's text: the pages added, then the members of `extra`.
  bool is(std::string_view text, const wiki::Record& extra = {}) const;
  // The whole file's text; the pages' text is moved into it.
  std::string take(const wiki::Record& extra = {}) &&;

 private:
  std::string rest(const wiki::Record& extra) const;

  std::string text_;  // the file's text up to the end of the pages added
  bool empty_ = true;
};

// Makes the anchors file's records the branch's stored records: each page takes exactly the
// records the file holds for it (none when the file has no such page), whatever the store held,
// and a page only the file knows is added. Every page loses its content hash, so that page_sync
// drops the records its text no longer cites and adds those it cites anew. Records `hash`, the
// file's SHA-256, as the anchors file the pages took, in the same transaction: seeding the same
// file again would give pages that a refresh rewrote since their records from before it.
void seed_pages(SqliteStore& store, const std::string& branch, const Anchors& anchors,
                const std::string& hash);

}  // namespace tolbarrow::hosts::native::command

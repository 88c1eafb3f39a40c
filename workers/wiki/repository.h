// The host's Repository: its index of files and declarations, and its wiki page store.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "workers/wiki/symbol.h"
#include "workers/wiki/types.h"

namespace tolbarrow::workers::wiki {

// Raised when a page row lacks a key that must be read (a page id).
class MissingKey : public std::runtime_error {
 public:
  explicit MissingKey(const std::string& key) : std::runtime_error(key), key_(key) {}
  const std::string& key() const { return key_; }

 private:
  std::string key_;
};

// One page of a branch's wiki as the store lists it. Each accessor reads its key when called, so
// a row's keys that a refresh never needs are never read (nor fail).
class PageRow {
 public:
  virtual ~PageRow() = default;
  // Path of the page file relative to the wiki directory; nullopt when absent, null or empty.
  virtual std::optional<std::string> rel_path() const = 0;
  // The page's identity in the store. Throws MissingKey when the row has none.
  virtual std::string page_id() const = 0;
  // The page's stored citation records in the store's order; empty when absent, null or empty.
  virtual std::vector<Record> citations() const = 0;
  // The page's build cache as a map (empty when absent, null or empty). Throws when it is present
  // but not a map.
  virtual Record build_cache() const = 0;
  // The stored hash of the page text, handed back unchanged; empty when absent.
  virtual HostValue content_hash() const = 0;
};
using PageRowPtr = std::shared_ptr<const PageRow>;

// A PageRow over a JSON object, for hosts that keep rows as records.
class RecordPageRow : public PageRow {
 public:
  explicit RecordPageRow(Record row) : row_(std::move(row)) {}
  std::optional<std::string> rel_path() const override;
  std::string page_id() const override;
  std::vector<Record> citations() const override;
  Record build_cache() const override;
  HostValue content_hash() const override;  // the JSON value of `content_hash`

 private:
  Record row_;
};

// The keyword arguments of Repository::update_wiki_page_citations.
struct PageUpdate {
  // The page's new citation records: its stored records in order, each replaced by its new
  // anchored record where it has one.
  std::vector<Record> citations;
  // The hash of the new page text when the text changed, else the row's own (empty: none).
  HostValue content_hash;
  // The build cache with the citations of its prose rewritten, as one-line JSON; nullopt when
  // the cache is empty.
  std::optional<std::string> build_cache;
  // Rewrites this page's citations in another text the store keeps for the page.
  std::function<std::string(const std::string&)> rewrite;
  // The new line range of each citation whose lines changed.
  Moves moves;
};

// The host's index and wiki page store. Every call may raise; the module lets the error reach its
// caller unchanged. Calls are made on the caller's thread, one at a time.
class Repository {
 public:
  virtual ~Repository() = default;
  // The declarations of `path` in the current index, in the index's fixed order; empty when the
  // file has none. Asked at most once per path in one refresh.
  virtual Symbols get_symbols_by_path(const std::string& path) = 0;
  // The index's record of `path`, or nullopt when the file is not in the current index. Only
  // tested against nullopt; asked again for each citation.
  virtual std::optional<Record> get_file_by_path(const std::string& path) = 0;
  // The branch's wiki page rows, in the store's order.
  virtual std::vector<PageRowPtr> get_wiki_pages(const std::string& branch) = 0;
  // Stores a refreshed page's new state. A later get_wiki_pages yields the row with the given
  // citations and with build_cache as the map that the given JSON text holds.
  virtual void update_wiki_page_citations(const std::string& branch, const std::string& page_id,
                                          PageUpdate update) = 0;
};

}  // namespace tolbarrow::workers::wiki

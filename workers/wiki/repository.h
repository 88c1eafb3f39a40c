// The host's Repository: its index of files and declarations, and its wiki page store.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "workers/wiki/symbol.h"
#include "workers/wiki/types.h"

namespace tolbarrow::workers::wiki {

// One page of a branch's wiki as the store lists it. A row's fields are read when the refresh
// needs them, so a field a refresh never needs is never read (nor fails).
class PageRow {
 public:
  virtual ~PageRow() = default;

  // The row's value under `key` ("rel_path", "page_id", "citations", "build_cache"); nullopt
  // when the row has no such key. May throw (the host's error reaches the caller).
  virtual std::optional<Record> field(std::string_view key) const = 0;
  // The whole row, for a row that holds it as a record (a JSON object); null otherwise. The typed
  // fields below read such a row in place instead of copying each field out through field().
  virtual const Record* held() const { return nullptr; }

  // The typed fields, read through field(). A value that is absent, null, or an empty text, list
  // or map counts as absent; false and 0 are present.
  //
  // Path of the page file relative to the wiki directory; nullopt when absent. Throws
  // RecordTypeError when it is present but not text.
  std::optional<std::string> rel_path() const;
  // The page's identity in the store. Throws MissingKey when the row has no `page_id` at all; a
  // value that is not text becomes its JSON text.
  std::string page_id() const;
  // The page's stored citation records in the store's order; empty when absent. Throws
  // RecordTypeError when present but not a list.
  std::vector<Record> citations() const;
  // The same list, lent by a row that holds it (held()) or else read into `storage`. The list
  // lives as long as the row's record, or `storage`, is left unchanged.
  const std::vector<Record>& citations(std::vector<Record>& storage) const;
  // The same list for a reader that reads no member of a record but `members`: a row may leave
  // the other members out of the records it gives (a host that converts each record from its
  // own form saves converting what is never read). The default gives the records whole.
  virtual const std::vector<Record>& citation_members(
      std::vector<Record>& storage, std::span<const std::string_view> members) const {
    static_cast<void>(members);
    return citations(storage);
  }
  // The page's build cache; an empty map when absent. Throws RecordTypeError when present but not
  // a map.
  Record build_cache() const;
};

// A PageRow over a JSON object, for hosts that keep rows as records.
class RecordPageRow : public PageRow {
 public:
  explicit RecordPageRow(Record row) : row_(std::move(row)) {}
  std::optional<Record> field(std::string_view key) const override;
  const Record* held() const override { return &row_; }
  const Record& record() const { return row_; }

 private:
  Record row_;
};

// What the refresh hands the store for a page it refreshed in writing mode.
struct PageUpdate {
  // The page's new citation records: its stored records in order, each replaced by its new
  // anchored record where it has one.
  std::vector<Record> citations;
  // Repository::text_hash of the new page text when the page text changed; nullopt when it did
  // not, and the store keeps the hash it has.
  std::optional<std::string> content_hash;
  // The page's build cache with the citations of its `prose` rewritten; nullopt when the row's
  // cache is empty.
  std::optional<Record> build_cache;
  // The new line range of each citation whose lines changed. The store moves the citations of
  // the other texts it keeps for the page by them (with its own citation syntax).
  Moves moves;
};

// The host's index and wiki page store. Every call may throw; the refresh lets the error reach
// its caller unchanged. Calls are made on the caller's thread, one at a time.
class Repository {
 public:
  virtual ~Repository() = default;

  // The declarations of `path` in the current index, in the index's fixed order (ties between
  // declarations are broken by it); empty when the file has none. Asked at most once per path in
  // one refresh, and the refresh keeps the list for the rest of it.
  virtual std::vector<Symbol> get_symbols_by_path(const std::string& path) = 0;
  // Whether `path` is a file of the current index. Asked again for each citation.
  virtual bool is_indexed(const std::string& path) = 0;
  // The branch's wiki page rows, in the store's order.
  virtual std::vector<std::unique_ptr<const PageRow>> get_wiki_pages(const std::string& branch) = 0;
  // Stores the new state of `row`'s page. A later get_wiki_pages yields the row with the given
  // citations and build cache. The update is the store's to keep: a store that holds records
  // may take them out of it instead of copying them.
  virtual void update_wiki_page_citations(const std::string& branch, const PageRow& row,
                                          PageUpdate update) = 0;
  // A page text's content hash, in the form the store keeps.
  virtual std::string text_hash(const std::string& text) = 0;
};

}  // namespace tolbarrow::workers::wiki

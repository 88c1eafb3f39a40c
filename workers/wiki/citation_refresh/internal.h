// The module's internal operations: what the refresh is made of, for the module's sources, the
// Python extension (which exposes them under underscore names) and the tests. Not for hosts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "workers/wiki/citation_refresh.h"
#include "workers/wiki/citation_refresh/regex.h"

namespace tolbarrow::workers::wiki::citation_refresh::detail {

// How many characters before a citation the claim of a legacy citation is looked for in.
inline constexpr std::size_t CLAIM_WINDOW = 260;
// One backticked span of prose, group 1 its inside.
inline constexpr std::string_view CLAIM_IDENT_PATTERN = "`([^`\\n]{2,80})`";
// The prepared span pattern (compiled once, on first use).
const Regex& CLAIM_IDENT_RE();

// A fast 64-bit hash of a text (XXH3), for the refresh's own tables of paths, keys and names.
std::size_t hash_text(std::string_view text);

// ---- Record values ----------------------------------------------------------------------------

// Whether a record value is there: not null, and not an empty text, list or map. false and 0 are
// there.
bool present(const Record& value);
inline const Record* if_present(const Record* value) {
  return value != nullptr && present(*value) ? value : nullptr;
}
// The member `key` of a map when it is there (present()); else null.
const Record* present_member(const Record& map, std::string_view key);

// A record value as a line number: integers as they are, numbers with a fraction truncated
// toward zero, text holding an optionally signed decimal integer with white space around it (any
// Unicode white space), true and false as 1 and 0. Anything else throws RecordTypeError (null,
// maps, lists) or RecordValueError (other text, values beyond a 64-bit line). `what` names the
// value in errors.
Line to_line(const Record& value, std::string_view what);

// A record value as text, for the path of a stored key: text as it is, any other value as its
// JSON text (so that it never equals a real file path).
std::string to_path(const Record& value);

// The stored key of a citation record or digest citation: (`path`, absent ""; `line_start`,
// absent 0; `line_end`, absent 0).
CitationKey stored_key(const Record& record);

// A stored key whose path is a view: of the record's own text, or of `storage` when the path is
// not text (its JSON text) or absent.
struct CitationKeyView {
  std::string_view path;
  Line start = 0;
  Line end = 0;
  friend bool operator==(const CitationKeyView&, const CitationKeyView&) = default;
};
struct CitationKeyViewHash {
  std::size_t operator()(const CitationKeyView& k) const noexcept {
    return CitationKeyHash::combine(hash_text(k.path), k.start, k.end);
  }
};
CitationKeyView stored_key_view(const Record& record, std::string& storage);
inline CitationKeyView key_view(const CitationKey& key) { return {key.path, key.start, key.end}; }

// The members of a citation record that the refresh reads, found in one pass over the record:
// each the first member of its name (as a lookup by name finds it), null where the record has
// none or is no map.
struct CitationMembers {
  const Record* path = nullptr;
  const Record* line_start = nullptr;
  const Record* line_end = nullptr;
  const Record* symbol = nullptr;
  const Record* name = nullptr;
  const Record* symbol_start = nullptr;
  const Record* symbol_end = nullptr;
};
CitationMembers members_of(const Record& record);
// The stored key of a record from its members; as stored_key_view, which throws RecordTypeError
// for a record that is no map.
CitationKeyView stored_key_view(const Record& record, const CitationMembers& members,
                                std::string& storage);
// Line arithmetic is done in 128 bits and brought back by narrow(), which throws
// RecordValueError when the result is no 64-bit line.
using WideLine = __int128;
Line narrow(WideLine value);

// A build cache as one-line JSON text: ", " between items, ": " after keys, non-ASCII as UTF-8.
std::string dump_one_line(const Record& value);

// ---- One page ---------------------------------------------------------------------------------

// A lost pair of a page: the citation's key and the name of the declaration it cited.
using LostPair = std::pair<CitationKey, std::string>;

// The result of one page's refresh. Entries are in the order the page text first cites them.
struct PageRefresh {
  Moves moves;                 // new range (and path) of each citation that moves
  KeyedMap<Record> anchors;    // new record of each stored citation whose record changes
  std::vector<LostPair> lost;  // each citation that can no longer be placed
  // The citations of `moves` that the host's History carried, in text order.
  std::vector<std::pair<CitationKey, Move>> carried;
  // Why, for the lost citations whose move the refresh itself held back (see refresh_page).
  KeyedMap<std::string> reasons;

  PageRefresh(Moves moves, KeyedMap<Record> anchors, std::vector<LostPair> lost)
      : moves(std::move(moves)), anchors(std::move(anchors)), lost(std::move(lost)) {}
  friend bool operator==(const PageRefresh&, const PageRefresh&);
};

// Paths numbered 0, 1, 2... in the order they are first seen, for one refresh. One flat table
// whose slot is one cache line holding the path's hash, number and text (its first bytes when it
// is long): finding a path reads one line however many paths there are and wherever the rest of
// the refresh put its memory (a hash map's nodes, each allocated on its own, and a text kept
// apart from its hash, cost a cache miss apiece).
class PathNumbers {
 public:
  // The number of `path`; a path not seen before takes the next one. `hash` is hash_text() of
  // the path, which the caller may have at hand.
  std::uint32_t number(std::string_view path, std::size_t hash);
  std::uint32_t number(std::string_view path) { return number(path, hash_text(path)); }
  // The number of `path` when it has one.
  std::optional<std::uint32_t> find(std::string_view path, std::size_t hash) const;
  // The text of the path numbered `n` (n < size()), valid until the next new path.
  std::string_view path(std::uint32_t n) const;
  std::size_t size() const { return spans_.size(); }

 private:
  static constexpr std::size_t kInline = 48;  // bytes of a path held in its slot
  struct alignas(64) Slot {
    std::size_t hash = 0;
    std::uint32_t number = 0;  // the path's number + 1; 0: an empty slot
    std::uint32_t size = 0;    // the path's length in bytes
    char text[kInline];        // the path, or its first kInline bytes
  };
  // The slot of `path`, or the empty slot where it would go.
  const Slot& slot(std::string_view path, std::size_t hash) const;
  void grow();

  std::vector<Slot> slots_;  // open addressing: a power of two, at most three quarters full
  std::string text_;         // every path's text, one after another
  std::vector<std::pair<std::size_t, std::size_t>> spans_;  // where each path is in text_
};

// What the refresh compares of a declaration, hashed once when its file's symbols arrive: a
// search for a name compares these first and the texts only where they agree.
struct SymbolKey {
  std::size_t fqn = 0;
  std::size_t name = 0;
};
inline std::size_t name_hash(std::string_view name) { return hash_text(name); }

// The per-refresh cache of cited files: each path's symbols are asked of the index once.
class Files {
 public:
  Files(const Host& host, Repository& repository, std::filesystem::path repo_root);

  // The declarations of `path` (the path exactly as cited), asked of the index on first use and
  // the same list afterwards. A failed query stores nothing.
  std::span<const Symbol> symbols(const std::string& path);
  // Whether the index knows `path`; asked anew on every call.
  bool indexed(const std::string& path) { return repository_.is_indexed(path); }
  // The file's line count, from the host's LineCounts made for this refresh: asked once per path,
  // and the same count afterwards.
  Line line_count(const std::string& path);
  // The file's line count asked of the host's LineCounts anew, on every call.
  Line count_lines(const std::string& path) { return line_counts_->count(path); }

  // What is known of one cited path.
  struct File {
    std::optional<std::vector<Symbol>> symbols;
    std::vector<SymbolKey> keys;  // of `symbols`, in their order
    std::optional<Line> line_count;
  };
  // The number of `path` (its hash as PathNumbers takes it), by which the two below find it
  // without another lookup.
  std::uint32_t number(const std::string& path, std::size_t hash) {
    return numbers_.number(path, hash);
  }
  // The number of `path` when it has one, having started to bring what a citation of it reads
  // (its declarations' keys and the declarations) into the processor's cache: a page readies
  // the files its stored records cite before it refreshes them, so that the loads of several
  // files overlap instead of each waiting on the last.
  std::optional<std::uint32_t> ready(std::string_view path, std::size_t hash);
  // The declaration of the file numbered `n` whose fully qualified name hashes as `fqn` does,
  // when the file's symbols are in: a hint of where a citation's declaration is, to start
  // loading it; find_again() decides.
  const Symbol* likely(std::uint32_t n, std::string_view fqn) const;
  // The file numbered `n`, whose path is `path`, with its symbols asked of the index.
  const File& cited(std::uint32_t n, const std::string& path);
  Line line_count(std::uint32_t n, const std::string& path);

  Repository& repository() const { return repository_; }
  const std::filesystem::path& repo_root() const { return repo_root_; }

 private:
  File& entry(std::uint32_t n);

  Repository& repository_;
  std::filesystem::path repo_root_;
  PathNumbers numbers_;
  std::vector<File> files_;  // by path number
  std::unique_ptr<LineCounts> line_counts_;
};

// Finds the declaration that an anchored citation cites among the file's current `symbols`: by
// fully qualified name, else by name, nearest the old start line; null when there is none.
const Symbol* find_again(std::span<const Symbol> symbols, const Record& citation);
// The same from the citation's members, comparing the symbols' `keys` first (empty: texts only).
const Symbol* find_again(std::span<const Symbol> symbols, std::span<const SymbolKey> keys,
                         const CitationMembers& citation);

// relocated_range() from the citation's members.
LineRange relocated_range(const CitationMembers& citation, const Symbol& symbol);

// Chooses the declaration that a legacy citation of lines start..end is anchored to, and the
// range it takes with it, from the identifiers `names` that its claim names (nearest last).
std::pair<const Symbol*, LineRange> legacy_anchor(const Host& host, std::span<const Symbol> symbols,
                                                  Line start, Line end,
                                                  std::span<const std::string_view> names);
// The same, comparing the symbols' `keys` with the hashes of `names` first (empty: texts only).
std::pair<const Symbol*, LineRange> legacy_anchor(const Host& host, std::span<const Symbol> symbols,
                                                  std::span<const SymbolKey> keys, Line start,
                                                  Line end,
                                                  std::span<const std::string_view> names);

// claim_identifiers() into `out` (cleared first), as views of the text.
void claim_names(const Host& host, const Text& text, std::size_t position,
                 std::vector<std::string_view>& out);

// The members of a stored citation record that refresh_page() reads when it does not anchor: the
// stored key's, the declaration's (find_again) and the lines relocated_range() reads.
inline constexpr std::string_view REPORT_MEMBERS[] = {"path", "line_start",   "line_end",  "symbol",
                                                      "name", "symbol_start", "symbol_end"};

// Works out one page's moves, new anchors and lost citations. Changes nothing. Without `anchor`,
// `anchors` stays empty, and the host's anchored records are asked for only when it sees every
// call (Host::every_call), which then also asks every citation's line count anew. A host that
// checks landings (Host::landing) gets no move that would give a citation the path and lines
// that another citation of the page keeps or moves to: the two would become one (records are
// keyed by them), so that citation stays as written and is lost, with the reason in `reasons`.
PageRefresh refresh_page(const Host& host, const Text& text, const std::vector<Record>& citations,
                         Files& files, bool anchor = true, std::string_view page_id = {});

// The page's new citation records: each stored record replaced by its anchored record, if any.
std::vector<Record> apply(const std::vector<Record>& citations, const PageRefresh& page);
// The same, taking the anchored records out of `anchors` instead of copying them.
std::vector<Record> apply(const std::vector<Record>& citations, KeyedMap<Record>&& anchors);

// ---- The digest file --------------------------------------------------------------------------

// The digest map of "digests.json" at `path`; an empty map when it is absent, unreadable, not
// UTF-8, not JSON, or not a JSON object. Never throws.
Record read_digests(FileSystem& file_system, const std::filesystem::path& path);

// The digest map of "digests.json" at `path` for a refresh that writes it back. As read_digests,
// except that a file that is there but cannot be read throws the file system's error, and that a
// file holding a number which would not be written back exactly (an integer beyond 64 bits, a
// float with more digits than a double carries, one beyond a double's range) gives none, with
// `why` saying which number.
std::optional<Record> read_digests_to_rewrite(FileSystem& file_system,
                                              const std::filesystem::path& path, std::string& why);

// One digest citation that a move changed: its place in the digest's citations, its stored key
// before, and its new lines.
struct DigestChange {
  std::size_t index = 0;
  CitationKey from;
  Move to;
};

// Moves the citation ranges of one page's digest in place. `digest` may be null (no entry) or any
// JSON value; only a map with citations is changed. Each citation changed is added to `changed`
// when it is given.
void move_digest_citations(Record* digest, const Moves& moves,
                           std::vector<DigestChange>* changed = nullptr);

// The text of "digests.json": 2-space indentation, members in the map's order, non-ASCII as
// UTF-8, no line feed at the end.
std::string dump_digests(const Record& digests);

// "digests.json" as dump_digests() writes it, its digests moved in the text: the members of the
// outer map are found once, and a moved digest's two lines are replaced in its text. See
// digest_text.cc.
class DigestText {
 public:
  // The file's text (moved from `text`) when it is exactly what dump_digests() writes for the map
  // it holds, and reading and writing it back could change nothing: no float, no escape that the
  // writer would spell otherwise, no key given twice; none otherwise, `text` left as it was.
  static std::optional<DigestText> read(std::string& text);
  // As move_digest_citations() on the digest of page `page_id` (nothing when the map has none),
  // noting each citation changed in `changed`. Throws as it does. False when the digest was moved
  // through the map (a line that is no integer, a moved citation without one of its lines).
  bool move(const std::string& page_id, const Moves& moves, std::vector<DigestChange>& changed);
  // What dump_digests() writes for the map with every move made.
  std::string text() const;

 private:
  std::string_view value(std::size_t member) const;  // the member's value text as it is now

  std::string text_;
  std::vector<std::pair<std::size_t, std::size_t>> spans_;  // each member's value in text_
  std::unordered_map<std::string, std::size_t> at_;         // members by key
  std::vector<std::optional<std::string>> values_;          // the moved members' new text
};

// "digests.json" of one writing refresh, kept in step with the page files. The refresh writes
// each page as it goes and the digest file once at the end, so a refresh that stops part way
// (an error, a full disk, a kill) has written pages whose digest changes are not in the file, and
// the next refresh finds those pages current. Before a page is written, its digest changes are
// added to a journal beside the digest file; the next writing refresh applies the changes of the
// pages that were written, writes the digest file and removes the journal. See digests.cc.
class DigestFile {
 public:
  // `read_page` reads a page file as the refresh reads it; `warn` takes the one line that says why
  // the digest file is left as it is.
  DigestFile(FileSystem& file_system, Repository& repository, const std::filesystem::path& wiki_dir,
             std::function<std::string(const std::filesystem::path&)> read_page,
             std::function<void(const std::string&)> warn);

  // Brings in the changes that an interrupted refresh left in the journal, if there is one.
  void recover();
  // Moves the digest of page `page_id` (file `rel_path`, whose text `old_text` is about to be
  // replaced; null when the text stays) by `moves`, and journals what changed. Call it before the
  // page's file and record are written.
  void move(const std::string& page_id, const std::filesystem::path& rel_path,
            const std::string* old_text, const Moves& moves);
  // After the last page: writes the digest file once when some page had moves, then removes the
  // journal.
  void finish();

 private:
  // Reads the digest file once: as text (DigestText) when it can be moved in its text, unless
  // `as_map`, else as the digest map. False when the file is left as it is.
  bool load(bool as_map = false);
  void apply(const Record& page);

  FileSystem& file_system_;
  Repository& repository_;
  std::filesystem::path wiki_dir_, digests_path_, journal_path_;
  std::function<std::string(const std::filesystem::path&)> read_page_;
  std::function<void(const std::string&)> warn_;
  bool read_ = false;               // the digest file was read (or found unfit to rewrite)
  bool moved_ = false;              // some page had moves
  std::optional<DigestText> text_;  // the file as text, when it is moved in its text
  std::optional<Record> digests_;   // else the map; none when the file is left as it is
  std::unordered_map<std::string, Record*> digest_at_;
  bool journaled_ = false;  // this refresh added to the journal
};

// ---- The lock ---------------------------------------------------------------------------------

// The wiki directory's write lock, for a writer that is not the wiki generator.
class WikiDirLock {
 public:
  WikiDirLock(const Host& host, const std::filesystem::path& wiki_dir);

  // Runs `block` holding the lock: acquires before it (a failed acquisition runs nothing and
  // releases nothing), releases exactly once after it however it ends. An error of the block
  // passes on after the release; an error of the release is the one that reaches the caller.
  void held(const std::function<void()>& block);

 private:
  std::unique_ptr<WriteLock> lock_;
};

}  // namespace tolbarrow::workers::wiki::citation_refresh::detail

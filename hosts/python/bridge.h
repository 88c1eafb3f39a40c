// The Python extension's side of the boundary: the host's Python services as the core's host
// interfaces, and conversions between Python values and the core's records, keys, ranges,
// symbols, texts and paths.
//
// GIL discipline: the extension's functions release the GIL around every core call, except that
// the core handles each citation of a page with the GIL held (PyHost::find), as that is a run of
// host calls; the core calls back into Python only through host_call(), which takes the GIL (when
// this thread does not hold it) for the call and for the conversions on either side of it. The
// objects handed to the core (page rows, line counts, write locks) only borrow Python objects,
// which the PyHost of the call owns: the core may drop them without the GIL.
//
// Identity: the host gets back its own objects (symbols and their lists, citation keys, the
// caller's paths, a row's content hash, a line count, a text hash). The core's values are plain,
// so a PyHost keeps side tables from those values to the host's objects: symbols by the address
// of their element in the list the bridge gave, citation keys by value within the page last
// searched, texts by Text::id().
#pragma once

#include <pybind11/pybind11.h>

#include <array>
#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "workers/wiki/citation_refresh.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::workers::wiki::pybridge {

namespace py = pybind11;
namespace cr = citation_refresh;
namespace fs = std::filesystem;

// ---- The host ---------------------------------------------------------------------------------

// The host's Python services, bound at import.
struct Services {
  py::object LineCounts, fit_range;                                       // citation_ranges
  py::object WriteLockMixin;                                              // lock
  py::object atomic_write, text_hash;                                     // repo_facts
  py::object CITATION_RE, CitationKey, WikiBusy, citation_key;            // types
  py::object SKIP_IDENT_EXTS, UNANCHORED_KINDS, anchor_symbol, anchored,  // verify
      prose_citations, rewrite_citations;
};

// Interned names of the attributes and keywords the bridge uses on host objects.
struct Names {
  Names();
  py::object start, end, finditer, value, fqn, name, kind, start_line, end_line, content_hash,
      page_id;
  py::object citations, line_start, line_end;
  py::object get_symbols_by_path, get_file_by_path, get_wiki_pages, update_wiki_page_citations;
  py::object acquire_write_lock, release_write_lock;
  py::object moves_keyword;    // ("moves",)
  py::object update_keywords;  // the keywords of update_wiki_page_citations
};

// The Python str forms of page texts, so that a page is converted once: the str a caller passes
// keeps its Text (callers pass one page many times), a Text made in C++ is converted once however
// many host calls it goes to, and a text the host returned is handed back as its own str when the
// core passes those bytes on. One entry each: the core works through one page at a time. GIL held.
class TextForms {
 public:
  // The Text of a Python str.
  std::shared_ptr<const Text> text(py::handle str);
  // The str of a Text: the caller's own when the Text was made from one.
  py::object str(const Text& text);
  // The str of UTF-8 bytes: a str the host returned lately when it holds those bytes.
  py::object str(std::string_view utf8);
  // Notes a str the host returned, whose UTF-8 form has been read.
  void returned(py::handle str);

 private:
  py::object caller_str_;
  std::shared_ptr<const Text> caller_text_;
  std::uint64_t text_id_ = 0;
  py::object text_str_;
  std::array<py::object, 2> returned_;  // newest first
};

// Everything the extension's functions share, made at import.
struct Bridge {
  Services services;
  Names names;
  // Read once at import: the host's constants as the core asks for them.
  std::vector<std::string> file_name_endings;
  std::unordered_set<std::string> unanchored_kinds;
  // The module's own classes (definitions.py), and the standard facilities the bridge uses.
  py::object CitationRefresh, PageRefresh, WikiDirLock;
  py::object Enum, Path, partial;
  std::shared_ptr<spdlog::logger> logger;
  TextForms texts;
};
using BridgePtr = std::shared_ptr<Bridge>;

// A host's `_WikiBusy`, carried through the core as a WikiBusy (which the guarded refresh catches)
// and restored as the very same Python error if it reaches Python again.
class PyWikiBusy : public WikiBusy {
 public:
  explicit PyWikiBusy(py::error_already_set error)
      : WikiBusy(error.what()), error_(std::move(error)) {}
  // Makes the carried error the current Python error. GIL held; once.
  void restore() const { error_.restore(); }

 private:
  mutable py::error_already_set error_;
};

// Runs `call` (a host call with its conversions) holding the GIL. A Python error leaves as
// py::error_already_set, or as PyWikiBusy when it is the host's `_WikiBusy`.
template <class F>
auto host_call(const Bridge& bridge, F&& call) -> decltype(call()) {
  py::gil_scoped_acquire gil;
  try {
    return call();
  } catch (py::error_already_set& error) {
    if (error.matches(bridge.services.WikiBusy)) throw PyWikiBusy(std::move(error));
    throw;
  }
}

// Runs a core operation with the GIL released.
template <class F>
auto without_gil(F&& operation) -> decltype(operation()) {
  py::gil_scoped_release nogil;
  return operation();
}

// An spdlog logger whose messages go to the Python logger `logger` at the matching level.
std::shared_ptr<spdlog::logger> python_logger(py::handle logger);

// One call's host services, over the bound Python services: what the core is given as its Host.
// Lives on the stack of one call of the extension, or inside a _Files.
class PyHost final : public CitationSyntax,
                     public Anchoring,
                     public CitationRanges,
                     public WriteLocks,
                     public RealFileSystem {
 public:
  // `wiki_dir` and `repo_root` are the caller's own path objects for `wiki_path` and `root_path`
  // (null: none), which the host gets back where the core hands back those paths.
  explicit PyHost(BridgePtr bridge, py::handle wiki_dir = {}, fs::path wiki_path = {},
                  py::handle repo_root = {}, fs::path root_path = {});
  PyHost(const PyHost&) = delete;
  PyHost& operator=(const PyHost&) = delete;

  const cr::Host& host() const { return host_; }
  Bridge& bridge() const { return *bridge_; }

  // CitationSyntax: prose_citations, citation_key, _CITATION_RE, rewrite_citations.
  void find(const Text& text, const std::function<void(const Citation&)>& each) override;
  std::optional<std::size_t> last_end(const Text& text, std::size_t start,
                                      std::size_t end) override;
  std::string rewrite(const Text& text, const Moves& moves) override;
  // Anchoring: _SKIP_IDENT_EXTS, _UNANCHORED_KINDS, anchor_symbol, anchored.
  const std::vector<std::string>& file_name_endings() override {
    return bridge_->file_name_endings;
  }
  bool unanchored_kind(const std::string& kind) override {
    return bridge_->unanchored_kinds.count(kind) != 0;
  }
  const Symbol* anchor_symbol(std::span<const Symbol> symbols, Line first, Line last) override;
  Record anchored(const Record& citation, LineRange lines, const Symbol* symbol) override;
  void anchored_unused(const Record& citation, LineRange lines, const Symbol* symbol) override;
  // CitationRanges: LineCounts, fit_range.
  std::unique_ptr<LineCounts> line_counts(const fs::path& repo_root) override;
  std::optional<LineRange> fit_range(Line first, Line last, Line line_count) override;
  // WriteLocks: the module's _WikiDirLock over the host's WriteLockMixin.
  std::unique_ptr<WriteLock> open(const fs::path& wiki_dir) override;
  // FileSystem: the operating system's, writing through the host's _atomic_write.
  void atomic_write(const fs::path& path, std::string_view content) override;

  // ---- Side tables (GIL held) ----

  // The Symbols of a host sequence of symbols, remembered with it. `sequence` itself is the
  // host's list when it is a list or a tuple (else a list is made of it).
  std::vector<Symbol> symbols_of(py::handle sequence);
  // The host's object for a declaration of a list that symbols_of() made.
  py::object symbol_object(const Symbol* symbol) const;
  // The host's sequence when `symbols` is a whole list that symbols_of() made, else a new list of
  // the host's symbol objects.
  py::object symbols_object(std::span<const Symbol> symbols) const;

  // The host's key object for `key` in the page last searched, else a new host CitationKey.
  py::object key_object(const CitationKey& key) const;
  // A cited path as a Python str: the host's own str of the citation being refreshed when it is
  // that path, else a new one.
  py::object path_object(const std::string& path) const;
  // Maps going to Python: dicts in the map's order, keyed by the host's key objects.
  py::dict moves_object(const Moves& moves) const;
  py::dict anchors_object(const KeyedMap<Record>& anchors) const;

  // The object the host's LineCounts gave for `count`, when it was the last count it gave.
  py::object count_object(Line count) const;
  // Records a line count the host gave. Returns it as a line.
  Line counted(py::object count);

  // Remembers that `records` were converted from the host's `items` (one each), so that
  // anchored() hands the host a copy of its own record rather than one rebuilt from JSON. What
  // was remembered of the memory they now take is forgotten.
  void records_from(const std::vector<Record>& records, py::tuple items);
  // The host's own record that `record` was converted from, or null.
  PyObject* record_object(const Record* record) const;

  // Keeps `object` alive as long as this host, for the objects handed to the core. Borrowed back.
  PyObject* keep(py::object object);

 private:
  // Calls the host's anchored with a copy of `citation` placed at `lines`. GIL held.
  py::object call_anchored(const Record& citation, LineRange lines, const Symbol* symbol);

  struct SymbolList {
    std::size_t size;
    py::object sequence;  // the host's list
    py::tuple items;      // its items when the list was given
  };

  BridgePtr bridge_;
  cr::Host host_;
  py::object wiki_dir_, repo_root_;
  fs::path wiki_path_, root_path_;
  std::map<const Symbol*, SymbolList, std::less<>> symbol_lists_;  // by their first element
  std::map<const Record*, py::tuple, std::less<>> record_lists_;   // by their first element
  // The keys the host gave for the page last searched, in text order; each key's path is a view
  // of the UTF-8 form of the host's str, which `parts` keeps. Indexed on the first lookup.
  struct PageKey {
    cr::detail::CitationKeyView key;
    py::object object;
    py::tuple parts;
  };
  std::vector<PageKey> keys_;
  const PageKey* current_ = nullptr;  // the key of the citation the core is refreshing
  mutable std::unordered_map<cr::detail::CitationKeyView, std::size_t,
                             cr::detail::CitationKeyViewHash>
      key_at_;
  mutable std::size_t keys_indexed_ = 0;  // how many of keys_ key_at_ holds
  Line last_count_ = 0;
  py::object last_count_object_;
  std::vector<py::object> kept_;
};

// The caller's Repository object as the core's Repository.
class PyRepository final : public Repository {
 public:
  PyRepository(PyHost& host, py::handle repository);

  std::vector<Symbol> get_symbols_by_path(const std::string& path) override;
  bool is_indexed(const std::string& path) override;
  std::vector<std::unique_ptr<const PageRow>> get_wiki_pages(const std::string& branch) override;
  void update_wiki_page_citations(const std::string& branch, const PageRow& row,
                                  PageUpdate update) override;
  std::string text_hash(const std::string& text) override;

 private:
  PyHost& host_;
  py::object repository_;
  py::object hash_;  // the host's last text hash, and its text
  std::string hash_text_;
};

// ---- Conversions (all with the GIL held) --------------------------------------------------------

// Raises `type` with `message` as a pybind11 error the caller throws.
[[noreturn]] void raise(PyObject* type, const std::string& message);
// The type name of a Python object, for error messages.
std::string type_name(py::handle object);

// Calls `callable(*args)`; the last len(kwnames) of `args` go by the keywords `kwnames` names.
py::object call(py::handle callable, std::initializer_list<py::handle> args,
                py::handle kwnames = {});
// Calls the method `name` of `self` likewise.
py::object call_method(py::handle self, py::handle name, std::initializer_list<py::handle> args,
                       py::handle kwnames = {});

// A Python str as UTF-8. TypeError naming `what` (and `part` of it) when it is not a str. The
// names are put together only for an error.
std::string to_utf8(py::handle text, std::string_view what, std::string_view part = {});
// UTF-8 bytes as a Python str.
py::str to_str(std::string_view utf8);

// A Python int as a line number. TypeError when it is not an int, OverflowError beyond 64 bits.
Line to_line(py::handle value, std::string_view what, std::string_view part = {});
// A Python int as a text offset. Also ValueError when it is negative.
std::size_t to_offset(py::handle value, std::string_view what);

// A Python value as a record (JSON value): dict (str keys, order kept), list or tuple, str, int
// (64-bit signed, else unsigned), float, bool and None. TypeError naming `what` and the type for
// anything else, OverflowError for an int beyond 64 bits.
Record to_record(py::handle value, std::string_view what);
// A sequence of records.
std::vector<Record> to_records(py::handle values, std::string_view what);
// A record as a Python value; maps become dicts in the record's key order.
py::object from_record(const Record& record);
// Records as a Python list.
py::list from_records(const std::vector<Record>& records);

// A key of exactly three parts (path str, start int, end int): a CitationKey, a tuple, any
// iterable. `parts`, when given, gets the three parts as a tuple.
CitationKey to_key(py::handle key, std::string_view what, py::tuple* parts = nullptr);
// A line range of exactly two ints, and back as a tuple.
LineRange to_range(py::handle range, std::string_view what);
py::tuple range_object(const LineRange& range);
// Maps keyed by citation key, read from any mapping (keys unpacked as by to_key).
Moves to_moves(py::handle moves, std::string_view what);
KeyedMap<Record> to_anchors(py::handle anchors, std::string_view what);

// The text form of a symbol kind: a str (a StrEnum member too) as its str value, another Enum
// member as str() of its value, anything else as str().
std::string kind_text(const Bridge& bridge, py::handle kind);
// The items of a host sequence of symbols, and the sequence handed back as "the host's list": the
// sequence itself when it is a list or a tuple, else a list made from it.
std::pair<py::object, py::tuple> symbol_sequence(py::handle symbols);
// The host symbols `items`, each read once: fqn and name (str; None counts as empty), kind
// (kind_text), start_line and end_line (int). The vector has an element buffer even when empty,
// so that its data() names it.
std::vector<Symbol> to_symbols(const Bridge& bridge, const py::tuple& items);

// A path argument (str, bytes or os.PathLike) as a file-system path. TypeError naming `what`.
fs::path to_path(py::handle path, std::string_view what);
// A file-system path as a Python str (undecodable bytes as surrogate escapes).
py::str path_str(const fs::path& path);

}  // namespace tolbarrow::workers::wiki::pybridge

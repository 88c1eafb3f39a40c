// The Python extension's side of the boundary: references to Python objects that C++ values carry
// through the core, the host's bound services, and conversions between Python values and the
// core's records, keys, ranges, symbols and texts.
//
// GIL discipline: the extension's functions release the GIL around every core call. The core
// calls back into Python only through host_call(), which takes the GIL for the call and for the
// conversions on either side of it. Every C++ value that holds a Python object and that the core
// may copy or drop while the GIL is released holds it through a PyRef, whose release takes the GIL.
#pragma once

#include <pybind11/pybind11.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "workers/wiki/citation_refresh.h"

namespace tolbarrow::workers::wiki::pybridge {

namespace py = pybind11;
namespace cr = citation_refresh;
namespace fs = std::filesystem;

// ---- References -------------------------------------------------------------------------------

// A strong reference to a Python object that may be dropped on a thread that does not hold the
// GIL: dropping it takes the GIL. Made with the GIL held.
class PyRef {
 public:
  explicit PyRef(py::handle object) : object_(object.inc_ref().ptr()) {}
  ~PyRef() {
    py::gil_scoped_acquire gil;
    Py_DECREF(object_);
  }
  PyRef(const PyRef&) = delete;
  PyRef& operator=(const PyRef&) = delete;

  py::handle handle() const { return object_; }
  py::object object() const { return py::reinterpret_borrow<py::object>(object_); }

 private:
  PyObject* object_;
};
using PyRefPtr = std::shared_ptr<const PyRef>;

inline PyRefPtr make_ref(py::handle object) { return std::make_shared<const PyRef>(object); }

// The payload of a HostValue that holds a Python value (a content hash, a line count): the very
// object, handed back unchanged.
struct PyValue {
  PyRefPtr ref;
};

// A Symbol's host object: the Python symbol, and the sequence it came in (with its length then and
// the symbol's place in it), so that the host's own list can be handed back where the core passes
// the whole list (`anchor_symbol`). `sequence` is null for a symbol that came alone.
struct SymbolHost : PyRef {
  SymbolHost(py::handle symbol, PyRefPtr sequence, std::size_t index, std::size_t count)
      : PyRef(symbol), sequence(std::move(sequence)), index(index), count(count) {}
  PyRefPtr sequence;
  std::size_t index;
  std::size_t count;
};

// ---- The host --------------------------------------------------------------------------------

// The host's services as bound at import, and the standard facilities the bridge uses. Shared by
// every callback the core holds; dropped with the GIL taken (see make_host).
struct Host {
  // citation_ranges
  py::object LineCounts, fit_range;
  // lock
  py::object WriteLockMixin;
  // repo_facts
  py::object atomic_write, text_hash;
  // types
  py::object CITATION_RE, CitationKey, WikiBusy, citation_key;
  // verify
  py::object SKIP_IDENT_EXTS, UNANCHORED_KINDS, anchor_symbol, anchored, prose_citations,
      rewrite_citations;

  // This module's lock class (a WriteLockMixin subclass), made after the names are bound.
  py::object WikiDirLock;
  // Standard facilities.
  py::object Enum, Path;
};
using HostPtr = std::shared_ptr<Host>;

// A new, empty Host whose last owner may drop it without the GIL.
HostPtr make_host();

// A Python error raised by a host service that is the host's `_WikiBusy`, carried through the core
// as a WikiBusy (which the guarded refresh catches). Restored as the very same Python error if it
// reaches Python again.
class PyWikiBusy : public WikiBusy {
 public:
  explicit PyWikiBusy(py::error_already_set error)
      : WikiBusy("the wiki is being written"), error_(std::move(error)) {}
  // Makes the carried error the current Python error. GIL held.
  void restore() const { error_.restore(); }

 private:
  mutable py::error_already_set error_;
};

// Runs `call` (a host call with its conversions) holding the GIL. A Python error leaves as
// py::error_already_set, or as PyWikiBusy when it is the host's `_WikiBusy`.
template <class F>
auto host_call(const Host& host, F&& call) -> decltype(call()) {
  py::gil_scoped_acquire gil;
  try {
    return call();
  } catch (py::error_already_set& error) {
    if (error.matches(host.WikiBusy)) throw PyWikiBusy(std::move(error));
    throw;
  }
}

// ---- Conversions (all with the GIL held) ------------------------------------------------------

// Raises `type` with `message` as a pybind11 error the caller throws.
[[noreturn]] void raise(PyObject* type, const std::string& message);

// The type name of a Python object, for error messages.
std::string type_name(py::handle object);

// A Python str as UTF-8. TypeError naming `what` when it is not a str.
std::string to_utf8(py::handle text, std::string_view what);

// UTF-8 bytes as a Python str.
py::str to_str(std::string_view utf8);

// A Python int as a line number. TypeError when it is not an int, OverflowError beyond 64 bits.
Line to_line(py::handle value, std::string_view what);

// A Python value as a record (JSON value): dict (str keys, order kept), list or tuple, str, int
// (64-bit signed, else unsigned), float, bool and None. TypeError naming `what` and the type for
// anything else, OverflowError for an int beyond 64 bits.
Record to_record(py::handle value, std::string_view what);
// A list of records.
std::vector<Record> to_records(py::handle values, std::string_view what);

// A record as a Python value; maps become dicts in the record's key order.
py::object from_record(const Record& record);

// A key of exactly three parts (path str, start int, end int): a CitationKey, a tuple, any
// iterable. With `keep_host` the object itself rides along as the key's host object.
CitationKey to_key(py::handle key, std::string_view what, bool keep_host);
// The host's own key object when the key has one, else a new host CitationKey.
py::object key_object(const Host& host, const CitationKey& key);

// A line range of exactly two ints, and back as a tuple.
LineRange to_range(py::handle range, std::string_view what);
py::tuple range_object(const LineRange& range);

// Maps keyed by citation key, read from any mapping (keys unpacked as by to_key).
Moves to_moves(py::handle moves, std::string_view what);
KeyedMap<Record> to_anchors(py::handle anchors, std::string_view what);
// Maps going to Python: dicts in the map's order, keyed by the host's own key objects.
py::dict moves_object(const Host& host, const Moves& moves);
py::dict anchors_object(const Host& host, const KeyedMap<Record>& anchors);

// The text form of a symbol kind: a str (a StrEnum member too) as its str value, another Enum
// member as str() of its value, anything else as str().
std::string kind_text(const Host& host, py::handle kind);

// A host Symbol, read once: fqn and name (str; None counts as empty), kind, start_line and
// end_line (int). `sequence` is the list it came in, if any.
SymbolPtr to_symbol(const Host& host, py::handle symbol, PyRefPtr sequence = nullptr,
                    std::size_t index = 0, std::size_t count = 0);
// A host sequence of Symbols. `*original` receives the sequence (a list made from it when it is
// neither a list nor a tuple), the object a caller hands back as "the host's list".
Symbols to_symbols(const Host& host, py::handle symbols, PyRefPtr* original = nullptr);
// The host's own object for a symbol (made by to_symbol).
py::object symbol_object(const Symbol& symbol);
// The host's own sequence when `symbols` is exactly the sequence one call gave, else a new list
// of the host's symbol objects.
py::object symbols_object(const Symbols& symbols);

// A page text as a Python str, converted once per Text and kept in its host-form slot.
py::object text_object(const Text& text);
// A Python str as a Text whose host form is that str.
std::shared_ptr<const Text> to_text(py::handle text, std::string_view what);

// A HostValue as the Python value it carries: a PyValue's object, None when empty.
py::object host_value(const HostValue& value);

// A path argument (str, bytes or os.PathLike) as a file-system path. TypeError naming `what`.
fs::path to_path(py::handle path, std::string_view what);
// A file-system path as a Python str (undecodable bytes as surrogate escapes).
py::str path_str(const fs::path& path);

// ---- Paths the host handed in ------------------------------------------------------------------

// While a call of the extension runs, the caller's own `wiki_dir` and `repo_root` objects, so
// that where the core hands those paths back to the host (the lock's `wiki_dir`, `LineCounts`'s
// root) the host gets its own object. Scoped to the calling thread; calls may nest.
class CallPaths {
 public:
  CallPaths(py::handle wiki_dir, fs::path wiki_path, py::handle repo_root, fs::path root_path);
  ~CallPaths();
  CallPaths(const CallPaths&) = delete;
  CallPaths& operator=(const CallPaths&) = delete;

  // The caller's object for `path` in the given role, else a new pathlib.Path. GIL held.
  static py::object wiki_dir(const Host& host, const fs::path& path);
  static py::object repo_root(const Host& host, const fs::path& path);

 private:
  py::handle wiki_dir_, repo_root_;
  fs::path wiki_path_, root_path_;
  const CallPaths* outer_;
};

// ---- Host services as the core sees them ---------------------------------------------------------

// The host modules, each service a std::function calling the bound Python object.
cr::HostModules host_modules(const HostPtr& host);

// An spdlog logger named `name` whose messages go to the Python logger `logger` at the matching
// level.
std::shared_ptr<spdlog::logger> python_logger(const std::string& name, py::handle logger);

// The caller's Repository object as the core's Repository. Lives on the stack of one call of the
// extension (or inside a _Files); holds the repository object, and remembers the sequence that
// get_symbols_by_path gave for each path.
class PyRepository : public Repository {
 public:
  PyRepository(HostPtr host, py::handle repository);

  Symbols get_symbols_by_path(const std::string& path) override;
  std::optional<Record> get_file_by_path(const std::string& path) override;
  std::vector<PageRowPtr> get_wiki_pages(const std::string& branch) override;
  void update_wiki_page_citations(const std::string& branch, const std::string& page_id,
                                  PageUpdate update) override;

  py::object repository() const { return repository_->object(); }
  // The sequence that get_symbols_by_path gave for `path`, or None when it was not asked.
  py::object symbol_list(const std::string& path) const;

 private:
  HostPtr host_;
  PyRefPtr repository_;
  std::unordered_map<std::string, PyRefPtr> symbol_lists_;
};

}  // namespace tolbarrow::workers::wiki::pybridge

// The Python module tolbarrow.workers.wiki.citation_refresh: binds the host's services from the
// sibling modules of its package, loads the core once, and presents the core's operations, records
// and constants under their Python names.
#include "bridge.h"

namespace tolbarrow::workers::wiki::pybridge {
namespace {

// The module's records and lock class, made at import from the host's WriteLockMixin.
constexpr const char* kPythonDefinitions = R"PY(
import contextlib
import dataclasses


@dataclasses.dataclass
class CitationRefresh:
    """What one refresh of a branch's wiki found and, when it may write, did."""

    repaired: int = 0
    unrepairable: int = 0
    pages_written: int = 0
    lost: list = dataclasses.field(default_factory=list)
    moved: dict = dataclasses.field(default_factory=dict)


@dataclasses.dataclass
class _PageRefresh:
    """One page's new citation ranges, new anchored records and lost citations."""

    moves: dict
    anchors: dict
    lost: list


class _WikiDirLock(WriteLockMixin):
    """The write lock of one wiki directory; the locking itself is the host mixin's."""

    def __init__(self, wiki_dir):
        self.wiki_dir = wiki_dir
        self._held_lock_nonce = None
        self._lock_refreshed_at = 0.0

    @contextlib.contextmanager
    def held(self):
        """Holds the wiki's write lock for the block, giving it up once however the block ends."""
        self._acquire_write_lock()
        try:
            yield
        finally:
            self._release_write_lock()
)PY";

// Everything the module's functions share: the host, the loaded core, the record types, and the
// last page text converted from Python (callers such as a page walk pass one str many times).
struct Bridge {
  HostPtr host;
  std::optional<cr::Module> core;
  py::object CitationRefresh, PageRefresh;

  // The Text of `text` (a str), reusing the last one made when `text` is that same object.
  std::shared_ptr<const Text> text(py::handle text) {
    if (last_text_ && last_text_object_.is(text)) return last_text_;
    auto made = to_text(text, "text");
    last_text_object_ = py::reinterpret_borrow<py::object>(text);
    last_text_ = made;
    return made;
  }

 private:
  py::object last_text_object_;
  std::shared_ptr<const Text> last_text_;
};
using BridgePtr = std::shared_ptr<Bridge>;

// The _Files class: the core's per-refresh cache of cited files over a Python repository.
struct PyFiles {
  PyFiles(const BridgePtr& bridge, py::object repository_object, py::object repo_root_object)
      : repository(std::move(repository_object)),
        repo_root(std::move(repo_root_object)),
        adapter(std::make_unique<PyRepository>(bridge->host, repository)) {
    const fs::path root = to_path(repo_root, "repo_root");
    CallPaths paths({}, {}, repo_root, root);
    py::gil_scoped_release nogil;
    files = std::make_unique<cr::detail::Files>(*bridge->core, *adapter, root);
  }

  py::object repository, repo_root;
  std::unique_ptr<PyRepository> adapter;
  std::unique_ptr<cr::detail::Files> files;
};

// The host module `package.module`; its import error (naming it) fails the import.
py::module_ bind_module(const std::string& package, const char* module) {
  return py::module_::import((package + "." + module).c_str());
}

HostPtr bind_host(const std::string& package) {
  HostPtr host = make_host();
  // Module by module, name by name; a missing one fails the import with Python's own error.
  py::module_ m = bind_module(package, "citation_ranges");
  host->LineCounts = m.attr("LineCounts");
  host->fit_range = m.attr("fit_range");
  m = bind_module(package, "lock");
  host->WriteLockMixin = m.attr("WriteLockMixin");
  m = bind_module(package, "repo_facts");
  host->atomic_write = m.attr("_atomic_write");
  host->text_hash = m.attr("_text_hash");
  m = bind_module(package, "types");
  host->CITATION_RE = m.attr("_CITATION_RE");
  host->CitationKey = m.attr("CitationKey");
  host->WikiBusy = m.attr("_WikiBusy");
  host->citation_key = m.attr("citation_key");
  m = bind_module(package, "verify");
  host->SKIP_IDENT_EXTS = m.attr("_SKIP_IDENT_EXTS");
  host->UNANCHORED_KINDS = m.attr("_UNANCHORED_KINDS");
  host->anchor_symbol = m.attr("anchor_symbol");
  host->anchored = m.attr("anchored");
  host->prose_citations = m.attr("prose_citations");
  host->rewrite_citations = m.attr("rewrite_citations");
  return host;
}

py::object result_object(const Bridge& bridge, const cr::CitationRefresh& result) {
  py::list lost;
  for (const Record& entry : result.lost) lost.append(from_record(entry));
  py::dict moved;
  for (const auto& [page, count] : result.moved) moved[to_str(page)] = count;
  return bridge.CitationRefresh(result.repaired, result.unrepairable, result.pages_written, lost,
                                moved);
}

py::object page_object(const Bridge& bridge, const cr::detail::PageRefresh& page) {
  py::list lost;
  for (const auto& [key, name] : page.lost) lost.append(py::make_tuple(key_object(*bridge.host, key), to_str(name)));
  return bridge.PageRefresh(moves_object(*bridge.host, page.moves),
                            anchors_object(*bridge.host, page.anchors), lost);
}

// ---- Errors -------------------------------------------------------------------------------------

void set_decode_error(const InvalidUtf8& error) {
  const std::string& bytes = error.bytes();
  const auto at = static_cast<Py_ssize_t>(error.offset());
  PyObject* decode = PyUnicodeDecodeError_Create("utf-8", bytes.data(), static_cast<Py_ssize_t>(bytes.size()),
                                                 at, at + 1, error.what());
  if (decode == nullptr) return;  // its own error is set
  PyErr_SetObject(PyExc_UnicodeDecodeError, decode);
  Py_DECREF(decode);
}

void set_os_error(const fs::filesystem_error& error) {
  // what() is "filesystem error: <what>: <reason> [path]"; keep "<what>: <reason>".
  std::string message = error.what();
  if (message.rfind("filesystem error: ", 0) == 0) message.erase(0, 18);
  for (const fs::path* path : {&error.path2(), &error.path1()}) {
    const std::string tail = " [" + path->string() + "]";
    if (!path->empty() && message.size() >= tail.size() &&
        message.compare(message.size() - tail.size(), tail.size(), tail) == 0) {
      message.erase(message.size() - tail.size());
    }
  }
  try {
    const py::object filename =
        error.path1().empty() ? py::object(py::none()) : py::object(path_str(error.path1()));
    py::object os_error = error.path2().empty()
        ? py::handle(PyExc_OSError)(error.code().value(), message, filename)
        : py::handle(PyExc_OSError)(error.code().value(), message, filename, py::none(),
                                    path_str(error.path2()));
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(os_error.ptr())), os_error.ptr());
  } catch (py::error_already_set& failed) {
    failed.restore();
  }
}

void translate_errors(std::exception_ptr error) {
  try {
    std::rethrow_exception(error);
  } catch (const PyWikiBusy& busy) {
    busy.restore();
  } catch (const cr::RecordTypeError& e) {
    PyErr_SetString(PyExc_TypeError, e.what());
  } catch (const cr::RecordValueError& e) {
    PyErr_SetString(PyExc_ValueError, e.what());
  } catch (const MissingKey& e) {
    PyErr_SetObject(PyExc_KeyError, to_str(e.key()).ptr());
  } catch (const InvalidUtf8& e) {
    set_decode_error(e);
  } catch (const fs::filesystem_error& e) {
    set_os_error(e);
  } catch (const std::out_of_range& e) {
    PyErr_SetString(PyExc_IndexError, e.what());
  } catch (const cr::HostBindingError& e) {
    PyErr_SetString(PyExc_ImportError, e.what());
  }
}

// ---- The module -------------------------------------------------------------------------------

void define(py::module_ m) {
  // Start-up, in order: standard facilities, the host's services, logger, constants, then the
  // operations and records.
  const py::module_ logging = py::module_::import("logging");
  const py::module_ re = py::module_::import("re");
  const py::module_ builtins = py::module_::import("builtins");
  const py::module_ enum_module = py::module_::import("enum");
  const py::module_ pathlib = py::module_::import("pathlib");

  const std::string name = m.attr("__name__").cast<std::string>();
  const auto dot = name.rfind('.');
  const std::string package =
      dot == std::string::npos ? std::string("tolbarrow.workers.wiki") : name.substr(0, dot);

  const BridgePtr bridge(new Bridge(), [](Bridge* dropped) {
    py::gil_scoped_acquire gil;
    delete dropped;
  });
  bridge->host = bind_host(package);
  Host& host = *bridge->host;
  host.Enum = enum_module.attr("Enum");
  host.Path = pathlib.attr("Path");

  const py::object logger = logging.attr("getLogger")(std::string(cr::MODULE_NAME));
  m.attr("logger") = logger;
  m.attr("_CLAIM_WINDOW") = cr::detail::CLAIM_WINDOW;
  m.attr("_CLAIM_IDENT_RE") = re.attr("compile")(std::string(cr::detail::CLAIM_IDENT_PATTERN));

  py::dict definitions;
  definitions["__name__"] = name;
  definitions["__builtins__"] = builtins;
  definitions["WriteLockMixin"] = host.WriteLockMixin;
  builtins.attr("exec")(builtins.attr("compile")(kPythonDefinitions, "<" + name + ">", "exec"),
                        definitions);
  bridge->CitationRefresh = definitions["CitationRefresh"];
  bridge->PageRefresh = definitions["_PageRefresh"];
  host.WikiDirLock = definitions["_WikiDirLock"];

  bridge->core.emplace(cr::Module::load(host_modules(bridge->host),
                                        python_logger(std::string(cr::MODULE_NAME), logger)));
  m.def(
      "_find_again",
      [bridge](py::object symbols, py::object citation) -> py::object {
        const Symbols found_in = to_symbols(*bridge->host, symbols);
        const Record record = to_record(citation, "citation record");
        SymbolPtr found;
        {
          py::gil_scoped_release nogil;
          found = cr::detail::find_again(found_in, record);
        }
        return found ? symbol_object(*found) : py::none();
      },
      py::arg("symbols"), py::arg("citation"),
      "The declaration among `symbols` that an anchored citation record cites now, or None.");

  m.def(
      "relocated_range",
      [](py::object citation, py::object symbol) {
        const Record record = to_record(citation, "citation record");
        // Only the declaration's lines take part; its other fields are not read.
        Symbol declaration;
        declaration.start_line = to_line(symbol.attr("start_line"), "Symbol.start_line");
        declaration.end_line = to_line(symbol.attr("end_line"), "Symbol.end_line");
        LineRange range;
        {
          py::gil_scoped_release nogil;
          range = cr::relocated_range(record, declaration);
        }
        return range_object(range);
      },
      py::arg("citation"), py::arg("symbol"),
      "Where an anchored citation's lines are now, given its declaration now: (first, last).");

  m.def(
      "claim_identifiers",
      [bridge](py::object text, py::object position) {
        const auto page = bridge->text(text);
        const Line at = to_line(position, "position");
        if (at < 0) {
          raise(PyExc_IndexError, "claim_identifiers: position " + std::to_string(at) +
                                      " is before the start of the text");
        }
        std::vector<std::string> names;
        {
          py::gil_scoped_release nogil;
          names = bridge->core->claim_identifiers(*page, static_cast<std::size_t>(at));
        }
        py::list out;
        for (const std::string& identifier : names) out.append(to_str(identifier));
        return out;
      },
      py::arg("text"), py::arg("position"),
      "The identifiers that the claim before the citation at `position` names, nearest last.");

  m.def(
      "_legacy_anchor",
      [bridge](py::object symbols, py::object start, py::object end, py::object names) {
        const Symbols candidates = to_symbols(*bridge->host, symbols);
        const Line first = to_line(start, "start"), last = to_line(end, "end");
        std::vector<std::string> claimed;
        for (py::handle identifier : py::iter(names)) claimed.push_back(to_utf8(identifier, "names item"));
        std::pair<SymbolPtr, LineRange> chosen;
        {
          py::gil_scoped_release nogil;
          chosen = cr::detail::legacy_anchor(*bridge->core, candidates, first, last, claimed);
        }
        return py::make_tuple(chosen.first ? symbol_object(*chosen.first) : py::none(),
                              range_object(chosen.second));
      },
      py::arg("symbols"), py::arg("start"), py::arg("end"), py::arg("names"),
      "The declaration a legacy citation is anchored to (or None) and the range it takes.");

  m.attr("CitationRefresh") = bridge->CitationRefresh;
  m.attr("_PageRefresh") = bridge->PageRefresh;

  py::class_<PyFiles>(m, "_Files", "The cited files of one refresh: each path's symbols asked once.")
      .def(py::init([bridge](py::object repository, py::object repo_root) {
             return std::make_unique<PyFiles>(bridge, std::move(repository), std::move(repo_root));
           }),
           py::arg("repository"), py::arg("repo_root"))
      .def(
          "symbols",
          [](PyFiles& self, const std::string& path) {
            {
              py::gil_scoped_release nogil;
              self.files->symbols(path);
            }
            return self.adapter->symbol_list(path);
          },
          py::arg("path"), "The index's symbols of `path`, asked on first use; the same list after.")
      .def(
          "indexed",
          [](PyFiles& self, const std::string& path) {
            py::gil_scoped_release nogil;
            return self.files->indexed(path);
          },
          py::arg("path"), "Whether the index knows `path`; asked anew on every call.")
      .def(
          "line_count",
          [](PyFiles& self, const std::string& path) {
            HostValue count;
            {
              py::gil_scoped_release nogil;
              count = self.files->line_count(path);
            }
            return host_value(count);
          },
          py::arg("path"), "The file's line count from the host's LineCounts.")
      .def_readonly("repository", &PyFiles::repository)
      .def_readonly("repo_root", &PyFiles::repo_root);

  m.def(
      "_refresh_page",
      [bridge](py::object text, py::object citations, PyFiles& files) {
        const auto page = bridge->text(text);
        const std::vector<Record> stored = to_records(citations, "citation record");
        std::optional<cr::detail::PageRefresh> result;
        {
          py::gil_scoped_release nogil;
          result.emplace(cr::detail::refresh_page(*bridge->core, *page, stored, *files.files));
        }
        return page_object(*bridge, *result);
      },
      py::arg("text"), py::arg("citations"), py::arg("files"),
      "One page's moves, new anchored records and lost citations, as a _PageRefresh.");

  m.def(
      "_apply",
      [](py::object citations, py::object page) {
        const std::vector<Record> stored = to_records(citations, "citation record");
        cr::detail::PageRefresh refresh({}, to_anchors(page.attr("anchors"), "_PageRefresh.anchors"), {});
        std::vector<Record> out;
        {
          py::gil_scoped_release nogil;
          out = cr::detail::apply(stored, refresh);
        }
        py::list records;
        for (const Record& record : out) records.append(from_record(record));
        return records;
      },
      py::arg("citations"), py::arg("page"),
      "The page's new citation records: each stored record replaced by its anchored record.");

  m.def(
      "refresh_citations",
      [bridge](py::object repository, const std::string& branch, py::object wiki_dir,
               py::object repo_root, bool write) {
        const fs::path wiki = to_path(wiki_dir, "wiki_dir"), root = to_path(repo_root, "repo_root");
        PyRepository adapter(bridge->host, repository);
        CallPaths paths(wiki_dir, wiki, repo_root, root);
        cr::CitationRefresh result;
        {
          py::gil_scoped_release nogil;
          result = bridge->core->refresh_citations(adapter, branch, wiki, root, {.write = write});
        }
        return result_object(*bridge, result);
      },
      py::arg("repository"), py::arg("branch"), py::arg("wiki_dir"), py::arg("repo_root"),
      py::kw_only(), py::arg("write") = true,
      "Refreshes every citation of the branch's wiki; with write=False it only reports. The caller "
      "holds the wiki's write lock when it writes.");

  m.def(
      "_read_digests",
      [](py::object path) {
        const fs::path file = to_path(path, "path");
        Record digests;
        {
          py::gil_scoped_release nogil;
          digests = cr::detail::read_digests(file);
        }
        return from_record(digests);
      },
      py::arg("path"), "The digest map in the file at `path`; an empty dict when it has none.");

  m.def(
      "_move_digest_citations",
      [](py::object digest, py::object moves) {
        // The caller's digest dict changes in place: its citation dicts stay the same objects.
        if (!PyDict_Check(digest.ptr())) return;
        PyObject* citations = PyDict_GetItemWithError(digest.ptr(), py::str("citations").ptr());
        if (citations == nullptr) {
          if (PyErr_Occurred()) throw py::error_already_set();
          return;
        }
        const int present = PyObject_IsTrue(citations);
        if (present < 0) throw py::error_already_set();
        if (present == 0) return;
        const auto list = py::reinterpret_borrow<py::object>(citations);
        if (!PyList_Check(citations)) {
          throw cr::RecordTypeError("digest citations: expected a list, got " + type_name(list));
        }
        const Moves by_key = to_moves(moves, "moves");
        for (py::handle citation : list) {
          if (!PyDict_Check(citation.ptr())) {
            throw cr::RecordTypeError("digest citation: expected a dict, got " + type_name(citation));
          }
          // The stored key, made by the core from the three members it reads.
          Record probe = Record::object();
          for (const char* key : {"path", "line_start", "line_end"}) {
            PyObject* value = PyDict_GetItemWithError(citation.ptr(), py::str(key).ptr());
            if (value != nullptr) {
              probe[key] = to_record(value, "digest citation");
            } else if (PyErr_Occurred()) {
              throw py::error_already_set();
            }
          }
          if (const LineRange* range = by_key.find(cr::stored_key(probe))) {
            const auto entry = py::reinterpret_borrow<py::dict>(citation);
            entry["line_start"] = range->first;
            entry["line_end"] = range->last;
          }
        }
      },
      py::arg("digest"), py::arg("moves"),
      "Moves the citation ranges of one page's digest in place by `moves`.");

  m.attr("_WikiDirLock") = host.WikiDirLock;

  m.def(
      "refresh_citations_if_free",
      [bridge](py::object repository, const std::string& branch, py::object wiki_dir,
               py::object repo_root) {
        const fs::path wiki = to_path(wiki_dir, "wiki_dir"), root = to_path(repo_root, "repo_root");
        PyRepository adapter(bridge->host, repository);
        CallPaths paths(wiki_dir, wiki, repo_root, root);
        cr::CitationRefresh result;
        {
          py::gil_scoped_release nogil;
          result = bridge->core->refresh_citations_if_free(adapter, branch, wiki, root);
        }
        return result_object(*bridge, result);
      },
      py::arg("repository"), py::arg("branch"), py::arg("wiki_dir"), py::arg("repo_root"),
      "Refreshes under the wiki directory's write lock; while another writer holds it, logs one "
      "line and only reports.");

  py::register_local_exception_translator(translate_errors);
}

}  // namespace
}  // namespace tolbarrow::workers::wiki::pybridge

// The module's entry point. Unlike PYBIND11_MODULE, which wraps every start-up error in an
// ImportError("initialization failed"), a host module or name that cannot be bound fails the
// import with Python's own error, which names what is missing.
static pybind11::module_::module_def citation_refresh_definition;

extern "C" PYBIND11_EXPORT PyObject* PyInit_citation_refresh() {
  PYBIND11_CHECK_PYTHON_VERSION
  PYBIND11_ENSURE_INTERNALS_READY
  auto m = pybind11::module_::create_extension_module("citation_refresh", nullptr,
                                                      &citation_refresh_definition);
  try {
    m.doc() =
        "Keeps the code citations of a branch's wiki pointing at the code they cite. Import binds "
        "the host services of the sibling modules citation_ranges, lock, repo_facts, types and "
        "verify.";
    tolbarrow::workers::wiki::pybridge::define(m);
    return m.ptr();
  } catch (pybind11::error_already_set& error) {
    error.restore();
    return nullptr;
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_ImportError, error.what());
    return nullptr;
  }
}

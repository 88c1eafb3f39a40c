// The Python module tolbarrow.workers.wiki.citation_refresh: binds the host's services from the
// sibling modules of its package, and presents the core's operations, records and constants under
// their Python names.
#include "bridge.h"
#include "definitions_py.h"

namespace tolbarrow::workers::wiki::pybridge {
namespace {

// The names the extension binds at import, module by module and name by name, in this order.
struct BoundName {
  const char* module;
  const char* name;
  py::object Services::*slot;
};
constexpr BoundName kBound[] = {
    {"citation_ranges", "LineCounts", &Services::LineCounts},
    {"citation_ranges", "fit_range", &Services::fit_range},
    {"lock", "WriteLockMixin", &Services::WriteLockMixin},
    {"repo_facts", "_atomic_write", &Services::atomic_write},
    {"repo_facts", "_text_hash", &Services::text_hash},
    {"types", "_CITATION_RE", &Services::CITATION_RE},
    {"types", "CitationKey", &Services::CitationKey},
    {"types", "_WikiBusy", &Services::WikiBusy},
    {"types", "citation_key", &Services::citation_key},
    {"verify", "_SKIP_IDENT_EXTS", &Services::SKIP_IDENT_EXTS},
    {"verify", "_UNANCHORED_KINDS", &Services::UNANCHORED_KINDS},
    {"verify", "anchor_symbol", &Services::anchor_symbol},
    {"verify", "anchored", &Services::anchored},
    {"verify", "prose_citations", &Services::prose_citations},
    {"verify", "rewrite_citations", &Services::rewrite_citations},
};

// Binds kBound from the modules of `package`. A missing module or name fails the import with
// Python's own error, which names it.
void bind(Services& services, const std::string& package) {
  py::module_ module;
  std::string bound_module;
  for (const BoundName& bound : kBound) {
    if (bound_module != bound.module) {
      bound_module = bound.module;
      module = py::module_::import((package + "." + bound_module).c_str());
    }
    services.*bound.slot = module.attr(bound.name);
  }
}

// The modules that kBound names, as "a, b and c".
std::string bound_modules() {
  std::vector<std::string> modules;
  for (const BoundName& bound : kBound) {
    if (modules.empty() || modules.back() != bound.module) modules.emplace_back(bound.module);
  }
  std::string out;
  for (std::size_t i = 0; i < modules.size(); ++i) {
    out += (i == 0 ? "" : i + 1 == modules.size() ? " and " : ", ") + modules[i];
  }
  return out;
}

// The _Files class: the core's per-refresh cache of cited files over a Python repository.
struct PyFiles {
  PyFiles(const BridgePtr& bridge, py::object repository_object, py::object repo_root_object)
      : repository(std::move(repository_object)),
        repo_root(std::move(repo_root_object)),
        root(to_path(repo_root, "repo_root")),
        host(bridge, {}, {}, repo_root, root),
        adapter(host, repository) {
    files = without_gil(
        [&] { return std::make_unique<cr::detail::Files>(host.host(), adapter, root); });
  }

  py::object repository, repo_root;
  fs::path root;
  PyHost host;
  PyRepository adapter;
  std::unique_ptr<cr::detail::Files> files;
};

py::object result_object(const Bridge& bridge, const cr::CitationRefresh& result) {
  py::dict moved;
  for (const auto& [page, count] : result.moved) moved[to_str(page)] = count;
  return call(bridge.CitationRefresh,
              {py::int_(result.repaired), py::int_(result.unrepairable),
               py::int_(result.pages_written), from_records(result.lost), moved});
}

py::object page_object(const PyHost& host, const cr::detail::PageRefresh& page) {
  py::list lost;
  for (const auto& [key, name] : page.lost) {
    lost.append(py::make_tuple(host.key_object(key), to_str(name)));
  }
  return call(host.bridge().PageRefresh,
              {host.moves_object(page.moves), host.anchors_object(page.anchors), lost});
}

// Sets in the caller's digest, in place, each member of its citation dicts that moving changed
// (`before` and `after` are the digest as a record before and after the move).
void write_back(py::handle digest, const Record& before, const Record& after) {
  if (!PyDict_Check(digest.ptr()) || !after.is_object()) return;
  auto moved = after.find("citations");
  if (moved == after.end() || !moved->is_array()) return;
  const Record& old = before.at("citations");
  PyObject* citations = PyDict_GetItemWithError(digest.ptr(), py::str("citations").ptr());
  if (citations == nullptr) {
    if (PyErr_Occurred()) throw py::error_already_set();
    return;
  }
  const py::tuple items = py::reinterpret_steal<py::tuple>(PySequence_Tuple(citations));
  if (!items) throw py::error_already_set();
  for (std::size_t i = 0; i < items.size() && i < moved->size(); ++i) {
    if (!PyDict_Check(items[i].ptr()) || !(*moved)[i].is_object()) continue;
    for (auto it = (*moved)[i].begin(); it != (*moved)[i].end(); ++it) {
      auto was = old[i].find(it.key());
      if (was != old[i].end() && was->type() == it->type() && *was == *it) continue;
      if (PyDict_SetItem(items[i].ptr(), to_str(it.key()).ptr(), from_record(*it).ptr()) != 0) {
        throw py::error_already_set();
      }
    }
  }
}

// ---- Errors -----------------------------------------------------------------------------------

void set_decode_error(const InvalidUtf8& error) {
  const std::string& bytes = error.bytes();
  const auto at = static_cast<Py_ssize_t>(error.offset());
  PyObject* decode = PyUnicodeDecodeError_Create(
      "utf-8", bytes.data(), static_cast<Py_ssize_t>(bytes.size()), at, at + 1, error.what());
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
                              : py::handle(PyExc_OSError)(error.code().value(), message, filename,
                                                          py::none(), path_str(error.path2()));
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
  }
}

// ---- The module -------------------------------------------------------------------------------

void define(py::module_ m) {
  const std::string name = m.attr("__name__").cast<std::string>();
  const auto dot = name.rfind('.');
  const std::string package =
      dot == std::string::npos ? std::string("tolbarrow.workers.wiki") : name.substr(0, dot);
  m.doc() =
      "Keeps the code citations of a branch's wiki pointing at the code they cite. Import "
      "binds the host services of the sibling modules " +
      bound_modules() + ".";

  const auto bridge = std::make_shared<Bridge>();
  Bridge& b = *bridge;
  bind(b.services, package);
  // The host's constants, read once as the core keeps them.
  for (py::handle ext : py::iter(b.services.SKIP_IDENT_EXTS)) {
    b.file_name_endings.push_back(to_utf8(ext, "verify._SKIP_IDENT_EXTS item"));
  }
  b.Enum = py::module_::import("enum").attr("Enum");
  b.Path = py::module_::import("pathlib").attr("Path");
  b.partial = py::module_::import("functools").attr("partial");
  for (py::handle kind : py::iter(b.services.UNANCHORED_KINDS)) {
    b.unanchored_kinds.insert(kind_text(b, kind));
  }

  const py::object logger =
      py::module_::import("logging").attr("getLogger")(std::string(cr::MODULE_NAME));
  b.logger = python_logger(logger);
  m.attr("logger") = logger;
  m.attr("_CLAIM_WINDOW") = cr::detail::CLAIM_WINDOW;
  m.attr("_CLAIM_IDENT_RE") =
      py::module_::import("re").attr("compile")(std::string(cr::detail::CLAIM_IDENT_PATTERN));

  const py::module_ builtins = py::module_::import("builtins");
  py::dict definitions;
  definitions["__name__"] = name;
  definitions["__builtins__"] = builtins;
  definitions["WriteLockMixin"] = b.services.WriteLockMixin;
  builtins.attr("exec")(builtins.attr("compile")(kDefinitionsPy, "<" + name + ">", "exec"),
                        definitions);
  b.CitationRefresh = definitions["CitationRefresh"];
  b.PageRefresh = definitions["_PageRefresh"];
  b.WikiDirLock = definitions["_WikiDirLock"];
  m.attr("CitationRefresh") = b.CitationRefresh;
  m.attr("_PageRefresh") = b.PageRefresh;
  m.attr("_WikiDirLock") = b.WikiDirLock;

  m.def(
      "refresh_citations_if_free",
      [bridge](py::object repository, const std::string& branch, py::object wiki_dir,
               py::object repo_root) {
        const fs::path wiki = to_path(wiki_dir, "wiki_dir"), root = to_path(repo_root, "repo_root");
        PyHost host(bridge, wiki_dir, wiki, repo_root, root);
        PyRepository adapter(host, repository);
        const auto result = without_gil([&] {
          return cr::refresh_citations_if_free(host.host(), adapter, branch, wiki, root);
        });
        return result_object(*bridge, result);
      },
      py::arg("repository"), py::arg("branch"), py::arg("wiki_dir"), py::arg("repo_root"),
      "Refreshes under the wiki directory's write lock; while another writer holds it, logs one "
      "line and only reports.");

  m.def(
      "refresh_citations",
      [bridge](py::object repository, const std::string& branch, py::object wiki_dir,
               py::object repo_root, bool write) {
        const fs::path wiki = to_path(wiki_dir, "wiki_dir"), root = to_path(repo_root, "repo_root");
        PyHost host(bridge, wiki_dir, wiki, repo_root, root);
        PyRepository adapter(host, repository);
        const auto result = without_gil([&] {
          return cr::refresh_citations(host.host(), adapter, branch, wiki, root, {.write = write});
        });
        return result_object(*bridge, result);
      },
      py::arg("repository"), py::arg("branch"), py::arg("wiki_dir"), py::arg("repo_root"),
      py::kw_only(), py::arg("write") = true,
      "Refreshes every citation of the branch's wiki; with write=False it only reports. The caller "
      "holds the wiki's write lock when it writes.");

  m.def(
      "claim_identifiers",
      [bridge](py::object text, py::object position) {
        const auto page = bridge->texts.text(text);
        const Line at = to_line(position, "position");
        if (at < 0) {
          raise(PyExc_IndexError, "claim_identifiers: position " + std::to_string(at) +
                                      " is before the start of the text");
        }
        PyHost host(bridge);
        const auto names = without_gil([&] {
          return cr::claim_identifiers(host.host(), *page, static_cast<std::size_t>(at));
        });
        py::list out(names.size());
        for (std::size_t i = 0; i < names.size(); ++i) {
          PyList_SET_ITEM(out.ptr(), static_cast<Py_ssize_t>(i), to_str(names[i]).release().ptr());
        }
        return out;
      },
      py::arg("text"), py::arg("position"),
      "The identifiers that the claim before the citation at `position` names, nearest last.");

  m.def(
      "relocated_range",
      [](py::object citation, py::object symbol) {
        const Record record = to_record(citation, "citation record");
        // Only the declaration's lines take part; its other fields are not read.
        Symbol declaration;
        declaration.start_line = to_line(symbol.attr("start_line"), "Symbol.start_line");
        declaration.end_line = to_line(symbol.attr("end_line"), "Symbol.end_line");
        return range_object(without_gil([&] { return cr::relocated_range(record, declaration); }));
      },
      py::arg("citation"), py::arg("symbol"),
      "Where an anchored citation's lines are now, given its declaration now: (first, last).");

  m.def(
      "_find_again",
      [bridge](py::object symbols, py::object citation) -> py::object {
        const py::tuple items = symbol_sequence(symbols).second;
        const std::vector<Symbol> candidates = to_symbols(*bridge, items);
        const Record record = to_record(citation, "citation record");
        const Symbol* found =
            without_gil([&] { return cr::detail::find_again(candidates, record); });
        if (found == nullptr) return py::none();
        return items[static_cast<std::size_t>(found - candidates.data())];
      },
      py::arg("symbols"), py::arg("citation"),
      "The declaration among `symbols` that an anchored citation record cites now, or None.");

  m.def(
      "_legacy_anchor",
      [bridge](py::object symbols, py::object start, py::object end, py::object names) {
        PyHost host(bridge);
        const std::vector<Symbol> candidates = host.symbols_of(symbols);
        const Line first = to_line(start, "start"), last = to_line(end, "end");
        std::vector<std::string> claimed;
        for (py::handle identifier : py::iter(names)) {
          claimed.push_back(to_utf8(identifier, "names item"));
        }
        const auto [found, lines] = without_gil([&] {
          const std::vector<std::string_view> views(claimed.begin(), claimed.end());
          return cr::detail::legacy_anchor(host.host(), candidates, first, last, views);
        });
        return py::make_tuple(found != nullptr ? host.symbol_object(found) : py::none(),
                              range_object(lines));
      },
      py::arg("symbols"), py::arg("start"), py::arg("end"), py::arg("names"),
      "The declaration a legacy citation is anchored to (or None) and the range it takes.");

  py::class_<PyFiles>(m, "_Files",
                      "The cited files of one refresh: each path's symbols asked once.")
      .def(py::init([bridge](py::object repository, py::object repo_root) {
             return std::make_unique<PyFiles>(bridge, std::move(repository), std::move(repo_root));
           }),
           py::arg("repository"), py::arg("repo_root"))
      .def(
          "symbols",
          [](PyFiles& self, const std::string& path) {
            const auto symbols = without_gil([&] { return self.files->symbols(path); });
            return self.host.symbols_object(symbols);
          },
          py::arg("path"),
          "The index's symbols of `path`, asked on first use; the same list after.")
      .def(
          "indexed",
          [](PyFiles& self, const std::string& path) {
            return without_gil([&] { return self.files->indexed(path); });
          },
          py::arg("path"), "Whether the index knows `path`; asked anew on every call.")
      .def(
          "line_count",
          [](PyFiles& self, const std::string& path) {
            return self.host.count_object(
                without_gil([&] { return self.files->count_lines(path); }));
          },
          py::arg("path"), "The file's line count: the host's LineCounts, asked on every call.")
      .def_readonly("repository", &PyFiles::repository)
      .def_readonly("repo_root", &PyFiles::repo_root);

  m.def(
      "_refresh_page",
      [bridge](py::object text, py::object citations, PyFiles& files) {
        const auto page = bridge->texts.text(text);
        const std::vector<Record> stored = to_records(citations, "citation record");
        const auto result = without_gil([&] {
          return cr::detail::refresh_page(files.host.host(), *page, stored, *files.files);
        });
        return page_object(files.host, result);
      },
      py::arg("text"), py::arg("citations"), py::arg("files"),
      "One page's moves, new anchored records and lost citations, as a _PageRefresh.");

  m.def(
      "_apply",
      [](py::object citations, py::object page) {
        const std::vector<Record> stored = to_records(citations, "citation record");
        const cr::detail::PageRefresh refresh(
            {}, to_anchors(page.attr("anchors"), "_PageRefresh.anchors"), {});
        return from_records(without_gil([&] { return cr::detail::apply(stored, refresh); }));
      },
      py::arg("citations"), py::arg("page"),
      "The page's new citation records: each stored record replaced by its anchored record.");

  m.def(
      "_read_digests",
      [](py::object path) {
        const fs::path file = to_path(path, "path");
        return from_record(without_gil([&] {
          RealFileSystem file_system;
          return cr::detail::read_digests(file_system, file);
        }));
      },
      py::arg("path"), "The digest map in the file at `path`; an empty dict when it has none.");

  m.def(
      "_move_digest_citations",
      [](py::object digest, py::object moves) {
        // The caller's digest changes in place: its citation dicts stay the same objects. Only
        // a dict's citations are read; any other digest is passed over.
        if (!PyDict_Check(digest.ptr())) return;
        PyObject* citations = PyDict_GetItemWithError(digest.ptr(), py::str("citations").ptr());
        if (citations == nullptr) {
          if (PyErr_Occurred()) throw py::error_already_set();
          return;
        }
        // A list is converted element by element, so that an element that cannot be converted
        // fails where the move reaches it: the elements before it are moved first.
        Record before = Record::object();
        std::optional<py::error_already_set> unconverted;
        if (PyList_Check(citations) || PyTuple_Check(citations)) {
          const auto items = py::reinterpret_steal<py::tuple>(PySequence_Tuple(citations));
          if (!items) throw py::error_already_set();
          Record& list = before["citations"] = Record::array();
          for (py::handle item : items) {
            try {
              list.push_back(to_record(item, "digest citation"));
            } catch (py::error_already_set& error) {
              unconverted.emplace(std::move(error));
              break;
            }
          }
        } else {
          before["citations"] = to_record(citations, "digest citations");
        }
        const Moves by_key = to_moves(moves, "moves");
        Record after = before;
        try {
          without_gil([&] { cr::detail::move_digest_citations(&after, by_key); });
        } catch (...) {
          // The elements moved before the one that failed stay moved.
          write_back(digest, before, after);
          throw;
        }
        write_back(digest, before, after);
        if (unconverted) throw std::move(*unconverted);
      },
      py::arg("digest"), py::arg("moves"),
      "Moves the citation ranges of one page's digest in place by `moves`.");

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

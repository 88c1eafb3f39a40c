// The host's Python services as the core's host interfaces: each call takes the GIL, converts its
// arguments, calls the bound Python object and converts the result back.
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <mutex>

#include "bridge.h"

namespace tolbarrow::workers::wiki::pybridge {
namespace {

// One match that `prose_citations` yielded: the host's match object, and its start() read once.
class PyMatch : public CitationMatch {
 public:
  PyMatch(py::handle match, std::size_t start) : match_(match), start_(start) {}
  std::size_t start() const override { return start_; }
  py::object object() const { return match_.object(); }

 private:
  PyRef match_;
  std::size_t start_;
};

std::size_t to_offset(py::handle value, const char* what) {
  const Line offset = to_line(value, what);
  if (offset < 0) raise(PyExc_ValueError, std::string(what) + ": negative offset " + std::to_string(offset));
  return static_cast<std::size_t>(offset);
}

// The host's `_CITATION_RE`: finditer(text, start, end) over the page's str, reading each
// match's end() only.
class PyPattern : public CitationPattern {
 public:
  explicit PyPattern(HostPtr host) : host_(std::move(host)) {}

  std::vector<PatternMatch> finditer(const Text& text, std::size_t start,
                                     std::size_t end) const override {
    return host_call(*host_, [&] {
      std::vector<PatternMatch> out;
      const py::object matches = host_->CITATION_RE.attr("finditer")(text_object(text), start, end);
      for (py::handle match : py::iter(matches)) {
        out.push_back({to_offset(match.attr("end")(), "_CITATION_RE match end()")});
      }
      return out;
    });
  }

 private:
  HostPtr host_;
};

// An instance of the module's `_WikiDirLock`, whose lock methods are the host mixin's.
class PyLock : public lock::WriteLockMixin {
 public:
  PyLock(HostPtr host, py::handle lock) : host_(std::move(host)), lock_(lock) {}
  void acquire_write_lock() override {
    host_call(*host_, [&] { lock_.object().attr("_acquire_write_lock")(); });
  }
  void release_write_lock() override {
    host_call(*host_, [&] { lock_.object().attr("_release_write_lock")(); });
  }

 private:
  HostPtr host_;
  PyRef lock_;
};

// A page row dict, whose keys are read when the core asks for them.
class PyPageRow : public PageRow {
 public:
  PyPageRow(HostPtr host, py::handle row) : host_(std::move(host)), row_(row) {}

  std::optional<std::string> rel_path() const override {
    return host_call(*host_, [&]() -> std::optional<std::string> {
      const py::object value = member("rel_path");
      if (!value || !PyObject_IsTrue(value.ptr())) return std::nullopt;
      return to_path(value, "page row rel_path").native();
    });
  }

  std::string page_id() const override {
    return host_call(*host_, [&] {
      const py::object value = member("page_id");
      if (!value) throw MissingKey("page_id");
      if (PyUnicode_Check(value.ptr())) return to_utf8(value, "page row page_id");
      return cr::to_path(to_record(value, "page row page_id"));
    });
  }

  std::vector<Record> citations() const override {
    return host_call(*host_, [&]() -> std::vector<Record> {
      const py::object value = member("citations");
      if (!value || !PyObject_IsTrue(value.ptr())) return {};
      if (!PyList_Check(value.ptr()) && !PyTuple_Check(value.ptr())) {
        raise(PyExc_TypeError, "page row citations: expected a list, got " + type_name(value));
      }
      return to_records(value, "citation record");
    });
  }

  Record build_cache() const override {
    return host_call(*host_, [&]() -> Record {
      const py::object value = member("build_cache");
      if (!value || !PyObject_IsTrue(value.ptr())) return Record::object();
      if (!PyDict_Check(value.ptr())) {
        raise(PyExc_TypeError, "page row build_cache: expected a dict, got " + type_name(value));
      }
      return to_record(value, "page row build_cache");
    });
  }

  HostValue content_hash() const override {
    return host_call(*host_, [&]() -> HostValue {
      const py::object value = member("content_hash");
      if (!value) return HostValue();
      return PyValue{make_ref(value)};
    });
  }

 private:
  // The row's value under `key`, or a null object when the row has no such key.
  py::object member(const char* key) const {
    PyObject* row = row_.handle().ptr();
    if (PyDict_Check(row)) {
      PyObject* value = PyDict_GetItemWithError(row, py::str(key).ptr());
      if (value == nullptr && PyErr_Occurred()) throw py::error_already_set();
      return py::reinterpret_borrow<py::object>(value);
    }
    PyObject* value = PyObject_GetItem(row, py::str(key).ptr());
    if (value == nullptr) {
      if (!PyErr_ExceptionMatches(PyExc_KeyError)) throw py::error_already_set();
      PyErr_Clear();
    }
    return py::reinterpret_steal<py::object>(value);
  }

  HostPtr host_;
  PyRef row_;
};

// The store's `rewrite` operation: the core's rewrite of this page's citations as a Python
// callable (str -> str).
py::object rewrite_function(std::function<std::string(const std::string&)> rewrite) {
  return py::cpp_function(
      [rewrite = std::move(rewrite)](const std::string& text) {
        std::string out;
        {
          py::gil_scoped_release nogil;
          out = rewrite(text);
        }
        return to_str(out);
      },
      py::name("rewrite"), py::arg("text"));
}

// Python logging levels of spdlog's levels; -1 for none.
int python_level(spdlog::level::level_enum level) {
  switch (level) {
    case spdlog::level::trace:
      return 5;
    case spdlog::level::debug:
      return 10;
    case spdlog::level::info:
      return 20;
    case spdlog::level::warn:
      return 30;
    case spdlog::level::err:
      return 40;
    case spdlog::level::critical:
      return 50;
    default:
      return -1;
  }
}

// Hands each message to a Python logger, which applies its own level and handlers.
class PythonLogSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit PythonLogSink(py::handle logger) : logger_(make_ref(logger)) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    const int level = python_level(message.level);
    if (level < 0) return;
    py::gil_scoped_acquire gil;
    try {
      logger_->object().attr("log")(level, to_str(std::string_view(message.payload.data(),
                                                                    message.payload.size())));
    } catch (py::error_already_set& error) {
      error.discard_as_unraisable("tolbarrow.workers.wiki.citation_refresh logging");
    }
  }
  void flush_() override {}

 private:
  PyRefPtr logger_;
};

}  // namespace

HostPtr make_host() {
  return HostPtr(new Host(), [](Host* host) {
    py::gil_scoped_acquire gil;
    delete host;
  });
}

std::shared_ptr<spdlog::logger> python_logger(const std::string& name, py::handle logger) {
  auto out = std::make_shared<spdlog::logger>(name, std::make_shared<PythonLogSink>(logger));
  out->set_level(spdlog::level::trace);  // the Python logger decides what it keeps
  return out;
}

cr::HostModules host_modules(const HostPtr& host) {
  cr::HostModules m;
  m.citation_ranges = citation_ranges::Module{
      .LineCounts =
          [host](const fs::path& repo_root) {
            return host_call(*host, [&] {
              const PyRefPtr counts =
                  make_ref(host->LineCounts(CallPaths::repo_root(*host, repo_root)));
              return citation_ranges::LineCount([host, counts](const std::string& path) {
                return host_call(*host, [&]() -> HostValue {
                  return PyValue{make_ref(counts->object()(to_str(path)))};
                });
              });
            });
          },
      .fit_range = [host](Line first, Line last, const HostValue& count) {
        return host_call(*host, [&]() -> std::optional<LineRange> {
          const py::object fitted = host->fit_range(first, last, host_value(count));
          if (fitted.is_none()) return std::nullopt;
          return to_range(fitted, "citation_ranges.fit_range result");
        });
      },
  };
  m.lock = lock::Module{.WriteLockMixin = [host](lock::WriteLockState state) {
    return host_call(*host, [&]() -> std::unique_ptr<lock::WriteLockMixin> {
      const py::object lock = host->WikiDirLock(CallPaths::wiki_dir(*host, state.wiki_dir));
      return std::make_unique<PyLock>(host, lock);
    });
  }};
  m.repo_facts = repo_facts::Module{
      .atomic_write =
          [host](const fs::path& path, const std::string& content) {
            host_call(*host, [&] { host->atomic_write(host->Path(path_str(path)), to_str(content)); });
          },
      .text_hash = [host](const std::string& text) {
        return host_call(*host,
                         [&]() -> HostValue { return PyValue{make_ref(host->text_hash(to_str(text)))}; });
      },
  };
  m.types = types::Module{
      .CITATION_RE = std::make_shared<PyPattern>(host),
      .citation_key = [host](const CitationMatch& match) {
        return host_call(*host, [&] {
          const py::object key = host->citation_key(static_cast<const PyMatch&>(match).object());
          return to_key(key, "types.citation_key result", true);
        });
      },
  };

  // The constants are read once, here, as the core keeps them.
  std::vector<std::string> skip;
  for (py::handle ext : py::iter(host->SKIP_IDENT_EXTS)) skip.push_back(to_utf8(ext, "verify._SKIP_IDENT_EXTS item"));
  std::unordered_set<std::string> unanchored;
  for (py::handle kind : py::iter(host->UNANCHORED_KINDS)) unanchored.insert(kind_text(*host, kind));

  m.verify = verify::Module{
      .SKIP_IDENT_EXTS = std::move(skip),
      .UNANCHORED_KINDS = std::move(unanchored),
      .anchor_symbol = [host](const Symbols& symbols, Line first, Line last) {
        return host_call(*host, [&]() -> SymbolPtr {
          const py::object found = host->anchor_symbol(symbols_object(symbols), first, last);
          if (found.is_none()) return nullptr;
          for (const SymbolPtr& symbol : symbols) {
            if (symbol_object(*symbol).is(found)) return symbol;
          }
          return to_symbol(*host, found);  // not one of the list's: taken as it is
        });
      },
      .anchored = [host](Record record, const SymbolPtr& symbol) {
        return host_call(*host, [&] {
          const py::object out =
              host->anchored(from_record(record), symbol ? symbol_object(*symbol) : py::none());
          if (!PyDict_Check(out.ptr())) {
            raise(PyExc_TypeError, "verify.anchored: expected a dict, got " + type_name(out));
          }
          return to_record(out, "verify.anchored result");
        });
      },
      .prose_citations = [host](const Text& text) {
        return host_call(*host, [&] {
          std::vector<CitationMatchPtr> out;
          for (py::handle match : py::iter(host->prose_citations(text_object(text)))) {
            out.push_back(std::make_shared<PyMatch>(
                match, to_offset(match.attr("start")(), "verify.prose_citations match start()")));
          }
          return out;
        });
      },
      .rewrite_citations = [host](const Text& text, const Moves& moves) {
        return host_call(*host, [&] {
          const py::object out = host->rewrite_citations(text_object(text),
                                                         py::arg("moves") = moves_object(*host, moves));
          return to_utf8(out, "verify.rewrite_citations result");
        });
      },
  };
  return m;
}

// ---- Repository -------------------------------------------------------------------------------

PyRepository::PyRepository(HostPtr host, py::handle repository)
    : host_(std::move(host)), repository_(make_ref(repository)) {}

Symbols PyRepository::get_symbols_by_path(const std::string& path) {
  return host_call(*host_, [&] {
    const py::object symbols = repository_->object().attr("get_symbols_by_path")(to_str(path));
    PyRefPtr original;
    Symbols out = to_symbols(*host_, symbols, &original);
    symbol_lists_[path] = std::move(original);
    return out;
  });
}

std::optional<Record> PyRepository::get_file_by_path(const std::string& path) {
  return host_call(*host_, [&]() -> std::optional<Record> {
    // Only tested against None: the record itself is never read.
    if (repository_->object().attr("get_file_by_path")(to_str(path)).is_none()) return std::nullopt;
    return Record();
  });
}

std::vector<PageRowPtr> PyRepository::get_wiki_pages(const std::string& branch) {
  return host_call(*host_, [&] {
    std::vector<PageRowPtr> rows;
    for (py::handle row : py::iter(repository_->object().attr("get_wiki_pages")(to_str(branch)))) {
      rows.push_back(std::make_shared<PyPageRow>(host_, row));
    }
    return rows;
  });
}

void PyRepository::update_wiki_page_citations(const std::string& branch,
                                              const std::string& page_id, PageUpdate update) {
  host_call(*host_, [&] {
    py::list citations;
    for (const Record& record : update.citations) citations.append(from_record(record));
    const py::object build_cache =
        update.build_cache ? py::object(to_str(*update.build_cache)) : py::object(py::none());
    repository_->object().attr("update_wiki_page_citations")(
        to_str(branch), to_str(page_id), py::arg("citations") = citations,
        py::arg("content_hash") = host_value(update.content_hash),
        py::arg("build_cache") = build_cache,
        py::arg("rewrite") = rewrite_function(std::move(update.rewrite)),
        py::arg("moves") = moves_object(*host_, update.moves));
  });
}

py::object PyRepository::symbol_list(const std::string& path) const {
  auto it = symbol_lists_.find(path);
  return it == symbol_lists_.end() ? py::object(py::none()) : it->second->object();
}

}  // namespace tolbarrow::workers::wiki::pybridge

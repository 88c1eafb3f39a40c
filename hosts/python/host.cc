// The host's Python services as the core's host interfaces: each call takes the GIL, converts its
// arguments, calls the bound Python object and converts the result back.
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <limits>
#include <mutex>

#include "bridge.h"

namespace tolbarrow::workers::wiki::pybridge {
namespace {

py::object interned(const char* text) {
  PyObject* name = PyUnicode_InternFromString(text);
  if (name == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(name);
}

// One page row of the host's store (a dict or any mapping), read when the core asks for a field.
class PyPageRow final : public PageRow {
 public:
  PyPageRow(PyHost& host, PyObject* row) : host_(host), bridge_(host.bridge()), row_(row) {}

  std::optional<Record> field(std::string_view key) const override {
    return host_call(bridge_, [&]() -> std::optional<Record> {
      const py::object value = member(to_str(key));
      if (!value) return std::nullopt;
      if (key == "rel_path") {
        // The page file is the wiki directory joined with the row's rel_path: a false value
        // (None, "", 0) names no file and the row is skipped; a path object joins as its
        // os.fspath(); any other value cannot be joined and raises TypeError.
        const int truth = PyObject_IsTrue(value.ptr());
        if (truth < 0) throw py::error_already_set();
        if (truth == 0) return std::nullopt;
        if (!PyUnicode_Check(value.ptr()) && PyObject_HasAttrString(value.ptr(), "__fspath__")) {
          const auto path = py::reinterpret_steal<py::object>(PyOS_FSPath(value.ptr()));
          if (!path) throw py::error_already_set();
          return Record(to_utf8(path, "page row rel_path"));
        }
      }
      Record out = to_record(value, "page row " + std::string(key));
      // The page's citation records: the core keeps this very array (its vector is moved, not
      // copied), so the host's records can be found again from the core's.
      if (key == "citations" && out.is_array()) {
        const auto items = py::reinterpret_steal<py::tuple>(PySequence_Tuple(value.ptr()));
        if (!items) throw py::error_already_set();
        host_.records_from(out.get_ref<const Record::array_t&>(), items);
      }
      return out;
    });
  }

  // Only `members` of each dict record are converted: what the core never reads stays in Python
  // (and cannot fail). A value that is not a list or tuple, and a record that is not a dict, are
  // read whole, with the errors of a whole read.
  const std::vector<Record>& citation_members(
      std::vector<Record>& storage, std::span<const std::string_view> members) const override {
    return host_call(bridge_, [&]() -> const std::vector<Record>& {
      storage.clear();
      const py::object value = member(bridge_.names.citations);
      if (!value) return storage;
      if (!PyList_Check(value.ptr()) && !PyTuple_Check(value.ptr())) {
        Record row = Record::object();
        row["citations"] = to_record(value, "page row citations");
        storage = RecordPageRow(std::move(row)).citations();
        return storage;
      }
      const auto items = py::reinterpret_steal<py::tuple>(PySequence_Tuple(value.ptr()));
      if (!items) throw py::error_already_set();
      // Interned, as the keys of the host's dict literals are: a lookup finds them by identity.
      std::vector<py::object> names;
      names.reserve(members.size());
      for (std::string_view name : members) {
        PyObject* text = to_str(name).release().ptr();
        PyUnicode_InternInPlace(&text);
        names.push_back(py::reinterpret_steal<py::object>(text));
      }
      storage.reserve(items.size());
      for (py::handle item : items) {
        if (!PyDict_Check(item.ptr())) {
          storage.push_back(to_record(item, "page row citations"));
          continue;
        }
        Record record = Record::object();
        auto& kept = record.get_ref<Record::object_t&>();
        kept.reserve(members.size());
        for (std::size_t i = 0; i < members.size(); ++i) {
          PyObject* found = PyDict_GetItemWithError(item.ptr(), names[i].ptr());
          if (found == nullptr) {
            if (PyErr_Occurred()) throw py::error_already_set();
            continue;
          }
          kept.emplace_back(std::string(members[i]), to_record(found, "page row citations"));
        }
        storage.push_back(std::move(record));
      }
      // anchored() copies the host's own record, not the members read here.
      host_.records_from(storage, items);
      return storage;
    });
  }

  // The row's value under `key`, or a null object when the row has no such key. GIL held.
  py::object member(py::handle key) const {
    if (PyDict_Check(row_)) {
      PyObject* value = PyDict_GetItemWithError(row_, key.ptr());
      if (value == nullptr && PyErr_Occurred()) throw py::error_already_set();
      return py::reinterpret_borrow<py::object>(value);
    }
    PyObject* value = PyObject_GetItem(row_, key.ptr());
    if (value == nullptr) {
      if (!PyErr_ExceptionMatches(PyExc_KeyError)) throw py::error_already_set();
      PyErr_Clear();
    }
    return py::reinterpret_steal<py::object>(value);
  }

 private:
  PyHost& host_;
  const Bridge& bridge_;
  PyObject* row_;  // kept by the PyHost
};

// The host's LineCounts object for one refresh.
class PyLineCounts final : public LineCounts {
 public:
  PyLineCounts(PyHost& host, PyObject* counts) : host_(host), counts_(counts) {}

  Line count(const std::string& path) override {
    return host_call(host_.bridge(),
                     [&] { return host_.counted(call(counts_, {host_.path_object(path)})); });
  }

 private:
  PyHost& host_;
  PyObject* counts_;  // kept by the PyHost
};

// An instance of the module's _WikiDirLock, whose lock methods are the host mixin's.
class PyWriteLock final : public WriteLock {
 public:
  PyWriteLock(const Bridge& bridge, PyObject* lock) : bridge_(bridge), lock_(lock) {}
  void acquire() override {
    host_call(bridge_, [&] { call_method(lock_, bridge_.names.acquire_write_lock, {}); });
  }
  void release() override {
    host_call(bridge_, [&] { call_method(lock_, bridge_.names.release_write_lock, {}); });
  }

 private:
  const Bridge& bridge_;
  PyObject* lock_;  // kept by the PyHost
};

// The Python logging level of an spdlog level; -1 for none ("off").
int python_level(spdlog::level::level_enum level) {
  constexpr int kLevels[] = {5, 10, 20, 30, 40, 50};  // trace, debug, info, warn, err, critical
  const auto at = static_cast<std::size_t>(level);
  return at < std::size(kLevels) ? kLevels[at] : -1;
}

// Hands each message to a Python logger, which applies its own level and handlers. Dropped with
// the extension's Bridge, holding the GIL.
class PythonLogSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit PythonLogSink(py::handle logger) : logger_(py::reinterpret_borrow<py::object>(logger)) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    const int level = python_level(message.level);
    if (level < 0) return;
    py::gil_scoped_acquire gil;
    try {
      logger_.attr("log")(level,
                          to_str(std::string_view(message.payload.data(), message.payload.size())));
    } catch (py::error_already_set& error) {
      error.discard_as_unraisable("tolbarrow.workers.wiki.citation_refresh logging");
    }
  }
  void flush_() override {}

 private:
  py::object logger_;
};

}  // namespace

Names::Names()
    : start(interned("start")),
      end(interned("end")),
      finditer(interned("finditer")),
      value(interned("value")),
      fqn(interned("fqn")),
      name(interned("name")),
      kind(interned("kind")),
      start_line(interned("start_line")),
      end_line(interned("end_line")),
      content_hash(interned("content_hash")),
      page_id(interned("page_id")),
      citations(interned("citations")),
      line_start(interned("line_start")),
      line_end(interned("line_end")),
      get_symbols_by_path(interned("get_symbols_by_path")),
      get_file_by_path(interned("get_file_by_path")),
      get_wiki_pages(interned("get_wiki_pages")),
      update_wiki_page_citations(interned("update_wiki_page_citations")),
      acquire_write_lock(interned("_acquire_write_lock")),
      release_write_lock(interned("_release_write_lock")),
      moves_keyword(py::make_tuple(interned("moves"))),
      update_keywords(py::make_tuple(interned("citations"), content_hash, interned("build_cache"),
                                     interned("rewrite"), interned("moves"))) {}

std::shared_ptr<spdlog::logger> python_logger(py::handle logger) {
  auto out = std::make_shared<spdlog::logger>(std::string(cr::MODULE_NAME),
                                              std::make_shared<PythonLogSink>(logger));
  out->set_level(spdlog::level::trace);  // the Python logger decides what it keeps
  return out;
}

// ---- PyHost -----------------------------------------------------------------------------------

PyHost::PyHost(BridgePtr bridge, py::handle wiki_dir, fs::path wiki_path, py::handle repo_root,
               fs::path root_path)
    : bridge_(std::move(bridge)),
      host_{.syntax = *this,
            .anchoring = *this,
            .ranges = *this,
            .file_system = *this,
            .locks = *this,
            .logger = bridge_->logger,
            // A Python host holds the module to its calls: it sees each one the refresh's steps
            // make, in their order, and no other.
            .every_call = true},
      wiki_dir_(py::reinterpret_borrow<py::object>(wiki_dir)),
      repo_root_(py::reinterpret_borrow<py::object>(repo_root)),
      wiki_path_(std::move(wiki_path)),
      root_path_(std::move(root_path)) {}

void PyHost::find(const Text& text, const std::function<void(const Citation&)>& each) {
  Bridge& b = *bridge_;
  host_call(b, [&] {
    // Keys are a page's own.
    keys_.clear();
    key_at_.clear();
    keys_indexed_ = 0;
    const py::object matches = call(b.services.prose_citations, {b.texts.str(text)});
    const auto iterator = py::reinterpret_steal<py::object>(PyObject_GetIter(matches.ptr()));
    if (!iterator) throw py::error_already_set();
    while (PyObject* next = PyIter_Next(iterator.ptr())) {
      const auto match = py::reinterpret_steal<py::object>(next);
      Citation citation;
      citation.start =
          to_offset(call_method(match, b.names.start, {}), "verify.prose_citations match start()");
      // The key is asked just before the core examines the citation.
      py::object key = call(b.services.citation_key, {match});
      py::tuple parts;
      citation.key = to_key(key, "types.citation_key result", &parts);
      Py_ssize_t size = 0;
      const char* path = PyUnicode_AsUTF8AndSize(parts[0].ptr(), &size);  // kept by the str
      if (path == nullptr) throw py::error_already_set();
      keys_.push_back({{std::string_view(path, static_cast<std::size_t>(size)), citation.key.start,
                        citation.key.end},
                       std::move(key),
                       std::move(parts)});
      current_ = &keys_.back();
      // The core handles the citation holding the GIL: it is a few host calls with little in
      // between, and taking the GIL back for each of them would cost more than the work itself.
      // Other threads still run while the host's own Python code runs.
      try {
        each(citation);
      } catch (...) {
        current_ = nullptr;
        throw;
      }
      current_ = nullptr;
    }
    if (PyErr_Occurred()) throw py::error_already_set();
  });
}

std::optional<std::size_t> PyHost::last_end(const Text& text, std::size_t start, std::size_t end) {
  Bridge& b = *bridge_;
  return host_call(b, [&]() -> std::optional<std::size_t> {
    const py::object matches = call_method(b.services.CITATION_RE, b.names.finditer,
                                           {b.texts.str(text), py::int_(start), py::int_(end)});
    const auto iterator = py::reinterpret_steal<py::object>(PyObject_GetIter(matches.ptr()));
    if (!iterator) throw py::error_already_set();
    py::object last;
    while (PyObject* next = PyIter_Next(iterator.ptr())) {
      last = py::reinterpret_steal<py::object>(next);
    }
    if (PyErr_Occurred()) throw py::error_already_set();
    if (!last) return std::nullopt;
    return to_offset(call_method(last, b.names.end, {}), "types._CITATION_RE match end()");
  });
}

std::string PyHost::rewrite(const Text& text, const Moves& moves) {
  Bridge& b = *bridge_;
  return host_call(b, [&] {
    const py::object out = call(b.services.rewrite_citations,
                                {b.texts.str(text), moves_object(moves)}, b.names.moves_keyword);
    std::string utf8 = to_utf8(out, "verify.rewrite_citations result");
    b.texts.returned(out);  // the page file and its hash get this very str
    return utf8;
  });
}

const Symbol* PyHost::anchor_symbol(std::span<const Symbol> symbols, Line first, Line last) {
  return host_call(*bridge_, [&]() -> const Symbol* {
    const py::object found = call(bridge_->services.anchor_symbol,
                                  {symbols_object(symbols), py::int_(first), py::int_(last)});
    if (found.is_none()) return nullptr;
    for (const Symbol& symbol : symbols) {
      if (symbol_object(&symbol).is(found)) return &symbol;
    }
    raise(PyExc_ValueError, "verify.anchor_symbol returned a " + type_name(found) +
                                " that is not one of the symbols it was given");
  });
}

py::object PyHost::call_anchored(const Record& citation, LineRange lines, const Symbol* symbol) {
  // A new dict: a copy of the host's own record when the core's came from one, else built.
  PyObject* own = record_object(&citation);
  auto record = own != nullptr && PyDict_Check(own)
                    ? py::reinterpret_steal<py::object>(PyDict_Copy(own))
                    : from_record(citation);
  if (!record) throw py::error_already_set();
  if (PyDict_SetItem(record.ptr(), bridge_->names.line_start.ptr(), py::int_(lines.first).ptr()) !=
          0 ||
      PyDict_SetItem(record.ptr(), bridge_->names.line_end.ptr(), py::int_(lines.last).ptr()) !=
          0) {
    throw py::error_already_set();
  }
  return call(bridge_->services.anchored,
              {record, symbol != nullptr ? symbol_object(symbol) : py::none()});
}

Record PyHost::anchored(const Record& citation, LineRange lines, const Symbol* symbol) {
  return host_call(*bridge_, [&] {
    const py::object out = call_anchored(citation, lines, symbol);
    if (!PyDict_Check(out.ptr())) {
      raise(PyExc_TypeError, "verify.anchored: expected a dict, got " + type_name(out));
    }
    return to_record(out, "verify.anchored result");
  });
}

void PyHost::anchored_unused(const Record& citation, LineRange lines, const Symbol* symbol) {
  // The host's result is not read: whatever it is, nothing of it is kept.
  host_call(*bridge_, [&] { call_anchored(citation, lines, symbol); });
}

std::unique_ptr<LineCounts> PyHost::line_counts(const fs::path& repo_root) {
  return host_call(*bridge_, [&] {
    const py::object root = repo_root_ && repo_root == root_path_
                                ? repo_root_
                                : call(bridge_->Path, {path_str(repo_root)});
    return std::make_unique<PyLineCounts>(*this, keep(call(bridge_->services.LineCounts, {root})));
  });
}

std::optional<LineRange> PyHost::fit_range(Line first, Line last, Line line_count) {
  return host_call(*bridge_, [&]() -> std::optional<LineRange> {
    const py::object fitted = call(bridge_->services.fit_range,
                                   {py::int_(first), py::int_(last), count_object(line_count)});
    if (fitted.is_none()) return std::nullopt;
    return to_range(fitted, "citation_ranges.fit_range result");
  });
}

std::unique_ptr<WriteLock> PyHost::open(const fs::path& wiki_dir) {
  return host_call(*bridge_, [&] {
    const py::object dir =
        wiki_dir_ && wiki_dir == wiki_path_ ? wiki_dir_ : call(bridge_->Path, {path_str(wiki_dir)});
    return std::make_unique<PyWriteLock>(*bridge_, keep(call(bridge_->WikiDirLock, {dir})));
  });
}

void PyHost::atomic_write(const fs::path& path, std::string_view content) {
  host_call(*bridge_, [&] {
    call(bridge_->services.atomic_write,
         {call(bridge_->Path, {path_str(path)}), bridge_->texts.str(content)});
  });
}

std::vector<Symbol> PyHost::symbols_of(py::handle sequence) {
  auto [list, items] = symbol_sequence(sequence);
  std::vector<Symbol> out = to_symbols(*bridge_, items);
  symbol_lists_.insert_or_assign(out.data(),
                                 SymbolList{out.size(), std::move(list), std::move(items)});
  return out;  // moving the vector keeps its elements where they are
}

py::object PyHost::symbol_object(const Symbol* symbol) const {
  auto it = symbol_lists_.upper_bound(symbol);
  if (it != symbol_lists_.begin()) {
    --it;
    if (std::less<>()(symbol, it->first + it->second.size)) {
      return it->second.items[static_cast<std::size_t>(symbol - it->first)];
    }
  }
  throw std::logic_error("pybridge: a declaration of no list the host gave");
}

py::object PyHost::symbols_object(std::span<const Symbol> symbols) const {
  auto it = symbol_lists_.find(symbols.data());
  if (it != symbol_lists_.end() && it->second.size == symbols.size()) return it->second.sequence;
  py::list out(symbols.size());
  for (std::size_t i = 0; i < symbols.size(); ++i) {
    PyList_SET_ITEM(out.ptr(), static_cast<Py_ssize_t>(i),
                    symbol_object(&symbols[i]).release().ptr());
  }
  return out;
}

py::object PyHost::key_object(const CitationKey& key) const {
  for (; keys_indexed_ < keys_.size(); ++keys_indexed_) {
    key_at_.try_emplace(keys_[keys_indexed_].key, keys_indexed_);  // the first of equal keys
  }
  auto it = key_at_.find(cr::detail::key_view(key));
  if (it != key_at_.end()) return keys_[it->second].object;
  return call(bridge_->services.CitationKey,
              {to_str(key.path), py::int_(key.start), py::int_(key.end)});
}

py::object PyHost::path_object(const std::string& path) const {
  if (current_ != nullptr && current_->key.path == path) return current_->parts[0];
  return to_str(path);
}

py::dict PyHost::moves_object(const Moves& moves) const {
  py::dict out;
  for (const auto& [key, range] : moves) {
    if (PyDict_SetItem(out.ptr(), key_object(key).ptr(), range_object(range).ptr()) != 0) {
      throw py::error_already_set();
    }
  }
  return out;
}

py::dict PyHost::anchors_object(const KeyedMap<Record>& anchors) const {
  py::dict out;
  for (const auto& [key, record] : anchors) {
    if (PyDict_SetItem(out.ptr(), key_object(key).ptr(), from_record(record).ptr()) != 0) {
      throw py::error_already_set();
    }
  }
  return out;
}

py::object PyHost::count_object(Line count) const {
  if (last_count_object_ && last_count_ == count) return last_count_object_;
  return py::int_(count);
}

Line PyHost::counted(py::object count) {
  // A count that is no int (what a host gives for a missing file, say) is the host's own business:
  // it stands as the least line, and fit_range gets the object itself back.
  last_count_ = PyLong_Check(count.ptr()) ? to_line(count, "citation_ranges.LineCounts result")
                                          : std::numeric_limits<Line>::min();
  last_count_object_ = std::move(count);
  return last_count_;
}

void PyHost::records_from(const std::vector<Record>& records, py::tuple items) {
  if (records.empty()) return;
  const Record* first = records.data();
  const Record* last = first + records.size();
  // Entries for memory these records now take belong to records that are gone.
  auto it = record_lists_.lower_bound(first);
  if (it != record_lists_.begin()) {
    auto before = std::prev(it);
    if (std::less<>()(first, before->first + before->second.size())) it = before;
  }
  while (it != record_lists_.end() && std::less<>()(it->first, last)) it = record_lists_.erase(it);
  record_lists_.emplace(first, std::move(items));
}

PyObject* PyHost::record_object(const Record* record) const {
  auto it = record_lists_.upper_bound(record);
  if (it == record_lists_.begin()) return nullptr;
  --it;
  if (!std::less<>()(record, it->first + it->second.size())) return nullptr;
  return PyTuple_GET_ITEM(it->second.ptr(), record - it->first);
}

PyObject* PyHost::keep(py::object object) {
  kept_.push_back(std::move(object));
  return kept_.back().ptr();
}

// ---- PyRepository -----------------------------------------------------------------------------

PyRepository::PyRepository(PyHost& host, py::handle repository)
    : host_(host), repository_(py::reinterpret_borrow<py::object>(repository)) {}

std::vector<Symbol> PyRepository::get_symbols_by_path(const std::string& path) {
  const Bridge& b = host_.bridge();
  return host_call(b, [&] {
    return host_.symbols_of(
        call_method(repository_, b.names.get_symbols_by_path, {host_.path_object(path)}));
  });
}

bool PyRepository::is_indexed(const std::string& path) {
  const Bridge& b = host_.bridge();
  return host_call(b, [&] {
    // Only tested against None: the file's record itself is never read.
    return !call_method(repository_, b.names.get_file_by_path, {host_.path_object(path)}).is_none();
  });
}

std::vector<std::unique_ptr<const PageRow>> PyRepository::get_wiki_pages(
    const std::string& branch) {
  const Bridge& b = host_.bridge();
  return host_call(b, [&] {
    const py::object pages = call_method(repository_, b.names.get_wiki_pages, {to_str(branch)});
    const auto rows = py::reinterpret_steal<py::object>(PySequence_List(pages.ptr()));
    if (!rows) throw py::error_already_set();
    host_.keep(rows);
    std::vector<std::unique_ptr<const PageRow>> out;
    out.reserve(static_cast<std::size_t>(PyList_GET_SIZE(rows.ptr())));
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(rows.ptr()); ++i) {
      out.push_back(std::make_unique<PyPageRow>(host_, PyList_GET_ITEM(rows.ptr(), i)));
    }
    return out;
  });
}

void PyRepository::update_wiki_page_citations(const std::string& branch, const PageRow& row,
                                              PageUpdate update) {
  const Bridge& b = host_.bridge();
  const std::string page_id = row.page_id();
  host_call(b, [&] {
    py::object content_hash = py::none();
    if (update.content_hash) {
      content_hash =
          hash_ && *update.content_hash == hash_text_ ? hash_ : to_str(*update.content_hash);
    } else if (const auto* own = dynamic_cast<const PyPageRow*>(&row)) {
      // The text did not change: the row's own hash goes back as it is.
      if (py::object held = own->member(b.names.content_hash)) content_hash = std::move(held);
    }
    const py::object build_cache =
        update.build_cache ? py::object(to_str(cr::detail::dump_one_line(*update.build_cache)))
                           : py::object(py::none());
    const py::dict moves = host_.moves_object(update.moves);
    // The store rewrites its other texts of the page in Python, with the host's own syntax.
    const py::object rewrite =
        call(b.partial, {b.services.rewrite_citations, moves}, b.names.moves_keyword);
    // The row's own page_id object: the store finds the page by it, whatever its type.
    py::object page = to_str(page_id);
    if (const auto* own = dynamic_cast<const PyPageRow*>(&row)) {
      if (py::object held = own->member(b.names.page_id)) page = std::move(held);
    }
    call_method(repository_, b.names.update_wiki_page_citations,
                {to_str(branch), page, from_records(update.citations), content_hash, build_cache,
                 rewrite, moves},
                b.names.update_keywords);
  });
}

std::string PyRepository::text_hash(const std::string& text) {
  const Bridge& b = host_.bridge();
  return host_call(b, [&] {
    py::object hash = call(b.services.text_hash, {host_.bridge().texts.str(text)});
    // A hash that is no str goes to the store as the very object; its text here only has to tell
    // it from other hashes of this refresh.
    hash_text_ = PyUnicode_Check(hash.ptr()) ? to_utf8(hash, "repo_facts._text_hash result")
                                             : py::repr(hash).cast<std::string>();
    hash_ = std::move(hash);
    return hash_text_;
  });
}

}  // namespace tolbarrow::workers::wiki::pybridge

// Conversions between Python values and the core's records, keys, ranges, symbols, texts and
// paths. Every function here runs with the GIL held.
#include <limits>

#include "bridge.h"

namespace tolbarrow::workers::wiki::pybridge {
namespace {

// Leaves Python's recursion guard on scope exit (records may nest, or refer to themselves).
struct RecursionGuard {
  explicit RecursionGuard(const char* where) {
    if (Py_EnterRecursiveCall(where) != 0) throw py::error_already_set();
  }
  ~RecursionGuard() { Py_LeaveRecursiveCall(); }
};

// The items of `object` as a tuple: the object itself when it is one, else tuple(object). A
// TypeError (not iterable) is reported as not being `expected`.
py::tuple as_tuple(py::handle object, std::string_view what, std::string_view expected) {
  if (PyTuple_Check(object.ptr())) return py::reinterpret_borrow<py::tuple>(object);
  PyObject* items = PySequence_Tuple(object.ptr());
  if (items == nullptr) {
    if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw py::error_already_set();
    PyErr_Clear();
    raise(PyExc_TypeError, std::string(what) + ": expected " + std::string(expected) + ", got " +
                               type_name(object));
  }
  return py::reinterpret_steal<py::tuple>(items);
}

// The (key, value) pairs of a mapping, in its order.
py::iterator mapping_items(py::handle mapping, std::string_view what) {
  if (!PyDict_Check(mapping.ptr()) && !PyObject_HasAttrString(mapping.ptr(), "items")) {
    raise(PyExc_TypeError, std::string(what) + ": expected a dict, got " + type_name(mapping));
  }
  return py::iter(mapping.attr("items")());
}

const SymbolHost& symbol_host(const Symbol& symbol) {
  return *static_cast<const SymbolHost*>(symbol.host.get());
}

}  // namespace

void raise(PyObject* type, const std::string& message) {
  PyErr_SetString(type, message.c_str());
  throw py::error_already_set();
}

std::string type_name(py::handle object) { return Py_TYPE(object.ptr())->tp_name; }

std::string to_utf8(py::handle text, std::string_view what) {
  if (!PyUnicode_Check(text.ptr())) {
    raise(PyExc_TypeError, std::string(what) + ": expected str, got " + type_name(text));
  }
  Py_ssize_t size = 0;
  const char* data = PyUnicode_AsUTF8AndSize(text.ptr(), &size);
  if (data == nullptr) throw py::error_already_set();  // lone surrogates
  return std::string(data, static_cast<std::size_t>(size));
}

py::str to_str(std::string_view utf8) {
  PyObject* text = PyUnicode_DecodeUTF8(utf8.data(), static_cast<Py_ssize_t>(utf8.size()), "strict");
  if (text == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(text);
}

Line to_line(py::handle value, std::string_view what) {
  if (!PyLong_Check(value.ptr())) {
    raise(PyExc_TypeError, std::string(what) + ": expected int, got " + type_name(value));
  }
  int overflow = 0;
  const long long line = PyLong_AsLongLongAndOverflow(value.ptr(), &overflow);
  if (overflow != 0) raise(PyExc_OverflowError, std::string(what) + ": integer out of range");
  if (line == -1 && PyErr_Occurred()) throw py::error_already_set();
  return line;
}

// ---- Records ------------------------------------------------------------------------------------

Record to_record(py::handle value, std::string_view what) {
  PyObject* v = value.ptr();
  if (v == Py_None) return nullptr;
  if (PyBool_Check(v)) return v == Py_True;
  if (PyLong_Check(v)) {
    int overflow = 0;
    const long long i = PyLong_AsLongLongAndOverflow(v, &overflow);
    if (overflow == 0) {
      if (i == -1 && PyErr_Occurred()) throw py::error_already_set();
      return static_cast<std::int64_t>(i);
    }
    if (overflow > 0) {
      const unsigned long long u = PyLong_AsUnsignedLongLong(v);
      if (!(u == static_cast<unsigned long long>(-1) && PyErr_Occurred())) {
        return static_cast<std::uint64_t>(u);
      }
      PyErr_Clear();
    }
    raise(PyExc_OverflowError,
          std::string(what) + ": integer " + py::str(value).cast<std::string>() +
              " is out of range (a record holds integers of at most 64 bits)");
  }
  if (PyFloat_Check(v)) return PyFloat_AS_DOUBLE(v);
  if (PyUnicode_Check(v)) return to_utf8(value, what);
  if (PyDict_Check(v)) {
    RecursionGuard guard(" while converting a record");
    Record out = Record::object();
    PyObject *key = nullptr, *item = nullptr;
    Py_ssize_t pos = 0;
    while (PyDict_Next(v, &pos, &key, &item)) {
      if (!PyUnicode_Check(key)) {
        raise(PyExc_TypeError,
              std::string(what) + ": keys must be str, got " + type_name(key));
      }
      out[to_utf8(key, what)] = to_record(item, what);
    }
    return out;
  }
  if (PyList_Check(v) || PyTuple_Check(v)) {
    RecursionGuard guard(" while converting a record");
    Record out = Record::array();
    const py::tuple items = as_tuple(value, what, "a list");
    for (py::handle item : items) out.push_back(to_record(item, what));
    return out;
  }
  raise(PyExc_TypeError, std::string(what) + ": cannot hold a value of type " + type_name(value) +
                             " (a record holds dict, list, str, int, float, bool and None)");
}

std::vector<Record> to_records(py::handle values, std::string_view what) {
  std::vector<Record> out;
  const py::tuple items = as_tuple(values, what, "a list of records");
  out.reserve(items.size());
  for (py::handle item : items) out.push_back(to_record(item, what));
  return out;
}

py::object from_record(const Record& record) {
  switch (record.type()) {
    case Record::value_t::null:
      return py::none();
    case Record::value_t::boolean:
      return py::bool_(record.get<bool>());
    case Record::value_t::number_integer:
      return py::int_(record.get<std::int64_t>());
    case Record::value_t::number_unsigned:
      return py::int_(record.get<std::uint64_t>());
    case Record::value_t::number_float:
      return py::float_(record.get<double>());
    case Record::value_t::string:
      return to_str(record.get_ref<const std::string&>());
    case Record::value_t::array: {
      py::list out(record.size());
      for (std::size_t i = 0; i < record.size(); ++i) {
        PyList_SET_ITEM(out.ptr(), static_cast<Py_ssize_t>(i), from_record(record[i]).release().ptr());
      }
      return out;
    }
    case Record::value_t::object: {
      py::dict out;
      for (auto it = record.begin(); it != record.end(); ++it) {
        out[to_str(it.key())] = from_record(*it);
      }
      return out;
    }
    default:
      raise(PyExc_TypeError, std::string("a record value of JSON type ") + record.type_name() +
                                 " has no Python form");
  }
}

// ---- Keys and ranges --------------------------------------------------------------------------

CitationKey to_key(py::handle key, std::string_view what, bool keep_host) {
  const py::tuple parts = as_tuple(key, what, "a (path, start, end) citation key");
  if (parts.size() != 3) {
    raise(PyExc_ValueError, std::string(what) + ": a citation key has 3 parts (path, start, end), got " +
                                std::to_string(parts.size()));
  }
  CitationKey out(to_utf8(parts[0], std::string(what) + " path"),
                  to_line(parts[1], std::string(what) + " start"),
                  to_line(parts[2], std::string(what) + " end"));
  if (keep_host) out.host = make_ref(key);
  return out;
}

py::object key_object(const Host& host, const CitationKey& key) {
  if (key.host) return static_cast<const PyRef*>(key.host.get())->object();
  return host.CitationKey(to_str(key.path), key.start, key.end);
}

LineRange to_range(py::handle range, std::string_view what) {
  const py::tuple parts = as_tuple(range, what, "a (first, last) line range");
  if (parts.size() != 2) {
    raise(PyExc_ValueError, std::string(what) + ": a line range has 2 parts (first, last), got " +
                                std::to_string(parts.size()));
  }
  return {to_line(parts[0], std::string(what) + " first line"),
          to_line(parts[1], std::string(what) + " last line")};
}

py::tuple range_object(const LineRange& range) { return py::make_tuple(range.first, range.last); }

Moves to_moves(py::handle moves, std::string_view what) {
  Moves out;
  for (py::handle item : mapping_items(moves, what)) {
    const auto pair = py::reinterpret_borrow<py::tuple>(item);
    out.set(to_key(pair[0], std::string(what) + " key", true),
            to_range(pair[1], std::string(what) + " range"));
  }
  return out;
}

KeyedMap<Record> to_anchors(py::handle anchors, std::string_view what) {
  KeyedMap<Record> out;
  for (py::handle item : mapping_items(anchors, what)) {
    const auto pair = py::reinterpret_borrow<py::tuple>(item);
    out.set(to_key(pair[0], std::string(what) + " key", true),
            to_record(pair[1], std::string(what) + " record"));
  }
  return out;
}

py::dict moves_object(const Host& host, const Moves& moves) {
  py::dict out;
  for (const auto& [key, range] : moves) out[key_object(host, key)] = range_object(range);
  return out;
}

py::dict anchors_object(const Host& host, const KeyedMap<Record>& anchors) {
  py::dict out;
  for (const auto& [key, record] : anchors) out[key_object(host, key)] = from_record(record);
  return out;
}

// ---- Symbols ----------------------------------------------------------------------------------

std::string kind_text(const Host& host, py::handle kind) {
  if (PyUnicode_Check(kind.ptr())) return to_utf8(kind, "Symbol.kind");  // str, StrEnum
  if (py::isinstance(kind, host.Enum)) {
    const py::object value = kind.attr("value");
    if (PyUnicode_Check(value.ptr())) return to_utf8(value, "Symbol.kind");
    return to_utf8(py::str(value), "Symbol.kind");
  }
  return to_utf8(py::str(kind), "Symbol.kind");
}

SymbolPtr to_symbol(const Host& host, py::handle symbol, PyRefPtr sequence, std::size_t index,
                    std::size_t count) {
  auto text = [&](const char* field) {
    const py::object value = symbol.attr(field);
    return value.is_none() ? std::string() : to_utf8(value, std::string("Symbol.") + field);
  };
  auto out = std::make_shared<Symbol>();
  out->fqn = text("fqn");
  out->name = text("name");
  out->kind = kind_text(host, symbol.attr("kind"));
  out->start_line = to_line(symbol.attr("start_line"), "Symbol.start_line");
  out->end_line = to_line(symbol.attr("end_line"), "Symbol.end_line");
  out->host = std::make_shared<const SymbolHost>(symbol, std::move(sequence), index, count);
  return out;
}

Symbols to_symbols(const Host& host, py::handle symbols, PyRefPtr* original) {
  py::object sequence = py::reinterpret_borrow<py::object>(symbols);
  if (!PyList_Check(symbols.ptr()) && !PyTuple_Check(symbols.ptr())) {
    sequence = py::list(as_tuple(symbols, "symbols", "a sequence of Symbols"));
  }
  const PyRefPtr ref = make_ref(sequence);
  if (original != nullptr) *original = ref;
  const py::tuple items = as_tuple(sequence, "symbols", "a sequence of Symbols");
  Symbols out;
  out.reserve(items.size());
  for (std::size_t i = 0; i < items.size(); ++i) {
    out.push_back(to_symbol(host, items[i], ref, i, items.size()));
  }
  return out;
}

py::object symbol_object(const Symbol& symbol) { return symbol_host(symbol).object(); }

py::object symbols_object(const Symbols& symbols) {
  if (!symbols.empty()) {
    const PyRefPtr& sequence = symbol_host(*symbols.front()).sequence;
    bool same = sequence != nullptr && symbol_host(*symbols.front()).count == symbols.size();
    for (std::size_t i = 0; same && i < symbols.size(); ++i) {
      const SymbolHost& host = symbol_host(*symbols[i]);
      same = host.sequence == sequence && host.index == i;
    }
    if (same) return sequence->object();
  }
  py::list out(symbols.size());
  for (std::size_t i = 0; i < symbols.size(); ++i) {
    PyList_SET_ITEM(out.ptr(), static_cast<Py_ssize_t>(i), symbol_object(*symbols[i]).release().ptr());
  }
  return out;
}

// ---- Texts, host values, paths ------------------------------------------------------------------

py::object text_object(const Text& text) {
  if (const auto& form = text.host_form()) return static_cast<const PyRef*>(form.get())->object();
  py::str out = to_str(text.str());
  text.set_host_form(make_ref(out));
  return out;
}

std::shared_ptr<const Text> to_text(py::handle text, std::string_view what) {
  auto out = std::make_shared<const Text>(to_utf8(text, what), what);
  out->set_host_form(make_ref(text));
  return out;
}

py::object host_value(const HostValue& value) {
  if (!value.has_value()) return py::none();
  if (const auto* held = std::any_cast<PyValue>(&value)) return held->ref->object();
  if (const auto* line = std::any_cast<Line>(&value)) return py::int_(*line);
  if (const auto* text = std::any_cast<std::string>(&value)) return to_str(*text);
  if (const auto* record = std::any_cast<Record>(&value)) return from_record(*record);
  raise(PyExc_TypeError, std::string("a host value of C++ type ") + value.type().name() +
                             " has no Python form");
}

fs::path to_path(py::handle path, std::string_view what) {
  PyObject* fspath = PyOS_FSPath(path.ptr());
  if (fspath == nullptr) {
    if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw py::error_already_set();
    PyErr_Clear();
    raise(PyExc_TypeError, std::string(what) + ": expected str, bytes or os.PathLike, got " +
                               type_name(path));
  }
  auto text = py::reinterpret_steal<py::object>(fspath);
  if (PyUnicode_Check(fspath)) {
    // Undecodable file names come back as surrogate escapes; encode them back to their bytes.
    text = py::reinterpret_steal<py::object>(PyUnicode_EncodeFSDefault(fspath));
    if (!text) throw py::error_already_set();
  }
  return fs::path(std::string(PyBytes_AS_STRING(text.ptr()),
                              static_cast<std::size_t>(PyBytes_GET_SIZE(text.ptr()))));
}

py::str path_str(const fs::path& path) {
  const std::string& bytes = path.native();
  PyObject* text = PyUnicode_DecodeFSDefaultAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size()));
  if (text == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(text);
}

// ---- Paths the host handed in ------------------------------------------------------------------

namespace {
thread_local const CallPaths* current_paths = nullptr;
}

CallPaths::CallPaths(py::handle wiki_dir, fs::path wiki_path, py::handle repo_root,
                     fs::path root_path)
    : wiki_dir_(wiki_dir),
      repo_root_(repo_root),
      wiki_path_(std::move(wiki_path)),
      root_path_(std::move(root_path)),
      outer_(current_paths) {
  current_paths = this;
}

CallPaths::~CallPaths() { current_paths = outer_; }

py::object CallPaths::wiki_dir(const Host& host, const fs::path& path) {
  for (const CallPaths* p = current_paths; p != nullptr; p = p->outer_) {
    if (p->wiki_dir_ && p->wiki_path_ == path) return py::reinterpret_borrow<py::object>(p->wiki_dir_);
  }
  return host.Path(path_str(path));
}

py::object CallPaths::repo_root(const Host& host, const fs::path& path) {
  for (const CallPaths* p = current_paths; p != nullptr; p = p->outer_) {
    if (p->repo_root_ && p->root_path_ == path) return py::reinterpret_borrow<py::object>(p->repo_root_);
  }
  return host.Path(path_str(path));
}

}  // namespace tolbarrow::workers::wiki::pybridge

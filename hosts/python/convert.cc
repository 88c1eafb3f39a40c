// Conversions between Python values and the core's records, keys, ranges, symbols, texts and
// paths. Every function here runs with the GIL held.
#include <cstring>

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

py::object steal(PyObject* object) {
  if (object == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(object);
}

// The items of `object` as a tuple: the object itself when it is one, else tuple(object). A
// TypeError (not iterable) is reported as not being `expected`.
py::tuple as_tuple(py::handle object, std::string_view what, std::string_view expected) {
  if (PyTuple_Check(object.ptr())) return py::reinterpret_borrow<py::tuple>(object);
  PyObject* items = PySequence_Tuple(object.ptr());
  if (items == nullptr) {
    if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw py::error_already_set();
    PyErr_Clear();
    raise(PyExc_TypeError,
          std::string(what) + ": expected " + std::string(expected) + ", got " + type_name(object));
  }
  return py::reinterpret_steal<py::tuple>(items);
}

// A map keyed by citation key from any mapping's items(), each value read by `value`.
template <class V, class F>
KeyedMap<V> to_keyed(py::handle mapping, std::string_view what, F&& value) {
  if (!PyDict_Check(mapping.ptr()) && !PyObject_HasAttrString(mapping.ptr(), "items")) {
    raise(PyExc_TypeError, std::string(what) + ": expected a dict, got " + type_name(mapping));
  }
  KeyedMap<V> out;
  for (py::handle item : py::iter(mapping.attr("items")())) {
    const py::tuple pair = as_tuple(item, what, "a (key, value) pair");
    if (pair.size() != 2) raise(PyExc_ValueError, std::string(what) + ": expected (key, value)");
    out.set(to_key(pair[0], std::string(what) + " key"), value(pair[1]));
  }
  return out;
}

constexpr std::size_t kMaxArgs = 8;

// Puts `args` on a vectorcall stack; returns how many of them are positional. The caller leaves
// the slot before the stack free for the callee's own use (PY_VECTORCALL_ARGUMENTS_OFFSET).
std::size_t fill(PyObject** stack, std::initializer_list<py::handle> args, py::handle kwnames) {
  if (args.size() >= kMaxArgs) throw std::logic_error("pybridge: too many call arguments");
  std::size_t n = 0;
  for (py::handle arg : args) stack[n++] = arg.ptr();
  const std::size_t keywords =
      kwnames ? static_cast<std::size_t>(PyTuple_GET_SIZE(kwnames.ptr())) : 0;
  return n - keywords;
}

}  // namespace

void raise(PyObject* type, const std::string& message) {
  PyErr_SetString(type, message.c_str());
  throw py::error_already_set();
}

std::string type_name(py::handle object) { return Py_TYPE(object.ptr())->tp_name; }

py::object call(py::handle callable, std::initializer_list<py::handle> args, py::handle kwnames) {
  PyObject* stack[kMaxArgs + 1];
  const std::size_t positional = fill(stack + 1, args, kwnames);
  return steal(PyObject_Vectorcall(callable.ptr(), stack + 1,
                                   positional | PY_VECTORCALL_ARGUMENTS_OFFSET, kwnames.ptr()));
}

py::object call_method(py::handle self, py::handle name, std::initializer_list<py::handle> args,
                       py::handle kwnames) {
  PyObject* stack[kMaxArgs + 2];
  stack[1] = self.ptr();
  const std::size_t positional = fill(stack + 2, args, kwnames) + 1;
  return steal(PyObject_VectorcallMethod(
      name.ptr(), stack + 1, positional | PY_VECTORCALL_ARGUMENTS_OFFSET, kwnames.ptr()));
}

std::string to_utf8(py::handle text, std::string_view what, std::string_view part) {
  if (!PyUnicode_Check(text.ptr())) {
    raise(PyExc_TypeError,
          std::string(what) + std::string(part) + ": expected str, got " + type_name(text));
  }
  Py_ssize_t size = 0;
  const char* data = PyUnicode_AsUTF8AndSize(text.ptr(), &size);
  if (data == nullptr) throw py::error_already_set();  // lone surrogates
  return std::string(data, static_cast<std::size_t>(size));
}

py::str to_str(std::string_view utf8) {
  PyObject* text =
      PyUnicode_DecodeUTF8(utf8.data(), static_cast<Py_ssize_t>(utf8.size()), "strict");
  if (text == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(text);
}

Line to_line(py::handle value, std::string_view what, std::string_view part) {
  if (!PyLong_Check(value.ptr())) {
    raise(PyExc_TypeError,
          std::string(what) + std::string(part) + ": expected int, got " + type_name(value));
  }
  int overflow = 0;
  const long long line = PyLong_AsLongLongAndOverflow(value.ptr(), &overflow);
  if (overflow != 0) {
    raise(PyExc_OverflowError, std::string(what) + std::string(part) + ": integer out of range");
  }
  if (line == -1 && PyErr_Occurred()) throw py::error_already_set();
  return line;
}

std::size_t to_offset(py::handle value, std::string_view what) {
  const Line offset = to_line(value, what);
  if (offset < 0) {
    raise(PyExc_ValueError, std::string(what) + ": negative offset " + std::to_string(offset));
  }
  return static_cast<std::size_t>(offset);
}

// ---- Records ----------------------------------------------------------------------------------

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
    raise(PyExc_OverflowError, std::string(what) + ": integer " + std::string(py::str(value)) +
                                   " is out of range (a record holds integers of at most 64 bits)");
  }
  if (PyFloat_Check(v)) return PyFloat_AS_DOUBLE(v);
  if (PyUnicode_Check(v)) return to_utf8(value, what);
  if (PyDict_Check(v)) {
    RecursionGuard guard(" while converting a record");
    Record out = Record::object();
    // Keys that are plain str are distinct texts: each member goes last, in the dict's order,
    // without a search. Once a str subclass (which may compare its own way) is among them, each
    // text is looked up.
    auto& members = out.get_ref<Record::object_t&>();
    members.reserve(static_cast<std::size_t>(PyDict_GET_SIZE(v)));
    PyObject *key = nullptr, *item = nullptr;
    Py_ssize_t pos = 0;
    bool distinct = true;
    while (PyDict_Next(v, &pos, &key, &item)) {
      if (!PyUnicode_Check(key)) {
        raise(PyExc_TypeError, std::string(what) + ": keys must be str, got " + type_name(key));
      }
      std::string name = to_utf8(key, what);
      distinct = distinct && PyUnicode_CheckExact(key);
      if (distinct) {
        members.emplace_back(std::move(name), to_record(item, what));
      } else {
        out[std::move(name)] = to_record(item, what);
      }
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
  const py::tuple items = as_tuple(values, what, "a list of records");
  std::vector<Record> out;
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
        PyList_SET_ITEM(out.ptr(), static_cast<Py_ssize_t>(i),
                        from_record(record[i]).release().ptr());
      }
      return out;
    }
    case Record::value_t::object: {
      py::dict out;
      for (auto it = record.begin(); it != record.end(); ++it) {
        if (PyDict_SetItem(out.ptr(), to_str(it.key()).ptr(), from_record(*it).ptr()) != 0) {
          throw py::error_already_set();
        }
      }
      return out;
    }
    default:
      raise(PyExc_TypeError, std::string("a record value of JSON type ") + record.type_name() +
                                 " has no Python form");
  }
}

py::list from_records(const std::vector<Record>& records) {
  py::list out(records.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    PyList_SET_ITEM(out.ptr(), static_cast<Py_ssize_t>(i), from_record(records[i]).release().ptr());
  }
  return out;
}

// ---- Keys and ranges --------------------------------------------------------------------------

CitationKey to_key(py::handle key, std::string_view what, py::tuple* parts_out) {
  py::tuple parts = as_tuple(key, what, "a (path, start, end) citation key");
  if (parts.size() != 3) {
    raise(PyExc_ValueError, std::string(what) +
                                ": a citation key has 3 parts (path, start, end), got " +
                                std::to_string(parts.size()));
  }
  CitationKey out{to_utf8(parts[0], what, " path"), to_line(parts[1], what, " start"),
                  to_line(parts[2], what, " end")};
  if (parts_out != nullptr) *parts_out = std::move(parts);
  return out;
}

LineRange to_range(py::handle range, std::string_view what) {
  const py::tuple parts = as_tuple(range, what, "a (first, last) line range");
  if (parts.size() != 2) {
    raise(PyExc_ValueError, std::string(what) + ": a line range has 2 parts (first, last), got " +
                                std::to_string(parts.size()));
  }
  return {to_line(parts[0], what, " first line"), to_line(parts[1], what, " last line")};
}

py::tuple range_object(const LineRange& range) { return py::make_tuple(range.first, range.last); }

Moves to_moves(py::handle moves, std::string_view what) {
  return to_keyed<Move>(moves, what, [&](py::handle range) {
    return Move(to_range(range, std::string(what) + " range"));
  });
}

KeyedMap<Record> to_anchors(py::handle anchors, std::string_view what) {
  return to_keyed<Record>(anchors, what, [&](py::handle record) {
    return to_record(record, std::string(what) + " record");
  });
}

// ---- Symbols ----------------------------------------------------------------------------------

std::string kind_text(const Bridge& bridge, py::handle kind) {
  if (PyUnicode_Check(kind.ptr())) return to_utf8(kind, "Symbol.kind");  // str, StrEnum
  py::object text = py::reinterpret_borrow<py::object>(kind);
  const int is_enum = PyObject_IsInstance(kind.ptr(), bridge.Enum.ptr());
  if (is_enum < 0) throw py::error_already_set();
  if (is_enum != 0) text = steal(PyObject_GetAttr(kind.ptr(), bridge.names.value.ptr()));
  if (!PyUnicode_Check(text.ptr())) text = steal(PyObject_Str(text.ptr()));
  return to_utf8(text, "Symbol.kind");
}

namespace {

Symbol to_symbol(const Bridge& bridge, py::handle symbol) {
  const Names& n = bridge.names;
  auto attr = [&](const py::object& name) {
    return steal(PyObject_GetAttr(symbol.ptr(), name.ptr()));
  };
  auto text = [&](const py::object& name, const char* what) {
    const py::object value = attr(name);
    return value.is_none() ? std::string() : to_utf8(value, what);
  };
  Symbol out;
  out.fqn = text(n.fqn, "Symbol.fqn");
  out.name = text(n.name, "Symbol.name");
  out.kind = kind_text(bridge, attr(n.kind));
  out.start_line = to_line(attr(n.start_line), "Symbol.start_line");
  out.end_line = to_line(attr(n.end_line), "Symbol.end_line");
  return out;
}

}  // namespace

std::pair<py::object, py::tuple> symbol_sequence(py::handle symbols) {
  if (PyList_Check(symbols.ptr()) || PyTuple_Check(symbols.ptr())) {
    return {py::reinterpret_borrow<py::object>(symbols),
            as_tuple(symbols, "symbols", "a sequence of Symbols")};
  }
  py::tuple items = as_tuple(symbols, "symbols", "a sequence of Symbols");
  return {steal(PySequence_List(items.ptr())), std::move(items)};
}

std::vector<Symbol> to_symbols(const Bridge& bridge, const py::tuple& items) {
  std::vector<Symbol> out;
  out.reserve(std::max<std::size_t>(items.size(), 1));
  for (py::handle item : items) out.push_back(to_symbol(bridge, item));
  return out;
}

// ---- Paths --------------------------------------------------------------------------------------

fs::path to_path(py::handle path, std::string_view what) {
  PyObject* fspath = PyOS_FSPath(path.ptr());
  if (fspath == nullptr) {
    if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw py::error_already_set();
    PyErr_Clear();
    raise(PyExc_TypeError,
          std::string(what) + ": expected str, bytes or os.PathLike, got " + type_name(path));
  }
  py::object text = steal(fspath);
  if (PyUnicode_Check(fspath)) {
    // Undecodable file names come back as surrogate escapes; encode them back to their bytes.
    text = steal(PyUnicode_EncodeFSDefault(fspath));
  }
  return fs::path(std::string(PyBytes_AS_STRING(text.ptr()),
                              static_cast<std::size_t>(PyBytes_GET_SIZE(text.ptr()))));
}

py::str path_str(const fs::path& path) {
  const std::string& bytes = path.native();
  PyObject* text =
      PyUnicode_DecodeFSDefaultAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size()));
  if (text == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(text);
}

// ---- Page texts ---------------------------------------------------------------------------------

std::shared_ptr<const Text> TextForms::text(py::handle str) {
  if (!caller_text_ || !caller_str_.is(str)) {
    caller_text_ = std::make_shared<const Text>(to_utf8(str, "text"), "text");
    caller_str_ = py::reinterpret_borrow<py::object>(str);
  }
  // The core's calls with this text go to the host with the caller's str.
  text_id_ = caller_text_->id();
  text_str_ = caller_str_;
  return caller_text_;
}

py::object TextForms::str(const Text& text) {
  if (text_str_ && text_id_ == text.id()) return text_str_;
  text_str_ = str(std::string_view(text.str()));
  text_id_ = text.id();
  return text_str_;
}

py::object TextForms::str(std::string_view utf8) {
  for (const py::object& held : returned_) {
    if (!held) continue;
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(held.ptr(), &size);  // kept since it was read
    if (data == nullptr) PyErr_Clear();
    if (data != nullptr && static_cast<std::size_t>(size) == utf8.size() &&
        std::memcmp(data, utf8.data(), utf8.size()) == 0) {
      return held;
    }
  }
  return to_str(utf8);
}

void TextForms::returned(py::handle str) {
  returned_[1] = std::move(returned_[0]);
  returned_[0] = py::reinterpret_borrow<py::object>(str);
}

}  // namespace tolbarrow::workers::wiki::pybridge

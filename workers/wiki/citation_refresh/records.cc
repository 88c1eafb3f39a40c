// Record conversions shared by every part of the refresh: record values, line numbers, stored
// keys, record equality, JSON text forms, and page rows.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>

#include "workers/wiki/citation_refresh/internal.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace tolbarrow::workers::wiki {
namespace detail = citation_refresh::detail;
using citation_refresh::RecordTypeError;

Record anchored_record(const Record& citation, LineRange lines, const Symbol* symbol) {
  static constexpr std::string_view kKeys[] = {"line_start", "line_end",     "symbol",
                                               "name",       "symbol_start", "symbol_end"};
  const std::size_t count = symbol != nullptr ? 6 : 2;
  Record values[6] = {lines.first, lines.last};
  if (symbol != nullptr) {
    values[2] = symbol->fqn;
    values[3] = symbol->name;
    values[4] = symbol->start_line;
    values[5] = symbol->end_line;
  }
  if (!citation.is_object()) {  // as a copy set member by member would: null becomes a map
    Record record = citation;
    for (std::size_t which = 0; which < count; ++which) {
      record[std::string(kKeys[which])] = std::move(values[which]);
    }
    return record;
  }
  // One pass over the citation's members, each set one given its new value in its place.
  Record record = Record::object();
  auto& members = static_cast<Record::object_t::Container&>(record.get_ref<Record::object_t&>());
  members.reserve(citation.size() + count);
  bool set[6] = {};
  for (const auto& [key, old] : citation.get_ref<const Record::object_t&>()) {
    std::size_t which = 0;
    while (which < count && kKeys[which] != key) ++which;
    if (which < count) {
      members.emplace_back(key, std::move(values[which]));
      set[which] = true;
    } else {
      members.emplace_back(key, old);
    }
  }
  for (std::size_t which = 0; which < count; ++which) {
    if (!set[which]) members.emplace_back(kKeys[which], std::move(values[which]));
  }
  return record;
}

// ---- Page rows --------------------------------------------------------------------------------

namespace {

// The row's value under `key`: in place when the row holds a record, else copied into `copy`.
// Null when the row has no such key.
const Record* row_value(const PageRow& row, std::string_view key, std::optional<Record>& copy) {
  if (const Record* whole = row.held()) {
    if (!whole->is_object()) return nullptr;
    auto it = whole->find(key);
    return it == whole->end() ? nullptr : &*it;
  }
  copy = row.field(key);
  return copy ? &*copy : nullptr;
}

// The row's citation list (null when it is absent or empty), in place when the row holds it.
const Record* citation_list(const PageRow& row, std::optional<Record>& copy) {
  const Record* v = row_value(row, "citations", copy);
  if (v == nullptr || !detail::present(*v)) return nullptr;
  if (!v->is_array())
    throw RecordTypeError("page row citations: expected a list, got " + v->dump());
  return v;
}

}  // namespace

std::optional<std::string> PageRow::rel_path() const {
  std::optional<Record> copy;
  const Record* v = row_value(*this, "rel_path", copy);
  if (v == nullptr || !detail::present(*v)) return std::nullopt;
  if (!v->is_string()) throw RecordTypeError("page row rel_path: expected text, got " + v->dump());
  return v->get<std::string>();
}

std::string PageRow::page_id() const {
  std::optional<Record> copy;
  const Record* v = row_value(*this, "page_id", copy);
  if (v == nullptr) throw MissingKey("page_id");
  return detail::to_path(*v);
}

std::vector<Record> PageRow::citations() const {
  std::optional<Record> copy;
  const Record* v = citation_list(*this, copy);
  if (v == nullptr) return {};
  if (copy) return std::move(copy->get_ref<Record::array_t&>());
  return v->get_ref<const Record::array_t&>();
}

const std::vector<Record>& PageRow::citations(std::vector<Record>& storage) const {
  std::optional<Record> copy;
  const Record* v = citation_list(*this, copy);
  if (v != nullptr && !copy) return v->get_ref<const Record::array_t&>();
  storage.clear();
  if (v != nullptr) storage = std::move(copy->get_ref<Record::array_t&>());
  return storage;
}

Record PageRow::build_cache() const {
  std::optional<Record> copy;
  const Record* v = row_value(*this, "build_cache", copy);
  if (v == nullptr || !detail::present(*v)) return Record::object();
  if (!v->is_object())
    throw RecordTypeError("page row build_cache: expected a map, got " + v->dump());
  return copy ? std::move(*copy) : *v;
}

std::optional<Record> RecordPageRow::field(std::string_view key) const {
  if (!row_.is_object()) return std::nullopt;
  auto it = row_.find(key);
  if (it == row_.end()) return std::nullopt;
  return *it;
}

}  // namespace tolbarrow::workers::wiki

namespace tolbarrow::workers::wiki::citation_refresh {
namespace detail {

std::size_t hash_text(std::string_view text) {
  return static_cast<std::size_t>(XXH3_64bits(text.data(), text.size()));
}

namespace {

bool is_ascii_space(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

// The digits of a line written as text, with the white space around them dropped: any Unicode
// white space, as the claim reading's patterns count it.
std::string_view line_digits(const std::string& text) {
  const bool ascii = std::all_of(text.begin(), text.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii) {
    std::size_t b = 0, e = text.size();
    while (b < e && is_ascii_space(text[b])) ++b;
    while (e > b && is_ascii_space(text[e - 1])) --e;
    return std::string_view(text).substr(b, e - b);
  }
  static const Regex spaced("(?s)\\A\\s*(.*?)\\s*\\z");
  if (first_invalid_utf8(text) != std::string_view::npos) return {};
  const auto m = spaced.search(text);
  return std::string_view(text).substr(m->group_begin, m->group_end - m->group_begin);
}

Line parse_line(const std::string& text, std::string_view what) {
  const std::string_view number = line_digits(text);
  std::size_t digits = 0;
  if (digits < number.size() && (number[digits] == '+' || number[digits] == '-')) ++digits;
  bool ok = digits < number.size();
  for (std::size_t i = digits; i < number.size(); ++i)
    ok = ok && number[i] >= '0' && number[i] <= '9';
  if (!ok)
    throw RecordValueError(std::string(what) + ": not an integer: " +
                           Record(text).dump(-1, ' ', false, Record::error_handler_t::replace));
  errno = 0;
  const std::string copy(number);
  const long long value = std::strtoll(copy.c_str(), nullptr, 10);
  if (errno == ERANGE)
    throw RecordValueError(std::string(what) + ": integer out of range: " + copy);
  return value;
}

}  // namespace

bool present(const Record& v) {
  switch (v.type()) {
    case Record::value_t::null:
      return false;
    case Record::value_t::string:
      return !v.get_ref<const std::string&>().empty();  // nlohmann's empty() is for containers
    case Record::value_t::array:
    case Record::value_t::object:
      return !v.empty();
    default:
      return true;
  }
}

const Record* present_member(const Record& map, std::string_view key) {
  if (!map.is_object()) return nullptr;
  auto it = map.find(key);
  return it != map.end() && present(*it) ? &*it : nullptr;
}

Line narrow(WideLine value) {
  if (value < std::numeric_limits<Line>::min() || value > std::numeric_limits<Line>::max()) {
    throw RecordValueError("line arithmetic out of range");
  }
  return static_cast<Line>(value);
}

Line to_line(const Record& value, std::string_view what) {
  switch (value.type()) {
    case Record::value_t::number_integer:
      return *value.get_ptr<const Record::number_integer_t*>();
    case Record::value_t::number_unsigned: {
      const auto u = *value.get_ptr<const Record::number_unsigned_t*>();
      if (u > static_cast<std::uint64_t>(std::numeric_limits<Line>::max())) {
        throw RecordValueError(std::string(what) + ": integer out of range: " + value.dump());
      }
      return static_cast<Line>(u);
    }
    case Record::value_t::number_float: {
      const double d = std::trunc(*value.get_ptr<const Record::number_float_t*>());
      // [-2^63, 2^63) is exactly representable at both ends as a double.
      if (!std::isfinite(d) || d < -9223372036854775808.0 || d >= 9223372036854775808.0) {
        throw RecordValueError(std::string(what) + ": number out of range: " + value.dump());
      }
      return static_cast<Line>(d);
    }
    case Record::value_t::boolean:
      return *value.get_ptr<const Record::boolean_t*>() ? 1 : 0;
    case Record::value_t::string:
      return parse_line(value.get_ref<const std::string&>(), what);
    default:
      throw RecordTypeError(std::string(what) + ": expected an integer, got " +
                            (value.is_null() ? std::string("null") : value.type_name()));
  }
}

std::string to_path(const Record& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

CitationMembers members_of(const Record& record) {
  CitationMembers m;
  if (!record.is_object()) return m;
  const auto take = [](const Record*& slot, const Record& value) {
    if (slot == nullptr) slot = &value;
  };
  for (const auto& [key, value] : record.get_ref<const Record::object_t&>()) {
    switch (key.size()) {
      case 4:
        if (key == "path") take(m.path, value);
        if (key == "name") take(m.name, value);
        break;
      case 6:
        if (key == "symbol") take(m.symbol, value);
        break;
      case 8:
        if (key == "line_end") take(m.line_end, value);
        break;
      case 10:
        if (key == "line_start") take(m.line_start, value);
        if (key == "symbol_end") take(m.symbol_end, value);
        break;
      case 12:
        if (key == "symbol_start") take(m.symbol_start, value);
        break;
      default:
        break;
    }
  }
  return m;
}

CitationKeyView stored_key_view(const Record& record, const CitationMembers& members,
                                std::string& storage) {
  if (!record.is_object()) {
    throw RecordTypeError("citation record: expected a map, got " + record.dump());
  }
  CitationKeyView key;
  if (const Record* path = members.path) {
    if (path->is_string()) {
      key.path = path->get_ref<const std::string&>();
    } else {
      storage = to_path(*path);
      key.path = storage;
    }
  }
  if (members.line_start) key.start = to_line(*members.line_start, "line_start");
  if (members.line_end) key.end = to_line(*members.line_end, "line_end");
  return key;
}

CitationKeyView stored_key_view(const Record& record, std::string& storage) {
  return stored_key_view(record, members_of(record), storage);
}

CitationKey stored_key(const Record& record) {
  std::string storage;
  const CitationKeyView key = stored_key_view(record, storage);
  return {std::string(key.path), key.start, key.end};
}

}  // namespace detail

bool records_equal(const Record& a, const Record& b) {
  if (a.is_object() && b.is_object()) {
    if (a.size() != b.size()) return false;
    // Records made from one another keep their keys in one order: compared pair by pair while
    // the keys agree, by lookup of each key otherwise.
    const auto& pairs_a =
        static_cast<const Record::object_t::Container&>(a.get_ref<const Record::object_t&>());
    const auto& pairs_b =
        static_cast<const Record::object_t::Container&>(b.get_ref<const Record::object_t&>());
    std::size_t same = 0;
    while (same < pairs_a.size() && pairs_a[same].first == pairs_b[same].first) {
      if (!records_equal(pairs_a[same].second, pairs_b[same].second)) return false;
      ++same;
    }
    if (same == pairs_a.size()) return true;
    for (auto it = a.begin(); it != a.end(); ++it) {
      auto other = b.find(it.key());
      if (other == b.end() || !records_equal(*it, *other)) return false;
    }
    return true;
  }
  if (a.is_array() && b.is_array()) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
      if (!records_equal(a[i], b[i])) return false;
    }
    return true;
  }
  return a == b;
}

bool operator==(const CitationRefresh& a, const CitationRefresh& b) {
  if (a.repaired != b.repaired || a.unrepairable != b.unrepairable ||
      a.pages_written != b.pages_written || a.lost.size() != b.lost.size() ||
      a.moved.size() != b.moved.size() || a.carried != b.carried) {
    return false;
  }
  for (std::size_t i = 0; i < a.lost.size(); ++i) {
    if (!records_equal(a.lost[i], b.lost[i])) return false;
  }
  for (const auto& [page, count] : a.moved) {
    auto it = b.moved.find(page);
    if (it == b.moved.end() || it->second != count) return false;
  }
  return true;
}

std::string to_string(const CitationRefresh& r) {
  std::ostringstream out;
  out << "CitationRefresh(repaired=" << r.repaired << ", unrepairable=" << r.unrepairable
      << ", pages_written=" << r.pages_written << ", lost=[";
  for (std::size_t i = 0; i < r.lost.size(); ++i)
    out << (i ? ", " : "") << detail::dump_one_line(r.lost[i]);
  out << "], moved={";
  bool first = true;
  for (const auto& [page, count] : r.moved) {
    out << (first ? "" : ", ") << Record(page).dump() << ": " << count;
    first = false;
  }
  out << "})";
  return out.str();
}

std::ostream& operator<<(std::ostream& out, const CitationRefresh& result) {
  return out << to_string(result);
}

namespace detail {

std::string dump_one_line(const Record& value) {
  if (value.is_object()) {
    std::string out = "{";
    bool first = true;
    for (auto it = value.begin(); it != value.end(); ++it) {
      if (!first) out += ", ";
      first = false;
      out += Record(it.key()).dump(-1, ' ', false);
      out += ": ";
      out += dump_one_line(*it);
    }
    return out + "}";
  }
  if (value.is_array()) {
    std::string out = "[";
    for (std::size_t i = 0; i < value.size(); ++i) {
      if (i) out += ", ";
      out += dump_one_line(value[i]);
    }
    return out + "]";
  }
  return value.dump(-1, ' ', false);
}

std::string dump_digests(const Record& digests) { return digests.dump(2, ' ', false); }

}  // namespace detail
}  // namespace tolbarrow::workers::wiki::citation_refresh

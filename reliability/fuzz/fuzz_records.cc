// libFuzzer target: record values read as lines, paths and stored keys. The input is JSON text
// (anything that does not parse is read as one text value, so that every text reaches to_line).
// Records hold UTF-8 text; to_path and the errors that quote a record assume it.
//
// Checked: to_line gives exactly the value's line (an integer as it is, a fraction truncated
// toward zero, decimal text read digit by digit, true and false as 1 and 0) or throws
// RecordValueError for a value beyond a 64-bit line or text that is no decimal integer, and
// RecordTypeError for null, maps and lists, naming the value in the error; to_path never throws
// and gives text as it is; stored_key gives the three members' conversions or their error.
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "workers/wiki/citation_refresh/internal.h"

namespace {
namespace wiki = tolbarrow::workers::wiki;
namespace cr = wiki::citation_refresh;
using wiki::Line;
using wiki::Record;

bool is_space(char c) { return std::string_view(" \t\n\r\f\v").find(c) != std::string_view::npos; }

// The line that ASCII text holds when it is an optionally signed decimal integer with ASCII white
// space around it; nullopt when it is not such text or the integer is beyond a line. `*decided`
// tells whether the text is ASCII only (else the target only asks for a result or an error).
std::optional<Line> text_line(const std::string& text, bool* decided) {
  *decided = true;
  for (char c : text) *decided = *decided && static_cast<unsigned char>(c) < 0x80;
  std::size_t b = 0, e = text.size();
  while (b < e && is_space(text[b])) ++b;
  while (e > b && is_space(text[e - 1])) --e;
  const std::size_t sign = b;
  if (b < e && (text[b] == '+' || text[b] == '-')) ++b;
  if (b == e) return std::nullopt;
  for (std::size_t i = b; i < e; ++i) {
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
  }
  Line value = 0;
  const char* from = text.data() + (text[sign] == '-' ? sign : b);
  const auto [end, error] = std::from_chars(from, text.data() + e, value);
  if (error != std::errc() || end != text.data() + e) return std::nullopt;
  return value;
}

// What to_line must give for `value`; nullopt for an error. `*decided` as above.
std::optional<Line> expected_line(const Record& value, bool* decided) {
  *decided = true;
  switch (value.type()) {
    case Record::value_t::number_integer:
      return value.get<std::int64_t>();
    case Record::value_t::number_unsigned:
      if (value.get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX)) return std::nullopt;
      return static_cast<Line>(value.get<std::uint64_t>());
    case Record::value_t::number_float: {
      const long double t = std::trunc(static_cast<long double>(value.get<double>()));
      if (!(t >= -9223372036854775808.0L && t <= 9223372036854775807.0L)) return std::nullopt;
      return static_cast<Line>(t);
    }
    case Record::value_t::boolean:
      return value.get<bool>() ? 1 : 0;
    case Record::value_t::string:
      return text_line(value.get<std::string>(), decided);
    default:
      return std::nullopt;
  }
}

void check_line(const Record& value) {
  bool decided = true;
  const std::optional<Line> expected = expected_line(value, &decided);
  const bool wrong_kind = value.is_null() || value.is_object() || value.is_array();
  try {
    const Line got = cr::detail::to_line(value, "fuzz_value");
    if (wrong_kind || (decided && got != expected)) __builtin_trap();
  } catch (const cr::RecordTypeError& e) {
    if (!wrong_kind || std::string_view(e.what()).find("fuzz_value") == std::string_view::npos) {
      __builtin_trap();
    }
  } catch (const cr::RecordValueError& e) {
    if (wrong_kind || (decided && expected) ||
        std::string_view(e.what()).find("fuzz_value") == std::string_view::npos) {
      __builtin_trap();
    }
  }
}

void check_key(const Record& value) {
  if (!value.is_object()) return;
  wiki::CitationKey key;
  try {
    key = cr::detail::stored_key(value);
  } catch (const cr::RecordTypeError&) {
    return;
  } catch (const cr::RecordValueError&) {
    return;
  }
  const auto path = value.find("path");
  if (key.path != (path == value.end() ? std::string() : cr::detail::to_path(*path))) {
    __builtin_trap();
  }
  for (const auto& [name, line] : {std::pair{"line_start", key.start}, {"line_end", key.end}}) {
    const auto member = value.find(name);
    if (line != (member == value.end() ? 0 : cr::detail::to_line(*member, name))) __builtin_trap();
  }
}

void check(const Record& value) {
  check_line(value);
  const std::string path = cr::detail::to_path(value);
  if (value.is_string() && path != value.get<std::string>()) __builtin_trap();
  check_key(value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  Record value = Record::parse(bytes, nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded()) {
    value = bytes;
    // Records hold UTF-8 text (hosts make them from JSON or from Python str). Other bytes still
    // go to to_line, whose error quotes them with replacement characters.
    if (wiki::first_invalid_utf8(bytes) != std::string_view::npos) {
      check_line(value);
      return 0;
    }
  }
  check(value);
  // The members and elements of a map or list, one level down, and the value under each key.
  if (value.is_structured()) {
    for (const Record& member : value) check(member);
  }
  for (const char* name : {"line_start", "line_end", "path"}) {
    check(Record::object({{name, value}}));
  }
  return 0;
}

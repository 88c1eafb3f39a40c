// Relocating anchored citations: finding a stored declaration again in the current index, and
// moving the citation's lines with it.
#include <limits>

#include "workers/wiki/citation_refresh.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::workers::wiki::citation_refresh {
namespace {

using Wide = __int128;

Wide distance(Line a, Line b) {
  const Wide d = static_cast<Wide>(a) - static_cast<Wide>(b);
  return d < 0 ? -d : d;
}

Line checked(Wide value) {
  if (value < std::numeric_limits<Line>::min() || value > std::numeric_limits<Line>::max()) {
    throw RecordValueError("line arithmetic out of range");
  }
  return static_cast<Line>(value);
}

const Record& strict(const Record& citation, const char* key) {
  auto it = citation.find(key);
  if (it == citation.end()) throw MissingKey(key);
  return *it;
}

}  // namespace

namespace detail {

SymbolPtr find_again(const Symbols& symbols, const Record& citation) {
  Line old = 0;
  if (const Record* start = internal::truthy_member(citation, "symbol_start")) {
    old = to_line(*start, "symbol_start");
  }
  // By fully qualified name first; only when that names nothing, by short name.
  for (auto field : {&Symbol::fqn, &Symbol::name}) {
    const Record* value = internal::truthy_member(citation, field == &Symbol::fqn ? "symbol" : "name");
    if (value == nullptr || !value->is_string()) continue;  // a non-text value equals no name
    const auto& wanted = value->get_ref<const std::string&>();
    SymbolPtr best;
    Wide best_distance = 0;
    for (const SymbolPtr& symbol : symbols) {
      if ((*symbol).*field != wanted) continue;
      const Wide d = distance(symbol->start_line, old);
      if (!best || d < best_distance) best = symbol, best_distance = d;  // ties: first listed
    }
    if (best) return best;
  }
  return nullptr;
}

}  // namespace detail

LineRange relocated_range(const Record& citation, const Symbol& symbol) {
  const Line start = to_line(strict(citation, "line_start"), "line_start");
  const Line end = to_line(strict(citation, "line_end"), "line_end");
  const Line old_start = to_line(strict(citation, "symbol_start"), "symbol_start");
  const Line old_end = to_line(strict(citation, "symbol_end"), "symbol_end");

  // A citation of the whole declaration follows it whole.
  if (start == old_start && end == old_end) return {symbol.start_line, symbol.end_line};

  const Wide shift = static_cast<Wide>(symbol.start_line) - old_start;
  Wide new_start = start + shift;
  Wide new_end = end + shift;
  // Inside the declaration: keep the offset from its first line, stay inside it.
  if (old_start <= start && end <= old_end) {
    new_end = std::min<Wide>(new_end, symbol.end_line);
    new_start = std::min(new_start, new_end);
  }
  return {checked(new_start), checked(new_end)};
}

}  // namespace tolbarrow::workers::wiki::citation_refresh

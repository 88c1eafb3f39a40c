// Relocating anchored citations: finding a stored declaration again in the current index, and
// moving the citation's lines with it.
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::workers::wiki::citation_refresh {
namespace {

using detail::WideLine;

WideLine distance(Line a, Line b) {
  const WideLine d = static_cast<WideLine>(a) - static_cast<WideLine>(b);
  return d < 0 ? -d : d;
}

Line strict_line(const Record* value, const char* key) {
  if (value == nullptr) throw MissingKey(key);
  return detail::to_line(*value, key);
}

}  // namespace

namespace detail {

const Symbol* find_again(std::span<const Symbol> symbols, std::span<const SymbolKey> keys,
                         const CitationMembers& citation) {
  Line old = 0;
  if (const Record* start = if_present(citation.symbol_start))
    old = to_line(*start, "symbol_start");
  // By fully qualified name first; only when that names nothing, by short name.
  const std::pair<std::string Symbol::*, const Record*> passes[] = {{&Symbol::fqn, citation.symbol},
                                                                    {&Symbol::name, citation.name}};
  for (const auto& [field, member] : passes) {
    const Record* value = if_present(member);
    if (value == nullptr || !value->is_string()) continue;  // a non-text value equals no name
    const auto& wanted = value->get_ref<const std::string&>();
    const std::size_t hash = keys.empty() ? 0 : name_hash(wanted);
    const Symbol* best = nullptr;
    WideLine best_distance = 0;
    for (std::size_t i = 0; i < symbols.size(); ++i) {
      if (!keys.empty() && (field == &Symbol::fqn ? keys[i].fqn : keys[i].name) != hash) continue;
      const Symbol& symbol = symbols[i];
      if (symbol.*field != wanted) continue;
      const WideLine d = distance(symbol.start_line, old);
      if (best == nullptr || d < best_distance) best = &symbol, best_distance = d;  // ties: first
    }
    if (best != nullptr) return best;
  }
  return nullptr;
}

const Symbol* find_again(std::span<const Symbol> symbols, const Record& citation) {
  return find_again(symbols, {}, members_of(citation));
}

LineRange relocated_range(const CitationMembers& citation, const Symbol& symbol) {
  const Line start = strict_line(citation.line_start, "line_start");
  const Line end = strict_line(citation.line_end, "line_end");
  const Line old_start = strict_line(citation.symbol_start, "symbol_start");
  const Line old_end = strict_line(citation.symbol_end, "symbol_end");

  // A citation of the whole declaration follows it whole.
  if (start == old_start && end == old_end) return {symbol.start_line, symbol.end_line};

  const WideLine shift = static_cast<WideLine>(symbol.start_line) - old_start;
  WideLine new_start = start + shift;
  WideLine new_end = end + shift;
  // Inside the declaration: keep the offset from its first line, stay inside it.
  if (old_start <= start && end <= old_end) {
    new_end = std::min<WideLine>(new_end, symbol.end_line);
    new_start = std::min(new_start, new_end);
  }
  return {narrow(new_start), narrow(new_end)};
}

}  // namespace detail

LineRange relocated_range(const Record& citation, const Symbol& symbol) {
  return detail::relocated_range(detail::members_of(citation), symbol);
}

}  // namespace tolbarrow::workers::wiki::citation_refresh

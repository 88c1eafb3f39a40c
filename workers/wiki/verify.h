// The host module `verify`: the citation syntax of page prose, anchoring, and its constants.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "workers/wiki/symbol.h"
#include "workers/wiki/text.h"
#include "workers/wiki/types.h"

namespace tolbarrow::workers::wiki::verify {

// Every service may raise; the module catches nothing of them, so the error reaches the caller of
// the refresh unchanged. Services are called on the caller's thread, one at a time.

struct Module {
  // `_SKIP_IDENT_EXTS`: file-name endings; a backticked token whose lower-case form ends with one
  // of them is a file name, not an identifier.
  std::optional<std::vector<std::string>> SKIP_IDENT_EXTS;
  // `_UNANCHORED_KINDS`: Symbol kinds that are never chosen as a named anchor.
  std::optional<std::unordered_set<std::string>> UNANCHORED_KINDS;
  // `anchor_symbol(symbols, first, last)`: the declaration among `symbols` that anchors a
  // citation of those lines, or null. Must return an element of `symbols` (or null).
  std::function<SymbolPtr(const Symbols&, Line, Line)> anchor_symbol;
  // `anchored(record, symbol)`: the record to store for a citation anchored to `symbol` (null for
  // a legacy citation with no anchor). With a symbol it sets `symbol`, `name`, `symbol_start` and
  // `symbol_end` from it. The record passed in is a new map the module does not use again.
  std::function<Record(Record, const SymbolPtr&)> anchored;
  // `prose_citations(text)`: the citations of a page text, in text order.
  std::function<std::vector<CitationMatchPtr>(const Text&)> prose_citations;
  // `rewrite_citations(text, moves)`: the text with each citation whose key is in `moves` given
  // its new range, and nothing else changed.
  std::function<std::string(const Text&, const Moves&)> rewrite_citations;
};

}  // namespace tolbarrow::workers::wiki::verify

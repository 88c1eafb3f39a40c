// A declaration of the host's current index.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "workers/wiki/types.h"

namespace tolbarrow::workers::wiki {

// One declaration of the current index, read only. `kind` is the index's kind vocabulary as text.
// `host` is the host's own object for the declaration: the module hands the host back the very
// object it gave (to `verify.anchored`, and from `anchor_symbol`).
struct Symbol {
  std::string fqn;   // fully qualified name
  std::string name;  // simple name
  std::string kind;
  Line start_line = 0;
  Line end_line = 0;
  HostObject host;
};

// Symbols are shared, never copied: a lookup returns the element of the host's list itself.
using SymbolPtr = std::shared_ptr<const Symbol>;
using Symbols = std::vector<SymbolPtr>;

}  // namespace tolbarrow::workers::wiki

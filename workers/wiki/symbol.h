// A declaration of the host's current index.
#pragma once

#include <string>

#include "workers/wiki/types.h"

namespace tolbarrow::workers::wiki {

// One declaration of the current index, read only. `kind` is the index's kind vocabulary as text.
// The refresh refers to a declaration by the address of its element in the list that the index
// gave (Repository::get_symbols_by_path), and hands back that element, never a copy.
struct Symbol {
  std::string fqn;   // fully qualified name
  std::string name;  // simple name
  std::string kind;
  Line start_line = 0;
  Line end_line = 0;
  friend bool operator==(const Symbol&, const Symbol&) = default;
};

}  // namespace tolbarrow::workers::wiki

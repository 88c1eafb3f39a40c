// Helpers shared by the module's sources; not part of its surface.
#pragma once

#include <string>

#include "workers/wiki/types.h"

namespace tolbarrow::workers::wiki::citation_refresh::internal {

// Python-like truth of a JSON value: null, false, 0, "", [] and {} are false.
inline bool truthy(const Record& v) {
  switch (v.type()) {
    case Record::value_t::null:
      return false;
    case Record::value_t::boolean:
      return v.get<bool>();
    case Record::value_t::number_integer:
      return v.get<std::int64_t>() != 0;
    case Record::value_t::number_unsigned:
      return v.get<std::uint64_t>() != 0;
    case Record::value_t::number_float:
      return v.get<double>() != 0.0;
    case Record::value_t::string:
      return !v.get_ref<const std::string&>().empty();  // nlohmann's empty() is for containers
    case Record::value_t::array:
    case Record::value_t::object:
      return !v.empty();
    default:
      return true;
  }
}

// The member `key` of a map when it is present and true (not null, not empty); else null.
inline const Record* truthy_member(const Record& map, const char* key) {
  if (!map.is_object()) return nullptr;
  auto it = map.find(key);
  return it != map.end() && truthy(*it) ? &*it : nullptr;
}

}  // namespace tolbarrow::workers::wiki::citation_refresh::internal

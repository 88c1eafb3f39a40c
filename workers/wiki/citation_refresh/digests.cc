// The wiki's "digests.json": reading it, and moving one page digest's citation ranges.
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::workers::wiki::citation_refresh::detail {

Record read_digests(FileSystem& file_system, const std::filesystem::path& path) {
  std::string bytes;
  try {
    bytes = file_system.read_file(path);
  } catch (const std::exception&) {
    return Record::object();  // absent or unreadable: no digests yet
  }
  // Not strict UTF-8 (a byte-order mark included), not JSON, or not an object: an empty map,
  // which the refresh writes back.
  if (bytes.rfind("\xEF\xBB\xBF", 0) == 0 || first_invalid_utf8(bytes) != std::string_view::npos) {
    return Record::object();
  }
  Record parsed = Record::parse(bytes, nullptr, /*allow_exceptions=*/false);
  return parsed.is_object() ? parsed : Record::object();
}

void move_digest_citations(Record* digest, const Moves& moves) {
  if (digest == nullptr || !digest->is_object()) return;
  // Absent, null, false, zero or empty citations: nothing to move.
  auto citations = digest->find("citations");
  if (citations == digest->end() || !present(*citations) || *citations == false ||
      (citations->is_number() && *citations == 0)) {
    return;
  }
  if (!citations->is_array()) {
    throw RecordTypeError("digest citations: expected a list, got " + citations->dump());
  }
  for (Record& citation : *citations) {
    if (!citation.is_object()) {
      throw RecordTypeError("digest citation: expected a map, got " + citation.dump());
    }
    if (const LineRange* range = moves.find(stored_key(citation))) {
      citation["line_start"] = range->first;
      citation["line_end"] = range->last;
    }
  }
}

}  // namespace tolbarrow::workers::wiki::citation_refresh::detail

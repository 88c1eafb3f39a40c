// The wiki's "digests.json": reading it, and moving one page digest's citation ranges.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "workers/wiki/citation_refresh.h"
#include "workers/wiki/citation_refresh/files_io.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::workers::wiki::citation_refresh {
namespace internal {

void read_bytes(const std::filesystem::path& path, std::string& out, std::error_code& error) {
  error.clear();
  out.clear();
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    error.assign(errno, std::generic_category());
    return;
  }
  char buffer[1 << 16];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      out.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      error.assign(errno, std::generic_category());
      break;
    }
  }
  ::close(fd);
}

}  // namespace internal

namespace detail {

Record read_digests(const std::filesystem::path& path) {
  std::string bytes;
  std::error_code error;
  internal::read_bytes(path, bytes, error);
  // Absent, unreadable, not strict UTF-8 (a byte-order mark included), not JSON, or not an
  // object: an empty map, which the refresh writes back.
  if (error || bytes.rfind("\xEF\xBB\xBF", 0) == 0 ||
      first_invalid_utf8(bytes) != std::string_view::npos) {
    return Record::object();
  }
  Record parsed = Record::parse(bytes, nullptr, /*allow_exceptions=*/false);
  return parsed.is_object() ? parsed : Record::object();
}

void move_digest_citations(Record* digest, const Moves& moves) {
  if (digest == nullptr || !digest->is_object()) return;
  Record* citations = const_cast<Record*>(internal::truthy_member(*digest, "citations"));
  if (citations == nullptr) return;
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

}  // namespace detail
}  // namespace tolbarrow::workers::wiki::citation_refresh

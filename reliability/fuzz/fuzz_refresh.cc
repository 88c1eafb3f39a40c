// libFuzzer target over the parts of the refresh that read untrusted bytes. The first input byte
// picks the part; the rest is its input:
//   0  claim_identifiers at every eighth offset of a page
//   1  "digests.json": read, move every citation by one line, serialise, read back
//   2  markdown citations: find, then rewrite each one line down
//   3  records: to_line, to_path and stored_key of any JSON value
// Errors the functions document (InvalidUtf8, RecordTypeError, RecordValueError, out_of_range)
// are fine; a crash, a sanitizer report or an unexpected exception is a finding.
#include <cstddef>
#include <cstdint>
#include <string>

#include "hosts/memory/memory_host.h"
#include "hosts/native/citation_syntax.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace {
namespace wiki = tolbarrow::workers::wiki;
namespace cr = wiki::citation_refresh;
using tolbarrow::hosts::memory::MemoryHost;

void claims(const std::string& bytes) {
  static MemoryHost host;
  const wiki::Text text(bytes, "fuzz");
  for (std::size_t at = 0; at <= text.length(); at += 8) {
    (void)cr::claim_identifiers(host.host(), text, at);
  }
}

void digests(const std::string& bytes) {
  std::vector<std::string> calls;
  tolbarrow::hosts::memory::MemoryFileSystem files(calls);
  files.files["/d.json"] = bytes;
  wiki::Record map = cr::detail::read_digests(files, "/d.json");
  wiki::Moves moves;
  for (auto& [page, digest] : map.items()) {
    auto citations = digest.is_object() ? digest.find("citations") : digest.end();
    if (!digest.is_object() || citations == digest.end() || !citations->is_array()) continue;
    for (const auto& citation : *citations) {
      if (!citation.is_object()) continue;
      const wiki::CitationKey key = cr::detail::stored_key(citation);
      if (key.start < INT64_MAX && key.end < INT64_MAX) {
        moves.set(key, wiki::LineRange{key.start + 1, key.end + 1});
      }
    }
    cr::detail::move_digest_citations(&digest, moves);
  }
  files.files["/d.json"] = cr::detail::dump_digests(map);
  if (cr::detail::read_digests(files, "/d.json") != map) __builtin_trap();  // round trip
}

void citations(const std::string& bytes) {
  static tolbarrow::hosts::native::MarkdownCitationSyntax syntax;
  const wiki::Text text(bytes, "fuzz");
  wiki::Moves moves;
  syntax.find(text, [&](const wiki::Citation& citation) {
    const auto& key = citation.key;
    if (key.start < INT64_MAX && key.end < INT64_MAX) {
      moves.set(key, wiki::LineRange{key.start + 1, key.end + 1});
    }
  });
  const std::string rewritten = syntax.rewrite(text, moves);
  (void)syntax.last_end(text, 0, text.length());
  (void)wiki::Text(rewritten, "rewritten");  // still UTF-8
}

void records(const std::string& bytes) {
  const wiki::Record value = wiki::Record::parse(bytes, nullptr, /*allow_exceptions=*/false);
  (void)cr::detail::to_path(value);
  if (value.is_object()) {
    try {
      (void)cr::detail::stored_key(value);
    } catch (const cr::RecordTypeError&) {
    } catch (const cr::RecordValueError&) {
    }
  }
  (void)cr::detail::to_line(value, "fuzz");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  try {
    switch (data[0] % 4) {
      case 0:
        claims(bytes);
        break;
      case 1:
        digests(bytes);
        break;
      case 2:
        citations(bytes);
        break;
      default:
        records(bytes);
        break;
    }
  } catch (const wiki::InvalidUtf8&) {
  } catch (const std::out_of_range&) {
  } catch (const cr::RecordTypeError&) {
  } catch (const cr::RecordValueError&) {
  }
  return 0;
}

// libFuzzer target: the digest file. The input is "digests.json", then the bytes that choose the
// moves (see fuzz_input.h): for each digest citation, whether it moves and to which lines (any
// 64-bit lines), plus moves of keys that no citation has.
//
// Checked: reading never throws; moving throws only the documented RecordTypeError or
// RecordValueError for a digest whose citations are not a list of maps or whose lines are no
// 64-bit lines; the moved map, written and read back, equals the moved map; writing what was read
// back gives the same text; and a file taken to be moved in its text (DigestText) is one that the
// map writes back unchanged, each page of it throws in the text as in the map, and it ends as the
// moved map is written.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "hosts/memory/memory_host.h"
#include "reliability/fuzz/fuzz_input.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace {
namespace wiki = tolbarrow::workers::wiki;
namespace cr = wiki::citation_refresh;
using tolbarrow::hosts::memory::MemoryFileSystem;

const char* const kPath = "/wiki/digests.json";

// The digest map the refresh would start from. A reader that refuses a file (for example for a
// number it cannot carry exactly) must say so with an error; refusing is a fine outcome here.
std::optional<wiki::Record> read(MemoryFileSystem& files) {
  return cr::detail::read_digests(files, kPath);
}

wiki::Moves pick_moves(wiki::Record& map, FuzzedDataProvider& input) {
  wiki::Moves moves;
  const auto line = [&] { return input.ConsumeIntegral<wiki::Line>(); };
  for (auto& [page, digest] : map.items()) {
    if (!digest.is_object()) continue;
    auto citations = digest.find("citations");
    if (citations == digest.end() || !citations->is_array()) continue;
    for (const wiki::Record& citation : *citations) {
      if (!citation.is_object() || !input.ConsumeBool()) continue;
      try {
        moves.set(cr::detail::stored_key(citation), wiki::LineRange{line(), line()});
      } catch (const cr::RecordTypeError&) {
      } catch (const cr::RecordValueError&) {
      }
    }
  }
  while (input.remaining_bytes() > 0 && input.ConsumeBool()) {
    moves.set(wiki::CitationKey{input.ConsumeRandomLengthString(16), line(), line()},
              wiki::LineRange{line(), line()});
  }
  return moves;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput fuzz(data, size);
  FuzzedDataProvider& input = fuzz.choices;
  std::vector<std::string> calls;
  MemoryFileSystem files(calls);
  files.files[kPath] = fuzz.body;

  std::optional<wiki::Record> map = read(files);
  if (!map) return 0;
  if (!map->is_object()) __builtin_trap();
  // The same file moved in its text, when it is taken as text: only a file that the map writes
  // back unchanged may be.
  std::string body = fuzz.body;
  std::optional<cr::detail::DigestText> text = cr::detail::DigestText::read(body);
  if (text && cr::detail::dump_digests(*map) != fuzz.body) __builtin_trap();
  const wiki::Moves moves = pick_moves(*map, input);
  bool threw = false;
  std::vector<cr::detail::DigestChange> changed;
  for (auto item = map->begin(); item != map->end(); ++item) {
    const std::string& page = item.key();
    wiki::Record& digest = item.value();
    const auto move = [&](auto&& how) {
      try {
        how();
        return false;
      } catch (const cr::RecordTypeError&) {
      } catch (const cr::RecordValueError&) {
      }
      return true;
    };
    const bool by_map = move([&] { cr::detail::move_digest_citations(&digest, moves); });
    if (text && move([&] { text->move(page, moves, changed); }) != by_map) __builtin_trap();
    threw = threw || by_map;
  }

  const std::string written = cr::detail::dump_digests(*map);
  if (text && !threw && text->text() != written) __builtin_trap();  // moved otherwise
  files.files[kPath] = written;
  const std::optional<wiki::Record> reread = read(files);
  if (!reread || *reread != *map) __builtin_trap();  // lost or changed on the way through the file
  if (cr::detail::dump_digests(*reread) != written) __builtin_trap();  // not stable
  return 0;
}

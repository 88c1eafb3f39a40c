// libFuzzer target: the native host's markdown citations. The input is the page, then the bytes
// that choose the moves (for each citation found, whether it moves and to which lines; see
// fuzz_input.h).
//
// Checked: rewriting with no moves gives the same bytes; the rewritten page is UTF-8 and holds
// the same citations at their new lines, in the same order; rewriting it again with the same moves
// changes nothing when no citation's new lines are another moved citation's old ones (with those
// the second rewrite moves them on, as it should); last_end never reaches past the end it is given.
// The page is also scanned repeated 16 times: a scan slower than linear in the page's size takes
// time in the square of that, which run.sh's time limit per input reports (Debian's md4c 0.4.8
// took that on one paragraph of many lines; run.sh first runs such pages, slow/citations/).
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "hosts/native/citation_syntax.h"
#include "reliability/fuzz/fuzz_input.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace {
namespace wiki = tolbarrow::workers::wiki;

// The largest line the citation pattern reads back (18 digits).
constexpr wiki::Line kLargestLine = 999'999'999'999'999'999;

std::vector<wiki::CitationKey> keys(tolbarrow::hosts::native::MarkdownCitationSyntax& syntax,
                                    const wiki::Text& text) {
  std::vector<wiki::CitationKey> out;
  syntax.find(text, [&](const wiki::Citation& citation) { out.push_back(citation.key); });
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static tolbarrow::hosts::native::MarkdownCitationSyntax syntax;
  // Forge links of o/r on github.com are citations too (a branch with a '/' among its refs).
  static const bool with_forge = [] {
    syntax.set_forge(std::make_shared<const tolbarrow::hosts::native::Forge>(
        tolbarrow::hosts::native::Forge{"github.com", "o/r", {"feature/x"}}));
    return true;
  }();
  (void)with_forge;
  FuzzInput fuzz(data, size);
  FuzzedDataProvider& input = fuzz.choices;
  std::optional<wiki::Text> text;
  try {
    text.emplace(std::move(fuzz.body), "fuzz");
  } catch (const wiki::InvalidUtf8&) {
    return 0;
  }
  if (syntax.rewrite(*text, wiki::Moves()) != text->str()) __builtin_trap();
  if (auto end = syntax.last_end(*text, 0, text->length()); end && *end > text->length()) {
    __builtin_trap();
  }

  const std::vector<wiki::CitationKey> found = keys(syntax, *text);
  {
    std::string repeated;
    repeated.reserve(text->str().size() * 16);
    for (int i = 0; i < 16; ++i) repeated += text->str();
    keys(syntax, wiki::Text(std::move(repeated), "repeated"));
  }
  wiki::Moves moves;
  for (const wiki::CitationKey& key : found) {
    if (!input.ConsumeBool()) continue;
    const wiki::Line first = input.ConsumeIntegralInRange<wiki::Line>(0, kLargestLine);
    const wiki::Line last =
        input.ConsumeBool() ? first : input.ConsumeIntegralInRange<wiki::Line>(0, kLargestLine);
    moves.set(key, wiki::LineRange{first, last});
  }

  const wiki::Text once(syntax.rewrite(*text, moves), "rewritten");  // throws if not UTF-8
  const std::vector<wiki::CitationKey> moved = keys(syntax, once);
  if (moved.size() != found.size()) __builtin_trap();
  bool chained = false;
  for (std::size_t i = 0; i < found.size(); ++i) {
    wiki::CitationKey expected = found[i];
    if (const wiki::LineRange* range = moves.find(found[i])) {
      expected.start = range->first;
      expected.end = range->last;
      chained = chained || (expected != found[i] && moves.contains(expected));
    }
    if (moved[i] != expected) __builtin_trap();
  }
  if (!chained && syntax.rewrite(once, moves) != once.str()) __builtin_trap();
  return 0;
}

// libFuzzer target: claim_identifiers over arbitrary text and positions, with the native host's
// markdown citations cutting the claim. The input's last bytes pick the positions; the rest is
// the page. Text that is not UTF-8 is refused by Text (InvalidUtf8) before any claim is read.
//
// Checked for every position: a position past the end throws std::out_of_range and nothing else;
// any other returns names that are each 2 to 80 characters, hold none of the characters that end
// or split a name ("`", "/", "(", "=", ":", ".", white space), and occur in the 260 characters
// before the position.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "hosts/memory/memory_host.h"
#include "hosts/native/citation_syntax.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace {
namespace wiki = tolbarrow::workers::wiki;
namespace cr = wiki::citation_refresh;

bool splits_a_name(char c) {
  return std::string_view("`/(=:. \t\n\v\f\r").find(c) != std::string_view::npos;
}

void check(const cr::Host& host, const wiki::Text& text, std::size_t position) {
  if (position > text.length()) {
    try {
      (void)cr::claim_identifiers(host, text, position);
    } catch (const std::out_of_range&) {
      return;
    }
    __builtin_trap();  // a position past the end was accepted
  }
  const std::size_t start =
      position > cr::detail::CLAIM_WINDOW ? position - cr::detail::CLAIM_WINDOW : 0;
  const std::string_view window = text.slice(start, position);
  for (const std::string& name : cr::claim_identifiers(host, text, position)) {
    const std::size_t points = wiki::count_points(name);
    if (points < 2 || points > 80) __builtin_trap();
    for (char c : name) {
      if (splits_a_name(c)) __builtin_trap();
    }
    if (window.find(name) == std::string_view::npos) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static tolbarrow::hosts::memory::MemoryHost memory;
  static tolbarrow::hosts::native::MarkdownCitationSyntax markdown;
  static const cr::Host base = memory.host();
  static const cr::Host host{markdown,         base.anchoring, base.ranges,
                             base.file_system, base.locks,     base.logger};

  FuzzedDataProvider input(data, size);
  std::size_t positions[4];
  for (std::size_t& at : positions) at = input.ConsumeIntegral<std::uint16_t>();
  std::optional<wiki::Text> text;
  try {
    text.emplace(input.ConsumeRemainingBytesAsString(), "fuzz");
  } catch (const wiki::InvalidUtf8&) {
    return 0;
  }
  // The picked positions, one past the end, and every 37th offset.
  for (std::size_t at : positions) check(host, *text, at % (text->length() + 2));
  for (std::size_t at = 0; at <= text->length(); at += 37) check(host, *text, at);
  return 0;
}

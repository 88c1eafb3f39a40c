// Anchoring legacy citations: reading the identifiers that the claim before a citation names, and
// choosing the declaration to anchor the citation to.
#include <unicode/ucasemap.h>

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>

#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::workers::wiki::citation_refresh {
namespace {

// Where one sentence ends and the next begins: white space after . ! or ? before a capital or a
// backtick, or a blank line.
const Regex& sentence_boundary() {
  static const Regex re("(?<=[.!?])\\s+(?=[A-Z`])|\\n\\n");
  return re;
}

// The first character at which a span stops being a name: "(", white space, "=" or ":".
const Regex& cut_point() {
  static const Regex re("[(\\s=:]");
  return re;
}

// Lower-cases valid UTF-8 by Unicode's full lower-case mapping, whatever the process locale (as
// Python's str.lower does: "İ" becomes "i̇", a final "Σ" becomes "ς").
std::string lower(std::string_view s) {
  static UCaseMap* const map = [] {
    UErrorCode status = U_ZERO_ERROR;
    UCaseMap* made = ucasemap_open("", 0, &status);
    if (U_FAILURE(status)) throw std::runtime_error(std::string("ICU: ") + u_errorName(status));
    return made;
  }();
  std::string out(s.size() + 8, '\0');
  for (;;) {
    UErrorCode status = U_ZERO_ERROR;
    const int32_t n = ucasemap_utf8ToLower(map, out.data(), static_cast<int32_t>(out.size()),
                                           s.data(), static_cast<int32_t>(s.size()), &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
      out.assign(static_cast<std::size_t>(n), '\0');
      continue;
    }
    if (U_FAILURE(status)) throw std::runtime_error(std::string("ICU: ") + u_errorName(status));
    out.resize(static_cast<std::size_t>(n));
    return out;
  }
}

bool ends_with(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

bool is_ascii(std::string_view s) {
  return std::all_of(s.begin(), s.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool ascii_space(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Whether the code point that starts at s[i] (not ASCII) may be white space: U+0085, U+00A0,
// U+1680, U+180E, U+2000..U+200B, U+2028, U+2029, U+202F, U+205F or U+3000. Text with none of
// them has only ASCII white space.
bool may_be_wide_space(std::string_view s, std::size_t i) {
  const auto at = [&](std::size_t k) {
    return i + k < s.size() ? static_cast<unsigned char>(s[i + k]) : 0;
  };
  switch (at(0)) {
    case 0xC2:
      return at(1) == 0x85 || at(1) == 0xA0;
    case 0xE1:
      return (at(1) == 0x9A && at(2) == 0x80) || (at(1) == 0xA0 && at(2) == 0x8E);
    case 0xE2:
      return (at(1) == 0x80 && ((at(2) >= 0x80 && at(2) <= 0x8B) || at(2) == 0xA8 ||
                                at(2) == 0xA9 || at(2) == 0xAF)) ||
             (at(1) == 0x81 && at(2) == 0x9F);
    case 0xE3:
      return at(1) == 0x80 && at(2) == 0x80;
    default:
      return false;
  }
}

// What last_sentence() stops at: ". ! ?" (a boundary may follow), a line feed (two make one),
// and the first bytes of the non-ASCII white space (C2, E1, E2, E3). Everything else is passed
// over without a look.
enum : unsigned char { kPlain = 0, kStop = 1, kLineFeed = 2, kWideLead = 3 };
constexpr auto kSentenceBytes = [] {
  std::array<unsigned char, 256> table{};
  table['.'] = table['!'] = table['?'] = kStop;
  table['\n'] = kLineFeed;
  table[0xC2] = table[0xE1] = table[0xE2] = table[0xE3] = kWideLead;
  return table;
}();

// Where the last sentence of `chunk` begins: the end of the last sentence boundary, found left
// to right as sentence_boundary() finds them. Scans by hand when the chunk's only white space is
// ASCII (the common case), else with the pattern.
std::size_t last_sentence(std::string_view chunk) {
  const auto* p = reinterpret_cast<const unsigned char*>(chunk.data());
  const std::size_t n = chunk.size();
  std::size_t sentence = 0;
  std::size_t i = 0;
  for (;;) {
    while (i < n && kSentenceBytes[p[i]] == kPlain) ++i;
    if (i >= n) return sentence;
    switch (kSentenceBytes[p[i]]) {
      case kStop: {
        // White space after the stop up to a capital or a backtick: a boundary, which the scan
        // passes whole. Otherwise the white space is scanned as any other (two line feeds in it
        // still make one).
        std::size_t end = ++i;
        while (end < n && ascii_space(chunk[end])) ++end;
        if (end > i && end < n && ((chunk[end] >= 'A' && chunk[end] <= 'Z') || chunk[end] == '`')) {
          sentence = i = end;
        }
        break;
      }
      case kLineFeed:
        if (i + 1 < n && chunk[i + 1] == '\n') {
          sentence = i = i + 2;
        } else {
          ++i;
        }
        break;
      default:
        if (may_be_wide_space(chunk, i)) {
          sentence = 0;
          while (auto m = sentence_boundary().search(chunk, sentence)) sentence = m->end;
          return sentence;
        }
        ++i;
    }
  }
}

// The next backticked span of 2 to 80 characters without a line feed at or after `at`, as
// CLAIM_IDENT_RE finds it: its inside, and where the search goes on (npos: no more).
std::optional<std::pair<std::string_view, std::size_t>> next_span(std::string_view chunk,
                                                                  std::size_t at) {
  for (std::size_t open = chunk.find('`', at); open != std::string_view::npos;) {
    const std::size_t close = chunk.find('`', open + 1);
    if (close == std::string_view::npos) return std::nullopt;
    const std::string_view inside = chunk.substr(open + 1, close - open - 1);
    if (inside.find('\n') == std::string_view::npos) {
      const std::size_t points = count_points(inside);
      if (points >= 2 && points <= 80) return std::pair{inside, close + 1};
    }
    open = close;  // the closing backtick may open the next span
  }
  return std::nullopt;
}

// Whether `token` ends with one of the file-name endings `skip`, compared in lower case.
bool file_name(std::string_view token, const std::vector<std::string>& skip) {
  if (is_ascii(token)) {
    char buffer[80];  // a span holds at most 80 characters, here bytes
    const std::size_t n = std::min(token.size(), sizeof buffer);
    for (std::size_t i = 0; i < n; ++i) {
      const char c = token[i];
      buffer[i] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    const std::string_view lowered(buffer, n);
    return std::any_of(skip.begin(), skip.end(),
                       [&](const std::string& ext) { return ends_with(lowered, ext); });
  }
  const std::string lowered = lower(token);
  return std::any_of(skip.begin(), skip.end(),
                     [&](const std::string& ext) { return ends_with(lowered, ext); });
}

// Where a span stops being a name (cut_point()), or npos.
std::size_t cut_at(std::string_view token) {
  if (is_ascii(token)) return token.find_first_of("( \t\n\v\f\r=:");
  const auto cut = cut_point().search(token);
  return cut ? cut->begin : std::string_view::npos;
}

}  // namespace

namespace detail {

const Regex& CLAIM_IDENT_RE() {
  static const Regex re(CLAIM_IDENT_PATTERN);
  return re;
}

}  // namespace detail

namespace detail {

void claim_names(const Host& host, const Text& text, std::size_t position,
                 std::vector<std::string_view>& out) {
  out.clear();
  if (position > text.length()) {
    throw std::out_of_range("claim_identifiers: position " + std::to_string(position) +
                            " is past the end of the text (" + std::to_string(text.length()) +
                            " characters)");
  }
  const std::size_t start = position > CLAIM_WINDOW ? position - CLAIM_WINDOW : 0;

  // The claim starts after the last earlier citation inside the look-back, if any.
  std::size_t claim_start = start;
  if (const auto previous = host.syntax.last_end(text, start, position)) {
    claim_start = std::min(*previous, position);
  }

  // Only the last sentence of the claim counts. The chunk is searched as a string of its own.
  const std::size_t chunk_begin = text.byte_at(claim_start);
  std::string_view chunk =
      std::string_view(text.str()).substr(chunk_begin, text.byte_at(position) - chunk_begin);
  chunk = chunk.substr(last_sentence(chunk));

  const auto& skip = host.anchoring.file_name_endings();
  std::size_t at = 0;
  while (const auto span = next_span(chunk, at)) {
    std::string_view token = span->first;
    at = span->second;
    if (token.find('/') != std::string_view::npos) continue;  // a path
    if (file_name(token, skip)) continue;
    // A call or assignment counts by what comes before it, a dotted name by its last name.
    if (const auto cut = cut_at(token); cut != std::string_view::npos) token = token.substr(0, cut);
    if (auto dot = token.rfind('.'); dot != std::string_view::npos) token = token.substr(dot + 1);
    if (count_points(token) >= 2) out.push_back(token);
  }
}

}  // namespace detail

std::vector<std::string> claim_identifiers(const Host& host, const Text& text,
                                           std::size_t position) {
  std::vector<std::string_view> names;
  detail::claim_names(host, text, position, names);
  return {names.begin(), names.end()};
}

namespace detail {

std::pair<const Symbol*, LineRange> legacy_anchor(const Host& host, std::span<const Symbol> symbols,
                                                  std::span<const SymbolKey> keys, Line start,
                                                  Line end,
                                                  std::span<const std::string_view> names) {
  // Claims name a few identifiers: a linear search, by hash first where the keys are given.
  constexpr std::size_t kHashed = 16;
  std::array<std::size_t, kHashed> hashes{};
  const bool hashed = !keys.empty() && names.size() <= kHashed;
  if (hashed) {
    for (std::size_t j = 0; j < names.size(); ++j) hashes[j] = name_hash(names[j]);
  }
  // Where a declaration's name is first mentioned: the later that is, the nearer the citation
  // and the more the name is preferred. npos: not named.
  const auto mention = [&](std::size_t i) {
    for (std::size_t j = 0; j < names.size(); ++j) {
      if ((!hashed || hashes[j] == keys[i].name) && symbols[i].name == names[j]) return j;
    }
    return std::string_view::npos;
  };
  // Among the named declarations, the most preferred one that overlaps the citation wins, else
  // the most preferred one; ties go to the index's order.
  const Symbol* overlapping = nullptr;
  const Symbol* preferred = nullptr;
  std::size_t overlapping_rank = 0, preferred_rank = 0;
  for (std::size_t i = 0; i < symbols.size(); ++i) {
    const Symbol& symbol = symbols[i];
    const std::size_t rank = mention(i);
    if (rank == std::string_view::npos || host.anchoring.unanchored_kind(symbol.kind)) continue;
    if (preferred == nullptr || rank > preferred_rank) preferred = &symbol, preferred_rank = rank;
    if (symbol.start_line <= end && start <= symbol.end_line &&
        (overlapping == nullptr || rank > overlapping_rank)) {
      overlapping = &symbol, overlapping_rank = rank;
    }
  }
  if (preferred == nullptr)
    return {host.anchoring.anchor_symbol(symbols, start, end), {start, end}};
  if (overlapping != nullptr) return {overlapping, {start, end}};
  // Named elsewhere: the citation moves to the declaration's first line, keeping its span.
  const WideLine span = std::max<WideLine>(0, static_cast<WideLine>(end) - start);
  const WideLine last = std::min<WideLine>(preferred->end_line, preferred->start_line + span);
  return {preferred, {preferred->start_line, narrow(last)}};
}

std::pair<const Symbol*, LineRange> legacy_anchor(const Host& host, std::span<const Symbol> symbols,
                                                  Line start, Line end,
                                                  std::span<const std::string_view> names) {
  return legacy_anchor(host, symbols, {}, start, end, names);
}

}  // namespace detail
}  // namespace tolbarrow::workers::wiki::citation_refresh

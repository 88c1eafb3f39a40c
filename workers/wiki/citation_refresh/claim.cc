// Anchoring legacy citations: reading the identifiers that the claim before a citation names, and
// choosing the declaration to anchor the citation to.
#include <unicode/ucasemap.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
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

// What a claim's scan stops at: ". ! ?" (a sentence boundary may follow), a line feed (two make a
// boundary; none may stand inside a span), a backtick (spans), and the first bytes of the
// non-ASCII white space (C2, E1, E2, E3). Everything else is passed over without a look.
enum : unsigned char { kPlain = 0, kStop, kLineFeed, kTick, kWideLead };
constexpr auto kClaimBytes = [] {
  std::array<unsigned char, 256> table{};
  table['.'] = table['!'] = table['?'] = kStop;
  table['\n'] = kLineFeed;
  table['`'] = kTick;
  table[0xC2] = table[0xE1] = table[0xE2] = table[0xE3] = kWideLead;
  return table;
}();

// The first byte at or after `i` that kClaimBytes does not call plain, or `n`. Sixteen bytes at a
// time where the compiler's vector types allow (a claim is a few hundred bytes with a stop every
// few dozen), then byte by byte.
std::size_t next_stop(const unsigned char* p, std::size_t i, std::size_t n) {
  if constexpr (std::endian::native == std::endian::little) {
    using Bytes = unsigned char __attribute__((vector_size(16)));
    for (; i + 16 <= n; i += 16) {
      Bytes v;
      std::memcpy(&v, p + i, 16);
      const auto stop = (v == '.') | (v == '!') | (v == '?') | (v == '\n') | (v == '`') |
                        (v == 0xC2) | ((v >= 0xE1) & (v <= 0xE3));
      std::uint64_t halves[2];
      std::memcpy(halves, &stop, 16);
      if (halves[0] != 0) return i + static_cast<std::size_t>(__builtin_ctzll(halves[0])) / 8;
      if (halves[1] != 0) return i + 8 + static_cast<std::size_t>(__builtin_ctzll(halves[1])) / 8;
    }
  }
  while (i < n && kClaimBytes[p[i]] == kPlain) ++i;
  return i;
}

// Where the scan below stops: a span's inside ends at the first of them.
constexpr auto kCutBytes = [] {
  std::array<bool, 256> table{};
  for (const unsigned char c : std::string_view("( \t\n\v\f\r=:")) table[c] = true;
  return table;
}();

// What one pass over a claim finds: where its last sentence begins, and its backticks and line
// feeds (byte offsets in the claim). A claim holds at most CLAIM_WINDOW characters, so at most
// that many of either.
struct ClaimScan {
  std::size_t sentence = 0;
  std::array<std::uint16_t, detail::CLAIM_WINDOW> ticks, line_feeds;
  std::size_t tick_count = 0, line_feed_count = 0;
};

// Scans `chunk` (at most CLAIM_WINDOW characters) once. The last sentence begins at the end of
// the last sentence boundary, found left to right as sentence_boundary() finds them: by hand while
// the chunk's white space is ASCII (the common case), else with the pattern.
void scan_claim(std::string_view chunk, ClaimScan& scan) {
  const auto* p = reinterpret_cast<const unsigned char*>(chunk.data());
  const std::size_t n = chunk.size();
  const auto line_feed = [&](std::size_t at) {
    scan.line_feeds[scan.line_feed_count++] = static_cast<std::uint16_t>(at);
  };
  bool wide = false;  // white space outside ASCII: the pattern finds the sentence
  std::size_t i = 0;
  for (;;) {
    i = next_stop(p, i, n);
    if (i >= n) break;
    switch (kClaimBytes[p[i]]) {
      case kStop: {
        // White space after the stop up to a capital or a backtick: a boundary, which the scan
        // passes whole (two line feeds in it make no boundary of their own). Its line feeds stand
        // before the last sentence, where no span is read, whoever finds the sentence: the
        // pattern finds this boundary too.
        std::size_t end = ++i;
        while (end < n && ascii_space(chunk[end])) ++end;
        if (!wide && end > i && end < n &&
            ((chunk[end] >= 'A' && chunk[end] <= 'Z') || chunk[end] == '`')) {
          scan.sentence = i = end;
        }
        break;
      }
      case kLineFeed:
        // Two line feeds: a boundary, before the last sentence like the stop's.
        if (!wide && i + 1 < n && chunk[i + 1] == '\n') {
          scan.sentence = i += 2;
        } else {
          line_feed(i++);
        }
        break;
      case kTick:
        scan.ticks[scan.tick_count++] = static_cast<std::uint16_t>(i++);
        break;
      default:
        wide = wide || may_be_wide_space(chunk, i);
        ++i;
    }
  }
  if (wide) {
    scan.sentence = 0;
    while (auto m = sentence_boundary().search(chunk, scan.sentence)) scan.sentence = m->end;
  }
}

// Whether `bytes` (valid UTF-8) holds 2 to 80 characters; counted only where the length in bytes
// does not tell (a character takes 1 to 4 bytes).
bool span_length(std::string_view bytes) {
  if (bytes.size() < 2 || bytes.size() > 4 * 80) return false;
  if (bytes.size() >= 5 && bytes.size() <= 80) return true;
  const std::size_t points = count_points(bytes);
  return points >= 2 && points <= 80;
}

// Whether an ASCII `token` ends with `ending`, compared in lower case.
bool ends_with_lowered(std::string_view token, std::string_view ending) {
  if (token.size() < ending.size()) return false;
  const std::string_view tail = token.substr(token.size() - ending.size());
  for (std::size_t i = 0; i < tail.size(); ++i) {
    const char c = tail[i];
    if ((c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c) != ending[i]) return false;
  }
  return true;
}

// The name a backticked span names, or nothing: a path or a file name names none; a call or
// assignment names what comes before it, a dotted name its last name.
std::optional<std::string_view> span_name(std::string_view token,
                                          const std::vector<std::string>& skip) {
  bool ascii = true, path = false;
  std::size_t cut = std::string_view::npos;
  for (std::size_t i = 0; i < token.size(); ++i) {
    const auto c = static_cast<unsigned char>(token[i]);
    ascii = ascii && c < 0x80;
    path = path || c == '/';
    if (cut == std::string_view::npos && kCutBytes[c]) cut = i;
  }
  if (path) return std::nullopt;
  if (ascii) {
    for (const std::string& ending : skip) {
      if (ends_with_lowered(token, ending)) return std::nullopt;
    }
  } else {
    const std::string lowered = lower(token);
    for (const std::string& ending : skip) {
      if (ends_with(lowered, ending)) return std::nullopt;
    }
    // Unicode white space cuts too.
    const auto wide_cut = cut_point().search(token);
    cut = wide_cut ? wide_cut->begin : std::string_view::npos;
  }
  if (cut != std::string_view::npos) token = token.substr(0, cut);
  if (auto dot = token.rfind('.'); dot != std::string_view::npos) token = token.substr(dot + 1);
  if (token.size() < 2 || (!ascii && count_points(token) < 2)) return std::nullopt;
  return token;
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
  const std::string_view chunk =
      std::string_view(text.str()).substr(chunk_begin, text.byte_at(position) - chunk_begin);
  ClaimScan scan;
  scan_claim(chunk, scan);

  // The spans of the last sentence, as CLAIM_IDENT_RE finds them left to right: from each
  // backtick not yet used, the text up to the next backtick is a span when it holds no line feed
  // and 2 to 80 characters (both backticks are then used); otherwise the next backtick may open
  // one.
  const auto& skip = host.anchoring.file_name_endings();
  std::size_t tick = 0, line_feed = 0;
  while (tick < scan.tick_count && scan.ticks[tick] < scan.sentence) ++tick;
  for (; tick + 1 < scan.tick_count; ++tick) {
    const std::size_t open = scan.ticks[tick], close = scan.ticks[tick + 1];
    while (line_feed < scan.line_feed_count && scan.line_feeds[line_feed] < open) ++line_feed;
    const bool broken = line_feed < scan.line_feed_count && scan.line_feeds[line_feed] < close;
    const std::string_view inside = chunk.substr(open + 1, close - open - 1);
    if (broken || !span_length(inside)) continue;
    ++tick;  // the closing backtick is used
    if (const auto name = span_name(inside, skip)) out.push_back(*name);
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

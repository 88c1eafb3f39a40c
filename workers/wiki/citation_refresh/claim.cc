// Anchoring legacy citations: reading the identifiers that the claim before a citation names, and
// choosing the declaration to anchor the citation to.
#include <unicode/ucasemap.h>

#include <algorithm>
#include <stdexcept>
#include <unordered_map>

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

}  // namespace

namespace detail {

const Regex& CLAIM_IDENT_RE() {
  static const Regex re(CLAIM_IDENT_PATTERN);
  return re;
}

}  // namespace detail

std::vector<std::string> claim_identifiers(const Host& host, const Text& text,
                                           std::size_t position) {
  if (position > text.length()) {
    throw std::out_of_range("claim_identifiers: position " + std::to_string(position) +
                            " is past the end of the text (" + std::to_string(text.length()) +
                            " characters)");
  }
  const std::size_t start = position > detail::CLAIM_WINDOW ? position - detail::CLAIM_WINDOW : 0;

  // The claim starts after the last earlier citation inside the look-back, if any.
  std::size_t claim_start = start;
  if (const auto previous = host.syntax.last_end(text, start, position)) {
    claim_start = std::min(*previous, position);
  }

  // Only the last sentence of the claim counts. The chunk is searched as a string of its own.
  const std::size_t chunk_begin = text.byte_at(claim_start);
  std::string_view chunk =
      std::string_view(text.str()).substr(chunk_begin, text.byte_at(position) - chunk_begin);
  std::size_t sentence = 0;
  while (auto m = sentence_boundary().search(chunk, sentence)) sentence = m->end;
  chunk = chunk.substr(sentence);

  std::vector<std::string> out;
  const auto& skip = host.anchoring.file_name_endings();
  std::size_t at = 0;
  while (auto m = detail::CLAIM_IDENT_RE().search(chunk, at)) {
    at = m->end;
    std::string_view token = chunk.substr(m->group_begin, m->group_end - m->group_begin);
    if (token.find('/') != std::string_view::npos) continue;  // a path
    const std::string lowered = lower(token);
    if (std::any_of(skip.begin(), skip.end(),
                    [&](const std::string& ext) { return ends_with(lowered, ext); })) {
      continue;  // a file name
    }
    // A call or assignment counts by what comes before it, a dotted name by its last name.
    if (auto cut = cut_point().search(token)) token = token.substr(0, cut->begin);
    if (auto dot = token.rfind('.'); dot != std::string_view::npos) token = token.substr(dot + 1);
    if (count_points(token) >= 2) out.emplace_back(token);
  }
  return out;
}

namespace detail {

std::pair<const Symbol*, LineRange> legacy_anchor(const Host& host, std::span<const Symbol> symbols,
                                                  Line start, Line end,
                                                  const std::vector<std::string>& names) {
  // A name is preferred by its first mention: the later that is, the nearer the citation.
  std::unordered_map<std::string_view, std::size_t> first_mention;
  for (std::size_t i = 0; i < names.size(); ++i) first_mention.try_emplace(names[i], i);

  std::vector<std::pair<const Symbol*, std::size_t>> named;
  for (const Symbol& symbol : symbols) {
    auto it = first_mention.find(symbol.name);
    if (it != first_mention.end() && !host.anchoring.unanchored_kind(symbol.kind)) {
      named.emplace_back(&symbol, it->second);
    }
  }
  if (named.empty()) return {host.anchoring.anchor_symbol(symbols, start, end), {start, end}};

  std::stable_sort(named.begin(), named.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  for (const auto& [symbol, preference] : named) {
    if (symbol->start_line <= end && start <= symbol->end_line) return {symbol, {start, end}};
  }
  // Named elsewhere: the citation moves to the declaration's first line, keeping its span.
  const Symbol* symbol = named.front().first;
  const WideLine span = std::max<WideLine>(0, static_cast<WideLine>(end) - start);
  const WideLine last = std::min<WideLine>(symbol->end_line, symbol->start_line + span);
  return {symbol, {symbol->start_line, narrow(last)}};
}

}  // namespace detail
}  // namespace tolbarrow::workers::wiki::citation_refresh

// Anchoring legacy citations: reading the identifiers that the claim before a citation names, and
// choosing the declaration to anchor the citation to.
#include <clocale>
#include <cwctype>
#include <locale.h>

#include <algorithm>
#include <stdexcept>
#include <unordered_map>

#include "workers/wiki/citation_refresh.h"

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

// Lower-cases valid UTF-8 by the Unicode simple lower-case mapping.
std::string lower(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  for (std::size_t i = 0; i < s.size();) {
    if (p[i] < 0x80) {
      out += static_cast<char>(p[i] >= 'A' && p[i] <= 'Z' ? p[i] + 32 : p[i]);
      ++i;
      continue;
    }
    const std::size_t len = p[i] < 0xE0 ? 2 : p[i] < 0xF0 ? 3 : 4;
    char32_t cp = p[i] & (0x7F >> len);
    for (std::size_t k = 1; k < len; ++k) cp = (cp << 6) | (p[i + k] & 0x3F);
    i += len;
    if (utf8 != nullptr) cp = static_cast<char32_t>(towlower_l(static_cast<wint_t>(cp), utf8));
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }
  return out;
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

std::vector<std::string> Module::claim_identifiers(const Text& text, std::size_t position) const {
  if (position > text.length()) {
    throw std::out_of_range("claim_identifiers: position " + std::to_string(position) +
                            " is past the end of the text (" + std::to_string(text.length()) +
                            " characters)");
  }
  const std::size_t start = position > detail::CLAIM_WINDOW ? position - detail::CLAIM_WINDOW : 0;

  // The claim starts after the last earlier citation inside the look-back, if any.
  std::size_t claim_start = start;
  const auto previous = types().CITATION_RE->finditer(text, start, position);
  if (!previous.empty()) claim_start = std::min(previous.back().end, position);

  // Only the last sentence of the claim counts. The chunk is searched as a string of its own.
  const std::size_t chunk_begin = text.byte_at(claim_start);
  std::string_view chunk =
      std::string_view(text.str()).substr(chunk_begin, text.byte_at(position) - chunk_begin);
  std::size_t sentence = 0;
  while (auto m = sentence_boundary().search(chunk, sentence)) sentence = m->end;
  chunk = chunk.substr(sentence);

  std::vector<std::string> out;
  const auto& skip = *verify().SKIP_IDENT_EXTS;
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

std::pair<SymbolPtr, LineRange> legacy_anchor(const Module& module, const Symbols& symbols,
                                              Line start, Line end,
                                              const std::vector<std::string>& names) {
  // A name is preferred by its first mention: the later that is, the nearer the citation.
  std::unordered_map<std::string_view, std::size_t> first_mention;
  for (std::size_t i = 0; i < names.size(); ++i) first_mention.try_emplace(names[i], i);

  const auto& unanchored = *module.verify().UNANCHORED_KINDS;
  std::vector<std::pair<SymbolPtr, std::size_t>> named;
  for (const SymbolPtr& symbol : symbols) {
    auto it = first_mention.find(symbol->name);
    if (it != first_mention.end() && !unanchored.count(symbol->kind)) {
      named.emplace_back(symbol, it->second);
    }
  }
  if (named.empty()) return {module.verify().anchor_symbol(symbols, start, end), {start, end}};

  std::stable_sort(named.begin(), named.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  for (const auto& [symbol, preference] : named) {
    if (symbol->start_line <= end && start <= symbol->end_line) return {symbol, {start, end}};
  }
  // Named elsewhere: the citation moves to the declaration's first line, keeping its span.
  const SymbolPtr& symbol = named.front().first;
  const __int128 span = std::max<__int128>(0, static_cast<__int128>(end) - start);
  const __int128 last = std::min<__int128>(symbol->end_line, symbol->start_line + span);
  return {symbol, {symbol->start_line, static_cast<Line>(last)}};
}

}  // namespace detail
}  // namespace tolbarrow::workers::wiki::citation_refresh

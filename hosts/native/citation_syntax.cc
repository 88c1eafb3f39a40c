#define PCRE2_CODE_UNIT_WIDTH 8
#include "hosts/native/citation_syntax.h"

#include <pcre2.h>

#include <algorithm>
#include <charconv>
#include <memory>
#include <stdexcept>
#include <unordered_map>

namespace tolbarrow::hosts::native {
namespace {

// [text](/path#Lfirst) or [text](/path#Lfirst-Llast). The link text may hold one level of
// brackets and no line break; the path starts with '/' and holds no space, parenthesis, '#',
// backtick or angle bracket. Line numbers are at most 18 digits, so that they fit a Line.
// Groups: 1 path, 2 fragment, 3 first line, 4 last line.
constexpr std::string_view kCitationPattern =
    R"(\[(?:[^\[\]\n]++|\[[^\[\]\n]*+\])*+\]\((/[^()\s#`<>]+)(#L([0-9]{1,18})(?:-L([0-9]{1,18}))?)\))";

struct CodeDeleter {
  void operator()(pcre2_code* code) const { pcre2_code_free(code); }
};
struct MatchDataDeleter {
  void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
};

// The citation pattern, compiled (and JIT-compiled where available) once per process.
const pcre2_code* citation_code() {
  static const std::unique_ptr<pcre2_code, CodeDeleter> code = [] {
    int error = 0;
    PCRE2_SIZE offset = 0;
    pcre2_code* compiled =
        pcre2_compile(reinterpret_cast<PCRE2_SPTR>(kCitationPattern.data()),
                      kCitationPattern.size(), PCRE2_UTF | PCRE2_UCP, &error, &offset, nullptr);
    if (compiled == nullptr) {
      PCRE2_UCHAR message[256];
      pcre2_get_error_message(error, message, sizeof message);
      throw std::logic_error("citation pattern does not compile at " + std::to_string(offset) +
                             ": " + reinterpret_cast<const char*>(message));
    }
    pcre2_jit_compile(compiled, PCRE2_JIT_COMPLETE);  // falls back to the interpreter on failure
    return std::unique_ptr<pcre2_code, CodeDeleter>(compiled);
  }();
  return code.get();
}

struct LinkMatch {
  std::size_t begin = 0, end = 0;                    // the whole link
  std::size_t path_begin = 0, path_end = 0;          // group 1
  std::size_t fragment_begin = 0, fragment_end = 0;  // group 2
  std::string_view first, last;                      // groups 3 and 4 (last empty for #Lx)
};

// Searches `subject` (whose bytes before `start` stay visible) for citation links.
class Matcher {
 public:
  explicit Matcher(std::string_view subject)
      : subject_(subject), data_(pcre2_match_data_create_from_pattern(citation_code(), nullptr)) {
    if (!data_) throw std::bad_alloc();
  }

  std::optional<LinkMatch> search(std::size_t start) {
    const int rc = pcre2_match(citation_code(), reinterpret_cast<PCRE2_SPTR>(subject_.data()),
                               subject_.size(), start, PCRE2_NO_UTF_CHECK, data_.get(), nullptr);
    if (rc == PCRE2_ERROR_NOMATCH) return std::nullopt;
    if (rc < 0) {
      PCRE2_UCHAR message[256];
      pcre2_get_error_message(rc, message, sizeof message);
      throw std::runtime_error(std::string("citation search failed: ") +
                               reinterpret_cast<const char*>(message));
    }
    const PCRE2_SIZE* v = pcre2_get_ovector_pointer(data_.get());
    LinkMatch m;
    m.begin = v[0], m.end = v[1];
    m.path_begin = v[2], m.path_end = v[3];
    m.fragment_begin = v[4], m.fragment_end = v[5];
    m.first = subject_.substr(v[6], v[7] - v[6]);
    if (rc > 4 && v[8] != PCRE2_UNSET) m.last = subject_.substr(v[8], v[9] - v[8]);
    return m;
  }

 private:
  std::string_view subject_;
  std::unique_ptr<pcre2_match_data, MatchDataDeleter> data_;
};

wiki::Line to_line(std::string_view digits) {
  wiki::Line value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value);  // <= 18 digits fits
  return value;
}

bool inside(const std::vector<ByteRange>& ranges, std::size_t byte) {
  auto it = std::upper_bound(ranges.begin(), ranges.end(), byte,
                             [](std::size_t b, const ByteRange& r) { return b < r.begin; });
  return it != ranges.begin() && byte < std::prev(it)->end;
}

struct FoundCitation {
  LinkMatch link;
  wiki::CitationKey key;
};

// Every citation link of `text` outside code, in text order.
void each_citation(std::string_view text, const std::function<void(const FoundCitation&)>& each) {
  const std::vector<ByteRange> code = code_ranges(text);
  Matcher matcher(text);
  std::size_t at = 0;
  while (auto m = matcher.search(at)) {
    // The link starts in code, or its target does (the "](" is in a code span): not a link.
    const std::size_t target = m->path_begin - 2;
    if (inside(code, m->begin) || inside(code, target)) {
      at = m->begin + 1;  // '[' is one byte, so this is the next code point
      continue;
    }
    FoundCitation found{*m, {}};
    found.key.path =
        percent_decode(text.substr(m->path_begin + 1, m->path_end - m->path_begin - 1));
    found.key.start = to_line(m->first);
    found.key.end = m->last.empty() ? found.key.start : to_line(m->last);
    each(found);
    at = m->end;
  }
}

// Length of the run of `c` at `pos`.
std::size_t run_length(std::string_view text, std::size_t pos, char c) {
  std::size_t n = 0;
  while (pos + n < text.size() && text[pos + n] == c) ++n;
  return n;
}

std::size_t line_end(std::string_view text, std::size_t pos) {
  const std::size_t nl = text.find('\n', pos);
  return nl == std::string_view::npos ? text.size() : nl + 1;
}

bool blank(std::string_view line) {
  return line.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

// Where the paragraph holding byte `pos` ends: the start of the next blank line, or `end`.
std::size_t paragraph_end(std::string_view text, std::size_t pos, std::size_t end) {
  std::size_t line = line_end(text, pos);
  while (line < end) {
    const std::size_t after = std::min(line_end(text, line), end);
    if (blank(text.substr(line, after - line))) return line;
    line = after;
  }
  return end;
}

// The backtick runs of one paragraph by length, each length's starts in text order, with a
// cursor past the starts already passed: finding each opener's closer costs, over the whole
// paragraph, one look at each run. (Searching the rest of the paragraph for every opener would
// take time in the square of a paragraph of runs that close nothing.)
class BacktickRuns {
 public:
  // The maximal runs of [begin, end).
  void index(std::string_view text, std::size_t begin, std::size_t end) {
    by_length_.clear();
    for (std::size_t at = text.find('`', begin); at < end; at = text.find('`', at)) {
      const std::size_t n = std::min(run_length(text, at, '`'), end - at);
      by_length_[n].starts.push_back(at);
      at += n;
    }
  }
  // The end of the first run of exactly `n` backticks that starts at or after `from`, or npos.
  // `from` never decreases between calls for the same `n`.
  std::size_t closer(std::size_t n, std::size_t from) {
    const auto it = by_length_.find(n);
    if (it == by_length_.end()) return std::string_view::npos;
    Starts& runs = it->second;
    while (runs.next < runs.starts.size() && runs.starts[runs.next] < from) ++runs.next;
    return runs.next < runs.starts.size() ? runs.starts[runs.next] + n : std::string_view::npos;
  }

 private:
  struct Starts {
    std::vector<std::size_t> starts;
    std::size_t next = 0;
  };
  std::unordered_map<std::size_t, Starts> by_length_;
};

// Adds the inline code spans of the prose bytes [begin, end) to `out`.
void add_code_spans(std::string_view text, std::size_t begin, std::size_t end,
                    std::vector<ByteRange>& out) {
  std::size_t i = begin;
  // Where the paragraph of the last run looked at ends: the runs after it in the same paragraph
  // share it (each starts later, and the lines between it and the blank line stay non-blank).
  std::size_t limit = begin;
  BacktickRuns runs;
  while (i < end) {
    const std::size_t open = text.find('`', i);
    if (open == std::string_view::npos || open >= end) return;
    const std::size_t n = std::min(run_length(text, open, '`'), end - open);
    if (open > begin && text[open - 1] == '\\') {  // an escaped backtick is literal
      i = open + 1;
      continue;
    }
    // The closer is the next run of exactly n backticks before the paragraph ends.
    if (open >= limit) {
      limit = paragraph_end(text, open, end);
      runs.index(text, open + n, limit);
    }
    const std::size_t close = runs.closer(n, open + n);
    if (close == std::string_view::npos) {
      i = open + n;  // no closer: the run is literal text
    } else {
      out.push_back({open, close});
      i = close;
    }
  }
}

}  // namespace

std::vector<ByteRange> code_ranges(std::string_view text) {
  std::vector<ByteRange> out;
  std::size_t prose_begin = 0, pos = 0;
  while (pos < text.size()) {
    const std::size_t next = line_end(text, pos);
    const std::size_t indent = text.find_first_not_of(" \t", pos);
    const char c = indent < next ? text[indent] : '\0';
    const std::size_t fence = (c == '`' || c == '~') ? run_length(text, indent, c) : 0;
    if (fence < 3 || (c == '`' && text.substr(indent + fence, next - indent - fence).find('`') !=
                                      std::string_view::npos)) {
      pos = next;  // not an opening fence (a backtick fence's info text holds no backtick)
      continue;
    }
    add_code_spans(text, prose_begin, pos, out);
    // The block runs to a line of at least `fence` of the same character and nothing else.
    std::size_t block_end = text.size(), line = next;
    while (line < text.size()) {
      const std::size_t after = line_end(text, line);
      const std::size_t first = text.find_first_not_of(" \t", line);
      if (first < after) {
        const std::size_t n = run_length(text, first, c);
        if (n >= fence && blank(text.substr(first + n, after - first - n))) {
          block_end = after;
          break;
        }
      }
      line = after;
    }
    out.push_back({pos, block_end});
    prose_begin = pos = block_end;
  }
  add_code_spans(text, prose_begin, text.size(), out);
  std::sort(out.begin(), out.end(),
            [](const ByteRange& a, const ByteRange& b) { return a.begin < b.begin; });
  return out;
}

std::string percent_decode(std::string_view path) {
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string out;
  out.reserve(path.size());
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (path[i] == '%' && i + 2 < path.size() && hex(path[i + 1]) >= 0 && hex(path[i + 2]) >= 0) {
      out += static_cast<char>(hex(path[i + 1]) * 16 + hex(path[i + 2]));
      i += 2;
    } else {
      out += path[i];
    }
  }
  return out;
}

void MarkdownCitationSyntax::find(const wiki::Text& text,
                                  const std::function<void(const wiki::Citation&)>& each) {
  each_citation(text.str(), [&](const FoundCitation& found) {
    each(wiki::Citation{found.key, text.point_at(found.link.begin)});
  });
}

std::optional<std::size_t> MarkdownCitationSyntax::last_end(const wiki::Text& text,
                                                            std::size_t start, std::size_t end) {
  if (start >= end) return std::nullopt;
  const std::string_view subject = std::string_view(text.str()).substr(0, text.byte_at(end));
  Matcher matcher(subject);
  std::optional<std::size_t> last;
  std::size_t at = text.byte_at(start);
  while (auto m = matcher.search(at)) {
    last = m->end;
    at = m->end;
  }
  if (!last) return std::nullopt;
  return text.point_at(*last);
}

namespace {

// A repository path as a citation writes it: from the root, with %XX escapes for the bytes a
// link's path cannot hold.
std::string link_path(std::string_view path) {
  std::string out = "/";
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= ' ' || byte == 0x7f ||
        std::string_view("()#`<>%").find(c) != std::string_view::npos) {
      static constexpr char kHex[] = "0123456789ABCDEF";
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

std::string MarkdownCitationSyntax::rewrite(const wiki::Text& text, const wiki::Moves& moves) {
  const std::string& bytes = text.str();
  if (moves.empty()) return bytes;
  std::string out;
  out.reserve(bytes.size() + 16);
  std::size_t copied = 0;
  each_citation(bytes, [&](const FoundCitation& found) {
    const wiki::Move* move = moves.find(found.key);
    if (move == nullptr) return;
    if (!move->path.empty() && move->path != found.key.path) {  // the path runs up to the fragment
      out.append(bytes, copied, found.link.path_begin - copied);
      out += link_path(move->path);
    } else {
      out.append(bytes, copied, found.link.fragment_begin - copied);
    }
    out += "#L" + std::to_string(move->first);
    if (move->last != move->first) out += "-L" + std::to_string(move->last);
    copied = found.link.fragment_end;
  });
  out.append(bytes, copied, std::string::npos);
  return out;
}

}  // namespace tolbarrow::hosts::native

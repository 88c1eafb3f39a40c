// "digests.json" moved in its own text: a writing refresh that moves a few lines in every digest
// of a large wiki copies the file once with the new numbers in place, instead of building a tree
// of records from it and writing the whole tree back (which cost about as much as reading every
// page). Only a text that is exactly what dump_digests() writes for the map it holds is taken; the
// refresh reads any other through the map, as before.
#include <algorithm>
#include <charconv>

#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::workers::wiki::citation_refresh::detail {
namespace {

constexpr int kMaxDepth = 64;  // deeper texts go through the map

bool is_lower_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

// The first of `a` or `b` in `text` from `at`, or the text's size. (find_first_of looks each
// character up in the set with a call of its own.)
std::size_t find_either(std::string_view text, std::size_t at, char a, char b) {
  while (at < text.size() && text[at] != a && text[at] != b) ++at;
  return at;
}

// Checks that a text is laid out exactly as the library writes a value with 2-space indentation,
// non-ASCII as UTF-8 (see dump_digests): one member or element per line, ",", ": ", "{}" and "[]"
// for empty ones; strings with only the escapes the writer uses; numbers only as integers the
// reader keeps as integers, never "-0"; no key twice in one map. Reading such a text and writing
// it back gives the same bytes.
class LayoutCheck {
 public:
  // A member of the outer map: the raw text of its key, and where its value begins and ends.
  struct Member {
    std::string_view key;
    std::size_t begin, end;
  };

  explicit LayoutCheck(std::string_view text) : text_(text) {}

  // The outer map's members (the raw text of each key and the span of its value), when the whole
  // text is such a map in that layout.
  std::optional<std::vector<Member>> outer_map() {
    std::vector<Member> members;
    if (!object(0, &members) || at_ != text_.size()) return std::nullopt;
    return members;
  }

 private:
  bool take(char c) {
    if (at_ >= text_.size() || text_[at_] != c) return false;
    ++at_;
    return true;
  }
  bool take(std::string_view word) {
    if (text_.substr(at_, word.size()) != word) return false;
    at_ += word.size();
    return true;
  }
  // A line feed and the indentation of nesting level `level`.
  bool line(int level) {
    if (!take('\n')) return false;
    const auto spaces = static_cast<std::size_t>(2 * level);
    if (text_.size() - at_ < spaces) return false;
    for (std::size_t i = 0; i < spaces; ++i) {
      if (text_[at_ + i] != ' ') return false;
    }
    at_ += spaces;
    return true;
  }

  bool value(int level) {
    if (at_ >= text_.size() || level > kMaxDepth) return false;
    switch (text_[at_]) {
      case '{':
        return object(level, nullptr);
      case '[':
        return array(level);
      case '"':
        return string(nullptr);
      case 't':
        return take("true");
      case 'f':
        return take("false");
      case 'n':
        return take("null");
      default:
        return integer();
    }
  }

  // A map; with `members`, the outer map, whose members are noted with their value's span.
  bool object(int level, std::vector<Member>* members) {
    if (!take('{')) return false;
    if (take('}')) return true;
    const std::size_t first_key = keys_.size();
    do {
      std::string_view key;
      if (!line(level + 1) || !string(&key) || !take(": ")) return false;
      keys_.push_back(key);
      const std::size_t begin = at_;
      if (!value(level + 1)) return false;
      if (members) members->push_back({key, begin, at_});
    } while (take(','));
    if (!line(level) || !take('}')) return false;
    // A key given twice would be read as one member: the text would not come back.
    const auto keys = std::span(keys_).subspan(first_key);
    bool repeated = false;
    if (keys.size() <= 8) {
      for (std::size_t i = 1; i < keys.size() && !repeated; ++i) {
        repeated = std::find(keys.begin(), keys.begin() + i, keys[i]) != keys.begin() + i;
      }
    } else {
      std::vector<std::string_view> sorted(keys.begin(), keys.end());
      std::sort(sorted.begin(), sorted.end());
      repeated = std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end();
    }
    keys_.resize(first_key);
    return !repeated;
  }

  bool array(int level) {
    if (!take('[')) return false;
    if (take(']')) return true;
    do {
      if (!line(level + 1) || !value(level + 1)) return false;
    } while (take(','));
    return line(level) && take(']');
  }

  // A string, its raw text (between the quotes) into `raw`. The writer escapes the quote, the
  // backslash and the control characters only: b, f, n, r, t and \u00xx (lower-case) for the rest.
  bool string(std::string_view* raw) {
    if (!take('"')) return false;
    const std::size_t begin = at_;
    for (;;) {
      std::size_t stop = at_;
      for (; stop < text_.size(); ++stop) {
        const char c = text_[stop];
        if (c == '"' || c == '\\') break;
        if (static_cast<unsigned char>(c) < 0x20) return false;
      }
      if (stop == text_.size()) return false;
      at_ = stop + 1;
      if (text_[stop] == '"') break;
      if (at_ >= text_.size()) return false;
      const char escape = text_[at_++];
      if (escape == 'u') {
        const std::string_view hex = text_.substr(at_, 4);
        if (hex.size() != 4 || hex[0] != '0' || hex[1] != '0' || !is_lower_hex(hex[2]) ||
            !is_lower_hex(hex[3]) || hex[2] > '1') {
          return false;
        }
        const int code = std::stoi(std::string(hex), nullptr, 16);
        if (code == '\b' || code == '\t' || code == '\n' || code == '\f' || code == '\r') {
          return false;
        }
        at_ += 4;
      } else if (std::string_view("\"\\bfnrt").find(escape) == std::string_view::npos) {
        return false;
      }
    }
    if (raw) *raw = text_.substr(begin, at_ - 1 - begin);
    return true;
  }

  // An integer that the reader keeps as one (within 64 bits, signed or not) and the writer spells
  // the same way: no fraction, no exponent, no leading zero, no "-0".
  bool integer() {
    const bool negative = take('-');
    const std::size_t digits = at_;
    while (at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '9') ++at_;
    const std::string_view number = text_.substr(digits, at_ - digits);
    if (number.empty() || (number[0] == '0' && (number.size() > 1 || negative))) return false;
    if (at_ < text_.size() && (text_[at_] == '.' || text_[at_] == 'e' || text_[at_] == 'E')) {
      return false;
    }
    const std::string_view limit = negative ? "9223372036854775808" : "18446744073709551615";
    return number.size() < limit.size() || (number.size() == limit.size() && number <= limit);
  }

  std::string_view text_;
  std::size_t at_ = 0;
  std::vector<std::string_view> keys_;  // the keys of the maps being read, outermost first
};

// The text of a string written in that layout.
std::string unescaped(std::string_view raw) {
  if (raw.find('\\') == std::string_view::npos) return std::string(raw);
  return Record::parse("\"" + std::string(raw) + "\"").get<std::string>();
}

// Walks the members of a map or the elements of a list in a text in that layout (checked
// already), skipping the values it is not asked about.
class Walk {
 public:
  Walk(std::string_view text, std::size_t at) : text_(text), at_(at) {}
  std::size_t at() const { return at_; }

  // Past the opening bracket of the container at `at`: false when it is empty.
  bool enter() {
    ++at_;
    if (text_[at_] == '}' || text_[at_] == ']') {
      ++at_;
      return false;
    }
    return true;
  }
  // The next member's key, leaving `at` on its value.
  std::string_view key() {
    at_ = text_.find('"', at_) + 1;
    const std::size_t begin = at_;
    at_ = string_end(at_);
    const std::string_view raw = text_.substr(begin, at_ - 1 - begin);
    at_ += 2;  // ": "
    return raw;
  }
  // The next element, leaving `at` on it.
  void element() {
    while (text_[at_] == ' ' || text_[at_] == '\n') ++at_;
  }
  // Past the value at `at` and the comma after it; false when it was the container's last.
  bool next() {
    at_ = value_end(at_);
    if (text_[at_] != ',') return false;
    ++at_;
    return true;
  }
  // Where the value that begins at `at` ends.
  std::size_t value_end(std::size_t at) const {
    switch (text_[at]) {
      case '"':
        return string_end(at + 1);
      case '{':
      case '[': {
        int depth = 0;
        for (;; ++at) {
          const char c = text_[at];
          if (c == '"') {
            at = string_end(at + 1) - 1;
          } else if (c == '{' || c == '[') {
            ++depth;
          } else if ((c == '}' || c == ']') && --depth == 0) {
            return at + 1;
          }
        }
      }
      default:
        return find_either(text_, at, ',', '\n');  // a number or a word; never last in the text
    }
  }

 private:
  // Past the closing quote of the string whose text begins at `at`.
  std::size_t string_end(std::size_t at) const {
    for (;;) {
      at = find_either(text_, at, '"', '\\');
      if (text_[at] == '"') return at + 1;
      at += 2;
    }
  }

  std::string_view text_;
  std::size_t at_;
};

bool is_integer(std::string_view value) {
  return !value.empty() && (value[0] == '-' || (value[0] >= '0' && value[0] <= '9'));
}

// The value of an integer in that layout, when it is a 64-bit line.
std::optional<Line> line_value(std::string_view value) {
  Line line = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), line);
  if (error != std::errc() || end != value.data() + value.size()) return std::nullopt;
  return line;
}

// Where a move puts new text: the span it replaces and the new text.
struct Splice {
  std::size_t begin, end;
  std::string text;
};

// The splices that move_digest_citations() would make to the digest `value` (a page's digest in
// that layout), with the changes it would note. False when it would do anything but replace the
// two lines of some digest citations: throw for citations that are no list of maps, convert a
// line that is no integer, add a line the citation lacks.
bool plan_moves(std::string_view value, const Moves& moves, std::vector<Splice>& splices,
                std::vector<DigestChange>& changed) {
  if (value[0] != '{') return true;  // not a map: nothing to move
  Walk digest(value, 0);
  if (!digest.enter()) return true;
  std::optional<std::size_t> citations;
  do {
    if (digest.key() == "citations") citations = digest.at();
  } while (digest.next());
  if (!citations) return true;
  const std::string_view list = value.substr(*citations, digest.value_end(*citations) - *citations);
  // Absent, null, false, zero or empty: nothing to move.
  if (list == "null" || list == "false" || list == "0" || list == "\"\"" || list == "{}" ||
      list == "[]") {
    return true;
  }
  if (list[0] != '[') return false;
  Walk elements(value, *citations);
  elements.enter();
  std::size_t index = 0;
  do {
    elements.element();
    if (value[elements.at()] != '{') return false;
    CitationKey key;
    std::optional<std::pair<std::size_t, std::size_t>> start, end, path;
    Walk citation(value, elements.at());
    if (citation.enter()) {
      do {
        const std::string_view name = citation.key();
        if (name != "path" && name != "line_start" && name != "line_end") continue;
        const std::size_t at = citation.at();
        const std::string_view member = value.substr(at, citation.value_end(at) - at);
        if (name == "path") {
          if (member[0] != '"') return false;
          key.path = unescaped(member.substr(1, member.size() - 2));
          path = std::pair(at, at + member.size());
          continue;
        }
        const std::optional<Line> line = is_integer(member) ? line_value(member) : std::nullopt;
        if (!line) return false;
        (name == "line_start" ? key.start : key.end) = *line;
        (name == "line_start" ? start : end) = std::pair(at, at + member.size());
      } while (citation.next());
    }
    if (const Move* move = moves.find(key)) {
      if (!start || !end || (!move->path.empty() && !path)) return false;
      if (!move->path.empty()) {
        splices.push_back({path->first, path->second, Record(move->path).dump()});
      }
      splices.push_back({start->first, start->second, std::to_string(move->first)});
      splices.push_back({end->first, end->second, std::to_string(move->last)});
      changed.push_back({index, std::move(key), *move});
    }
    ++index;
  } while (elements.next());
  std::sort(splices.begin(), splices.end(),
            [](const Splice& a, const Splice& b) { return a.begin < b.begin; });
  return true;
}

}  // namespace

std::optional<DigestText> DigestText::read(std::string& text) {
  if (first_invalid_utf8(text) != std::string_view::npos) return std::nullopt;
  const std::optional<std::vector<LayoutCheck::Member>> members = LayoutCheck(text).outer_map();
  if (!members) return std::nullopt;
  DigestText out;
  out.spans_.reserve(members->size());
  out.at_.reserve(members->size());
  for (const LayoutCheck::Member& member : *members) {
    out.at_.emplace(unescaped(member.key), out.spans_.size());
    out.spans_.emplace_back(member.begin, member.end);
  }
  out.values_.resize(out.spans_.size());
  out.text_ = std::move(text);
  return out;
}

std::string_view DigestText::value(std::size_t member) const {
  if (values_[member]) return *values_[member];
  const auto [begin, end] = spans_[member];
  return std::string_view(text_).substr(begin, end - begin);
}

bool DigestText::move(const std::string& page_id, const Moves& moves,
                      std::vector<DigestChange>& changed) {
  const auto found = at_.find(page_id);
  if (found == at_.end()) return true;
  const std::size_t member = found->second;
  const std::string_view value = this->value(member);
  std::vector<Splice> splices;
  std::vector<DigestChange> planned;
  if (plan_moves(value, moves, splices, planned)) {
    if (splices.empty()) return true;
    std::string moved;
    moved.reserve(value.size() + 16);
    std::size_t from = 0;
    for (const Splice& splice : splices) {
      moved.append(value.substr(from, splice.begin - from)).append(splice.text);
      from = splice.end;
    }
    moved.append(value.substr(from));
    values_[member] = std::move(moved);
    changed.insert(changed.end(), std::make_move_iterator(planned.begin()),
                   std::make_move_iterator(planned.end()));
    return true;
  }
  // Anything else is moved through the map, which converts or throws as it does for any digest.
  Record digest = Record::parse(value);
  const std::size_t before = changed.size();
  move_digest_citations(&digest, moves, &changed);
  if (changed.size() == before) return false;
  // Written at the digest's nesting level: every line but the first indented by two more.
  const std::string dumped = dump_digests(digest);
  std::string indented;
  indented.reserve(dumped.size() + dumped.size() / 8);
  for (const char c : dumped) {
    indented += c;
    if (c == '\n') indented += "  ";
  }
  values_[member] = std::move(indented);
  return false;
}

std::string DigestText::text() const {
  std::string out;
  out.reserve(text_.size() + 64);
  std::size_t from = 0;
  for (std::size_t i = 0; i < spans_.size(); ++i) {
    if (!values_[i]) continue;
    out.append(text_, from, spans_[i].first - from).append(*values_[i]);
    from = spans_[i].second;
  }
  out.append(text_, from);
  return out;
}

}  // namespace tolbarrow::workers::wiki::citation_refresh::detail

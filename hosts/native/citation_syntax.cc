#include "hosts/native/citation_syntax.h"

#include <md4c.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <stdexcept>

namespace tolbarrow::hosts::native {
namespace fs = std::filesystem;
namespace {

constexpr std::size_t kNone = std::string_view::npos;

// A link as md4c reports it, in byte offsets of the page.
struct ParsedLink {
  std::size_t href = kNone, href_size = 0;  // the destination, when md4c kept it in the page
  std::size_t title_end = kNone;            // just past the title, when there is one in the page
  std::size_t first_text = kNone;           // the first text inside the link
  std::size_t last_text_end = kNone;        // the end of the last text inside it
  std::size_t before = 0;                   // the end of the last text before it
};

// Collects the links (images and the links inside them left out) of one md4c parse.
struct Collector {
  std::string_view page;
  std::vector<ParsedLink> links;
  // The links open, innermost last; a link inside an image is no link, and opens nothing.
  std::vector<ParsedLink> open;
  int images = 0;
  std::size_t last_text_end = 0;

  // The offset of `p` in the page, or kNone when md4c built the string elsewhere.
  std::size_t offset(const MD_CHAR* p) const {
    if (p < page.data() || p > page.data() + page.size()) return kNone;
    return static_cast<std::size_t>(p - page.data());
  }

  static int enter_span(MD_SPANTYPE type, void* detail, void* self_) {
    auto* self = static_cast<Collector*>(self_);
    if (type == MD_SPAN_IMG) ++self->images;
    if (type != MD_SPAN_A || self->images > 0) return 0;
    const auto* a = static_cast<const MD_SPAN_A_DETAIL*>(detail);
    ParsedLink link;
    link.before = self->last_text_end;
    link.href = self->offset(a->href.text);
    link.href_size = a->href.size;
    if (link.href != kNone && link.href + link.href_size > self->page.size()) link.href = kNone;
    if (a->title.size > 0) {
      const std::size_t title = self->offset(a->title.text);
      if (title != kNone && title + a->title.size < self->page.size()) {
        link.title_end = title + a->title.size + 1;  // its closing delimiter
      } else if (title == kNone && link.href != kNone) {
        link.title_end =
            self->merged_title_end(link.href + link.href_size, {a->title.text, a->title.size});
      }
    }
    self->open.push_back(link);
    return 0;
  }

  static int leave_span(MD_SPANTYPE type, void*, void* self_) {
    auto* self = static_cast<Collector*>(self_);
    if (type == MD_SPAN_IMG) --self->images;
    if (type != MD_SPAN_A || self->images > 0 || self->open.empty()) return 0;
    self->links.push_back(self->open.back());
    self->open.pop_back();
    return 0;
  }

  static int text(MD_TEXTTYPE, const MD_CHAR* text, MD_SIZE size, void* self_) {
    auto* self = static_cast<Collector*>(self_);
    const std::size_t at = self->offset(text);
    if (at == kNone || at + size > self->page.size()) return 0;
    for (ParsedLink& link : self->open) {
      if (link.first_text == kNone) link.first_text = at;
      link.last_text_end = at + size;
    }
    self->last_text_end = at + size;
    return 0;
  }

  static int block(MD_BLOCKTYPE, void*, void*) { return 0; }

  // Just past the title after a destination ending at `from`, when md4c gave the title as a copy
  // with its line breaks made '\n' (a title over several lines); kNone when the page does not
  // hold that text there (escapes, character references, a container's marks between the lines).
  std::size_t merged_title_end(std::size_t from, std::string_view title) const {
    std::size_t at = from;
    auto blanks = [&] {
      while (at < page.size() && (page[at] == ' ' || page[at] == '\t')) ++at;
    };
    auto line_break = [&] {
      if (at < page.size() && page[at] == '\r') ++at;
      if (at < page.size() && page[at] == '\n') ++at;
    };
    if (at < page.size() && page[at] == '>') ++at;  // <destination>
    blanks();
    line_break();
    blanks();
    if (at >= page.size()) return kNone;
    const char open = page[at++];
    const char close = open == '(' ? ')' : open;
    if (open != '"' && open != '\'' && open != '(') return kNone;
    for (const char c : title) {
      if (c == '\n') {
        blanks();
        const std::size_t before = at;
        line_break();
        if (at == before) return kNone;
        blanks();
      } else if (at < page.size() && page[at] == c) {
        ++at;
      } else {
        return kNone;
      }
    }
    return at < page.size() && page[at] == close ? at + 1 : kNone;
  }
};

// The links of `page` that CommonMark renders as links, in text order of their openers.
std::vector<ParsedLink> parsed_links(std::string_view page) {
  if (page.size() > 0xffffffffu) throw std::length_error("page too large to parse");
  Collector collector{page, {}, {}, 0, 0};
  MD_PARSER parser{};
  parser.abi_version = 0;
  parser.flags = 0;  // CommonMark: raw HTML is recognised, so links inside it are none
  parser.enter_block = &Collector::block;
  parser.leave_block = &Collector::block;
  parser.enter_span = &Collector::enter_span;
  parser.leave_span = &Collector::leave_span;
  parser.text = &Collector::text;
  if (md_parse(page.data(), static_cast<MD_SIZE>(page.size()), &parser, &collector) != 0) {
    throw std::runtime_error("the markdown parser failed on a page");
  }
  return std::move(collector.links);
}

// The digits of one line number: 1 to 18 of them, so that it fits a Line.
std::optional<wiki::Line> line_number(std::string_view text, std::size_t& at) {
  const std::size_t begin = at;
  while (at < text.size() && at - begin < 19 && text[at] >= '0' && text[at] <= '9') ++at;
  if (at == begin || at - begin > 18) return std::nullopt;
  wiki::Line value = 0;
  std::from_chars(text.data() + begin, text.data() + at, value);
  return value;
}

// A line fragment (after '#'): Lx, Lx-Ly, each line with an optional column (L4C1-L9C5); with
// `bare`, also GitLab's Lx-y.
struct Fragment {
  wiki::Line first = 0, last = 0;
  std::string_view first_column, last_column;  // "C1", or empty
  bool has_last = false;
  bool bare_last = false;  // the last line written without its 'L'
};

std::optional<Fragment> parse_fragment(std::string_view text, bool bare = false) {
  Fragment f;
  std::size_t at = 0;
  auto part = [&](wiki::Line& line, std::string_view& column, bool may_be_bare) {
    if (at < text.size() && text[at] == 'L') {
      ++at;
    } else if (!may_be_bare) {
      return false;
    } else {
      f.bare_last = true;
    }
    const auto number = line_number(text, at);
    if (!number) return false;
    line = *number;
    if (at < text.size() && text[at] == 'C' && !f.bare_last) {
      const std::size_t c = at++;
      if (!line_number(text, at)) return false;
      column = text.substr(c, at - c);
    }
    return true;
  };
  if (!part(f.first, f.first_column, false)) return std::nullopt;
  f.last = f.first;
  if (at < text.size() && text[at] == '-') {
    ++at;
    if (!part(f.last, f.last_column, bare)) return std::nullopt;
    f.has_last = true;
  }
  if (at != text.size()) return std::nullopt;
  return f;
}

// The fragment `f` at new lines `first`..`last`, columns as written; the last line without its
// 'L' where `bare` (GitLab's form).
std::string fragment_text(const Fragment& f, wiki::Line first, wiki::Line last, bool bare) {
  std::string out = "L" + std::to_string(first);
  out += f.first_column;
  if (last != first || !f.last_column.empty()) {
    out += bare ? "-" : "-L";
    out += std::to_string(last);
    out += f.last_column;
  }
  return out;
}

std::vector<std::string> split(std::string_view path) {
  std::vector<std::string> out;
  std::size_t begin = 0;
  while (true) {
    const std::size_t slash = path.find('/', begin);
    out.emplace_back(path.substr(begin, slash == kNone ? kNone : slash - begin));
    if (slash == kNone) return out;
    begin = slash + 1;
  }
}

// `path` (decoded) from `folder`, made relative to the repository root and normalised; nullopt
// when it leaves the repository or names nothing.
std::optional<std::string> resolve(std::string_view path, std::string_view folder) {
  std::vector<std::string> parts;
  if (path.empty() || path[0] != '/') {
    for (std::string& part : split(folder)) {
      if (!part.empty()) parts.push_back(std::move(part));
    }
  }
  for (std::string& part : split(path)) {
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (parts.empty()) return std::nullopt;
      parts.pop_back();
    } else {
      parts.push_back(std::move(part));
    }
  }
  if (parts.empty()) return std::nullopt;
  std::string out;
  for (const std::string& part : parts) out += (out.empty() ? "" : "/") + part;
  return out;
}

// Whether a destination starts with a URI scheme ("https:", "mailto:").
bool has_scheme(std::string_view dest) {
  if (dest.empty() || !std::isalpha(static_cast<unsigned char>(dest[0]))) return false;
  for (std::size_t i = 1; i < dest.size(); ++i) {
    const char c = dest[i];
    if (c == ':') return true;
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '.' && c != '-') {
      return false;
    }
  }
  return false;
}

bool same_letters(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

bool is_commit_id(std::string_view ref) {
  return ref.size() >= 7 && ref.size() <= 40 && std::all_of(ref.begin(), ref.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
         });
}

// Where a forge link's parts stand in its destination (offsets into it); nullopt when the
// destination is no file link of `forge`'s repository.
struct ForgeTarget {
  std::size_t ref_begin, ref_end, path_begin, path_end;
  bool permalink, gitlab;
};

std::optional<ForgeTarget> forge_target(std::string_view dest, const Forge& forge) {
  std::size_t at;
  if (dest.size() > 8 && same_letters(dest.substr(0, 8), "https://")) {
    at = 8;
  } else if (dest.size() > 7 && same_letters(dest.substr(0, 7), "http://")) {
    at = 7;
  } else {
    return std::nullopt;
  }
  const std::size_t host_end = dest.find('/', at);
  if (host_end == kNone) return std::nullopt;
  std::string_view host = dest.substr(at, host_end - at);
  if (const std::size_t user = host.rfind('@'); user != kNone) host.remove_prefix(user + 1);
  if (!same_letters(host, forge.host)) return std::nullopt;
  at = host_end + 1;
  if (dest.size() < at + forge.path.size() + 1 ||
      !same_letters(dest.substr(at, forge.path.size()), forge.path) ||
      dest[at + forge.path.size()] != '/') {
    return std::nullopt;
  }
  at += forge.path.size() + 1;
  ForgeTarget t{};
  if (dest.substr(at).starts_with("-/blob/")) {
    t.gitlab = true;
    at += 7;
  } else if (dest.substr(at).starts_with("blob/")) {
    at += 5;
  } else {
    return std::nullopt;
  }
  const std::size_t end = std::min(dest.find('?', at), dest.find('#', at));
  if (end == kNone) return std::nullopt;
  const std::string_view rest = dest.substr(at, end - at);
  // A ref written in full, "refs/heads/main/...", is no commit.
  std::size_t written_in_full = 0;
  for (const std::string_view prefix : {"refs/heads/", "refs/tags/"}) {
    if (rest.starts_with(prefix)) written_in_full = prefix.size();
  }
  const std::string_view names = rest.substr(written_in_full);
  // The longest name of a branch or tag that the rest starts with, up to a '/'; else its first
  // name.
  std::size_t ref_size = kNone;
  bool named = false;
  for (std::size_t slash = names.rfind('/'); slash != kNone && slash > 0;
       slash = names.rfind('/', slash - 1)) {
    ref_size = slash;
    named = std::binary_search(forge.refs.begin(), forge.refs.end(), names.substr(0, slash));
    if (named) break;
  }
  if (!named) ref_size = std::min(names.find('/'), names.size());
  if (ref_size == 0) return std::nullopt;
  named = named || written_in_full > 0;
  ref_size += written_in_full;
  if (ref_size == 0 || ref_size + 1 >= rest.size()) return std::nullopt;
  t.ref_begin = at;
  t.ref_end = at + ref_size;
  t.path_begin = t.ref_end + 1;
  t.path_end = end;
  t.permalink = !named && is_commit_id(rest.substr(0, ref_size));
  return t;
}

// The last '[' in [from, to], or kNone.
std::size_t opener(std::string_view page, std::size_t from, std::size_t to) {
  if (to == kNone || to < from) return kNone;
  for (std::size_t i = std::min(to, page.size() - 1) + 1; i-- > from;) {
    if (page[i] == '[') return i;
  }
  return kNone;
}

// The '[' that the ']' at `close` closes, no earlier than `from` (brackets escaped with a
// backslash do not count), or kNone.
std::size_t matching_opener(std::string_view page, std::size_t from, std::size_t close) {
  std::size_t depth = 0;
  for (std::size_t i = close + 1; i-- > from;) {
    const char c = page[i];
    if (c != '[' && c != ']') continue;
    std::size_t slashes = 0;
    while (i > slashes && page[i - slashes - 1] == '\\') ++slashes;
    if (slashes % 2 == 1) continue;
    if (c == ']') {
      ++depth;
    } else if (--depth == 0) {
      return i;
    }
  }
  return kNone;
}

}  // namespace

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

std::string page_folder(const fs::path& repo_root, const fs::path& page_file) {
  const fs::path folder =
      fs::absolute(page_file).lexically_normal().parent_path().lexically_relative(repo_root);
  const std::string out = folder.generic_string();
  return out == "." ? std::string() : out;
}

std::vector<WrittenCitation> written_citations(std::string_view page, std::string_view folder,
                                               const Forge* forge) {
  std::vector<WrittenCitation> out;
  const std::vector<ParsedLink> links = parsed_links(page);
  out.reserve(links.size());
  for (const ParsedLink& link : links) {
    if (link.href == kNone || link.href_size == 0) continue;
    const std::string_view dest = page.substr(link.href, link.href_size);
    const std::size_t hash = dest.find('#');
    if (hash == kNone || hash == 0) continue;
    std::optional<ForgeTarget> on_forge;
    if (forge != nullptr && has_scheme(dest)) on_forge = forge_target(dest, *forge);
    const std::string_view path =
        on_forge ? dest.substr(on_forge->path_begin, on_forge->path_end - on_forge->path_begin)
                 : dest.substr(0, hash);
    if (!on_forge && (has_scheme(path) || path.starts_with("//") || path.find('?') != kNone)) {
      continue;
    }
    const auto fragment = parse_fragment(dest.substr(hash + 1), on_forge.has_value());
    if (!fragment) continue;
    const auto resolved = resolve(percent_decode(path), on_forge ? std::string_view() : folder);
    if (!resolved) continue;

    WrittenCitation c;
    c.path_begin = link.href + (on_forge ? on_forge->path_begin : 0);
    c.path_end = link.href + (on_forge ? on_forge->path_end : hash);
    c.fragment_begin = link.href + hash + 1;
    c.fragment_end = link.href + link.href_size;
    if (on_forge) {
      c.ref_begin = link.href + on_forge->ref_begin;
      c.ref_end = link.href + on_forge->ref_end;
      c.permalink = on_forge->permalink;
      // GitLab's form writes a range's last line bare, when it is written there at all.
      c.bare_last = fragment->bare_last || (on_forge->gitlab && !fragment->has_last);
    }
    c.key = {*resolved, fragment->first, fragment->last};
    // An autolink, <https://...>: its destination is its text.
    if (on_forge && link.href > 0 && page[link.href - 1] == '<' &&
        link.href + link.href_size < page.size() && page[link.href + link.href_size] == '>' &&
        link.first_text == link.href) {
      c.begin = link.href - 1;
      c.end = link.href + link.href_size + 1;
      out.push_back(std::move(c));
      continue;
    }
    // What stands before the destination tells the form: "(" an inline link, ":" a definition.
    std::size_t before = link.href;
    if (before > 0 && page[before - 1] == '<') --before;
    while (before > 0 && (page[before - 1] == ' ' || page[before - 1] == '\t' ||
                          page[before - 1] == '\n' || page[before - 1] == '\r')) {
      --before;
    }
    if (before == 0) continue;
    const std::size_t text_from = link.first_text != kNone ? link.first_text : kNone;
    if (page[before - 1] == '(') {
      // [text](dest "title"): the text's ']' stands just before the '('.
      const std::size_t close = before - 2;
      if (before < 2 || page[close] != ']') continue;
      c.begin = matching_opener(page, link.before, close);
      if (c.begin == kNone) {
        c.begin = opener(page, link.before, text_from != kNone ? text_from - 1 : close);
      }
      if (c.begin == kNone) continue;
      std::size_t after = c.fragment_end;
      if (after < page.size() && page[after] == '>') ++after;
      if (link.title_end != kNone) after = std::max(after, link.title_end);
      const std::size_t paren = page.find(')', after);
      c.end = paren == kNone ? page.size() : paren + 1;
    } else if (page[before - 1] == ':') {
      // A use of a definition: [text][label], [label][] or [label].
      c.begin = text_from != kNone ? opener(page, link.before, text_from - 1) : kNone;
      if (c.begin == kNone) c.begin = page.find('[', link.before);  // [][label]
      if (c.begin == kNone) continue;
      std::size_t close =
          page.find(']', link.last_text_end != kNone ? link.last_text_end : c.begin + 1);
      if (close != kNone && close + 1 < page.size() && page[close + 1] == '[') {
        close = page.find(']', close + 1);
      }
      c.end = close == kNone ? page.size() : close + 1;
    } else {
      continue;
    }
    out.push_back(std::move(c));
  }
  // Links close in the order they open (a link holds no link), so the citations come sorted but
  // where a link's opener was only guessed at (a reference's use without text of its own).
  const auto by_begin = [](const WrittenCitation& a, const WrittenCitation& b) {
    return a.begin < b.begin;
  };
  if (!std::is_sorted(out.begin(), out.end(), by_begin)) {
    std::stable_sort(out.begin(), out.end(), by_begin);
  }
  return out;
}

const std::vector<WrittenCitation>& MarkdownCitationSyntax::citations(const wiki::Text& text) {
  if (cached_id_ != text.id() || cached_folder_ != folder_) {
    cached_ = written_citations(text.str(), folder_, forge_.get());
    cached_id_ = text.id();
    cached_folder_ = folder_;
  }
  return cached_;
}

void MarkdownCitationSyntax::find(const wiki::Text& text,
                                  const std::function<void(const wiki::Citation&)>& each) {
  // A copy: `each` may call back into this syntax with another text.
  const std::vector<WrittenCitation> found = citations(text);
  for (const WrittenCitation& c : found) {
    if (!c.permalink) each(wiki::Citation{c.key, text.point_at(c.begin)});
  }
}

bool MarkdownCitationSyntax::has_permalink(const wiki::Text& text) {
  const std::vector<WrittenCitation>& found = citations(text);
  return std::any_of(found.begin(), found.end(),
                     [](const WrittenCitation& c) { return c.permalink; });
}

std::optional<std::size_t> MarkdownCitationSyntax::last_end(const wiki::Text& text,
                                                            std::size_t start, std::size_t end) {
  if (start >= end) return std::nullopt;
  const std::size_t from = text.byte_at(start), to = text.byte_at(end);
  const std::vector<WrittenCitation>& found = citations(text);
  auto it = std::lower_bound(found.begin(), found.end(), from,
                             [](const WrittenCitation& c, std::size_t b) { return c.begin < b; });
  std::optional<std::size_t> last;
  for (; it != found.end() && it->begin < to; ++it) {
    if (!it->permalink && it->end <= to && (!last || it->end > *last)) last = it->end;
  }
  if (!last) return std::nullopt;
  return text.point_at(*last);
}

namespace {

// `text` with each citation for which `replace` gives new bytes from its path's or fragment's
// start (through the fragment's end) so changed; a definition used many times is changed once.
std::string replaced(
    std::string_view text, const std::vector<WrittenCitation>& found,
    const std::function<std::optional<std::pair<std::size_t, std::string>>(const WrittenCitation&)>&
        replace) {
  struct Edit {
    std::size_t begin, end;
    std::string bytes;
  };
  std::vector<Edit> edits;
  std::vector<std::size_t> done;  // fragment ends already edited
  for (const WrittenCitation& c : found) {
    if (std::find(done.begin(), done.end(), c.fragment_end) != done.end()) continue;
    auto edit = replace(c);
    if (!edit) continue;
    done.push_back(c.fragment_end);
    edits.push_back({edit->first, c.fragment_end, std::move(edit->second)});
  }
  if (edits.empty()) return std::string(text);
  std::sort(edits.begin(), edits.end(),
            [](const Edit& a, const Edit& b) { return a.begin < b.begin; });
  std::string out;
  out.reserve(text.size() + 16);
  std::size_t copied = 0;
  for (const Edit& e : edits) {
    out.append(text.substr(copied, e.begin - copied));
    out += e.bytes;
    copied = e.end;
  }
  out.append(text.substr(copied));
  return out;
}

Fragment fragment_of(std::string_view text, const WrittenCitation& c) {
  return *parse_fragment(text.substr(c.fragment_begin, c.fragment_end - c.fragment_begin),
                         c.ref_end > 0);
}

// The fragment of `c` at new lines, in the form it was written in.
std::string new_fragment(std::string_view text, const WrittenCitation& c, wiki::Line first,
                         wiki::Line last) {
  return fragment_text(fragment_of(text, c), first, last, c.bare_last);
}

// `segment` (a file or folder name) as a destination holds it: %XX for the bytes that would end
// or change the destination (inside angle brackets, a space may stay).
std::string encoded(std::string_view segment, bool angle) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : segment) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = angle ? byte != '\n' && byte != '\r' && byte >= ' '
                             : byte > ' ' && std::string_view("()`").find(c) == kNone;
    if (!plain || byte == 0x7f || std::string_view("#<>%?\\").find(c) != kNone) {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
    } else {
      out += c;
    }
  }
  return out;
}

// The destination path for `to` in the form `written` was written in: from the root when it
// starts with '/', else from `folder` (with "./" kept); each name equal to the written one at its
// place is written as it was.
std::string rewritten_path(std::string_view written, const std::string& to, std::string_view folder,
                           bool angle) {
  std::vector<std::string> parts;
  const bool root = written.starts_with("/");
  if (root) {
    parts.emplace_back();
    for (std::string& part : split(to)) parts.push_back(std::move(part));
  } else {
    std::vector<std::string> from;
    for (std::string& part : split(folder)) {
      if (!part.empty()) from.push_back(std::move(part));
    }
    const std::vector<std::string> target = split(to);
    std::size_t common = 0;
    while (common < from.size() && common + 1 < target.size() && from[common] == target[common]) {
      ++common;
    }
    if (written.starts_with("./")) parts.emplace_back(".");
    for (std::size_t i = common; i < from.size(); ++i) parts.emplace_back("..");
    for (std::size_t i = common; i < target.size(); ++i) parts.push_back(target[i]);
  }
  const std::vector<std::string> was = split(written);
  std::string out;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) out += '/';
    if (i < was.size() && percent_decode(was[i]) == parts[i]) {
      out += was[i];
    } else {
      out += encoded(parts[i], angle);
    }
  }
  return out;
}

// The bytes from `c`'s path to its fragment's end with the path made `to` (from the repository
// root) in the form it was written in, and the fragment `lines`.
std::string retargeted(std::string_view bytes, const WrittenCitation& c, const std::string& to,
                       std::string_view folder, const std::string& lines) {
  const bool angle = c.path_begin > 0 && bytes[c.path_begin - 1] == '<';
  const std::string_view written = bytes.substr(c.path_begin, c.path_end - c.path_begin);
  // A forge link's path is written from the root, with no '/' before it.
  return rewritten_path(written, to, c.ref_end > 0 ? std::string_view() : folder, angle) +
         std::string(bytes.substr(c.path_end, c.fragment_begin - c.path_end)) + lines;
}

}  // namespace

std::string MarkdownCitationSyntax::rewrite(const wiki::Text& text, const wiki::Moves& moves) {
  const std::string& bytes = text.str();
  if (moves.empty()) return bytes;
  return replaced(bytes, citations(text), [&](const WrittenCitation& c) {
    std::optional<std::pair<std::size_t, std::string>> edit;
    const wiki::Move* move = c.permalink ? nullptr : moves.find(c.key);
    if (move == nullptr) return edit;
    const std::string lines = new_fragment(bytes, c, move->first, move->last);
    if (move->path.empty() || move->path == c.key.path) {
      edit.emplace(c.fragment_begin, lines);
    } else {
      edit.emplace(c.path_begin, retargeted(bytes, c, move->path, folder_, lines));
    }
    return edit;
  });
}

std::string repointed(std::string_view text, const WrittenCitation& link, const std::string& commit,
                      const std::string& path, wiki::LineRange lines) {
  return replaced(text, {link}, [&](const WrittenCitation& c) {
    const std::string fragment = new_fragment(text, c, lines.first, lines.last);
    std::string bytes = commit;
    bytes += text.substr(c.ref_end, c.path_begin - c.ref_end);
    if (path == c.key.path) {
      bytes += text.substr(c.path_begin, c.fragment_begin - c.path_begin);
      bytes += fragment;
    } else {
      bytes += retargeted(text, c, path, "", fragment);
    }
    return std::optional(std::pair(c.ref_begin, std::move(bytes)));
  });
}

std::optional<Forge> forge_of(std::string_view url) {
  // scheme://[user@]host[:port]/path, or scp's [user@]host:path.
  std::string_view host, path;
  bool web = false;
  if (const std::size_t scheme = url.find("://"); scheme != kNone) {
    const std::string_view name = url.substr(0, scheme);
    web = same_letters(name, "http") || same_letters(name, "https");
    const std::string_view rest = url.substr(scheme + 3);
    const std::size_t slash = rest.find('/');
    if (slash == kNone) return std::nullopt;
    host = rest.substr(0, slash);
    path = rest.substr(slash + 1);
  } else {
    const std::size_t colon = url.find(':');
    if (colon == kNone || url.find('/') < colon) return std::nullopt;
    host = url.substr(0, colon);
    path = url.substr(colon + 1);
  }
  if (const std::size_t user = host.rfind('@'); user != kNone) host.remove_prefix(user + 1);
  // A web address's port is part of it; an ssh port is no web server's.
  if (const std::size_t port = host.rfind(':'); port != kNone && !web) host = host.substr(0, port);
  while (path.ends_with('/')) path.remove_suffix(1);
  while (path.starts_with('/')) path.remove_prefix(1);
  if (path.ends_with(".git")) path.remove_suffix(4);
  // A web address of a page of the repository ("/o/r/-/tree/main", "/o/r/blob/...") names it.
  for (const std::string_view part :
       {std::string_view("/-/"), std::string_view("/blob/"), std::string_view("/tree/")}) {
    if (const std::size_t at = path.find(part); web && at != kNone) path = path.substr(0, at);
  }
  if (host.empty() || path.empty()) return std::nullopt;
  Forge forge;
  forge.host.reserve(host.size());
  for (const char c : host)
    forge.host += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  forge.path = std::string(path);
  return forge;
}

}  // namespace tolbarrow::hosts::native

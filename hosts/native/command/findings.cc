#include "hosts/native/command/findings.h"

#include <algorithm>
#include <tuple>
#include <unordered_map>

namespace tolbarrow::hosts::native::command {

std::string_view kind_name(FindingKind kind) {
  switch (kind) {
    case FindingKind::moved:
      return "moved";
    case FindingKind::carried:
      return "carried";
    case FindingKind::renamed:
      return "renamed";
    case FindingKind::lost:
      return "lost";
    case FindingKind::missing:
      return "missing";
    case FindingKind::unanchored:
      return "unanchored";
    case FindingKind::misnamed:
      return "misnamed";
    case FindingKind::invalid:
      return "invalid";
    case FindingKind::permalink:
      return "permalink";
  }
  return "unknown";
}

namespace {

std::string fragment(wiki::LineRange lines) {
  std::string out = "#L" + std::to_string(lines.first);
  if (lines.last != lines.first) out += "-L" + std::to_string(lines.last);
  return out;
}

// Where a permalink's code is at HEAD: "#L20-L30", or "src/b.py#L20-L30" when its file was
// renamed.
std::string permalink_place(const Finding& f) {
  if (!f.new_lines) return "";
  return !f.new_path.empty() && f.new_path != f.path ? cited(f.new_path, *f.new_lines)
                                                     : fragment(*f.new_lines);
}

std::string short_commit(const std::string& commit) { return commit.substr(0, 7); }

nlohmann::ordered_json or_null(const std::string& text) {
  return text.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(text);
}

nlohmann::ordered_json lines_json(const std::optional<wiki::LineRange>& lines) {
  if (!lines) return nullptr;
  return {{"start", lines->first}, {"end", lines->last}};
}

// What the finding says after the citation: its new place and, in parentheses, what it is.
std::string detail(const Finding& f, bool written) {
  const std::string to = f.new_lines ? fragment(*f.new_lines) : "";
  switch (f.kind) {
    case FindingKind::moved:
      return " -> " + to + (written ? " (moved)" : " (would move)");
    case FindingKind::carried:
      return " -> " + to + (written ? " (carried)" : " (would be carried)");
    case FindingKind::renamed:
      return " -> " + cited(f.new_path, f.new_lines.value_or(f.lines)) +
             (written ? " (renamed)" : " (would follow its renamed file)");
    case FindingKind::lost:
      return " (lost: " + f.reason + ")";
    case FindingKind::missing:
      return " (missing file)";
    case FindingKind::unanchored:
      return " (not anchored yet)";
    case FindingKind::misnamed:
      return " (" + f.reason + "; anchored as written)";
    case FindingKind::invalid:
      return " (invalid: " + f.reason + ")";
    case FindingKind::permalink:
      if (!f.new_commit.empty()) {
        return " -> " + permalink_place(f) + " at " + short_commit(f.new_commit) +
               (written ? " (permalink updated)" : " (permalink would be updated)");
      }
      return " (permalink to " + short_commit(f.commit) + "; " +
             (f.new_lines ? "the code is at " + permalink_place(f) + " now" : f.reason) + ")";
  }
  return "";
}

// The same in a sentence, for an annotation's message.
std::string sentence(const Finding& f, bool written) {
  const std::string to = f.new_lines ? fragment(*f.new_lines) : "";
  const std::string run = "; run citation-refresh";
  switch (f.kind) {
    case FindingKind::moved:
      return written ? "moved to " + to : "stale: its code is at " + to + " now" + run;
    case FindingKind::carried:
      return written ? "carried to " + to : "stale: git's diff carries it to " + to + run;
    case FindingKind::renamed:
      return written
                 ? "led to its file's new path, " + cited(f.new_path, f.new_lines.value_or(f.lines))
                 : "stale: its file is " + f.new_path + " now" + run;
    case FindingKind::lost:
      return "lost: " + f.reason;
    case FindingKind::missing:
      return f.path + " is not in the repository";
    case FindingKind::unanchored:
      return "not anchored yet" + run + " and commit the anchors file";
    case FindingKind::misnamed:
      return f.reason + "; anchored as written";
    case FindingKind::invalid:
      return "invalid: " + f.reason;
    case FindingKind::permalink:
      if (!f.new_commit.empty()) {
        return (written ? "permalink pointed at "
                        : "stale permalink: --update-permalinks points it at ") +
               short_commit(f.new_commit) + ", " + permalink_place(f);
      }
      return "permalink to " + short_commit(f.commit) + "; " +
             (f.new_lines ? "the code is at " + permalink_place(f) + " at HEAD" : f.reason);
  }
  return "";
}

}  // namespace

std::string cited(std::string_view path, wiki::LineRange lines) {
  return std::string(path) + fragment(lines);
}

std::string describe(const Finding& finding, bool written) {
  return cited(finding.path, finding.lines) + detail(finding, written);
}

std::string compiler_line(const Finding& finding, bool written) {
  std::string place = finding.page + ":";
  if (finding.line > 0) {
    place += std::to_string(finding.line) + ":" + std::to_string(finding.column) + ":";
  }
  return place + " " + describe(finding, written);
}

std::string github_escape(std::string_view text, bool property) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '%':
        out += "%25";
        break;
      case '\r':
        out += "%0D";
        break;
      case '\n':
        out += "%0A";
        break;
      case ':':
        out += property ? "%3A" : ":";
        break;
      case ',':
        out += property ? "%2C" : ",";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string github_line(const Finding& finding, bool written) {
  std::string out = finding.action ? "::error " : "::warning ";
  out += "file=" + github_escape(finding.page, true);
  if (finding.line > 0) {
    out += ",line=" + std::to_string(finding.line) + ",col=" + std::to_string(finding.column);
  }
  out += ",title=" + github_escape("citation " + std::string(kind_name(finding.kind)), true);
  out += "::" + github_escape(
                    cited(finding.path, finding.lines) + ": " + sentence(finding, written), false);
  return out;
}

nlohmann::ordered_json finding_json(const Finding& f) {
  return {{"page", f.page},
          {"page_id", f.page_id},
          {"line", f.line},
          {"column", f.column},
          {"link", f.link},
          {"kind", kind_name(f.kind)},
          {"path", f.path},
          {"lines", lines_json(f.lines)},
          {"new_path", or_null(f.new_path != f.path ? f.new_path : std::string())},
          {"new_lines", lines_json(f.new_lines)},
          {"reason", or_null(f.reason)},
          {"commit", or_null(f.commit)},
          {"new_commit", or_null(f.new_commit)},
          {"action", f.action}};
}

std::pair<wiki::Line, wiki::Line> LineCursor::at(std::size_t offset) {
  if (offset < at_) *this = LineCursor(bytes_);
  for (; at_ < offset && at_ < bytes_.size(); ++at_) {
    const char c = bytes_[at_];
    if (c == '\n' || (c == '\r' && (at_ + 1 >= bytes_.size() || bytes_[at_ + 1] != '\n'))) {
      ++line_;
      column_ = 1;
    } else if ((static_cast<unsigned char>(c) & 0xC0) != 0x80 && c != '\r') {
      ++column_;
    }
  }
  return {line_, column_};
}

std::vector<Placed> place_citations(wiki::CitationSyntax& syntax, const wiki::Text& text) {
  std::vector<wiki::Citation> found;
  syntax.find(text, [&](const wiki::Citation& c) { found.push_back(c); });
  std::vector<Placed> out;
  out.reserve(found.size());
  LineCursor cursor(text.str());
  for (std::size_t i = 0; i < found.size(); ++i) {
    const auto [line, column] = cursor.at(text.byte_at(found[i].start));
    // The link ends where the last citation in [start, next start) ends.
    const std::size_t bound = i + 1 < found.size() ? found[i + 1].start : text.length();
    const std::size_t end = syntax.last_end(text, found[i].start, bound).value_or(found[i].start);
    out.push_back({found[i].key, line, column, std::string(text.slice(found[i].start, end))});
  }
  return out;
}

std::vector<Finding> at_their_places(
    std::vector<Finding> findings, const std::map<std::string, std::vector<Placed>>& pages,
    const std::function<std::vector<wiki::CitationKey>(const Finding&)>& keys) {
  std::vector<Finding> out;
  out.reserve(findings.size());
  for (Finding& f : findings) {
    const auto page = pages.find(f.page_id);
    bool placed = false;
    for (const wiki::CitationKey& key : keys(f)) {
      if (placed || page == pages.end()) break;
      for (const Placed& p : page->second) {
        if (p.key != key) continue;
        Finding one = f;
        one.line = p.line;
        one.column = p.column;
        one.link = p.link;
        out.push_back(std::move(one));
        placed = true;
      }
    }
    if (!placed) out.push_back(std::move(f));
  }
  std::stable_sort(out.begin(), out.end(), [](const Finding& a, const Finding& b) {
    return std::tie(a.page, a.line, a.column) < std::tie(b.page, b.line, b.column);
  });
  return out;
}

}  // namespace tolbarrow::hosts::native::command

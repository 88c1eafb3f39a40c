#include "hosts/native/landing.h"

#include <algorithm>
#include <vector>

#include "hosts/native/repo_paths.h"
#include "hosts/native/store.h"

namespace tolbarrow::hosts::native {
namespace fs = std::filesystem;
namespace {

std::vector<std::string_view> words(std::string_view text) {
  std::vector<std::string_view> out;
  while (!text.empty()) {
    const std::size_t space = std::min(text.find(' '), text.size());
    if (space > 0) out.push_back(text.substr(0, space));
    text.remove_prefix(std::min(space + 1, text.size()));
  }
  return out;
}

// A qualified name without its parameter list: C++ functions carry their parameter types, which
// change without the function becoming another one.
std::string_view without_parameters(std::string_view fqn) {
  return fqn.substr(0, std::min(fqn.find('('), fqn.size()));
}

wiki::Line line_of(const wiki::Record& record, const char* key) {
  const auto it = record.find(key);
  return it != record.end() && it->is_number_integer() ? it->get<wiki::Line>() : 0;
}

}  // namespace

std::string cited_text_hash(std::string_view content, wiki::Line first, wiki::Line last) {
  if (first < 1 || last < first) return {};
  std::vector<std::string_view> lines;
  std::size_t at = 0;
  for (wiki::Line n = 1; n <= last; ++n) {
    if (at >= content.size()) return {};  // the file ends before the cited lines do
    const std::size_t eol = std::min(content.find('\n', at), content.size());
    if (n >= first) {
      std::string_view line = content.substr(at, eol - at);
      while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r')) {
        line.remove_suffix(1);
      }
      lines.push_back(line);
    }
    at = eol + 1;
  }
  std::string out;
  if (last - first + 1 > kLinesKept) {
    std::string joined;
    for (std::size_t i = 0; i < lines.size(); ++i) (joined += i ? "\n" : "") += lines[i];
    return "#" + sha256_hex(joined).substr(0, 16);
  }
  for (std::size_t i = 0; i < lines.size(); ++i)
    (out += i ? " " : "") += sha256_hex(lines[i]).substr(0, 4);
  return out;
}

bool similar_text(std::string_view then, std::string_view now) {
  if (then == now) return true;
  if (then.starts_with('#') || now.starts_with('#')) return false;
  const std::vector<std::string_view> a = words(then), b = words(now);
  if (a.empty() || b.empty()) return false;
  // The longest common subsequence of the two lines' hashes.
  std::vector<std::size_t> row(b.size() + 1, 0);
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = 0;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = a[i - 1] == b[j - 1] ? diagonal + 1 : std::max(row[j], row[j - 1]);
      diagonal = above;
    }
  }
  return 2 * row[b.size()] >= std::max(a.size(), b.size());
}

const std::optional<std::string>& WorkTreeFiles::operator()(const std::string& path) {
  auto [it, added] = contents_.try_emplace(path);
  if (added) {
    const auto real = contained_path(root_, path);
    std::error_code error;
    if (real && fs::is_regular_file(*real, error)) it->second = read_bytes(*real);
  }
  return it->second;
}

bool TextLandingCheck::accepts(const std::string& path, const wiki::Record& cited,
                               const wiki::Symbol* found, wiki::LineRange lines) {
  const wiki::Line start = line_of(cited, "line_start"), end = line_of(cited, "line_end");
  if (known_.count(wiki::CitationKey{path, start, end})) return false;
  const auto text = cited.find("text");
  if (text == cited.end() || !text->is_string()) return true;
  const auto symbol = cited.find("symbol");
  const std::string fqn =
      symbol != cited.end() && symbol->is_string() ? symbol->get<std::string>() : "";
  const bool same_declaration = found != nullptr && !fqn.empty() && found->fqn == fqn;
  // Nothing moves, and the declaration is the one cited. A citation that follows no declaration is
  // checked where it stands, too: nothing else tells that its lines changed.
  if (lines == wiki::LineRange{start, end} && same_declaration) return true;
  // A whole declaration found by its qualified name (its parameter types aside) follows it.
  if (found != nullptr && !fqn.empty() &&
      without_parameters(found->fqn) == without_parameters(fqn) &&
      start == line_of(cited, "symbol_start") && end == line_of(cited, "symbol_end") &&
      lines == wiki::LineRange{found->start_line, found->end_line}) {
    return true;
  }
  const std::optional<std::string>& now = content_(path);
  if (!now) return true;  // nothing to compare with; the refresh fits it to the file
  if (similar_text(text->get<std::string>(), cited_text_hash(*now, lines.first, lines.last))) {
    return true;
  }
  std::string why = "the cited lines changed beyond recognition";
  if (found != nullptr && !fqn.empty() && found->fqn != fqn) {
    why = "`" + fqn + "` is gone; `" + found->fqn + "` is at " + path + "#L" +
          std::to_string(found->start_line) + "-L" + std::to_string(found->end_line);
  }
  refused_[wiki::CitationKey{path, start, end}] = why;
  return false;
}

}  // namespace tolbarrow::hosts::native

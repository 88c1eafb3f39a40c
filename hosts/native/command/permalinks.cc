#include "hosts/native/command/permalinks.h"

#include <algorithm>
#include <map>
#include <optional>

#include "hosts/native/command/git_plumbing.h"
#include "hosts/native/repo_paths.h"

namespace tolbarrow::hosts::native::command {
namespace fs = std::filesystem;
namespace {

// Where a commit's file stands at HEAD: its path there and the map of its lines, or why not.
struct AtHead {
  std::string path;
  std::optional<LineMap> lines;
  wiki::Line old_count = 0;
  std::string reason;
};

// `lines` at HEAD when git's diff leaves every one of them unchanged and together.
std::optional<wiki::LineRange> unchanged_range(const LineMap& map, wiki::LineRange lines) {
  const std::optional<wiki::Line> first = map.unchanged(lines.first);
  if (!first) return std::nullopt;
  for (wiki::Line n = lines.first + 1; n <= lines.last; ++n) {
    if (map.unchanged(n) != *first + (n - lines.first)) return std::nullopt;
  }
  return wiki::LineRange{*first, *first + (lines.last - lines.first)};
}

}  // namespace

std::vector<Finding> follow_permalinks(const PermalinkPages& pages, bool update, bool write,
                                       wiki::FileSystem& files, std::set<fs::path>& written) {
  std::vector<Finding> out;
  if (pages.forge == nullptr || pages.pages.empty()) return out;
  struct Page {
    std::string id;
    fs::path file;
    std::string bytes;
    std::vector<WrittenCitation> links;
  };
  std::vector<Page> read;
  for (const auto& [id, rel] : pages.pages) {
    Page page{id, pages.wiki_dir / rel, files.read_file(pages.wiki_dir / rel), {}};
    for (WrittenCitation& c :
         written_citations(page.bytes, page_folder(pages.root, page.file), pages.forge)) {
      if (c.permalink) page.links.push_back(std::move(c));
    }
    if (!page.links.empty()) read.push_back(std::move(page));
  }
  const std::optional<std::string> head = commit_of(pages.root, "HEAD");
  if (read.empty() || !head) return out;

  // Each commit as written, resolved once; each (commit, path) followed to HEAD once, every
  // file read by one git and diffed by another.
  std::map<std::string, std::optional<std::string>> commits;
  std::map<std::string, std::map<std::string, std::string>> renamed;  // full commit -> renames
  std::map<std::pair<std::string, std::string>, AtHead> at_head;
  std::vector<std::pair<std::string, std::string>> wanted;  // (full commit, path)
  auto ref_of = [](const Page& page, const WrittenCitation& c) {
    return page.bytes.substr(c.ref_begin, c.ref_end - c.ref_begin);
  };
  for (const Page& page : read) {
    for (const WrittenCitation& c : page.links) {
      const std::string ref = ref_of(page, c);
      auto [it, fresh] = commits.try_emplace(ref);
      if (fresh) it->second = commit_of(pages.root, ref);
      if (!it->second || *it->second == *head) continue;
      if (at_head.try_emplace({*it->second, c.key.path}).second) {
        wanted.emplace_back(*it->second, c.key.path);
      }
    }
  }
  std::vector<std::string> names;
  for (const auto& [commit, path] : wanted) {
    auto [renames, fresh] = renamed.try_emplace(commit);
    if (fresh) renames->second = renames_between(pages.root, commit, *head);
    const auto to = renames->second.find(path);
    AtHead& where = at_head[{commit, path}];
    where.path = to == renames->second.end() ? path : to->second;
    names.push_back(commit + ":" + path);
    names.push_back(*head + ":" + where.path);
  }
  const std::vector<std::optional<std::string>> texts = cat_files(pages.root, names);
  std::vector<std::pair<std::string, std::string>> pairs;
  std::vector<AtHead*> diffed;
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    AtHead& where = at_head[wanted[i]];
    const std::optional<std::string>&old_text = texts[2 * i], &new_text = texts[2 * i + 1];
    if (!old_text) {
      where.reason = "that commit has no " + wanted[i].second;
    } else if (!new_text) {
      where.reason = wanted[i].second +
                     " is not at HEAD (deleted, or moved further than git's rename detection "
                     "follows)";
    } else {
      where.old_count = count_lines(*old_text);
      pairs.emplace_back(*old_text, *new_text);
      diffed.push_back(&where);
    }
  }
  std::vector<LineMap> maps = diff_lines(pages.root, pairs);
  for (std::size_t i = 0; i < diffed.size(); ++i) diffed[i]->lines = std::move(maps[i]);

  std::map<std::size_t, std::string> head_ids;  // written length -> HEAD's id that long
  for (const Page& page : read) {
    const std::string page_path = page.file.lexically_relative(pages.root).generic_string();
    std::vector<std::pair<const WrittenCitation*, std::size_t>> to_move;  // link, its finding
    LineCursor cursor(page.bytes);
    for (const WrittenCitation& c : page.links) {
      const std::string ref = ref_of(page, c);
      const std::optional<std::string>& commit = commits[ref];
      Finding f;
      f.kind = FindingKind::permalink;
      f.page = page_path;
      f.page_id = page.id;
      std::tie(f.line, f.column) = cursor.at(c.begin);
      f.link = page.bytes.substr(c.begin, c.end - c.begin);
      f.path = c.key.path;
      f.lines = {c.key.start, c.key.end};
      f.commit = commit.value_or(ref);
      f.action = false;
      if (!commit) {
        f.reason = "a commit this clone does not have";
      } else if (*commit == *head) {
        continue;
      } else if (const AtHead& where = at_head[{*commit, c.key.path}]; !where.lines) {
        f.reason = where.reason;
      } else if (c.key.start < 1 || c.key.end < c.key.start || c.key.end > where.old_count) {
        f.reason = "that commit's " + c.key.path + " has no such lines";
      } else if (auto now = unchanged_range(*where.lines, f.lines); !now) {
        f.reason = "its lines have changed since";
      } else if (*now == f.lines && where.path == f.path) {
        continue;  // the code stands where the link has it
      } else {
        f.new_lines = *now;
        f.new_path = where.path;
        if (update) {
          const std::size_t digits = c.ref_end - c.ref_begin;
          auto [id, fresh] = head_ids.try_emplace(digits);
          if (fresh) id->second = short_id(pages.root, *head, digits);
          f.new_commit = id->second;
          f.action = !write;
          to_move.emplace_back(&c, out.size());
        }
      }
      out.push_back(std::move(f));
    }
    if (!write || to_move.empty()) continue;
    // Each link pointed once (a reference definition has a finding per use), the last first, so
    // that the offsets of those before it stay good.
    std::sort(to_move.begin(), to_move.end(),
              [](const auto& a, const auto& b) { return a.first->ref_begin > b.first->ref_begin; });
    std::string bytes = page.bytes;
    std::size_t done = std::string::npos;
    for (const auto& [link, finding] : to_move) {
      if (link->ref_begin == done) continue;
      done = link->ref_begin;
      const Finding& f = out[finding];
      bytes = repointed(bytes, *link, f.new_commit, f.new_path, *f.new_lines);
    }
    files.atomic_write(page.file, bytes);
    written.insert(page.file);
  }
  return out;
}

}  // namespace tolbarrow::hosts::native::command

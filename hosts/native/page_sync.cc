#include "hosts/native/page_sync.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <unordered_set>

#include "hosts/native/repo_paths.h"
#include "workers/wiki/text.h"

namespace tolbarrow::hosts::native {
namespace fs = std::filesystem;
namespace {

std::optional<wiki::Line> read_line(const wiki::Record& value) {
  if (value.is_number_integer()) return value.get<wiki::Line>();
  if (value.is_number_float()) {
    const double d = value.get<double>();
    if (std::trunc(d) == d && std::abs(d) < 1e15) return static_cast<wiki::Line>(d);
    return std::nullopt;
  }
  if (value.is_string()) {
    const auto& text = value.get_ref<const std::string&>();
    if (text.empty() || text.size() > 18 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
      return std::nullopt;
    }
    return std::stoll(text);
  }
  return std::nullopt;
}

// The key a record was stored under, or nullopt when it cannot be read.
std::optional<wiki::CitationKey> stored_key(const wiki::Record& record) {
  if (!record.is_object()) return std::nullopt;
  auto path = record.find("path"), start = record.find("line_start"), end = record.find("line_end");
  if (path == record.end() || !path->is_string() || start == record.end() || end == record.end()) {
    return std::nullopt;
  }
  const auto first = read_line(*start), last = read_line(*end);
  if (!first || !last) return std::nullopt;
  return wiki::CitationKey{path->get<std::string>(), *first, *last};
}

bool inside(const fs::path& file, const fs::path& dir) {
  const auto end = std::mismatch(dir.begin(), dir.end(), file.begin(), file.end()).first;
  return end == dir.end();
}

// A page file under `wiki_dir`, and whether it is a symbolic link.
struct PageFile {
  fs::path file;
  bool link = false;
};

// `bytes` with each byte that is not printable ASCII written as \xNN: a file name as the user
// can type it, whatever its encoding.
std::string escaped(std::string_view bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (const char c : bytes) {
    const auto b = static_cast<unsigned char>(c);
    if (b >= 0x20 && b < 0x7f && b != '\\') {
      out += c;
    } else {
      out += "\\x";
      out += kHex[b >> 4];
      out += kHex[b & 15];
    }
  }
  return out;
}

// The page files under `wiki_dir`: path relative to it -> file. A page's symbolic link is a page
// when it leads to a regular file inside the repository but outside the wiki directory; one that
// leads to a file inside the wiki directory is that file's page under another name, refreshed
// (once) as that file, and no page of its own; one that loops, dangles or leads elsewhere is
// skipped, and named in `skipped` with the reason. Linked directories are not entered. A page
// whose path is not UTF-8 cannot have a page id: it is skipped, named by its bytes.
// Whether `name` is that of a temporary file of a write (".<name>.tmp-<digits>").
bool temporary_name(std::string_view name) {
  const std::size_t tmp = name.rfind(".tmp-");
  return name.size() > 1 && name[0] == '.' && tmp != std::string_view::npos && tmp > 1 &&
         tmp + 5 < name.size() &&
         name.find_first_not_of("0123456789", tmp + 5) == std::string_view::npos;
}

}  // namespace

bool page_file_name(const fs::path& file) {
  const fs::path ending = file.extension();
  return ending == ".md" || ending == ".markdown" || ending == ".mdx";
}

namespace {

std::map<std::string, PageFile> page_files(const fs::path& wiki_dir, const fs::path& repo_root,
                                           std::vector<std::string>& skipped,
                                           std::vector<fs::path>& leftovers) {
  std::error_code error;
  fs::path wiki_real = fs::weakly_canonical(wiki_dir, error);
  if (error) wiki_real = repo_root;
  std::map<std::string, PageFile> out;
  auto it = fs::recursive_directory_iterator(wiki_dir);
  for (; it != fs::recursive_directory_iterator(); ++it) {
    const std::string name = it->path().filename().string();
    // The entry's own type (a link is not followed: that would stop the walk at the first
    // loop), as the directory listing gave it where it could: no stat per file.
    const bool link = it->is_symlink();
    if (!link && it->is_directory()) {
      if (!name.empty() && name[0] == '.') it.disable_recursion_pending();
      continue;
    }
    if (!link && temporary_name(name)) leftovers.push_back(it->path());
    if (!page_file_name(it->path())) continue;
    const std::string rel = it->path().lexically_relative(wiki_dir).generic_string();
    if (wiki::first_invalid_utf8(rel) != std::string::npos) {
      skipped.push_back(escaped(it->path().string()) +
                        ": the file name is not UTF-8; rename the page to refresh it");
      continue;
    }
    if (link) {
      const fs::path target = fs::canonical(it->path(), error);
      if (error) {
        skipped.push_back(it->path().string() + ": " + error.message());
        continue;
      }
      if (!inside(target, repo_root) && !inside(target, wiki_real)) {
        skipped.push_back(it->path().string() + ": a symbolic link to " + target.string() +
                          ", outside the repository");
        continue;
      }
      if (!fs::is_regular_file(target, error)) continue;
      if (inside(target, wiki_real)) continue;  // refreshed as the page it leads to
    } else if (!it->is_regular_file()) {
      continue;
    }
    out.emplace(rel, PageFile{it->path(), link});
  }
  return out;
}

}  // namespace

SyncStats sync_pages(SqliteStore& store, MarkdownCitationSyntax& syntax, const std::string& branch,
                     const fs::path& wiki_dir) {
  // A page whose path and content hash are as stored has the records of its text: only the
  // others' records are read.
  std::map<std::string, PageHead> heads;
  for (PageHead& head : store.page_heads(branch)) heads.emplace(head.page_id, std::move(head));

  struct Found {
    std::string page_id, rel, hash;
    std::vector<wiki::CitationKey> cited;  // each key once, in text order
  };
  std::vector<Found> changed_files;
  std::map<std::string, std::vector<wiki::CitationKey>> cited_by_page;
  SyncStats stats;
  // The wiki directory relative to the repository root, when it is inside it: where the indexer
  // finds the pages. Directories are not followed through links below it, so a page that is no
  // link is found there under its path relative to the wiki directory.
  std::optional<fs::path> wiki_in_root;
  {
    std::error_code error;
    const fs::path real = fs::weakly_canonical(wiki_dir, error);
    const fs::path rel = real.lexically_relative(store.repo_root());
    if (!error && !rel.empty() && *rel.begin() != "..") wiki_in_root = rel;
  }
  for (const auto& [rel, page_file] :
       page_files(wiki_dir, store.repo_root(), stats.skipped, stats.leftovers)) {
    const fs::path& file = page_file.file;
    struct stat before;
    const bool stated = !page_file.link && wiki_in_root && ::stat(file.c_str(), &before) == 0;
    std::string bytes = read_bytes(file);
    const bool md = rel.ends_with(".md");
    Found found{md ? rel.substr(0, rel.size() - 3) : rel, rel, sha256_hex(bytes), {}};
    if (stated) {
      const std::string path = (*wiki_in_root / rel).lexically_normal().generic_string();
      stats.read.emplace(path,
                         ReadFile{{path, found.hash, static_cast<std::int64_t>(bytes.size()),
                                   static_cast<std::int64_t>(before.st_mtim.tv_sec) * 1000000000 +
                                       before.st_mtim.tv_nsec,
                                   count_lines(bytes)},
                                  static_cast<std::uint64_t>(before.st_dev),
                                  static_cast<std::uint64_t>(before.st_ino),
                                  static_cast<std::int64_t>(before.st_ctim.tv_sec) * 1000000000 +
                                      before.st_ctim.tv_nsec});
    }
    const wiki::Text text(std::move(bytes), file.string());
    syntax.set_page_folder(
        wiki_in_root ? (*wiki_in_root / rel).lexically_normal().parent_path().generic_string()
                     : page_folder(store.repo_root(), wiki_dir / rel));
    // Each key once: a page's few are compared in place, a long page's hashed.
    constexpr std::size_t kCompared = 32;
    std::unordered_set<wiki::CitationKey, wiki::CitationKeyHash> in_text;
    syntax.find(text, [&](const wiki::Citation& citation) {
      if (found.cited.size() < kCompared) {
        if (std::find(found.cited.begin(), found.cited.end(), citation.key) != found.cited.end())
          return;
      } else {
        if (in_text.empty()) in_text.insert(found.cited.begin(), found.cited.end());
        if (!in_text.insert(citation.key).second) return;
      }
      found.cited.push_back(citation.key);
    });
    if (syntax.has_permalink(text)) stats.permalinked.emplace_back(found.page_id, rel);
    ++stats.pages;
    auto head = heads.find(found.page_id);
    const bool same = head != heads.end() && head->second.rel_path == rel &&
                      head->second.content_hash == found.hash;
    if (head != heads.end()) heads.erase(head);
    if (same) {
      cited_by_page.emplace(found.page_id, std::move(found.cited));
    } else {
      changed_files.push_back(std::move(found));
    }
  }

  std::map<std::string, StoredPage> stored;
  if (!changed_files.empty()) {
    for (StoredPage& page : store.pages(branch)) stored.emplace(page.page_id, std::move(page));
  }
  std::vector<StoredPage> changed;
  for (Found& found : changed_files) {
    StoredPage page;
    page.page_id = found.page_id;
    if (auto old = stored.find(page.page_id); old != stored.end()) {
      page = std::move(old->second);
      if (page.content_hash != found.hash) {
        if (auto origin = store.page_origin(branch, page.page_id);
            origin && origin->content_hash == found.hash) {
          page.citations = std::move(origin->citations);
          page.build_cache = std::move(origin->build_cache);
        }
      }
    }
    page.rel_path = found.rel;
    page.content_hash = found.hash;

    const std::unordered_set<wiki::CitationKey, wiki::CitationKeyHash> in_text(found.cited.begin(),
                                                                               found.cited.end());
    std::vector<wiki::Record> kept;
    std::unordered_set<wiki::CitationKey, wiki::CitationKeyHash> recorded;
    for (wiki::Record& record : page.citations) {
      const auto key = stored_key(record);
      if (key && !in_text.count(*key)) {
        ++stats.citations_dropped;
        continue;
      }
      if (key) recorded.insert(*key);
      kept.push_back(std::move(record));
    }
    for (const wiki::CitationKey& key : found.cited) {
      if (recorded.count(key)) continue;
      kept.push_back(
          wiki::Record{{"path", key.path}, {"line_start", key.start}, {"line_end", key.end}});
      ++stats.citations_added;
    }
    page.citations = std::move(kept);
    cited_by_page.emplace(page.page_id, std::move(found.cited));
    changed.push_back(std::move(page));
  }

  std::vector<std::string> removed;
  for (const auto& [page_id, head] : heads) removed.push_back(page_id);
  stats.pages_removed = removed.size();
  stats.pages_written = changed.size();
  store.update_pages(branch, changed, removed);
  stats.cited.reserve(cited_by_page.size());
  for (auto& [page_id, keys] : cited_by_page) stats.cited.emplace_back(page_id, std::move(keys));
  return stats;
}

}  // namespace tolbarrow::hosts::native

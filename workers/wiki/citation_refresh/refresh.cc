// The whole-wiki refresh, the write lock around it, and the guarded entry point.
#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::workers::wiki::citation_refresh {
namespace fs = std::filesystem;
namespace {

// The page's text: strict UTF-8, with CR LF and lone CR read as LF.
Text read_page(FileSystem& file_system, const fs::path& path) {
  std::string bytes = file_system.read_file(path);
  if (bytes.find('\r') != std::string::npos) {
    // Checked before the line ends change, so that an error names the file's own byte offset;
    // otherwise Text checks it, once.
    check_utf8(bytes, path.string());
    std::string text;
    text.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if (bytes[i] != '\r') {
        text += bytes[i];
      } else {
        text += '\n';
        if (i + 1 < bytes.size() && bytes[i + 1] == '\n') ++i;
      }
    }
    bytes.swap(text);
  }
  return Text(std::move(bytes), path.string());
}

Record lost_entry(const std::string& page_id, const detail::LostPair& pair) {
  const auto& [key, name] = pair;
  // Built member by member: the library's list initialisation first checks whether the list
  // makes a map, then copies it, at many times the cost.
  Record entry = Record::object();
  auto& members = static_cast<Record::object_t::Container&>(entry.get_ref<Record::object_t&>());
  members.reserve(4);
  members.emplace_back("page_id", page_id);
  members.emplace_back("path", key.path);
  members.emplace_back("lines", "L" + std::to_string(key.start) + "-L" + std::to_string(key.end));
  members.emplace_back("name", name);
  return entry;
}

spdlog::logger& logger(const Host& host) {
  if (host.logger) return *host.logger;
  static const auto fallback = std::make_shared<spdlog::logger>(
      std::string(MODULE_NAME), std::make_shared<spdlog::sinks::stderr_sink_mt>());
  return *fallback;
}

}  // namespace

CitationRefresh refresh_citations(const Host& host, Repository& repository,
                                  const std::string& branch, const fs::path& wiki_dir,
                                  const fs::path& repo_root, RefreshOptions options) {
  CitationRefresh result;
  detail::Files files(host, repository, repo_root);
  // "digests.json", with a journal that keeps it in step with the pages when a refresh stops
  // part way (detail::DigestFile).
  detail::DigestFile digest_file(
      host.file_system, repository, wiki_dir,
      [&](const fs::path& path) { return read_page(host.file_system, path).str(); },
      [&](const std::string& line) { logger(host).warn(line); });
  std::unordered_map<std::string, std::size_t> moved_at;  // where each page id stands in `moved`

  // A host that sees every call: the digest map, read when the first page with moves has been
  // updated, and where each page's digest stands in it.
  std::optional<Record> digests;
  std::unordered_map<std::string, Record*> digest_at;

  const auto rows = repository.get_wiki_pages(branch);
  if (options.write && !host.every_call) digest_file.recover();
  for (const auto& row : rows) {
    const auto rel_path = row->rel_path();
    if (!rel_path) continue;
    const fs::path page_file = wiki_dir / *rel_path;
    if (!host.file_system.is_file(page_file)) continue;

    const Text text = read_page(host.file_system, page_file);
    // Lent by the row where it can: valid until the page's update below replaces it.
    std::vector<Record> citations_read;
    // A report-only refresh reads only some members of each record.
    const std::vector<Record>& citations =
        options.write ? row->citations(citations_read)
                      : row->citation_members(citations_read, detail::REPORT_MEMBERS);
    // A report-only refresh has no use for the anchored records.
    detail::PageRefresh page =
        detail::refresh_page(host, text, citations, files, options.write,
                             host.history != nullptr ? row->page_id() : std::string());
    for (auto& [from, to] : page.carried) {
      result.carried.push_back({row->page_id(), std::move(from), std::move(to)});
    }

    result.unrepairable += static_cast<std::int64_t>(page.lost.size());
    if (!page.lost.empty()) {
      const std::string page_id = row->page_id();
      for (const auto& pair : page.lost) {
        result.lost.push_back(lost_entry(page_id, pair));
        if (const std::string* why = page.reasons.find(pair.first)) {
          result.lost.back()["reason"] = *why;
        }
      }
    }

    if (!options.write) {
      if (!page.moves.empty()) {
        const auto count = static_cast<std::int64_t>(page.moves.size());
        const auto [at, added] = moved_at.emplace(row->page_id(), result.moved.size());
        if (added) {
          result.moved.emplace_back(at->first, count);
        } else {
          result.moved.begin()[at->second].second = count;
        }
      }
      continue;
    }
    if (page.moves.empty() && page.anchors.empty()) continue;

    result.repaired += static_cast<std::int64_t>(page.moves.size());
    const std::string new_text = host.syntax.rewrite(text, page.moves);
    const bool changed = new_text != text.str();
    // The plain refresh writes the page file, then its record, then moves its digest in memory: a
    // refresh that fails later leaves this page written and updated, and "digests.json" as it
    // was. The faster one journals the digest's changes before the page is written (DigestFile).
    if (!host.every_call) {
      digest_file.move(row->page_id(), *rel_path, changed ? &text.str() : nullptr, page.moves);
    }
    if (changed) {
      host.file_system.atomic_write(page_file, new_text);
      ++result.pages_written;
    }

    Record cache = row->build_cache();
    if (auto prose = cache.find("prose"); prose != cache.end() && prose->is_string()) {
      *prose =
          host.syntax.rewrite(Text(prose->get<std::string>(), "build cache prose"), page.moves);
    }
    const std::string page_id = host.every_call ? row->page_id() : std::string();
    PageUpdate update;
    update.citations = detail::apply(citations, std::move(page.anchors));
    if (changed) update.content_hash = repository.text_hash(new_text);
    if (!cache.empty()) update.build_cache = std::move(cache);
    update.moves = host.every_call ? page.moves : std::move(page.moves);
    repository.update_wiki_page_citations(branch, *row, std::move(update));
    if (host.every_call && !page.moves.empty()) {
      if (!digests) {
        digests = detail::read_digests(host.file_system, wiki_dir / "digests.json");
        for (auto& [id, digest] : digests->items()) digest_at.emplace(id, &digest);
      }
      const auto entry = digest_at.find(page_id);
      detail::move_digest_citations(entry == digest_at.end() ? nullptr : entry->second, page.moves);
    }
  }

  if (options.write && host.every_call) {
    if (digests)
      host.file_system.atomic_write(wiki_dir / "digests.json", detail::dump_digests(*digests));
  } else if (options.write) {
    digest_file.finish();
  }
  return result;
}

namespace detail {

WikiDirLock::WikiDirLock(const Host& host, const fs::path& wiki_dir)
    : lock_(host.locks.open(wiki_dir)) {
  if (!lock_) throw std::logic_error("WriteLocks::open gave no lock for " + wiki_dir.string());
}

void WikiDirLock::held(const std::function<void()>& block) {
  lock_->acquire();  // a failed acquisition leaves before anything is held
  try {
    block();
  } catch (...) {
    lock_->release();  // an error here replaces the block's
    throw;
  }
  lock_->release();
}

}  // namespace detail

CitationRefresh refresh_citations_if_free(const Host& host, Repository& repository,
                                          const std::string& branch, const fs::path& wiki_dir,
                                          const fs::path& repo_root) {
  try {
    CitationRefresh result;
    detail::WikiDirLock lock(host, wiki_dir);
    lock.held([&] { result = refresh_citations(host, repository, branch, wiki_dir, repo_root); });
    return result;
  } catch (const WikiBusy&) {
    logger(host).info(BUSY_MESSAGE);
  }
  return refresh_citations(host, repository, branch, wiki_dir, repo_root, {.write = false});
}

}  // namespace tolbarrow::workers::wiki::citation_refresh

// The whole-wiki refresh, the write lock around it, and the guarded entry point.
#include <spdlog/logger.h>

#include <cerrno>

#include "workers/wiki/citation_refresh.h"
#include "workers/wiki/citation_refresh/files_io.h"

namespace tolbarrow::workers::wiki::citation_refresh {
namespace fs = std::filesystem;
namespace {

// Whether `path` is an existing regular file (a symbolic link counts by its target). A path that
// does not lead to a file is no page file; any other failure to look is an error.
bool is_page_file(const fs::path& path) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (error) {
    const int e = error.value();
    if (e == ENOENT || e == ENOTDIR || e == ELOOP || e == ENAMETOOLONG) return false;
    throw fs::filesystem_error("cannot look at page file", path, error);
  }
  return fs::is_regular_file(status);
}

// The page's text: strict UTF-8, with CR LF and lone CR read as LF.
Text read_page(const fs::path& path) {
  std::string bytes;
  std::error_code error;
  internal::read_bytes(path, bytes, error);
  if (error) throw fs::filesystem_error("cannot read page file", path, error);
  if (const std::size_t bad = first_invalid_utf8(bytes); bad != std::string_view::npos) {
    throw InvalidUtf8(path.string() + ": not valid UTF-8 at byte " + std::to_string(bad), bad,
                      std::move(bytes));
  }
  if (bytes.find('\r') != std::string::npos) {
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

Record lost_entry(const std::string& page_id, const LostPair& pair) {
  const auto& [key, name] = pair;
  return Record{{"page_id", page_id},
                {"path", key.path},
                {"lines", "L" + std::to_string(key.start) + "-L" + std::to_string(key.end)},
                {"name", name}};
}

}  // namespace

CitationRefresh Module::refresh_citations(Repository& repository, const std::string& branch,
                                          const fs::path& wiki_dir, const fs::path& repo_root,
                                          RefreshOptions options) const {
  CitationRefresh result;
  detail::Files files(*this, repository, repo_root);
  const fs::path digests_path = wiki_dir / "digests.json";
  std::optional<Record> digests;  // read once, when the first page with moves is written
  const auto& rewrite_citations = verify().rewrite_citations;

  for (const PageRowPtr& row : repository.get_wiki_pages(branch)) {
    const auto rel_path = row->rel_path();
    if (!rel_path) continue;
    const fs::path page_file = wiki_dir / *rel_path;
    if (!is_page_file(page_file)) continue;

    const Text text = read_page(page_file);
    const std::vector<Record> citations = row->citations();
    detail::PageRefresh page = detail::refresh_page(*this, text, citations, files);

    result.unrepairable += static_cast<std::int64_t>(page.lost.size());
    if (!page.lost.empty()) {
      const std::string page_id = row->page_id();
      for (const LostPair& pair : page.lost) result.lost.push_back(lost_entry(page_id, pair));
    }

    if (!options.write) {
      if (!page.moves.empty()) {
        result.moved[row->page_id()] = static_cast<std::int64_t>(page.moves.size());
      }
      continue;
    }
    if (page.moves.empty() && page.anchors.empty()) continue;

    result.repaired += static_cast<std::int64_t>(page.moves.size());
    const std::string new_text = rewrite_citations(text, page.moves);
    const bool changed = new_text != text.str();
    if (changed) {
      repo_facts().atomic_write(page_file, new_text);
      ++result.pages_written;
    }

    Record cache = row->build_cache();
    if (auto prose = cache.find("prose"); prose != cache.end() && prose->is_string()) {
      *prose = rewrite_citations(Text(prose->get<std::string>(), "build cache prose"), page.moves);
    }

    const std::string page_id = row->page_id();
    PageUpdate update;
    update.citations = detail::apply(citations, page);
    update.content_hash = changed ? repo_facts().text_hash(new_text) : row->content_hash();
    if (!cache.empty()) update.build_cache = detail::dump_one_line(cache);
    update.rewrite = [rewrite_citations, moves = page.moves](const std::string& other) {
      return rewrite_citations(Text(other), moves);
    };
    update.moves = page.moves;
    repository.update_wiki_page_citations(branch, page_id, std::move(update));

    if (!page.moves.empty()) {
      if (!digests) digests = detail::read_digests(digests_path);
      auto entry = digests->find(page_id);
      detail::move_digest_citations(entry == digests->end() ? nullptr : &*entry, page.moves);
    }
  }

  if (digests) repo_facts().atomic_write(digests_path, detail::dump_digests(*digests));
  return result;
}

namespace detail {

WikiDirLock::WikiDirLock(const Module& module, fs::path wiki_dir)
    : mixin_(module.lock().WriteLockMixin(lock::WriteLockState{std::move(wiki_dir), {}, 0.0})) {
  if (!mixin_) throw std::logic_error("lock.WriteLockMixin made no lock object");
}

void WikiDirLock::held(const std::function<void()>& block) {
  mixin_->acquire_write_lock();  // a failed acquisition leaves before anything is held
  try {
    block();
  } catch (...) {
    mixin_->release_write_lock();  // an error here replaces the block's
    throw;
  }
  mixin_->release_write_lock();
}

}  // namespace detail

CitationRefresh Module::refresh_citations_if_free(Repository& repository,
                                                  const std::string& branch,
                                                  const fs::path& wiki_dir,
                                                  const fs::path& repo_root) const {
  try {
    CitationRefresh result;
    detail::WikiDirLock lock(*this, wiki_dir);
    lock.held([&] { result = refresh_citations(repository, branch, wiki_dir, repo_root); });
    return result;
  } catch (const WikiBusy&) {
    logger_->info(BUSY_MESSAGE);
  }
  return refresh_citations(repository, branch, wiki_dir, repo_root, {.write = false});
}

}  // namespace tolbarrow::workers::wiki::citation_refresh

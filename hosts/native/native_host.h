// The native host's services bundled as the citation refresh's Host.
//
//   SqliteStore store(repo_root);
//   Indexer(store).update();
//   NativeHost native(store);
//   sync_pages(store, native.syntax, "main", wiki_dir);   // under the wiki's write lock
//   auto result = citation_refresh::refresh_citations_if_free(native.host(), store, "main",
//                                                             wiki_dir, repo_root);
#pragma once

#include <memory>

#include "hosts/native/anchoring.h"
#include "hosts/native/citation_syntax.h"
#include "hosts/native/page_sync.h"
#include "hosts/native/repo_paths.h"
#include "hosts/native/store.h"
#include "hosts/native/write_lock.h"
#include "workers/wiki/citation_refresh.h"

namespace tolbarrow::hosts::native {

// The file system the refresh is given: on each read of a page file it tells the markdown syntax
// the page's folder, since the refresh reads a page and then has the syntax find and rewrite the
// page's citations, whose relative links start there.
class PageFolders : public wiki::FileSystem {
 public:
  PageFolders(wiki::FileSystem& files, MarkdownCitationSyntax& syntax,
              std::filesystem::path repo_root)
      : files_(files), syntax_(syntax), root_(std::move(repo_root)) {}

  bool is_file(const std::filesystem::path& path) override { return files_.is_file(path); }
  std::string read_file(const std::filesystem::path& path) override {
    std::string bytes = files_.read_file(path);
    if (page_file_name(path)) syntax_.set_page_folder(page_folder(root_, path));
    return bytes;
  }
  void atomic_write(const std::filesystem::path& path, std::string_view content) override {
    files_.atomic_write(path, content);
  }
  void append(const std::filesystem::path& path, std::string_view content) override {
    files_.append(path, content);
  }
  void remove_file(const std::filesystem::path& path) override { files_.remove_file(path); }

 private:
  wiki::FileSystem& files_;
  MarkdownCitationSyntax& syntax_;
  std::filesystem::path root_;
};

struct NativeHost {
  explicit NativeHost(SqliteStore& store)
      : ranges(store),
        file_system(store.repo_root()),
        locks(store.repo_root()),
        pages(file_system, syntax, store.repo_root()) {}

  wiki::citation_refresh::Host host(std::shared_ptr<spdlog::logger> logger = nullptr) {
    return {.syntax = syntax,
            .anchoring = anchoring,
            .ranges = ranges,
            .file_system = pages,
            .locks = locks,
            .logger = std::move(logger)};
  }

  MarkdownCitationSyntax syntax;
  CtagsAnchoring anchoring;
  IndexCitationRanges ranges;
  ContainedFileSystem file_system;  // allow() the wiki directory when it lies elsewhere
  FlockWriteLocks locks;
  PageFolders pages;  // file_system, telling `syntax` each page's folder
};

}  // namespace tolbarrow::hosts::native

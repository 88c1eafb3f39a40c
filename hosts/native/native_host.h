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
#include "hosts/native/repo_paths.h"
#include "hosts/native/store.h"
#include "hosts/native/write_lock.h"
#include "workers/wiki/citation_refresh.h"

namespace tolbarrow::hosts::native {

struct NativeHost {
  explicit NativeHost(SqliteStore& store)
      : ranges(store), file_system(store.repo_root()), locks(store.repo_root()) {}

  wiki::citation_refresh::Host host(std::shared_ptr<spdlog::logger> logger = nullptr) {
    return {.syntax = syntax,
            .anchoring = anchoring,
            .ranges = ranges,
            .file_system = file_system,
            .locks = locks,
            .logger = std::move(logger)};
  }

  MarkdownCitationSyntax syntax;
  CtagsAnchoring anchoring;
  IndexCitationRanges ranges;
  ContainedFileSystem file_system;  // allow() the wiki directory when it lies elsewhere
  FlockWriteLocks locks;
};

}  // namespace tolbarrow::hosts::native

// Bringing the store's pages of a branch in line with the page files of a wiki directory.
#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "hosts/native/citation_syntax.h"
#include "hosts/native/store.h"
#include "workers/wiki/verify.h"

namespace tolbarrow::hosts::native {

struct SyncStats {
  std::size_t pages = 0;              // pages now in the store
  std::size_t citations_added = 0;    // new records without a declaration
  std::size_t citations_dropped = 0;  // records whose citation left the text
  std::size_t pages_removed = 0;      // pages whose file is gone
  std::vector<std::string> skipped;   // "<file>: <why>" for each page link that is no page
  // Temporary files that a write killed before its rename left beside the files it was for
  // (".<name>.tmp-<digits>"); a writing run removes them.
  std::vector<std::filesystem::path> leftovers;
  std::size_t pages_written = 0;  // pages stored anew (new, changed or restored)
  // Each page's citations in text order, each key once per page, pages in page id order.
  std::vector<std::pair<std::string, std::vector<wiki::CitationKey>>> cited;
  // The pages holding a permalink (MarkdownCitationSyntax::has_permalink): page id, path relative
  // to the wiki directory.
  std::vector<std::pair<std::string, std::string>> permalinked;
  // Each page file read, by its path relative to the repository root (pages that are no symbolic
  // link, in a wiki directory inside the repository), for the indexer (Indexer::read_already).
  std::map<std::string, ReadFile> read;
};

// Makes every page file (*.md, *.markdown, *.mdx) under `wiki_dir` (hidden folders skipped) a page
// of `branch`; a symbolic link counts by its target when that is a regular file inside the
// repository and outside the wiki directory (a link to a page of the wiki is that page, no page of
// its own), and is listed in `skipped` when it loops, dangles or leads elsewhere; so is a page
// whose name is not UTF-8. A page's id is its path relative to `wiki_dir` without ".md" (a
// *.markdown or *.mdx page keeps its ending), its rel_path that path; its relative links start from
// its own folder; its content hash the SHA-256 of its bytes. A citation of the text that no record
// has enters as {path, line_start, line_end}, without a declaration, after the page's records in
// text order; a record whose citation left the text is dropped (one whose path or lines cannot be
// read is kept as it is); other records and the build cache stay as stored. A page file whose hash
// is not the stored one but that of the page's origin (SqliteStore::page_origin: the refresh stored
// the page's new records, and the new text never reached the file) takes the origin's records and
// build cache back. Pages whose file is gone are removed. Only pages that change are written, in
// one transaction; the caller holds the wiki's write lock. Throws InvalidUtf8 naming a page file
// that is not UTF-8. Whether `file` is named as a page: *.md, *.markdown or *.mdx.
bool page_file_name(const std::filesystem::path& file);

SyncStats sync_pages(SqliteStore& store, MarkdownCitationSyntax& syntax, const std::string& branch,
                     const std::filesystem::path& wiki_dir);

}  // namespace tolbarrow::hosts::native

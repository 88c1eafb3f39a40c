// Markdown citations: links whose destination names a file of the repository and a line
// fragment, as CommonMark renders them (md4c parses the page):
//
//   [the parser](/src/parse.py#L10-L12)      from the repository root
//   [the parser](../src/parse.py#L10-L12)    from the page's own folder ("./" and "../" too)
//   [main](</src/my main.cc#L7> "title")     angle brackets, a title
//   [a](/src/a.py#L4C1-L9C5)                 columns (kept as written when the lines move)
//   [the parser][parse] ... [parse]: ../src/parse.py#L10-L12
//                                            a reference: its definition is the citation
//   [p](https://github.com/o/r/blob/main/src/parse.py#L10-L12)
//   [p](https://gitlab.com/g/r/-/blob/v2/src/parse.py#L10-12)
//                                            this repository's files on its forge (see Forge)
//
// Not citations: images, links in HTML (comments included), in code blocks (fenced or indented)
// and in code spans, destinations with a scheme ("https:") other than this repository's forge
// links or with a query, relative paths that leave the repository, and destinations written with
// backslash escapes or character references. A forge link whose ref is a commit is a permalink:
// found (WrittenCitation::permalink) but no citation that the refresh moves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "workers/wiki/verify.h"

namespace tolbarrow::hosts::native {

namespace wiki = tolbarrow::workers::wiki;

// `path` with every %XX escape (two hexadecimal digits) replaced by its byte; a '%' that does not
// start such an escape stays as it is.
std::string percent_decode(std::string_view path);

// The folder of `page_file` relative to `repo_root` ("" for the root itself, "docs/guide" for
// docs/guide/a.md), the folder a page's relative links start from. Lexical: neither path is
// resolved on disk.
std::string page_folder(const std::filesystem::path& repo_root,
                        const std::filesystem::path& page_file);

// This repository on its forge (GitHub, GitLab and the like), whose file links cite like any
// other: https://HOST/PATH/blob/REF/FILE#Lx-Ly, or GitLab's https://HOST/PATH/-/blob/REF/FILE
// with #Lx-y as well. http: or https:, host and path matched without regard to case; a query
// ("?plain=1") may stand before the fragment. A REF of 7 to 40 hexadecimal digits that is no
// name of `refs` is a commit: the link is a permalink.
struct Forge {
  std::string host;  // "github.com", lower case (a web address's port kept)
  std::string path;  // "owner/repo", "group/sub/repo": no ".git", no slash around it
  // The repository's branch and tag names, sorted: a REF with '/' in it ("feature/x") is told
  // from the file after it by these, and a name of 7 to 40 hexadecimal digits among them is no
  // commit. A REF none of them starts is the first name after "blob/".
  std::vector<std::string> refs;
};

// The forge of a git remote URL (https://host/o/r.git, git@host:o/r.git, ssh://git@host:22/o/r)
// or of a web address (https://host/o/r); nullopt when it names no host and path.
std::optional<Forge> forge_of(std::string_view url);

// One citation as written on a page: byte offsets into the page text.
struct WrittenCitation {
  std::size_t begin = 0, end = 0;  // the link (for a reference, the use that cites)
  // The path and the line fragment (after '#') as written, at the link's destination or, for a
  // reference, at its definition.
  std::size_t path_begin = 0, path_end = 0;
  std::size_t fragment_begin = 0, fragment_end = 0;
  // A forge link's ref as written ("main", a commit id); both 0 for other links.
  std::size_t ref_begin = 0, ref_end = 0;
  bool permalink = false;  // a forge link to a commit: frozen on purpose, not moved
  bool bare_last = false;  // a range's last line is written without its 'L' (GitLab's #Lx-y)
  wiki::CitationKey key;
};

// The citations of `text` whose relative links start from `folder` (relative to the repository
// root), in text order, permalinks among them; with `forge`, also that forge's links. A reference
// definition used several times is one citation per use, all with the definition's path and
// fragment.
std::vector<WrittenCitation> written_citations(std::string_view text, std::string_view folder,
                                               const Forge* forge = nullptr);

// `text` with the permalink `link` (one of its written citations) pointing at `commit` (written
// in its place), the file `path` (from the repository root, in the form it was written in) and
// `lines`; every use of a reference definition follows it.
std::string repointed(std::string_view text, const WrittenCitation& link, const std::string& commit,
                      const std::string& path, wiki::LineRange lines);

class MarkdownCitationSyntax : public wiki::CitationSyntax {
 public:
  // With `forge`, as set_forge below.
  explicit MarkdownCitationSyntax(std::shared_ptr<const Forge> forge = nullptr)
      : forge_(std::move(forge)) {}
  // The folder (relative to the repository root, "" for the root) of the page whose text the next
  // calls are given: its relative links start there.
  void set_page_folder(std::string folder) { folder_ = std::move(folder); }
  const std::string& page_folder() const { return folder_; }
  // This repository's forge, whose links are citations too (none: no forge link is).
  void set_forge(std::shared_ptr<const Forge> forge) {
    forge_ = std::move(forge);
    cached_id_.reset();
  }
  const Forge* forge() const { return forge_.get(); }

  // A citation's key is its percent-decoded path relative to the repository root, and its lines
  // (#L7 is lines 7 to 7); its start is where its link (or reference) begins. Permalinks are none.
  void find(const wiki::Text& text,
            const std::function<void(const wiki::Citation&)>& each) override;
  // The end of the last citation link lying wholly inside [start, end).
  std::optional<std::size_t> last_end(const wiki::Text& text, std::size_t start,
                                      std::size_t end) override;
  // Rewrites only the line numbers of each moved citation's fragment: #Lx when its new range is
  // one line, #Lx-Ly otherwise (#Lx-y where it was written so); columns stay as written. A move to
  // another path rewrites the path in the form it was written in (from the root or from the page's
  // folder, each folder name that stays written as it was, new names %XX-escaped where a
  // destination needs it); a path that stays is kept as written. Permalinks are not touched. Not
  // one other byte changes.
  std::string rewrite(const wiki::Text& text, const wiki::Moves& moves) override;

  // Whether `text` holds a permalink (a forge link to a commit).
  bool has_permalink(const wiki::Text& text);

 private:
  // The citations of `text` in the current folder; one page's, kept while the calls are about it.
  const std::vector<WrittenCitation>& citations(const wiki::Text& text);

  std::string folder_;
  std::shared_ptr<const Forge> forge_;
  std::optional<std::uint64_t> cached_id_;
  std::string cached_folder_;
  std::vector<WrittenCitation> cached_;
};

}  // namespace tolbarrow::hosts::native

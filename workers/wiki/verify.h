// The host's citation syntax, and how it anchors citations to declarations.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "workers/wiki/symbol.h"
#include "workers/wiki/text.h"
#include "workers/wiki/types.h"

namespace tolbarrow::workers::wiki {

// Every call may throw; the refresh catches nothing of them, so the error reaches its caller
// unchanged. Calls are made on the caller's thread, one at a time.

// One citation of a page text.
struct Citation {
  CitationKey key;
  std::size_t start = 0;  // code-point offset of its first character
};

// How a page's prose writes a citation (a path and a first and last line).
class CitationSyntax {
 public:
  virtual ~CitationSyntax() = default;

  // Calls `each` with every citation of `text`, in text order. Stops when `each` throws.
  virtual void find(const Text& text, const std::function<void(const Citation&)>& each) = 0;

  // The code-point offset just past the last citation written inside [start, end) of `text`, or
  // nullopt when there is none. The search is bounded: the text counts as ending at `end`, and
  // characters before `start` stay visible to look-behind. Matches are those of a left-to-right
  // search for non-overlapping citations beginning at `start`.
  virtual std::optional<std::size_t> last_end(const Text& text, std::size_t start,
                                              std::size_t end) = 0;

  // `text` with each citation whose key is in `moves` given its new range, and not one other
  // byte changed.
  virtual std::string rewrite(const Text& text, const Moves& moves) = 0;
};

// How a citation is anchored to a declaration.
class Anchoring {
 public:
  virtual ~Anchoring() = default;

  // File-name endings: a backticked token whose lower-case form ends with one of them is a file
  // name, not an identifier. Read once per refresh.
  virtual const std::vector<std::string>& file_name_endings() = 0;
  // Whether a declaration of `kind` is never chosen as a named anchor.
  virtual bool unanchored_kind(const std::string& kind) = 0;
  // The declaration among `symbols` that anchors a citation of lines first..last, or null.
  // Returns an element of `symbols` (its address), never a copy.
  virtual const Symbol* anchor_symbol(std::span<const Symbol> symbols, Line first, Line last) = 0;
  // The record to store for `citation` placed at `lines` and anchored to `symbol` (null: a legacy
  // citation that found no anchor): a new record with the citation's keys in their order, its
  // `line_start` and `line_end` set to `lines`, and with a symbol, `symbol`, `name`,
  // `symbol_start` and `symbol_end` set from it. Other keys are the host's to keep or add.
  // `citation` is a record the store gave (or a new one for a citation the store lacks).
  virtual Record anchored(const Record& citation, LineRange lines, const Symbol* symbol) = 0;
  // anchored(), for a refresh that has no use for the record it gives (a report-only refresh of
  // a host that sees every call, Host::every_call): a host may leave the result unread.
  virtual void anchored_unused(const Record& citation, LineRange lines, const Symbol* symbol) {
    static_cast<void>(anchored(citation, lines, symbol));
  }
};

// A host's last word on where the refresh puts a citation: a host that knows what each citation
// cited when it was placed (its text, say) can refuse a landing that holds other code. Optional:
// without one, every landing the refresh finds and fits is taken.
class LandingCheck {
 public:
  virtual ~LandingCheck() = default;

  // Whether the stored citation `cited` of `path` may be given the lines `lines`, its declaration
  // found again as `found` (null: none was found, a citation without a declaration). False: the
  // citation is lost instead, under the name its record carries, and its link stays as written.
  virtual bool accepts(const std::string& path, const Record& cited, const Symbol* found,
                       LineRange lines) = 0;
};

// What a host knows of the code's history: where each stored citation stands in the code as it
// is now, from what it was placed against (a version control system's diff of the cited file
// since then, a rename of the file). Optional: without one, a stored citation is found again by
// its declaration alone.
class History {
 public:
  virtual ~History() = default;

  // The record that the stored citation `cited` of page `page_id` is in the code now, when the
  // history carries it elsewhere: its `path` and lines now, its declaration's lines now, and
  // whatever the host keeps of what it was placed against. Null: the history has nothing to say
  // and the citation is refreshed from `cited`. The refresh treats the answer as the stored
  // record (finds its declaration, fits and checks its landing) and moves the citation, its
  // page's text, its digest and its record from that one decision. Valid until the next call.
  virtual const Record* carried(std::string_view page_id, const Record& cited) = 0;
};

// What anchored() gives for a host that adds nothing of its own: `citation` with `line_start`
// and `line_end` set to `lines` and, with a symbol, `symbol`, `name`, `symbol_start` and
// `symbol_end` set from it; the keys it has keep their places, the others follow in that order.
Record anchored_record(const Record& citation, LineRange lines, const Symbol* symbol);

}  // namespace tolbarrow::workers::wiki

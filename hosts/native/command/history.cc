#include "hosts/native/command/history.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "hosts/native/command/anchors.h"
#include "hosts/native/command/run.h"
#include "hosts/native/process.h"
#include "hosts/native/repo_paths.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::hosts::native::command {
namespace fs = std::filesystem;
namespace cr = wiki::citation_refresh;
using namespace detail;
namespace {

wiki::Line as_line(const wiki::Record& value) {
  return value.is_number_integer() ? value.get<wiki::Line>() : 0;
}

// A record of a citation that no declaration held when it was placed, with the text it cited:
// carried across git's diff by its lines alone.
bool placed_alone(const wiki::Record& record);

bool anchored(const wiki::Record& record) {
  auto symbol = record.find("symbol");
  return symbol != record.end() && symbol->is_string() &&
         !symbol->get_ref<const std::string&>().empty();
}

bool placed_alone(const wiki::Record& record) {
  const auto text = record.find(kTextMember);
  return !anchored(record) && text != record.end() && text->is_string();
}

}  // namespace

namespace detail {

std::optional<wiki::Record> translated(const wiki::Record& record, const LineMap& map) {
  const wiki::Line start = as_line(record["line_start"]), end = as_line(record["line_end"]);
  const auto new_start = map.unchanged(start), new_end = map.unchanged(end);
  if (start < 1 || end < start || !new_start || !new_end) return std::nullopt;
  wiki::Record out = record;
  out["line_start"] = *new_start;
  out["line_end"] = *new_end;
  auto symbol_start = record.find("symbol_start"), symbol_end = record.find("symbol_end");
  if (symbol_start != record.end() && symbol_start->is_number_integer()) {
    const wiki::Line s = symbol_start->get<wiki::Line>();
    out["symbol_start"] = map.in_place(s).value_or(*new_start - (start - s));
  }
  if (symbol_end != record.end() && symbol_end->is_number_integer()) {
    const wiki::Line e = symbol_end->get<wiki::Line>();
    out["symbol_end"] = map.in_place(e).value_or(*new_end + (e - end));
  }
  return out;
}

bool carried_within(const wiki::Record& record) {
  auto s = record.find("symbol_start"), e = record.find("symbol_end");
  if (s == record.end() || e == record.end() || !s->is_number_integer() ||
      !e->is_number_integer()) {
    return false;
  }
  const wiki::Line start = as_line(record["line_start"]), end = as_line(record["line_end"]);
  const wiki::Line old_start = s->get<wiki::Line>(), old_end = e->get<wiki::Line>();
  // Outside its declaration, or all of it: the refresh's rule is exact.
  return old_start <= start && start <= end && end <= old_end &&
         !(start == old_start && end == old_end);
}

}  // namespace detail

namespace {

// Lines first..last (1-based) of `text`, each with its line feed.
std::string lines_of(const std::string& text, wiki::Line first, wiki::Line last) {
  std::size_t begin = 0;
  for (wiki::Line n = 1; n < first && begin < text.size(); ++n) {
    begin = std::min(text.find('\n', begin), text.size() - 1) + 1;
  }
  std::size_t end = begin;
  for (wiki::Line n = first; n <= last && end < text.size(); ++n) {
    end = std::min(text.find('\n', end), text.size() - 1) + 1;
  }
  return text.substr(begin, end - begin);
}

// A citation inside its declaration whose lines git says changed (the declaration moved, say):
// the declaration is found again by the refresh's own rule, and its old lines are diffed against
// its lines now (`declaration_texts`); when that diff says the cited lines are unchanged the
// citation takes their new lines, and the record the declaration's lines now
// (`within_declaration`). Otherwise it is left for the refresh to decide.
struct InDeclaration {
  std::size_t page, record;
  const wiki::Symbol* now;
  std::pair<std::string, std::string> texts;  // the declaration's lines then and now
};

std::optional<InDeclaration> declaration_texts(const wiki::Record& record,
                                               const std::vector<wiki::Symbol>& symbols,
                                               const std::string& old_text,
                                               const std::string& new_text) {
  if (!carried_within(record)) return std::nullopt;
  const wiki::Line old_start = as_line(record["symbol_start"]),
                   old_end = as_line(record["symbol_end"]);
  const wiki::Symbol* now = wiki::citation_refresh::detail::find_again(symbols, record);
  if (now == nullptr) return std::nullopt;
  return InDeclaration{
      0,
      0,
      now,
      {lines_of(old_text, old_start, old_end), lines_of(new_text, now->start_line, now->end_line)}};
}

}  // namespace

namespace detail {

std::optional<wiki::Record> within_declaration(const wiki::Record& record, const wiki::Symbol* now,
                                               const LineMap& inner) {
  const wiki::Line start = as_line(record["line_start"]), end = as_line(record["line_end"]);
  const wiki::Line old_start = record["symbol_start"].get<wiki::Line>();
  const auto first = inner.unchanged(start - old_start + 1),
             last = inner.unchanged(end - old_start + 1);
  if (!first || !last) return std::nullopt;
  wiki::Record out = record;
  out["line_start"] = now->start_line + *first - 1;
  out["line_end"] = now->start_line + *last - 1;
  out["symbol_start"] = now->start_line;
  out["symbol_end"] = now->end_line;
  return out;
}

}  // namespace detail

namespace {}  // namespace

namespace detail {

std::optional<wiki::LineRange> find_text(std::string_view content, const std::string& text,
                                         wiki::Line count, wiki::LineRange within,
                                         wiki::Line near) {
  if (text.empty() || count < 1) return std::nullopt;
  std::optional<wiki::LineRange> best;
  for (wiki::Line first = std::max<wiki::Line>(within.first, 1); first + count - 1 <= within.last;
       ++first) {
    const wiki::Line last = first + count - 1;
    if (cited_text_hash(content, first, last) != text) continue;
    if (!best || std::llabs(first - near) < std::llabs(best->first - near)) best = {first, last};
  }
  return best;
}

namespace {

// `fqn` without its parameter list, each anonymous namespace's generated name read as "__anon",
// and a test macro's name in a scope (what a test body declares) read as "TEST": the body stays the
// test's when TEST becomes TEST_F.
std::string signature_free(std::string_view fqn) {
  fqn = fqn.substr(0, std::min(fqn.find('('), fqn.size()));
  static const std::regex generated(R"(__anon[0-9a-fA-F]*|\b(TYPED_|GTEST_)?TEST(_F|_P)?::)");
  std::string out;
  auto at = fqn.begin();
  for (std::cregex_iterator it(fqn.begin(), fqn.end(), generated), end; it != end; ++it) {
    out.append(at, (*it)[0].first);
    out += (*it)[0].str().starts_with("__anon") ? "__anon" : "TEST::";
    at = (*it)[0].second;
  }
  out.append(at, fqn.end());
  return out;
}

}  // namespace

bool same_but_signature(std::string_view a, std::string_view b) {
  return signature_free(a) == signature_free(b);
}

const wiki::Symbol* renamed_in_signature(const std::vector<wiki::Symbol>& symbols,
                                         std::string_view fqn) {
  if (std::any_of(symbols.begin(), symbols.end(),
                  [&](const wiki::Symbol& s) { return s.fqn == fqn; })) {
    return nullptr;
  }
  // Only declarations of its simple name are compared in full.
  std::string_view name = fqn.substr(0, std::min(fqn.find('('), fqn.size()));
  name.remove_prefix(std::min(name.size(), name.find_last_of(":.") + 1));
  const std::string key = signature_free(fqn);
  const wiki::Symbol* out = nullptr;
  for (const wiki::Symbol& s : symbols) {
    if (s.name != name || signature_free(s.fqn) != key) continue;
    if (out != nullptr) return nullptr;
    out = &s;
  }
  return out;
}

}  // namespace detail

void place_from_marks(const fs::path& root, const wiki::Record& marks, const std::string& branch,
                      std::map<std::string, std::vector<wiki::Record>>& pages) {
  if (!marks.is_object() || marks.empty()) return;
  auto mark = marks.find(branch);
  if (mark == marks.end()) {
    if (marks.size() != 1) return;
    mark = marks.begin();
  }
  if (!mark->is_object()) return;
  const std::string commit = mark->value("commit", "");
  if (commit.empty() || commit.find_first_not_of("0123456789abcdef") != std::string::npos) return;
  const wiki::Record dirty = mark->value("dirty", wiki::Record::object());
  // The commit's blob of each cited file that the mark does not list as changed.
  std::vector<std::string> paths;
  std::set<std::string> seen;
  for (auto& [page, records] : pages) {
    for (const wiki::Record& record : records) {
      const auto key = key_of(record);
      if (key && !record.contains(kBlobMember) && !dirty.contains(key->path) &&
          key->path.find('\n') == std::string::npos && seen.insert(key->path).second) {
        paths.push_back(key->path);
      }
    }
  }
  std::map<std::string, std::string> at_commit;
  if (!paths.empty()) {
    std::string input;
    for (const std::string& path : paths) input += commit + ":" + path + "\n";
    const ProcessResult ids =
        run_process({"git", "cat-file", "--batch-check=%(objectname) %(objecttype)"}, root, input);
    const std::vector<std::string> lines = split(ids.out, '\n');
    for (std::size_t i = 0; ids.exit_code == 0 && i < paths.size() && i < lines.size(); ++i) {
      const std::vector<std::string> words = split(lines[i], ' ');
      if (words.size() == 2 && words[1] == "blob") at_commit[paths[i]] = words[0];
    }
  }
  for (auto& [page, records] : pages) {
    for (wiki::Record& record : records) {
      const auto key = key_of(record);
      if (!key || record.contains(kBlobMember)) continue;
      if (auto blob = dirty.find(key->path); blob != dirty.end() && blob->is_string()) {
        record[kBlobMember] = *blob;
      } else if (auto blob = at_commit.find(key->path); blob != at_commit.end()) {
        record[kBlobMember] = blob->second;
      }
    }
  }
}

std::optional<std::string> write_anchors_placed(SqliteStore& store, const std::string& branch,
                                                const fs::path& file,
                                                const std::vector<std::string>& cited) {
  const fs::path& root = store.repo_root();
  // Records that have not been placed since their lines last changed: the work tree's blob and
  // text of their lines now.
  std::set<std::string> to_place(cited.begin(), cited.end());
  std::vector<StoredPage> unplaced;
  store.each_page(branch, [&](StoredPage&& page) {
    bool any = false;
    for (const wiki::Record& record : page.citations) {
      const auto key = key_of(record);
      if (key && key->start >= 1 &&
          (!record.contains(kBlobMember) || !record.contains(kTextMember))) {
        to_place.insert(key->path);
        any = true;
      }
    }
    if (any) unplaced.push_back(std::move(page));
  });
  const std::map<std::string, std::string> blobs =
      work_tree_blobs(root, {to_place.begin(), to_place.end()}, /*keep_blobs=*/true,
                      wiki_in(root, file.parent_path()));
  if (!unplaced.empty()) {
    WorkTreeFiles content_of(root);
    for (StoredPage& page : unplaced) {
      for (wiki::Record& record : page.citations) {
        const auto key = key_of(record);
        if (!key || key->start < 1 ||
            (record.contains(kBlobMember) && record.contains(kTextMember))) {
          continue;
        }
        auto blob = blobs.find(key->path);
        const std::optional<std::string>& content = content_of(key->path);
        const std::string text =
            content ? cited_text_hash(*content, key->start, key->end) : std::string();
        if (blob == blobs.end() || text.empty()) continue;  // nothing there to place it on
        record[kBlobMember] = blob->second;
        record[kTextMember] = text;
      }
    }
    store.update_pages(branch, unplaced, {});
  }

  std::error_code error;
  const bool exists = fs::exists(file, error);
  const std::string old_text = exists ? read_bytes(file) : std::string();
  // One page's records at a time: the text is all that is kept of them. The new text is about as
  // long as the old one.
  AnchorsText pages;
  pages.reserve(old_text.size() + old_text.size() / 8);
  store.each_page(branch, [&](StoredPage&& page) { pages.add(page); });
  std::map<std::string, std::string> cited_blobs;
  for (const std::string& path : cited) {
    if (auto blob = blobs.find(path); blob != blobs.end()) cited_blobs.insert(*blob);
  }
  if (exists && pages.is(old_text)) {
    store.set_history_mark(branch, state_of(cited_blobs), sha256_hex(old_text));
    return std::nullopt;
  }
  const std::string text = std::move(pages).take();
  ContainedFileSystem(store.repo_root()).atomic_write(file, text);
  std::string hash = sha256_hex(text);
  store.set_history_mark(branch, state_of(cited_blobs), hash);
  return hash;
}

Carried carry(SqliteStore& store, const std::string& branch, const fs::path& wiki_dir,
              const std::function<void(const std::string&)>& note, bool keep_blobs,
              const std::string& anchors_hash, const std::vector<std::string>* cited_now) {
  const fs::path& root = store.repo_root();
  const std::string wiki = wiki_in(root, wiki_dir);
  Carried carried;
  // The cited files as they were when the records were last carried or written: nothing to carry,
  // told from the pages' cited paths alone when the caller has them.
  const std::optional<std::string> last = store.history_mark(branch, anchors_hash);
  if (cited_now && last && *last == state_of(work_tree_blobs(root, *cited_now, false, wiki))) {
    carried.cited = *cited_now;
    carried.state = *last;
    return carried;
  }
  std::vector<StoredPage> pages = store.pages(branch);

  // Where each cited path is now: itself when indexed, else where git says it went.
  std::map<std::string, std::optional<std::string>> now;
  std::vector<std::string> gone;
  for (const StoredPage& page : pages) {
    for (const wiki::Record& record : page.citations) {
      const auto key = key_of(record);
      if (!key || now.count(key->path)) continue;
      const bool indexed = store.is_indexed(key->path);
      now[key->path] = indexed ? std::optional(key->path) : std::nullopt;
      if (!indexed && key->path.find('\n') == std::string::npos) gone.push_back(key->path);
    }
  }
  if (!gone.empty()) {
    for (const auto& [from, to_path] : renames_of(root, gone)) {
      auto it = now.find(from);
      if (it != now.end() && !it->second && store.is_indexed(to_path)) it->second = to_path;
    }
  }
  std::vector<std::string> paths_now;
  for (const auto& [path, where] : now) paths_now.push_back(where.value_or(path));
  const std::map<std::string, std::string> blobs =
      work_tree_blobs(root, paths_now, keep_blobs, wiki);
  auto blob_now = [&](const std::string& path) {
    auto it = blobs.find(path);
    return it != blobs.end() ? it->second : std::string();
  };

  // The contents the anchored records were placed against, where that is not the file now.
  auto blob_of = [](const wiki::Record& record) {
    auto blob = record.find(kBlobMember);
    return blob != record.end() && blob->is_string() ? blob->get<std::string>() : std::string();
  };
  std::vector<std::pair<std::string, std::string>> placed;  // (blob, path now), each once
  {
    std::set<std::pair<std::string, std::string>> seen;
    for (const StoredPage& page : pages) {
      for (const wiki::Record& record : page.citations) {
        const auto key = key_of(record);
        if (!key || !(anchored(record) || placed_alone(record)) || !now[key->path]) continue;
        const std::string blob = blob_of(record);
        if (blob.empty() || blob == blob_now(*now[key->path])) continue;
        if (seen.emplace(blob, *now[key->path]).second) placed.emplace_back(blob, *now[key->path]);
      }
    }
  }
  std::vector<std::string> names;
  for (const auto& [blob, path] : placed) names.push_back(blob);
  auto old_texts = cat_files(root, names);
  WorkTreeFiles content_of(root);  // path now -> its content
  struct Diffed {
    LineMap map;
    std::string old_text;
  };
  std::map<std::pair<std::string, std::string>, Diffed> maps;
  std::size_t absent = 0;
  {
    std::vector<std::pair<std::string, std::string>> diffed;
    std::vector<std::pair<std::string, std::string>> pairs;
    for (std::size_t i = 0; i < placed.size(); ++i) {
      if (!old_texts[i]) {
        ++absent;
        continue;
      }
      const std::optional<std::string>& content = content_of(placed[i].second);
      if (!content) continue;
      diffed.push_back(placed[i]);
      pairs.emplace_back(std::move(*old_texts[i]), *content);
    }
    std::vector<LineMap> line_maps = diff_lines(root, pairs);
    for (std::size_t i = 0; i < diffed.size(); ++i) {
      maps.emplace(diffed[i], Diffed{std::move(line_maps[i]), std::move(pairs[i].first)});
    }
  }
  if (absent) {
    note(std::to_string(absent) + " cited file content" + (absent == 1 ? " is" : "s are") +
         " not in this repository (a shallow clone, or placed in another clone before a commit): "
         "those citations are checked by their text, not carried across git's diff; fetch more "
         "history (git fetch --deepen) to have them carried");
  }
  std::map<std::string, std::vector<wiki::Symbol>> symbols_of;
  auto symbols = [&](const std::string& path) -> const std::vector<wiki::Symbol>& {
    auto [it, added] = symbols_of.try_emplace(path);
    if (added) it->second = store.get_symbols_by_path(path);
    return it->second;
  };

  // Citations inside a declaration whose lines git says changed: diffed within the declaration
  // the refresh finds again, all in one more git process.
  std::vector<InDeclaration> inside;
  for (std::size_t p = 0; p < pages.size(); ++p) {
    for (std::size_t r = 0; r < pages[p].citations.size(); ++r) {
      const wiki::Record& record = pages[p].citations[r];
      const auto key = key_of(record);
      if (!key || !anchored(record) || !now[key->path]) continue;
      auto diffed = maps.find({blob_of(record), *now[key->path]});
      if (diffed == maps.end() || translated(record, diffed->second.map)) continue;
      if (auto found = declaration_texts(record, symbols(*now[key->path]), diffed->second.old_text,
                                         *content_of(*now[key->path]))) {
        found->page = p, found->record = r;
        inside.push_back(std::move(*found));
      }
    }
  }
  std::map<std::pair<std::size_t, std::size_t>, wiki::Record> carried_inside;
  {
    std::vector<std::pair<std::string, std::string>> pairs;
    for (InDeclaration& d : inside) pairs.push_back(std::move(d.texts));
    const std::vector<LineMap> inner = diff_lines(root, pairs);
    for (std::size_t i = 0; i < inside.size(); ++i) {
      const InDeclaration& d = inside[i];
      if (auto out = within_declaration(pages[d.page].citations[d.record], d.now, inner[i])) {
        carried_inside.emplace(std::pair(d.page, d.record), std::move(*out));
      }
    }
  }

  // A record that git's diff did not carry, inside its declaration, whose cited text is not where
  // the refresh would put it: the place within the declaration found again that holds that text.
  auto by_text = [&](const wiki::Record& record, const std::string& path) {
    std::optional<wiki::Record> out;
    auto text = record.find(kTextMember);
    if (text == record.end() || !text->is_string() || !carried_within(record)) return out;
    const std::optional<std::string>& content = content_of(path);
    const wiki::Symbol* found = content ? cr::detail::find_again(symbols(path), record) : nullptr;
    if (found == nullptr) return out;
    wiki::LineRange landing;
    try {
      landing = cr::relocated_range(record, *found);
    } catch (const std::exception&) {
      return out;
    }
    if (cited_text_hash(*content, landing.first, landing.last) == *text) return out;
    const wiki::Line count = as_line(record["line_end"]) - as_line(record["line_start"]) + 1;
    const auto place = find_text(*content, text->get<std::string>(), count,
                                 {found->start_line, found->end_line}, landing.first);
    if (!place) return out;
    out = record;
    (*out)["line_start"] = place->first;
    (*out)["line_end"] = place->last;
    (*out)["symbol_start"] = found->start_line;
    (*out)["symbol_end"] = found->end_line;
    return out;
  };

  // The declaration a record's declaration became when only its signature changed, unless git
  // says it stood outside the cited declaration when the citation was placed (its first line git
  // says is unchanged stood there; a changed signature line tells nothing).
  auto stood_at = [&](const wiki::Record& record, const std::string& path,
                      const wiki::Symbol& symbol) {
    std::optional<wiki::Line> was;
    if (auto diffed = maps.find({blob_of(record), path}); diffed != maps.end()) {
      for (wiki::Line n = symbol.start_line; !was && n <= symbol.end_line; ++n) {
        was = diffed->second.map.old_of(n);
      }
    } else if (blob_of(record) == blob_now(path)) {
      was = symbol.start_line;  // the file as it was: nothing moved
    }
    return was;
  };
  auto renamed = [&](const wiki::Record& record, const std::string& path) {
    const wiki::Symbol* same =
        renamed_in_signature(symbols(path), record.at("symbol").get_ref<const std::string&>());
    if (same == nullptr) return same;
    if (const auto was = stood_at(record, path, *same)) {
      const wiki::Line start = record.value("symbol_start", wiki::Line{0}),
                       end = record.value("symbol_end", wiki::Line{0});
      if (was && (*was < start || *was > end)) return static_cast<const wiki::Symbol*>(nullptr);
    }
    return same;
  };

  // A carried citation inside its declaration takes the declaration's lines now, so that the
  // refresh, which keeps a citation's offset from its declaration's first line, leaves it where
  // the carrying put it.
  auto rebase = [&](wiki::Record& record, const std::string& path) {
    if (!carried_within(record)) return;
    const wiki::Symbol* found = cr::detail::find_again(symbols(path), record);
    const wiki::Line start = as_line(record["line_start"]), end = as_line(record["line_end"]);
    if (found == nullptr || start < found->start_line || end > found->end_line) return;
    record["symbol_start"] = found->start_line;
    record["symbol_end"] = found->end_line;
  };

  std::set<std::string> cited_after;
  for (std::size_t p = 0; p < pages.size(); ++p) {
    StoredPage& page = pages[p];
    // Each record's proposed record, then undo those whose new key another citation holds.
    std::vector<std::optional<wiki::Record>> proposed(page.citations.size());
    for (std::size_t i = 0; i < page.citations.size(); ++i) {
      const wiki::Record& record = page.citations[i];
      const auto key = key_of(record);
      if (!key || !now[key->path]) continue;
      const std::string& path = *now[key->path];
      std::optional<wiki::Record> next;
      bool carried_lines = false;
      if (anchored(record)) {
        // A declaration whose qualified name changed only in its signature is followed under the
        // name it has now, so that the refresh finds it by that name.
        const wiki::Symbol* same = renamed(record, path);
        wiki::Record as_named;
        if (same != nullptr) (as_named = record)["symbol"] = same->fqn;
        const wiki::Record& source = same != nullptr ? as_named : record;
        if (auto diffed = maps.find({blob_of(record), path}); diffed != maps.end()) {
          next = translated(source, diffed->second.map);
          if (auto in = carried_inside.find({p, i}); !next && in != carried_inside.end()) {
            next = in->second;
            if (same != nullptr) (*next)["symbol"] = same->fqn;
          }
        }
        if (!next) next = by_text(source, path);
        carried_lines = next.has_value();
        if (next) {
          rebase(*next, path);
        } else if (same != nullptr) {
          next = as_named;
        }
      } else if (placed_alone(record)) {
        // No declaration to follow: its lines, where git says they are unchanged. Else it stays,
        // and the landing check compares the text there with what it cited.
        if (auto diffed = maps.find({blob_of(record), path}); diffed != maps.end()) {
          next = translated(record, diffed->second.map);
        }
        carried_lines = next.has_value();
      }
      if (path != key->path) {
        if (!next) next = record;
        (*next)["path"] = path;
      }
      if (next && *next != record && !carried_lines && !blob_of(record).empty() &&
          blob_of(record) != blob_now(path)) {
        // Its file changed and its lines not carried: it keeps what it was placed against, for
        // the refresh to check its landing against.
        proposed[i] = std::move(next);
      } else if (next && *next != record) {
        // Placed anew: against the file now, with the text of its lines now.
        const auto to_key = key_of(*next);
        const std::optional<std::string>& content = content_of(path);
        const std::string hash =
            content && to_key ? cited_text_hash(*content, to_key->start, to_key->end) : "";
        if (!hash.empty() && !blob_now(path).empty()) {
          (*next)[kBlobMember] = blob_now(path);
          (*next)[kTextMember] = hash;
        } else {
          next->erase(kBlobMember);
          next->erase(kTextMember);
        }
        proposed[i] = std::move(next);
      }
    }
    // A declaration gone (none has its qualified name now) is lost rather than lent the place of
    // another of its name: one that stood elsewhere when the citation was placed (the first of its
    // lines git says is unchanged since stood there), or one of several of that name, none of them
    // known to be it.
    for (std::size_t i = 0; i < page.citations.size(); ++i) {
      const wiki::Record& record = proposed[i] ? *proposed[i] : page.citations[i];
      const wiki::Record& placed_against = page.citations[i];
      const auto from = key_of(placed_against);
      if (!from || !anchored(placed_against) || !now[from->path]) continue;
      const std::string& path = *now[from->path];
      const std::string fqn = placed_against["symbol"].get<std::string>();
      const std::vector<wiki::Symbol>& file_symbols = symbols(path);
      if (std::any_of(file_symbols.begin(), file_symbols.end(),
                      [&](const wiki::Symbol& s) { return s.fqn == fqn; }) ||
          renamed(placed_against, path) != nullptr) {
        continue;
      }
      const wiki::Symbol* other = cr::detail::find_again(file_symbols, record);
      if (other == nullptr) continue;
      std::set<std::string_view> namesakes;  // the qualified names of the declarations so named
      for (const wiki::Symbol& s : file_symbols) {
        if (s.name == other->name) namesakes.insert(s.fqn);
      }
      const std::optional<wiki::Line> was = stood_at(placed_against, path, *other);
      const wiki::Line old_start = as_line(placed_against["symbol_start"]),
                       old_end = as_line(placed_against["symbol_end"]);
      std::string why;
      if (was && (*was < old_start || *was > old_end)) {
        why = "`" + fqn + "` is gone; `" + other->fqn + "` is at " + path + "#L" +
              std::to_string(other->start_line) + "-L" + std::to_string(other->end_line);
      } else if (!was && namesakes.size() > 1) {
        why = "`" + fqn + "` is gone; " + std::to_string(namesakes.size()) +
              " declarations named `" + other->name + "` remain";
      } else {
        continue;
      }
      proposed[i].reset();
      carried.gone[*from] = why;
    }
    for (bool undone = true; undone;) {
      undone = false;
      std::unordered_map<wiki::CitationKey, int, wiki::CitationKeyHash> holders;
      for (std::size_t i = 0; i < page.citations.size(); ++i) {
        if (auto key = key_of(proposed[i] ? *proposed[i] : page.citations[i])) ++holders[*key];
      }
      for (std::size_t i = 0; i < page.citations.size(); ++i) {
        if (proposed[i] && holders[*key_of(*proposed[i])] > 1) {
          proposed[i].reset();
          undone = true;
        }
      }
    }

    for (std::size_t i = 0; i < page.citations.size(); ++i) {
      const auto from = key_of(page.citations[i]);
      if (!from) continue;
      if (!proposed[i]) {
        cited_after.insert(from->path);
        continue;
      }
      cited_after.insert(key_of(*proposed[i])->path);
      carried.records[page.page_id].set(*from, std::move(*proposed[i]));
    }
  }
  carried.cited.assign(cited_after.begin(), cited_after.end());

  // The state the records now stand at: the cited files' blobs, as the next run will tell them.
  std::map<std::string, std::string> state;
  const std::vector<std::string> extra = [&] {
    std::vector<std::string> out;
    for (const std::string& path : carried.cited) {
      if (!blobs.count(path)) out.push_back(path);
    }
    return out;
  }();
  const std::map<std::string, std::string> more = extra.empty()
                                                      ? std::map<std::string, std::string>()
                                                      : work_tree_blobs(root, extra, false, wiki);
  for (const std::string& path : carried.cited) {
    if (auto blob = blobs.find(path); blob != blobs.end()) {
      state.insert(*blob);
    } else if (auto other = more.find(path); other != more.end()) {
      state.insert(*other);
    }
  }
  carried.state = state_of(state);
  return carried;
}

const wiki::Record* Carried::carried(std::string_view page_id, const wiki::Record& cited) {
  const auto page = records.find(std::string(page_id));
  if (page == records.end()) return nullptr;
  const std::optional<wiki::CitationKey> key = key_of(cited);
  const wiki::Record* record = key ? page->second.find(*key) : nullptr;
  if (record != nullptr) given_.insert(record);
  return record;
}

}  // namespace tolbarrow::hosts::native::command

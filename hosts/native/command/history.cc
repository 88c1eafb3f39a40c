#include "hosts/native/command/history.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "hosts/native/citation_syntax.h"
#include "hosts/native/command/anchors.h"
#include "hosts/native/command/run.h"
#include "hosts/native/process.h"
#include "hosts/native/repo_paths.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::hosts::native::command {
namespace fs = std::filesystem;
namespace {

using KeyMap = std::unordered_map<wiki::CitationKey, wiki::CitationKey, wiki::CitationKeyHash>;

// git's output; CommandError naming the git command when it fails (exit codes in `ok` pass).
std::string git(const fs::path& root, std::vector<std::string> args, std::string_view input = {},
                std::initializer_list<int> ok = {0}) {
  args.insert(args.begin(), "git");
  const ProcessResult result = run_process(args, root, input);
  if (result.exit_code == 127) throw CommandError("git: not found; install the git package");
  if (std::find(ok.begin(), ok.end(), result.exit_code) == ok.end()) {
    std::string err = result.err;
    while (!err.empty() && (err.back() == '\n' || err.back() == '\r')) err.pop_back();
    throw CommandError("git " + args[1] + " failed in " + root.string() + ": " + err);
  }
  return result.out;
}

std::vector<std::string> split(std::string_view text, char sep) {
  std::vector<std::string> out;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = std::min(text.find(sep, at), text.size());
    if (end > at) out.emplace_back(text.substr(at, end - at));
    at = end + 1;
  }
  return out;
}

// A temporary directory, removed with everything in it when it goes.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "citation-refresh-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw CommandError(pattern + ": cannot create a temporary directory");
    }
    dir_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  fs::path operator/(const std::string& name) const { return dir_ / name; }

 private:
  fs::path dir_;
};

// One hunk of `git diff -U0`: old lines [old_start, old_start + old_count) became new lines
// [new_start, new_start + new_count). A count of 0 is an insertion (or removal) after the start.
struct Hunk {
  wiki::Line old_start, old_count, new_start, new_count;
};

// Old line -> new line through one file's hunks.
class LineMap {
 public:
  explicit LineMap(std::vector<Hunk> hunks) : hunks_(std::move(hunks)) {}

  // The new line of an old line that git says is unchanged; nullopt for a changed line.
  std::optional<wiki::Line> unchanged(wiki::Line n) const {
    wiki::Line delta = 0;
    for (const Hunk& h : hunks_) {
      if (h.old_count > 0 && h.old_start <= n && n < h.old_start + h.old_count) return std::nullopt;
      const wiki::Line after = h.old_count > 0 ? h.old_start + h.old_count : h.old_start + 1;
      if (n >= after) delta += h.new_count - h.old_count;
    }
    return n + delta;
  }

  // The new line of an old line, also for a line changed in place: one of a hunk that replaced
  // as many lines as it removed takes the same place among the new ones.
  std::optional<wiki::Line> in_place(wiki::Line n) const {
    if (auto line = unchanged(n)) return line;
    for (const Hunk& h : hunks_) {
      if (h.old_start <= n && n < h.old_start + h.old_count && h.old_count == h.new_count) {
        return h.new_start + (n - h.old_start);
      }
    }
    return std::nullopt;
  }

 private:
  std::vector<Hunk> hunks_;
};

std::vector<Hunk> parse_hunks(const std::string& diff) {
  static const std::regex header(R"(^@@ -(\d+)(?:,(\d+))? \+(\d+)(?:,(\d+))? @@)");
  std::vector<Hunk> hunks;
  for (const std::string& line : split(diff, '\n')) {
    std::smatch m;
    if (line.rfind("@@ ", 0) != 0 || !std::regex_search(line, m, header)) continue;
    auto num = [&](int i, wiki::Line absent) {
      return m[i].matched ? std::stoll(m[i].str()) : absent;
    };
    hunks.push_back({num(1, 0), num(2, 1), num(3, 0), num(4, 1)});
  }
  return hunks;
}

// The line map of each pair's old text to its new text by git's own diff: one git process for
// all of them, over two temporary directories holding file i of each pair that differs.
std::vector<LineMap> diff_lines(const fs::path& root,
                                const std::vector<std::pair<std::string, std::string>>& pairs) {
  std::vector<std::vector<Hunk>> hunks(pairs.size());
  TempDir dir;
  const fs::path old_dir = dir / "old", new_dir = dir / "new";
  fs::create_directory(old_dir);
  fs::create_directory(new_dir);
  bool any = false;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    if (pairs[i].first == pairs[i].second) continue;
    for (const auto& [where, text] :
         {std::pair(old_dir, &pairs[i].first), std::pair(new_dir, &pairs[i].second)}) {
      std::FILE* out = std::fopen((where / std::to_string(i)).c_str(), "wb");
      if (out == nullptr || std::fwrite(text->data(), 1, text->size(), out) != text->size() ||
          std::fclose(out) != 0) {
        throw CommandError((where / std::to_string(i)).string() + ": cannot write");
      }
    }
    any = true;
  }
  if (any) {
    const std::string diff = git(root,
                                 {"diff", "--no-index", "--no-color", "--no-ext-diff",
                                  "--no-renames", "-U0", "--", old_dir.string(), new_dir.string()},
                                 {}, {0, 1});
    // Each file's part starts with "diff --git a/<old_dir>/<i> b/<new_dir>/<i>".
    std::size_t at = diff.find("diff --git ");
    while (at != std::string::npos) {
      const std::size_t eol = diff.find('\n', at);
      const std::size_t next = diff.find("\ndiff --git ", at + 1);
      const std::string header = diff.substr(at, eol - at);
      const std::size_t index = std::stoull(header.substr(header.rfind('/') + 1));
      if (index < pairs.size()) {
        hunks[index] = parse_hunks(diff.substr(at, next == std::string::npos ? next : next - at));
      }
      at = next == std::string::npos ? next : next + 1;
    }
  }
  std::vector<LineMap> maps;
  for (auto& h : hunks) maps.emplace_back(std::move(h));
  return maps;
}

// Contents of git objects ("commit:path" or a blob id), nullopt for one that is not there.
std::vector<std::optional<std::string>> cat_files(const fs::path& root,
                                                  const std::vector<std::string>& names) {
  std::vector<std::optional<std::string>> out;
  if (names.empty()) return out;
  std::string input;
  for (const std::string& name : names) input += name + "\n";
  const std::string batch = git(root, {"cat-file", "--batch"}, input);
  std::size_t at = 0;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::size_t eol = batch.find('\n', at);
    if (eol == std::string::npos) throw CommandError("git cat-file: output cut short");
    const std::vector<std::string> words = split(batch.substr(at, eol - at), ' ');
    at = eol + 1;
    if (words.size() != 3) {  // "<name> missing", "<name> ambiguous"
      out.emplace_back(std::nullopt);
      continue;
    }
    const std::size_t size = std::stoull(words[2]);
    out.emplace_back(words[1] == "blob" ? std::optional(batch.substr(at, size)) : std::nullopt);
    at += size + 1;
  }
  return out;
}

// Old path -> new path for the files that git's rename detection says were renamed between
// `commit` and the work tree. Files not yet added (a plain `mv`) count as added: the diff runs
// over a copy of the index that holds them as intent-to-add, so the user's index stays as it is.
std::map<std::string, std::string> renames(const fs::path& root, const std::string& commit) {
  TempDir dir;
  const fs::path index = dir / "index";
  const std::string git_index = git(root, {"rev-parse", "--git-path", "index"});
  const fs::path user_index = root / git_index.substr(0, git_index.find('\n'));
  std::error_code error;
  if (fs::exists(user_index, error)) fs::copy_file(user_index, index);
  const std::string env = "GIT_INDEX_FILE=" + index.string();
  auto with_index = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"env", env, "git"});
    const ProcessResult result = run_process(args, root);
    if (result.exit_code != 0) {
      throw CommandError("git " + args[3] + " failed in " + root.string() + ": " + result.err);
    }
    return result.out;
  };
  with_index({"add", "--intent-to-add", "--all", "--", "."});
  const std::vector<std::string> fields = split(
      with_index({"diff", "-M", "--name-status", "-z", "--diff-filter=R", commit, "--"}), '\0');
  std::map<std::string, std::string> out;
  for (std::size_t i = 0; i + 2 < fields.size(); i += 3) {
    if (fields[i].rfind("R", 0) == 0) out[fields[i + 1]] = fields[i + 2];
  }
  return out;
}

wiki::Line as_line(const wiki::Record& value) {
  return value.is_number_integer() ? value.get<wiki::Line>() : 0;
}

bool anchored(const wiki::Record& record) {
  auto symbol = record.find("symbol");
  return symbol != record.end() && symbol->is_string() &&
         !symbol->get_ref<const std::string&>().empty();
}

// `record` carried through `map`: its lines translated when git says both are unchanged, its
// declaration's first and last line then too (a changed one keeps its distance from the cited
// lines, so that the refresh's offset stays what it was). nullopt: left as it is.
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
  auto s = record.find("symbol_start"), e = record.find("symbol_end");
  if (s == record.end() || e == record.end() || !s->is_number_integer() ||
      !e->is_number_integer()) {
    return std::nullopt;
  }
  const wiki::Line start = as_line(record["line_start"]), end = as_line(record["line_end"]);
  const wiki::Line old_start = s->get<wiki::Line>(), old_end = e->get<wiki::Line>();
  if (start < old_start || end > old_end || end < start || (start == old_start && end == old_end)) {
    return std::nullopt;  // outside its declaration, or all of it: the refresh's rule is exact
  }
  const wiki::Symbol* now = wiki::citation_refresh::detail::find_again(symbols, record);
  if (now == nullptr) return std::nullopt;
  return InDeclaration{
      0,
      0,
      now,
      {lines_of(old_text, old_start, old_end), lines_of(new_text, now->start_line, now->end_line)}};
}

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

wiki::Record mark_json(const Mark& mark) {
  wiki::Record dirty = wiki::Record::object();
  for (const auto& [path, blob] : mark.dirty) dirty[path] = blob;
  wiki::Record out{{"commit", mark.commit}, {"clean", mark.clean}};
  if (!mark.dirty.empty()) out["dirty"] = dirty;
  return out;
}

// The anchors file's "refreshed" member; an empty object when it has none or cannot be read.
wiki::Record refreshed_of(const fs::path& file) {
  std::error_code error;
  if (!fs::exists(file, error)) return wiki::Record::object();
  const wiki::Record json = wiki::Record::parse(read_bytes(file), nullptr, false);
  if (!json.is_object()) return wiki::Record::object();
  auto it = json.find(kRefreshedKey);
  return it != json.end() && it->is_object() ? *it : wiki::Record::object();
}

}  // namespace

std::optional<Mark> read_mark(const fs::path& file, const std::string& branch) {
  const wiki::Record refreshed = refreshed_of(file);
  auto it = refreshed.find(branch);
  if (it == refreshed.end()) return std::nullopt;
  auto fail = [&](const std::string& what) -> std::optional<Mark> {
    throw AnchorsError(file.string() + ": \"" + kRefreshedKey + "\" of branch \"" + branch +
                       "\": " + what);
  };
  if (!it->is_object()) return fail("not an object");
  Mark mark;
  auto commit = it->find("commit");
  if (commit == it->end() || !commit->is_string() || commit->get<std::string>().empty() ||
      commit->get<std::string>().find_first_not_of("0123456789abcdef") != std::string::npos) {
    return fail("\"commit\" is not a commit id");
  }
  mark.commit = commit->get<std::string>();
  if (auto clean = it->find("clean"); clean != it->end() && clean->is_boolean()) {
    mark.clean = clean->get<bool>();
  }
  if (auto dirty = it->find("dirty"); dirty != it->end()) {
    if (!dirty->is_object()) return fail("\"dirty\" is not an object");
    for (auto entry = dirty->begin(); entry != dirty->end(); ++entry) {
      if (!entry->is_string()) return fail("\"dirty\": \"" + entry.key() + "\" is not a blob id");
      mark.dirty[entry.key()] = entry->get<std::string>();
    }
  }
  return mark;
}

std::optional<Mark> current_mark(const fs::path& root, const std::vector<std::string>& paths,
                                 bool keep_blobs) {
  const ProcessResult head = run_process({"git", "rev-parse", "--verify", "--quiet", "HEAD"}, root);
  if (head.exit_code != 0) return std::nullopt;  // no commit yet, or not a git work tree
  Mark mark;
  mark.commit = split(head.out, '\n').at(0);
  std::set<std::string> changed;
  for (auto& path : split(git(root, {"diff", "--name-only", "--no-renames", "-z", "HEAD"}), '\0')) {
    changed.insert(std::move(path));
  }
  for (auto& path : split(git(root, {"ls-files", "--others", "--exclude-standard", "-z"}), '\0')) {
    changed.insert(std::move(path));
  }
  std::vector<std::string> dirty;
  for (const std::string& path : std::set<std::string>(paths.begin(), paths.end())) {
    if (!changed.count(path) || path.find('\n') != std::string::npos) continue;
    const auto file = contained_path(root, path);
    if (file && fs::is_regular_file(*file)) dirty.push_back(path);
  }
  if (!dirty.empty()) {
    std::string input;
    for (const std::string& path : dirty) input += path + "\n";
    std::vector<std::string> args{"hash-object"};
    if (keep_blobs) args.push_back("-w");
    args.push_back("--stdin-paths");
    const std::vector<std::string> blobs = split(git(root, args, input), '\n');
    for (std::size_t i = 0; i < dirty.size() && i < blobs.size(); ++i) {
      mark.dirty[dirty[i]] = blobs[i];
    }
  }
  mark.clean = mark.dirty.empty();
  return mark;
}

bool write_anchors_marked(SqliteStore& store, const std::string& branch, const fs::path& file,
                          const std::function<std::optional<Mark>()>& mark) {
  const std::vector<StoredPage> pages = store.pages(branch);
  wiki::Record refreshed = refreshed_of(file);
  auto text_with = [&](const wiki::Record& marks) {
    return dump_anchors(pages,
                        marks.empty() ? wiki::Record() : wiki::Record{{kRefreshedKey, marks}});
  };
  std::error_code error;
  const bool exists = fs::exists(file, error);
  const std::string old_text = exists ? read_bytes(file) : std::string();
  if (exists && refreshed.contains(branch) && old_text == text_with(refreshed)) return false;
  if (auto now = mark()) refreshed[branch] = mark_json(*now);
  const std::string text = text_with(refreshed);
  if (exists && old_text == text) return false;
  wiki::RealFileSystem().atomic_write(file, text);
  return true;
}

Carried carry(SqliteStore& store, const std::string& branch, const fs::path& wiki_dir,
              const Mark& mark, const std::function<void(const std::string&)>& note) {
  const fs::path& root = store.repo_root();
  Carried carried;
  const ProcessResult has_commit =
      run_process({"git", "cat-file", "-e", mark.commit + "^{commit}"}, root);
  if (has_commit.exit_code != 0) {
    note("commit " + mark.commit.substr(0, 12) +
         ", at which the wiki was last refreshed, is not in this repository (a shallow clone?): "
         "renamed files are not followed and lines not carried across the diff; fetch more "
         "history (git fetch --deepen) to have them");
    return carried;
  }
  std::vector<StoredPage> pages = store.pages(branch);

  // Where each cited path is now: itself when indexed, else where git says it went.
  std::map<std::string, std::optional<std::string>> now;
  bool any_missing = false;
  for (const StoredPage& page : pages) {
    for (const wiki::Record& record : page.citations) {
      const auto key = key_of(record);
      if (!key || now.count(key->path)) continue;
      const bool indexed = store.is_indexed(key->path);
      now[key->path] = indexed ? std::optional(key->path) : std::nullopt;
      any_missing = any_missing || !indexed;
    }
  }
  if (any_missing) {
    for (const auto& [from, to] : renames(root, mark.commit)) {
      auto it = now.find(from);
      if (it != now.end() && !it->second && store.is_indexed(to)) it->second = to;
    }
  }

  // Each anchored citation's file as it was at the mark, and its line map to the work tree.
  std::vector<std::string> cited, names;
  std::unordered_set<std::string> seen;
  for (const StoredPage& page : pages) {
    for (const wiki::Record& record : page.citations) {
      const auto key = key_of(record);
      if (!key || !anchored(record) || !now[key->path] ||
          key->path.find('\n') != std::string::npos) {
        continue;
      }
      if (!seen.insert(key->path).second) continue;
      cited.push_back(key->path);
      auto dirty = mark.dirty.find(key->path);
      names.push_back(dirty != mark.dirty.end() ? dirty->second : mark.commit + ":" + key->path);
    }
  }
  auto old_texts = cat_files(root, names);
  struct Diffed {
    LineMap map;
    std::string old_text, new_text;
    std::optional<std::vector<wiki::Symbol>> symbols;  // the file's now, when asked for
  };
  std::map<std::string, Diffed> maps;
  {
    std::vector<std::string> diffed;
    std::vector<std::pair<std::string, std::string>> pairs;
    for (std::size_t i = 0; i < cited.size(); ++i) {
      if (!old_texts[i]) continue;  // not in the commit: nothing to diff from
      const auto file = contained_path(root, *now[cited[i]]);
      if (!file || !fs::is_regular_file(*file)) continue;
      diffed.push_back(cited[i]);
      pairs.emplace_back(std::move(*old_texts[i]), read_bytes(*file));
    }
    std::vector<LineMap> line_maps = diff_lines(root, pairs);
    for (std::size_t i = 0; i < diffed.size(); ++i) {
      maps.emplace(diffed[i], Diffed{std::move(line_maps[i]), std::move(pairs[i].first),
                                     std::move(pairs[i].second), std::nullopt});
    }
  }

  // Citations inside a declaration whose lines git says changed: diffed within the declaration
  // the refresh finds again, all in one more git process.
  std::vector<InDeclaration> inside;
  for (std::size_t p = 0; p < pages.size(); ++p) {
    for (std::size_t r = 0; r < pages[p].citations.size(); ++r) {
      const wiki::Record& record = pages[p].citations[r];
      const auto key = key_of(record);
      auto diffed = key && anchored(record) ? maps.find(key->path) : maps.end();
      if (diffed == maps.end() || translated(record, diffed->second.map)) continue;
      if (!diffed->second.symbols) {
        diffed->second.symbols = store.get_symbols_by_path(*now[key->path]);
      }
      if (auto found = declaration_texts(record, *diffed->second.symbols, diffed->second.old_text,
                                         diffed->second.new_text)) {
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

  MarkdownCitationSyntax syntax;
  bool changed = false;
  for (std::size_t p = 0; p < pages.size(); ++p) {
    StoredPage& page = pages[p];
    const fs::path page_file = wiki_dir / page.rel_path;
    if (!fs::is_regular_file(page_file)) continue;
    const wiki::Text text(read_bytes(page_file), page_file.string());
    std::unordered_set<wiki::CitationKey, wiki::CitationKeyHash> in_text;
    syntax.find(text, [&](const wiki::Citation& c) { in_text.insert(c.key); });

    // Each record's proposed record, then undo those whose new key another citation holds.
    std::vector<std::optional<wiki::Record>> proposed(page.citations.size());
    for (std::size_t i = 0; i < page.citations.size(); ++i) {
      const wiki::Record& record = page.citations[i];
      const auto key = key_of(record);
      if (!key || !in_text.count(*key) || !now[key->path]) continue;
      std::optional<wiki::Record> next;
      if (auto diffed = maps.find(key->path); diffed != maps.end() && anchored(record)) {
        next = translated(record, diffed->second.map);
        if (auto in = carried_inside.find({p, i}); !next && in != carried_inside.end()) {
          next = in->second;
        }
      }
      if (*now[key->path] != key->path) {
        if (!next) next = record;
        (*next)["path"] = *now[key->path];
      }
      if (next && *next != record) proposed[i] = std::move(next);
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

    KeyMap targets;
    std::int64_t moved = 0;
    for (std::size_t i = 0; i < page.citations.size(); ++i) {
      if (!proposed[i]) continue;
      const wiki::CitationKey from = *key_of(page.citations[i]), to = *key_of(*proposed[i]);
      targets.emplace(from, to);
      if (from.path != to.path) {
        carried.renamed.push_back({page.page_id, from.path, to.path,
                                   "L" + std::to_string(to.start) + "-L" + std::to_string(to.end)});
      }
      if (from.start != to.start || from.end != to.end) ++moved;
      page.citations[i] = std::move(*proposed[i]);
    }
    if (targets.empty()) continue;
    if (moved) carried.translated[page.page_id] = moved;
    std::string new_text = retarget(text.str(), targets);
    if (page.build_cache && page.build_cache->is_object()) {
      auto prose = page.build_cache->find("prose");
      if (prose != page.build_cache->end() && prose->is_string()) {
        *prose = retarget(prose->get<std::string>(), targets);
      }
    }
    page.content_hash = sha256_hex(new_text);
    carried.texts.emplace(page_file, std::move(new_text));
    changed = true;
  }
  if (changed) store.replace_pages(branch, pages);
  return carried;
}

bool OverlayFileSystem::is_file(const fs::path& path) {
  return texts_.count(path) || base_.is_file(path);
}

std::string OverlayFileSystem::read_file(const fs::path& path) {
  auto it = texts_.find(path);
  return it != texts_.end() ? it->second : base_.read_file(path);
}

void OverlayFileSystem::atomic_write(const fs::path& path, std::string_view content) {
  base_.atomic_write(path, content);
  texts_.erase(path);
}

}  // namespace tolbarrow::hosts::native::command

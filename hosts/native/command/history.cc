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
namespace cr = wiki::citation_refresh;
using namespace detail;
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

}  // namespace

namespace detail {

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

std::map<std::string, std::string> parse_renames(std::string_view name_status) {
  const std::vector<std::string> fields = split(name_status, '\0');
  std::map<std::string, std::string> out;
  for (std::size_t i = 0; i + 2 < fields.size(); i += 3) {
    if (fields[i].rfind("R", 0) == 0) out[fields[i + 1]] = fields[i + 2];
  }
  return out;
}

}  // namespace detail

namespace {

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
  // A file of the work tree may vanish between git's listing and its look at the file: that file
  // is left out (--ignore-errors), and the listing taken again while git still says one failed.
  // A failure that stays is the diff's to report.
  for (int tries = 0; tries < 3; ++tries) {
    const std::vector<std::string> add = {
        "env", env, "git", "add", "--intent-to-add", "--all", "--ignore-errors", "--", "."};
    if (run_process(add, root).exit_code == 0) break;
  }
  return parse_renames(
      with_index({"diff", "-M", "--name-status", "-z", "--diff-filter=R", commit, "--"}));
}

wiki::Line as_line(const wiki::Record& value) {
  return value.is_number_integer() ? value.get<wiki::Line>() : 0;
}

bool anchored(const wiki::Record& record) {
  auto symbol = record.find("symbol");
  return symbol != record.end() && symbol->is_string() &&
         !symbol->get_ref<const std::string&>().empty();
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

namespace {

// Whether the work tree is in the state `then` for every cited path of `cited` (cited path ->
// where it is now): the same commit, and each cited file's content the same.
bool same_state(const Mark& then, const Mark& now,
                const std::map<std::string, std::optional<std::string>>& cited) {
  if (then.commit != now.commit) return false;
  for (const auto& [path, where] : cited) {
    auto a = then.dirty.find(path), b = now.dirty.find(path);
    if ((a == then.dirty.end()) != (b == now.dirty.end())) return false;
    if (a != then.dirty.end() && a->second != b->second) return false;
  }
  return true;
}

// A page's text as the refresh reads it (CR LF and lone CR as LF), for the digest journal's
// hashes of page texts.
std::string as_refreshed(std::string bytes) {
  if (bytes.find('\r') == std::string::npos) return bytes;
  std::string text;
  text.reserve(bytes.size());
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text += bytes[i] == '\r' ? '\n' : bytes[i];
    if (bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n') ++i;
  }
  return text;
}

KeyMap targets_of_redo(const wiki::Record& redo) {
  KeyMap targets;
  for (const wiki::Record& t : redo.at("targets")) {
    targets.emplace(wiki::CitationKey{t.at(0).get<std::string>(), t.at(1).get<wiki::Line>(),
                                      t.at(2).get<wiki::Line>()},
                    wiki::CitationKey{t.at(3).get<std::string>(), t.at(4).get<wiki::Line>(),
                                      t.at(5).get<wiki::Line>()});
  }
  return targets;
}

// Adds to each pending page's rewrite the changes of its digest in "digests.json": the index of
// each digest citation whose key the page's citations leave, its key and its new key. Applied by
// index and old key (finish_carried), a change applies once however often it is applied. A
// journal of digest moves that an interrupted refresh left is brought in first, so that the
// digest is moved from where its page's records are.
void add_digest_changes(SqliteStore& store, const fs::path& wiki_dir,
                        const std::map<std::string, KeyMap>& targets_of,
                        std::vector<PendingPage>& pending,
                        const std::function<void(const std::string&)>& note) {
  ContainedFileSystem files(store.repo_root());
  files.allow(wiki_dir);
  cr::detail::DigestFile(
      files, store, wiki_dir,
      [&](const fs::path& path) { return as_refreshed(files.read_file(path)); }, note)
      .recover();
  std::string why;
  const auto digests = cr::detail::read_digests_to_rewrite(files, wiki_dir / "digests.json", why);
  if (!digests) return;  // the refresh says why
  for (PendingPage& page : pending) {
    auto digest = digests->find(page.page_id);
    if (digest == digests->end() || !digest->is_object()) continue;
    auto citations = digest->find("citations");
    if (citations == digest->end() || !citations->is_array()) continue;
    const KeyMap& targets = targets_of.at(page.page_id);
    for (std::size_t i = 0; i < citations->size(); ++i) {
      if (!(*citations)[i].is_object()) continue;
      std::optional<wiki::CitationKey> from;
      try {
        from = cr::detail::stored_key((*citations)[i]);
      } catch (const std::invalid_argument&) {
        continue;  // lines that are no lines: no citation of the page
      }
      auto to = targets.find(*from);
      if (to == targets.end()) continue;
      page.redo["digest"].push_back({i, from->path, from->start, from->end, to->second.path,
                                     to->second.start, to->second.end});
    }
  }
}

wiki::Record mark_json(const Mark& mark) {
  wiki::Record dirty = wiki::Record::object();
  for (const auto& [path, blob] : mark.dirty) dirty[path] = blob;
  wiki::Record out{{"commit", mark.commit}, {"clean", mark.clean}};
  if (!mark.dirty.empty()) out["dirty"] = dirty;
  return out;
}

// The "refreshed" member of an anchors file whose bytes are `bytes`; an empty object when it has
// none or is no JSON object. Only that member is built: the other members (the pages, nearly all
// of the file) are checked as JSON and passed over, so that reading the marks costs no more than
// the file's size.
wiki::Record refreshed_in(const std::string& bytes) {
  using Event = wiki::Record::parse_event_t;
  bool keep = false;  // whether the top-level member being read is "refreshed"
  const wiki::Record json = wiki::Record::parse(
      bytes,
      [&](int depth, Event event, wiki::Record& parsed) {
        if (depth != 1) return true;
        if (event == Event::key) keep = parsed == kRefreshedKey;
        return keep;
      },
      /*allow_exceptions=*/false);
  if (!json.is_object()) return wiki::Record::object();
  auto it = json.find(kRefreshedKey);
  return it != json.end() && it->is_object() ? *it : wiki::Record::object();
}

// The anchors file's "refreshed" member; an empty object when it has none or cannot be read.
wiki::Record refreshed_of(const fs::path& file) {
  std::error_code error;
  if (!fs::exists(file, error)) return wiki::Record::object();
  return refreshed_in(read_bytes(file));
}

}  // namespace

Mark parse_mark(const wiki::Record& json, const std::function<void(const std::string&)>& fail) {
  if (!json.is_object()) fail("not an object");
  Mark mark;
  auto commit = json.find("commit");
  if (commit == json.end() || !commit->is_string() || commit->get<std::string>().empty() ||
      commit->get<std::string>().find_first_not_of("0123456789abcdef") != std::string::npos) {
    fail("\"commit\" is not a commit id");
    return mark;
  }
  mark.commit = commit->get<std::string>();
  if (auto clean = json.find("clean"); clean != json.end() && clean->is_boolean()) {
    mark.clean = clean->get<bool>();
  }
  if (auto dirty = json.find("dirty"); dirty != json.end()) {
    if (!dirty->is_object()) {
      fail("\"dirty\" is not an object");
      return mark;
    }
    for (auto entry = dirty->begin(); entry != dirty->end(); ++entry) {
      if (!entry->is_string()) {
        fail("\"dirty\": \"" + entry.key() + "\" is not a blob id");
        continue;
      }
      mark.dirty[entry.key()] = entry->get<std::string>();
    }
  }
  return mark;
}

std::optional<Mark> read_mark(const fs::path& file, const std::string& branch) {
  const wiki::Record refreshed = refreshed_of(file);
  auto it = refreshed.find(branch);
  if (it == refreshed.end()) return std::nullopt;
  return parse_mark(*it, [&](const std::string& what) {
    throw AnchorsError(file.string() + ": \"" + kRefreshedKey + "\" of branch \"" + branch +
                       "\": " + what);
  });
}

std::string wiki_in(const fs::path& root, const fs::path& wiki_dir) {
  std::error_code error;
  const fs::path canonical = fs::weakly_canonical(wiki_dir, error);
  if (error) return {};
  const std::string rel = canonical.lexically_relative(root).generic_string();
  if (rel.empty() || rel == "." || rel == ".." || rel.starts_with("../")) return {};
  return rel.ends_with('/') ? rel.substr(0, rel.size() - 1) : rel;
}

std::optional<Mark> current_mark(const fs::path& root, const std::vector<std::string>& paths,
                                 bool keep_blobs, const std::string& wiki) {
  const ProcessResult head = run_process({"git", "rev-parse", "--verify", "--quiet", "HEAD"}, root);
  if (head.exit_code != 0) return std::nullopt;  // no commit yet, or not a git work tree
  Mark mark;
  mark.commit = split(head.out, '\n').at(0);
  // Files that differ from the commit, and untracked ones: unlike `git diff`, `git status` keeps
  // what it learns of the work tree in git's index (when it can take its lock), so that the next
  // run does not read again files that changed once. The wiki's pages, which a refresh has just
  // rewritten (too recently for git to trust their times), are left out, but for cited ones.
  std::set<std::string> changed;
  auto status = [&](const std::vector<std::string>& pathspecs) {
    std::vector<std::string> args{"status",       "--porcelain",           "-z",
                                  "--no-renames", "--untracked-files=all", "--"};
    args.insert(args.end(), pathspecs.begin(), pathspecs.end());
    for (std::string_view entry : split(git(root, args), '\0')) {
      if (entry.size() > 3) changed.emplace(entry.substr(3));  // "XY path"
    }
  };
  if (wiki.empty()) {
    status({});
  } else {
    status({".", ":(exclude,literal)" + wiki});
    std::set<std::string> in_wiki;
    for (const std::string& path : paths) {
      if (path.starts_with(wiki + "/")) in_wiki.insert(":(literal)" + path);
    }
    if (!in_wiki.empty()) status({in_wiki.begin(), in_wiki.end()});
  }
  std::vector<std::string> dirty;
  ContainedPaths contained(root);  // each directory's links followed once
  for (const std::string& path : std::set<std::string>(paths.begin(), paths.end())) {
    if (!changed.count(path) || path.find('\n') != std::string::npos) continue;
    const auto file = contained(path);
    if (file && fs::is_regular_file(*file)) {
      dirty.push_back(path);
    } else {
      // Changed and gone from the work tree (deleted, or moved and not yet added): git's null
      // object id, so that a mark tells this state from the committed file.
      mark.dirty[path] = std::string(40, '0');
    }
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

std::optional<std::string> write_anchors_marked(
    SqliteStore& store, const std::string& branch, const fs::path& file,
    const std::function<std::optional<Mark>(const std::vector<std::string>&)>& mark) {
  std::error_code error;
  const bool exists = fs::exists(file, error);
  const std::string old_text = exists ? read_bytes(file) : std::string();
  wiki::Record refreshed = exists ? refreshed_in(old_text) : wiki::Record::object();
  // One page's records at a time: the text and the cited paths are all that is kept of them. The
  // new text is about as long as the old one.
  AnchorsText pages;
  pages.reserve(old_text.size() + old_text.size() / 8);
  std::set<std::string> cited;
  store.each_page(branch, [&](StoredPage&& page) {
    pages.add(page);
    for (const wiki::Record& record : page.citations) {
      if (auto path = record.find("path"); path != record.end() && path->is_string()) {
        cited.insert(path->get<std::string>());
      }
    }
  });
  auto extra = [](const wiki::Record& marks) {
    return marks.empty() ? wiki::Record() : wiki::Record{{kRefreshedKey, marks}};
  };
  if (exists && refreshed.contains(branch) && pages.is(old_text, extra(refreshed))) {
    return std::nullopt;
  }
  const std::optional<Mark> now = mark(std::vector<std::string>(cited.begin(), cited.end()));
  if (now) refreshed[branch] = mark_json(*now);
  if (exists && pages.is(old_text, extra(refreshed))) return std::nullopt;
  const std::string text = std::move(pages).take(extra(refreshed));
  ContainedFileSystem(store.repo_root()).atomic_write(file, text);
  std::string hash = sha256_hex(text);
  if (now) store.carry_pages(branch, {}, {}, refreshed[branch].dump(), hash);
  return hash;
}

void finish_carried(SqliteStore& store, const std::string& branch, const fs::path& wiki_dir) {
  const std::vector<PendingPage> pending = store.pending_pages(branch);
  if (pending.empty()) return;
  // Each page file still with the text its new records were made from gets the new text, made
  // again the same way; a file that is neither (edited since) is left to the sync.
  std::vector<const PendingPage*> rewritten;
  for (const PendingPage& page : pending) {
    const fs::path file = wiki_dir / page.rel_path;
    std::error_code error;
    if (!fs::is_regular_file(file, error)) continue;
    const std::string text = read_bytes(file);
    std::string hash = sha256_hex(text);
    if (hash == page.old_hash) {
      const std::string new_text = retarget(text, targets_of_redo(page.redo));
      if (sha256_hex(new_text) != page.new_hash) continue;
      ContainedFileSystem(store.repo_root()).atomic_write(file, new_text);
      hash = page.new_hash;
    }
    if (hash == page.new_hash) rewritten.push_back(&page);
  }
  // Their digests' changes, each to the citation at its index that still has its old key.
  ContainedFileSystem files(store.repo_root());
  files.allow(wiki_dir);
  const fs::path digests_file = wiki_dir / "digests.json";
  std::optional<wiki::Record> digests;
  bool moved = false;
  for (const PendingPage* page : rewritten) {
    const wiki::Record& changes = page->redo.at("digest");
    if (changes.empty()) continue;
    std::string why;
    if (!digests) digests = cr::detail::read_digests_to_rewrite(files, digests_file, why);
    if (!digests) break;
    auto digest = digests->find(page->page_id);
    if (digest == digests->end() || !digest->is_object()) continue;
    auto citations = digest->find("citations");
    if (citations == digest->end() || !citations->is_array()) continue;
    for (const wiki::Record& change : changes) {
      const auto index = change.at(0).get<std::size_t>();
      if (index >= citations->size() || !(*citations)[index].is_object()) continue;
      wiki::Record& citation = (*citations)[index];
      const wiki::CitationKey from{change.at(1).get<std::string>(), change.at(2).get<wiki::Line>(),
                                   change.at(3).get<wiki::Line>()};
      try {
        if (!(cr::detail::stored_key(citation) == from)) continue;  // moved already, or since
      } catch (const std::invalid_argument&) {
        continue;
      }
      if (change.at(4) != from.path) citation["path"] = change.at(4);
      citation["line_start"] = change.at(5);
      citation["line_end"] = change.at(6);
      moved = true;
    }
  }
  if (moved) files.atomic_write(digests_file, cr::detail::dump_digests(*digests));
  store.pending_done(branch);
}

std::optional<Mark> carried_from(SqliteStore& store, const std::string& branch,
                                 const fs::path& anchors_file, const std::string& anchors_hash) {
  if (auto kept = store.history_mark(branch, anchors_hash)) {
    return parse_mark(wiki::Record::parse(*kept, nullptr, false), [&](const std::string& what) {
      throw StoreError(store.file().string() + ": the history mark of branch \"" + branch +
                       "\": " + what);
    });
  }
  return read_mark(anchors_file, branch);
}

Carried carry(SqliteStore& store, const std::string& branch, const fs::path& wiki_dir,
              const Mark& mark, const std::function<void(const std::string&)>& note, bool write,
              const std::string& anchors_hash, const std::vector<std::string>* cited_now) {
  const fs::path& root = store.repo_root();
  const std::string wiki = wiki_in(root, wiki_dir);
  Carried carried;
  // Nothing changed since the mark (the same commit, and each cited file as it was then; a file
  // gone from the work tree since is marked as such, so a move not yet added is still followed):
  // nothing to carry, told from the pages' cited paths alone when the caller has them.
  auto where_now = [&](const std::string& path, auto& now) {
    const bool indexed = store.is_indexed(path);
    now[path] = indexed ? std::optional(path) : std::nullopt;
    return indexed;
  };
  if (cited_now) {
    std::map<std::string, std::optional<std::string>> now;
    for (const std::string& path : *cited_now) where_now(path, now);
    const std::optional<Mark> to = current_mark(root, *cited_now, /*keep_blobs=*/false, wiki);
    if (to && same_state(mark, *to, now)) return carried;
  }
  std::vector<StoredPage> pages = store.pages(branch);
  auto cited_paths = [&] {
    std::vector<std::string> paths;
    for (const StoredPage& page : pages) {
      for (const wiki::Record& record : page.citations) {
        if (auto path = record.find("path"); path != record.end() && path->is_string()) {
          paths.push_back(path->get<std::string>());
        }
      }
    }
    return paths;
  };
  // The work tree's state now, which a writing run keeps as the records' mark with them.
  std::optional<Mark> to = current_mark(root, cited_paths(), /*keep_blobs=*/write, wiki);
  auto keep_mark = [&](const std::vector<StoredPage>& changed,
                       const std::vector<PendingPage>& pending) {
    if (!write) {
      store.carry_pages(branch, changed, {}, std::nullopt, "");
      return;
    }
    store.carry_pages(branch, changed, pending,
                      to ? std::optional(mark_json(*to).dump()) : std::nullopt, anchors_hash);
    finish_carried(store, branch, wiki_dir);
  };

  // Where each cited path is now: itself when indexed, else where git says it went.
  std::map<std::string, std::optional<std::string>> now;
  bool any_missing = false;
  for (const StoredPage& page : pages) {
    for (const wiki::Record& record : page.citations) {
      const auto key = key_of(record);
      if (!key || now.count(key->path)) continue;
      any_missing = !where_now(key->path, now) || any_missing;
    }
  }
  if (to && same_state(mark, *to, now)) return carried;

  const ProcessResult has_commit =
      run_process({"git", "cat-file", "-e", mark.commit + "^{commit}"}, root);
  if (has_commit.exit_code != 0) {
    note("commit " + mark.commit.substr(0, 12) +
         ", at which the wiki was last refreshed, is not in this repository (a shallow clone?): "
         "renamed files are not followed and lines not carried across the diff; fetch more "
         "history (git fetch --deepen) to have them");
    keep_mark({}, {});
    return carried;
  }
  if (any_missing) {
    for (const auto& [from, to_path] : renames(root, mark.commit)) {
      auto it = now.find(from);
      if (it != now.end() && !it->second && store.is_indexed(to_path)) it->second = to_path;
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
  std::vector<StoredPage> changed;
  std::vector<PendingPage> pending;
  std::map<std::string, KeyMap> targets_of;  // page id -> its citations' new keys
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
    bool records_changed = false;
    for (std::size_t i = 0; i < page.citations.size(); ++i) {
      if (!proposed[i]) continue;
      const wiki::CitationKey from = *key_of(page.citations[i]), to_key = *key_of(*proposed[i]);
      if (from != to_key) targets.emplace(from, to_key);
      if (from.path != to_key.path) {
        carried.renamed.push_back(
            {page.page_id, from.path, to_key.path,
             "L" + std::to_string(to_key.start) + "-L" + std::to_string(to_key.end)});
      }
      if (from.start != to_key.start || from.end != to_key.end) ++moved;
      page.citations[i] = std::move(*proposed[i]);
      records_changed = true;
    }
    if (moved) carried.translated[page.page_id] = moved;
    std::string new_text = retarget(text.str(), targets);
    if (page.build_cache && page.build_cache->is_object()) {
      auto prose = page.build_cache->find("prose");
      if (prose != page.build_cache->end() && prose->is_string()) {
        *prose = retarget(prose->get<std::string>(), targets);
      }
    }
    if (!records_changed) continue;
    const std::string new_hash = sha256_hex(new_text);
    if (!targets.empty()) {
      wiki::Record redo = wiki::Record::array();
      for (const auto& [from, to_key] : targets) {
        redo.push_back({from.path, from.start, from.end, to_key.path, to_key.start, to_key.end});
      }
      pending.push_back({page.page_id,
                         page.rel_path,
                         sha256_hex(text.str()),
                         new_hash,
                         {{"targets", std::move(redo)}, {"digest", wiki::Record::array()}}});
      targets_of.emplace(page.page_id, std::move(targets));
      if (!write) carried.texts.emplace(page_file, std::move(new_text));
    }
    page.content_hash = new_hash;
    changed.push_back(std::move(page));
  }
  if (write && !pending.empty()) add_digest_changes(store, wiki_dir, targets_of, pending, note);
  // A renamed file's new path is cited now: the mark keeps its content too when it differs from
  // the commit's.
  if (write && !carried.renamed.empty()) {
    std::vector<std::string> paths;
    for (const auto& [path, where] : now) paths.push_back(where.value_or(path));
    to = current_mark(root, paths, /*keep_blobs=*/true, wiki);
  }
  keep_mark(changed, pending);
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

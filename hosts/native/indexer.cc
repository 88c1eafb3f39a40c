#include "hosts/native/indexer.h"

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>

#include "hosts/native/process.h"
#include "hosts/native/repo_paths.h"

#ifndef TOLBARROW_CTAGS
#define TOLBARROW_CTAGS "ctags"
#endif

namespace tolbarrow::hosts::native {
namespace fs = std::filesystem;
namespace {

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> out;
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t next = text.find(separator, at);
    if (next == std::string::npos) next = text.size();
    if (next > at) out.push_back(text.substr(at, next - at));
    at = next + 1;
  }
  return out;
}

std::vector<std::string> walk(const fs::path& root) {
  std::vector<std::string> out;
  auto it = fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied);
  for (; it != fs::recursive_directory_iterator(); ++it) {
    const std::string name = it->path().filename().string();
    // lstat: a link is listed as it is (update() resolves it), so that a loop cannot stop the walk.
    if (fs::is_directory(it->symlink_status())) {
      if (!name.empty() && name[0] == '.') it.disable_recursion_pending();
      continue;
    }
    out.push_back(it->path().lexically_relative(root).generic_string());
  }
  return out;
}

// Whether a read failed because the file listed is no file there any more: removed, or replaced
// by a directory (or a directory of its path by a file) since it was listed.
bool gone(const fs::filesystem_error& error) {
  const std::error_code code = error.code();
  return code == std::errc::no_such_file_or_directory || code == std::errc::is_a_directory ||
         code == std::errc::not_a_directory;
}

// Whether `st` tells of the file what stat told before `read` was read.
bool same_file(const ReadFile& read, const struct stat& st) {
  return read.device == static_cast<std::uint64_t>(st.st_dev) &&
         read.inode == static_cast<std::uint64_t>(st.st_ino) && read.facts.size == st.st_size &&
         read.facts.mtime_ns ==
             static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec &&
         read.ctime_ns ==
             static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
}

}  // namespace

std::vector<std::string> repository_files(const fs::path& root) {
  const ProcessResult inside = run_process({"git", "rev-parse", "--is-inside-work-tree"}, root);
  if (inside.exit_code != 0 || inside.out.rfind("true", 0) != 0) return walk(root);
  const ProcessResult listed =
      run_process({"git", "ls-files", "-co", "--exclude-standard", "-z"}, root);
  if (listed.exit_code != 0) {
    throw std::runtime_error(root.string() + ": git ls-files failed: " + listed.err);
  }
  return split(listed.out, '\0');
}

std::string_view scope_separator(std::string_view language) {
  return language == "C" || language == "C++" ? "::" : ".";
}

std::vector<std::pair<std::string, std::vector<CtagsTag>>> parse_ctags_json(
    std::string_view output) {
  std::vector<std::pair<std::string, std::vector<CtagsTag>>> out;
  std::unordered_map<std::string, std::size_t> slot;
  std::size_t at = 0;
  while (at < output.size()) {
    std::size_t next = output.find('\n', at);
    if (next == std::string_view::npos) next = output.size();
    const std::string_view line = output.substr(at, next - at);
    at = next + 1;
    if (line.empty()) continue;
    const auto tag = nlohmann::json::parse(line, nullptr, false);
    if (tag.is_discarded())
      throw std::runtime_error("ctags gave a line that is not JSON: " + std::string(line));
    if (tag.value("_type", "") != "tag") continue;
    CtagsTag t;
    wiki::Symbol& symbol = t.symbol;
    symbol.name = tag.value("name", "");
    symbol.kind = tag.value("kind", "");
    symbol.start_line = tag.value("line", wiki::Line{0});
    symbol.end_line = tag.value("end", symbol.start_line);
    t.language = tag.value("language", "");
    t.scope = tag.value("scope", "");
    t.signature = tag.value("signature", "");
    t.typed = tag.contains("typeref");
    if (t.typed && tag["typeref"].is_string()) {
      const std::string typeref = tag["typeref"];
      // "typename:int": the type ctags read.
      t.typeref = typeref.rfind("typename:", 0) == 0 ? typeref.substr(9) : typeref;
    }
    symbol.fqn = t.scope.empty() ? symbol.name
                                 : t.scope + std::string(scope_separator(t.language)) + symbol.name;
    const std::string path = tag.value("path", "");
    auto [it, added] = slot.try_emplace(path, out.size());
    if (added) out.emplace_back(path, std::vector<CtagsTag>{});
    out[it->second].second.push_back(std::move(t));
  }
  return out;
}

namespace {

std::string_view trim(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

bool word_char(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// The text between a signature's first '(' and its matching ')', split at the commas outside
// brackets and quotes, each argument trimmed; `rest` receives what follows the ')'.
std::vector<std::string> arguments(std::string_view signature, std::string_view* rest = nullptr) {
  std::vector<std::string> out;
  const std::size_t open = signature.find('(');
  if (open == std::string_view::npos) return out;
  int depth = 0;
  char quote = 0;
  std::size_t from = open + 1;
  for (std::size_t i = open + 1; i < signature.size(); ++i) {
    const char c = signature[i];
    if (quote) {
      if (c == '\\')
        ++i;
      else if (c == quote)
        quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '(' || c == '<' || c == '[' || c == '{') {
      ++depth;
    } else if ((c == ')' && depth == 0) || (c == ',' && depth == 0)) {
      const std::string_view arg = trim(signature.substr(from, i - from));
      if (!arg.empty() || c == ',') out.emplace_back(arg);
      from = i + 1;
      if (c == ')') {
        if (rest) *rest = signature.substr(i + 1);
        return out;
      }
    } else if (c == ')' || c == '>' || c == ']' || c == '}') {
      --depth;
    }
  }
  return out;
}

// Words, "::" and single punctuation characters; whitespace separates, nothing more.
std::vector<std::string> tokens(std::string_view text) {
  std::vector<std::string> out;
  for (std::size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      ++i;
    } else if (word_char(c)) {
      std::size_t j = i;
      while (j < text.size() && word_char(text[j])) ++j;
      out.emplace_back(text.substr(i, j - i));
      i = j;
    } else if (text.substr(i, 2) == "::") {
      out.emplace_back("::");
      i += 2;
    } else {
      out.emplace_back(1, c);
      ++i;
    }
  }
  return out;
}

// Tokens joined with a space only between two words: "const std :: string &" -> "const
// std::string&".
std::string joined(const std::vector<std::string>& parts) {
  std::string out;
  for (const std::string& part : parts) {
    if (!out.empty() && word_char(out.back()) && word_char(part.front())) out += ' ';
    out += part;
  }
  return out;
}

bool type_word(const std::string& word) {
  static const std::unordered_set<std::string> words = {
      "const",  "volatile", "struct",  "class",   "enum",     "union",   "typename", "unsigned",
      "signed", "int",      "char",    "long",    "short",    "double",  "float",    "bool",
      "void",   "auto",     "wchar_t", "char8_t", "char16_t", "char32_t"};
  return words.count(word) != 0;
}

bool qualifier_word(const std::string& word) {
  return word == "const" || word == "volatile" || word == "struct" || word == "class" ||
         word == "enum" || word == "union" || word == "typename";
}

// A C++ parameter list as it identifies an overload: each parameter's type without its name or
// default value, then the const/volatile/reference qualifiers: "(const std::string & s,int n=3)
// const" -> "(const std::string&,int) const". Renaming a parameter or changing a default keeps it.
std::string cpp_parameters(std::string_view signature) {
  std::string_view rest;
  std::vector<std::string> params;
  for (const std::string& arg : arguments(signature, &rest)) {
    std::string_view text = arg;
    // The default value: from the first '=' outside brackets.
    int depth = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
      const char c = text[i];
      if (c == '(' || c == '<' || c == '[' || c == '{') ++depth;
      if (c == ')' || c == '>' || c == ']' || c == '}') --depth;
      if (c == '=' && depth == 0) {
        text = text.substr(0, i);
        break;
      }
    }
    std::vector<std::string> parts = tokens(text);
    // A trailing word is the parameter's name when a type stays without it.
    if (parts.size() > 1 && word_char(parts.back().front()) && !type_word(parts.back()) &&
        parts[parts.size() - 2] != "::") {
      const bool type_left = std::any_of(parts.begin(), parts.end() - 1, [](const std::string& p) {
        return word_char(p.front()) && !qualifier_word(p);
      });
      if (type_left) parts.pop_back();
    }
    if (!(parts.size() == 1 && parts[0] == "void")) params.push_back(joined(parts));
  }
  std::string out = "(";
  for (std::size_t i = 0; i < params.size(); ++i) out += (i ? "," : "") + params[i];
  out += ")";
  std::vector<std::string> qualifiers;
  for (const std::string& part : tokens(rest)) {
    if (part == "const" || part == "volatile" || part == "&") qualifiers.push_back(part);
  }
  if (!qualifiers.empty()) out += " " + joined(qualifiers);
  return out;
}

// Test-framework macros whose body ctags names after the macro: those whose arguments are a suite
// and a test name, and those whose first argument is the test name.
bool suite_and_name_macro(const std::string& name) {
  static const std::unordered_set<std::string> names = {
      "TEST",       "TEST_F",      "TEST_P",      "TYPED_TEST",         "TYPED_TEST_P",
      "GTEST_TEST", "FRIEND_TEST", "BENCHMARK_F", "BENCHMARK_DEFINE_F", "BENCHMARK_TEMPLATE_F"};
  return names.count(name) != 0;
}

bool name_first_macro(const std::string& name) {
  static const std::unordered_set<std::string> names = {
      "BOOST_AUTO_TEST_CASE", "BOOST_FIXTURE_TEST_CASE", "BOOST_DATA_TEST_CASE",
      "BOOST_AUTO_TEST_CASE_TEMPLATE", "BOOST_FIXTURE_TEST_CASE_TEMPLATE"};
  return names.count(name) != 0;
}

// A body that ctags names after the macro that opens it: an untyped C/C++ "function" whose name
// is in capitals, such as TEST(BuildTest, NoWork) { ... }.
bool macro_body(const CtagsTag& tag) {
  if ((tag.language != "C++" && tag.language != "C") || tag.symbol.kind != "function" ||
      tag.typed || tag.signature.empty()) {
    return false;
  }
  const std::string& name = tag.symbol.name;
  return !name.empty() && (name[0] < '0' || name[0] > '9') &&
         std::all_of(
             name.begin(), name.end(),
             [](char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'; }) &&
         std::any_of(name.begin(), name.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

// Identity from a macro body's arguments: TEST(BuildTest, NoWork) is fqn "BuildTest.NoWork", name
// "NoWork"; BOOST_AUTO_TEST_CASE(parses) is "parses"; any other macro keeps its name and its fqn
// spells the call, "INSTANTIATE(a, b)". A scope, when there is one, stays in front of the fqn.
void identify_macro_body(CtagsTag& tag) {
  wiki::Symbol& symbol = tag.symbol;
  const std::vector<std::string> args = arguments(tag.signature);
  std::string fqn;
  if (suite_and_name_macro(symbol.name) && args.size() >= 2 && !args[1].empty()) {
    fqn = args[0] + "." + args[1];
    symbol.name = args[1];
  } else if (name_first_macro(symbol.name) && !args.empty() && !args[0].empty()) {
    fqn = args[0];
    symbol.name = args[0];
  } else {
    fqn = symbol.name + "(";
    for (std::size_t i = 0; i < args.size(); ++i) fqn += (i ? ", " : "") + args[i];
    fqn += ")";
  }
  symbol.fqn = tag.scope.empty() ? fqn : tag.scope + "::" + fqn;
}

// The file's lines, line 1 first.
std::vector<std::string_view> lines_of(std::string_view text) {
  std::vector<std::string_view> out;
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t next = text.find('\n', at);
    if (next == std::string_view::npos) next = text.size();
    out.push_back(text.substr(at, next - at));
    at = next + 1;
  }
  return out;
}

std::size_t indentation(std::string_view line) {
  const std::size_t first = line.find_first_not_of(" \t");
  return first == std::string_view::npos ? line.size() : first;
}

// The decorators right above a Python def at `line` (1-based), nearest first; comment lines
// between them are skipped.
std::vector<std::string_view> decorators(const std::vector<std::string_view>& lines,
                                         wiki::Line line) {
  std::vector<std::string_view> out;
  for (wiki::Line at = line - 1; at >= 1 && static_cast<std::size_t>(at) <= lines.size(); --at) {
    const std::string_view text = trim(lines[at - 1]);
    if (text.empty() || (text[0] != '@' && text[0] != '#')) break;
    if (text[0] == '@') out.push_back(text.substr(1));
  }
  return out;
}

// "overload" or "<module>.overload", with nothing but a comment after it.
bool overload_decorator(std::string_view decorator) {
  decorator = trim(decorator.substr(0, decorator.find('#')));
  const std::size_t dot = decorator.rfind('.');
  const std::string_view last =
      dot == std::string_view::npos ? decorator : decorator.substr(dot + 1);
  return last == "overload";
}

// The lines (first, last) of each `if TYPE_CHECKING:` branch: the lines after the `if` up to the
// first line of code indented no deeper than it.
std::vector<std::pair<wiki::Line, wiki::Line>> type_checking_branches(
    const std::vector<std::string_view>& lines) {
  std::vector<std::pair<wiki::Line, wiki::Line>> out;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    std::string_view text = trim(lines[i]);
    text = trim(text.substr(0, text.find('#')));
    if (text != "if TYPE_CHECKING:" && text != "if typing.TYPE_CHECKING:") continue;
    const std::size_t depth = indentation(lines[i]);
    std::size_t end = i + 1;
    for (; end < lines.size(); ++end) {
      const std::string_view code = trim(lines[end]);
      if (!code.empty() && code[0] != '#' && indentation(lines[end]) <= depth) break;
    }
    out.emplace_back(static_cast<wiki::Line>(i + 2), static_cast<wiki::Line>(end));
  }
  return out;
}

// An @overload stub's key: its parameters and return type as ctags gives them, without
// whitespace or a trailing comma: "( x: str, )" returning str is "(x:str)->str".
std::string python_stub_signature(const CtagsTag& tag) {
  std::string out;
  for (char c : tag.signature) {
    if (c != ' ' && c != '\t' && c != '\n' && c != '\r') out += c;
  }
  for (std::size_t at; (at = out.find(",)")) != std::string::npos;) out.erase(at, 1);
  if (!tag.typeref.empty()) out += "->" + tag.typeref;
  return out;
}

}  // namespace

std::vector<wiki::Symbol> identify(std::vector<CtagsTag> tags, std::string_view text) {
  const std::vector<std::string_view> lines = lines_of(text);
  std::vector<std::pair<wiki::Line, wiki::Line>> branches;
  bool python = false;
  for (const CtagsTag& tag : tags) python = python || tag.language == "Python";
  if (python) branches = type_checking_branches(lines);

  for (CtagsTag& tag : tags) {
    wiki::Symbol& symbol = tag.symbol;
    if (macro_body(tag)) {
      identify_macro_body(tag);
    } else if (tag.language == "C++" && (symbol.kind == "function" || symbol.kind == "prototype") &&
               !tag.signature.empty() && tag.signature.front() == '(') {
      symbol.fqn += cpp_parameters(tag.signature);
    } else if (tag.language == "Python") {
      bool stub = false;
      for (std::string_view decorator : decorators(lines, symbol.start_line)) {
        stub = stub || overload_decorator(decorator);
        // A property's setter and deleter are twins of its getter: "@x.setter" gives "C.x.setter".
        for (std::string_view accessor : {".setter", ".deleter"}) {
          if (trim(decorator) == symbol.name + std::string(accessor)) symbol.fqn += accessor;
        }
      }
      // Declarations only type checkers see are kept apart from the implementation: a stub by
      // its signature ("f@overload(x:int)->int"), and whatever an `if TYPE_CHECKING:` branch
      // declares by a marker ("Config@TYPE_CHECKING").
      if (stub) symbol.fqn += "@overload" + python_stub_signature(tag);
      for (const auto& [first, last] : branches) {
        if (first <= symbol.start_line && symbol.start_line <= last) {
          symbol.fqn += "@TYPE_CHECKING";
          break;
        }
      }
    }
  }
  // Stubs that still share a key (the same signature twice) are told apart by their place among
  // them: the second is "f@overload(x:int)->int#2".
  std::unordered_map<std::string, int> seen;
  std::vector<wiki::Symbol> out;
  out.reserve(tags.size());
  for (CtagsTag& tag : tags) {
    wiki::Symbol& symbol = tag.symbol;
    if (symbol.fqn.find("@overload") != std::string::npos) {
      const int n = ++seen[symbol.fqn];
      if (n > 1) symbol.fqn += "#" + std::to_string(n);
    }
    out.push_back(std::move(symbol));
  }
  return out;
}

Indexer::Indexer(SqliteStore& store, std::optional<std::string> ctags,
                 std::vector<std::string> state_files, std::string wiki_dir)
    : store_(store),
      state_files_(std::move(state_files)),
      wiki_dir_(std::move(wiki_dir)),
      ctags_(ctags ? *ctags : TOLBARROW_CTAGS) {
  while (wiki_dir_.size() > 1 && wiki_dir_.back() == '/') wiki_dir_.pop_back();
}

bool Indexer::parsed(const std::string& path, std::int64_t size) const {
  const std::string ending = fs::path(path).extension().string();  // as ctags maps them
  if (ending != ".md" && ending != ".markdown") return true;
  const bool page =
      !wiki_dir_.empty() &&
      (wiki_dir_ == "." || (path.size() > wiki_dir_.size() && path[wiki_dir_.size()] == '/' &&
                            path.compare(0, wiki_dir_.size(), wiki_dir_) == 0));
  return !page && size <= kMarkdownParseLimit;
}

std::vector<std::pair<std::string, std::vector<CtagsTag>>> Indexer::run_ctags(
    const std::vector<std::string>& paths) {
  std::string list;
  for (const std::string& path : paths) list += path + "\n";
  ++ctags_runs_;
  // --options=NONE: no user or project option file changes what the index holds. Fields: n line,
  // e end line, K/z long kind names, S signature, l language (for the scope separator).
  // --sort=no keeps each file's declarations in the order ctags meets them: the index order.
  const ProcessResult result = run_process({ctags_, "--options=NONE", "--output-format=json",
                                            "--fields=+neKzSl", "--sort=no", "-f", "-", "-L", "-"},
                                           store_.repo_root(), list);
  if (result.exit_code != 0) {
    throw std::runtime_error(ctags_ + " failed in " + store_.repo_root().string() + " (exit " +
                             std::to_string(result.exit_code) + "): " + result.err);
  }
  return parse_ctags_json(result.out);
}

IndexStats Indexer::update() {
  const fs::path& root = store_.repo_root();
  std::map<std::string, FileFacts> known;
  for (FileFacts& facts : store_.files()) known.emplace(facts.path, std::move(facts));

  IndexStats stats;
  IndexChange change;
  // Declarations indexed in another format than this indexer's are made again, every file once.
  const bool reindex_all = store_.index_format() != kIndexFormat;
  if (reindex_all) change.index_format = kIndexFormat;
  std::vector<FileFacts> changed;  // content differs: for ctags
  std::set<std::string> present;
  // The store's own files are no part of the repository's code.
  std::unordered_set<std::string> own;
  const fs::path db = fs::weakly_canonical(store_.file());
  const std::string db_rel = db.lexically_relative(root).generic_string();
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) own.insert(db_rel + suffix);
  own.insert(state_files_.begin(), state_files_.end());

  ContainedPaths contained(root);  // each directory's links followed once
  for (const std::string& path : repository_files(root)) {
    if (path.find('\n') != std::string::npos || own.count(path)) continue;
    struct stat st;
    bool stated = false;
    const auto file = contained(path, st, stated);
    if (!file || (!stated && ::stat(file->c_str(), &st) != 0) || !S_ISREG(st.st_mode)) continue;
    present.insert(path);
    FileFacts facts{path, "", st.st_size,
                    static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec,
                    0};
    auto old = known.find(path);
    if (!reindex_all && old != known.end() && old->second.size == facts.size &&
        old->second.mtime_ns == facts.mtime_ns) {
      continue;
    }
    if (auto read = read_already_.find(path);
        read != read_already_.end() && same_file(read->second, st)) {
      // Read already since the stat above: the same content.
      facts.hash = read->second.facts.hash;
      facts.line_count = read->second.facts.line_count;
      facts.size = read->second.facts.size;
    } else {
      std::string bytes;
      try {
        bytes = read_bytes(*file);
      } catch (const fs::filesystem_error& error) {
        // Gone since it was listed (another writer's temporary file, renamed): not in the index.
        if (!gone(error)) throw;
        present.erase(path);
        continue;
      }
      facts.hash = sha256_hex(bytes);
      facts.line_count = count_lines(bytes);
      facts.size = static_cast<std::int64_t>(bytes.size());
    }
    if (!reindex_all && old != known.end() && old->second.hash == facts.hash) {
      change.touched.push_back(std::move(facts));
    } else if (!parsed(facts.path, facts.size)) {
      change.indexed.emplace_back(std::move(facts), std::vector<wiki::Symbol>{});
    } else {
      changed.push_back(std::move(facts));
    }
  }
  for (const auto& [path, facts] : known) {
    if (!present.count(path)) change.removed.push_back(path);
  }

  for (std::size_t begin = 0; begin < changed.size(); begin += kBatch) {
    const std::size_t end = std::min(changed.size(), begin + kBatch);
    std::vector<std::string> paths;
    for (std::size_t i = begin; i < end; ++i) paths.push_back(changed[i].path);
    auto tags = run_ctags(paths);
    std::unordered_map<std::string, std::vector<CtagsTag>*> by_path;
    for (auto& [path, file_tags] : tags) by_path[path] = &file_tags;
    for (std::size_t i = begin; i < end; ++i) {
      auto found = by_path.find(changed[i].path);
      std::vector<wiki::Symbol> symbols;
      if (found != by_path.end() && !found->second->empty()) {
        // The text tells what ctags does not: decorators, `if TYPE_CHECKING:` branches.
        const auto file = contained(changed[i].path);
        std::string text;
        try {
          if (file) text = read_bytes(*file);
        } catch (const fs::filesystem_error& error) {
          if (!gone(error)) throw;  // gone meanwhile: ctags' declarations as they are
        }
        symbols = identify(std::move(*found->second), text);
      }
      change.indexed.emplace_back(std::move(changed[i]), std::move(symbols));
    }
  }
  store_.apply(change);
  stats.files = present.size();
  stats.reindexed = changed.size();
  stats.touched = change.touched.size();
  stats.removed = change.removed.size();
  return stats;
}

}  // namespace tolbarrow::hosts::native

#include "hosts/native/command/git_plumbing.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <set>

#include "hosts/native/command/run.h"
#include "hosts/native/process.h"
#include "hosts/native/repo_paths.h"

namespace tolbarrow::hosts::native::command {
namespace fs = std::filesystem;
namespace {

// git run in `root` with `args`; CommandError when git is not installed.
ProcessResult run_git(const fs::path& root, std::vector<std::string>& args,
                      std::string_view input = {}) {
  args.insert(args.begin(), "git");
  ProcessResult result = run_process(args, root, input);
  if (result.exit_code == 127) throw CommandError("git: not found; install the git package");
  return result;
}

// git's output; CommandError naming the git command when it fails (exit codes in `ok` pass).
std::string git(const fs::path& root, std::vector<std::string> args, std::string_view input = {},
                std::initializer_list<int> ok = {0}) {
  const ProcessResult result = run_git(root, args, input);
  if (std::find(ok.begin(), ok.end(), result.exit_code) == ok.end()) {
    std::string err = result.err;
    while (!err.empty() && (err.back() == '\n' || err.back() == '\r')) err.pop_back();
    throw CommandError("git " + args[1] + " failed in " + root.string() + ": " + err);
  }
  return result.out;
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

std::optional<std::string> git_output(const fs::path& root, std::vector<std::string> args) {
  const ProcessResult result = run_git(root, args);
  if (result.exit_code != 0) return std::nullopt;
  std::string out = result.out;
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
  return out;
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

namespace {

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

}  // namespace

// Old path -> new path for the cited files `gone` from the work tree that git's rename detection
// says were renamed: each diffed from the last commit that has it (HEAD, or the parent of the last
// commit that touched it), so that a rename committed on any branch, or not committed at all, is
// followed. Paths whose history this clone does not have stay unfollowed.
std::map<std::string, std::string> renames_of(const fs::path& root,
                                              const std::vector<std::string>& gone) {
  std::map<std::string, std::vector<std::string>> by_base;  // commit -> paths it has
  for (const std::string& path : gone) {
    if (run_process({"git", "cat-file", "-e", "HEAD:" + path}, root).exit_code == 0) {
      by_base["HEAD"].push_back(path);
      continue;
    }
    const ProcessResult last =
        run_process({"git", "log", "-1", "--format=%H", "--", ":(literal)" + path}, root);
    const std::vector<std::string> lines = split(last.out, '\n');
    if (last.exit_code != 0 || lines.empty()) continue;
    const std::string parent = lines[0] + "^";
    if (run_process({"git", "cat-file", "-e", parent + ":" + path}, root).exit_code == 0) {
      by_base[parent].push_back(path);
    }
  }
  std::map<std::string, std::string> out;
  for (const auto& [base, paths] : by_base) {
    const std::map<std::string, std::string> found = renames(root, base);
    for (const std::string& path : paths) {
      if (auto it = found.find(path); it != found.end()) out.insert(*it);
    }
  }
  return out;
}

std::optional<std::string> commit_of(const fs::path& root, const std::string& name) {
  const ProcessResult result = run_process(
      {"git", "rev-parse", "--verify", "--quiet", "--end-of-options", name + "^{commit}"}, root);
  if (result.exit_code == 127) throw CommandError("git: not found; install the git package");
  const std::vector<std::string> lines = split(result.out, '\n');
  if (result.exit_code != 0 || lines.empty()) return std::nullopt;
  return lines[0];
}

std::string short_id(const fs::path& root, const std::string& commit, std::size_t digits) {
  if (digits >= commit.size()) return commit;
  const std::vector<std::string> lines =
      split(git(root, {"rev-parse", "--short=" + std::to_string(digits), commit}), '\n');
  return lines.empty() ? commit : lines[0];
}

std::map<std::string, std::string> renames_between(const fs::path& root, const std::string& from,
                                                   const std::string& to) {
  return parse_renames(
      git(root, {"diff", "-M", "--name-status", "-z", "--diff-filter=R", from, to, "--"}));
}

std::string wiki_in(const fs::path& root, const fs::path& wiki_dir) {
  std::error_code error;
  const fs::path canonical = fs::weakly_canonical(wiki_dir, error);
  if (error) return {};
  const std::string rel = canonical.lexically_relative(root).generic_string();
  if (rel.empty() || rel == "." || rel == ".." || rel.starts_with("../")) return {};
  return rel.ends_with('/') ? rel.substr(0, rel.size() - 1) : rel;
}

std::map<std::string, std::string> work_tree_blobs(const fs::path& root,
                                                   const std::vector<std::string>& paths,
                                                   bool keep_blobs, const std::string& wiki) {
  std::map<std::string, std::string> blobs;
  const ProcessResult inside = run_process({"git", "rev-parse", "--is-inside-work-tree"}, root);
  if (inside.exit_code != 0) return blobs;  // no git work tree: nothing to carry from
  // Files that differ from git's index or its commit, and untracked ones: `git status` keeps
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
  const std::set<std::string> wanted(paths.begin(), paths.end());
  if (wiki.empty()) {
    status({});
  } else {
    status({".", ":(exclude,literal)" + wiki});
    std::set<std::string> in_wiki;
    for (const std::string& path : wanted) {
      if (path.starts_with(wiki + "/")) in_wiki.insert(":(literal)" + path);
    }
    if (!in_wiki.empty()) status({in_wiki.begin(), in_wiki.end()});
  }
  // The index's blob of each file git says is as the index holds it ("mode blob stage\tpath").
  std::map<std::string, std::string> indexed;
  for (std::string_view entry : split(git(root, {"ls-files", "-s", "-z"}), '\0')) {
    const std::size_t tab = entry.find('\t');
    if (tab == std::string_view::npos || tab < 48) continue;
    indexed.emplace(entry.substr(tab + 1), entry.substr(7, 40));
  }
  std::vector<std::string> to_hash;
  ContainedPaths contained(root);  // each directory's links followed once
  for (const std::string& path : wanted) {
    if (path.find('\n') != std::string::npos) continue;
    auto in_index = indexed.find(path);
    if (!changed.count(path) && in_index != indexed.end()) {
      blobs[path] = in_index->second;
      continue;
    }
    const auto file = contained(path);
    std::error_code error;
    if (file && fs::is_regular_file(*file, error)) {
      to_hash.push_back(path);
    } else {
      blobs[path] = std::string(40, '0');  // gone from the work tree
    }
  }
  if (!to_hash.empty()) {
    std::string input;
    for (const std::string& path : to_hash) input += path + "\n";
    std::vector<std::string> args{"hash-object"};
    if (keep_blobs) args.push_back("-w");
    args.push_back("--stdin-paths");
    const std::vector<std::string> ids = split(git(root, args, input), '\n');
    for (std::size_t i = 0; i < to_hash.size() && i < ids.size(); ++i) blobs[to_hash[i]] = ids[i];
  }
  return blobs;
}

std::string state_of(const std::map<std::string, std::string>& blobs) {
  std::string text;
  for (const auto& [path, blob] : blobs) text += path + '\0' + blob + '\n';
  return "blobs " + sha256_hex(text);
}

}  // namespace tolbarrow::hosts::native::command

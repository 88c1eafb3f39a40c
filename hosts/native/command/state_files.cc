#include "hosts/native/command/state_files.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "hosts/native/command/run.h"
#include "hosts/native/repo_paths.h"
#include "workers/wiki/text.h"

namespace tolbarrow::hosts::native::command {
namespace fs = std::filesystem;
namespace {

// Accepts any JSON, keeping where the first syntax error is; builds nothing.
struct Acceptor : nlohmann::json_sax<nlohmann::json> {
  std::size_t at = 0;  // the byte offset of the error, counted from 1
  bool failed = false;
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool start_object(std::size_t) override { return true; }
  bool key(string_t&) override { return true; }
  bool end_object() override { return true; }
  bool start_array(std::size_t) override { return true; }
  bool end_array() override { return true; }
  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception&) override {
    at = position;
    failed = true;
    return false;
  }
};

// "line L, column C" of the byte at `offset` (from 0).
std::string line_and_column(std::string_view bytes, std::size_t offset) {
  offset = std::min(offset, bytes.size());
  const std::string_view before = bytes.substr(0, offset);
  const std::size_t line =
      1 + static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
  const std::size_t line_start =
      before.rfind('\n') == std::string_view::npos ? 0 : before.rfind('\n') + 1;
  return "line " + std::to_string(line) + ", column " + std::to_string(offset - line_start + 1);
}

bool inside(const fs::path& file, const fs::path& dir) {
  return std::mismatch(dir.begin(), dir.end(), file.begin(), file.end()).first == dir.end();
}

// Throws when `file` is a symbolic link whose target is not inside `wiki_real`.
void check_not_linked_out(const fs::path& file, const fs::path& wiki_real) {
  std::error_code error;
  if (!fs::is_symlink(fs::symlink_status(file, error))) return;
  // Link by link, so that a link that dangles (a file the command would create) is judged by
  // where it leads too.
  fs::path target = file;
  for (int hops = 0; hops < 40 && fs::is_symlink(fs::symlink_status(target, error)); ++hops) {
    const fs::path next = fs::read_symlink(target, error);
    if (error) break;
    target = (next.is_absolute() ? next : target.parent_path() / next).lexically_normal();
  }
  target = fs::weakly_canonical(target, error);
  if (!error && inside(target.parent_path(), wiki_real)) return;
  throw CommandError(file.string() + ": a symbolic link to " + target.string() +
                     ", outside the wiki; the command writes this file and never through a link "
                     "that leaves the wiki: replace the link with the file");
}

}  // namespace

std::string json_break(std::string_view bytes) {
  if (bytes.rfind("\xEF\xBB\xBF", 0) == 0) {
    return "line 1, column 1: a byte-order mark, which JSON does not allow";
  }
  if (const std::size_t bad = wiki::first_invalid_utf8(bytes); bad != std::string_view::npos) {
    return line_and_column(bytes, bad) + ": not UTF-8 (byte " + std::to_string(bad) + ")";
  }
  Acceptor acceptor;
  nlohmann::json::sax_parse(bytes, &acceptor);
  if (!acceptor.failed) return "";
  return line_and_column(bytes, acceptor.at == 0 ? 0 : acceptor.at - 1) + ": not valid JSON";
}

void check_state_files(const fs::path& wiki_dir, const std::string& anchors_name) {
  std::error_code error;
  fs::path wiki_real = fs::weakly_canonical(wiki_dir, error);
  if (error) wiki_real = wiki_dir;
  const fs::path digests = wiki_dir / "digests.json";
  const fs::path anchors = wiki_dir / anchors_name;
  for (const fs::path& file :
       {digests, anchors, wiki_dir / std::string(wiki::citation_refresh::DIGEST_JOURNAL)}) {
    check_not_linked_out(file, wiki_real);
  }
  auto read = [&](const fs::path& file) -> std::optional<std::string> {
    if (!fs::exists(file, error)) return std::nullopt;
    try {
      return read_bytes(file);
    } catch (const fs::filesystem_error& e) {
      throw CommandError(file.string() + ": cannot read it: " + e.code().message());
    }
  };
  const std::string keep = "; mend the file (or remove it) and run again: nothing was written";
  if (const std::optional<std::string> bytes = read(digests)) {
    std::string why = json_break(*bytes);
    if (why.empty()) {
      const std::size_t first = bytes->find_first_not_of(" \t\r\n");
      if (first == std::string::npos || (*bytes)[first] != '{') {
        why = line_and_column(*bytes, first == std::string::npos ? 0 : first) +
              ": not a JSON object of page digests";
      }
    }
    if (!why.empty()) throw CommandError(digests.string() + ": " + why + keep);
  }
  if (const std::optional<std::string> bytes = read(anchors)) {
    if (const std::string why = json_break(*bytes); !why.empty()) {
      throw CommandError(anchors.string() + ": " + why +
                         " (a merge conflict left in it?); mend the file and run again: nothing "
                         "was written");
    }
  }
}

void refuse_places(const fs::path& root, const fs::path& wiki, const fs::path& db) {
  std::error_code error;
  const fs::path wiki_real = fs::canonical(wiki, error);
  if (error)
    throw CommandError(wiki.string() + ": cannot resolve the wiki folder: " + error.message());
  if (!inside(wiki_real, root)) {
    throw CommandError(wiki.string() + ": the wiki folder leads outside the repository, to " +
                       wiki_real.string() + "; refusing to read or write there (--wiki)");
  }
  const fs::path db_real = fs::weakly_canonical(db, error);
  if (!error && inside(db_real, wiki_real)) {
    throw CommandError(db.string() + ": the store would lie inside the wiki folder " +
                       wiki.string() +
                       ", among the pages; give --db a path outside it (the "
                       "default keeps it in the git directory)");
  }
}

void remove_leftovers(const std::vector<fs::path>& files) {
  for (const fs::path& file : files) {
    std::error_code ignored;
    fs::remove(file, ignored);
  }
}

bool store_unreadable(const fs::path& db) {
  std::error_code error;
  if (!fs::is_regular_file(db, error)) return false;
  sqlite3* handle = nullptr;
  bool unreadable = false;
  if (sqlite3_open_v2(db.c_str(), &handle, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    const int code = handle ? sqlite3_errcode(handle) & 0xff : SQLITE_NOMEM;
    unreadable = code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
  } else {
    sqlite3_busy_timeout(handle, 10000);
    sqlite3_stmt* stmt = nullptr;
    const int prepared = sqlite3_prepare_v2(handle, "PRAGMA quick_check", -1, &stmt, nullptr);
    if (prepared != SQLITE_OK) {
      unreadable = (prepared & 0xff) == SQLITE_CORRUPT || (prepared & 0xff) == SQLITE_NOTADB;
    } else {
      const int step = sqlite3_step(stmt);
      if (step == SQLITE_ROW) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
        unreadable = text == nullptr || std::string_view(text) != "ok";
      } else {
        unreadable = (step & 0xff) == SQLITE_CORRUPT || (step & 0xff) == SQLITE_NOTADB;
      }
    }
    sqlite3_finalize(stmt);
  }
  sqlite3_close(handle);
  return unreadable;
}

std::unique_ptr<SqliteStore> open_store(const fs::path& root, const fs::path& db,
                                        const std::function<void(const std::string&)>& note) {
  try {
    return std::make_unique<SqliteStore>(root, db);
  } catch (const StoreError&) {
    if (!store_unreadable(db)) throw;
  }
  const fs::path aside = db.string() + ".unreadable";
  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::error_code error;
    const fs::path from = db.string() + suffix;
    if (fs::exists(fs::symlink_status(from, error))) {
      fs::rename(from, aside.string() + suffix, error);
      if (error) {
        throw CommandError(from.string() +
                           ": not a readable database, and it cannot be set aside (" +
                           error.message() + "); remove it: it is only a cache");
      }
    }
  }
  note(db.string() + ": not a readable database; set aside as " + aside.string() +
       " and rebuilt from the anchors file and the pages");
  return std::make_unique<SqliteStore>(root, db);
}

}  // namespace tolbarrow::hosts::native::command

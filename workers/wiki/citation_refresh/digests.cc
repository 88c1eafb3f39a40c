// The wiki's "digests.json": reading it, moving one page digest's citation ranges, and keeping it
// in step with the pages of a refresh that stops part way.
#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <tuple>

#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::workers::wiki::citation_refresh::detail {
namespace fs = std::filesystem;
namespace {

// A decimal number's value as sign, significant digits and the power of ten of the last digit,
// so that two spellings of one value compare equal ("1.50e1" and "15").
std::tuple<bool, std::string, long> decimal_value(std::string_view text) {
  const bool negative = !text.empty() && text.front() == '-';
  std::string digits;
  long exponent = 0;
  bool fraction = false;
  std::size_t i = negative ? 1 : 0;
  for (; i < text.size() && text[i] != 'e' && text[i] != 'E'; ++i) {
    if (text[i] == '.') {
      fraction = true;
    } else {
      digits += text[i];
      exponent -= fraction ? 1 : 0;
    }
  }
  if (i < text.size())
    exponent += std::strtol(std::string(text.substr(i + 1)).c_str(), nullptr, 10);
  const std::size_t first = digits.find_first_not_of('0');
  if (first == std::string::npos) return {false, "0", 0};
  digits.erase(0, first);
  while (digits.back() == '0') digits.pop_back(), ++exponent;
  return {negative, digits, exponent};
}

// Builds the digest map as the library's own DOM parser does (a key given twice keeps its first
// place and takes its last value), and notes the first number that writing the map back would
// change. The members of the outer map are found through a hash index: the library's ordered map
// searches its members one by one for each key, which would grow with the square of the pages.
//
// The library reads an integer beyond 64 bits as a float, and hands every float over with its
// text: a float is exact when the text the map would be written with has the same value.
class DigestParser {
 public:
  explicit DigestParser(Record& root) : root_(root) {}
  std::string inexact;  // the first number that would change, as the file spells it

  bool null() { return value(nullptr); }
  bool boolean(bool v) { return value(v); }
  bool number_integer(Record::number_integer_t v) { return value(v); }
  bool number_unsigned(Record::number_unsigned_t v) { return value(v); }
  bool number_float(double v, const std::string& text) {
    if (inexact.empty() &&
        (!std::isfinite(v) || decimal_value(text) != decimal_value(Record(v).dump()))) {
      inexact = text;
    }
    return value(v);
  }
  bool string(std::string& v) { return value(std::move(v)); }
  bool binary(Record::binary_t& v) { return value(std::move(v)); }
  bool start_object(std::size_t) {
    stack_.push_back(place(Record::value_t::object));
    return true;
  }
  bool key(std::string& name) {
    if (stack_.size() > 1) {
      member_ = &(*stack_.back())[name];
      return true;
    }
    // A member of the outer map: held apart until the map ends (a map's own members cannot move
    // when its list grows, and would be copied), a repeated key found through the index.
    const auto [at, added] = outer_at_.try_emplace(name, outer_.size());
    if (added) outer_.emplace_back(std::move(name), nullptr);
    member_ = &outer_[at->second].second;
    return true;
  }
  bool end_object() {
    if (stack_.size() == 1) {
      auto& members = stack_.back()->get_ref<Record::object_t&>();
      members.reserve(outer_.size());
      for (auto& [name, value] : outer_) {
        static_cast<Record::object_t::Container&>(members).emplace_back(std::move(name),
                                                                        std::move(value));
      }
    }
    stack_.pop_back();
    return true;
  }
  bool start_array(std::size_t) {
    stack_.push_back(place(Record::value_t::array));
    return true;
  }
  bool end_array() {
    stack_.pop_back();
    return true;
  }
  // A number beyond a double's range stops the library's parser (its error 406).
  template <class Exception>
  bool parse_error(std::size_t, const std::string& token, const Exception& error) {
    if (error.id == 406 && inexact.empty()) inexact = token;
    return false;
  }

 private:
  template <class Value>
  bool value(Value&& v) {
    place(std::forward<Value>(v));
    return true;
  }
  // Puts a value where the text has it: the root, the end of the open list, or the member whose
  // key came last.
  template <class Value>
  Record* place(Value&& v) {
    if (stack_.empty()) {
      root_ = Record(std::forward<Value>(v));
      return &root_;
    }
    Record& open = *stack_.back();
    if (open.is_array()) {
      auto& items = open.get_ref<Record::array_t&>();
      items.emplace_back(std::forward<Value>(v));
      return &items.back();
    }
    *member_ = Record(std::forward<Value>(v));
    return member_;
  }

  Record& root_;
  std::vector<Record*> stack_;  // the open maps and lists, outermost first
  Record* member_ = nullptr;    // the value of the key read last
  // The members of the outer map (when the root is a map) until it ends, and where each stands.
  std::vector<std::pair<std::string, Record>> outer_;
  std::unordered_map<std::string, std::size_t> outer_at_;
};

}  // namespace

namespace {

// The bytes of the digest file at `path`; none when there is no such file. Only an absent file
// means no digests: any other failure would have the refresh replace every digest with an empty
// map, and ends the refresh instead.
std::optional<std::string> read_digest_bytes(FileSystem& file_system, const fs::path& path) {
  try {
    return file_system.read_file(path);
  } catch (const fs::filesystem_error& error) {
    if (error.code() == std::errc::no_such_file_or_directory) return std::nullopt;
    throw;
  }
}

// read_digests_to_rewrite() of the file's bytes.
std::optional<Record> parse_digests_to_rewrite(const std::string& bytes, std::string& why) {
  if (bytes.rfind("\xEF\xBB\xBF", 0) == 0 || first_invalid_utf8(bytes) != std::string_view::npos) {
    return Record::object();
  }
  Record parsed;
  DigestParser parser(parsed);
  const bool parsed_ok = Record::sax_parse(bytes, &parser);
  if (!parser.inexact.empty()) {
    why = "the number " + parser.inexact + " would not be written back exactly";
    return std::nullopt;
  }
  return parsed_ok && parsed.is_object() ? parsed : Record::object();
}

}  // namespace

std::optional<Record> read_digests_to_rewrite(FileSystem& file_system, const fs::path& path,
                                              std::string& why) {
  const std::optional<std::string> bytes = read_digest_bytes(file_system, path);
  return bytes ? parse_digests_to_rewrite(*bytes, why) : Record::object();
}

Record read_digests(FileSystem& file_system, const fs::path& path) {
  std::string bytes;
  try {
    bytes = file_system.read_file(path);
  } catch (const std::exception&) {
    return Record::object();  // absent or unreadable: no digests yet
  }
  // Not strict UTF-8 (a byte-order mark included), not JSON, or not an object: an empty map,
  // which the refresh writes back.
  if (bytes.rfind("\xEF\xBB\xBF", 0) == 0 || first_invalid_utf8(bytes) != std::string_view::npos) {
    return Record::object();
  }
  Record parsed = Record::parse(bytes, nullptr, /*allow_exceptions=*/false);
  return parsed.is_object() ? parsed : Record::object();
}

void move_digest_citations(Record* digest, const Moves& moves, std::vector<DigestChange>* changed) {
  if (digest == nullptr || !digest->is_object()) return;
  // Absent, null, false, zero or empty citations: nothing to move.
  auto citations = digest->find("citations");
  if (citations == digest->end() || !present(*citations) || *citations == false ||
      (citations->is_number() && *citations == 0)) {
    return;
  }
  if (!citations->is_array()) {
    throw RecordTypeError("digest citations: expected a list, got " + citations->dump());
  }
  for (std::size_t i = 0; i < citations->size(); ++i) {
    Record& citation = (*citations)[i];
    if (!citation.is_object()) {
      throw RecordTypeError("digest citation: expected a map, got " + citation.dump());
    }
    CitationKey key = stored_key(citation);
    if (const Move* move = moves.find(key)) {
      if (!move->path.empty()) citation["path"] = move->path;
      citation["line_start"] = move->first;
      citation["line_end"] = move->last;
      if (changed) changed->push_back({i, std::move(key), *move});
    }
  }
}

// ---- Keeping the digest file in step with the pages -------------------------------------------
//
// The journal holds one line of JSON for each page whose digest a refresh changed: the page's
// id and file, the host's hash of the page text before the refresh, and each changed digest
// citation with its index in the digest's citations, its stored key before and its new lines.
// The line is appended, and on disk, before the page is written; the journal is removed once
// "digests.json" holds all of it. Appending keeps a refresh's journal writes in proportion to its
// changes (rewriting the whole journal for every page would grow with the square of the wiki). A
// crash inside an append leaves a last line without its line feed: that page was never written,
// and the line is passed over.
//
// The next writing refresh, under the same write lock, applies a page's changes only when its
// file is no longer the text it was moved from: a page whose write never happened is moved again
// by that refresh, from its stored records, and its digest with it. A change applies only to a
// citation that still has its old key, so applying a journal twice (a refresh stopped after
// writing the digest file but before removing the journal) changes nothing the second time.
// Moves keyed by lines alone could not be applied again safely: a citation's new lines may be
// another citation's old ones, and it would move twice.

DigestFile::DigestFile(FileSystem& file_system, Repository& repository, const fs::path& wiki_dir,
                       std::function<std::string(const fs::path&)> read_page,
                       std::function<void(const std::string&)> warn)
    : file_system_(file_system),
      repository_(repository),
      wiki_dir_(wiki_dir),
      digests_path_(wiki_dir / "digests.json"),
      journal_path_(wiki_dir / std::string(DIGEST_JOURNAL)),
      read_page_(std::move(read_page)),
      warn_(std::move(warn)) {}

bool DigestFile::load(bool as_map) {
  if (read_) return text_ || digests_;
  read_ = true;
  std::optional<std::string> bytes = read_digest_bytes(file_system_, digests_path_);
  if (!bytes) {
    digests_ = Record::object();
    return true;
  }
  // As dump_digests() writes it (so as every writing refresh leaves it): moved in its text.
  if (!as_map && (text_ = DigestText::read(*bytes))) return true;
  std::string why;
  digests_ = parse_digests_to_rewrite(*bytes, why);
  if (!digests_) {
    warn_("wiki citation refresh: " + digests_path_.string() + " left as it is: " + why);
    return false;
  }
  // Where each page's digest stands: a search of its own for every page would grow with the
  // square of the wiki.
  for (auto& [id, digest] : digests_->items()) digest_at_.emplace(id, &digest);
  return true;
}

void DigestFile::recover() {
  if (!file_system_.is_file(journal_path_)) return;
  const std::string journal = file_system_.read_file(journal_path_);
  // Left as it is with the digest file, for a refresh that can rewrite the file to apply.
  if (!load(/*as_map=*/true)) return;
  std::size_t line = 0;
  try {
    // Whole lines only: a last line without its line feed is a torn append.
    for (std::size_t at = 0, end; (end = journal.find('\n', at)) != std::string::npos;
         at = end + 1) {
      ++line;
      apply(Record::parse(std::string_view(journal).substr(at, end - at)));
    }
  } catch (const nlohmann::json::exception& error) {
    throw std::runtime_error(journal_path_.string() + ": line " + std::to_string(line) +
                             " is no digest change (" + error.what() +
                             "); remove the file to go on, and check the digests of the pages "
                             "that the last interrupted refresh wrote");
  }
  file_system_.atomic_write(digests_path_, dump_digests(*digests_));
  file_system_.remove_file(journal_path_);
}

void DigestFile::apply(const Record& page) {
  const Record& old_hash = page.at("old_text_hash");
  if (!old_hash.is_null()) {
    const fs::path page_file = wiki_dir_ / page.at("page").get<std::string>();
    if (file_system_.is_file(page_file) &&
        repository_.text_hash(read_page_(page_file)) == old_hash.get<std::string>()) {
      return;  // never written
    }
  }
  auto entry = digest_at_.find(page.at("page_id").get<std::string>());
  if (entry == digest_at_.end() || !entry->second->is_object()) return;
  auto citations = entry->second->find("citations");
  if (citations == entry->second->end() || !citations->is_array()) return;
  for (const Record& change : page.at("citations")) {
    const auto index = change.at(0).get<std::size_t>();
    if (index >= citations->size() || !(*citations)[index].is_object()) continue;
    Record& citation = (*citations)[index];
    const CitationKey from{change.at(1).get<std::string>(), change.at(2).get<Line>(),
                           change.at(3).get<Line>()};
    try {
      if (!(stored_key(citation) == from)) continue;  // changed already, or since
    } catch (const std::invalid_argument&) {
      continue;  // lines that are no lines now: not the citation that was moved
    }
    if (change.size() > 6) citation["path"] = change.at(6).get<std::string>();
    citation["line_start"] = change.at(4).get<Line>();
    citation["line_end"] = change.at(5).get<Line>();
  }
}

void DigestFile::move(const std::string& page_id, const fs::path& rel_path,
                      const std::string* old_text, const Moves& moves) {
  if (moves.empty()) return;
  moved_ = true;
  if (!load()) return;
  std::vector<DigestChange> changed;
  if (text_) {
    text_->move(page_id, moves, changed);
  } else {
    auto entry = digest_at_.find(page_id);
    move_digest_citations(entry == digest_at_.end() ? nullptr : entry->second, moves, &changed);
  }
  if (changed.empty()) return;

  // The line as the library would write the record {"page_id", "page", "old_text_hash",
  // "citations": [[index, path, first, last, new first, new last(, new path)], ...]} on one line,
  // put together directly: only its texts need the library's escaping. The new path is there
  // only for a citation whose file was renamed.
  const auto text = [](const std::string& value) { return Record(value).dump(); };
  std::string line = "{\"page_id\":" + text(page_id) + ",\"page\":" + text(rel_path.string()) +
                     ",\"old_text_hash\":" +
                     (old_text ? text(repository_.text_hash(*old_text)) : std::string("null")) +
                     ",\"citations\":[";
  for (std::size_t i = 0; i < changed.size(); ++i) {
    const auto& [index, from, to] = changed[i];
    line += (i == 0 ? "[" : ",[") + std::to_string(index) + "," + text(from.path) + "," +
            std::to_string(from.start) + "," + std::to_string(from.end) + "," +
            std::to_string(to.first) + "," + std::to_string(to.last) +
            (to.path.empty() ? "]" : "," + text(to.path) + "]");
  }
  line += "]}\n";
  file_system_.append(journal_path_, line);
  journaled_ = true;
}

void DigestFile::finish() {
  if (moved_ && text_) file_system_.atomic_write(digests_path_, text_->text());
  if (moved_ && digests_) file_system_.atomic_write(digests_path_, dump_digests(*digests_));
  if (journaled_) file_system_.remove_file(journal_path_);
}

}  // namespace tolbarrow::workers::wiki::citation_refresh::detail

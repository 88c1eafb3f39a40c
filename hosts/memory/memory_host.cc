#include "hosts/memory/memory_host.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <charconv>
#include <mutex>
#include <unordered_map>

#include "workers/wiki/citation_refresh/regex.h"

namespace tolbarrow::workers::wiki {
void PrintTo(const CitationKey& key, std::ostream* out) {
  *out << "(" << key.path << ", " << key.start << ", " << key.end << ")";
}
void PrintTo(const LineRange& range, std::ostream* out) {
  *out << "(" << range.first << ", " << range.last << ")";
}
void PrintTo(const Moves& moves, std::ostream* out) {
  *out << "{";
  for (const auto& [key, range] : moves) {
    PrintTo(key, out);
    *out << ": ";
    PrintTo(static_cast<const LineRange&>(range), out);
    if (!range.path.empty()) *out << " in " << range.path;
    *out << "; ";
  }
  *out << "}";
}
void PrintTo(const Symbol& s, std::ostream* out) {
  *out << s.fqn << " " << s.kind << " " << s.start_line << "-" << s.end_line;
}
}  // namespace tolbarrow::workers::wiki

namespace tolbarrow::hosts::memory {
namespace {

const Regex& citation_regex() {
  static const Regex re("\\(([^()\\s#]+)#L(-?\\d+)-L(-?\\d+)\\)");
  return re;
}

// A citation found in the text: its key, and its span in code points and in bytes.
struct Found {
  CitationKey key;
  std::size_t start = 0, end = 0;
  std::size_t byte_start = 0, byte_end = 0;
};

Line parse_number(std::string_view digits) {
  Line value = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (error != std::errc() || end != digits.data() + digits.size()) {
    throw std::out_of_range("citation line out of range: " + std::string(digits));
  }
  return value;
}

// Calls `each` with every citation between code points `from_point` and `to_point`, in order.
template <class Each>
void find_citations(const Text& text, std::size_t from_point, std::size_t to_point, Each&& each) {
  const std::string_view subject = std::string_view(text.str()).substr(0, text.byte_at(to_point));
  std::size_t at = text.byte_at(from_point);
  while (auto m = citation_regex().search(subject, at)) {
    at = m->end;
    // "(" path "#L" first "-L" last ")"; the path holds no "#".
    const std::string_view body = subject.substr(m->begin + 1, m->end - m->begin - 2);
    const auto hash = body.find("#L");
    const auto dash = body.rfind("-L");
    each(Found{
        {std::string(body.substr(0, hash)), parse_number(body.substr(hash + 2, dash - hash - 2)),
         parse_number(body.substr(dash + 2))},
        text.point_at(m->begin),
        text.point_at(m->end),
        m->begin,
        m->end});
  }
}

class MemoryLock : public WriteLock {
 public:
  MemoryLock(MemoryHost& host, const fs::path& wiki_dir) : host_(host) {
    host_.calls.push_back("lock " + wiki_dir.string());
  }
  void acquire() override {
    host_.calls.push_back("acquire");
    if (host_.busy) throw WikiBusy("wiki busy");
  }
  void release() override {
    host_.calls.push_back("release");
    if (host_.release_fails) throw std::runtime_error("release failed");
  }

 private:
  MemoryHost& host_;
};

class MemoryLineCounts : public LineCounts {
 public:
  explicit MemoryLineCounts(const std::unordered_map<std::string, Line>& counts)
      : counts_(counts) {}
  Line count(const std::string& path) override {
    auto it = counts_.find(path);
    return it == counts_.end() ? 1000 : it->second;
  }

 private:
  const std::unordered_map<std::string, Line>& counts_;
};

class CaptureSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit CaptureSink(std::vector<std::string>& lines) : lines_(lines) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    lines_.push_back(std::string(spdlog::level::to_string_view(msg.level).data()) + ": " +
                     std::string(msg.payload.data(), msg.payload.size()));
  }
  void flush_() override {}

 private:
  std::vector<std::string>& lines_;
};

[[noreturn]] void no_file(const fs::path& path) {
  throw fs::filesystem_error("cannot open", path,
                             std::make_error_code(std::errc::no_such_file_or_directory));
}

}  // namespace

Symbol sym(std::string fqn, Line start, Line end, std::string kind) {
  const auto dot = fqn.rfind('.');
  std::string name = dot == std::string::npos ? fqn : fqn.substr(dot + 1);
  return Symbol{std::move(fqn), std::move(name), std::move(kind), start, end};
}

std::string cite(const std::string& path, Line first, Line last) {
  return "(" + path + "#L" + std::to_string(first) + "-L" + std::to_string(last) + ")";
}

// ---- Files ------------------------------------------------------------------------------------

bool MemoryFileSystem::is_file(const fs::path& path) { return files.count(path) != 0; }

std::string MemoryFileSystem::read_file(const fs::path& path) {
  calls_.push_back("read " + path.filename().string());
  if (fault) fault("read", path);
  if (directories.count(path)) {
    throw fs::filesystem_error("cannot read", path,
                               std::make_error_code(std::errc::is_a_directory));
  }
  auto it = files.find(path);
  if (it == files.end()) no_file(path);
  return it->second;
}

void MemoryFileSystem::atomic_write(const fs::path& path, std::string_view content) {
  calls_.push_back("write " + path.filename().string());
  if (fault) fault("write", path);
  files[path] = std::string(content);
}

void MemoryFileSystem::append(const fs::path& path, std::string_view content) {
  calls_.push_back("append " + path.filename().string());
  if (fault) fault("append", path);
  files[path] += content;
}

void MemoryFileSystem::remove_file(const fs::path& path) {
  calls_.push_back("remove " + path.filename().string());
  if (fault) fault("remove", path);
  files.erase(path);
}

// ---- Host services ----------------------------------------------------------------------------

MemoryHost::MemoryHost()
    : logger(std::make_shared<spdlog::logger>(std::string(cr::MODULE_NAME),
                                              std::make_shared<CaptureSink>(log_lines))) {}

cr::Host MemoryHost::host() {
  return cr::Host{.syntax = *this,
                  .anchoring = *this,
                  .ranges = *this,
                  .file_system = file_system,
                  .locks = *this,
                  .logger = logger};
}

namespace {

// The first index at or after `from` whose item fails `before` (which holds for a prefix of
// `items`), searched outward from `hint` in doubling steps: O(log distance) from the hint.
template <typename T, typename Before>
std::size_t gallop(const std::vector<T>& items, std::size_t from, std::size_t hint, Before before) {
  std::size_t low = from, high = items.size();
  hint = std::clamp(hint, from, high);
  if (hint < high && before(items[hint])) {
    // Forward: every index below `low` holds, `probe` is the next one tried.
    low = hint + 1;
    for (std::size_t step = 1, probe = low; probe < high; probe = low + step, step *= 2) {
      if (!before(items[probe])) {
        high = probe;
        break;
      }
      low = probe + 1;
    }
  } else {
    // Backward: the answer is at or below `high`.
    high = hint;
    for (std::size_t step = 1; high > from; step *= 2) {
      const std::size_t probe = high - from > step ? high - step : from;
      if (before(items[probe])) {
        low = probe + 1;
        break;
      }
      high = probe;
    }
  }
  const auto begin = items.begin();
  return static_cast<std::size_t>(std::partition_point(begin + static_cast<std::ptrdiff_t>(low),
                                                       begin + static_cast<std::ptrdiff_t>(high),
                                                       before) -
                                  begin);
}

}  // namespace

const std::vector<MemoryHost::Scanned>* MemoryHost::scanned(const Text& text) const {
  return scanned_id_ != 0 && text.id() == scanned_id_ ? &scanned_ : nullptr;
}

void MemoryHost::find(const Text& text, const std::function<void(const Citation&)>& each) {
  scanned_id_ = 0;
  scanned_.clear();
  spans_.clear();
  last_hit_ = 0;
  find_citations(text, 0, text.length(), [&](Found&& found) {
    spans_.emplace_back(found.start, found.end);
    scanned_.push_back({{std::move(found.key), found.start}, found.byte_start, found.byte_end});
  });
  scanned_id_ = text.id();
  for (const Scanned& s : scanned_) each(s.citation);
}

std::optional<std::size_t> MemoryHost::last_end(const Text& text, std::size_t start,
                                                std::size_t end) {
  ++pattern_searches;
  if (scanned(text) != nullptr) {
    // A citation holds no "(" after its first character, so no search finds one starting inside
    // another, nor a shorter one where the bound cuts one off: the citations a search bounded by
    // [start, end) finds are the scanned ones that lie inside the bounds. Spans neither overlap
    // nor nest, so both their starts and their ends ascend.
    const std::size_t first =
        gallop(spans_, 0, last_hit_, [&](const auto& s) { return s.first < start; });
    const std::size_t past =
        gallop(spans_, first, first, [&](const auto& s) { return s.second <= end; });
    last_hit_ = first;
    if (past == first) return std::nullopt;
    return spans_[past - 1].second;
  }
  const std::string_view subject = std::string_view(text.str()).substr(0, text.byte_at(end));
  std::optional<std::size_t> last;
  std::size_t at = text.byte_at(start);
  while (auto m = citation_regex().search(subject, at)) at = m->end, last = m->end;
  if (!last) return std::nullopt;
  return text.point_at(*last);
}

std::string MemoryHost::rewrite(const Text& text, const Moves& moves) {
  std::string out;
  out.reserve(text.str().size() + 64);
  std::size_t copied = 0;
  const auto each = [&](const CitationKey& key, std::size_t begin, std::size_t end) {
    const Move* move = moves.find(key);
    if (move == nullptr) return;
    out.append(text.str(), copied, begin - copied);
    out += cite(move->path.empty() ? key.path : move->path, move->first, move->last);
    copied = end;
  };
  if (const auto* found = scanned(text)) {
    for (const Scanned& s : *found) each(s.citation.key, s.byte_begin, s.byte_end);
  } else {
    find_citations(text, 0, text.length(),
                   [&](const Found& found) { each(found.key, found.byte_start, found.byte_end); });
  }
  out.append(text.str(), copied);
  return out;
}

const Symbol* MemoryHost::anchor_symbol(std::span<const Symbol> symbols, Line first, Line last) {
  anchor_calls.push_back(std::to_string(first) + "-" + std::to_string(last));
  for (const Symbol& s : symbols) {
    if (s.start_line <= first && last <= s.end_line) return &s;
  }
  return nullptr;
}

Record MemoryHost::anchored(const Record& citation, LineRange lines, const Symbol* symbol) {
  return anchored_record(citation, lines, symbol);
}

std::unique_ptr<LineCounts> MemoryHost::line_counts(const fs::path&) {
  return std::make_unique<MemoryLineCounts>(line_counts_by_path);
}

std::optional<LineRange> MemoryHost::fit_range(Line first, Line last, Line lines) {
  if (first > lines || last < 1 || first > last) return std::nullopt;
  return LineRange{std::max<Line>(first, 1), std::min(last, lines)};
}

std::unique_ptr<WriteLock> MemoryHost::open(const fs::path& wiki_dir) {
  return std::make_unique<MemoryLock>(*this, wiki_dir);
}

// ---- Repository -------------------------------------------------------------------------------

std::vector<Symbol> MemoryRepository::get_symbols_by_path(const std::string& path) {
  if (fault) fault("get_symbols_by_path");
  ++symbol_queries[path];
  auto it = symbols.find(path);
  return it == symbols.end() ? std::vector<Symbol>{} : it->second;
}

bool MemoryRepository::is_indexed(const std::string& path) {
  if (fault) fault("is_indexed");
  ++file_queries[path];
  return files.count(path) != 0;
}

std::vector<std::unique_ptr<const PageRow>> MemoryRepository::get_wiki_pages(const std::string&) {
  if (fault) fault("get_wiki_pages");
  std::vector<std::unique_ptr<const PageRow>> rows;
  for (const Record& page : pages) rows.push_back(std::make_unique<RecordPageRow>(page));
  return rows;
}

void MemoryRepository::update_wiki_page_citations(const std::string& branch, const PageRow& row,
                                                  PageUpdate update) {
  if (fault) fault("update_wiki_page_citations");
  const std::string page_id = row.page_id();
  if (page_id == fail_update) throw std::runtime_error("store failed for " + page_id);
  for (Record& page : pages) {
    if (page.value("page_id", "") != page_id) continue;
    page["citations"] = update.citations;
    page["build_cache"] = update.build_cache ? *update.build_cache : Record();
    if (update.content_hash) page["content_hash"] = *update.content_hash;
  }
  updates.push_back({branch, page_id, std::move(update)});
}

std::string MemoryRepository::text_hash(const std::string& text) {
  return "h" + std::to_string(std::hash<std::string>()(text));
}

}  // namespace tolbarrow::hosts::memory

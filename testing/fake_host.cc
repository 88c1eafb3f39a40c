#include "testing/fake_host.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <fstream>
#include <mutex>
#include <random>
#include <sstream>

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
    PrintTo(range, out);
    *out << "; ";
  }
  *out << "}";
}

}  // namespace tolbarrow::workers::wiki

namespace tolbarrow::testing {
namespace {

const Regex& citation_regex() {
  static const Regex re("\\(([^()\\s#]+)#L(-?\\d+)-L(-?\\d+)\\)");
  return re;
}

struct FakeMatch : CitationMatch {
  std::size_t start_point = 0, end_point = 0;
  CitationKey key;
  std::size_t start() const override { return start_point; }
};

std::vector<std::shared_ptr<FakeMatch>> find_citations(const Text& text, std::size_t from_point,
                                                       std::size_t to_point) {
  std::vector<std::shared_ptr<FakeMatch>> out;
  const std::string_view subject = std::string_view(text.str()).substr(0, text.byte_at(to_point));
  std::size_t at = text.byte_at(from_point);
  while (auto m = citation_regex().search(subject, at)) {
    at = m->end;
    auto match = std::make_shared<FakeMatch>();
    match->start_point = text.point_at(m->begin);
    match->end_point = text.point_at(m->end);
    // The group offsets are not kept by Regex beyond group 1; parse the citation text instead.
    const std::string body(subject.substr(m->begin + 1, m->end - m->begin - 2));
    const auto hash = body.rfind("#L");
    const auto dash = body.rfind("-L");
    match->key = CitationKey(body.substr(0, hash), std::stoll(body.substr(hash + 2, dash - hash - 2)),
                             std::stoll(body.substr(dash + 2)));
    out.push_back(match);
  }
  return out;
}

class FakePattern : public CitationPattern {
 public:
  explicit FakePattern(int& searches) : searches_(searches) {}
  std::vector<PatternMatch> finditer(const Text& text, std::size_t start,
                                     std::size_t end) const override {
    ++searches_;
    std::vector<PatternMatch> out;
    for (const auto& m : find_citations(text, start, end)) out.push_back({m->end_point});
    return out;
  }

 private:
  int& searches_;
};

class FakeLock : public lock::WriteLockMixin {
 public:
  FakeLock(FakeHost& host, lock::WriteLockState state) : host_(host), state_(std::move(state)) {
    host_.calls.push_back("lock " + state_.wiki_dir.string() +
                          (state_.held_lock_nonce ? " held" : "") +
                          (state_.lock_refreshed_at != 0.0 ? " refreshed" : ""));
  }
  void acquire_write_lock() override {
    host_.calls.push_back("acquire");
    if (host_.busy) throw WikiBusy("wiki busy");
  }
  void release_write_lock() override {
    host_.calls.push_back("release");
    if (host_.release_fails) throw std::runtime_error("release failed");
  }

 private:
  FakeHost& host_;
  lock::WriteLockState state_;
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

}  // namespace

SymbolPtr sym(std::string fqn, Line start, Line end, std::string kind) {
  auto s = std::make_shared<Symbol>();
  const auto dot = fqn.rfind('.');
  s->name = dot == std::string::npos ? fqn : fqn.substr(dot + 1);
  s->fqn = std::move(fqn);
  s->kind = std::move(kind);
  s->start_line = start;
  s->end_line = end;
  return s;
}

std::string cite(const std::string& path, Line first, Line last) {
  return "(" + path + "#L" + std::to_string(first) + "-L" + std::to_string(last) + ")";
}

FakeHost::FakeHost()
    : logger(std::make_shared<spdlog::logger>(std::string(cr::MODULE_NAME),
                                              std::make_shared<CaptureSink>(log_lines))),
      pattern_(std::make_shared<FakePattern>(pattern_searches)) {}

cr::HostModules FakeHost::modules() {
  cr::HostModules m;
  m.citation_ranges = citation_ranges::Module{
      .LineCounts =
          [this](const std::filesystem::path&) -> citation_ranges::LineCount {
        return [this](const std::string& path) -> HostValue {
          auto it = line_counts.find(path);
          return it == line_counts.end() ? Line{1000} : it->second;
        };
      },
      .fit_range = [](Line first, Line last, const HostValue& count) -> std::optional<LineRange> {
        const Line lines = std::any_cast<Line>(count);
        if (first > lines || last < 1 || first > last) return std::nullopt;
        return LineRange{std::max<Line>(first, 1), std::min(last, lines)};
      },
  };
  m.lock = lock::Module{.WriteLockMixin = [this](lock::WriteLockState state) {
    return std::make_unique<FakeLock>(*this, std::move(state));
  }};
  m.repo_facts = repo_facts::Module{
      .atomic_write =
          [this](const std::filesystem::path& path, const std::string& content) {
            calls.push_back("write " + path.filename().string());
            std::ofstream(path, std::ios::binary) << content;
          },
      .text_hash = [](const std::string& text) -> HostValue {
        return "h" + std::to_string(std::hash<std::string>()(text));
      },
  };
  m.types = types::Module{
      .CITATION_RE = pattern_,
      .citation_key = [](const CitationMatch& match) {
        return static_cast<const FakeMatch&>(match).key;
      },
  };
  m.verify = verify::Module{
      .SKIP_IDENT_EXTS = skip_exts,
      .UNANCHORED_KINDS = std::unordered_set<std::string>(unanchored_kinds.begin(),
                                                          unanchored_kinds.end()),
      .anchor_symbol = [this](const Symbols& symbols, Line first, Line last) -> SymbolPtr {
        anchor_calls.push_back(std::to_string(first) + "-" + std::to_string(last));
        for (const auto& s : symbols) {
          if (s->start_line <= first && last <= s->end_line) return s;
        }
        return nullptr;
      },
      .anchored = [](Record record, const SymbolPtr& symbol) {
        if (symbol) {
          record["symbol"] = symbol->fqn;
          record["name"] = symbol->name;
          record["symbol_start"] = symbol->start_line;
          record["symbol_end"] = symbol->end_line;
        }
        return record;
      },
      .prose_citations = [](const Text& text) {
        std::vector<CitationMatchPtr> out;
        for (auto& m : find_citations(text, 0, text.length())) out.push_back(m);
        return out;
      },
      .rewrite_citations = [](const Text& text, const Moves& moves) {
        std::string out;
        std::size_t copied = 0;
        for (const auto& m : find_citations(text, 0, text.length())) {
          const LineRange* range = moves.find(m->key);
          if (range == nullptr) continue;
          const std::size_t begin = text.byte_at(m->start_point);
          out.append(text.str(), copied, begin - copied);
          out += cite(m->key.path, range->first, range->last);
          copied = text.byte_at(m->end_point);
        }
        return out + text.str().substr(copied);
      },
  };
  return m;
}

Symbols FakeRepository::get_symbols_by_path(const std::string& path) {
  ++symbol_queries[path];
  auto it = symbols.find(path);
  return it == symbols.end() ? Symbols{} : it->second;
}

std::optional<Record> FakeRepository::get_file_by_path(const std::string& path) {
  ++file_queries[path];
  if (!files.count(path)) return std::nullopt;
  return Record{{"path", path}};
}

std::vector<PageRowPtr> FakeRepository::get_wiki_pages(const std::string&) {
  std::vector<PageRowPtr> rows;
  for (const Record& page : pages) rows.push_back(std::make_shared<RecordPageRow>(page));
  return rows;
}

void FakeRepository::update_wiki_page_citations(const std::string& branch,
                                                const std::string& page_id, PageUpdate update) {
  if (page_id == fail_update) throw std::runtime_error("store failed for " + page_id);
  for (Record& page : pages) {
    if (page.value("page_id", "") != page_id) continue;
    page["citations"] = update.citations;
    page["build_cache"] = update.build_cache ? Record::parse(*update.build_cache) : Record();
    const HostValue& hash = update.content_hash;
    if (!hash.has_value()) {
      page["content_hash"] = nullptr;
    } else if (hash.type() == typeid(std::string)) {
      page["content_hash"] = std::any_cast<std::string>(hash);
    } else {
      page["content_hash"] = std::any_cast<Record>(hash);
    }
  }
  updates.push_back({branch, page_id, std::move(update)});
}

TempDir::TempDir() {
  std::random_device random;
  path_ = std::filesystem::temp_directory_path() /
          ("wiki-test-" + std::to_string(random()) + std::to_string(random()));
  std::filesystem::create_directories(path_);
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void TempDir::write(const std::string& rel, const std::string& content) const {
  std::filesystem::create_directories((path_ / rel).parent_path());
  std::ofstream(path_ / rel, std::ios::binary) << content;
}

std::string TempDir::read(const std::string& rel) const {
  std::ifstream in(path_ / rel, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

}  // namespace tolbarrow::testing

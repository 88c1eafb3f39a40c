// The core at scale, each figure beside a floor measured in the same run on the same data.
//
//   scale_driver refresh CORE.json REPEAT   report-only and writing refresh, and their floors
//   scale_driver claims CORE.json REPEAT    claim_identifiers per citation, pages of 100, 1,000
//                                           and 10,000 legacy citations
//   scale_driver profile report|write CORE.json REPEAT   only the refresh, for perf
//   scale_driver hash-floor REPO            reads and SHA-256-hashes every file of the work tree
//   scale_driver outputs CORE.json          SHA-256 of everything a report-only and a writing
//                                           refresh give and leave behind, to compare builds
//
// CORE.json is written by bench/synth_wiki.py (the index after its code change, the page rows,
// the wiki directory). Page files and digests.json are held in the in-memory host's file system,
// so that no disk time enters either side. Each mode prints one JSON object of best-of-REPEAT
// seconds; the refresh and its floor alternate, so that the machine's noise falls on both.
//
// The floors:
// - read: every page text read through the host's FileSystem, decoded as Text and scanned once
//   with the host's citation pattern;
// - write: the read floor plus every page written once through the host's atomic write.
// Beside them, the read floor plus the claim of every legacy citation (read_floor_legacy_claims):
// how much of the refresh's margin over the read floor the claims alone take; and the work that
// any refresh does on top of each floor (required_work, required_write_work): a lower bound.
#include <malloc.h>
#include <openssl/evp.h>
#include <time.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <memory>
#include <unordered_map>
#include <unordered_set>

#include "hosts/memory/memory_host.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::hosts::memory {
namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point began) {
  return std::chrono::duration<double>(Clock::now() - began).count();
}

// The process's CPU time in seconds: on a shared machine, steadier than the wall clock.
double cpu_seconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// A page row that reads the repository's page record in place, as a store that keeps its rows in
// memory hands them out: the benchmark times the refresh, not copies of the double's rows.
class BorrowedPageRow : public PageRow {
 public:
  explicit BorrowedPageRow(const Record& row) : row_(row) {}
  std::optional<Record> field(std::string_view key) const override {
    auto it = row_.find(key);
    if (it == row_.end()) return std::nullopt;
    return *it;
  }
  const Record* held() const override { return &row_; }

 private:
  const Record& row_;
};

// The memory host's repository with its pages found by id in constant time (MemoryRepository
// looks through every page for each update, which makes a writing refresh quadratic in pages),
// and its indexed paths in a flat table, as a store that keeps its index in memory would.
class IndexedRepository : public Repository {
 public:
  std::unordered_map<std::string, std::vector<Symbol>> symbols;
  cr::detail::PathNumbers files;  // the indexed paths, in one flat table
  std::vector<Record> pages;
  std::unordered_map<std::string, std::size_t> page_index;
  std::int64_t updates = 0;

  std::vector<Symbol> get_symbols_by_path(const std::string& path) override {
    auto it = symbols.find(path);
    return it == symbols.end() ? std::vector<Symbol>{} : it->second;
  }
  bool is_indexed(const std::string& path) override {
    return files.find(path, cr::detail::hash_text(path)).has_value();
  }
  std::vector<std::unique_ptr<const PageRow>> get_wiki_pages(const std::string&) override {
    std::vector<std::unique_ptr<const PageRow>> rows;
    rows.reserve(pages.size());
    for (const Record& page : pages) rows.push_back(std::make_unique<BorrowedPageRow>(page));
    return rows;
  }
  void update_wiki_page_citations(const std::string&, const PageRow& row,
                                  PageUpdate update) override {
    Record& page = pages.at(page_index.at(row.page_id()));
    page["citations"] = Record(std::move(update.citations));
    page["build_cache"] = update.build_cache ? std::move(*update.build_cache) : Record::object();
    if (update.content_hash) page["content_hash"] = *update.content_hash;
    ++updates;
  }
  std::string text_hash(const std::string& text) override {
    return "h" + std::to_string(std::hash<std::string>()(text));
  }
};

struct Data {
  fs::path wiki_dir, repo_root;
  std::vector<Record> pages;
  MemoryFileSystem::Files wiki_files;  // page files and digests.json
  std::int64_t citations = 0;
};

Data load(const fs::path& data_path, MemoryHost& host, IndexedRepository& repo) {
  std::ifstream in(data_path);
  const Record data = Record::parse(in);
  Data out;
  out.wiki_dir = data.at("wiki_dir").get<std::string>();
  out.repo_root = data.at("repo_root").get<std::string>();
  for (const auto& [path, lines] : data.at("files").items()) {
    repo.files.number(path);
    host.line_counts_by_path[path] = lines.get<Line>();
  }
  for (const auto& [path, symbols] : data.at("symbols").items()) {
    auto& list = repo.symbols[path];
    for (const auto& s : symbols) {
      list.push_back(Symbol{s[0].get<std::string>(), s[1].get<std::string>(),
                            s[2].get<std::string>(), s[3].get<Line>(), s[4].get<Line>()});
    }
  }
  out.pages = data.at("pages").get<std::vector<Record>>();
  for (std::size_t i = 0; i < out.pages.size(); ++i) {
    repo.page_index[out.pages[i].at("page_id").get<std::string>()] = i;
    out.citations += static_cast<std::int64_t>(out.pages[i].at("citations").size());
  }
  for (const auto& entry : fs::recursive_directory_iterator(out.wiki_dir)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream file(entry.path(), std::ios::binary);
    out.wiki_files[entry.path()] = std::string(std::istreambuf_iterator<char>(file), {});
  }
  return out;
}

// Puts the wiki and the page store back as generated (outside any timing).
void restore(const Data& data, MemoryHost& host, IndexedRepository& repo) {
  host.file_system.files = data.wiki_files;
  repo.pages = data.pages;
  host.calls.clear();
  host.anchor_calls.clear();
  // Gives the allocator's free memory back in one piece, so that what the last run left behind
  // does not make the next one's allocations cheaper or dearer.
  malloc_trim(0);
}

std::int64_t read_floor(MemoryHost& host, const Data& data, bool write) {
  std::int64_t found = 0;
  for (const Record& page : data.pages) {
    const fs::path path = data.wiki_dir / page.at("rel_path").get<std::string>();
    const Text text(host.file_system.read_file(path));
    host.find(text, [&](const Citation&) { ++found; });
    if (write) host.file_system.atomic_write(path, text.str());
  }
  return found;
}

using KeySet = std::unordered_set<CitationKey, CitationKeyHash>;

// The keys of each page's legacy citations (stored records without "symbol").
std::vector<KeySet> legacy_keys(const Data& data) {
  std::vector<KeySet> out;
  for (const Record& page : data.pages) {
    KeySet& keys = out.emplace_back();
    for (const Record& citation : page.at("citations")) {
      if (!citation.contains("symbol")) {
        keys.insert({citation.at("path").get<std::string>(), citation.at("line_start").get<Line>(),
                     citation.at("line_end").get<Line>()});
      }
    }
  }
  return out;
}

// The read floor plus the claim of every legacy citation, read as the refresh reads it: what
// reading the claims of legacy citations adds to the floor, work the refresh cannot skip whatever
// its own layout.
std::int64_t legacy_claims(const cr::Host& services, MemoryHost& host, const Data& data,
                           const std::vector<KeySet>& legacy) {
  std::int64_t names = 0;
  std::vector<std::string_view> found;  // as the refresh reads a claim
  for (std::size_t p = 0; p < data.pages.size(); ++p) {
    const fs::path path = data.wiki_dir / data.pages[p].at("rel_path").get<std::string>();
    const Text text(host.file_system.read_file(path));
    host.find(text, [&](const Citation& c) {
      if (legacy[p].count(c.key)) {
        cr::detail::claim_names(services, text, c.start, found);
        names += static_cast<std::int64_t>(found.size());
      }
    });
  }
  return names;
}

// The work that any refresh of the wiki does besides the read floor, whatever its own layout, as
// cheaply as it can be had: every stored record's key read, one is_indexed() per citation of the
// text, each cited file's declarations and line count asked of the index once, one fit_range()
// per citation, and the claim of every legacy citation. No citation is matched with its record
// and no declaration is searched for: a lower bound for the report-only refresh, not a model of it.
// With `write`, also what a writing refresh cannot do without: the host's anchored record for
// every stored record, every page written once, and "digests.json" read, checked as JSON (the
// library's cheapest check, no tree built) and written back once.
//
// `legacy` tells, page by page in the text's order, which citations are legacy ones; `refreshed`,
// page by page in the store's order, which stored records a citation of the text to an indexed
// file refreshes (the others are never anchored).
std::int64_t required_work(const cr::Host& services, MemoryHost& host, IndexedRepository& repo,
                           const Data& data, const std::vector<std::vector<bool>>& legacy,
                           const std::vector<std::vector<bool>>& refreshed, bool write) {
  std::int64_t work = 0;
  cr::detail::PathNumbers asked;  // the files whose declarations and line count were asked for
  const std::unique_ptr<LineCounts> line_counts = host.line_counts(data.repo_root);
  std::vector<std::string_view> found;
  std::string storage;
  for (std::size_t p = 0; p < data.pages.size(); ++p) {
    const Record& page = data.pages[p];
    std::size_t r = 0;
    for (const Record& record : page.at("citations")) {
      storage.clear();
      const cr::detail::CitationMembers members = cr::detail::members_of(record);
      const cr::detail::CitationKeyView key = cr::detail::stored_key_view(record, members, storage);
      work += key.start;
      if (write && refreshed[p][r])
        work += host.anchored(record, {key.start, key.end}, nullptr).size();
      ++r;
    }
    const fs::path path = data.wiki_dir / page.at("rel_path").get<std::string>();
    const Text text(host.file_system.read_file(path));
    std::size_t at = 0;
    host.find(text, [&](const Citation& c) {
      const bool is_legacy = legacy[p][at++];
      if (!repo.is_indexed(c.key.path)) return;
      const std::size_t hash = cr::detail::hash_text(c.key.path);
      if (!asked.find(c.key.path, hash)) {
        asked.number(c.key.path, hash);
        work += static_cast<std::int64_t>(repo.get_symbols_by_path(c.key.path).size());
        work += line_counts->count(c.key.path);
      }
      if (is_legacy) {
        cr::detail::claim_names(services, text, c.start, found);
        work += static_cast<std::int64_t>(found.size());
      }
      if (host.fit_range(c.key.start, c.key.end, 1000)) ++work;
    });
    if (write) host.file_system.atomic_write(path, text.str());
  }
  if (write) {
    const fs::path digests = data.wiki_dir / "digests.json";
    const std::string bytes = host.file_system.read_file(digests);
    if (Record::accept(bytes)) host.file_system.atomic_write(digests, bytes);
  }
  return work;
}

int run_refresh(const fs::path& data_path, int repeat) {
  MemoryHost host;
  IndexedRepository repo;
  const Data data = load(data_path, host, repo);
  const cr::Host services = host.host();
  const std::vector<KeySet> legacy = legacy_keys(data);
  // For required_work: the same by each page's citations in order, and the stored records that
  // an indexed citation of the text refreshes.
  std::vector<std::vector<bool>> legacy_in_order, refreshed;
  for (std::size_t p = 0; p < data.pages.size(); ++p) {
    const fs::path path = data.wiki_dir / data.pages[p].at("rel_path").get<std::string>();
    std::vector<bool>& in_order = legacy_in_order.emplace_back();
    KeySet cited;
    host.find(Text(data.wiki_files.at(path)), [&](const Citation& c) {
      in_order.push_back(legacy[p].count(c.key) > 0);
      if (c.key.start >= 1 && repo.is_indexed(c.key.path)) cited.insert(c.key);
    });
    std::vector<bool>& records = refreshed.emplace_back();
    for (const Record& citation : data.pages[p].at("citations")) {
      records.push_back(cited.count(cr::detail::stored_key(citation)) > 0);
    }
  }
  // report, read floor, write, write floor, read floor with legacy claims, required work (report,
  // write)
  double best[7] = {1e300, 1e300, 1e300, 1e300, 1e300, 1e300, 1e300};
  double best_cpu[7] = {1e300, 1e300, 1e300, 1e300, 1e300, 1e300, 1e300};
  cr::CitationRefresh report_result, write_result;
  for (int i = 0; i < repeat; ++i) {
    for (int which = 0; which < 7; ++which) {
      restore(data, host, repo);
      const double began_cpu = cpu_seconds();
      const auto began = Clock::now();
      if (which == 0) {
        report_result = cr::refresh_citations(services, repo, "main", data.wiki_dir, data.repo_root,
                                              {.write = false});
      } else if (which == 2) {
        write_result = cr::refresh_citations(services, repo, "main", data.wiki_dir, data.repo_root,
                                             {.write = true});
      } else if (which == 4) {
        legacy_claims(services, host, data, legacy);
      } else if (which >= 5) {
        required_work(services, host, repo, data, legacy_in_order, refreshed, which == 6);
      } else {
        read_floor(host, data, which == 3);
      }
      best[which] = std::min(best[which], seconds_since(began));
      best_cpu[which] = std::min(best_cpu[which], cpu_seconds() - began_cpu);
    }
  }
  std::int64_t moved = 0;
  for (const auto& [page, count] : report_result.moved) moved += count;
  std::cout << Record{{"citations", data.citations},
                      {"pages", data.pages.size()},
                      {"report", best[0]},
                      {"read_floor", best[1]},
                      {"write", best[2]},
                      {"write_floor", best[3]},
                      {"read_floor_legacy_claims", best[4]},
                      {"required_work", best[5]},
                      {"required_write_work", best[6]},
                      {"cpu",
                       {{"report", best_cpu[0]},
                        {"read_floor", best_cpu[1]},
                        {"write", best_cpu[2]},
                        {"write_floor", best_cpu[3]},
                        {"read_floor_legacy_claims", best_cpu[4]},
                        {"required_work", best_cpu[5]},
                        {"required_write_work", best_cpu[6]}}},
                      {"moved", moved},
                      {"repaired", write_result.repaired},
                      {"lost", write_result.unrepairable},
                      {"pages_written", write_result.pages_written}}
                   .dump()
            << "\n";
  return 0;
}

// Only the refresh, REPEAT times after loading: for perf, so that the profile is the refresh's.
int run_profile(const fs::path& data_path, bool write, int repeat) {
  MemoryHost host;
  IndexedRepository repo;
  const Data data = load(data_path, host, repo);
  const cr::Host services = host.host();
  double total = 0;
  restore(data, host, repo);
  for (int i = 0; i < repeat; ++i) {
    // A report-only refresh changes nothing: only a writing one needs the data put back.
    if (write && i > 0) restore(data, host, repo);
    const auto began = Clock::now();
    cr::refresh_citations(services, repo, "main", data.wiki_dir, data.repo_root, {.write = write});
    total += seconds_since(began);
  }
  std::cout << Record{{"seconds", total}}.dump() << "\n";
  return 0;
}

// claim_identifiers on long pages: every size claims the same prose (the wiki's first pages in
// order, some 10,000 citations of them), joined into pages of at least `size` citations, so
// that the only difference between sizes is how long a page is. (Claiming the first `size`
// citations over and over instead would let the smaller pages sit in the processor's caches and
// branch history, and measure that.) Each page has a host of its own that has scanned it, as a
// refresh scans a page before it claims.
int run_claims(const fs::path& data_path, int repeat) {
  MemoryHost loader;
  IndexedRepository repo;
  const Data data = load(data_path, loader, repo);
  constexpr std::size_t kCitations = 10000;
  struct LongPage {
    std::unique_ptr<MemoryHost> host = std::make_unique<MemoryHost>();
    Text text;
    std::vector<std::size_t> positions;
  };
  struct Size {
    std::size_t size = 0, claims = 0, identifiers = 0;
    std::vector<LongPage> pages;
    std::vector<cr::Host> services;
    double best = 1e300;
  };
  std::vector<Size> sizes;
  for (std::size_t size : {100, 1000, 10000}) {
    Size& at = sizes.emplace_back();
    at.size = size;
    for (std::size_t p = 0; at.claims < kCitations;) {
      std::string joined;
      for (std::size_t found = 0; found < size; p = (p + 1) % data.pages.size()) {
        const std::string& page =
            data.wiki_files.at(data.wiki_dir / data.pages[p].at("rel_path").get<std::string>());
        joined += page;
        loader.find(Text(page), [&](const Citation&) { ++found; });
      }
      LongPage& long_page = at.pages.emplace_back();
      long_page.text = Text(std::move(joined));
      long_page.host->find(long_page.text,
                           [&](const Citation& c) { long_page.positions.push_back(c.start); });
      at.claims += long_page.positions.size();
    }
    for (const LongPage& page : at.pages) at.services.push_back(page.host->host());
  }
  // The sizes alternate, so that the machine's noise falls on all of them; about 200,000 claims
  // per timing, so that the clock's resolution is lost in them.
  for (int i = 0; i < repeat; ++i) {
    for (Size& at : sizes) {
      const std::size_t rounds = std::max<std::size_t>(1, 200000 / at.claims);
      const auto began = Clock::now();
      for (std::size_t r = 0; r < rounds; ++r) {
        for (std::size_t k = 0; k < at.pages.size(); ++k) {
          for (std::size_t position : at.pages[k].positions) {
            at.identifiers +=
                cr::claim_identifiers(at.services[k], at.pages[k].text, position).size();
          }
        }
      }
      at.best = std::min(at.best, seconds_since(began) / static_cast<double>(rounds * at.claims));
    }
  }
  Record out = Record::object();
  for (const Size& at : sizes) {
    out[std::to_string(at.size)] = at.best;
    out["identifiers_" + std::to_string(at.size)] = at.identifiers;
    out["pages_" + std::to_string(at.size)] = at.pages.size();
  }
  std::cout << out.dump() << "\n";
  return 0;
}

// SHA-256 of `text`, in hex.
std::string sha256(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha256(), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < size; ++i) {
    hex += "0123456789abcdef"[digest[i] >> 4];
    hex += "0123456789abcdef"[digest[i] & 15];
  }
  return hex;
}

// What each refresh gives and leaves behind, hashed: its result, every file of the wiki after
// it, every page row after it, the host calls it made and the log lines. Two builds that print
// the same hashes refreshed the data identically.
int run_outputs(const fs::path& data_path) {
  MemoryHost host;
  IndexedRepository repo;
  const Data data = load(data_path, host, repo);
  const cr::Host services = host.host();
  Record out = Record::object();
  for (const bool write : {false, true}) {
    restore(data, host, repo);
    host.log_lines.clear();
    const cr::CitationRefresh result = cr::refresh_citations(services, repo, "main", data.wiki_dir,
                                                             data.repo_root, {.write = write});
    std::string files, pages;
    // In the order of paths as paths, whatever order the file system double keeps them in.
    std::map<fs::path, const std::string*> ordered;
    for (const auto& [path, content] : host.file_system.files) ordered.emplace(path, &content);
    for (const auto& [path, content] : ordered) files += path.string() + '\0' + *content + '\0';
    for (const Record& page : repo.pages) pages += page.dump() + '\n';
    std::string calls;
    for (const auto& call : host.calls) calls += call + '\n';
    for (const auto& line : host.log_lines) calls += line + '\n';
    std::int64_t moved = 0;
    for (const auto& [page, count] : result.moved) moved += count;
    out[write ? "write" : "report"] = {{"result", sha256(cr::to_string(result))},
                                       {"files", sha256(files)},
                                       {"pages", sha256(pages)},
                                       {"calls", sha256(calls)},
                                       {"moved", moved},
                                       {"repaired", result.repaired},
                                       {"lost", result.unrepairable},
                                       {"pages_written", result.pages_written}};
  }
  std::cout << out.dump(1) << "\n";
  return 0;
}

// Reads every file of the work tree (outside .git), pages included, and hashes it with SHA-256:
// what a run that finds nothing changed cannot do without.
int run_hash_floor(const fs::path& repo_root) {
  const auto began = Clock::now();
  std::int64_t files = 0, bytes = 0;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_size = 0;
  std::string content;
  for (auto it = fs::recursive_directory_iterator(repo_root); it != fs::end(it); ++it) {
    if (it->is_directory() && it->path().filename() == ".git") {
      it.disable_recursion_pending();
      continue;
    }
    if (!it->is_regular_file()) continue;
    std::ifstream file(it->path(), std::ios::binary);
    content.assign(std::istreambuf_iterator<char>(file), {});
    EVP_Digest(content.data(), content.size(), digest, &digest_size, EVP_sha256(), nullptr);
    ++files;
    bytes += static_cast<std::int64_t>(content.size());
  }
  std::cout << Record{{"seconds", seconds_since(began)}, {"files", files}, {"bytes", bytes}}.dump()
            << "\n";
  return 0;
}

}  // namespace
}  // namespace tolbarrow::hosts::memory

int main(int argc, char** argv) {
  namespace m = tolbarrow::hosts::memory;
  const std::string usage =
      "usage: scale_driver refresh|claims CORE.json REPEAT | scale_driver profile report|write "
      "CORE.json REPEAT | scale_driver hash-floor REPO | scale_driver outputs CORE.json\n";
  try {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "refresh" && argc == 4) return m::run_refresh(argv[2], std::stoi(argv[3]));
    if (mode == "claims" && argc == 4) return m::run_claims(argv[2], std::stoi(argv[3]));
    if (mode == "profile" && argc == 5) {
      return m::run_profile(argv[3], std::string(argv[2]) == "write", std::stoi(argv[4]));
    }
    if (mode == "hash-floor" && argc == 3) return m::run_hash_floor(argv[2]);
    if (mode == "outputs" && argc == 3) return m::run_outputs(argv[2]);
    std::cerr << usage;
    return 2;
  } catch (const std::exception& e) {
    std::cerr << "scale_driver: " << e.what() << "\n";
    return 1;
  }
}

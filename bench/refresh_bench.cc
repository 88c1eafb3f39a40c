// Cost per citation of reading claims and refreshing a page, as pages grow. Both should stay flat:
// a citation's work is bounded by the claim window, never by the page's length.
#include <benchmark/benchmark.h>

#include "hosts/memory/memory_host.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::hosts::memory {
namespace {

// A page of `n` legacy citations, each after a sentence with backticked names and non-ASCII prose.
std::string page_text(int n) {
  std::string text;
  for (int i = 0; i < n; ++i) {
    text += "Die Funktion `mod.load_" + std::to_string(i % 50) +
            "(path)` liest die Datei — 読み込み 𝄞 und ruft `save()` auf " +
            cite("src/a.py", 10 + i, 12 + i) + ".\n";
  }
  return text;
}

void BM_ClaimIdentifiers(benchmark::State& state) {
  MemoryHost host;
  const cr::Host services = host.host();
  const Text text(page_text(static_cast<int>(state.range(0))));
  std::vector<std::size_t> positions;
  host.find(text, [&](const Citation& citation) { positions.push_back(citation.start); });
  for (auto _ : state) {
    for (std::size_t position : positions) {
      benchmark::DoNotOptimize(cr::claim_identifiers(services, text, position));
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(positions.size()));
}
BENCHMARK(BM_ClaimIdentifiers)->Arg(100)->Arg(1000)->Arg(5000);

void BM_RefreshPage(benchmark::State& state) {
  MemoryHost host;
  const cr::Host services = host.host();
  MemoryRepository repo;
  repo.files = {"src/a.py"};
  for (int i = 0; i < 50; ++i) {
    repo.symbols["src/a.py"].push_back(
        sym("mod.load_" + std::to_string(i), 200 + 10 * i, 205 + 10 * i));
  }
  const int n = static_cast<int>(state.range(0));
  const Text text(page_text(n));
  std::vector<Record> stored;
  for (int i = 0; i < n; ++i) {
    stored.push_back({{"path", "src/a.py"}, {"line_start", 10 + i}, {"line_end", 12 + i}});
  }
  for (auto _ : state) {
    cr::detail::Files files(services, repo, "/repo");
    benchmark::DoNotOptimize(cr::detail::refresh_page(services, text, stored, files));
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_RefreshPage)->Arg(100)->Arg(1000)->Arg(5000);

}  // namespace
}  // namespace tolbarrow::hosts::memory

BENCHMARK_MAIN();

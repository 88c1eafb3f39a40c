#include <gtest/gtest.h>

#include "hosts/memory/memory_host.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::hosts::memory {
namespace {

Record anchored_at(Line start, Line end, const char* symbol, const char* name, Line old_start,
                   Line old_end) {
  return {{"path", "src/a.py"},   {"line_start", start}, {"line_end", end},
          {"symbol", symbol},     {"name", name},        {"symbol_start", old_start},
          {"symbol_end", old_end}};
}

class RefreshPage : public ::testing::Test {
 protected:
  RefreshPage() {
    repo.files = {"src/a.py", "src/b.py"};
    repo.symbols["src/a.py"] = {sym("a.f", 18, 30), sym("a.gg", 40, 50)};
    repo.symbols["src/b.py"] = {sym("b.tiny", 20, 30)};
    host.line_counts_by_path["src/b.py"] = 5;
  }
  cr::detail::PageRefresh run(const std::string& text, const std::vector<Record>& stored) {
    return cr::detail::refresh_page(services, Text(text), stored, files);
  }

  MemoryHost host;
  MemoryRepository repo;
  cr::Host services = host.host();
  cr::detail::Files files{services, repo, "/repo"};
};

TEST_F(RefreshPage, TheLaterOfTwoStoredRecordsWithOneKeyIsTheCitations) {
  const auto page =
      run("`f` " + cite("src/a.py", 10, 12),
          {anchored_at(10, 12, "a.x", "x", 8, 20), anchored_at(10, 12, "a.f", "f", 8, 20)});
  ASSERT_EQ(page.lost, std::vector<cr::detail::LostPair>{});
  EXPECT_EQ(page.anchors.find({"src/a.py", 10, 12})->at("symbol_start"), 18);
}

TEST_F(RefreshPage, AnySymbolThatIsThereAnchorsTheCitation) {
  // false and 0 are there: such a citation is anchored, and lost under its name's text.
  Record zero = anchored_at(10, 12, "a.nothing", "", 8, 20);
  zero["symbol"] = false;
  zero["name"] = 0;
  Record number = anchored_at(20, 22, "a.nothing", "f", 8, 20);
  number["symbol"] = 5;  // no fully qualified name can equal it; found by name
  const auto page = run(cite("src/a.py", 10, 12) + cite("src/a.py", 20, 22), {zero, number});
  EXPECT_EQ(page.lost, (std::vector<cr::detail::LostPair>{{{"src/a.py", 10, 12}, "0"}}));
  EXPECT_EQ(page.moves.find({"src/a.py", 20, 22})->first, 30);
  EXPECT_TRUE(host.anchor_calls.empty());
};

TEST_F(RefreshPage, MovesAnchorsAndLosesInTextOrder) {
  const std::string text = "Intro. `f` does it " + cite("src/a.py", 10, 12) + ". Again " +
                           cite("src/a.py", 10, 12) + ". No line " + cite("src/a.py", 0, 3) +
                           ". Unindexed " + cite("gone.py", 1, 2) + cite("gone.py", 1, 2) +
                           ". Gone " + cite("src/a.py", 60, 61) + ". Legacy `gg` " +
                           cite("src/a.py", 5, 6) + ". Unstored `gg` " + cite("src/a.py", 7, 8) +
                           ". Too far `tiny` " + cite("src/b.py", 1, 2) + ".";
  const std::vector<Record> stored = {
      anchored_at(10, 12, "a.f", "f", 8, 20),
      anchored_at(60, 61, "a.h", "", 60, 70),
      {{"path", "src/a.py"}, {"line_start", 5}, {"line_end", 6}, {"note", "kept"}},
      anchored_at(90, 91, "a.f", "f", 8, 20),  // not cited: never looked at
  };
  const auto page = run(text, stored);

  Moves moves;
  moves.set({"src/a.py", 10, 12}, {20, 22});
  moves.set({"src/a.py", 5, 6}, {40, 41});
  moves.set({"src/a.py", 7, 8}, {40, 41});
  EXPECT_EQ(page.moves, moves);
  ASSERT_EQ(page.anchors.size(), 2u);
  EXPECT_TRUE(cr::records_equal(*page.anchors.find({"src/a.py", 10, 12}),
                                anchored_at(20, 22, "a.f", "f", 18, 30)));
  EXPECT_EQ(
      page.anchors.find({"src/a.py", 5, 6})->dump(),
      R"({"path":"src/a.py","line_start":40,"line_end":41,"note":"kept","symbol":"a.gg","name":"gg","symbol_start":40,"symbol_end":50})");
  EXPECT_EQ(page.lost, (std::vector<cr::detail::LostPair>{{{"src/a.py", 60, 61}, "a.h"},
                                                          {{"src/b.py", 1, 2}, "tiny"}}));

  // One symbol query per path; a file query per distinct citation, and per repeat of one that
  // was not indexed.
  EXPECT_EQ(repo.symbol_queries, (std::map<std::string, int>{{"src/a.py", 1}, {"src/b.py", 1}}));
  EXPECT_EQ(repo.file_queries,
            (std::map<std::string, int>{{"gone.py", 2}, {"src/a.py", 4}, {"src/b.py", 1}}));

  // Run again over what the first run produced: nothing left to do but the lost citations.
  const std::string rewritten = host.rewrite(Text(text), page.moves);
  const auto again = run(rewritten, cr::detail::apply(stored, page));
  EXPECT_TRUE(again.moves.empty());
  EXPECT_TRUE(again.anchors.empty());
  EXPECT_EQ(again.lost, page.lost);
  EXPECT_EQ(repo.symbol_queries["src/a.py"], 1);
}

TEST_F(RefreshPage, LegacyCitationWithoutAnchorStillMoves) {
  host.line_counts_by_path["src/a.py"] = 11;  // the fitted range is cut at the file's end
  const auto page = run("Nothing named " + cite("src/a.py", 9, 14), {});
  Moves moves;
  moves.set({"src/a.py", 9, 14}, {9, 11});
  EXPECT_EQ(page, cr::detail::PageRefresh(moves, {}, {}));
  EXPECT_EQ(host.anchor_calls, std::vector<std::string>{"9-14"});
}

TEST_F(RefreshPage, BadStoredLinesFailBeforeAnyCitation) {
  EXPECT_THROW(run(cite("src/a.py", 1, 2), {{{"path", "x"}, {"line_start", nullptr}}}),
               cr::RecordTypeError);
  EXPECT_TRUE(repo.file_queries.empty());
}

TEST(Files, AsksTheIndexOncePerPathAndStoresNothingOnFailure) {
  struct Flaky : MemoryRepository {
    int failures = 1;
    std::vector<Symbol> get_symbols_by_path(const std::string& path) override {
      if (failures-- > 0) throw std::runtime_error("index down");
      return MemoryRepository::get_symbols_by_path(path);
    }
  } repo;
  MemoryHost host;
  const cr::Host services = host.host();
  repo.symbols["a"] = {sym("a.x", 1, 2)};
  cr::detail::Files files(services, repo, "/repo");
  EXPECT_THROW(files.symbols("a"), std::runtime_error);
  const auto first = files.symbols("a");
  EXPECT_EQ(files.symbols("a").data(), first.data());
  EXPECT_TRUE(files.symbols("./a").empty());
  EXPECT_EQ(repo.symbol_queries, (std::map<std::string, int>{{"./a", 1}, {"a", 1}}));
  EXPECT_FALSE(files.indexed("a"));
  EXPECT_FALSE(files.indexed("a"));
  EXPECT_EQ(repo.file_queries["a"], 2);
}

TEST(PathNumbers, NumbersEachTextOnceInOrderOfFirstSight) {
  cr::detail::PathNumbers numbers;
  const std::pair<std::string, std::uint32_t> seen[] = {
      {"", 0}, {"a", 1}, {"ab", 2}, {"a", 1}, {"b", 3}, {"", 0}, {"src/x.py", 4}, {"ab", 2},
  };
  for (const auto& [path, number] : seen) EXPECT_EQ(numbers.number(path), number) << path;
  // Paths whose hashes agree are told apart by their texts, past the bytes a slot holds too.
  const std::string long_a(60, 'a'), long_b = std::string(59, 'a') + "b";
  EXPECT_EQ(numbers.number(long_a, 7), 5u);
  EXPECT_EQ(numbers.number(long_b, 7), 6u);
  EXPECT_EQ(numbers.number("c", 7), 7u);
  EXPECT_EQ(numbers.find(long_b, 7), 6u);
  EXPECT_EQ(numbers.find(long_a.substr(1), 7), std::nullopt);
  numbers = {};
  for (const auto& [path, number] : seen) EXPECT_EQ(numbers.number(path), number) << path;
  // Enough paths to grow the table many times over; the first ones keep their numbers.
  std::vector<std::string> many;
  for (int i = 0; i < 5000; ++i)
    many.push_back("src/pkg" + std::to_string(i % 50) + "/m" + std::to_string(i) + ".py");
  for (std::size_t i = 0; i < many.size(); ++i) EXPECT_EQ(numbers.number(many[i]), 5 + i);
  for (const auto& [path, number] : seen) EXPECT_EQ(numbers.number(path), number) << path;
  for (std::size_t i = 0; i < many.size(); ++i) {
    ASSERT_EQ(numbers.number(many[i]), 5 + i);
    ASSERT_EQ(numbers.path(static_cast<std::uint32_t>(5 + i)), many[i]);
  }
  EXPECT_EQ(numbers.size(), 5 + many.size());
}

TEST(Files, KeepsEachPathsSymbolsAsMorePathsComeIn) {
  MemoryRepository repo;
  MemoryHost host;
  repo.symbols["a"] = {sym("a.x", 1, 2)};
  host.line_counts_by_path["a"] = 7;
  cr::detail::Files files(host.host(), repo, "/repo");
  const auto first = files.symbols("a");
  for (int i = 0; i < 300; ++i) files.symbols("f" + std::to_string(i));
  EXPECT_EQ(files.symbols("a").data(), first.data());
  EXPECT_EQ(files.line_count("a"), 7);
  EXPECT_EQ(files.line_count("f1"), 1000);
  EXPECT_EQ(repo.symbol_queries["a"], 1);
  EXPECT_EQ(repo.symbol_queries.size(), 301u);
}

TEST(Apply, ReplacesEveryRecordOfAnAnchoredKeyAndKeepsTheRest) {
  const std::vector<Record> citations = {
      {{"path", "a"}, {"line_start", 1}, {"line_end", 2}},
      {{"path", "b"}, {"line_start", 3}, {"line_end", 4}},
      {{"path", "a"}, {"line_start", "1"}, {"line_end", 2.0}},
  };
  KeyedMap<Record> anchors;
  anchors.set({"a", 1, 2}, {{"anchored", true}});
  Moves moves;
  moves.set({"b", 3, 4}, {5, 6});  // moves alone change no record
  const std::vector<Record> want = {{{"anchored", true}}, citations[1], {{"anchored", true}}};
  EXPECT_EQ(cr::detail::apply(citations, cr::detail::PageRefresh(moves, anchors, {})), want);
  // Taking the anchored records instead of copying them: both records of the key still get it.
  EXPECT_EQ(cr::detail::apply(citations, std::move(anchors)), want);
  EXPECT_TRUE(cr::detail::apply({}, cr::detail::PageRefresh({}, {}, {})).empty());
}

TEST_F(RefreshPage, WithoutAnchoringMovesAndLosesTheSame) {
  const std::string text = "`f` " + cite("src/a.py", 10, 12) + " `gg` " + cite("src/a.py", 5, 6) +
                           " " + cite("src/a.py", 60, 61);
  const std::vector<Record> stored = {anchored_at(10, 12, "a.f", "f", 8, 20),
                                      {{"path", "src/a.py"}, {"line_start", 5}, {"line_end", 6}},
                                      anchored_at(60, 61, "a.h", "h", 60, 70)};
  const auto anchored = run(text, stored);
  ASSERT_EQ(anchored.anchors.size(), 2u);
  const auto plain = cr::detail::refresh_page(services, Text(text), stored, files, false);
  EXPECT_EQ(plain, cr::detail::PageRefresh(anchored.moves, {}, anchored.lost));
}

}  // namespace
}  // namespace tolbarrow::hosts::memory

// Moving digests in the text of "digests.json" must give exactly what moving them in the map and
// writing the map gives, and the text must be refused wherever reading and writing it back could
// change it.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "hosts/memory/memory_host.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::hosts::memory {
namespace {

using cr::detail::DigestText;

// The map's way: every page's digest moved by the page's moves, the map written.
std::string moved_as_map(const std::string& text,
                         const std::vector<std::pair<std::string, Moves>>& pages) {
  Record map = Record::parse(text);
  for (const auto& [id, moves] : pages) {
    auto entry = map.find(id);
    cr::detail::move_digest_citations(entry == map.end() ? nullptr : &*entry, moves);
  }
  return cr::detail::dump_digests(map);
}

std::string moved_as_text(std::string text, const std::vector<std::pair<std::string, Moves>>& pages,
                          std::vector<cr::detail::DigestChange>* changed = nullptr,
                          const std::set<std::string>& by_map = {}) {
  std::optional<DigestText> digests = DigestText::read(text);
  if (!digests) return "(refused)";
  std::vector<cr::detail::DigestChange> changes;
  for (const auto& [id, moves] : pages) {
    EXPECT_EQ(digests->move(id, moves, changes), !by_map.contains(id)) << id;
  }
  if (changed) *changed = std::move(changes);
  return digests->text();
}

Record cite(const Record& path, const Record& start, const Record& end) {
  Record c = Record::object();
  if (!path.is_null()) c["path"] = path;
  if (!start.is_null()) c["line_start"] = start;
  if (!end.is_null()) c["line_end"] = end;
  return c;
}

TEST(DigestText, MovesAsTheMapDoes) {
  Moves moves;
  moves.set({"src/a.py", 10, 12}, {20, 22});
  moves.set({"", 0, 5}, {1, 2});
  moves.set({"q\"é\x01/", 3, 3}, {4, 4});
  moves.set({"src/b.py", 7, 9}, {-1, 9223372036854775807});
  Record digests = Record::object();
  digests["p1"] = {{"summary", {{"k", {1, nullptr, true, "t\n\t\x1f"}}, {"e", Record::object()}}},
                   {"citations",
                    {cite("src/a.py", 10, 12), cite("src/a.py", 10, 13), cite("src/a.py", 10, 12),
                     cite("q\"é\x01/", 3, 3), cite("src/b.py", 7, 9)}}};
  digests["p2"] = {{"citations",
                    {{{"x", {{"path", "src/a.py"}}},
                      {"line_end", 12},
                      {"line_start", 10},
                      {"path", "src/a.py"}}}}};
  // Moved through the map: a line spelled as text, and a moved citation that lacks a line.
  digests["p3"] = {{"citations", {cite("src/a.py", "10", 12), cite("src/a.py", 10, 12)}}};
  digests["p4"] = {{"citations", {cite("src/a.py", 10, 12), cite(nullptr, nullptr, nullptr)}}};
  digests["p5"] = {{"citations", {{{"path", "src/a.py"}, {"line_end", 12}}}}};
  digests["p6"] = {{"citations", {cite(nullptr, nullptr, 5)}}};
  for (const char* nothing : {"null", "false", "0", "\"\"", "[]", "{}"}) {
    digests[std::string("n") + nothing] = {{"citations", Record::parse(nothing)}};
  }
  digests["l"] = Record::array({cite("src/a.py", 10, 12)});
  digests["é\\"] = {{"citations", {cite("src/a.py", 10, 12)}}};
  const std::string text = cr::detail::dump_digests(digests);

  std::vector<std::pair<std::string, Moves>> pages;
  for (const auto& [id, digest] : digests.items()) pages.emplace_back(id, moves);
  pages.emplace_back("p1", moves);  // a page moved twice moves from where the first move left it
  pages.emplace_back("absent", moves);
  std::vector<cr::detail::DigestChange> changed;
  // Only a line that is no integer, or a moved citation without its lines, takes the map.
  EXPECT_EQ(moved_as_text(text, pages, &changed, {"p3", "p6"}), moved_as_map(text, pages));
  EXPECT_EQ(changed.size(), 10u);
  EXPECT_EQ(changed[1].index, 2u);
  EXPECT_EQ(changed[1].from, (CitationKey{"src/a.py", 10, 12}));
  EXPECT_EQ(changed[1].to, (LineRange{20, 22}));
  // Nothing moved: the same bytes.
  EXPECT_EQ(moved_as_text(text, {}), text);
}

TEST(DigestText, ThrowsAsTheMapDoes) {
  Moves moves;
  moves.set({"a", 1, 2}, {3, 4});
  for (const char* bad :
       {R"({"p": {"citations": "ab"}})", R"({"p": {"citations": [1]}})",
        R"({"p": {"citations": [{"path": "a", "line_start": "x"}]}})",
        R"({"p": {"citations": [{"path": "a", "line_start": 1, "line_end": []}]}})"}) {
    const std::string text = cr::detail::dump_digests(Record::parse(bad));
    std::string copy = text;
    std::optional<DigestText> digests = DigestText::read(copy);
    ASSERT_TRUE(digests) << bad;
    std::vector<cr::detail::DigestChange> changed;
    EXPECT_THROW(digests->move("p", moves, changed), std::invalid_argument) << bad;
  }
}

// Refused: every text that reading and writing back would change, and text that is no JSON.
TEST(DigestText, RefusesWhatWritingBackWouldChange) {
  const std::string refused[] = {
      "{\n    \"p\": 1\n}",                   // 4-space indentation
      "{\"p\": 1}",                           // one line
      "{\n  \"p\": 1\n}\n",                   // a line feed at the end
      "{\n  \"p\": 1.5\n}",                   // a float
      "{\n  \"p\": 1e2\n}",                   // an exponent
      "{\n  \"p\": -0\n}",                    // written as 0
      "{\n  \"p\": 01\n}",                    // no JSON
      "{\n  \"p\": 18446744073709551616\n}",  // read as a float
      "{\n  \"p\": -9223372036854775809\n}",
      "{\n  \"p\": \"a\\/b\"\n}",       // written as a/b
      "{\n  \"p\": \"\\u00e9\"\n}",     // written as é
      "{\n  \"p\": \"\\u001F\"\n}",     // written in lower case
      "{\n  \"p\": \"\\u000a\"\n}",     // written as \n
      "{\n  \"p\": \"a\tb\"\n}",        // a raw control character: no JSON
      "{\n  \"p\": 1,\n  \"p\": 2\n}",  // a key given twice
      "{\n  \"p\": {\n    \"a\": 1,\n    \"b\": 2,\n    \"a\": 3\n  }\n}",
      "{\n  \"p\": [\n    1\n  ],\n  \"q\": {\n    \"a\": 1,\n    \"b\": 2,\n    \"c\": 3,\n"
      "    \"d\": 4,\n    \"e\": 5,\n    \"f\": 6,\n    \"g\": 7,\n    \"h\": 8,\n    \"a\": 9\n"
      "  }\n}",
      "{\n  \"p\": \"\xFF\"\n}",  // not UTF-8
      "\xEF\xBB\xBF{}",           // a byte-order mark
      "[]",
      "{\n  \"p\": [ ]\n}",
      "{\n  \"p\": tru\n}",
      "{\n  \"p\": 1\n",
  };
  for (const std::string& text : refused) {
    std::string copy = text;
    EXPECT_FALSE(DigestText::read(copy)) << text;
    EXPECT_EQ(copy, text);  // left to be read as a map
  }
  for (const char* kept :
       {"{}", "{\n  \"p\": -9223372036854775808\n}", "{\n  \"p\": 18446744073709551615\n}",
        "{\n  \"p\": \"\\u001f\\\\\"\n}"}) {
    std::string copy = kept;
    EXPECT_TRUE(DigestText::read(copy)) << kept;
    EXPECT_EQ(cr::detail::dump_digests(Record::parse(kept)), kept);
  }
}

// Random digests as the writer writes them are all taken, and moved as the map moves them.
TEST(DigestText, AgreesWithTheMapOnRandomDigests) {
  std::mt19937 random(7);
  const auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  const std::string paths[] = {"a", "b", "", "é", "q\"\\\n"};
  std::function<Record(int)> any = [&](int depth) -> Record {
    switch (pick(depth > 2 ? 5 : 7)) {
      case 0:
        return nullptr;
      case 1:
        return pick(2) == 1;
      case 2:
        return pick(2000) - 1000;
      case 3:
        return paths[pick(5)];
      case 4:
        return Record::object();
      case 5: {
        Record list = Record::array();
        for (int i = pick(3); i > 0; --i) list.push_back(any(depth + 1));
        return list;
      }
      default: {
        Record map = Record::object();
        for (int i = pick(3); i > 0; --i) map[paths[pick(5)] + "k"] = any(depth + 1);
        return map;
      }
    }
  };
  for (int round = 0; round < 200; ++round) {
    Record digests = Record::object();
    std::vector<std::pair<std::string, Moves>> pages;
    for (int p = pick(6); p > 0; --p) {
      const std::string id = "p" + std::to_string(pick(8));
      Record citations = Record::array();
      Moves moves;
      for (int c = pick(5); c > 0; --c) {
        const std::string& path = paths[pick(5)];
        const Line start = pick(4), end = start + pick(2);
        Record citation = cite(path, start, end);
        if (pick(4) == 0) citation["extra"] = any(1);
        citations.push_back(std::move(citation));
        if (pick(2) == 0) moves.set({path, start, end}, {start + 10, end + pick(20)});
      }
      digests[id] = {{"citations", std::move(citations)}, {"other", any(1)}};
      pages.emplace_back(id, std::move(moves));
    }
    const std::string text = cr::detail::dump_digests(digests);
    ASSERT_EQ(moved_as_text(text, pages), moved_as_map(text, pages)) << text;
  }
}

}  // namespace
}  // namespace tolbarrow::hosts::memory

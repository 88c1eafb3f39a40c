#include "workers/wiki/types.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "workers/wiki/verify.h"

namespace tolbarrow::workers::wiki {
namespace {

// Items under hashes that all agree, that agree in their low bits only (one probe chain until the
// table grows), and that differ: each is found as it was filed, through growth, and nothing else.
TEST(HashSlots, FindsEachItemByHashAndTest) {
  const std::pair<const char*, std::size_t (*)(std::size_t)> hashings[] = {
      {"one hash", [](std::size_t) -> std::size_t { return 42; }},
      {"low bits agree", [](std::size_t i) -> std::size_t { return (i << 20) | 5; }},
      {"distinct", [](std::size_t i) -> std::size_t { return i * 0x9e3779b97f4a7c15ULL; }},
  };
  for (const auto& [what, hash_of] : hashings) {
    HashSlots index;
    std::vector<std::size_t> items;  // item number -> its value
    for (std::size_t i = 0; i < 300; ++i) {
      if (i == 100) index.reserve(1000);  // growing ahead keeps what is filed
      index.add(hash_of(i), items.size());
      items.push_back(i * 3);
    }
    for (std::size_t i = 0; i < 300; ++i) {
      const std::size_t found =
          index.find(hash_of(i), [&](std::size_t item) { return items[item] == i * 3; });
      ASSERT_EQ(found, i) << what;
    }
    EXPECT_EQ(index.find(hash_of(7), [&](std::size_t item) { return items[item] == 1; }),
              HashSlots::kNone)
        << what;
  }
  EXPECT_EQ(HashSlots().find(1, [](std::size_t) { return true; }), HashSlots::kNone);
}

TEST(KeyedMap, KeepsFirstInsertionOrderAndComparesWithoutIt) {
  KeyedMap<int> map;
  for (int i = 0; i < 500; ++i) map.set({"p" + std::to_string(i % 7), i, i + 1}, i);
  map.set({"p3", 3, 4}, -3);  // a set key keeps its place
  ASSERT_EQ(map.size(), 500u);
  int at = 0;
  for (const auto& [key, value] : map) {
    EXPECT_EQ(key, (CitationKey{"p" + std::to_string(at % 7), at, at + 1}));
    EXPECT_EQ(value, at == 3 ? -3 : at);
    ++at;
  }
  EXPECT_TRUE(map.contains({"p0", 0, 1}));
  EXPECT_FALSE(map.contains({"p1", 0, 1}));
  EXPECT_EQ(map.find({"p1", 0, 1}), nullptr);

  KeyedMap<int> reversed;
  for (auto it = map.end(); it != map.begin();) {
    --it;
    reversed.set(it->first, it->second);
  }
  EXPECT_EQ(reversed, map);
  reversed.set({"p3", 3, 4}, 3);
  EXPECT_FALSE(reversed == map);
}

// The record a host without its own anchoring gives: the keys a citation has keep their places,
// the others follow in one order; a citation that is null becomes a map, as setting members of a
// copy would make it.
TEST(AnchoredRecord, SetsLinesAndDeclarationInPlace) {
  const Symbol symbol{"A.f", "f", "function", 3, 9};
  const struct {
    const char* citation;
    const Symbol* symbol;
    const char* expected;
  } cases[] = {
      {R"({"z":1,"line_end":2,"path":"a.py","symbol_end":1})", &symbol,
       R"({"z":1,"line_end":5,"path":"a.py","symbol_end":9,"line_start":4,"symbol":"A.f",)"
       R"("name":"f","symbol_start":3})"},
      {R"({"name":"old","line_start":1})", nullptr,
       R"({"name":"old","line_start":4,"line_end":5})"},
      {"null", &symbol,
       R"({"line_start":4,"line_end":5,"symbol":"A.f","name":"f","symbol_start":3,"symbol_end":9})"},
      {"null", nullptr, R"({"line_start":4,"line_end":5})"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(anchored_record(Record::parse(c.citation), {4, 5}, c.symbol).dump(), c.expected)
        << c.citation;
  }
  EXPECT_THROW(anchored_record(Record::array(), {4, 5}, nullptr), nlohmann::json::type_error);
}

}  // namespace
}  // namespace tolbarrow::workers::wiki

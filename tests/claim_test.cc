#include <gtest/gtest.h>

#include "hosts/memory/memory_host.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::hosts::memory {
namespace {

using Names = std::vector<std::string>;

std::vector<std::string_view> views(const Names& names) { return {names.begin(), names.end()}; }

class ClaimIdentifiers : public ::testing::Test {
 protected:
  // The identifiers claimed for a citation that follows `before`.
  Names claim(const std::string& before) {
    const Text text(before + cite("a.py", 1, 2) + " tail");
    return cr::claim_identifiers(services, text, count_points(before));
  }
  MemoryHost host;
  cr::Host services = host.host();
};

TEST_F(ClaimIdentifiers, ReadsTheLastSentenceOfTheClaim) {
  const std::pair<std::string, Names> cases[] = {
      {"", {}},
      {"Use `Config.load(path)` and then `save_all()` ", {"load", "save_all"}},
      {"It calls `load`. Then `save` ", {"save"}},
      {"It calls `load`. then `save` ", {"load", "save"}},
      {"It calls `load`. `save` ", {"save"}},
      {"It calls `load`.Then `save` ", {"load", "save"}},
      {"It calls `load`.\n\n Then `save` ", {"save"}},
      {"`load` here\n\nand `save` ", {"save"}},
      {"`load` here\r\n\r\nand `save` ", {"load", "save"}},
      {"It calls `load`.\xC2\xA0Then `save` ", {"save"}},      // no-break space is white space
      {"It calls `load`.\xE2\x80\x83Then `save` ", {"save"}},  // so is an em space
      {"It calls `load`.\xE2\x80\x9D Then `save` ", {"load", "save"}},  // a quote is not
      {"Caf\xC3\xA9 `load`?\t\v Then `save` ", {"save"}},
      {"It calls `load`.  then `save` ", {"load", "save"}},
      {"`load` " + cite("b.py", 3, 4) + " and `save` ", {"save"}},
      {"`a` " + cite("b.py", 3, 4) + " `b1` " + cite("b.py", 5, 6) + " `c1` ", {"c1"}},
  };
  for (const auto& [before, names] : cases) EXPECT_EQ(claim(before), names) << before;
}

TEST_F(ClaimIdentifiers, TurnsSpansIntoNames) {
  const std::pair<std::string, Names> cases[] = {
      {"`x` and `yz` ", {}},
      {"`ab` `a.b` `module.` ", {"ab"}},
      {"`" + std::string(80, 'k') + "` ", {std::string(80, 'k')}},
      {"`" + std::string(81, 'k') + "` ", {}},
      {"`lo\nad` ", {}},
      {"`src/app/main` `load(a/b)` `Main.PY` `load('x.py')` ", {"load"}},
      {"`self.items[0]` `Foo::bar` `key=value` `(foo)` ", {"items[0]", "Foo", "key"}},
      {"`foo` then `foo` ", {"foo", "foo"}},
      {"`load\xE2\x80\x83x` ", {"load"}},  // em space cuts like a space
      {"`caf\xC3\xA9` `\xE6\xBC\xA2\xE5\xAD\x97` `\xF0\x9D\x84\x9E` ",
       {"caf\xC3\xA9", "\xE6\xBC\xA2\xE5\xAD\x97"}},
  };
  for (const auto& [before, names] : cases) EXPECT_EQ(claim(before), names) << before;
}

// File-name endings are compared with the token's full Unicode lower case, whatever the locale:
// "É" lowers to "é", and "İ" to "i" with a combining dot above.
TEST_F(ClaimIdentifiers, FileNamesAreRecognisedInAnyCase) {
  host.skip_exts = {".\xC3\xA9t\xC3\xA9", ".i\xCC\x87"};
  EXPECT_EQ(claim("`load.\xC3\x89T\xC3\x89` `x.\xC4\xB0` `load_x` "), Names{"load_x"});
}

TEST_F(ClaimIdentifiers, WindowCountsCodePoints) {
  std::string astral, accents;
  for (int i = 0; i < 200; ++i) astral += "\xF0\x9D\x84\x9E";
  for (int i = 0; i < 300; ++i) accents += "\xC3\xA9";
  // 200 astral characters keep `first` inside the 260-character window (800 bytes would not).
  EXPECT_EQ(claim("`first` " + astral + " `second` "), (Names{"first", "second"}));
  // 300 two-byte characters push it out; the window starts inside them.
  EXPECT_EQ(claim("`first` " + accents + " `second` "), Names{"second"});
  EXPECT_EQ(host.pattern_searches, 2);
  // The window holds exactly 260 characters: a span that opens 260 characters back is read
  // whole, one that opens 261 back has lost its opening backtick.
  std::string filler;
  for (int i = 0; i < 256; ++i) filler += "\xC3\xA9";
  EXPECT_EQ(claim("`ab`" + filler), Names{"ab"});
  EXPECT_EQ(claim("`ab`" + filler + "\xC3\xA9"), Names{});
  EXPECT_THROW(cr::claim_identifiers(services, Text("ab"), 3), std::out_of_range);
}

TEST(LegacyAnchor, ChoosesTheNamedDeclaration) {
  MemoryHost host;
  const cr::Host services = host.host();
  const auto load = sym("m.load", 10, 30), beta = sym("m.beta", 12, 20),
             alpha = sym("m.alpha", 10, 30), far_beta = sym("m.beta", 40, 50),
             load_far = sym("m.load", 40, 60), load_short = sym("m.load", 40, 42),
             save = sym("m.save", 70, 80), foo = sym("m.foo", 40, 50), bar = sym("m.bar", 60, 70),
             load2 = sym("m.load", 80, 90), wide1 = sym("m.load", 5, 50),
             wide2 = sym("m.load", 8, 90), touch_low = sym("m.load", 5, 10),
             mod = sym("m.load", 10, 30, "module");
  struct Case {
    std::vector<Symbol> symbols;
    Line start, end;
    Names names;
    Symbol symbol;
    LineRange range;
  } cases[] = {
      {{load}, 15, 16, {"load"}, load, {15, 16}},
      {{touch_low}, 10, 12, {"load"}, touch_low, {10, 12}},
      {{alpha, beta}, 15, 16, {"alpha", "beta"}, beta, {15, 16}},
      {{alpha, far_beta}, 15, 16, {"alpha", "beta"}, alpha, {15, 16}},
      {{load_far}, 10, 14, {"load"}, load_far, {40, 44}},
      {{load_short}, 10, 14, {"load"}, load_short, {40, 42}},
      {{load_far}, 14, 10, {"load"}, load_far, {40, 40}},
      {{load_far, save}, 10, 12, {"load", "save"}, save, {70, 72}},
      {{foo, bar}, 1, 2, {"foo", "bar", "foo"}, bar, {60, 61}},
      {{load_far, load2}, 10, 11, {"load"}, load_far, {40, 41}},
      {{wide1, wide2}, 10, 11, {"load"}, wide1, {10, 11}},
  };
  for (const auto& c : cases) {
    const auto [symbol, range] =
        cr::detail::legacy_anchor(services, c.symbols, c.start, c.end, views(c.names));
    ASSERT_TRUE(symbol >= c.symbols.data() && symbol < c.symbols.data() + c.symbols.size());
    EXPECT_EQ(*symbol, c.symbol) << c.start << "-" << c.end;
    EXPECT_EQ(range, c.range) << c.start << "-" << c.end;
  }
  EXPECT_TRUE(host.anchor_calls.empty());

  // No usable name (none given, none matching, or only an unanchored kind): the host decides.
  for (const auto& [symbols, names] : std::vector<std::pair<std::vector<Symbol>, Names>>{
           {{load}, {}}, {{load}, {"other"}}, {{mod}, {"load"}}}) {
    host.anchor_calls.clear();
    const auto [symbol, range] = cr::detail::legacy_anchor(services, symbols, 15, 16, views(names));
    EXPECT_EQ(symbol, &symbols[0]);
    EXPECT_EQ(range, (LineRange{15, 16}));
    EXPECT_EQ(host.anchor_calls, Names{"15-16"});
  }
}

}  // namespace
}  // namespace tolbarrow::hosts::memory

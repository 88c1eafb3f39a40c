#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <random>

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

// claim_identifiers as the patterns themselves read a claim, for comparison: the host's search
// for the last earlier citation, the sentence split, the span pattern, and the cut pattern.
Names claim_by_patterns(const cr::Host& host, const Text& text, std::size_t position) {
  static const Regex boundary("(?<=[.!?])\\s+(?=[A-Z`])|\\n\\n"), cut("[(\\s=:]");
  const std::size_t start =
      position > cr::detail::CLAIM_WINDOW ? position - cr::detail::CLAIM_WINDOW : 0;
  const std::size_t claim_start = host.syntax.last_end(text, start, position).value_or(start);
  std::string_view chunk = text.slice(claim_start, position);
  std::size_t sentence = 0;
  while (auto m = boundary.search(chunk, sentence)) sentence = m->end;
  chunk = chunk.substr(sentence);
  Names out;
  std::size_t at = 0;
  while (auto m = cr::detail::CLAIM_IDENT_RE().search(chunk, at)) {
    at = m->end;
    std::string token(chunk.substr(m->group_begin, m->group_end - m->group_begin));
    if (token.find('/') != std::string::npos) continue;
    std::string lowered = token;  // the generated spans are ASCII, but for É
    for (char& c : lowered) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    bool file = false;
    for (const std::string& ext : host.anchoring.file_name_endings()) {
      file = file || (lowered.size() >= ext.size() &&
                      lowered.compare(lowered.size() - ext.size(), ext.size(), ext) == 0);
    }
    if (file) continue;
    if (auto c = cut.search(token)) token.resize(c->begin);
    if (auto dot = token.rfind('.'); dot != std::string::npos) token.erase(0, dot + 1);
    if (count_points(token) >= 2) out.push_back(token);
  }
  return out;
}

// Generated prose, read both ways at every citation and at other places: sentence ends of every
// kind, blank lines, white space outside ASCII, spans with paths, calls, file names, line feeds
// and too few or too many characters, citations inside the window and cut by it.
TEST_F(ClaimIdentifiers, ReadsClaimsAsThePatternsDo) {
  const std::vector<std::string> pieces = {"`",
                                           "``",
                                           "`load`",
                                           "`a`",
                                           "`Config.load(x)`",
                                           "`key=v`",
                                           "`x.py`",
                                           "`M.PY`",
                                           "`a/b`",
                                           "`" + std::string(79, 'q') + "`",
                                           "`" + std::string(81, 'q') + "`",
                                           "`lo\nad`",
                                           ".",
                                           "!",
                                           "?",
                                           " ",
                                           "  ",
                                           "\n",
                                           "\n\n",
                                           "\t",
                                           "\r\n",
                                           "Then",
                                           "then",
                                           "A",
                                           "word",
                                           "caf\xC3\xA9",
                                           "\xC2\xA0",
                                           "\xE2\x80\x83",
                                           "\xE2\x80\x94",
                                           "\xE3\x80\x80",
                                           "\xE3\x81\x82",
                                           "\xF0\x9D\x84\x9E",
                                           "(",
                                           ")",
                                           ":",
                                           "=",
                                           cite("b.py", 3, 4),
                                           cite("a.py", 1, 2)};
  std::uint64_t seed = 12345;
  const auto next = [&] {
    seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<std::size_t>(seed >> 33);
  };
  int compared = 0;
  for (int round = 0; round < 400; ++round) {
    std::string prose;
    const std::size_t length = 1 + next() % 120;
    for (std::size_t i = 0; i < length; ++i) prose += pieces[next() % pieces.size()];
    const Text text(prose);
    std::vector<std::size_t> positions;
    host.find(text, [&](const Citation& c) { positions.push_back(c.start); });
    for (int i = 0; i < 8; ++i) positions.push_back(next() % (text.length() + 1));
    // Half the rounds read the text the host has just scanned, half one it has not.
    if (round % 2 == 1) host.find(Text("other"), [](const Citation&) {});
    for (const std::size_t position : positions) {
      ASSERT_EQ(cr::claim_identifiers(services, text, position),
                claim_by_patterns(services, text, position))
          << "position " << position << " of: " << prose;
      ++compared;
    }
  }
  EXPECT_GT(compared, 3200);
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

// The host reads the last citation before a place from the citations of the page it scanned
// last, searching outward from its previous answer: asked in any order, it answers as a search
// of a text it has not scanned does.
TEST(MemoryHostLastEnd, ScannedCitationsAnswerAsTheSearchDoes) {
  MemoryHost host;
  std::string page;
  for (int i = 0; i < 40; ++i) {
    page += std::string(static_cast<std::size_t>(i * 7 % 23), i % 3 ? 'x' : ' ');
    page += i % 4 ? "\xC3\xA9 " : "";
    page += cite("src/m" + std::to_string(i) + ".py", i + 1, i + 1 + i % 3);
  }
  const Text scanned(page), unscanned(page);
  std::size_t citations = 0;
  host.find(scanned, [&](const Citation&) { ++citations; });
  ASSERT_EQ(citations, 40u);
  std::vector<std::pair<std::size_t, std::size_t>> bounds;
  for (std::size_t start = 0; start <= scanned.length(); start += 7) {
    for (std::size_t end = start; end <= scanned.length() + 1; end += 5)
      bounds.emplace_back(start, end);
  }
  std::mt19937 shuffle(7);
  std::shuffle(bounds.begin(), bounds.end(), shuffle);
  // Ascending runs, as a refresh asks, then every order.
  std::sort(bounds.begin(), bounds.begin() + static_cast<std::ptrdiff_t>(bounds.size() / 2));
  for (const auto& [start, end] : bounds) {
    ASSERT_EQ(host.last_end(scanned, start, end), host.last_end(unscanned, start, end))
        << start << ".." << end;
  }
}

}  // namespace
}  // namespace tolbarrow::hosts::memory

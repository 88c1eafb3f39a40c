#include "hosts/native/landing.h"

#include <gtest/gtest.h>

#include <string>

namespace tolbarrow::hosts::native {
namespace {

// Beside what the carrying's tests check (line ends, trailing blanks, lines not in the file): a
// line's leading blanks are part of it, and more than kLinesKept lines are kept as one hash.
TEST(CitedText, KeepsIndentationAndLongTextsWhole) {
  const std::string code = "def f():\n    return 1\n";
  EXPECT_NE(cited_text_hash(code, 1, 2), cited_text_hash("def f():\n  return 1\n", 1, 2));
  std::string long_code;
  for (wiki::Line i = 0; i <= kLinesKept; ++i) long_code += "x" + std::to_string(i) + "\n";
  EXPECT_EQ(cited_text_hash(long_code, 1, kLinesKept).find('#'), std::string::npos);
  EXPECT_EQ(cited_text_hash(long_code, 1, kLinesKept + 1).size(), 17u);
  EXPECT_EQ(cited_text_hash(long_code, 1, kLinesKept + 1)[0], '#');
}

// Texts of hashed lines ("a" stands for a line's hash): like when at least half the lines of the
// longer text are lines of the other, in the same order.
TEST(CitedText, IsLikeWhenHalfTheLongerTextsLinesStandInOrder) {
  struct Case {
    const char* then;
    const char* now;
    bool like;
  };
  const Case cases[] = {
      {"a b c d", "a b c d", true},
      {"a b c d", "a x c y", true},   // two of four: exactly half
      {"a b c d", "a x y z", false},  // one of four
      {"a b c d", "d c b a", false},  // all there, one in order
      {"a b", "a b x y z", false},    // two of the longer five
      {"a b c", "z a b c y", true},   // three of five
      {"a b", "a a a a", false},      // a line repeated (a "}") counts once per line it matches
      {"a", "b", false},
      {"", "a", false},
      {"#0123456789abcdef", "#0123456789abcdef", true},
      {"#0123456789abcdef", "a b", false},  // a text kept whole is like only itself
  };
  for (const Case& c : cases) {
    EXPECT_EQ(similar_text(c.then, c.now), c.like) << c.then << " / " << c.now;
    EXPECT_EQ(similar_text(c.now, c.then), c.like) << c.now << " / " << c.then;
  }
}

}  // namespace
}  // namespace tolbarrow::hosts::native

#include "workers/wiki/text.h"

#include <gtest/gtest.h>

#include <random>

namespace tolbarrow::workers::wiki {
namespace {

TEST(Text, OffsetsCountCodePointsAcrossIndexBlocks) {
  // Mixed widths: 1 (a), 2 (é), 3 (漢), 4 (𝄞) bytes; long enough to span many index blocks.
  std::string s;
  std::vector<std::size_t> bytes_of_point;
  const char* pieces[] = {"a", "\xC3\xA9", "\xE6\xBC\xA2", "\xF0\x9D\x84\x9E"};
  for (int i = 0; i < 1000; ++i) {
    bytes_of_point.push_back(s.size());
    s += pieces[i % 4];
  }
  bytes_of_point.push_back(s.size());
  const Text text(s);
  ASSERT_EQ(text.length(), 1000u);
  for (std::size_t p = 0; p <= 1000; ++p) {
    ASSERT_EQ(text.byte_at(p), bytes_of_point[p]) << p;
    ASSERT_EQ(text.point_at(bytes_of_point[p]), p) << p;
  }
  EXPECT_EQ(text.slice(1, 4), "\xC3\xA9\xE6\xBC\xA2\xF0\x9D\x84\x9E");
}

// Offsets of texts of every length up to a few words, of characters of random widths: the
// conversions pass whole words of eight bytes, so every place a character may straddle one.
TEST(Text, OffsetsAgreeWithACountByteByByte) {
  const char* pieces[] = {"a", "\xC3\xA9", "\xE6\xBC\xA2", "\xF0\x9D\x84\x9E"};
  std::mt19937 random(11);
  for (int round = 0; round < 400; ++round) {
    std::string s;
    std::vector<std::size_t> starts;  // byte offset of each code point
    const int points = round % 150;
    for (int i = 0; i < points; ++i) {
      starts.push_back(s.size());
      s += pieces[round % 5 == 0 ? 0 : random() % 4];
    }
    starts.push_back(s.size());
    const Text text(s);
    ASSERT_EQ(count_points(s), static_cast<std::size_t>(points)) << s;
    ASSERT_EQ(text.length(), static_cast<std::size_t>(points));
    for (std::size_t p = 0; p < starts.size(); ++p) {
      ASSERT_EQ(text.byte_at(p), starts[p]) << "round " << round << " point " << p;
      ASSERT_EQ(text.point_at(starts[p]), p) << "round " << round << " point " << p;
    }
  }
}

TEST(Text, RejectsWhatStrictUtf8Rejects) {
  const std::pair<std::string, std::size_t> cases[] = {
      {"ok \xC3\xA9", std::string::npos},
      {"abc\xFF", 3},            // never a UTF-8 byte
      {"ab\xC3", 2},             // truncated sequence
      {"a\xC0\xAF", 1},          // overlong
      {"\xED\xA0\x80", 0},       // surrogate
      {"x\xF4\x90\x80\x80", 1},  // above U+10FFFF
      {"12345678\x80", 8},       // stray continuation after the ASCII fast path
  };
  for (const auto& [bytes, bad] : cases) {
    EXPECT_EQ(first_invalid_utf8(bytes), bad) << bytes;
    if (bad != std::string::npos) {
      try {
        Text t(bytes, "page.md");
        ADD_FAILURE() << "accepted " << bytes;
      } catch (const InvalidUtf8& e) {
        EXPECT_EQ(e.offset(), bad);
        EXPECT_NE(std::string(e.what()).find("page.md"), std::string::npos);
      }
    }
  }
}

}  // namespace
}  // namespace tolbarrow::workers::wiki

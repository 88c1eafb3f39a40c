#include "workers/wiki/text.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace tolbarrow::workers::wiki {
namespace {

std::atomic<std::uint64_t> next_id{1};

bool is_continuation(unsigned char c) { return (c & 0xC0) == 0x80; }

constexpr std::uint64_t kHighBits = 0x8080808080808080ULL;

// How many of the eight bytes at `p` are continuation bytes (10xxxxxx): each one's high bit is
// kept and moved to the bottom of its byte, and the multiplication sums the bytes into the top
// one (at most 8, so nothing carries). Portable, where a popcount instruction may not be.
std::size_t continuations(const unsigned char* p) {
  std::uint64_t word;
  std::memcpy(&word, p, 8);
  const std::uint64_t ones = (word & ~(word << 1) & kHighBits) >> 7;
  return static_cast<std::size_t>((ones * 0x0101010101010101ULL) >> 56);
}

}  // namespace

std::size_t first_invalid_utf8(std::string_view bytes) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::size_t n = bytes.size();
  std::size_t i = 0;
  while (i < n) {
    // Skip ASCII eight bytes at a time.
    while (i + 8 <= n) {
      std::uint64_t word;
      std::memcpy(&word, p + i, 8);
      if (word & 0x8080808080808080ULL) break;
      i += 8;
    }
    if (i >= n) break;
    const unsigned c = p[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t len;
    std::uint32_t cp;
    if (c >= 0xC2 && c <= 0xDF) {
      len = 2, cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3, cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4, cp = c & 0x07;
    } else {
      return i;
    }
    if (i + len > n) return i;
    for (std::size_t k = 1; k < len; ++k) {
      if (!is_continuation(p[i + k])) return i;
      cp = (cp << 6) | (p[i + k] & 0x3F);
    }
    if (len == 3 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) return i;
    if (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) return i;
    i += len;
  }
  return std::string_view::npos;
}

std::size_t count_points(std::string_view bytes) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::size_t n = bytes.size();
  std::size_t count = n, i = 0;
  for (; i + 8 <= n; i += 8) count -= continuations(p + i);
  for (; i < n; ++i) count -= is_continuation(p[i]);
  return count;
}

void check_utf8(const std::string& bytes, std::string_view what) {
  const std::size_t bad = first_invalid_utf8(bytes);
  if (bad != std::string_view::npos) {
    throw InvalidUtf8(std::string(what) + ": not valid UTF-8 at byte " + std::to_string(bad), bad,
                      bytes);
  }
}

Text::Text(std::string utf8, std::string_view what) : utf8_(std::move(utf8)), id_(next_id++) {
  check_utf8(utf8_, what);
  const auto* p = reinterpret_cast<const unsigned char*>(utf8_.data());
  std::size_t points = 0;
  for (std::size_t i = 0; i < utf8_.size(); ++i) {
    if (is_continuation(p[i])) continue;
    if (points % kIndexStep == 0) index_.push_back(i);
    ++points;
  }
  length_ = points;
  if (ascii()) index_.clear();  // offsets are byte offsets; no index needed
}

std::size_t Text::byte_at(std::size_t point) const {
  if (point >= length_) return utf8_.size();
  if (ascii()) return point;
  std::size_t byte = index_[point / kIndexStep];
  const auto* p = reinterpret_cast<const unsigned char*>(utf8_.data());
  // The code point `k` code points after the indexed one: whole words of eight bytes are passed
  // while they hold no more than `k` code points' first bytes, then single bytes.
  std::size_t k = point % kIndexStep;
  while (byte + 8 <= utf8_.size()) {
    const std::size_t leads = 8 - continuations(p + byte);
    if (leads > k) break;
    k -= leads;
    byte += 8;
  }
  for (;; ++byte) {
    if (is_continuation(p[byte])) continue;
    if (k == 0) return byte;
    --k;
  }
}

std::size_t Text::point_at(std::size_t byte) const {
  if (ascii()) return std::min(byte, utf8_.size());
  if (byte >= utf8_.size()) return length_;
  const auto it = std::upper_bound(index_.begin(), index_.end(), byte) - 1;
  const std::size_t block = static_cast<std::size_t>(it - index_.begin());
  return block * kIndexStep + count_points(std::string_view(utf8_).substr(*it, byte - *it));
}

std::string_view Text::slice(std::size_t begin, std::size_t end) const {
  const std::size_t b = byte_at(begin);
  return std::string_view(utf8_).substr(b, byte_at(std::max(begin, end)) - b);
}

}  // namespace tolbarrow::workers::wiki

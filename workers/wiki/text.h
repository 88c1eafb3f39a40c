// Page text: strict UTF-8 held as bytes, addressed by code-point offsets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tolbarrow::workers::wiki {

// Raised when bytes that must be UTF-8 are not. `offset` is the byte offset of the first bad byte.
class InvalidUtf8 : public std::runtime_error {
 public:
  InvalidUtf8(const std::string& what, std::size_t offset, std::string bytes)
      : std::runtime_error(what), offset_(offset), bytes_(std::move(bytes)) {}
  std::size_t offset() const { return offset_; }
  // The bytes that failed to decode (the whole input), for hosts that report them.
  const std::string& bytes() const { return bytes_; }

 private:
  std::size_t offset_;
  std::string bytes_;
};

// Returns the byte offset of the first byte that breaks strict UTF-8 (no surrogates, no overlong
// forms, nothing above U+10FFFF), or npos when `bytes` is valid.
std::size_t first_invalid_utf8(std::string_view bytes);

// Throws InvalidUtf8 naming `what` (a file name, say) when `bytes` is not strict UTF-8.
void check_utf8(const std::string& bytes, std::string_view what);

// An immutable page text. Offsets that cross the module's boundary count code points; the text
// keeps a sparse index (one entry per kIndexStep code points) so that converting an offset costs
// O(kIndexStep), not O(length), and a page with thousands of citations is never rescanned.
class Text {
 public:
  static constexpr std::size_t kIndexStep = 64;

  Text() : Text(std::string()) {}
  // Validates `utf8` and throws InvalidUtf8 (naming `what`, e.g. a file name) when it is not.
  explicit Text(std::string utf8, std::string_view what = "text");

  const std::string& str() const { return utf8_; }
  // Number of code points.
  std::size_t length() const { return length_; }
  bool ascii() const { return length_ == utf8_.size(); }

  // Byte offset of code point `point` (point <= length()).
  std::size_t byte_at(std::size_t point) const;
  // Code point offset of byte `byte`, which must start a code point or equal size().
  std::size_t point_at(std::size_t byte) const;
  // The bytes of code points [begin, end).
  std::string_view slice(std::size_t begin, std::size_t end) const;

  // A number no other Text made in this process has (copies keep it), so that a host called
  // many times with one page can keep its own form of the page under it.
  std::uint64_t id() const { return id_; }

 private:
  std::string utf8_;
  std::size_t length_ = 0;
  std::vector<std::size_t> index_;  // byte offset of every kIndexStep-th code point
  std::uint64_t id_;
};

// Number of code points in valid UTF-8 `bytes`.
std::size_t count_points(std::string_view bytes);

}  // namespace tolbarrow::workers::wiki

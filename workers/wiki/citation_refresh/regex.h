// A compiled PCRE2 pattern over UTF-8, with Unicode character properties, JIT-compiled where the
// library supports it. Subjects must be valid UTF-8 (a Text is): matching skips the UTF check.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tolbarrow::workers::wiki {

class Regex {
 public:
  // Byte offsets of the whole match and of capture group 1 (npos when it did not take part).
  struct Match {
    std::size_t begin = 0;
    std::size_t end = 0;
    std::size_t group_begin = std::string_view::npos;
    std::size_t group_end = std::string_view::npos;
  };

  // Compiles `pattern` with PCRE2_UTF | PCRE2_UCP; throws std::invalid_argument on a bad pattern.
  explicit Regex(std::string_view pattern);
  ~Regex();
  Regex(const Regex&) = delete;
  Regex& operator=(const Regex&) = delete;

  const std::string& pattern() const { return pattern_; }

  // The first match that starts at or after byte `start` of `subject`. The subject ends where the
  // view ends; bytes of the view before `start` stay visible to look-behind.
  std::optional<Match> search(std::string_view subject, std::size_t start = 0) const;

 private:
  std::string pattern_;
  void* code_ = nullptr;  // pcre2_code_8
};

}  // namespace tolbarrow::workers::wiki

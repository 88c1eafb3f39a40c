#include "workers/wiki/citation_refresh/regex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <memory>
#include <stdexcept>

namespace tolbarrow::workers::wiki {
namespace {

pcre2_code* code_of(void* p) { return static_cast<pcre2_code*>(p); }

// One match-data block per thread, large enough for the patterns used here (at most a few
// groups), so that a search allocates nothing.
pcre2_match_data* thread_match_data() {
  struct Deleter {
    void operator()(pcre2_match_data* d) const { pcre2_match_data_free(d); }
  };
  thread_local std::unique_ptr<pcre2_match_data, Deleter> data(pcre2_match_data_create(8, nullptr));
  return data.get();
}

}  // namespace

Regex::Regex(std::string_view pattern) : pattern_(pattern) {
  int error = 0;
  PCRE2_SIZE error_offset = 0;
  pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern_.data()), pattern_.size(),
                                   PCRE2_UTF | PCRE2_UCP, &error, &error_offset, nullptr);
  if (code == nullptr) {
    PCRE2_UCHAR message[256];
    pcre2_get_error_message(error, message, sizeof message);
    throw std::invalid_argument("bad pattern " + pattern_ + " at offset " +
                                std::to_string(error_offset) + ": " +
                                reinterpret_cast<const char*>(message));
  }
  pcre2_jit_compile(code, PCRE2_JIT_COMPLETE);  // falls back to the interpreter when unsupported
  code_ = code;
}

Regex::~Regex() { pcre2_code_free(code_of(code_)); }

std::optional<Regex::Match> Regex::search(std::string_view subject, std::size_t start) const {
  pcre2_match_data* data = thread_match_data();
  const int rc = pcre2_match(code_of(code_), reinterpret_cast<PCRE2_SPTR>(subject.data()),
                             subject.size(), start, PCRE2_NO_UTF_CHECK, data, nullptr);
  if (rc == PCRE2_ERROR_NOMATCH) return std::nullopt;
  if (rc < 0) {
    PCRE2_UCHAR message[256];
    pcre2_get_error_message(rc, message, sizeof message);
    throw std::runtime_error("matching " + pattern_ +
                             " failed: " + reinterpret_cast<const char*>(message));
  }
  const PCRE2_SIZE* ov = pcre2_get_ovector_pointer(data);
  Match m{ov[0], ov[1]};
  if (rc >= 2 && ov[2] != PCRE2_UNSET) {
    m.group_begin = ov[2];
    m.group_end = ov[3];
  }
  return m;
}

}  // namespace tolbarrow::workers::wiki

#include "hosts/native/command/hunks.h"

#include <regex>

#include "hosts/native/command/git_plumbing.h"

namespace tolbarrow::hosts::native::command {

std::vector<Hunk> parse_hunks(const std::string& diff) {
  static const std::regex header(R"(^@@ -(\d+)(?:,(\d+))? \+(\d+)(?:,(\d+))? @@)");
  std::vector<Hunk> hunks;
  for (const std::string& line : split(diff, '\n')) {
    std::smatch m;
    if (line.rfind("@@ ", 0) != 0 || !std::regex_search(line, m, header)) continue;
    auto num = [&](int i, wiki::Line absent) {
      return m[i].matched ? std::stoll(m[i].str()) : absent;
    };
    hunks.push_back({num(1, 0), num(2, 1), num(3, 0), num(4, 1)});
  }
  return hunks;
}

std::map<std::string, std::string> parse_renames(std::string_view name_status) {
  const std::vector<std::string> fields = split(name_status, '\0');
  std::map<std::string, std::string> out;
  for (std::size_t i = 0; i + 2 < fields.size(); i += 3) {
    if (fields[i].rfind("R", 0) == 0) out[fields[i + 1]] = fields[i + 2];
  }
  return out;
}

}  // namespace tolbarrow::hosts::native::command

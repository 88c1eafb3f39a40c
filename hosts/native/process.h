// Running a helper program (git, ctags) and collecting its output.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tolbarrow::hosts::native {

struct ProcessResult {
  int exit_code = 0;  // 127 when the program could not be started; 128 + n when killed by signal n
  std::string out;
  std::string err;
};

// Runs `argv` (argv[0] looked up in PATH) in directory `cwd`, feeding `input` to its standard
// input while reading its standard output and error, so that neither side blocks on a full pipe.
// The child is killed (SIGKILL) when the thread that started it ends, so that no helper outlives
// a process that was killed or interrupted; call it from a thread that outlives the child.
// Throws std::system_error when the process cannot be created.
ProcessResult run_process(const std::vector<std::string>& argv, const std::filesystem::path& cwd,
                          std::string_view input = {});

}  // namespace tolbarrow::hosts::native

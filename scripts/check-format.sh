#!/usr/bin/env bash
# Fails, listing them, when any tracked C++ file differs from what the repository's .clang-format
# makes of it.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.h' '*.cc' '*.cpp')
bad=()
for file in "${files[@]}"; do
  [ -f "$file" ] || continue
  if ! clang-format --style=file "$file" | cmp -s - "$file"; then bad+=("$file"); fi
done
if [ "${#bad[@]}" -gt 0 ]; then
  echo "not formatted by .clang-format (run clang-format -i on them):" >&2
  printf '  %s\n' "${bad[@]}" >&2
  exit 1
fi
echo "format: ${#files[@]} C++ files follow .clang-format"

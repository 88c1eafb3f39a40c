#!/usr/bin/env bash
# Builds the libFuzzer targets (clang-14, AddressSanitizer and UndefinedBehaviorSanitizer) into
# build-fuzz/ and runs each for SECONDS_PER_TARGET seconds on a scratch copy of its seed corpus.
# Prints per target: executions, seconds, coverage points, crashes. Exits 1 when any target
# crashed; the crashing inputs and the fuzzer's log are kept in the scratch directory it names.
#
#   reliability/fuzz/run.sh [SECONDS_PER_TARGET] [TARGET...]    (default 10 s, every target)
#
# FUZZ_WORK sets the scratch directory (default: a new temporary one); FUZZ_NICE a niceness.
# The page scan target (citations) runs with inputs of up to 64 KiB and a time limit of
# CITATIONS_TIMEOUT seconds per input (default 5): a scan slower than linear in the page shows up
# as a timeout, which counts as a crash. Pages once slow (slow/<target>/, 64 KiB each) are run
# under that limit first; they stay out of the corpus, where inputs that large would slow every
# mutation after them.
set -euo pipefail
cd "$(dirname "$0")/../.."
seconds="${1:-10}"
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then targets=(claims digests citations records); fi

CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -DTOLBARROW_FUZZ=ON -DTOLBARROW_SANITIZE=ON \
  -DTOLBARROW_PYTHON=OFF -DTOLBARROW_BENCH=OFF -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link \
  -DCMAKE_C_FLAGS=-fsanitize=fuzzer-no-link >/dev/null
cmake --build build-fuzz -j"$(nproc)" --target "${targets[@]/#/fuzz_}" >/dev/null

work="${FUZZ_WORK:-$(mktemp -d -t fuzz.XXXXXX)}"
failed=0
printf '%-10s %12s %8s %6s %8s\n' target runs seconds cov crashes
for target in "${targets[@]}"; do
  dir="$work/$target"
  mkdir -p "$dir/corpus" "$dir/crashes"
  cp -n reliability/fuzz/corpus/"$target"/* "$dir/corpus/"
  start=$(date +%s)
  # One process; a crash stops it, and the input is written to crashes/.
  status=0
  limits=()
  if [ "$target" = citations ]; then limits=(-max_len=65536 -timeout="${CITATIONS_TIMEOUT:-5}"); fi
  if [ -d reliability/fuzz/slow/"$target" ]; then
    mkdir -p "$dir/slow"
    cp -n reliability/fuzz/slow/"$target"/* "$dir/slow/"
    nice -n "${FUZZ_NICE:-0}" build-fuzz/reliability/fuzz_"$target" -runs=0 "${limits[@]}" \
      -artifact_prefix="$dir/crashes/" "$dir/slow" >"$dir/slow.log" 2>&1 || status=$?
  fi
  nice -n "${FUZZ_NICE:-0}" build-fuzz/reliability/fuzz_"$target" -max_total_time="$seconds" "${limits[@]}" \
    -print_final_stats=1 -artifact_prefix="$dir/crashes/" "$dir/corpus" >"$dir/log" 2>&1 ||
    status=$?
  elapsed=$(($(date +%s) - start))
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log" | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$dir/log" | tail -1 | cut -d' ' -f2 || true)
  # Slow units (written when one input took over 10 s, as on a loaded machine) are not findings.
  crashes=$(find "$dir/crashes" -type f -not -name 'slow-unit-*' | wc -l)
  printf '%-10s %12s %8s %6s %8s\n' "$target" "${runs:-?}" "$elapsed" "${cov:-?}" "$crashes"
  if [ "$status" -ne 0 ] || [ "$crashes" -ne 0 ]; then
    failed=1
    echo "fuzz_$target failed (exit $status): see $dir/log and $dir/crashes/" >&2
    grep -h -m3 -E 'ERROR|runtime error|deadly signal' "$dir"/slow.log "$dir/log" >&2 2>/dev/null ||
      true
  fi
done
if [ -z "${FUZZ_WORK:-}" ] && [ "$failed" -eq 0 ]; then rm -rf "$work"; fi
exit "$failed"

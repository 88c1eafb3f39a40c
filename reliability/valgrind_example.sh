#!/usr/bin/env bash
# Runs examples/native/run.sh with every citation-refresh run under valgrind's memcheck (full
# leak check; its git and ctags children are not traced). Fails when any run had a memory error
# or a definite or possible leak, printing that run's valgrind report.
#
#   reliability/valgrind_example.sh [path/to/citation-refresh]   (default build/.../citation-refresh)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
program="$(realpath "${1:-$root/build/hosts/native/command/citation-refresh}")"
logs="$(mktemp -d)"
trap 'rm -rf "$logs"' EXIT

# Code that PCRE2 compiles at run time (JIT) is opaque to memcheck, which reports its reads as
# uninitialised. Preloaded, this makes every JIT compilation report "unsupported", so that the
# command matches with PCRE2's interpreter, which memcheck checks in full.
cat >"$logs/nojit.c" <<'C'
int pcre2_jit_compile_8(void* code, unsigned int options) {
  (void)code, (void)options;
  return -45; /* PCRE2_ERROR_JIT_BADOPTION */
}
C
cc -shared -fPIC -o "$logs/nojit.so" "$logs/nojit.c"

# The example runs the command through this wrapper; valgrind writes one log per process.
cat >"$logs/citation-refresh" <<WRAP
#!/bin/sh
LD_PRELOAD="$logs/nojit.so" exec valgrind --quiet --error-exitcode=97 --leak-check=full ${VALGRIND_EXTRA:-} --log-file="$logs/run.%p.log" \
  "$program" "\$@"
WRAP
chmod +x "$logs/citation-refresh"

example=0
CITATION_REFRESH="$logs/citation-refresh" "$root/examples/native/run.sh" >"$logs/example.out" 2>&1 ||
  example=$?

runs=0 bad=0
for log in "$logs"/run.*.log; do
  [ -e "$log" ] || continue
  runs=$((runs + 1))
  if [ -s "$log" ]; then  # --quiet: a clean run writes nothing
    bad=$((bad + 1))
    cat "$log" >&2
  fi
done
if [ "$runs" -eq 0 ]; then echo "valgrind_example: no run was traced" >&2; exit 1; fi
echo "valgrind: $runs processes of citation-refresh, $bad with errors or leaks"
if [ "$example" -ne 0 ]; then
  cat "$logs/example.out" >&2
  echo "valgrind_example: the example failed (exit $example)" >&2
  exit 1
fi
[ "$bad" -eq 0 ]

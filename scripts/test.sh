#!/usr/bin/env bash
# Builds and runs every test: the source format check, the C++ tests, the Python extension's
# tests and the command's end-to-end tests, a check that docs/ cites the code as it is, the
# example under valgrind, then the whole suite again under AddressSanitizer and
# UndefinedBehaviorSanitizer (build-asan/, the Python extension's tests with the sanitizer
# runtimes preloaded into Python), and each fuzz target for a few seconds (build-fuzz/, clang-14).
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="$(nproc)"

./scripts/check-format.sh

cmake -S . -B build -DTOLBARROW_PYTHON=ON -DPython_EXECUTABLE=/usr/bin/python3 >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

# This project's own docs cite its code: they must be current.
build/hosts/native/command/citation-refresh --check --quiet
# Relocation accuracy on scripted histories, at a small size; fails when the goal is missed.
/usr/bin/python3 bench/accuracy/relocation_accuracy.py --smoke \
  --program build/hosts/native/command/citation-refresh >/dev/null
# The scale benchmarks on a small generated wiki, so that they cannot rot (nothing about time).
/usr/bin/python3 bench/scale_bench.py --build build --scale small --repeat 1 >/dev/null

# The command on the example under valgrind: no memory error, no leak (git and ctags untraced).
reliability/valgrind_example.sh build/hosts/native/command/citation-refresh

cmake -S . -B build-asan -DTOLBARROW_SANITIZE=ON -DTOLBARROW_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug \
  -DTOLBARROW_PYTHON=ON -DPython_EXECUTABLE=/usr/bin/python3 >/dev/null
cmake --build build-asan -j"$jobs"
ctest --test-dir build-asan --output-on-failure -j"$jobs"

# Each fuzz target for a few seconds on its seed corpus; longer: reliability/fuzz/run.sh 900.
reliability/fuzz/run.sh 5

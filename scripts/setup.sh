#!/usr/bin/env bash
# Installs the build and test dependencies from Debian's archive (clang-14 and libFuzzer for the
# fuzz targets, valgrind for the test command), builds everything into build/, and runs a
# small example: a wiki page whose cited function moved, refreshed through the Python extension,
# and the citation-refresh command over a small repository.
set -euo pipefail
cd "$(dirname "$0")/.."

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo=sudo; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends \
  cmake g++ make pkg-config git clang-format \
  libpcre2-dev nlohmann-json3-dev libspdlog-dev libicu-dev \
  libsqlite3-dev libssl-dev universal-ctags libcli11-dev libxxhash-dev \
  libgtest-dev libgmock-dev libbenchmark-dev \
  pybind11-dev python3-dev python3-pytest \
  clang-14 libclang-rt-14-dev libfuzzer-14-dev valgrind >/dev/null

cmake -S . -B build -DTOLBARROW_PYTHON=ON -DPython_EXECUTABLE=/usr/bin/python3
cmake --build build -j"$(nproc)"

PYTHONPATH=build/python:hosts/python/tests/host PYTHONDONTWRITEBYTECODE=1 \
  /usr/bin/python3 examples/road_of_one_citation.py

CITATION_REFRESH=build/hosts/native/command/citation-refresh examples/native/run.sh

#!/usr/bin/env bash
# Builds the project twice (plain, and with ASan/UBSan) and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
jobs=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"
# The installed layout and the Debian package, from the plain build.
scripts/check-package.sh build

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQUOR_SANITIZE=ON
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs"

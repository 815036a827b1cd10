#!/usr/bin/env bash
# Builds the project twice (plain, and with ASan/UBSan) and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
jobs=$(nproc)

# The plain build is the product's: jsoncpp and the C++ runtime linked
# statically, from Debian's jsoncpp source (shared jsoncpp when the source
# cannot be fetched; the tests hold either way).
static_json=()
if jsoncpp=$(scripts/fetch-jsoncpp.sh build-deps); then
  static_json=(-DQUOR_JSONCPP_SOURCE="$jsoncpp")
else
  echo "warning: no jsoncpp source; building with Debian's shared jsoncpp" >&2
fi
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo "${static_json[@]}"
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"
# The installed layout and the Debian package, from the plain build.
scripts/check-package.sh build

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQUOR_SANITIZE=ON
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs"

# The fuzz targets, where clang is installed: built in a folder of their own
# (only they and the libraries they need) and run a fixed number of times
# from their seed corpora. A crash fails the run.
if command -v clang++ >/dev/null; then
  cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DQUOR_FUZZ=ON -DQUOR_BUILD_TESTS=OFF
  cmake --build build-fuzz -j"$jobs" --target quorpkg_fuzzers
  tests/fuzz/run.sh build-fuzz 20000
fi

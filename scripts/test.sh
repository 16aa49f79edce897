#!/usr/bin/env bash
# Builds and runs the whole test suite: first the optimised build, then the same suite under the
# address and undefined-behaviour sanitizers (set GZL_TEST_SANITIZE=0 to skip that second run).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j2
ctest --test-dir build --output-on-failure -j2
if [ "${GZL_TEST_SANITIZE:-1}" != "0" ]; then
  cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DGZL_SANITIZE=ON
  cmake --build build-asan -j2
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --test-dir build-asan --output-on-failure -j2
fi

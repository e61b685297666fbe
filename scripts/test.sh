#!/usr/bin/env bash
# Builds and runs the whole test suite twice: an optimised build, then the
# same suite under AddressSanitizer + UndefinedBehaviorSanitizer (any
# sanitizer report fails the run).  A third build with clang++ checks that
# the code compiles warning-free with both compilers.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs=$(nproc)

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DZIRN_WERROR=ON -DCMAKE_CXX_COMPILER=g++
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZIRN_SANITIZE=ON \
  -DCMAKE_CXX_COMPILER=g++
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1 \
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs"

cmake -S . -B build-clang -G Ninja -DCMAKE_BUILD_TYPE=Release -DZIRN_WERROR=ON \
  -DZIRN_BUILD_BENCHMARKS=ON -DCMAKE_CXX_COMPILER=clang++
cmake --build build-clang -j "$jobs"

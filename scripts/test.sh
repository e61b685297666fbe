#!/usr/bin/env bash
# Builds and runs the whole test suite three times: an optimised build (with the executables'
# tests also run as older processors under qemu-x86_64 and under valgrind's memcheck, and its
# Debian package checked), then the same suite under AddressSanitizer +
# UndefinedBehaviorSanitizer (any sanitizer report fails the run), then a third time built with
# clang++, benchmarks and the constant-time check under memcheck included, so that the code is
# warning-free with both compilers; then the AArch64 cross build under qemu-aarch64; last, a
# short run of every fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs=$(nproc)
# No test may silently drop out: a configuration without the test
# dependencies would build no tests, and ctest must then fail.
run_tests() { ctest --test-dir "$1" --output-on-failure --no-tests=error -j "$jobs"; }

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=ON -DZIRN_WERROR=ON -DCMAKE_CXX_COMPILER=g++
cmake --build build -j "$jobs"
run_tests build
# The .deb made from that build, unpacked into a scratch root and checked there.
scripts/test-package.sh build
# The executables' tests again: as processors without the AES and SHA instructions and with the
# AES instructions only, where the detection, not only the pin, must pick the path and no
# instruction the processor lacks may run; and under valgrind's memcheck, which must report no
# error and no leak (the signer's image buffer, left to the process exit, stays reachable).
memcheck="valgrind -q --error-exitcode=99 --leak-check=full --show-leak-kinds=definite,indirect,possible"
memcheck+=" --errors-for-leak-kinds=definite,indirect,possible"
pids=()
for cpu in qemu64 Westmere; do
  (export ZIRN_TEST_RUNNER="qemu-x86_64 -cpu $cpu"
   build/tests/tool_test --gtest_brief=1 --gtest_filter=Signer.ProtectsImagesOfEverySize &&
   build/tests/zirnimg_test --gtest_brief=1 --gtest_filter=Zirnimg.RoundTripsWithTheSignerAndOpenSsl) &
  pids+=($!)
done
ZIRN_TEST_RUNNER=$memcheck build/tests/tool_test --gtest_brief=1 \
  --gtest_filter=Signer.ProtectsImagesOfEverySize:Signer.FailuresPrintTheirCascadeAndWriteNothing
ZIRN_TEST_RUNNER=$memcheck build/tests/zirnimg_test --gtest_brief=1 --gtest_filter=Zirnimg.ExitStatusesAndHostileInput
for pid in "${pids[@]}"; do wait "$pid"; done  # each run's own status, so a failure stops the script

cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=ON -DZIRN_SANITIZE=ON \
  -DCMAKE_CXX_COMPILER=g++
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1 \
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
  run_tests build-asan

cmake -S . -B build-clang -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=ON -DZIRN_WERROR=ON \
  -DZIRN_BUILD_BENCHMARKS=ON -DZIRN_CT_CHECK=ON -DCMAKE_CXX_COMPILER=clang++
cmake --build build-clang -j "$jobs"
run_tests build-clang

# The AArch64 build: its crypto extensions' paths and the portable ones, the signer and zirnimg.
scripts/test-aarch64.sh

# Every fuzz target for a few seconds on its corpus: each seed, and each input that once found a
# fault, runs again under ASan and UBSan.
scripts/fuzz.sh 10

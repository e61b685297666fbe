#!/usr/bin/env bash
# Cross-builds everything for AArch64 Linux in build-aarch64/ (g++, warnings as errors) and runs
# under qemu-aarch64 the tests that matter for the architecture: the crypto tests on the crypto
# extensions' instruction paths and pinned to the portable code, the Wycheproof PSS vectors, and
# the signer's and zirnimg's end-to-end tests with the executables run under qemu too.  First it
# checks that the AES and SHA-256 instruction paths are the ones chosen on that processor.
#
# The processor is qemu's "max", which has the AES and SHA2 instructions.  qemu 7.2 has no
# AArch64 model without them (every model reports both, and there is no property to turn them
# off), so the fallback is covered only by the pinned .portable runs.
set -euo pipefail
cd "$(dirname "$0")/.."

# The cross compiler, and the arm64 GoogleTest, OpenSSL and C++ runtime beside the host's.
scripts/install-deps.sh g++-aarch64-linux-gnu libgtest-dev:arm64 libssl-dev:arm64 libstdc++6:arm64

# The programs run on the arm64 multiarch runtime; a prefix would pair the cross compiler's
# dynamic loader with that C library, a different glibc build, and fork() would hang
# (cmake/aarch64-linux-gnu.cmake).
unset QEMU_LD_PREFIX
cpu=max

cmake -S . -B build-aarch64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
  -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=ON -DZIRN_WERROR=ON -DZIRN_QEMU_CPU=$cpu
cmake --build build-aarch64 -j "$(nproc)"

# The detection must pick both instruction paths on this processor.
aarch64-linux-gnu-g++ -std=c++20 -O2 -Icrypto -x c++ - -x none build-aarch64/crypto/libzirn_crypto.a \
  -o build-aarch64/accel_probe <<'EOF'
#include <cstdio>
#include "cpu_features.h"
int main() { std::printf("aes=%d sha256=%d\n", crypto_aes_accelerated(), crypto_sha256_accelerated()); }
EOF
accel=$(qemu-aarch64 -cpu $cpu build-aarch64/accel_probe)
echo "qemu-aarch64 -cpu $cpu: $accel"
[ "$accel" = "aes=1 sha256=1" ] || { echo "the instruction paths were not chosen" >&2; exit 1; }

# Aes.* and Sha256.* are crypto_test, each also as .portable (ZIRN_TEST_PORTABLE=1).  The tool
# tests start the project's executables through ZIRN_TEST_RUNNER.
ZIRN_TEST_RUNNER="qemu-aarch64 -cpu $cpu" ctest --test-dir build-aarch64 --output-on-failure --no-tests=error \
  -j "$(nproc)" -R '^(Aes\.|Sha256\.|Pss\.WycheproofVectors$|Signer\.ProtectsImagesOfEverySize$|Zirnimg\.RoundTripsWithTheSignerAndOpenSsl$)'

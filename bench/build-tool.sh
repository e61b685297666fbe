#!/usr/bin/env bash
# Shared by the benchmark scripts: an optimised build in build-bench/ of the
# tool and of the one-process OpenSSL reference job.  Prints the tool's path.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DZIRN_BUILD_BENCHMARKS=ON >/dev/null
cmake --build build-bench --target ZirnImgSignEnTool openssl_job >/dev/null
echo "$PWD/build-bench/tool/ZirnImgSignEnTool"

#!/usr/bin/env bash
# Shared by the benchmark scripts: an optimised build of the tool alone in
# build-bench/.  Prints the executable's path.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build build-bench --target ZirnImgSignEnTool >/dev/null
echo "$PWD/build-bench/tool/ZirnImgSignEnTool"

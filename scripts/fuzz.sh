#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build-fuzz/ and runs each for SECONDS (default 60)
# on a scratch copy of its corpus in fuzz/corpus/, which is only read.  Fails on any finding; the
# input that caused it is left in build-fuzz/findings/ (keep it in fuzz/corpus/<target>/).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
targets=(cfg hex pss_decode route mpi image)
scripts/install-deps.sh  # clang among them

cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF -DZIRN_FUZZ=ON \
  -DZIRN_WERROR=ON -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build build-fuzz --target "${targets[@]/#/fuzz_}"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir -p build-fuzz/findings
status=0
for t in "${targets[@]}"; do
  cp -r "fuzz/corpus/$t" "$scratch/$t"
  echo "== fuzz_$t for ${seconds}s"
  if ! build-fuzz/fuzz/"fuzz_$t" -max_total_time="$seconds" -timeout=30 -print_final_stats=1 \
      -artifact_prefix="build-fuzz/findings/$t-" "$scratch/$t" >"$scratch/$t.log" 2>&1; then
    tail -n 40 "$scratch/$t.log"
    status=1
  fi
  grep -E '^#[0-9]' "$scratch/$t.log" | tail -n 1
  grep 'stat::average_exec_per_sec' "$scratch/$t.log" || true
done
exit $status

#!/usr/bin/env bash
# Installs what the build and the tests need beyond a fresh build machine:
# GoogleTest, Google Benchmark, OpenSSL headers (test oracle only) and the
# JSON reader the tests use for the published vector files, qemu-user (the
# executables tested as older processors) and valgrind (memory checks).
set -euo pipefail
pkgs=(cmake ninja-build g++ clang libgtest-dev libbenchmark-dev libssl-dev openssl nlohmann-json3-dev qemu-user valgrind)
missing=()
for p in "${pkgs[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
fi

#!/usr/bin/env bash
# Installs what the build and the tests need beyond a fresh build machine:
# GoogleTest, Google Benchmark, OpenSSL headers (test oracle only) and the
# JSON reader the tests use for the published vector files, qemu-user (the
# executables tested as older processors), valgrind (memory checks), what the package and its
# test use: dpkg-shlibdeps (dpkg-dev), man and groff; and p11-kit, SoftHSM2 and OpenSC (the
# PKCS#11 key source and its test token).
# Further packages may be named as arguments; an arm64 one (name:arm64)
# first adds that architecture to dpkg.
set -euo pipefail
pkgs=(cmake ninja-build g++ clang libgtest-dev libbenchmark-dev libssl-dev openssl nlohmann-json3-dev qemu-user valgrind
      dpkg-dev man-db groff-base pkg-config libp11-kit-dev p11-kit p11-kit-modules softhsm2 opensc "$@")
# A name installed for two architectures is ambiguous to dpkg: then the native one is asked for.
native=$(dpkg --print-architecture)
missing=()
for p in "${pkgs[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || dpkg -s "$p:$native" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  if [[ " ${missing[*]}" == *:arm64* ]] && ! dpkg --print-foreign-architectures | grep -qx arm64; then
    "${sudo_cmd[@]}" dpkg --add-architecture arm64
  fi
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
fi

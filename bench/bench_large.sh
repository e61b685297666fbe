#!/usr/bin/env bash
# Protects a 256 MiB image and reports the time and the tool's peak memory,
# which should stay near the padded image size plus a small constant (the
# image is encrypted in place; there is no second copy).  Then checks the
# output's size and signature with the openssl command.
#
#   bench/bench_large.sh [MiB]          (default 256)
set -euo pipefail
cd "$(dirname "$0")/.."
mib=${1:-256}

cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DZIRN_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench --target ZirnImgSignEnTool >/dev/null
tool=$PWD/build-bench/tool/ZirnImgSignEnTool
cfg=$PWD/example/dev_zirn_img_prot.NOT_FOR_PRODUCTION.cfg
key=$PWD/example/dev_key.NOT_FOR_PRODUCTION.pem

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
in=$work/big.img
head -c $((mib * 1024 * 1024 - 3)) /dev/urandom > "$in"
/usr/bin/time -f '%e %M' -o "$work/t" "$tool" "$cfg" "$in" "$work/out" 0xFFFFFFFF > "$work/log"
read -r secs rss < "$work/t"
size=$(stat -c %s "$in")
padded=$(( (size + 15) / 16 * 16 ))
echo "image: $size bytes, padded $padded bytes"
echo "time: $secs s, peak RSS: $((rss / 1024)) MiB (padded image $((padded / 1048576)) MiB, overhead $(( (rss * 1024 - padded) / 1048576 )) MiB)"

[ "$(stat -c %s "$work/out")" -eq $((576 + padded)) ] || { echo "wrong output size"; exit 1; }
head -c 316 "$work/out" > "$work/signed"; head -c 256 /dev/zero >> "$work/signed"
tail -c +573 "$work/out" >> "$work/signed"
head -c 572 "$work/out" | tail -c 256 > "$work/sig"
openssl rsa -in "$key" -pubout -out "$work/pub.pem" 2>/dev/null
openssl dgst -sha256 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:32 \
  -sigopt rsa_mgf1_md:sha256 -verify "$work/pub.pem" -signature "$work/sig" "$work/signed"

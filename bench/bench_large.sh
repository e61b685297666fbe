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

tool=$(bench/build-tool.sh)
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

scripts/verify-openssl.sh "$work/out" "$key"

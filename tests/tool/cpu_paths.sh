#!/usr/bin/env bash
# Runs the signer under qemu-x86_64 as processors without the AES instructions
# and SHA extensions (qemu64: table AES, portable SHA-256) and with the AES
# instructions only (Westmere: AES instructions, portable SHA-256), and checks
# every image with the openssl command: the signature, and the ciphertext
# decrypting to the zero-padded input.  Skipped when qemu-x86_64 is missing.
#
#   tests/tool/cpu_paths.sh PATH/TO/ZirnImgSignEnTool
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 ZirnImgSignEnTool" >&2; exit 2; }
command -v qemu-x86_64 >/dev/null || { echo "cpu_paths: qemu-x86_64 not found, skipped"; exit 0; }
tool=$(realpath "$1")
root=$(cd "$(dirname "$0")/../.." && pwd)
cfg=$root/example/dev_zirn_img_prot.NOT_FOR_PRODUCTION.cfg
pem=$root/example/dev_key.NOT_FOR_PRODUCTION.pem
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
enc=$(sed -n 's/^ENC_PARAM *= *0x\([0-9a-fA-F]*\).*/\1/p' "$cfg")
iv=${enc:0:32} key=${enc:32:32}  # IV first, then the key
# A second, larger image of fixed pseudo-random bytes with a partial last block.
head -c 70001 /dev/zero | openssl enc -aes-128-ctr -K 00112233445566778899aabbccddeeff \
  -iv 00000000000000000000000000000000 > "$tmp/big.img"

fail() { echo "cpu_paths: $*"; exit 1; }
for cpu in qemu64 Westmere; do
  for img in "$root/example/sample_zirn.img" "$tmp/big.img"; do
    out=$tmp/out.img what="$cpu, $(basename "$img")"
    qemu-x86_64 -cpu "$cpu" "$tool" "$cfg" "$img" "$out" 0x00200000 > "$tmp/log" ||
      { cat "$tmp/log"; fail "$what: the signer failed"; }
    "$root/scripts/verify-openssl.sh" "$out" "$pem" > /dev/null || fail "$what: bad signature"
    size=$(( ($(stat -c %s "$img") + 15) / 16 * 16 ))
    [ "$(od -An -tu4 -j24 -N4 "$out" | tr -d ' ')" -eq "$size" ] || fail "$what: wrong encrypted size"
    cp "$img" "$tmp/padded" && truncate -s "$size" "$tmp/padded"
    tail -c +577 "$out" | openssl enc -d -aes-128-cbc -nopad -K "$key" -iv "$iv" |
      cmp -s - "$tmp/padded" || fail "$what: the ciphertext does not decrypt to the zero-padded input"
    echo "cpu_paths: $what: OK"
  done
done

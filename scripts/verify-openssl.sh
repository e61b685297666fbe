#!/usr/bin/env bash
# Checks a protected image with the openssl command alone: the RSA-PSS
# signature (SHA-256, MGF1-SHA-256, salt 32) over the header with its
# signature field (bytes 316..571) zeroed, followed by the ciphertext, and the
# file size 576 + encrypted size.
#
#   scripts/verify-openssl.sh PROTECTED.img KEY.pem     (private or public key)
set -euo pipefail
[ $# -eq 2 ] || { echo "usage: $0 PROTECTED.img KEY.pem" >&2; exit 2; }
img=$1
key=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

enc_size=$(od -An -tu4 -j24 -N4 "$img" | tr -d ' ')
[ "$(stat -c %s "$img")" -eq $((576 + enc_size)) ] ||
  { echo "wrong file size for an encrypted size of $enc_size" >&2; exit 1; }
head -c 316 "$img" > "$tmp/signed"
head -c 256 /dev/zero >> "$tmp/signed"
tail -c +573 "$img" >> "$tmp/signed"
head -c 572 "$img" | tail -c 256 > "$tmp/sig"
if grep -q "PUBLIC KEY" "$key"; then cp "$key" "$tmp/pub.pem"
else openssl pkey -in "$key" -pubout -out "$tmp/pub.pem"; fi
openssl dgst -sha256 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:32 \
  -sigopt rsa_mgf1_md:sha256 -verify "$tmp/pub.pem" -signature "$tmp/sig" "$tmp/signed"

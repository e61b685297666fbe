#!/usr/bin/env bash
# Builds the tool and protects the bundled sample image with the bundled
# development configuration (NOT FOR PRODUCTION), leaving the result in
# out/sample_zirn.prot.img; then checks that file with the openssl command.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake -S . -B build-example -G Ninja -DCMAKE_BUILD_TYPE=Release -DZIRN_BUILD_TESTS=OFF >/dev/null
cmake --build build-example --target ZirnImgSignEnTool
mkdir -p out

build-example/tool/ZirnImgSignEnTool example/dev_zirn_img_prot.NOT_FOR_PRODUCTION.cfg \
  example/sample_zirn.img out/sample_zirn.prot.img 0x00200000

# Independent check: the signature covers the header with its signature
# field (bytes 316..571) zeroed, followed by the ciphertext.
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
img=out/sample_zirn.prot.img
head -c 316 "$img" > "$tmp/signed"
head -c 256 /dev/zero >> "$tmp/signed"
tail -c +573 "$img" >> "$tmp/signed"
head -c 572 "$img" | tail -c 256 > "$tmp/sig"
openssl rsa -in example/dev_key.NOT_FOR_PRODUCTION.pem -pubout -out "$tmp/pub.pem" 2>/dev/null
echo
echo "Protected image: $img ($(stat -c %s "$img") bytes)"
echo -n "openssl RSA-PSS check of the signature: "
openssl dgst -sha256 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:32 \
  -sigopt rsa_mgf1_md:sha256 -verify "$tmp/pub.pem" -signature "$tmp/sig" "$tmp/signed"

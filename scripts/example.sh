#!/usr/bin/env bash
# Builds the tool and protects the bundled sample image with the bundled
# development configuration (NOT FOR PRODUCTION), leaving the result in
# out/sample_zirn.prot.img; then checks that file with the openssl command.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake -S . -B build-example -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build build-example --target ZirnImgSignEnTool
mkdir -p out

build-example/tool/ZirnImgSignEnTool example/dev_zirn_img_prot.NOT_FOR_PRODUCTION.cfg \
  example/sample_zirn.img out/sample_zirn.prot.img 0x00200000

echo
echo "Protected image: out/sample_zirn.prot.img ($(stat -c %s out/sample_zirn.prot.img) bytes)"
echo -n "Independent check with the openssl command: "
scripts/verify-openssl.sh out/sample_zirn.prot.img example/dev_key.NOT_FOR_PRODUCTION.pem

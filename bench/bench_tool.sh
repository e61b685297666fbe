#!/usr/bin/env bash
# Times the whole tool against the same job done with the openssl command
# (pad, AES-128-CBC encryption, header + ciphertext, SHA-256 + RSA-PSS signing
# and verification) and against bench/openssl_job.cpp, the same job in one
# process on OpenSSL's fastest primitives, on 1, 16 and 64 MiB images,
# alternating the three; reports medians, the tool's ratio to each, its peak
# memory, minor page faults and system time.
#
#   bench/bench_tool.sh [rounds]        (default 7 rounds per size)
set -euo pipefail
cd "$(dirname "$0")/.."
rounds=${1:-7}

tool=$(bench/build-tool.sh)
job=$PWD/build-bench/bench/openssl_job
cfg=$PWD/example/dev_zirn_img_prot.NOT_FOR_PRODUCTION.cfg
key=$PWD/example/dev_key.NOT_FOR_PRODUCTION.pem
enc=$(awk '$1 == "ENC_PARAM" {print substr($3, 3)}' "$cfg")
iv=${enc:0:32}
aeskey=${enc:32:32}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
openssl rsa -in "$key" -pubout -out "$work/pub.pem" 2>/dev/null
head -c 576 /dev/zero > "$work/hdr"

openssl_job() {  # in out
  local in=$1 out=$2
  cp "$in" "$work/padded"
  truncate -s $(( ($(stat -c %s "$in") + 15) / 16 * 16 )) "$work/padded"
  openssl enc -aes-128-cbc -K "$aeskey" -iv "$iv" -nopad -in "$work/padded" -out "$work/ct"
  cat "$work/hdr" "$work/ct" > "$out"
  openssl dgst -sha256 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:32 \
    -sigopt rsa_mgf1_md:sha256 -sign "$key" -out "$work/sig" "$out"
  openssl dgst -sha256 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:32 \
    -sigopt rsa_mgf1_md:sha256 -verify "$work/pub.pem" -signature "$work/sig" "$out" >/dev/null
  dd if="$work/sig" of="$out" bs=1 seek=316 conv=notrunc status=none
}
export -f openssl_job
export work aeskey iv key

printf '%-7s %9s %9s %9s %8s %8s %9s %8s %7s %7s\n' size tool_s cli_s job_s tool/cli tool/job peak_MiB pad_MiB faults sys_s
for mib in 1 16 64; do
  in=$work/img_$mib
  head -c $((mib * 1024 * 1024 - 5)) /dev/urandom > "$in"
  : > "$work/t_tool"; : > "$work/t_ossl"; : > "$work/t_job"
  for ((r = 0; r < rounds; r++)); do
    /usr/bin/time -f '%e %M %R %S' -o "$work/tt" "$tool" "$cfg" "$in" "$work/out_tool" 0x10000000 >/dev/null
    cat "$work/tt" >> "$work/t_tool"
    /usr/bin/time -f '%e' -o "$work/to" bash -c 'openssl_job "$0" "$1"' "$in" "$work/out_ossl"
    cat "$work/to" >> "$work/t_ossl"
    /usr/bin/time -f '%e' -o "$work/tj" "$job" "$key" "$aeskey" "$iv" "$in" "$work/out_job" 0x10000000
    cat "$work/tj" >> "$work/t_job"
  done
  python3 - "$mib" "$work" "$in" <<'PY'
import os, statistics, sys
mib, work, img = sys.argv[1], sys.argv[2], sys.argv[3]
rows = [l.split() for l in open(f"{work}/t_tool")]
med = lambda xs: statistics.median(float(x) for x in xs)
tool, ossl, job = med(r[0] for r in rows), med(open(f"{work}/t_ossl")), med(open(f"{work}/t_job"))
rss = max(int(r[1]) for r in rows) / 1024
padded = ((os.path.getsize(img) + 15) // 16 * 16) / 2**20
print(f"{mib + ' MiB':<7} {tool:9.3f} {ossl:9.3f} {job:9.3f} {tool / ossl:8.2f} {tool / job:8.2f} {rss:9.1f} {padded:8.1f}"
      f" {med(r[2] for r in rows):7.0f} {med(r[3] for r in rows):7.2f}")
PY
done

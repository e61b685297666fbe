#!/usr/bin/env bash
# Writes a protection configuration file to standard output from an RSA-2048
# private key in PEM form (as made by `openssl genrsa 2048`).
#
#   scripts/make-cfg.sh KEY.pem [IMG_VER] [ENC_PARAM] [DEC_PARAM] > prot.cfg
#
# IMG_VER: 4 hex digits (default 0100).  ENC_PARAM: 64 hex digits, the AES IV
# followed by the AES key (default: fresh random bytes from openssl rand).
# DEC_PARAM: 64 hex digits for the image's consumer (default: zeros).
set -euo pipefail
[ $# -ge 1 ] || { echo "usage: $0 KEY.pem [IMG_VER] [ENC_PARAM] [DEC_PARAM]" >&2; exit 2; }
key=$1
img_ver=${2:-0100}
enc_param=${3:-$(openssl rand -hex 32)}
dec_param=${4:-$(printf '0%.0s' {1..64})}

# One component of `openssl rsa -text` as exactly 512 hex digits.
component() {
  local hex
  hex=$(openssl rsa -in "$key" -noout -text 2>/dev/null |
        awk -v name="$1:" '$1 == name {on = 1; next} on && /^[^ ]/ {on = 0} on {print}' |
        tr -d ' :\n')
  # Drop the sign byte openssl prints before a value with its top bit set.
  while [ ${#hex} -gt 512 ] && [ "${hex:0:2}" = "00" ]; do hex=${hex:2}; done
  [ ${#hex} -le 512 ] || { echo "error: $1 is longer than 2048 bits" >&2; exit 1; }
  printf '%512s' "$hex" | tr ' ' 0
}

n=$(component modulus)
d=$(component privateExponent)
[ "$(openssl rsa -in "$key" -noout -text 2>/dev/null | awk '/^publicExponent:/ {print $2}')" = 65537 ] ||
  { echo "error: the public exponent must be 65537" >&2; exit 1; }
[ "${n:0:1}" != 0 ] || { echo "error: the modulus must be 2048 bits" >&2; exit 1; }
for v in "$img_ver:4:IMG_VER" "$enc_param:64:ENC_PARAM" "$dec_param:64:DEC_PARAM"; do
  IFS=: read -r val len name <<<"$v"
  [[ $val =~ ^[0-9a-fA-F]+$ && ${#val} -eq $len ]] ||
    { echo "error: $name must be $len hex digits" >&2; exit 1; }
done

cat <<CFG
# zirn image protection configuration
IMG_VER = 0x$img_ver
ENC_PARAM = 0x$enc_param
DEC_PARAM = 0x$dec_param
AUTH_PARAM_N = 0x$n
AUTH_PARAM_D = 0x$d
CFG

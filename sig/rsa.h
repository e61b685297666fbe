// Verification side ("platform flow"): RSA public-key operation with the
// fixed exponent 65537 on little-endian arrays of 32-bit words, and PSS
// decoding.  Shares no code with the big-integer module; no heap in the
// word arithmetic, only 32-bit multiplies and divides.
#pragma once

#include <cstdint>

// r[0] (low word), r[1] (high word) = a * b.  Returns 0.
uint32_t spMultiply(uint32_t r[2], uint32_t a, uint32_t b);

// (u[1]:u[0]) / d for a normalised divisor (top bit set): *q = low 32 bits of
// the quotient, *r = remainder.  Returns bit 32 of the quotient (0 or 1), or
// 0xFFFFFFFF (with *q = *r = 0) when d is not normalised.
uint32_t spDivide(uint32_t *q, uint32_t *r, const uint32_t u[2], uint32_t d);

// dst = src << shift (resp. >> shift) over n words; dst may equal src.
// Returns the bits pushed out, right-aligned (left) / left-aligned (right).
uint32_t mpShiftLeft(uint32_t *dst, const uint32_t *src, uint32_t shift, uint32_t n);
uint32_t mpShiftRight(uint32_t *dst, const uint32_t *src, uint32_t shift, uint32_t n);

// result = a * b mod modulus, all 64-word numbers (least significant word
// first); a, b and result may be the same array.  The modulus is shifted in
// place during the call and restored before return, so it must not be shared
// with a concurrent call.  Scratch (128 words each) is the caller's.
// Returns 0.
uint32_t mpMultiplyMod(uint32_t result[64], const uint32_t a[64], const uint32_t b[64],
                       uint32_t modulus[64], uint32_t product[128], uint32_t quotient[128],
                       uint32_t remainder[128]);

// out = base ^ 65537 mod modulus (64-word numbers).  modulus is borrowed as
// for mpMultiplyMod and comes back unchanged.  Returns 0.
uint32_t RSADecryption65537(const uint32_t base[64], uint32_t modulus[64], uint32_t out[64]);

// EMSA-PSS verification of the encoded message sig (siglen bytes) against
// msghash.  *res is set to 0 early and to 1 only when the hash matches.
// Returns 0 when the check ran to its end (match or not); -1 null res or
// msghash (res untouched); -2 bad lengths; -3 out of memory; -4 trailer;
// -5 leading bits; -6 PS byte; -7 separator; or an MGF1 / SHA-256 code.
int32_t pkcs_1_pss_decode_sha256(const uint8_t *msghash, uint32_t msghashlen, const uint8_t *sig,
                                 uint32_t siglen, uint32_t saltlen, uint32_t modulus_bitlen,
                                 int32_t *res);

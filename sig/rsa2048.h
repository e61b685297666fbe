// Signing side: PSS encoding with MGF1 over SHA-256, and the RSA private-key
// operation on big-endian byte strings.  All messages go to standard output.
#pragma once

#include <cstdint>

// MGF1 with SHA-256: writes masklen bytes of mask generated from seed.
// Returns 0; -1 null seed or mask; -2 out of memory; or the code of a
// failing SHA-256 call (bytes already produced stay written).
int32_t pkcs_1_mgf1_sha256(const uint8_t *seed, uint32_t seedlen, uint8_t *mask, uint32_t masklen);

// EMSA-PSS encoding of msghash (msghashlen bytes fed into M', not checked
// against 32) with a fresh salt of saltlen bytes for a modulus of
// modulus_bitlen bits.  *outlen: capacity of out on entry, emLen on return.
// Returns 0; -1 null argument; -2 bad salt length; -3 out of memory;
// -4 capacity below emLen (nothing written); or a SHA-256 / MGF1 code.
int32_t pkcs_1_pss_encode_sha256(const uint8_t *msghash, uint32_t msghashlen, uint32_t saltlen,
                                 uint32_t modulus_bitlen, uint8_t *out, uint32_t *outlen);

// out = in ^ key mod modulus, written big-endian and right-aligned in
// exactly k = (byte length of the modulus as a number) bytes.
// *outlen: capacity on entry, k on return (on success and on -6).
// Returns 0; -1 bad argument; -2/-3/-4 integer set-up failed; -5 modulus <
// input; -6 capacity < k; -7 result longer than k; or a big-integer code.
int32_t rsa_exptmod(const uint8_t *in, int32_t inlen, uint8_t *out, uint32_t *outlen,
                    const uint8_t *key, int32_t keylen, const uint8_t *modulus, int32_t modlen);

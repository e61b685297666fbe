// Unit-internal entry of the PSS encoder.  pkcs_1_pss_encode_sha256 is this
// call with salt == nullptr; the tests pass a salt of their own to replay
// known encodings.
#pragma once

#include <cstdint>

// Same checks, messages, results and output as pkcs_1_pss_encode_sha256.
// salt: nullptr to draw saltlen bytes from the clock-seeded generator, or
// saltlen bytes to use as they are.
int32_t s_pkcs_1_pss_encode_sha256(const uint8_t *msghash, uint32_t msghashlen, const uint8_t *salt,
                                   uint32_t saltlen, uint32_t modulus_bitlen, uint8_t *out,
                                   uint32_t *outlen);

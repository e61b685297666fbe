// Inside the prot module only: the RSA step of the independent verification route, shared by the
// signature check and the diagnosis of a signature that fails it, so both see the same block.
#pragma once

#include <cstdint>

// em = sig ^ 65537 mod n through RSADecryption65537 on 32-bit word arrays; all three 256 bytes,
// big-endian.  Reduces nothing first: callers that care refuse sig >= n before.
void vZIRNRecoverBlockV10(const uint8_t n[256], const uint8_t sig[256], uint8_t em[256]);

// Independent answers from OpenSSL's libcrypto, for tests only: key pairs,
// RSA-PSS verification, the raw public-key operation, AES-128-CBC, SHA-256.
#pragma once

#include <string>

#include "testutil.h"

namespace zt {

// RSA-2048 key pair with e = 65537; n and d as 256-byte big-endian strings.
struct RsaKey {
    Bytes n, d;
};

// The i-th key of a per-process cache (generated on first use).
const RsaKey &test_key(int i);

// RSA-PSS verification of sig over msg: SHA-256, MGF1-SHA-256, salt 32, e = 65537.
bool pss_verify_sha256(const Bytes &n, const Bytes &msg, const Bytes &sig);
// sig ^ 65537 mod n as a 256-byte big-endian string.
Bytes rsa_public_raw(const Bytes &n, const Bytes &sig);
Bytes aes128_cbc_decrypt(const Bytes &key, const Bytes &iv, const Bytes &ct);
Bytes sha256_of(const Bytes &msg);

// Text of a configuration file with the five keys, values as 0x + hex.
std::string cfg_text(const Bytes &img_ver, const Bytes &iv, const Bytes &key, const Bytes &dec_param,
                     const Bytes &n, const Bytes &d);

}  // namespace zt

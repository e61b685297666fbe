// Independent answers from OpenSSL's libcrypto, for tests only.
#pragma once

#include <algorithm>
#include <memory>
#include <string>

#include <openssl/bn.h>

#include "testutil.h"

namespace zt {

// RSA-2048 key pairs with e = 65537: n and d as 256-byte big-endian strings, e without leading
// zeros. Key 0 is the bundled development key, key 1 tests/vectors/second_key.pem.
struct RsaKey {
    Bytes n, e, d;
};
const RsaKey &test_key(int i);
// Signature with key i over a SHA-256 digest: PSS with salt_len and MGF1 over mgf1 (an OpenSSL
// digest name), or PKCS#1 v1.5 when salt_len < 0.
Bytes sign_digest(int key, const Bytes &digest, int salt_len, const char *mgf1 = "SHA256");

// base ^ exp mod n, big-endian, left-padded to len bytes (0: minimal length).
Bytes modexp(const Bytes &base, const Bytes &exp, const Bytes &n, size_t len = 256);
// s + n in 256 bytes, or empty when it does not fit.
Bytes plus_n(const Bytes &s, const Bytes &n);
// EMSA-PSS check (SHA-256, MGF1-SHA-256) of an encoded message for a modulus of `bits` bits.
bool pss_accepts_em(const Bytes &mhash, const Bytes &em, uint32_t bits, int salt_len = 32);
// Unpadded one-shot cipher, e.g. "AES-128-CBC", "AES-192-ECB", "AES-128-CTR".
Bytes cipher(const char *name, const Bytes &key, const Bytes &iv, const Bytes &in, bool enc);
Bytes sha256(const Bytes &msg);
Bytes mgf1(const Bytes &seed, size_t len);

struct BnFree {
    void operator()(BIGNUM *b) const { BN_free(b); }
};
using Bn = std::unique_ptr<BIGNUM, BnFree>;
Bn bn(const Bytes &be, bool negative = false);
BN_CTX *bn_ctx();  // one per program

// RSA-PSS signature over msg with salt length 32 and e = 65537.
inline bool pss_verify(const Bytes &n, const Bytes &msg, const Bytes &sig)
{
    return pss_accepts_em(sha256(msg), modexp(sig, {0x01, 0x00, 0x01}, n), 2048);
}

// A protected image with its signature zeroed: what the signature covers.
inline Bytes signed_part(Bytes image) { return std::fill_n(image.begin() + 316, 256, 0), image; }
// The protected image's signature verifies under modulus n.
inline bool image_verifies(const Bytes &image, const Bytes &n)
{
    return pss_verify(n, signed_part(image), slice(image, 316, 256));
}
// A configuration file with the five keys; d defaults to the key's own.
std::string cfg_text(const Bytes &img_ver, const Bytes &iv, const Bytes &aes_key,
                     const Bytes &dec_param, const RsaKey &rsa, const Bytes *d = nullptr);

}  // namespace zt

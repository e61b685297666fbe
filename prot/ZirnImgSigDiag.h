// Why an image signature does not verify, in the user's terms.  The public-key operation gives
// back the block the signer encoded; its layout tells which signing parameters were used and
// whether this key made it.  Everything here is public data; nothing is printed.
#pragma once

#include <cstdint>
#include <string>

// One answer per signature, decided in this order: s >= n; the image's own PSS layout (MGF1 over
// SHA-256, any salt length); the PKCS#1 v1.5 layout; the PSS layout with MGF1 over SHA-1; none.
enum ZirnSigDiagKind : int32_t {
    ZIRN_SIG_VALID,               // PSS, SHA-256, MGF1-SHA-256, salt 32, over this digest: verifies
    ZIRN_SIG_NOT_BELOW_MODULUS,   // s >= n (e.g. s + n): malleable, refused before any arithmetic
    ZIRN_SIG_PKCS1_V15,           // a PKCS#1 v1.5 signature (00 01 FF.. 00 DigestInfo) instead of PSS
    ZIRN_SIG_PSS_SALT,            // PSS over this digest with another salt length (salt_len)
    ZIRN_SIG_MGF1_HASH,           // PSS over this digest with MGF1 over another hash (mgf1_hash)
    ZIRN_SIG_DIGEST_HASHED_TWICE, // PSS over SHA-256(digest): a message-hashing mechanism applied to the digest
    ZIRN_SIG_CONTENT_CHANGED,     // a well-formed PSS signature by this key, over other content:
                                  // the header or the ciphertext changed after signing
    ZIRN_SIG_WRONG_KEY,           // no structure at all: made with another key, or not an RSA signature
};

// salt_len and mgf1_hash ("SHA-256" or "SHA-1") describe the PSS block found, for VALID, PSS_SALT,
// MGF1_HASH, DIGEST_HASHED_TWICE and CONTENT_CHANGED; for the other kinds they are -1 and nullptr.
struct ZirnSigDiag {
    ZirnSigDiagKind kind;
    int32_t salt_len;
    const char *mgf1_hash;
};

// n, sig: 256 bytes big-endian; digest: the SHA-256 the signature should cover.  For s < n the
// answer is ZIRN_SIG_VALID exactly when iVerifyZIRNImgSigV10 accepts sig over digest.
ZirnSigDiag stDiagnoseZIRNImgSigV10(const uint8_t n[256], const uint8_t sig[256], const uint8_t digest[32]);

// Stable machine-readable name of a kind (JSON "kind"): "valid", "signature_not_below_modulus",
// "pkcs1_v1_5", "pss_salt_length", "mgf1_hash", "digest_hashed_twice", "content_changed",
// "wrong_key"; "unknown" for a value outside the enum.
const char *pcZIRNSigDiagNameV10(ZirnSigDiagKind kind);

// One sentence for the user, without a final period, e.g.
// "the signature is PSS with a salt of 20 bytes; images need 32".
std::string sZIRNSigDiagTextV10(const ZirnSigDiag &d);

// RFC 8017 RSAVP1 step 1: true when the 256-byte big-endian s is smaller than n.
bool bZIRNSigBelowModulusV10(const uint8_t n[256], const uint8_t sig[256]);

#include "ZirnImgSigDiag.h"

#include <cstring>

#include "ZirnImgProt_internal.h"
#include "sha1.h"
#include "sha256.h"

namespace {

constexpr uint32_t EM_BYTES = 256;                     // encoded block of a 2048-bit key
constexpr uint32_t HASH_BYTES = 32;                    // SHA-256, the hash H of the PSS block
constexpr uint32_t DB_BYTES = EM_BYTES - HASH_BYTES - 1;
constexpr int32_t IMAGE_SALT = 32;
// The route decodes 2047-bit blocks: the top bit of the block, and of the unmasked DB, is not data.
constexpr uint8_t TOP_MASK = 0x7F;

using HashFn = void (*)(const uint8_t *in, size_t len, uint8_t *out);

void vSha256(const uint8_t *in, size_t len, uint8_t *out) { sha256(in, uint32_t(len), out); }

// MGF1 over hash (of hash_len bytes) from the 32-byte seed H, xored into db.
void vXorMgf1(HashFn hash, uint32_t hash_len, const uint8_t seed[HASH_BYTES], uint8_t db[DB_BYTES])
{
    uint8_t in[HASH_BYTES + 4], out[HASH_BYTES];
    memcpy(in, seed, HASH_BYTES);
    for (uint32_t counter = 0, done = 0; done < DB_BYTES; counter++) {
        for (int i = 0; i < 4; i++) in[HASH_BYTES + i] = uint8_t(counter >> (24 - 8 * i));
        hash(in, sizeof in, out);
        for (uint32_t i = 0; i < hash_len && done < DB_BYTES; i++) db[done++] ^= out[i];
    }
}

// PSS layout of em under MGF1 over hash: 0xBC trailer, top bit clear, and DB unmasked into db as
// zero padding, 0x01, salt.  Returns the salt length (the salt ends db), or -1 without the layout.
int32_t iPssSaltLen(const uint8_t em[EM_BYTES], HashFn hash, uint32_t hash_len, uint8_t db[DB_BYTES])
{
    if (em[EM_BYTES - 1] != 0xBC || (em[0] & ~TOP_MASK) != 0) return -1;
    memcpy(db, em, DB_BYTES);
    vXorMgf1(hash, hash_len, em + DB_BYTES, db);
    db[0] &= TOP_MASK;
    uint32_t i = 0;
    while (i < DB_BYTES && db[i] == 0) i++;
    if (i == DB_BYTES || db[i] != 0x01) return -1;
    return int32_t(DB_BYTES - 1 - i);
}

// H = SHA-256(8 zero bytes || mhash || salt), H being the 32 bytes before em's trailer.
bool bPssCovers(const uint8_t em[EM_BYTES], const uint8_t *salt, int32_t salt_len, const uint8_t mhash[HASH_BYTES])
{
    uint8_t m[8 + HASH_BYTES + DB_BYTES] = {}, h[HASH_BYTES];
    memcpy(m + 8, mhash, HASH_BYTES);
    memcpy(m + 8 + HASH_BYTES, salt, size_t(salt_len));
    sha256(m, uint32_t(8 + HASH_BYTES + salt_len), h);
    return memcmp(h, em + DB_BYTES, HASH_BYTES) == 0;
}

// 00 01, at least eight FF, 00, then the DigestInfo (whichever hash it names).
bool bPkcs1V15Layout(const uint8_t em[EM_BYTES])
{
    if (em[0] != 0x00 || em[1] != 0x01) return false;
    uint32_t i = 2;
    while (i < EM_BYTES && em[i] == 0xFF) i++;
    return i >= 10 && i < EM_BYTES - 1 && em[i] == 0x00;
}

// What em is under MGF1 over one hash: WRONG_KEY without the PSS layout, CONTENT_CHANGED when its H
// covers neither the digest nor the digest hashed again.
ZirnSigDiag stUnderMgf1(const uint8_t em[EM_BYTES], HashFn hash, uint32_t hash_len, const char *name,
                        const uint8_t digest[HASH_BYTES])
{
    uint8_t db[DB_BYTES], twice[HASH_BYTES];
    const int32_t salt_len = iPssSaltLen(em, hash, hash_len, db);
    if (salt_len < 0) return {ZIRN_SIG_WRONG_KEY, -1, nullptr};
    const uint8_t *salt = db + DB_BYTES - salt_len;
    sha256(digest, HASH_BYTES, twice);
    ZirnSigDiagKind kind = ZIRN_SIG_CONTENT_CHANGED;
    if (bPssCovers(em, salt, salt_len, digest)) {
        if (hash != vSha256) kind = ZIRN_SIG_MGF1_HASH;
        else kind = salt_len == IMAGE_SALT ? ZIRN_SIG_VALID : ZIRN_SIG_PSS_SALT;
    } else if (bPssCovers(em, salt, salt_len, twice)) {
        kind = ZIRN_SIG_DIGEST_HASHED_TWICE;
    }
    return {kind, salt_len, name};
}

bool bCoversDigest(const ZirnSigDiag &d)
{
    return d.kind != ZIRN_SIG_CONTENT_CHANGED && d.kind != ZIRN_SIG_WRONG_KEY;
}

}  // namespace

bool bZIRNSigBelowModulusV10(const uint8_t n[EM_BYTES], const uint8_t sig[EM_BYTES])
{
    // Equal lengths, most significant byte first: byte order is numeric order.
    return memcmp(sig, n, EM_BYTES) < 0;
}

ZirnSigDiag stDiagnoseZIRNImgSigV10(const uint8_t n[EM_BYTES], const uint8_t sig[EM_BYTES],
                                    const uint8_t digest[HASH_BYTES])
{
    if (!bZIRNSigBelowModulusV10(n, sig)) return {ZIRN_SIG_NOT_BELOW_MODULUS, -1, nullptr};
    uint8_t em[EM_BYTES];
    vZIRNRecoverBlockV10(n, sig, em);

    // The image's own layout first, so that what the route accepts is found before anything else.
    const ZirnSigDiag own = stUnderMgf1(em, vSha256, HASH_BYTES, "SHA-256", digest);
    if (bCoversDigest(own)) return own;
    if (bPkcs1V15Layout(em)) return {ZIRN_SIG_PKCS1_V15, -1, nullptr};
    // A layout alone is weak evidence: about one block in 128 unmasks to 0x01 at the very start of
    // DB under any MGF1.  So a hash whose H covers the digest wins over a layout found by chance.
    const ZirnSigDiag sha1_mgf = stUnderMgf1(em, sha1, 20, "SHA-1", digest);
    if (bCoversDigest(sha1_mgf) || own.salt_len < 0) return sha1_mgf;
    return own;
}

const char *pcZIRNSigDiagNameV10(ZirnSigDiagKind kind)
{
    switch (kind) {
    case ZIRN_SIG_VALID: return "valid";
    case ZIRN_SIG_NOT_BELOW_MODULUS: return "signature_not_below_modulus";
    case ZIRN_SIG_PKCS1_V15: return "pkcs1_v1_5";
    case ZIRN_SIG_PSS_SALT: return "pss_salt_length";
    case ZIRN_SIG_MGF1_HASH: return "mgf1_hash";
    case ZIRN_SIG_DIGEST_HASHED_TWICE: return "digest_hashed_twice";
    case ZIRN_SIG_CONTENT_CHANGED: return "content_changed";
    case ZIRN_SIG_WRONG_KEY: return "wrong_key";
    }
    return "unknown";
}

std::string sZIRNSigDiagTextV10(const ZirnSigDiag &d)
{
    const std::string salt = d.salt_len >= 0 ? std::to_string(d.salt_len) : "?";
    const std::string mgf = d.mgf1_hash != nullptr ? d.mgf1_hash : "?";
    std::string text;
    switch (d.kind) {
    case ZIRN_SIG_VALID:
        return "the signature verifies: PSS with SHA-256, MGF1 over SHA-256 and a salt of 32 bytes";
    case ZIRN_SIG_NOT_BELOW_MODULUS:
        return "the signature is not smaller than the modulus (a valid one with the modulus added, for "
               "example); a signature must be below it";
    case ZIRN_SIG_PKCS1_V15:
        return "the signature is PKCS#1 v1.5; images need PSS with SHA-256, MGF1 over SHA-256 and a salt "
               "of 32 bytes";
    case ZIRN_SIG_PSS_SALT: return "the signature is PSS with a salt of " + salt + " bytes; images need 32";
    case ZIRN_SIG_WRONG_KEY:
        return "the signature has no structure under this key: it was made with another key, or it is "
               "not an RSA signature";
    case ZIRN_SIG_MGF1_HASH:
        text = "the signature is PSS with MGF1 over " + mgf + "; images need MGF1 over SHA-256";
        break;
    case ZIRN_SIG_DIGEST_HASHED_TWICE:
        text = "the signature covers the SHA-256 of the image's digest, not the digest: the signer hashed "
               "it again (sign the 32-byte digest with a mechanism that does not hash its input)";
        break;
    case ZIRN_SIG_CONTENT_CHANGED:
        text = "the signature was made with this key over other content: the header or the ciphertext "
               "changed after signing";
        break;
    default: return "the signature does not verify";
    }
    // A PSS block can be off in more than the kind's own way: the rest is named too.
    if (d.kind != ZIRN_SIG_MGF1_HASH && d.mgf1_hash != nullptr && mgf != "SHA-256")
        text += "; its MGF1 is over " + mgf + ", images need SHA-256";
    if (d.salt_len >= 0 && d.salt_len != IMAGE_SALT) text += "; its salt is " + salt + " bytes, images need 32";
    return text;
}

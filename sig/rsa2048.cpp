// Signing side: PSS encoding of the image hash and its mask generation
// function, both bound to SHA-256, and the RSA private-key operation on the
// big-integer module.
#include "rsa2048.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "hexdump.h"
#include "mpi.h"
#include "rsa2048_pss.h"
#include "sha256.h"
#include "workbuf.h"

#ifdef ZIRN_CT_CHECK
#include <valgrind/memcheck.h>
#endif

namespace {

constexpr uint32_t kHashLen = 32;

// The salt source of the encoder: the C library generator, reseeded from the
// clock once per call.  Encodings made within the same second therefore
// share their salt; bytes range over 0..254.
void lvDrawSalt(uint8_t *salt, uint32_t saltlen)
{
    srand(static_cast<unsigned>(time(nullptr)));
    for (uint32_t i = 0; i < saltlen; i++) salt[i] = static_cast<uint8_t>(rand() % 255);
}

}  // namespace

int32_t pkcs_1_mgf1_sha256(const uint8_t *seed, uint32_t seedlen, uint8_t *mask, uint32_t masklen)
{
    if (mask == nullptr || seed == nullptr) {
        printf("Error: wrong input parameter for pkcs_1_mgf1_sha256 operation\n");
        return -1;
    }

    auto *ctx = static_cast<sha256_ctx *>(malloc(sizeof(sha256_ctx)));
    auto *digest = static_cast<uint8_t *>(malloc(kHashLen));
    // Both are wiped and released whichever way the function returns.
    struct Release {
        sha256_ctx *ctx;
        uint8_t *digest;
        ~Release()
        {
            if (digest != nullptr) {
                vWipeBuf(digest, kHashLen);
                free(digest);
            }
            if (ctx != nullptr) {
                vWipeBuf(ctx, sizeof(sha256_ctx));
                free(ctx);
            }
        }
    } release{ctx, digest};
    if (ctx == nullptr || digest == nullptr) {
        printf("Error: fail to allocate memory for pkcs_1_mgf1_sha256 operation\n");
        return -2;
    }

    uint32_t counter = 0;
    uint32_t produced = 0;
    while (produced < masklen) {
        // The counter goes big-endian into the digest buffer, which is then
        // hashed after the seed and overwritten by the digest.
        digest[0] = static_cast<uint8_t>(counter >> 24);
        digest[1] = static_cast<uint8_t>(counter >> 16);
        digest[2] = static_cast<uint8_t>(counter >> 8);
        digest[3] = static_cast<uint8_t>(counter);
        counter++;

        int rc = sha256_init(ctx);
        if (rc != 0) {
            printf("Error: fail to init sha256 for pkcs_1_mgf1_sha256 operation\n");
            return rc;
        }
        rc = sha256_process(ctx, seed, seedlen);
        if (rc != 0) {
            printf("Error: fail to process sha256 (1) for pkcs_1_mgf1_sha256 operation\n");
            return rc;
        }
        rc = sha256_process(ctx, digest, 4);
        if (rc != 0) {
            printf("Error: fail to process sha256 (2) for pkcs_1_mgf1_sha256 operation\n");
            return rc;
        }
        rc = sha256_done(ctx, digest);
        if (rc != 0) {
            printf("Error: fail to finish sha256 for pkcs_1_mgf1_sha256 operation\n");
            return rc;
        }

        for (uint32_t i = 0; i < kHashLen && produced < masklen; i++) mask[produced++] = digest[i];
    }
    return 0;
}

int32_t s_pkcs_1_pss_encode_sha256(const uint8_t *msghash, uint32_t msghashlen, const uint8_t *salt,
                                   uint32_t saltlen, uint32_t modulus_bitlen, uint8_t *out,
                                   uint32_t *outlen)
{
    if (msghash == nullptr || out == nullptr || outlen == nullptr) {
        printf("Error: wrong input parameter for pkcs_1_pss_encode_sha256 operation\n");
        return -1;
    }

    const uint32_t emLen = modulus_bitlen / 8 + (modulus_bitlen % 8 != 0 ? 1 : 0);
    if (saltlen > emLen || saltlen + kHashLen + 2 > emLen) {
        printf("Error: wrong input parameter length (m = %d, h = %d, s = %d) for "
               "pkcs_1_pss_encode_sha256 operation\n",
               static_cast<int>(emLen), static_cast<int>(kHashLen), static_cast<int>(saltlen));
        return -2;
    }

    // DB, mask, salt, digest.
    WipedBufs<4> work;
    if (!work.alloc(emLen)) {
        printf("Error: fail to allocate memory for pkcs_1_pss_encode_sha256 operation\n");
        return -3;
    }
    uint8_t *db = work.buf[0];
    uint8_t *mask = work.buf[1];
    uint8_t *saltBuf = work.buf[2];
    uint8_t *digest = work.buf[3];
    const uint32_t dbLen = emLen - kHashLen - 1;
    const uint32_t psLen = dbLen - 1 - saltlen;

    if (saltlen > 0) {
        if (salt == nullptr)
            lvDrawSalt(saltBuf, saltlen);
        else
            memcpy(saltBuf, salt, saltlen);
    }

    // H = SHA-256(8 zero bytes || message hash || salt).
    sha256_ctx ctx;
    struct WipeCtx {
        sha256_ctx *p;
        ~WipeCtx() { vWipeBuf(p, sizeof(*p)); }
    } wipeCtx{&ctx};
    int rc = sha256_init(&ctx);
    if (rc != 0) {
        printf("Error: fail to init sha256 for pkcs_1_pss_encode_sha256 operation\n");
        return rc;
    }
    memset(db, 0, 8);
    rc = sha256_process(&ctx, db, 8);
    if (rc != 0) {
        printf("Error: fail to process sha256 (1) for pkcs_1_pss_encode_sha256 operation\n");
        return rc;
    }
    rc = sha256_process(&ctx, msghash, msghashlen);
    if (rc != 0) {
        printf("Error: fail to process sha256 (2)  for pkcs_1_pss_encode_sha256 operation\n");
        return rc;
    }
    rc = sha256_process(&ctx, saltBuf, saltlen);
    if (rc != 0) {
        printf("Error: fail to process sha256 (3) for pkcs_1_pss_encode_sha256 operation\n");
        return rc;
    }
    rc = sha256_done(&ctx, digest);
    if (rc != 0) {
        printf("Error: fail to finish sha256 for pkcs_1_pss_encode_sha256 operation\n");
        return rc;
    }

    // DB = PS || 0x01 || salt, then masked with MGF1(H).
    memset(db, 0, psLen);
    db[psLen] = 0x01;
    memcpy(db + psLen + 1, saltBuf, saltlen);
    rc = pkcs_1_mgf1_sha256(digest, kHashLen, mask, dbLen);
    if (rc != 0) {
        printf("Error: fail to perform mgf1 for pkcs_1_pss_encode_sha256 operation\n");
        return rc;
    }
    for (uint32_t i = 0; i < dbLen; i++) db[i] ^= mask[i];

    if (*outlen < emLen) {
        *outlen = emLen;
        return -4;
    }

    memcpy(out, db, dbLen);
    memcpy(out + dbLen, digest, kHashLen);
    out[emLen - 1] = 0xBC;
    out[0] &= static_cast<uint8_t>(0xFFu >> ((8 * emLen + 1 - modulus_bitlen) & 31));
    *outlen = emLen;
    return 0;
}

int32_t pkcs_1_pss_encode_sha256(const uint8_t *msghash, uint32_t msghashlen, uint32_t saltlen,
                                 uint32_t modulus_bitlen, uint8_t *out, uint32_t *outlen)
{
    return s_pkcs_1_pss_encode_sha256(msghash, msghashlen, nullptr, saltlen, modulus_bitlen, out,
                                      outlen);
}

// Steps after the three integers are set up; the caller clears them on
// every path.
static int32_t rsa_exptmod_run(mp_int *tmp, mp_int *tmp_key, mp_int *tmp_n, const uint8_t *in, int32_t inlen,
                               uint8_t *out, uint32_t *outlen, const uint8_t *key, int32_t keylen,
                               const uint8_t *modulus, int32_t modlen)
{
    mp_err res = mp_read_unsigned_bin(tmp, in, inlen);
    if (res != MP_OK) {
        printf("Error: fail to read input data =>\n");
        vHexDumpBuf(in, inlen);
        return res;
    }
    res = mp_read_unsigned_bin(tmp_key, key, keylen);
    if (res != MP_OK) {
        printf("Error: fail to read rsa e/d exponent data =>\n");
        vHexDumpBuf(key, keylen);
        return res;
    }
    res = mp_read_unsigned_bin(tmp_n, modulus, modlen);
    if (res != MP_OK) {
        printf("Error: fail to read rsa n data =>\n");
        vHexDumpBuf(modulus, modlen);
        return res;
    }

    // An input equal to the modulus is let through; it yields zero.
    if (mp_cmp(tmp_n, tmp) == MP_LESS) {
        printf("Error: rsa n is smaller than input data\n");
        printf("RSA N =>\n");
        vHexDumpBuf(modulus, modlen);
        printf("Input Data =>\n");
        vHexDumpBuf(in, inlen);
        return -5;
    }

    res = mp_exptmod(tmp, tmp_key, tmp_n, tmp);
    if (res != MP_OK) {
        printf("Error: fail to calculate exponent mod\n");
        return res;
    }
#ifdef ZIRN_CT_CHECK
    // The result is the signature, which is public: from here on its digits
    // and its size may steer branches.  Everything before this point that
    // depends on the private exponent must be free of such branches.
    VALGRIND_MAKE_MEM_DEFINED(tmp, sizeof *tmp);
    VALGRIND_MAKE_MEM_DEFINED(tmp->digits, size_t(tmp->alloc) * sizeof(mp_digit));
#endif

    // The output is as long as the modulus as a number, not as given.
    const int32_t k = mp_unsigned_bin_size(tmp_n);
    const uint32_t capacity = *outlen;
    if (uint32_t(k) > capacity) {
        *outlen = uint32_t(k);
        printf("Error: incorrect output size (%d, %d)\n", k, int32_t(capacity));
        return -6;
    }
    const int32_t rlen = mp_unsigned_bin_size(tmp);
    if (rlen > k) {
        printf("Error: digital number (%d) of rsa n is smaller than that (%d) of input data\n", k, rlen);
        return -7;
    }

    *outlen = uint32_t(k);
    memset(out, 0, size_t(k));
    res = mp_to_unsigned_bin(tmp, out + (k - rlen));
    if (res != MP_OK) {
        printf("Error: fail to get result\n");
        vHexDumpBuf(out, k);
        return res;
    }
    return 0;
}

int32_t rsa_exptmod(const uint8_t *in, int32_t inlen, uint8_t *out, uint32_t *outlen, const uint8_t *key,
                    int32_t keylen, const uint8_t *modulus, int32_t modlen)
{
    // The input length is not checked: the integer module rejects it.
    if (out == nullptr || in == nullptr || key == nullptr || outlen == nullptr || modulus == nullptr || keylen == 0 ||
        modlen == 0) {
        printf("Error: wrong input parameter for rsa operation\n");
        return -1;
    }

    mp_int tmp, tmp_key, tmp_n;
    if (mp_init(&tmp) != MP_OK) {
        printf("Error: init tmp parameter for rsa operation\n");
        return -2;
    }
    if (mp_init(&tmp_key) != MP_OK) {
        mp_clear(&tmp);
        printf("Error: init tmp_key parameter for rsa operation\n");
        return -3;
    }
    if (mp_init(&tmp_n) != MP_OK) {
        mp_clear(&tmp);
        mp_clear(&tmp_key);
        printf("Error: init tmp_key parameter for rsa operation\n");
        return -4;
    }

    const int32_t ret = rsa_exptmod_run(&tmp, &tmp_key, &tmp_n, in, inlen, out, outlen, key, keylen, modulus, modlen);

    mp_clear(&tmp);
    mp_clear(&tmp_key);
    mp_clear(&tmp_n);
    return ret;
}

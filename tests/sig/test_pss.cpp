// PSS encoding, MGF1 and PSS decoding, checked against OpenSSL's libcrypto
// and the published RSA-PSS 2048 / SHA-256 / MGF1-SHA-256 / salt 32 vectors,
// and the whole verification route (word-array exponentiation + decoder).
#define OPENSSL_SUPPRESS_DEPRECATED  // PKCS1_MGF1, RSA_verify_PKCS1_PSS_mgf1
#include <gtest/gtest.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <random>
#include <thread>

#include "rsa.h"
#include "rsa2048.h"
#include "rsa2048_pss.h"
#include "testutil.h"

static_assert(std::endian::native == std::endian::little, "words are moved as little-endian bytes");

namespace {

using zt::Bytes;

Bytes sha256Of(const Bytes &m)
{
    Bytes d(32);
    SHA256(m.data(), m.size(), d.data());
    return d;
}

Bytes opensslMgf1(const Bytes &seed, size_t len)
{
    Bytes mask(len);
    if (len > 0) {
        EXPECT_EQ(PKCS1_MGF1(mask.data(), long(len), seed.data(), long(seed.size()), EVP_sha256()), 0);
    }
    return mask;
}

// Independent construction of an encoded message from a chosen DB and H
// (OpenSSL's MGF1), for decoder inputs the encoder would never produce.
Bytes buildEm(Bytes db, const Bytes &h, uint8_t topMask = 0x7F)
{
    const Bytes mask = opensslMgf1(h, db.size());
    for (size_t i = 0; i < db.size(); i++) db[i] ^= mask[i];
    db[0] &= topMask;
    Bytes em = db;
    em.insert(em.end(), h.begin(), h.end());
    em.push_back(0xBC);
    return em;
}

// H = SHA-256(8 zero bytes || mHash || salt), as the standard defines it.
Bytes pssHash(const Bytes &mhash, const Bytes &salt)
{
    Bytes m(8, 0);
    m.insert(m.end(), mhash.begin(), mhash.end());
    m.insert(m.end(), salt.begin(), salt.end());
    return sha256Of(m);
}

// The salt inside an encoded message, recovered with OpenSSL's MGF1.
Bytes saltOf(const Bytes &em, size_t sLen)
{
    const size_t dbLen = em.size() - 33;
    const Bytes h(em.begin() + long(dbLen), em.end() - 1);
    const Bytes mask = opensslMgf1(h, dbLen);
    Bytes salt(sLen);
    for (size_t i = 0; i < sLen; i++) salt[i] = em[dbLen - sLen + i] ^ mask[dbLen - sLen + i];
    return salt;
}

// The platform flow: big-endian signature and modulus byte-reversed into
// 64 words, raised to 65537, reversed back and PSS-decoded.
struct RouteResult {
    int32_t rc = 99;
    int32_t verdict = 99;
    Bytes em;
    std::string out;
};

RouteResult platformVerify(const Bytes &digest, const Bytes &sig, const Bytes &n)
{
    RouteResult r;
    uint32_t base[64], mod[64], res[64];
    Bytes rs(sig.rbegin(), sig.rend()), rn(n.rbegin(), n.rend());
    memcpy(base, rs.data(), 256);
    memcpy(mod, rn.data(), 256);
    RSADecryption65537(base, mod, res);
    Bytes le(256);
    memcpy(le.data(), res, 256);
    r.em.assign(le.rbegin(), le.rend());
    r.out = zt::capture_stdout([&] {
        r.rc = pkcs_1_pss_decode_sha256(digest.data(), 32, r.em.data(), 256, 32, 2048, &r.verdict);
    });
    return r;
}

struct EncodeResult {
    int32_t rc = 99;
    uint32_t len = 0;
    Bytes em;
    std::string out;
};

EncodeResult encode(const Bytes &mhash, uint32_t sLen, uint32_t bits, const Bytes *salt = nullptr,
                    uint32_t capacity = 512)
{
    EncodeResult e;
    e.em.assign(capacity, 0xEE);
    e.len = capacity;
    e.out = zt::capture_stdout([&] {
        e.rc = salt ? s_pkcs_1_pss_encode_sha256(mhash.data(), uint32_t(mhash.size()), salt->data(), sLen,
                                                 bits, e.em.data(), &e.len)
                    : pkcs_1_pss_encode_sha256(mhash.data(), uint32_t(mhash.size()), sLen, bits, e.em.data(),
                                               &e.len);
    });
    if (e.rc == 0) e.em.resize(e.len);
    return e;
}

struct DecodeResult {
    int32_t rc = 99;
    int32_t verdict = 99;
    std::string out;
};

DecodeResult decode(const Bytes &mhash, const Bytes &em, uint32_t sLen, uint32_t bits, int32_t verdictIn = 1)
{
    DecodeResult d;
    d.verdict = verdictIn;
    const Bytes before = em;
    d.out = zt::capture_stdout([&] {
        d.rc = pkcs_1_pss_decode_sha256(mhash.data(), uint32_t(mhash.size()), em.data(), uint32_t(em.size()), sLen,
                                        bits, &d.verdict);
    });
    EXPECT_EQ(em, before) << "decoder modified its input";
    return d;
}

// OpenSSL's EMSA-PSS check of an encoded message for a modulus of `bits`
// bits (only the bit count of the key is used).
bool opensslAcceptsEm(const Bytes &mhash, const Bytes &em, uint32_t bits, int sLen)
{
    RSA *rsa = RSA_new();
    BIGNUM *n = BN_new(), *e = BN_new();
    BN_set_bit(n, int(bits) - 1);
    BN_set_bit(n, 0);
    BN_set_word(e, 65537);
    RSA_set0_key(rsa, n, e, nullptr);
    const int ok = RSA_verify_PKCS1_PSS_mgf1(rsa, mhash.data(), EVP_sha256(), EVP_sha256(), em.data(), sLen);
    RSA_free(rsa);
    return ok == 1;
}

// Never a null data pointer, even for n = 0 (null means "absent" here).
Bytes randomBytes(std::mt19937 &rng, size_t n)
{
    Bytes b(n);
    b.reserve(n + 1);
    for (auto &x : b) x = uint8_t(rng());
    return b;
}

// A time() value that stays the same across fn: repeats fn until it does.
template <typename F>
time_t withinOneSecond(F fn)
{
    for (;;) {
        const time_t t0 = time(nullptr);
        fn();
        if (time(nullptr) == t0) return t0;
    }
}

void waitForNextSecond(time_t after)
{
    while (time(nullptr) <= after) std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

const char kEncWrongParam[] = "Error: wrong input parameter for pkcs_1_pss_encode_sha256 operation\n";
const char kDecWrongParam[] = "Error: wrong input parameter for pkcs_1_pss_decode_sha256 operation\n";
const char kDecBc[] = "Error: fail to check 0xBC for pkcs_1_pss_decode_sha256 operation\n";
const char kDecMsb[] = "Error: fail to check MSB for pkcs_1_pss_decode_sha256 operation\n";
const char kDecPs[] = "Error: fail to 0x00 and 0x01 in BD for pkcs_1_pss_encode_sha256 operation\n";
const char kDecSep[] = "Error: fail to 0x01 in BD for pkcs_1_pss_encode_sha256 operation\n";

// ---------------------------------------------------------------------------
// MGF1

TEST(Mgf1, MatchesOpenSsl)
{
    std::mt19937 rng(1);
    const struct {
        size_t seedLen, maskLen;
    } cases[] = {{32, 1}, {32, 31}, {32, 32}, {32, 33}, {32, 64}, {32, 223}, {32, 224},
                 {0, 40}, {1, 5}, {5, 100}, {100, 1000}, {64, 257}};
    for (const auto &c : cases) {
        const Bytes seed = randomBytes(rng, c.seedLen);
        Bytes mask(c.maskLen + 4, 0xA5);
        std::string out = zt::capture_stdout([&] {
            EXPECT_EQ(pkcs_1_mgf1_sha256(seed.data(), uint32_t(seed.size()), mask.data(), uint32_t(c.maskLen)), 0);
        });
        EXPECT_EQ(out, "");
        EXPECT_EQ(Bytes(mask.begin(), mask.begin() + long(c.maskLen)), opensslMgf1(seed, c.maskLen))
            << c.seedLen << "/" << c.maskLen;
        EXPECT_EQ(Bytes(mask.end() - 4, mask.end()), Bytes(4, 0xA5)) << "wrote past the mask";
    }
}

TEST(Mgf1, EmptyMaskWritesNothing)
{
    const Bytes seed(32, 7);
    uint8_t mask[4] = {1, 2, 3, 4};
    EXPECT_EQ(pkcs_1_mgf1_sha256(seed.data(), 32, mask, 0), 0);
    EXPECT_EQ(Bytes(mask, mask + 4), Bytes({1, 2, 3, 4}));
}

TEST(Mgf1, MissingPointers)
{
    const Bytes seed(32, 7);
    uint8_t mask[8] = {};
    const char msg[] = "Error: wrong input parameter for pkcs_1_mgf1_sha256 operation\n";
    int32_t rc = 0;
    EXPECT_EQ(zt::capture_stdout([&] { rc = pkcs_1_mgf1_sha256(nullptr, 32, mask, 8); }), msg);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(zt::capture_stdout([&] { rc = pkcs_1_mgf1_sha256(seed.data(), 32, nullptr, 8); }), msg);
    EXPECT_EQ(rc, -1);
}

// ---------------------------------------------------------------------------
// Published vectors

struct Wycheproof {
    Bytes n;  // 256 bytes
    nlohmann::json tests;
};

const Wycheproof &wycheproof()
{
    static const Wycheproof w = [] {
        const auto j = zt::load_vectors("wycheproof_rsa_pss_2048_sha256_mgf1_32_test.json");
        const auto &g = j.at("testGroups").at(0);
        Wycheproof w;
        Bytes n = zt::from_hex(g.at("publicKey").at("modulus").get<std::string>());
        while (n.size() > 256 && n[0] == 0) n.erase(n.begin());
        w.n = n;
        w.tests = g.at("tests");
        return w;
    }();
    return w;
}

TEST(PssVectors, EveryCaseThroughThePlatformRoute)
{
    const auto &w = wycheproof();
    ASSERT_EQ(w.n.size(), 256u);
    // Outcomes the vector comments pin down: a broken trailer, PS or
    // separator, or an intact block whose hash does not match (result 0).
    // A longer salt leaves a 0x01 inside PS; a shorter one a 0x00 where the
    // separator belongs.
    const std::map<int, int32_t> expectedRc = {
        {96, -4}, {97, -4}, {98, -4}, {99, -4}, {100, -4}, {101, -4}, {102, -4},
        {86, -6}, {87, -6}, {88, -6}, {89, -6}, {71, -6}, {72, -6},
        {67, -7}, {68, -7}, {69, -7}, {70, -7}, {90, -7}, {91, -7},
        {62, 0}, {63, 0}, {64, 0}, {65, 0}, {66, 0}, {75, 0}, {76, 0}, {77, 0},
        {78, 0}, {79, 0}, {80, 0}, {81, 0}, {82, 0}, {83, 0}, {84, 0}, {85, 0}};
    int valid = 0, invalid = 0, wrongLength = 0;
    for (const auto &t : w.tests) {
        const int id = t.at("tcId").get<int>();
        const bool isValid = t.at("result").get<std::string>() == "valid";
        const Bytes msg = zt::from_hex(t.at("msg").get<std::string>());
        const Bytes sig = zt::from_hex(t.at("sig").get<std::string>());
        (isValid ? valid : invalid)++;
        if (sig.size() != 256) {
            // The header holds exactly 256 signature bytes: such a signature
            // cannot reach the route at all.
            EXPECT_FALSE(isValid) << "case " << id;
            wrongLength++;
            continue;
        }
        const RouteResult r = platformVerify(sha256Of(msg), sig, w.n);
        if (isValid) {
            EXPECT_EQ(r.rc, 0) << "case " << id << " " << r.out;
            EXPECT_EQ(r.verdict, 1) << "case " << id;
            EXPECT_EQ(r.out, "");
        } else {
            EXPECT_NE(r.verdict, 1) << "case " << id << " " << t.at("comment");
            if (r.rc != 0) {
                EXPECT_EQ(r.out.rfind("Error: ", 0), 0u) << "case " << id;
            }
        }
        auto it = expectedRc.find(id);
        if (it != expectedRc.end()) {
            EXPECT_EQ(r.rc, it->second) << "case " << id << " " << t.at("comment");
        }
    }
    EXPECT_EQ(valid, 63);
    EXPECT_EQ(invalid, 45);
    EXPECT_EQ(wrongLength, 5);
}

// The encoder rebuilds each published encoding byte for byte from the hash
// and the salt that OpenSSL's MGF1 uncovers in it.
TEST(PssVectors, EncoderReproducesPublishedEncodings)
{
    const auto &w = wycheproof();
    BN_CTX *ctx = BN_CTX_new();
    BIGNUM *n = BN_bin2bn(w.n.data(), 256, nullptr), *e = BN_new(), *s = BN_new(), *m = BN_new();
    BN_set_word(e, 65537);
    int replayed = 0;
    for (const auto &t : w.tests) {
        if (t.at("result").get<std::string>() != "valid") continue;
        const Bytes msg = zt::from_hex(t.at("msg").get<std::string>());
        const Bytes sig = zt::from_hex(t.at("sig").get<std::string>());
        BN_bin2bn(sig.data(), int(sig.size()), s);
        ASSERT_EQ(BN_mod_exp(m, s, e, n, ctx), 1);
        Bytes em(256);
        BN_bn2binpad(m, em.data(), 256);
        const Bytes salt = saltOf(em, 32);
        const EncodeResult r = encode(sha256Of(msg), 32, 2048, &salt);
        ASSERT_EQ(r.rc, 0);
        EXPECT_EQ(zt::to_hex(r.em), zt::to_hex(em)) << "case " << t.at("tcId");
        replayed++;
    }
    EXPECT_EQ(replayed, 63);
    BN_free(n), BN_free(e), BN_free(s), BN_free(m);
    BN_CTX_free(ctx);
}

// ---------------------------------------------------------------------------
// Against OpenSSL with a fresh 2048-bit key

class PssWithKey : public ::testing::Test {
protected:
    static EVP_PKEY *key;
    static Bytes n;

    static void SetUpTestSuite()
    {
        key = EVP_RSA_gen(2048);
        ASSERT_NE(key, nullptr);
        BIGNUM *bn = nullptr;
        ASSERT_EQ(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &bn), 1);
        n.assign(256, 0);
        BN_bn2binpad(bn, n.data(), 256);
        BN_free(bn);
    }
    static void TearDownTestSuite() { EVP_PKEY_free(key); }

    // Raw private operation: em^D mod N.
    static Bytes rawSign(const Bytes &em)
    {
        EVP_PKEY_CTX *c = EVP_PKEY_CTX_new(key, nullptr);
        Bytes sig(256);
        size_t len = sig.size();
        EXPECT_EQ(EVP_PKEY_sign_init(c), 1);
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(c, RSA_NO_PADDING), 1);
        EXPECT_EQ(EVP_PKEY_sign(c, sig.data(), &len, em.data(), em.size()), 1);
        EVP_PKEY_CTX_free(c);
        return sig;
    }

    static EVP_PKEY_CTX *pssCtx(bool sign)
    {
        EVP_PKEY_CTX *c = EVP_PKEY_CTX_new(key, nullptr);
        EXPECT_EQ(sign ? EVP_PKEY_sign_init(c) : EVP_PKEY_verify_init(c), 1);
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(c, RSA_PKCS1_PSS_PADDING), 1);
        EXPECT_EQ(EVP_PKEY_CTX_set_signature_md(c, EVP_sha256()), 1);
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_mgf1_md(c, EVP_sha256()), 1);
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_pss_saltlen(c, 32), 1);
        return c;
    }

    static bool opensslVerifies(const Bytes &digest, const Bytes &sig)
    {
        EVP_PKEY_CTX *c = pssCtx(false);
        const int ok = EVP_PKEY_verify(c, sig.data(), sig.size(), digest.data(), digest.size());
        EVP_PKEY_CTX_free(c);
        return ok == 1;
    }

    static Bytes opensslSign(const Bytes &digest)
    {
        EVP_PKEY_CTX *c = pssCtx(true);
        Bytes sig(256);
        size_t len = sig.size();
        EXPECT_EQ(EVP_PKEY_sign(c, sig.data(), &len, digest.data(), digest.size()), 1);
        EVP_PKEY_CTX_free(c);
        return sig;
    }
};
EVP_PKEY *PssWithKey::key = nullptr;
Bytes PssWithKey::n;

TEST_F(PssWithKey, EncodedAndSignedDigestVerifiesInOpenSsl)
{
    std::mt19937 rng(2);
    for (int i = 0; i < 12; i++) {
        const Bytes digest = randomBytes(rng, 32);
        const EncodeResult e = encode(digest, 32, 2048);
        ASSERT_EQ(e.rc, 0);
        ASSERT_EQ(e.len, 256u);
        const Bytes sig = rawSign(e.em);
        EXPECT_TRUE(opensslVerifies(digest, sig));
        Bytes other = digest;
        other[31] ^= 1;
        EXPECT_FALSE(opensslVerifies(other, sig));

        // The platform route recovers exactly the encoded message and
        // accepts it.
        const RouteResult r = platformVerify(digest, sig, n);
        EXPECT_EQ(r.em, e.em);
        EXPECT_EQ(r.rc, 0);
        EXPECT_EQ(r.verdict, 1);
    }
}

TEST_F(PssWithKey, OpenSslSignaturesVerifyThroughThePlatformRoute)
{
    std::mt19937 rng(3);
    for (int i = 0; i < 12; i++) {
        const Bytes digest = randomBytes(rng, 32);
        const Bytes sig = opensslSign(digest);
        const RouteResult r = platformVerify(digest, sig, n);
        EXPECT_EQ(r.rc, 0) << r.out;
        EXPECT_EQ(r.verdict, 1);

        Bytes other = digest;
        other[i % 32] ^= 0x40;
        const RouteResult bad = platformVerify(other, sig, n);
        EXPECT_EQ(bad.rc, 0);
        EXPECT_EQ(bad.verdict, 0);

        Bytes tampered = sig;
        tampered[(i * 37) % 256] ^= 0x01;
        EXPECT_NE(platformVerify(digest, tampered, n).verdict, 1);
    }
}

// ---------------------------------------------------------------------------
// Encoder

TEST(PssEncode, ShapeForModulusBitLengths)
{
    std::mt19937 rng(4);
    const struct {
        uint32_t bits, emLen;
        uint8_t topMask;
    } cases[] = {{2048, 256, 0x7F}, {2047, 256, 0x3F}, {2049, 257, 0x00}, {2041, 256, 0x00},
                 {2042, 256, 0x01}, {1024, 128, 0x7F}, {1023, 128, 0x3F}, {3072, 384, 0x7F},
                 {528, 66, 0x7F}};
    for (const auto &c : cases) {
        for (int i = 0; i < 8; i++) {
            const Bytes digest = randomBytes(rng, 32);
            const Bytes salt = randomBytes(rng, 32);
            const EncodeResult e = encode(digest, 32, c.bits, &salt);
            ASSERT_EQ(e.rc, 0) << c.bits;
            ASSERT_EQ(e.len, c.emLen);
            EXPECT_EQ(e.em[0] & ~c.topMask, 0) << c.bits;
            EXPECT_EQ(e.em.back(), 0xBC);
            EXPECT_EQ(Bytes(e.em.end() - 33, e.em.end() - 1), pssHash(digest, salt)) << c.bits;
            EXPECT_EQ(saltOf(e.em, 32), salt) << c.bits;
            // OpenSSL sizes the block from bits - 1; both agree unless
            // bits = 8k + 1, where this encoder keeps one leading zero byte
            // more (the decoder below still accepts it).
            if (c.bits % 8 != 1) {
                EXPECT_TRUE(opensslAcceptsEm(digest, e.em, c.bits, 32)) << c.bits;
            }
            const DecodeResult d = decode(digest, e.em, 32, c.bits);
            EXPECT_EQ(d.rc, 0) << c.bits;
            EXPECT_EQ(d.verdict, 1) << c.bits;
        }
    }
}

TEST(PssEncode, SaltLengthLimits)
{
    std::mt19937 rng(5);
    const Bytes digest = randomBytes(rng, 32);
    for (uint32_t sLen : {0u, 1u, 20u, 32u, 64u, 221u, 222u}) {
        const Bytes salt = randomBytes(rng, sLen);
        const EncodeResult e = encode(digest, sLen, 2048, &salt);
        ASSERT_EQ(e.rc, 0) << sLen;
        EXPECT_EQ(e.out, "");
        EXPECT_TRUE(opensslAcceptsEm(digest, e.em, 2048, int(sLen))) << sLen;
        EXPECT_EQ(saltOf(e.em, sLen), salt);
        const DecodeResult d = decode(digest, e.em, sLen, 2048);
        EXPECT_EQ(d.rc, 0);
        EXPECT_EQ(d.verdict, 1);
        if (sLen == 222) {
            // No PS at all: DB starts with the separator.
            const Bytes mask = opensslMgf1(Bytes(e.em.end() - 33, e.em.end() - 1), 223);
            EXPECT_EQ((e.em[0] ^ mask[0]) & 0x7F, 0x01);
        }
    }
}

TEST(PssEncode, ArgumentErrors)
{
    const Bytes digest(32, 1);
    uint8_t out[256];
    uint32_t len = 256;
    int32_t rc = 0;
    EXPECT_EQ(zt::capture_stdout([&] { rc = pkcs_1_pss_encode_sha256(nullptr, 32, 32, 2048, out, &len); }),
              kEncWrongParam);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(zt::capture_stdout([&] { rc = pkcs_1_pss_encode_sha256(digest.data(), 32, 32, 2048, nullptr, &len); }),
              kEncWrongParam);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(zt::capture_stdout([&] { rc = pkcs_1_pss_encode_sha256(digest.data(), 32, 32, 2048, out, nullptr); }),
              kEncWrongParam);
    EXPECT_EQ(rc, -1);

    const struct {
        uint32_t sLen, bits;
        const char *msg;
    } lengthCases[] = {
        {223, 2048,
         "Error: wrong input parameter length (m = 256, h = 32, s = 223) for pkcs_1_pss_encode_sha256 operation\n"},
        {257, 2048,
         "Error: wrong input parameter length (m = 256, h = 32, s = 257) for pkcs_1_pss_encode_sha256 operation\n"},
        {0xFFFFFFFFu, 2048,
         "Error: wrong input parameter length (m = 256, h = 32, s = -1) for pkcs_1_pss_encode_sha256 operation\n"},
        {0, 264, "Error: wrong input parameter length (m = 33, h = 32, s = 0) for pkcs_1_pss_encode_sha256 operation\n"},
        {32, 0, "Error: wrong input parameter length (m = 0, h = 32, s = 32) for pkcs_1_pss_encode_sha256 operation\n"},
    };
    for (const auto &c : lengthCases) {
        const EncodeResult e = encode(digest, c.sLen, c.bits);
        EXPECT_EQ(e.rc, -2) << c.sLen << "/" << c.bits;
        EXPECT_EQ(e.out, c.msg);
        EXPECT_EQ(e.em, Bytes(512, 0xEE)) << "output written on failure";
    }
    // The shortest block that still holds hash, separator and trailer.
    EXPECT_EQ(encode(digest, 0, 272).rc, 0);
}

TEST(PssEncode, SmallOutputBufferReportsLengthOnly)
{
    const Bytes digest(32, 9);
    const EncodeResult e = encode(digest, 32, 2048, nullptr, 255);
    EXPECT_EQ(e.rc, -4);
    EXPECT_EQ(e.out, "");
    EXPECT_EQ(e.len, 256u);
    EXPECT_EQ(e.em, Bytes(255, 0xEE));
}

TEST(PssEncode, MessageHashLengthIsTakenAsGiven)
{
    // Any hash length goes into M' (none is rejected).
    std::mt19937 rng(6);
    for (size_t len : {0u, 1u, 20u, 48u, 64u}) {
        const Bytes mhash = randomBytes(rng, len);
        const Bytes salt = randomBytes(rng, 32);
        const EncodeResult e = encode(mhash, 32, 2048, &salt);
        ASSERT_EQ(e.rc, 0);
        EXPECT_EQ(Bytes(e.em.end() - 33, e.em.end() - 1), pssHash(mhash, salt));
        const DecodeResult d = decode(mhash, e.em, 32, 2048);
        EXPECT_EQ(d.verdict, 1);
    }
}

TEST(PssEncode, SaltComesFromTheClockSeededGenerator)
{
    const Bytes digest(32, 0x5A);
    EncodeResult e;
    const time_t t = withinOneSecond([&] { e = encode(digest, 32, 2048); });
    ASSERT_EQ(e.rc, 0);
    srand(unsigned(t));
    Bytes expect(32);
    for (auto &b : expect) b = uint8_t(rand() % 255);
    EXPECT_EQ(saltOf(e.em, 32), expect);

    // A long salt: 255 never occurs.
    EncodeResult big;
    withinOneSecond([&] { big = encode(digest, 222, 2048); });
    const Bytes salt = saltOf(big.em, 222);
    EXPECT_EQ(std::count(salt.begin(), salt.end(), 0xFF), 0);
}

TEST(PssEncode, EmptySaltLeavesTheGeneratorAlone)
{
    const Bytes digest(32, 0x33);
    srand(777);
    const int first = rand();
    srand(777);
    const EncodeResult e = encode(digest, 0, 2048);
    ASSERT_EQ(e.rc, 0);
    EXPECT_EQ(rand(), first);
    EXPECT_TRUE(opensslAcceptsEm(digest, e.em, 2048, 0));
}

TEST(PssEncode, SameSecondSameBlockNextSecondAnother)
{
    const Bytes digest(32, 0xC3);
    EncodeResult a, b;
    const time_t t = withinOneSecond([&] {
        a = encode(digest, 32, 2048);
        b = encode(digest, 32, 2048);
    });
    ASSERT_EQ(a.rc, 0);
    EXPECT_EQ(a.em, b.em);

    waitForNextSecond(t);
    EncodeResult c;
    withinOneSecond([&] { c = encode(digest, 32, 2048); });
    ASSERT_EQ(c.rc, 0);
    EXPECT_NE(a.em, c.em);
    for (const EncodeResult *r : {&a, &c}) {
        const DecodeResult d = decode(digest, r->em, 32, 2048);
        EXPECT_EQ(d.rc, 0);
        EXPECT_EQ(d.verdict, 1);
        EXPECT_TRUE(opensslAcceptsEm(digest, r->em, 2048, 32));
    }
}

// ---------------------------------------------------------------------------
// Decoder

class PssDecode : public ::testing::Test {
protected:
    std::mt19937 rng{7};
    Bytes digest = randomBytes(rng, 32);
    Bytes salt = randomBytes(rng, 32);

    // DB = 190 zeros || 0x01 || salt, H over the right M'.
    Bytes goodDb() const
    {
        Bytes db(223, 0);
        db[190] = 0x01;
        std::copy(salt.begin(), salt.end(), db.begin() + 191);
        return db;
    }
    Bytes goodH() const { return pssHash(digest, salt); }
};

TEST_F(PssDecode, FailuresInTheirOrder)
{
    const Bytes good = buildEm(goodDb(), goodH());
    ASSERT_TRUE(opensslAcceptsEm(digest, good, 2048, 32));

    auto withTrailer = [](Bytes em, uint8_t t) {
        em.back() = t;
        return em;
    };
    auto withTopBit = [](Bytes em) {
        em[0] |= 0x80;
        return em;
    };
    Bytes psBroken = goodDb(), dbTopBit = goodDb(), sepBroken = goodDb(), sepZero = goodDb();
    psBroken[100] = 0x01;
    dbTopBit[0] = 0x80;  // the leading-bit mask clears it again after unmasking
    sepBroken[190] = 0x02;
    sepZero[190] = 0x00;
    Bytes psAndSep = psBroken;
    psAndSep[190] = 0x00;
    const Bytes psEm = buildEm(psBroken, goodH());
    Bytes saltFlip = good;
    saltFlip[200] ^= 0x10;
    Bytes hFlip = good;
    hFlip[230] ^= 0x01;

    constexpr int32_t kAny = 99;  // -6, -7 or no match
    const struct {
        const char *name;
        Bytes em;
        int32_t rc, verdict;
        const char *msg;
    } cases[] = {
        {"good", good, 0, 1, ""},
        {"trailer 0xBD", withTrailer(good, 0xBD), -4, 0, kDecBc},
        {"trailer 0x00", withTrailer(good, 0x00), -4, 0, kDecBc},
        {"trailer before top bit", withTopBit(withTrailer(good, 0xBD)), -4, 0, kDecBc},
        {"top bit", withTopBit(good), -5, 0, kDecMsb},
        {"top bit before PS", withTopBit(psEm), -5, 0, kDecMsb},
        {"PS byte", psEm, -6, 0, kDecPs},
        {"PS before separator", buildEm(psAndSep, goodH()), -6, 0, kDecPs},
        {"separator 0x02", buildEm(sepBroken, goodH()), -7, 0, kDecSep},
        {"separator 0x00", buildEm(sepZero, goodH()), -7, 0, kDecSep},
        {"salt bit", saltFlip, 0, 0, ""},
        {"H bit", hFlip, kAny, 0, nullptr},
        {"top bit of DB", buildEm(dbTopBit, goodH()), 0, 1, ""},
    };
    for (const auto &c : cases) {
        const DecodeResult d = decode(digest, c.em, 32, 2048);
        EXPECT_EQ(d.verdict, c.verdict) << c.name;
        if (c.rc == kAny) {
            EXPECT_TRUE(d.rc == 0 || d.rc == -6 || d.rc == -7) << c.name << " " << d.rc;
            continue;
        }
        EXPECT_EQ(d.rc, c.rc) << c.name;
        EXPECT_EQ(d.out, c.msg) << c.name;
    }

    // Another message hash: the check runs to its end without a match.
    Bytes other = digest;
    other[0] ^= 1;
    const DecodeResult d = decode(other, good, 32, 2048);
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.verdict, 0);
    EXPECT_EQ(d.out, "");
}

TEST_F(PssDecode, LengthRules)
{
    const Bytes good = buildEm(goodDb(), goodH());
    const struct {
        uint32_t emLen, sLen, bits;
        const char *msg;
    } cases[] = {
        {255, 32, 2048, "(m = 256, h = 32, s = 32, sig = 255)"},
        {256, 32, 2056, "(m = 257, h = 32, s = 32, sig = 256)"},
        {256, 223, 2048, "(m = 256, h = 32, s = 223, sig = 256)"},
        {256, 300, 2048, "(m = 256, h = 32, s = 300, sig = 256)"},
        {256, 0xFFFFFFFFu, 2048, "(m = 256, h = 32, s = -1, sig = 256)"},
    };
    for (const auto &c : cases) {
        const Bytes em(good.begin(), good.begin() + c.emLen);
        const DecodeResult d = decode(digest, em, c.sLen, c.bits, 1);
        EXPECT_EQ(d.rc, -2) << c.msg;
        EXPECT_EQ(d.verdict, 0) << c.msg;
        EXPECT_EQ(d.out, std::string("Error: wrong input parameter length ") + c.msg +
                             " for pkcs_1_pss_decode_sha256 operation\n");
    }
}

TEST_F(PssDecode, MissingPointers)
{
    const Bytes good = buildEm(goodDb(), goodH());
    int32_t verdict = 7, rc = 0;
    EXPECT_EQ(zt::capture_stdout([&] {
                  rc = pkcs_1_pss_decode_sha256(nullptr, 32, good.data(), 256, 32, 2048, &verdict);
              }),
              kDecWrongParam);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(verdict, 7) << "verdict must stay untouched";
    EXPECT_EQ(zt::capture_stdout([&] {
                  rc = pkcs_1_pss_decode_sha256(digest.data(), 32, good.data(), 256, 32, 2048, nullptr);
              }),
              kDecWrongParam);
    EXPECT_EQ(rc, -1);
}

TEST_F(PssDecode, EmptyPaddingString)
{
    // sLen = emLen - 34: DB is the separator followed by the salt.
    const Bytes longSalt = randomBytes(rng, 222);
    Bytes db(223);
    db[0] = 0x01;
    std::copy(longSalt.begin(), longSalt.end(), db.begin() + 1);
    const Bytes h = pssHash(digest, longSalt);
    DecodeResult d = decode(digest, buildEm(db, h), 222, 2048);
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.verdict, 1);

    db[0] = 0x00;
    d = decode(digest, buildEm(db, h), 222, 2048);
    EXPECT_EQ(d.rc, -7);
    EXPECT_EQ(d.out, kDecSep);
}

TEST_F(PssDecode, OddBitLengths)
{
    // 2047 bits: the two top bits must be clear.
    Bytes em = buildEm(goodDb(), goodH(), 0x3F);
    EXPECT_EQ(decode(digest, em, 32, 2047).verdict, 1);
    em[0] |= 0x40;
    DecodeResult d = decode(digest, em, 32, 2047);
    EXPECT_EQ(d.rc, -5);
    EXPECT_EQ(d.verdict, 0);
    // The same block is fine for 2048 bits as far as the top bits go.
    EXPECT_NE(decode(digest, em, 32, 2048).rc, -5);
}

}  // namespace

// AES block cipher, AES-128 block/CBC/CTR operations and the predefined-key
// data encryption: published vectors, OpenSSL (EVP) as the independent
// answer for seeded random cases, and the buffer-boundary rules.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <cstring>
#include <random>

#include "rijndael-alg-fst.h"
#include "testutil.h"

using zt::Bytes;

namespace {

// The module's predefined key and IV, as documented for the data encryption.
const Bytes kPreDefKey = zt::from_hex("3c9f1a7e52d04b86e1a9077c5fb2d418");
const Bytes kPreDefIv = zt::from_hex("d27a4e0193bc5f68a4e21d7730c98b5e");

const EVP_CIPHER *ecb_for(size_t key_len)
{
    return key_len == 16 ? EVP_aes_128_ecb() : key_len == 24 ? EVP_aes_192_ecb() : EVP_aes_256_ecb();
}

// OpenSSL one-shot without padding; in.size() must suit the mode.
Bytes ossl(const EVP_CIPHER *cipher, const Bytes &key, const uint8_t *iv, const Bytes &in, bool enc)
{
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    Bytes out(in.size() + 16);
    int n1 = 0, n2 = 0;
    EXPECT_EQ(EVP_CipherInit_ex(ctx, cipher, nullptr, key.data(), iv, enc ? 1 : 0), 1);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EXPECT_EQ(EVP_CipherUpdate(ctx, out.data(), &n1, in.data(), int(in.size())), 1);
    EXPECT_EQ(EVP_CipherFinal_ex(ctx, out.data() + n1, &n2), 1);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(size_t(n1 + n2));
    return out;
}

Bytes ossl_block(const Bytes &key, const Bytes &block, bool enc = true)
{
    return ossl(ecb_for(key.size()), key, nullptr, block, enc);
}

Bytes random_bytes(std::mt19937 &rng, size_t n)
{
    Bytes b(n);
    for (auto &x : b) x = uint8_t(rng());
    return b;
}

Bytes slice(const Bytes &b, size_t off, size_t n) { return Bytes(b.begin() + long(off), b.begin() + long(off + n)); }

const nlohmann::json &kat()
{
    static const nlohmann::json v = zt::load_vectors("aes_sha256_kat.json");
    return v;
}

Bytes hexv(const nlohmann::json &j) { return zt::from_hex(j.get<std::string>()); }

}  // namespace

// ---------------------------------------------------------------------------
// Block cipher and key schedules

TEST(Aes, Fips197CipherExamples)
{
    for (const auto &c : kat()["fips197_cipher"]) {
        SCOPED_TRACE(c["name"].get<std::string>());
        const Bytes key = hexv(c["key"]), pt = hexv(c["plaintext"]), ct = hexv(c["ciphertext"]);
        const int want_nr = int(key.size()) / 4 + 6;
        uint32_t ek[60], dk[60];
        ASSERT_EQ(rijndaelKeySetupEnc(ek, key.data(), int(key.size() * 8)), want_nr);
        ASSERT_EQ(rijndaelKeySetupDec(dk, key.data(), int(key.size() * 8)), want_nr);

        uint8_t out[16];
        rijndaelEncrypt(ek, want_nr, pt.data(), out);
        EXPECT_EQ(Bytes(out, out + 16), ct);
        rijndaelDecrypt(dk, want_nr, ct.data(), out);
        EXPECT_EQ(Bytes(out, out + 16), pt);

        Bytes buf = pt;  // in place
        rijndaelEncrypt(ek, want_nr, buf.data(), buf.data());
        EXPECT_EQ(buf, ct);
        rijndaelDecrypt(dk, want_nr, buf.data(), buf.data());
        EXPECT_EQ(buf, pt);
    }
}

TEST(Aes, Fips197KeyExpansionWords)
{
    for (const auto &c : kat()["fips197_key_expansion"]) {
        SCOPED_TRACE(c["name"].get<std::string>());
        const Bytes key = hexv(c["key"]);
        std::vector<uint32_t> want;
        for (const auto &w : c["words"]) want.push_back(uint32_t(std::stoul(w.get<std::string>(), nullptr, 16)));
        ASSERT_EQ(want.size(), 4 * (key.size() / 4 + 7));

        std::vector<uint32_t> rk(want.size() + 4, 0xdeadbeef);  // guard words after the schedule
        EXPECT_EQ(rijndaelKeySetupEnc(rk.data(), key.data(), int(key.size() * 8)), int(key.size()) / 4 + 6);
        EXPECT_EQ(std::vector<uint32_t>(rk.begin(), rk.begin() + long(want.size())), want);
        for (size_t i = want.size(); i < rk.size(); i++) EXPECT_EQ(rk[i], 0xdeadbeefu);

        if (key.size() == 16) {
            std::vector<uint32_t> rk128(48, 0xdeadbeef);
            EXPECT_EQ(rijndaelKeySetupEnc128(rk128.data(), key.data()), 10);
            EXPECT_EQ(std::vector<uint32_t>(rk128.begin(), rk128.begin() + 44), want);
            EXPECT_EQ(rk128[44], 0xdeadbeefu);
        }
    }
}

TEST(Aes, UnsupportedKeyLengthReturnsZeroAfterLoadingEightWords)
{
    uint8_t key[32];
    for (int i = 0; i < 32; i++) key[i] = uint8_t(0x10 + i);
    for (int bits : {64, 0, 129, -128, 320}) {
        uint32_t rk[60];
        std::fill(rk, rk + 60, 0xdeadbeefu);
        EXPECT_EQ(rijndaelKeySetupEnc(rk, key, bits), 0) << bits;
        for (int i = 0; i < 8; i++) EXPECT_EQ(rk[i], uint32_t(key[4 * i]) << 24 | key[4 * i + 1] << 16 | key[4 * i + 2] << 8 | key[4 * i + 3]);
        for (int i = 8; i < 60; i++) ASSERT_EQ(rk[i], 0xdeadbeefu) << bits;

        std::fill(rk, rk + 60, 0xdeadbeefu);
        EXPECT_EQ(rijndaelKeySetupDec(rk, key, bits), 0) << bits;
        EXPECT_EQ(rk[0], 0x10111213u);  // nothing reversed or mixed
        EXPECT_EQ(rk[7], 0x2c2d2e2fu);
        EXPECT_EQ(rk[8], 0xdeadbeefu);
    }
}

TEST(Aes, DecryptionScheduleStructure)
{
    std::mt19937 rng(7);
    for (int bits : {128, 192, 256}) {
        const Bytes key = random_bytes(rng, size_t(bits / 8));
        uint32_t ek[60], dk[60];
        const int nr = rijndaelKeySetupEnc(ek, key.data(), bits);
        ASSERT_EQ(rijndaelKeySetupDec(dk, key.data(), bits), nr);
        // First and last round keys are swapped, not mixed.
        for (int k = 0; k < 4; k++) {
            EXPECT_EQ(dk[k], ek[4 * nr + k]) << bits;
            EXPECT_EQ(dk[4 * nr + k], ek[k]) << bits;
        }
    }
}

TEST(Aes, RandomBlocksMatchOpenSslForAllKeySizes)
{
    std::mt19937 rng(0xae5);
    for (int iter = 0; iter < 3000; iter++) {
        const size_t key_len = 16 + 8 * size_t(iter % 3);
        const int bits = int(key_len * 8);
        const Bytes key = random_bytes(rng, key_len);
        const Bytes block = random_bytes(rng, 16);
        uint32_t ek[60], dk[60];
        const int nr = rijndaelKeySetupEnc(ek, key.data(), bits);
        rijndaelKeySetupDec(dk, key.data(), bits);

        uint8_t out[16];
        rijndaelEncrypt(ek, nr, block.data(), out);
        ASSERT_EQ(Bytes(out, out + 16), ossl_block(key, block)) << "bits " << bits;
        rijndaelDecrypt(dk, nr, block.data(), out);
        ASSERT_EQ(Bytes(out, out + 16), ossl_block(key, block, false)) << "bits " << bits;
    }
}

// ---------------------------------------------------------------------------
// AES-128 single block and CBC

TEST(Aes128, Sp80038aEcbSingleBlocks)
{
    const auto &v = kat()["sp800_38a_aes128"];
    const Bytes key = hexv(v["key"]), pt = hexv(v["plaintext"]), ct = hexv(v["F.1.1_ecb_ciphertext"]);
    for (size_t off = 0; off < pt.size(); off += 16) {
        uint8_t out[16];
        vAES128Enc(key.data(), pt.data() + off, out);
        EXPECT_EQ(Bytes(out, out + 16), slice(ct, off, 16));
        vAES128Dec(key.data(), ct.data() + off, out);
        EXPECT_EQ(Bytes(out, out + 16), slice(pt, off, 16));

        Bytes buf = slice(pt, off, 16);
        vAES128Enc(key.data(), buf.data(), buf.data());
        EXPECT_EQ(buf, slice(ct, off, 16));
        vAES128Dec(key.data(), buf.data(), buf.data());
        EXPECT_EQ(buf, slice(pt, off, 16));
    }
}

TEST(Aes128, Sp80038aCbcSeparateAndInPlace)
{
    const auto &v = kat()["sp800_38a_aes128"];
    const Bytes key = hexv(v["key"]), pt = hexv(v["plaintext"]), ct = hexv(v["F.2.1_cbc_ciphertext"]);
    const Bytes iv = hexv(v["F.2.1_cbc_iv"]);
    Bytes iv_copy = iv;
    const int32_t n = int32_t(pt.size());

    Bytes out(pt.size());
    vAES128CBCEnc(key.data(), iv_copy.data(), pt.data(), out.data(), n);
    EXPECT_EQ(out, ct);
    vAES128CBCDec(key.data(), iv_copy.data(), ct.data(), out.data(), n);
    EXPECT_EQ(out, pt);

    Bytes buf = pt;
    vAES128CBCEnc(key.data(), iv_copy.data(), buf.data(), buf.data(), n);
    EXPECT_EQ(buf, ct);
    vAES128CBCDec(key.data(), iv_copy.data(), buf.data(), buf.data(), n);
    EXPECT_EQ(buf, pt);

    EXPECT_EQ(iv_copy, iv);  // never advanced by either call
}

TEST(Aes128, CbcNonPositiveLengthTouchesNothing)
{
    const Bytes key(16, 1), iv(16, 2), in(32, 3);
    for (int32_t len : {0, -1, -16, INT32_MIN}) {
        Bytes out(32, 0xee);
        vAES128CBCEnc(key.data(), iv.data(), in.data(), out.data(), len);
        EXPECT_EQ(out, Bytes(32, 0xee)) << len;
        vAES128CBCDec(key.data(), iv.data(), in.data(), out.data(), len);
        EXPECT_EQ(out, Bytes(32, 0xee)) << len;
    }
}

TEST(Aes128, CbcPartialLastBlockIsProcessedWhole)
{
    std::mt19937 rng(20);
    const Bytes key = random_bytes(rng, 16), iv = random_bytes(rng, 16), in = random_bytes(rng, 48);
    const Bytes want_enc = ossl(EVP_aes_128_cbc(), key, iv.data(), slice(in, 0, 32), true);
    const Bytes want_dec = ossl(EVP_aes_128_cbc(), key, iv.data(), slice(in, 0, 32), false);

    Bytes out(48, 0xee);
    vAES128CBCEnc(key.data(), iv.data(), in.data(), out.data(), 20);
    EXPECT_EQ(slice(out, 0, 32), want_enc);
    EXPECT_EQ(slice(out, 32, 16), Bytes(16, 0xee));

    out.assign(48, 0xee);
    vAES128CBCDec(key.data(), iv.data(), in.data(), out.data(), 20);
    EXPECT_EQ(slice(out, 0, 32), want_dec);
    EXPECT_EQ(slice(out, 32, 16), Bytes(16, 0xee));
}

TEST(Aes128, RandomCbcMatchesOpenSslAtRandomOffsets)
{
    std::mt19937 rng(0xcbc);
    for (int iter = 0; iter < 1500; iter++) {
        const Bytes key = random_bytes(rng, 16), iv = random_bytes(rng, 16);
        const size_t len = 16 * (1 + rng() % 40), off = rng() % 16;
        const Bytes pt = random_bytes(rng, len);
        const Bytes ct = ossl(EVP_aes_128_cbc(), key, iv.data(), pt, true);

        // Separate buffers at unaligned offsets, guard bytes around the output.
        Bytes src(off + len), dst(off + len + 16, 0xa5);
        std::copy(pt.begin(), pt.end(), src.begin() + long(off));
        vAES128CBCEnc(key.data(), iv.data(), src.data() + off, dst.data() + off, int32_t(len));
        ASSERT_EQ(slice(dst, off, len), ct) << iter;
        ASSERT_EQ(slice(dst, off + len, 16), Bytes(16, 0xa5));

        std::copy(ct.begin(), ct.end(), src.begin() + long(off));
        vAES128CBCDec(key.data(), iv.data(), src.data() + off, dst.data() + off, int32_t(len));
        ASSERT_EQ(slice(dst, off, len), pt) << iter;

        // In place.
        Bytes buf(off + len);
        std::copy(pt.begin(), pt.end(), buf.begin() + long(off));
        vAES128CBCEnc(key.data(), iv.data(), buf.data() + off, buf.data() + off, int32_t(len));
        ASSERT_EQ(slice(buf, off, len), ct) << iter;
        vAES128CBCDec(key.data(), iv.data(), buf.data() + off, buf.data() + off, int32_t(len));
        ASSERT_EQ(slice(buf, off, len), pt) << iter;
    }
}

// ---------------------------------------------------------------------------
// CTR

TEST(Aes128Ctr, Sp80038aExamplesSeparateAndInPlace)
{
    const auto &v = kat()["sp800_38a_aes128"];
    const Bytes key = hexv(v["key"]), pt = hexv(v["plaintext"]), ct = hexv(v["F.5.1_ctr_ciphertext"]);
    const Bytes ctr = hexv(v["F.5.1_ctr_initial_counter"]);
    Bytes ctr_copy = ctr;
    const int32_t n = int32_t(pt.size());

    Bytes out(pt.size());
    vAES128CTR(key.data(), ctr_copy.data(), pt.data(), out.data(), n);  // F.5.1
    EXPECT_EQ(out, ct);
    vAES128CTR(key.data(), ctr_copy.data(), ct.data(), out.data(), n);  // F.5.2
    EXPECT_EQ(out, pt);

    Bytes buf = pt;
    vAES128CTR(key.data(), ctr_copy.data(), buf.data(), buf.data(), n);
    EXPECT_EQ(buf, ct);
    vAES128CTR(key.data(), ctr_copy.data(), buf.data(), buf.data(), n);
    EXPECT_EQ(buf, pt);
    EXPECT_EQ(ctr_copy, ctr);
}

TEST(Aes128Ctr, FragmentWritesExactlyTailBytes)
{
    const auto &v = kat()["sp800_38a_aes128"];
    const Bytes key = hexv(v["key"]), pt = hexv(v["plaintext"]), ct = hexv(v["F.5.1_ctr_ciphertext"]);
    const Bytes ctr = hexv(v["F.5.1_ctr_initial_counter"]);
    for (int32_t len : {5, 21}) {
        // The input stays readable up to the next multiple of 16.
        Bytes out(48, 0xee);
        vAES128CTR(key.data(), ctr.data(), pt.data(), out.data(), len);
        EXPECT_EQ(slice(out, 0, size_t(len)), slice(ct, 0, size_t(len))) << len;
        for (size_t i = size_t(len); i < out.size(); i++) ASSERT_EQ(out[i], 0xee) << len << " at " << i;
    }
}

TEST(Aes128Ctr, CounterCarriesAndWraps)
{
    const Bytes key = zt::from_hex("000102030405060708090a0b0c0d0e0f");
    struct Case {
        const char *first, *second, *third;
    } cases[] = {
        {"00000000000000000000000000feffff", "00000000000000000000000000ff0000", "00000000000000000000000000ff0001"},
        {"0102030405060708ffffffffffffffff", "0102030405060709" "0000000000000000", "0102030405060709" "0000000000000001"},
        {"ffffffffffffffffffffffffffffffff", "00000000000000000000000000000000", "00000000000000000000000000000001"},
        {"fffffffffffffffffffffffffffffffe", "ffffffffffffffffffffffffffffffff", "00000000000000000000000000000000"},
    };
    for (const auto &c : cases) {
        // Zero plaintext turns the output into the keystream: AES of each counter.
        Bytes zeros(48, 0), out(48);
        const Bytes ctr = zt::from_hex(c.first);
        vAES128CTR(key.data(), ctr.data(), zeros.data(), out.data(), 48);
        Bytes want = ossl_block(key, ctr);
        for (const char *next : {c.second, c.third}) {
            const Bytes k = ossl_block(key, zt::from_hex(next));
            want.insert(want.end(), k.begin(), k.end());
        }
        EXPECT_EQ(out, want) << c.first;
        EXPECT_EQ(zt::to_hex(ctr), c.first);
    }
}

TEST(Aes128Ctr, RejectedCallsDoNothing)
{
    const Bytes key(16, 1), ctr(16, 2), in(32, 3);
    struct Case {
        const uint8_t *key, *ctr, *in;
        bool null_out;
        int32_t len;
    } cases[] = {
        {key.data(), ctr.data(), in.data(), false, 0},
        {key.data(), ctr.data(), in.data(), false, -16},
        {nullptr, ctr.data(), in.data(), false, 16},
        {key.data(), nullptr, in.data(), false, 16},
        {key.data(), ctr.data(), nullptr, false, 16},
        {key.data(), ctr.data(), in.data(), true, 16},
    };
    for (const auto &c : cases) {
        Bytes out(32, 0xee);
        vAES128CTR(c.key, c.ctr, c.in, c.null_out ? nullptr : out.data(), c.len);
        EXPECT_EQ(out, Bytes(32, 0xee));
    }
}

TEST(Aes128Ctr, RandomLengthsAndOffsetsMatchOpenSsl)
{
    std::mt19937 rng(0xc7);
    for (int iter = 0; iter < 1500; iter++) {
        const Bytes key = random_bytes(rng, 16);
        Bytes ctr = random_bytes(rng, 16);
        if (iter % 4 == 0) std::fill(ctr.begin() + 12, ctr.end(), 0xff);  // force carries
        const size_t len = 1 + rng() % 300, off = rng() % 16;
        const size_t padded = (len + 15) & ~size_t(15);
        const Bytes pt = random_bytes(rng, padded);
        const Bytes want = slice(ossl(EVP_aes_128_ctr(), key, ctr.data(), pt, true), 0, len);

        Bytes src(off + padded), dst(off + padded + 16, 0xa5);
        std::copy(pt.begin(), pt.end(), src.begin() + long(off));
        vAES128CTR(key.data(), ctr.data(), src.data() + off, dst.data() + off, int32_t(len));
        ASSERT_EQ(slice(dst, off, len), want) << iter;
        for (size_t i = off + len; i < dst.size(); i++) ASSERT_EQ(dst[i], 0xa5) << iter;

        Bytes buf = src;
        vAES128CTR(key.data(), ctr.data(), buf.data() + off, buf.data() + off, int32_t(len));
        ASSERT_EQ(slice(buf, off, len), want) << iter;
        ASSERT_EQ(slice(buf, off + len, padded - len), slice(pt, len, padded - len)) << iter;
    }
}

// ---------------------------------------------------------------------------
// Predefined-key data encryption

namespace {

// Independent model of the documented rule: OpenSSL CBC over the whole
// blocks, the tail masked with the ECB encryption of the last ciphertext
// block (or of the IV when there is none).
Bytes model_enc_data(const Bytes &pt)
{
    const size_t full = pt.size() & ~size_t(15), tail = pt.size() & 15;
    Bytes out = ossl(EVP_aes_128_cbc(), kPreDefKey, kPreDefIv.data(), slice(pt, 0, full), true);
    if (tail != 0) {
        const Bytes prev = full == 0 ? kPreDefIv : slice(out, full - 16, 16);
        const Bytes ks = ossl_block(kPreDefKey, prev);
        for (size_t i = 0; i < tail; i++) out.push_back(uint8_t(pt[full + i] ^ ks[i]));
    }
    return out;
}

}  // namespace

TEST(PreDefKeyData, MatchesModelAndRoundTripsForLengths1To100)
{
    std::mt19937 rng(100);
    for (uint32_t len = 1; len <= 100; len++) {
        const Bytes pt = random_bytes(rng, len);
        const Bytes want = model_enc_data(pt);

        Bytes ct(len + 16, 0xee);
        ASSERT_EQ(uiEncData(pt.data(), ct.data(), len), 0u);
        ASSERT_EQ(slice(ct, 0, len), want) << len;
        ASSERT_EQ(slice(ct, len, 16), Bytes(16, 0xee)) << len;

        Bytes back(len + 16, 0xee);
        ASSERT_EQ(uiDecData(ct.data(), back.data(), len), 0u);
        ASSERT_EQ(slice(back, 0, len), pt) << len;
        ASSERT_EQ(slice(back, len, 16), Bytes(16, 0xee)) << len;

        Bytes buf = pt;
        ASSERT_EQ(uiEncData(buf.data(), buf.data(), len), 0u);
        ASSERT_EQ(buf, want) << len;
        ASSERT_EQ(uiDecData(buf.data(), buf.data(), len), 0u);
        ASSERT_EQ(buf, pt) << len;
    }
}

TEST(PreDefKeyData, WholeBlocksEqualCbcWithModuleKeyAndIv)
{
    std::mt19937 rng(16);
    const Bytes pt = random_bytes(rng, 64);
    Bytes a(64), b(64);
    ASSERT_EQ(uiEncData(pt.data(), a.data(), 64), 0u);
    vAES128CBCEnc(kPreDefKey.data(), kPreDefIv.data(), pt.data(), b.data(), 64);
    EXPECT_EQ(a, b);
}

TEST(PreDefKeyData, LengthTwentyMasksTailWithFirstCiphertextBlock)
{
    Bytes pt(20);
    for (size_t i = 0; i < pt.size(); i++) pt[i] = uint8_t(0x40 + i);
    Bytes out(32, 0xee);
    ASSERT_EQ(uiEncData(pt.data(), out.data(), 20), 0u);

    Bytes block0(16), ks(16);
    vAES128CBCEnc(kPreDefKey.data(), kPreDefIv.data(), pt.data(), block0.data(), 16);
    vAES128Enc(kPreDefKey.data(), block0.data(), ks.data());
    EXPECT_EQ(slice(out, 0, 16), block0);
    for (size_t i = 0; i < 4; i++) EXPECT_EQ(out[16 + i], pt[16 + i] ^ ks[i]) << i;
    EXPECT_EQ(slice(out, 20, 12), Bytes(12, 0xee));

    // Below one block: input XOR the encryption of the IV.
    Bytes short_out(16, 0xee), iv_ks(16);
    ASSERT_EQ(uiEncData(pt.data(), short_out.data(), 7), 0u);
    vAES128Enc(kPreDefKey.data(), kPreDefIv.data(), iv_ks.data());
    for (size_t i = 0; i < 7; i++) EXPECT_EQ(short_out[i], pt[i] ^ iv_ks[i]) << i;
    EXPECT_EQ(slice(short_out, 7, 9), Bytes(9, 0xee));
}

TEST(PreDefKeyData, BadArgumentsReturnAllOnesAndWriteNothing)
{
    const Bytes in(16, 1);
    for (auto fn : {uiEncData, uiDecData}) {
        Bytes out(16, 0xee);
        EXPECT_EQ(fn(in.data(), nullptr, 16), 0xFFFFFFFFu);
        EXPECT_EQ(fn(nullptr, out.data(), 16), 0xFFFFFFFFu);
        EXPECT_EQ(fn(in.data(), out.data(), 0), 0xFFFFFFFFu);
        EXPECT_EQ(fn(nullptr, nullptr, 0), 0xFFFFFFFFu);
        EXPECT_EQ(out, Bytes(16, 0xee));
    }
}

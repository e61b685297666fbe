// AES, SHA-256 and SHA-1: the published FIPS 197, SP 800-38A and FIPS 180 answers, OpenSSL on
// seeded random inputs, the buffer rules of the AES-128 operations and the result codes of SHA-256.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include <openssl/evp.h>

#include "cpu_features.h"
#include "oracle.h"
#include "rijndael-alg-fst.h"
#include "sha1.h"
#include "sha256.h"

using zt::Bytes;

namespace {

// CTest runs this program twice: on the instruction paths where the processor has them, and with
// ZIRN_TEST_PORTABLE set, pinned to the portable code.
const bool kPortable = (crypto_force_portable(getenv("ZIRN_TEST_PORTABLE") != nullptr),
                        getenv("ZIRN_TEST_PORTABLE") != nullptr);

const nlohmann::json &kat()
{
    static const nlohmann::json v = zt::load_vectors("aes_sha256_kat.json");
    return v;
}
Bytes hexv(const nlohmann::json &j) { return zt::from_hex(j.get<std::string>()); }

using Op = decltype(&vAES128CBCEnc);  // (key, iv, in, out, len)
template <uint32_t (*op)(const uint8_t *, uint8_t *, uint32_t)>  // predefined key: must succeed
void data(const uint8_t *, const uint8_t *, const uint8_t *in, uint8_t *out, int32_t n)
{
    EXPECT_EQ(op(in, out, uint32_t(n)), 0u);
}
template <void (*block)(const uint8_t *, const uint8_t *, uint8_t *)>
void ecb(const uint8_t *k, const uint8_t *, const uint8_t *in, uint8_t *out, int32_t n)
{
    for (int32_t i = 0; i < n; i += 16) block(k, in + i, out + i);
}

// op over len bytes of in, once into a separate buffer guarded by 0xa5 bytes and once in place.
auto apply(Op op, const Bytes &key, const Bytes &iv, const Bytes &in, size_t len, size_t off = 0)
{
    Bytes src(off + in.size() + 16, 0xa5), dst = src;
    std::copy(in.begin(), in.end(), src.begin() + long(off));
    op(key.data(), iv.data(), src.data() + off, dst.data() + off, int32_t(len));
    op(key.data(), iv.data(), src.data() + off, src.data() + off, int32_t(len));
    return std::pair(zt::slice(dst, off, dst.size() - off), zt::slice(src, off, src.size() - off));
}
// What apply gives for an op whose output is b: b filled up to n bytes with the guard, twice.
auto guarded(Bytes b, size_t n) { return b.resize(n, 0xa5), std::pair(b, b); }

// msg fed in pieces of the given sizes (the rest in one last piece), through ctx.
Bytes in_pieces(const Bytes &msg, const std::vector<size_t> &pieces, sha256_ctx ctx = {})
{
    size_t off = 0;
    EXPECT_EQ(ctx.fill ? 0 : sha256_init(&ctx), 0);
    for (size_t p : pieces) {
        p = std::min(p, msg.size() - off);
        EXPECT_EQ(sha256_process(&ctx, msg.data() + off, uint32_t(p)), 0);
        off += p;
    }
    Bytes d(32);
    EXPECT_EQ(sha256_process(&ctx, msg.data() + off, uint32_t(msg.size() - off)), 0);
    EXPECT_EQ(sha256_done(&ctx, d.data()), 0);
    return d;
}

// The stack below the caller, where the frames of a call it made lay: cleared, or searched for
// needle.  The asm tells the compiler that the array's old contents are its value.
__attribute__((noinline)) bool stack_holds(const Bytes *needle)
{
    uint8_t area[8192], *const end = area + sizeof area;
    __asm__ __volatile__("" : "=m"(area));
    const bool found = needle && std::search(area, end, needle->begin(), needle->end()) != end;
    if (needle == nullptr) std::fill_n(area, sizeof area, 0);
    __asm__ __volatile__("" : : "m"(area));
    return found;
}

}  // namespace

TEST(Aes, Fips197ExamplesAndKeySchedules)
{
#if defined(__x86_64__)
    std::string flags;  // the kernel's account of the processor's features
    for (std::ifstream in("/proc/cpuinfo"); std::getline(in, flags) && !flags.starts_with("flags");)
        continue;
    const auto has = [&](std::string f) { return (flags + ' ').find(' ' + f + ' ') != f.npos; };
    const bool sha = has("sha_ni") && has("sse4_1") && has("ssse3");
    EXPECT_EQ(std::pair(crypto_aes_accelerated(), crypto_sha256_accelerated()),
              std::pair(int(!kPortable && has("aes")), int(!kPortable && sha)));
#endif
    for (const auto &c : kat()["fips197_cipher"]) {
        const Bytes key = hexv(c["key"]), pt = hexv(c["plaintext"]), ct = hexv(c["ciphertext"]);
        const int bits = int(key.size() * 8), nr = bits / 32 + 6;
        uint32_t ek[60], dk[60];
        ASSERT_EQ(rijndaelKeySetupEnc(ek, key.data(), bits), nr);
        ASSERT_EQ(rijndaelKeySetupDec(dk, key.data(), bits), nr);
        Bytes enc(16), dec(16), buf = pt;
        rijndaelEncrypt(ek, nr, pt.data(), enc.data());
        rijndaelEncrypt(ek, nr, buf.data(), buf.data());  // in place
        rijndaelDecrypt(dk, nr, buf.data(), dec.data());
        rijndaelDecrypt(dk, nr, enc.data(), enc.data());  // in place
        EXPECT_EQ(std::tie(buf, dec, enc), std::tie(ct, pt, pt));
    }
    for (const auto &c : kat()["fips197_key_expansion"]) {
        const Bytes key = hexv(c["key"]);
        const int bits = c.value("bits", int(key.size() * 8));
        std::vector<uint32_t> want, rk, dk, rk128(45, 0xdeadbeef);
        for (const std::string w : c["words"]) want.push_back(uint32_t(std::stoul(w, nullptr, 16)));
        want.push_back(0xdeadbeef);  // the word after the schedule stays untouched
        rk.assign(want.size(), 0xdeadbeef), dk = rk;
        const int rounds = c.value("rounds", int(want.size() / 4) - 1);
        EXPECT_EQ(rijndaelKeySetupEnc(rk.data(), key.data(), bits), rounds);
        EXPECT_EQ(rk, want);
        // an unsupported length: the same answer from the decryption schedule's setup
        EXPECT_TRUE(rounds || (!rijndaelKeySetupDec(dk.data(), key.data(), bits) && dk == want));
        EXPECT_TRUE(key.size() != 16 ||
                    (rijndaelKeySetupEnc128(rk128.data(), key.data()) == 10 && rk128 == want));
    }
}

TEST(Aes, Sp80038aExamplesSeparateAndInPlace)
{
    const auto sp = [](const char *name) { return hexv(kat()["sp800_38a_aes128"][name]); };
    const Bytes key = sp("key"), pt = sp("plaintext");
    const std::tuple<Op, Op, Bytes, Bytes> modes[] = {
        {ecb<vAES128Enc>, ecb<vAES128Dec>, Bytes(16), sp("F.1.1_ecb_ciphertext")},
        {vAES128CBCEnc, vAES128CBCDec, sp("F.2.1_cbc_iv"), sp("F.2.1_cbc_ciphertext")},
        {vAES128CTR, vAES128CTR, sp("F.5.1_ctr_initial_counter"), sp("F.5.1_ctr_ciphertext")}};
    for (const auto &[enc, dec, iv, ct] : modes) {
        const Bytes ivc = iv;  // a copy, which must stay as it is
        EXPECT_EQ(apply(enc, key, ivc, pt, pt.size()), guarded(ct, 80));
        EXPECT_EQ(apply(dec, key, ivc, ct, ct.size()), guarded(pt, 80));
        EXPECT_EQ(ivc, iv) << "IV or counter written";
    }
    Bytes out(16, 0xa5);  // CTR with any argument missing does nothing
    const uint8_t *k = key.data(), *z = nullptr;
    uint8_t *o = out.data();
    for (auto [kk, c, i, d] : {std::tuple{z, k, k, o}, {k, z, k, o}, {k, k, z, o}, {k, k, k, {}}})
        vAES128CTR(kk, c, i, d, 16);
    EXPECT_EQ(out, Bytes(16, 0xa5));
}

// CBC and CTR at every short length and random longer ones (a partial CBC block is processed
// whole), at random offsets, with counters that carry; nothing past the processed bytes written.
TEST(Aes, RandomCbcAndCtrMatchOpenSsl)
{
    std::mt19937_64 rng(0xcbc);
    for (int iter = 0; iter < 3000; iter++) {
        const bool ctr = iter % 2, dec = iter % 4 >= 2;
        const size_t len = iter < 136 ? size_t(iter / 4) + 1 : 1 + rng() % 700;
        const size_t padded = (len + 15) & ~size_t(15), done = ctr ? len : padded;
        const Bytes key = zt::random_bytes(rng, 16), in = zt::random_bytes(rng, padded);
        Bytes iv = zt::random_bytes(rng, 16);
        if (iter % 5 == 0) std::fill(iv.begin() + long(rng() % 16), iv.end(), 0xff);
        Bytes want = zt::cipher(ctr ? "AES-128-CTR" : "AES-128-CBC", key, iv, in, !dec || ctr);
        std::copy(in.begin() + long(done), in.end(), want.begin() + long(done));  // the rest stays
        const Op op = ctr ? vAES128CTR : dec ? vAES128CBCDec : vAES128CBCEnc;
        const auto [sep, inplace] = apply(op, key, iv, in, len, rng() % 16);
        ASSERT_EQ(zt::slice(sep, 0, done), zt::slice(want, 0, done)) << iter;
        ASSERT_EQ(zt::slice(sep, done, sep.size() - done), Bytes(sep.size() - done, 0xa5)) << iter;
        ASSERT_EQ(zt::slice(inplace, 0, padded), want) << iter;
    }
}

// The predefined-key operations against their documented rule, built from OpenSSL: CBC over the
// whole blocks under the module's key and IV, the tail masked with the encryption of the last
// ciphertext block (or the IV).
TEST(Aes, PredefinedKeyDataMatchesItsRuleAndRoundTrips)
{
    const Bytes key = zt::from_hex("3c9f1a7e52d04b86e1a9077c5fb2d418");
    const Bytes iv = zt::from_hex("d27a4e0193bc5f68a4e21d7730c98b5e");
    std::mt19937_64 rng(100);
    for (uint32_t len = 1; len <= 100; len++) {
        const Bytes pt = zt::random_bytes(rng, len);
        const size_t full = len & ~15u;
        Bytes want = zt::cipher("AES-128-CBC", key, iv, zt::slice(pt, 0, full), true);
        const Bytes last = full ? zt::slice(want, full - 16, 16) : iv;  // the block before the tail
        const Bytes ks = zt::cipher("AES-128-ECB", key, {}, last, true);
        for (size_t i = full; i < len; i++) want.push_back(pt[i] ^ ks[i - full]);
        EXPECT_EQ(apply(data<uiEncData>, {}, {}, pt, len), guarded(want, len + 16)) << len;
        EXPECT_EQ(apply(data<uiDecData>, {}, {}, want, len), guarded(pt, len + 16)) << len;
    }
    Bytes buf(16, 0xa5);  // a buffer missing, or nothing to do: refused, nothing written
    uint8_t *b = buf.data();
    for (auto op : {uiEncData, uiDecData})
        EXPECT_EQ(std::tuple(op(nullptr, b, 16), op(b, nullptr, 16), op(b, b, 0), buf),
                  std::tuple(~0u, ~0u, ~0u, Bytes(16, 0xa5)));
}

// No operation leaves its last round key (as schedule words or as bytes) in the stack it used.
TEST(Aes, NoRoundKeyLeftOnTheStack)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's frames reach below the area the operations clear";
#endif
    const Bytes key = zt::from_hex("2b7e151628aed2a6abf7158809cf4f3c");
    const Bytes predefined = zt::from_hex("3c9f1a7e52d04b86e1a9077c5fb2d418");
    const Bytes in(64, 0x11), iv(16, 0x22);
    const std::pair<Op, const Bytes *> ops[] = {
        {ecb<vAES128Enc>, &key}, {ecb<vAES128Dec>, &key}, {vAES128CBCEnc, &key},
        {vAES128CBCDec, &key}, {vAES128CTR, &key},
        {data<uiEncData>, &predefined}, {data<uiDecData>, &predefined}};
    for (size_t i = 0; i < std::size(ops); i++) {
        const auto [op, k] = ops[i];
        uint32_t rk[44];
        rijndaelKeySetupEnc128(rk, k->data());
        Bytes words((uint8_t *)(rk + 40), (uint8_t *)(rk + 44)), bytes;
        for (int b = 0; b < 16; b++) bytes.push_back(uint8_t(rk[40 + b / 4] >> (24 - 8 * (b % 4))));
        Bytes out(64);
        stack_holds(nullptr);
        op(k->data(), iv.data(), in.data(), out.data(), 64);
        EXPECT_FALSE(stack_holds(&words) || stack_holds(&bytes)) << "operation " << i;
    }
}

// SHA-1 too on the random messages: every padding case of one to many blocks.
TEST(Sha256, PublishedVectorsWholeAndInPiecesAndRandomMessagesMatchOpenSsl)
{
    ASSERT_EQ(kat()["sha256"].size(), 15u);
    for (const auto &c : kat()["sha256"]) {
        Bytes msg = zt::from_hex(c.value("msg_hex", "")), d(32);
        const std::string unit = c.value("msg_ascii_repeat", ""), want = c["digest"];
        for (int i = c.value("repeat", 0); i--;) msg.insert(msg.end(), unit.begin(), unit.end());
        msg.reserve(1);
        ASSERT_EQ(sha256(msg.data(), uint32_t(msg.size()), d.data()), 0);
        const Bytes pieces = in_pieces(msg, std::vector<size_t>(msg.size() / 37, 37));
        EXPECT_EQ(std::pair(zt::to_hex(d), zt::to_hex(pieces)), std::pair(want, want)) << c["name"];
    }
    std::mt19937_64 rng(20261122);
    for (int iter = 0; iter < 3000; iter++) {
        const Bytes msg = zt::random_bytes(rng, rng() % (iter < 2500 ? 300 : 5000));
        std::vector<size_t> cuts(rng() % 8);
        for (auto &p : cuts) p = rng() % 2 ? rng() % 130 : rng() % 3;
        Bytes s1(20), s1_want(20);  // SHA-1
        sha1(msg.data(), msg.size(), s1.data());
        EVP_Digest(msg.data(), msg.size(), s1_want.data(), nullptr, EVP_sha1(), nullptr);
        ASSERT_EQ(std::pair(in_pieces(msg, cuts), s1), std::pair(zt::sha256(msg), s1_want)) << iter;
    }
}

TEST(Sha256, ResultCodesLeaveTheContextAlone)
{
    uint8_t in[8] = {1, 2, 3}, out[32];
    sha256_ctx ctx{}, *c = &ctx;
    const std::tuple<uint32_t, std::function<int()>, int> rows[] = {
        {0, [] { return sha256_init(nullptr); }, -1},
        {0, [&] { return sha256_process(nullptr, in, 3); }, -1},
        {0, [&] { return sha256_process(c, nullptr, 0); }, -2},
        {65, [&] { return sha256_process(c, in, 0); }, -3},
        {0, [&] { return sha256_done(nullptr, out); }, -2},
        {64, [&] { return sha256_done(c, nullptr); }, -3},
        {64, [&] { return sha256_done(c, out); }, -4},
        {0, [&] { return sha256(nullptr, 0, out); }, -2},
        {0, [&] { return sha256(in, 3, nullptr); }, -3}};
    for (const auto &[fill, call, want] : rows) {
        sha256_init(&ctx);
        ctx.fill = fill;
        const sha256_ctx before = ctx;
        const int rc = call();
        EXPECT_EQ(std::pair(rc, memcmp(&before, &ctx, sizeof ctx)), std::pair(want, 0));
    }
    // A buffer holding a whole block is compressed before new bytes join it.
    Bytes msg(70);
    for (size_t i = 0; i < msg.size(); i++) msg[i] = uint8_t(i);
    sha256_init(&ctx);
    std::copy(msg.begin(), msg.begin() + 64, ctx.buffer);
    ctx.fill = 64;
    EXPECT_EQ(in_pieces(zt::slice(msg, 64, 6), {}, ctx), zt::sha256(msg));
}

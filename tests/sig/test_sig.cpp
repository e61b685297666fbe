// The signature scheme: PSS encoding, MGF1 and decoding against OpenSSL and the published
// Wycheproof RSA-PSS vectors (2048 bits, SHA-256, MGF1-SHA-256, salt 32); the verification route
// (word-array exponentiation, then decoding) against them and against OpenSSL's BIGNUM; the RSA
// private-key operation against OpenSSL, with its checks and messages.
#include <gtest/gtest.h>

#include <bit>
#include <ctime>
#ifdef ZIRN_CT_CHECK
#include <valgrind/memcheck.h>
#endif

#include "hexdump.h"
#include "mpi.h"
#include "oracle.h"
#include "rsa.h"
#include "rsa2048.h"
#include "rsa2048_pss.h"

static_assert(std::endian::native == std::endian::little, "words are moved as little-endian bytes");

using zt::Bytes;
using namespace std::string_literals;

namespace {

using Verdict = std::tuple<int32_t, int32_t, std::string>;  // result, verdict, printed

Verdict decode(const Bytes &mhash, const Bytes &em, uint32_t salt_len = 32, uint32_t bits = 2048)
{
    int32_t verdict = 99;
    const auto [rc, out] = zt::printed([&] {
        return pkcs_1_pss_decode_sha256(mhash.data(), uint32_t(mhash.size()), em.data(),
                                        uint32_t(em.size()), salt_len, bits, &verdict);
    });
    return {rc, verdict, out};
}

// {result, output length, output, printed}; with a salt through the unit-internal entry.
auto encode(const Bytes &mhash, uint32_t salt_len, uint32_t bits, const Bytes *salt = nullptr,
            uint32_t cap = 512)
{
    Bytes em(cap, 0xEE);
    uint32_t len = cap, mlen = uint32_t(mhash.size());
    const auto [rc, out] = zt::printed([&] {
        return salt ? s_pkcs_1_pss_encode_sha256(mhash.data(), mlen, salt->data(), salt_len, bits,
                                                 em.data(), &len)
                    : pkcs_1_pss_encode_sha256(mhash.data(), mlen, salt_len, bits, em.data(), &len);
    });
    if (rc == 0) em.resize(len);
    return std::tuple(rc, len, em, out);
}

// The encoded message of a chosen DB and H, masked with OpenSSL's MGF1.
Bytes build_em(Bytes db, const Bytes &h, uint8_t top_mask = 0x7F)
{
    const Bytes mask = zt::mgf1(h, db.size());
    for (size_t i = 0; i < db.size(); i++) db[i] ^= mask[i];
    db[0] &= top_mask;
    db.insert(db.end(), h.begin(), h.end());
    db.push_back(0xBC);
    return db;
}

// The salt inside an encoded message, unmasked with OpenSSL's MGF1.
Bytes salt_of(const Bytes &em, size_t salt_len)
{
    const size_t db_len = em.size() - 33, at = db_len - salt_len;
    const Bytes mask = zt::mgf1(zt::slice(em, db_len, 32), db_len);
    Bytes salt(salt_len);
    for (size_t i = 0; i < salt_len; i++) salt[i] = em[at + i] ^ mask[at + i];
    return salt;
}

// {result, output length, output, printed} of one call with a cap-byte output prefilled with 0xEE.
auto exptmod(const Bytes &in, const Bytes &key, const Bytes &mod, uint32_t cap = 256)
{
    Bytes out(cap, 0xEE);
    uint32_t len = cap;
    const auto [rc, printed] = zt::printed([&] {
        return rsa_exptmod(in.data(), int32_t(in.size()), out.data(), &len, key.data(),
                           int32_t(key.size()), mod.data(), int32_t(mod.size()));
    });
    return std::tuple(rc, len, out, printed);
}
std::string dump(const Bytes &b) { return "0x" + zt::to_hex(b) + "\n"; }
std::string err(const std::string &what, const std::string &call = "pkcs_1_pss_decode_sha256")
{
    return "Error: " + what + " for " + call + " operation\n";
}
Bytes operator+(Bytes b, uint8_t x) { return b.push_back(x), b; }
Bytes padded(Bytes b, size_t len) { return b.insert(b.begin(), len - b.size(), 0), b; }

using Op = std::array<uint32_t, 64>;
zt::Bn bn(const Op &w) { return zt::Bn(BN_lebin2bn((const uint8_t *)w.data(), 256, nullptr)); }
Op words(const BIGNUM *b)
{
    Op w;
    return BN_bn2lebinpad(b, reinterpret_cast<uint8_t *>(w.data()), 256), w;
}
Op random_op(std::mt19937_64 &rng, uint32_t len)  // exactly len significant words
{
    Op a{};
    for (uint32_t i = 0; i < len; i++) a[i] = uint32_t(rng()) | (i + 1 == len);
    return a;
}

// The encoded message the verification route recovers from a signature, as the pipeline runs it:
// signature and modulus as 64 little-endian words, raised to 65537.
Bytes route(const Bytes &sig, const Bytes &n)
{
    Op s = words(zt::bn(sig).get()), m = words(zt::bn(n).get()), r;
    Bytes em(256);
    RSADecryption65537(s.data(), m.data(), r.data());
    return BN_bn2binpad(bn(r).get(), em.data(), 256), em;
}

}  // namespace

// Every case through the verification route; the encoded message of every valid signature is
// also rebuilt by the encoder from its salt.
TEST(Pss, WycheproofVectors)
{
    int valid = 0, invalid = 0;
    const nlohmann::json v = zt::load_vectors("wycheproof_rsa_pss_2048_sha256_mgf1_32_test.json");
    for (const auto &g : v["testGroups"]) {
        Bytes n = zt::from_hex(g["publicKey"]["modulus"]);
        n.erase(n.begin(), n.end() - 256);
        for (const auto &t : g["tests"]) {
            const Bytes sig = zt::from_hex(t["sig"]), digest = zt::sha256(zt::from_hex(t["msg"]));
            if (sig.size() != 256) continue;  // not a 2048-bit number: never reaches the route
            const Bytes em = route(sig, n), salt = salt_of(em, 32);
            const auto [rc, verdict, out] = decode(digest, em);
            if (t["result"] == "valid") {
                valid++;
                const Bytes rebuilt = std::get<2>(encode(digest, 32, 2048, &salt));
                EXPECT_EQ(std::tuple(rc, verdict, rebuilt), std::tuple(0, 1, em)) << t["tcId"];
            } else {
                invalid++;
                EXPECT_NE(verdict, 1) << t["tcId"];
            }
        }
    }
    EXPECT_EQ(std::pair(valid, invalid > 30), std::pair(63, true));
}

// A null pointer: -1 and the call's message, nothing written.
TEST(Sig, NullArgumentsAreRefusedWithTheirMessage)
{
    const zt::RsaKey &key = zt::test_key(0);
    const Bytes h(32, 1);
    Bytes out(256, 0xEE);
    uint32_t len = 256;
    int32_t verdict = 7;
    uint8_t *o = out.data();
    const uint8_t *in = key.n.data(), *d = key.d.data(), *n = key.n.data(), *no = nullptr;
    const auto mgf = pkcs_1_mgf1_sha256;
    const auto enc = pkcs_1_pss_encode_sha256;
    const auto dec = pkcs_1_pss_decode_sha256;
    const std::pair<std::string, std::function<int32_t()>> rows[] = {
        {"pkcs_1_mgf1_sha256", [&] { return mgf(nullptr, 4, o, 4); }},
        {"pkcs_1_mgf1_sha256", [&] { return mgf(in, 4, nullptr, 4); }},
        {"pkcs_1_pss_encode_sha256", [&] { return enc(nullptr, 32, 32, 2048, o, &len); }},
        {"pkcs_1_pss_encode_sha256", [&] { return enc(h.data(), 32, 32, 2048, nullptr, &len); }},
        {"pkcs_1_pss_encode_sha256", [&] { return enc(h.data(), 32, 32, 2048, o, nullptr); }},
        {"pkcs_1_pss_decode_sha256", [&] { return dec(nullptr, 32, in, 256, 32, 2048, &verdict); }},
        {"pkcs_1_pss_decode_sha256", [&] { return dec(h.data(), 32, in, 256, 32, 2048, nullptr); }},
        {"rsa", [&] { return rsa_exptmod(no, 256, o, &len, d, 256, n, 256); }},
        {"rsa", [&] { return rsa_exptmod(in, 256, nullptr, &len, d, 256, n, 256); }},
        {"rsa", [&] { return rsa_exptmod(in, 256, o, nullptr, d, 256, n, 256); }},
        {"rsa", [&] { return rsa_exptmod(in, 256, o, &len, nullptr, 256, n, 256); }},
        {"rsa", [&] { return rsa_exptmod(in, 256, o, &len, d, 256, nullptr, 256); }},
        {"rsa", [&] { return rsa_exptmod(in, 256, o, &len, d, 0, n, 256); }},
        {"rsa", [&] { return rsa_exptmod(in, 256, o, &len, d, 256, n, 0); }},
    };
    for (const auto &[name, call] : rows)
        EXPECT_EQ(zt::printed(call), std::pair(-1, err("wrong input parameter", name)));
    EXPECT_EQ(std::tuple(out, len, verdict), std::tuple(Bytes(256, 0xEE), 256u, 7));
}

// The rows are in tests/vectors/pss_failures.json.
TEST(Pss, EncoderAndDecoderFailures)
{
    const Bytes digest(32, 1);
    const nlohmann::json v = zt::load_vectors("pss_failures.json");
    for (const auto &c : v["encode_failures"]) {
        zt::g_alloc.fail_nth(c["fail_alloc"]);
        const auto [rc, len, em, out] = encode(digest, c["salt"], 2048, nullptr, c["room"]);
        zt::g_alloc.fail_nth(0);
        EXPECT_EQ(std::tuple(rc, len, em, out),
                  std::tuple(c["result"], c["len"], Bytes(size_t(c["room"]), 0xEE), c["printed"]));
    }
    Bytes em(256, 0x3C);
    em.back() = 0xBC;
    for (const auto &c : v["decode_failures"]) {  // the decoder's own buffers, then its mask's
        zt::g_alloc.fail_nth(c["fail_alloc"]);
        const Verdict d = decode(digest, em);
        zt::g_alloc.fail_nth(0);
        EXPECT_EQ(d, Verdict(c["result"], 0, c["printed"]));
    }
    const uint8_t b[] = {0x01, 0xAB, 0x00, 0xFF};  // the dumps that go with the messages
    const auto dumps = [&] { vHexDumpBuf(b, 4), vHexDumpBuf(b, 0), vHexDumpBuf(nullptr, -1); };
    EXPECT_EQ(zt::capture_stdout(dumps), "0x01ab00ff\n0x\n0x\n");
}

// The salt: srand(time), then rand() % 255 per byte.
TEST(Pss, SaltComesFromTheClockSeededGenerator)
{
    const Bytes digest(32, 0x5A);
    Bytes em, again, want(222);
    for (time_t t = 0; t != time(nullptr);) {  // within one second
        t = time(nullptr), em = std::get<2>(encode(digest, 222, 2048));
        again = std::get<2>(encode(digest, 222, 2048));
        srand(unsigned(t));
    }
    for (auto &b : want) b = uint8_t(rand() % 255);
    EXPECT_EQ(std::tuple(salt_of(em, 222), again), std::tuple(want, em));
}

// Each refusal and its message (the rows are in tests/vectors/pss_failures.json).  Which blocks
// match is checked by FuzzCorpus.pss_decode on fuzz/corpus/pss_decode: a block matches exactly
// when the encoder rebuilds it from its salt.
TEST(Pss, DecoderChecksInTheirOrder)
{
    std::mt19937_64 rng(7);
    const Bytes digest = zt::random_bytes(rng, 32), salt = zt::random_bytes(rng, 32);
    Bytes m(8 + 64, 0);  // H = SHA-256(8 zero bytes || mhash || salt)
    std::copy(salt.begin(), salt.end(), std::copy(digest.begin(), digest.end(), m.begin() + 8));
    const Bytes h = zt::sha256(m);
    const auto db = [&] {  // PS (190 bytes) || 0x01 || salt
        Bytes d(223, 0);
        d[190] = 0x01;
        return std::copy(salt.begin(), salt.end(), d.begin() + 191), d;
    };
    const nlohmann::json v = zt::load_vectors("pss_failures.json"), none = nlohmann::json::object();
    for (const auto &c : v["decoder_checks"]) {
        Bytes d = db(), em;
        for (const auto &[at, value] : (c.contains("db") ? c["db"] : none).items())
            d[std::stoul(at)] = value;
        em = build_em(d, h, c.value("top_mask", 0x7F));
        for (const auto &[at, x] : (c.contains("em_xor") ? c["em_xor"] : none).items())
            em[std::stoul(at)] ^= uint8_t(x);
        em.resize(c.value("size", 256));
        EXPECT_EQ(decode(digest, em, c.value("salt_len", 32), c.value("bits", 2048)),
                  Verdict(c["result"], 0, c["printed"])) << c["why"];
    }
}

TEST(RsaExptmod, MatchesOpenSslAndRightAlignsTheResult)
{
    const zt::RsaKey &key = zt::test_key(0);
    std::mt19937_64 rng(0x45a0001);
    Bytes n_minus_1 = key.n, n_plus_1 = key.n;
    n_minus_1.back()--, n_plus_1.back()++;  // n is odd
    const Bytes r255 = zt::random_bytes(rng, 255), r200 = zt::random_bytes(rng, 200);
    for (const Bytes &in : {Bytes(256, 0), {0x01}, n_minus_1, key.n, r255, r200})  // n gives 0
        EXPECT_EQ(exptmod(in, key.d, key.n), std::tuple(0, 256u, zt::modexp(in, key.d, key.n), ""));
    // As long as the modulus as a number, not as given; the checks, messages, nothing written.
    EXPECT_EQ(exptmod({0x02}, key.e, padded(key.n, 257), 258),
              std::tuple(0, 256u, padded(zt::modexp({2}, key.e, key.n), 256) + 0xEE + 0xEE, ""s));
    EXPECT_EQ(exptmod({5}, {3}, {0, 0, 1, 0, 1}, 4), std::tuple(0, 3u, Bytes{0, 0, 125, 0xEE}, ""));
    const std::string smaller = "Error: rsa n is smaller than input data\nRSA N =>\n" + dump(key.n);
    EXPECT_EQ(exptmod(n_plus_1, key.d, key.n),
              std::tuple(-5, 256u, Bytes(256, 0xEE), smaller + "Input Data =>\n" + dump(n_plus_1)));
    EXPECT_EQ(exptmod({0x07}, key.e, key.n, 255),
              std::tuple(-6, 256u, Bytes(255, 0xEE), "Error: incorrect output size (256, 255)\n"s));
}

TEST(RsaExptmod, EveryAllocationFailureHasItsMessage)
{
    const zt::RsaKey &key = zt::test_key(0);
    std::mt19937_64 rng(0x45a0003);
    Bytes in = zt::random_bytes(rng, 256);
    in[0] = 0x01;  // a full-length value below n
    const std::string init_key = "Error: init tmp_key parameter for rsa operation\n";
    const std::string read = "Error: fail to read ";
    const std::string calc = "Error: fail to calculate exponent mod\n";
    for (const Bytes *exp : {&key.e, &key.d}) {
        // Allocations 1-3 set up the three integers; each read of over 128 bytes then grows its
        // integer once; the rest belong to the exponentiation.
        std::vector<std::pair<int32_t, std::string>> steps = {
            {-2, "Error: init tmp parameter for rsa operation\n"}, {-3, init_key}, {-4, init_key},
            {MP_NOMEM, read + "input data =>\n" + dump(in)}};
        if (exp->size() > 128)
            steps.push_back({MP_NOMEM, read + "rsa e/d exponent data =>\n" + dump(*exp)});
        steps.push_back({MP_NOMEM, read + "rsa n data =>\n" + dump(key.n)});
        const uint64_t before = zt::g_alloc.calls;
        ASSERT_EQ(std::get<0>(exptmod(in, *exp, key.n)), 0);
        const uint64_t count = zt::g_alloc.calls - before;
        for (uint64_t n = 1; n <= count; n += n < 12 || exp == &key.e ? 1 : count / 8) {
            const size_t live = zt::g_alloc.held();
            zt::g_alloc.fail_nth(n);
            const auto [rc, len, out, printed] = exptmod(in, *exp, key.n);
            zt::g_alloc.fail_nth(0);
            const auto [code, msg] = n <= steps.size() ? steps[n - 1] : std::pair(MP_NOMEM, calc);
            ASSERT_EQ(std::tuple(rc, printed, out, zt::g_alloc.held()),
                      std::tuple(code, msg, Bytes(256, 0xEE), live)) << n;
        }
    }
}

#ifdef ZIRN_CT_CHECK
// Run under valgrind's memcheck with -DZIRN_CT_CHECK=ON: the private exponent's bytes are marked
// undefined, so every branch, memory index or conditional move that depends on them is reported, up
// to the point where the signature is declassified.
TEST(RsaExptmod, ConstantTimeInThePrivateExponent)
{
    const zt::RsaKey &key = zt::test_key(0);
    Bytes d = key.d, block(256, 0x5A);
    block[0] = 0x12;  // below the modulus
    VALGRIND_MAKE_MEM_UNDEFINED(d.data(), d.size());
    const auto [rc, len, sig, printed] = exptmod(block, d, key.n);
    EXPECT_EQ(std::tuple(rc, zt::modexp(sig, key.e, key.n)), std::tuple(0, block));
}
#endif

// Every modulus length and shape (random, small top word, normalised, top 0x80000000 over
// 0xFFFFFFFF, where the two-word estimate overshoots); the modulus restored.  The rare steps of
// the long division (both corrections, the wrapped estimate, the add-back, a product equal to the
// modulus) are inputs in fuzz/corpus/route, which FuzzCorpus.route checks against mp_exptmod.
TEST(WordRoute, Exponent65537MatchesBignum)
{
    std::mt19937_64 rng(20261123);
    const zt::Bn e = zt::bn({0x01, 0x00, 0x01});
    for (uint32_t n = 1; n <= 64; n++) {
        for (int shape = 0; shape < 4; shape++) {
            Op m = random_op(rng, n), one{1}, below;
            if (shape == 1) m[n - 1] = uint32_t(rng() & 0xFF) | 1;
            if (shape >= 2) m[n - 1] = shape == 2 ? m[n - 1] | 0x80000000u : 0x80000000u;
            if (shape == 3 && n >= 2) m[n - 2] = 0xFFFFFFFFu;
            below = m;
            for (uint32_t i = 0; below[i]-- == 0; i++) {
            }
            for (const Op &base : {random_op(rng, n), random_op(rng, 64), Op{}, one, below, m}) {
                zt::Bn r(BN_new());
                BN_mod_exp(r.get(), bn(base).get(), e.get(), bn(m).get(), zt::bn_ctx());
                Op mod = m, out;
                ASSERT_EQ(RSADecryption65537(base.data(), mod.data(), out.data()), 0u);
                ASSERT_EQ(std::pair(out, mod), std::pair(words(r.get()), m)) << n << "/" << shape;
            }
        }
    }
    Op zero{}, res;
    res.fill(0xA5A5A5A5u);
    RSADecryption65537(random_op(rng, 64).data(), zero.data(), res.data());
    EXPECT_EQ(res, Op{});  // a zero modulus gives 0
}

// Shifts by 0, by bits, by whole words and both, into another array and in place; the bits pushed
// out of a bit shift come back.
TEST(WordRoute, ShiftsMatchBignum)
{
    std::mt19937_64 rng(32);
    for (uint32_t shift : {0u, 1u, 31u, 32u, 33u, 100u}) {
        const Op a = random_op(rng, 64);
        Op l{}, r{}, l_in = a, r_in = a;
        zt::Bn wl(BN_new()), wr(BN_new());
        BN_lshift(wl.get(), bn(a).get(), int(shift));
        const uint32_t out = shift % 32 ? a[63 - shift / 32] >> (32 - shift % 32) : 0;
        BN_mask_bits(wl.get(), 2048);
        BN_rshift(wr.get(), bn(a).get(), int(shift));
        ASSERT_EQ(mpShiftLeft(l.data(), a.data(), shift, 64), out);
        mpShiftLeft(l_in.data(), l_in.data(), shift, 64);
        mpShiftRight(r_in.data(), r_in.data(), shift, 64);
        mpShiftRight(r.data(), a.data(), shift, 64);
        const Op left = words(wl.get()), right = words(wr.get());
        EXPECT_EQ(std::tuple(l, l_in, r, r_in), std::tuple(left, left, right, right)) << shift;
    }
}

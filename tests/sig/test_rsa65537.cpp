// Word-array route of the signature check: single-word primitives against
// 64-bit arithmetic, mpMultiplyMod and RSADecryption65537 against OpenSSL's
// BIGNUM on seeded random and deliberately shaped operands.
#include <gtest/gtest.h>

#include <openssl/bn.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "rsa.h"

static_assert(std::endian::native == std::endian::little, "the tests move words as little-endian bytes");

namespace {

using Words = std::vector<uint32_t>;
using Op = std::array<uint32_t, 64>;

struct BnFree {
    void operator()(BIGNUM *b) const { BN_free(b); }
};
struct CtxFree {
    void operator()(BN_CTX *c) const { BN_CTX_free(c); }
};
using Bn = std::unique_ptr<BIGNUM, BnFree>;
using BnCtx = std::unique_ptr<BN_CTX, CtxFree>;

Bn toBn(const uint32_t *w, size_t n)
{
    return Bn(BN_lebin2bn(reinterpret_cast<const unsigned char *>(w), int(n * 4), nullptr));
}

Op fromBn(const BIGNUM *b)
{
    Op w{};
    EXPECT_LE(BN_num_bytes(b), 256);
    BN_bn2lebinpad(b, reinterpret_cast<unsigned char *>(w.data()), 256);
    return w;
}

uint32_t clz32(uint32_t w) { return w == 0 ? 32 : uint32_t(std::countl_zero(w)); }

// ---------------------------------------------------------------------------
// Reference model of the long division (base 2^32, 64-bit arithmetic).  It
// only counts how often each branch is taken for a given product and modulus,
// so that the operand tables below can show they reach every branch; the
// remainder it computes is checked against OpenSSL to keep the model honest.
struct PathCounts {
    int singleWord = 0;       // modulus of one word
    int shorter = 0;          // fewer product words than modulus words
    int sameLenSmaller = 0;   // same word count, product below modulus
    int equal = 0;            // product equals modulus
    int longDivision = 0;
    int topEqualsDivisor = 0; // quotient estimate overflows (bit 32 set)
    int corrections = 0;      // estimate lowered by the second divisor word
    int addBacks = 0;         // estimate still one too large
};

Words modelRemainder(const Words &prod, const Op &mod, PathCounts &pc)
{
    uint32_t n = 64, p = uint32_t(prod.size());
    while (n > 0 && mod[n - 1] == 0) n--;
    while (p > 0 && prod[p - 1] == 0) p--;
    Words out(64, 0);
    if (n == 0) return out;
    if (n == 1) {
        pc.singleWord++;
        uint64_t r = 0;
        for (uint32_t i = p; i-- > 0;) r = ((r << 32) | prod[i]) % mod[0];
        out[0] = uint32_t(r);
        return out;
    }
    if (p < n) {
        pc.shorter++;
        std::copy(prod.begin(), prod.begin() + p, out.begin());
        return out;
    }
    if (p == n) {
        int cmp = 0;
        for (uint32_t i = n; i-- > 0 && cmp == 0;)
            if (prod[i] != mod[i]) cmp = prod[i] > mod[i] ? 1 : -1;
        if (cmp < 0) {
            pc.sameLenSmaller++;
            std::copy(prod.begin(), prod.begin() + p, out.begin());
            return out;
        }
        if (cmp == 0) {
            pc.equal++;
            return out;
        }
    }
    pc.longDivision++;
    const uint32_t s = clz32(mod[n - 1]);
    Words v(n), u(p + 1);
    for (uint32_t i = 0; i < n; i++)
        v[i] = uint32_t(((uint64_t(mod[i]) << 32 | (i ? mod[i - 1] : 0)) << s) >> 32);
    for (uint32_t i = 0; i <= p; i++) {
        const uint64_t hi = i < p ? prod[i] : 0, lo = i ? prod[i - 1] : 0;
        u[i] = uint32_t(((hi << 32 | lo) << s) >> 32);
    }
    const uint64_t b = 1ull << 32;
    for (uint32_t j = p - n + 1; j-- > 0;) {
        uint64_t qhat, rhat;
        if (u[j + n] >= v[n - 1]) {
            pc.topEqualsDivisor++;
            qhat = b - 1;
            rhat = uint64_t(u[j + n - 1]) + v[n - 1];
        } else {
            const uint64_t num = uint64_t(u[j + n]) << 32 | u[j + n - 1];
            qhat = num / v[n - 1];
            rhat = num % v[n - 1];
        }
        while (rhat < b && qhat * v[n - 2] > (rhat << 32 | u[j + n - 2])) {
            pc.corrections++;
            qhat--;
            rhat += v[n - 1];
        }
        int64_t t = 0, k = 0;
        for (uint32_t i = 0; i < n; i++) {
            const uint64_t pr = qhat * v[i];
            t = int64_t(u[i + j]) - k - int64_t(pr & 0xFFFFFFFFu);
            u[i + j] = uint32_t(t);
            k = int64_t(pr >> 32) - (t >> 32);
        }
        t = int64_t(u[j + n]) - k;
        u[j + n] = uint32_t(t);
        if (t < 0) {
            pc.addBacks++;
            uint64_t c = 0;
            for (uint32_t i = 0; i < n; i++) {
                c += uint64_t(u[i + j]) + v[i];
                u[i + j] = uint32_t(c);
                c >>= 32;
            }
            u[j + n] += uint32_t(c);
        }
    }
    for (uint32_t i = 0; i < n; i++)
        out[i] = uint32_t(((uint64_t(i + 1 < n ? u[i + 1] : 0) << 32 | u[i]) >> s));
    return out;
}

// ---------------------------------------------------------------------------

class WordRoute : public ::testing::Test {
protected:
    std::mt19937 rng{20261122};
    BnCtx ctx{BN_CTX_new()};

    uint32_t word() { return rng(); }

    // A random number of exactly `len` significant words (len 0: zero).
    Op randomOp(uint32_t len)
    {
        Op a{};
        for (uint32_t i = 0; i < len; i++) a[i] = word();
        if (len > 0)
            while (a[len - 1] == 0) a[len - 1] = word();
        return a;
    }

    // Modulus shapes that push the division into different branches.
    Op modulusOfShape(uint32_t n, int shape)
    {
        Op m = randomOp(n);
        switch (shape) {
        case 0:  // uniform
            break;
        case 1:  // large normalisation shift
            m[n - 1] = (word() & 0xFF) | 1;
            break;
        case 2:  // already normalised
            m[n - 1] |= 0x80000000u;
            break;
        case 3:  // smallest normalised top word, largest next word: the
                 // two-word estimate overshoots often
            m[n - 1] = 0x80000000u;
            if (n >= 2) m[n - 2] = 0xFFFFFFFFu;
            break;
        }
        return m;
    }

    Op bnMulMod(const Op &a, const Op &b, const Op &m)
    {
        Bn ba = toBn(a.data(), 64), bb = toBn(b.data(), 64), bm = toBn(m.data(), 64), r(BN_new());
        EXPECT_EQ(BN_mod_mul(r.get(), ba.get(), bb.get(), bm.get(), ctx.get()), 1);
        return fromBn(r.get());
    }

    Words bnProduct(const Op &a, const Op &b)
    {
        Bn ba = toBn(a.data(), 64), bb = toBn(b.data(), 64), r(BN_new());
        EXPECT_EQ(BN_mul(r.get(), ba.get(), bb.get(), ctx.get()), 1);
        Words w(128, 0);
        BN_bn2lebinpad(r.get(), reinterpret_cast<unsigned char *>(w.data()), 512);
        return w;
    }

    // One mpMultiplyMod call checked against OpenSSL (and the model), with
    // the modulus compared bit for bit afterwards.
    void checkMulMod(const Op &a, const Op &b, const Op &m, PathCounts &pc, bool alias)
    {
        const Op expect = bnMulMod(a, b, m);
        Op mod = m;
        uint32_t prod[128], quo[128], rem[128];
        Op res;
        if (alias && a == b) {
            res = a;
            ASSERT_EQ(mpMultiplyMod(res.data(), res.data(), res.data(), mod.data(), prod, quo, rem), 0u);
        } else if (alias) {
            res = a;
            ASSERT_EQ(mpMultiplyMod(res.data(), res.data(), b.data(), mod.data(), prod, quo, rem), 0u);
        } else {
            ASSERT_EQ(mpMultiplyMod(res.data(), a.data(), b.data(), mod.data(), prod, quo, rem), 0u);
        }
        EXPECT_EQ(res, expect);
        EXPECT_EQ(mod, m) << "modulus not restored";
        const Words model = modelRemainder(bnProduct(a, b), m, pc);
        EXPECT_TRUE(std::equal(model.begin(), model.end(), expect.begin())) << "reference model broken";
    }
};

// ---------------------------------------------------------------------------

TEST_F(WordRoute, SpMultiplyMatches64BitProduct)
{
    const uint32_t edges[] = {0, 1, 2, 0xFFFF, 0x10000, 0x1FFFF, 0x8000, 0x80000000u, 0x7FFFFFFF,
                              0xFFFF0000u, 0x0000FFFF, 0xFFFFFFFEu, 0xFFFFFFFFu, 0x12345678};
    std::vector<std::pair<uint32_t, uint32_t>> cases;
    for (uint32_t a : edges)
        for (uint32_t b : edges) cases.emplace_back(a, b);
    for (int i = 0; i < 20000; i++) cases.emplace_back(word(), word());
    for (auto [a, b] : cases) {
        uint32_t r[2] = {0xDEADBEEF, 0xDEADBEEF};
        ASSERT_EQ(spMultiply(r, a, b), 0u);
        const uint64_t e = uint64_t(a) * b;
        ASSERT_EQ(r[0], uint32_t(e)) << a << " * " << b;
        ASSERT_EQ(r[1], uint32_t(e >> 32)) << a << " * " << b;
    }
}

TEST_F(WordRoute, SpDivideMatches64BitDivision)
{
    // Divisors whose halves make the half-digit estimates overshoot, plus
    // random normalised ones; high words below, equal to and above d.
    std::vector<uint32_t> divisors = {0x80000000u, 0x8000FFFFu, 0x80008000u, 0x80010000u,
                                      0xFFFF0000u, 0xFFFFFFFFu, 0x8000FFFEu, 0xC0000001u};
    for (int i = 0; i < 200; i++) divisors.push_back(word() | 0x80000000u);
    int bit32Set = 0, cases = 0;
    for (uint32_t d : divisors) {
        const uint32_t dH = d >> 16;
        std::vector<uint32_t> highs = {0, 1, d - 1, d, d + 1 > d ? d + 1 : d, 0xFFFFFFFFu,
                                       dH << 16, (dH << 16) | 0xFFFF, (dH << 16) | (word() & 0xFFFF)};
        for (int i = 0; i < 40; i++) highs.push_back(word());
        for (uint32_t hi : highs) {
            for (uint32_t lo : {0u, 0xFFFFFFFFu, 0x0000FFFFu, 0xFFFF0000u, word(), word()}) {
                const uint32_t u[2] = {lo, hi};
                uint32_t q = 0xDEADBEEF, r = 0xDEADBEEF;
                const uint32_t flag = spDivide(&q, &r, u, d);
                const uint64_t num = uint64_t(hi) << 32 | lo;
                // The true quotient may need 33 bits: compare its parts.
                const uint64_t eq = hi >= d ? ((uint64_t(hi - d) << 32 | lo) / d) + (1ull << 32) : num / d;
                ASSERT_EQ(q, uint32_t(eq)) << std::hex << hi << ":" << lo << " / " << d;
                ASSERT_EQ(flag, uint32_t(eq >> 32)) << std::hex << hi << ":" << lo << " / " << d;
                ASSERT_EQ(r, uint32_t(num % d)) << std::hex << hi << ":" << lo << " / " << d;
                bit32Set += flag == 1;
                cases++;
            }
        }
    }
    EXPECT_GT(bit32Set, 1000);
    EXPECT_GT(cases, 10000);
}

TEST_F(WordRoute, SpDivideRejectsDivisorWithoutTopBit)
{
    for (uint32_t d : {0u, 1u, 0x7FFFFFFFu, 0x40000000u, 0x0000FFFFu}) {
        const uint32_t u[2] = {5, 0};
        uint32_t q = 7, r = 7;
        EXPECT_EQ(spDivide(&q, &r, u, d), 0xFFFFFFFFu);
        EXPECT_EQ(q, 0u);
        EXPECT_EQ(r, 0u);
    }
}

TEST_F(WordRoute, ShiftsMoveBitsAcrossWords)
{
    for (uint32_t n : {1u, 2u, 3u, 7u, 64u, 128u}) {
        for (uint32_t shift = 0; shift < 70; shift++) {
            Words src(n);
            for (auto &w : src) w = word();
            // Reference: the whole array as a bit string.
            std::vector<int> bits(n * 32);
            for (uint32_t i = 0; i < n * 32; i++) bits[i] = (src[i / 32] >> (i % 32)) & 1;
            Words expL(n, 0), expR(n, 0);
            for (uint32_t i = 0; i < n * 32; i++) {
                if (i >= shift && bits[i - shift]) expL[i / 32] |= 1u << (i % 32);
                if (i + shift < n * 32 && bits[i + shift]) expR[i / 32] |= 1u << (i % 32);
            }
            Words dstL(n), dstR(n), inL = src, inR = src;
            const uint32_t cl = mpShiftLeft(dstL.data(), src.data(), shift, n);
            const uint32_t cr = mpShiftRight(dstR.data(), src.data(), shift, n);
            mpShiftLeft(inL.data(), inL.data(), shift, n);
            mpShiftRight(inR.data(), inR.data(), shift, n);
            ASSERT_EQ(dstL, expL) << "n " << n << " shift " << shift;
            ASSERT_EQ(dstR, expR) << "n " << n << " shift " << shift;
            ASSERT_EQ(inL, expL) << "in place, n " << n << " shift " << shift;
            ASSERT_EQ(inR, expR) << "in place, n " << n << " shift " << shift;
            if (shift < 32) {
                // Carry: what left the top (right-aligned) / bottom (left-aligned).
                const uint32_t top = shift ? src[n - 1] >> (32 - shift) : 0;
                const uint32_t bottom = shift ? src[0] << (32 - shift) : 0;
                ASSERT_EQ(cl, top) << "n " << n << " shift " << shift;
                ASSERT_EQ(cr, bottom) << "n " << n << " shift " << shift;
            }
        }
    }
}

TEST_F(WordRoute, MultiplyModAgreesWithBignumForEveryModulusLength)
{
    PathCounts pc;
    int calls = 0;
    for (uint32_t n = 1; n <= 64; n++) {
        for (int shape = 0; shape < 4; shape++) {
            const Op m = modulusOfShape(n, shape);
            std::vector<std::pair<Op, Op>> ops;
            for (int i = 0; i < 8; i++) ops.emplace_back(randomOp(64), randomOp(64));
            for (int i = 0; i < 8; i++) ops.emplace_back(randomOp(n), randomOp(n));
            ops.emplace_back(randomOp(n), randomOp(1 + word() % n));
            const uint32_t half = (n + 1) / 2;
            ops.emplace_back(randomOp(n / 2), randomOp(n - n / 2 - (n > 1 ? 1 : 0)));
            ops.emplace_back(randomOp(half), randomOp(half));
            for (auto &[a, b] : ops) {
                checkMulMod(a, b, m, pc, false);
                calls++;
            }
            // Squaring and accumulating into the first operand, as the
            // exponentiation does.
            const Op a = randomOp(n);
            checkMulMod(a, a, m, pc, true);
            checkMulMod(a, randomOp(64), m, pc, true);
            calls += 2;
        }
    }
    EXPECT_GT(calls, 5000);
    EXPECT_GT(pc.singleWord, 50);
    EXPECT_GT(pc.longDivision, 4000);
    EXPECT_GT(pc.corrections, 1000);
}

TEST_F(WordRoute, MultiplyModAroundTheModulusLength)
{
    PathCounts pc;
    Op one{};
    one[0] = 1;
    for (uint32_t n = 1; n <= 64; n++) {
        for (int shape = 0; shape < 4; shape++) {
            const Op m = modulusOfShape(n, shape);
            // Product equal to the modulus.
            checkMulMod(m, one, m, pc, false);
            // Same word count, just below.
            Op below = m;
            if (below[0] > 0 || n > 1) {
                for (uint32_t i = 0; i < 64 && below[i]-- == 0; i++) {
                }
                checkMulMod(below, one, m, pc, false);
            }
            // Same word count, just above (when it still fits the words).
            Op above = m;
            if (above[0] != 0xFFFFFFFFu) {
                above[0]++;
                checkMulMod(above, one, m, pc, false);
            }
            // One word longer than the modulus.
            if (n < 64) {
                Op w{};
                w[1] = 1;
                checkMulMod(m, w, m, pc, false);
                checkMulMod(above, w, m, pc, false);
            }
            // Shorter than the modulus.
            if (n > 1) checkMulMod(randomOp(n - 1), one, m, pc, false);
        }
    }
    EXPECT_GT(pc.sameLenSmaller, 100);
    EXPECT_GT(pc.equal, 100);
    EXPECT_GT(pc.shorter, 100);
    EXPECT_GT(pc.singleWord, 4);
}

// Operand pairs built so that the division needs its rarer steps.
TEST_F(WordRoute, MultiplyModCorrectionAndAddBack)
{
    PathCounts pc;
    for (uint32_t n = 2; n <= 64; n++) {
        for (int rep = 0; rep < 6; rep++) {
            // Add-back: with v normalised and V2 its top two words, a
            // product q * V2 * 2^(32(n-2)) gives an estimate of exactly q
            // from the top three words, while the lower words of v make the
            // true quotient q - 1.
            // Lower words all ones make the add-back carry ripple through.
            Op v = randomOp(n);
            v[n - 1] |= 0x80000000u;
            for (uint32_t i = 0; rep % 2 == 1 && i + 2 < n; i++) v[i] = 0xFFFFFFFFu;
            if (n >= 3 && v[0] == 0) v[0] = 1;
            Op a{}, b{};
            a[0] = word() | 0x80000000u;
            b[n - 2] = v[n - 2];
            b[n - 1] = v[n - 1];
            checkMulMod(a, b, v, pc, false);

            // Top word equal to the divisor's: (v - 1) * 2^(32k) for a
            // modulus whose low word is not 0.
            Op vm = modulusOfShape(n, rep % 4);
            if (vm[0] == 0) vm[0] = 1;
            Op vm1 = vm;
            vm1[0]--;
            Op shiftK{};
            shiftK[1 + word() % std::min<uint32_t>(63, 64 - n + 1)] = 1;
            checkMulMod(vm1, shiftK, vm, pc, false);
        }
    }
    EXPECT_GT(pc.addBacks, 100);
    EXPECT_GT(pc.topEqualsDivisor, 100);
    EXPECT_GT(pc.corrections, 100);
}

TEST_F(WordRoute, MultiplyModSingleWordModulus)
{
    PathCounts pc;
    for (uint32_t m0 : {1u, 2u, 3u, 0xFFFFFFFBu, 0x80000000u, 0x7FFFFFFFu, 0x10001u, 0xFFFFFFFFu}) {
        Op m{};
        m[0] = m0;
        for (int i = 0; i < 20; i++) checkMulMod(randomOp(1 + word() % 64), randomOp(1 + word() % 64), m, pc, false);
        checkMulMod(Op{}, randomOp(64), m, pc, false);
    }
    EXPECT_EQ(pc.singleWord, 8 * 21);
}

TEST_F(WordRoute, ZeroModulusGivesZero)
{
    const Op a = randomOp(64), b = randomOp(64);
    Op m{}, res;
    res.fill(0xA5A5A5A5u);
    uint32_t prod[128], quo[128], rem[128];
    mpMultiplyMod(res.data(), a.data(), b.data(), m.data(), prod, quo, rem);
    EXPECT_EQ(res, Op{});
    res.fill(0xA5A5A5A5u);
    EXPECT_EQ(RSADecryption65537(a.data(), m.data(), res.data()), 0u);
    EXPECT_EQ(res, Op{});
    EXPECT_EQ(m, Op{});
}

TEST_F(WordRoute, Exponent65537AgreesWithBignum)
{
    Bn e(BN_new());
    BN_set_word(e.get(), 65537);
    int checked = 0;
    for (uint32_t n = 1; n <= 64; n++) {
        for (int shape : {int(n % 4), int((n + 2) % 4)}) {
            const Op m = modulusOfShape(n, shape);
            Op mMinus1 = m, one{}, zero{};
            for (uint32_t i = 0; i < 64 && mMinus1[i]-- == 0; i++) {
            }
            one[0] = 1;
            // Below the modulus, any 64 words (reduced by the first
            // squaring), and the fixed points 0, 1 and modulus - 1.
            const Op bases[] = {randomOp(n), randomOp(n),  randomOp(n), randomOp(n), randomOp(64),
                                randomOp(64), zero,        one,         mMinus1,     m};
            for (const Op &base : bases) {
                Bn bb = toBn(base.data(), 64), bm = toBn(m.data(), 64), r(BN_new());
                ASSERT_EQ(BN_mod_exp(r.get(), bb.get(), e.get(), bm.get(), ctx.get()), 1);
                Op mod = m, out;
                out.fill(0x5A5A5A5Au);
                ASSERT_EQ(RSADecryption65537(base.data(), mod.data(), out.data()), 0u);
                EXPECT_EQ(out, fromBn(r.get())) << "modulus words " << n;
                EXPECT_EQ(mod, m) << "modulus not restored";
                checked++;
            }
            // Edge values stated outright, independent of the reference.
            Op mod = m, out;
            RSADecryption65537(zero.data(), mod.data(), out.data());
            EXPECT_EQ(out, Op{});
            if (n > 1 || m[0] > 1) {
                RSADecryption65537(one.data(), mod.data(), out.data());
                EXPECT_EQ(out, one);
                RSADecryption65537(mMinus1.data(), mod.data(), out.data());
                EXPECT_EQ(out, mMinus1);
            }
        }
    }
    EXPECT_EQ(checked, 64 * 2 * 10);
}

}  // namespace

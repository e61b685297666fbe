// Differential tests of the big-integer arithmetic against OpenSSL's BIGNUM
// on seeded random signed operands of 1 to 300 digits.
#include <gtest/gtest.h>

#include <random>

#include "mpi.h"
#include "mpi_internal.h"
#include "mpi_test_support.h"

using mt::Bn;
using mt::Mp;

namespace {

struct BnCtx {
    BN_CTX *ctx = BN_CTX_new();
    ~BnCtx() { BN_CTX_free(ctx); }
    operator BN_CTX *() const { return ctx; }
};

Bn bn_new() { return Bn(BN_new()); }

::testing::AssertionResult same(const mp_int *got, const BIGNUM *want)
{
    if (!mt::valid(got)) return mt::valid(got);
    const std::string g = mt::hex(got), w = mt::hex(want);
    if (g != w) return ::testing::AssertionFailure() << "got " << g << "\n want " << w;
    return ::testing::AssertionSuccess();
}

// A working copy with an exact-size array, so growth paths are exercised.
struct Copy {
    mp_int v{};
    explicit Copy(const mp_int *from) { EXPECT_EQ(mp_init_copy(&v, from), MP_OK); }
    ~Copy() { mp_clear(&v); }
    mp_int *operator&() { return &v; }
};

TEST(MpiDiff, AddAndSubInEveryAliasingForm)
{
    std::mt19937_64 rng(0x5eed0001);
    for (int iter = 0; iter < 3000; iter++) {
        Mp a, b;
        mt::random_mp(rng, &a, 1, 300);
        mt::random_mp(rng, &b, 1, 300);
        if (iter % 10 == 0) {  // equal magnitudes, either sign
            ASSERT_EQ(mp_copy(&a, &b), MP_OK);
            if (rng() & 1) b->sign = mp_sign(1 - b->sign);
        }
        const Bn A = mt::to_bn(&a), B = mt::to_bn(&b);
        for (int op = 0; op < 2; op++) {
            auto f = op == 0 ? mp_add : mp_sub;
            auto g = op == 0 ? BN_add : BN_sub;
            Bn ab = bn_new(), aa = bn_new();
            ASSERT_EQ(g(ab.get(), A.get(), B.get()), 1);
            ASSERT_EQ(g(aa.get(), A.get(), A.get()), 1);
            // c separate, c = a, c = b, all three the same, a = b with c apart.
            Mp c1, c5;
            Copy c2(&a), c3(&b), c4(&a);
            ASSERT_EQ(f(&a, &b, &c1), MP_OK);
            ASSERT_EQ(f(&c2, &b, &c2), MP_OK);
            ASSERT_EQ(f(&a, &c3, &c3), MP_OK);
            ASSERT_EQ(f(&c4, &c4, &c4), MP_OK);
            ASSERT_EQ(f(&a, &a, &c5), MP_OK);
            EXPECT_TRUE(same(&c1, ab.get())) << "op " << op;
            EXPECT_TRUE(same(&c2, ab.get())) << "op " << op << ", c = a";
            EXPECT_TRUE(same(&c3, ab.get())) << "op " << op << ", c = b";
            EXPECT_TRUE(same(&c4, aa.get())) << "op " << op << ", a = b = c";
            EXPECT_TRUE(same(&c5, aa.get())) << "op " << op << ", a = b";
        }
        EXPECT_TRUE(same(&a, A.get()));  // operands untouched
        EXPECT_TRUE(same(&b, B.get()));
    }
}

TEST(MpiDiff, MultiplyAndSquare)
{
    std::mt19937_64 rng(0x5eed0002);
    BnCtx ctx;
    for (int iter = 0; iter < 1500; iter++) {
        Mp a, b;
        mt::random_mp(rng, &a, 1, 300);
        mt::random_mp(rng, &b, 1, 300);
        if (iter % 50 == 0) mp_zero(&b);
        Bn A = mt::to_bn(&a), B = mt::to_bn(&b);
        BN_set_negative(A.get(), 0);
        BN_set_negative(B.get(), 0);
        Bn prod = bn_new(), sq = bn_new();
        ASSERT_EQ(BN_mul(prod.get(), A.get(), B.get(), ctx), 1);
        ASSERT_EQ(BN_sqr(sq.get(), A.get(), ctx), 1);

        Copy x(&a);
        ASSERT_EQ(s_mp_mul(&x, &b), MP_OK);
        EXPECT_TRUE(same(&x, prod.get())) << "iter " << iter;
        EXPECT_EQ(x.v.alloc, a->used + b->used);

        Copy y(&a);
        ASSERT_EQ(s_mp_sqr(&y), MP_OK);
        EXPECT_TRUE(same(&y, sq.get())) << "iter " << iter;
        EXPECT_EQ(y.v.alloc, 2 * a->used);

        Copy z(&a);
        ASSERT_EQ(s_mp_mul(&z, &z), MP_OK);
        EXPECT_TRUE(same(&z, sq.get())) << "iter " << iter;
    }
}

// Short operands built from 0, 1, 0x8000, 0xFFFF and random digits, at
// every length where rows of the product and of the square are grouped
// differently or skipped for zero digits.
TEST(MpiDiff, ShortProductsWithExtremeDigits)
{
    std::mt19937_64 rng(0x5eed0008);
    BnCtx ctx;
    auto digits = [&](size_t n) {
        const mp_digit pick[] = {0x0000, 0x0001, 0x8000, 0xFFFF, 0x0000, 0xFFFF};
        mt::Bytes b;
        for (size_t i = 0; i < n; i++) {
            const mp_digit d = rng() % 4 ? pick[rng() % 6] : mp_digit(rng());
            b.push_back(uint8_t(d >> 8));
            b.push_back(uint8_t(d));
        }
        return b;
    };
    for (size_t na = 1; na <= 8; na++) {
        for (size_t nb = 1; nb <= 8; nb++) {
            for (int iter = 0; iter < 150; iter++) {
                Mp a, b;
                mt::set(&a, digits(na));
                mt::set(&b, digits(nb));
                const Bn A = mt::to_bn(&a), B = mt::to_bn(&b);
                Bn prod = bn_new(), sq = bn_new();
                ASSERT_EQ(BN_mul(prod.get(), A.get(), B.get(), ctx), 1);
                ASSERT_EQ(BN_sqr(sq.get(), A.get(), ctx), 1);
                Copy x(&a), y(&a);
                ASSERT_EQ(s_mp_mul(&x, &b), MP_OK);
                EXPECT_TRUE(same(&x, prod.get())) << mt::hex(&a) << " * " << mt::hex(&b);
                ASSERT_EQ(s_mp_sqr(&y), MP_OK);
                EXPECT_TRUE(same(&y, sq.get())) << mt::hex(&a) << " ^ 2";
            }
        }
    }
}

void check_division(const mp_int *a, const mp_int *b, BN_CTX *ctx, const char *what)
{
    const Bn A = mt::to_bn(a), B = mt::to_bn(b);
    Bn q = bn_new(), r = bn_new();
    ASSERT_EQ(BN_div(q.get(), r.get(), A.get(), B.get(), ctx), 1);
    Mp mq, mr;
    ASSERT_EQ(mp_div(a, b, &mq, &mr), MP_OK) << what;
    EXPECT_TRUE(same(&mq, q.get())) << what << " quotient of " << mt::hex(a) << " / " << mt::hex(b);
    EXPECT_TRUE(same(&mr, r.get())) << what << " remainder of " << mt::hex(a) << " / " << mt::hex(b);
    EXPECT_TRUE(same(a, A.get()));
    EXPECT_TRUE(same(b, B.get()));

    // In-place quotient, as the Barrett constant is computed.
    Copy x(a);
    ASSERT_EQ(mp_div(&x, b, &x, nullptr), MP_OK);
    EXPECT_TRUE(same(&x, q.get())) << what;

    if (b->sign == MP_PLUS) {
        Bn nn = bn_new();
        ASSERT_EQ(BN_nnmod(nn.get(), A.get(), B.get(), ctx), 1);
        Mp c;
        ASSERT_EQ(mp_mod(a, b, &c), MP_OK);
        EXPECT_TRUE(same(&c, nn.get())) << what << " residue";
    }
}

TEST(MpiDiff, DivisionAndResidue)
{
    std::mt19937_64 rng(0x5eed0003);
    BnCtx ctx;
    for (int iter = 0; iter < 2000; iter++) {
        Mp a, b;
        mt::random_mp(rng, &a, 1, 600);
        mt::random_mp(rng, &b, 1, 300);
        check_division(&a, &b, ctx, "random");
    }
}

// Divisors and dividends that exercise normalisation, quotient-digit
// corrections and the power-of-two shortcut.
TEST(MpiDiff, LongDivisionEdgeValues)
{
    std::mt19937_64 rng(0x5eed0004);
    BnCtx ctx;
    auto from_digits = [](mp_int *mp, const std::vector<mp_digit> &d, bool neg) {  // most significant first
        mt::Bytes b;
        for (mp_digit x : d) {
            b.push_back(uint8_t(x >> 8));
            b.push_back(uint8_t(x));
        }
        mt::set(mp, b, neg);
    };
    auto rnd_digits = [&](size_t n) {
        std::vector<mp_digit> d(n);
        for (auto &x : d) x = mp_digit(rng());
        return d;
    };

    for (int iter = 0; iter < 300; iter++) {
        // 256-digit dividend, 128-digit divisor with top digit 1 (shift by 15).
        Mp a, b;
        auto bd = rnd_digits(128);
        bd[0] = 1;
        from_digits(&b, bd, rng() & 1);
        auto ad = rnd_digits(256);
        ad[0] |= 1;
        from_digits(&a, ad, rng() & 1);
        check_division(&a, &b, ctx, "top digit 1");
    }
    for (int iter = 0; iter < 300; iter++) {
        // Divisor top digits at the normalisation boundaries, dividends of
        // all-ones or of the divisor's own leading digits, where the
        // two-digit estimate overshoots and must be corrected.
        const size_t n = 1 + rng() % 40;
        auto bd = rnd_digits(n);
        const mp_digit tops[] = {0x8000, 0x7FFF, 0xFFFF, 0x0001, 0x0002, 0x8001};
        bd[0] = tops[rng() % 6];
        if (rng() % 2) for (size_t i = 1; i < n; i++) bd[i] = (rng() & 1) ? 0xFFFF : 0x0000;
        Mp b;
        from_digits(&b, bd, rng() & 1);
        std::vector<mp_digit> ad;
        switch (rng() % 4) {
        case 0: ad.assign(n + rng() % 40, 0xFFFF); break;
        case 1:  // divisor digits repeated: partial remainders share its top digit
            for (size_t rep = 0, reps = 1 + rng() % 4; rep < reps; rep++) ad.insert(ad.end(), bd.begin(), bd.end());
            if (rng() & 1) ad.push_back(mp_digit(rng()));
            break;
        case 2:  // same length and top digit as the divisor, not smaller
            ad = bd;
            if (n > 1) ad[1] = mp_digit(ad[1] | 0x8000);
            else ad[0] = mp_digit(ad[0] | 1);
            break;
        default:
            ad = rnd_digits(n + 1 + rng() % 40);
            ad[0] = bd[0];
            break;
        }
        Mp a;
        from_digits(&a, ad, rng() & 1);
        check_division(&a, &b, ctx, "estimate corrections");
    }
    for (int iter = 0; iter < 300; iter++) {
        // Powers of two against the general path's oracle.
        const unsigned k = unsigned(rng() % 700);
        Mp b, a;
        mt::Bytes bb(k / 8 + 1, 0);
        bb[0] = uint8_t(1u << (k % 8));
        mt::set(&b, bb, rng() & 1);
        ASSERT_EQ(s_mp_ispow2(&b), int(k));
        mt::random_mp(rng, &a, 1, 60);
        check_division(&a, &b, ctx, "power of two");
    }
}

TEST(MpiDiff, BarrettReduction)
{
    std::mt19937_64 rng(0x5eed0005);
    BnCtx ctx;
    for (int iter = 0; iter < 400; iter++) {
        Mp m, x, mu;
        mt::random_mp(rng, &m, 1, 130, false);
        const uint32_t k = m->used;
        mt::random_mp(rng, &x, 1, 2 * k, false);
        const Bn M = mt::to_bn(&m), X = mt::to_bn(&x);
        Bn MU = bn_new(), R = bn_new(), pow = bn_new();
        ASSERT_EQ(BN_lshift(pow.get(), BN_value_one(), int(32 * k)), 1);
        ASSERT_EQ(BN_div(MU.get(), nullptr, pow.get(), M.get(), ctx), 1);
        ASSERT_EQ(BN_mod(R.get(), X.get(), M.get(), ctx), 1);
        mt::Bytes mub(size_t(BN_num_bytes(MU.get())));
        BN_bn2bin(MU.get(), mub.data());
        mt::set(&mu, mub);
        ASSERT_EQ(s_mp_reduce(&x, &m, &mu), MP_OK);
        EXPECT_TRUE(same(&x, R.get())) << "iter " << iter;
    }
}

TEST(MpiDiff, ModularExponentiation)
{
    std::mt19937_64 rng(0x5eed0006);
    BnCtx ctx;
    auto check = [&](const mp_int *a, const mp_int *b, const mp_int *m, const char *what) {
        const Bn A = mt::to_bn(a), B = mt::to_bn(b), M = mt::to_bn(m);
        Bn base = bn_new(), want = bn_new();
        ASSERT_EQ(BN_nnmod(base.get(), A.get(), M.get(), ctx), 1);
        ASSERT_EQ(BN_mod_exp(want.get(), base.get(), B.get(), M.get(), ctx), 1);
        if (BN_is_zero(B.get())) BN_one(want.get());  // x^0 is 1 even modulo 1
        Mp c;
        ASSERT_EQ(mp_exptmod(a, b, m, &c), MP_OK) << what;
        EXPECT_TRUE(same(&c, want.get())) << what << ": " << mt::hex(a) << " ^ " << mt::hex(b) << " mod " << mt::hex(m);
    };
    for (int iter = 0; iter < 1500; iter++) {  // small moduli, exponents of 1 to 4 digits
        Mp a, b, m;
        mt::random_mp(rng, &a, 1, 12);
        mt::random_mp(rng, &b, 1, 4, false);
        mt::random_mp(rng, &m, 1, 8, false);
        check(&a, &b, &m, "small");
    }
    for (int iter = 0; iter < 30; iter++) {  // moduli up to 300 digits, short exponents
        Mp a, b, m;
        mt::random_mp(rng, &a, 1, 300);
        mt::random_mp(rng, &b, 1, 2, false);
        mt::random_mp(rng, &m, 1, 300, false);
        check(&a, &b, &m, "long modulus");
    }
    for (int iter = 0; iter < 3; iter++) {  // 2048-bit modulus and exponent
        Mp a, b, m;
        mt::random_mp(rng, &a, 128, 128);
        mt::random_mp(rng, &b, 128, 128, false);
        mt::random_mp(rng, &m, 128, 128, false);
        check(&a, &b, &m, "2048-bit");
    }
}

TEST(MpiDiff, RsaKeyPairRoundTrip)
{
    const auto &key = mt::test_key();
    std::mt19937_64 rng(0x5eed0007);
    Mp n, e, d;
    mt::set(&n, key.n);
    mt::set(&e, key.e);
    mt::set(&d, key.d);
    for (int iter = 0; iter < 3; iter++) {
        const mt::Bytes msg = mt::random_below_n(rng);
        Mp x, s, back;
        mt::set(&x, msg);
        ASSERT_EQ(mp_exptmod(&x, &d, &n, &s), MP_OK);
        EXPECT_EQ(mt::mag(&s), mt::strip(mt::openssl_raw_private(msg)));
        ASSERT_EQ(mp_exptmod(&s, &e, &n, &back), MP_OK);
        EXPECT_EQ(mt::hex(&back), mt::hex(&x));
        ASSERT_EQ(mp_exptmod(&x, &e, &n, &s), MP_OK);  // and the other way round
        ASSERT_EQ(mp_exptmod(&s, &d, &n, &back), MP_OK);
        EXPECT_EQ(mt::hex(&back), mt::hex(&x));
    }
}

}  // namespace

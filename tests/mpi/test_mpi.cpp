// Big integers: OpenSSL's BIGNUM as the oracle on seeded random operands, the documented cases it
// does not reach, allocation failure at every allocation, precondition aborts; the allocation
// hooks check that every array released was wiped first.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>

#include "mpi_internal.h"
#include "oracle.h"

using zt::Bytes;

namespace {

struct Mp {
    mp_int v{};
    Mp() { EXPECT_EQ(mp_init(&v), MP_OK); }
    explicit Mp(const mp_int *from) { EXPECT_EQ(mp_init_copy(&v, from), MP_OK); }  // exact size
    Mp(const Mp &) = delete;
    ~Mp() { mp_clear(&v); }
    mp_int *operator&() { return &v; }
    mp_int *operator->() { return &v; }
};

void set(mp_int *mp, const Bytes &mag, bool negative = false)
{
    ASSERT_EQ(mp_read_unsigned_bin(mp, mag.data(), int32_t(mag.size())), MP_OK);
    if (negative && !(mp->used == 1 && mp->digits[0] == 0)) mp->sign = MP_MINUS;
}
void set_hex(mp_int *mp, const std::string &hex)  // "-1f00"
{
    const std::string digits = hex.substr(hex[0] == '-');
    set(mp, zt::from_hex(std::string(digits.size() % 2, '0') + digits), hex[0] == '-');
}
Bytes mag(const mp_int *mp)
{
    Bytes b(size_t(mp_unsigned_bin_size(mp)));
    EXPECT_EQ(mp_to_unsigned_bin(mp, b.data()), MP_OK);
    return b;
}
std::string hex(const mp_int *mp)  // "-1f00", "0"
{
    const std::string h = zt::to_hex(mag(mp)), sign = mp->sign == MP_MINUS ? "-" : "";
    return sign + h.substr(std::min(h.find_first_not_of('0'), h.size() - 1));
}
zt::Bn bn(const mp_int *mp) { return zt::bn(mag(mp), mp->sign == MP_MINUS); }
const nlohmann::json &cases()
{
    static const nlohmann::json v = zt::load_vectors("mpi_cases.json");
    return v;
}

// "" when got is a valid record (the invariants every public operation restores) holding want.
std::string same(const mp_int *got, const BIGNUM *want)
{
    bool ok = got->used >= 1 && got->used <= got->alloc &&
              (got->used == 1 || got->digits[got->used - 1] != 0) &&
              !(got->used == 1 && got->digits[0] == 0 && got->sign == MP_MINUS);
    for (uint32_t i = got->used; i < got->alloc; i++) ok = ok && got->digits[i] == 0;
    Bytes w(size_t(std::max(BN_num_bytes(want), 1)));
    BN_bn2binpad(want, w.data(), int(w.size()));
    ok = ok && mag(got) == w && (got->sign == MP_MINUS) == bool(BN_is_negative(want));
    return ok ? "" : "got " + hex(got) + ", want " + zt::to_hex(w);
}

// lo..hi digits, a random sign; some with runs of 0x0000 / 0xFFFF digits, a top digit of 1 or
// 0x8000, or only the digits 0, 1, 0x8000, 0xFFFF: carries, borrows, skipped rows, normalisation.
void random_mp(std::mt19937_64 &rng, mp_int *mp, uint32_t lo, uint32_t hi, bool negative_ok = true)
{
    const unsigned style = unsigned(rng() % 8);
    Bytes b;
    for (uint32_t i = 0, n = lo + uint32_t(rng() % (hi - lo + 1)); i < n; i++) {
        const mp_digit pick[] = {0, 1, 0x8000, 0xFFFF};
        mp_digit d = style == 5 ? pick[rng() % 4] : mp_digit(rng());
        if ((style == 1 || style == 2) && rng() % 3 == 0) d = style == 1 ? 0xFFFF : 0;
        if (i == 0 && (style == 3 || style == 4)) d = style == 3 ? 1 : 0x8000;
        b.insert(b.end(), {uint8_t(d >> 8), uint8_t(d | (i == 0 && d == 0))});  // top digit not 0
    }
    set(mp, b, negative_ok && rng() % 2);
}

}  // namespace

TEST(Mpi, ArithmeticMatchesBignum)
{
    std::mt19937_64 rng(0x5eed0001);
    BN_CTX *ctx = zt::bn_ctx();
    for (int iter = 0; iter < 3000; iter++) {
        Mp a, b;
        random_mp(rng, &a, 1, iter % 3 ? 600 : 16);
        random_mp(rng, &b, 1, iter % 3 ? 300 : 8);
        ASSERT_EQ(iter % 20 ? MP_OK : mp_copy(&a, &b), MP_OK);  // now and then equal magnitudes,
        if (iter % 40 == 0) b->sign = !b->sign;                 // of either sign
        const zt::Bn A = bn(&a), B = bn(&b);
        std::vector<zt::Bn> r;
        for (int i = 0; i < 8; i++) r.emplace_back(BN_new());
        for (auto [f, g] : {std::pair{&mp_add, &BN_add}, {&mp_sub, &BN_sub}}) {
            g(r[0].get(), A.get(), B.get());
            g(r[1].get(), A.get(), A.get());
            Mp c1, c2(&a), c3(&b), c4(&a), c5;  // c apart, c = a, c = b, all one, a = b
            ASSERT_EQ(f(&a, &b, &c1) + f(&c2, &b, &c2) + f(&a, &c3, &c3) + f(&c4, &c4, &c4) +
                          f(&a, &a, &c5), MP_OK);
            ASSERT_EQ(same(&c1, r[0].get()) + same(&c2, r[0].get()) + same(&c3, r[0].get()) +
                          same(&c4, r[1].get()) + same(&c5, r[1].get()), "") << iter;
        }
        BN_mul(r[2].get(), A.get(), B.get(), ctx);
        BN_set_negative(r[2].get(), 0);
        BN_sqr(r[3].get(), A.get(), ctx);
        BN_div(r[4].get(), r[5].get(), A.get(), B.get(), ctx);
        BN_set_negative(B.get(), 0);
        BN_nnmod(r[6].get(), A.get(), B.get(), ctx);
        Mp x(&a), y(&a), z(&a), q, rem, res, in_place(&a), pos(&b);
        pos->sign = MP_PLUS;
        ASSERT_EQ(s_mp_mul(&x, &b) + s_mp_sqr(&y) + s_mp_mul(&z, &z), MP_OK);
        ASSERT_EQ(mp_div(&a, &b, &q, &rem) + mp_div(&in_place, &b, &in_place, nullptr) +
                      mp_mod(&a, &pos, &res), MP_OK);
        ASSERT_EQ(same(&x, r[2].get()) + same(&y, r[3].get()) + same(&z, r[3].get()) +
                      same(&q, r[4].get()) + same(&rem, r[5].get()) + same(&in_place, r[4].get()) +
                      same(&res, r[6].get()) + same(&a, A.get()), "") << iter;
        EXPECT_EQ(std::pair(x->alloc, y->alloc), std::pair(a->used + b->used, 2 * a->used));
    }
}

TEST(Mpi, ExponentiationMatchesBignum)
{
    std::mt19937_64 rng(0x5eed0005);
    for (auto [count, base, exp, mod_lo, mod_hi] : {std::tuple{1500, 12u, 4u, 1u, 8u},
                                                    {40, 300, 2, 1, 300},
                                                    {4, 128, 128, 128, 128}}) {
        for (int iter = 0; iter < count; iter++) {
            Mp a, b, m, c;
            random_mp(rng, &a, 1, base);
            random_mp(rng, &b, 1, exp, false);
            random_mp(rng, &m, mod_lo, mod_hi, false);
            zt::Bn x(BN_new()), want(BN_new());
            BN_nnmod(x.get(), bn(&a).get(), bn(&m).get(), zt::bn_ctx());
            BN_mod_exp(want.get(), x.get(), bn(&b).get(), bn(&m).get(), zt::bn_ctx());
            ASSERT_EQ(mp_exptmod(&a, &b, &m, &c), MP_OK);
            ASSERT_EQ(same(&c, want.get()), "") << hex(&a) << "^" << hex(&b) << " mod " << hex(&m);
        }
    }
}

// mp_mod's documented answers (tests/vectors/mpi_cases.json); mp_div's and mp_exptmod's are in
// fuzz/corpus/mpi.
TEST(Mpi, DocumentedCases)
{
    for (const auto &row : cases()["mod"]) {
        Mp x, y, c;
        set_hex(&x, row[0]), set_hex(&y, row[1]), set_hex(&c, "55");
        const mp_err rc = mp_mod(&x, &y, &c);  // before the result is read
        EXPECT_EQ(std::tuple(rc, hex(&c), c->sign), std::tuple(row[2], row[3], MP_PLUS)) << row;
    }
    for (int which = 0; which < 3; which++) {  // the result may be any operand
        Mp x[3];
        set_hex(&x[0], "123456789abcdef0123"), set_hex(&x[1], "fedcba98765");
        set_hex(&x[2], "f123456789abcdef01234567");
        ASSERT_EQ(mp_exptmod(&x[0], &x[1], &x[2], &x[which]), MP_OK);
        EXPECT_EQ(hex(&x[which]), "9e77eabb45c2d1ca77c33c72") << which;
    }
}

TEST(Mpi, RepresentationAndKernels)
{
    for (const auto &row : cases()["read"]) {
        Mp a;
        set_hex(&a, "-123456789abcdef");  // replaced entirely by the read
        set(&a, zt::from_hex(row[0]));
        EXPECT_EQ(std::tuple(a->used, a->alloc, zt::to_hex(mag(&a)), a->sign),
                  std::tuple(row[1], row[2], row[3], MP_PLUS)) << row;
    }
    for (const auto &row : cases()["kernels"]) {
        Mp src;
        set_hex(&src, row[0]);
        Mp p(&src), s(&src);
        ASSERT_EQ(s_mp_mul_d(&p, row[1]) + s_mp_add_d(&s, row[1]), MP_OK);
        EXPECT_EQ(std::tuple(hex(&p), hex(&s)), std::tuple(row[2], row[3])) << row;
    }
    // Copies: exact size, or into the existing array when large enough; growth in steps of 64.
    Mp a, big, z;
    mp_int small;
    memset(&small, 0xA5, sizeof small);  // a record is set whole, whatever it held
    ASSERT_EQ(mp_init_size(&small, 2), MP_OK);
    EXPECT_EQ(std::tuple(small.used, small.alloc, small.sign, hex(&small)),
              std::tuple(1u, 2u, MP_PLUS, "0"));
    set_hex(&a, "-1000000000000000000000000");
    mp_digit *big_digits = big->digits;
    ASSERT_EQ(mp_copy(&a, &small) + mp_copy(&a, &big) + s_mp_lshd(&z, 2) + s_mp_grow(&a, 65), 0);
    EXPECT_EQ(std::tuple(big->digits, small.alloc, hex(&small), hex(&big), z->used, a->alloc),
              std::tuple(big_digits, 7u, hex(&a), hex(&a), 3u, 128u));
    mp_clear(&small);
    mp_clear(&small);  // harmless twice, and on null
    mp_clear(nullptr), mp_set(nullptr, 1);
    EXPECT_EQ(std::tuple(small.digits, small.used, small.alloc), std::tuple(nullptr, 0u, 0u));
}

namespace {

// Fails each allocation that op makes in turn (with spread > 0: the first eight, then spread more
// across the run): every run must report out of memory, leave the records in keep as they were
// and release what it obtained (the hooks check that everything released was wiped).
void fail_each_allocation(const std::function<mp_err()> &op, const std::vector<mp_int *> &keep,
                          uint64_t spread = 0)
{
    std::deque<Mp> saved;
    for (mp_int *k : keep) saved.emplace_back(k);
    const uint64_t before = zt::g_alloc.calls;
    ASSERT_EQ(op(), MP_OK);
    const uint64_t count = zt::g_alloc.calls - before;
    const uint64_t step = spread ? std::max<uint64_t>(1, count / spread) : 1;  // after the first 8
    for (size_t i = 0; i < keep.size(); i++) ASSERT_EQ(mp_copy(&saved[i].v, keep[i]), MP_OK);
    const auto state = [&] {
        std::vector<std::pair<mp_digit *, std::vector<mp_digit>>> st;
        for (mp_int *k : keep)
            st.emplace_back(k->digits, std::vector<mp_digit>(k->digits, k->digits + k->alloc));
        return std::pair(st, zt::g_alloc.held());
    };
    for (uint64_t n = 1; n <= count; n += n >= 8 ? step : 1) {
        const auto before_run = state();
        zt::g_alloc.fail_nth(n);
        const mp_err res = op();
        zt::g_alloc.fail_nth(0);
        ASSERT_EQ(res, MP_NOMEM) << "allocation " << n << " of " << count;
        ASSERT_TRUE(state() == before_run) << "records changed or arrays leaked, allocation " << n;
    }
}

}  // namespace

TEST(Mpi, EveryAllocationFailureIsClean)
{
    std::mt19937_64 rng(0xa110c001);
    const zt::RsaKey &key = zt::test_key(0);
    Mp a, e, d, n, c, q, r;
    set(&a, zt::random_bytes(rng, 255)), set(&e, key.e), set(&d, key.d), set(&n, key.n);
    set_hex(&c, "-1234567");
    fail_each_allocation([&] { return mp_exptmod(&a, &e, &n, &c); }, {&a, &e, &n, &c});
    fail_each_allocation([&] { return mp_exptmod(&a, &d, &n, &c); }, {&a, &d, &n, &c}, 12);
    for (int iter = 0; iter < 4; iter++) {
        random_mp(rng, &a, 30, 200);  // longer than the modulus, either sign: reduced by division
        random_mp(rng, &e, 2, 3, false);
        random_mp(rng, &n, 10, 60, false);
        n->digits[0] ^= mp_digit(iter % 2 != (n->digits[0] & 1));  // odd and even moduli
        fail_each_allocation([&] { return mp_exptmod(&a, &e, &n, &c); }, {&a, &e, &n, &c});
        fail_each_allocation([&] { return mp_div(&a, &n, &q, &r); }, {&a, &n, &q, &r});
        fail_each_allocation([&] { return mp_mod(&a, &n, &c); }, {&a, &n});
        for (auto f : {mp_add, mp_sub}) {  // the difference is formed in a temporary when c is b
            n->sign = mp_sign(a->sign ^ (f == mp_add));
            fail_each_allocation([&] { return f(&a, &n, &n); }, {&a, &n});
        }
    }
}

// Active in every build type, Release included: a null or empty argument aborts, naming the call.
TEST(MpiDeathTest, PreconditionsAbort)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    uint8_t byte = 1;
    mp_int raw{};
    Mp a;
    const std::pair<std::string, std::function<void()>> cases[] = {
        {"mp_init_size", [&] { mp_init_size(&raw, 0); }},
        {"mp_init_copy", [&] { s_mp_reduce(nullptr, &a, &a); }},
        {"mp_copy", [&] { mp_copy(&a, nullptr); }},
        {"mp_read_unsigned_bin", [&] { mp_read_unsigned_bin(&a, &byte, 0); }},
        {"mp_to_unsigned_bin", [&] { mp_to_unsigned_bin(&a, nullptr); }},
        {"mp_cmp", [&] { mp_cmp(&a, nullptr); }},
        {"mp_add", [&] { mp_add(&a, nullptr, &a); }},
        {"mp_sub", [&] { mp_sub(nullptr, &a, &a); }},
        {"mp_div", [&] { mp_div(&a, nullptr, &a, &a); }},
        {"mp_mod", [&] { mp_mod(&a, &a, nullptr); }},
        {"mp_exptmod", [&] { mp_exptmod(&a, &a, &a, nullptr); }},
    };
    for (const auto &[name, call] : cases) EXPECT_DEATH(call(), name + ": Assertion `");
}

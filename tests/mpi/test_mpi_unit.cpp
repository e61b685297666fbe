// Big-integer module: record sizes, the documented edge cases of every
// operation, the precondition aborts and the wiping of released arrays.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "mpi.h"
#include "mpi_internal.h"
#include "mpi_test_support.h"

using mt::Bytes;
using mt::Mp;

namespace {

std::vector<mp_digit> digits_of(const mp_int *mp) { return std::vector<mp_digit>(mp->digits, mp->digits + mp->used); }

Bytes ramp(size_t n, uint8_t first)
{
    Bytes b(n);
    for (size_t i = 0; i < n; i++) b[i] = uint8_t(first + i);
    return b;
}

TEST(MpiRepr, ReadWriteRoundTrips)
{
    struct Case {
        Bytes in;
        uint32_t used, alloc;
        Bytes out;
    } cases[] = {
        {{0x00}, 1, 64, {0x00}},
        {{0x00, 0x00, 0x01}, 1, 64, {0x01}},
        {{0x01, 0x00, 0x00}, 2, 64, {0x01, 0x00, 0x00}},  // odd size: top digit below 256
        {Bytes(128, 0xFF), 64, 64, Bytes(128, 0xFF)},
        {Bytes(129, 0x11), 65, 128, Bytes(129, 0x11)},
        {ramp(256, 0x80), 128, 128, ramp(256, 0x80)},  // grown from 64 in steps of 64
    };
    for (const auto &c : cases) {
        Mp a;
        mt::set_hex(&a, "-123456789abcdef");  // replaced entirely by the read
        ASSERT_EQ(mp_read_unsigned_bin(&a, c.in.data(), int32_t(c.in.size())), MP_OK);
        EXPECT_TRUE(mt::valid(&a));
        EXPECT_EQ(a->used, c.used);
        EXPECT_EQ(a->alloc, c.alloc);
        ASSERT_EQ(mp_unsigned_bin_size(&a), int32_t(c.out.size()));
        Bytes out(c.out.size() + 1, 0xEE);
        EXPECT_EQ(mp_to_unsigned_bin(&a, out.data()), MP_OK);
        EXPECT_EQ(out, [&] { Bytes b = c.out; b.push_back(0xEE); return b; }());
    }
}

TEST(MpiRepr, SignedComparison)
{
    struct Case {
        const char *a, *b;
        int expected;
    } cases[] = {{"-5", "3", MP_LESS},         {"-5", "-3", MP_LESS},         {"0", "0", MP_EQUAL},
                 {"3", "-5", MP_GREATER},      {"-3", "-5", MP_GREATER},      {"10000", "ffff", MP_GREATER},
                 {"-10000", "-ffff", MP_LESS}, {"1234ffff", "12350000", MP_LESS}, {"-abcdef0123", "-abcdef0123", MP_EQUAL}};
    for (const auto &c : cases) {
        Mp a, b;
        mt::set_hex(&a, c.a);
        mt::set_hex(&b, c.b);
        EXPECT_EQ(mp_cmp(&a, &b), c.expected) << c.a << " vs " << c.b;
    }
}

TEST(MpiRepr, LifecycleSizes)
{
    Mp a;
    EXPECT_EQ(a->alloc, 64u);
    EXPECT_EQ(a->used, 1u);
    EXPECT_EQ(a->sign, MP_PLUS);
    mt::set_hex(&a, "-1000000000000000000000000");  // 7 digits
    mp_int c{}, small{};
    ASSERT_EQ(mp_init_copy(&c, &a), MP_OK);
    EXPECT_EQ(c.alloc, 7u);  // exactly the used digits
    mp_digit *before = c.digits;
    EXPECT_EQ(mp_init_copy(&c, &c), MP_OK);  // same record: nothing happens
    EXPECT_EQ(mp_copy(&c, &c), MP_OK);
    EXPECT_EQ(c.digits, before);

    ASSERT_EQ(mp_init_size(&small, 2), MP_OK);
    ASSERT_EQ(mp_copy(&a, &small), MP_OK);  // too small: a new exact array
    EXPECT_EQ(small.alloc, 7u);
    EXPECT_EQ(mt::hex(&small), "-1000000000000000000000000");
    Mp big;
    mt::set_hex(&big, "ffffffffffffffffffffffffffffffffffffffff");
    mp_digit *big_digits = big->digits;
    ASSERT_EQ(mp_copy(&a, &big), MP_OK);  // large enough: keeps its array, zeroed above
    EXPECT_EQ(big->digits, big_digits);
    EXPECT_TRUE(mt::valid(&big));
    EXPECT_EQ(mt::hex(&big), "-1000000000000000000000000");

    EXPECT_EQ(s_mp_grow(&a, 64), MP_OK);
    EXPECT_EQ(a->alloc, 64u);
    EXPECT_EQ(s_mp_grow(&a, 65), MP_OK);
    EXPECT_EQ(a->alloc, 128u);
    EXPECT_EQ(mt::hex(&a), "-1000000000000000000000000");

    mp_clear(&c);
    EXPECT_EQ(c.digits, nullptr);
    EXPECT_EQ(c.used, 0u);
    EXPECT_EQ(c.alloc, 0u);
    EXPECT_EQ(c.sign, MP_MINUS);  // left as it was
    mp_clear(&c);                 // harmless twice
    mp_clear(nullptr);
    mp_zero(nullptr);
    mp_clear(&small);
}

TEST(MpiRepr, ErrorStrings)
{
    const std::pair<mp_err, const char *> cases[] = {
        {MP_OK, "boolean true"},          {MP_FALSE, "boolean false"},
        {MP_NOMEM, "out of memory"},      {MP_OUT_OF_RANGE, "argument out of range"},
        {MP_BAD_INPUT, "invalid input parameter"}, {MP_UNDEFINED, "result is undefined"},
        {-6, "unknown result code"},      {1, "unknown result code"}};
    for (const auto &[code, text] : cases) EXPECT_STREQ(mp_strerror(code), text) << code;
}

TEST(MpiArith, SignedAddAndSub)
{
    struct Case {
        const char *a, *b, *sum, *diff;
    } cases[] = {{"5", "-5", "0", "a"},     {"-3", "-3", "-6", "0"},      {"3", "5", "8", "-2"},
                 {"-3", "-5", "-8", "2"},   {"3", "-5", "-2", "8"},       {"ffff", "1", "10000", "fffe"},
                 {"-10000", "1", "-ffff", "-10001"}, {"0", "-7", "-7", "7"}, {"0", "0", "0", "0"}};
    for (const auto &c : cases) {
        Mp a, b, r;
        mt::set_hex(&a, c.a);
        mt::set_hex(&b, c.b);
        ASSERT_EQ(mp_add(&a, &b, &r), MP_OK);
        EXPECT_EQ(mt::hex(&r), c.sum) << c.a << " + " << c.b;
        EXPECT_TRUE(mt::valid(&r));  // a zero sum has sign MP_PLUS
        ASSERT_EQ(mp_sub(&a, &b, &r), MP_OK);
        EXPECT_EQ(mt::hex(&r), c.diff) << c.a << " - " << c.b;
        EXPECT_TRUE(mt::valid(&r));
    }
}

TEST(MpiArith, MagnitudeKernels)
{
    Mp a, b;
    mt::set_hex(&a, "ffff");
    mt::set_hex(&b, "1");
    ASSERT_EQ(s_mp_add(&a, &b), MP_OK);
    EXPECT_EQ(digits_of(&a), (std::vector<mp_digit>{0x0000, 0x0001}));
    mt::set_hex(&a, "1");
    mt::set_hex(&b, "2");
    EXPECT_EQ(s_mp_sub(&a, &b), MP_OUT_OF_RANGE);

    const std::pair<const char *, std::vector<mp_digit>> sqrs[] = {
        {"ffff", {0x0001, 0xFFFE}}, {"ffffffff", {0x0001, 0x0000, 0xFFFE, 0xFFFF}}, {"0", {0x0000}}};
    for (const auto &[in, out] : sqrs) {
        mt::set_hex(&a, in);
        const uint32_t used = a->used;
        ASSERT_EQ(s_mp_sqr(&a), MP_OK);
        EXPECT_EQ(digits_of(&a), out) << in;
        EXPECT_EQ(a->alloc, 2 * used);
    }
    mt::set_hex(&a, "-123456789");
    mt::set_hex(&b, "-fedcba");
    ASSERT_EQ(s_mp_mul(&a, &b), MP_OK);
    EXPECT_EQ(mt::hex(&a), "121f9ffff54f58a");
    EXPECT_EQ(a->alloc, 5u);  // the operand sizes' sum
    ASSERT_EQ(s_mp_mul(&a, &a), MP_OK);
    EXPECT_EQ(mt::hex(&a), "1487668227c845125fa46fa116e64");
    EXPECT_EQ(a->alloc, 8u);
}

TEST(MpiArith, SingleDigitOps)
{
    struct Case {
        const char *a;
        mp_digit d;
        const char *prod, *sum;
    } cases[] = {{"0", 5, "0", "5"},
                 {"ffff", 0xFFFF, "fffe0001", "1fffe"},
                 {"1ffff", 0xFFFF, "1fffd0001", "2fffe"},  // only the carry needs the new digit
                 {"ffffffffffff", 1, "ffffffffffff", "1000000000000"},
                 {"123456789", 0, "0", "123456789"}};
    for (const auto &c : cases) {
        Mp src;
        mt::set_hex(&src, c.a);
        for (int op = 0; op < 2; op++) {
            mp_int a{};
            ASSERT_EQ(mp_init_copy(&a, &src), MP_OK);  // an exact array: every carry must grow it
            ASSERT_EQ(op == 0 ? s_mp_mul_d(&a, c.d) : s_mp_add_d(&a, c.d), MP_OK);
            EXPECT_EQ(mt::hex(&a), op == 0 ? c.prod : c.sum) << c.a << (op == 0 ? " * " : " + ") << c.d;
            EXPECT_TRUE(mt::valid(&a));
            mp_clear(&a);
        }
    }
}

TEST(MpiArith, Shifts)
{
    struct Case {
        const char *a;
        mp_digit d;
        const char *mul, *div, *mod;
    } cases[] = {{"8000", 16, "80000000", "0", "8000"},
                 {"8000", 1, "10000", "4000", "0"},
                 {"123456789abc", 40, "123456789abc0000000000", "12", "3456789abc"},
                 {"123456789abc", 0, "123456789abc", "123456789abc", "0"},
                 {"ffffffff", 31, "7fffffff80000000", "1", "7fffffff"},
                 {"ffffffff", 64, "ffffffff0000000000000000", "0", "ffffffff"},
                 {"-12345678", 40, "-123456780000000000", "0", "-12345678"}};
    for (const auto &c : cases) {
        Mp a, b, m;
        mt::set_hex(&a, c.a);
        mt::set_hex(&b, c.a);
        mt::set_hex(&m, c.a);
        ASSERT_EQ(s_mp_mul_2d(&a, c.d), MP_OK);
        s_mp_div_2d(&b, c.d);
        s_mp_mod_2d(&m, c.d);
        EXPECT_EQ(mt::hex(&a), c.mul) << c.a << " << " << c.d;
        EXPECT_EQ(mt::hex(&b), c.div) << c.a << " >> " << c.d;
        EXPECT_EQ(mt::hex(&m), c.mod) << c.a << " mod 2^" << c.d;
        EXPECT_TRUE(mt::valid(&b));  // shifted out entirely: plain zero
    }
    Mp a;
    mt::set_hex(&a, "8000");
    ASSERT_EQ(s_mp_mul_2d(&a, 16), MP_OK);
    EXPECT_EQ(digits_of(&a), (std::vector<mp_digit>{0x0000, 0x8000}));
    Mp z;
    ASSERT_EQ(s_mp_lshd(&z, 2), MP_OK);  // zero shifted by digits is deliberately not clamped
    EXPECT_EQ(digits_of(&z), (std::vector<mp_digit>{0, 0, 0}));
    mt::set_hex(&a, "-123456789abc");
    s_mp_rshd(&a, 1);
    EXPECT_EQ(mt::hex(&a), "-12345678");
    s_mp_rshd(&a, 2);
    EXPECT_TRUE(mt::valid(&a));
    EXPECT_EQ(mt::hex(&a), "0");
}

TEST(MpiDiv, SignedTruncatingDivision)
{
    struct Case {
        const char *a, *b, *q, *r;
    } cases[] = {{"7", "-2", "-3", "1"},  {"-7", "2", "-3", "-1"}, {"-7", "-2", "3", "-1"}, {"5", "5", "1", "0"},
                 {"-5", "5", "-1", "0"},  {"3", "10", "0", "3"},   {"-3", "10", "0", "-3"}, {"-14", "5", "-4", "0"},
                 {"-123456789abcdef", "10000", "-123456789ab", "-cdef"},
                 {"100000000000000000000", "1ffff", "8000400020001000", "1000"}};
    for (const auto &c : cases) {
        Mp a, b, q, r, q2, r2;
        mt::set_hex(&a, c.a);
        mt::set_hex(&b, c.b);
        ASSERT_EQ(mp_div(&a, &b, &q, &r), MP_OK);
        ASSERT_EQ(mp_div(&a, &b, &q2, nullptr), MP_OK);
        ASSERT_EQ(mp_div(&a, &b, nullptr, &r2), MP_OK);
        for (const mp_int *x : {&q.v, &q2.v}) EXPECT_EQ(mt::hex(x), c.q) << c.a << " / " << c.b;
        for (const mp_int *x : {&r.v, &r2.v}) EXPECT_EQ(mt::hex(x), c.r) << c.a << " % " << c.b;
        EXPECT_TRUE(mt::valid(&q));
        EXPECT_TRUE(mt::valid(&r));
    }
    Mp a, z, q, r;  // by zero: nothing written
    mt::set_hex(&a, "1234");
    mt::set_hex(&q, "77");
    mt::set_hex(&r, "-88");
    EXPECT_EQ(mp_div(&a, &z, &q, &r), MP_OUT_OF_RANGE);
    EXPECT_EQ(mt::hex(&q), "77");
    EXPECT_EQ(mt::hex(&r), "-88");
}

TEST(MpiDiv, NonNegativeResidue)
{
    struct Case {
        const char *a, *m;
        mp_err res;
        const char *c;
    } cases[] = {{"-7", "3", MP_OK, "2"}, {"7", "-3", MP_OUT_OF_RANGE, "55"}, {"0", "0", MP_OK, "0"},
                 {"5", "0", MP_OUT_OF_RANGE, "55"}, {"-3", "3", MP_OK, "0"}, {"-2", "3", MP_OK, "1"},
                 {"-6", "3", MP_OK, "0"}, {"-10000", "ffff", MP_OK, "fffe"}};
    for (const auto &c : cases) {
        Mp a, m, r;
        mt::set_hex(&a, c.a);
        mt::set_hex(&m, c.m);
        mt::set_hex(&r, "55");
        EXPECT_EQ(mp_mod(&a, &m, &r), c.res) << c.a << " mod " << c.m;
        EXPECT_EQ(mt::hex(&r), c.c) << c.a << " mod " << c.m;
        EXPECT_TRUE(mt::valid(&r));
    }
}

TEST(MpiDiv, PowerOfTwoDivisorAndNormalisation)
{
    // x / 65536 by the shortcut against 3x / (3 * 65536) by long division.
    Mp x, x3, p, p3, q1, r1, q2, r2;
    mt::set_hex(&x, "-fedcba9876543210fedcba9876543210f");
    mt::set_hex(&x3, "-2fc962fc962fc9632fc962fc962fc9632d");
    mt::set_hex(&p, "10000");
    mt::set_hex(&p3, "30000");
    EXPECT_EQ(s_mp_ispow2(&p), 16);
    EXPECT_EQ(s_mp_ispow2(&p3), -1);
    ASSERT_EQ(mp_div(&x, &p, &q1, &r1), MP_OK);
    ASSERT_EQ(mp_div(&x3, &p3, &q2, &r2), MP_OK);
    EXPECT_EQ(mt::hex(&q1), mt::hex(&q2));
    EXPECT_EQ(mt::hex(&r1), "-210f");
    EXPECT_EQ(mt::hex(&r2), "-632d");

    const std::pair<const char *, int> norms[] = {{"1", 15}, {"8000", 0}, {"7fff0000", 1}, {"10000ffff", 15}};
    for (const auto &[b_hex, shift] : norms) {
        Mp a, b;
        mt::set_hex(&a, "123");
        mt::set_hex(&b, b_hex);
        EXPECT_EQ(s_mp_norm(&a, &b), shift) << b_hex;
        EXPECT_EQ(mt::hex(&a), shift == 15 ? "918000" : shift == 1 ? "246" : "123");
    }
}

TEST(MpiExptmod, EdgeCases)
{
    struct Case {
        const char *a, *b, *m;
        mp_err res;
        const char *c;
    } cases[] = {{"5", "0", "7", MP_OK, "1"},
                 {"5", "0", "1", MP_OK, "1"},  // the start value is never reduced
                 {"0", "5", "7", MP_OK, "0"},
                 {"1234567", "1", "1", MP_OK, "0"},
                 {"2", "10000", "3", MP_OK, "1"},
                 {"-5", "3", "7", MP_OK, "1"},  // (-5)^3 = -125 = 1 mod 7
                 {"4", "d", "1f1", MP_OK, "1bd"},
                 {"123", "-1", "7", MP_OUT_OF_RANGE, "55"},
                 {"123", "1", "-7", MP_OUT_OF_RANGE, "55"},
                 {"123", "1", "0", MP_OUT_OF_RANGE, "55"}};
    for (const auto &c : cases) {
        Mp a, b, m, r;
        mt::set_hex(&a, c.a);
        mt::set_hex(&b, c.b);
        mt::set_hex(&m, c.m);
        mt::set_hex(&r, "55");
        EXPECT_EQ(mp_exptmod(&a, &b, &m, &r), c.res) << c.a << "^" << c.b << " mod " << c.m;
        EXPECT_EQ(mt::hex(&r), c.c) << c.a << "^" << c.b << " mod " << c.m;
        EXPECT_EQ(mt::hex(&a), c.a);
    }
    // The result may be the base, the exponent or the modulus.
    const char *A = "123456789abcdef0123", *B = "fedcba98765", *M = "f123456789abcdef01234567";
    std::string expected;
    for (int which = -1; which < 3; which++) {
        Mp x, y, z, r;
        mt::set_hex(&x, A);
        mt::set_hex(&y, B);
        mt::set_hex(&z, M);
        mp_int *c = which == 0 ? &x : which == 1 ? &y : which == 2 ? &z : &r;
        ASSERT_EQ(mp_exptmod(&x, &y, &z, c), MP_OK);
        if (which < 0) expected = mt::hex(c);
        EXPECT_EQ(mt::hex(c), expected) << which;
    }
}

std::string escape_regex(const std::string &s)
{
    std::string out;
    for (char c : s) {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
        out += c;
    }
    return out;
}

// Active in every build type, including Release with NDEBUG.
TEST(MpiDeathTest, PreconditionsAbortWithTheConditionText)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char *init = "mp != ((void *)0) && prec > 0", *copy = "mp != ((void *)0) && from != ((void *)0)",
               *read = "mp != ((void *)0) && str != ((void *)0) && len > 0",
               *abc = "a != ((void *)0) && b != ((void *)0) && c != ((void *)0)";
    uint8_t byte = 1;
    mp_int raw{};
    Mp a;
    struct Case {
        const char *func, *cond;
        std::function<void()> call;
    } cases[] = {
        {"mp_init_size", init, [] { mp_init(nullptr); }},  // reported under mp_init_size
        {"mp_init_size", init, [&] { mp_init_size(&raw, 0); }},
        {"mp_init_copy", copy, [&] { mp_init_copy(nullptr, &a); }},
        {"mp_init_copy", copy, [&] { mp_init_copy(&raw, nullptr); }},
        {"mp_copy", "from != ((void *)0) && to != ((void *)0)", [&] { mp_copy(&a, nullptr); }},
        {"mp_read_unsigned_bin", read, [&] { mp_read_unsigned_bin(&a, nullptr, 1); }},
        {"mp_read_unsigned_bin", read, [&] { mp_read_unsigned_bin(&a, &byte, 0); }},
        {"mp_unsigned_bin_size", "mp != ((void *)0)", [] { mp_unsigned_bin_size(nullptr); }},
        {"mp_to_unsigned_bin", "mp != ((void *)0) && str != ((void *)0)", [&] { mp_to_unsigned_bin(&a, nullptr); }},
        {"mp_cmp", "a != ((void *)0) && b != ((void *)0)", [&] { mp_cmp(&a, nullptr); }},
        {"mp_add", abc, [&] { mp_add(&a, &a, nullptr); }},
        {"mp_sub", abc, [&] { mp_sub(nullptr, &a, &a); }},
        {"mp_div", "a != ((void *)0) && b != ((void *)0)", [&] { mp_div(&a, nullptr, &a, &a); }},
        {"mp_mod", "a != ((void *)0) && m != ((void *)0) && c != ((void *)0)", [&] { mp_mod(&a, &a, nullptr); }},
        {"mp_exptmod", abc, [&] { mp_exptmod(nullptr, &a, &a, &a); }},
        {"mp_exptmod", abc, [&] { mp_exptmod(&a, &a, &a, nullptr); }},
        {"mp_init_copy", copy, [&] { s_mp_reduce(nullptr, &a, &a); }},
    };
    for (const auto &c : cases) {
        EXPECT_DEATH(c.call(), escape_regex(std::string(c.func) + ": Assertion `" + c.cond + "' failed"))
            << c.func << ": " << c.cond;
    }
}

int64_t g_released = 0, g_dirty = 0;

void check_wiped(const mp_digit *d, uint32_t n)
{
    g_released++;
    for (uint32_t i = 0; i < n; i++) {
        if (d[i]) {
            g_dirty++;
            return;
        }
    }
}

// The release path calls an observer the compiler cannot see through
// before free(), so the zeroing stores cannot be dropped as dead; the
// observer checks them.
TEST(MpiWipe, EveryReleasedArrayIsZero)
{
    g_released = g_dirty = 0;
    s_mp_set_release_probe(check_wiped);
    {
        Mp a, b, m, q, r;
        mt::set_hex(&a, "-f123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef");
        mt::set_hex(&b, "fedcba9876543210fedcba9876543210fedcba");
        mt::set_hex(&m, "d0000000000000000000000000000000000000000000000000000000000000001");
        ASSERT_EQ(mp_exptmod(&a, &b, &m, &r), MP_OK);
        ASSERT_EQ(mp_div(&a, &b, &q, &r), MP_OK);
        ASSERT_EQ(mp_sub(&b, &a, &a), MP_OK);
        ASSERT_EQ(s_mp_grow(&b, 1000), MP_OK);
    }
    s_mp_set_release_probe(nullptr);
    EXPECT_GT(g_released, 10);
    EXPECT_EQ(g_dirty, 0);
}

}  // namespace

// Big-integer module: representation, the documented edge cases of every
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

// --- Representation and conversion ------------------------------------------

TEST(MpiRepr, FreshIntegerIsZeroWithDefaultPrecision)
{
    Mp a;
    EXPECT_EQ(a->alloc, 64u);
    EXPECT_EQ(a->used, 1u);
    EXPECT_EQ(a->sign, MP_PLUS);
    for (uint32_t i = 0; i < a->alloc; i++) EXPECT_EQ(a->digits[i], 0) << i;
    mp_int b{};
    ASSERT_EQ(mp_init_size(&b, 3), MP_OK);
    EXPECT_EQ(b.alloc, 3u);
    EXPECT_EQ(b.used, 1u);
    mp_clear(&b);
}

TEST(MpiRepr, ReadWriteRoundTrips)
{
    struct Case {
        Bytes in;
        uint32_t used, alloc;
        int32_t size;
        Bytes out;
    } cases[] = {
        {{0x00}, 1, 64, 1, {0x00}},
        {{0x00, 0x00, 0x01}, 1, 64, 1, {0x01}},
        {{0x01, 0x00, 0x00}, 2, 64, 3, {0x01, 0x00, 0x00}},
        {{0xAB, 0xCD}, 1, 64, 2, {0xAB, 0xCD}},
        {Bytes(128, 0xFF), 64, 64, 128, Bytes(128, 0xFF)},
        {[] { Bytes b(129, 0x11); return b; }(), 65, 128, 129, Bytes(129, 0x11)},
        {[] { Bytes b(256); for (size_t i = 0; i < 256; i++) b[i] = uint8_t(0x80 + i); return b; }(), 128, 128, 256,
         [] { Bytes b(256); for (size_t i = 0; i < 256; i++) b[i] = uint8_t(0x80 + i); return b; }()},
    };
    for (const auto &c : cases) {
        Mp a;
        ASSERT_EQ(mp_read_unsigned_bin(&a, c.in.data(), int32_t(c.in.size())), MP_OK);
        EXPECT_TRUE(mt::valid(&a));
        EXPECT_EQ(a->used, c.used);
        EXPECT_EQ(a->alloc, c.alloc);
        EXPECT_EQ(a->sign, MP_PLUS);
        ASSERT_EQ(mp_unsigned_bin_size(&a), c.size);
        Bytes out(size_t(c.size) + 1, 0xEE);
        EXPECT_EQ(mp_to_unsigned_bin(&a, out.data()), MP_OK);
        EXPECT_EQ(out.back(), 0xEE) << "wrote past its size";
        out.pop_back();
        EXPECT_EQ(out, c.out);
    }
}

TEST(MpiRepr, ReadingReplacesThePreviousValue)
{
    Mp a;
    mt::set_hex(&a, "-123456789abcdef0123456789");
    const uint8_t one = 7;
    ASSERT_EQ(mp_read_unsigned_bin(&a, &one, 1), MP_OK);
    EXPECT_EQ(mt::hex(&a), "7");
    EXPECT_TRUE(mt::valid(&a));
}

TEST(MpiRepr, SignedComparison)
{
    struct Case {
        const char *a, *b;
        int expected;
    } cases[] = {
        {"-5", "3", MP_LESS},         {"-5", "-3", MP_LESS},      {"0", "0", MP_EQUAL},
        {"3", "-5", MP_GREATER},      {"5", "3", MP_GREATER},     {"-3", "-5", MP_GREATER},
        {"10000", "ffff", MP_GREATER}, {"-10000", "-ffff", MP_LESS}, {"1234ffff", "12350000", MP_LESS},
        {"-abcdef0123", "-abcdef0123", MP_EQUAL},
    };
    for (const auto &c : cases) {
        Mp a, b;
        mt::set_hex(&a, c.a);
        mt::set_hex(&b, c.b);
        EXPECT_EQ(mp_cmp(&a, &b), c.expected) << c.a << " vs " << c.b;
    }
}

TEST(MpiRepr, CopyAndInitCopySizes)
{
    Mp a;
    mt::set_hex(&a, "-1000000000000000000000000");  // 7 digits
    mp_int c{};
    ASSERT_EQ(mp_init_copy(&c, &a), MP_OK);
    EXPECT_EQ(c.alloc, 7u);
    EXPECT_EQ(c.used, 7u);
    EXPECT_EQ(mt::hex(&c), "-1000000000000000000000000");

    // Same record: nothing happens.
    mp_digit *before = c.digits;
    EXPECT_EQ(mp_init_copy(&c, &c), MP_OK);
    EXPECT_EQ(c.digits, before);
    EXPECT_EQ(mp_copy(&c, &c), MP_OK);
    EXPECT_EQ(c.digits, before);

    // Too small a target gets an exact new array; a large one keeps its own.
    mp_int small{};
    ASSERT_EQ(mp_init_size(&small, 2), MP_OK);
    ASSERT_EQ(mp_copy(&a, &small), MP_OK);
    EXPECT_EQ(small.alloc, 7u);
    EXPECT_EQ(mt::hex(&small), "-1000000000000000000000000");
    Mp big;
    mt::set_hex(&big, "ffffffffffffffffffffffffffffffffffffffff");
    mp_digit *big_digits = big->digits;
    ASSERT_EQ(mp_copy(&a, &big), MP_OK);
    EXPECT_EQ(big->digits, big_digits);
    EXPECT_EQ(big->alloc, 64u);
    EXPECT_TRUE(mt::valid(&big));
    EXPECT_EQ(mt::hex(&big), "-1000000000000000000000000");
    mp_clear(&small);
    mp_clear(&c);
}

TEST(MpiRepr, GrowRoundsToDefaultPrecision)
{
    Mp a;
    mt::set_hex(&a, "123456789");
    mp_digit *d = a->digits;
    EXPECT_EQ(s_mp_grow(&a, 64), MP_OK);
    EXPECT_EQ(a->digits, d);
    EXPECT_EQ(a->alloc, 64u);
    EXPECT_EQ(s_mp_grow(&a, 65), MP_OK);
    EXPECT_EQ(a->alloc, 128u);
    EXPECT_EQ(s_mp_grow(&a, 129), MP_OK);
    EXPECT_EQ(a->alloc, 192u);
    EXPECT_EQ(mt::hex(&a), "123456789");
    EXPECT_TRUE(mt::valid(&a));
}

TEST(MpiRepr, ClearIsIdempotentAndKeepsSign)
{
    mp_int a{};
    ASSERT_EQ(mp_init(&a), MP_OK);
    a.sign = MP_MINUS;
    mp_clear(&a);
    EXPECT_EQ(a.digits, nullptr);
    EXPECT_EQ(a.used, 0u);
    EXPECT_EQ(a.alloc, 0u);
    EXPECT_EQ(a.sign, MP_MINUS);
    mp_clear(&a);
    mp_clear(nullptr);
    mp_zero(nullptr);
    mp_set(nullptr, 1);
    EXPECT_EQ(a.digits, nullptr);
}

TEST(MpiRepr, ErrorStrings)
{
    struct Case {
        mp_err code;
        const char *text;
    } cases[] = {
        {MP_OK, "boolean true"},
        {MP_FALSE, "boolean false"},
        {MP_NOMEM, "out of memory"},
        {MP_OUT_OF_RANGE, "argument out of range"},
        {MP_BAD_INPUT, "invalid input parameter"},
        {MP_UNDEFINED, "result is undefined"},
        {-6, "unknown result code"},
        {1, "unknown result code"},
        {INT32_MIN, "unknown result code"},
    };
    for (const auto &c : cases) EXPECT_STREQ(mp_strerror(c.code), c.text) << c.code;
}

// --- Addition, subtraction, multiplication and shifts --------------------------

TEST(MpiArith, SignedAddAndSub)
{
    struct Case {
        const char *a, *b, *sum, *diff;
    } cases[] = {
        {"5", "-5", "0", "a"},
        {"-3", "-3", "-6", "0"},
        {"3", "5", "8", "-2"},
        {"-3", "-5", "-8", "2"},
        {"3", "-5", "-2", "8"},
        {"ffff", "1", "10000", "fffe"},
        {"-10000", "1", "-ffff", "-10001"},
        {"0", "-7", "-7", "7"},
        {"0", "0", "0", "0"},
    };
    for (const auto &c : cases) {
        Mp a, b, r;
        mt::set_hex(&a, c.a);
        mt::set_hex(&b, c.b);
        ASSERT_EQ(mp_add(&a, &b, &r), MP_OK);
        EXPECT_EQ(mt::hex(&r), c.sum) << c.a << " + " << c.b;
        EXPECT_TRUE(mt::valid(&r));
        ASSERT_EQ(mp_sub(&a, &b, &r), MP_OK);
        EXPECT_EQ(mt::hex(&r), c.diff) << c.a << " - " << c.b;
        EXPECT_TRUE(mt::valid(&r));
    }
}

TEST(MpiArith, MagnitudeKernels)
{
    {
        Mp a, b;
        mt::set_hex(&a, "ffff");
        mt::set_hex(&b, "1");
        ASSERT_EQ(s_mp_add(&a, &b), MP_OK);
        EXPECT_EQ(digits_of(&a), (std::vector<mp_digit>{0x0000, 0x0001}));
    }
    {
        Mp a, b;
        mt::set_hex(&a, "1");
        mt::set_hex(&b, "2");
        EXPECT_EQ(s_mp_sub(&a, &b), MP_OUT_OF_RANGE);
    }
    struct Sqr {
        const char *in;
        std::vector<mp_digit> out;
    } sqrs[] = {
        {"ffff", {0x0001, 0xFFFE}},
        {"ffffffff", {0x0001, 0x0000, 0xFFFE, 0xFFFF}},
        {"0", {0x0000}},
    };
    for (const auto &c : sqrs) {
        Mp a;
        mt::set_hex(&a, c.in);
        const uint32_t used = a->used;
        ASSERT_EQ(s_mp_sqr(&a), MP_OK);
        EXPECT_EQ(digits_of(&a), c.out) << c.in;
        EXPECT_EQ(a->alloc, 2 * used);
    }
    {
        Mp a, b;
        mt::set_hex(&a, "-123456789");
        mt::set_hex(&b, "-fedcba");
        ASSERT_EQ(s_mp_mul(&a, &b), MP_OK);
        EXPECT_EQ(mt::hex(&a), "121f9ffff54f58a");
        EXPECT_EQ(a->alloc, 5u);
        EXPECT_EQ(a->sign, MP_PLUS);
        ASSERT_EQ(s_mp_mul(&a, &a), MP_OK);  // b may be a itself
        EXPECT_EQ(mt::hex(&a), "1487668227c845125fa46fa116e64");
        EXPECT_EQ(a->alloc, 8u);
    }
}

TEST(MpiArith, SingleDigitOps)
{
    struct Case {
        const char *a;
        mp_digit d;
        const char *prod, *sum;
    } cases[] = {
        {"0", 5, "0", "5"},
        {"ffff", 0xFFFF, "fffe0001", "1fffe"},
        {"1ffff", 0xFFFF, "1fffd0001", "2fffe"},  // the carry alone needs a new digit
        {"ffffffffffff", 1, "ffffffffffff", "1000000000000"},
        {"123456789", 0, "0", "123456789"},
    };
    for (const auto &c : cases) {
        mp_int a{}, src{};
        ASSERT_EQ(mp_init(&src), MP_OK);  // a gets an exact array from src
        mt::set_hex(&src, c.a);
        ASSERT_EQ(mp_init_copy(&a, &src), MP_OK);
        ASSERT_EQ(s_mp_mul_d(&a, c.d), MP_OK);
        EXPECT_EQ(mt::hex(&a), c.prod) << c.a << " * " << c.d;
        EXPECT_TRUE(mt::valid(&a));
        mp_clear(&a);
        ASSERT_EQ(mp_init_copy(&a, &src), MP_OK);
        ASSERT_EQ(s_mp_add_d(&a, c.d), MP_OK);
        EXPECT_EQ(mt::hex(&a), c.sum) << c.a << " + " << c.d;
        EXPECT_TRUE(mt::valid(&a));
        mp_clear(&a);
        mp_clear(&src);
    }
}

TEST(MpiArith, Shifts)
{
    struct Case {
        const char *a;
        mp_digit d;
        const char *mul, *div, *mod;
    } cases[] = {
        {"8000", 16, "80000000", "0", "8000"},
        {"8000", 1, "10000", "4000", "0"},
        {"123456789abc", 40, "123456789abc0000000000", "12", "3456789abc"},
        {"123456789abc", 0, "123456789abc", "123456789abc", "0"},
        {"ffffffff", 31, "7fffffff80000000", "1", "7fffffff"},
        {"ffffffff", 64, "ffffffff0000000000000000", "0", "ffffffff"},
        {"1", 17, "20000", "0", "1"},
    };
    for (const auto &c : cases) {
        Mp a, b, m;
        mt::set_hex(&a, c.a);
        mt::set_hex(&b, c.a);
        mt::set_hex(&m, c.a);
        ASSERT_EQ(s_mp_mul_2d(&a, c.d), MP_OK);
        EXPECT_EQ(mt::hex(&a), c.mul) << c.a << " << " << c.d;
        s_mp_div_2d(&b, c.d);
        EXPECT_EQ(mt::hex(&b), c.div) << c.a << " >> " << c.d;
        s_mp_mod_2d(&m, c.d);
        EXPECT_EQ(mt::hex(&m), c.mod) << c.a << " mod 2^" << c.d;
        EXPECT_TRUE(mt::valid(&a));
        EXPECT_TRUE(mt::valid(&b));
        EXPECT_TRUE(mt::valid(&m));
    }
    {
        Mp a;
        mt::set_hex(&a, "8000");
        ASSERT_EQ(s_mp_mul_2d(&a, 16), MP_OK);
        EXPECT_EQ(digits_of(&a), (std::vector<mp_digit>{0x0000, 0x8000}));
        mt::set_hex(&a, "8000");
        ASSERT_EQ(s_mp_mul_2d(&a, 1), MP_OK);
        EXPECT_EQ(digits_of(&a), (std::vector<mp_digit>{0x0000, 0x0001}));
    }
    {
        Mp a;  // a negative value shifted out entirely becomes a plain zero
        mt::set_hex(&a, "-12345678");
        s_mp_div_2d(&a, 40);
        EXPECT_EQ(a->used, 1u);
        EXPECT_EQ(a->digits[0], 0);
        EXPECT_EQ(a->sign, MP_PLUS);
    }
    {
        Mp z;  // shifting zero by digits is deliberately not clamped
        ASSERT_EQ(s_mp_lshd(&z, 2), MP_OK);
        EXPECT_EQ(digits_of(&z), (std::vector<mp_digit>{0, 0, 0}));
        Mp a;
        mt::set_hex(&a, "-123456789abc");
        s_mp_rshd(&a, 1);
        EXPECT_EQ(mt::hex(&a), "-12345678");
        s_mp_rshd(&a, 2);
        EXPECT_EQ(mt::hex(&a), "0");
        EXPECT_TRUE(mt::valid(&a));
    }
}

// --- Division -------------------------------------------------------------------

TEST(MpiDiv, SignedTruncatingDivision)
{
    struct Case {
        const char *a, *b, *q, *r;
    } cases[] = {
        {"7", "-2", "-3", "1"},     {"-7", "2", "-3", "-1"},     {"-7", "-2", "3", "-1"},
        {"5", "5", "1", "0"},       {"-5", "5", "-1", "0"},       {"3", "10", "0", "3"},
        {"-3", "10", "0", "-3"},    {"-14", "5", "-4", "0"},      {"123456789abcdef", "10000", "123456789ab", "cdef"},
        {"-123456789abcdef", "10000", "-123456789ab", "-cdef"},
        {"100000000000000000000", "1ffff", "8000400020001000", "1000"},
    };
    for (const auto &c : cases) {
        Mp a, b, q, r;
        mt::set_hex(&a, c.a);
        mt::set_hex(&b, c.b);
        ASSERT_EQ(mp_div(&a, &b, &q, &r), MP_OK);
        EXPECT_EQ(mt::hex(&q), c.q) << c.a << " / " << c.b;
        EXPECT_EQ(mt::hex(&r), c.r) << c.a << " % " << c.b;
        EXPECT_TRUE(mt::valid(&q));
        EXPECT_TRUE(mt::valid(&r));
        // Quotient or remainder alone.
        Mp q2, r2;
        ASSERT_EQ(mp_div(&a, &b, &q2, nullptr), MP_OK);
        ASSERT_EQ(mp_div(&a, &b, nullptr, &r2), MP_OK);
        EXPECT_EQ(mt::hex(&q2), c.q);
        EXPECT_EQ(mt::hex(&r2), c.r);
    }
}

TEST(MpiDiv, ByZeroLeavesResultsAlone)
{
    Mp a, z, q, r;
    mt::set_hex(&a, "1234");
    mt::set_hex(&q, "77");
    mt::set_hex(&r, "-88");
    EXPECT_EQ(mp_div(&a, &z, &q, &r), MP_OUT_OF_RANGE);
    EXPECT_EQ(mt::hex(&q), "77");
    EXPECT_EQ(mt::hex(&r), "-88");
    mp_int ca{}, cz{};
    ASSERT_EQ(mp_init_copy(&ca, &a), MP_OK);
    ASSERT_EQ(mp_init_copy(&cz, &z), MP_OK);
    EXPECT_EQ(s_mp_div(&ca, &cz), MP_OUT_OF_RANGE);
    mp_clear(&ca);
    mp_clear(&cz);
}

TEST(MpiDiv, NonNegativeResidue)
{
    struct Case {
        const char *a, *m;
        mp_err res;
        const char *c;
    } cases[] = {
        {"-7", "3", MP_OK, "2"},           {"7", "-3", MP_OUT_OF_RANGE, "55"}, {"0", "0", MP_OK, "0"},
        {"5", "0", MP_OUT_OF_RANGE, "55"}, {"-3", "3", MP_OK, "0"},            {"-2", "3", MP_OK, "1"},
        {"2", "3", MP_OK, "2"},            {"-6", "3", MP_OK, "0"},            {"-10000", "ffff", MP_OK, "fffe"},
    };
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

TEST(MpiDiv, PowerOfTwoDivisorAgreesWithGeneralPath)
{
    // x / 65536 by the shortcut against x * 3 / (3 * 65536) by long division.
    Mp x, x3, p, p3, q1, r1, q2, r2;
    mt::set_hex(&x, "-fedcba9876543210fedcba9876543210f");
    mt::set_hex(&p, "10000");
    EXPECT_EQ(s_mp_ispow2(&p), 16);
    mt::set_hex(&x3, "-2fc962fc962fc9632fc962fc962fc9632d");
    mt::set_hex(&p3, "30000");
    EXPECT_EQ(s_mp_ispow2(&p3), -1);
    ASSERT_EQ(mp_div(&x, &p, &q1, &r1), MP_OK);
    ASSERT_EQ(mp_div(&x3, &p3, &q2, &r2), MP_OK);
    EXPECT_EQ(mt::hex(&q1), mt::hex(&q2));
    EXPECT_EQ(mt::hex(&q1), "-fedcba9876543210fedcba9876543");
    EXPECT_EQ(mt::hex(&r1), "-210f");
    EXPECT_EQ(mt::hex(&r2), "-632d");  // 3 * r1
}

TEST(MpiDiv, NormalisationShift)
{
    struct Case {
        const char *b;
        int shift;
    } cases[] = {{"1", 15}, {"8000", 0}, {"ffff", 0}, {"7fff0000", 1}, {"10000ffff", 15}};
    for (const auto &c : cases) {
        Mp a, b;
        mt::set_hex(&a, "123");
        mt::set_hex(&b, c.b);
        EXPECT_EQ(s_mp_norm(&a, &b), c.shift) << c.b;
        EXPECT_GE(b->digits[b->used - 1], 0x8000);
    }
}

// --- Modular exponentiation -----------------------------------------------------

TEST(MpiExptmod, EdgeCases)
{
    struct Case {
        const char *a, *b, *m;
        mp_err res;
        const char *c;
    } cases[] = {
        {"5", "0", "7", MP_OK, "1"},
        {"5", "0", "1", MP_OK, "1"},  // the start value is never reduced
        {"0", "0", "1000000000000000000000", MP_OK, "1"},
        {"0", "5", "7", MP_OK, "0"},
        {"1234567", "1", "1", MP_OK, "0"},
        {"2", "10000", "3", MP_OK, "1"},
        {"9", "2", "7", MP_OK, "4"},
        {"-5", "3", "7", MP_OK, "1"},  // (-5)^3 = -125 = 1 mod 7
        {"-7", "3", "7", MP_OK, "0"},
        {"4", "d", "1f1", MP_OK, "1bd"},
        {"123", "-1", "7", MP_OUT_OF_RANGE, "55"},
        {"123", "1", "-7", MP_OUT_OF_RANGE, "55"},
        {"123", "1", "0", MP_OUT_OF_RANGE, "55"},
    };
    for (const auto &c : cases) {
        Mp a, b, m, r;
        mt::set_hex(&a, c.a);
        mt::set_hex(&b, c.b);
        mt::set_hex(&m, c.m);
        mt::set_hex(&r, "55");
        EXPECT_EQ(mp_exptmod(&a, &b, &m, &r), c.res) << c.a << "^" << c.b << " mod " << c.m;
        EXPECT_EQ(mt::hex(&r), c.c) << c.a << "^" << c.b << " mod " << c.m;
        EXPECT_TRUE(mt::valid(&r));
        EXPECT_EQ(mt::hex(&a), c.a);
    }
}

TEST(MpiExptmod, ResultMayShareARecordWithAnyArgument)
{
    const char *A = "123456789abcdef0123", *B = "fedcba98765", *M = "f123456789abcdef01234567";
    Mp a, b, m, r;
    mt::set_hex(&a, A);
    mt::set_hex(&b, B);
    mt::set_hex(&m, M);
    ASSERT_EQ(mp_exptmod(&a, &b, &m, &r), MP_OK);
    const std::string expected = mt::hex(&r);
    EXPECT_EQ(mt::hex(&a), A);
    EXPECT_EQ(mt::hex(&b), B);
    EXPECT_EQ(mt::hex(&m), M);
    for (int which = 0; which < 3; which++) {
        Mp x, y, z;
        mt::set_hex(&x, A);
        mt::set_hex(&y, B);
        mt::set_hex(&z, M);
        mp_int *c = which == 0 ? &x : which == 1 ? &y : &z;
        ASSERT_EQ(mp_exptmod(&x, &y, &z, c), MP_OK);
        EXPECT_EQ(mt::hex(c), expected) << which;
    }
}

// --- Preconditions --------------------------------------------------------------

std::string escape_regex(const std::string &s)
{
    std::string out;
    for (char c : s) {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
        out += c;
    }
    return out;
}

TEST(MpiDeathTest, PreconditionsAbortWithTheConditionText)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Case {
        const char *func, *cond;
        std::function<void()> call;
    } cases[] = {
        {"mp_init_size", "mp != ((void *)0) && prec > 0", [] { mp_init(nullptr); }},
        {"mp_init_size", "mp != ((void *)0) && prec > 0", [] { mp_init_size(nullptr, 4); }},
        {"mp_init_size", "mp != ((void *)0) && prec > 0", [] { mp_int a; mp_init_size(&a, 0); }},
        {"mp_init_copy", "mp != ((void *)0) && from != ((void *)0)", [] { Mp a; mp_init_copy(nullptr, &a); }},
        {"mp_init_copy", "mp != ((void *)0) && from != ((void *)0)", [] { mp_int a; mp_init_copy(&a, nullptr); }},
        {"mp_copy", "from != ((void *)0) && to != ((void *)0)", [] { Mp a; mp_copy(&a, nullptr); }},
        {"mp_copy", "from != ((void *)0) && to != ((void *)0)", [] { Mp a; mp_copy(nullptr, &a); }},
        {"mp_read_unsigned_bin", "mp != ((void *)0) && str != ((void *)0) && len > 0",
         [] { Mp a; mp_read_unsigned_bin(&a, nullptr, 1); }},
        {"mp_read_unsigned_bin", "mp != ((void *)0) && str != ((void *)0) && len > 0",
         [] { Mp a; uint8_t b = 1; mp_read_unsigned_bin(&a, &b, 0); }},
        {"mp_read_unsigned_bin", "mp != ((void *)0) && str != ((void *)0) && len > 0",
         [] { uint8_t b = 1; mp_read_unsigned_bin(nullptr, &b, 1); }},
        {"mp_unsigned_bin_size", "mp != ((void *)0)", [] { mp_unsigned_bin_size(nullptr); }},
        {"mp_to_unsigned_bin", "mp != ((void *)0) && str != ((void *)0)", [] { Mp a; mp_to_unsigned_bin(&a, nullptr); }},
        {"mp_cmp", "a != ((void *)0) && b != ((void *)0)", [] { Mp a; mp_cmp(&a, nullptr); }},
        {"mp_add", "a != ((void *)0) && b != ((void *)0) && c != ((void *)0)", [] { Mp a; mp_add(&a, &a, nullptr); }},
        {"mp_sub", "a != ((void *)0) && b != ((void *)0) && c != ((void *)0)", [] { Mp a; mp_sub(nullptr, &a, &a); }},
        {"mp_div", "a != ((void *)0) && b != ((void *)0)", [] { Mp a; mp_div(&a, nullptr, &a, &a); }},
        {"mp_mod", "a != ((void *)0) && m != ((void *)0) && c != ((void *)0)", [] { Mp a; mp_mod(&a, &a, nullptr); }},
        {"mp_exptmod", "a != ((void *)0) && b != ((void *)0) && c != ((void *)0)",
         [] { Mp a; mp_exptmod(nullptr, &a, &a, &a); }},
        {"mp_exptmod", "a != ((void *)0) && b != ((void *)0) && c != ((void *)0)",
         [] { Mp a; mp_exptmod(&a, &a, &a, nullptr); }},
        {"mp_init_copy", "mp != ((void *)0) && from != ((void *)0)", [] { Mp m; s_mp_reduce(nullptr, &m, &m); }},
    };
    for (const auto &c : cases) {
        const std::string re = escape_regex(std::string(c.func) + ": Assertion `" + c.cond + "' failed");
        EXPECT_DEATH(c.call(), re) << c.func << ": " << c.cond;
    }
}

// --- Wiping ---------------------------------------------------------------------

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
    EXPECT_GT(g_released, 100);
    EXPECT_EQ(g_dirty, 0);
}

}  // namespace

// Allocation failures: every allocation an operation makes is failed in
// turn.  Each run must report out of memory, leave its result record as it
// was, release every array it obtained (the live count returns to where it
// was; the sanitizer build's leak checker covers the rest) and wipe what it
// releases.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <vector>

#include "mpi.h"
#include "mpi_internal.h"
#include "mpi_test_support.h"

using mt::Mp;

namespace {

int64_t g_dirty_releases = 0;

void check_wiped(const mp_digit *d, uint32_t n)
{
    for (uint32_t i = 0; i < n; i++) {
        if (d[i]) {
            g_dirty_releases++;
            return;
        }
    }
}

// Everything about a record that a failed call must not change.
struct Snapshot {
    mp_digit *digits;
    uint32_t alloc, used;
    mp_sign sign;
    std::vector<mp_digit> content;

    explicit Snapshot(const mp_int *mp)
        : digits(mp->digits), alloc(mp->alloc), used(mp->used), sign(mp->sign),
          content(mp->digits, mp->digits + mp->alloc)
    {
    }
    bool operator==(const Snapshot &o) const
    {
        return digits == o.digits && alloc == o.alloc && used == o.used && sign == o.sign && content == o.content;
    }
};

// Allocations made by one successful run of op.
uint64_t count_allocations(const std::function<mp_err()> &op)
{
    const uint64_t before = s_mp_alloc_calls();
    EXPECT_EQ(op(), MP_OK);
    return s_mp_alloc_calls() - before;
}

// Fails allocation n of op for every n in ns; the records in keep must come
// out unchanged.
void sweep(const std::function<mp_err()> &op, const std::vector<const mp_int *> &keep, const std::vector<uint64_t> &ns)
{
    s_mp_set_release_probe(check_wiped);
    g_dirty_releases = 0;
    for (uint64_t n : ns) {
        std::vector<Snapshot> before;
        for (const mp_int *k : keep) before.emplace_back(k);
        const int64_t live = s_mp_live_arrays();
        s_mp_alloc_fail_nth(n);
        const mp_err res = op();
        s_mp_alloc_fail_nth(0);
        EXPECT_EQ(res, MP_NOMEM) << "allocation " << n;
        EXPECT_EQ(s_mp_live_arrays(), live) << "allocation " << n;
        for (size_t i = 0; i < keep.size(); i++) EXPECT_TRUE(Snapshot(keep[i]) == before[i]) << "record " << i << ", allocation " << n;
        if (::testing::Test::HasFailure()) break;
    }
    s_mp_set_release_probe(nullptr);
    EXPECT_EQ(g_dirty_releases, 0);
}

std::vector<uint64_t> all_up_to(uint64_t count)
{
    std::vector<uint64_t> ns;
    for (uint64_t n = 1; n <= count; n++) ns.push_back(n);
    return ns;
}

TEST(MpiAlloc, ExptmodWith2048BitModulusFailsCleanlyAtEveryAllocation)
{
    const auto &key = mt::test_key();
    std::mt19937_64 rng(0xa110c001);
    Mp a, e, n, c;
    mt::set(&a, mt::random_below_n(rng));
    mt::set(&e, key.e);  // two digits: both parts of the exponent walk
    mt::set(&n, key.n);
    mt::set_hex(&c, "-1234567");
    Mp expected;
    const uint64_t count = count_allocations([&] { return mp_exptmod(&a, &e, &n, &expected); });
    EXPECT_GT(count, 5u);
    sweep([&] { return mp_exptmod(&a, &e, &n, &c); }, {&a, &e, &n, &c}, all_up_to(count));
    // One past the last allocation is never reached: the run succeeds.
    s_mp_alloc_fail_nth(count + 1);
    EXPECT_EQ(mp_exptmod(&a, &e, &n, &c), MP_OK);
    s_mp_alloc_fail_nth(0);
    EXPECT_EQ(mt::hex(&c), mt::hex(&expected));
}

TEST(MpiAlloc, ExptmodWithPrivateExponentSampled)
{
    // The full 2048-bit exponent makes some 12000 allocations; the set-up,
    // the first steps of the walk, a spread over the middle and the end.
    const auto &key = mt::test_key();
    std::mt19937_64 rng(0xa110c003);
    Mp a, d, n, c;
    mt::set(&a, mt::random_below_n(rng));
    mt::set(&d, key.d);
    mt::set(&n, key.n);
    Mp expected;
    const uint64_t count = count_allocations([&] { return mp_exptmod(&a, &d, &n, &expected); });
    std::vector<uint64_t> ns = all_up_to(std::min<uint64_t>(60, count));
    for (int i = 1; i <= 12; i++) ns.push_back(std::max<uint64_t>(1, count * uint64_t(i) / 13));
    for (uint64_t k = 0; k < 3; k++) ns.push_back(count - k);
    sweep([&] { return mp_exptmod(&a, &d, &n, &c); }, {&a, &d, &n, &c}, ns);
}

TEST(MpiAlloc, ExptmodWithNegativeAndOversizedBases)
{
    // Base reduction through long division (with normalisation growth) and
    // the negative-residue correction.
    std::mt19937_64 rng(0xa110c004);
    for (int iter = 0; iter < 4; iter++) {
        Mp a, e, m, c;
        mt::random_mp(rng, &a, 30, 40);
        a->sign = iter & 1 ? MP_MINUS : MP_PLUS;
        mt::random_mp(rng, &e, 2, 3, false);
        mt::random_mp(rng, &m, 10, 20, false);
        mt::set_hex(&c, "77");
        Mp expected;
        const uint64_t count = count_allocations([&] { return mp_exptmod(&a, &e, &m, &expected); });
        sweep([&] { return mp_exptmod(&a, &e, &m, &c); }, {&a, &e, &m, &c}, all_up_to(count));
    }
}

TEST(MpiAlloc, DivisionModAndSignedArithmetic)
{
    std::mt19937_64 rng(0xa110c005);
    for (int iter = 0; iter < 20; iter++) {
        Mp a, b, q, r, c;
        mt::random_mp(rng, &a, 70, 200);  // longer than b
        mt::random_mp(rng, &b, 2, 60);
        mt::set_hex(&q, "5");
        mt::set_hex(&r, "-6");
        mt::set_hex(&c, "7");
        const mp_int *keep[] = {&a, &b, &q, &r, &c};
        std::vector<const mp_int *> k(std::begin(keep), std::end(keep));
        {
            Mp tq, tr;
            const uint64_t n = count_allocations([&] { return mp_div(&a, &b, &tq, &tr); });
            sweep([&] { return mp_div(&a, &b, &q, &r); }, k, all_up_to(n));
        }
        b->sign = MP_PLUS;
        {
            Mp t;
            const uint64_t n = count_allocations([&] { return mp_mod(&a, &b, &t); });
            // A negative remainder is corrected in c itself, so only the
            // operands are sure to be untouched here.
            sweep([&] { return mp_mod(&a, &b, &c); }, {&a, &b}, all_up_to(n));
            EXPECT_TRUE(mt::valid(&c));
        }
        // Differences formed in a temporary when the result is the operand
        // still needed.
        for (auto f : {mp_add, mp_sub}) {
            mp_int t{};
            ASSERT_EQ(mp_init_copy(&t, &b), MP_OK);
            a->sign = MP_PLUS;
            t.sign = f == mp_add ? MP_MINUS : MP_PLUS;
            const uint64_t n = count_allocations([&] {
                mp_int u{};
                EXPECT_EQ(mp_init_copy(&u, &t), MP_OK);
                mp_err res = f(&a, &u, &u);
                mp_clear(&u);
                return res;
            }) - 1;
            EXPECT_GE(n, 1u);
            sweep([&] { return f(&a, &t, &t); }, {&a, &t}, all_up_to(n));
            mp_clear(&t);
        }
    }
}

TEST(MpiAlloc, ProductsAndGrowthLeaveTheOperandValid)
{
    std::mt19937_64 rng(0xa110c006);
    Mp a, b;
    mt::random_mp(rng, &a, 70, 90);
    mt::random_mp(rng, &b, 70, 90);
    sweep([&] { return s_mp_mul(&a, &b); }, {&a, &b}, {1});
    sweep([&] { return s_mp_sqr(&a); }, {&a}, {1});
    sweep([&] { return s_mp_grow(&a, 500); }, {&a}, {1});
    sweep([&] { return s_mp_lshd(&a, 100); }, {&a}, {1});

    // A failed read keeps the bytes read so far.
    std::vector<uint8_t> bytes(300, 0xAB);
    Mp x;
    s_mp_alloc_fail_nth(1);
    EXPECT_EQ(mp_read_unsigned_bin(&x, bytes.data(), int32_t(bytes.size())), MP_NOMEM);
    s_mp_alloc_fail_nth(0);
    EXPECT_TRUE(mt::valid(&x));
    EXPECT_EQ(x->alloc, 64u);
    EXPECT_EQ(mt::mag(&x), std::vector<uint8_t>(128, 0xAB));

    mp_int y{};
    s_mp_alloc_fail_nth(1);
    EXPECT_EQ(mp_init(&y), MP_NOMEM);
    EXPECT_EQ(mp_init_copy(&y, &a), MP_OK);  // only the one allocation failed
    s_mp_alloc_fail_nth(0);
    mp_clear(&y);
}

}  // namespace

// RSA private-key operation on byte strings: agreement with OpenSSL's raw
// private-key operation, every documented check with its exact messages,
// and allocation failures at every point of a 2048-bit run.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "../mpi/mpi_test_support.h"
#include "mpi_internal.h"
#include "rsa2048.h"
#include "testutil.h"

using mt::Bytes;

namespace {

std::string dump(const Bytes &b) { return "0x" + zt::to_hex(b) + "\n"; }

struct Outcome {
    int32_t ret;
    Bytes out;
    uint32_t outlen;
    std::string printed;
};

// One call with an output buffer of the given capacity prefilled with 0xEE.
Outcome run(const Bytes &in, const Bytes &key, const Bytes &mod, uint32_t capacity = 256, int32_t inlen = -1)
{
    Outcome r;
    r.out.assign(capacity, 0xEE);
    r.outlen = capacity;
    r.printed = zt::capture_stdout([&] {
        r.ret = rsa_exptmod(in.data(), inlen < 0 ? int32_t(in.size()) : inlen, r.out.data(), &r.outlen, key.data(),
                            int32_t(key.size()), mod.data(), int32_t(mod.size()));
    });
    return r;
}

TEST(RsaExptmod, AgreesWithOpenSslRawPrivateOperation)
{
    const auto &key = mt::test_key();
    std::mt19937_64 rng(0x45a0001);
    std::vector<Bytes> inputs = {Bytes(256, 0), Bytes{0x01}, Bytes{0x02}};
    Bytes n_minus_1 = key.n;
    n_minus_1.back()--;  // n is odd
    inputs.push_back(n_minus_1);
    for (int i = 0; i < 4; i++) inputs.push_back(mt::random_below_n(rng));
    for (const auto &in : inputs) {
        Bytes padded(256 - in.size(), 0);
        padded.insert(padded.end(), in.begin(), in.end());
        const Outcome r = run(in, key.d, key.n);
        EXPECT_EQ(r.ret, 0);
        EXPECT_EQ(r.printed, "");
        EXPECT_EQ(r.outlen, 256u);
        EXPECT_EQ(zt::to_hex(r.out), zt::to_hex(mt::openssl_raw_private(padded))) << zt::to_hex(in);
    }
}

TEST(RsaExptmod, SignThenVerifyReturnsTheBlock)
{
    const auto &key = mt::test_key();
    std::mt19937_64 rng(0x45a0002);
    const Bytes msg = mt::random_below_n(rng);
    const Outcome sig = run(msg, key.d, key.n);
    ASSERT_EQ(sig.ret, 0);
    const Outcome back = run(sig.out, key.e, key.n);
    ASSERT_EQ(back.ret, 0);
    EXPECT_EQ(back.out, msg);
}

TEST(RsaExptmod, OutputIsRightAlignedToTheModulusLength)
{
    const auto &key = mt::test_key();
    {
        const Outcome r = run(Bytes{0x01}, key.d, key.n);  // 1^d = 1
        ASSERT_EQ(r.ret, 0);
        Bytes want(256, 0);
        want[255] = 1;
        EXPECT_EQ(r.out, want);
    }
    {
        const Outcome r = run(key.n, key.d, key.n);  // input equal to the modulus passes: zero
        EXPECT_EQ(r.ret, 0);
        EXPECT_EQ(r.printed, "");
        EXPECT_EQ(r.out, Bytes(256, 0));
    }
    {
        Bytes n257 = key.n;
        n257.insert(n257.begin(), 0x00);
        const Outcome r = run(Bytes{0x02}, key.e, n257, 300);
        EXPECT_EQ(r.ret, 0);
        EXPECT_EQ(r.outlen, 256u);
        EXPECT_EQ(r.out[256], 0xEE) << "wrote beyond the modulus length";
        const Outcome ref = run(Bytes{0x02}, key.e, key.n);
        EXPECT_EQ(Bytes(r.out.begin(), r.out.begin() + 256), ref.out);
    }
    {
        // A small modulus given with leading zero bytes: output as long as
        // the number, 3 bytes, even with room for more.
        const Outcome r = run(Bytes{0x05}, Bytes{0x03}, Bytes{0x00, 0x00, 0x01, 0x00, 0x01}, 16);
        EXPECT_EQ(r.ret, 0);
        EXPECT_EQ(r.outlen, 3u);
        EXPECT_EQ(Bytes(r.out.begin(), r.out.begin() + 4), (Bytes{0x00, 0x00, 0x7D, 0xEE}));  // 125
    }
}

TEST(RsaExptmod, RejectsBadArguments)
{
    const auto &key = mt::test_key();
    const Bytes in(256, 0x11);
    uint8_t out[256];
    uint32_t outlen = 256;
    const char *msg = "Error: wrong input parameter for rsa operation\n";
    struct Case {
        const uint8_t *in;
        uint8_t *out;
        uint32_t *outlen;
        const uint8_t *key;
        int32_t keylen;
        const uint8_t *mod;
        int32_t modlen;
    } cases[] = {
        {nullptr, out, &outlen, key.d.data(), 256, key.n.data(), 256},
        {in.data(), nullptr, &outlen, key.d.data(), 256, key.n.data(), 256},
        {in.data(), out, nullptr, key.d.data(), 256, key.n.data(), 256},
        {in.data(), out, &outlen, nullptr, 256, key.n.data(), 256},
        {in.data(), out, &outlen, key.d.data(), 256, nullptr, 256},
        {in.data(), out, &outlen, key.d.data(), 0, key.n.data(), 256},
        {in.data(), out, &outlen, key.d.data(), 256, key.n.data(), 0},
    };
    for (const auto &c : cases) {
        int32_t ret = 0;
        const std::string printed = zt::capture_stdout(
            [&] { ret = rsa_exptmod(c.in, 256, c.out, c.outlen, c.key, c.keylen, c.mod, c.modlen); });
        EXPECT_EQ(ret, -1);
        EXPECT_EQ(printed, msg);
        EXPECT_EQ(outlen, 256u);
    }
}

TEST(RsaExptmod, ModulusBelowInput)
{
    const auto &key = mt::test_key();
    mt::Mp n, one, n1;
    mt::set(&n, key.n);
    mt::set_hex(&one, "1");
    ASSERT_EQ(mp_add(&n, &one, &n1), MP_OK);
    const Bytes in = mt::mag(&n1);
    ASSERT_EQ(in.size(), 256u);
    const Outcome r = run(in, key.d, key.n);
    EXPECT_EQ(r.ret, -5);
    EXPECT_EQ(r.printed, "Error: rsa n is smaller than input data\nRSA N =>\n" + dump(key.n) + "Input Data =>\n" + dump(in));
    EXPECT_EQ(r.out, Bytes(256, 0xEE));
    EXPECT_EQ(r.outlen, 256u);
}

TEST(RsaExptmod, OutputCapacityBelowModulusLength)
{
    const auto &key = mt::test_key();
    const Outcome r = run(Bytes{0x07}, key.e, key.n, 255);
    EXPECT_EQ(r.ret, -6);
    EXPECT_EQ(r.outlen, 256u);
    EXPECT_EQ(r.printed, "Error: incorrect output size (256, 255)\n");
    EXPECT_EQ(r.out, Bytes(255, 0xEE));
}

TEST(RsaExptmodDeathTest, ZeroInputLengthIsRejectedByTheIntegerModule)
{
    // The length is not checked here; reading an empty string is a
    // precondition failure of the integer module.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto &key = mt::test_key();
    const Bytes in(1, 0x01);
    EXPECT_DEATH(run(in, key.d, key.n, 256, 0),
                 "Assertion `mp != \\(\\(void \\*\\)0\\) && str != \\(\\(void \\*\\)0\\) && len > 0' failed");
}

// What a run that fails allocation n prints and returns: the three integers
// are set up by allocations 1 to 3 (steps 1 to 3), then each read of a value
// longer than 64 digits grows its integer once (steps 4 to 6), and the rest
// belongs to the exponentiation (step 7).
void expect_failure(uint64_t n, const Outcome &r, const Bytes &in, const Bytes &key, const Bytes &mod)
{
    std::vector<int> steps = {1, 2, 3};
    if (in.size() > 128) steps.push_back(4);
    if (key.size() > 128) steps.push_back(5);
    if (mod.size() > 128) steps.push_back(6);
    const int step = n <= steps.size() ? steps[n - 1] : 7;
    const char *init_key = "Error: init tmp_key parameter for rsa operation\n";
    switch (step) {
    case 1: EXPECT_EQ(r.ret, -2); EXPECT_EQ(r.printed, "Error: init tmp parameter for rsa operation\n"); break;
    case 2: EXPECT_EQ(r.ret, -3); EXPECT_EQ(r.printed, init_key); break;
    case 3: EXPECT_EQ(r.ret, -4); EXPECT_EQ(r.printed, init_key); break;
    case 4: EXPECT_EQ(r.ret, MP_NOMEM); EXPECT_EQ(r.printed, "Error: fail to read input data =>\n" + dump(in)); break;
    case 5:
        EXPECT_EQ(r.ret, MP_NOMEM);
        EXPECT_EQ(r.printed, "Error: fail to read rsa e/d exponent data =>\n" + dump(key));
        break;
    case 6: EXPECT_EQ(r.ret, MP_NOMEM); EXPECT_EQ(r.printed, "Error: fail to read rsa n data =>\n" + dump(mod)); break;
    default: EXPECT_EQ(r.ret, MP_NOMEM); EXPECT_EQ(r.printed, "Error: fail to calculate exponent mod\n"); break;
    }
    EXPECT_EQ(r.out, Bytes(256, 0xEE)) << "allocation " << n;
    EXPECT_EQ(r.outlen, 256u) << "allocation " << n;
}

void sweep(const Bytes &in, const Bytes &key, const Bytes &mod, const std::vector<uint64_t> &ns)
{
    for (uint64_t n : ns) {
        const int64_t live = s_mp_live_arrays();
        s_mp_alloc_fail_nth(n);
        const Outcome r = run(in, key, mod);
        s_mp_alloc_fail_nth(0);
        SCOPED_TRACE("allocation " + std::to_string(n));
        expect_failure(n, r, in, key, mod);
        EXPECT_EQ(s_mp_live_arrays(), live);
        if (::testing::Test::HasFailure()) break;
    }
}

TEST(RsaExptmod, FailsCleanlyAtEveryAllocation)
{
    const auto &key = mt::test_key();
    std::mt19937_64 rng(0x45a0003);
    Bytes in = mt::random_below_n(rng);
    in[0] |= 0x01;  // a full 256-byte value: its read grows the integer once
    Bytes e256(256 - key.e.size(), 0);  // the public exponent as a 256-byte string
    e256.insert(e256.end(), key.e.begin(), key.e.end());

    const uint64_t before = s_mp_alloc_calls();
    ASSERT_EQ(run(in, e256, key.n).ret, 0);
    const uint64_t count = s_mp_alloc_calls() - before;
    std::vector<uint64_t> ns;
    for (uint64_t n = 1; n <= count; n++) ns.push_back(n);
    sweep(in, e256, key.n, ns);

    s_mp_alloc_fail_nth(count + 1);  // never reached
    EXPECT_EQ(run(in, e256, key.n).ret, 0);
    s_mp_alloc_fail_nth(0);
}

TEST(RsaExptmod, FailsCleanlyWithThePrivateExponentSampled)
{
    const auto &key = mt::test_key();
    std::mt19937_64 rng(0x45a0004);
    Bytes in = mt::random_below_n(rng);
    in[0] |= 0x01;
    const uint64_t before = s_mp_alloc_calls();
    ASSERT_EQ(run(in, key.d, key.n).ret, 0);
    const uint64_t count = s_mp_alloc_calls() - before;
    std::vector<uint64_t> ns;
    for (uint64_t n = 1; n <= 30 && n <= count; n++) ns.push_back(n);
    for (uint64_t i = 1; i <= 6; i++) ns.push_back(count * i / 7);
    ns.push_back(count);
    sweep(in, key.d, key.n, ns);
}

}  // namespace

// mp_div and mp_exptmod against OpenSSL's BIGNUM.  Input: flags (bit 0 the power; bits 1-3 a, b,
// m negative), three lengths, then the big-endian bytes of a, b and m: a and b up to 512 bits; for
// the power b up to 128 bits and m up to 384.
#include <openssl/bn.h>

#include "fuzz_util.h"
#include "mpi.h"

namespace {

// x holds the value of want, and a zero is never negative.
bool bIs(const mp_int *x, const BIGNUM *want)
{
    uint8_t bytes[96];
    const int32_t n = mp_unsigned_bin_size(x);
    if (n > int32_t(sizeof bytes) || mp_to_unsigned_bin(x, bytes) != MP_OK) return false;
    BIGNUM *got = BN_bin2bn(bytes, n, nullptr);
    BN_set_negative(got, x->sign == MP_MINUS);
    const bool same = BN_cmp(got, want) == 0 && (x->sign == MP_PLUS || !BN_is_zero(got));
    BN_free(got);
    return same;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4) return 0;
    static BN_CTX *const ctx = BN_CTX_new();
    const bool power = data[0] & 1;
    const size_t cap[3] = {65, power ? 17u : 65u, power ? 49u : 1u};
    mp_int x[3], q, r;  // a, b, m; a quotient and a remainder that start as 7
    BIGNUM *v[3], *want = BN_new(), *want_r = BN_new(), *base = BN_new();
    for (size_t i = 0, at = 4, n; i < 3; ++i, at += n) {
        n = std::min<size_t>(data[1 + i] % cap[i], size - at);
        v[i] = BN_bin2bn(data + at, int(n), nullptr);
        BN_set_negative(v[i], data[0] >> (i + 1) & 1);  // not for a zero
        FUZZ_CHECK(mp_init(&x[i]) == MP_OK);
        FUZZ_CHECK(n == 0 || mp_read_unsigned_bin(&x[i], data + at, int32_t(n)) == MP_OK);
        x[i].sign = BN_is_negative(v[i]) ? MP_MINUS : MP_PLUS;
    }
    FUZZ_CHECK(mp_init(&q) == MP_OK && mp_init(&r) == MP_OK);
    FUZZ_CHECK(BN_set_word(want, 7) && BN_set_word(want_r, 7));
    mp_set(&q, 7), mp_set(&r, 7);
    const bool refused = power ? BN_is_zero(v[2]) || BN_is_negative(v[1]) || BN_is_negative(v[2])
                               : BN_is_zero(v[1]);
    if (!refused && !power) FUZZ_CHECK(BN_div(want, want_r, v[0], v[1], ctx));
    if (!refused && power)  // a zero power is 1 whatever the modulus
        FUZZ_CHECK(BN_nnmod(base, v[0], v[2], ctx) &&
                   (BN_is_zero(v[1]) ? BN_one(want) : BN_mod_exp(want, base, v[1], v[2], ctx)));
    const mp_err rc = power ? mp_exptmod(&x[0], &x[1], &x[2], &q) : mp_div(&x[0], &x[1], &q, &r);
    FUZZ_CHECK(rc == (refused ? MP_OUT_OF_RANGE : MP_OK) && bIs(&q, want) && bIs(&r, want_r));
    for (size_t i = 0; i < 3; ++i) FUZZ_CHECK(bIs(&x[i], v[i]));  // operands unchanged
    for (mp_int *y : {&x[0], &x[1], &x[2], &q, &r}) mp_clear(y);
    for (BIGNUM *y : {v[0], v[1], v[2], want, want_r, base}) BN_free(y);
    return 0;
}

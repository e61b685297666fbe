// mp_div and mp_exptmod against a schoolbook reference on 32-bit words.  Input: flags (bit 0 the
// power; bits 1-3 a, b, m negative), three lengths, then the big-endian bytes of a, b and m: a and
// b up to 512 bits; for the power b up to 128 bits and m up to 384.
#include "fuzz_util.h"
#include "mpi.h"

namespace {

constexpr size_t W = 24;              // words: 768 bits hold every value and product here
using Num = std::array<uint32_t, W>;  // least significant word first

size_t Words(const Num &x) { size_t n = W; while (n > 0 && x[n - 1] == 0) --n; return n; }

Num FromBytes(const uint8_t *p, size_t n)
{
    Num x{};
    for (size_t i = 0; i < n; ++i) x[(n - 1 - i) / 4] |= uint32_t(p[i]) << 8 * ((n - 1 - i) % 4);
    return x;
}

Num Sub(Num a, const Num &b)  // a - b, a >= b
{
    for (uint64_t j = 0, t = 0; j < W; ++j, t >>= 63) a[j] = uint32_t(t = uint64_t(a[j]) - b[j] - t);
    return a;
}

Num Mul(const Num &a, const Num &b)
{
    Num c{};
    for (size_t i = 0; i < Words(a); ++i)
        for (uint64_t j = 0, t = 0; i + j < W; ++j, t >>= 32) c[i + j] = uint32_t(t += uint64_t(a[i]) * b[j] + c[i + j]);
    return c;
}

// Shift and subtract, one bit of a at a time: returns a mod b and puts a / b in *q (b nonzero).
Num Mod(const Num &a, const Num &b, Num *q = nullptr)
{
    Num r{};
    const size_t n = Words(b) + 1;  // r < 2b fits
    for (size_t i = 32 * Words(a); i-- > 0;) {
        for (size_t j = n; j-- > 0;) r[j] = r[j] << 1 | (j > 0 ? r[j - 1] >> 31 : a[i / 32] >> i % 32 & 1);
        size_t k = n - 1;
        while (k > 0 && r[k] == b[k]) --k;
        if (r[k] < b[k]) continue;
        r = Sub(r, b);
        if (q != nullptr) (*q)[i / 32] |= uint32_t(1) << i % 32;
    }
    return r;
}

// x holds magnitude v with the sign given (a zero is never negative).
bool bIs(const mp_int *x, const Num &v, bool negative)
{
    uint8_t bytes[4 * W];
    const int32_t n = mp_unsigned_bin_size(x);
    return n <= int32_t(sizeof bytes) && mp_to_unsigned_bin(x, bytes) == MP_OK && FromBytes(bytes, size_t(n)) == v &&
           x->sign == (negative && Words(v) > 0 ? MP_MINUS : MP_PLUS);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4) return 0;
    const bool power = data[0] & 1, neg[3] = {(data[0] & 2) != 0, (data[0] & 4) != 0, (data[0] & 8) != 0};
    const size_t cap[3] = {65, power ? 17u : 65u, power ? 49u : 1u};
    mp_int x[3], q, r;  // a, b, m; a quotient and a remainder that start as 7
    Num v[3], want{7}, want_r{7};
    for (size_t i = 0, at = 4, n; i < 3; ++i, at += n) {
        n = std::min<size_t>(data[1 + i] % cap[i], size - at);
        v[i] = FromBytes(data + at, n);
        FUZZ_CHECK(mp_init(&x[i]) == MP_OK && (n == 0 || mp_read_unsigned_bin(&x[i], data + at, int32_t(n)) == MP_OK));
        x[i].sign = neg[i] && Words(v[i]) > 0 ? MP_MINUS : MP_PLUS;
    }
    FUZZ_CHECK(mp_init(&q) == MP_OK && mp_init(&r) == MP_OK);
    mp_set(&q, 7), mp_set(&r, 7);
    const Num &a = v[0], &b = v[1], &m = v[2];
    const bool refused = power ? Words(m) == 0 || x[1].sign == MP_MINUS || x[2].sign == MP_MINUS : Words(b) == 0;
    if (!refused && !power) want = {}, want_r = Mod(a, b, &want);
    if (!refused && power) {
        const Num residue = Mod(a, m), base = x[0].sign == MP_MINUS && Words(residue) > 0 ? Sub(m, residue) : residue;
        want = {1};
        for (size_t i = 32 * Words(b); i-- > 0;) {
            want = Mod(Mul(want, want), m);
            if (b[i / 32] >> i % 32 & 1) want = Mod(Mul(want, base), m);
        }
    }
    const mp_err rc = power ? mp_exptmod(&x[0], &x[1], &x[2], &q) : mp_div(&x[0], &x[1], &q, &r);
    const bool divided = !power && !refused;
    FUZZ_CHECK(rc == (refused ? MP_OUT_OF_RANGE : MP_OK));
    FUZZ_CHECK(bIs(&q, want, divided && neg[0] != neg[1]) && bIs(&r, want_r, divided && neg[0]));
    for (size_t i = 0; i < 3; ++i) FUZZ_CHECK(bIs(&x[i], v[i], neg[i]));  // operands unchanged
    for (mp_int *y : {&x[0], &x[1], &x[2], &q, &r}) mp_clear(y);
    return 0;
}

// mp_div and mp_exptmod against a schoolbook reference on 32-bit words.  Input: flags (bit 0
// exponentiation; bits 1-3 a, b, m negative; bits 4-5 which record takes the quotient or the
// power: its own, a, b or m), three lengths, then the big-endian bytes of a, b and m.
#include <algorithm>
#include <utility>
#include <vector>

#include "fuzz_util.h"
#include "mpi.h"

namespace {

using Num = std::vector<uint32_t>;  // magnitude, least significant word first, no zero top word

void vTrim(Num &x)
{
    while (!x.empty() && x.back() == 0) x.pop_back();
}

Num FromBytes(const uint8_t *p, size_t n)
{
    Num x((n + 3) / 4);
    for (size_t i = 0; i < n; ++i) x[(n - 1 - i) / 4] |= uint32_t(p[i]) << 8 * ((n - 1 - i) % 4);
    vTrim(x);
    return x;
}

bool bLess(const Num &a, const Num &b)
{
    return a.size() != b.size() ? a.size() < b.size() : std::lexicographical_compare(a.rbegin(), a.rend(), b.rbegin(), b.rend());
}

void vSub(Num &a, const Num &b)  // a -= b, a >= b
{
    uint64_t borrow = 0;
    for (size_t j = 0; j < a.size(); ++j) {
        const uint64_t t = uint64_t(a[j]) - (j < b.size() ? b[j] : 0) - borrow;
        a[j] = uint32_t(t);
        borrow = t >> 63;
    }
    vTrim(a);
}

Num Mul(const Num &a, const Num &b)
{
    Num c(a.size() + b.size());
    for (size_t i = 0; i < a.size(); ++i) {
        uint64_t carry = 0;
        for (size_t j = 0; j < b.size(); ++j, carry >>= 32) c[i + j] = uint32_t(carry += uint64_t(a[i]) * b[j] + c[i + j]);
        c[i + b.size()] = uint32_t(carry);
    }
    vTrim(c);
    return c;
}

// Shift and subtract, one bit of a at a time: q = a / b, r = a mod b (b nonzero).
void vDivMod(const Num &a, const Num &b, Num &q, Num &r)
{
    q.assign(a.size(), 0);
    r.clear();
    for (size_t i = 32 * a.size(); i-- > 0;) {
        uint32_t carry = a[i / 32] >> i % 32 & 1;
        for (uint32_t &w : r) carry = std::exchange(w, w << 1 | carry) >> 31;
        if (carry != 0) r.push_back(carry);
        if (!bLess(r, b)) vSub(r, b), q[i / 32] |= uint32_t(1) << i % 32;
    }
    vTrim(q);
}

Num Mod(const Num &a, const Num &m)
{
    Num q, r;
    vDivMod(a, m, q, r);
    return r;
}

Num Value(const mp_int *x)
{
    std::vector<uint8_t> bytes(size_t(mp_unsigned_bin_size(x)));
    FUZZ_CHECK(mp_to_unsigned_bin(x, bytes.data()) == MP_OK);
    return FromBytes(bytes.data(), bytes.size());
}

mp_sign Sign(bool negative, const Num &x) { return negative && !x.empty() ? MP_MINUS : MP_PLUS; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4) return 0;
    // a and b up to 512 bits; for the power the exponent up to 128 bits, the modulus up to 384.
    const bool expt = data[0] & 1, neg[3] = {(data[0] & 2) != 0, (data[0] & 4) != 0, (data[0] & 8) != 0};
    const size_t cap[3] = {65, expt ? 17u : 65u, 49};
    mp_int x[3], q, r;  // a, b, m; a quotient and a remainder that start as 7
    Num ref[3];
    for (size_t i = 0, at = 4; i < 3; ++i) {
        const size_t n = std::min<size_t>(data[1 + i] % cap[i], size - at);
        ref[i] = FromBytes(data + at, n);
        FUZZ_CHECK(mp_init(&x[i]) == MP_OK && (n == 0 || mp_read_unsigned_bin(&x[i], data + at, int32_t(n)) == MP_OK));
        x[i].sign = Sign(neg[i], ref[i]);
        at += n;
    }
    FUZZ_CHECK(mp_init(&q) == MP_OK && mp_init(&r) == MP_OK);
    mp_set(&q, 7);
    mp_set(&r, 7);
    const int sel = data[0] >> 4 & 3;
    mp_int *const out = sel == 0 ? &q : &x[sel - 1];
    const Num before = Value(out);
    const mp_sign before_sign = out->sign;
    const Num &a = ref[0], &b = ref[1], &m = ref[2];

    Num want_q, want_r = {7}, want = {1};
    const bool refused = expt ? m.empty() || (neg[1] && !b.empty()) || (neg[2] && !m.empty()) : b.empty();
    if (!expt && !refused) vDivMod(a, b, want_q, want_r);
    if (expt && !refused) {
        Num base = Mod(a, m), residue = m;
        if (neg[0] && !base.empty()) vSub(residue, base), base = residue;
        for (size_t i = 32 * b.size(); i-- > 0;) {
            want = Mod(Mul(want, want), m);
            if (b[i / 32] >> i % 32 & 1) want = Mod(Mul(want, base), m);
        }
    }
    const mp_err rc = expt ? mp_exptmod(&x[0], &x[1], &x[2], out) : mp_div(&x[0], &x[1], out, &r);
    FUZZ_CHECK(rc == (refused ? MP_OUT_OF_RANGE : MP_OK));
    FUZZ_CHECK(Value(&r) == want_r && r.sign == Sign(neg[0] && !expt && !refused, want_r));
    if (refused) FUZZ_CHECK(Value(out) == before && out->sign == before_sign);
    if (!refused && expt) FUZZ_CHECK(Value(out) == want && out->sign == MP_PLUS);
    if (!refused && !expt) FUZZ_CHECK(Value(out) == want_q && out->sign == Sign(neg[0] != neg[1], want_q));
    for (size_t i = 0; i < 3; ++i)  // the operands that took no result are unchanged
        FUZZ_CHECK(&x[i] == out || (Value(&x[i]) == ref[i] && x[i].sign == Sign(neg[i], ref[i])));
    for (mp_int *y : {&x[0], &x[1], &x[2], &q, &r}) mp_clear(y);
    return 0;
}

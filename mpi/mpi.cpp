// Arbitrary-precision signed integers in radix 65536 for the RSA private-key
// operation: representation, arithmetic, long division and modular
// exponentiation (Montgomery form on 64-bit limbs for odd moduli, Barrett
// reduction otherwise).

#include "mpi.h"
#include "mpi_internal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

static_assert(sizeof(mp_digit) == 2 && sizeof(mp_word) == 4, "radix 65536 with 32-bit double digits");

namespace {

constexpr uint32_t DIGIT_BIT = 16;
constexpr mp_word RADIX = 65536;
constexpr mp_word DIGIT_MASK = 0xFFFF;

// Precondition failure: report like the platform's assertion and abort.
[[noreturn]] void s_mp_assert_fail(const char *cond, const char *file, int line, const char *func)
{
    fflush(stdout);
    fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, func, cond);
    fflush(stderr);
    abort();
}

}  // namespace

// Stays active in every build type: a null record or a zero size is a
// programming error that must stop the process, not a result code.
#define MP_CHECK(cond) ((cond) ? (void)0 : s_mp_assert_fail(#cond, __FILE__, __LINE__, __func__))

// ---------------------------------------------------------------------------
// Branch-free helpers for values derived from a private exponent.

namespace {

// Hides x from the optimiser, so that mask arithmetic built on it is not
// turned back into a branch or a conditional move.
inline uint64_t s_mp_ct_hide(uint64_t x)
{
    __asm__("" : "+r"(x));
    return x;
}

// All ones when x is non-zero, else zero.
inline uint64_t s_mp_ct_nonzero(uint64_t x) { return s_mp_ct_hide(0 - ((x | (0 - x)) >> 63)); }

// All ones when x equals y, else zero.
inline uint64_t s_mp_ct_eq(uint64_t x, uint64_t y) { return ~s_mp_ct_nonzero(x ^ y); }

// The clamped used count of the n digits d[0..n): one more than the index of
// the highest non-zero digit, 1 when all are zero.  Every digit is read.
uint32_t s_mp_ct_used(const mp_digit *d, uint32_t n)
{
    uint64_t used = 1;
    for (uint32_t i = 0; i < n; i++) {
        const uint64_t nz = s_mp_ct_nonzero(d[i]);
        used = (used & ~nz) | (uint64_t(i + 1) & nz);
    }
    return uint32_t(used);
}

}  // namespace

// ---------------------------------------------------------------------------
// Digit arrays: every one is obtained and released here.

namespace {

// Zero a digit array so that no key digit survives in freed memory; the
// empty asm with a memory clobber keeps the compiler from treating the
// stores as dead before free().
void s_mp_wipe(mp_digit *p, uint32_t count)
{
    if (count) memset(p, 0, size_t(count) * sizeof(mp_digit));
    __asm__ __volatile__("" : : "r"(p) : "memory");
}

mp_digit *s_mp_alloc(uint32_t count) { return static_cast<mp_digit *>(calloc(count, sizeof(mp_digit))); }

void s_mp_free(mp_digit *p, uint32_t count)
{
    if (!p) return;
    s_mp_wipe(p, count);
    free(p);
}

}  // namespace

// ---------------------------------------------------------------------------
// Representation

static inline bool s_mp_iszero(const mp_int *a) { return a->used == 1 && a->digits[0] == 0; }

mp_err mp_init(mp_int *mp) { return mp_init_size(mp, s_mp_defprec); }

mp_err mp_init_size(mp_int *mp, uint32_t prec)
{
    MP_CHECK(mp != ((void *)0) && prec > 0);
    mp_digit *d = s_mp_alloc(prec);
    if (!d) return MP_NOMEM;
    mp->digits = d;
    mp->alloc = prec;
    mp->used = 1;
    mp->sign = MP_PLUS;
    return MP_OK;
}

mp_err mp_init_copy(mp_int *mp, const mp_int *from)
{
    MP_CHECK(mp != ((void *)0) && from != ((void *)0));
    if (mp == from) return MP_OK;
    mp_digit *d = s_mp_alloc(from->used);
    if (!d) return MP_NOMEM;
    memcpy(d, from->digits, size_t(from->used) * sizeof(mp_digit));
    mp->digits = d;
    mp->alloc = from->used;
    mp->used = from->used;
    mp->sign = from->sign;
    return MP_OK;
}

mp_err mp_copy(const mp_int *from, mp_int *to)
{
    MP_CHECK(from != ((void *)0) && to != ((void *)0));
    if (from == to) return MP_OK;
    const uint32_t n = from->used;
    if (to->alloc < n) {
        mp_digit *d = s_mp_alloc(n);
        if (!d) return MP_NOMEM;
        memcpy(d, from->digits, size_t(n) * sizeof(mp_digit));
        s_mp_free(to->digits, to->alloc);
        to->digits = d;
        to->alloc = n;
    } else {
        memset(to->digits + n, 0, size_t(to->alloc - n) * sizeof(mp_digit));
        memcpy(to->digits, from->digits, size_t(n) * sizeof(mp_digit));
    }
    to->used = n;
    to->sign = from->sign;
    return MP_OK;
}

void mp_zero(mp_int *mp)
{
    if (!mp) return;
    if (mp->alloc) memset(mp->digits, 0, size_t(mp->alloc) * sizeof(mp_digit));
    mp->used = 1;
    mp->sign = MP_PLUS;
}

void mp_set(mp_int *mp, mp_digit d)
{
    if (!mp) return;
    mp_zero(mp);
    mp->digits[0] = d;
}

void mp_clear(mp_int *mp)
{
    if (!mp) return;
    if (mp->digits) {
        s_mp_free(mp->digits, mp->alloc);
        mp->digits = nullptr;
    }
    mp->used = 0;
    mp->alloc = 0;
}

mp_err s_mp_grow(mp_int *mp, uint32_t min)
{
    if (mp->alloc >= min) return MP_OK;
    const uint32_t size = ((min + s_mp_defprec - 1) / s_mp_defprec) * s_mp_defprec;
    mp_digit *d = s_mp_alloc(size);
    if (!d) return MP_NOMEM;
    memcpy(d, mp->digits, size_t(mp->used) * sizeof(mp_digit));
    s_mp_free(mp->digits, mp->alloc);
    mp->digits = d;
    mp->alloc = size;
    return MP_OK;
}

void s_mp_clamp(mp_int *mp)
{
    uint32_t u = mp->used;
    while (u > 1 && mp->digits[u - 1] == 0) --u;
    mp->used = u;
}

void s_mp_exch(mp_int *a, mp_int *b)
{
    mp_int t = *a;
    *a = *b;
    *b = t;
}

// The array is sized from len, the public length, and the bytes are placed
// and the clamp computed without a branch on their values: the private
// exponent is read here.  Compared with growing digit by digit as the value
// demands, this changes alloc (and the number of allocations) only when
// leading zero bytes of a string longer than 128 bytes bring the value's
// digit count below the next multiple of s_mp_defprec (the growth quantum);
// values and results are the same.
mp_err mp_read_unsigned_bin(mp_int *mp, const uint8_t *str, int32_t len)
{
    MP_CHECK(mp != ((void *)0) && str != ((void *)0) && len > 0);
    mp_zero(mp);
    uint32_t take = uint32_t(len);
    const mp_err res = s_mp_grow(mp, (take + 1) / 2);
    if (res != MP_OK && take > 2 * mp->alloc) {
        // Out of memory: keep the leading bytes that fit, as a digit-by-digit
        // read of a string without leading zeros would have when it first
        // needed to grow.
        take = 2 * mp->alloc;
    }
    mp_digit *d = mp->digits;
    for (uint32_t i = 0; i < take; i++) {
        const uint32_t pos = take - 1 - i;  // byte position from the least significant end
        d[pos / 2] = mp_digit(d[pos / 2] | (uint32_t(str[i]) << (8 * (pos % 2))));
    }
    mp->used = s_mp_ct_used(d, (take + 1) / 2);
    return res;
}

int32_t mp_unsigned_bin_size(const mp_int *mp)
{
    MP_CHECK(mp != ((void *)0));
    const mp_digit top = mp->digits[mp->used - 1];
    return int32_t(2 * (mp->used - 1) + (top > 0xFF ? 2 : 1));
}

mp_err mp_to_unsigned_bin(const mp_int *mp, uint8_t *str)
{
    MP_CHECK(mp != ((void *)0) && str != ((void *)0));
    size_t pos = 0;
    for (uint32_t i = 0; i + 1 < mp->used; i++) {
        str[pos++] = uint8_t(mp->digits[i]);
        str[pos++] = uint8_t(mp->digits[i] >> 8);
    }
    const mp_digit top = mp->digits[mp->used - 1];
    str[pos++] = uint8_t(top);
    if (top > 0xFF) str[pos++] = uint8_t(top >> 8);
    for (size_t lo = 0, hi = pos - 1; lo < hi; lo++, hi--) {
        const uint8_t t = str[lo];
        str[lo] = str[hi];
        str[hi] = t;
    }
    return MP_OK;
}

int s_mp_cmp(const mp_int *a, const mp_int *b)
{
    if (a->used != b->used) return a->used > b->used ? MP_GREATER : MP_LESS;
    for (uint32_t i = a->used; i-- > 0;) {
        if (a->digits[i] != b->digits[i]) return a->digits[i] > b->digits[i] ? MP_GREATER : MP_LESS;
    }
    return MP_EQUAL;
}

int mp_cmp(const mp_int *a, const mp_int *b)
{
    MP_CHECK(a != ((void *)0) && b != ((void *)0));
    if (a->sign != b->sign) return a->sign == MP_MINUS ? MP_LESS : MP_GREATER;
    const int mag = s_mp_cmp(a, b);
    return a->sign == MP_MINUS ? -mag : mag;
}

namespace {
constexpr const char *l_mp_err_string[] = {
    "unknown result code",      // any other code
    "boolean true",             // MP_OK
    "boolean false",            // MP_FALSE
    "out of memory",            // MP_NOMEM
    "argument out of range",    // MP_OUT_OF_RANGE
    "invalid input parameter",  // MP_BAD_INPUT
    "result is undefined",      // MP_UNDEFINED
};
}  // namespace

const char *mp_strerror(mp_err ec)
{
    if (ec > MP_OK || ec < MP_UNDEFINED) return l_mp_err_string[0];
    return l_mp_err_string[1 - ec];
}

// ---------------------------------------------------------------------------
// Magnitude arithmetic

mp_err s_mp_add(mp_int *a, const mp_int *b)
{
    const uint32_t ub = b->used;  // read first: b may be a
    if (ub > a->used) {
        mp_err res = s_mp_grow(a, ub);
        if (res != MP_OK) return res;
        a->used = ub;
    }
    mp_digit *pa = a->digits;
    const mp_digit *pb = b->digits;
    mp_word k = 0;
    uint32_t i = 0;
    for (; i < ub; i++) {
        const mp_word w = mp_word(pa[i]) + pb[i] + k;
        pa[i] = mp_digit(w);
        k = w >> DIGIT_BIT;
    }
    for (; k && i < a->used; i++) {
        const mp_word w = mp_word(pa[i]) + k;
        pa[i] = mp_digit(w);
        k = w >> DIGIT_BIT;
    }
    if (k) {
        mp_err res = s_mp_grow(a, a->used + 1);
        if (res != MP_OK) return res;
        a->digits[a->used++] = 1;
    }
    return MP_OK;
}

mp_err s_mp_sub(mp_int *a, const mp_int *b)
{
    const uint32_t ub = b->used;
    if (ub > a->used) {  // |a| < |b|: room for the wrapped difference
        mp_err res = s_mp_grow(a, ub);
        if (res != MP_OK) return res;
        a->used = ub;
    }
    mp_digit *pa = a->digits;
    const mp_digit *pb = b->digits;
    mp_word borrow = 0;
    uint32_t i = 0;
    for (; i < ub; i++) {
        const mp_word w = RADIX + pa[i] - borrow - pb[i];
        pa[i] = mp_digit(w);
        borrow = (w >> DIGIT_BIT) ^ 1;
    }
    for (; borrow && i < a->used; i++) {
        const mp_word w = RADIX + pa[i] - borrow;
        pa[i] = mp_digit(w);
        borrow = (w >> DIGIT_BIT) ^ 1;
    }
    s_mp_clamp(a);
    return borrow ? MP_OUT_OF_RANGE : MP_OK;
}

// Three schoolbook rows at once: t[0..ua+2] += a * (b0 + b1 * 65536 +
// b2 * 65536^2), where t[ua..ua+2] are still zero.  Row b1 runs one
// position behind row b0 and row b2 one behind row b1, each taking the
// digit the row before has just produced; the three carry chains are
// independent, so they overlap, and t is loaded and stored once per
// position.  Every sum stays below 2^32: 65535 + 65535^2 + 65535.
static inline void s_mp_mul_row3(mp_digit *__restrict t, const mp_digit *__restrict a, uint32_t ua,
                                 mp_word b0, mp_word b1, mp_word b2)
{
    mp_word k0 = 0, k1 = 0, k2 = 0;
    mp_word a1 = 0, a2 = 0;  // a[i-1] and a[i-2]
    for (uint32_t i = 0; i < ua; i++) {
        const mp_word x = a[i];
        const mp_word w0 = t[i] + x * b0 + k0;
        k0 = w0 >> DIGIT_BIT;
        const mp_word w1 = (w0 & DIGIT_MASK) + a1 * b1 + k1;
        k1 = w1 >> DIGIT_BIT;
        const mp_word w2 = (w1 & DIGIT_MASK) + a2 * b2 + k2;
        k2 = w2 >> DIGIT_BIT;
        t[i] = mp_digit(w2);
        a2 = a1;
        a1 = x;
    }
    // Position ua: row b0's final carry, the last digits of rows b1 and b2.
    mp_word w1 = k0 + a1 * b1 + k1;
    k1 = w1 >> DIGIT_BIT;
    mp_word w2 = (w1 & DIGIT_MASK) + a2 * b2 + k2;
    k2 = w2 >> DIGIT_BIT;
    t[ua] = mp_digit(w2);
    // Position ua+1: row b1's final carry and the last digit of row b2.
    w2 = k1 + a1 * b2 + k2;
    t[ua + 1] = mp_digit(w2);
    t[ua + 2] = mp_digit(w2 >> DIGIT_BIT);
}

// One schoolbook row: t[0..ua] += a * b0, where t[ua] is still zero.
static inline void s_mp_mul_row(mp_digit *__restrict t, const mp_digit *__restrict a, uint32_t ua, mp_word b0)
{
    mp_word k = 0;
    for (uint32_t i = 0; i < ua; i++) {
        const mp_word w = t[i] + a[i] * b0 + k;
        t[i] = mp_digit(w);
        k = w >> DIGIT_BIT;
    }
    t[ua] = mp_digit(k);
}

mp_err s_mp_mul(mp_int *a, const mp_int *b)
{
    const uint32_t ua = a->used, ub = b->used;
    mp_int t = {};
    mp_err res = mp_init_size(&t, ua + ub);
    if (res != MP_OK) return res;

    const mp_digit *pa = a->digits, *pb = b->digits;  // b may be a
    mp_digit *pt = t.digits;
    uint32_t j = 0;
    for (; j + 2 < ub; j += 3) {
        if (pb[j] && pb[j + 1] && pb[j + 2]) {
            s_mp_mul_row3(pt + j, pa, ua, pb[j], pb[j + 1], pb[j + 2]);
        } else {
            for (uint32_t r = j; r < j + 3; r++) {  // zero digits are skipped
                if (pb[r]) s_mp_mul_row(pt + r, pa, ua, pb[r]);
            }
        }
    }
    for (; j < ub; j++) {
        if (pb[j]) s_mp_mul_row(pt + j, pa, ua, pb[j]);
    }

    t.used = ua + ub;
    s_mp_clamp(&t);
    s_mp_exch(a, &t);
    a->sign = MP_PLUS;
    mp_clear(&t);
    return MP_OK;
}

// Adds k at t[x] and carries upward.
static inline void s_mp_ripple(mp_digit *t, uint32_t x, mp_word k)
{
    for (; k; x++) {
        const mp_word w = t[x] + k;
        t[x] = mp_digit(w);
        k = w >> DIGIT_BIT;
    }
}

// Squaring row i: t += a_i^2 * 65536^(2i) + 2 * a_i * a_j * 65536^(i+j) for
// j > i.  t + k + 2p needs up to 34 bits, so 2p is split at bit 16: both
// halves and the carry (below 2^18) stay exact in 32 bits.
static inline void s_mp_sqr_row(mp_digit *__restrict t, const mp_digit *__restrict a, uint32_t n, uint32_t i)
{
    const mp_word ai = a[i];
    const mp_word w = t[2 * i] + ai * ai;
    t[2 * i] = mp_digit(w);
    mp_word k = w >> DIGIT_BIT;
    for (uint32_t j = i + 1; j < n; j++) {
        const mp_word p = ai * a[j];
        const mp_word y = t[i + j] + k + ((p & DIGIT_MASK) << 1);
        t[i + j] = mp_digit(y);
        k = (y >> DIGIT_BIT) + ((p >> DIGIT_BIT) << 1);
    }
    s_mp_ripple(t, i + n, k);
}

// Squaring rows i and i+1 together (i + 2 < n): row i+1 runs one position
// behind row i and takes each digit it has just produced, so the two carry
// chains overlap.
static inline void s_mp_sqr_row2(mp_digit *__restrict t, const mp_digit *__restrict a, uint32_t n, uint32_t i)
{
    const mp_word c = a[i], d = a[i + 1];
    // Position 2i: row i's square term.
    mp_word w = t[2 * i] + c * c;
    t[2 * i] = mp_digit(w);
    mp_word k0 = w >> DIGIT_BIT;
    // Position 2i+1: row i's first cross term.
    mp_word p = c * d;
    mp_word y0 = t[2 * i + 1] + k0 + ((p & DIGIT_MASK) << 1);
    t[2 * i + 1] = mp_digit(y0);
    k0 = (y0 >> DIGIT_BIT) + ((p >> DIGIT_BIT) << 1);
    // Position 2i+2: row i's next cross term, then row i+1's square term.
    p = c * a[i + 2];
    y0 = t[2 * i + 2] + k0 + ((p & DIGIT_MASK) << 1);
    k0 = (y0 >> DIGIT_BIT) + ((p >> DIGIT_BIT) << 1);
    w = (y0 & DIGIT_MASK) + d * d;
    t[2 * i + 2] = mp_digit(w);
    mp_word k1 = w >> DIGIT_BIT;
    // Positions 2i+3 .. i+n-1: one cross term of each row.
    for (uint32_t x = 2 * i + 3; x < i + n; x++) {
        const mp_word p0 = c * a[x - i];
        y0 = t[x] + k0 + ((p0 & DIGIT_MASK) << 1);
        k0 = (y0 >> DIGIT_BIT) + ((p0 >> DIGIT_BIT) << 1);
        const mp_word p1 = d * a[x - i - 1];
        const mp_word y1 = (y0 & DIGIT_MASK) + k1 + ((p1 & DIGIT_MASK) << 1);
        t[x] = mp_digit(y1);
        k1 = (y1 >> DIGIT_BIT) + ((p1 >> DIGIT_BIT) << 1);
    }
    // Position i+n: row i's final carry and row i+1's last cross term; what
    // carries out of it joins row i+1's final carry.
    y0 = t[i + n] + k0;
    p = d * a[n - 1];
    const mp_word y1 = (y0 & DIGIT_MASK) + k1 + ((p & DIGIT_MASK) << 1);
    t[i + n] = mp_digit(y1);
    k1 = (y1 >> DIGIT_BIT) + ((p >> DIGIT_BIT) << 1) + (y0 >> DIGIT_BIT);
    s_mp_ripple(t, i + n + 1, k1);
}

mp_err s_mp_sqr(mp_int *a)
{
    const uint32_t n = a->used;
    mp_int t = {};
    mp_err res = mp_init_size(&t, 2 * n);
    if (res != MP_OK) return res;

    const mp_digit *pa = a->digits;
    mp_digit *pt = t.digits;
    for (uint32_t i = 0; i < n;) {
        if (i + 2 < n && pa[i] && pa[i + 1]) {
            s_mp_sqr_row2(pt, pa, n, i);
            i += 2;
        } else {
            if (pa[i]) s_mp_sqr_row(pt, pa, n, i);  // zero digits are skipped
            i++;
        }
    }

    t.used = 2 * n;
    s_mp_clamp(&t);
    s_mp_exch(a, &t);
    a->sign = MP_PLUS;
    mp_clear(&t);
    return MP_OK;
}

mp_err s_mp_mul_d(mp_int *a, mp_digit d)
{
    const mp_word top = a->digits[a->used - 1];
    // A full array grows when the top digit's product, plus the carry into it (below d), can
    // overflow; otherwise the digit after the top one is there to take the carry.
    if (d != 0 && a->used == a->alloc && top * d + d - 1 > DIGIT_MASK) {
        mp_err res = s_mp_grow(a, a->used + 1);
        if (res != MP_OK) return res;
    }
    mp_digit *pa = a->digits;
    mp_word k = 0;
    for (uint32_t i = 0; i < a->used; i++) {
        const mp_word w = pa[i] * mp_word(d) + k;
        pa[i] = mp_digit(w);
        k = w >> DIGIT_BIT;
    }
    if (k) pa[a->used++] = mp_digit(k);
    s_mp_clamp(a);
    return MP_OK;
}

mp_err s_mp_add_d(mp_int *a, mp_digit d)
{
    mp_word k = d;
    for (uint32_t i = 0; k && i < a->used; i++) {
        const mp_word w = a->digits[i] + k;
        a->digits[i] = mp_digit(w);
        k = w >> DIGIT_BIT;
    }
    if (k) {
        mp_err res = s_mp_grow(a, a->used + 1);
        if (res != MP_OK) return res;
        a->digits[a->used++] = 1;
    }
    return MP_OK;
}

mp_err s_mp_lshd(mp_int *a, uint32_t p)
{
    if (p == 0) return MP_OK;
    mp_err res = s_mp_grow(a, a->used + p);
    if (res != MP_OK) return res;
    memmove(a->digits + p, a->digits, size_t(a->used) * sizeof(mp_digit));
    memset(a->digits, 0, size_t(p) * sizeof(mp_digit));
    a->used += p;
    return MP_OK;
}

void s_mp_rshd(mp_int *a, uint32_t p)
{
    if (p == 0) return;
    if (p >= a->used) {
        mp_zero(a);
        return;
    }
    const uint32_t keep = a->used - p;
    memmove(a->digits, a->digits + p, size_t(keep) * sizeof(mp_digit));
    memset(a->digits + keep, 0, size_t(p) * sizeof(mp_digit));
    a->used = keep;
    s_mp_clamp(a);
}

mp_err s_mp_mul_2d(mp_int *a, mp_digit d)
{
    mp_err res = s_mp_lshd(a, d / DIGIT_BIT);
    if (res != MP_OK) return res;
    const uint32_t bits = d % DIGIT_BIT;
    if (bits) {
        if ((a->digits[a->used - 1] >> (DIGIT_BIT - bits)) != 0) {
            res = s_mp_grow(a, a->used + 1);
            if (res != MP_OK) return res;
        }
        mp_digit *pa = a->digits;
        mp_word carry = 0;
        for (uint32_t i = 0; i < a->used; i++) {
            const mp_word w = (mp_word(pa[i]) << bits) | carry;
            pa[i] = mp_digit(w);
            carry = w >> DIGIT_BIT;
        }
        if (carry) pa[a->used++] = mp_digit(carry);
    }
    s_mp_clamp(a);
    return MP_OK;
}

void s_mp_mod_2d(mp_int *a, mp_digit d)
{
    const uint32_t ndig = d / DIGIT_BIT, nbit = d % DIGIT_BIT;
    if (ndig >= a->used) return;
    a->digits[ndig] &= mp_digit((1u << nbit) - 1);
    memset(a->digits + ndig + 1, 0, size_t(a->used - ndig - 1) * sizeof(mp_digit));
    s_mp_clamp(a);
}

void s_mp_div_2d(mp_int *a, mp_digit d)
{
    if (uint32_t(d / DIGIT_BIT) >= a->used) {
        mp_zero(a);
        return;
    }
    s_mp_rshd(a, d / DIGIT_BIT);
    const uint32_t bits = d % DIGIT_BIT;
    if (bits) {
        const mp_word mask = (1u << bits) - 1;
        mp_word carry = 0;
        for (uint32_t i = a->used; i-- > 0;) {
            const mp_word low = a->digits[i] & mask;
            a->digits[i] = mp_digit((a->digits[i] >> bits) | (carry << (DIGIT_BIT - bits)));
            carry = low;
        }
    }
    s_mp_clamp(a);
}

// ---------------------------------------------------------------------------
// Signed addition and subtraction

// c = |x| - |y| with sign s, where |x| > |y|; y may be c, x may be c.
static mp_err s_mp_diff_into(const mp_int *x, const mp_int *y, mp_int *c, mp_sign s)
{
    mp_err res;
    if (c == y) {
        // y is still needed: form the difference in a copy of x.
        mp_int t = {};
        if ((res = mp_init_copy(&t, x)) != MP_OK) return res;
        res = s_mp_sub(&t, y);
        if (res == MP_OK) s_mp_exch(&t, c);
        mp_clear(&t);
    } else {
        if ((res = mp_copy(x, c)) != MP_OK) return res;
        res = s_mp_sub(c, y);
    }
    if (res == MP_OK) c->sign = s;
    return res;
}

// c = |x| + |y| with sign s.
static mp_err s_mp_sum_into(const mp_int *x, const mp_int *y, mp_int *c, mp_sign s)
{
    mp_err res;
    if (c == y) {
        res = s_mp_add(c, x);
    } else {
        if ((res = mp_copy(x, c)) != MP_OK) return res;
        res = s_mp_add(c, y);
    }
    if (res == MP_OK) c->sign = s_mp_iszero(c) ? MP_PLUS : s;
    return res;
}

mp_err mp_add(const mp_int *a, const mp_int *b, mp_int *c)
{
    MP_CHECK(a != ((void *)0) && b != ((void *)0) && c != ((void *)0));
    const mp_sign sa = a->sign, sb = b->sign;
    if (sa == sb) return s_mp_sum_into(a, b, c, sa);
    const int mag = s_mp_cmp(a, b);
    if (mag == MP_EQUAL) {
        mp_zero(c);
        return MP_OK;
    }
    return mag == MP_GREATER ? s_mp_diff_into(a, b, c, sa) : s_mp_diff_into(b, a, c, sb);
}

mp_err mp_sub(const mp_int *a, const mp_int *b, mp_int *c)
{
    MP_CHECK(a != ((void *)0) && b != ((void *)0) && c != ((void *)0));
    const mp_sign sa = a->sign, sb = b->sign;
    if (sa != sb) return s_mp_sum_into(a, b, c, sa);
    const int mag = s_mp_cmp(a, b);
    if (mag == MP_EQUAL) {
        mp_zero(c);
        return MP_OK;
    }
    return mag == MP_GREATER ? s_mp_diff_into(a, b, c, sa) : s_mp_diff_into(b, a, c, mp_sign(1 - sb));
}

// ---------------------------------------------------------------------------
// Division

int s_mp_ispow2(const mp_int *v)
{
    const mp_digit top = v->digits[v->used - 1];
    if (top == 0 || (top & (top - 1)) != 0) return -1;
    for (uint32_t i = 0; i + 1 < v->used; i++) {
        if (v->digits[i]) return -1;
    }
    int k = int(DIGIT_BIT * (v->used - 1));
    for (mp_digit t = top; t > 1; t >>= 1) k++;
    return k;
}

int s_mp_norm(mp_int *a, mp_int *b)
{
    mp_digit top = b->digits[b->used - 1];
    int d = 0;
    while (top < 0x8000) {
        top = mp_digit(top << 1);
        d++;
    }
    if (d) {
        // A failed growth of a must not pass as a normalised pair.
        mp_err res = s_mp_mul_2d(a, mp_digit(d));
        if (res != MP_OK) return res;
        res = s_mp_mul_2d(b, mp_digit(d));
        if (res != MP_OK) return res;
    }
    return d;
}

mp_err s_mp_div(mp_int *a, mp_int *b)
{
    if (b->sign != MP_MINUS && s_mp_iszero(b)) return MP_OUT_OF_RANGE;

    const int k = s_mp_ispow2(b);
    if (k >= 0) {
        mp_err res = mp_copy(a, b);
        if (res != MP_OK) return res;
        s_mp_div_2d(a, mp_digit(k));
        s_mp_mod_2d(b, mp_digit(k));
        a->sign = MP_PLUS;
        b->sign = MP_PLUS;
        return MP_OK;
    }

    mp_int q = {}, r = {}, t = {};
    mp_err res;
    if ((res = mp_init_size(&q, a->used)) != MP_OK) return res;
    if ((res = mp_init_size(&r, a->used)) != MP_OK) {
        mp_clear(&q);
        return res;
    }
    if ((res = mp_init_size(&t, a->used)) != MP_OK) {
        mp_clear(&r);
        mp_clear(&q);
        return res;
    }

    const int d = s_mp_norm(a, b);
    if (d < 0) {
        res = d;
    } else {
        const mp_word btop = b->digits[b->used - 1];
        int64_t i = int64_t(a->used) - 1;
        for (;;) {
            // Bring down dividend digits until the running remainder reaches b.
            while (s_mp_cmp(&r, b) < 0 && i >= 0) {
                if ((res = s_mp_lshd(&r, 1)) != MP_OK) break;
                if ((res = s_mp_lshd(&q, 1)) != MP_OK) break;
                r.digits[0] = a->digits[i];
                s_mp_clamp(&r);
                i--;
            }
            if (res != MP_OK) break;
            if (s_mp_cmp(&r, b) < 0) break;

            // Estimate from b's top digit; never below the true digit.
            mp_word x = r.digits[r.used - 1];
            if (x <= btop && r.used > 1) x = (x << DIGIT_BIT) | r.digits[r.used - 2];
            mp_word qhat = x / btop;
            if (qhat > DIGIT_MASK) qhat = DIGIT_MASK;

            if ((res = mp_copy(b, &t)) != MP_OK) break;
            if ((res = s_mp_mul_d(&t, mp_digit(qhat))) != MP_OK) break;
            while (s_mp_cmp(&t, &r) > 0) {
                qhat--;
                if ((res = s_mp_sub(&t, b)) != MP_OK) break;
            }
            if (res != MP_OK) break;
            if ((res = s_mp_sub(&r, &t)) != MP_OK) break;
            q.digits[0] = mp_digit(qhat);
            if (i < 0) break;
        }
        if (res == MP_OK) {
            if (d) s_mp_div_2d(&r, mp_digit(d));
            s_mp_clamp(&q);
            s_mp_clamp(&r);
            q.sign = MP_PLUS;
            r.sign = MP_PLUS;
            s_mp_exch(&q, a);
            s_mp_exch(&r, b);
        }
    }
    mp_clear(&t);
    mp_clear(&r);
    mp_clear(&q);
    return res;
}

mp_err mp_div(const mp_int *a, const mp_int *b, mp_int *q, mp_int *r)
{
    MP_CHECK(a != ((void *)0) && b != ((void *)0));
    if (b->sign != MP_MINUS && s_mp_iszero(b)) return MP_OUT_OF_RANGE;

    const mp_sign sa = a->sign, sb = b->sign;
    mp_err res;
    const int mag = s_mp_cmp(a, b);
    if (mag == MP_LESS) {
        if (r && (res = mp_copy(a, r)) != MP_OK) return res;
        if (q) mp_zero(q);
        return MP_OK;
    }
    if (mag == MP_EQUAL) {
        if (q) {
            mp_set(q, 1);
            q->sign = sa != sb ? MP_MINUS : MP_PLUS;
        }
        if (r) mp_zero(r);
        return MP_OK;
    }

    mp_int qt = {}, rt = {};
    if ((res = mp_init_copy(&qt, a)) != MP_OK) return res;
    if ((res = mp_init_copy(&rt, b)) != MP_OK) {
        mp_clear(&qt);
        return res;
    }
    res = s_mp_div(&qt, &rt);
    if (res == MP_OK) {
        qt.sign = (sa != sb && !s_mp_iszero(&qt)) ? MP_MINUS : MP_PLUS;
        rt.sign = s_mp_iszero(&rt) ? MP_PLUS : sa;
        if (q) s_mp_exch(q, &qt);
        if (r) s_mp_exch(r, &rt);
    }
    mp_clear(&qt);
    mp_clear(&rt);
    return res;
}

mp_err mp_mod(const mp_int *a, const mp_int *m, mp_int *c)
{
    MP_CHECK(a != ((void *)0) && m != ((void *)0) && c != ((void *)0));
    if (m->sign == MP_MINUS) return MP_OUT_OF_RANGE;

    mp_err res;
    const int mag = s_mp_cmp(a, m);
    if (mag == MP_LESS) {
        if ((res = mp_copy(a, c)) != MP_OK) return res;
        return c->sign == MP_MINUS ? mp_add(c, m, c) : MP_OK;
    }
    if (mag == MP_EQUAL) {
        // Decided before any zero test: 0 mod 0 is 0.
        mp_zero(c);
        return MP_OK;
    }
    if ((res = mp_div(a, m, nullptr, c)) != MP_OK) return res;
    return c->sign == MP_MINUS ? mp_add(c, m, c) : MP_OK;
}

// ---------------------------------------------------------------------------
// Modular exponentiation

mp_err s_mp_reduce(mp_int *x, const mp_int *m, const mp_int *mu)
{
    const uint32_t k = m->used;
    // Bit counts are 16-bit quantities: moduli up to 4094 digits.
    const mp_digit low_bits = mp_digit(DIGIT_BIT * (k + 1));
    mp_int q = {};
    mp_err res = mp_init_copy(&q, x);
    if (res != MP_OK) return res;

    if (k > 1) s_mp_rshd(&q, k - 1);
    if ((res = s_mp_mul(&q, mu)) != MP_OK) goto CLEANUP;
    s_mp_rshd(&q, k + 1);

    s_mp_mod_2d(x, low_bits);
    if ((res = s_mp_mul(&q, m)) != MP_OK) goto CLEANUP;
    s_mp_mod_2d(&q, low_bits);

    if ((res = mp_sub(x, &q, x)) != MP_OK) goto CLEANUP;
    if (x->sign == MP_MINUS) {
        mp_set(&q, 1);
        if ((res = s_mp_lshd(&q, k + 1)) != MP_OK) goto CLEANUP;
        if ((res = mp_add(x, &q, x)) != MP_OK) goto CLEANUP;
    }
    while (mp_cmp(x, m) >= 0) {
        if ((res = s_mp_sub(x, m)) != MP_OK) break;
    }

CLEANUP:
    mp_clear(&q);
    return res;
}

// s = s * x mod m, then x = x^2 mod m (when mul is set); else only the latter.
static inline mp_err s_mp_expt_step(mp_int *s, mp_int *x, bool mul, const mp_int *m, const mp_int *mu)
{
    mp_err res;
    if (mul) {
        if ((res = s_mp_mul(s, x)) != MP_OK) return res;
        if ((res = s_mp_reduce(s, m, mu)) != MP_OK) return res;
    }
    if ((res = s_mp_sqr(x)) != MP_OK) return res;
    return s_mp_reduce(x, m, mu);
}

// Even moduli and m = 1: right-to-left binary walk with Barrett reduction.
// Its sequence of operations follows the exponent's bits.
static mp_err s_mp_exptmod_barrett(const mp_int *a, const mp_int *b, const mp_int *m, mp_int *c)
{
    mp_int s = {}, x = {}, mu = {};
    mp_err res;
    if ((res = mp_init(&s)) != MP_OK) return res;
    mp_set(&s, 1);
    if ((res = mp_init_copy(&x, a)) != MP_OK) goto CLEANUP;
    if ((res = mp_mod(&x, m, &x)) != MP_OK) goto CLEANUP;

    // Barrett constant mu = 65536^(2k) / m.
    if ((res = mp_init(&mu)) != MP_OK) goto CLEANUP;
    if ((res = s_mp_add_d(&mu, 1)) != MP_OK) goto CLEANUP;
    if ((res = s_mp_lshd(&mu, 2 * m->used)) != MP_OK) goto CLEANUP;
    if ((res = mp_div(&mu, m, &mu, nullptr)) != MP_OK) goto CLEANUP;

    // Right-to-left walk over the exponent bits.
    for (uint32_t i = 0; i + 1 < b->used; i++) {
        mp_digit d = b->digits[i];
        for (uint32_t bit = 0; bit < DIGIT_BIT; bit++, d >>= 1) {
            if ((res = s_mp_expt_step(&s, &x, d & 1, m, &mu)) != MP_OK) goto CLEANUP;
        }
    }
    for (mp_digit d = b->digits[b->used - 1]; d; d >>= 1) {
        if ((res = s_mp_expt_step(&s, &x, d & 1, m, &mu)) != MP_OK) goto CLEANUP;
    }

    s_mp_exch(&s, c);
    c->sign = MP_PLUS;

CLEANUP:
    mp_clear(&mu);
    mp_clear(&x);
    mp_clear(&s);
    return res;
}

// ---------------------------------------------------------------------------
// Montgomery arithmetic for odd moduli: numbers of n 64-bit limbs, least
// significant first, R = 2^(64n).  Nothing below branches on or indexes
// memory by the values of the operands, only by n; the final subtractions
// are done with masks.

namespace {

typedef uint64_t mp_limb;
typedef unsigned __int128 mp_dlimb;
constexpr uint32_t LIMB_DIGITS = 4;  // radix-65536 digits per limb
static_assert(sizeof(mp_limb) == LIMB_DIGITS * sizeof(mp_digit), "four digits per limb");

constexpr uint32_t WINDOW_BITS = 5;
constexpr uint32_t WINDOW_SIZE = 1u << WINDOW_BITS;  // table entries

// -m^-1 mod 2^64 for odd m0, by Newton's iteration (each step doubles the
// number of correct low bits; m0 itself is right in the low 3 bits).
mp_limb s_mont_minv(mp_limb m0)
{
    mp_limb inv = m0;
    for (int i = 0; i < 5; i++) inv *= 2 - m0 * inv;
    return 0 - inv;
}

// r = t - m when t >= m, else t, where t = t[0..n) + hi * R < 2m.  r may be t.
inline void s_mont_final_sub(mp_limb *r, const mp_limb *t, mp_limb hi, const mp_limb *m, uint32_t n)
{
    mp_limb borrow = 0;
    for (uint32_t j = 0; j < n; j++) {
        const mp_dlimb d = mp_dlimb(t[j]) - m[j] - borrow;
        r[j] = mp_limb(d);
        borrow = mp_limb(d >> 64) & 1;
    }
    // t < m exactly when the subtraction borrowed and hi is 0 (hi is 0 or 1).
    const mp_limb keep = s_mp_ct_hide(0 - (borrow & (hi ^ 1)));
    for (uint32_t j = 0; j < n; j++) r[j] = (t[j] & keep) | (r[j] & ~keep);
}

// r = a * b / R mod m for a, b < m (coarsely integrated operand scanning:
// each pass adds a * b[i] and a multiple of m that clears the low limb).
// t is scratch of n limbs.  r may be a or b.
void s_mont_mul(mp_limb *r, const mp_limb *a, const mp_limb *b, const mp_limb *m, mp_limb minv, uint32_t n,
                mp_limb *__restrict t)
{
    for (uint32_t j = 0; j < n; j++) t[j] = 0;
    mp_limb hi = 0;  // t[n]; the running value stays below 2m
    for (uint32_t i = 0; i < n; i++) {
        const mp_limb bi = b[i];
        mp_dlimb p = mp_dlimb(a[0]) * bi + t[0];
        mp_limb c1 = mp_limb(p >> 64);
        const mp_limb u = mp_limb(p) * minv;
        mp_dlimb q = mp_dlimb(u) * m[0] + mp_limb(p);  // low limb becomes 0
        mp_limb c2 = mp_limb(q >> 64);
        for (uint32_t j = 1; j < n; j++) {
            p = mp_dlimb(a[j]) * bi + t[j] + c1;
            c1 = mp_limb(p >> 64);
            q = mp_dlimb(u) * m[j] + mp_limb(p) + c2;
            c2 = mp_limb(q >> 64);
            t[j - 1] = mp_limb(q);
        }
        p = mp_dlimb(hi) + c1 + c2;
        t[n - 1] = mp_limb(p);
        hi = mp_limb(p >> 64);
    }
    s_mont_final_sub(r, t, hi, m, n);
}

// r = a * a / R mod m for a < m: the square in 2n limbs (cross products once,
// doubled), then n reduction passes.  t is scratch of 2n limbs.  r may be a.
void s_mont_sqr(mp_limb *r, const mp_limb *a, const mp_limb *m, mp_limb minv, uint32_t n, mp_limb *__restrict t)
{
    for (uint32_t j = 0; j < 2 * n; j++) t[j] = 0;
    // Cross products a[i] * a[j], i < j.
    for (uint32_t i = 0; i + 1 < n; i++) {
        const mp_limb ai = a[i];
        mp_limb c = 0;
        for (uint32_t j = i + 1; j < n; j++) {
            const mp_dlimb p = mp_dlimb(ai) * a[j] + t[i + j] + c;
            t[i + j] = mp_limb(p);
            c = mp_limb(p >> 64);
        }
        t[i + n] = c;
    }
    // Doubled, plus the squares a[i]^2 at limb 2i.
    mp_limb top = 0, c = 0;
    for (uint32_t i = 0; i < n; i++) {
        const mp_limb lo = t[2 * i], hi = t[2 * i + 1];
        const mp_limb dlo = (lo << 1) | top, dhi = (hi << 1) | (lo >> 63);
        top = hi >> 63;
        const mp_dlimb sq = mp_dlimb(a[i]) * a[i];
        mp_dlimb s = mp_dlimb(dlo) + mp_limb(sq) + c;
        t[2 * i] = mp_limb(s);
        s = mp_dlimb(dhi) + mp_limb(sq >> 64) + mp_limb(s >> 64);
        t[2 * i + 1] = mp_limb(s);
        c = mp_limb(s >> 64);
    }
    // a^2 < m^2 < 2^(128n): no carry leaves the top.  Reduction: each pass
    // clears limb i; the carries above it are collected in extra.
    mp_limb extra = 0;
    for (uint32_t i = 0; i < n; i++) {
        const mp_limb u = t[i] * minv;
        mp_limb k = 0;
        for (uint32_t j = 0; j < n; j++) {
            const mp_dlimb q = mp_dlimb(u) * m[j] + t[i + j] + k;
            t[i + j] = mp_limb(q);
            k = mp_limb(q >> 64);
        }
        const mp_dlimb s = mp_dlimb(t[i + n]) + k + extra;
        t[i + n] = mp_limb(s);
        extra = mp_limb(s >> 64);
    }
    s_mont_final_sub(r, t + n, extra, m, n);
}

// r = table entry k of the WINDOW_SIZE entries of n limbs; every entry is
// read in full.
void s_mont_select(mp_limb *r, const mp_limb *table, uint32_t n, mp_limb k)
{
    for (uint32_t j = 0; j < n; j++) r[j] = 0;
    for (uint32_t e = 0; e < WINDOW_SIZE; e++) {
        const mp_limb hit = s_mp_ct_eq(e, k);
        const mp_limb *row = table + size_t(e) * n;
        for (uint32_t j = 0; j < n; j++) r[j] |= row[j] & hit;
    }
}

// The WINDOW_BITS exponent bits starting at bit pos of the ndig digits d
// (bits above the array count as zero).  The digit indices depend on pos
// only.
inline mp_limb s_mp_window(const mp_digit *d, uint32_t ndig, uint32_t pos)
{
    const uint32_t i = pos / DIGIT_BIT, sh = pos % DIGIT_BIT;
    uint32_t v = uint32_t(d[i]) >> sh;
    if (i + 1 < ndig) v |= uint32_t(d[i + 1]) << (DIGIT_BIT - sh);
    return v & (WINDOW_SIZE - 1);
}

// The first `used` digits of v (at most 4n) as n limbs.
void s_mp_to_limbs(mp_limb *out, uint32_t n, const mp_digit *digits, uint32_t used)
{
    for (uint32_t j = 0; j < n; j++) out[j] = 0;
    for (uint32_t i = 0; i < used; i++) out[i / LIMB_DIGITS] |= mp_limb(digits[i]) << (DIGIT_BIT * (i % LIMB_DIGITS));
}

}  // namespace

// Odd m > 1: fixed 5-bit windows over all 16 * alloc bits of the exponent,
// left to right, in Montgomery form on 64-bit limbs.  The exponent's digits
// are read at indices fixed by its alloc; the number of squarings and
// multiplications, the memory touched and the branches taken depend on the
// sizes of the operands only, never on the exponent's value (nor on its
// used count).  The base and the modulus are public and are prepared with
// the ordinary routines.
static mp_err s_mp_exptmod_mont(const mp_int *a, const mp_int *b, const mp_int *m, mp_int *c)
{
    const uint32_t n = (m->used + LIMB_DIGITS - 1) / LIMB_DIGITS;
    // Scratch limbs: modulus, R^2 mod m, base, one, accumulator, selected
    // entry, 2n of product, then the table.
    const uint32_t fixed = 8 * n;
    const uint32_t count = fixed + WINDOW_SIZE * n;

    mp_int x = {}, rr = {}, s = {};
    mp_limb *w = nullptr;
    mp_err res;
    if ((res = mp_init_copy(&x, a)) != MP_OK) return res;
    if ((res = mp_mod(&x, m, &x)) != MP_OK) goto CLEANUP;
    // R^2 mod m = 65536^(8n) mod m.
    if ((res = mp_init(&rr)) != MP_OK) goto CLEANUP;
    if ((res = s_mp_add_d(&rr, 1)) != MP_OK) goto CLEANUP;
    if ((res = s_mp_lshd(&rr, 2 * LIMB_DIGITS * n)) != MP_OK) goto CLEANUP;
    if ((res = mp_mod(&rr, m, &rr)) != MP_OK) goto CLEANUP;
    if ((res = mp_init_size(&s, LIMB_DIGITS * n)) != MP_OK) goto CLEANUP;
    // Limbs live in a digit array of the module's allocator, so that it is
    // counted, wiped and released like every other (calloc aligns it).
    w = reinterpret_cast<mp_limb *>(s_mp_alloc(LIMB_DIGITS * count));
    if (!w) {
        res = MP_NOMEM;
        goto CLEANUP;
    }

    {
        mp_limb *const ml = w, *const r2 = w + n, *const base = w + 2 * n, *const one = w + 3 * n;
        mp_limb *const acc = w + 4 * n, *const sel = w + 5 * n, *const t = w + 6 * n;
        mp_limb *const table = w + fixed;
        s_mp_to_limbs(ml, n, m->digits, m->used);
        s_mp_to_limbs(r2, n, rr.digits, rr.used);
        s_mp_to_limbs(base, n, x.digits, x.used);
        one[0] = 1;
        const mp_limb minv = s_mont_minv(ml[0]);

        // table[e] = x^e * R mod m.
        s_mont_mul(table, r2, one, ml, minv, n, t);
        s_mont_mul(table + n, base, r2, ml, minv, n, t);
        for (uint32_t e = 2; e < WINDOW_SIZE; e++) {
            s_mont_mul(table + size_t(e) * n, table + size_t(e - 1) * n, table + n, ml, minv, n, t);
        }

        // Windows from the top; the top one starts the accumulator.
        const uint32_t nbits = DIGIT_BIT * b->alloc;
        const uint32_t nwin = (nbits + WINDOW_BITS - 1) / WINDOW_BITS;
        s_mont_select(acc, table, n, s_mp_window(b->digits, b->alloc, (nwin - 1) * WINDOW_BITS));
        for (uint32_t win = nwin - 1; win-- > 0;) {
            for (uint32_t k = 0; k < WINDOW_BITS; k++) s_mont_sqr(acc, acc, ml, minv, n, t);
            s_mont_select(sel, table, n, s_mp_window(b->digits, b->alloc, win * WINDOW_BITS));
            s_mont_mul(acc, acc, sel, ml, minv, n, t);
        }
        s_mont_mul(acc, acc, one, ml, minv, n, t);  // out of Montgomery form

        for (uint32_t i = 0; i < LIMB_DIGITS * n; i++) {
            s.digits[i] = mp_digit(acc[i / LIMB_DIGITS] >> (DIGIT_BIT * (i % LIMB_DIGITS)));
        }
        s.used = s_mp_ct_used(s.digits, LIMB_DIGITS * n);
    }

    s_mp_exch(&s, c);
    c->sign = MP_PLUS;

CLEANUP:
    if (w) s_mp_free(reinterpret_cast<mp_digit *>(w), LIMB_DIGITS * count);
    mp_clear(&s);
    mp_clear(&rr);
    mp_clear(&x);
    return res;
}

mp_err mp_exptmod(const mp_int *a, const mp_int *b, const mp_int *m, mp_int *c)
{
    MP_CHECK(a != ((void *)0) && b != ((void *)0) && c != ((void *)0));
    if (b->sign == MP_MINUS || m->sign == MP_MINUS) return MP_OUT_OF_RANGE;
    if (s_mp_iszero(m)) return MP_OUT_OF_RANGE;
    // m = 1 stays on the binary walk: exponent 0 gives 1 there, unreduced.
    const bool is_one = m->used == 1 && m->digits[0] == 1;
    if ((m->digits[0] & 1) && !is_one) return s_mp_exptmod_mont(a, b, m, c);
    return s_mp_exptmod_barrett(a, b, m, c);
}

// Arbitrary-precision signed integers in radix 65536, as far as the RSA
// private-key operation needs them.
//
// Preconditions on pointers and sizes are checked with assertions that stay
// active in every build and abort with the condition text.  Every digit
// array is overwritten with zeros before it is released.
#pragma once

#include <cstdint>

typedef uint16_t mp_digit;  // one radix-65536 digit
typedef uint32_t mp_word;   // double digit: products, sums with carry
typedef int32_t mp_err;     // result code
typedef uint8_t mp_sign;

// Result codes.
constexpr mp_err MP_OK = 0;
constexpr mp_err MP_FALSE = -1;
constexpr mp_err MP_NOMEM = -2;
constexpr mp_err MP_OUT_OF_RANGE = -3;
constexpr mp_err MP_BAD_INPUT = -4;
constexpr mp_err MP_UNDEFINED = -5;

// Signs and comparison results.
constexpr mp_sign MP_PLUS = 0;
constexpr mp_sign MP_MINUS = 1;
constexpr int MP_LESS = -1;
constexpr int MP_EQUAL = 0;
constexpr int MP_GREATER = 1;

struct mp_int {
    mp_sign sign;      // MP_PLUS (zero or positive) or MP_MINUS
    uint32_t alloc;    // digits in the array
    uint32_t used;     // significant digits, >= 1 once initialised
    mp_digit *digits;  // owned, least significant first; digits[used..alloc) are zero
};

// Default precision in digits: the size of a fresh integer and the quantum to
// which every growth is rounded (1024 bits).
constexpr uint32_t s_mp_defprec = 64;

// Lifecycle.  A failed initialisation leaves the record as it was.
mp_err mp_init(mp_int *mp);                       // s_mp_defprec zeroed digits, value 0
mp_err mp_init_size(mp_int *mp, uint32_t prec);   // prec zeroed digits, value 0
mp_err mp_init_copy(mp_int *mp, const mp_int *from);  // exactly from->used digits
mp_err mp_copy(const mp_int *from, mp_int *to);   // source first
void mp_zero(mp_int *mp);                         // value 0; null ignored
void mp_set(mp_int *mp, mp_digit d);              // value d; null ignored
void mp_clear(mp_int *mp);                        // wipe and free; null or twice harmless

// Big-endian byte strings (magnitude only).
// Reading sizes the array from len (at least ceil(len / 2) digits, rounded up
// to s_mp_defprec) and does not branch on the bytes, so it may read a
// private exponent.  Out of memory: MP_NOMEM, mp holding as many leading
// bytes as fit in its array.
mp_err mp_read_unsigned_bin(mp_int *mp, const uint8_t *str, int32_t len);
int32_t mp_unsigned_bin_size(const mp_int *mp);   // zero has size 1
mp_err mp_to_unsigned_bin(const mp_int *mp, uint8_t *str);  // writes mp_unsigned_bin_size bytes

// Signed comparison: MP_LESS, MP_EQUAL or MP_GREATER.
int mp_cmp(const mp_int *a, const mp_int *b);

// Signed arithmetic.  Any of the records may be the same.
mp_err mp_add(const mp_int *a, const mp_int *b, mp_int *c);  // c = a + b
mp_err mp_sub(const mp_int *a, const mp_int *b, mp_int *c);  // c = a - b
// Truncating division: q rounds towards zero, r has a's sign; q or r may be null.
mp_err mp_div(const mp_int *a, const mp_int *b, mp_int *q, mp_int *r);
mp_err mp_mod(const mp_int *a, const mp_int *m, mp_int *c);  // 0 <= c < m
// c = a^b mod m; c may be a, b or m, and is written only on success.  Odd
// m > 1: fixed 5-bit windows in Montgomery form, constant time in the
// exponent: the work, the branches and the memory touched depend on the
// sizes of a and m and on b's alloc, never on b's digits or used count (a
// and m are treated as public).  Even m and m = 1: right-to-left binary walk
// with Barrett reduction, whose steps follow b's bits.
mp_err mp_exptmod(const mp_int *a, const mp_int *b, const mp_int *m, mp_int *c);

const char *mp_strerror(mp_err ec);

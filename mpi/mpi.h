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

// The declarations below are filled in by the big-integer module.

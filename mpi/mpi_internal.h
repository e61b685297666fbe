// Module-internal routines of the big-integer arithmetic, exposed for the
// module's own tests.
#pragma once

#include "mpi.h"

// Record helpers.
mp_err s_mp_grow(mp_int *mp, uint32_t min);  // alloc rounded up to s_mp_defprec
void s_mp_clamp(mp_int *mp);
void s_mp_exch(mp_int *a, mp_int *b);        // swap the records' contents
int s_mp_cmp(const mp_int *a, const mp_int *b);  // magnitudes

// Magnitude arithmetic in place on the first argument.
mp_err s_mp_add(mp_int *a, const mp_int *b);
mp_err s_mp_sub(mp_int *a, const mp_int *b);   // MP_OUT_OF_RANGE if |a| < |b|
mp_err s_mp_mul(mp_int *a, const mp_int *b);   // fresh array of a.used + b.used digits
mp_err s_mp_sqr(mp_int *a);                    // fresh array of 2 * a.used digits
mp_err s_mp_mul_d(mp_int *a, mp_digit d);
mp_err s_mp_add_d(mp_int *a, mp_digit d);
mp_err s_mp_lshd(mp_int *a, uint32_t p);       // no clamp
void s_mp_rshd(mp_int *a, uint32_t p);
mp_err s_mp_mul_2d(mp_int *a, mp_digit d);
void s_mp_mod_2d(mp_int *a, mp_digit d);
void s_mp_div_2d(mp_int *a, mp_digit d);

// Division and reduction.
int s_mp_ispow2(const mp_int *v);              // k when v = 2^k, else -1
// Shifts a and b left so that b's top digit has its high bit set; returns
// the shift (0..15), or MP_NOMEM when a could not grow.
int s_mp_norm(mp_int *a, mp_int *b);
mp_err s_mp_div(mp_int *a, mp_int *b);         // a = |a| / |b|, b = |a| mod |b|
mp_err s_mp_reduce(mp_int *x, const mp_int *m, const mp_int *mu);  // Barrett

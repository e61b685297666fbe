// SHA-256 with a caller-owned running state.
//
// Result codes are numbered per function (the same fault carries different
// numbers in different calls); the tables below are the contract.
#pragma once

#include <cstdint>

// Running state of one digest computation. Owned by the caller, usually a
// local variable; the module never allocates.
struct sha256_ctx {
    uint64_t length_bits;  // message bits already compressed into state
    uint32_t state[8];     // chaining value H0..H7
    uint32_t fill;         // bytes waiting in buffer (0..63 between calls)
    uint8_t buffer[64];    // partial block
};

// Starts a computation: length_bits = 0, fill = 0, state = initial value.
// buffer is left untouched.  Returns 0, or -1 for a null ctx.
int sha256_init(sha256_ctx *ctx);

// Absorbs len bytes from in (read only, may be any length).  Whole blocks
// are compressed straight from the caller's memory while the buffer is empty.
// Returns 0; -1 null ctx; -2 null in (even with len 0); -3 fill > 64.
int sha256_process(sha256_ctx *ctx, const uint8_t *in, uint32_t len);

// Pads, compresses and writes the 32-byte digest to out.  The context is not
// reset; call sha256_init to hash again.
// Returns 0; -2 null ctx; -3 null out; -4 fill >= 64.
int sha256_done(sha256_ctx *ctx, uint8_t *out);

// One-shot digest of len bytes at in into out[32], using a stack context.
// Returns 0, or the code of sha256_process / sha256_done (-2 null in,
// -3 null out).
int sha256(const uint8_t *in, uint32_t len, uint8_t *out);

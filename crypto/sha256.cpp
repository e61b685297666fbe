// SHA-256 with a caller-owned running state.
//
// Whole blocks are compressed straight from the caller's memory whenever the
// buffer is empty, so hashing a large image is one pass without copying; only
// head and tail fragments go through ctx->buffer.

#include "sha256.h"

#include <cstring>

namespace {

constexpr uint32_t kInitialState[8] = {
    0x6a09e667u, 0xbb67ae85u, 0x3c6ef372u, 0xa54ff53au,
    0x510e527fu, 0x9b05688cu, 0x1f83d9abu, 0x5be0cd19u,
};

// Big-endian word from four bytes; independent of the host's byte order
// (compilers turn this into a single load and byte swap).
inline uint32_t load_be32(const uint8_t *p)
{
    return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | (uint32_t)p[3];
}

inline void store_be32(uint8_t *p, uint32_t v)
{
    p[0] = (uint8_t)(v >> 24);
    p[1] = (uint8_t)(v >> 16);
    p[2] = (uint8_t)(v >> 8);
    p[3] = (uint8_t)v;
}

constexpr uint32_t rotr(uint32_t x, unsigned n) { return (x >> n) | (x << (32 - n)); }

constexpr uint32_t Ch(uint32_t x, uint32_t y, uint32_t z) { return z ^ (x & (y ^ z)); }
constexpr uint32_t Maj(uint32_t x, uint32_t y, uint32_t z) { return (x & y) | (z & (x | y)); }
constexpr uint32_t Sigma0(uint32_t x) { return rotr(x, 2) ^ rotr(x, 13) ^ rotr(x, 22); }
constexpr uint32_t Sigma1(uint32_t x) { return rotr(x, 6) ^ rotr(x, 11) ^ rotr(x, 25); }
constexpr uint32_t sigma0(uint32_t x) { return rotr(x, 7) ^ rotr(x, 18) ^ (x >> 3); }
constexpr uint32_t sigma1(uint32_t x) { return rotr(x, 17) ^ rotr(x, 19) ^ (x >> 10); }

// Applies the compression function to ctx->state with one 64-byte block.
// Always returns 0; callers still pass the result on, so a future check here
// needs no change to them.
int sha256_compress(sha256_ctx *ctx, const uint8_t *block)
{
    uint32_t W[64];
    uint32_t a = ctx->state[0], b = ctx->state[1], c = ctx->state[2], d = ctx->state[3];
    uint32_t e = ctx->state[4], f = ctx->state[5], g = ctx->state[6], h = ctx->state[7];

    for (int i = 0; i < 16; i++) W[i] = load_be32(block + 4 * i);
    for (int i = 16; i < 64; i++)
        W[i] = sigma1(W[i - 2]) + W[i - 7] + sigma0(W[i - 15]) + W[i - 16];

    // One round; instead of shifting the eight working variables, the callers
    // rotate the argument names, so only d and h are written.
#define SHA256_ROUND(a, b, c, d, e, f, g, h, i, k)                 \
    do {                                                           \
        uint32_t t1 = h + Sigma1(e) + Ch(e, f, g) + (k) + W[i];    \
        uint32_t t2 = Sigma0(a) + Maj(a, b, c);                    \
        d += t1;                                                   \
        h = t1 + t2;                                               \
    } while (0)

#define SHA256_8ROUNDS(i, k0, k1, k2, k3, k4, k5, k6, k7)          \
    SHA256_ROUND(a, b, c, d, e, f, g, h, (i) + 0, k0);             \
    SHA256_ROUND(h, a, b, c, d, e, f, g, (i) + 1, k1);             \
    SHA256_ROUND(g, h, a, b, c, d, e, f, (i) + 2, k2);             \
    SHA256_ROUND(f, g, h, a, b, c, d, e, (i) + 3, k3);             \
    SHA256_ROUND(e, f, g, h, a, b, c, d, (i) + 4, k4);             \
    SHA256_ROUND(d, e, f, g, h, a, b, c, (i) + 5, k5);             \
    SHA256_ROUND(c, d, e, f, g, h, a, b, (i) + 6, k6);             \
    SHA256_ROUND(b, c, d, e, f, g, h, a, (i) + 7, k7)

    SHA256_8ROUNDS(0, 0x428a2f98u, 0x71374491u, 0xb5c0fbcfu, 0xe9b5dba5u,
                      0x3956c25bu, 0x59f111f1u, 0x923f82a4u, 0xab1c5ed5u);
    SHA256_8ROUNDS(8, 0xd807aa98u, 0x12835b01u, 0x243185beu, 0x550c7dc3u,
                      0x72be5d74u, 0x80deb1feu, 0x9bdc06a7u, 0xc19bf174u);
    SHA256_8ROUNDS(16, 0xe49b69c1u, 0xefbe4786u, 0x0fc19dc6u, 0x240ca1ccu,
                       0x2de92c6fu, 0x4a7484aau, 0x5cb0a9dcu, 0x76f988dau);
    SHA256_8ROUNDS(24, 0x983e5152u, 0xa831c66du, 0xb00327c8u, 0xbf597fc7u,
                       0xc6e00bf3u, 0xd5a79147u, 0x06ca6351u, 0x14292967u);
    SHA256_8ROUNDS(32, 0x27b70a85u, 0x2e1b2138u, 0x4d2c6dfcu, 0x53380d13u,
                       0x650a7354u, 0x766a0abbu, 0x81c2c92eu, 0x92722c85u);
    SHA256_8ROUNDS(40, 0xa2bfe8a1u, 0xa81a664bu, 0xc24b8b70u, 0xc76c51a3u,
                       0xd192e819u, 0xd6990624u, 0xf40e3585u, 0x106aa070u);
    SHA256_8ROUNDS(48, 0x19a4c116u, 0x1e376c08u, 0x2748774cu, 0x34b0bcb5u,
                       0x391c0cb3u, 0x4ed8aa4au, 0x5b9cca4fu, 0x682e6ff3u);
    SHA256_8ROUNDS(56, 0x748f82eeu, 0x78a5636fu, 0x84c87814u, 0x8cc70208u,
                       0x90befffau, 0xa4506cebu, 0xbef9a3f7u, 0xc67178f2u);

#undef SHA256_8ROUNDS
#undef SHA256_ROUND

    ctx->state[0] += a;
    ctx->state[1] += b;
    ctx->state[2] += c;
    ctx->state[3] += d;
    ctx->state[4] += e;
    ctx->state[5] += f;
    ctx->state[6] += g;
    ctx->state[7] += h;
    return 0;
}

}  // namespace

int sha256_init(sha256_ctx *ctx)
{
    if (ctx == nullptr) return -1;
    ctx->length_bits = 0;
    ctx->fill = 0;
    memcpy(ctx->state, kInitialState, sizeof ctx->state);
    return 0;
}

int sha256_process(sha256_ctx *ctx, const uint8_t *in, uint32_t len)
{
    if (ctx == nullptr) return -1;
    if (in == nullptr) return -2;
    // A fill of exactly 64 passes here (the loop compresses it first);
    // sha256_done is stricter.
    if (ctx->fill > 64) return -3;

    while (len > 0) {
        if (ctx->fill == 0 && len >= 64) {
            int err = sha256_compress(ctx, in);
            if (err != 0) return err;
            ctx->length_bits += 512;
            in += 64;
            len -= 64;
        } else {
            uint32_t n = 64 - ctx->fill;
            if (n > len) n = len;
            memcpy(ctx->buffer + ctx->fill, in, n);
            ctx->fill += n;
            in += n;
            len -= n;
            if (ctx->fill == 64) {
                int err = sha256_compress(ctx, ctx->buffer);
                if (err != 0) return err;
                ctx->length_bits += 512;
                ctx->fill = 0;
            }
        }
    }
    return 0;
}

int sha256_done(sha256_ctx *ctx, uint8_t *out)
{
    if (ctx == nullptr) return -2;
    if (out == nullptr) return -3;
    if (ctx->fill >= 64) return -4;

    ctx->length_bits += (uint64_t)ctx->fill * 8;
    ctx->buffer[ctx->fill++] = 0x80;

    // No room for the 8-byte length in this block: pad it out and start a
    // second one.
    if (ctx->fill > 56) {
        memset(ctx->buffer + ctx->fill, 0, 64 - ctx->fill);
        sha256_compress(ctx, ctx->buffer);
        ctx->fill = 0;
    }
    memset(ctx->buffer + ctx->fill, 0, 56 - ctx->fill);
    ctx->fill = 56;

    for (int i = 0; i < 8; i++) ctx->buffer[56 + i] = (uint8_t)(ctx->length_bits >> (56 - 8 * i));
    sha256_compress(ctx, ctx->buffer);

    for (int i = 0; i < 8; i++) store_be32(out + 4 * i, ctx->state[i]);
    return 0;
}

int sha256(const uint8_t *in, uint32_t len, uint8_t *out)
{
    sha256_ctx ctx;
    memset(&ctx, 0, sizeof ctx);
    memcpy(ctx.state, kInitialState, sizeof ctx.state);

    int err = sha256_process(&ctx, in, len);
    if (err != 0) return err;
    return sha256_done(&ctx, out);
}

// SHA-256 with a caller-owned running state.
//
// Whole blocks are compressed straight from the caller's memory whenever the
// buffer is empty, so hashing a large image is one pass without copying; only
// head and tail fragments go through ctx->buffer.
//
// Two compression paths: the SHA instructions of processors that have them
// (the SHA extensions on x86-64, the Cryptography Extensions' SHA2 on
// AArch64; see cpu_features.h), which take all the whole blocks of a call at
// once, and the unrolled portable code everywhere else.  The choice is made
// per call in sha256_compress_blocks; the state is the same either way.

#include "sha256.h"

#include <cstddef>
#include <cstring>

#include "cpu_features_internal.h"

#if defined(CRYPTO_HW_X86_64)
#include <immintrin.h>
#elif defined(CRYPTO_HW_AARCH64)
#include <arm_neon.h>
#endif

namespace {

constexpr uint32_t kInitialState[8] = {
    0x6a09e667u, 0xbb67ae85u, 0x3c6ef372u, 0xa54ff53au,
    0x510e527fu, 0x9b05688cu, 0x1f83d9abu, 0x5be0cd19u,
};

// Round constants; aligned for the 16-byte loads of the instruction path.
alignas(16) constexpr uint32_t kK[64] = {
    0x428a2f98u, 0x71374491u, 0xb5c0fbcfu, 0xe9b5dba5u,
    0x3956c25bu, 0x59f111f1u, 0x923f82a4u, 0xab1c5ed5u,
    0xd807aa98u, 0x12835b01u, 0x243185beu, 0x550c7dc3u,
    0x72be5d74u, 0x80deb1feu, 0x9bdc06a7u, 0xc19bf174u,
    0xe49b69c1u, 0xefbe4786u, 0x0fc19dc6u, 0x240ca1ccu,
    0x2de92c6fu, 0x4a7484aau, 0x5cb0a9dcu, 0x76f988dau,
    0x983e5152u, 0xa831c66du, 0xb00327c8u, 0xbf597fc7u,
    0xc6e00bf3u, 0xd5a79147u, 0x06ca6351u, 0x14292967u,
    0x27b70a85u, 0x2e1b2138u, 0x4d2c6dfcu, 0x53380d13u,
    0x650a7354u, 0x766a0abbu, 0x81c2c92eu, 0x92722c85u,
    0xa2bfe8a1u, 0xa81a664bu, 0xc24b8b70u, 0xc76c51a3u,
    0xd192e819u, 0xd6990624u, 0xf40e3585u, 0x106aa070u,
    0x19a4c116u, 0x1e376c08u, 0x2748774cu, 0x34b0bcb5u,
    0x391c0cb3u, 0x4ed8aa4au, 0x5b9cca4fu, 0x682e6ff3u,
    0x748f82eeu, 0x78a5636fu, 0x84c87814u, 0x8cc70208u,
    0x90befffau, 0xa4506cebu, 0xbef9a3f7u, 0xc67178f2u,
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
#define SHA256_ROUND(a, b, c, d, e, f, g, h, i)                    \
    do {                                                           \
        uint32_t t1 = h + Sigma1(e) + Ch(e, f, g) + kK[i] + W[i];  \
        uint32_t t2 = Sigma0(a) + Maj(a, b, c);                    \
        d += t1;                                                   \
        h = t1 + t2;                                               \
    } while (0)

#define SHA256_8ROUNDS(i)                                          \
    SHA256_ROUND(a, b, c, d, e, f, g, h, (i) + 0);                 \
    SHA256_ROUND(h, a, b, c, d, e, f, g, (i) + 1);                 \
    SHA256_ROUND(g, h, a, b, c, d, e, f, (i) + 2);                 \
    SHA256_ROUND(f, g, h, a, b, c, d, e, (i) + 3);                 \
    SHA256_ROUND(e, f, g, h, a, b, c, d, (i) + 4);                 \
    SHA256_ROUND(d, e, f, g, h, a, b, c, (i) + 5);                 \
    SHA256_ROUND(c, d, e, f, g, h, a, b, (i) + 6);                 \
    SHA256_ROUND(b, c, d, e, f, g, h, a, (i) + 7)

    SHA256_8ROUNDS(0);
    SHA256_8ROUNDS(8);
    SHA256_8ROUNDS(16);
    SHA256_8ROUNDS(24);
    SHA256_8ROUNDS(32);
    SHA256_8ROUNDS(40);
    SHA256_8ROUNDS(48);
    SHA256_8ROUNDS(56);

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

#if defined(CRYPTO_HW_X86_64)
#define SHA256_HW_PATH 1

// The compression function on the SHA extensions for n consecutive blocks.
// SHA256RNDS2 does two rounds on the working variables held as two vectors,
// (A, B, E, F) and (C, D, G, H) from the top word down; SHA256MSG1/MSG2
// extend the message schedule four words at a time.  Compiled for those
// instructions (and the SSSE3/SSE4.1 shuffles) function by function.
__attribute__((target("sha,sse4.1,ssse3"))) void sha256_compress_hw(uint32_t state[8],
                                                                    const uint8_t *blocks, size_t n)
{
    // Byte order within each 32-bit word reversed: message words are big-endian.
    const __m128i bswap = _mm_set_epi64x(0x0c0d0e0f08090a0bLL, 0x0405060700010203LL);

    // state[0..7] = a..h into (A, B, E, F) and (C, D, G, H).
    __m128i abcd = _mm_loadu_si128(reinterpret_cast<const __m128i *>(state));
    __m128i efgh = _mm_loadu_si128(reinterpret_cast<const __m128i *>(state + 4));
    abcd = _mm_shuffle_epi32(abcd, 0xb1);                  // (C, D, A, B)
    efgh = _mm_shuffle_epi32(efgh, 0x1b);                  // (E, F, G, H)
    __m128i abef = _mm_alignr_epi8(abcd, efgh, 8);         // (A, B, E, F)
    __m128i cdgh = _mm_blend_epi16(efgh, abcd, 0xf0);      // (C, D, G, H)

    for (; n > 0; n--, blocks += 64) {
        const __m128i abef_in = abef, cdgh_in = cdgh;
        const __m128i *w = reinterpret_cast<const __m128i *>(blocks);
        __m128i m0 = _mm_shuffle_epi8(_mm_loadu_si128(w), bswap);
        __m128i m1 = _mm_shuffle_epi8(_mm_loadu_si128(w + 1), bswap);
        __m128i m2 = _mm_shuffle_epi8(_mm_loadu_si128(w + 2), bswap);
        __m128i m3 = _mm_shuffle_epi8(_mm_loadu_si128(w + 3), bswap);
        __m128i wk;

        // Rounds i..i+3 with schedule words m: two SHA256RNDS2, the second
        // taking the upper two words.  After two rounds (C, D, G, H) is the
        // old (A, B, E, F), so each call writes the vector the next one
        // reads as (C, D, G, H).
#define SHA_NI_4ROUNDS(m, i)                                                    \
    wk = _mm_add_epi32(m, _mm_load_si128(reinterpret_cast<const __m128i *>(kK) + (i) / 4)); \
    cdgh = _mm_sha256rnds2_epu32(cdgh, abef, wk);                               \
    abef = _mm_sha256rnds2_epu32(abef, cdgh, _mm_shuffle_epi32(wk, 0x0e))
        // W[t..t+3] from the previous sixteen words held in m0 (oldest) .. m3.
#define SHA_NI_EXTEND(m0, m1, m2, m3)                                            \
    m0 = _mm_sha256msg2_epu32(                                                   \
        _mm_add_epi32(_mm_sha256msg1_epu32(m0, m1), _mm_alignr_epi8(m3, m2, 4)), m3)

        SHA_NI_4ROUNDS(m0, 0);
        SHA_NI_4ROUNDS(m1, 4);
        SHA_NI_4ROUNDS(m2, 8);
        SHA_NI_4ROUNDS(m3, 12);
        for (int i = 16; i < 64; i += 16) {
            SHA_NI_EXTEND(m0, m1, m2, m3);
            SHA_NI_4ROUNDS(m0, i);
            SHA_NI_EXTEND(m1, m2, m3, m0);
            SHA_NI_4ROUNDS(m1, i + 4);
            SHA_NI_EXTEND(m2, m3, m0, m1);
            SHA_NI_4ROUNDS(m2, i + 8);
            SHA_NI_EXTEND(m3, m0, m1, m2);
            SHA_NI_4ROUNDS(m3, i + 12);
        }
#undef SHA_NI_EXTEND
#undef SHA_NI_4ROUNDS
        abef = _mm_add_epi32(abef, abef_in);
        cdgh = _mm_add_epi32(cdgh, cdgh_in);
    }

    // Back to a..h.
    abef = _mm_shuffle_epi32(abef, 0x1b);                  // (F, E, B, A)
    cdgh = _mm_shuffle_epi32(cdgh, 0xb1);                  // (D, C, H, G)
    abcd = _mm_blend_epi16(abef, cdgh, 0xf0);              // (D, C, B, A)
    efgh = _mm_alignr_epi8(cdgh, abef, 8);                 // (H, G, F, E)
    _mm_storeu_si128(reinterpret_cast<__m128i *>(state), abcd);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(state + 4), efgh);
}

#elif defined(CRYPTO_HW_AARCH64)
#define SHA256_HW_PATH 1

// GCC's arm_neon.h offers the SHA-256 intrinsics to functions compiled with
// +crypto (which also enables AES; only SHA2 instructions are used here).
#if defined(__clang__)
#define SHA256_ARM_FN __attribute__((target("sha2")))
#else
#define SHA256_ARM_FN __attribute__((target("+crypto")))
#endif

// The compression function on the SHA2 instructions of the Cryptography
// Extensions for n consecutive blocks.  SHA256H and SHA256H2 do four rounds
// on the working variables held as (A, B, C, D) and (E, F, G, H), lane 0
// first, which is the order of state[], so no shuffling is needed: SHA256H
// gives the new (A, B, C, D), SHA256H2 the new (E, F, G, H) from the old
// (A, B, C, D).  SHA256SU0/SU1 extend the message schedule four words at a
// time.  Compiled for those instructions function by function.
SHA256_ARM_FN void sha256_compress_hw(uint32_t state[8], const uint8_t *blocks, size_t n)
{
    uint32x4_t abcd = vld1q_u32(state), efgh = vld1q_u32(state + 4);

    for (; n > 0; n--, blocks += 64) {
        const uint32x4_t abcd_in = abcd, efgh_in = efgh;
        // Byte order within each 32-bit word reversed: message words are big-endian.
        uint32x4_t m0 = vreinterpretq_u32_u8(vrev32q_u8(vld1q_u8(blocks)));
        uint32x4_t m1 = vreinterpretq_u32_u8(vrev32q_u8(vld1q_u8(blocks + 16)));
        uint32x4_t m2 = vreinterpretq_u32_u8(vrev32q_u8(vld1q_u8(blocks + 32)));
        uint32x4_t m3 = vreinterpretq_u32_u8(vrev32q_u8(vld1q_u8(blocks + 48)));
        uint32x4_t wk, abcd_prev;

        // Rounds i..i+3 with schedule words m.
#define SHA_ARM_4ROUNDS(m, i)                          \
    wk = vaddq_u32(m, vld1q_u32(kK + (i)));            \
    abcd_prev = abcd;                                  \
    abcd = vsha256hq_u32(abcd, efgh, wk);              \
    efgh = vsha256h2q_u32(efgh, abcd_prev, wk)
        // W[t..t+3] from the previous sixteen words held in m0 (oldest) .. m3.
#define SHA_ARM_EXTEND(m0, m1, m2, m3) m0 = vsha256su1q_u32(vsha256su0q_u32(m0, m1), m2, m3)

        SHA_ARM_4ROUNDS(m0, 0);
        SHA_ARM_4ROUNDS(m1, 4);
        SHA_ARM_4ROUNDS(m2, 8);
        SHA_ARM_4ROUNDS(m3, 12);
        for (int i = 16; i < 64; i += 16) {
            SHA_ARM_EXTEND(m0, m1, m2, m3);
            SHA_ARM_4ROUNDS(m0, i);
            SHA_ARM_EXTEND(m1, m2, m3, m0);
            SHA_ARM_4ROUNDS(m1, i + 4);
            SHA_ARM_EXTEND(m2, m3, m0, m1);
            SHA_ARM_4ROUNDS(m2, i + 8);
            SHA_ARM_EXTEND(m3, m0, m1, m2);
            SHA_ARM_4ROUNDS(m3, i + 12);
        }
#undef SHA_ARM_EXTEND
#undef SHA_ARM_4ROUNDS
        abcd = vaddq_u32(abcd, abcd_in);
        efgh = vaddq_u32(efgh, efgh_in);
    }

    vst1q_u32(state, abcd);
    vst1q_u32(state + 4, efgh);
}

#undef SHA256_ARM_FN

#endif

// Compresses n consecutive 64-byte blocks into ctx->state, all in one call
// on the instruction path, one sha256_compress each otherwise.  Returns the
// first non-zero result of a compression step (there is none today), else 0.
int sha256_compress_blocks(sha256_ctx *ctx, const uint8_t *blocks, size_t n)
{
#if defined(SHA256_HW_PATH)
    if (crypto_sha256_accelerated()) {
        sha256_compress_hw(ctx->state, blocks, n);
        return 0;
    }
#endif
    for (; n > 0; n--, blocks += 64) {
        int err = sha256_compress(ctx, blocks);
        if (err != 0) return err;
    }
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
            // Every whole block left, straight from the caller's memory.
            const uint32_t n = len / 64;
            int err = sha256_compress_blocks(ctx, in, n);
            if (err != 0) return err;
            ctx->length_bits += uint64_t(n) * 512;
            in += 64 * n;
            len -= 64 * n;
        } else {
            uint32_t n = 64 - ctx->fill;
            if (n > len) n = len;
            memcpy(ctx->buffer + ctx->fill, in, n);
            ctx->fill += n;
            in += n;
            len -= n;
            if (ctx->fill == 64) {
                int err = sha256_compress_blocks(ctx, ctx->buffer, 1);
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
        sha256_compress_blocks(ctx, ctx->buffer, 1);
        ctx->fill = 0;
    }
    memset(ctx->buffer + ctx->fill, 0, 56 - ctx->fill);
    ctx->fill = 56;

    for (int i = 0; i < 8; i++) ctx->buffer[56 + i] = (uint8_t)(ctx->length_bits >> (56 - 8 * i));
    sha256_compress_blocks(ctx, ctx->buffer, 1);

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

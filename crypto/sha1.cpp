#include "sha1.h"

#include <cstring>

namespace {

constexpr uint32_t rol(uint32_t x, int n) { return x << n | x >> (32 - n); }

void vCompress(uint32_t h[5], const uint8_t block[64])
{
    uint32_t w[80];
    for (int t = 0; t < 16; t++)
        w[t] = uint32_t(block[4 * t]) << 24 | uint32_t(block[4 * t + 1]) << 16 | uint32_t(block[4 * t + 2]) << 8 |
               block[4 * t + 3];
    for (int t = 16; t < 80; t++) w[t] = rol(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
    for (int t = 0; t < 80; t++) {
        uint32_t f, k;
        if (t < 20) {
            f = (b & c) | (~b & d);
            k = 0x5a827999u;
        } else if (t < 40) {
            f = b ^ c ^ d;
            k = 0x6ed9eba1u;
        } else if (t < 60) {
            f = (b & c) | (b & d) | (c & d);
            k = 0x8f1bbcdcu;
        } else {
            f = b ^ c ^ d;
            k = 0xca62c1d6u;
        }
        const uint32_t tmp = rol(a, 5) + f + e + k + w[t];
        e = d;
        d = c;
        c = rol(b, 30);
        b = a;
        a = tmp;
    }
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
    h[4] += e;
}

}  // namespace

void sha1(const uint8_t *in, size_t len, uint8_t out[20])
{
    uint32_t h[5] = {0x67452301u, 0xefcdab89u, 0x98badcfeu, 0x10325476u, 0xc3d2e1f0u};
    size_t off = 0;
    for (; len - off >= 64; off += 64) vCompress(h, in + off);
    // The tail, the 0x80 marker and the 64-bit bit count fill one or two last blocks.
    uint8_t tail[128] = {};
    const size_t rest = len - off;
    if (rest > 0) memcpy(tail, in + off, rest);
    tail[rest] = 0x80;
    const size_t blocks = rest < 56 ? 1 : 2;
    const uint64_t bits = uint64_t(len) * 8;
    for (int i = 0; i < 8; i++) tail[64 * blocks - 1 - i] = uint8_t(bits >> (8 * i));
    for (size_t b = 0; b < blocks; b++) vCompress(h, tail + 64 * b);
    for (int i = 0; i < 20; i++) out[i] = uint8_t(h[i / 4] >> (24 - 8 * (i % 4)));
}

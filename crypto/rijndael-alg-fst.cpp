// AES in the 32-bit table-driven form (128/192/256-bit keys), the AES-128
// single-block, CBC and CTR operations, and the predefined-key data
// encryption.
//
// The ten look-up tables are computed by the compiler from the S-box
// definition (inverse in GF(2^8), then the affine map), so they are constant
// data in the binary with no start-up initialisation and no literal tables to
// mistype.
//
// Two paths for the AES-128 operations: on processors with AES instructions
// (AES-NI on x86-64, the Cryptography Extensions on AArch64; see
// cpu_features.h) they run on those, with the key schedule expanded once per
// call and kept in vector registers; everywhere else they run on the tables,
// rebuilding the schedule for every block.  Each public AES-128 function
// makes the choice on entry.  Both paths wipe their round keys and temporary
// blocks before returning.

#include "rijndael-alg-fst.h"

#include <array>
#include <cstddef>
#include <cstring>

#include "cpu_features_internal.h"

#if defined(CRYPTO_HW_X86_64)
#include <immintrin.h>
#elif defined(CRYPTO_HW_AARCH64)
#include <arm_neon.h>
#endif

namespace {

// ---------------------------------------------------------------------------
// Compile-time tables

using Table = std::array<uint32_t, 256>;

constexpr uint8_t xtime(uint8_t a) { return uint8_t((a << 1) ^ ((a & 0x80) ? 0x1b : 0x00)); }

// Multiplication in GF(2^8) modulo x^8 + x^4 + x^3 + x + 1.
constexpr uint8_t gmul(uint8_t a, uint8_t b)
{
    uint8_t r = 0;
    while (b != 0) {
        if (b & 1) r ^= a;
        a = xtime(a);
        b >>= 1;
    }
    return r;
}

// Multiplicative inverse as a^254 (maps 0 to 0, as the S-box definition wants).
constexpr uint8_t ginv(uint8_t a)
{
    uint8_t result = 1, base = a;
    for (unsigned e = 254; e != 0; e >>= 1) {
        if (e & 1) result = gmul(result, base);
        base = gmul(base, base);
    }
    return result;
}

constexpr uint8_t rotl8(uint8_t x, unsigned n) { return uint8_t((x << n) | (x >> (8 - n))); }

constexpr std::array<uint8_t, 256> make_sbox()
{
    std::array<uint8_t, 256> s{};
    for (unsigned x = 0; x < 256; x++) {
        uint8_t b = ginv(uint8_t(x));
        s[x] = uint8_t(b ^ rotl8(b, 1) ^ rotl8(b, 2) ^ rotl8(b, 3) ^ rotl8(b, 4) ^ 0x63);
    }
    return s;
}

constexpr std::array<uint8_t, 256> kS = make_sbox();

constexpr std::array<uint8_t, 256> make_inv_sbox()
{
    std::array<uint8_t, 256> si{};
    for (unsigned x = 0; x < 256; x++) si[kS[x]] = uint8_t(x);
    return si;
}

constexpr std::array<uint8_t, 256> kSi = make_inv_sbox();

constexpr uint32_t word(uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3)
{
    return uint32_t(b0) << 24 | uint32_t(b1) << 16 | uint32_t(b2) << 8 | uint32_t(b3);
}

constexpr uint32_t rotr32(uint32_t x, unsigned n) { return n == 0 ? x : (x >> n) | (x << (32 - n)); }

// Column of the forward (02, 01, 01, 03) resp. inverse (0e, 09, 0d, 0b)
// MixColumns matrix applied to S[x] resp. Si[x], rotated right by rot bits.
constexpr Table make_te(unsigned rot)
{
    Table t{};
    for (unsigned x = 0; x < 256; x++) {
        uint8_t s = kS[x];
        t[x] = rotr32(word(gmul(s, 2), s, s, gmul(s, 3)), rot);
    }
    return t;
}

constexpr Table make_td(unsigned rot)
{
    Table t{};
    for (unsigned x = 0; x < 256; x++) {
        uint8_t s = kSi[x];
        t[x] = rotr32(word(gmul(s, 0x0e), gmul(s, 0x09), gmul(s, 0x0d), gmul(s, 0x0b)), rot);
    }
    return t;
}

constexpr Table make_replicated(const std::array<uint8_t, 256> &box)
{
    Table t{};
    for (unsigned x = 0; x < 256; x++) t[x] = word(box[x], box[x], box[x], box[x]);
    return t;
}

// Each direction's five tables sit in one object, so the block functions
// address all of them from one base register (fewer spills in the rounds).
struct EncTables {
    Table Te0, Te1, Te2, Te3, Te4;
};
struct DecTables {
    Table Td0, Td1, Td2, Td3, Td4;
};
constexpr EncTables kEnc = {make_te(0), make_te(8), make_te(16), make_te(24), make_replicated(kS)};
constexpr DecTables kDec = {make_td(0), make_td(8), make_td(16), make_td(24), make_replicated(kSi)};
constexpr const Table &Te0 = kEnc.Te0, &Te1 = kEnc.Te1, &Te2 = kEnc.Te2, &Te3 = kEnc.Te3, &Te4 = kEnc.Te4;
constexpr const Table &Td0 = kDec.Td0, &Td1 = kDec.Td1, &Td2 = kDec.Td2, &Td3 = kDec.Td3, &Td4 = kDec.Td4;

// Anchors from FIPS-197 and the documented first entries: a wrong field
// polynomial or affine constant fails the build, not a test run.
static_assert(kS[0x00] == 0x63 && kS[0x53] == 0xed && kS[0xff] == 0x16);
static_assert(kSi[0x00] == 0x52 && kSi[0xed] == 0x53);
static_assert(Te0[0] == 0xc66363a5u && Te1[0] == 0xa5c66363u && Te3[0] == 0x6363a5c6u);
static_assert(Te4[0] == 0x63636363u);
static_assert(Td0[0] == 0x51f4a750u && Td1[0] == 0x5051f4a7u);
static_assert(Td4[0] == 0x52525252u);

// ---------------------------------------------------------------------------
// Block helpers

inline uint32_t load_be32(const uint8_t *p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}

inline void store_be32(uint8_t *p, uint32_t v)
{
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}

inline void xor_block(uint8_t *dst, const uint8_t *a, const uint8_t *b)
{
    for (int i = 0; i < 16; i++) dst[i] = uint8_t(a[i] ^ b[i]);
}

#define NOINLINE __attribute__((noinline))

// Zero fill that the optimiser cannot drop although the memory dies next:
// the empty asm claims to read it.  For round keys and blocks that held
// key-derived or plain data.
inline void wipe(void *buf, size_t len)
{
    memset(buf, 0, len);
    __asm__ __volatile__("" : : "r"(buf) : "memory");
}

constexpr unsigned B0(uint32_t w) { return w >> 24; }
constexpr unsigned B1(uint32_t w) { return (w >> 16) & 0xff; }
constexpr unsigned B2(uint32_t w) { return (w >> 8) & 0xff; }
constexpr unsigned B3(uint32_t w) { return w & 0xff; }

// SubWord(RotWord(w)): S of bytes 1, 2, 3, 0 of w.
inline uint32_t sub_rot_word(uint32_t w)
{
    return (Te4[B1(w)] & 0xff000000u) | (Te4[B2(w)] & 0x00ff0000u) | (Te4[B3(w)] & 0x0000ff00u) |
           (Te4[B0(w)] & 0x000000ffu);
}

// SubWord(w) without rotation (the extra step of 256-bit keys).
inline uint32_t sub_word(uint32_t w)
{
    return (Te4[B0(w)] & 0xff000000u) | (Te4[B1(w)] & 0x00ff0000u) | (Te4[B2(w)] & 0x0000ff00u) |
           (Te4[B3(w)] & 0x000000ffu);
}

// The 128-bit expansion once words 0..3 are loaded; the ten steps are
// written out with their round constants.  New word k (0..3) of a step is
// old word k XOR new word k-1, i.e. (old words 0..k XORed) XOR f with
// f = SubWord(RotWord(old word 3)) XOR rcon.  Written that way the prefix
// XORs do not wait for the S-box look-up, and the chain from one step to the
// next is one look-up and one XOR; the schedule is rebuilt for every CBC/CTR
// block, so this chain is on the hot path.
inline void expand128(uint32_t *rk)
{
#define AES_STEP128(i, rcon)                                                   \
    do {                                                                       \
        const uint32_t *p = rk + 4 * (i);                                      \
        uint32_t x0 = p[0], x1 = x0 ^ p[1], x2 = x1 ^ p[2], x3 = x2 ^ p[3];    \
        uint32_t f = sub_rot_word(p[3]) ^ (rcon);                              \
        rk[4 * (i) + 4] = x0 ^ f;                                              \
        rk[4 * (i) + 5] = x1 ^ f;                                              \
        rk[4 * (i) + 6] = x2 ^ f;                                              \
        rk[4 * (i) + 7] = x3 ^ f;                                              \
    } while (0)
    AES_STEP128(0, 0x01000000u);
    AES_STEP128(1, 0x02000000u);
    AES_STEP128(2, 0x04000000u);
    AES_STEP128(3, 0x08000000u);
    AES_STEP128(4, 0x10000000u);
    AES_STEP128(5, 0x20000000u);
    AES_STEP128(6, 0x40000000u);
    AES_STEP128(7, 0x80000000u);
    AES_STEP128(8, 0x1b000000u);
    AES_STEP128(9, 0x36000000u);
#undef AES_STEP128
}

inline void expand192(uint32_t *rk)
{
#define AES_STEP192_HEAD(i, rcon)                                              \
    rk[6 * (i) + 6] = rk[6 * (i)] ^ sub_rot_word(rk[6 * (i) + 5]) ^ (rcon);    \
    rk[6 * (i) + 7] = rk[6 * (i) + 1] ^ rk[6 * (i) + 6];                       \
    rk[6 * (i) + 8] = rk[6 * (i) + 2] ^ rk[6 * (i) + 7];                       \
    rk[6 * (i) + 9] = rk[6 * (i) + 3] ^ rk[6 * (i) + 8]
#define AES_STEP192(i, rcon)                                                   \
    AES_STEP192_HEAD(i, rcon);                                                 \
    rk[6 * (i) + 10] = rk[6 * (i) + 4] ^ rk[6 * (i) + 9];                      \
    rk[6 * (i) + 11] = rk[6 * (i) + 5] ^ rk[6 * (i) + 10]
    AES_STEP192(0, 0x01000000u);
    AES_STEP192(1, 0x02000000u);
    AES_STEP192(2, 0x04000000u);
    AES_STEP192(3, 0x08000000u);
    AES_STEP192(4, 0x10000000u);
    AES_STEP192(5, 0x20000000u);
    AES_STEP192(6, 0x40000000u);
    AES_STEP192_HEAD(7, 0x80000000u);  // words 48..51 complete the 52
#undef AES_STEP192
#undef AES_STEP192_HEAD
}

inline void expand256(uint32_t *rk)
{
#define AES_STEP256_HEAD(i, rcon)                                              \
    rk[8 * (i) + 8] = rk[8 * (i)] ^ sub_rot_word(rk[8 * (i) + 7]) ^ (rcon);    \
    rk[8 * (i) + 9] = rk[8 * (i) + 1] ^ rk[8 * (i) + 8];                       \
    rk[8 * (i) + 10] = rk[8 * (i) + 2] ^ rk[8 * (i) + 9];                      \
    rk[8 * (i) + 11] = rk[8 * (i) + 3] ^ rk[8 * (i) + 10]
#define AES_STEP256(i, rcon)                                                   \
    AES_STEP256_HEAD(i, rcon);                                                 \
    rk[8 * (i) + 12] = rk[8 * (i) + 4] ^ sub_word(rk[8 * (i) + 11]);           \
    rk[8 * (i) + 13] = rk[8 * (i) + 5] ^ rk[8 * (i) + 12];                     \
    rk[8 * (i) + 14] = rk[8 * (i) + 6] ^ rk[8 * (i) + 13];                     \
    rk[8 * (i) + 15] = rk[8 * (i) + 7] ^ rk[8 * (i) + 14]
    AES_STEP256(0, 0x01000000u);
    AES_STEP256(1, 0x02000000u);
    AES_STEP256(2, 0x04000000u);
    AES_STEP256(3, 0x08000000u);
    AES_STEP256(4, 0x10000000u);
    AES_STEP256(5, 0x20000000u);
    AES_STEP256_HEAD(6, 0x40000000u);  // words 56..59 complete the 60
#undef AES_STEP256
#undef AES_STEP256_HEAD
}

inline void load_key128(uint32_t *rk, const uint8_t *key)
{
    rk[0] = load_be32(key);
    rk[1] = load_be32(key + 4);
    rk[2] = load_be32(key + 8);
    rk[3] = load_be32(key + 12);
}

// Block encryption, kept inline so the CBC/CTR loops get it without a call.
inline void encrypt_block(const uint32_t *rk, int Nr, const uint8_t *in, uint8_t *out)
{
    uint32_t s0 = load_be32(in) ^ rk[0];
    uint32_t s1 = load_be32(in + 4) ^ rk[1];
    uint32_t s2 = load_be32(in + 8) ^ rk[2];
    uint32_t s3 = load_be32(in + 12) ^ rk[3];
    uint32_t t0, t1, t2, t3;

    // Two rounds per pass; the last pass leaves after its first round and
    // the final round (no MixColumns) follows.
    for (int r = Nr >> 1;;) {
        t0 = Te0[B0(s0)] ^ Te1[B1(s1)] ^ Te2[B2(s2)] ^ Te3[B3(s3)] ^ rk[4];
        t1 = Te0[B0(s1)] ^ Te1[B1(s2)] ^ Te2[B2(s3)] ^ Te3[B3(s0)] ^ rk[5];
        t2 = Te0[B0(s2)] ^ Te1[B1(s3)] ^ Te2[B2(s0)] ^ Te3[B3(s1)] ^ rk[6];
        t3 = Te0[B0(s3)] ^ Te1[B1(s0)] ^ Te2[B2(s1)] ^ Te3[B3(s2)] ^ rk[7];
        rk += 8;
        if (--r == 0) break;
        s0 = Te0[B0(t0)] ^ Te1[B1(t1)] ^ Te2[B2(t2)] ^ Te3[B3(t3)] ^ rk[0];
        s1 = Te0[B0(t1)] ^ Te1[B1(t2)] ^ Te2[B2(t3)] ^ Te3[B3(t0)] ^ rk[1];
        s2 = Te0[B0(t2)] ^ Te1[B1(t3)] ^ Te2[B2(t0)] ^ Te3[B3(t1)] ^ rk[2];
        s3 = Te0[B0(t3)] ^ Te1[B1(t0)] ^ Te2[B2(t1)] ^ Te3[B3(t2)] ^ rk[3];
    }

    s0 = ((Te4[B0(t0)] & 0xff000000u) | (Te4[B1(t1)] & 0x00ff0000u) | (Te4[B2(t2)] & 0x0000ff00u) |
          (Te4[B3(t3)] & 0x000000ffu)) ^ rk[0];
    s1 = ((Te4[B0(t1)] & 0xff000000u) | (Te4[B1(t2)] & 0x00ff0000u) | (Te4[B2(t3)] & 0x0000ff00u) |
          (Te4[B3(t0)] & 0x000000ffu)) ^ rk[1];
    s2 = ((Te4[B0(t2)] & 0xff000000u) | (Te4[B1(t3)] & 0x00ff0000u) | (Te4[B2(t0)] & 0x0000ff00u) |
          (Te4[B3(t1)] & 0x000000ffu)) ^ rk[2];
    s3 = ((Te4[B0(t3)] & 0xff000000u) | (Te4[B1(t0)] & 0x00ff0000u) | (Te4[B2(t1)] & 0x0000ff00u) |
          (Te4[B3(t2)] & 0x000000ffu)) ^ rk[3];
    store_be32(out, s0);
    store_be32(out + 4, s1);
    store_be32(out + 8, s2);
    store_be32(out + 12, s3);
}

inline void decrypt_block(const uint32_t *rk, int Nr, const uint8_t *in, uint8_t *out)
{
    uint32_t s0 = load_be32(in) ^ rk[0];
    uint32_t s1 = load_be32(in + 4) ^ rk[1];
    uint32_t s2 = load_be32(in + 8) ^ rk[2];
    uint32_t s3 = load_be32(in + 12) ^ rk[3];
    uint32_t t0, t1, t2, t3;

    for (int r = Nr >> 1;;) {
        t0 = Td0[B0(s0)] ^ Td1[B1(s3)] ^ Td2[B2(s2)] ^ Td3[B3(s1)] ^ rk[4];
        t1 = Td0[B0(s1)] ^ Td1[B1(s0)] ^ Td2[B2(s3)] ^ Td3[B3(s2)] ^ rk[5];
        t2 = Td0[B0(s2)] ^ Td1[B1(s1)] ^ Td2[B2(s0)] ^ Td3[B3(s3)] ^ rk[6];
        t3 = Td0[B0(s3)] ^ Td1[B1(s2)] ^ Td2[B2(s1)] ^ Td3[B3(s0)] ^ rk[7];
        rk += 8;
        if (--r == 0) break;
        s0 = Td0[B0(t0)] ^ Td1[B1(t3)] ^ Td2[B2(t2)] ^ Td3[B3(t1)] ^ rk[0];
        s1 = Td0[B0(t1)] ^ Td1[B1(t0)] ^ Td2[B2(t3)] ^ Td3[B3(t2)] ^ rk[1];
        s2 = Td0[B0(t2)] ^ Td1[B1(t1)] ^ Td2[B2(t0)] ^ Td3[B3(t3)] ^ rk[2];
        s3 = Td0[B0(t3)] ^ Td1[B1(t2)] ^ Td2[B2(t1)] ^ Td3[B3(t0)] ^ rk[3];
    }

    s0 = ((Td4[B0(t0)] & 0xff000000u) | (Td4[B1(t3)] & 0x00ff0000u) | (Td4[B2(t2)] & 0x0000ff00u) |
          (Td4[B3(t1)] & 0x000000ffu)) ^ rk[0];
    s1 = ((Td4[B0(t1)] & 0xff000000u) | (Td4[B1(t0)] & 0x00ff0000u) | (Td4[B2(t3)] & 0x0000ff00u) |
          (Td4[B3(t2)] & 0x000000ffu)) ^ rk[1];
    s2 = ((Td4[B0(t2)] & 0xff000000u) | (Td4[B1(t1)] & 0x00ff0000u) | (Td4[B2(t0)] & 0x0000ff00u) |
          (Td4[B3(t3)] & 0x000000ffu)) ^ rk[2];
    s3 = ((Td4[B0(t3)] & 0xff000000u) | (Td4[B1(t2)] & 0x00ff0000u) | (Td4[B2(t1)] & 0x0000ff00u) |
          (Td4[B3(t0)] & 0x000000ffu)) ^ rk[3];
    store_be32(out, s0);
    store_be32(out + 4, s1);
    store_be32(out + 8, s2);
    store_be32(out + 12, s3);
}

// Module key and IV of the predefined-key data encryption.
constexpr uint8_t _lcuc_pre_def_key[16] = {0x3c, 0x9f, 0x1a, 0x7e, 0x52, 0xd0, 0x4b, 0x86,
                                           0xe1, 0xa9, 0x07, 0x7c, 0x5f, 0xb2, 0xd4, 0x18};
constexpr uint8_t _lcuc_pre_def_iv[16] = {0xd2, 0x7a, 0x4e, 0x01, 0x93, 0xbc, 0x5f, 0x68,
                                          0xa4, 0xe2, 0x1d, 0x77, 0x30, 0xc9, 0x8b, 0x5e};

// Encrypts one block under the predefined key with a fresh schedule in the
// caller's rk (which the caller wipes).
inline void pre_def_encrypt(uint32_t rk[44], const uint8_t *in, uint8_t *out)
{
    rijndaelKeySetupEnc128(rk, _lcuc_pre_def_key);
    encrypt_block(rk, 10, in, out);
}

// Fragment of fewer than 16 bytes: out = in XOR the encryption of prev,
// where prev is the preceding ciphertext block (or the IV).  The keystream
// block is wiped here, the schedule in rk by the caller.
void mask_fragment(uint32_t rk[44], const uint8_t *prev, const uint8_t *in, uint8_t *out,
                   uint32_t tail)
{
    uint8_t keystream[16];
    memset(keystream, 0, sizeof keystream);
    pre_def_encrypt(rk, prev, keystream);
    for (uint32_t i = 0; i < tail; i++) out[i] = uint8_t(in[i] ^ keystream[i]);
    wipe(keystream, sizeof keystream);
}

// ---------------------------------------------------------------------------
// AES-128 operations on the tables: the reference behaviour, with the key
// schedule rebuilt for every block.  Each wipes its round keys and
// temporary blocks; the public functions below then clear the stack the
// worker used (see wipe_dead_stack).

NOINLINE void table_aes128_enc(const uint8_t key[16], const uint8_t in[16], uint8_t out[16])
{
    uint32_t rk[44];
    int Nr = rijndaelKeySetupEnc128(rk, key);
    encrypt_block(rk, Nr, in, out);
    wipe(rk, sizeof rk);
}

NOINLINE void table_aes128_dec(const uint8_t key[16], const uint8_t in[16], uint8_t out[16])
{
    uint32_t rk[44];
    int Nr = rijndaelKeySetupDec(rk, key, 128);
    decrypt_block(rk, Nr, in, out);
    wipe(rk, sizeof rk);
}

// CBC over len > 0 bytes; a partial last block is processed whole.
NOINLINE void table_cbc_enc(const uint8_t key[16], const uint8_t iv[16], const uint8_t *in,
                            uint8_t *out, int32_t len)
{
    uint32_t rk[44];
    uint8_t tmp[16];
    const uint8_t *chain = iv;  // the caller's IV is only read
    for (int64_t off = 0; off < len; off += 16) {
        xor_block(tmp, in + off, chain);
        int Nr = rijndaelKeySetupEnc128(rk, key);
        encrypt_block(rk, Nr, tmp, out + off);
        chain = out + off;  // not written again in this call
    }
    wipe(rk, sizeof rk);
    wipe(tmp, sizeof tmp);
}

NOINLINE void table_cbc_dec(const uint8_t key[16], const uint8_t iv[16], const uint8_t *in,
                            uint8_t *out, int32_t len)
{
    uint8_t chain[16];
    memcpy(chain, iv, 16);
    uint32_t rk[44];
    uint8_t tmp[16];
    for (int64_t off = 0; off < len; off += 16) {
        int Nr = rijndaelKeySetupDec(rk, key, 128);
        decrypt_block(rk, Nr, in + off, tmp);
        xor_block(tmp, tmp, chain);
        // Save the ciphertext before the output may overwrite it (in place).
        memcpy(chain, in + off, 16);
        memcpy(out + off, tmp, 16);
    }
    wipe(rk, sizeof rk);
    wipe(tmp, sizeof tmp);
}

// uiEncData after its argument checks.
NOINLINE void table_enc_data(const uint8_t *in, uint8_t *out, uint32_t len)
{
    const uint32_t full = len & ~15u, tail = len & 15u;
    uint32_t rk[44];
    uint8_t tmp[16];
    const uint8_t *chain = _lcuc_pre_def_iv;
    for (uint32_t off = 0; off < full; off += 16) {
        xor_block(tmp, in + off, chain);
        pre_def_encrypt(rk, tmp, out + off);
        chain = out + off;
    }
    // The fragment needs the last ciphertext block, so it comes after CBC.
    if (tail != 0) {
        const uint8_t *prev = (len < 16) ? _lcuc_pre_def_iv : out + full - 16;
        mask_fragment(rk, prev, in + full, out + full, tail);
    }
    wipe(rk, sizeof rk);
    wipe(tmp, sizeof tmp);
}

// uiDecData after its argument checks.
NOINLINE void table_dec_data(const uint8_t *in, uint8_t *out, uint32_t len)
{
    const uint32_t full = len & ~15u, tail = len & 15u;
    // Fragment first: in place, the ciphertext block it is keyed on is still
    // intact only before the CBC pass.
    uint32_t rk[44];
    if (tail != 0) {
        const uint8_t *prev = (len < 16) ? _lcuc_pre_def_iv : in + full - 16;
        mask_fragment(rk, prev, in + full, out + full, tail);
    }
    uint8_t chain[16], tmp[16];
    memcpy(chain, _lcuc_pre_def_iv, 16);
    for (uint32_t off = 0; off < full; off += 16) {
        int Nr = rijndaelKeySetupDec(rk, _lcuc_pre_def_key, 128);
        decrypt_block(rk, Nr, in + off, tmp);
        xor_block(tmp, tmp, chain);
        memcpy(chain, in + off, 16);
        memcpy(out + off, tmp, 16);
    }
    wipe(rk, sizeof rk);
    wipe(tmp, sizeof tmp);
}

// vAES128CTR after its argument checks.
NOINLINE void table_ctr(const uint8_t key[16], const uint8_t ctr[16], const uint8_t *in,
                        uint8_t *out, uint32_t len)
{
    const uint32_t full = len & ~15u, tail = len & 15u;
    uint32_t rk[44];
    uint8_t counter[16], keystream[16];
    memcpy(counter, ctr, 16);
    for (uint32_t off = 0; off < full; off += 16) {
        int Nr = rijndaelKeySetupEnc128(rk, key);
        encrypt_block(rk, Nr, counter, keystream);
        xor_block(out + off, in + off, keystream);
        // 128-bit big-endian increment; all 0xff wraps to zero.
        for (int i = 15; i >= 0 && ++counter[i] == 0; i--) {
        }
    }
    if (tail != 0) {
        int Nr = rijndaelKeySetupEnc128(rk, key);
        encrypt_block(rk, Nr, counter, keystream);
        // Reads a whole input block, writes only the tail.
        xor_block(keystream, keystream, in + full);
        memcpy(out + full, keystream, tail);
    }
    wipe(rk, sizeof rk);
    wipe(keystream, sizeof keystream);
}

// Clears the stack just below the caller, where the worker of an AES-128
// operation had its frame: whatever the compiler spilled there (cipher
// state words, round keys) beyond the arrays the worker wiped itself.
// Works because the workers are not inlined: their frames lie below the
// public function's, inside the area cleared here.
NOINLINE void wipe_dead_stack()
{
    uint8_t area[1024];
    wipe(area, sizeof area);
}

// ---------------------------------------------------------------------------
// AES-128 on the processor's AES instructions: AES-NI on x86-64, the
// Cryptography Extensions (AESE/AESD/AESMC/AESIMC) on AArch64.  Each
// architecture provides the same small set of primitives on a 16-byte vector
// type Block: load, store, XOR, the encryption schedule, InvMixColumns of a
// round key, block encryption and decryption, the CBC encryption chain, the
// counter block and the clearing of the vector registers.  The operations
// (hw_*) are written once on top of them, so both architectures wipe the
// same things at the same points.  Everything is compiled for the
// instruction set function by function (HW_AES_FN), so the rest of the
// binary keeps the baseline and runs anywhere; called only after
// crypto_aes_accelerated().  Blocks are loaded straight from memory: both
// instruction sets use the byte order of the standard, so no word
// conversion is needed.

#if defined(CRYPTO_HW_X86_64)

#define HW_AES_FN __attribute__((target("aes")))

using Block = __m128i;

HW_AES_FN inline Block hw_load(const uint8_t *p)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
}

HW_AES_FN inline void hw_store(uint8_t *p, Block x)
{
    _mm_storeu_si128(reinterpret_cast<__m128i *>(p), x);
}

HW_AES_FN inline Block hw_xor(Block a, Block b) { return _mm_xor_si128(a, b); }

// One step of the 128-bit expansion: word 3 of assist is
// SubWord(RotWord(last word)) XOR rcon; the shifts form the prefix XOR of
// the previous round key's words.
HW_AES_FN inline Block x86_expand_step(Block k, Block assist)
{
    assist = _mm_shuffle_epi32(assist, 0xff);
    k = _mm_xor_si128(k, _mm_slli_si128(k, 4));
    k = _mm_xor_si128(k, _mm_slli_si128(k, 8));
    return _mm_xor_si128(k, assist);
}

// Encryption schedule: 11 round keys (the same bytes as the 44 words of
// rijndaelKeySetupEnc128).  The round constant must be an immediate, hence
// the written-out steps.
HW_AES_FN inline void hw_key_enc(Block rk[11], const uint8_t key[16])
{
    rk[0] = hw_load(key);
#define AES_NI_STEP(i, rcon) \
    rk[i] = x86_expand_step(rk[i - 1], _mm_aeskeygenassist_si128(rk[i - 1], rcon))
    AES_NI_STEP(1, 0x01);
    AES_NI_STEP(2, 0x02);
    AES_NI_STEP(3, 0x04);
    AES_NI_STEP(4, 0x08);
    AES_NI_STEP(5, 0x10);
    AES_NI_STEP(6, 0x20);
    AES_NI_STEP(7, 0x40);
    AES_NI_STEP(8, 0x80);
    AES_NI_STEP(9, 0x1b);
    AES_NI_STEP(10, 0x36);
#undef AES_NI_STEP
}

HW_AES_FN inline Block hw_inv_mix_columns(Block k) { return _mm_aesimc_si128(k); }

HW_AES_FN inline Block hw_encrypt(const Block rk[11], Block x)
{
    x = _mm_xor_si128(x, rk[0]);
    for (int i = 1; i < 10; i++) x = _mm_aesenc_si128(x, rk[i]);
    return _mm_aesenclast_si128(x, rk[10]);
}

HW_AES_FN inline Block hw_decrypt(const Block dk[11], Block x)
{
    x = _mm_xor_si128(x, dk[0]);
    for (int i = 1; i < 10; i++) x = _mm_aesdec_si128(x, dk[i]);
    return _mm_aesdeclast_si128(x, dk[10]);
}

// CBC encryption of the blocks at offsets 0, 16, ... below len (a partial
// last block is processed whole).  One block waits for the previous, so the
// loop is a single chain of ten AES rounds plus one XOR per block, with the
// round keys in registers.  To keep it at one XOR, the loop carries the
// ciphertext XOR round key 0: AESENCLAST ends by XORing its key, so round
// key 0 is folded into the last one and taken out again off the chain,
// for the store.  Returns the last ciphertext block (chain if len is 0).
HW_AES_FN inline Block hw_cbc_enc(const Block rk[11], Block chain, const uint8_t *in,
                                  uint8_t *out, size_t len)
{
    const Block last = _mm_xor_si128(rk[10], rk[0]);
    Block x = _mm_xor_si128(chain, rk[0]);
    for (size_t off = 0; off < len; off += 16) {
        x = _mm_xor_si128(x, hw_load(in + off));
        for (int i = 1; i < 10; i++) x = _mm_aesenc_si128(x, rk[i]);
        x = _mm_aesenclast_si128(x, last);
        hw_store(out + off, _mm_xor_si128(x, rk[0]));
    }
    return _mm_xor_si128(x, rk[0]);
}

// The counter as a block: the high half's bytes first, each half big-endian.
HW_AES_FN inline Block hw_counter_block(uint64_t hi, uint64_t lo)
{
    return _mm_set_epi64x(int64_t(__builtin_bswap64(lo)), int64_t(__builtin_bswap64(hi)));
}

// Clears the vector registers, which held round keys and blocks; every
// instruction-path operation ends with it after wiping its arrays.  No
// library function is called before it: the first call of one may go
// through the dynamic linker, which saves the vector registers on the stack.
inline void hw_clear_registers()
{
    __asm__ __volatile__("pxor %%xmm0, %%xmm0\n\tpxor %%xmm1, %%xmm1\n\tpxor %%xmm2, %%xmm2\n\t"
                         "pxor %%xmm3, %%xmm3\n\tpxor %%xmm4, %%xmm4\n\tpxor %%xmm5, %%xmm5\n\t"
                         "pxor %%xmm6, %%xmm6\n\tpxor %%xmm7, %%xmm7\n\tpxor %%xmm8, %%xmm8\n\t"
                         "pxor %%xmm9, %%xmm9\n\tpxor %%xmm10, %%xmm10\n\tpxor %%xmm11, %%xmm11\n\t"
                         "pxor %%xmm12, %%xmm12\n\tpxor %%xmm13, %%xmm13\n\t"
                         "pxor %%xmm14, %%xmm14\n\tpxor %%xmm15, %%xmm15"
                         :
                         :
                         : "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8",
                           "xmm9", "xmm10", "xmm11", "xmm12", "xmm13", "xmm14", "xmm15");
}

#elif defined(CRYPTO_HW_AARCH64)

// GCC's arm_neon.h offers the AES intrinsics to functions compiled with
// +crypto (which also enables SHA2; only AES instructions are used here).
#if defined(__clang__)
#define HW_AES_FN __attribute__((target("aes")))
#else
#define HW_AES_FN __attribute__((target("+crypto")))
#endif

using Block = uint8x16_t;

HW_AES_FN inline Block hw_load(const uint8_t *p) { return vld1q_u8(p); }

HW_AES_FN inline void hw_store(uint8_t *p, Block x) { vst1q_u8(p, x); }

HW_AES_FN inline Block hw_xor(Block a, Block b) { return veorq_u8(a, b); }

// One step of the 128-bit expansion.  There is no key-assist instruction:
// AESE with a zero key is SubBytes(ShiftRows(x)), and ShiftRows leaves a
// block of four equal words as it is, so AESE of the last word in all four
// lanes gives SubWord of it in each.  RotWord moves byte 0 of the word to
// the top, a right rotation by 8 bits of the little-endian lane, and
// commutes with SubWord; rcon goes into byte 0.  The byte shifts by 4 and 8
// form the prefix XOR of the previous round key's words.
HW_AES_FN inline Block arm_expand_step(Block k, uint32_t rcon)
{
    const Block zero = vdupq_n_u8(0);
    const uint32x4_t last = vdupq_laneq_u32(vreinterpretq_u32_u8(k), 3);
    const uint32x4_t sub = vreinterpretq_u32_u8(vaeseq_u8(vreinterpretq_u8_u32(last), zero));
    const uint32x4_t f =
        veorq_u32(vorrq_u32(vshrq_n_u32(sub, 8), vshlq_n_u32(sub, 24)), vdupq_n_u32(rcon));
    k = veorq_u8(k, vextq_u8(zero, k, 12));
    k = veorq_u8(k, vextq_u8(zero, k, 8));
    return veorq_u8(k, vreinterpretq_u8_u32(f));
}

// Encryption schedule: 11 round keys (the same bytes as the 44 words of
// rijndaelKeySetupEnc128).
HW_AES_FN inline void hw_key_enc(Block rk[11], const uint8_t key[16])
{
    static constexpr uint8_t kRcon[10] = {0x01, 0x02, 0x04, 0x08, 0x10,
                                          0x20, 0x40, 0x80, 0x1b, 0x36};
    rk[0] = hw_load(key);
    for (int i = 1; i < 11; i++) rk[i] = arm_expand_step(rk[i - 1], kRcon[i - 1]);
}

HW_AES_FN inline Block hw_inv_mix_columns(Block k) { return vaesimcq_u8(k); }

// AESE XORs its key first (then ShiftRows, SubBytes), so the round keys are
// consumed one round earlier than by the x86 instructions and the last one
// is a plain XOR.  AESD likewise for the equivalent inverse cipher.
HW_AES_FN inline Block hw_encrypt(const Block rk[11], Block x)
{
    for (int i = 0; i < 9; i++) x = vaesmcq_u8(vaeseq_u8(x, rk[i]));
    return veorq_u8(vaeseq_u8(x, rk[9]), rk[10]);
}

HW_AES_FN inline Block hw_decrypt(const Block dk[11], Block x)
{
    for (int i = 0; i < 9; i++) x = vaesimcq_u8(vaesdq_u8(x, dk[i]));
    return veorq_u8(vaesdq_u8(x, dk[9]), dk[10]);
}

// CBC encryption, same block rule and result as on x86-64.  The chain per
// block is the ten AESE (nine with AESMC) and one XOR: the loop carries the
// ciphertext XOR round key 0, the plaintext block enters as the key of the
// first AESE, and round key 0 is folded into the last XOR and taken out
// again off the chain, for the store.
HW_AES_FN inline Block hw_cbc_enc(const Block rk[11], Block chain, const uint8_t *in,
                                  uint8_t *out, size_t len)
{
    const Block last = veorq_u8(rk[10], rk[0]);
    Block x = veorq_u8(chain, rk[0]);
    for (size_t off = 0; off < len; off += 16) {
        x = vaesmcq_u8(vaeseq_u8(x, hw_load(in + off)));
        for (int i = 1; i < 9; i++) x = vaesmcq_u8(vaeseq_u8(x, rk[i]));
        x = veorq_u8(vaeseq_u8(x, rk[9]), last);
        hw_store(out + off, veorq_u8(x, rk[0]));
    }
    return veorq_u8(x, rk[0]);
}

// The counter as a block: the high half's bytes first, each half big-endian
// (lane 0 holds bytes 0..7 on this little-endian target).
HW_AES_FN inline Block hw_counter_block(uint64_t hi, uint64_t lo)
{
    return vreinterpretq_u8_u64(
        vcombine_u64(vcreate_u64(__builtin_bswap64(hi)), vcreate_u64(__builtin_bswap64(lo))));
}

// Clears all 32 vector registers, as on x86-64 (the lazy binding of the
// dynamic linker saves them on the stack too).  v8..v15 are listed although
// the procedure call standard has the caller's low halves survive: the
// compiler then saves and restores those halves around this function, and
// their high halves, which nothing restores, are cleared.
inline void hw_clear_registers()
{
    __asm__ __volatile__(
        "movi v0.16b, #0\n\tmovi v1.16b, #0\n\tmovi v2.16b, #0\n\tmovi v3.16b, #0\n\t"
        "movi v4.16b, #0\n\tmovi v5.16b, #0\n\tmovi v6.16b, #0\n\tmovi v7.16b, #0\n\t"
        "movi v8.16b, #0\n\tmovi v9.16b, #0\n\tmovi v10.16b, #0\n\tmovi v11.16b, #0\n\t"
        "movi v12.16b, #0\n\tmovi v13.16b, #0\n\tmovi v14.16b, #0\n\tmovi v15.16b, #0\n\t"
        "movi v16.16b, #0\n\tmovi v17.16b, #0\n\tmovi v18.16b, #0\n\tmovi v19.16b, #0\n\t"
        "movi v20.16b, #0\n\tmovi v21.16b, #0\n\tmovi v22.16b, #0\n\tmovi v23.16b, #0\n\t"
        "movi v24.16b, #0\n\tmovi v25.16b, #0\n\tmovi v26.16b, #0\n\tmovi v27.16b, #0\n\t"
        "movi v28.16b, #0\n\tmovi v29.16b, #0\n\tmovi v30.16b, #0\n\tmovi v31.16b, #0"
        :
        :
        : "v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v8", "v9", "v10", "v11", "v12", "v13",
          "v14", "v15", "v16", "v17", "v18", "v19", "v20", "v21", "v22", "v23", "v24", "v25",
          "v26", "v27", "v28", "v29", "v30", "v31");
}

#endif

#if defined(HW_AES_FN)
#define AES_HW_PATH 1  // the public functions below dispatch to hw_*

// Commits the schedule to rk: the compiler must store it there and read it
// back afterwards, so no value lives across this point in a register (or in
// a stack slot of the compiler's choosing, which no wipe would reach).
inline void hw_commit(Block rk[11]) { __asm__ __volatile__("" : : "r"(rk) : "memory"); }

// Turns an encryption schedule into the decryption schedule in place:
// reversed, InvMixColumns on the inner round keys (as rijndaelKeySetupDec).
// In place and from memory, so only one schedule is ever live.
HW_AES_FN inline void hw_key_dec(Block rk[11])
{
    hw_commit(rk);
    for (int i = 0; i < 5; i++) {
        Block t = rk[i];
        rk[i] = rk[10 - i];
        rk[10 - i] = t;
    }
    for (int i = 1; i < 10; i++) rk[i] = hw_inv_mix_columns(rk[i]);
    hw_commit(rk);
}

// CBC decryption, same block rule as hw_cbc_enc; each ciphertext block is
// loaded before its output is stored, so in == out works.
HW_AES_FN inline void hw_cbc_dec(const Block dk[11], Block chain, const uint8_t *in,
                                 uint8_t *out, size_t len)
{
    for (size_t off = 0; off < len; off += 16) {
        Block c = hw_load(in + off);
        hw_store(out + off, hw_xor(hw_decrypt(dk, c), chain));
        chain = c;
    }
}

// Fragment of the predefined-key data encryption: out = in XOR the
// encryption of prev, tail (< 16) bytes.
HW_AES_FN inline void hw_mask_fragment(const Block rk[11], Block prev, const uint8_t *in,
                                       uint8_t *out, uint32_t tail)
{
    uint8_t keystream[16];
    hw_store(keystream, hw_encrypt(rk, prev));
    for (uint32_t i = 0; i < tail; i++) out[i] = uint8_t(in[i] ^ keystream[i]);
    wipe(keystream, sizeof keystream);
}

HW_AES_FN NOINLINE void hw_aes128_enc(const uint8_t key[16], const uint8_t in[16],
                                      uint8_t out[16])
{
    Block rk[11];
    hw_key_enc(rk, key);
    hw_store(out, hw_encrypt(rk, hw_load(in)));
    wipe(rk, sizeof rk);
    hw_clear_registers();
}

HW_AES_FN NOINLINE void hw_aes128_dec(const uint8_t key[16], const uint8_t in[16],
                                      uint8_t out[16])
{
    Block rk[11];
    hw_key_enc(rk, key);
    hw_key_dec(rk);
    hw_store(out, hw_decrypt(rk, hw_load(in)));
    wipe(rk, sizeof rk);
    hw_clear_registers();
}

HW_AES_FN NOINLINE void hw_aes128_cbc_enc(const uint8_t key[16], const uint8_t iv[16],
                                          const uint8_t *in, uint8_t *out, size_t len)
{
    Block rk[11];
    hw_key_enc(rk, key);
    hw_cbc_enc(rk, hw_load(iv), in, out, len);
    wipe(rk, sizeof rk);
    hw_clear_registers();
}

HW_AES_FN NOINLINE void hw_aes128_cbc_dec(const uint8_t key[16], const uint8_t iv[16],
                                          const uint8_t *in, uint8_t *out, size_t len)
{
    Block rk[11];
    hw_key_enc(rk, key);
    hw_key_dec(rk);
    hw_cbc_dec(rk, hw_load(iv), in, out, len);
    wipe(rk, sizeof rk);
    hw_clear_registers();
}

// uiEncData after its argument checks: CBC, then the fragment keyed on the
// last ciphertext block (the IV below 16 bytes), as the table path.
HW_AES_FN NOINLINE void hw_enc_data(const uint8_t *in, uint8_t *out, uint32_t len)
{
    const uint32_t full = len & ~15u, tail = len & 15u;
    Block rk[11];
    hw_key_enc(rk, _lcuc_pre_def_key);
    Block last = hw_cbc_enc(rk, hw_load(_lcuc_pre_def_iv), in, out, full);
    if (tail != 0) hw_mask_fragment(rk, last, in + full, out + full, tail);
    wipe(rk, sizeof rk);
    hw_clear_registers();
}

// uiDecData after its argument checks: the fragment first, while the
// ciphertext block it is keyed on is intact, then CBC.
HW_AES_FN NOINLINE void hw_dec_data(const uint8_t *in, uint8_t *out, uint32_t len)
{
    const uint32_t full = len & ~15u, tail = len & 15u;
    Block rk[11];
    hw_key_enc(rk, _lcuc_pre_def_key);
    if (tail != 0) {
        Block prev = hw_load(len < 16 ? _lcuc_pre_def_iv : in + full - 16);
        hw_mask_fragment(rk, prev, in + full, out + full, tail);
    }
    hw_key_dec(rk);
    hw_cbc_dec(rk, hw_load(_lcuc_pre_def_iv), in, out, full);
    wipe(rk, sizeof rk);
    hw_clear_registers();
}

inline uint64_t load_be64(const uint8_t *p)
{
    return uint64_t(load_be32(p)) << 32 | load_be32(p + 4);
}

// vAES128CTR after its argument checks.  The counter is held as two 64-bit
// halves: the carry out of the low half goes into the high one, and all
// ones wraps to zero.
HW_AES_FN NOINLINE void hw_aes128_ctr(const uint8_t key[16], const uint8_t ctr[16],
                                      const uint8_t *in, uint8_t *out, uint32_t len)
{
    const uint32_t full = len & ~15u, tail = len & 15u;
    Block rk[11];
    hw_key_enc(rk, key);
    uint64_t hi = load_be64(ctr), lo = load_be64(ctr + 8);
    for (uint32_t off = 0; off < full; off += 16) {
        Block keystream = hw_encrypt(rk, hw_counter_block(hi, lo));
        hw_store(out + off, hw_xor(hw_load(in + off), keystream));
        if (++lo == 0) ++hi;
    }
    // Reads a whole input block, writes only the tail (after the registers
    // are cleared, as the copy may be a library call).
    uint8_t keystream[16];
    if (tail != 0) {
        Block last = hw_encrypt(rk, hw_counter_block(hi, lo));
        hw_store(keystream, hw_xor(hw_load(in + full), last));
    }
    wipe(rk, sizeof rk);
    hw_clear_registers();
    if (tail != 0) {
        memcpy(out + full, keystream, tail);
        wipe(keystream, sizeof keystream);
    }
}

#undef HW_AES_FN

#endif  // instruction paths

}  // namespace

// ---------------------------------------------------------------------------
// Key schedules

int rijndaelKeySetupEnc128(uint32_t rk[44], const uint8_t cipherKey[16])
{
    load_key128(rk, cipherKey);
    expand128(rk);
    return 10;
}

int rijndaelKeySetupEnc(uint32_t rk[], const uint8_t cipherKey[], int keyBits)
{
    // Key words are loaded as the length tests go: an unsupported length has
    // read all 32 key bytes and written 8 words by the time it is rejected.
    load_key128(rk, cipherKey);
    if (keyBits == 128) {
        expand128(rk);
        return 10;
    }
    rk[4] = load_be32(cipherKey + 16);
    rk[5] = load_be32(cipherKey + 20);
    if (keyBits == 192) {
        expand192(rk);
        return 12;
    }
    rk[6] = load_be32(cipherKey + 24);
    rk[7] = load_be32(cipherKey + 28);
    if (keyBits == 256) {
        expand256(rk);
        return 14;
    }
    return 0;
}

int rijndaelKeySetupDec(uint32_t rk[], const uint8_t cipherKey[], int keyBits)
{
    int Nr = rijndaelKeySetupEnc(rk, cipherKey, keyBits);

    // Round keys in reverse order.
    for (int i = 0, j = 4 * Nr; i < j; i += 4, j -= 4) {
        for (int k = 0; k < 4; k++) {
            uint32_t tmp = rk[i + k];
            rk[i + k] = rk[j + k];
            rk[j + k] = tmp;
        }
    }
    // InvMixColumns on the inner round keys; the S lookup cancels the
    // inverse S-box folded into Td0..Td3.
    for (int i = 4; i < 4 * Nr; i++) {
        uint32_t w = rk[i];
        rk[i] = Td0[Te4[B0(w)] & 0xff] ^ Td1[Te4[B1(w)] & 0xff] ^ Td2[Te4[B2(w)] & 0xff] ^
                Td3[Te4[B3(w)] & 0xff];
    }
    return Nr;
}

// ---------------------------------------------------------------------------
// Single blocks

void rijndaelEncrypt(const uint32_t rk[], int Nr, const uint8_t pt[16], uint8_t ct[16])
{
    encrypt_block(rk, Nr, pt, ct);
}

void rijndaelDecrypt(const uint32_t rk[], int Nr, const uint8_t ct[16], uint8_t pt[16])
{
    decrypt_block(rk, Nr, ct, pt);
}

// ---------------------------------------------------------------------------
// AES-128 operations: argument handling, the choice of path, and the
// clearing of the stack the chosen worker used.

void vAES128Enc(const uint8_t key[16], const uint8_t in[16], uint8_t out[16])
{
#if defined(AES_HW_PATH)
    if (crypto_aes_accelerated()) {
        hw_aes128_enc(key, in, out);
        wipe_dead_stack();
        return;
    }
#endif
    table_aes128_enc(key, in, out);
    wipe_dead_stack();
}

void vAES128Dec(const uint8_t key[16], const uint8_t in[16], uint8_t out[16])
{
#if defined(AES_HW_PATH)
    if (crypto_aes_accelerated()) {
        hw_aes128_dec(key, in, out);
        wipe_dead_stack();
        return;
    }
#endif
    table_aes128_dec(key, in, out);
    wipe_dead_stack();
}

void vAES128CBCEnc(const uint8_t key[16], const uint8_t iv[16], const uint8_t *in, uint8_t *out,
                   int32_t len)
{
    if (len <= 0) return;
#if defined(AES_HW_PATH)
    if (crypto_aes_accelerated()) {
        hw_aes128_cbc_enc(key, iv, in, out, size_t(len));
        wipe_dead_stack();
        return;
    }
#endif
    table_cbc_enc(key, iv, in, out, len);
    wipe_dead_stack();
}

void vAES128CBCDec(const uint8_t key[16], const uint8_t iv[16], const uint8_t *in, uint8_t *out,
                   int32_t len)
{
    if (len <= 0) return;
#if defined(AES_HW_PATH)
    if (crypto_aes_accelerated()) {
        hw_aes128_cbc_dec(key, iv, in, out, size_t(len));
        wipe_dead_stack();
        return;
    }
#endif
    table_cbc_dec(key, iv, in, out, len);
    wipe_dead_stack();
}

uint32_t uiEncData(const uint8_t *in, uint8_t *out, uint32_t len)
{
    if (out == nullptr || in == nullptr || len == 0) return 0xFFFFFFFFu;
#if defined(AES_HW_PATH)
    if (crypto_aes_accelerated()) {
        hw_enc_data(in, out, len);
        wipe_dead_stack();
        return 0;
    }
#endif
    table_enc_data(in, out, len);
    wipe_dead_stack();
    return 0;
}

uint32_t uiDecData(const uint8_t *in, uint8_t *out, uint32_t len)
{
    if (out == nullptr || in == nullptr || len == 0) return 0xFFFFFFFFu;
#if defined(AES_HW_PATH)
    if (crypto_aes_accelerated()) {
        hw_dec_data(in, out, len);
        wipe_dead_stack();
        return 0;
    }
#endif
    table_dec_data(in, out, len);
    wipe_dead_stack();
    return 0;
}

void vAES128CTR(const uint8_t key[16], const uint8_t ctr[16], const uint8_t *in, uint8_t *out,
                int32_t len)
{
    // A negative length is outside the contract; it is treated like 0.
    if (len <= 0 || key == nullptr || in == nullptr || ctr == nullptr || out == nullptr) return;
#if defined(AES_HW_PATH)
    if (crypto_aes_accelerated()) {
        hw_aes128_ctr(key, ctr, in, out, uint32_t(len));
        wipe_dead_stack();
        return;
    }
#endif
    table_ctr(key, ctr, in, out, uint32_t(len));
    wipe_dead_stack();
}

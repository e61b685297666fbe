// Platform flow: the signature is checked again by a route that has nothing
// in common with the signing arithmetic.  It runs on fixed 64-word arrays
// with 32-bit multiplies and divides only, the way the 32-bit target does it,
// so a fault in one route cannot hide the same fault in the other.
#include "rsa.h"

#include <cstdio>
#include <cstring>

#include "rsa2048.h"
#include "sha256.h"
#include "workbuf.h"

namespace {

constexpr uint32_t kOpWords = 64;     // 2048-bit operand or modulus
constexpr uint32_t kProdWords = 128;  // product of two operands
constexpr uint32_t kHashLen = 32;

uint32_t lui4LeadingZeros(uint32_t w)
{
    if (w == 0) return 32;
    uint32_t n = 0;
    while ((w & 0x80000000u) == 0) {
        w <<= 1;
        n++;
    }
    return n;
}

uint32_t lui4SignificantWords(const uint32_t *a, uint32_t n)
{
    while (n > 0 && a[n - 1] == 0) n--;
    return n;
}

// One 16-bit quotient digit of (*rem * 2^16 + digit) / d, with *rem < d and d
// normalised; *rem receives the new partial remainder (again below d).
uint32_t lui4DivideHalfDigit(uint32_t *rem, uint32_t digit, uint32_t d)
{
    const uint32_t dH = d >> 16;
    const uint32_t dL = d & 0xFFFFu;
    const uint32_t top = *rem;

    // Estimate from the divisor's high half; it can be up to two too large
    // (0x10000 and 0x10001 occur when top's high half equals dH).
    uint32_t q = top / dH;
    uint32_t rh = top - q * dH;
    for (int i = 0; i < 2 && rh < 0x10000u; i++) {
        if (q < 0x10000u && q * dL <= ((rh << 16) | digit)) break;
        q--;
        rh += dH;
    }

    // (top:digit) - q * d as a 48-bit subtraction: low 16 bits first, then
    // the upper 32 bits with the borrow.
    const uint32_t pLow = q * dL;
    const uint32_t pHigh = q * dH + (pLow >> 16);
    const uint32_t lowBorrow = digit < (pLow & 0xFFFFu) ? 1u : 0u;
    const uint32_t lowDiff = (digit - (pLow & 0xFFFFu)) & 0xFFFFu;
    const uint32_t highSub = pHigh + lowBorrow;
    uint32_t r = ((top - highSub) << 16) | lowDiff;
    if (top < highSub) {
        // One too many: the true remainder is the wrapped value plus d.
        q--;
        r += d;
    }
    *rem = r;
    return q;
}

// (t[1]:t[0]) += x; callers guarantee that t[1] does not overflow.
inline void lvAddWord(uint32_t t[2], uint32_t x)
{
    t[0] += x;
    if (t[0] < x) t[1]++;
}

}  // namespace

uint32_t spMultiply(uint32_t r[2], uint32_t a, uint32_t b)
{
    const uint32_t aH = a >> 16, aL = a & 0xFFFFu;
    const uint32_t bH = b >> 16, bL = b & 0xFFFFu;

    const uint32_t low = aL * bL;
    const uint32_t mid1 = aH * bL;
    const uint32_t mid = mid1 + aL * bH;
    const uint32_t midCarry = mid < mid1 ? 0x10000u : 0u;
    const uint32_t resLow = low + (mid << 16);
    const uint32_t lowCarry = resLow < low ? 1u : 0u;

    r[0] = resLow;
    r[1] = aH * bH + (mid >> 16) + midCarry + lowCarry;
    return 0;
}

uint32_t spDivide(uint32_t *q, uint32_t *r, const uint32_t u[2], uint32_t d)
{
    if ((d & 0x80000000u) == 0) {
        *q = 0;
        *r = 0;
        return 0xFFFFFFFFu;
    }
    uint32_t rem = u[1];
    uint32_t bit32 = 0;
    if (rem >= d) {
        rem -= d;
        bit32 = 1;
    }
    const uint32_t q1 = lui4DivideHalfDigit(&rem, u[0] >> 16, d);
    const uint32_t q0 = lui4DivideHalfDigit(&rem, u[0] & 0xFFFFu, d);
    *q = (q1 << 16) | q0;
    *r = rem;
    return bit32;
}

uint32_t mpShiftLeft(uint32_t *dst, const uint32_t *src, uint32_t shift, uint32_t n)
{
    if (shift >= 32) {
        // Whole words first (top down, so dst may equal src), then the rest.
        const uint32_t w = shift / 32;
        for (uint32_t i = n; i-- > 0;) dst[i] = i >= w ? src[i - w] : 0;
        src = dst;
        shift %= 32;
    }
    if (shift == 0) {
        if (dst != src) memmove(dst, src, n * sizeof(uint32_t));
        return 0;
    }
    uint32_t carry = 0;
    for (uint32_t i = 0; i < n; i++) {
        const uint32_t w = src[i];
        dst[i] = (w << shift) | carry;
        carry = w >> (32 - shift);
    }
    return carry;
}

uint32_t mpShiftRight(uint32_t *dst, const uint32_t *src, uint32_t shift, uint32_t n)
{
    if (shift >= 32) {
        const uint32_t w = shift / 32;
        for (uint32_t i = 0; i < n; i++) dst[i] = (w < n && i < n - w) ? src[i + w] : 0;
        src = dst;
        shift %= 32;
    }
    if (shift == 0) {
        if (dst != src) memmove(dst, src, n * sizeof(uint32_t));
        return 0;
    }
    uint32_t carry = 0;
    for (uint32_t i = n; i-- > 0;) {
        const uint32_t w = src[i];
        dst[i] = (w >> shift) | carry;
        carry = w << (32 - shift);
    }
    return carry;
}

uint32_t mpMultiplyMod(uint32_t result[64], const uint32_t a[64], const uint32_t b[64],
                       uint32_t modulus[64], uint32_t product[128], uint32_t quotient[128],
                       uint32_t remainder[128])
{
    // Schoolbook product; a, b and result may be one array, so the product
    // is complete before result is touched.
    memset(product, 0, kProdWords * sizeof(uint32_t));
    for (uint32_t i = 0; i < kOpWords; i++) {
        if (b[i] == 0) {
            product[i + kOpWords] = 0;
            continue;
        }
        uint32_t carry = 0;
        for (uint32_t j = 0; j < kOpWords; j++) {
            uint32_t t[2];
            spMultiply(t, a[j], b[i]);
            lvAddWord(t, product[i + j]);
            lvAddWord(t, carry);
            product[i + j] = t[0];
            carry = t[1];
        }
        product[i + kOpWords] = carry;
    }

    memset(quotient, 0, kProdWords * sizeof(uint32_t));
    memset(remainder, 0, kProdWords * sizeof(uint32_t));

    const uint32_t n = lui4SignificantWords(modulus, kOpWords);
    const uint32_t p = lui4SignificantWords(product, kProdWords);

    if (n == 0) {
        // Zero modulus: the result is the cleared remainder.
    } else if (n == 1) {
        // Short division by one normalised word.
        const uint32_t s = lui4LeadingZeros(modulus[0]);
        const uint32_t d = modulus[0] << s;
        uint32_t r = mpShiftLeft(quotient, product, s, kProdWords);
        for (uint32_t i = kProdWords; i-- > 0;) {
            const uint32_t pair[2] = {quotient[i], r};
            spDivide(&quotient[i], &r, pair, d);
        }
        memset(result, 0, kOpWords * sizeof(uint32_t));
        result[0] = r >> s;
        return 0;
    } else if (p < n) {
        memcpy(result, product, kOpWords * sizeof(uint32_t));
        return 0;
    } else {
        int cmp = 1;
        if (p == n) {
            cmp = 0;
            for (uint32_t i = n; i-- > 0;) {
                if (product[i] != modulus[i]) {
                    cmp = product[i] > modulus[i] ? 1 : -1;
                    break;
                }
            }
        }
        if (cmp < 0) {
            memcpy(result, product, kOpWords * sizeof(uint32_t));
            return 0;
        }
        if (cmp == 0) {
            quotient[0] = 1;
        } else {
            // Long division, base 2^32, divisor normalised so that the
            // two-word quotient estimate is at most two too large.
            const uint32_t m = p - n;
            const uint32_t s = lui4LeadingZeros(modulus[n - 1]);
            mpShiftLeft(modulus, modulus, s, n);
            uint32_t top = mpShiftLeft(remainder, product, s, p);
            const uint32_t vTop = modulus[n - 1];
            const uint32_t vNext = modulus[n - 2];

            for (uint32_t j = m + 1; j-- > 0;) {
                const uint32_t pair[2] = {remainder[j + n - 1], top};
                uint32_t qhat = 0, rhat = 0;
                bool rhatWrapped = false;
                if (spDivide(&qhat, &rhat, pair, vTop) == 1) {
                    qhat = 0xFFFFFFFFu;
                    rhat = pair[0] + vTop;
                    rhatWrapped = rhat < vTop;
                } else if (qhat == 0) {
                    quotient[j] = 0;
                    top = remainder[j + n - 1];
                    continue;
                }

                // Refine with the divisor's second word; with the divisor normalised this runs
                // at most twice.
                while (!rhatWrapped) {
                    uint32_t t[2];
                    spMultiply(t, qhat, vNext);
                    const uint32_t uNext = remainder[j + n - 2];
                    if (t[1] < rhat || (t[1] == rhat && t[0] <= uNext)) break;
                    qhat--;
                    rhat += vTop;
                    rhatWrapped = rhat < vTop;
                }

                // Subtract qhat * divisor from the window j .. j + n.
                uint32_t borrow = 0;
                for (uint32_t i = 0; i < n; i++) {
                    uint32_t t[2];
                    spMultiply(t, qhat, modulus[i]);
                    lvAddWord(t, borrow);
                    const uint32_t before = remainder[j + i];
                    remainder[j + i] = before - t[0];
                    borrow = t[1] + (before < t[0] ? 1u : 0u);
                }
                quotient[j] = qhat;
                if (top - borrow != 0) {
                    // qhat was one too large: add the divisor back once.
                    quotient[j] = qhat - 1;
                    uint32_t carry = 0;
                    for (uint32_t i = 0; i < n; i++) {
                        const uint32_t x = remainder[j + i];
                        uint32_t sum = x + modulus[i];
                        const uint32_t c1 = sum < x ? 1u : 0u;
                        sum += carry;
                        const uint32_t c2 = sum < carry ? 1u : 0u;
                        remainder[j + i] = sum;
                        carry = c1 + c2;
                    }
                }
                top = remainder[j + n - 1];
            }

            for (uint32_t i = n; i < p; i++) remainder[i] = 0;
            mpShiftRight(remainder, remainder, s, n);
            mpShiftRight(modulus, modulus, s, n);
        }
    }

    memcpy(result, remainder, kOpWords * sizeof(uint32_t));
    return 0;
}

uint32_t RSADecryption65537(const uint32_t base[64], uint32_t modulus[64], uint32_t out[64])
{
    uint32_t acc[kOpWords];
    uint32_t product[kProdWords];
    uint32_t quotient[kProdWords];
    uint32_t remainder[kProdWords];

    // 65537 = 2^16 + 1: sixteen squarings, then one multiplication.
    mpMultiplyMod(acc, base, base, modulus, product, quotient, remainder);
    for (int i = 0; i < 15; i++) mpMultiplyMod(acc, acc, acc, modulus, product, quotient, remainder);
    mpMultiplyMod(acc, acc, base, modulus, product, quotient, remainder);

    memcpy(out, acc, sizeof(acc));
    return 0;
}

int32_t pkcs_1_pss_decode_sha256(const uint8_t *msghash, uint32_t msghashlen, const uint8_t *sig,
                                 uint32_t siglen, uint32_t saltlen, uint32_t modulus_bitlen,
                                 int32_t *res)
{
    if (res == nullptr || msghash == nullptr) {
        printf("Error: wrong input parameter for pkcs_1_pss_decode_sha256 operation\n");
        return -1;
    }
    *res = 0;

    const uint32_t emLen = modulus_bitlen / 8 + (modulus_bitlen % 8 != 0 ? 1 : 0);
    if (emLen < saltlen || siglen != emLen || saltlen + kHashLen + 2 > siglen) {
        printf("Error: wrong input parameter length (m = %d, h = %d, s = %d, sig = %d) for "
               "pkcs_1_pss_decode_sha256 operation\n",
               static_cast<int>(emLen), static_cast<int>(kHashLen), static_cast<int>(saltlen),
               static_cast<int>(siglen));
        return -2;
    }

    // DB, mask, a third buffer the check never needs, H.
    WipedBufs<4> work;
    if (!work.alloc(emLen)) {
        printf("Error: fail to allocate memory for pkcs_1_pss_decode_sha256 operation\n");
        return -3;
    }
    uint8_t *db = work.buf[0];
    uint8_t *mask = work.buf[1];
    uint8_t *hash = work.buf[3];
    const uint32_t dbLen = emLen - kHashLen - 1;

    if (sig[emLen - 1] != 0xBC) {
        printf("Error: fail to check 0xBC for pkcs_1_pss_decode_sha256 operation\n");
        return -4;
    }
    memcpy(db, sig, dbLen);
    memcpy(hash, sig + dbLen, kHashLen);

    const uint8_t topMask = static_cast<uint8_t>(0xFFu >> ((8 * emLen + 1 - modulus_bitlen) & 31));
    if ((sig[0] & static_cast<uint8_t>(~topMask)) != 0) {
        printf("Error: fail to check MSB for pkcs_1_pss_decode_sha256 operation\n");
        return -5;
    }

    int32_t rc = pkcs_1_mgf1_sha256(hash, kHashLen, mask, dbLen);
    if (rc != 0) {
        printf("Error: fail to perform mgf1 for pkcs_1_pss_decode_sha256 operation\n");
        return rc;
    }
    for (uint32_t i = 0; i < dbLen; i++) db[i] ^= mask[i];
    db[0] &= topMask;

    const uint32_t psLen = emLen - kHashLen - 2 - saltlen;
    for (uint32_t i = 0; i < psLen; i++) {
        if (db[i] != 0x00) {
            printf("Error: fail to 0x00 and 0x01 in BD for pkcs_1_pss_encode_sha256 operation\n");
            return -6;
        }
    }
    if (db[psLen] != 0x01) {
        printf("Error: fail to 0x01 in BD for pkcs_1_pss_encode_sha256 operation\n");
        return -7;
    }

    // H' = SHA-256(8 zero bytes || message hash || salt), reusing the mask
    // buffer for the zeros and the digest.
    sha256_ctx ctx;
    rc = sha256_init(&ctx);
    if (rc == 0) {
        memset(mask, 0, 8);
        rc = sha256_process(&ctx, mask, 8);
    }
    if (rc == 0) rc = sha256_process(&ctx, msghash, msghashlen);
    if (rc == 0) rc = sha256_process(&ctx, db + psLen + 1, saltlen);
    if (rc == 0) rc = sha256_done(&ctx, mask);
    vWipeBuf(&ctx, sizeof(ctx));
    if (rc == 0 && memcmp(mask, hash, kHashLen) == 0) *res = 1;
    return rc;
}

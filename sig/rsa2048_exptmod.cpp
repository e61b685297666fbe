// RSA private-key operation on big-endian byte strings.

#include "rsa2048.h"

#include <cstdio>
#include <cstring>

#include "hexdump.h"
#include "mpi.h"

// Steps after the three integers are set up; the caller clears them on
// every path.
static int32_t rsa_exptmod_run(mp_int *tmp, mp_int *tmp_key, mp_int *tmp_n, const uint8_t *in, int32_t inlen,
                               uint8_t *out, uint32_t *outlen, const uint8_t *key, int32_t keylen,
                               const uint8_t *modulus, int32_t modlen)
{
    mp_err res = mp_read_unsigned_bin(tmp, in, inlen);
    if (res != MP_OK) {
        printf("Error: fail to read input data =>\n");
        vHexDumpBuf(in, inlen);
        return res;
    }
    res = mp_read_unsigned_bin(tmp_key, key, keylen);
    if (res != MP_OK) {
        printf("Error: fail to read rsa e/d exponent data =>\n");
        vHexDumpBuf(key, keylen);
        return res;
    }
    res = mp_read_unsigned_bin(tmp_n, modulus, modlen);
    if (res != MP_OK) {
        printf("Error: fail to read rsa n data =>\n");
        vHexDumpBuf(modulus, modlen);
        return res;
    }

    // An input equal to the modulus is let through; it yields zero.
    if (mp_cmp(tmp_n, tmp) == MP_LESS) {
        printf("Error: rsa n is smaller than input data\n");
        printf("RSA N =>\n");
        vHexDumpBuf(modulus, modlen);
        printf("Input Data =>\n");
        vHexDumpBuf(in, inlen);
        return -5;
    }

    res = mp_exptmod(tmp, tmp_key, tmp_n, tmp);
    if (res != MP_OK) {
        printf("Error: fail to calculate exponent mod\n");
        return res;
    }

    // The output is as long as the modulus as a number, not as given.
    const int32_t k = mp_unsigned_bin_size(tmp_n);
    const uint32_t capacity = *outlen;
    if (uint32_t(k) > capacity) {
        *outlen = uint32_t(k);
        printf("Error: incorrect output size (%d, %d)\n", k, int32_t(capacity));
        return -6;
    }
    const int32_t rlen = mp_unsigned_bin_size(tmp);
    if (rlen > k) {
        printf("Error: digital number (%d) of rsa n is smaller than that (%d) of input data\n", k, rlen);
        return -7;
    }

    *outlen = uint32_t(k);
    memset(out, 0, size_t(k));
    res = mp_to_unsigned_bin(tmp, out + (k - rlen));
    if (res != MP_OK) {
        printf("Error: fail to get result\n");
        vHexDumpBuf(out, k);
        return res;
    }
    return 0;
}

int32_t rsa_exptmod(const uint8_t *in, int32_t inlen, uint8_t *out, uint32_t *outlen, const uint8_t *key,
                    int32_t keylen, const uint8_t *modulus, int32_t modlen)
{
    // The input length is not checked: the integer module rejects it.
    if (out == nullptr || in == nullptr || key == nullptr || outlen == nullptr || modulus == nullptr || keylen == 0 ||
        modlen == 0) {
        printf("Error: wrong input parameter for rsa operation\n");
        return -1;
    }

    mp_int tmp, tmp_key, tmp_n;
    if (mp_init(&tmp) != MP_OK) {
        printf("Error: init tmp parameter for rsa operation\n");
        return -2;
    }
    if (mp_init(&tmp_key) != MP_OK) {
        mp_clear(&tmp);
        printf("Error: init tmp_key parameter for rsa operation\n");
        return -3;
    }
    if (mp_init(&tmp_n) != MP_OK) {
        mp_clear(&tmp);
        mp_clear(&tmp_key);
        printf("Error: init tmp_key parameter for rsa operation\n");
        return -4;
    }

    const int32_t ret = rsa_exptmod_run(&tmp, &tmp_key, &tmp_n, in, inlen, out, outlen, key, keylen, modulus, modlen);

    mp_clear(&tmp);
    mp_clear(&tmp_key);
    mp_clear(&tmp_n);
    return ret;
}

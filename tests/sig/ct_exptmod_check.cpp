// Constant-time check of rsa_exptmod, run under valgrind's memcheck: the private exponent's bytes
// are marked undefined, so every branch, memory index or conditional move that depends on them is
// reported, up to the point where the signature is declassified.  Argument: a configuration file
// with AUTH_PARAM_N and AUTH_PARAM_D (the bundled example).
#include <valgrind/memcheck.h>

#include <cstdio>
#include <cstring>

#include "rsa2048.h"

int main(int argc, char **argv)
{
    uint8_t n[256], d[256], block[256], sig[256], back[256], e[3] = {1, 0, 1};
    char line[1024];
    int found = 0;
    FILE *f = argc == 2 ? fopen(argv[1], "r") : nullptr;
    while (f != nullptr && fgets(line, sizeof line, f) != nullptr) {
        uint8_t *v = !strncmp(line, "AUTH_PARAM_N", 12) ? n : !strncmp(line, "AUTH_PARAM_D", 12) ? d : nullptr;
        for (int i = 0; v != nullptr && strstr(line, "0x") != nullptr && i < 256; i++) found += sscanf(strstr(line, "0x") + 2 + 2 * i, "%2hhx", &v[i]);
    }
    if (f != nullptr) fclose(f);
    if (found != 512) return printf("usage: ct_exptmod_check CFG (with AUTH_PARAM_N and AUTH_PARAM_D)\n"), 2;
    for (int i = 0; i < 256; i++) block[i] = uint8_t(i * 167 + 13);
    block[0] = uint8_t(n[0] / 2);  // below the modulus
    VALGRIND_MAKE_MEM_UNDEFINED(d, sizeof d);
    uint32_t len = 256, len2 = 256;
    // The public exponent gives the block back.
    const bool ok = rsa_exptmod(block, 256, sig, &len, d, 256, n, 256) == 0 && rsa_exptmod(sig, 256, back, &len2, e, 3, n, 256) == 0 &&
                    memcmp(back, block, 256) == 0;
    printf(ok ? "ok\n" : "signature does not verify\n");
    return ok ? 0 : 1;
}

// Constant-time check of rsa_exptmod, run under valgrind's memcheck: the
// private exponent's bytes are marked undefined, so every branch, memory
// index or conditional move that depends on them is reported, up to the
// point where the signature is declassified.  Argument: the example
// configuration file, whose AUTH_PARAM_N and AUTH_PARAM_D are used.
#include <valgrind/memcheck.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "rsa2048.h"

// The 256-byte value of the line "<key> = 0x<512 hex digits>".
static bool read_value(const char *path, const char *key, uint8_t *out)
{
    FILE *f = fopen(path, "r");
    char line[1024];
    bool found = false;
    while (f && !found && fgets(line, sizeof line, f)) {
        const char *hex = strstr(line, "0x");
        if (strncmp(line, key, strlen(key)) != 0 || !hex) continue;
        found = true;
        for (int i = 0; i < 256 && found; i++) found = sscanf(hex + 2 + 2 * i, "%2hhx", &out[i]) == 1;
    }
    if (f) fclose(f);
    return found;
}

int main(int argc, char **argv)
{
    uint8_t n[256], d[256], block[256], sig[256], back[256];
    const uint8_t e[3] = {0x01, 0x00, 0x01};
    if (argc != 2 || !read_value(argv[1], "AUTH_PARAM_N", n) || !read_value(argv[1], "AUTH_PARAM_D", d)) {
        printf("usage: ct_exptmod_check <configuration file with AUTH_PARAM_N and AUTH_PARAM_D>\n");
        return 2;
    }
    for (int i = 0; i < 256; i++) block[i] = uint8_t(i * 167 + 13);
    block[0] = uint8_t(n[0] / 2);  // below the modulus

    VALGRIND_MAKE_MEM_UNDEFINED(d, sizeof d);
    uint32_t len = 256;
    if (rsa_exptmod(block, 256, sig, &len, d, 256, n, 256) != 0 || len != 256) return 1;
    // The public exponent gives the block back.
    len = 256;
    if (rsa_exptmod(sig, 256, back, &len, e, 3, n, 256) != 0 || memcmp(back, block, 256) != 0) {
        printf("signature does not verify\n");
        return 1;
    }
    printf("ok\n");
    return 0;
}

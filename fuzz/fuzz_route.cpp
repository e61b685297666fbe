// The 65537 route on 64-word little-endian arrays against the big-integer module: the first half
// of the input (at most 256 bytes, little-endian) is the base, the second half the modulus.
#include <algorithm>
#include <cstring>

#include "fuzz_util.h"
#include "mpi.h"
#include "rsa.h"

namespace {

// 64 little-endian words <-> 256 big-endian bytes (little-endian host).
void vReverse(const void *from, void *to)
{
    const uint8_t *f = static_cast<const uint8_t *>(from);
    std::reverse_copy(f, f + 256, static_cast<uint8_t *>(to));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const size_t half = std::min<size_t>(size / 2, 256);
    uint32_t base[64] = {}, mod[64] = {}, mod_before[64], out[64];
    memcpy(base, data, half);
    memcpy(mod, data + half, half);
    if (std::all_of(mod, mod + 64, [](uint32_t w) { return w == 0; })) return 0;
    memcpy(mod_before, mod, sizeof mod);
    RSADecryption65537(base, mod, out);
    FUZZ_CHECK(memcmp(mod, mod_before, sizeof mod) == 0);

    uint8_t a_be[256], m_be[256], want[256] = {}, got[256];
    const uint8_t e_be[3] = {0x01, 0x00, 0x01};
    vReverse(base, a_be);
    vReverse(mod, m_be);
    mp_int a, e, m, c;
    for (mp_int *x : {&a, &e, &m, &c}) FUZZ_CHECK(mp_init(x) == MP_OK);
    FUZZ_CHECK(mp_read_unsigned_bin(&a, a_be, 256) == MP_OK && mp_read_unsigned_bin(&e, e_be, 3) == MP_OK &&
               mp_read_unsigned_bin(&m, m_be, 256) == MP_OK && mp_exptmod(&a, &e, &m, &c) == MP_OK);
    const int32_t n = mp_unsigned_bin_size(&c);
    FUZZ_CHECK(n <= 256 && mp_to_unsigned_bin(&c, want + 256 - n) == MP_OK);
    vReverse(out, got);
    FUZZ_CHECK(memcmp(got, want, 256) == 0);
    for (mp_int *x : {&a, &e, &m, &c}) mp_clear(x);
    return 0;
}

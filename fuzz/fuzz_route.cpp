// The 65537 route on 64-word little-endian arrays against mp_exptmod with exponent 65537: the
// first half of the input (at most 256 bytes, little-endian) is the base, the second the modulus.
#include "fuzz_util.h"
#include "mpi.h"
#include "rsa.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const size_t half = std::min<size_t>(size / 2, 256);
    uint32_t base[64] = {}, mod[64] = {}, out[64];
    std::copy_n(data, half, reinterpret_cast<uint8_t *>(base));
    std::copy_n(data + half, half, reinterpret_cast<uint8_t *>(mod));
    if (std::all_of(mod, mod + 64, [](uint32_t w) { return w == 0; })) return 0;
    const auto be = [](const uint32_t *w, uint8_t *b) {  // the module's byte strings are big-endian
        const auto *bytes = reinterpret_cast<const uint8_t *>(w);
        std::reverse_copy(bytes, bytes + 256, b);
    };
    uint8_t a_be[256], m_be[256], m_after[256], got[256], want[256] = {}, e_be[3] = {1, 0, 1};
    be(base, a_be), be(mod, m_be);
    RSADecryption65537(base, mod, out);
    be(mod, m_after), be(out, got);
    mp_int a, e, m, c;
    for (mp_int *x : {&a, &e, &m, &c}) FUZZ_CHECK(mp_init(x) == MP_OK);
    FUZZ_CHECK(mp_read_unsigned_bin(&a, a_be, 256) == MP_OK &&
               mp_read_unsigned_bin(&e, e_be, 3) == MP_OK &&
               mp_read_unsigned_bin(&m, m_be, 256) == MP_OK && mp_exptmod(&a, &e, &m, &c) == MP_OK);
    const int32_t n = mp_unsigned_bin_size(&c);
    FUZZ_CHECK(n <= 256 && mp_to_unsigned_bin(&c, want + 256 - n) == MP_OK);
    FUZZ_CHECK(std::equal(got, got + 256, want));
    FUZZ_CHECK(std::equal(m_after, m_after + 256, m_be));  // the modulus restored
    for (mp_int *x : {&a, &e, &m, &c}) mp_clear(x);
    return 0;
}

// PSS decoding of arbitrary blocks.  Input: mode, bit length (16-bit LE), salt length, hash (32
// bytes), block.  Mostly (mode below 0xF0) 2048 bits, salt 32 and a 256-byte block zero-padded or
// cut from the rest; otherwise the lengths given and the rest as it is.
#include "fuzz_util.h"
#include "rsa.h"
#include "rsa2048.h"
#include "rsa2048_pss.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 36) return 0;
    const bool usual = data[0] < 0xF0;
    const uint32_t bits = usual ? 2048 : data[1] | data[2] << 8, salt_len = usual ? 32 : data[3];
    std::vector<uint8_t> block(usual ? 256 : size - 36);  // exactly its size: overreads are caught
    std::copy_n(data + 36, std::min(block.size(), size - 36), block.begin());
    const uint32_t len = uint32_t(block.size());
    int32_t verdict = -1;
    const int32_t rc =
        pkcs_1_pss_decode_sha256(data + 4, 32, block.data(), len, salt_len, bits, &verdict);
    FUZZ_CHECK(rc == 0 || rc == -2 || (rc <= -4 && rc >= -7));
    FUZZ_CHECK(verdict == 0 || (verdict == 1 && rc == 0));
    // The oracle: a match exactly when the encoder, given the salt the block carries, rebuilds it.
    bool rebuilt = false;
    if (len >= salt_len + 34) {
        std::vector<uint8_t> db(len - 33), em(len);
        FUZZ_CHECK(pkcs_1_mgf1_sha256(block.data() + len - 33, 32, db.data(), len - 33) == 0);
        for (uint32_t i = 0; i < len - 33; ++i) db[i] ^= block[i];
        const uint8_t *salt = db.data() + len - 33 - salt_len;
        uint32_t n = len;
        rebuilt = s_pkcs_1_pss_encode_sha256(data + 4, 32, salt, salt_len, bits, em.data(), &n) == 0
                  && n == len && em == block;
    }
    FUZZ_CHECK(rebuilt == (verdict == 1));
    return 0;
}

// The configuration parser on whole files.
#include <cstddef>
#include <cstring>

#include "ZirnImgProtCfgFileProc.h"
#include "fuzz_util.h"

namespace {

struct Field {
    uint32_t bit;
    size_t offset, len;
};
constexpr Field FIELDS[] = {{IMG_VER_SEEN, offsetof(ImgProtParam, hdr.img_ver), 2},
                            {ENC_PARAM_SEEN, offsetof(ImgProtParam, enc_iv), 32},
                            {DEC_PARAM_SEEN, offsetof(ImgProtParam, hdr.dec_param), 32},
                            {AUTH_PARAM_N_SEEN, offsetof(ImgProtParam, hdr.auth_n), 256},
                            {AUTH_PARAM_D_SEEN, offsetof(ImgProtParam, auth_d), 256}};
constexpr uint8_t ZEROS[256] = {};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    vQuietStdout();
    ImgProtParam param{};
    const int32_t rc = iProcZIRNImgProtCfgFileV10(pcInputPath(data, size), &param);
    FUZZ_CHECK(rc == 0 || (rc <= -4 && rc >= -8));
    const uint32_t seen = ui4GetLE32(param.keys_seen);
    FUZZ_CHECK((seen & ~uint32_t(0x1F)) == 0);
    // Only the five destinations and keys_seen may be written; after a clean parse a key never
    // seen has left its destination zero.
    uint8_t *rec = reinterpret_cast<uint8_t *>(&param);
    memset(param.keys_seen, 0, sizeof param.keys_seen);
    for (const Field &f : FIELDS) {
        FUZZ_CHECK(rc != 0 || (seen & f.bit) != 0 || memcmp(rec + f.offset, ZEROS, f.len) == 0);
        memset(rec + f.offset, 0, f.len);
    }
    for (size_t i = 0; i < sizeof param; ++i) FUZZ_CHECK(rec[i] == 0);
    return 0;
}

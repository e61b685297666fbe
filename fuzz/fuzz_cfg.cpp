// The configuration parser on whole files: a documented result, and no keys_seen bit but the five.
#include "ZirnImgProtCfgFileProc.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ImgProtParam param{};
    const int32_t rc = iProcZIRNImgProtCfgFileV10(pcInputPath(data, size), &param);
    FUZZ_CHECK(rc == 0 || (rc <= -4 && rc >= -8));
    FUZZ_CHECK((ui4GetLE32(param.keys_seen) & ~uint32_t(0x1F)) == 0);
    return 0;
}

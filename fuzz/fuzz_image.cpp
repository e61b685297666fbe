// The companion's reading of arbitrary files as protected images: the header check, and for a
// consistent header the hash (which then must read the whole rest) and the signature check.
#include "ZirnImgProt.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FILE *fp = fopen(pcInputPath(data, size), "rb");
    ImgProtHdr hdr;
    uint8_t hash[32];
    FUZZ_CHECK(fp != nullptr);
    if (size >= ZIRN_HDR_SIZE && fread(&hdr, ZIRN_HDR_SIZE, 1, fp) == 1 && uiCheckZIRNImgHdrV10(&hdr, size) == 0) {
        FUZZ_CHECK(iHashZIRNImgFileV10(fp, &hdr, hash, nullptr) == 0);
        const int32_t rc = iVerifyZIRNImgSigV10(&hdr, hash);
        FUZZ_CHECK(rc == 0 || rc == -8 || rc == -9);
    }
    fclose(fp);
    return 0;
}

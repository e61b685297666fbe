// The companion's reading of arbitrary files as protected images: the header check, and for a
// consistent header the hash (which then must read the whole rest) and the signature check.
#include <fcntl.h>
#include <unistd.h>

#include "ZirnImgProt.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const int fd = open(pcInputPath(data, size), O_RDONLY);
    ImgProtHdr hdr;
    uint8_t hash[32];
    FUZZ_CHECK(fd >= 0);
    if (size >= ZIRN_HDR_SIZE && read(fd, &hdr, ZIRN_HDR_SIZE) == ZIRN_HDR_SIZE &&
        uiCheckZIRNImgHdrV10(&hdr, size) == 0) {
        FUZZ_CHECK(iReadZIRNImgBodyV10(fd, &hdr, hash, -1, nullptr, nullptr) == 0);
        const int32_t rc = iVerifyZIRNImgSigV10(&hdr, hash);
        FUZZ_CHECK(rc == 0 || rc == -8 || rc == -9);
    }
    close(fd);
    return 0;
}

// The companion's reading of protected images, on arbitrary files: header check, then for a
// consistent header the hash, the signature check and the decryption of the whole file.
#include "ZirnImgProt.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    vQuietStdout();
    if (size < ZIRN_HDR_SIZE) return 0;
    FILE *fp = fopen(pcInputPath(data, size), "rb"), *sink = fopen("/dev/null", "wb");
    ImgProtHdr hdr;
    FUZZ_CHECK(fp != nullptr && sink != nullptr && fread(&hdr, ZIRN_HDR_SIZE, 1, fp) == 1);
    if (uiCheckZIRNImgHdrV10(&hdr, size) == 0) {
        // The header promises exactly the bytes that follow it, so neither read may fail.
        uint8_t hash[32], key[16] = {}, iv[16] = {};
        FUZZ_CHECK(iHashZIRNImgFileV10(fp, &hdr, hash, nullptr) == 0);
        const int32_t rc = iVerifyZIRNImgSigV10(&hdr, hash);
        FUZZ_CHECK(rc == 0 || rc == -8 || rc == -9);
        FUZZ_CHECK(fseek(fp, ZIRN_HDR_SIZE, SEEK_SET) == 0 && iDecryptZIRNImgFileV10(fp, sink, &hdr, key, iv) == 0);
    }
    fclose(sink);
    fclose(fp);
    return 0;
}

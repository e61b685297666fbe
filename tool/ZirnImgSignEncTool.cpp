// ZirnImgSignEnTool: turns a plain zirn image into a protected image
// (encrypted, signed, self-verified, with header).  Exit status 0 on success,
// 255 on any failure; all messages go to standard output.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ZirnImgProt.h"
#include "ZirnImgProtCfgFileProc.h"

namespace {

void vPrintUsage()
{
    printf("Usage: ZirnImgSignEnTool [cfg] [in] [out] [sz]\n");
    printf("       [cfg]: configuration file for zirn image protection\n");
    printf("       [in]:  plain zirn image binary file\n");
    printf("       [out]: protected zirn image binary file with header\n");
    printf("       [sz]:  the required external memory size (hex notation, 0x????????, <= "
           "0xFFFFFFFF) by zirn image\n");
}

void vPrintInfo()
{
    // The build's own type widths (8 for long on a 64-bit host).
    printf("Info\n");
    printf("hdr size = %d\n", int(sizeof(ImgProtHdr)));
    printf("sizeof(long) = %d\n", int(sizeof(long)));
    printf("sizeof(long long) = %d\n", int(sizeof(long long)));
    printf("sizeof(int) = %d\n", int(sizeof(int)));
}

// Validates the [sz] argument and stores it in ext_mem_size.
int32_t iSetExtMemSize(ImgProtParam *param, const char *arg)
{
    uint32_t ext_mem_size = 0;
    const int32_t rc = iParseExtMemSzV10(arg, &ext_mem_size);
    if (rc == -1) printf("Error: NULL string for external memory size\n");
    if (rc == -2) {
        printf("Error: wrong string format (%s) for external memory size\n", arg);
        printf("       string format should be 0x???????? (<= 0xffffffff)\n");
    }
    vPutLE32(param->hdr.ext_mem_size, ext_mem_size);
    if (rc != 0) {
        printf("Error: incorrect external memory requirement (hex: %s, %d, 0x%08x) !!!\n", arg != nullptr ? arg : "(null)", 0, 0u);
        return -1;
    }
    printf("The required external memory size by ZIRN image is hex: %s (%d, 0x%08x) !!!\n", arg, int32_t(ext_mem_size), ext_mem_size);
    return 0;
}

// Kept reachable until exit: on success the image buffer is released by the
// process exit, not by free, and must not count as a leak.  volatile, so
// that the otherwise unread store is not optimised away.
uint8_t *volatile g_pucImg = nullptr;

int iRun(int argc, char *argv[])
{
    if (argc != 5) {
        vPrintUsage();
        return -1;
    }
    const char *cfg_path = argv[1];
    const char *in_path = argv[2];
    const char *out_path = argv[3];

    vPrintInfo();

    ImgProtParam param;
    vInitImgProtParamV10(&param);
    // The record holds the AES key and the private exponent: wiped on every way out.
    struct WipeOnReturn {
        ImgProtParam *param;
        ~WipeOnReturn() { vWipeImgProtParamV10(param); }
    } wipe_on_return{&param};

    if (iSetExtMemSize(&param, argv[4]) != 0) return -1;
    const uint32_t ext_mem_size = ui4GetLE32(param.hdr.ext_mem_size);

    printf("Start to process zirn img prot cfg file (%s) !!!\n", cfg_path);
    if (iProcZIRNImgProtCfgFileV10(cfg_path, &param) != 0) {
        printf("Error: fail to process zirn img prot cfg file (%s) !!!\n", cfg_path);
        return -1;
    }
    printf("Succeed to process zirn img prot cfg file (%s) !!!\n", cfg_path);

    printf("Star to protect zirn image binary file (%s)!!!\n", in_path);
    // The size query is 32-bit and would take a larger file for its low bits.  A file that cannot
    // be looked at is left to the size query, which reports it.
    struct stat st;
    if (stat(in_path, &st) == 0 && uint64_t(st.st_size) > UINT32_MAX) {
        printf("Error: zirn image binary file (%s) is 4 GiB or larger, which the image format cannot hold\n", in_path);
        return -1;
    }
    const uint32_t n = ui4GetFileSz(in_path);
    if (n == 0) {
        printf("Error: file of zirn image binary file (%s) is 0\n", in_path);
        return -1;
    }
    // Computed wide so that a size near 4 GiB cannot wrap to a small buffer.
    const uint64_t p = (uint64_t(n) + 15) & ~uint64_t(15);
    if (ext_mem_size < p) {
        printf("Error: the required external memory size (%d) should be larger than the size (%d) "
               "of the encrypted zirn image\n",
               int32_t(ext_mem_size), int32_t(uint32_t(p)));
        return -1;
    }

    uint8_t *img = pucReadZIRNImgV10(in_path, n);
    if (img == nullptr) return -1;
    if (iProtZIRNImgV10(&param, img, n, out_path) != 0) {
        free(img);
        printf("Error: fail to protect zirn image binary file (%s)\n", in_path);
        return -1;
    }
    g_pucImg = img;
    printf("Succeed to protect zirn image binary file (%s -> %s)!!!\n", in_path, out_path);
    return 0;
}

// Standard output carries the parsed configuration, secrets included: its buffer is ours, so
// that it can be wiped once everything has been written.
char g_stdout_buf[BUFSIZ];

// An exit handler: runs before the C library's own last flush, which then has nothing to write.
void vFlushAndWipeStdout()
{
    fflush(stdout);
    vWipeTextBufV10(g_stdout_buf, sizeof g_stdout_buf);
}

}  // namespace

int main(int argc, char *argv[])
{
    // The buffering the C library would choose on its own, in a buffer of our own.
    setvbuf(stdout, g_stdout_buf, isatty(STDOUT_FILENO) ? _IOLBF : _IOFBF, sizeof g_stdout_buf);
    atexit(vFlushAndWipeStdout);
    return iRun(argc, argv);
}

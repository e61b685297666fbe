// Configuration unit: reads the protection configuration file into the
// parameter record, converts its "0x" hex values, and sizes files.
#include "ZirnImgProtCfgFileProc.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

// One line of the configuration file.  fgets keeps at most 4095 characters
// plus the terminator here; a longer physical line arrives in pieces, each
// parsed as a line of its own.  Static: one parse at a time.
char lauc_line[4096];
// The configuration stream's read buffer, ours so that it can be wiped.
char lauc_cfg_iobuf[BUFSIZ];

// One configuration key: where its value goes in ImgProtParam and how a
// failed conversion is reported.
struct CfgKey {
    std::string_view key;   // matched as a prefix of the first token
    size_t offset;          // destination offset inside ImgProtParam
    int32_t bytes;          // value length in bytes (twice as many hex digits)
    uint32_t seen;          // keys_seen bit
    const char *err_fmt;    // printed with the value text when conversion fails
    int32_t result;
};

// ENC_PARAM fills IV and key in one go, so the two must be adjacent.
static_assert(offsetof(ImgProtParam, enc_key) == offsetof(ImgProtParam, enc_iv) + 16);

// Tested in this order; the first key that prefixes the token wins.
constexpr std::array<CfgKey, 5> lcast_cfg_keys = {{
    {"IMG_VER", offsetof(ImgProtParam, hdr) + offsetof(ImgProtHdr, img_ver), 2, IMG_VER_SEEN,
     "Error: parsing image version: %s\n", -4},
    {"ENC_PARAM", offsetof(ImgProtParam, enc_iv), 32, ENC_PARAM_SEEN,
     "Error: parsing enc param: %s\n", -5},
    {"DEC_PARAM", offsetof(ImgProtParam, hdr) + offsetof(ImgProtHdr, dec_param), 32,
     DEC_PARAM_SEEN, "Error: parsing dec param: %s\n", -6},
    {"AUTH_PARAM_N", offsetof(ImgProtParam, hdr) + offsetof(ImgProtHdr, auth_n), 256,
     AUTH_PARAM_N_SEEN, "Error: parsing auth param n: %s\n", -7},
    {"AUTH_PARAM_D", offsetof(ImgProtParam, auth_d), 256, AUTH_PARAM_D_SEEN,
     "Error: parsing auth param d: %s\n", -8},
}};

// Missing tokens are reported as "(null)"; printf is never handed a null %s.
const char *lpcTokText(const char *tok) { return tok != nullptr ? tok : "(null)"; }

const CfgKey *lpstFindCfgKey(const char *tok)
{
    for (const CfgKey &k : lcast_cfg_keys) {
        if (strncmp(tok, k.key.data(), k.key.size()) == 0) return &k;
    }
    return nullptr;
}

int32_t liHexDigitVal(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Parses the line in lauc_line into the record and prints it.  Returns 0 to go on, or the
// result code of a value that failed to convert.
int32_t liParseCfgLine(ImgProtParam *param)
{
    size_t pos = 0;
    while (pos < sizeof lauc_line && lauc_line[pos] == ' ') pos++;
    if (pos == sizeof lauc_line) return 0;

    // Column 1 only: an empty line or a comment starting the line.
    if (lauc_line[0] == '\n' || lauc_line[0] == '#') return 0;

    char *key = strtok(&lauc_line[pos], " ");
    // Nothing but blanks up to the end of the text (a last line without
    // a line end, or blanks before a NUL byte): same as an empty line.
    if (key == nullptr) return 0;
    if (key[0] == '\n' || key[0] == '#') {
        printf("Skip Comment/Empty line (%s)\n", key);
        return 0;
    }
    char *sep = strtok(nullptr, " ");  // by convention "=", never examined
    char *val = strtok(nullptr, " \n");

    const CfgKey *k = lpstFindCfgKey(key);
    if (k != nullptr) {
        if (iConvHexStrToValBuf(val, reinterpret_cast<uint8_t *>(param) + k->offset, k->bytes) != 0) {
            printf(k->err_fmt, lpcTokText(val));
            return k->result;
        }
        vPutLE32(param->keys_seen, ui4GetLE32(param->keys_seen) | k->seen);
    } else {
        printf("Skip ");
    }
    printf("Parsing Line Below =>\n%s %s %s\n", key, lpcTokText(sep), lpcTokText(val));
    return 0;
}

}  // namespace

FILE *pfOpenRegFileV10(const char *path, const char *mode)
{
    // Non-blocking, so that opening a FIFO without a writer returns at once; nothing is read
    // before the type is known.  The flag stays: reads of a regular file never block anyway.
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return nullptr;
    struct stat st;
    int err = EINVAL;
    if (fstat(fd, &st) != 0) {
        err = errno;
    } else if (S_ISREG(st.st_mode)) {
        if (FILE *fp = fdopen(fd, mode); fp != nullptr) return fp;
        err = errno;
    }
    close(fd);
    errno = err;
    return nullptr;
}

void vWipeTextBufV10(void *buf, size_t len)
{
    volatile char *p = static_cast<volatile char *>(buf);
    for (size_t i = 0; i < len; i++) p[i] = 0;
}

std::array<std::span<const char>, 2> aspCfgTextBufsV10() { return {lauc_line, lauc_cfg_iobuf}; }

int32_t iConvHexStrToValBuf(const char *str, uint8_t *buf, int32_t len)
{
    if (str == nullptr || buf == nullptr || len < 0) {
        printf("Error: incorrect input parameter for converting hex string to value buffer\n");
        return -1;
    }
    // str[1] is only looked at when str[0] is '0', so a short string is
    // never read past its terminator.
    if (str[0] != '0') {
        printf("Error: hex string should start by 0x or 0X (%c)\n", str[0]);
        return -2;
    }
    if (str[1] != 'x' && str[1] != 'X') {
        printf("Error: hex string should start by 0x or 0X (%c)\n", str[1]);
        return -3;
    }
    if (len == 0) return 0;

    // Exactly 2*len digits; the terminator counts as a wrong character, so
    // the scan stops at the end of a short string.  A byte is stored only
    // once its low nibble is read.
    const char *digits = str + 2;
    const int64_t ndigits = int64_t(len) * 2;
    uint8_t high = 0;
    for (int64_t i = 0; i < ndigits; i++) {
        const int32_t v = liHexDigitVal(digits[i]);
        if (v < 0) {
            printf("Error: wrong characters (%c) in hex string\n", digits[i]);
            return -4;
        }
        if ((i & 1) == 0) {
            high = uint8_t(v << 4);
        } else {
            buf[i / 2] = uint8_t(high | v);
        }
    }
    return 0;
}

int32_t iProcZIRNImgProtCfgFileV10(const char *path, ImgProtParam *param)
{
    if (path == nullptr) {
        printf("Error: Input file name (zirn image protection configuration file) is NULL\n");
        return -1;
    }
    if (param == nullptr) {
        printf("Error: Parameter structure is NULL\n");
        return -1;
    }
    FILE *fp = pfOpenRegFileV10(path, "r");
    if (fp == nullptr) {
        printf("Error: fail to open file (%s)\n", path);
        return -2;
    }
    // Before the first read, so that the file's text lands nowhere but in buffers we wipe.
    setvbuf(fp, lauc_cfg_iobuf, _IOFBF, sizeof lauc_cfg_iobuf);

    int32_t result = 0;
    while (fgets(lauc_line, sizeof lauc_line, fp) != nullptr) {
        result = liParseCfgLine(param);
        vWipeTextBufV10(lauc_line, sizeof lauc_line);
        if (result != 0) break;
    }
    vWipeTextBufV10(lauc_line, sizeof lauc_line);  // a failed read may leave text there

    const int closed = fclose(fp);
    vWipeTextBufV10(lauc_cfg_iobuf, sizeof lauc_cfg_iobuf);
    if (closed != 0) {
        printf("Error: fail to close file (%s)\n", path);
        return -3;
    }
    return result;
}

uint32_t ui4GetFileSz(const char *path)
{
    if (path == nullptr) {
        printf("Error: No file name for getting file size\n");
        return 0;
    }
    FILE *fp = pfOpenRegFileV10(path, "rb");
    if (fp == nullptr) {
        printf("Error: fail to open file (%s) for getting file size\n", path);
        return 0;
    }
    uint32_t size = 0;
    if (fseek(fp, 0, SEEK_END) != 0) {
        printf("Error: fail to seek file (%s) for getting file size\n", path);
    } else {
        // A failing ftell (-1) comes back as 0xFFFFFFFF; sizes are 32-bit.
        size = uint32_t(ftell(fp));
    }
    if (fclose(fp) != 0) {
        printf("Error: fail to close file (%s) for getting file size\n", path);
        return 0;
    }
    return size;
}

int32_t iParseExtMemSzV10(const char *arg, uint32_t *size)
{
    *size = 0;
    if (arg == nullptr) return -1;
    // At most ten characters after the mandatory 0x keep the value within 32 bits.
    if (arg[0] != '0' || (arg[1] != 'x' && arg[1] != 'X') || strlen(arg) > 10) return -2;
    *size = uint32_t(strtoul(arg, nullptr, 16));
    return *size != 0 ? 0 : -3;
}

namespace {

// A large image buffer is 2 MiB-aligned and the kernel is asked to back it with huge pages: a
// fresh 64 MiB buffer otherwise costs some 16,000 page faults, as much time as its encryption.
// Where huge pages are not available it is simply normal memory.
uint8_t *lpucAllocImage(uint32_t size)
{
    constexpr size_t HUGE_PAGE = size_t(2) << 20;
    if (size < HUGE_PAGE) return static_cast<uint8_t *>(malloc(size));
    const size_t rounded = (size_t(size) + HUGE_PAGE - 1) & ~(HUGE_PAGE - 1);
    void *buf = aligned_alloc(HUGE_PAGE, rounded);
#ifdef MADV_HUGEPAGE
    if (buf != nullptr) madvise(buf, rounded, MADV_HUGEPAGE);
#endif
    return static_cast<uint8_t *>(buf);
}

}  // namespace

uint8_t *pucReadZIRNImgV10(const char *path, uint32_t plain_size)
{
    FILE *fp = pfOpenRegFileV10(path, "r");
    if (fp == nullptr) {
        printf("Error: fail to open zirn image binary file (%s)\n", path);
        return nullptr;
    }
    uint8_t *img = lpucAllocImage(ui4PaddedSz(plain_size));
    const char *failure = nullptr;
    if (img == nullptr) {
        printf("Error: fail to allocate memory for zirn image binary file\n");
        failure = "alloc";
    } else if (fread(img, 1, plain_size, fp) != plain_size) {
        printf("Error: fail to read data (%d) from zirn image binary file (%s)\n", int(plain_size), path);
        failure = "read";
    }
    if (fclose(fp) != 0) {
        printf("Error: fail to close zirn image binary file (%s)\n", path);
        failure = "close";
    }
    if (failure == nullptr) return img;
    free(img);
    return nullptr;
}

// Hex conversion against an independent decode.  First input byte: the byte count (signed); the
// rest: the text, copied with a terminator into a block of exactly that size.
#include "ZirnImgProtCfgFileProc.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) return 0;
    const int32_t len = int8_t(data[0]);
    std::vector<char> text(size);
    std::vector<uint8_t> buf(size_t(std::max(len, 1))), want(128);  // len bytes (0: one)
    std::copy_n(data + 1, size - 1, text.begin());
    static const char HEX[] = "0123456789abcdef0123456789ABCDEF";
    int32_t expect = len < 0 ? -1 : text[0] != '0' ? -2 : text[1] != 'x' && text[1] != 'X' ? -3 : 0;
    int32_t done = 0;
    for (int32_t i = 0; expect == 0 && i < 2 * len; ++i) {
        const char *digit = static_cast<const char *>(memchr(HEX, text[2 + i], 32));  // not NUL
        if (digit == nullptr) expect = -4;
        else want[i / 2] = uint8_t(want[i / 2] << 4 | (digit - HEX) % 16), done = (i + 1) / 2;
    }
    FUZZ_CHECK(iConvHexStrToValBuf(text.data(), buf.data(), len) == expect);
    FUZZ_CHECK(std::equal(want.begin(), want.begin() + done, buf.begin()));  // completed bytes stay
    return 0;
}

// Hex conversion against an independent decode: first input byte = byte count (signed), the rest
// is the text, copied to a heap block of exactly its size plus terminator.
#include <cstring>
#include <memory>

#include "ZirnImgProtCfgFileProc.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    vQuietStdout();
    if (size == 0) return 0;
    const int32_t len = int8_t(data[0]);
    std::unique_ptr<char[]> text(new char[size]);
    memcpy(text.get(), data + 1, size - 1);
    text[size - 1] = '\0';
    std::unique_ptr<uint8_t[]> buf(new uint8_t[len > 0 ? len : 0]), want(new uint8_t[128]());

    // Expected result and the bytes completed before it.
    static const char HEX[] = "0123456789abcdef0123456789ABCDEF";
    int32_t expect = 0, done = 0;
    if (len < 0) expect = -1;
    else if (text[0] != '0') expect = -2;
    else if (text[1] != 'x' && text[1] != 'X') expect = -3;
    for (int32_t i = 0; expect == 0 && i < 2 * len; ++i) {
        const void *digit = memchr(HEX, text[2 + i], 32);  // the terminator is not among the 32
        if (digit == nullptr) expect = -4;
        else want[i / 2] = uint8_t(want[i / 2] << 4 | (static_cast<const char *>(digit) - HEX) % 16);
        done = expect == 0 && i % 2 == 1 ? i / 2 + 1 : done;
    }

    const int32_t rc = iConvHexStrToValBuf(text.get(), buf.get(), len);
    FUZZ_CHECK(rc == expect);
    FUZZ_CHECK(memcmp(buf.get(), want.get(), size_t(done)) == 0);
    return 0;
}

#include <gtest/gtest.h>

#include "hexdump.h"
#include "testutil.h"

TEST(HexDump, PrintsBytesAsOneLowerCaseNumber)
{
    struct Case {
        zt::Bytes bytes;
        int32_t len;
        const char *expected;
    } cases[] = {
        {{0x01, 0xAB}, 2, "0x01ab\n"},
        {{0x00}, 1, "0x00\n"},
        {{0xFF, 0x10, 0x0a}, 3, "0xff100a\n"},
        {{0x01, 0x02}, 0, "0x\n"},
        {{0x01, 0x02}, -5, "0x\n"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(zt::capture_stdout([&] { vHexDumpBuf(c.bytes.data(), c.len); }), c.expected);
    }
}

TEST(HexDump, LongBufferStaysOnOneLine)
{
    zt::Bytes b(256);
    for (size_t i = 0; i < b.size(); i++) b[i] = uint8_t(i);
    std::string out = zt::capture_stdout([&] { vHexDumpBuf(b.data(), int32_t(b.size())); });
    EXPECT_EQ(out, "0x" + zt::to_hex(b) + "\n");
}

#include "hexdump.h"

#include <cstdio>

void vHexDumpBuf(const uint8_t *buf, int32_t len)
{
    printf("0x");
    for (int32_t i = 0; i < len; i++) printf("%02x", buf[i]);
    printf("\n");
}

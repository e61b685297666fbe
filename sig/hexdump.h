// Console hex dump shared by the signing code and the protection pipeline.
#pragma once

#include <cstdint>

// Prints "0x", then every byte of buf as two lower-case hex digits with no
// separators, then one line feed.  len <= 0 prints "0x\n" (buf unused).
void vHexDumpBuf(const uint8_t *buf, int32_t len);

// SHA-1, one-shot, portable code only.  Kept for recognising signatures whose PSS mask was made
// with MGF1 over SHA-1; nothing in the project signs or hashes content with it.
#pragma once

#include <cstddef>
#include <cstdint>

// Writes the 20-byte digest of len bytes at in (may be null when len is 0) to out.
void sha1(const uint8_t *in, size_t len, uint8_t out[20]);

// Inside the crypto module only: which instruction paths this build compiles.
#pragma once

#include "cpu_features.h"

// The architectures this build has instruction paths for (the queries of
// cpu_features.h exist everywhere).  AArch64 needs Linux for the
// detection, little-endian lanes for the vector code, and, with clang, version
// 16 or later, whose arm_neon.h offers the AES and SHA-256 intrinsics to single
// functions compiled for them (older ones build the portable code there).
#if defined(__x86_64__)
#define CRYPTO_HW_X86_64 1
#elif defined(__aarch64__) && defined(__linux__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ && \
    (!defined(__clang__) || __clang_major__ >= 16)
#define CRYPTO_HW_AARCH64 1
#endif

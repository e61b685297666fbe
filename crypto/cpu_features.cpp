// Run-time choice between the instruction paths and the portable code.
// See cpu_features.h.

#include "cpu_features_internal.h"

#include <atomic>

#if defined(CRYPTO_HW_X86_64)
#include <cpuid.h>
#elif defined(CRYPTO_HW_AARCH64)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

namespace {

struct CpuFeatures {
    bool aes;     // x86-64: AESENC/AESDEC/AESKEYGENASSIST/AESIMC; AArch64: AESE/AESD/AESMC/AESIMC
    bool sha256;  // x86-64: SHA256RNDS2/MSG1/MSG2 plus the SSE4.1 and SSSE3 shuffles around them;
                  // AArch64: SHA256H/H2/SU0/SU1
};

CpuFeatures detect()
{
    CpuFeatures f = {false, false};
#if defined(CRYPTO_HW_X86_64)
    unsigned a, b, c, d;
    if (__get_cpuid(1, &a, &b, &c, &d) == 0) return f;
    const bool ssse3 = (c & bit_SSSE3) != 0, sse41 = (c & bit_SSE4_1) != 0;
    f.aes = (c & bit_AES) != 0;
    // Leaf 7 exists only on newer processors; __get_cpuid_count checks that.
    if (__get_cpuid_count(7, 0, &a, &b, &c, &d) != 0)
        f.sha256 = (b & bit_SHA) != 0 && ssse3 && sse41;
#elif defined(CRYPTO_HW_AARCH64)
    // The ID registers are the kernel's to read; it passes the answer in the
    // auxiliary vector.  Advanced SIMD, which the code around the
    // instructions uses, is present on every AArch64 Linux system.
    const unsigned long hwcap = getauxval(AT_HWCAP);
    f.aes = (hwcap & HWCAP_AES) != 0;
    f.sha256 = (hwcap & HWCAP_SHA2) != 0;
#endif
    return f;
}

// Asked once; the answer cannot change while the process runs.
const CpuFeatures &features()
{
    static const CpuFeatures f = detect();
    return f;
}

// Relaxed is enough: the flag orders nothing else, and either path gives
// the same result.
std::atomic<bool> l_force_portable{false};

}  // namespace

void crypto_force_portable(int on) { l_force_portable.store(on != 0, std::memory_order_relaxed); }

int crypto_aes_accelerated(void)
{
    return !l_force_portable.load(std::memory_order_relaxed) && features().aes ? 1 : 0;
}

int crypto_sha256_accelerated(void)
{
    return !l_force_portable.load(std::memory_order_relaxed) && features().sha256 ? 1 : 0;
}

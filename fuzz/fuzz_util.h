// Shared bits of the fuzz targets.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

// The library reports on standard output; a fuzz run only wants the sanitizers' findings.
inline void vQuietStdout()
{
    static FILE *const lp_null = freopen("/dev/null", "w", stdout);
    if (lp_null == nullptr) abort();
}

// The input as the whole content of a memory file; returns a path that opens it from the start.
inline const char *pcInputPath(const uint8_t *data, size_t size)
{
    static const int li_fd = memfd_create("fuzz_input", 0);
    static char lac_path[64];
    if (li_fd < 0 || ftruncate(li_fd, 0) != 0 || pwrite(li_fd, data, size, 0) != ssize_t(size)) abort();
    snprintf(lac_path, sizeof lac_path, "/proc/self/fd/%d", li_fd);
    return lac_path;
}

// A failed check: abort so that libFuzzer keeps the input as a crash.
#define FUZZ_CHECK(cond) ((cond) ? (void)0 : (fprintf(stderr, "check failed: %s\n", #cond), abort()))

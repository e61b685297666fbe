// Shared bits of the fuzz targets.
#pragma once
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

// A failed check aborts, so that libFuzzer keeps the input.
#define FUZZ_CHECK(cond) ((cond) ? void() : (fprintf(stderr, "check failed: %s\n", #cond), abort()))

// The library reports on standard output: silenced once, at start.
[[maybe_unused]] static FILE *const lp_quiet_stdout = freopen("/dev/null", "w", stdout);

// The input as the whole content of a memory file; the path returned opens it from the start.
inline const char *pcInputPath(const uint8_t *data, size_t size)
{
    static const int li_fd = memfd_create("fuzz_input", 0);
    static char lac_path[32];
    FUZZ_CHECK(li_fd >= 0 && ftruncate(li_fd, 0) == 0);
    FUZZ_CHECK(pwrite(li_fd, data, size, 0) == ssize_t(size));
    snprintf(lac_path, sizeof lac_path, "/proc/self/fd/%d", li_fd);
    return lac_path;
}

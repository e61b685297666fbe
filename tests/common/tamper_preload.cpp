// Preloaded into an executable under test (LD_PRELOAD): once the file ZIRN_TAMPER_PATH has been
// read to its end, byte ZIRN_TAMPER_OFFSET of it is flipped, as a co-user who can write the file
// would do between two reads.  A program that reads each byte once never sees the change.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

unsigned long long g_read = 0;
bool g_done = false;

void vCount(int fd, long long n)
{
    const char *path = getenv("ZIRN_TAMPER_PATH");
    struct stat target, st;
    if (n <= 0 || g_done || path == nullptr || stat(path, &target) != 0) return;
    if (fstat(fd, &st) != 0 || st.st_ino != target.st_ino || st.st_dev != target.st_dev) return;
    g_read += (unsigned long long)n;
    if (g_read < (unsigned long long)target.st_size) return;
    g_done = true;
    const int w = open(path, O_RDWR);
    unsigned char b;
    const off_t at = off_t(strtoll(getenv("ZIRN_TAMPER_OFFSET"), nullptr, 10));
    if (w >= 0 && pread(w, &b, 1, at) == 1) {
        b ^= 0x80;
        if (pwrite(w, &b, 1, at) != 1) abort();
    }
    if (w >= 0) close(w);
}

}  // namespace

extern "C" ssize_t read(int fd, void *buf, size_t len)
{
    static auto real = reinterpret_cast<ssize_t (*)(int, void *, size_t)>(dlsym(RTLD_NEXT, "read"));
    const ssize_t n = real(fd, buf, len);
    vCount(fd, n);
    return n;
}

extern "C" size_t fread(void *buf, size_t size, size_t n, FILE *fp)
{
    static auto real = reinterpret_cast<decltype(&fread)>(dlsym(RTLD_NEXT, "fread"));
    const size_t got = real(buf, size, n, fp);
    vCount(fileno(fp), (long long)(got * size));
    return got;
}

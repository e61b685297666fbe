// Preloaded into an executable under test (LD_PRELOAD), as a co-user who can write the file
// ZIRN_TAMPER_PATH would act between two reads: with ZIRN_TAMPER_HOW a number, once the file has
// been read to its end, the byte at that offset is flipped (a program that reads each byte once
// never sees the change); with "cut", the file is cut to half its size before its first read.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {

unsigned long long g_read = 0;
bool g_done = false;

// Called before (n < 0) and after each read of fd that returned n bytes.
void vTamper(int fd, long long n)
{
    const char *path = getenv("ZIRN_TAMPER_PATH"), *how = getenv("ZIRN_TAMPER_HOW");
    const bool cut = how != nullptr && strcmp(how, "cut") == 0;
    struct stat target, st;
    if (n == 0 || (n < 0) != cut || g_done || path == nullptr || stat(path, &target) != 0) return;
    if (fstat(fd, &st) != 0 || st.st_ino != target.st_ino || st.st_dev != target.st_dev) return;
    if (cut) {
        g_done = true;
        if (truncate(path, target.st_size / 2) != 0) abort();
        return;
    }
    g_read += (unsigned long long)n;
    if (g_read < (unsigned long long)target.st_size) return;
    g_done = true;
    const int w = open(path, O_RDWR);
    unsigned char b;
    const off_t at = off_t(strtoll(how, nullptr, 10));
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
    vTamper(fd, -1);
    const ssize_t n = real(fd, buf, len);
    vTamper(fd, n);
    return n;
}

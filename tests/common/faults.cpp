// Fault injection for a test build of the signer: its own calls of the allocators and of fread,
// fwrite and fclose are linked through these wrappers (-Wl,--wrap=...), and ZIRN_FAULT=KIND:N
// (KIND alloc, fread, fwrite or fclose) makes the N-th such call fail as a full disk or an
// exhausted heap would.  With N = 0 nothing fails and the number of calls is printed at exit.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t n, size_t size);
void *__real_aligned_alloc(size_t align, size_t size);
size_t __real_fread(void *p, size_t size, size_t n, FILE *f);
size_t __real_fwrite(const void *p, size_t size, size_t n, FILE *f);
int __real_fclose(FILE *f);
}

namespace {

char g_kind[16];
long g_fail_at = -1, g_calls = 0;

void report() { fprintf(stderr, "%s calls: %ld\n", g_kind, g_calls); }

bool fails(const char *kind)
{
    const char *env = g_fail_at < 0 ? getenv("ZIRN_FAULT") : nullptr;
    if (env != nullptr && sscanf(env, "%15[a-z]:%ld", g_kind, &g_fail_at) == 2 && g_fail_at == 0)
        atexit(report);
    return strcmp(kind, g_kind) == 0 && ++g_calls == g_fail_at &&
           (errno = strcmp(kind, "alloc") ? ENOSPC : ENOMEM);
}

// With ZIRN_STDOUT_CHECK set, says on standard error after the program's own exit handlers
// whether standard output's buffer (glibc's FILE) still holds any byte of what was printed.
struct StdoutCheck {
    ~StdoutCheck()
    {
        const char *p = stdout->_IO_buf_base, *end = stdout->_IO_buf_end;
        const bool wiped = p != nullptr && std::all_of(p, end, [](char c) { return c == 0; });
        if (getenv("ZIRN_STDOUT_CHECK") != nullptr)
            fprintf(stderr, "stdout buffer %s\n", wiped ? "wiped" : "holds text");
    }
} g_stdout_check;

}  // namespace

extern "C" {
void *__wrap_malloc(size_t size) { return fails("alloc") ? nullptr : __real_malloc(size); }
void *__wrap_calloc(size_t n, size_t sz) { return fails("alloc") ? nullptr : __real_calloc(n, sz); }
void *__wrap_aligned_alloc(size_t align, size_t size)
{
    return fails("alloc") ? nullptr : __real_aligned_alloc(align, size);
}
size_t __wrap_fread(void *p, size_t size, size_t n, FILE *f)  // a failure is a short read
{
    return fails("fread") ? __real_fread(p, size, n / 2, f) : __real_fread(p, size, n, f);
}
size_t __wrap_fwrite(const void *p, size_t size, size_t n, FILE *f)
{
    return fails("fwrite") ? 0 : __real_fwrite(p, size, n, f);
}
int __wrap_fclose(FILE *f) { return __real_fclose(f) != 0 || fails("fclose") ? EOF : 0; }
}

#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "report.h"
#include "workbuf.h"

namespace zi {

namespace {

// Live temporary files, for the signal handler: a slot is filled before the file exists and
// emptied after it is gone, with the signals blocked in between, so the handler never misses one
// and only ever calls unlink on complete names.
constexpr int SLOTS = 4;
constexpr size_t SLOT_PATH = 4096;
char g_slot_path[SLOTS][SLOT_PATH];
volatile sig_atomic_t g_slot_live[SLOTS];
constexpr int CLEANUP_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};

void vOnSignal(int sig)
{
    for (int i = 0; i < SLOTS; i++) {
        if (g_slot_live[i]) unlink(g_slot_path[i]);
    }
    _exit(128 + sig);
}

struct BlockSignals {
    sigset_t old;
    BlockSignals()
    {
        sigset_t set;
        sigemptyset(&set);
        for (int s : CLEANUP_SIGNALS) sigaddset(&set, s);
        sigprocmask(SIG_BLOCK, &set, &old);
    }
    ~BlockSignals() { sigprocmask(SIG_SETMASK, &old, nullptr); }
};

std::string sFolderOf(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

void vRelease(Output *o)
{
    const BlockSignals blocked;
    if (o->fd >= 0) close(std::exchange(o->fd, -1));
    if (o->slot >= 0) {
        unlink(o->tmp.c_str());
        g_slot_live[std::exchange(o->slot, -1)] = 0;
    }
}

}  // namespace

Input::~Input()
{
    if (fd >= 0) close(fd);
}

int iOpenInput(const char *path, Input *in)
{
    // O_NONBLOCK: opening a FIFO with no writer would otherwise wait forever.
    in->fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    struct stat st;
    if (in->fd < 0 || fstat(in->fd, &st) != 0) return iFail(EXIT_IO, "cannot read %s: %s", path, strerror(errno));
    // O_NONBLOCK stays set: reads of a regular file never block anyway.
    if (!S_ISREG(st.st_mode)) return iFail(EXIT_IO, "cannot read %s: not a regular file", path);
    in->size = uint64_t(st.st_size);
    return EXIT_OK;
}

bool bReadAll(int fd, void *buf, size_t len)
{
    for (size_t got = 0; got < len;) {
        const ssize_t n = read(fd, static_cast<uint8_t *>(buf) + got, len - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        got += size_t(n);
    }
    return true;
}

SecretText::~SecretText()
{
    if (text == nullptr) return;
    vWipeBuf(text, len + 1);
    free(text);
}

int iReadSecretText(const char *path, size_t max, int too_large_code, SecretText *out)
{
    Input in;
    const int rc = iOpenInput(path, &in);
    if (rc != EXIT_OK) return rc;
    if (in.size > max) return iFail(too_large_code, "%s: %llu bytes, more than the %zu this file may hold", path, (unsigned long long)in.size, max);
    // One allocation of the size fstat gave, read once; a file that grew since is cut there.
    out->len = size_t(in.size);
    out->text = static_cast<char *>(calloc(out->len + 1, 1));
    if (out->text == nullptr) return iFail(EXIT_IO, "cannot read %s: out of memory", path);
    size_t got = 0;
    for (ssize_t n; got < out->len && (n = read(in.fd, out->text + got, out->len - got)) != 0; got += n > 0 ? size_t(n) : 0) {
        if (n < 0 && errno != EINTR) return iFail(EXIT_IO, "cannot read %s: %s", path, strerror(errno));
    }
    out->len = got;
    return EXIT_OK;
}

Output::~Output() { vRelease(this); }

int iOpenOutput(const char *path, bool secret, Output *o)
{
    o->path = path;
    o->tmp = o->path.substr(0, o->path.rfind('/') + 1) + ".zirnimg.XXXXXX";
    if (o->tmp.size() >= SLOT_PATH) return iFail(EXIT_IO, "cannot write %s: the name is too long", path);
    const BlockSignals blocked;
    int slot = 0;
    while (slot < SLOTS && g_slot_live[slot]) slot++;
    if (slot == SLOTS) return iFail(EXIT_IO, "cannot write %s: too many outputs", path);
    // mkstemp creates the file owner-only (0600) and fills in the name in place; the slot gets the
    // final name once it is known, before the signals are unblocked.
    o->fd = mkostemp(o->tmp.data(), O_CLOEXEC);
    if (o->fd < 0) return iFail(EXIT_IO, "cannot write %s: %s", path, strerror(errno));
    memcpy(g_slot_path[slot], o->tmp.c_str(), o->tmp.size() + 1);
    g_slot_live[slot] = 1;
    o->slot = slot;
    if (!secret) {
        const mode_t mask = umask(0);
        umask(mask);
        if (fchmod(o->fd, 0666 & ~mask) != 0) return iFail(EXIT_IO, "cannot write %s: %s", path, strerror(errno));
    }
    return EXIT_OK;
}

int iWriteOutput(Output *o, const void *buf, size_t len)
{
    for (size_t done = 0; done < len;) {
        const ssize_t n = write(o->fd, static_cast<const uint8_t *>(buf) + done, len - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return iFail(EXIT_IO, "cannot write %s: %s", o->path.c_str(), strerror(n < 0 ? errno : ENOSPC));
        done += size_t(n);
    }
    return EXIT_OK;
}

int iCommitOutput(Output *o, bool replace)
{
    int err = fsync(o->fd) != 0 ? errno : 0;
    if (close(std::exchange(o->fd, -1)) != 0 && err == 0) err = errno;
    if (err == 0) {
        const BlockSignals blocked;
        // Without replace, link + unlink: link fails with EEXIST rather than replace a file.
        const int moved = replace ? rename(o->tmp.c_str(), o->path.c_str()) : link(o->tmp.c_str(), o->path.c_str());
        if (moved != 0) err = errno;
        if (moved == 0 && !replace) unlink(o->tmp.c_str());
        if (moved == 0) g_slot_live[std::exchange(o->slot, -1)] = 0;
    }
    if (err != 0) {
        vRelease(o);
        return iFail(EXIT_IO, "cannot write %s: %s", o->path.c_str(), strerror(err));
    }
    // The rename is durable only once the folder is.
    const int dir = open(sFolderOf(o->path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool synced = dir >= 0 && fsync(dir) == 0;
    if (dir >= 0) close(dir);
    return synced ? EXIT_OK : iFail(EXIT_IO, "cannot sync the folder of %s: %s", o->path.c_str(), strerror(errno));
}

void vInstallSignalCleanup()
{
    struct sigaction sa {};
    sa.sa_handler = vOnSignal;
    sigfillset(&sa.sa_mask);
    for (int s : CLEANUP_SIGNALS) sigaction(s, &sa, nullptr);
}

}  // namespace zi

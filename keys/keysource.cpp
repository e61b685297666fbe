// The key sources that need nothing beyond the project: raw (n, d) keys signed with the project's
// own PSS and RSA code, and signing helper programs; plus the secret and file reading every
// source shares.
#include "keysource.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <pthread.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "ZirnImgProt.h"
#include "keys_internal.h"
#include "rsa2048.h"
#include "rsa2048_pss.h"
#include "workbuf.h"

namespace zk {
namespace detail {

Secret::~Secret() { vWipeBuf(text, sizeof text); }

bool Secret::append(char c)
{
    if (len + 1 >= sizeof text) return false;
    text[len++] = c;
    return true;
}

Fd::~Fd()
{
    if (fd >= 0) close(fd);
}

KeyError read_file_once(const std::string &path, size_t max, std::vector<uint8_t> *out)
{
    // O_NONBLOCK: a FIFO or device named by mistake must not hang the open.
    const Fd f(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (f.fd < 0) return fail(KeyErr::io, "cannot open " + path + ": " + strerror(errno));
    struct stat st {};
    if (fstat(f.fd, &st) != 0 || !S_ISREG(st.st_mode)) return fail(KeyErr::io, path + " is not a regular file");
    // Reserved up front: growing would leave copies of a secret in freed blocks.
    out->assign(max + 1, 0);
    size_t got = 0;
    while (got < out->size()) {
        const ssize_t r = read(f.fd, out->data() + got, out->size() - got);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) {
            const int e = errno;
            vWipeBuf(out->data(), out->size());
            return fail(KeyErr::io, "cannot read " + path + ": " + strerror(e));
        }
        if (r == 0) break;
        got += size_t(r);
    }
    if (got > max) {
        vWipeBuf(out->data(), out->size());
        return fail(KeyErr::io, path + " is larger than " + std::to_string(max) + " bytes");
    }
    out->resize(got);  // shrinking keeps the block: no copy
    return {};
}

namespace {

// The terminal of one prompt: echo off from before the prompt shows (so nothing typed after it
// is echoed or flushed) until it is restored, with a new line for the Enter that was not echoed.
struct QuietTerminal {
    Fd tty{open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)};
    int open_errno = errno;
    struct termios old {};
    bool quiet = false;
    QuietTerminal()
    {
        if (tty.fd < 0 || tcgetattr(tty.fd, &old) != 0) return;
        struct termios q = old;
        q.c_lflag &= ~tcflag_t(ECHO);
        q.c_lflag |= ICANON;
        quiet = tcsetattr(tty.fd, TCSAFLUSH, &q) == 0;
    }
    ~QuietTerminal()
    {
        if (!quiet) return;
        tcsetattr(tty.fd, TCSAFLUSH, &old);
        [[maybe_unused]] const ssize_t w = write(tty.fd, "\n", 1);
    }
};

}  // namespace

KeyError prompt_secret(const std::string &what, Secret *out)
{
    if (!isatty(0)) return fail(KeyErr::usage, "no " + what + " given and standard input is not a terminal");
    const QuietTerminal t;
    if (t.tty.fd < 0) return fail(KeyErr::io, std::string("cannot open the terminal: ") + strerror(t.open_errno));
    const std::string prompt = "Enter " + what + ": ";
    if (!t.quiet || write(t.tty.fd, prompt.data(), prompt.size()) < 0)
        return fail(KeyErr::io, "cannot set up the terminal");
    KeyError err;
    char c = 0;
    for (;;) {
        const ssize_t r = read(t.tty.fd, &c, 1);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) err = fail(KeyErr::io, "no " + what + " read from the terminal");
        else if (c != '\n' && !out->append(c)) err = fail(KeyErr::usage, "the " + what + " is too long");
        else if (c != '\n') continue;
        break;
    }
    vWipeBuf(&c, 1);
    return err;
}

KeyError get_secret(const std::string &pass, const std::string &what, Secret *out)
{
    if (pass.empty()) return prompt_secret(what, out);
    if (pass.rfind("env:", 0) == 0) {
        const char *v = getenv(pass.c_str() + 4);
        if (v == nullptr)
            return fail(KeyErr::usage, "environment variable " + pass.substr(4) + " (" + what + ") is not set");
        for (; *v != '\0'; v++)
            if (!out->append(*v)) return fail(KeyErr::usage, "the " + what + " is too long");
        return {};
    }
    if (pass.rfind("file:", 0) == 0) {
        std::vector<uint8_t> buf;
        KeyError err = read_file_once(pass.substr(5), sizeof out->text - 1, &buf);
        // Like the openssl command: the first line, without its end of line.
        for (size_t i = 0; !err && i < buf.size() && buf[i] != '\n'; i++)
            if (!(buf[i] == '\r' && (i + 1 == buf.size() || buf[i + 1] == '\n'))) out->append(char(buf[i]));
        vWipeBuf(buf.data(), buf.size());
        return err;
    }
    return fail(KeyErr::usage, "--pass takes env:VAR or file:PATH");
}

namespace {

class RawKey final : public Key {
public:
    RawKey(const uint8_t n[256], const uint8_t *d, std::string desc) : has_d_(d != nullptr), desc_(std::move(desc))
    {
        memcpy(n_, n, 256);
        if (has_d_) memcpy(d_, d, 256);
    }
    ~RawKey() override { vWipeBuf(d_, sizeof d_); }
    bool can_sign() const override { return has_d_; }
    bool export_private_exponent(uint8_t d[256]) const override
    {
        if (has_d_) memcpy(d, d_, sizeof d_);
        return has_d_;
    }
    std::string describe() const override { return desc_; }

    KeyError sign(const uint8_t digest[32], const std::vector<std::span<const uint8_t>> &, uint8_t sig[256]) override
    {
        if (!has_d_) return fail(KeyErr::unsupported_key, desc_ + " is a public key: it cannot sign");
        uint8_t salt[32], em[256];
        // getrandom(2), never the clock: the salt of every signature must be unpredictable.
        size_t got = 0;
        while (got < sizeof salt) {
            const ssize_t r = getrandom(salt + got, sizeof salt - got, 0);
            if (r < 0 && errno == EINTR) continue;
            if (r < 0) return fail(KeyErr::sign_failed, std::string("no random salt: ") + strerror(errno));
            got += size_t(r);
        }
        uint32_t len = sizeof em;
        // These functions print their own failures; nothing of that is repeated here.
        int32_t rc = s_pkcs_1_pss_encode_sha256(digest, 32, salt, sizeof salt, 2048, em, &len);
        vWipeBuf(salt, sizeof salt);
        if (rc == 0) {
            uint32_t sig_len = 256;
            rc = rsa_exptmod(em, int32_t(len), sig, &sig_len, d_, sizeof d_, n_, 256);
            if (rc == 0 && sig_len != 256) rc = -100;
        }
        vWipeBuf(em, sizeof em);
        if (rc != 0)
            return fail(KeyErr::sign_failed, "signing with " + desc_ + " failed (code " + std::to_string(rc) + ")");
        return {};
    }

private:
    bool has_d_;
    uint8_t d_[256] = {};
    std::string desc_;
};

// A descriptor of at least 3, so that placing pipe ends on 0 and 1 in the child cannot clobber one.
int above_stdio(int fd)
{
    if (fd < 0 || fd > 2) return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    close(fd);
    return moved;
}

// Both ends close on exec and lie above 2; on failure both are -1.
bool make_pipe(int p[2])
{
    if (pipe2(p, O_CLOEXEC) != 0) return p[0] = p[1] = -1, false;
    p[0] = above_stdio(p[0]);
    p[1] = above_stdio(p[1]);
    if (p[0] >= 0 && p[1] >= 0) return true;
    for (int i : {0, 1})
        if (p[i] >= 0) close(p[i]), p[i] = -1;
    return false;
}

void write_all(int fd, const uint8_t *p, size_t n)
{
    // A helper that does not read its input makes this fail with EPIPE; its status tells the rest.
    while (n > 0) {
        const ssize_t r = write(fd, p, n);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return;
        p += r;
        n -= size_t(r);
    }
}

class HelperKey final : public Key {
public:
    HelperKey(std::vector<std::string> argv, std::string path, const uint8_t n[256])
        : argv_(std::move(argv)), path_(std::move(path))
    {
        memcpy(n_, n, 256);
        uint8_t h[32];
        vZIRNKeyHashV10(n_, h);
        static const char digits[] = "0123456789abcdef";
        std::string fp;
        for (uint8_t b : h) fp += {digits[b >> 4], digits[b & 15]};
        argv_.push_back(fp);
    }
    bool can_sign() const override { return true; }
    std::string describe() const override { return "signing helper " + argv_[0]; }

    KeyError sign(const uint8_t digest[32], const std::vector<std::span<const uint8_t>> &, uint8_t sig[256]) override
    {
        std::vector<char *> args;
        for (auto &a : argv_) args.push_back(a.data());
        args.push_back(nullptr);
        int in[2] = {-1, -1}, out[2] = {-1, -1}, ex[2] = {-1, -1};
        auto close_fd = [](int &fd) {
            if (fd >= 0) close(fd);
            fd = -1;
        };
        auto close_all = [&] {
            for (int *p : {in, out, ex}) close_fd(p[0]), close_fd(p[1]);
        };
        if (!make_pipe(in) || !make_pipe(out) || !make_pipe(ex)) {
            close_all();
            return fail(KeyErr::sign_failed, "cannot make pipes for " + describe());
        }
        // SIGPIPE is held back while the digest goes out, so a helper that exits early cannot kill us.
        sigset_t pipe_set, old_mask;
        sigemptyset(&pipe_set);
        sigaddset(&pipe_set, SIGPIPE);
        const pid_t pid = fork();
        if (pid == 0) {
            // Only async-signal-safe calls from here to exec.
            dup2(in[0], 0);
            dup2(out[1], 1);
            signal(SIGPIPE, SIG_DFL);
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            execv(path_.c_str(), args.data());
            const int e = errno;
            [[maybe_unused]] const ssize_t w = write(ex[1], &e, sizeof e);
            _exit(127);
        }
        close_fd(in[0]);
        close_fd(out[1]);
        close_fd(ex[1]);
        if (pid < 0) {
            const int e = errno;
            close_all();
            errno = e;
            return fail(KeyErr::sign_failed, "cannot start " + describe() + ": " + strerror(errno));
        }
        pthread_sigmask(SIG_BLOCK, &pipe_set, &old_mask);
        sigset_t pending;
        sigpending(&pending);
        const bool was_pending = sigismember(&pending, SIGPIPE) == 1;
        write_all(in[1], digest, 32);
        close_fd(in[1]);
        if (!was_pending) {
            const struct timespec now = {0, 0};
            while (sigtimedwait(&pipe_set, nullptr, &now) == SIGPIPE) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
        // All of the output is read, however long, so the helper never blocks on a full pipe.
        size_t total = 0;
        uint8_t buf[4096];
        for (;;) {
            const ssize_t r = read(out[0], buf, sizeof buf);
            if (r < 0 && errno == EINTR) continue;
            if (r <= 0) break;
            if (total < 256) memcpy(sig + total, buf, std::min(size_t(r), 256 - total));
            total += size_t(r);
        }
        close_fd(out[0]);
        int exec_errno = 0;
        const bool exec_failed = read(ex[0], &exec_errno, sizeof exec_errno) == ssize_t(sizeof exec_errno);
        close_fd(ex[0]);
        int st = 0;
        pid_t waited;
        while ((waited = waitpid(pid, &st, 0)) < 0 && errno == EINTR) {
        }
        if (exec_failed) return fail(KeyErr::not_found, "cannot start " + describe() + ": " + strerror(exec_errno));
        // (SIGCHLD ignored by the caller reaps the helper unseen: its status is then unknown.)
        if (waited != pid) return fail(KeyErr::sign_failed, "cannot learn how " + describe() + " ended");
        if (WIFSIGNALED(st))
            return fail(KeyErr::sign_failed, describe() + " was killed by signal " + std::to_string(WTERMSIG(st)));
        if (!WIFEXITED(st) || WEXITSTATUS(st) != 0)
            return fail(KeyErr::sign_failed, describe() + " exited with status " + std::to_string(WEXITSTATUS(st)));
        if (total != 256)
            return fail(KeyErr::sign_failed,
                        describe() + " wrote " + std::to_string(total) + " bytes, not a 256-byte signature");
        return {};
    }

private:
    std::vector<std::string> argv_;
    std::string path_;
};

// The program file the helper command names: a path as it is, else the first match in PATH.
std::string find_program(const std::string &name)
{
    if (name.find('/') != std::string::npos) return access(name.c_str(), X_OK) == 0 ? name : "";
    const char *path = getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
    for (size_t start = 0; start <= dirs.size();) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        const std::string dir = end > start ? dirs.substr(start, end - start) : ".";
        const std::string cand = dir + "/" + name;
        struct stat st {};
        if (stat(cand.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(cand.c_str(), X_OK) == 0) return cand;
        start = end + 1;
    }
    return "";
}

}  // namespace

std::unique_ptr<Key> make_raw_key(const uint8_t n[256], const uint8_t *d, std::string desc)
{
    return std::make_unique<RawKey>(n, d, std::move(desc));
}

}  // namespace detail

using detail::fail;

KeyError open_key(const std::string &source, const KeyOptions &opt, std::unique_ptr<Key> *out)
{
    out->reset();
    if (source.rfind("pkcs11:", 0) == 0) return detail::open_pkcs11(source, opt, out);
    if (source.empty()) return fail(KeyErr::usage, "no key given");
    return detail::open_keyfile(source, opt, out);
}

KeyError open_helper_key(const std::string &cmd, const uint8_t n[256], std::unique_ptr<Key> *out)
{
    out->reset();
    std::vector<std::string> argv;
    for (size_t i = 0; i < cmd.size();) {
        const size_t start = cmd.find_first_not_of(" \t", i);
        if (start == std::string::npos) break;
        const size_t end = std::min(cmd.find_first_of(" \t", start), cmd.size());
        argv.push_back(cmd.substr(start, end - start));
        i = end;
    }
    if (argv.empty()) return fail(KeyErr::usage, "empty signing helper command");
    if (!detail::is_2048(n)) return fail(KeyErr::unsupported_key, "the helper's modulus is not 2048 bits");
    std::string path = detail::find_program(argv[0]);
    if (path.empty()) return fail(KeyErr::not_found, "signing helper " + argv[0] + " not found or not executable");
    *out = std::make_unique<detail::HelperKey>(std::move(argv), std::move(path), n);
    return {};
}

KeyError open_raw_key(const uint8_t n[256], const uint8_t d[256], std::unique_ptr<Key> *out)
{
    out->reset();
    if (!detail::is_2048(n)) return fail(KeyErr::unsupported_key, "the configuration's modulus is not 2048 bits");
    uint8_t any = 0;
    for (int i = 0; i < 256; i++) any |= d[i];
    if (any == 0) return fail(KeyErr::unsupported_key, "the configuration has no private exponent");
    *out = detail::make_raw_key(n, d, "the configuration's key");
    return {};
}

}  // namespace zk

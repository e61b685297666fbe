// The key sources where zirnimg cannot show them (tests/zirnimg/test_sign.cpp runs every source
// end to end): salts, passphrase files in memory, token mechanisms, a helper reaped unseen.
#include <gtest/gtest.h>

#include <malloc.h>
#include <signal.h>
#include <sys/syscall.h>

#include "keys_internal.h"
#include "keysource.h"
#include "oracle.h"
#include "token.h"

using zk::KeyErr;
using zt::Bytes;

namespace {

// getrandom as the key sources see it: the system's, interrupted before every second call, or
// failing.
enum class Random { system, interrupted, failing } g_random = Random::system;
const char *g_secret = nullptr;  // while set, each block released is searched for it
bool g_leaked = false;

void release(void *p)
{
    if (p != nullptr && g_secret != nullptr)
        g_leaked |= memmem(p, malloc_usable_size(p), g_secret, strlen(g_secret)) != nullptr;
    free(p);
}

// Signs "zirn", handed over in two pieces; OpenSSL checks the signature under the key's modulus.
Bytes expect_signs(zk::Key &key, const std::string &row)
{
    const Bytes msg = {'z', 'i', 'r', 'n'}, n(key.modulus(), key.modulus() + 256);
    const std::span<const uint8_t> all(msg);
    Bytes sig(256);
    const auto e = key.sign(zt::sha256(msg).data(), {all.first(1), all.subspan(1)}, sig.data());
    EXPECT_TRUE(!e && zt::pss_verify(n, msg, sig)) << row << ": " << e.message;
    return sig;
}

}  // namespace

extern "C" ssize_t getrandom(void *buf, size_t len, unsigned flags)
{
    static bool odd = false;
    if (g_random == Random::failing || (g_random == Random::interrupted && (odd = !odd)))
        return errno = g_random == Random::failing ? ENOSYS : EINTR, -1;
    return syscall(SYS_getrandom, buf, len, flags);
}
void *operator new(size_t n) { return malloc(n ? n : 1) ?: throw std::bad_alloc(); }
void operator delete(void *p) noexcept { release(p); }
void operator delete(void *p, size_t) noexcept { release(p); }

TEST(Keys, RawKeys)
{
    const zt::RsaKey &k = zt::test_key(0);
    Bytes no_top = k.n, zero(256, 0);
    no_top[0] = 0x7f;
    const std::tuple<const Bytes &, const Bytes &, Random, KeyErr> rows[] = {  // n, d, salt, result
        {k.n, k.d, Random::interrupted, KeyErr::ok},  // asked again
        {k.n, k.d, Random::failing, KeyErr::sign_failed},  // never a salt from elsewhere
        {no_top, k.d, Random::system, KeyErr::unsupported_key},  // 2047 bits
        {k.n, zero, Random::system, KeyErr::unsupported_key},  // a configuration without D
    };
    for (const auto &[n, d, random, want] : rows) {
        std::unique_ptr<zk::Key> key;
        zk::KeyError e = zk::open_raw_key(n.data(), d.data(), &key);
        g_random = random;
        if (uint8_t sig[256]; key) e = key->sign(n.data(), {}, sig);
        EXPECT_EQ(e.kind, want) << e.message;
        if (e) continue;
        EXPECT_NE(expect_signs(*key, "raw"), expect_signs(*key, "raw"));  // a fresh salt each time
    }
    g_random = Random::system;
}

// A passphrase file's bytes are wiped before their block is released; with standard input
// closed (as under cron) the file is opened as descriptor 0.
TEST(Keys, PassphraseFilesLeaveNoCopy)
{
    const std::string path = zt::temp_dir() + "/pass", text = "Zq8;pass\r\nnext line\n";
    zt::write_file(path, text);
    zk::detail::Secret s;
    const int in = dup(0);
    close(0);
    g_secret = text.c_str();
    const zk::KeyError e = zk::detail::get_secret("file:" + path, "passphrase", &s);
    g_secret = nullptr;
    dup2(in, 0), close(in);
    EXPECT_EQ(std::tuple(e.kind, std::string(s.text, s.len), g_leaked),
              std::tuple(KeyErr::ok, std::string("Zq8;pass"), false)) << e.message;
}

// A token without CKM_RSA_PKCS_PSS, which hashes the message pieces itself, and one without PSS.
TEST(Keys, TokenMechanisms)
{
    const zt::Token &t = zt::token();
    if (!t.skip.empty()) GTEST_SKIP() << t.skip;
    const std::string conf = t.dir + "/rows.conf";
    const std::string k1 = "pkcs11:token=zirn;object=k1?pin-value=123456&module-path=" + t.module;
    for (auto [mechanisms, want] : {std::pair{"CKM_SHA256_RSA_PKCS_PSS", KeyErr::ok},
                                    {"CKM_RSA_PKCS,CKM_SHA256_RSA_PKCS", KeyErr::mechanism}}) {
        zt::write_file(conf, t.conf + "slots.mechanisms = " + mechanisms + "\n");
        setenv("SOFTHSM2_CONF", conf.c_str(), 1);
        std::unique_ptr<zk::Key> key;
        const zk::KeyError e = zk::open_key(k1, {}, &key);
        EXPECT_EQ(e.kind, want) << mechanisms << ": " << e.message;
        if (!key) continue;
        expect_signs(*key, mechanisms);
        EXPECT_EQ(key->describe(), "PKCS#11 key k1 on token zirn");
    }
    setenv("SOFTHSM2_CONF", (t.dir + "/softhsm2.conf").c_str(), 1);
}

// SIGCHLD ignored by the caller reaps a helper unseen: how it ended is unknown, its output unused.
TEST(Keys, HelperReapedUnseenIsNotTrusted)
{
    const Bytes &n = zt::test_key(0).n;
    const std::string zeros = zt::temp_dir() + "/zeros";
    zt::write_file(zeros, "head -c 256 /dev/zero\n");
    std::unique_ptr<zk::Key> key;
    ASSERT_EQ(zk::open_helper_key("sh \t" + zeros, n.data(), &key).kind, KeyErr::ok);
    uint8_t sig[256];
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(key->sign(n.data(), {}, sig).kind, KeyErr::sign_failed);
    signal(SIGCHLD, SIG_DFL);
}

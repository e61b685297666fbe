// The key sources where zirnimg cannot show them (tests/zirnimg/test_sign.cpp runs every source
// end to end): fresh salts, a token that hashes the message pieces itself or has no PSS, URIs that
// fit two keys or two tokens, and helpers that flood their output or cannot be executed.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include "keysource.h"
#include "oracle.h"
#include "token.h"

using zk::KeyErr;
using zt::Bytes;

namespace {

// Signs "zirn", handed over in two pieces; OpenSSL checks the signature under the key's modulus.
Bytes expect_signs(zk::Key &key, const std::string &row)
{
    const Bytes msg = {'z', 'i', 'r', 'n'}, digest = zt::sha256(msg);
    const std::span<const uint8_t> all(msg);
    uint8_t sig[256];
    const zk::KeyError e = key.sign(digest.data(), {all.first(1), all.subspan(1)}, sig);
    EXPECT_FALSE(e) << row << ": " << e.message;
    const Bytes s(sig, sig + 256), n(key.modulus(), key.modulus() + 256);
    EXPECT_TRUE(zt::pss_accepts_em(digest, zt::modexp(s, {1, 0, 1}, n), 2048)) << row;
    return s;
}

}  // namespace

TEST(Keys, RawKeys)
{
    const zt::RsaKey &k = zt::test_key(0);
    Bytes no_top = k.n, zero(256, 0);
    no_top[0] = 0x7f;
    const std::tuple<const Bytes &, const Bytes &, KeyErr> rows[] = {  // n, d, result
        {k.n, k.d, KeyErr::ok},
        {no_top, k.d, KeyErr::unsupported_key},  // 2047 bits
        {k.n, zero, KeyErr::unsupported_key},    // a configuration without AUTH_PARAM_D
    };
    for (const auto &[n, d, want] : rows) {
        std::unique_ptr<zk::Key> key;
        EXPECT_EQ(zk::open_raw_key(n.data(), d.data(), &key).kind, want);
        if (!key) continue;
        EXPECT_NE(expect_signs(*key, "raw"), expect_signs(*key, "raw"));  // a fresh salt each time
    }
}

TEST(Keys, TokenMechanismsAndAmbiguousUris)
{
    const zt::Token &t = zt::token();
    if (!t.skip.empty()) GTEST_SKIP() << t.skip;
    const std::string q = "?module-path=" + t.module + "&pin-value=123456",
                      k1 = "pkcs11:token=zirn;object=k1" + q, conf = t.dir + "/rows.conf";
    const std::tuple<std::string, std::string, KeyErr> rows[] = {  // mechanisms, URI, result
        {"CKM_SHA256_RSA_PKCS_PSS", k1, KeyErr::ok},  // the token hashes the pieces itself
        {"CKM_RSA_PKCS,CKM_SHA256_RSA_PKCS", k1, KeyErr::mechanism},
        {"ALL", "pkcs11:token=zirn" + q, KeyErr::not_found},  // k1 and small
        {"ALL", "pkcs11:object=k1" + q, KeyErr::token},       // zirn and SoftHSM2's free slot
    };
    for (const auto &[mechanisms, uri, want] : rows) {
        zt::write_file(conf, t.conf + "slots.mechanisms = " + mechanisms + "\n");
        setenv("SOFTHSM2_CONF", conf.c_str(), 1);
        std::unique_ptr<zk::Key> key;
        const zk::KeyError e = zk::open_key(uri, {}, &key);
        EXPECT_EQ(e.kind, want) << uri << ": " << e.message;
        if (key) expect_signs(*key, mechanisms);
    }
    setenv("SOFTHSM2_CONF", (t.dir + "/softhsm2.conf").c_str(), 1);
}

TEST(Keys, SigningHelpers)
{
    const Bytes &n = zt::test_key(0).n;
    const std::string flood = zt::temp_dir() + "/flood", zeros = flood + ".256";
    zt::write_file(flood, "head -c 5000000 /dev/zero\n");  // no #! line: only sh runs it
    zt::write_file(zeros, "head -c 256 /dev/zero\n");
    ASSERT_EQ(chmod(flood.c_str(), 0700), 0);
    const struct {
        std::string cmd;
        KeyErr open, sign;
        void (*sigchld)(int) = SIG_DFL;
    } rows[] = {
        {"sh \t" + flood, KeyErr::ok, KeyErr::sign_failed},  // more than a pipe holds: no deadlock
        {flood, KeyErr::ok, KeyErr::not_found},               // the exec itself fails
        {flood + ".missing", KeyErr::not_found, KeyErr::ok},
        {"zirn-no-such-helper", KeyErr::not_found, KeyErr::ok},
        {" \t", KeyErr::usage, KeyErr::ok},
        {"sh " + zeros, KeyErr::ok, KeyErr::ok},
        // SIGCHLD ignored reaps the helper unseen: how it ended is unknown, its output unused
        {"sh " + zeros, KeyErr::ok, KeyErr::sign_failed, SIG_IGN},
    };
    for (const auto &r : rows) {
        std::unique_ptr<zk::Key> key;
        ASSERT_EQ(zk::open_helper_key(r.cmd, n.data(), &key).kind, r.open) << r.cmd;
        uint8_t sig[256];
        signal(SIGCHLD, r.sigchld);
        EXPECT_TRUE(!key || key->sign(n.data(), {}, sig).kind == r.sign) << r.cmd;
        signal(SIGCHLD, SIG_DFL);
    }
}

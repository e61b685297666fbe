// The key sources: raw keys, key files (made with the openssl command), a SoftHSM2 token reached
// directly and through p11-kit's server, and signing helpers.  Every signature is checked with
// OpenSSL; every failure must come back as its own KeyErr.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "keysource.h"
#include "oracle.h"
#include "token.h"

using zk::KeyErr;
using zt::Bytes;

namespace {

const std::string dev_pem = ZIRN_SOURCE_DIR "/example/dev_key.NOT_FOR_PRODUCTION.pem";

// Opens spec, then (when it opened) compares the modulus and checks a signature of a fresh digest.
void check(const std::string &spec, const zk::KeyOptions &opt, KeyErr want, const Bytes &n,
           bool signs, const char *row)
{
    std::unique_ptr<zk::Key> key;
    const zk::KeyError err = zk::open_key(spec, opt, &key);
    ASSERT_EQ(err.kind, want) << row << ": " << err.message;
    ASSERT_EQ(key != nullptr, want == KeyErr::ok) << row;
    if (!key) return;
    EXPECT_EQ(Bytes(key->modulus(), key->modulus() + 256), n) << row;
    EXPECT_EQ(key->can_sign(), signs) << row;
    const Bytes msg = {'z', 'i', 'r', 'n'}, digest = zt::sha256(msg);
    uint8_t sig[256];
    const std::span<const uint8_t> all(msg);
    const zk::KeyError s = key->sign(digest.data(), {all.first(1), all.subspan(1)}, sig);
    EXPECT_EQ(s.kind, signs ? KeyErr::ok : KeyErr::unsupported_key) << row << ": " << s.message;
    EXPECT_TRUE(!signs ||
                zt::pss_accepts_em(digest, zt::modexp(Bytes(sig, sig + 256), {1, 0, 1}, n), 2048))
        << row;
}

}  // namespace

TEST(Keys, RawKeys)
{
    const zt::RsaKey &k = zt::test_key(0);
    Bytes no_top = k.n, zero(256, 0);
    no_top[0] = 0x7f;
    const struct {
        const Bytes &n, &d;
        KeyErr want;
    } rows[] = {
        {k.n, k.d, KeyErr::ok},
        {no_top, k.d, KeyErr::unsupported_key},  // 2047 bits
        {k.n, zero, KeyErr::unsupported_key},    // a configuration without AUTH_PARAM_D
    };
    for (const auto &r : rows) {
        std::unique_ptr<zk::Key> key;
        EXPECT_EQ(zk::open_raw_key(r.n.data(), r.d.data(), &key).kind, r.want);
        if (!key) continue;
        const Bytes digest = zt::sha256({1, 2, 3});
        uint8_t a[256], b[256];
        ASSERT_FALSE(key->sign(digest.data(), {}, a) || key->sign(digest.data(), {}, b));
        EXPECT_TRUE(zt::pss_accepts_em(digest, zt::modexp(Bytes(a, a + 256), k.e, k.n), 2048));
        EXPECT_NE(Bytes(a, a + 256), Bytes(b, b + 256));  // a fresh salt each time
    }
}

TEST(Keys, KeyFiles)
{
    ASSERT_TRUE(freopen("/dev/null", "r", stdin));  // no terminal: nothing may prompt
    const std::string d = zt::temp_dir(), enc = "-passout", pw = "pass:s3cret";
    const std::vector<std::vector<std::string>> make = {
        {"rsa", "-in", dev_pem, "-outform", "DER", "-out", d + "/k.der"},
        {"pkcs8", "-topk8", "-v2", "aes-128-cbc", "-in", dev_pem, enc, pw, "-out", d + "/enc.pem"},
        {"pkcs8", "-topk8", "-v2", "aes-128-cbc", "-in", dev_pem, enc, pw, "-outform", "DER",
         "-out", d + "/enc.der"},
        {"rsa", "-in", dev_pem, "-pubout", "-out", d + "/pub.pem"},
        {"genrsa", "-out", d + "/small.pem", "1024"},
    };
    for (const auto &args : make) zt::sh("/usr/bin/openssl", args);
    zt::write_file(d + "/pass", "s3cret\nsecond line\n");
    zt::write_file(d + "/wrong", "s3cre7\n");
    setenv("ZIRN_TEST_PASS", "s3cret", 1);
    const Bytes &n = zt::test_key(0).n;
    const struct {
        std::string spec, pass;
        bool need_private;
        KeyErr want;
        bool signs;
    } rows[] = {
        {dev_pem, "", true, KeyErr::ok, true},
        {d + "/k.der", "", true, KeyErr::ok, true},
        {d + "/enc.pem", "env:ZIRN_TEST_PASS", true, KeyErr::ok, true},
        {d + "/enc.der", "file:" + d + "/pass", true, KeyErr::ok, true},
        {d + "/pub.pem", "", false, KeyErr::ok, false},
        {d + "/pub.pem", "", true, KeyErr::unsupported_key, false},
        {d + "/enc.pem", "file:" + d + "/wrong", true, KeyErr::pin, false},
        {d + "/enc.pem", "", true, KeyErr::usage, false},  // no --pass and no terminal
        {d + "/enc.pem", "pass:s3cret", true, KeyErr::usage, false},
        {d + "/enc.pem", "env:ZIRN_TEST_UNSET", true, KeyErr::usage, false},
        {d + "/enc.pem", "file:" + d, true, KeyErr::io, false},
        {d + "/small.pem", "", true, KeyErr::unsupported_key, false},
        {d + "/pass", "", true, KeyErr::unsupported_key, false},  // not a key
        {d + "/missing.pem", "", true, KeyErr::io, false},
        {"/dev/null", "", true, KeyErr::io, false},
        {d, "", true, KeyErr::io, false},
    };
    for (const auto &r : rows)
        check(r.spec, {r.pass, r.need_private}, r.want, n, r.signs, r.spec.c_str());
}

TEST(Keys, TokenDirectAndThroughServer)
{
    ASSERT_TRUE(freopen("/dev/null", "r", stdin));
    const zt::Token &t = zt::token();
    if (!t.skip.empty()) GTEST_SKIP() << t.skip;
    ASSERT_EQ(t.n.size(), 256u);
    zt::write_file(t.dir + "/pin", "123456\n");
    setenv("ZIRN_TEST_PIN", "123456", 1);
    const std::string m = "module-path=" + t.module, c = "module-path=" + t.client,
                      k1 = "pkcs11:token=zirn;object=k1?";
    const struct {
        std::string uri, pass;
        bool need_private;
        KeyErr want;
    } rows[] = {
        {k1 + m + "&pin-value=123456", "", true, KeyErr::ok},
        {"pkcs11:token=zirn;id=%01?" + m + "&pin-source=file:" + t.dir + "/pin", "", true,
         KeyErr::ok},
        {k1 + m, "env:ZIRN_TEST_PIN", true, KeyErr::ok},
        {k1 + m, "", false, KeyErr::ok},  // the public key, without PIN
        {k1 + m + "&pin-value=654321", "", true, KeyErr::pin},
        {k1 + m + "&pin-value=123456", "", true, KeyErr::ok},  // one refusal did not lock the token
        {k1 + m, "", true, KeyErr::usage},                     // no PIN and no terminal
        {"pkcs11:token=zirn;object=nope?" + m + "&pin-value=123456", "", true, KeyErr::not_found},
        {"pkcs11:token=other;object=k1?" + m + "&pin-value=123456", "", true, KeyErr::token},
        {k1 + "module-path=/nonexistent/libnone.so&pin-value=123456", "", true, KeyErr::module},
        {"pkcs11:token=zirn;object=small?" + m + "&pin-value=123456", "", true,
         KeyErr::unsupported_key},
        {"pkcs11:token=zirn;object=k1;bogus=1?" + m, "", true, KeyErr::usage},
        {k1 + "module-name=softhsm2&pin-value=123456", "", true, KeyErr::ok},  // p11-kit's config
        {k1 + "pin-value=123456", "", true, KeyErr::ok},  // every configured module
        {k1 + "module-name=zirn-none&pin-value=123456", "", true, KeyErr::module},
        {k1 + c + "&pin-value=123456", "", true, KeyErr::ok},
        {k1 + c + "&pin-value=654321", "", true, KeyErr::pin},
        {"pkcs11:token=zirn;object=nope?" + c + "&pin-value=123456", "", true, KeyErr::not_found},
    };
    for (const auto &r : rows)
        check(r.uri, {r.pass, r.need_private}, r.want, t.n, r.need_private, r.uri.c_str());
    // A token with CKM_SHA256_RSA_PKCS_PSS only hashes the message itself; one with neither
    // mechanism cannot sign.
    const std::string less = t.dir + "/less.conf";
    for (const std::string only : {"CKM_SHA256_RSA_PKCS_PSS", "CKM_RSA_PKCS,CKM_SHA256_RSA_PKCS"}) {
        zt::write_file(less, t.conf + "slots.mechanisms = " + only + "\n");
        setenv("SOFTHSM2_CONF", less.c_str(), 1);
        const KeyErr want = only.find("PSS") != std::string::npos ? KeyErr::ok : KeyErr::mechanism;
        check(k1 + m + "&pin-value=123456", {}, want, t.n, true, only.c_str());
    }
    setenv("SOFTHSM2_CONF", (t.dir + "/softhsm2.conf").c_str(), 1);
}

TEST(Keys, SigningHelpers)
{
    const std::string d = zt::temp_dir();
    const zt::RsaKey &k = zt::test_key(0);
    const std::string fp = zt::to_hex(zt::sha256(k.n));
    const struct {
        const char *name, *body;
    } scripts[] = {
        {"ok",
         "[ \"$#\" = 2 ] && [ \"$2\" = FP ] && exec /usr/bin/openssl pkeyutl -sign -inkey KEY "
         "-pkeyopt digest:sha256 "
         "-pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:32 -pkeyopt rsa_mgf1_md:sha256"},
        {"status", "cat >/dev/null; exit 3"},
        {"short", "head -c 255 /dev/zero"},
        {"long", "head -c 5000000 /dev/zero"},  // more than a pipe holds: must not deadlock
        {"signal", "kill -9 $$"},
    };
    for (const auto &s : scripts) {
        std::string body = s.body;
        for (auto [from, to] : {std::pair<std::string, std::string>{"FP", fp}, {"KEY", dev_pem}})
            if (size_t at = body.find(from); at != std::string::npos)
                body.replace(at, from.size(), to);
        zt::write_file(d + "/" + s.name, "#!/bin/sh\n" + body + "\n");
        ASSERT_EQ(chmod((d + "/" + s.name).c_str(), 0700), 0);
    }
    const struct {
        std::string cmd;
        KeyErr open, sign;
    } rows[] = {
        {d + "/ok  \targ", KeyErr::ok, KeyErr::ok},
        {d + "/status", KeyErr::ok, KeyErr::sign_failed},
        {d + "/short", KeyErr::ok, KeyErr::sign_failed},
        {d + "/long", KeyErr::ok, KeyErr::sign_failed},
        {d + "/signal", KeyErr::ok, KeyErr::sign_failed},
        {d + "/missing", KeyErr::not_found, KeyErr::ok},
        {"zirn-no-such-helper", KeyErr::not_found, KeyErr::ok},
        {" \t", KeyErr::usage, KeyErr::ok},
    };
    for (const auto &r : rows) {
        std::unique_ptr<zk::Key> key;
        ASSERT_EQ(zk::open_helper_key(r.cmd, k.n.data(), &key).kind, r.open) << r.cmd;
        if (!key) continue;
        const Bytes digest = zt::sha256({7});
        uint8_t sig[256];
        const zk::KeyError e = key->sign(digest.data(), {}, sig);
        EXPECT_EQ(e.kind, r.sign) << r.cmd << ": " << e.message;
        EXPECT_TRUE(e ||
                    zt::pss_accepts_em(digest, zt::modexp(Bytes(sig, sig + 256), k.e, k.n), 2048))
            << r.cmd;
    }
}

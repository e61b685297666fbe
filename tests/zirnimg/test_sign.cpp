// zirnimg sign, keycfg and pubhash with every key source: the test token (directly and through
// p11-kit's server), key files, signing helpers and the configuration's own key.  Each image is
// checked by OpenSSL and by zirnimg; each row runs plainly and with --json.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <functional>

#include "oracle.h"
#include "token.h"

using zt::Bytes;
namespace fs = std::filesystem;

namespace {

const std::string dev_pem = ZIRN_SOURCE_DIR "/example/dev_key.NOT_FOR_PRODUCTION.pem";
const Bytes aes_key(16, 0x5C);

zt::Run z(const std::vector<std::string> &args) { return zt::run(ZIRNIMG_EXE, args); }
std::string fp(const Bytes &n) { return zt::to_hex(zt::sha256(n)); }
std::string text_of(const std::string &path)
{
    const Bytes b = zt::read_file(path);
    return {b.begin(), b.end()};
}
// The modulus a configuration names, read by the test itself.
Bytes cfg_n(const std::string &path)
{
    const std::string text = text_of(path), tag = "AUTH_PARAM_N = 0x";
    const size_t at = text.find(tag);
    return at == std::string::npos ? Bytes() : zt::from_hex(text.substr(at + tag.size(), 512));
}

// Key files, configurations, a plain image and a signing helper, made once.
struct Files {
    const zt::Token &t = zt::token();
    std::string d = zt::temp_dir(), plain = d + "/plain", cfg = d + "/dev.cfg", nod = d + "/no_d.cfg",
                tok = d + "/token.cfg", enc = d + "/enc.pem", helper = d + "/helper",
                k1 = "pkcs11:token=zirn;object=k1?module-path=" + t.module;
    Files()
    {
        const std::vector<std::string> make[] = {
            {"rsa", "-in", dev_pem, "-outform", "DER", "-out", d + "/k.der"},
            {"pkcs8", "-topk8", "-v2", "aes-128-cbc", "-in", dev_pem, "-passout", "pass:s3cret",
             "-out", enc},
            {"rsa", "-in", dev_pem, "-pubout", "-out", d + "/pub.pem"},
        };
        for (const auto &args : make) zt::sh("/usr/bin/openssl", args);
        for (auto [name, text] : {std::pair{"pass", "s3cret"}, {"wrong", "s3cre7"}, {"pin", "123456"}})
            zt::write_file(d + "/" + name, std::string(text) + "\n");
        setenv("ZIRN_TEST_PASS", "s3cret", 1);
        const std::string text =
            zt::cfg_text({1, 2}, Bytes(16, 7), aes_key, Bytes(32, 3), zt::test_key(0));
        zt::write_file(cfg, text);
        zt::write_file(nod, text.substr(0, text.find("AUTH_PARAM_D")));
        std::mt19937_64 rng(5);
        zt::write_file(plain, zt::random_bytes(rng, 5000));
        // A helper like the README's: $1 the key file (or how to fail), $2 the fingerprint added.
        std::string script = R"(#!/bin/sh
[ "$#" = 2 ] && [ "$2" = FP ] || exit 9
case "$1" in fail) exit 3 ;; short) head -c 255 /dev/zero; exit 0 ;; esac
exec openssl pkeyutl -sign -inkey "$1" -pkeyopt digest:sha256 -pkeyopt rsa_padding_mode:pss \
  -pkeyopt rsa_pss_saltlen:32 -pkeyopt rsa_mgf1_md:sha256
)";
        zt::write_file(helper, script.replace(script.find("FP"), 2, fp(zt::test_key(0).n)));
        fs::permissions(helper, fs::perms::owner_all);
        if (t.skip.empty()) zt::sh(ZIRNIMG_EXE, {"keycfg", "--key", k1, "-o", tok});
    }
};
const Files &files()
{
    static const Files f;
    return f;
}

// Runs zirnimg with args, then with args and --json, each in a fresh working folder holding only
// kept.cfg: the status, the message, one JSON document (the key's fingerprint on success, the
// error's kind and message on failure) and no secret in any output.  check judges a success; a
// failure must leave the folder as it was (no output, no temporary file).
void expect_run(const std::vector<std::string> &args, int status, const std::string &message,
                const Bytes &n, const std::function<void(const zt::Run &)> &check)
{
    const fs::path home = fs::current_path();
    std::string row;
    for (const auto &a : args) row += a + " ";
    for (bool json : {false, true}) {
        fs::current_path(zt::temp_dir());
        zt::write_file("kept.cfg", "kept\n");
        std::vector<std::string> a = args;
        if (json) a.push_back("--json");
        const zt::Run r = z(a);
        EXPECT_EQ(r.status, status) << row << "\n" << r.err;
        EXPECT_NE(r.err.find(message), std::string::npos) << row << "\n" << r.err;
        std::string all = r.out + r.err;
        for (auto &c : all) c = char(tolower(c));
        for (const Bytes &secret : {aes_key, zt::test_key(0).d})
            EXPECT_EQ(all.find(zt::to_hex(secret).substr(0, 16)), std::string::npos) << row;
        if (json) {
            auto doc = nlohmann::json::parse(r.out, nullptr, false);
            auto &err = doc.is_object() ? doc["error"] : doc;
            EXPECT_TRUE(doc.is_object() && doc["exit_code"] == status &&
                        (status == 0 ? doc["key_hash"] == fp(n)
                                     : err["kind"].is_string() && err["message"].is_string()))
                << row << r.out;
        }
        const bool alone = std::distance(fs::directory_iterator("."), {}) == 1;
        if (r.status == 0) check(r);
        else EXPECT_TRUE(alone && text_of("kept.cfg") == "kept\n") << row << "left a file";
        fs::current_path(home);
    }
}

// The image img signed for cfg: its key, OpenSSL's check of the signature over the header
// (signature zeroed) and the ciphertext, zirnimg verify pinned both ways, and decrypt's round trip.
void expect_image(const std::string &cfg)
{
    const Bytes image = zt::read_file("img"), n = cfg_n(cfg);
    ASSERT_GT(image.size(), 576u) << cfg;
    Bytes zeroed = image;
    std::fill(zeroed.begin() + 316, zeroed.begin() + 572, 0);
    EXPECT_EQ(zt::slice(image, 60, 256), n);
    EXPECT_TRUE(zt::pss_verify(n, zeroed, zt::slice(image, 316, 256))) << cfg;
    EXPECT_EQ(z({"verify", "img", "--key-hash", fp(n)}).status, 0);
    EXPECT_EQ(z({"verify", "img", "--cfg", cfg}).status, 0);
    EXPECT_EQ(z({"decrypt", "img", "--cfg", cfg, "-o", "back"}).status, 0);
    EXPECT_EQ(zt::read_file("back"), zt::read_file(files().plain));
}

}  // namespace

// keycfg and pubhash from a token, key files and a public key: owner-only, AUTH_PARAM_D exactly
// when a private key file gave it, never over a file without --force, RSA-2048 only.
TEST(ZirnimgSign, KeyConfigurations)
{
    ASSERT_TRUE(freopen("/dev/null", "r", stdin));  // nothing may prompt
    const Files &f = files();
    const std::string o = "new.cfg", kept = "kept.cfg", enc = f.enc;
    const Bytes &tn = f.t.n, &dn = zt::test_key(0).n, &dd = zt::test_key(0).d, none;
    const std::string small = "pkcs11:token=zirn;object=small?module-path=" + f.t.module;
    // token?, arguments, status, message, the key's modulus, the AUTH_PARAM_D expected (none: none)
    using Args = std::vector<std::string>;
    const std::tuple<bool, Args, int, std::string, const Bytes &, const Bytes &> rows[] = {
        {true, {"keycfg", "--key", f.k1, "-o", o}, 0, "", tn, none},  // no PIN: the public key
        {true, {"keycfg", "--key", f.k1, "-o", kept}, 5, "exists: --force replaces it", none, none},
        {true, {"keycfg", "--key", f.k1, "-o", kept, "--force"}, 0, "", tn, none},
        {true, {"keycfg", "--key", small, "-o", o}, 12, "1024-bit", none, none},
        {true, {"pubhash", "--key", f.k1}, 0, "", tn, none},
        {false, {"keycfg", "--key", dev_pem, "-o", o}, 0, "", dn, dd},
        {false, {"keycfg", "--key", enc, "--pass", "env:ZIRN_TEST_PASS", "-o", o}, 0, "", dn, dd},
        {false, {"keycfg", "--key", dev_pem, "-o", o, "--public-only"}, 0, "", dn, none},
        {false, {"keycfg", "--key", f.d + "/pub.pem", "-o", o}, 0, "", dn, none},
        {false, {"pubhash", "--key", f.d + "/pub.pem"}, 0, "", dn, none},
    };
    const mode_t old = umask(022);
    for (const auto &[token, args, status, message, n, d] : rows) {
        if (token && !f.t.skip.empty()) continue;
        expect_run(args, status, message, n, [&a = args, &n = n, &d = d](const zt::Run &run) {
            const auto o = std::find(a.begin(), a.end(), "-o");
            EXPECT_TRUE(o != a.end() || run.out[0] == '{' || run.out == fp(n) + "\n") << run.out;
            if (o == a.end()) return;  // pubhash
            const std::string text = text_of(o[1]), tag = "AUTH_PARAM_D = 0x";
            const size_t at = text.find(tag);
            struct stat st{};
            EXPECT_EQ(stat(o[1].c_str(), &st) == 0 ? st.st_mode & 0777 : 0, 0600u) << o[1];
            EXPECT_EQ(cfg_n(o[1]), n) << a[2];
            // Compared, never printed: present exactly when expected, and the key's own.
            const std::string got = at == std::string::npos ? "" : text.substr(at + tag.size(), 512);
            EXPECT_TRUE(got == zt::to_hex(d)) << a[2];
        });
    }
    umask(old);
    if (!f.t.skip.empty()) GTEST_SKIP() << "token rows: " << f.t.skip;
}

// sign with each key source, and each way it fails with its own status and nothing written.
TEST(ZirnimgSign, EveryKeySource)
{
    ASSERT_TRUE(freopen("/dev/null", "r", stdin));
    const Files &f = files();
    const std::string pin = "&pin-value=123456", m = "?module-path=" + f.t.module,
                      c = "pkcs11:token=zirn;object=k1?module-path=" + f.t.client,
                      none = "pkcs11:token=zirn;object=k1?module-path=/nonexistent/libnone.so",
                      h = f.helper + " ", enc = f.enc,
                      second = ZIRN_SOURCE_DIR "/tests/vectors/second_key.pem";
    // token?, configuration, key options, status, message
    const std::tuple<bool, std::string, std::vector<std::string>, int, std::string> rows[] = {
        {true, f.tok, {"--key", f.k1 + pin}, 0, ""},
        {true, f.tok, {"--key", f.k1 + "&pin-source=file:" + f.d + "/pin"}, 0, ""},
        {true, f.tok, {"--key", c + pin}, 0, ""},  // through p11-kit's server
        {true, f.tok, {"--key", f.k1 + "&pin-value=654321"}, 10, "PIN"},
        {true, f.tok, {"--key", c + "&pin-value=654321"}, 10, "PIN"},
        {true, f.tok, {"--key", "pkcs11:token=zirn;object=nope" + m + pin}, 11, "no private key"},
        {true, f.tok, {"--key", none + pin}, 8, "libnone"},
        {true, f.tok, {"--key", "pkcs11:token=other;object=k1" + m + pin}, 9, "tokens matches"},
        {true, f.nod, {"--key", f.k1 + pin}, 3, "is not the key of"},
        {false, f.nod, {"--signing-helper", h + dev_pem}, 0, ""},
        {false, f.nod, {"--signing-helper", h + "fail"}, 14, "exited with status 3"},
        {false, f.nod, {"--signing-helper", h + "short"}, 14, "wrote 255 bytes"},
        {false, f.nod, {"--signing-helper", h + second}, 1, "does not verify"},
        {false, f.nod, {"--key", dev_pem}, 0, ""},
        {false, f.nod, {"--key", f.d + "/k.der"}, 0, ""},
        {false, f.nod, {"--key", enc, "--pass", "env:ZIRN_TEST_PASS"}, 0, ""},
        {false, f.nod, {"--key", enc, "--pass", "file:" + f.d + "/pass"}, 0, ""},
        {false, f.nod, {"--key", enc, "--pass", "file:" + f.d + "/wrong"}, 10, "passphrase"},
        {false, f.nod, {"--key", f.d + "/pub.pem"}, 12, "public key only"},
        {false, f.cfg, {}, 0, ""},  // the configuration's own key
        {false, f.nod, {}, 6, "AUTH_PARAM_D"},
    };
    for (const auto &[token, cfg, key, status, message] : rows) {
        if (token && !f.t.skip.empty()) continue;
        std::vector<std::string> args = {"sign", cfg, f.plain, "img", "0x00200000"};
        args.insert(args.end(), key.begin(), key.end());
        expect_run(args, status, message, cfg_n(cfg),
                   [&c = cfg](const zt::Run &) { expect_image(c); });
    }
    if (!f.t.skip.empty()) GTEST_SKIP() << "token rows: " << f.t.skip;
}

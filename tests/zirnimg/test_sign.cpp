// zirnimg sign, keycfg and pubhash with every key source: the test token (directly, through
// p11-kit's server and through p11-kit's modules), key files, signing helpers and the
// configuration's own key.  OpenSSL checks each image; each row runs plainly and with --json.
#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <set>

#include "oracle.h"
#include "runs.h"
#include "token.h"

using zt::Bytes;
using zt::z;
namespace fs = std::filesystem;

namespace {

const std::string dev_pem = ZIRN_SOURCE_DIR "/example/dev_key.NOT_FOR_PRODUCTION.pem";
std::string fp(const Bytes &n) { return zt::to_hex(zt::sha256(n)); }
// A configuration's hex value, read by the test itself ("" when it has none).
std::string cfg_hex(const std::string &path, const std::string &name)
{
    const Bytes b = zt::read_file(path);
    const std::string text(b.begin(), b.end()), tag = "\n" + name + " = 0x";  // a line start
    const size_t at = text.find(tag);
    return at == std::string::npos ? "" : text.substr(at + tag.size(), 512);
}
Bytes cfg_n(const std::string &path) { return zt::from_hex(cfg_hex(path, "AUTH_PARAM_N")); }

// Key files, configurations, a plain image and a signing helper, made once.
struct Files {
    const zt::Token &t = zt::token();
    std::string d = zt::temp_dir(), plain = d + "/plain", cfg = d + "/dev.cfg",
                nod = d + "/no_d.cfg", tok = d + "/token.cfg", helper = d + "/helper",
                k1 = "pkcs11:token=zirn;object=k1?module-path=" + t.module;
    Files()
    {
        const std::vector<std::string> make[] = {
            {"rsa", "-in", dev_pem, "-outform", "DER", "-out", d + "/k.der"},
            {"pkcs8", "-topk8", "-v2", "aes-128-cbc", "-in", dev_pem, "-passout", "pass:s3cret",
             "-out", d + "/enc.pem"},
            {"rsa", "-in", dev_pem, "-pubout", "-out", d + "/pub.pem"},
            {"genrsa", "-out", d + "/small.pem", "1024"},
        };
        for (const auto &args : make) zt::sh("/usr/bin/openssl", args);
        fs::copy_file(dev_pem, d + "/k\nIMG_VER = 0x0.pem");  // a name that would add a line
        for (std::string w : {"pass s3cret", "wrong s3cre7\n", "pin 123456\r\n"})  // any line end
            zt::write_file(d + "/" + w.substr(0, w.find(' ')), w.substr(w.find(' ') + 1));
        zt::write_file(d + "/long", std::string(1024, 'x'));  // a byte more than such a file holds
        fs::permissions(d + "/long", fs::perms::owner_all);  // and executable, but no program
        setenv("ZIRN_TEST_PASS", "s3cret", 1);
        zt::write_cfg(cfg), zt::write_cfg(nod, 0, true);
        std::mt19937_64 rng(5);
        zt::write_file(plain, zt::random_bytes(rng, 5000));
        // A helper like the README's: $1 the key file (or how to fail), $2 the fingerprint added.
        std::string script = R"(#!/bin/sh
[ "$#" = 2 ] && [ "$2" = FP ] || exit 9
case "$1" in fail) exit 3 ;; short) head -c 255 /dev/zero; exit 0 ;; kill) kill -9 $$ ;;
  zeros) head -c 256 /dev/zero; exit 0 ;; flood) head -c 5000000 /dev/zero; exit 0 ;; esac
exec openssl pkeyutl -sign -inkey "$1" -pkeyopt digest:sha256 -pkeyopt rsa_padding_mode:pss \
  -pkeyopt rsa_pss_saltlen:32 -pkeyopt rsa_mgf1_md:sha256
)";
        zt::write_file(helper, script.replace(script.find("FP"), 2, fp(zt::test_key(0).n)));
        fs::permissions(helper, fs::perms::owner_all);
        if (t.skip.empty()) zt::sh(ZIRNIMG_EXE, {"keycfg", "--key", k1, "-o", tok});
    }
};
const Files &files() { static const Files f; return f; }

// The image img signed for cfg: its key, OpenSSL's check of the signature over the header
// (signature zeroed) and the ciphertext, zirnimg verify, and decrypt's round trip.
void expect_image(const std::string &cfg)
{
    const Bytes image = zt::read_file("img"), n = cfg_n(cfg);
    ASSERT_GT(image.size(), 576u) << cfg;
    EXPECT_EQ(zt::slice(image, 60, 256), n);
    EXPECT_TRUE(zt::image_verifies(image, n)) << cfg;
    EXPECT_EQ(z({"verify", "img", "--cfg", cfg}).status, 0);
    EXPECT_EQ(z({"decrypt", "img", "--cfg", cfg, "-o", "back"}).status, 0);
    EXPECT_EQ(zt::read_file("back"), zt::read_file(files().plain));
}

}  // namespace

// keycfg and pubhash from a token, key files and a public key (the rows are in
// tests/vectors/zirnimg_keycfg_rows.txt): AUTH_PARAM_D exactly when a private key file gave it,
// never over a file without --force, RSA-2048 only, ENC_PARAM random.
TEST(ZirnimgSign, KeyConfigurations)
{
    ASSERT_TRUE(freopen("/dev/null", "r", stdin));  // nothing may prompt
    const Files &f = files();
    // The token's modulus as keycfg reads it: the sign rows check it with OpenSSL.
    const std::map<std::string, Bytes> moduli = {{"tok", cfg_n(f.tok)}, {"dev", zt::test_key(0).n},
                                                 {"-", {}}};
    const auto rows = zt::load_rows("zirnimg_keycfg_rows.txt",
                                    {{"$D", f.d}, {"$M", f.t.module}, {"$E", dev_pem},
                                     {"$ODD", f.d + "/k\nIMG_VER = 0x0.pem"}});
    std::vector<std::string> enc_params;
    for (const zt::Words &w : rows) {  // SOURCE MODULUS D STATUS MESSAGE ARGS...
        if (w[0] == "tok" && !f.t.skip.empty()) continue;
        const std::vector<std::string> a(w.begin() + 5, w.end());
        const Bytes &n = moduli.at(w[1]), d = w[2] == "dev" ? zt::test_key(0).d : Bytes{};
        zt::expect_run(a, std::stoi(w[3]), w[4], n.empty() ? "" : fp(n), [&](const zt::Run &run) {
            const auto o = std::find(a.begin(), a.end(), "-o");
            EXPECT_TRUE(o != a.end() || run.out[0] == '{' || run.out == fp(n) + "\n") << run.out;
            if (o == a.end()) return;  // pubhash
            EXPECT_EQ(cfg_n(o[1]), n) << a[2];
            // Compared, never printed: present exactly when expected, and the key's own.
            EXPECT_TRUE(cfg_hex(o[1], "AUTH_PARAM_D") == zt::to_hex(d)) << a[2];
            enc_params.push_back(cfg_hex(o[1], "ENC_PARAM").substr(0, 64));
            for (auto [opt, name] : {std::pair{"--img-ver", "IMG_VER"},
                                     {"--enc-param", "ENC_PARAM"}, {"--dec-param", "DEC_PARAM"}}) {
                const auto v = std::find(a.begin(), a.end(), opt);  // "0x" optional
                const std::string hex =
                    v == a.end() ? "" : v[1].substr(v[1].find_last_of("xX") + 1);
                EXPECT_TRUE(hex.empty() || cfg_hex(o[1], name).starts_with(hex + "\n")) << name;
            }
        });
    }
    EXPECT_EQ(rows.size(), 11u);  // the file was read whole
    for (size_t i = 0; i < 64; i += 2) {  // the system's random bytes: each differs somewhere
        std::set<std::string> seen;
        for (const std::string &p : enc_params) seen.insert(p.substr(i, 2));
        EXPECT_GT(seen.size(), 1u) << "ENC_PARAM byte " << i / 2;
    }
    if (!f.t.skip.empty()) GTEST_SKIP() << "token rows: " << f.t.skip;
}

// sign with each key source, and each way it fails with its own status and nothing written: the
// rows are in tests/vectors/zirnimg_sign_rows.txt.
TEST(ZirnimgSign, EveryKeySource)
{
    ASSERT_TRUE(freopen("/dev/null", "r", stdin));
    const Files &f = files();
    const zt::Vars cfgs = {{"tok", f.tok}, {"nod", f.nod}, {"cfg", f.cfg}};
    const auto rows = zt::load_rows("zirnimg_sign_rows.txt", {{"$D", f.d}, {"$M", f.t.module},
        {"$C", f.t.client}, {"$H", f.helper}, {"$S", ZIRN_SOURCE_DIR}});
    for (const zt::Words &w : rows) {  // CFG STATUS MESSAGE KEY OPTIONS...
        if (w[0] == "tok" && !f.t.skip.empty()) continue;
        std::vector<std::string> args = {"sign", cfgs.at(w[0]), f.plain, "img", "0x00200000"};
        args.insert(args.end(), w.begin() + 3, w.end());
        zt::expect_run(args, std::stoi(w[1]), w[2], fp(cfg_n(args[1])),
                   [&](const zt::Run &) { expect_image(args[1]); });
    }
    EXPECT_EQ(rows.size(), 39u);  // the file was read whole
    if (!f.t.skip.empty()) GTEST_SKIP() << "token rows: " << f.t.skip;
}

// With no passphrase given and a terminal on standard input, the passphrase is asked for on the
// terminal and read without echo, once: a wrong one is refused, not asked again.
TEST(ZirnimgSign, AsksForThePassphraseOnTheTerminal)
{
    const std::string enc = files().d + "/enc.pem";
    const std::tuple<std::string, int, std::string> rows[] = {  // typed, status, on the screen
        {"s3cret\n", 0, fp(zt::test_key(0).n)},
        {"s3cre7\n", 10, "wrong passphrase"},
        {"\x04", 5, "no passphrase of " + enc + " read from the terminal"},
    };
    for (const auto &[typed, status, says] : rows) {
        int term = -1;
        const pid_t pid = forkpty(&term, nullptr, nullptr, nullptr);
        if (pid == 0) {
            execl(ZIRNIMG_EXE, ZIRNIMG_EXE, "pubhash", "--key", enc.c_str(), nullptr);
            _exit(127);
        }
        std::string screen;
        char buf[4096];
        pollfd p{term, POLLIN, 0};
        for (ssize_t n = 0; poll(&p, 1, 10000) == 1 && (n = read(term, buf, sizeof buf)) > 0;) {
            screen.append(buf, size_t(n));
            if (!screen.ends_with("Enter passphrase of " + enc + ": ")) continue;
            ASSERT_EQ(write(term, typed.data(), typed.size()), ssize_t(typed.size()));
        }
        int st = 0;
        pid_t ended = 0;
        for (int i = 0; i < 1000 && (ended = waitpid(pid, &st, WNOHANG)) == 0; i++) usleep(10000);
        if (ended == 0) kill(pid, SIGKILL), waitpid(pid, &st, 0);  // it hung; never a reaped pid
        termios after{};  // the terminal's echo is back, and the Enter it did not echo is shown
        EXPECT_TRUE(tcgetattr(term, &after) == 0 && (after.c_lflag & ECHO) != 0);
        close(term);
        EXPECT_NE(screen.find(enc + ": \r\n"), screen.npos) << screen;
        EXPECT_EQ(WIFEXITED(st) ? WEXITSTATUS(st) : -1, status) << screen;
        EXPECT_NE(screen.find(says), screen.npos) << screen;
        EXPECT_EQ(screen.find("s3cre"), screen.npos) << "echoed: " << screen;
    }
}

// zirnimg run as users run it: round trips with the signer and with the openssl command as the
// external signer, and every exit status on wrong usage and hostile input, as rows of one table.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <map>
#include <set>

#include "oracle.h"

using zt::Bytes;

namespace {

zt::Run z(const std::vector<std::string> &args) { return zt::run(ZIRNIMG_EXE, args); }

struct Keys {
    std::string dir = zt::temp_dir(), cfg = dir + "/prot.cfg", nod = dir + "/no_d.cfg", other = dir + "/other.cfg";
    Keys()
    {
        std::mt19937_64 rng(7);
        const Bytes iv = zt::random_bytes(rng, 16), key = zt::random_bytes(rng, 16), dec = zt::random_bytes(rng, 32);
        const std::string text = zt::cfg_text({1, 2}, iv, key, dec, zt::test_key(0));
        zt::write_file(cfg, text);
        zt::write_file(nod, text.substr(0, text.find("AUTH_PARAM_D")));  // builds that never hold the signing key
        zt::write_file(other, zt::cfg_text({1, 2}, iv, key, dec, zt::test_key(1)));
    }
};

Bytes flipped(Bytes b, size_t bit) { return b[bit / 8] ^= uint8_t(1 << bit % 8), b; }

}  // namespace

// The signer's output verifies and decrypts back to its input; prepare, the openssl command and
// stitch give the signer's format, accepted by verify and by OpenSSL; one flipped bit anywhere
// fails, with the image check's status where it breaks the header's consistency.
TEST(Zirnimg, RoundTripsWithTheSignerAndOpenSsl)
{
    const Keys k;
    const std::string d = k.dir, kh = zt::to_hex(zt::sha256(zt::test_key(0).n)), key = ZIRN_SOURCE_DIR "/example/dev_key.NOT_FOR_PRODUCTION.pem";
    EXPECT_EQ(z({"pubhash", "--cfg", k.nod}).out, kh + "\n");
    std::mt19937_64 rng(1);
    for (size_t size : {1, 17, (1 << 20) + 3}) {  // a block short of, past, and across the 1 MiB pieces
        const Bytes plain = zt::random_bytes(rng, size);
        zt::write_file(d + "/plain", plain);
        ASSERT_EQ(zt::run(ZIRN_TOOL_EXE, {k.cfg, d + "/plain", d + "/prot", "0x00200000"}).status, 0);
        EXPECT_EQ(z({"verify", d + "/prot", "--cfg", k.nod}).status, 0);
        EXPECT_EQ(z({"decrypt", d + "/prot", "--cfg", k.nod, "-o", d + "/back"}).status, 0);
        EXPECT_EQ(zt::read_file(d + "/back"), plain);
        const zt::Run prep = z({"prepare", k.nod, d + "/plain", d + "/unsigned", "2097152", "--digest-out", d + "/digest"});
        const Bytes unsig = zt::read_file(d + "/unsigned");
        ASSERT_EQ(std::pair(prep.status, prep.out), std::pair(0, zt::to_hex(zt::sha256(unsig)) + "\n"));  // the unsigned image is the message
        EXPECT_EQ(zt::read_file(d + "/digest"), zt::sha256(unsig));
        ASSERT_EQ(zt::run("/usr/bin/openssl", {"dgst", "-sha256", "-sign", key, "-sigopt", "rsa_padding_mode:pss", "-sigopt", "rsa_pss_saltlen:32",
                                               "-sigopt", "rsa_mgf1_md:sha256", "-out", d + "/sig", d + "/unsigned"}).status, 0);
        EXPECT_EQ(z({"stitch", d + "/unsigned", d + "/sig", "-o", d + "/stitched"}).status, 0);
        Bytes stitched = zt::read_file(d + "/stitched"), zeroed = stitched;
        std::fill(zeroed.begin() + 316, zeroed.begin() + 572, 0);
        EXPECT_EQ(std::tuple(zeroed, zt::pss_verify(zt::test_key(0).n, zeroed, zt::slice(stitched, 316, 256))), std::tuple(unsig, true));
        EXPECT_EQ(z({"verify", d + "/stitched", "--key-hash", kh}).status, 0);
        const std::string hex = (zt::to_hex(plain) + std::string(128, '0')).substr(0, 128), cfg = d + "/k" + std::to_string(size);
        const std::string odd = d + "/k\nIMG_VER = 0x0000.pem";  // a file name that would add a line
        std::filesystem::copy_file(key, odd, std::filesystem::copy_options::overwrite_existing);
        ASSERT_EQ(z({"keycfg", "--key", odd, "-o", cfg, "--img-ver", "0x" + hex.substr(0, 4), "--enc-param", hex.substr(0, 64),
                     "--dec-param", hex.substr(64)}).status, 0);
        const Bytes file = zt::read_file(cfg);
        const std::string text(file.begin(), file.end()), lines = "IMG_VER = 0x" + hex.substr(0, 4) + "\nENC_PARAM = 0x" +
                                                                  hex.substr(0, 64) + "\nDEC_PARAM = 0x" + hex.substr(64) + "\n";
        EXPECT_NE(text.find(lines), std::string::npos) << text;
        EXPECT_EQ(z({"pubhash", "--cfg", cfg}).status, 0);
        const Bytes prot = zt::read_file(d + "/prot");
        for (size_t bit : std::initializer_list<size_t>{0, 8 * 8, 8 * 12, 8 * 15 + 3, 8 * 23 + 7, 8 * 24 + 4, 8 * 28 + 7, 8 * 60, 8 * 400, 8 * 572 + 1, 8 * 576, 8 * prot.size() - 1}) {
            zt::write_file(d + "/flipped", flipped(prot, bit));
            const bool header_breaks = bit / 8 < 12 || (bit / 8 >= 20 && bit / 8 < 28);  // magic, header size and sizes
            EXPECT_EQ(z({"verify", d + "/flipped", "--cfg", k.nod}).status, header_breaks ? 4 : bit / 8 >= 60 && bit / 8 < 316 ? 3 : 1) << bit;
        }
    }
}

// Every exit status, on wrong usage and on hostile files; nothing is left behind where a command
// fails, and --json gives JSON alone.
TEST(Zirnimg, ExitStatusesAndHostileInput)
{
    const Keys k;
    const std::string d = k.dir, prot = d + "/prot", u = d + "/unsigned", kh = zt::to_hex(zt::sha256(zt::test_key(0).n));
    zt::write_file(d + "/plain", Bytes(100, 7));
    zt::write_file(d + "/empty", "");
    ASSERT_EQ(zt::run(ZIRN_TOOL_EXE, {k.cfg, d + "/plain", prot, "0x00200000"}).status, 0);
    ASSERT_EQ(z({"prepare", k.nod, d + "/plain", u, "0x200"}).status, 0);
    const Bytes good = zt::read_file(prot);
    const auto image = [&](const std::string &name, size_t off, const Bytes &bytes, size_t size = 0) {  // the good image, edited
        Bytes b = good;
        std::copy(bytes.begin(), bytes.end(), b.begin() + long(off));
        b.resize(size ? size : b.size());
        zt::write_file(d + "/" + name, b);
        return d + "/" + name;
    };
    std::filesystem::resize_file(image("sparse", 24, {0x00, 0x00, 0x80, 0x00}), 576 + (8 << 20));  // 8 MiB of holes, read in pieces
    zt::write_file(d + "/bad.cfg", "ENC_PARAM = 0x12\n");
    zt::write_file(d + "/no_enc.cfg", "AUTH_PARAM_N = 0x" + zt::to_hex(zt::test_key(0).n) + "\n");
    zt::write_file(d + "/short.sig", Bytes(255, 1));
    zt::write_file(d + "/zero.sig", Bytes(256, 0));
    std::filesystem::create_directory(d + "/dir");
    const std::string out = d + "/out", pem = ZIRN_SOURCE_DIR "/example/dev_key.NOT_FOR_PRODUCTION.pem";
    zt::write_file(d + "/good.sig", zt::sign_digest(0, zt::sha256(zt::read_file(u)), 32));
    const std::tuple<std::vector<std::string>, int, std::string> rows[] = {
        {{"decrypt", prot, "--cfg", k.nod, "-o", out}, 0, ""}, {{"prepare", k.nod, d + "/plain", out, "512"}, 0, ""},
        {{"stitch", u, d + "/good.sig", "-o", out}, 0, ""}, {{"sign", k.cfg, d + "/plain", out, "0x200"}, 0, ""},
        {{"keycfg", "--key", pem, "-o", out}, 0, ""}, {{"pubhash", "--key", pem}, 0, ""}, {{"verify", prot, "--key", pem}, 0, ""},
        {{"sign", k.nod, d + "/plain", out, "0x200"}, 6, "no AUTH_PARAM_D"}, {{"keycfg", "--key", d + "/none", "-o", out}, 5, ""},
        {{"sign", k.nod, d + "/plain", out, "0x200", "--key", ZIRN_VECTORS_DIR "/second_key.pem"}, 3, "nothing was signed"},
        {{}, 2, "no command given"}, {{"bogus", prot}, 2, "unknown command"}, {{"info"}, 2, "usage: zirnimg info IMAGE"},
        {{"info", prot, "--bogus"}, 2, "unknown option --bogus"}, {{"verify", prot, "--key-hash"}, 2, "needs a value"},
        {{"verify", prot, "--key-hash", "12"}, 2, "64 hex digits"}, {{"verify", prot, "--key-hash", kh, "--cfg", k.cfg}, 2, "takes one of"},
        {{"decrypt", prot, "-o", out}, 2, "decrypt: --cfg and -o are required"}, {{"prepare", k.nod, d + "/plain", out, "0x"}, 2, "external memory size"},
        {{"--help"}, 0, ""}, {{"-h"}, 0, ""}, {{"verify", "--help"}, 0, ""}, {{"--version"}, 0, ""},
        {{"info", prot}, 0, ""},
        {{"verify", prot, "--no-pin"}, 0, "the key was not pinned"}, {{"verify", u, "--no-pin"}, 1, "does not verify"},
        {{"verify", image("flip", 600, {0x55}), "--key-hash", kh}, 1, "does not verify"},
        {{"verify", prot, "--cfg", k.other}, 3, "not for the key pinned"}, {{"decrypt", prot, "--cfg", k.other, "-o", out}, 3, "not signed for the key"},
        {{"info", d + "/empty"}, 4, "truncated"}, {{"verify", image("hdr", 0, {}, 575), "--no-pin"}, 4, "truncated"},
        {{"info", image("magic", 3, {'_'})}, 4, "magic"}, {{"info", image("binary", 0, {0xFF, 0xC3, 0x28, 0x80})}, 4, "magic"}, {{"verify", image("hdrsize", 8, {0x41}), "--no-pin"}, 4, "header size"},
        {{"verify", image("enc15", 24, {0x71}), "--no-pin"}, 4, "image: the encrypted size is not a multiple of 16"},
        {{"verify", image("plainsize", 20, {0xFF, 0xFF, 0xFF, 0x7F}), "--no-pin"}, 4, "plain size"},
        {{"verify", image("lying", 24, {0xF0, 0xFF, 0xFF, 0xFF}), "--no-pin"}, 4, "file size"},
        {{"verify", image("tail", 0, {}, good.size() + 16), "--no-pin"}, 4, "file size"},
        {{"verify", d + "/sparse", "--no-pin"}, 1, "does not verify"}, {{"stitch", u, d + "/short.sig", "-o", out}, 4, "exactly 256 bytes"},
        {{"stitch", u, d + "/zero.sig", "-o", out}, 1, "does not verify"},
        {{"info", d + "/\xE0\x80\x80\xED\xA0\x80\xF4\x90\x80\x80"}, 5, "cannot read"},  // overlong, surrogate, past U+10FFFF
        {{"verify", d + "/dir", "--no-pin"}, 5, "not a regular file"}, {{"stitch", u, d + "/none", "-o", out}, 5, "cannot read"},
        {{"decrypt", prot, "--cfg", k.nod, "-o", d + "/none/out"}, 5, "cannot write"}, {{"decrypt", prot, "--cfg", k.nod, "-o", d + "/dir"}, 5, "cannot write"},
        {{"pubhash", "--cfg", d + "/bad.cfg"}, 6, "line 1: ENC_PARAM takes"}, {{"decrypt", prot, "--cfg", d + "/no_enc.cfg", "-o", out}, 6, "no ENC_PARAM"},
        {{"prepare", k.nod, d + "/empty", out, "0x200"}, 7, "is empty"}, {{"prepare", k.nod, d + "/plain", out, "96"}, 7, "larger than the external memory"},
        {{"prepare", k.nod, d + "/plain", out, "1e3"}, 2, "memory size"},
    };
    const auto listing = [&] {
        std::vector<std::string> names;
        for (const auto &e : std::filesystem::directory_iterator(d)) names.push_back(e.path().filename());
        return std::set<std::string>(names.begin(), names.end());
    };
    const auto before = listing();
    const std::map<std::string, std::vector<const char *>> documented = {
        {"info", {"file", "magic", "key_hash", "signed", "consistent", "problems"}}, {"verify", {"file", "pinned", "key_hash", "signature"}},
        {"decrypt", {"output", "plain_size"}}, {"pubhash", {"key_hash"}}, {"prepare", {"unsigned_image", "digest"}},
        {"stitch", {"output"}}, {"sign", {"output", "key", "key_hash", "digest"}}, {"keycfg", {"output", "key_hash", "private_exponent"}}};
    for (const auto &[args, status, message] : rows) {
        std::vector<std::string> json_args = args;
        json_args.push_back("--json");
        const zt::Run r = z(args);
        std::filesystem::remove(out);  // what a command that succeeded wrote
        const zt::Run rj = z(json_args);
        std::filesystem::remove(out);
        EXPECT_EQ(r.status, status) << args.size() << " " << r.err;
        EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
        EXPECT_EQ(status == 0 && message.empty(), r.err.empty()) << r.err;
        EXPECT_EQ(listing(), before) << "a command left a file behind";
        if (!args.empty() && (args.back() == "--help" || args[0][0] == '-')) continue;
        // --json: one strictly parsed document whatever the outcome, with the documented members.
        EXPECT_EQ(rj.status, status);
        const auto doc = nlohmann::json::parse(rj.out);
        EXPECT_EQ(std::tuple(doc["format_version"], doc["exit_code"], doc["warnings"].is_array()), std::tuple(1, status, true)) << rj.out;
        EXPECT_EQ(doc["command"], args.empty() || args[0] == "bogus" ? nlohmann::json() : nlohmann::json(args[0])) << rj.out;
        EXPECT_EQ(doc.contains("error"), status != 0) << rj.out;
        EXPECT_TRUE(status == 0 || (doc["error"]["exit_code"] == status && doc["error"]["message"].is_string())) << rj.out;
        EXPECT_EQ(rj.out.find('\n'), rj.out.size() - 1) << rj.out;
        for (const char *key : status != 0 ? std::vector<const char *>{} : documented.at(args[0])) EXPECT_TRUE(doc.contains(key)) << key << rj.out;
        EXPECT_EQ(status == 1, doc.contains("error") && doc["error"].contains("diagnosis")) << rj.out;
    }
}

namespace {

// Runs zirnimg with extra environment variables.
zt::Run z_env(const std::vector<std::pair<std::string, std::string>> &env, const std::vector<std::string> &args)
{
    for (const auto &[k, v] : env) setenv(k.c_str(), v.c_str(), 1);
    const zt::Run r = z(args);
    for (const auto &[k, v] : env) unsetenv(k.c_str());
    return r;
}

std::string names_in(const std::string &dir)
{
    std::string r;
    for (const auto &e : std::filesystem::directory_iterator(dir)) r += e.path().filename().string() + " ";
    return r;
}

// Starts zirnimg, sends sig as soon as its temporary output exists, and gives the exit status
// (-1 when it ended by the signal itself, -2 when the output was never seen).
int interrupted_status(const std::vector<std::string> &args, const std::string &dir, int sig)
{
    std::vector<std::string> words{ZIRNIMG_EXE};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        execv(argv[0], argv.data());
        _exit(127);
    }
    bool seen = false;
    int st = 0;
    for (int i = 0; i < 20000 && !seen && waitpid(pid, &st, WNOHANG) == 0; i++) {
        seen = names_in(dir).find(".zirnimg.") != std::string::npos;
        if (seen) kill(pid, sig);
        else usleep(100);
    }
    if (seen) waitpid(pid, &st, 0);
    return !seen ? -2 : WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

bool holds(const std::string &text, const Bytes &secret)
{
    std::string lower = text;
    for (auto &ch : lower) ch = char(tolower(ch));
    return lower.find(zt::to_hex(secret).substr(0, 16)) != std::string::npos;
}

}  // namespace

// The findings of a hostile review, one row each: a co-user who rewrites the image during a
// decrypt, malleable signatures, plaintext others can read or that an interrupted run leaves,
// keys on standard error when /tmp is not writable, inputs that hang, 4 GiB inputs signed cut
// short, configurations that swap a key without a word, and a verify that trusts any key.
TEST(Zirnimg, HostileConditions)
{
    const Keys k;
    const std::string d = k.dir, prot = d + "/prot", kh = zt::to_hex(zt::sha256(zt::test_key(0).n));
    std::mt19937_64 rng(3);
    const Bytes plain = zt::random_bytes(rng, (3 << 20) + 5);
    zt::write_file(d + "/plain", plain);
    ASSERT_EQ(zt::run(ZIRN_TOOL_EXE, {k.cfg, d + "/plain", prot, "0x01000000"}).status, 0);
    const std::string cfg_text = zt::cfg_text({1, 2}, Bytes(16, 0xA7), Bytes(16, 0x5C), Bytes(32, 3), zt::test_key(0));
    const auto cfg_with = [&](const std::string &name, const std::string &text) { return zt::write_file(d + "/" + name, text), d + "/" + name; };
    mkfifo((d + "/fifo").c_str(), 0600);
    const auto within_10s = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"-s", "KILL", "10", ZIRNIMG_EXE});
        return zt::run("/usr/bin/timeout", args);
    };
    const std::vector<std::pair<const char *, std::function<std::string()>>> rows = {
        {"decrypt writes only what it verified", [&] {
             const std::string asan = std::string(getenv("ASAN_OPTIONS") ? getenv("ASAN_OPTIONS") : "") + ":verify_asan_link_order=0";
             zt::write_file(d + "/victim", zt::read_file(prot));
             const zt::Run r = z_env({{"LD_PRELOAD", ZIRN_TAMPER_LIB}, {"ZIRN_TAMPER_PATH", d + "/victim"}, {"ZIRN_TAMPER_OFFSET", "700"},
                                      {"ASAN_OPTIONS", asan}}, {"decrypt", d + "/victim", "--cfg", k.nod, "-o", d + "/p1"});
             const bool tampered = zt::read_file(d + "/victim") != zt::read_file(prot);
             return !tampered ? "the file was not changed" : r.status == 0 && zt::read_file(d + "/p1") != plain ? "changed plaintext written" : "";
         }},
        {"a signature s + n is refused", [&] {
             const Bytes n = zt::test_key(0).n, digest = zt::from_hex(z({"prepare", k.nod, d + "/plain", d + "/u", "0x01000000"}).out.substr(0, 64));
             Bytes big;
             for (int i = 0; i < 200 && big.size() != 256; i++) {
                 const Bytes s = zt::sign_digest(0, digest, 32);
                 BIGNUM *sum = BN_new();
                 BN_add(sum, zt::bn(s).get(), zt::bn(n).get());
                 big.assign(256, 0);
                 if (BN_num_bytes(sum) > 256) big.clear();
                 else BN_bn2binpad(sum, big.data(), 256);
                 BN_free(sum);
             }
             zt::write_file(d + "/big.sig", big);
             const zt::Run r = z({"stitch", d + "/u", d + "/big.sig", "-o", d + "/s1"});
             return r.status == 1 && r.err.find("not smaller than the modulus") != std::string::npos ? "" : "stitch gave " + std::to_string(r.status);
         }},
        {"decrypted plaintext is owner-only", [&] {
             const mode_t old = umask(022);
             const int rc = z({"decrypt", prot, "--cfg", k.nod, "-o", d + "/p2"}).status;
             umask(old);
             struct stat st {};
             stat((d + "/p2").c_str(), &st);
             return rc == 0 && (st.st_mode & 0777) == 0600 ? "" : "mode " + std::to_string(st.st_mode & 0777);
         }},
        {"an interrupted run leaves nothing and exits 128 + signal", [&] {
             const std::string sub = d + "/int";
             std::filesystem::create_directory(sub);
             std::string r;
             for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
                 const int st = interrupted_status({"decrypt", prot, "--cfg", k.nod, "-o", sub + "/p"}, sub, sig);
                 if (st != 128 + sig || !names_in(sub).empty()) r += "signal " + std::to_string(sig) + ": " + std::to_string(st) + " " + names_in(sub);
             }
             return r;
         }},
        {"no key reaches any stream, /tmp read-only", [&] {
             const std::string ns = "mount -t tmpfs -o ro tmpfs /tmp && exec \"$0\" \"$@\"", local = std::filesystem::current_path() / "hostile.cfg";
             if (zt::run("/usr/bin/unshare", {"-rm", "sh", "-c", ns, "true"}).status != 0) return std::cout << "[ SKIPPED  ] no private mount namespace\n", std::string();
             std::string r;
             for (const std::string tail : {"DEC_PARAM = 0x12\n", ""}) {
                 zt::write_file(local, cfg_text + tail);
                 const zt::Run run = zt::run("/usr/bin/unshare", {"-rm", "sh", "-c", ns, ZIRNIMG_EXE, "pubhash", "--cfg", local});
                 if (run.status != (tail.empty() ? 0 : 6) || holds(run.out + run.err, Bytes(16, 0x5C)) || holds(run.out + run.err, zt::test_key(0).d))
                     r += "status " + std::to_string(run.status) + ": " + run.err;
             }
             std::filesystem::remove(local);
             return r;
         }},
        {"inputs that are not regular files are refused at once", [&] {
             std::string r;
             for (const std::vector<std::string> &args : {std::vector<std::string>{"verify", d + "/fifo", "--no-pin"}, {"pubhash", "--cfg", d + "/fifo"},
                                                          {"pubhash", "--cfg", "/dev/zero"}, {"stitch", prot, d + "/fifo", "-o", d + "/o"},
                                                          {"prepare", k.nod, d + "/fifo", d + "/o", "0x100"}}) {
                 const zt::Run run = within_10s(args);
                 if (run.status != 5 || run.err.find("not a regular file") == std::string::npos) r += args[0] + " " + args[1] + ": " + run.err;
             }
             const zt::Run signer = zt::run("/usr/bin/timeout", {"-s", "KILL", "10", ZIRN_TOOL_EXE, d + "/fifo", d + "/plain", d + "/o", "0x100"});
             return signer.status == 255 ? r : r + "signer: " + std::to_string(signer.status);
         }},
        {"inputs of 4 GiB or more are refused", [&] {
             std::filesystem::resize_file(cfg_with("huge", ""), (uint64_t(1) << 32) + 16);
             const zt::Run run = z({"prepare", k.nod, d + "/huge", d + "/o", "0x100"});
             const zt::Run signer = zt::run(ZIRN_TOOL_EXE, {k.cfg, d + "/huge", d + "/o", "0x100"});
             return run.status == 7 && signer.status == 255 && !zt::file_exists(d + "/o") ? "" : "prepare, signer: " + run.err + signer.out;
         }},
        {"configurations that swap a key are refused, naming the line", [&] {
             const std::string n_line = "AUTH_PARAM_N = 0x" + zt::to_hex(zt::test_key(1).n) + "\n";
             std::string r;
             for (const auto &[text, line] : {std::pair{cfg_text + "AUTH_PARAM_N_OLD" + n_line.substr(12), "line 7"}, {cfg_text + n_line, "line 7"},
                                              {"#" + std::string(4095, ' ') + n_line + cfg_text, "line 1"}}) {
                 const zt::Run run = z({"pubhash", "--cfg", cfg_with("trap.cfg", text)});
                 if (run.status != 6 || run.err.find(line) == std::string::npos) r += run.out + run.err;
             }
             return r;
         }},
        {"verify without a pin is a usage error", [&] {
             const zt::Run run = z({"verify", prot});
             const bool named = run.err.find("--key-hash") != std::string::npos && run.err.find("--cfg") != std::string::npos && run.err.find("--no-pin") != std::string::npos;
             return run.status == 2 && named ? "" : run.err;
         }},
    };
    for (const auto &[finding, check] : rows) EXPECT_EQ(check(), "") << finding;
}

// zirnimg run as users run it: round trips with the signer and with the openssl command as the
// external signer, and every exit status on wrong usage and hostile input, as rows of one table.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "oracle.h"
#include "runs.h"

using zt::Bytes;
using zt::has;
using zt::z;

namespace {

const Bytes &kn = zt::test_key(0).n;
const std::string kh = zt::to_hex(zt::sha256(kn));
const std::string dev_pem = ZIRN_SOURCE_DIR "/example/dev_key.NOT_FOR_PRODUCTION.pem";

struct Keys {
    std::string dir = zt::temp_dir(), cfg = dir + "/prot.cfg", nod = dir + "/no_d.cfg",
                other = dir + "/other.cfg", text = zt::write_cfg(cfg);
    Keys() { zt::write_cfg(nod, 0, true), zt::write_cfg(other, 1); }
};

// The names in dir, sorted.
std::string names_in(const std::string &dir)
{
    std::set<std::string> names;
    for (auto &e : std::filesystem::directory_iterator(dir)) names.insert(e.path().filename());
    std::string r;
    for (const auto &n : names) r += n + " ";
    return r;
}

}  // namespace

// The signer's output verifies and decrypts back to its input; prepare, the openssl command and
// stitch give the signer's format, accepted by verify and by OpenSSL.
TEST(Zirnimg, RoundTripsWithTheSignerAndOpenSsl)
{
    const Keys k;
    const std::string d = k.dir;
    const Bytes nod = zt::read_file(k.nod);
    std::string upper(nod.begin(), nod.end());  // "0X" and upper-case digits read the same
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    zt::write_file(d + "/upper.cfg", upper);
    for (const std::string &cfg : {k.nod, d + "/upper.cfg"})
        EXPECT_EQ(z({"pubhash", "--cfg", cfg}).out, kh + "\n");
    std::mt19937_64 rng(1);
    // short of, past and across the 1 MiB pieces; the signer's memory size written three ways
    const std::pair<size_t, const char *> runs[] = {{1, "0x200000"}, {17, "2097152"},
                                                    {(1 << 20) + 3, "0X200000"}};
    for (const auto &[size, mem] : runs) {
        const Bytes plain = zt::random_bytes(rng, size);
        zt::write_file(d + "/plain", plain);
        const std::vector<std::string> sign = {k.cfg, d + "/plain", d + "/prot", "0x00200000"};
        ASSERT_EQ(zt::run(ZIRN_TOOL_EXE, sign).status, 0);
        EXPECT_EQ(z({"verify", d + "/prot", "--cfg", k.nod}).status, 0);
        EXPECT_EQ(z({"decrypt", d + "/prot", "--cfg", k.nod, "-o", d + "/back"}).status, 0);
        EXPECT_EQ(zt::read_file(d + "/back"), plain);
        const zt::Run prep = z({"prepare", k.nod, d + "/plain", d + "/unsigned", mem,
                                "--digest-out", d + "/digest"});
        const Bytes unsig = zt::read_file(d + "/unsigned");
        // the unsigned image is the message, and the signer's image before its signature
        ASSERT_EQ(prep.out, zt::to_hex(zt::sha256(unsig)) + "\n");
        const Bytes prot = zt::read_file(d + "/prot");
        EXPECT_EQ(std::pair(zt::signed_part(prot), zt::read_file(d + "/digest")),
                  std::pair(unsig, zt::sha256(unsig)));
        ASSERT_EQ(zt::run("/usr/bin/openssl", {"dgst", "-sha256", "-sign", dev_pem, "-sigopt",
            "rsa_padding_mode:pss", "-sigopt", "rsa_pss_saltlen:32", "-sigopt",
            "rsa_mgf1_md:sha256", "-out", d + "/sig", d + "/unsigned"}).status, 0);
        EXPECT_EQ(z({"stitch", d + "/unsigned", d + "/sig", "-o", d + "/stitched"}).status, 0);
        const Bytes stitched = zt::read_file(d + "/stitched");
        EXPECT_EQ(std::pair(zt::signed_part(stitched), zt::image_verifies(stitched, kn)),
                  std::pair(unsig, true));
        EXPECT_EQ(z({"verify", d + "/stitched", "--key-hash", kh}).status, 0);
    }
}

// Every exit status, on wrong usage and on hostile files (the rows are in
// tests/vectors/zirnimg_exit_rows.txt); nothing is left behind where a command fails, and --json
// gives one document with the documented members, whatever the outcome.
TEST(Zirnimg, ExitStatusesAndHostileInput)
{
    const Keys k;
    const std::string d = k.dir, prot = d + "/prot", u = d + "/unsigned";
    zt::write_file(d + "/plain", Bytes(100, 7));
    zt::write_file(d + "/empty", "");
    ASSERT_EQ(zt::run(ZIRN_TOOL_EXE, {k.cfg, d + "/plain", prot, "0x00200000"}).status, 0);
    ASSERT_EQ(z({"prepare", k.nod, d + "/plain", u, "0x200"}).status, 0);
    zt::write_file(d + "/bad.cfg", "ENC_PARAM = 0x12\n");
    zt::write_file(d + "/no_enc.cfg", "AUTH_PARAM_N = 0x" + zt::to_hex(zt::test_key(0).n) + "\n");
    zt::write_file(d + "/short.sig", Bytes(255, 1));
    zt::write_file(d + "/zero.sig", Bytes(256, 0));
    const Bytes digest = zt::sha256(zt::read_file(u));
    zt::write_file(d + "/good.sig", zt::sign_digest(0, digest, 32));
    Bytes big;  // s + n, for a signature s small enough that the sum fits 256 bytes
    while (big.empty()) big = zt::plus_n(zt::sign_digest(0, digest, 32), kn);
    zt::write_file(d + "/big.sig", big);
    const std::string n1 = "AUTH_PARAM_N = 0x" + zt::to_hex(zt::test_key(1).n) + "\n";
    zt::write_file(d + "/trap1.cfg", k.text + "AUTH_PARAM_N_OLD" + n1.substr(12));
    zt::write_file(d + "/trap2.cfg", k.text + n1);
    zt::write_file(d + "/trap3.cfg", "#" + std::string(4095, ' ') + n1 + k.text);
    std::filesystem::create_directory(d + "/dir");
    mkfifo((d + "/fifo").c_str(), 0600);
    const zt::Vars vars = {
        {"$D", d}, {"$P", prot}, {"$U", u}, {"$N", k.nod}, {"$F", k.cfg}, {"$X", k.other},
        {"$K", kh}, {"$O", "out"}, {"$V", ZIRN_VECTORS_DIR}, {"$E", dev_pem},
        {"$W", d + "/\xE0\x80\x80\xED\xA0\x80\xF4\x90\x80\x80"},
        {"$Y", d + "/\xE0\xA0\x80\xF0\x90\x80\x80"}};
    std::vector<std::tuple<std::vector<std::string>, int, std::string>> rows;
    for (const zt::Words &w : zt::load_rows("zirnimg_exit_rows.txt", vars)) {
        if (w[0] != "image") {
            rows.emplace_back(std::vector(w.begin() + 2, w.end()), std::stoi(w[0]), w[1]);
            continue;
        }
        Bytes b = zt::read_file(prot), edit = zt::from_hex(w[3] == "-" ? "" : w[3]);
        for (size_t i = 0; i < edit.size(); i++) b[std::stoul(w[2]) + i] ^= edit[i];
        zt::write_file(d + "/" + w[1], b);
        if (w.size() > 4) std::filesystem::resize_file(d + "/" + w[1], std::stoul(w[4]));
    }
    ASSERT_EQ(rows.size(), 78u);  // the file was read whole
    // info shows the magic whole, with what is not printable escaped
    EXPECT_TRUE(has(z({"info", d + "/binary"}).out, R"(magic:           "\xff\xc3(\x80XOQ ")"));
    const std::string before = names_in(d);
    for (const auto &[args, status, message] : rows) zt::expect_run(args, status, message);
    EXPECT_EQ(names_in(d), before) << "a command left a file beside its output";
}

namespace {

// zirnimg with common/tamper_preload.cpp changing path as how says (an offset to flip, or "cut").
zt::Run tampered(const std::string &path, const std::string &how, std::vector<std::string> args)
{
    const char *asan = getenv("ASAN_OPTIONS");
    args.insert(args.begin(), {"LD_PRELOAD=" ZIRN_TAMPER_LIB, "ZIRN_TAMPER_PATH=" + path,
        "ZIRN_TAMPER_HOW=" + how, "ASAN_OPTIONS=" + std::string(asan ? asan : "") +
        ":verify_asan_link_order=0", ZIRNIMG_EXE});
    return zt::run("/usr/bin/env", args);
}

// Runs zirnimg, sends sig as soon as its temporary output exists, and gives the exit status
// (-1 when it ended by the signal itself, -2 when the output was never seen).
int interrupted_status(const std::vector<std::string> &args, const std::string &dir, int sig)
{
    bool seen = false;
    const zt::Run r = zt::run(ZIRNIMG_EXE, args, [&](pid_t pid) {
        siginfo_t ended{};  // looked at, not reaped
        for (int i = 0; i < 20000 && !seen; i++) {
            if (waitid(P_PID, id_t(pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid)
                return;
            seen = names_in(dir).find(".zirnimg.") != std::string::npos;
            if (seen) kill(pid, sig);
            else usleep(100);
        }
    });
    return seen ? r.status : -2;
}

}  // namespace

// A co-user who rewrites or cuts a file while it is read, and a run interrupted by a signal (the
// other findings of the hostile review are rows of ExitStatusesAndHostileInput and of the signer's
// FailuresPrintTheirCascadeAndWriteNothing).
TEST(Zirnimg, HostileConditions)
{
    const Keys k;
    const std::string d = k.dir, prot = d + "/prot";
    std::mt19937_64 rng(3);
    const Bytes plain = zt::random_bytes(rng, (3 << 20) + 5);
    zt::write_file(d + "/plain", plain);
    ASSERT_EQ(zt::run(ZIRN_TOOL_EXE, {k.cfg, d + "/plain", prot, "0x01000000"}).status, 0);
    const std::vector<std::pair<const char *, std::function<std::string()>>> rows = {
        {"decrypt writes only what it verified", [&] {
             const std::string victim = d + "/victim";
             zt::write_file(victim, zt::read_file(prot));
             const zt::Run r = tampered(victim, "700", {"decrypt", victim, "--cfg", k.nod, "-o",
                                                        d + "/p1"});
             if (zt::read_file(victim) == zt::read_file(prot)) return "the file was not changed";
             return r.status == 0 && zt::read_file(d + "/p1") != plain ? "changed plaintext" : "";
         }},
        {"an input cut short while read is refused, not waited on", [&] {
             const std::string v = d + "/victim";
             zt::write_file(v, plain);
             const zt::Run p = tampered(v, "cut", {"prepare", k.nod, v, d + "/u0", "0x01000000"});
             zt::write_file(v, zt::read_file(prot));
             const zt::Run r = tampered(v, "cut", {"decrypt", v, "--cfg", k.nod, "-o", d + "/p0"});
             const bool said = has(p.err, "changed while read") && has(r.err, "cannot read " + v);
             const bool left = zt::file_exists(d + "/u0") || zt::file_exists(d + "/p0");
             return p.status == 5 && r.status == 5 && said && !left ? "" : p.err + r.err;
         }},
        {"an interrupted run leaves nothing and exits 128 + signal", [&] {
             const std::string sub = d + "/int";
             std::filesystem::create_directory(sub);
             std::string r;
             for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
                 const std::vector<std::string> args = {"decrypt", prot, "--cfg", k.nod, "-o",
                                                        sub + "/p"};
                 const int st = interrupted_status(args, sub, sig);
                 if (st != 128 + sig || !names_in(sub).empty())
                     r += std::to_string(sig) + ": " + std::to_string(st) + " " + names_in(sub);
             }
             return r;
         }},
    };
    for (const auto &[finding, check] : rows) EXPECT_EQ(check(), "") << finding;
}

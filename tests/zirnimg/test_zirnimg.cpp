// zirnimg run as users run it: round trips with the signer and with the openssl command as the
// external signer, and every exit status on wrong usage and hostile input, as rows of one table.
#include <gtest/gtest.h>

#include <filesystem>
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
    for (size_t size : {1, 15, 16, 17, 4095, (1 << 20) + 3}) {
        const Bytes plain = zt::random_bytes(rng, size);
        zt::write_file(d + "/plain", plain);
        ASSERT_EQ(zt::run(ZIRN_TOOL_EXE, {k.cfg, d + "/plain", d + "/prot", "0x00200000"}).status, 0);
        EXPECT_EQ(z({"verify", d + "/prot", "--cfg", k.nod}).status, 0);
        EXPECT_EQ(z({"verify", d + "/prot", "--key-hash", kh}).status, 0);
        EXPECT_EQ(z({"verify", d + "/prot", "--cfg", k.other}).status, 3);
        EXPECT_EQ(z({"decrypt", d + "/prot", "--cfg", k.nod, "-o", d + "/back"}).status, 0);
        EXPECT_EQ(zt::read_file(d + "/back"), plain);
        const zt::Run prep = z({"prepare", k.nod, d + "/plain", d + "/unsigned", "0x00200000"});
        const Bytes unsig = zt::read_file(d + "/unsigned");
        ASSERT_EQ(std::pair(prep.status, prep.out), std::pair(0, zt::to_hex(zt::sha256(unsig)) + "\n"));  // the unsigned image is the message
        ASSERT_EQ(zt::run("/usr/bin/openssl", {"dgst", "-sha256", "-sign", key, "-sigopt", "rsa_padding_mode:pss", "-sigopt", "rsa_pss_saltlen:32",
                                               "-sigopt", "rsa_mgf1_md:sha256", "-out", d + "/sig", d + "/unsigned"}).status, 0);
        EXPECT_EQ(z({"stitch", d + "/unsigned", d + "/sig", "-o", d + "/stitched"}).status, 0);
        Bytes stitched = zt::read_file(d + "/stitched"), zeroed = stitched;
        std::fill(zeroed.begin() + 316, zeroed.begin() + 572, 0);
        EXPECT_EQ(std::tuple(zeroed, zt::pss_verify(zt::test_key(0).n, zeroed, zt::slice(stitched, 316, 256))), std::tuple(unsig, true));
        const auto doc = nlohmann::json::parse(z({"verify", d + "/stitched", "--key-hash", kh, "--json"}).out);
        EXPECT_EQ(std::tuple(doc["signature"], doc["key_hash"], doc["pinned"]), std::tuple("valid", kh, true));
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
    const std::string out = d + "/out";
    const std::tuple<std::vector<std::string>, int, std::string> rows[] = {
        {{}, 2, "no command given"}, {{"bogus", prot}, 2, "unknown command"}, {{"info"}, 2, "usage: zirnimg info IMAGE"},
        {{"info", prot, "--bogus"}, 2, "unknown option --bogus"}, {{"verify", prot, "--key-hash"}, 2, "needs a value"},
        {{"verify", prot, "--key-hash", "12"}, 2, "64 hex digits"}, {{"verify", prot, "--key-hash", kh, "--cfg", k.cfg}, 2, "takes one of"},
        {{"decrypt", prot, "-o", out}, 2, "decrypt: --cfg and -o are required"}, {{"prepare", k.nod, d + "/plain", out, "0x"}, 2, "external memory size"},
        {{"--help"}, 0, ""}, {{"verify", "--help"}, 0, ""}, {{"--version"}, 0, ""},
        {{"info", prot}, 0, ""}, {{"verify", prot}, 2, "--key-hash HEX, --cfg CFG or --key KEY; --no-pin"},
        {{"verify", prot, "--no-pin"}, 0, "the key was not pinned"}, {{"verify", u, "--no-pin"}, 1, "does not verify"},
        {{"verify", image("flip", 600, {0x55}), "--key-hash", kh}, 1, "does not verify"},
        {{"verify", prot, "--cfg", k.other}, 3, "not for the key pinned"}, {{"decrypt", prot, "--cfg", k.other, "-o", out}, 3, "not signed for the key"},
        {{"info", d + "/empty"}, 4, "truncated"}, {{"verify", image("hdr", 0, {}, 575), "--no-pin"}, 4, "truncated"},
        {{"info", image("magic", 3, {'_'})}, 4, "magic"}, {{"verify", image("hdrsize", 8, {0x41}), "--no-pin"}, 4, "header size"},
        {{"verify", image("enc15", 24, {0x71}), "--no-pin"}, 4, "multiple of 16"}, {{"verify", image("plain", 20, {0xFF, 0xFF, 0xFF, 0x7F}), "--no-pin"}, 4, "plain size"},
        {{"verify", image("lying", 24, {0xF0, 0xFF, 0xFF, 0xFF}), "--no-pin"}, 4, "file size"},
        {{"verify", image("tail", 0, {}, good.size() + 16), "--no-pin"}, 4, "file size"},
        {{"verify", d + "/sparse", "--no-pin"}, 1, "does not verify"}, {{"stitch", u, d + "/short.sig", "-o", out}, 4, "exactly 256 bytes"},
        {{"stitch", u, d + "/zero.sig", "-o", out}, 1, "does not verify"}, {{"info", d + "/none"}, 5, "cannot read"},
        {{"verify", d + "/dir", "--no-pin"}, 5, "not a regular file"}, {{"stitch", u, d + "/none", "-o", out}, 5, "cannot read"},
        {{"decrypt", prot, "--cfg", k.nod, "-o", d + "/none/out"}, 5, "cannot write"}, {{"decrypt", prot, "--cfg", k.nod, "-o", d + "/dir"}, 5, "cannot write"},
        {{"pubhash", "--cfg", d + "/none"}, 5, "cannot read"}, {{"prepare", k.nod, d + "/none", out, "0x200"}, 5, "cannot read"},
        {{"pubhash", "--cfg", d + "/bad.cfg"}, 6, "line 1: ENC_PARAM takes"}, {{"decrypt", prot, "--cfg", d + "/no_enc.cfg", "-o", out}, 6, "no ENC_PARAM"},
        {{"prepare", k.nod, d + "/empty", out, "0x200"}, 7, "is empty"}, {{"prepare", k.nod, d + "/plain", out, "0x60"}, 7, "larger than the external memory"},
    };
    const auto listing = [&] {
        std::vector<std::string> names;
        for (const auto &e : std::filesystem::directory_iterator(d)) names.push_back(e.path().filename());
        return std::set<std::string>(names.begin(), names.end());
    };
    const auto before = listing();
    for (const auto &[args, status, message] : rows) {
        std::vector<std::string> json_args = args;
        json_args.push_back("--json");
        const zt::Run r = z(args), rj = z(json_args);
        EXPECT_EQ(r.status, status) << args.size() << " " << r.err;
        EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
        EXPECT_EQ(status == 0 && message.empty(), r.err.empty()) << r.err;
        EXPECT_EQ(listing(), before) << "a failed or read-only command left a file";
        if (!args.empty() && (args.back() == "--help" || args[0][0] == '-')) continue;
        // --json: one strictly parsed document whatever the outcome, with the documented members.
        EXPECT_EQ(rj.status, status);
        const auto doc = nlohmann::json::parse(rj.out);
        EXPECT_EQ(std::tuple(doc["format_version"], doc["exit_code"], doc["warnings"].is_array()), std::tuple(1, status, true)) << rj.out;
        EXPECT_EQ(doc["command"], args.empty() || args[0] == "bogus" ? nlohmann::json() : nlohmann::json(args[0])) << rj.out;
        EXPECT_EQ(doc.contains("error"), status != 0) << rj.out;
        EXPECT_TRUE(status == 0 || (doc["error"]["exit_code"] == status && doc["error"]["message"].is_string())) << rj.out;
        EXPECT_EQ(rj.out.find('\n'), rj.out.size() - 1) << rj.out;
    }
}

// The signer run as a user runs it; its output files checked with OpenSSL, its console text and
// exit status compared with the documented messages.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <regex>
#include <sstream>

#include "oracle.h"

using zt::Bytes;

namespace {

const std::string kInfo = "Info\nhdr size = 576\nsizeof(long) = " + std::to_string(sizeof(long)) +
                          "\nsizeof(long long) = " + std::to_string(sizeof(long long)) +
                          "\nsizeof(int) = " + std::to_string(sizeof(int)) + "\n";
const std::string kEcho = "Parsing Line Below =>\n";

// Console text with each hex dump replaced by its length.
std::string mask_dumps(const std::string &out)
{
    std::istringstream in(out);
    std::string masked;
    for (std::string l; std::getline(in, l);) {
        const bool dump = l.size() > 2 && l.rfind("0x", 0) == 0 &&
                          l.find_first_not_of("0123456789abcdef", 2) == std::string::npos;
        masked += (dump ? "<dump of " + std::to_string(l.size() / 2 - 1) + " bytes>" : l) + "\n";
    }
    return masked;
}
std::string le(uint32_t v)
{
    return zt::to_hex(Bytes{uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)});
}

// One job: a configuration, an image and the paths of a run.
struct Job {
    std::string dir = zt::temp_dir(), cfg = dir + "/prot.cfg", in = dir + "/zirn.img",
                out = dir + "/zirn.prot.img", text;
    Bytes img_ver{0x01, 0x02}, iv, key, dec_param, image;
    const zt::RsaKey &rsa = zt::test_key(0);

    explicit Job(size_t size, uint64_t seed = 1)
    {
        std::mt19937_64 rng(seed);
        iv = zt::random_bytes(rng, 16), key = zt::random_bytes(rng, 16);
        dec_param = zt::random_bytes(rng, 32), image = zt::random_bytes(rng, size);
        zt::write_file(cfg, text = zt::cfg_text(img_ver, iv, key, dec_param, rsa));
        zt::write_file(in, image);
    }
    // Console text up to the parse of cfg_path, for a memory size echoed as sz.
    static std::string start(const std::string &sz, const std::string &cfg_path)
    {
        return kInfo + "The required external memory size by ZIRN image is hex: " + sz +
               " !!!\nStart to process zirn img prot cfg file (" + cfg_path + ") !!!\n";
    }
    // Up to the size query of the image at in_path: each line of the configuration but its
    // leading comment is echoed as written.
    std::string head(const std::string &sz, const std::string &in_path) const
    {
        const std::string lines = text.substr(text.find('\n') + 1);
        return start(sz, cfg) + std::regex_replace(lines, std::regex(".+\n"), kEcho + "$&") +
               "Succeed to process zirn img prot cfg file (" + cfg +
               ") !!!\nStar to protect zirn image binary file (" + in_path + ")!!!\n";
    }
};

}  // namespace

// Every header field, the ciphertext (decrypted by OpenSSL), the signature (verified by OpenSSL
// with the modulus the header carries), and the complete console text, its dumps recomputed.
// 3 MiB spans several of the pieces the image is encrypted and hashed in.
TEST(Signer, ProtectsImagesOfEverySize)
{
    const std::tuple<size_t, std::string, std::string, uint32_t> rows[] = {  // size, sz, echo, mem
        {16, "0x10", "16, 0x00000010", 16},
        {17, "0x20", "32, 0x00000020", 32},
        {1000, "0X1000zz", "4096, 0x00001000", 0x1000},
        {3 * 1024 * 1024 + 5, "0x80000000", "-2147483648, 0x80000000", 0x80000000u},
    };
    for (const auto &[size, sz, echo, mem] : rows) {
        const Job job(size, size);
        const zt::Run r = zt::run(ZIRN_TOOL_EXE, {job.cfg, job.in, job.out, sz});
        ASSERT_EQ(std::pair(r.status, r.err), std::pair(0, std::string())) << r.out;
        const Bytes file = zt::read_file(job.out);
        const uint32_t p = uint32_t((size + 15) & ~size_t(15));
        ASSERT_EQ(file.size(), 576 + p);
        Bytes padded = job.image;
        padded.resize(p, 0);
        // magic "EET XOQ ", header size 576, three marks, version, reserved, sizes, DEC_PARAM,
        // modulus; memory size
        EXPECT_EQ(zt::to_hex(zt::slice(file, 0, 316)) + zt::to_hex(zt::slice(file, 572, 4)),
                  "45455420584f5120" "40020000" "010101" + zt::to_hex(job.img_ver) + "000000" +
                      le(uint32_t(size)) + le(p) + zt::to_hex(job.dec_param) +
                      zt::to_hex(job.rsa.n) + le(mem));
        EXPECT_EQ(zt::cipher("AES-128-CBC", job.key, job.iv, zt::slice(file, 576, p), 0), padded);
        EXPECT_TRUE(zt::image_verifies(file, zt::slice(file, 60, 256)));
        const Bytes em = zt::modexp(zt::slice(file, 316, 256), job.rsa.e, job.rsa.n),
                    hash = zt::sha256(zt::signed_part(file));
        EXPECT_EQ(r.out, job.head(sz + " (" + echo + ")", job.in) + "Hash for zirn header + image:"
                  "\n0x" + zt::to_hex(hash) + "\nPKCS#1 PSS for hash of zirn image:\n0x" +
                  zt::to_hex(em) + "\nSucceed to verify the signature of zirn image\nSucceed to "
                  "protect zirn image binary file (" + job.in + " -> " + job.out + ")!!!\n");
    }
}

// Each failure prints its cascade of messages and exits with status 255; no output file is left.
// The consoles are in tests/vectors/signer_console.txt.
TEST(Signer, FailuresPrintTheirCascadeAndWriteNothing)
{
    const Job job(17);
    const std::string &dir = job.dir, big = dir + "/big.img",
                      head = job.head("0x1f (31, 0x0000001f)", "");
    std::string no_n = job.text;
    zt::write_file(dir + "/no_n.cfg", no_n.erase(no_n.find("AUTH_PARAM_N"), 2 * 256 + 18));
    zt::write_file(dir + "/foreign.cfg", zt::cfg_text(job.img_ver, job.iv, job.key, job.dec_param,
                                                      job.rsa, &zt::test_key(1).d));
    mkfifo((dir + "/fifo").c_str(), 0600);
    zt::write_file(big, "");
    std::filesystem::resize_file(big, (uint64_t(1) << 32) + 16);  // sparse; read as 16 bytes before
    const auto rows = zt::load_rows("signer_console.txt", {
        {"$CFG", job.cfg}, {"$IMG", job.in}, {"$OUT", job.out}, {"$BIG", big},
        {"$INFO", kInfo.substr(0, kInfo.size() - 1)}, {"$NONE", dir + "/none"},
        {"$HEAD", head.substr(0, head.rfind("\nStar"))}, {"$NOMOD", dir + "/no_n.cfg"},
        {"$FOREIGN", dir + "/foreign.cfg"}, {"$NODIR", dir + "/no/out"}, {"$FIFO", dir + "/fifo"}});
    ASSERT_EQ(rows.size(), 19u);  // the file was read whole
    for (const zt::Words &w : rows) {
        if (w[0] != "run") continue;
        const std::string &want = w.back();
        const zt::Run r = zt::run(ZIRN_TOOL_EXE, std::vector(w.begin() + 1, w.end() - 1));
        const std::string masked = mask_dumps(r.out);
        const size_t n = std::min(masked.size(), want.size() - 3);
        const std::string got = want.starts_with("...") ? "..." + masked.substr(masked.size() - n)
                                                         : r.out;
        const bool left = zt::file_exists(job.out);
        EXPECT_EQ(std::tuple(r.status, got, left), std::tuple(255, want, false));
        std::filesystem::remove(job.out);
    }
    std::filesystem::remove(big);
}

// A write, read or close failing at each call of the image's way in and out, and every allocation
// of a run failing in turn: each gives its documented messages and status 255, nothing leaks (the
// sanitizer build checks), and whatever file is left never passes for a protected image unless it
// verifies. Standard output carried the text of the secrets: however the run ends, its buffer is
// left holding none of it.
TEST(Signer, FileFaultsEveryAllocationFailingAndStdoutWiped)
{
    const Job job(100000);
    const std::string failed = "Error: fail to protect zirn image binary file (" + job.in + ")\n",
                      wiped = "stdout buffer wiped\n";
    setenv("ZIRN_STDOUT_CHECK", "1", 1);
    // The run's console and status, and `zirnimg verify`'s status on what it left (-1: nothing).
    const auto run = [&](const std::string &fault) {
        setenv("ZIRN_FAULT", fault.c_str(), 1);
        const zt::Run r = zt::run(ZIRN_FAULTS_EXE, {job.cfg, job.in, job.out, "0x00200000"});
        unsetenv("ZIRN_FAULT");
        const std::vector<std::string> verify = {"verify", job.out, "--cfg", job.cfg};
        const int left = zt::file_exists(job.out) ? zt::run(ZIRNIMG_EXE, verify).status : -1;
        std::filesystem::remove(job.out);
        return std::tuple(r, left);
    };
    const auto rows = zt::load_rows("signer_console.txt", {{"$IMG", job.in}, {"$OUT", job.out}});
    for (const zt::Words &w : rows) {
        if (w[0] != "fault") continue;
        const auto [r, left] = run(w[1]);
        const bool allowed = std::count(w.begin() + 2, w.end() - 1, std::to_string(left)) == 1;
        EXPECT_TRUE(r.status == 255 && r.out.ends_with(w.back()) && r.err == wiped)
            << w[1] << r.out;
        EXPECT_TRUE(allowed) << w[1] << " left " << left;
    }
    const auto [counted, none] = run("alloc:0");
    ASSERT_TRUE(counted.status == 0 && counted.err.ends_with(wiped)) << counted.err;
    const int allocations = std::stoi(counted.err.substr(counted.err.find(": ") + 2));
    EXPECT_GT(allocations, 10);
    // The documented cascade: error lines (and the dumps they announce) to the end.
    const std::regex errors("((Error: |<dump|RSA N =>|Input Data =>).*\n)*");
    const std::string alloc_failed = "Error: fail to allocate memory for zirn image binary file\n";
    for (int n = 1; n <= allocations; n++) {
        const auto [r, left] = run("alloc:" + std::to_string(n));
        const std::string masked = mask_dumps(r.out), cascade = masked.substr(masked.find("Error"));
        const bool documented = std::regex_match(cascade, errors) &&
                                (cascade.ends_with(failed) || cascade == alloc_failed);
        EXPECT_TRUE(r.status == 255 && left == -1 && r.err == wiped && documented)
            << "allocation " << n << ":\n" << cascade;
    }
    unsetenv("ZIRN_STDOUT_CHECK");
}

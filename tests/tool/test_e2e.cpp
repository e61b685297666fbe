// The signer run as a user runs it; its output files checked with OpenSSL, its console text and
// exit status compared with the documented messages.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "oracle.h"

using zt::Bytes;
using namespace std::string_literals;

namespace {

const std::string kInfo = "Info\nhdr size = 576\nsizeof(long) = " + std::to_string(sizeof(long)) + "\nsizeof(long long) = " +
                          std::to_string(sizeof(long long)) + "\nsizeof(int) = " + std::to_string(sizeof(int)) + "\n";
const std::string kDumps = "Hash for zirn header + image:\n<dump of 32 bytes>\nPKCS#1 PSS for hash of zirn image:\n<dump of 256 bytes>\n";

// Console text with each hex dump replaced by its length.
std::string mask_dumps(const std::string &out)
{
    std::istringstream in(out);
    std::string masked;
    for (std::string line; std::getline(in, line);) {
        const bool dump = line.size() > 2 && line.rfind("0x", 0) == 0 && line.find_first_not_of("0123456789abcdef", 2) == std::string::npos;
        masked += (dump ? "<dump of " + std::to_string(line.size() / 2 - 1) + " bytes>" : line) + "\n";
    }
    return masked;
}
std::string le(uint32_t v) { return zt::to_hex(Bytes{uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}); }

// One job: a configuration, an image and the paths of a run.
struct Job {
    std::string dir = zt::temp_dir(), cfg = dir + "/prot.cfg", in = dir + "/zirn.img", out = dir + "/zirn.prot.img";
    Bytes img_ver{0x01, 0x02}, iv, key, dec_param, image;
    const zt::RsaKey &rsa = zt::test_key(0);

    explicit Job(size_t size, uint64_t seed = 1)
    {
        std::mt19937_64 rng(seed);
        iv = zt::random_bytes(rng, 16), key = zt::random_bytes(rng, 16), dec_param = zt::random_bytes(rng, 32), image = zt::random_bytes(rng, size);
        zt::write_file(cfg, zt::cfg_text(img_ver, iv, key, dec_param, rsa));
        zt::write_file(in, image);
    }
    // Console text up to the size query of the image at in_path, for a memory size echoed as sz.
    std::string head(const std::string &sz, const std::string &in_path = "") const
    {
        std::string r = kInfo + "The required external memory size by ZIRN image is hex: " + sz + " !!!\nStart to process zirn img prot cfg file (" + cfg + ") !!!\n";
        for (const std::string &line : {"IMG_VER = 0x" + zt::to_hex(img_ver), "ENC_PARAM = 0x" + zt::to_hex(iv) + zt::to_hex(key),
                                        "DEC_PARAM = 0x" + zt::to_hex(dec_param), "AUTH_PARAM_N = 0x" + zt::to_hex(rsa.n), "AUTH_PARAM_D = 0x" + zt::to_hex(rsa.d)})
            r += "Parsing Line Below =>\n" + line + "\n";
        return r + "Succeed to process zirn img prot cfg file (" + cfg + ") !!!\nStar to protect zirn image binary file (" + (in_path.empty() ? in : in_path) + ")!!!\n";
    }
};

}  // namespace

// Every header field, the ciphertext (decrypted by OpenSSL), the signature (verified by OpenSSL
// with the modulus the header carries), and the complete console text, its dumps recomputed.
TEST(Signer, ProtectsImagesOfEverySize)
{
    for (auto [size, sz, echo, mem] : {std::tuple{size_t(1), "0x00200000", "0x00200000 (2097152, 0x00200000)", 0x200000u},
                                       {15, "0x10", "0x10 (16, 0x00000010)", 16}, {16, "0x10", "0x10 (16, 0x00000010)", 16},
                                       {17, "0x20", "0x20 (32, 0x00000020)", 32}, {1000, "0X1000zz", "0X1000zz (4096, 0x00001000)", 0x1000},
                                       {3 * 1024 * 1024 + 5, "0x80000000", "0x80000000 (-2147483648, 0x80000000)", 0x80000000u}}) {
        const Job job(size, size);
        const zt::Run r = zt::run(ZIRN_TOOL_EXE, {job.cfg, job.in, job.out, sz});
        ASSERT_EQ(r.status, 0) << r.out;
        const Bytes file = zt::read_file(job.out);
        const uint32_t p = uint32_t((size + 15) & ~size_t(15));
        Bytes padded = job.image, signed_part = file;
        padded.resize(p, 0);
        std::fill(signed_part.begin() + 316, signed_part.begin() + 572, 0);
        const Bytes sig = zt::slice(file, 316, 256);
        ASSERT_EQ(file.size(), 576 + p);
        // magic "EET XOQ ", header size 576, three marks, version, reserved, sizes, DEC_PARAM, modulus; memory size
        EXPECT_EQ(zt::to_hex(zt::slice(file, 0, 316)) + zt::to_hex(zt::slice(file, 572, 4)),
                  "45455420584f5120" "40020000" "010101" + zt::to_hex(job.img_ver) + "000000" + le(uint32_t(size)) + le(p) +
                      zt::to_hex(job.dec_param) + zt::to_hex(job.rsa.n) + le(mem));
        EXPECT_EQ(zt::cipher("AES-128-CBC", job.key, job.iv, zt::slice(file, 576, p), false), padded);
        EXPECT_TRUE(zt::pss_verify(zt::slice(file, 60, 256), signed_part, sig));
        EXPECT_EQ(r.out, job.head(echo) + "Hash for zirn header + image:\n0x" + zt::to_hex(zt::sha256(signed_part)) +
                             "\nPKCS#1 PSS for hash of zirn image:\n0x" + zt::to_hex(zt::modexp(sig, job.rsa.e, job.rsa.n)) +
                             "\nSucceed to verify the signature of zirn image\nSucceed to protect zirn image binary file (" + job.in + " -> " + job.out + ")!!!\n");
        EXPECT_EQ(r.err, "");
    }
}

// Each failure prints its cascade of messages and exits with status 255; no output file is left.
TEST(Signer, FailuresPrintTheirCascadeAndWriteNothing)
{
    const Job job(17);
    const std::string empty = job.dir + "/empty.img", missing = job.dir + "/missing", bad_cfg = job.dir + "/bad.cfg",
                      no_n_cfg = job.dir + "/no_n.cfg", foreign_cfg = job.dir + "/foreign.cfg", no_dir = job.dir + "/no/out";
    zt::write_file(empty, "");
    zt::write_file(bad_cfg, "IMG_VER = 0x12\n");
    std::string no_n = zt::cfg_text(job.img_ver, job.iv, job.key, job.dec_param, job.rsa);
    zt::write_file(no_n_cfg, no_n.erase(no_n.find("AUTH_PARAM_N"), 2 * 256 + 18));
    zt::write_file(foreign_cfg, zt::cfg_text(job.img_ver, job.iv, job.key, job.dec_param, job.rsa, &zt::test_key(1).d));
    const auto fill = [](std::string pattern, const std::string &arg) {
        for (size_t i; (i = pattern.find('%')) != std::string::npos;) pattern.replace(i, 1, arg);
        return pattern;
    };
    const std::string size_fail = "Error: incorrect external memory requirement (hex: %, 0, 0x00000000) !!!\n",
                      format = "Error: wrong string format (%) for external memory size\n       string format should be 0x???????? (<= 0xffffffff)\n",
                      sz1f = "0x1f (31, 0x0000001f)", failed = "Error: fail to protect zirn image binary file (" + job.in + ")\n",
                      cfg_head = kInfo + "The required external memory size by ZIRN image is hex: 0x1000 (4096, 0x00001000) !!!\nStart to process zirn img prot cfg file (%) !!!\n",
                      usage = "Usage: ZirnImgSignEnTool [cfg] [in] [out] [sz]\n       [cfg]: configuration file for zirn image protection\n"
                              "       [in]:  plain zirn image binary file\n       [out]: protected zirn image binary file with header\n"
                              "       [sz]:  the required external memory size (hex notation, 0x????????, <= 0xFFFFFFFF) by zirn image\n";
    std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, usage}, {{job.cfg, job.in, job.out}, usage}, {{job.cfg, job.in, job.out, "0x1000", "extra"}, usage},
        {{job.cfg, job.in, job.out, "0x1f"}, job.head(sz1f) + "Error: the required external memory size (31) should be larger than the size (32) of the encrypted zirn image\n"},
        {{job.cfg, empty, job.out, "0x1f"}, job.head(sz1f, empty) + "Error: file of zirn image binary file (" + empty + ") is 0\n"},
        {{job.cfg, missing, job.out, "0x1f"}, job.head(sz1f, missing) + "Error: fail to open file (" + missing +
                                                  ") for getting file size\nError: file of zirn image binary file (" + missing + ") is 0\n"},
        {{missing, job.in, job.out, "0x1000"}, fill(cfg_head, missing) + "Error: fail to open file (" + missing + ")\nError: fail to process zirn img prot cfg file (" + missing + ") !!!\n"},
        {{bad_cfg, job.in, job.out, "0x1000"}, fill(cfg_head, bad_cfg) + "Error: wrong characters (" + '\0' + ") in hex string\nError: parsing image version: 0x12\n"
                                                   "Error: fail to process zirn img prot cfg file (" + bad_cfg + ") !!!\n"},
        // "...": the tail after the run's own dumps. A missing modulus stays zero: signing rejects the input.
        {{no_n_cfg, job.in, job.out, "0x1000"}, "...PKCS#1 PSS for hash of zirn image:\n<dump of 256 bytes>\nError: rsa n is smaller than input data\nRSA N =>\n"
                                                 "<dump of 256 bytes>\nInput Data =>\n<dump of 256 bytes>\nError: fail to peform pcks#1 pss encode for the encrypted zirn image\n" + failed},
        {{job.cfg, job.in, no_dir, "0x1000"}, "..." + kDumps + "Succeed to verify the signature of zirn image\nError: fail to open the file for the protected zirn image with header (" + no_dir + ")\n" + failed},
    };
    // Inputs that are not regular files are refused as unopenable, without blocking or reading;
    // an image of 4 GiB or more before it is read.
    const std::string fifo = job.dir + "/fifo", dir = job.dir + "/dir", big = job.dir + "/big.img",
                      no_cfg = "Error: fail to open file (%)\nError: fail to process zirn img prot cfg file (%) !!!\n";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::filesystem::create_directory(dir);
    zt::write_file(big, "");
    std::filesystem::resize_file(big, (uint64_t(1) << 32) + 16);  // sparse; read as 16 bytes before
    for (const std::string &cfg : {fifo, "/dev/zero"s, dir})
        cases.push_back({{cfg, job.in, job.out, "0x1000"}, fill(cfg_head + no_cfg, cfg)});
    cases.push_back({{job.cfg, fifo, job.out, "0x1f"}, job.head(sz1f, fifo) + fill("Error: fail to open file (%) for "
                     "getting file size\nError: file of zirn image binary file (%) is 0\n", fifo)});
    cases.push_back({{job.cfg, big, job.out, "0x1f"}, job.head(sz1f, big) + "Error: zirn image binary file (" + big +
                     ") is 4 GiB or larger, which the image format cannot hold\n"});
    for (const char *sz : {"0x", "0x0", "0xzz"}) cases.push_back({{job.cfg, job.in, job.out, sz}, kInfo + fill(size_fail, sz)});
    for (const char *sz : {"1000", "0x000001000", "", "00x10"}) cases.push_back({{job.cfg, job.in, job.out, sz}, kInfo + fill(format + size_fail, sz)});
    // A run that blocks or loops is stopped, so that it fails instead of hanging the suite.
    const std::string runner = getenv("ZIRN_TEST_RUNNER") ? getenv("ZIRN_TEST_RUNNER") : "";
    setenv("ZIRN_TEST_RUNNER", ("timeout 120 " + runner).c_str(), 1);
    for (const auto &[args, want] : cases) {
        const zt::Run r = zt::run(ZIRN_TOOL_EXE, args);
        const std::string masked = mask_dumps(r.out);
        const std::string got = want.rfind("...", 0) == 0 ? "..." + masked.substr(masked.size() - std::min(masked.size(), want.size() - 3)) : r.out;
        EXPECT_EQ(std::tuple(r.status, got, zt::file_exists(job.out) || zt::file_exists(no_dir)), std::tuple(255, want, false));
        std::filesystem::remove(job.out);
    }
    runner.empty() ? unsetenv("ZIRN_TEST_RUNNER") : setenv("ZIRN_TEST_RUNNER", runner.c_str(), 1);
    std::filesystem::remove(big);
    // The private exponent of another key: signing succeeds and the check rejects it (decoder checks or hash).
    const zt::Run r = zt::run(ZIRN_TOOL_EXE, {foreign_cfg, job.in, job.out, "0x1000"});
    const std::string masked = mask_dumps(r.out), tail = masked.substr(masked.find(kDumps) + kDumps.size()),
                      route_failed = "Error: fail to use platform flow to verify signature for the encrypted zirn image\n" + failed;
    EXPECT_TRUE((tail.rfind("Error: fail to ", 0) == 0 && tail.substr(tail.find('\n') + 1) == route_failed) ||
                tail == "Error: the verification result (by using platform flow) is incorrect se platform flow to verify signature for the encrypted zirn image\n" + failed)
        << tail;
    EXPECT_EQ(std::pair(r.status, zt::file_exists(job.out)), std::pair(255, false));
}

// Standard output carried the text of the secrets: once the run is over, whatever its outcome,
// its buffer holds none of it.
TEST(Signer, LeavesStandardOutputBufferWiped)
{
    const Job job(100);
    setenv("ZIRN_STDOUT_CHECK", "1", 1);
    for (auto [args, status] : {std::pair{std::vector<std::string>{job.cfg, job.in, job.out, "0x1000"}, 0},
                                {{job.cfg, job.dir + "/none", job.out, "0x1000"}, 255},
                                {{}, 255}}) {
        const zt::Run r = zt::run(ZIRN_FAULTS_EXE, args);
        EXPECT_EQ(std::tuple(r.status, r.out.empty(), r.err), std::tuple(status, false, "stdout buffer wiped\n"s));
    }
    unsetenv("ZIRN_STDOUT_CHECK");
}

// A full device, a full disk at each write and at the close, an input that shrinks between the size
// query and the read, a directory as input or output, a read-only folder, and every allocation of a
// run failing in turn: each gives its documented messages and status 255, nothing leaks (the sanitizer build
// checks), and whatever file is left never passes for a protected image unless it verifies.
TEST(Signer, FileSystemFaultsAndEveryAllocationFailing)
{
    const Job job(100000);
    const std::string failed = "Error: fail to protect zirn image binary file (" + job.in + ")\n", dir = job.dir + "/dir";
    std::filesystem::create_directory(dir);
    const auto run = [&](const std::string &fault, const std::string &in, const std::string &out) {
        setenv("ZIRN_FAULT", fault.c_str(), 1);
        const zt::Run r = zt::run(ZIRN_FAULTS_EXE, {job.cfg, in, out, "0x00200000"});
        unsetenv("ZIRN_FAULT");
        const int left = zt::file_exists(out) && out != dir && out != "/dev/full" ? zt::run(ZIRNIMG_EXE, {"verify", out, "--cfg", job.cfg}).status : -1;
        std::filesystem::remove(job.out);
        return std::tuple(r, left);
    };
    const std::string full = "/dev/full", full_close = "Error: fail to close the file for the protected zirn image with header (/dev/full)\n",
                      full_data = "Error: fail to write protected image data (100000) to the file (/dev/full)\n";
    const std::tuple<std::string, std::string, std::string, std::vector<std::string>, std::vector<int>> rows[] = {  // fault, in, out, tails, left
        // A full device: the buffered output reaches it at the latest on close, so a write or the close (or both) report it.
        {"none:0", job.in, full, {full_close + failed, full_data + failed, full_data + full_close + failed}, {-1}},
        {"fwrite:1", job.in, job.out, {"Error: fail to write header (576) to the file (" + job.out + ")\n" + failed}, {4}},
        {"fwrite:2", job.in, job.out, {"Error: fail to write protected image data (100000) to the file (" + job.out + ")\n" + failed}, {4}},
        {"fclose:4", job.in, job.out, {"Error: fail to close the file for the protected zirn image with header (" + job.out + ")\n" + failed}, {0, 4}},
        {"fread:1", job.in, job.out, {"Error: fail to read data (100000) from zirn image binary file (" + job.in + ")\n"}, {-1}},
        {"fclose:3", job.in, job.out, {"Error: fail to close zirn image binary file (" + job.in + ")\n"}, {-1}},
        {"fclose:2", job.in, job.out, {"Error: fail to close file (" + job.in + ") for getting file size\nError: file of zirn image binary file (" + job.in + ") is 0\n"}, {-1}},
        {"none:0", dir, job.out, {"Error: fail to open file (" + dir + ") for getting file size\nError: file of zirn image binary file (" + dir + ") is 0\n"}, {-1}},
        {"none:0", job.in, dir, {"Error: fail to open the file for the protected zirn image with header (" + dir + ")\n" + failed}, {-1}},
        {"none:0", job.in, "/proc/zirn.prot", {"Error: fail to open the file for the protected zirn image with header (/proc/zirn.prot)\n" + failed}, {-1}},
    };
    for (const auto &[fault, in, out, tails, left_ok] : rows) {
        const auto [r, left] = run(fault, in, out);
        const std::string got = r.out;
        EXPECT_TRUE(r.status == 255 && std::any_of(tails.begin(), tails.end(), [&](const std::string &t) { return got.ends_with(t); })) << fault << got;
        EXPECT_NE(std::find(left_ok.begin(), left_ok.end(), left), left_ok.end()) << fault << ": zirnimg verify gives " << left;
    }
    const auto [counted, none] = run("alloc:0", job.in, job.out);
    ASSERT_EQ(counted.status, 0);
    const int allocations = std::stoi(counted.err.substr(counted.err.find(": ") + 2));
    EXPECT_GT(allocations, 10);
    for (int n = 1; n <= allocations; n++) {
        const auto [r, left] = run("alloc:" + std::to_string(n), job.in, job.out);
        const std::string masked = mask_dumps(r.out), cascade = masked.substr(masked.find("Error: "));
        bool errors_only = true;  // the documented cascade: error lines (and the dumps they announce) to the end
        for (size_t at = 0; at < cascade.size(); at = cascade.find('\n', at) + 1) errors_only = errors_only && (cascade.compare(at, 7, "Error: ") == 0 || cascade.compare(at, 1, "<") == 0 || cascade.compare(at, 9, "RSA N =>\n") == 0 || cascade.compare(at, 14, "Input Data =>\n") == 0);
        EXPECT_TRUE(r.status == 255 && left == -1 && errors_only && (cascade.ends_with(failed) || cascade == "Error: fail to allocate memory for zirn image binary file\n"))
            << "allocation " << n << ":\n" << cascade;
    }
}

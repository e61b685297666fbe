// The tool run as a user runs it, its output file checked with OpenSSL.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "oracle.h"
#include "testutil.h"

namespace {

using zt::Bytes;

struct ToolRun {
    int status;  // exit status, or -1 if the process did not exit normally
    std::string out;
};

ToolRun run_tool(const std::vector<std::string> &args)
{
    std::string dir = zt::temp_dir();
    std::string out_path = dir + "/stdout";
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 1);
        close(fd);
        std::vector<char *> argv{const_cast<char *>(ZIRN_TOOL_EXE)};
        for (auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(ZIRN_TOOL_EXE, argv.data());
        _exit(127);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    Bytes out = zt::read_file(out_path);
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, std::string(out.begin(), out.end())};
}

const std::string kInfo = "Info\n"
                          "hdr size = 576\n"
                          "sizeof(long) = " + std::to_string(sizeof(long)) + "\n"
                          "sizeof(long long) = " + std::to_string(sizeof(long long)) + "\n"
                          "sizeof(int) = " + std::to_string(sizeof(int)) + "\n";

const std::string kSizeFailure =
    "Error: incorrect external memory requirement (hex: %s, 0, 0x00000000) !!!\n";

std::string fmt(std::string pattern, const std::string &arg)
{
    for (size_t p; (p = pattern.find("%s")) != std::string::npos;) pattern.replace(p, 2, arg);
    return pattern;
}

Bytes random_bytes(std::mt19937 &rng, size_t n)
{
    Bytes b(n);
    for (auto &x : b) x = uint8_t(rng());
    return b;
}

// A complete job: configuration, image and the paths of one run.
struct Job {
    std::string dir, cfg, in, out;
    Bytes img_ver, iv, key, dec_param, image;
    const zt::RsaKey *rsa;

    Job(size_t image_size, uint32_t seed = 1, int key_index = 0)
    {
        std::mt19937 rng(seed);
        dir = zt::temp_dir();
        cfg = dir + "/prot.cfg";
        in = dir + "/zirn.img";
        out = dir + "/zirn.prot.img";
        img_ver = {0x01, 0x02};
        iv = random_bytes(rng, 16);
        key = random_bytes(rng, 16);
        dec_param = random_bytes(rng, 32);
        image = random_bytes(rng, image_size);
        rsa = &zt::test_key(key_index);
        zt::write_file(cfg, cfg_text());
        zt::write_file(in, image);
    }
    std::string cfg_text(const Bytes *d = nullptr) const
    {
        return zt::cfg_text(img_ver, iv, key, dec_param, rsa->n, d != nullptr ? *d : rsa->d);
    }
    // What the parser reports for the file written by cfg_text().
    std::string cfg_report() const
    {
        std::string r;
        for (auto line : {"IMG_VER = 0x" + zt::to_hex(img_ver),
                          "ENC_PARAM = 0x" + zt::to_hex(iv) + zt::to_hex(key),
                          "DEC_PARAM = 0x" + zt::to_hex(dec_param),
                          "AUTH_PARAM_N = 0x" + zt::to_hex(rsa->n),
                          "AUTH_PARAM_D = 0x" + zt::to_hex(rsa->d)})
            r += "Parsing Line Below =>\n" + line + "\n";
        return r;
    }
    std::string cfg_ok() const
    {
        return "The required external memory size by ZIRN image is hex: 0x00200000 (2097152, "
               "0x00200000) !!!\n"
               "Start to process zirn img prot cfg file (" + cfg + ") !!!\n" + cfg_report() +
               "Succeed to process zirn img prot cfg file (" + cfg + ") !!!\n"
               "Star to protect zirn image binary file (" + in + ")!!!\n";
    }
    ToolRun run(const std::string &sz = "0x00200000") const { return run_tool({cfg, in, out, sz}); }
};

uint32_t le32(const Bytes &b, size_t off)
{
    return uint32_t(b[off]) | uint32_t(b[off + 1]) << 8 | uint32_t(b[off + 2]) << 16 |
           uint32_t(b[off + 3]) << 24;
}

Bytes slice(const Bytes &b, size_t off, size_t n) { return Bytes(b.begin() + off, b.begin() + off + n); }

// Checks a protected image file against the job that made it, with OpenSSL.
void expect_valid_output(const Job &job, uint32_t ext_mem_size)
{
    Bytes file = zt::read_file(job.out);
    const uint32_t p = uint32_t((job.image.size() + 15) & ~size_t(15));
    ASSERT_EQ(file.size(), 576 + p);

    EXPECT_EQ(std::string(file.begin(), file.begin() + 8), "EET XOQ ");
    EXPECT_EQ(le32(file, 8), 576u);
    EXPECT_EQ(file[12], 1);
    EXPECT_EQ(file[13], 1);
    EXPECT_EQ(file[14], 1);
    EXPECT_EQ(slice(file, 15, 2), job.img_ver);
    EXPECT_EQ(slice(file, 17, 3), Bytes(3, 0));
    EXPECT_EQ(le32(file, 20), job.image.size());
    EXPECT_EQ(le32(file, 24), p);
    EXPECT_EQ(slice(file, 28, 32), job.dec_param);
    EXPECT_EQ(slice(file, 60, 256), job.rsa->n);
    EXPECT_EQ(le32(file, 572), ext_mem_size);

    Bytes padded = job.image;
    padded.resize(p, 0);
    EXPECT_EQ(zt::aes128_cbc_decrypt(job.key, job.iv, slice(file, 576, p)), padded);

    // The signature covers the header with its signature field zeroed, then
    // the ciphertext; the modulus is taken from the header itself.
    Bytes signed_part = file;
    std::fill(signed_part.begin() + 316, signed_part.begin() + 572, 0);
    EXPECT_TRUE(zt::pss_verify_sha256(slice(file, 60, 256), signed_part, slice(file, 316, 256)));
}

TEST(ToolEndToEnd, ProtectsImagesOfEverySizeClass)
{
    const size_t sizes[] = {1, 15, 16, 17, 1000, 3 * 1024 * 1024 + 5};
    uint32_t seed = 100;
    for (size_t size : sizes) {
        SCOPED_TRACE("image size " + std::to_string(size));
        Job job(size, seed++);
        ToolRun r = job.run("0x01000000");
        ASSERT_EQ(r.status, 0) << r.out;
        expect_valid_output(job, 0x01000000);
    }
}

TEST(ToolEndToEnd, SuccessfulRunPrintsExactlyTheExpectedText)
{
    Job job(17);
    ToolRun r = job.run();
    ASSERT_EQ(r.status, 0) << r.out;

    // The two dumps are recomputed from the output file: the hash of what is
    // signed, and the encoded block recovered from the signature.
    Bytes file = zt::read_file(job.out);
    Bytes signed_part = file;
    std::fill(signed_part.begin() + 316, signed_part.begin() + 572, 0);
    Bytes em = zt::rsa_public_raw(job.rsa->n, slice(file, 316, 256));

    std::string expected = kInfo + job.cfg_ok() +
                           "Hash for zirn header + image:\n"
                           "0x" + zt::to_hex(zt::sha256_of(signed_part)) + "\n"
                           "PKCS#1 PSS for hash of zirn image:\n"
                           "0x" + zt::to_hex(em) + "\n"
                           "Succeed to verify the signature of zirn image\n"
                           "Succeed to protect zirn image binary file (" + job.in + " -> " +
                           job.out + ")!!!\n";
    std::istringstream want(expected), got(r.out);
    std::string w, g;
    for (int line = 1; std::getline(want, w); line++) {
        ASSERT_TRUE(std::getline(got, g)) << "output ends before line " << line;
        EXPECT_EQ(g, w) << "line " << line;
    }
    EXPECT_FALSE(std::getline(got, g)) << "extra output: " << g;
}

TEST(ToolEndToEnd, AcceptedMemorySizesAreStoredAndEchoed)
{
    struct Case {
        const char *arg;
        size_t image_size;
        uint32_t value;
        const char *echo;
    } cases[] = {
        // Upper-case prefix; what follows the hex digits is not checked.
        {"0X1000zz", 100, 0x1000, "hex: 0X1000zz (4096, 0x00001000) !!!\n"},
        // Equal to the padded size (17 -> 32) is enough.
        {"0x20", 17, 0x20, "hex: 0x20 (32, 0x00000020) !!!\n"},
        // Echoed as a signed 32-bit number.
        {"0x80000000", 20, 0x80000000u, "hex: 0x80000000 (-2147483648, 0x80000000) !!!\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.arg);
        Job job(c.image_size);
        ToolRun r = job.run(c.arg);
        ASSERT_EQ(r.status, 0) << r.out;
        EXPECT_NE(r.out.find(c.echo), std::string::npos);
        expect_valid_output(job, c.value);
    }
}

const std::string kUsage =
    "Usage: ZirnImgSignEnTool [cfg] [in] [out] [sz]\n"
    "       [cfg]: configuration file for zirn image protection\n"
    "       [in]:  plain zirn image binary file\n"
    "       [out]: protected zirn image binary file with header\n"
    "       [sz]:  the required external memory size (hex notation, 0x????????, <= 0xFFFFFFFF) by "
    "zirn image\n";

TEST(ToolEndToEnd, WrongArgumentCountPrintsUsageOnly)
{
    Job job(17);
    const std::vector<std::vector<std::string>> arg_lists = {
        {},
        {job.cfg, job.in, job.out},
        {job.cfg, job.in, job.out, "0x1000", "extra"},
    };
    for (const auto &args : arg_lists) {
        ToolRun r = run_tool(args);
        EXPECT_EQ(r.status, 255);
        EXPECT_EQ(r.out, kUsage);
        EXPECT_FALSE(zt::file_exists(job.out));
    }
}

TEST(ToolEndToEnd, MalformedMemorySizesFailBeforeTheConfiguration)
{
    const std::string wrong_format =
        "Error: wrong string format (%s) for external memory size\n"
        "       string format should be 0x???????? (<= 0xffffffff)\n";
    struct Case {
        std::string arg;
        bool format_error;
    } cases[] = {
        {"0x", false},          {"0x0", false},   {"0x00000000", false}, {"0xzz", false},
        {"1000", true},         {"x1000", true},  {"0x000001000", true}, {"", true},
        {"0", true},            {"00x10", true},  {"-0x10", true},
    };
    Job job(17);
    for (const auto &c : cases) {
        SCOPED_TRACE("size argument '" + c.arg + "'");
        ToolRun r = job.run(c.arg);
        EXPECT_EQ(r.status, 255);
        EXPECT_EQ(r.out, kInfo + (c.format_error ? fmt(wrong_format, c.arg) : "") +
                             fmt(kSizeFailure, c.arg));
        EXPECT_FALSE(zt::file_exists(job.out));
    }
}

TEST(ToolEndToEnd, FailuresBeforeSigningPrintTheirCascade)
{
    Job job(17);
    const std::string missing = job.dir + "/missing.img";
    const std::string empty = job.dir + "/empty.img";
    zt::write_file(empty, std::string());

    struct Case {
        std::string name;
        std::vector<std::string> args;
        std::string expected_tail;  // after the Info block and the size line
    } cases[] = {
        {"memory below padded size", {job.cfg, job.in, job.out, "0x1f"},
         "Error: the required external memory size (31) should be larger than the size (32) of "
         "the encrypted zirn image\n"},
        {"empty image", {job.cfg, empty, job.out, "0x1f"},
         "Error: file of zirn image binary file (" + empty + ") is 0\n"},
        {"missing image", {job.cfg, missing, job.out, "0x1f"},
         "Error: fail to open file (" + missing + ") for getting file size\n"
         "Error: file of zirn image binary file (" + missing + ") is 0\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ToolRun r = run_tool(c.args);
        EXPECT_EQ(r.status, 255);
        std::string in = c.args[1];
        EXPECT_EQ(r.out, kInfo +
                             "The required external memory size by ZIRN image is hex: 0x1f (31, "
                             "0x0000001f) !!!\n"
                             "Start to process zirn img prot cfg file (" + job.cfg + ") !!!\n" +
                             job.cfg_report() +
                             "Succeed to process zirn img prot cfg file (" + job.cfg + ") !!!\n"
                             "Star to protect zirn image binary file (" + in + ")!!!\n" +
                             c.expected_tail);
        EXPECT_FALSE(zt::file_exists(job.out));
    }
}

TEST(ToolEndToEnd, BadConfigurationFilesStopTheRun)
{
    Job job(17);
    const std::string missing = job.dir + "/missing.cfg";
    const std::string bad = job.dir + "/bad.cfg";
    zt::write_file(bad, "IMG_VER = 0x12\n");

    ToolRun r = run_tool({missing, job.in, job.out, "0x1000"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.out, kInfo +
                         "The required external memory size by ZIRN image is hex: 0x1000 (4096, "
                         "0x00001000) !!!\n"
                         "Start to process zirn img prot cfg file (" + missing + ") !!!\n"
                         "Error: fail to open file (" + missing + ")\n"
                         "Error: fail to process zirn img prot cfg file (" + missing + ") !!!\n");

    r = run_tool({bad, job.in, job.out, "0x1000"});
    EXPECT_EQ(r.status, 255);
    std::string expected_tail = std::string("Error: wrong characters (") + '\0' +
                                ") in hex string\n"
                                "Error: parsing image version: 0x12\n"
                                "Error: fail to process zirn img prot cfg file (" + bad + ") !!!\n";
    EXPECT_EQ(r.out, kInfo +
                         "The required external memory size by ZIRN image is hex: 0x1000 (4096, "
                         "0x00001000) !!!\n"
                         "Start to process zirn img prot cfg file (" + bad + ") !!!\n" +
                         expected_tail);
    EXPECT_FALSE(zt::file_exists(job.out));
}

// Lines of a run's output, with the two hex dumps reduced to their length so
// that failures after hashing can be compared exactly.
std::string mask_dumps(const std::string &out)
{
    std::istringstream in(out);
    std::string line, masked;
    while (std::getline(in, line)) {
        if (line.size() > 2 && line.compare(0, 2, "0x") == 0 &&
            line.find_first_not_of("0123456789abcdef", 2) == std::string::npos)
            line = "<dump of " + std::to_string((line.size() - 2) / 2) + " bytes>";
        masked += line + "\n";
    }
    return masked;
}

TEST(ToolEndToEnd, SignatureThatDoesNotVerifyIsNeverWritten)
{
    Job job(17);
    // The private exponent of another key pair: signing succeeds, the
    // independent check must reject it.
    zt::write_file(job.cfg, job.cfg_text(&zt::test_key(1).d));
    ToolRun r = job.run();
    EXPECT_EQ(r.status, 255);
    EXPECT_FALSE(zt::file_exists(job.out));
    const std::string head = "Hash for zirn header + image:\n<dump of 32 bytes>\n"
                             "PKCS#1 PSS for hash of zirn image:\n<dump of 256 bytes>\n";
    const std::string tail = "Error: fail to protect zirn image binary file (" + job.in + ")\n";
    std::string masked = mask_dumps(r.out);
    const std::string after = masked.substr(masked.find(head) + head.size());
    // Either the decoder's structural checks or the hash comparison fail.
    EXPECT_TRUE(
        after == "Error: the verification result (by using platform flow) is incorrect se "
                 "platform flow to verify signature for the encrypted zirn image\n" + tail ||
        (after.rfind("Error: fail to ", 0) == 0 &&
         after.size() > tail.size() &&
         after.compare(after.size() - tail.size(), tail.size(), tail) == 0 &&
         after.find("Error: fail to use platform flow to verify signature for the encrypted zirn "
                    "image\n") != std::string::npos))
        << after;
}

TEST(ToolEndToEnd, MissingModulusIsRejectedBySigning)
{
    Job job(17);
    std::string cfg = job.cfg_text();
    cfg.erase(cfg.find("AUTH_PARAM_N"), cfg.find('\n', cfg.find("AUTH_PARAM_N")) -
                                            cfg.find("AUTH_PARAM_N") + 1);
    zt::write_file(job.cfg, cfg);
    ToolRun r = job.run();
    EXPECT_EQ(r.status, 255);
    EXPECT_FALSE(zt::file_exists(job.out));
    EXPECT_NE(mask_dumps(r.out).find("PKCS#1 PSS for hash of zirn image:\n<dump of 256 bytes>\n"
                                     "Error: rsa n is smaller than input data\n"
                                     "RSA N =>\n<dump of 256 bytes>\n"
                                     "Input Data =>\n<dump of 256 bytes>\n"
                                     "Error: fail to peform pcks#1 pss encode for the encrypted "
                                     "zirn image\n"
                                     "Error: fail to protect zirn image binary file (" + job.in +
                                     ")\n"),
              std::string::npos)
        << r.out;
}

TEST(ToolEndToEnd, UnwritableOutputFailsAfterVerification)
{
    Job job(17);
    const std::string out = job.dir + "/no/such/dir/out.img";
    ToolRun r = run_tool({job.cfg, job.in, out, "0x1000"});
    EXPECT_EQ(r.status, 255);
    const std::string tail = "Succeed to verify the signature of zirn image\n"
                             "Error: fail to open the file for the protected zirn image with "
                             "header (" + out + ")\n"
                             "Error: fail to protect zirn image binary file (" + job.in + ")\n";
    ASSERT_GE(r.out.size(), tail.size());
    EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail);
    EXPECT_FALSE(zt::file_exists(out));
}

TEST(ToolEndToEnd, FullDiskIsReported)
{
    if (!zt::file_exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
    for (size_t size : {size_t(17), size_t(1) << 20}) {
        Job job(size);
        ToolRun r = run_tool({job.cfg, job.in, "/dev/full", "0x00200000"});
        EXPECT_EQ(r.status, 255);
        const std::string verified = "Succeed to verify the signature of zirn image\n";
        const std::string close_msg =
            "Error: fail to close the file for the protected zirn image with header (/dev/full)\n";
        std::string after = r.out.substr(r.out.find(verified) + verified.size());
        const std::string tail = "Error: fail to protect zirn image binary file (" + job.in + ")\n";
        // Buffered output reaches the device at the latest when the file is
        // closed: a write or the close (or both) report the failure.
        const std::string header_fail = "Error: fail to write header (576) to the file (/dev/full)\n";
        const std::string data_fail = "Error: fail to write protected image data (" +
                                      std::to_string(size) + ") to the file (/dev/full)\n";
        EXPECT_TRUE(after == close_msg + tail || after == header_fail + tail ||
                    after == header_fail + close_msg + tail || after == data_fail + tail ||
                    after == data_fail + close_msg + tail)
            << after;
    }
}

}  // namespace

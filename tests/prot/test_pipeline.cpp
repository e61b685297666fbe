// The pipeline's own result codes and record updates, which the executable
// folds into one exit status.
#include <algorithm>
#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "ZirnImgProt.h"
#include "oracle.h"
#include "testutil.h"

namespace {

using zt::Bytes;

struct Fixture {
    ImgProtParam param;
    Bytes image;  // capacity: padded size
    uint32_t plain_size;
    Bytes plain;

    explicit Fixture(uint32_t size, const Bytes &d = zt::test_key(0).d)
        : image(ui4PaddedSz(size)), plain_size(size)
    {
        std::mt19937 rng(size);
        memset(&param, 0, sizeof param);
        memcpy(param.hdr.magic, ZIRN_IMG_MAGIC, 8);
        vPutLE32(param.hdr.hdr_size, ZIRN_HDR_SIZE);
        vPutLE32(param.hdr.ext_mem_size, 0x100000);
        for (auto &b : param.enc_key) b = uint8_t(rng());
        for (auto &b : param.enc_iv) b = uint8_t(rng());
        memcpy(param.hdr.auth_n, zt::test_key(0).n.data(), 256);
        memcpy(param.auth_d, d.data(), 256);
        for (uint32_t i = 0; i < size; i++) image[i] = uint8_t(rng());
        // Garbage in the tail proves that the pipeline pads with zeros.
        for (size_t i = size; i < image.size(); i++) image[i] = 0xA5;
        plain.assign(image.begin(), image.begin() + size);
    }
    int32_t run(const std::string &out) { return iProtZIRNImgV10(&param, image.data(), plain_size, out.c_str()); }
};

TEST(Pipeline, NullArgumentsAreRejectedInOrder)
{
    Fixture f(16);
    std::string out_path = zt::temp_dir() + "/out";
    struct Case {
        bool img, param, path;
        const char *message;
    } cases[] = {
        {false, true, true, "Error: input zirn img buffer is NULL\n"},
        {false, false, false, "Error: input zirn img buffer is NULL\n"},
        {true, false, true, "Error: input parameter structure is NULL\n"},
        {true, false, false, "Error: input parameter structure is NULL\n"},
        {true, true, false, "Error: output file name is NULL\n"},
    };
    for (const auto &c : cases) {
        int32_t ret = 0;
        std::string out = zt::capture_stdout([&] {
            ret = iProtZIRNImgV10(c.param ? &f.param : nullptr, c.img ? f.image.data() : nullptr,
                                  16, c.path ? out_path.c_str() : nullptr);
        });
        EXPECT_EQ(ret, -1);
        EXPECT_EQ(out, c.message);
        EXPECT_EQ(f.param.hdr.prot_mark0, 0) << "nothing may be touched";
    }
}

TEST(Pipeline, CompletesTheRecordAndWritesHeaderPlusCiphertext)
{
    for (uint32_t size : {1u, 16u, 33u}) {
        Fixture f(size);
        std::string out_path = zt::temp_dir() + "/out";
        int32_t ret = -100;
        zt::capture_stdout([&] { ret = f.run(out_path); });
        ASSERT_EQ(ret, 0);
        const uint32_t p = ui4PaddedSz(size);
        EXPECT_EQ(ui4GetLE32(f.param.hdr.plain_size), size);
        EXPECT_EQ(ui4GetLE32(f.param.hdr.enc_size), p);
        EXPECT_EQ(f.param.hdr.prot_mark0 + f.param.hdr.prot_mark1 + f.param.hdr.prot_mark2, 3);

        Bytes padded = f.plain;
        padded.resize(p, 0);
        Bytes key(f.param.enc_key, f.param.enc_key + 16), iv(f.param.enc_iv, f.param.enc_iv + 16);
        EXPECT_EQ(zt::aes128_cbc_decrypt(key, iv, f.image), padded) << "encrypted in place";

        Bytes file = zt::read_file(out_path);
        const uint8_t *hdr = reinterpret_cast<const uint8_t *>(&f.param.hdr);
        EXPECT_EQ(Bytes(file.begin(), file.begin() + 576), Bytes(hdr, hdr + 576));
        EXPECT_EQ(Bytes(file.begin() + 576, file.end()), f.image);
    }
}

TEST(Pipeline, FailuresReturnTheirOwnCodes)
{
    const std::string dir = zt::temp_dir();
    struct Case {
        std::string name;
        Bytes d;
        bool zero_modulus;
        std::string out_path;
        uint32_t size;
        std::vector<int32_t> codes;
        bool file_expected;
    } cases[] = {
        {"foreign private exponent", zt::test_key(1).d, false, dir + "/a", 17, {-8, -9}, false},
        {"zero modulus", zt::test_key(0).d, true, dir + "/b", 17, {-7}, false},
        {"missing directory", zt::test_key(0).d, false, dir + "/none/c", 17, {-2}, false},
        {"full device, small", zt::test_key(0).d, false, "/dev/full", 17, {-3, -4}, true},
        {"full device, large", zt::test_key(0).d, false, "/dev/full", 1 << 20, {-4}, true},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.name);
        if (c.out_path == "/dev/full" && !zt::file_exists("/dev/full")) continue;
        Fixture f(c.size, c.d);
        if (c.zero_modulus) memset(f.param.hdr.auth_n, 0, 256);
        int32_t ret = 0;
        std::string out = zt::capture_stdout([&] { ret = f.run(c.out_path); });
        EXPECT_NE(std::find(c.codes.begin(), c.codes.end(), ret), c.codes.end()) << ret << "\n" << out;
        EXPECT_EQ(zt::file_exists(c.out_path), c.file_expected);
    }
}

TEST(Pipeline, ForeignExponentStillLeavesItsSignatureInTheRecord)
{
    Fixture f(17, zt::test_key(1).d);
    std::string out = zt::capture_stdout([&] { f.run(zt::temp_dir() + "/x"); });
    EXPECT_NE(Bytes(f.param.hdr.auth_sig, f.param.hdr.auth_sig + 256), Bytes(256, 0));
    EXPECT_EQ(out.find("Succeed to verify"), std::string::npos);
}

}  // namespace

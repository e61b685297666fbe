// The pipeline's argument checks, which the executable never reaches (the rest of the pipeline is
// checked through the executable, tests/tool/test_e2e.cpp).
#include <gtest/gtest.h>

#include "ZirnImgProt.h"
#include "testutil.h"

TEST(Pipeline, NullArgumentsAreRejectedInOrderAndTouchNothing)
{
    ImgProtParam p{};
    uint8_t img[16] = {};
    const std::string buffer = "Error: input zirn img buffer is NULL\n";
    const std::string record = "Error: input parameter structure is NULL\n";
    const std::string name = "Error: output file name is NULL\n";
    for (auto [param, buf, path, message] : {std::tuple{&p, (uint8_t *)nullptr, "out", buffer},
                                             {nullptr, nullptr, nullptr, buffer},
                                             {nullptr, img, "out", record},
                                             {nullptr, img, nullptr, record},
                                             {&p, img, nullptr, name}}) {
        const auto call = [q = param, b = buf, o = path] { return iProtZIRNImgV10(q, b, 16, o); };
        EXPECT_EQ(zt::printed(call), std::pair(-1, message));
    }
    EXPECT_EQ(p.hdr.prot_mark0, 0);
}

// A record without a modulus: signing fails (-7) after the dumps, and nothing is written.
TEST(Pipeline, SigningFailureIsItsOwnResult)
{
    ImgProtParam p;
    vInitImgProtParamV10(&p);
    uint8_t img[16] = {};
    const std::string out = zt::temp_dir() + "/out";
    const auto [rc, text] = zt::printed([&] { return iProtZIRNImgV10(&p, img, 16, out.c_str()); });
    const char *last = "Error: fail to peform pcks#1 pss encode for the encrypted zirn image\n";
    const std::string tail = text.substr(text.size() - strlen(last));
    EXPECT_EQ(std::tuple(rc, tail, zt::file_exists(out)), std::tuple(-7, last, false));
}

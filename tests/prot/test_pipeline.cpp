// The pipeline's argument checks, which the executable never reaches (the rest of the pipeline
// is checked through the executable, tests/tool/test_e2e.cpp).
#include <gtest/gtest.h>

#include <cstring>

#include "ZirnImgProt.h"
#include "testutil.h"

TEST(Pipeline, NullArgumentsAreRejectedInOrderAndTouchNothing)
{
    ImgProtParam param;
    memset(&param, 0, sizeof param);
    uint8_t img[16] = {};
    const char *path = "unused";
    const struct {
        ImgProtParam *param;
        uint8_t *img;
        const char *path, *message;
    } cases[] = {{&param, nullptr, path, "Error: input zirn img buffer is NULL\n"},
                 {nullptr, nullptr, nullptr, "Error: input zirn img buffer is NULL\n"},
                 {nullptr, img, path, "Error: input parameter structure is NULL\n"},
                 {nullptr, img, nullptr, "Error: input parameter structure is NULL\n"},
                 {&param, img, nullptr, "Error: output file name is NULL\n"}};
    for (const auto &c : cases) {
        int32_t rc = 0;
        EXPECT_EQ(zt::capture_stdout([&] { rc = iProtZIRNImgV10(c.param, c.img, 16, c.path); }), c.message);
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(param.hdr.prot_mark0, 0);
    }
}

// Border fill: vector copies against the plain twin through the test kit, and the contract of the
// fill for every shape of kept rectangle (touching the top, the right edge, the bottom, two rows
// high): the border is the source's, the rectangle keeps its bytes but for its last row pair
// (the bottom band may start there).
#include <gtest/gtest.h>

#include "support/harness.h"
#include "warp/affine_transform_cases.h"
#include "warp/fill_blank.h"

namespace {

TEST(FillBlank, EveryRectangleShapeInEveryLayout)
{
    const int32_t aiSizes[][2] = {{40, 24}, {54, 20}};   // 54: odd planar chroma pitch, odd remainders
    for (const auto &size : aiSizes) {
        const int32_t iW = size[0], iH = size[1];
        for (int32_t iType = 0; iType <= 2; iType++) {
            AffineFrame src(iW, iH, iType);
            src.Fill(0x51u);
            const std::vector<uint8_t> vucBefore = ldc_test::RandomBytes(src.FrameBytes(), 0x9D);
            const ldc_test::tagST_TEST_LAYOUT stLayout = ldc_test::FrameLayout(iW, iH, iType);
            for (int32_t iLeft : {0, 2, 10}) {
                for (int32_t iTop : {0, 2, 8}) {
                    for (int32_t iRight : {iLeft + 2, 30, iW}) {
                        for (int32_t iRows : {2, 4, iH - iTop}) {
                            const auto fnRun = [&](bool bNeon, uint8_t *pucDst) {
                                memcpy(pucDst, vucBefore.data(), vucBefore.size());
                                tagST_PIC stDst = AffinePicture(iW, iH, iType, pucDst);
                                const bool bPlanar = iType == LDC_PIC_YUV420;
                                (bNeon ? (bPlanar ? FillBlank_neon_YUV420 : FillBlank_neon_NV12)
                                       : (bPlanar ? FillBlank_YUV420 : FillBlank_NV12))(&stDst, &src.pic, iLeft, iTop,
                                                                                         iRight, iRows);
                            };
                            SCOPED_TRACE(testing::Message() << iW << "x" << iH << " type " << iType << " left " << iLeft
                                                            << " top " << iTop << " right " << iRight << " rows " << iRows);
                            ASSERT_EQ("", ldc_test::CompareTwins(stLayout, fnRun));
                            ldc_test::GuardedBytes stOut(stLayout.uBytes, 0);
                            fnRun(true, stOut.Data());
                            for (size_t i = 0; i < stLayout.uBytes; i++) {
                                int32_t x, y;
                                AffineBytePosition(iW, iH, iType, i, &x, &y);
                                const bool bInside = x >= iLeft && x < iRight && y >= iTop && y < iTop + iRows;
                                if (!bInside || y < iTop + iRows - 2) {
                                    ASSERT_EQ(bInside ? vucBefore[i] : src.bytes[i], stOut.Data()[i])
                                        << (bInside ? "rectangle written" : "border not copied") << " at byte " << i
                                        << " (x " << x << ", y " << y << ")";
                                }
                            }
                        }
                    }
                }
            }
        }
    }
}

}  // namespace

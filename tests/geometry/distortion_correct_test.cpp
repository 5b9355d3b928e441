// A rectangle whose interior maps outside the frame (a lens model that is not monotonic fools the
// edge scans of the area search): the remap clamps each block's position into the frame, so both
// twins read only the caller's frame and agree byte for byte.
#include <gtest/gtest.h>

#include <string.h>

#include <vector>

#include "geometry/distortion_correct.h"
#include "interface/ldc_process.h"
#include "support/harness.h"

namespace {

TEST(RemapClamp, PositionsOutsideTheFrameRepeatTheEdgeSamples)
{
    const int32_t iW = 20;
    const int32_t iH = 14;
    const size_t uBytes = (size_t)iW * iH * 3 / 2;
    for (int32_t ePicType = 0; ePicType <= 2; ePicType++) {
        tagST_LDC_PARA stPara;
        memset(&stPara, 0, sizeof(stPara));
        stPara.iImgWidth = iW;
        stPara.iImgHeight = iH;
        stPara.ePicType = ePicType;
        stPara.afGlobalFDCCoefficients[0] = 0.5f;   // maps almost every pixel far outside
        stPara.afGlobalFDCCoefficients[1] = -0.01f;
        const int32_t aiArea[4] = {0, 0, iW - 1, iH - 1};
        memcpy(stPara.aiGlobalFDCArea, aiArea, sizeof(aiArea));
        std::vector<uint8_t> vucWork(uBytes + 1024 + 16);
        stPara.pucWorkBuf = vucWork.data() + (16 - ((uintptr_t)vucWork.data() & 15));
        std::vector<uint8_t> vIn = ldc_test::RandomBytes(uBytes, 11);   // exact size: AddressSanitizer sees any read past it
        tagST_PIC stIn;
        BuildPicture(&stIn, vIn.data(), iW, iH, ePicType);
        uint8_t *const apucIn[3] = {stIn.pY, stIn.pU, stIn.pV};
        uint8_t ucFirst = 0;
        EXPECT_EQ("", ldc_test::CompareTwins(ldc_test::FrameLayout(iW, iH, ePicType), [&](bool bNeon, uint8_t *pucDst) {
            tagST_PIC stDst;
            BuildPicture(&stDst, pucDst, iW, iH, ePicType);
            uint8_t *const apucDst[3] = {stDst.pY, stDst.pU, stDst.pV};
            (bNeon ? DistortionCorrect_neon : DistortionCorrect)(ePicType == 2, &stPara, apucIn, apucDst);
            ucFirst = pucDst[0];
        })) << "picture type " << ePicType;
        // The top-left block maps far beyond the bottom-right corner (f is strongly negative there):
        // it takes the last block position's sample, (W - 2, H - 2), without interpolation.
        EXPECT_EQ(ucFirst, vIn[(iH - 2) * iW + iW - 2]) << "picture type " << ePicType;
    }
}

}  // namespace

// A rectangle whose interior maps outside the frame (a lens model that is not monotonic fools the
// edge scans of the area search): the remap clamps each block's position into the frame, so both
// twins read only the caller's frame and agree byte for byte.
#include <gtest/gtest.h>

#include <string.h>

#include <vector>

#include "geometry/distortion_correct.h"
#include "interface/ldc_process.h"
#include "runtime/runtime.h"

namespace {

TEST(RemapClamp, PositionsOutsideTheFrameRepeatTheEdgeSamples)
{
    const int32_t iW = 20;
    const int32_t iH = 14;
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
        int32_t iOffset = 0;
        const uintptr_t uBlock = MemoMalloc(iW * iH * 3 / 2 + 1024, 16, &iOffset);
        ASSERT_NE(uBlock, 0u);
        stPara.pucWorkBuf = (uint8_t *)uBlock + iOffset;

        const size_t uBytes = (size_t)iW * iH * 3 / 2;
        std::vector<uint8_t> vIn(uBytes);   // exact size: AddressSanitizer sees any read past it
        for (size_t i = 0; i < uBytes; i++) {
            vIn[i] = (uint8_t)(i * 37 + 11);
        }
        std::vector<uint8_t> vNeon(uBytes, 0), vPlain(uBytes, 0);
        tagST_PIC stIn, stNeon, stPlain;
        BuildPicture(&stIn, vIn.data(), iW, iH, ePicType);
        BuildPicture(&stNeon, vNeon.data(), iW, iH, ePicType);
        BuildPicture(&stPlain, vPlain.data(), iW, iH, ePicType);
        uint8_t *const apucIn[3] = {stIn.pY, stIn.pU, stIn.pV};
        uint8_t *const apucNeon[3] = {stNeon.pY, stNeon.pU, stNeon.pV};
        uint8_t *const apucPlain[3] = {stPlain.pY, stPlain.pU, stPlain.pV};
        DistortionCorrect_neon(ePicType == 2, &stPara, apucIn, apucNeon);
        DistortionCorrect(ePicType == 2, &stPara, apucIn, apucPlain);
        MemoFree(uBlock);
        EXPECT_EQ(vNeon, vPlain) << "picture type " << ePicType;
        // The top-left block maps far beyond the bottom-right corner (f is strongly negative there):
        // it takes the last block position's sample, (W - 2, H - 2), without interpolation.
        EXPECT_EQ(vNeon[0], vIn[(iH - 2) * iW + iW - 2]) << "picture type " << ePicType;
    }
}

}  // namespace

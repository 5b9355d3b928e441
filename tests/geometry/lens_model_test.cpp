#include <gtest/gtest.h>

#include <string.h>

#include "geometry/lens_model.h"

namespace {

tagST_LDC_PARA MakeLensPara(int32_t iW, int32_t iH, float fFx, float fU0, float fV0, float fK1,
                            float fK2, float fK3)
{
    tagST_LDC_PARA stPara;
    memset(&stPara, 0, sizeof(stPara));
    stPara.iImgWidth = iW;
    stPara.iImgHeight = iH;
    stPara.iLDCFlag = 1;
    stPara.iGolbalFDCFlag = 1;
    const float afMatrix[9] = {fFx, 0, fU0, 0, fFx, fV0, 0, 0, 1};
    memcpy(stPara.afCameraMatrix, afMatrix, sizeof(afMatrix));
    stPara.afDistortionCoefficients[0] = fK1;
    stPara.afDistortionCoefficients[1] = fK2;
    stPara.afDistortionCoefficients[2] = fK3;
    return stPara;
}

tagST_LDC_PARA MakeFacePara(int32_t iW, int32_t iH, float fG0, float fG1, float fG2)
{
    tagST_LDC_PARA stPara = MakeLensPara(iW, iH, 1.0f, 1.0f, 1.0f, 0, 0, 0);
    stPara.afGlobalFDCCoefficients[0] = fG0;
    stPara.afGlobalFDCCoefficients[1] = fG1;
    stPara.afGlobalFDCCoefficients[2] = fG2;
    return stPara;
}

void ExpectArea(const int32_t *piArea, int32_t iL, int32_t iT, int32_t iR, int32_t iB)
{
    EXPECT_EQ(piArea[0], iL);
    EXPECT_EQ(piArea[1], iT);
    EXPECT_EQ(piArea[2], iR);
    EXPECT_EQ(piArea[3], iB);
}

// Every pixel of the rectangle must map inside the frame: the remap kernels rely on it.
void ExpectAreaMapsInside(const tagST_LDC_PARA &stPara, int32_t bLens)
{
    const int32_t *piArea = bLens ? stPara.aiLDCArea : stPara.aiGlobalFDCArea;
    tagST_RADIAL_MODEL stModel;
    GetRadialModel(&stPara, bLens, &stModel);
    for (int32_t y = piArea[1]; y <= piArea[3]; y++) {
        for (int32_t x = piArea[0]; x <= piArea[2]; x++) {
            const float fDx = (float)x - stModel.fCx;
            const float fDy = (float)y - stModel.fCy;
            const float fF = RadialFactorSerial(&stModel, fDx * fDx + fDy * fDy);
            const float fSx = stModel.fCx + fF * fDx;
            const float fSy = stModel.fCy + fF * fDy;
            ASSERT_TRUE(fSx >= 0 && fSx <= stPara.iImgWidth - 1 && fSy >= 0 &&
                        fSy <= stPara.iImgHeight - 1)
                << "(" << x << ", " << y << ") maps to (" << fSx << ", " << fSy << ")";
        }
    }
}

TEST(GetUndistortedArea, IdentityAcceptsTheWholeFrameRoundedToEvenSize)
{
    tagST_LDC_PARA stPara = MakeFacePara(1001, 751, 0, 0, 0);
    GetUndistortedArea(&stPara, LDC_AREA_FACE);
    ExpectArea(stPara.aiGlobalFDCArea, 0, 0, 999, 749);
    EXPECT_EQ(stPara.iGolbalFDCFlag, 1);
}

TEST(GetUndistortedArea, SwitchedOffModelGetsTheRoundedFrameAndStaysOff)
{
    tagST_LDC_PARA stPara = MakeLensPara(1001, 751, 500, 501, 375, -0.3f, 0, 0);
    stPara.iLDCFlag = 0;
    GetUndistortedArea(&stPara, LDC_AREA_LENS);
    ExpectArea(stPara.aiLDCArea, 0, 0, 999, 749);
    EXPECT_EQ(stPara.iLDCFlag, 0);
}

TEST(GetUndistortedArea, RealBarrelLensKeepsTheFrame)
{
    // A real 640 x 480 calibration: barrel distortion maps the border inward.
    tagST_LDC_PARA stPara =
        MakeLensPara(640, 480, 535.91573f, 343, 235, -0.26637261f, -0.038588899f, 0.23839153f);
    GetUndistortedArea(&stPara, LDC_AREA_LENS);
    ExpectArea(stPara.aiLDCArea, 0, 0, 639, 479);
    EXPECT_EQ(stPara.iLDCFlag, 1);
    ExpectAreaMapsInside(stPara, 1);
}

TEST(GetUndistortedArea, PincushionMovesTheEdgesInwardSymmetrically)
{
    tagST_LDC_PARA stPara = MakeLensPara(641, 479, 500, 321, 239, 0.2f, 0.05f, 0);
    GetUndistortedArea(&stPara, LDC_AREA_LENS);
    const int32_t *piArea = stPara.aiLDCArea;
    EXPECT_EQ(stPara.iLDCFlag, 1);
    EXPECT_GT(piArea[0], 0);
    EXPECT_GT(piArea[1], 0);
    EXPECT_EQ(piArea[0] % 2, 0);
    EXPECT_EQ(piArea[1] % 2, 0);
    EXPECT_EQ(piArea[2] % 2, 1);
    EXPECT_EQ(piArea[3] % 2, 1);
    EXPECT_LE(abs((640 - piArea[2]) - piArea[0]), 1);
    EXPECT_LE(abs((478 - piArea[3]) - piArea[1]), 1);
    ExpectAreaMapsInside(stPara, 1);
}

TEST(GetUndistortedArea, OffCentrePrincipalPointTakesTheWiderMargin)
{
    // The principal point sits 40 pixels right of the middle: the right margin is the narrower
    // one and is widened to match the left.
    tagST_LDC_PARA stPara = MakeLensPara(400, 300, 300, 239, 149, 0.15f, 0, 0);
    GetUndistortedArea(&stPara, LDC_AREA_LENS);
    const int32_t *piArea = stPara.aiLDCArea;
    EXPECT_EQ(stPara.iLDCFlag, 1);
    EXPECT_LE(abs((399 - piArea[2]) - piArea[0]), 1);
    ExpectAreaMapsInside(stPara, 1);
}

TEST(GetUndistortedArea, PixelBeyondTheFarSideFailsWithTheUnroundedFrame)
{
    // f turns strongly negative towards the corners: column 0 is not rejected (it maps far to the
    // right), so the search fails.
    tagST_LDC_PARA stPara = MakeFacePara(101, 75, -0.01f, 0, 0);
    GetUndistortedArea(&stPara, LDC_AREA_FACE);
    ExpectArea(stPara.aiGlobalFDCArea, 0, 0, 100, 74);
    EXPECT_EQ(stPara.iGolbalFDCFlag, 0);
}

TEST(GetUndistortedArea, CollapsedRectangleClearsTheSwitchButIsStored)
{
    // Only the centre column and row survive: left = right = 32, then the symmetrisation moves
    // right to 31.
    tagST_LDC_PARA stPara = MakeFacePara(64, 64, 1.0f, 0, 0);
    GetUndistortedArea(&stPara, LDC_AREA_FACE);
    ExpectArea(stPara.aiGlobalFDCArea, 32, 32, 31, 31);
    EXPECT_EQ(stPara.iGolbalFDCFlag, 0);
}

TEST(GetRadialModel, LensCoefficientsAreScaledByPowersOfFxOnly)
{
    tagST_LDC_PARA stPara = MakeLensPara(640, 480, 500, 321, 239, 0.5f, 0.25f, 0.125f);
    stPara.afCameraMatrix[4] = 900;   // fy plays no part
    tagST_RADIAL_MODEL stModel;
    GetRadialModel(&stPara, 1, &stModel);
    EXPECT_FLOAT_EQ(stModel.fCx, 321);
    EXPECT_FLOAT_EQ(stModel.fCy, 239);
    EXPECT_FLOAT_EQ(stModel.fC1, 0.5f / (500.0f * 500.0f));
    EXPECT_FLOAT_EQ(stModel.fC2, 0.25f / (500.0f * 500.0f * 500.0f * 500.0f));
    EXPECT_NEAR(stModel.fC3 / (0.125 / 1.5625e16), 1.0, 1e-6);
    GetRadialModel(&stPara, 0, &stModel);
    EXPECT_FLOAT_EQ(stModel.fCx, 320);
    EXPECT_FLOAT_EQ(stModel.fCy, 240);
}

}  // namespace

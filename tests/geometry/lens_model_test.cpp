// The valid undistorted area: its shape on any model, and the rectangles of the fallbacks.
#include <gtest/gtest.h>

#include <string.h>

#include <random>
#include <vector>

#include "geometry/lens_model.h"

namespace {

// A lens model (fx, u0, v0, k1, k2, k3) or a face model (g0, g1, g2) on a W x H frame.
struct AreaCase {
    int32_t iW, iH;
    bool bLens;
    float afModel[6];
};

tagST_LDC_PARA MakePara(const AreaCase &c)
{
    tagST_LDC_PARA stPara;
    memset(&stPara, 0, sizeof(stPara));
    stPara.iImgWidth = c.iW;
    stPara.iImgHeight = c.iH;
    stPara.iLDCFlag = 1;
    stPara.iGolbalFDCFlag = 1;
    if (c.bLens) {
        const float afMatrix[9] = {c.afModel[0], 0, c.afModel[1], 0, c.afModel[0], c.afModel[2], 0, 0, 1};
        memcpy(stPara.afCameraMatrix, afMatrix, sizeof(afMatrix));
        memcpy(stPara.afDistortionCoefficients, &c.afModel[3], 3 * sizeof(float));
    } else {
        memcpy(stPara.afGlobalFDCCoefficients, c.afModel, 3 * sizeof(float));
    }
    GetUndistortedArea(&stPara, c.bLens ? LDC_AREA_LENS : LDC_AREA_FACE);
    return stPara;
}

// {switch, left, top, right, bottom}
std::vector<int32_t> Outcome(const tagST_LDC_PARA &p, bool bLens)
{
    const int32_t *pi = bLens ? p.aiLDCArea : p.aiGlobalFDCArea;
    return {bLens ? p.iLDCFlag : p.iGolbalFDCFlag, pi[0], pi[1], pi[2], pi[3]};
}

// Whatever the model, an accepted rectangle has even left and top, odd right and bottom, equal
// margins up to that rounding, and every pixel of it maps inside the frame (the remap relies on
// it). fy plays no part.
TEST(GetUndistortedArea, AcceptedRectangleIsCentredEvenAndMapsInside)
{
    std::vector<AreaCase> vstCases = {
        {640, 480, true, {535.91573f, 343, 235, -0.26637261f, -0.038588899f, 0.23839153f}},   // a real phone lens
        {641, 479, true, {500, 321, 239, 0.2f, 0.05f, 0}},                                     // pincushion
        {400, 300, true, {300, 239, 149, 0.15f, 0, 0}},   // principal point 40 px right of the middle
    };
    std::mt19937 rng(5);
    for (int32_t i = 0; i < 12; i++) {
        const int32_t iW = 40 + (int32_t)(rng() % 300), iH = 30 + (int32_t)(rng() % 200);
        const float fR2 = 0.25f * (float)(iW * iW + iH * iH);
        auto fnUniform = [&](float fRange) { return fRange * ((float)(rng() % 2001) / 1000.0f - 1.0f); };
        vstCases.push_back({iW, iH, false, {fnUniform(0.3f) / fR2, fnUniform(0.05f) / (fR2 * fR2), 0}});
    }
    for (const AreaCase &c : vstCases) {
        const tagST_LDC_PARA stPara = MakePara(c);
        const std::vector<int32_t> viArea = Outcome(stPara, c.bLens);
        SCOPED_TRACE(testing::PrintToString(c.afModel) + " on " + std::to_string(c.iW) + "x" + std::to_string(c.iH) +
                     ": " + testing::PrintToString(viArea));
        ASSERT_EQ(1, viArea[0]);
        EXPECT_EQ((std::vector<int32_t>{0, 0, 1, 1}),
                  (std::vector<int32_t>{viArea[1] & 1, viArea[2] & 1, viArea[3] & 1, viArea[4] & 1}));
        EXPECT_GE(viArea[1], 0);
        EXPECT_LE(viArea[3], c.iW - 1);
        EXPECT_LE(abs((c.iW - 1 - viArea[3]) - viArea[1]), 1);
        EXPECT_LE(abs((c.iH - 1 - viArea[4]) - viArea[2]), 1);
        tagST_RADIAL_MODEL stM;
        GetRadialModel(&stPara, c.bLens, &stM);
        for (int32_t y = viArea[2]; y <= viArea[4]; y++) {
            for (int32_t x = viArea[1]; x <= viArea[3]; x++) {
                const float fDx = (float)x - stM.fCx, fDy = (float)y - stM.fCy;
                const float fF = RadialFactorSerial(&stM, fDx * fDx + fDy * fDy);
                const float fSx = stM.fCx + fF * fDx, fSy = stM.fCy + fF * fDy;
                ASSERT_TRUE(fSx >= 0 && fSx <= c.iW - 1 && fSy >= 0 && fSy <= c.iH - 1)
                    << "(" << x << ", " << y << ") maps to (" << fSx << ", " << fSy << ")";
            }
        }
        if (c.bLens) {
            tagST_LDC_PARA stOtherFy = stPara;
            stOtherFy.afCameraMatrix[4] *= 3.0f;
            GetUndistortedArea(&stOtherFy, LDC_AREA_LENS);
            EXPECT_EQ(viArea, Outcome(stOtherFy, true));
        }
    }
    // The barrel lens maps the border inward and keeps the whole frame; the pincushion does not.
    EXPECT_EQ((std::vector<int32_t>{1, 0, 0, 639, 479}), Outcome(MakePara(vstCases[0]), true));
    EXPECT_GT(MakePara(vstCases[1]).aiLDCArea[0], 0);
}

// One focal length from the principal point r2 / fx^2 = 1, so f = 1 + k1 + k2 + k3 whatever fy
// says; the face model turns about the frame centre halved as integers.
TEST(GetRadialModel, AtOneFocalLengthTheFactorIsOnePlusTheCoefficients)
{
    tagST_LDC_PARA stPara = MakePara({1001, 751, true, {500, 321, 239, 0.5f, 0.25f, 0.125f}});
    stPara.afCameraMatrix[4] = 900;
    tagST_RADIAL_MODEL stM;
    GetRadialModel(&stPara, 1, &stM);
    EXPECT_NEAR(1.875f, RadialFactorSerial(&stM, 500.0f * 500.0f), 1e-6f);
    EXPECT_EQ((std::vector<float>{321, 239}), (std::vector<float>{stM.fCx, stM.fCy}));
    GetRadialModel(&stPara, 0, &stM);
    EXPECT_EQ((std::vector<float>{500, 375}), (std::vector<float>{stM.fCx, stM.fCy}));
}

TEST(GetUndistortedArea, FallbackRectangles)
{
    struct {
        AreaCase stCase;
        bool bSwitchedOff;
        std::vector<int32_t> viExpected;
    } const astCases[] = {
        // Identity: every line accepted at once, the frame rounded to an even size.
        {{1001, 751, false, {0, 0, 0}}, false, {1, 0, 0, 999, 749}},
        // A model switched off gets the rounded frame and stays off.
        {{1001, 751, true, {500, 501, 375, -0.3f, 0, 0}}, true, {0, 0, 0, 999, 749}},
        // f turns strongly negative towards the corners: column 0 is not rejected (it maps far to
        // the right), so the search fails with the unrounded frame.
        {{101, 75, false, {-0.01f, 0, 0}}, false, {0, 0, 0, 100, 74}},
        // Only the centre column and row survive: left = right = 32, then the symmetrisation
        // moves right to 31; the switch is cleared but the rectangle stored.
        {{64, 64, false, {1.0f, 0, 0}}, false, {0, 32, 32, 31, 31}},
    };
    for (const auto &c : astCases) {
        AreaCase stCase = c.stCase;
        tagST_LDC_PARA stPara = MakePara(stCase);
        if (c.bSwitchedOff) {
            stPara.iLDCFlag = 0;
            GetUndistortedArea(&stPara, LDC_AREA_LENS);
        }
        EXPECT_EQ(c.viExpected, Outcome(stPara, stCase.bLens)) << stCase.iW << "x" << stCase.iH;
    }
}

}  // namespace

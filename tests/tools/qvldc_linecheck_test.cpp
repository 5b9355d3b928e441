// qvldc's replay of the line check: which lines LineDetect kept, judged and refused.
#include <gtest/gtest.h>

#include <string.h>

#include <vector>

#include "../../tools/qvldc/qvldc_linecheck.cpp"

namespace {

// A 640 x 480 frame (factor 4) with dark vertical bars on a light ground: one close to the left
// border, where the global face mapping bends it most, and one through the centre, which it
// leaves straight.
std::vector<uint8_t> BarsLuma(bool bBorderBar)
{
    std::vector<uint8_t> vucLuma(640 * 480, 200);
    for (int32_t y = 40; y < 440; y++) {
        for (int32_t x = 0; x < 640; x++) {
            if ((bBorderBar && x >= 24 && x < 48) || (x >= 312 && x < 336)) {
                vucLuma[y * 640 + x] = 30;
            }
        }
    }
    return vucLuma;
}

tagST_LDC_PARA LinePara(int32_t iBendValue)
{
    tagST_LDC_PARA stPara;
    memset(&stPara, 0, sizeof(stPara));
    stPara.iImgWidth = 640;
    stPara.iImgHeight = 480;
    stPara.iBinarizationThresh = 100;
    stPara.fConnectLineRatio = 0.5f;
    stPara.fLineLengthRatio = 0.5f;
    stPara.afGlobalFDCCoefficients[3] = 0.00186597f;   // the sample's 640 x 480 profile
    stPara.iBendValue = iBendValue;
    stPara.iGolbalFDCFlag = 1;
    stPara.iFaceNum = 2;
    stPara.iFDCEnable = 1;
    return stPara;
}

int32_t LibraryVerdict(const tagST_LDC_PARA &stPara, const std::vector<uint8_t> &vucLuma)
{
    tagST_LDC_PARA stCopy = stPara;
    std::vector<uint8_t> vucBuf(LineDetectWorkSize(stPara.iImgWidth, stPara.iImgHeight));
    stCopy.pucWorkBuf = vucBuf.data();
    testing::internal::CaptureStderr();
    const int32_t iVerdict = LineDetect(vucLuma.data(), &stCopy);
    testing::internal::GetCapturedStderr();
    return iVerdict;
}

void ExpectJudgedPrefix(const tagST_QV_LINE_CHECK &stCheck)
{
    // Straight lines, then at most one bending line, then the lines never judged.
    size_t i = 0;
    while (i < stCheck.viState.size() && stCheck.viState[i] == QV_LINE_STRAIGHT) {
        i++;
    }
    if (i < stCheck.viState.size() && stCheck.viState[i] == QV_LINE_BENDS) {
        i++;
    }
    while (i < stCheck.viState.size() && stCheck.viState[i] == QV_LINE_UNJUDGED) {
        i++;
    }
    EXPECT_EQ(stCheck.viState.size(), i);
    ASSERT_EQ(stCheck.vstLines.size(), stCheck.viState.size());
}

TEST(QvldcLineCheck, ReplayMatchesTheLibrary)
{
    const std::vector<uint8_t> vucLuma = BarsLuma(true);
    tagST_QV_LINE_CHECK stCheck;

    // Tolerance 2 pixels: the bar at the border bends and ends the check.
    tagST_LDC_PARA stPara = LinePara(2);
    testing::internal::CaptureStderr();
    ReplayLineCheck(&stPara, vucLuma.data(), &stCheck);
    const std::string strLog = testing::internal::GetCapturedStderr();
    EXPECT_EQ(0, stCheck.iVerdict);
    EXPECT_EQ(LibraryVerdict(stPara, vucLuma), stCheck.iVerdict);
    EXPECT_NE(std::string::npos, strLog.find("There are some lines becoming bended")) << strLog;
    EXPECT_EQ(4, stCheck.iFactor);
    ExpectJudgedPrefix(stCheck);
    int32_t iBending = -1;
    for (size_t i = 0; i < stCheck.viState.size(); i++) {
        // Frame pixels: every coordinate a multiple of the factor, inside the frame.
        const stLine &stL = stCheck.vstLines[i];
        EXPECT_EQ(0, stL.Pnt0.x % 4);
        EXPECT_EQ(0, stL.Pnt1.y % 4);
        EXPECT_LT(stL.Pnt1.x, 640);
        EXPECT_LT(stL.Pnt1.y, 480);
        if (stCheck.viState[i] == QV_LINE_BENDS) {
            iBending = (int32_t)i;
        }
    }
    ASSERT_GE(iBending, 0);
    EXPECT_LT(stCheck.vstLines[iBending].Pnt0.x, 100);

    // A generous tolerance passes every line, and all of them are judged.
    stPara = LinePara(1000);
    testing::internal::CaptureStderr();
    ReplayLineCheck(&stPara, vucLuma.data(), &stCheck);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(1, stCheck.iVerdict);
    ASSERT_FALSE(stCheck.vstLines.empty());
    for (int32_t eState : stCheck.viState) {
        EXPECT_EQ(QV_LINE_STRAIGHT, eState);
    }

    // Without the border bar only the centre bar is left, and it stays straight at 2 pixels.
    stPara = LinePara(2);
    ReplayLineCheck(&stPara, BarsLuma(false).data(), &stCheck);
    EXPECT_EQ(1, stCheck.iVerdict);
    ASSERT_FALSE(stCheck.vstLines.empty());
    ExpectJudgedPrefix(stCheck);

    // A flat frame has no line: the check allows the global correction.
    const std::vector<uint8_t> vucFlat(640 * 480, 128);
    ReplayLineCheck(&stPara, vucFlat.data(), &stCheck);
    EXPECT_EQ(1, stCheck.iVerdict);
    EXPECT_TRUE(stCheck.vstLines.empty());
}

TEST(QvldcLineCheck, WhetherTheDriverRanTheCheck)
{
    struct {
        int32_t iGlobal, iFaces, iMode, iFDCEnable, bRan;
    } astCases[] = {
        {1, 2, 1, 0, 1},   // verdict 1: the check switched face correction off
        {1, 2, 0, 1, 1},   // verdict 0: face correction still on
        {1, 2, 0, 0, 0},   // face correction was off before the mode was chosen
        {1, 1, 0, 1, 0},   // one face
        {2, 3, 2, 1, 0},   // fallback mode: no check
        {0, 3, 0, 1, 0},
    };
    for (const auto &stCase : astCases) {
        tagST_LDC_PARA stPara;
        memset(&stPara, 0, sizeof(stPara));
        stPara.iGolbalFDCFlag = stCase.iGlobal;
        stPara.iFaceNum = stCase.iFaces;
        stPara.iFDCMode = stCase.iMode;
        stPara.iFDCEnable = stCase.iFDCEnable;
        EXPECT_EQ(stCase.bRan, LineCheckRan(&stPara))
            << stCase.iGlobal << " " << stCase.iFaces << " " << stCase.iMode << " " << stCase.iFDCEnable;
    }
}

}  // namespace

// End-to-end frames through IQV_LDC_Process: every path of the frame driver, its plan and
// decision fields, its messages, and its output bytes against the stages composed by hand.
#include <gtest/gtest.h>

#include <math.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "geometry/distortion_correct.h"
#include "interface/ldc_process.h"
#include "mesh/face_mesh.h"
#include "records/ldc_para.h"
#include "records/work_buffer.h"
#include "vkt_zb_ldc.h"
#include "warp/affine_transform.h"
#include "warp/fill_blank.h"

namespace {

const int kW = 640;
const int kH = 480;
const size_t kGuard = 64;   // bytes behind each caller buffer that must stay untouched

typedef std::map<std::string, std::string> Keys;

// A configuration with the real 640 x 480 calibration (and a 320 x 240 profile scaled from it);
// keys override the globals, "Section/Key" style.
std::string WriteConfig(const Keys &stKeys)
{
    Keys stAll = {{"Global/LDCFlag", "1"},
                  {"Global/FDCFlag", "1"},
                  {"Global/MultiFacesLDCFlag", "1"},
                  {"Global/MultiFacesFDCFlag", "1"},
                  {"Global/GolbalFDCFlag", "0"},
                  {"Global/LDCAreaRestrictedFlag", "0"},
                  {"Global/FDCAreaRestrictedFlag", "0"},
                  {"Global/RestrictedAreaRatio", "0.5"},
                  {"FaceDistortionCorrection/CorrectionDegree", "0.3"},
                  {"FaceDistortionCorrection/FOVLost", "60"},
                  {"LineDetection/BendDecideMode", "0"},
                  {"LineDetection/BinarizationThresh", "100"}};
    for (const auto &kv : stKeys) {
        stAll[kv.first] = kv.second;
    }
    std::map<std::string, std::string> stSections;
    for (const auto &kv : stAll) {
        const size_t uSlash = kv.first.find('/');
        const std::string sKey = kv.first.substr(uSlash + 1);
        stSections[kv.first.substr(0, uSlash)] += "<" + sKey + ">" + kv.second + "</" + sKey + ">";
    }
    std::string sText = "<?xml version=\"1.0\"?>\n<Config>";
    for (const auto &kv : stSections) {
        sText += "<" + kv.first + ">" + kv.second + "</" + kv.first + ">";
    }
    sText +=
        "<DistortionCorrection1><ImageWidth>640</ImageWidth><ImageHeight>480</ImageHeight>"
        "<CameraMatrix>535.91573 0 342.28315 0 535.91573 235.57083 0 0 1</CameraMatrix>"
        "<DistortionCoefficients>-0.26637261 -0.038588899 0.23839153 0.0017831947 -0.000281221</DistortionCoefficients>"
        "<GlobalFDCCoefficients>2.5e-7 3e-13 0 0.0018659</GlobalFDCCoefficients>"
        "<BendValue>2</BendValue></DistortionCorrection1>"
        "<DistortionCorrection2><ImageWidth>320</ImageWidth><ImageHeight>240</ImageHeight>"
        "<CameraMatrix>267.957865 0 171.141575 0 267.957865 117.785415 0 0 1</CameraMatrix>"
        "<DistortionCoefficients>-0.26637261 -0.038588899 0.23839153 0.0017831947 -0.000281221</DistortionCoefficients>"
        "<GlobalFDCCoefficients>1e-6 4.8e-12 0 0.0037318</GlobalFDCCoefficients>"
        "<BendValue>2</BendValue></DistortionCorrection2>"
        "<DistortionCorrection3><ImageWidth>35</ImageWidth><ImageHeight>49</ImageHeight>"
        "<CameraMatrix>30 0 17 0 30 24 0 0 1</CameraMatrix>"
        "<DistortionCoefficients>-0.2 0 0 0 0</DistortionCoefficients>"
        "<GlobalFDCCoefficients>1e-4 0 0 0.03</GlobalFDCCoefficients></DistortionCorrection3>"
        "<DistortionCorrection4><ImageWidth>36</ImageWidth><ImageHeight>36</ImageHeight>"
        "<CameraMatrix>10 0 17 0 10 17 0 0 1</CameraMatrix>"
        "<DistortionCoefficients>5 0 0 0 0</DistortionCoefficients>"
        "<GlobalFDCCoefficients>1e-4 0 0 0.03</GlobalFDCCoefficients></DistortionCorrection4>"
        // Symmetric about the frame's middle (no tangential terms): mirrored frames for the mesh.
        "<DistortionCorrection5><ImageWidth>256</ImageWidth><ImageHeight>128</ImageHeight>"
        "<CameraMatrix>150 0 127.5 0 150 63.5 0 0 1</CameraMatrix>"
        "<DistortionCoefficients>-0.2 0.03 0 0 0</DistortionCoefficients>"
        "<GlobalFDCCoefficients>1e-4 0 0 0.03</GlobalFDCCoefficients></DistortionCorrection5></Config>\n";
    char acPath[256] = {0};
    snprintf(acPath, sizeof(acPath), "/tmp/ldc_process_test_%d_%zu.xml", (int)getpid(),
             std::hash<std::string>()(sText));
    FILE *pFile = fopen(acPath, "wb");
    fwrite(sText.data(), 1, sText.size(), pFile);
    fclose(pFile);
    return acPath;
}

// A textured frame: smooth gradients with a few soft blobs and no long straight edges, so the
// line check finds nothing; bStraightEdge adds a strong vertical bar near the border.
std::vector<uint8_t> RenderFrame(int iW, int iH, bool bStraightEdge = false)
{
    std::vector<uint8_t> vFrame((size_t)iW * iH * 3 / 2 + kGuard, 0xA5);
    for (int y = 0; y < iH; y++) {
        for (int x = 0; x < iW; x++) {
            double dV = 120 + 50 * sin(x * 0.031) * cos(y * 0.027) + 20 * sin((x + y) * 0.11);
            if (bStraightEdge && x > iW - iW / 8 && x < iW - iW / 8 + 6 && y > iH / 10 && y < iH - iH / 10) {
                dV = 250;
            }
            vFrame[(size_t)y * iW + x] = (uint8_t)dV;
        }
    }
    uint8_t *pucChroma = vFrame.data() + (size_t)iW * iH;
    for (int i = 0; i < iW * iH / 2; i++) {
        pucChroma[i] = (uint8_t)(96 + (i * 7 + (i / iW) * 3) % 64);
    }
    return vFrame;
}

struct Instance {
    void *pHandle = NULL;
    std::string sPath;
    Instance(const Keys &stKeys, int iW = kW, int iH = kH, int ePicType = LDC_PIC_NV21)
    {
        sPath = WriteConfig(stKeys);
        char acPath[256] = {0};
        snprintf(acPath, sizeof(acPath), "%s", sPath.c_str());
        ST_LDC_INPUT_PARA stPara = {iW, iH, acPath, ePicType};
        EXPECT_EQ(IQV_LDC_Create(&pHandle, &stPara), LDC_OK);
    }
    ~Instance()
    {
        IQV_LDC_Delete(pHandle);
        unlink(sPath.c_str());
    }
    tagST_LDC_PARA *Para() { return (tagST_LDC_PARA *)pHandle; }
};

struct Result {
    int32_t iRet;
    std::vector<uint8_t> vOut;
    std::string sLog;
    tagST_LDC_PLAN stPlan;
};

Result Process(Instance &stInst, std::vector<uint8_t> &vIn, int iW, int iH, const std::vector<ST_FACE_RECT> &vFaces)
{
    Result stResult;
    stResult.vOut.assign((size_t)iW * iH * 3 / 2 + kGuard, 0x5A);
    ST_LDC_FRAME_INFO stInfo = {iW, iH, 100, (int32_t)vFaces.size(), vFaces.empty() ? NULL : vFaces.data()};
    testing::internal::CaptureStderr();
    stResult.iRet = LdcProcessFrame(stInst.pHandle, &stInfo, vIn.data(), stResult.vOut.data(), &stResult.stPlan);
    stResult.sLog = testing::internal::GetCapturedStderr();
    return stResult;
}

bool GuardIntact(const std::vector<uint8_t> &vBuf, size_t uFrameBytes, uint8_t ucGuard)
{
    for (size_t i = uFrameBytes; i < vBuf.size(); i++) {
        if (vBuf[i] != ucGuard) {
            return false;
        }
    }
    return true;
}

// The remap and warp of the driver in two passes, composed by hand from the exported stages:
// the intermediate image a copy of the input, the remap of the rectangle into it, its warp through
// pfMatrix over the even part of the frame into an output prefilled as Process's, the odd last
// row and column from the input.
std::vector<uint8_t> ComposeByHand(tagST_LDC_PARA *pstPara, std::vector<uint8_t> &vIn, const float *pfMatrix)
{
    const int iW = pstPara->iImgWidth;
    const int iH = pstPara->iImgHeight;
    const size_t uBytes = (size_t)iW * iH * 3 / 2;
    std::vector<uint8_t> vOut(uBytes + kGuard, 0x5A);
    tagST_PIC stIn, stInter, stOut;
    BuildPicture(&stIn, vIn.data(), iW, iH, pstPara->ePicType);
    BuildPicture(&stInter, pstPara->pucWorkBuf, iW, iH, pstPara->ePicType);
    BuildPicture(&stOut, vOut.data(), iW, iH, pstPara->ePicType);
    memcpy(stInter.pY, stIn.pY, uBytes);
    uint8_t *const apucIn[3] = {stIn.pY, stIn.pU, stIn.pV};
    uint8_t *const apucInter[3] = {stInter.pY, stInter.pU, stInter.pV};
    DistortionCorrect_neon(pstPara->ePicType == LDC_PIC_YUV420, pstPara, apucIn, apucInter);
    tagST_REGISTRATION_AREA stArea = {0, 0, iW & ~1, iH & ~1};
    float afMatrix[9];
    memcpy(afMatrix, pfMatrix, sizeof(afMatrix));
    AffineTransform_neon(pstPara, &stOut, &stInter, &stOut, afMatrix, &stArea,
                         pstPara->pucWorkBuf + LDC_WORK_SCRATCH_OFFSET(iW, iH));
    for (int y = 0; y < iH; y++) {
        for (int x = (y < (iH & ~1)) ? (iW & ~1) : 0; x < iW; x++) {
            vOut[(size_t)y * iW + x] = vIn[(size_t)y * iW + x];
        }
    }
    return vOut;
}

bool Contains(const std::string &sLog, const std::string &sLine)
{
    return sLog.find(sLine) != std::string::npos;
}

const std::vector<ST_FACE_RECT> kOneFaceRight = {{480, 180, 579, 299}};
const std::vector<ST_FACE_RECT> kTwoFaces = {{40, 160, 129, 269}, {500, 170, 589, 279}};

TEST(Process, BadArgumentsReturnTheCodeAndLeaveTheOutputUntouched)
{
    Instance stInst(Keys{});
    std::vector<uint8_t> vIn = RenderFrame(kW, kH);
    std::vector<uint8_t> vOut(vIn.size(), 0x77);
    const std::vector<uint8_t> vUntouched = vOut;
    const std::string kNull = "E/ZB5QU_QVLDC: The point of input param is NULL!\n";
    // Each case spoils one part of a valid call.
    const struct {
        int iCase;
        int iW, iH;
        std::string sLog;
    } astCases[] = {{0, kW, kH, kNull}, {1, kW, kH, kNull}, {2, kW, kH, kNull}, {3, kW, kH, kNull},
                    {4, 0, kH, "E/ZB5QU_QVLDC: iImgWidth: 0 > 5000\n"},
                    {4, 5001, kH, "E/ZB5QU_QVLDC: iImgWidth: 5001 > 5000\n"},
                    {4, kW, -1, "E/ZB5QU_QVLDC: iImgHeight: -1 > 5000\n"},
                    {4, 0, 5001, "E/ZB5QU_QVLDC: iImgWidth: 0 > 5000\nE/ZB5QU_QVLDC: iImgHeight: 5001 > 5000\n"}};
    for (const auto &c : astCases) {
        ST_LDC_FRAME_INFO stInfo = {c.iW, c.iH, 100, 0, NULL};
        testing::internal::CaptureStderr();
        EXPECT_EQ(IQV_LDC_Process(c.iCase == 0 ? NULL : stInst.pHandle, c.iCase == 1 ? NULL : &stInfo,
                                  c.iCase == 2 ? NULL : vIn.data(), c.iCase == 3 ? NULL : vOut.data()),
                  LDC_ERR_PARAM);
        EXPECT_TRUE(Contains(testing::internal::GetCapturedStderr(), c.sLog)) << c.sLog;
    }
    EXPECT_EQ(vOut, vUntouched);
}

TEST(Process, WithoutFaceCorrectionTheOutputIsACopyWhateverTheLensFlagSays)
{
    Instance stInst(Keys{{"Global/FDCFlag", "0"}, {"Global/LDCFlag", "1"}});
    std::vector<uint8_t> vIn = RenderFrame(kW, kH);
    const Result stR = Process(stInst, vIn, kW, kH, kOneFaceRight);
    const size_t uBytes = (size_t)kW * kH * 3 / 2;
    ASSERT_EQ(stR.iRet, LDC_OK);
    EXPECT_EQ(0, memcmp(stR.vOut.data(), vIn.data(), uBytes));
    EXPECT_TRUE(GuardIntact(stR.vOut, uBytes, 0x5A));
    EXPECT_EQ(stInst.Para()->iLDCEnable, 0);
    EXPECT_EQ(stInst.Para()->iFDCMode, 0);
    EXPECT_EQ(stR.stPlan.ePath, LDC_PATH_COPY);
    EXPECT_EQ(stR.stPlan.eRefusal, LDC_REFUSAL_FLAG);
    // Log order: entry, version, frame, faces, time, property, exit.
    const char *apcOrder[] = {"I/ZB5QU_QVLDC: Enter IQV_LDC_Process.\n", "I/ZB5QU_QVLDC: LDC Version : __QVLDC_V1.0.4<78069>__",
                              "I/ZB5QU_QVLDC: iImgWidth = 640, iImgHeight = 480, iISO = 100, iFaceNum = 1.\n",
                              "I/ZB5QU_QVLDC: Face No. 1 Coord<left, top, right, bottom>: 480, 180, 579, 299\n",
                              "I/ZB5QU_QVLDC: The time of IQV_LDC_Process is = ", "I/ZB5QU_QVLDC: save org image: length = 0",
                              "I/ZB5QU_QVLDC: Exit IQV_LDC_Process.\n"};
    size_t uPos = 0;
    for (const char *pcLine : apcOrder) {
        const size_t uFound = stR.sLog.find(pcLine, uPos);
        ASSERT_NE(uFound, std::string::npos) << pcLine << "\n" << stR.sLog;
        uPos = uFound;
    }
}

// A budget of 100 % makes no fit: the lens remap alone, whose warp through the identity the
// driver leaves out. The output is still the two passes' byte for byte, on even and odd frames
// and with a lens area collapsed to nothing, in every layout; an odd last row and column are the
// input's, and an empty rectangle leaves the input as it is.
TEST(Process, FullBudgetGivesTheLensRemapWithoutFaceWarp)
{
    const struct {
        int iW, iH;
        ST_FACE_RECT stFace;
    } astFrames[] = {{kW, kH, {480, 180, 579, 299}}, {35, 49, {24, 30, 33, 45}}, {36, 36, {26, 4, 33, 13}}};
    for (const auto &f : astFrames) {
        for (int ePicType = 0; ePicType <= 2; ePicType++) {
            Instance stInst(Keys{{"FaceDistortionCorrection/FOVLost", "100"}}, f.iW, f.iH, ePicType);
            std::vector<uint8_t> vIn = RenderFrame(f.iW, f.iH);
            const Result stR = Process(stInst, vIn, f.iW, f.iH, {f.stFace});
            const std::string sCase = std::to_string(f.iW) + "x" + std::to_string(f.iH) + " type " + std::to_string(ePicType);
            ASSERT_EQ(stR.iRet, LDC_OK) << sCase;
            EXPECT_TRUE(Contains(stR.sLog, "I/ZB5QU_QVLDC: FOV is lost 100%, ret of H is 0\n")) << stR.sLog;
            EXPECT_EQ(stInst.Para()->iLDCEnable, 1) << sCase;
            EXPECT_EQ(stR.stPlan.ePath, LDC_PATH_LENS) << sCase;
            EXPECT_EQ(stR.stPlan.iFitRounds, 0) << sCase;
            const float afIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
            const std::vector<uint8_t> vExpected = ComposeByHand(stInst.Para(), vIn, afIdentity);
            const size_t uBytes = (size_t)f.iW * f.iH * 3 / 2;
            EXPECT_EQ(0, memcmp(stR.vOut.data(), vExpected.data(), uBytes)) << sCase;
            EXPECT_TRUE(GuardIntact(stR.vOut, uBytes, 0x5A)) << sCase;
            EXPECT_TRUE(GuardIntact(vIn, uBytes, 0xA5)) << sCase;
            const int32_t *piArea = stInst.Para()->aiLDCArea;
            if (piArea[0] > piArea[2]) {
                EXPECT_EQ(0, memcmp(stR.vOut.data(), vIn.data(), uBytes)) << "empty rectangle, " << sCase;
            } else {
                EXPECT_NE(0, memcmp(stR.vOut.data(), vIn.data(), (size_t)f.iW * f.iH)) << "no remap, " << sCase;
            }
            for (int y = 0; (f.iW & 1) && y < f.iH; y++) {
                ASSERT_EQ(stR.vOut[y * f.iW + f.iW - 1], vIn[y * f.iW + f.iW - 1]) << "last column, row " << y << ", " << sCase;
            }
            const size_t uLastRow = (size_t)(f.iH - 1) * f.iW;
            EXPECT_TRUE(f.iH % 2 == 0 || memcmp(&stR.vOut[uLastRow], &vIn[uLastRow], f.iW) == 0) << "last row, " << sCase;
        }
    }
    Instance stCollapsed(Keys{{"FaceDistortionCorrection/FOVLost", "100"}}, 36, 36, LDC_PIC_NV12);
    EXPECT_GT(stCollapsed.Para()->aiLDCArea[0], stCollapsed.Para()->aiLDCArea[2]) << "the 36 x 36 lens area collapses";
}

TEST(Process, AcceptedFaceHomographyIsRemappedAndWarped)
{
    Instance stInst(Keys{{"FaceDistortionCorrection/CorrectionDegree", "0.3"}, {"FaceDistortionCorrection/FOVLost", "60"}});
    std::vector<uint8_t> vIn = RenderFrame(kW, kH);
    const Result stR = Process(stInst, vIn, kW, kH, kOneFaceRight);
    ASSERT_EQ(stR.iRet, LDC_OK);
    tagST_LDC_PARA *pstPara = stInst.Para();
    // The face widened by an eighth of its size on each side.
    const int32_t aiWidened[4] = {480 - 12, 180 - 15, 579 + 12, 299 + 15};
    EXPECT_EQ(0, memcmp(pstPara->aiFaceRect[0], aiWidened, sizeof(aiWidened)));
    EXPECT_EQ(pstPara->iFaceNum, 1);
    EXPECT_EQ(pstPara->iLDCEnable, 1);
    EXPECT_EQ(pstPara->iFDCMode, 0);
    const tagST_LDC_PLAN &stPlan = stR.stPlan;
    EXPECT_EQ(stPlan.ePath, LDC_PATH_FACE);
    EXPECT_EQ(stPlan.iFitStatus, 0);
    EXPECT_LE(stPlan.iFovLost, 60);
    char acLine[64];
    snprintf(acLine, sizeof(acLine), "I/ZB5QU_QVLDC: FOV is lost %d%%, ret of H is 0\n", stPlan.iFovLost);
    EXPECT_TRUE(Contains(stR.sLog, acLine)) << stR.sLog;
    // The correction draws the face towards the frame centre: every corner of the widened face
    // takes its pixel from closer to the centre.
    const float *pfM = stPlan.afMatrix;
    for (int k = 0; k < 4; k++) {
        const float fX = (float)aiWidened[k & 1 ? 2 : 0], fY = (float)aiWidened[k & 2 ? 3 : 1];
        const float fW = pfM[6] * fX + pfM[7] * fY + pfM[8];
        const float fDx = (pfM[0] * fX + pfM[1] * fY + pfM[2]) / fW - kW / 2;
        const float fDy = (pfM[3] * fX + pfM[4] * fY + pfM[5]) / fW - kH / 2;
        EXPECT_LT(hypotf(fDx, fDy), hypotf(fX - kW / 2, fY - kH / 2)) << "corner " << k;
    }
    // The output is the plan carried out: the lens remap, then the warp through its matrix.
    const std::vector<uint8_t> vExpected = ComposeByHand(pstPara, vIn, stPlan.afMatrix);
    EXPECT_EQ(0, memcmp(stR.vOut.data(), vExpected.data(), (size_t)kW * kH * 3 / 2));
    // And the face warp really moves pixels compared with the lens remap alone.
    const float afIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const std::vector<uint8_t> vLensOnly = ComposeByHand(pstPara, vIn, afIdentity);
    EXPECT_NE(0, memcmp(stR.vOut.data(), vLensOnly.data(), (size_t)kW * kH));
}

TEST(Process, FieldOfViewRefusalFallsBackToCopyOrGlobalRemap)
{
    std::vector<uint8_t> vIn = RenderFrame(kW, kH);
    const size_t uBytes = (size_t)kW * kH * 3 / 2;
    {
        Instance stInst(Keys{{"FaceDistortionCorrection/CorrectionDegree", "1.0"}, {"FaceDistortionCorrection/FOVLost", "0"},
                         {"Global/GolbalFDCFlag", "0"}});
        const Result stR = Process(stInst, vIn, kW, kH, kTwoFaces);
        ASSERT_EQ(stR.iRet, LDC_OK);
        EXPECT_TRUE(Contains(stR.sLog, "E/ZB5QU_QVLDC: FOV is lost ")) << stR.sLog;
        EXPECT_TRUE(Contains(stR.sLog, "%, more than 10%, ret of H is 0!\n")) << stR.sLog;
        EXPECT_EQ(0, memcmp(stR.vOut.data(), vIn.data(), uBytes)) << "mode 0 copies the frame";
        EXPECT_EQ(stInst.Para()->iLDCEnable, 0);
        EXPECT_EQ(stR.stPlan.ePath, LDC_PATH_COPY);
        EXPECT_EQ(stR.stPlan.eRefusal, LDC_REFUSAL_FOV);
        EXPECT_EQ(stR.stPlan.iFitRounds, 20) << "a budget of 0 is never met: every round is fitted";
    }
    {
        Instance stInst(Keys{{"FaceDistortionCorrection/CorrectionDegree", "1.0"}, {"FaceDistortionCorrection/FOVLost", "0"},
                         {"Global/GolbalFDCFlag", "2"}});
        const Result stR = Process(stInst, vIn, kW, kH, kTwoFaces);
        ASSERT_EQ(stR.iRet, LDC_OK);
        tagST_LDC_PARA *pstPara = stInst.Para();
        EXPECT_EQ(pstPara->iFDCMode, 2);
        const tagST_LDC_PLAN &stPlan = stR.stPlan;
        EXPECT_EQ(stPlan.ePath, LDC_PATH_FALLBACK);
        EXPECT_EQ(stPlan.eRefusal, LDC_REFUSAL_FOV);
        char acLine[64];
        snprintf(acLine, sizeof(acLine), "I/ZB5QU_QVLDC: FOV is lost %d%%\n", stPlan.iFovLost);
        EXPECT_TRUE(Contains(stR.sLog, acLine)) << stR.sLog;
        // The lens flag is still on: the lens area is stretched over the frame, uniformly, the
        // output's corners landing inside it and one axis spanning it whole.
        ASSERT_EQ(pstPara->iLDCEnable, 1);
        const int32_t *piA = pstPara->aiLDCArea;
        const float *pfM = stPlan.afMatrix;
        EXPECT_EQ(pfM[0], pfM[4]);
        // Slack between the mapped output and the area, left, top, right, bottom.
        const float afSlack[4] = {pfM[2] - piA[0], pfM[5] - piA[1], piA[2] + 1 - pfM[0] * kW - pfM[2],
                                  piA[3] + 1 - pfM[4] * kH - pfM[5]};
        for (float fSlack : afSlack) {
            EXPECT_GT(fSlack, -0.01f);
        }
        EXPECT_LT(fminf(afSlack[0] + afSlack[2], afSlack[1] + afSlack[3]), 0.1f);
        EXPECT_NE(0, memcmp(stR.vOut.data(), vIn.data(), kW * kH)) << "mode 2 remaps";
    }
}

TEST(Process, LineCheckChoosesTheGlobalCorrectionOnlyWithoutBendingLines)
{
    // No straight edge: the check returns 1, the global correction runs without face homography.
    {
        Instance stInst(Keys{{"Global/GolbalFDCFlag", "1"}});
        std::vector<uint8_t> vIn = RenderFrame(kW, kH);
        const Result stR = Process(stInst, vIn, kW, kH, kTwoFaces);
        ASSERT_EQ(stR.iRet, LDC_OK);
        tagST_LDC_PARA *pstPara = stInst.Para();
        EXPECT_EQ(pstPara->iFDCMode, 1);
        EXPECT_EQ(pstPara->iLDCEnable, 0);
        EXPECT_EQ(pstPara->iFDCEnable, 0);
        EXPECT_FALSE(Contains(stR.sLog, "ret of H is")) << "no face homography on the global path";
        EXPECT_EQ(stR.stPlan.ePath, LDC_PATH_GLOBAL);
        EXPECT_TRUE(stR.stPlan.bLineCheck);
        EXPECT_EQ(stR.stPlan.stLineCheck.iVerdict, 1);
        EXPECT_TRUE(Contains(stR.sLog, "I/ZB5QU_QVLDC: FOV is lost ")) << stR.sLog;
        EXPECT_NE(0, memcmp(stR.vOut.data(), vIn.data(), kW * kH));
    }
    // A long straight bar near the border bends under the global mapping: the check returns 0
    // and the face homography decides instead.
    {
        Instance stInst(Keys{{"Global/GolbalFDCFlag", "1"}});
        std::vector<uint8_t> vIn = RenderFrame(kW, kH, true);
        const Result stR = Process(stInst, vIn, kW, kH, kTwoFaces);
        ASSERT_EQ(stR.iRet, LDC_OK);
        EXPECT_EQ(stInst.Para()->iFDCMode, 0);
        EXPECT_TRUE(Contains(stR.sLog, "There are some lines becoming bended by using global FDC method! The bend value is "))
            << stR.sLog;
        EXPECT_TRUE(Contains(stR.sLog, "ret of H is")) << stR.sLog;
        // The plan names the line that bent: the bar, in frame pixels.
        const tagST_LINE_CHECK &stCheck = stR.stPlan.stLineCheck;
        EXPECT_EQ(stCheck.iVerdict, 0);
        ASSERT_GE(stCheck.iJudged, 1);
        ASSERT_LE(stCheck.iJudged, LDC_PLAN_MAX_LINES);
        const stLine &stBent = stR.stPlan.astLines[stCheck.iJudged - 1];
        EXPECT_NEAR(stBent.Pnt0.x, kW - kW / 8, 8);
        EXPECT_NEAR(stBent.Pnt1.x, kW - kW / 8, 8);
        EXPECT_GT(abs(stBent.Pnt1.y - stBent.Pnt0.y), kH / 2);
    }
}

TEST(Process, FaceValidationMultiFaceAndRestrictedArea)
{
    std::vector<uint8_t> vIn = RenderFrame(kW, kH);
    {
        // A face one pixel wide is logged and switches face correction off; the others still count.
        Instance stInst(Keys{});
        std::vector<ST_FACE_RECT> vFaces = {{100, 100, 100, 180}, {500, 170, 589, 279}};
        const Result stR = Process(stInst, vIn, kW, kH, vFaces);
        EXPECT_TRUE(Contains(stR.sLog, "E/ZB5QU_QVLDC: The coordinates of faces have error!\n"));
        EXPECT_EQ(stInst.Para()->iFaceNum, 1);
        EXPECT_EQ(stInst.Para()->iFDCEnable, 0);
        EXPECT_EQ(stR.stPlan.eRefusal, LDC_REFUSAL_BAD_FACE);
        EXPECT_EQ(0, memcmp(stR.vOut.data(), vIn.data(), (size_t)kW * kH * 3 / 2));
    }
    {
        // Twelve faces: all twelve logged, ten used.
        Instance stInst(Keys{{"Global/MultiFacesFDCFlag", "0"}});
        std::vector<ST_FACE_RECT> vFaces;
        for (int i = 0; i < 12; i++) {
            vFaces.push_back({10 + 50 * i, 20, 40 + 50 * i, 60});
        }
        const Result stR = Process(stInst, vIn, kW, kH, vFaces);
        EXPECT_TRUE(Contains(stR.sLog, "Face No. 12 Coord<left, top, right, bottom>: 560, 20, 590, 60\n"));
        EXPECT_EQ(stInst.Para()->iFaceNum, 10);
        EXPECT_EQ(stInst.Para()->iFDCEnable, 0) << "several faces with MultiFacesFDCFlag 0";
        EXPECT_EQ(stR.stPlan.eRefusal, LDC_REFUSAL_MULTI_FACES);
        EXPECT_EQ(stInst.Para()->aiFaceRect[9][0], 10 + 450 - 3);
    }
    {
        // Restricted area, ratio 0.5 of min(343, 235): R = 117 around (343, 235). A widened face
        // whose farthest edge lies exactly R away keeps the correction off; one pixel further turns it on.
        Instance stInst(Keys{{"Global/FDCAreaRestrictedFlag", "1"}, {"FaceDistortionCorrection/FOVLost", "100"}});
        ASSERT_EQ((int)stInst.Para()->afCameraMatrix[2], 343);
        // Width and height 80: widened by 10 on each side.
        std::vector<ST_FACE_RECT> vInside = {{343 - 107, 235 - 107, 343 - 107 + 79, 235 - 107 + 79}};
        EXPECT_EQ(Process(stInst, vIn, kW, kH, vInside).stPlan.eRefusal, LDC_REFUSAL_CENTRE);
        EXPECT_EQ(stInst.Para()->iFDCEnable, 0);
        std::vector<ST_FACE_RECT> vOutside = {{343 - 108, 235 - 107, 343 - 108 + 79, 235 - 107 + 79}};
        Process(stInst, vIn, kW, kH, vOutside);
        EXPECT_EQ(stInst.Para()->iFDCEnable, 1);
    }
}

// A hostile face count: 64 rectangles are logged, then one line for the rest, and the call
// returns at once. The array ends where an inaccessible page begins: reading a 65th faults.
TEST(Process, HostileFaceCountLogsAtMost64Rectangles)
{
    Instance stInst(Keys{{"Global/FDCFlag", "0"}});
    std::vector<uint8_t> vIn = RenderFrame(kW, kH);
    std::vector<uint8_t> vOut(vIn.size());
    const size_t uPage = (size_t)sysconf(_SC_PAGESIZE);
    uint8_t *pucMap = (uint8_t *)mmap(NULL, 2 * uPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pucMap, MAP_FAILED);
    ASSERT_EQ(0, mprotect(pucMap + uPage, uPage, PROT_NONE));
    ST_FACE_RECT *pstFaces = (ST_FACE_RECT *)(pucMap + uPage) - LDC_MAX_LOGGED_FACES;
    for (int32_t i = 0; i < LDC_MAX_LOGGED_FACES; i++) {
        pstFaces[i] = {100 + i, 100, 200 + i, 200};
    }
    const ST_LDC_FRAME_INFO stInfo = {kW, kH, 100, INT32_MAX, pstFaces};
    testing::internal::CaptureStderr();
    const auto tStart = std::chrono::steady_clock::now();
    const int32_t iRet = IQV_LDC_Process(stInst.pHandle, &stInfo, vIn.data(), vOut.data());
    const auto tElapsed = std::chrono::steady_clock::now() - tStart;
    const std::string sLog = testing::internal::GetCapturedStderr();
    munmap(pucMap, 2 * uPage);
    EXPECT_EQ(iRet, LDC_OK);
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(tElapsed).count(), 1000);
    size_t uFaceLines = 0;
    for (size_t u = sLog.find("Face No. "); u != std::string::npos; u = sLog.find("Face No. ", u + 1)) {
        uFaceLines++;
    }
    EXPECT_EQ(uFaceLines, 64u);
    EXPECT_TRUE(Contains(sLog, "Face No. 64 Coord<left, top, right, bottom>: 163, 100, 263, 200\n"
                               "I/ZB5QU_QVLDC: 2147483583 more faces are not logged.\n")) << sLog;
}

// A frame of an unknown size is copied and leaves the instance hollow; the next frame of the
// first size resets it with the instance's own picture type and gives the bytes it gave before.
TEST(Process, AfterAFailedResetFramesAreReadAsBefore)
{
    for (int ePicType = 0; ePicType <= 2; ePicType++) {
        Instance stInst(Keys{{"FaceDistortionCorrection/FOVLost", "100"}}, kW, kH, ePicType);
        std::vector<uint8_t> vIn = RenderFrame(kW, kH);
        std::vector<uint8_t> vOdd = RenderFrame(200, 100);
        const Result stBefore = Process(stInst, vIn, kW, kH, kOneFaceRight);
        const Result stOdd = Process(stInst, vOdd, 200, 100, {});
        ASSERT_EQ(stOdd.iRet, LDC_ERR_CONFIG);
        EXPECT_TRUE(Contains(stOdd.sLog, "E/ZB5QU_QVLDC: Parse config file in IQV_LDC_Reset is error!\n")) << stOdd.sLog;
        EXPECT_EQ(0, memcmp(stOdd.vOut.data(), vOdd.data(), 200 * 100 * 3 / 2));
        EXPECT_TRUE(GuardIntact(stOdd.vOut, 200 * 100 * 3 / 2, 0x5A));
        EXPECT_EQ(stInst.Para()->pucWorkBuf, nullptr);
        const Result stAfter = Process(stInst, vIn, kW, kH, kOneFaceRight);
        ASSERT_EQ(stAfter.iRet, LDC_OK);
        EXPECT_TRUE(stBefore.vOut == stAfter.vOut) << "picture type " << ePicType;
        EXPECT_EQ(stInst.Para()->ePicType, ePicType);
    }
}

TEST(Process, TransposedFrameIsServedWithoutReset)
{
    Instance stInst(Keys{{"FaceDistortionCorrection/FOVLost", "100"}});
    tagST_LDC_PARA *pstPara = stInst.Para();
    const int32_t aiArea[4] = {pstPara->aiLDCArea[0], pstPara->aiLDCArea[1], pstPara->aiLDCArea[2], pstPara->aiLDCArea[3]};
    const float fU0 = pstPara->afCameraMatrix[2];
    const float fV0 = pstPara->afCameraMatrix[5];
    uint8_t *pucBuf = pstPara->pucWorkBuf;

    // 480 x 640 on a 640 x 480 instance: transposed in place, no reset.
    std::vector<uint8_t> vTall = RenderFrame(kH, kW);
    std::vector<ST_FACE_RECT> vFace = {{300, 480, 399, 579}};
    const Result stR = Process(stInst, vTall, kH, kW, vFace);
    ASSERT_EQ(stR.iRet, LDC_OK);
    EXPECT_EQ(pstPara->iImgWidth, kH);
    EXPECT_EQ(pstPara->iImgHeight, kW);
    EXPECT_EQ(pstPara->afCameraMatrix[2], fV0);
    EXPECT_EQ(pstPara->afCameraMatrix[5], fU0);
    EXPECT_EQ(pstPara->aiLDCArea[0], aiArea[1]);
    EXPECT_EQ(pstPara->aiLDCArea[3], aiArea[2]);
    EXPECT_EQ(pstPara->pucWorkBuf, pucBuf) << "no reset";
}

// FDCMethod 1. A strength of 0 leaves the mesh at zero: the lens remap's bytes, as the homography
// gives with a full budget; no faces copy the frame as before. With strength the faces move, and
// a still scene whose detector jitters by a few pixels gives the same bytes frame after frame.
TEST(ProcessMesh, ZeroStrengthIsTheLensRemapNoFacesACopyAndAStillSceneHoldsStill)
{
    const Keys stMesh = {{"FaceDistortionCorrection/FDCMethod", "1"}, {"FaceDistortionCorrection/CorrectionDegree", "1"}};
    const size_t uBytes = (size_t)kW * kH * 3 / 2;
    for (int ePicType = 0; ePicType <= 2; ePicType += 2) {
        std::vector<uint8_t> vIn = RenderFrame(kW, kH);
        Instance stLens(Keys{{"FaceDistortionCorrection/FOVLost", "100"}}, kW, kH, ePicType);
        const Result stLensR = Process(stLens, vIn, kW, kH, kOneFaceRight);
        Instance stZero(Keys{{"FaceDistortionCorrection/FDCMethod", "1"}, {"FaceDistortionCorrection/CorrectionDegree", "0"}},
                        kW, kH, ePicType);
        const Result stZeroR = Process(stZero, vIn, kW, kH, kOneFaceRight);
        EXPECT_EQ(stZeroR.stPlan.ePath, LDC_PATH_MESH);
        EXPECT_EQ(0, memcmp(stZeroR.vOut.data(), stLensR.vOut.data(), uBytes)) << "type " << ePicType;

        Instance stInst(stMesh, kW, kH, ePicType);
        const Result stNone = Process(stInst, vIn, kW, kH, {});
        EXPECT_EQ(stNone.stPlan.ePath, LDC_PATH_COPY);
        EXPECT_EQ(0, memcmp(stNone.vOut.data(), vIn.data(), uBytes));
        const Result stFirst = Process(stInst, vIn, kW, kH, kOneFaceRight);
        ASSERT_EQ(stFirst.stPlan.ePath, LDC_PATH_MESH) << stFirst.sLog;
        EXPECT_EQ(stFirst.stPlan.iMeshStatus, LDC_MESH_OK);
        EXPECT_TRUE(Contains(stFirst.sLog, "I/ZB5QU_QVLDC: The face mesh corrects 1 faces")) << stFirst.sLog;
        EXPECT_NE(0, memcmp(stFirst.vOut.data(), stLensR.vOut.data(), uBytes)) << "the mesh moved nothing";
        EXPECT_TRUE(GuardIntact(stFirst.vOut, uBytes, 0x5A));
        for (int i = 1; i <= 4; i++) {
            const int iJ = (i & 1) ? 2 : -2;
            const ST_FACE_RECT stJittered = {480 + iJ, 180 - iJ, 579 + iJ, 299 + iJ};
            const Result stR = Process(stInst, vIn, kW, kH, {stJittered});
            ASSERT_EQ(0, memcmp(stR.vOut.data(), stFirst.vOut.data(), uBytes)) << "frame " << i << ", type " << ePicType;
        }
        // The other orientation drops the state and renders through a mesh of its own.
        std::vector<uint8_t> vTall = RenderFrame(kH, kW);
        const Result stTall = Process(stInst, vTall, kH, kW, {{300, 480, 419, 579}});
        EXPECT_EQ(stTall.stPlan.ePath, LDC_PATH_MESH);
        EXPECT_TRUE(GuardIntact(stTall.vOut, uBytes, 0x5A));
    }
}

// After a cut the mesh shown moves toward the new solution by at most the step bound a frame and
// settles within a few dozen frames; a face the detector loses fades out on the mesh path.
TEST(ProcessMesh, SceneCutMovesTheMeshInBoundedStepsAndSettles)
{
    Instance stInst(Keys{{"FaceDistortionCorrection/FDCMethod", "1"}, {"FaceDistortionCorrection/CorrectionDegree", "1"}});
    std::vector<uint8_t> vIn = RenderFrame(kW, kH);
    ASSERT_EQ(Process(stInst, vIn, kW, kH, kOneFaceRight).stPlan.ePath, LDC_PATH_MESH);
    const float fBound = FaceMeshStepBound(kW, kH);
    int iSettled = -1;
    for (int i = 0; i < 60 && iSettled < 0; i++) {
        const Result stR = Process(stInst, vIn, kW, kH, {{40, 170, 139, 289}});
        ASSERT_EQ(stR.stPlan.ePath, LDC_PATH_MESH) << "frame " << i;
        ASSERT_LE(stR.stPlan.fMeshStep, fBound * 1.0001f) << "frame " << i;
        iSettled = stR.stPlan.fMeshStep == 0.0f ? i : -1;
    }
    EXPECT_GT(iSettled, 2) << "a cut converged in one jump";
    EXPECT_GE(iSettled, 0) << "the mesh never settled";
    const Result stLost = Process(stInst, vIn, kW, kH, {});
    EXPECT_EQ(stLost.stPlan.ePath, LDC_PATH_MESH);
    EXPECT_EQ(stLost.stPlan.iMeshFaces, 1);
}

// A lens symmetric about the frame's middle, the frame and its faces mirrored left to right: the
// mesh is the mirror of the first one's and so is the output. Not to the byte: the solve's sums
// run in one fixed order, which the mirror reverses; a 2 x 2 block's right pixels sit one source
// pixel right of its left ones, which the mirror swaps; and chroma is the nearest sample, so a
// position on the rounding edge takes the neighbouring sample.
TEST(ProcessMesh, MirroredFrameAndFacesGiveTheMirroredOutput)
{
    const int iW = 256, iH = 128;
    const Keys stMesh = {{"FaceDistortionCorrection/FDCMethod", "1"}, {"FaceDistortionCorrection/CorrectionDegree", "1"}};
    Instance stA(stMesh, iW, iH), stB(stMesh, iW, iH);
    std::vector<uint8_t> vIn = RenderFrame(iW, iH);
    for (int i = 0; i < iW * iH / 2; i++) {   // smooth chroma: the usual ramp wraps around sharply
        vIn[(size_t)iW * iH + i] = (uint8_t)(128 + 40 * sin((i % iW) * 0.05) * cos((i / iW) * 0.09));
    }
    // Byte x of a chroma row: VU pairs swap places, each pair kept in its order.
    auto chromaMirror = [&](int x) { return iW - 2 - (x & ~1) + (x & 1); };
    auto mirror = [&](const uint8_t *pucFrom, uint8_t *pucTo) {
        for (int y = 0; y < iH; y++) {
            for (int x = 0; x < iW; x++) {
                pucTo[y * iW + x] = pucFrom[y * iW + iW - 1 - x];
                pucTo[iW * iH + (y >> 1) * iW + x] = pucFrom[iW * iH + (y >> 1) * iW + chromaMirror(x)];
            }
        }
    };
    std::vector<uint8_t> vMirror(vIn);
    mirror(vIn.data(), vMirror.data());
    const std::vector<ST_FACE_RECT> vFaces = {{190, 30, 239, 89}, {20, 60, 59, 109}};
    std::vector<ST_FACE_RECT> vMirrored;
    for (const ST_FACE_RECT &f : vFaces) {
        vMirrored.push_back({iW - 1 - f.iRight, f.iTop, iW - 1 - f.iLeft, f.iBottom});
    }
    const Result stR = Process(stA, vIn, iW, iH, vFaces);
    const Result stM = Process(stB, vMirror, iW, iH, vMirrored);
    ASSERT_EQ(stR.stPlan.ePath, LDC_PATH_MESH) << stR.sLog;
    ASSERT_EQ(stM.stPlan.ePath, LDC_PATH_MESH) << stM.sLog;
    const int32_t *piArea = stA.Para()->aiLDCArea;
    ASSERT_EQ(piArea[0] + piArea[2], iW - 1) << "the lens rectangle is not symmetric";
    const tagST_MESH_GRID &stGrid = stR.stPlan.stMeshGrid;
    float fAsymmetry = 0.0f, fLargest = 0.0f;
    for (int j = 0; j < stGrid.iRows; j++) {
        for (int i = 0; i < stGrid.iCols; i++) {
            const float *pfA = stR.stPlan.pfMesh + 2 * (j * stGrid.iCols + i);
            const float *pfB = stM.stPlan.pfMesh + 2 * (j * stGrid.iCols + stGrid.iCols - 1 - i);
            fAsymmetry = fmaxf(fAsymmetry, fmaxf(fabsf(pfA[0] + pfB[0]), fabsf(pfA[1] - pfB[1])));
            fLargest = fmaxf(fLargest, fmaxf(fabsf(pfA[0]), fabsf(pfA[1])));
        }
    }
    EXPECT_GT(fLargest, 1.0f) << "the faces did not move";
    EXPECT_LE(fAsymmetry, 0.1f * fLargest);
    std::vector<uint8_t> vBack(vIn.size());
    mirror(stM.vOut.data(), vBack.data());
    const uint8_t *pucOut = stR.vOut.data();
    for (int y = 0; y < iH; y++) {
        for (int x = 0; x < iW; x++) {
            ASSERT_LE(abs((int)vBack[y * iW + x] - (int)pucOut[y * iW + x]), 2) << "luma x " << x << ", y " << y;
        }
    }
    // The chroma pattern changes by at most 4 from one sample to the next.
    for (size_t i = (size_t)iW * iH; i < (size_t)iW * iH * 3 / 2; i++) {
        ASSERT_LE(abs((int)vBack[i] - (int)pucOut[i]), 4) << "chroma byte " << i % iW << ", row " << (i / iW) % iH;
    }
}

}  // namespace

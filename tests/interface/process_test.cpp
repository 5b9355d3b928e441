// End-to-end frames through IQV_LDC_Process: every path of the frame driver as golden digests of
// its output, its plan and decision fields, its messages, and what each frame must keep.
#include <gtest/gtest.h>

#include <math.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "interface/ldc_process.h"
#include "mesh/face_mesh.h"
#include "records/ldc_para.h"
#include "support/harness.h"
#include "support/temp_file.h"
#include "vkt_zb_ldc.h"

namespace {

const int kW = 640;
const int kH = 480;
const size_t kGuard = 64;   // bytes behind each caller buffer that must stay untouched

typedef std::map<std::string, std::string> Keys;

// The profiles of tests/configs/process_profiles.xml behind sections of these globals; keys
// override them, "Section/Key" style.
std::string WriteConfig(const Keys &stKeys)
{
    Keys stAll = {{"Global/GolbalFDCFlag", "0"}, {"Global/RestrictedAreaRatio", "0.5"},
                  {"FaceDistortionCorrection/CorrectionDegree", "0.3"}, {"FaceDistortionCorrection/FOVLost", "60"}};
    for (const auto &kv : stKeys) {
        stAll[kv.first] = kv.second;
    }
    std::map<std::string, std::string> stSections;
    for (const auto &kv : stAll) {
        const size_t uSlash = kv.first.find('/');
        const std::string sKey = kv.first.substr(uSlash + 1);
        stSections[kv.first.substr(0, uSlash)] += "<" + sKey + ">" + kv.second + "</" + sKey + ">";
    }
    std::stringstream stProfiles;
    stProfiles << std::ifstream(LDC_TEST_CONFIG_DIR "/process_profiles.xml").rdbuf();
    std::string sText = stProfiles.str();
    for (const auto &kv : stSections) {
        sText.insert(sText.find("<Config>") + 8, "<" + kv.first + ">" + kv.second + "</" + kv.first + ">");
    }
    return WriteTempFile("process_" + std::to_string(std::hash<std::string>()(sText)) + ".xml", sText);
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

// One frame into a fresh output with kGuard bytes behind it, or into pvOut when given.
Result Process(Instance &stInst, std::vector<uint8_t> &vIn, int iW, int iH, const std::vector<ST_FACE_RECT> &vFaces,
               std::vector<uint8_t> *pvOut = NULL)
{
    Result stResult;
    stResult.vOut.assign((size_t)iW * iH * 3 / 2 + kGuard, 0x5A);
    ST_LDC_FRAME_INFO stInfo = {iW, iH, 100, (int32_t)vFaces.size(), vFaces.empty() ? NULL : vFaces.data()};
    testing::internal::CaptureStderr();
    stResult.iRet = LdcProcessFrame(stInst.pHandle, &stInfo, vIn.data(), (pvOut ? *pvOut : stResult.vOut).data(),
                                    &stResult.stPlan);
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

bool Contains(const std::string &sLog, const std::string &sLine)
{
    return sLog.find(sLine) != std::string::npos;
}

const std::vector<ST_FACE_RECT> kOneFaceRight = {{480, 180, 579, 299}};
const std::vector<ST_FACE_RECT> kTwoFaces = {{40, 160, 129, 269}, {500, 170, 589, 279}};
const std::vector<ST_FACE_RECT> kTwelveFaces = {{10, 20, 40, 60},   {60, 20, 90, 60},   {110, 20, 140, 60},
                                                {160, 20, 190, 60}, {210, 20, 240, 60}, {260, 20, 290, 60},
                                                {310, 20, 340, 60}, {360, 20, 390, 60}, {410, 20, 440, 60},
                                                {460, 20, 490, 60}, {510, 20, 540, 60}, {560, 20, 590, 60}};

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

// Without face correction the output is a copy whatever the lens flag says (a row of the table
// below); the frame's lines come in order: entry, version, frame, faces, time, property, exit.
TEST(Process, LogsTheFrameInOrder)
{
    Instance stInst(Keys{{"Global/FDCFlag", "0"}});
    std::vector<uint8_t> vIn = RenderFrame(kW, kH);
    const Result stR = Process(stInst, vIn, kW, kH, kOneFaceRight);
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

// Every path of the driver on every layout: its plan, its message, and a 64-bit digest of the
// output frame. The bytes are defined identically on every target, so host, armhf and arm64 must
// all arrive at these. A budget of 100 % makes no fit (the lens remap alone), on even and odd
// frames and with a lens area collapsed to nothing (the input as it is); a budget of 0 is never
// met, so every round is fitted; the line check finds no line to bend in the plain frame, and
// the bar near the border bends. An odd last row and column are the input's.
TEST(Process, EveryPathGivesItsPlanAndTheSameBytesOnEveryTarget)
{
    const Keys kNoFaceCorrection = {{"Global/FDCFlag", "0"}, {"Global/LDCFlag", "1"}};
    const Keys kLens = {{"FaceDistortionCorrection/FOVLost", "100"}};
    const Keys kFace = {};
    const Keys kOneFace = {{"Global/MultiFacesFDCFlag", "0"}};
    const Keys kCentre = {{"Global/FDCAreaRestrictedFlag", "1"}, {"FaceDistortionCorrection/FOVLost", "100"}};
    const Keys kNoFit = {{"FaceDistortionCorrection/CorrectionDegree", "1.0"}, {"FaceDistortionCorrection/FOVLost", "0"}};
    Keys kFallback = kNoFit;
    kFallback["Global/GolbalFDCFlag"] = "2";
    const Keys kGlobal = {{"Global/GolbalFDCFlag", "1"}};
    const Keys kMesh = {{"FaceDistortionCorrection/FDCMethod", "1"}, {"FaceDistortionCorrection/CorrectionDegree", "1"}};
    const Keys kMeshZero = {{"FaceDistortionCorrection/FDCMethod", "1"}, {"FaceDistortionCorrection/CorrectionDegree", "0"}};
    const char *const pcLensLog = "I/ZB5QU_QVLDC: FOV is lost 100%, ret of H is 0\n";
    const char *const pcBent = "There are some lines becoming bended by using global FDC method! The bend value is ";
    const struct {
        const Keys *pstKeys;
        int iW, iH, ePicType;
        std::vector<ST_FACE_RECT> vFaces;
        bool bStraightEdge;
        int ePath, eRefusal;
        const char *pcLog;
        uint64_t uDigest;
    } astCases[] = {
        {&kNoFaceCorrection, kW, kH, 0, kOneFaceRight, false, LDC_PATH_COPY, LDC_REFUSAL_FLAG, "", 0x72d0f446c07702b6ull},
        {&kLens, kW, kH, 0, kOneFaceRight, false, LDC_PATH_LENS, LDC_REFUSAL_NONE, pcLensLog, 0xea39ecfd2adacd71ull},
        {&kLens, kW, kH, 1, kOneFaceRight, false, LDC_PATH_LENS, LDC_REFUSAL_NONE, pcLensLog, 0xea39ecfd2adacd71ull},
        {&kLens, kW, kH, 2, kOneFaceRight, false, LDC_PATH_LENS, LDC_REFUSAL_NONE, pcLensLog, 0x261b48c60f63d479ull},
        {&kLens, 35, 49, 0, {{24, 30, 33, 45}}, false, LDC_PATH_LENS, LDC_REFUSAL_NONE, pcLensLog, 0x33b274f9f4b1602bull},
        {&kLens, 35, 49, 2, {{24, 30, 33, 45}}, false, LDC_PATH_LENS, LDC_REFUSAL_NONE, pcLensLog, 0xe00f816693aecb13ull},
        {&kLens, 36, 36, 1, {{26, 4, 33, 13}}, false, LDC_PATH_LENS, LDC_REFUSAL_NONE, pcLensLog, 0xac6f2cbc7fd381c9ull},
        {&kFace, kW, kH, 0, kOneFaceRight, false, LDC_PATH_FACE, LDC_REFUSAL_NONE, ", ret of H is 0\n", 0x08bb0affd4d71710ull},
        {&kFace, kW, kH, 2, kOneFaceRight, false, LDC_PATH_FACE, LDC_REFUSAL_NONE, ", ret of H is 0\n", 0x28547db0f96ab250ull},
        {&kNoFit, kW, kH, 0, kTwoFaces, false, LDC_PATH_COPY, LDC_REFUSAL_FOV, "%, more than 10%, ret of H is 0!\n", 0x72d0f446c07702b6ull},
        // A face one pixel wide is logged and switches face correction off; several faces with
        // MultiFacesFDCFlag 0 do too.
        {&kFace, kW, kH, 0, {{100, 100, 100, 180}, {500, 170, 589, 279}}, false, LDC_PATH_COPY, LDC_REFUSAL_BAD_FACE,
         "E/ZB5QU_QVLDC: The coordinates of faces have error!\n", 0x72d0f446c07702b6ull},
        {&kOneFace, kW, kH, 0, kTwelveFaces, false, LDC_PATH_COPY, LDC_REFUSAL_MULTI_FACES, "", 0x72d0f446c07702b6ull},
        // Restricted area, ratio 0.5 of min(343, 235): R = 117 around (343, 235). A widened face (80
        // wide and high: 10 more on each side) whose farthest edge lies exactly R away keeps the
        // correction off; one pixel further turns it on.
        {&kCentre, kW, kH, 0, {{236, 128, 315, 207}}, false, LDC_PATH_COPY, LDC_REFUSAL_CENTRE, "", 0x72d0f446c07702b6ull},
        {&kCentre, kW, kH, 0, {{235, 128, 314, 207}}, false, LDC_PATH_LENS, LDC_REFUSAL_NONE, pcLensLog, 0xea39ecfd2adacd71ull},
        {&kFallback, kW, kH, 0, kTwoFaces, false, LDC_PATH_FALLBACK, LDC_REFUSAL_FOV, "I/ZB5QU_QVLDC: FOV is lost ", 0xea39ecfd2adacd71ull},
        {&kGlobal, kW, kH, 0, kTwoFaces, false, LDC_PATH_GLOBAL, LDC_REFUSAL_NONE, "I/ZB5QU_QVLDC: FOV is lost ", 0x0804079e05cf45f0ull},
        {&kGlobal, kW, kH, 2, kTwoFaces, false, LDC_PATH_GLOBAL, LDC_REFUSAL_NONE, "I/ZB5QU_QVLDC: FOV is lost ", 0x6d42216d44c5375cull},
        {&kGlobal, kW, kH, 1, kTwoFaces, true, LDC_PATH_FACE, LDC_REFUSAL_NONE, pcBent, 0xbbe6ec3b59c3f303ull},
        {&kMesh, kW, kH, 0, kOneFaceRight, false, LDC_PATH_MESH, LDC_REFUSAL_NONE, "The face mesh corrects 1 faces", 0x36ff8dc84f548ecbull},
        {&kMesh, kW, kH, 0, {}, false, LDC_PATH_COPY, LDC_REFUSAL_NO_FACE, "", 0x72d0f446c07702b6ull},
        // A strength of 0 leaves the mesh at zero: the lens remap's bytes, as in the rows above.
        {&kMeshZero, kW, kH, 0, kOneFaceRight, false, LDC_PATH_MESH, LDC_REFUSAL_NONE, "", 0xea39ecfd2adacd71ull},
        {&kMeshZero, kW, kH, 2, kOneFaceRight, false, LDC_PATH_MESH, LDC_REFUSAL_NONE, "", 0x261b48c60f63d479ull},
        {&kMesh, kW, kH, 2, kTwoFaces, false, LDC_PATH_MESH, LDC_REFUSAL_NONE, "The face mesh corrects 2 faces", 0xeeaf7c73c24041edull},
    };
    for (const auto &c : astCases) {
        Instance stInst(*c.pstKeys, c.iW, c.iH, c.ePicType);
        std::vector<uint8_t> vIn = RenderFrame(c.iW, c.iH, c.bStraightEdge);
        const size_t uBytes = (size_t)c.iW * c.iH * 3 / 2;
        // An earlier frame, its input and output of their exact size (AddressSanitizer sees a read
        // past them), leaves nothing behind that changes the next frame's bytes.
        std::vector<uint8_t> vEarlier(vIn.begin(), vIn.begin() + uBytes), vEarlierOut(uBytes);
        std::reverse(vEarlier.begin(), vEarlier.end());
        Process(stInst, vEarlier, c.iW, c.iH, c.vFaces, &vEarlierOut);
        const Result stR = Process(stInst, vIn, c.iW, c.iH, c.vFaces);
        char acCase[96];
        snprintf(acCase, sizeof(acCase), " in the row of %dx%d type %d path %d (digest 0x%016llxull)", c.iW, c.iH,
                 c.ePicType, c.ePath, (unsigned long long)ldc_test::Fnv1a(stR.vOut.data(), uBytes));
        ASSERT_EQ(stR.iRet, LDC_OK) << acCase;
        EXPECT_EQ(stR.stPlan.ePath, c.ePath) << acCase;
        EXPECT_EQ(stR.stPlan.eRefusal, c.eRefusal) << acCase;
        EXPECT_TRUE(Contains(stR.sLog, c.pcLog)) << c.pcLog << acCase << "\n" << stR.sLog;
        EXPECT_EQ(ldc_test::Fnv1a(stR.vOut.data(), uBytes), c.uDigest) << acCase;
        EXPECT_TRUE(GuardIntact(stR.vOut, uBytes, 0x5A) && GuardIntact(vIn, uBytes, 0xA5)) << acCase;
        if (c.eRefusal == LDC_REFUSAL_FOV || c.ePath == LDC_PATH_LENS) {
            EXPECT_EQ(stR.stPlan.iFitRounds, c.ePath == LDC_PATH_LENS ? 0 : 20) << acCase;
        }
        for (int y = 0; (c.iW & 1) && y < c.iH; y++) {
            ASSERT_EQ(stR.vOut[y * c.iW + c.iW - 1], vIn[y * c.iW + c.iW - 1]) << "last column, row " << y << acCase;
        }
        const size_t uLastRow = (size_t)(c.iH - 1) * c.iW;
        EXPECT_TRUE(c.iH % 2 == 0 || memcmp(&stR.vOut[uLastRow], &vIn[uLastRow], c.iW) == 0) << "last row" << acCase;
        const int32_t *piArea = stInst.Para()->aiLDCArea;
        EXPECT_EQ(piArea[0] > piArea[2] || c.ePath == LDC_PATH_COPY, memcmp(stR.vOut.data(), vIn.data(), uBytes) == 0)
            << "a copy" << acCase;
    }
}

// An accepted face homography widens the face by an eighth of its size on each side and draws it
// towards the frame centre: every corner of the widened face takes its pixel from closer to it.
TEST(Process, AcceptedFaceHomographyDrawsTheWidenedFaceTowardsTheCentre)
{
    Instance stInst(Keys{});
    std::vector<uint8_t> vIn = RenderFrame(kW, kH);
    const Result stR = Process(stInst, vIn, kW, kH, kOneFaceRight);
    ASSERT_EQ(stR.stPlan.ePath, LDC_PATH_FACE);
    const int32_t aiWidened[4] = {480 - 12, 180 - 15, 579 + 12, 299 + 15};
    EXPECT_EQ(0, memcmp(stInst.Para()->aiFaceRect[0], aiWidened, sizeof(aiWidened)));
    EXPECT_EQ(stR.stPlan.iFitStatus, 0);
    EXPECT_LE(stR.stPlan.iFovLost, 60);
    const float *pfM = stR.stPlan.afMatrix;
    for (int k = 0; k < 4; k++) {
        const float fX = (float)aiWidened[k & 1 ? 2 : 0], fY = (float)aiWidened[k & 2 ? 3 : 1];
        const float fW = pfM[6] * fX + pfM[7] * fY + pfM[8];
        const float fDx = (pfM[0] * fX + pfM[1] * fY + pfM[2]) / fW - kW / 2;
        const float fDy = (pfM[3] * fX + pfM[4] * fY + pfM[5]) / fW - kH / 2;
        EXPECT_LT(hypotf(fDx, fDy), hypotf(fX - kW / 2, fY - kH / 2)) << "corner " << k;
    }
}

// A long straight bar near the border bends under the global mapping: the plan names the line
// that bent, in frame pixels.
TEST(Process, LineCheckNamesTheBentLine)
{
    Instance stInst(Keys{{"Global/GolbalFDCFlag", "1"}});
    std::vector<uint8_t> vIn = RenderFrame(kW, kH, true);
    const Result stR = Process(stInst, vIn, kW, kH, kTwoFaces);
    const tagST_LINE_CHECK &stCheck = stR.stPlan.stLineCheck;
    EXPECT_TRUE(stR.stPlan.bLineCheck);
    EXPECT_EQ(stCheck.iVerdict, 0);
    ASSERT_GE(stCheck.iJudged, 1);
    ASSERT_LE(stCheck.iJudged, LDC_PLAN_MAX_LINES);
    const stLine &stBent = stR.stPlan.astLines[stCheck.iJudged - 1];
    EXPECT_NEAR(stBent.Pnt0.x, kW - kW / 8, 8);
    EXPECT_NEAR(stBent.Pnt1.x, kW - kW / 8, 8);
    EXPECT_GT(abs(stBent.Pnt1.y - stBent.Pnt0.y), kH / 2);
}

// Twelve faces are all logged and ten used, each widened by an eighth of its size.
TEST(Process, TwelveFacesAreLoggedAndTenUsed)
{
    Instance stInst(Keys{{"Global/MultiFacesFDCFlag", "0"}});
    std::vector<uint8_t> vIn = RenderFrame(kW, kH);
    const Result stR = Process(stInst, vIn, kW, kH, kTwelveFaces);
    EXPECT_TRUE(Contains(stR.sLog, "Face No. 12 Coord<left, top, right, bottom>: 560, 20, 590, 60\n"));
    EXPECT_EQ(stInst.Para()->iFaceNum, 10);
    EXPECT_EQ(stInst.Para()->aiFaceRect[9][0], 10 + 450 - 3);
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

// FDCMethod 1: the faces move, and a still scene whose detector jitters by a few pixels gives the
// same bytes frame after frame; the other orientation drops the state and renders through a mesh
// of its own.
TEST(ProcessMesh, AStillSceneHoldsStill)
{
    const size_t uBytes = (size_t)kW * kH * 3 / 2;
    for (int ePicType = 0; ePicType <= 2; ePicType += 2) {
        std::vector<uint8_t> vIn = RenderFrame(kW, kH);
        Instance stInst({{"FaceDistortionCorrection/FDCMethod", "1"}, {"FaceDistortionCorrection/CorrectionDegree", "1"}},
                        kW, kH, ePicType);
        const Result stFirst = Process(stInst, vIn, kW, kH, kOneFaceRight);
        ASSERT_EQ(stFirst.stPlan.iMeshStatus, LDC_MESH_OK) << stFirst.sLog;
        for (int i = 1; i <= 4; i++) {
            const int iJ = (i & 1) ? 2 : -2;
            const ST_FACE_RECT stJittered = {480 + iJ, 180 - iJ, 579 + iJ, 299 + iJ};
            const Result stR = Process(stInst, vIn, kW, kH, {stJittered});
            ASSERT_EQ(0, memcmp(stR.vOut.data(), stFirst.vOut.data(), uBytes)) << "frame " << i << ", type " << ePicType;
        }
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

// qvldc --calibrate: chessboards photographed through a known lens give that lens back, and the
// profile it writes makes the library straighten what the lens bent.
#ifdef LDC_HAVE_OPENCV

#include <gtest/gtest.h>

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "../../tools/qvldc/qvldc_calibrate.cpp"
#include "vkt_zb_ldc.h"

namespace {

const int32_t kW = 1280;
const int32_t kH = 960;
const tagST_QV_SIZE kBoard = {9, 6};
// A strong barrel lens (f = 0.76 at the frame corners), principal point on odd pixels and off
// the middle, so that it survives the library's rounding as it is.
const tagST_QV_LENS kLens = {1000.0, 643.0, 477.0, {-0.30, 0.10, -0.02}};

// The corrected (pinhole) pixel that a recorded pixel shows: the library's map from corrected to
// recorded positions inverted on the radius by Newton steps, tabulated in 1/16 pixel.
struct Lens {
    tagST_QV_LENS stLens;
    std::vector<double> vdScale;   // corrected radius / recorded radius

    explicit Lens(const tagST_QV_LENS &stL) : stLens(stL)
    {
        vdScale.resize((size_t)(hypot(kW, kH) * 16) + 2);
        double dR = 0.0;
        for (size_t i = 1; i < vdScale.size(); i++) {
            const double dRho = i / 16.0;
            for (int32_t k = 0; k < 8; k++) {
                const double dN = dR * dR / (stL.dFx * stL.dFx);
                const double dF = 1 + dN * (stL.adK[0] + dN * (stL.adK[1] + dN * stL.adK[2]));
                const double dSlope = 1 + dN * (3 * stL.adK[0] + dN * (5 * stL.adK[1] + dN * 7 * stL.adK[2]));
                dR -= (dR * dF - dRho) / dSlope;
            }
            vdScale[i] = dR / dRho;
        }
        vdScale[0] = vdScale[1];
    }
    cv::Point2d Corrected(double dX, double dY) const
    {
        const double dDx = dX - stLens.dU0;
        const double dDy = dY - stLens.dV0;
        const double dT = sqrt(dDx * dDx + dDy * dDy) * 16.0;
        const size_t uI = (size_t)dT;
        const double dS = vdScale[uI] + (vdScale[uI + 1] - vdScale[uI]) * (dT - uI);
        return cv::Point2d(stLens.dU0 + dDx * dS, stLens.dV0 + dDy * dS);
    }
};

// What the camera records of a scene of flat grey patches given at corrected pixel positions: a
// pixel whose four corners see one grey is that grey, one across an edge averages 8 x 8 samples.
template <class Scene>
cv::Mat Photograph(const Lens &stLens, const Scene &fnScene)
{
    const int32_t kSub = 8;
    cv::Mat stCorners(kH + 1, kW + 1, CV_64FC1);
    for (int32_t y = 0; y <= kH; y++) {
        for (int32_t x = 0; x <= kW; x++) {
            stCorners.at<double>(y, x) = fnScene(stLens.Corrected(x - 0.5, y - 0.5));
        }
    }
    cv::Mat stPhoto(kH, kW, CV_8UC1);
    for (int32_t y = 0; y < kH; y++) {
        for (int32_t x = 0; x < kW; x++) {
            const double dV = stCorners.at<double>(y, x);
            double dSum = dV * kSub * kSub;
            if (dV != stCorners.at<double>(y, x + 1) || dV != stCorners.at<double>(y + 1, x) ||
                dV != stCorners.at<double>(y + 1, x + 1)) {
                dSum = 0;
                for (int32_t k = 0; k < kSub * kSub; k++) {
                    dSum += fnScene(stLens.Corrected(x - 0.5 + (k % kSub + 0.5) / kSub, y - 0.5 + (k / kSub + 0.5) / kSub));
                }
            }
            stPhoto.at<uint8_t>(y, x) = (uint8_t)lround(dSum / (kSub * kSub));
        }
    }
    return stPhoto;
}

// A 10 x 7 square board with a white margin of one square, its middle at corrected pixel
// (dU, dV), dZ squares away, turned by the angles (degrees) about the camera's axes.
auto Board(double dU, double dV, double dZ, double dAx, double dAy, double dAz)
{
    cv::Matx33d stR;
    cv::Rodrigues(cv::Vec3d(dAx, dAy, dAz) * (CV_PI / 180), stR);
    const cv::Vec3d stMiddle((kBoard.iWidth - 1) / 2.0, (kBoard.iHeight - 1) / 2.0, 0);
    const cv::Vec3d stT = dZ * cv::Vec3d((dU - kLens.dU0) / kLens.dFx, (dV - kLens.dV0) / kLens.dFx, 1) - stR * stMiddle;
    // Board plane to normalised image: columns r1, r2, t.
    const cv::Matx33d stToBoard = cv::Matx33d(stR(0, 0), stR(0, 1), stT[0], stR(1, 0), stR(1, 1), stT[1], stR(2, 0),
                                              stR(2, 1), stT[2]).inv();
    return [stToBoard](cv::Point2d stP) {
        const cv::Vec3d stB = stToBoard * cv::Vec3d((stP.x - kLens.dU0) / kLens.dFx, (stP.y - kLens.dV0) / kLens.dFx, 1);
        const double dX = stB[0] / stB[2];
        const double dY = stB[1] / stB[2];
        if (dX < -2 || dY < -2 || dX >= kBoard.iWidth + 1 || dY >= kBoard.iHeight + 1) {
            return 90.0;
        }
        if (dX < -1 || dY < -1 || dX >= kBoard.iWidth || dY >= kBoard.iHeight) {
            return 220.0;
        }
        return (((int32_t)floor(dX) + (int32_t)floor(dY)) & 1) ? 220.0 : 30.0;
    };
}

// Dark lines 3 pixels wide on a light ground, every 96 corrected pixels across and down.
double Lines(cv::Point2d stP)
{
    const double dDx = fabs(fmod(stP.x - 11 + 960000, 96.0) - 48.0);
    const double dDy = fabs(fmod(stP.y - 37 + 960000, 96.0) - 48.0);
    return (dDx > 46.5 || dDy > 46.5) ? 30.0 : 220.0;
}

// Mean absolute difference from the pinhole photograph of the same scene, away from the border
// (where the remap has no source).
double Error(const cv::Mat &stLuma, const cv::Mat &stPinhole)
{
    const cv::Rect stInner(64, 64, kW - 128, kH - 128);
    return cv::mean(cv::abs(stLuma(stInner) - stPinhole(stInner)))[0];
}

// The library's lens remap of an NV21 frame with the profile: one face and no field-of-view
// budget take the frame along the lens path with an identity face warp.
cv::Mat CorrectWithProfile(const std::string &strBlock, const cv::Mat &stLuma)
{
    char acPath[LDC_CFG_PATH_LEN] = "/tmp/qvldc_calibrate_test_XXXXXX";
    const int iFd = mkstemp(acPath);
    const std::string strConfig =
        "<?xml version=\"1.0\"?>\n<Config><Global><GolbalFDCFlag>0</GolbalFDCFlag></Global>"
        "<FaceDistortionCorrection><FOVLost>100</FOVLost></FaceDistortionCorrection>\n" + strBlock + "</Config>\n";
    EXPECT_EQ((ssize_t)strConfig.size(), write(iFd, strConfig.data(), strConfig.size()));
    close(iFd);
    std::vector<uint8_t> vucIn((size_t)kW * kH * 3 / 2, 128);
    memcpy(vucIn.data(), stLuma.data, (size_t)kW * kH);
    std::vector<uint8_t> vucOut(vucIn.size(), 0);
    ST_LDC_INPUT_PARA stInput = {kW, kH, acPath, LDC_PIC_NV21};
    void *pHandle = NULL;
    const ST_FACE_RECT stFace = {600, 400, 700, 520};
    ST_LDC_FRAME_INFO stInfo = {kW, kH, 100, 1, &stFace};
    testing::internal::CaptureStderr();
    EXPECT_EQ(LDC_OK, IQV_LDC_Create(&pHandle, &stInput));
    EXPECT_EQ(LDC_OK, IQV_LDC_Process(pHandle, &stInfo, vucIn.data(), vucOut.data()));
    EXPECT_EQ(1, ((tagST_LDC_PARA *)pHandle)->iLDCEnable);
    IQV_LDC_Delete(pHandle);
    testing::internal::GetCapturedStderr();
    unlink(acPath);
    return cv::Mat(kH, kW, CV_8UC1, vucOut.data()).clone();
}

struct TempDir {
    std::string strPath;
    TempDir()
    {
        char acPath[] = "/tmp/qvldc_calibrate_XXXXXX";
        strPath = mkdtemp(acPath);
    }
    ~TempDir() { EXPECT_EQ(0, system(("rm -rf '" + strPath + "'").c_str())); }
    void Save(const std::string &strName, const cv::Mat &stImg) const
    {
        ASSERT_TRUE(cv::imwrite(strPath + "/" + strName, stImg));
    }
};

int RunTool(const std::vector<std::string> &vstrArgs, std::string *pstrErr)
{
    std::vector<const char *> vpcArgs = {"qvldc"};
    for (const std::string &strArg : vstrArgs) {
        vpcArgs.push_back(strArg.c_str());
    }
    tagST_QV_OPTIONS stOpt;
    std::string strError;
    EXPECT_TRUE(ParseOptions((int)vpcArgs.size(), vpcArgs.data(), &stOpt, &strError)) << strError;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int iRet = RunCalibrate(stOpt);
    *pstrErr = testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
    return iRet;
}

TEST(QvldcCalibrate, RecoversTheLensAndStraightensItsLines)
{
    const Lens stLens(kLens);
    // Boards in the middle, at the borders and in the corners, turned up to 35 degrees.
    const double aadPose[][6] = {{640, 480, 17, 0, 0, 0},     {330, 300, 24, 20, -30, 5},  {960, 300, 24, 20, 30, -5},
                                 {330, 680, 24, -20, -30, 0}, {960, 680, 24, -25, 30, 8},  {640, 250, 22, 35, 0, 0},
                                 {640, 720, 22, -35, 0, 3},   {250, 480, 22, 0, -35, 90},  {1040, 480, 22, 5, 35, -90},
                                 {160, 140, 30, 10, -10, 0},  {1120, 820, 30, -10, 10, 0}, {1120, 140, 30, 10, 10, 0}};
    TempDir stDir;
    char acName[32];
    for (size_t i = 0; i < sizeof(aadPose) / sizeof(aadPose[0]); i++) {
        const double *pd = aadPose[i];
        snprintf(acName, sizeof(acName), "board%02zu.png", i);
        stDir.Save(acName, Photograph(stLens, Board(pd[0], pd[1], pd[2], pd[3], pd[4], pd[5])));
    }
    // Photos the calibration must set aside: another lens, another size, no board, not a photo.
    const Lens stOther({1000.0, 643.0, 477.0, {0.0, 0.0, 0.0}});   // a pinhole
    stDir.Save("other_lens.png", Photograph(stOther, Board(420, 330, 22, 15, -20, 0)));
    stDir.Save("small.png", cv::Mat(480, 640, CV_8UC1, cv::Scalar(128)));
    stDir.Save("blank.png", cv::Mat(kH, kW, CV_8UC1, cv::Scalar(128)));
    ASSERT_EQ(0, system(("echo notes > '" + stDir.strPath + "/README.txt'").c_str()));

    tagST_QV_CALIBRATION stCalib;
    std::string strError;
    ASSERT_TRUE(CalibrateDirectory(stDir.strPath, {kW, kH}, kBoard, 25.0, &stCalib, &strError)) << strError;
    std::map<std::string, std::string> stRejected;
    for (const tagST_QV_CALIB_VIEW &stView : stCalib.vstViews) {
        if (!stView.bUsed) {
            stRejected[stView.strName] = stView.strReason;
        }
    }
    EXPECT_EQ(3u, stRejected.size());
    EXPECT_EQ("no 9x6 board found", stRejected["blank.png"]);
    EXPECT_EQ("640x480, not 1280x960", stRejected["small.png"]);
    EXPECT_EQ(0u, stRejected["other_lens.png"].find("reprojection error")) << stRejected["other_lens.png"];

    const tagST_QV_LENS &stFit = stCalib.stLens;
    EXPECT_NEAR(kLens.adK[0], stFit.adK[0], 0.02 * fabs(kLens.adK[0]));
    EXPECT_EQ(kLens.dU0, stFit.dU0);
    EXPECT_EQ(kLens.dV0, stFit.dV0);
    EXPECT_NEAR(kLens.dU0, stCalib.dFreeU0, 1.0);
    EXPECT_NEAR(kLens.dV0, stCalib.dFreeV0, 1.0);
    EXPECT_LT(stCalib.dRms, 0.2);

    // A scene through the lens, corrected by the library with the written profile, comes out as
    // a pinhole camera takes it.
    const cv::Mat stRecorded = Photograph(stLens, Lines);
    const cv::Mat stPinhole = Photograph(stOther, Lines);
    const double dBefore = Error(stRecorded, stPinhole);
    const double dAfter = Error(CorrectWithProfile(FormatProfileBlock(stCalib), stRecorded), stPinhole);
    // The true lens leaves 2.8 (the remap's interpolation); k1 off by 3 % gives 5.2.
    EXPECT_GT(dBefore, 15.0);
    EXPECT_LT(dAfter, 3.5);
}

TEST(QvldcCalibrate, RefusesInOneLineWhatCannotBeCalibrated)
{
    TempDir stDir;
    const std::vector<std::string> vstrArgs = {"--size", "1280x960", "--board", "9x6"};
    auto expectRefusal = [&](const std::string &strDir, const char *pcWhat) {
        std::vector<std::string> vstrCall = {"--calibrate", strDir};
        vstrCall.insert(vstrCall.end(), vstrArgs.begin(), vstrArgs.end());
        std::string strErr;
        EXPECT_NE(0, RunTool(vstrCall, &strErr));
        EXPECT_EQ(0u, strErr.find("qvldc: ")) << strErr;
        EXPECT_NE(std::string::npos, strErr.find(pcWhat)) << strErr;
        EXPECT_EQ(strErr.size() - 1, strErr.find('\n')) << strErr;
    };
    expectRefusal(stDir.strPath + "/missing", "cannot open the directory");
    ASSERT_EQ(0, system(("echo notes > '" + stDir.strPath + "/README.txt'").c_str()));
    expectRefusal(stDir.strPath, "no photos");
    const Lens stLens(kLens);
    stDir.Save("a.png", Photograph(stLens, Board(640, 480, 17, 0, 0, 0)));
    stDir.Save("b.png", Photograph(stLens, Board(600, 450, 20, 20, 10, 0)));
    expectRefusal(stDir.strPath, "only 2 of 2 photos");
}

}  // namespace

#endif  // LDC_HAVE_OPENCV

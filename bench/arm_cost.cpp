// ARM cost driver: one 4000 x 3000 NV21 frame through the remap kernel, the warp kernel,
// IQV_LDC_Process on the face path, on the lens-only path and with the face mesh (FDCMethod 1: a
// first frame, solved cold; the same frame again, only rendered; the face moved, solved from the
// last mesh), and OpenCV's remap and
// warpPerspective (one thread), each call inside its own region of the instruction-counting QEMU
// plugin (bench/arm_cost.sh builds and runs this under qemu-arm / qemu-aarch64).
//
// Usage: arm_cost WORKDIR. The configurations, the library's log of each call and a copy of
// /proc/self/maps (load addresses for the profile) are written to WORKDIR. On stdout:
//   region ID PIXELS NAME        one line per measured call (NAME without blanks)
//   info TEXT                    what was measured
// The counts themselves come from the plugin's report. Exits non-zero when a path is not the one
// it is meant to measure.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include "geometry/distortion_correct.h"
#include "geometry/lens_model.h"
#include "records/ldc_para.h"
#include "vkt_zb_ldc.h"
#include "warp/affine_transform.h"

namespace {

constexpr int kW = 4000;
constexpr int kH = 3000;
constexpr long kPixels = (long)kW * kH;
const ST_FACE_RECT kFace = {3000, 900, 3479, 1379};

// Region ids, as bench/arm_cost.sh names them.
enum eRegion {
    REGION_REMAP = 1,
    REGION_WARP = 2,
    REGION_FACE = 3,
    REGION_LENS = 4,
    REGION_CV_REMAP = 5,
    REGION_CV_WARP = 6,
    REGION_MESH_FIRST = 7,
    REGION_MESH_STILL = 8,
    REGION_MESH_MOVED = 9,
};

// The plugin's markers: getppid ignores its arguments, so without the plugin nothing happens.
constexpr long kArmCostMagic = 0x41524d43;
void OpenRegion(int iId)
{
    syscall(SYS_getppid, kArmCostMagic, 1, iId);
}
void CloseRegion(int iId)
{
    syscall(SYS_getppid, kArmCostMagic, 2, iId);
}

// An NV21 frame, its planes both as the descriptor the kernels take and as a pointer array
// (Y, interleaved chroma, chroma).
struct Frame {
    std::vector<uint8_t> vucBytes;
    tagST_PIC stPic{};
    uint8_t *apucPlanes[3];

    Frame() : vucBytes((size_t)kPixels * 3 / 2)
    {
        uint8_t *pucBase = vucBytes.data();
        // Both semi-planar types hand the kernels the start of the interleaved plane in pU.
        stPic = {kW, kH, 0, pucBase, pucBase + kPixels, pucBase + kPixels};
        apucPlanes[0] = stPic.pY;
        apucPlanes[1] = stPic.pU;
        apucPlanes[2] = stPic.pV;
    }
    Frame(const Frame &) = delete;
    Frame &operator=(const Frame &) = delete;
    uint8_t *Data() { return vucBytes.data(); }
    cv::Mat Luma() { return cv::Mat(kH, kW, CV_8UC1, apucPlanes[0]); }
    cv::Mat Chroma() { return cv::Mat(kH / 2, kW / 2, CV_8UC2, apucPlanes[1]); }
};

[[noreturn]] void Fail(const std::string &sWhy)
{
    fprintf(stderr, "arm_cost: %s\n", sWhy.c_str());
    exit(1);
}

std::string ReadFile(const std::string &sPath)
{
    std::string sText;
    FILE *pFile = fopen(sPath.c_str(), "rb");
    if (pFile == NULL) {
        Fail("cannot read " + sPath);
    }
    char acBuf[4096];
    size_t uN;
    while ((uN = fread(acBuf, 1, sizeof(acBuf), pFile)) > 0) {
        sText.append(acBuf, uN);
    }
    fclose(pFile);
    return sText;
}

void WriteFile(const std::string &sPath, const std::string &sText)
{
    FILE *pFile = fopen(sPath.c_str(), "wb");
    if (pFile == NULL || fwrite(sText.data(), 1, sText.size(), pFile) != sText.size() || fclose(pFile) != 0) {
        Fail("cannot write " + sPath);
    }
}

// The library logs on stderr and its workers warn on stdout; both go to a file per call, which
// is then read back for the decision lines.
class Capture {
public:
    explicit Capture(const std::string &sPath) : m_sPath(sPath)
    {
        fflush(stdout);
        fflush(stderr);
        m_iOut = dup(1);
        m_iErr = dup(2);
        const int iFd = open(sPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(iFd, 1);
        dup2(iFd, 2);
        close(iFd);
    }
    std::string Finish()
    {
        fflush(stdout);
        fflush(stderr);
        dup2(m_iOut, 1);
        dup2(m_iErr, 2);
        close(m_iOut);
        close(m_iErr);
        return ReadFile(m_sPath);
    }

private:
    std::string m_sPath;
    int m_iOut = -1;
    int m_iErr = -1;
};

// The sample configuration's 4000 x 3000 profile with one face corrected at degree 0.3 under
// the given field-of-view budget (100: no face fit, the warp matrix stays the identity), by the
// given method.
std::string WriteConfig(const std::string &sDir, const char *pcName, int iFovLost, int iMethod = LDC_FDC_HOMOGRAPHY)
{
    const std::string sText =
        "<?xml version=\"1.0\"?>\n<Config><Global><GolbalFDCFlag>0</GolbalFDCFlag><FDCAreaRestrictedFlag>0"
        "</FDCAreaRestrictedFlag></Global><FaceDistortionCorrection><CorrectionDegree>0.3</CorrectionDegree>"
        "<FOVLost>" + std::to_string(iFovLost) + "</FOVLost><FDCMethod>" + std::to_string(iMethod) +
        "</FDCMethod></FaceDistortionCorrection>"
        "<DistortionCorrection1><ImageWidth>4000</ImageWidth><ImageHeight>3000</ImageHeight>"
        "<CameraMatrix>3349.47331 0 2139.26969 0 3349.47331 1472.31769 0 0 1</CameraMatrix>"
        "<DistortionCoefficients>-0.26637261 -0.038588899 0.23839153 0.0017831947 -0.000281221"
        "</DistortionCoefficients><GlobalFDCCoefficients>6.4e-9 2.56e-16 0 0.000298554</GlobalFDCCoefficients>"
        "</DistortionCorrection1></Config>\n";
    const std::string sPath = sDir + "/" + pcName;
    WriteFile(sPath, sText);
    return sPath;
}

void *CreateInstance(const std::string &sConfig)
{
    char acPath[LDC_CFG_PATH_LEN] = {0};
    snprintf(acPath, sizeof(acPath), "%s", sConfig.c_str());
    ST_LDC_INPUT_PARA stInput = {kW, kH, acPath, LDC_PIC_NV21};
    void *pHandle = NULL;
    if (IQV_LDC_Create(&pHandle, &stInput) != LDC_OK) {
        Fail("cannot create an instance from " + sConfig);
    }
    return pHandle;
}

// One measured IQV_LDC_Process call; returns the library's log of it.
std::string MeasureProcess(int iRegion, void *pHandle, Frame *pstIn, Frame *pstOut, const std::string &sLog,
                           const ST_FACE_RECT *pstFace = &kFace)
{
    ST_LDC_FRAME_INFO stInfo = {kW, kH, 100, 1, pstFace};
    Capture stCapture(sLog);
    OpenRegion(iRegion);
    const int32_t iRet = IQV_LDC_Process(pHandle, &stInfo, pstIn->Data(), pstOut->Data());
    CloseRegion(iRegion);
    const std::string sText = stCapture.Finish();
    if (iRet != LDC_OK) {
        Fail("IQV_LDC_Process returned " + std::to_string(iRet));
    }
    return sText;
}

// The loss and fit result of the driver's "FOV is lost N%, ret of H is R" line; -1 without one.
int FovLossOf(const std::string &sLog, int *piRet)
{
    const size_t uAt = sLog.find("I/ZB5QU_QVLDC: FOV is lost ");
    int iLoss = -1;
    *piRet = -1;
    if (uAt != std::string::npos &&
        sscanf(sLog.c_str() + uAt, "I/ZB5QU_QVLDC: FOV is lost %d%%, ret of H is %d", &iLoss, piRet) != 2) {
        iLoss = -1;
    }
    return iLoss;
}

// The face homography the warp benchmark uses (tests/warp/affine_transform_cases.h): fitted to
// the face (3000, 900, 3479, 1379) at degree 0.3, exact near the face, mapping the output corner
// (0, 0) to about (-355, -279) and (0, 2999) to (-650, 3476).
void FaceHomography(float afM[9])
{
    const double adH[9] = {1.35701869174,   -0.0766474607837, -354.951162902, 0.130572965011, 1.13528844677,
                           -278.982320943, 8.68916641209e-05, -3.3557684716e-05, 1};
    for (int i = 0; i < 9; i++) {
        afM[i] = (float)adH[i];
    }
}

// OpenCV's fixed-point maps of the instance's lens model over the whole frame: bilinear luma
// (CV_16SC2 + interpolation table), nearest interleaved chroma at half scale (CV_16SC2).
struct LensMaps {
    cv::Mat mLumaXY, mLumaA, mChromaXY, mChromaA;
};

LensMaps BuildLensMaps(const tagST_LDC_PARA *pstPara)
{
    tagST_RADIAL_MODEL stModel;
    GetRadialModel(pstPara, 1, &stModel);
    cv::Mat mX(kH, kW, CV_32F), mY(kH, kW, CV_32F), mCx(kH / 2, kW / 2, CV_32F), mCy(kH / 2, kW / 2, CV_32F);
    for (int y = 0; y < kH; y++) {
        float *pfX = mX.ptr<float>(y);
        float *pfY = mY.ptr<float>(y);
        for (int x = 0; x < kW; x++) {
            const float fDx = (float)x - stModel.fCx;
            const float fDy = (float)y - stModel.fCy;
            const float fF = RadialFactorSerial(&stModel, fDx * fDx + fDy * fDy);
            pfX[x] = stModel.fCx + fF * fDx;
            pfY[x] = stModel.fCy + fF * fDy;
            if (((x | y) & 1) == 0) {
                mCx.at<float>(y / 2, x / 2) = pfX[x] * 0.5f;
                mCy.at<float>(y / 2, x / 2) = pfY[x] * 0.5f;
            }
        }
    }
    LensMaps stMaps;
    cv::convertMaps(mX, mY, stMaps.mLumaXY, stMaps.mLumaA, CV_16SC2);
    cv::convertMaps(mCx, mCy, stMaps.mChromaXY, stMaps.mChromaA, CV_16SC2, true);
    return stMaps;
}

// The line of OpenCV's build information that names the SIMD baseline (NEON or none).
std::string OpenCvBaseline()
{
    const std::string sInfo = cv::getBuildInformation();
    const size_t uAt = sInfo.find("Baseline:");
    if (uAt == std::string::npos) {
        return "unknown";
    }
    std::string sLine = sInfo.substr(uAt + 9, sInfo.find('\n', uAt) - uAt - 9);
    sLine.erase(0, sLine.find_first_not_of(' '));
    return sLine.empty() ? "none" : sLine;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s WORKDIR\n", argv[0]);
        return 2;
    }
    const std::string sDir = argv[1];
    // Load addresses of the executable and its libraries, for the profile.
    WriteFile(sDir + "/maps.txt", ReadFile("/proc/self/maps"));

    Frame stIn, stFace, stLens, stRemap, stWarp, stCvInter, stCvOut;
    uint32_t u = 0xB0Bu;
    for (uint8_t &b : stIn.vucBytes) {
        u = u * 1664525u + 1013904223u;
        b = (uint8_t)(u >> 24);
    }
    void *pFaceHandle = CreateInstance(WriteConfig(sDir, "face.xml", 60));
    void *pLensHandle = CreateInstance(WriteConfig(sDir, "lens.xml", 100));
    tagST_LDC_PARA *pstFacePara = (tagST_LDC_PARA *)pFaceHandle;
    tagST_LDC_PARA *pstLensPara = (tagST_LDC_PARA *)pLensHandle;

    // The face path: the face homography fitted within the budget and accepted.
    int iRet;
    const std::string sFaceLog = MeasureProcess(REGION_FACE, pFaceHandle, &stIn, &stFace, sDir + "/face.log");
    const int iFaceLoss = FovLossOf(sFaceLog, &iRet);
    if (iFaceLoss < 0 || iFaceLoss >= 100 || pstFacePara->iLDCEnable != 1 || pstFacePara->iFDCEnable != 1) {
        Fail("the face path was not taken (see " + sDir + "/face.log)");
    }
    printf("info face path: face (%d, %d, %d, %d), degree 0.3, FOVLost 60: FOV is lost %d%%, ret of H is %d\n",
           kFace.iLeft, kFace.iTop, kFace.iRight, kFace.iBottom, iFaceLoss, iRet);

    // The lens-only path: budget 100, no fit, the identity matrix: the remap writes the output.
    const std::string sLensLog = MeasureProcess(REGION_LENS, pLensHandle, &stIn, &stLens, sDir + "/lens.log");
    if (FovLossOf(sLensLog, &iRet) != 100 || pstLensPara->iLDCEnable != 1) {
        Fail("the lens-only path was not taken (see " + sDir + "/lens.log)");
    }
    printf("info lens-only path: FOVLost 100, no face fit, identity matrix (one pass)\n");

    // The face mesh: a first frame (a photo: solved from nothing), the same frame again (a still
    // preview: the mesh is kept, only rendered), then the face 64 pixels to the right (solved
    // from the last frame's mesh).
    void *pMeshHandle = CreateInstance(WriteConfig(sDir, "mesh.xml", 60, LDC_FDC_MESH));
    Frame stMesh;
    const ST_FACE_RECT stMoved = {kFace.iLeft + 64, kFace.iTop, kFace.iRight + 64, kFace.iBottom};
    const std::string sMeshLog = MeasureProcess(REGION_MESH_FIRST, pMeshHandle, &stIn, &stMesh, sDir + "/mesh_first.log");
    MeasureProcess(REGION_MESH_STILL, pMeshHandle, &stIn, &stMesh, sDir + "/mesh_still.log");
    const std::string sMovedLog =
        MeasureProcess(REGION_MESH_MOVED, pMeshHandle, &stIn, &stMesh, sDir + "/mesh_moved.log", &stMoved);
    const char *pcMeshLine = "I/ZB5QU_QVLDC: The face mesh corrects 1 faces";
    if (sMeshLog.find(pcMeshLine) == std::string::npos || sMovedLog.find(pcMeshLine) == std::string::npos) {
        Fail("the face mesh path was not taken (see " + sDir + "/mesh_first.log, mesh_moved.log)");
    }
    printf("info face mesh: FDCMethod 1, degree 0.3: a first frame, the same frame again, the face moved by 64 px\n");

    // The remap kernel alone, with the lens-only instance (its model, rectangle and working
    // buffer), into a copy of the input as the driver frames the rectangle: the lens-only output
    // must be exactly this frame.
    const int32_t *piArea = pstLensPara->aiLDCArea;
    memcpy(stRemap.Data(), stIn.Data(), stIn.vucBytes.size());
    {
        Capture stCapture(sDir + "/remap.log");
        OpenRegion(REGION_REMAP);
        DistortionCorrect_neon(0, pstLensPara, stIn.apucPlanes, stRemap.apucPlanes);
        CloseRegion(REGION_REMAP);
        stCapture.Finish();
    }
    if (stRemap.vucBytes != stLens.vucBytes) {
        Fail("the lens-only output is not the remap of the input");
    }
    if (stFace.vucBytes == stLens.vucBytes) {
        Fail("the face path gave the lens-only output");
    }
    printf("info remap kernel: DistortionCorrect_neon, lens rectangle (%d, %d, %d, %d) of the frame\n", piArea[0],
           piArea[1], piArea[2], piArea[3]);

    // The warp kernel alone through the face homography over the whole frame.
    float afFace[9];
    FaceHomography(afFace);
    tagST_REGISTRATION_AREA stArea = {0, 0, kW, kH};
    std::vector<uint8_t> vucScratch(RESAMPLE_QUAD_BYTES * ((kW + 7) / 8));
    {
        tagST_PIC stFrame = stWarp.stPic;
        Capture stCapture(sDir + "/warp.log");
        OpenRegion(REGION_WARP);
        AffineTransform_neon(pstLensPara, &stFrame, &stIn.stPic, &stWarp.stPic, afFace, &stArea, vucScratch.data());
        CloseRegion(REGION_WARP);
        stCapture.Finish();
    }
    printf("info warp kernel: AffineTransform_neon, whole frame, face homography {%.6g %.6g %.6g; %.6g %.6g %.6g; "
           "%.6g %.6g %.6g}\n",
           afFace[0], afFace[1], afFace[2], afFace[3], afFace[4], afFace[5], afFace[6], afFace[7], afFace[8]);

    // OpenCV on one thread: the lens remap of the whole frame, then warpPerspective of its result
    // through the same face homography (chroma at half scale: diag(1/2, 1/2, 1) H diag(2, 2, 1)).
    cv::setNumThreads(0);
    const LensMaps stMaps = BuildLensMaps(pstLensPara);
    const cv::Matx33f mH(afFace);
    const cv::Matx33f mHalf(0.5f, 0, 0, 0, 0.5f, 0, 0, 0, 1), mTwice(2, 0, 0, 0, 2, 0, 0, 0, 1);
    const cv::Matx33f mHc = mHalf * mH * mTwice;
    cv::Mat mInY = stIn.Luma(), mInC = stIn.Chroma();
    cv::Mat mInterY = stCvInter.Luma(), mInterC = stCvInter.Chroma();
    cv::Mat mOutY = stCvOut.Luma(), mOutC = stCvOut.Chroma();
    OpenRegion(REGION_CV_REMAP);
    cv::remap(mInY, mInterY, stMaps.mLumaXY, stMaps.mLumaA, cv::INTER_LINEAR);
    cv::remap(mInC, mInterC, stMaps.mChromaXY, cv::noArray(), cv::INTER_NEAREST);
    CloseRegion(REGION_CV_REMAP);
    OpenRegion(REGION_CV_WARP);
    cv::warpPerspective(mInterY, mOutY, cv::Mat(mH), mOutY.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP);
    cv::warpPerspective(mInterC, mOutC, cv::Mat(mHc), mOutC.size(), cv::INTER_NEAREST | cv::WARP_INVERSE_MAP);
    CloseRegion(REGION_CV_WARP);
    printf("info OpenCV %s, SIMD baseline: %s, setNumThreads(0); remap: CV_16SC2 maps of the lens model over the "
           "whole frame (linear luma, nearest chroma pairs); warpPerspective: the warp kernel's homography\n",
           cv::getVersionString().c_str(), OpenCvBaseline().c_str());

    printf("region %d %ld remap_kernel\n", REGION_REMAP, kPixels);
    printf("region %d %ld warp_kernel\n", REGION_WARP, kPixels);
    printf("region %d %ld process_face\n", REGION_FACE, kPixels);
    printf("region %d %ld process_lens\n", REGION_LENS, kPixels);
    printf("region %d %ld opencv_remap\n", REGION_CV_REMAP, kPixels);
    printf("region %d %ld opencv_warpPerspective\n", REGION_CV_WARP, kPixels);
    printf("region %d %ld process_mesh_first\n", REGION_MESH_FIRST, kPixels);
    printf("region %d %ld process_mesh_still\n", REGION_MESH_STILL, kPixels);
    printf("region %d %ld process_mesh_moved\n", REGION_MESH_MOVED, kPixels);
    IQV_LDC_Delete(pFaceHandle);
    IQV_LDC_Delete(pLensHandle);
    IQV_LDC_Delete(pMeshHandle);
    return 0;
}

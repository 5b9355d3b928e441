// The whole correction of a 4000 x 3000 NV21 frame on the accepted face path: one 480-pixel face
// right of centre, CorrectionDegree 0.3, FOVLost 60, so the lens remap and the projective warp
// both run. Beside it, in the same binary on the same frame: OpenCV's remap with precomputed
// fixed-point maps, alone and followed by warpPerspective through the same homography (linear luma,
// nearest chroma, two threads), and a plain copy of the frame (the bandwidth floor). Then the same frame
// and face with the lens remap alone (FOVLost 100) and with the face mesh (FDCMethod 1): a
// still preview, where the mesh is kept and only rendered, and a moving face, solved every frame
// from the last frame's mesh.
#include <benchmark/benchmark.h>

#include <math.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench_report.h"
#include "geometry/homography.h"
#include "geometry/lens_model.h"
#include "records/ldc_para.h"
#include "vkt_zb_ldc.h"

namespace {

const int kW = 4000;
const int kH = 3000;
const ST_FACE_RECT kFace = {3000, 900, 3479, 1379};

struct Scene {
    std::string sConfig, sLensConfig, sMeshConfig;
    void *pHandle = NULL;
    void *pLens = NULL;   // FOVLost 100: the lens remap alone
    void *pMesh = NULL;   // FDCMethod 1
    std::vector<uint8_t> vIn;
    std::vector<uint8_t> vOut;
    float afH[9];
    cv::Mat mMapXY, mMapA, mChromaMapXY, mChromaMapA;
};

std::string WriteConfig(const std::string &sName, const std::string &sFaceKeys)
{
    // The sample configuration's 4000 x 3000 profile with the face correction of this case.
    const std::string sText =
        "<?xml version=\"1.0\"?>\n<Config><Global><GolbalFDCFlag>0</GolbalFDCFlag><FDCAreaRestrictedFlag>0"
        "</FDCAreaRestrictedFlag></Global><FaceDistortionCorrection>" + sFaceKeys + "</FaceDistortionCorrection>"
        "<DistortionCorrection1><ImageWidth>4000</ImageWidth><ImageHeight>3000</ImageHeight>"
        "<CameraMatrix>3349.47331 0 2139.26969 0 3349.47331 1472.31769 0 0 1</CameraMatrix>"
        "<DistortionCoefficients>-0.26637261 -0.038588899 0.23839153 0.0017831947 -0.000281221"
        "</DistortionCoefficients><GlobalFDCCoefficients>6.4e-9 2.56e-16 0 0.000298554</GlobalFDCCoefficients>"
        "</DistortionCorrection1></Config>\n";
    const std::string sPath = "/tmp/ldc_process_bench_" + sName + std::to_string(getpid()) + ".xml";
    FILE *pFile = fopen(sPath.c_str(), "wb");
    fwrite(sText.data(), 1, sText.size(), pFile);
    fclose(pFile);
    return sPath;
}

// The face homography the driver fits in its first round: the widened face's corners moved
// towards the frame centre (the loss of this case is within the budget at once).
void FaceHomography(const tagST_LDC_PARA *pstPara, float *pfH)
{
    const int32_t *piR = pstPara->aiFaceRect[0];
    const int iCx = kW >> 1;
    const int iCy = kH >> 1;
    const float fFx = pstPara->afCameraMatrix[0];
    tag_VECTOR astSrc[4], astDst[4];
    const int aiX[4] = {piR[0], piR[2], piR[0], piR[2]};
    const int aiY[4] = {piR[1], piR[1], piR[3], piR[3]};
    for (int k = 0; k < 4; k++) {
        const float fDx = (float)(aiX[k] - iCx);
        const float fDy = (float)(aiY[k] - iCy);
        const float fS = 1.0f - 0.3f * (fDx * fDx + fDy * fDy) / (fFx * fFx);
        astSrc[k] = {aiX[k], aiY[k]};
        astDst[k] = {(int32_t)floorf(iCx + fDx * fS + 0.5f), (int32_t)floorf(iCy + fDy * fS + 0.5f)};
    }
    tagST_POINT_PAIRS stPairs = {astSrc, astDst, 4};
    uint8_t aucScratch[LDC_HOMOGRAPHY_SCRATCH_BYTES + 4];
    const float afIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    memcpy(pfH, afIdentity, sizeof(afIdentity));
    HomographyEstimation(&stPairs, pfH, aucScratch);
}

void *CreateInstance(const std::string &sConfig)
{
    char acPath[256] = {0};
    snprintf(acPath, sizeof(acPath), "%s", sConfig.c_str());
    ST_LDC_INPUT_PARA stPara = {kW, kH, acPath, LDC_PIC_NV21};
    void *pHandle = NULL;
    if (IQV_LDC_Create(&pHandle, &stPara) != LDC_OK) {
        fprintf(stderr, "cannot create the instance\n");
        abort();
    }
    return pHandle;
}

Scene &GetScene()
{
    static Scene *pstScene = [] {
        Scene *p = new Scene();
        p->sConfig = WriteConfig("", "<CorrectionDegree>0.3</CorrectionDegree><FOVLost>60</FOVLost>");
        p->sLensConfig = WriteConfig("lens_", "<CorrectionDegree>0.3</CorrectionDegree><FOVLost>100</FOVLost>");
        p->sMeshConfig = WriteConfig("mesh_", "<CorrectionDegree>0.3</CorrectionDegree><FDCMethod>1</FDCMethod>");
        p->pHandle = CreateInstance(p->sConfig);
        p->pLens = CreateInstance(p->sLensConfig);
        p->pMesh = CreateInstance(p->sMeshConfig);
        p->vIn.resize((size_t)kW * kH * 3 / 2);
        for (size_t i = 0; i < p->vIn.size(); i++) {
            p->vIn[i] = (uint8_t)((i * 2654435761u) >> 24);
        }
        p->vOut.resize(p->vIn.size());
        // One frame through the library fills in the widened face, the decision and the areas.
        ST_LDC_FRAME_INFO stInfo = {kW, kH, 100, 1, &kFace};
        IQV_LDC_Process(p->pHandle, &stInfo, p->vIn.data(), p->vOut.data());
        tagST_LDC_PARA *pstPara = (tagST_LDC_PARA *)p->pHandle;
        if (pstPara->iLDCEnable != 1) {
            fprintf(stderr, "the face correction was not accepted\n");
            abort();
        }
        FaceHomography(pstPara, p->afH);
        // OpenCV's maps of the same lens model, converted to fixed point once.
        tagST_RADIAL_MODEL stModel;
        GetRadialModel(pstPara, 1, &stModel);
        cv::Mat mX(kH, kW, CV_32F), mY(kH, kW, CV_32F), mCx(kH / 2, kW / 2, CV_32F), mCy(kH / 2, kW / 2, CV_32F);
        for (int y = 0; y < kH; y++) {
            for (int x = 0; x < kW; x++) {
                const float fDx = x - stModel.fCx;
                const float fDy = y - stModel.fCy;
                const float fF = RadialFactorSerial(&stModel, fDx * fDx + fDy * fDy);
                mX.at<float>(y, x) = stModel.fCx + fF * fDx;
                mY.at<float>(y, x) = stModel.fCy + fF * fDy;
                if (((x | y) & 1) == 0) {
                    mCx.at<float>(y / 2, x / 2) = mX.at<float>(y, x) * 0.5f;
                    mCy.at<float>(y / 2, x / 2) = mY.at<float>(y, x) * 0.5f;
                }
            }
        }
        cv::convertMaps(mX, mY, p->mMapXY, p->mMapA, CV_16SC2);
        cv::convertMaps(mCx, mCy, p->mChromaMapXY, p->mChromaMapA, CV_16SC2);
        return p;
    }();
    return *pstScene;
}

void BM_IQV_LDC_Process(benchmark::State &state)
{
    Scene &stScene = GetScene();
    ST_LDC_FRAME_INFO stInfo = {kW, kH, 100, 1, &kFace};
    for (auto _ : state) {
        IQV_LDC_Process(stScene.pHandle, &stInfo, stScene.vIn.data(), stScene.vOut.data());
        benchmark::ClobberMemory();
    }
}

void BM_IQV_LDC_Process_LensOnly(benchmark::State &state)
{
    Scene &stScene = GetScene();
    ST_LDC_FRAME_INFO stInfo = {kW, kH, 100, 1, &kFace};
    for (auto _ : state) {
        IQV_LDC_Process(stScene.pLens, &stInfo, stScene.vIn.data(), stScene.vOut.data());
        benchmark::ClobberMemory();
    }
}

// The peer of the lens-only path: OpenCV's remap of both planes.
void BM_OpenCvRemap(benchmark::State &state)
{
    Scene &stScene = GetScene();
    cv::setNumThreads(2);
    cv::Mat mY(kH, kW, CV_8UC1, stScene.vIn.data());
    cv::Mat mVu(kH / 2, kW / 2, CV_8UC2, stScene.vIn.data() + (size_t)kW * kH);
    std::vector<uint8_t> vOut(stScene.vIn.size());
    cv::Mat mOutY(kH, kW, CV_8UC1, vOut.data());
    cv::Mat mOutVu(kH / 2, kW / 2, CV_8UC2, vOut.data() + (size_t)kW * kH);
    for (auto _ : state) {
        cv::remap(mY, mOutY, stScene.mMapXY, stScene.mMapA, cv::INTER_LINEAR);
        cv::remap(mVu, mOutVu, stScene.mChromaMapXY, cv::noArray(), cv::INTER_NEAREST);
        benchmark::ClobberMemory();
    }
}

// The face held where it is: the track keeps it, the mesh is not solved again.
void BM_IQV_LDC_Process_MeshStill(benchmark::State &state)
{
    Scene &stScene = GetScene();
    ST_LDC_FRAME_INFO stInfo = {kW, kH, 100, 1, &kFace};
    for (auto _ : state) {
        IQV_LDC_Process(stScene.pMesh, &stInfo, stScene.vIn.data(), stScene.vOut.data());
        benchmark::ClobberMemory();
    }
}

// The face 64 pixels right and back every other frame, beyond the track's dead band: a solve
// from the last frame's mesh every frame.
void BM_IQV_LDC_Process_MeshMoving(benchmark::State &state)
{
    Scene &stScene = GetScene();
    ST_FACE_RECT astFaces[2] = {kFace, {kFace.iLeft + 64, kFace.iTop, kFace.iRight + 64, kFace.iBottom}};
    int32_t iFrame = 0;
    for (auto _ : state) {
        ST_LDC_FRAME_INFO stInfo = {kW, kH, 100, 1, &astFaces[iFrame++ & 1]};
        IQV_LDC_Process(stScene.pMesh, &stInfo, stScene.vIn.data(), stScene.vOut.data());
        benchmark::ClobberMemory();
    }
}

void BM_OpenCvRemapThenWarp(benchmark::State &state)
{
    Scene &stScene = GetScene();
    cv::setNumThreads(2);
    cv::Mat mY(kH, kW, CV_8UC1, stScene.vIn.data());
    cv::Mat mVu(kH / 2, kW / 2, CV_8UC2, stScene.vIn.data() + (size_t)kW * kH);
    std::vector<uint8_t> vInter(stScene.vIn.size()), vOut(stScene.vIn.size());
    cv::Mat mInterY(kH, kW, CV_8UC1, vInter.data());
    cv::Mat mInterVu(kH / 2, kW / 2, CV_8UC2, vInter.data() + (size_t)kW * kH);
    cv::Mat mOutY(kH, kW, CV_8UC1, vOut.data());
    cv::Mat mOutVu(kH / 2, kW / 2, CV_8UC2, vOut.data() + (size_t)kW * kH);
    const cv::Matx33f mH(stScene.afH);
    // The chroma plane sees the same mapping at half scale.
    const cv::Matx33f mS(0.5f, 0, 0, 0, 0.5f, 0, 0, 0, 1), mSInv(2, 0, 0, 0, 2, 0, 0, 0, 1);
    const cv::Matx33f mHc = mS * mH * mSInv;
    for (auto _ : state) {
        cv::remap(mY, mInterY, stScene.mMapXY, stScene.mMapA, cv::INTER_LINEAR);
        cv::remap(mVu, mInterVu, stScene.mChromaMapXY, cv::noArray(), cv::INTER_NEAREST);
        cv::warpPerspective(mInterY, mOutY, cv::Mat(mH), mOutY.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP);
        cv::warpPerspective(mInterVu, mOutVu, cv::Mat(mHc), mOutVu.size(), cv::INTER_NEAREST | cv::WARP_INVERSE_MAP);
        benchmark::ClobberMemory();
    }
}

void BM_FrameCopy(benchmark::State &state)
{
    Scene &stScene = GetScene();
    for (auto _ : state) {
        memcpy(stScene.vOut.data(), stScene.vIn.data(), stScene.vIn.size());
        benchmark::ClobberMemory();
    }
}

BENCHMARK(BM_IQV_LDC_Process)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_OpenCvRemapThenWarp)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_FrameCopy)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_IQV_LDC_Process_LensOnly)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_OpenCvRemap)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_IQV_LDC_Process_MeshStill)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_IQV_LDC_Process_MeshMoving)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    GetScene();
    printf("frame %dx%d NV21, face (%d, %d, %d, %d), CorrectionDegree 0.3, FOVLost 60: lens remap + warp\n", kW, kH,
           kFace.iLeft, kFace.iTop, kFace.iRight, kFace.iBottom);
    fflush(stdout);
    std::ofstream stOut = OpenReportStream();
    RatioReporter stReporter;
    stReporter.SetOutputStream(&stOut);
    stReporter.SetErrorStream(&stOut);
    benchmark::RunSpecifiedBenchmarks(&stReporter);
    stReporter.PrintRatio(stOut, "BM_IQV_LDC_Process", "BM_OpenCvRemapThenWarp");
    stReporter.PrintRatio(stOut, "BM_IQV_LDC_Process", "BM_FrameCopy");
    stReporter.PrintRatio(stOut, "BM_IQV_LDC_Process_LensOnly", "BM_OpenCvRemap");
    stReporter.PrintRatio(stOut, "BM_IQV_LDC_Process_MeshStill", "BM_IQV_LDC_Process_LensOnly");
    stReporter.PrintRatio(stOut, "BM_IQV_LDC_Process_MeshMoving", "BM_IQV_LDC_Process_LensOnly");
    stReporter.PrintRatio(stOut, "BM_IQV_LDC_Process_MeshMoving", "BM_OpenCvRemapThenWarp");
    stReporter.PrintRatio(stOut, "BM_IQV_LDC_Process_MeshStill", "BM_OpenCvRemapThenWarp");
    for (void *pHandle : {GetScene().pHandle, GetScene().pLens, GetScene().pMesh}) {
        IQV_LDC_Delete(pHandle);
    }
    for (const std::string *psPath : {&GetScene().sConfig, &GetScene().sLensConfig, &GetScene().sMeshConfig}) {
        unlink(psPath->c_str());
    }
    return 0;
}

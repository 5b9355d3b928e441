// The remap on a 4000 x 3000 NV21 frame through a real phone lens (640 x 480 calibration scaled
// 6.25 times), beside OpenCV's remap with precomputed fixed-point maps on the same frame and
// rectangle, and beside a plain copy of the frame. The small harness sweep is timed too.
#include <benchmark/benchmark.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <fstream>

#include <map>
#include <string>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench_report.h"
#include "geometry/distortion_correct_cases.h"

namespace {

const tagST_DC_CASE kPhoneFrame = {4000, 3000, 0, DC_PHONE_LENS, {0, 0, 0, 0}, 1};

tagST_DC_FRAMES &PhoneFrames()
{
    static tagST_DC_FRAMES *pstFrames = [] {
        tagST_DC_FRAMES *pst = new tagST_DC_FRAMES();
        if (!pst->Prepare(kPhoneFrame)) {
            fprintf(stderr, "the phone lens has no usable rectangle\n");
            abort();
        }
        return pst;
    }();
    return *pstFrames;
}

void BM_DistortionCorrect_neon(benchmark::State &state)
{
    tagST_DC_FRAMES &stFrames = PhoneFrames();
    std::vector<uint8_t> vucDst(stFrames.uFrameBytes, 0x5A);
    for (auto _ : state) {
        stFrames.Run(true, vucDst.data());
        benchmark::ClobberMemory();
    }
}

void BM_DistortionCorrect_plain(benchmark::State &state)
{
    tagST_DC_FRAMES &stFrames = PhoneFrames();
    std::vector<uint8_t> vucDst(stFrames.uFrameBytes, 0x5A);
    for (auto _ : state) {
        stFrames.Run(false, vucDst.data());
        benchmark::ClobberMemory();
    }
}

// OpenCV's counterpart of the same work: bilinear luma over the rectangle, nearest-sample
// interleaved chroma as a two-channel half-size image, maps from the same model built once.
void BM_OpenCvRemap(benchmark::State &state)
{
    tagST_DC_FRAMES &stFrames = PhoneFrames();
    const tagST_LDC_PARA &stPara = *stFrames.pstPara;
    const int32_t *piArea = stFrames.Area();
    const int iW = stPara.iImgWidth;
    const int iH = stPara.iImgHeight;
    const cv::Rect stRect(piArea[0], piArea[1], piArea[2] + 1 - piArea[0], piArea[3] + 1 - piArea[1]);
    const cv::Rect stHalfRect(stRect.x / 2, stRect.y / 2, stRect.width / 2, stRect.height / 2);
    tagST_RADIAL_MODEL stM;
    GetRadialModel(&stPara, 1, &stM);
    cv::Mat stMapX(stRect.size(), CV_32FC1);
    cv::Mat stMapY(stRect.size(), CV_32FC1);
    cv::Mat stHalfX(stHalfRect.size(), CV_32FC1);
    cv::Mat stHalfY(stHalfRect.size(), CV_32FC1);
    for (int y = 0; y < stRect.height; y++) {
        for (int x = 0; x < stRect.width; x++) {
            const float fDx = (float)(stRect.x + x) - stM.fCx;
            const float fDy = (float)(stRect.y + y) - stM.fCy;
            const float fF = RadialFactorSerial(&stM, fDx * fDx + fDy * fDy);
            stMapX.at<float>(y, x) = stM.fCx + fF * fDx;
            stMapY.at<float>(y, x) = stM.fCy + fF * fDy;
            if (!(x & 1) && !(y & 1)) {
                stHalfX.at<float>(y / 2, x / 2) = stMapX.at<float>(y, x) * 0.5f;
                stHalfY.at<float>(y / 2, x / 2) = stMapY.at<float>(y, x) * 0.5f;
            }
        }
    }
    cv::Mat stMap1, stMap2, stHalfMap1, stHalfMap2;
    cv::convertMaps(stMapX, stMapY, stMap1, stMap2, CV_16SC2, false);
    cv::convertMaps(stHalfX, stHalfY, stHalfMap1, stHalfMap2, CV_16SC2, true);

    std::vector<uint8_t> vucDst(stFrames.uFrameBytes, 0x5A);
    const cv::Mat stSrcY(iH, iW, CV_8UC1, stFrames.vucSrc.data());
    const cv::Mat stSrcUV(iH / 2, iW / 2, CV_8UC2, stFrames.vucSrc.data() + (size_t)iW * iH);
    cv::Mat stDstY(iH, iW, CV_8UC1, vucDst.data());
    cv::Mat stDstUV(iH / 2, iW / 2, CV_8UC2, vucDst.data() + (size_t)iW * iH);
    cv::Mat stDstYRect = stDstY(stRect);
    cv::Mat stDstUVRect = stDstUV(stHalfRect);
    cv::setNumThreads(2);
    for (auto _ : state) {
        cv::remap(stSrcY, stDstYRect, stMap1, stMap2, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
        cv::remap(stSrcUV, stDstUVRect, stHalfMap1, stHalfMap2, cv::INTER_NEAREST, cv::BORDER_CONSTANT);
        benchmark::ClobberMemory();
    }
}

void BM_FrameCopy(benchmark::State &state)
{
    tagST_DC_FRAMES &stFrames = PhoneFrames();
    std::vector<uint8_t> vucDst(stFrames.uFrameBytes, 0x5A);
    for (auto _ : state) {
        memcpy(vucDst.data(), stFrames.vucSrc.data(), stFrames.uFrameBytes);
        benchmark::ClobberMemory();
    }
}

// The harness's sweep of small frames, NEON driver, one pass per iteration.
void BM_HarnessSweep_neon(benchmark::State &state)
{
    const std::vector<tagST_DC_CASE> vstCases = DcSweepCases();
    std::vector<tagST_DC_FRAMES> vstFrames(vstCases.size());
    std::vector<uint8_t> vucDst;
    for (auto _ : state) {
        for (size_t i = 0; i < vstCases.size(); i++) {
            state.PauseTiming();
            const bool bUsable = DcPrepare(&vstFrames[i], vstCases[i]);
            vucDst.assign(vstFrames[i].uFrameBytes, 0x5A);
            state.ResumeTiming();
            if (bUsable) {
                vstFrames[i].Run(true, vucDst.data());
            }
        }
    }
}

BENCHMARK(BM_DistortionCorrect_neon)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_OpenCvRemap)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_FrameCopy)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_DistortionCorrect_plain)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_HarnessSweep_neon)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    const tagST_DC_FRAMES &stFrames = PhoneFrames();
    const int32_t *piArea = stFrames.Area();
    printf("frame %dx%d NV21, phone lens, rectangle (%d, %d, %d, %d), 4 workers\n", kPhoneFrame.iWidth,
           kPhoneFrame.iHeight, piArea[0], piArea[1], piArea[2], piArea[3]);
    fflush(stdout);
    std::ofstream stOut = OpenReportStream();
    RatioReporter stReporter;
    stReporter.SetOutputStream(&stOut);
    stReporter.SetErrorStream(&stOut);
    benchmark::RunSpecifiedBenchmarks(&stReporter);
    stReporter.PrintRatio(stOut, "BM_DistortionCorrect_neon", "BM_OpenCvRemap");
    stReporter.PrintRatio(stOut, "BM_DistortionCorrect_neon", "BM_FrameCopy");
    stReporter.PrintRatio(stOut, "BM_DistortionCorrect_plain", "BM_DistortionCorrect_neon");
    return 0;
}

// The affine warp of a 4000 x 3000 NV21 frame through a mild projective matrix: the four-worker
// vector driver, the same through a face homography that maps a quarter of the output outside
// the source (the clamps at work), its plain twin on the same four workers, OpenCV's
// warpPerspective on the same frame and matrix (bilinear luma, nearest interleaved chroma as a
// two-channel image, two threads) and a plain memcpy of the frame. Prints the ratios warp /
// OpenCV and warp / memcpy.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <iostream>
#include <map>
#include <sstream>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "warp/affine_transform.h"
#include "warp/affine_transform_cases.h"

namespace {

constexpr int32_t kWidth = 4000;
constexpr int32_t kHeight = 3000;

struct BenchFrames {
    AffineFrame src{kWidth, kHeight, LDC_PIC_NV21};
    AffineFrame dst{kWidth, kHeight, LDC_PIC_NV21};
    std::vector<uint8_t> scratch = std::vector<uint8_t>(RESAMPLE_QUAD_BYTES * ((kWidth + 7) / 8));
    tagST_REGISTRATION_AREA stArea = {0, 0, kWidth, kHeight};
    float afMatrix[9];
    tagST_LDC_PARA para{};

    BenchFrames()
    {
        src.Fill(0xB0Bu);
        AffineRng rng(0xF00Du);
        AffineMakeMatrix(rng, stArea, kWidth, kHeight, 60.0, 1.0, afMatrix);
        para.ePicType = LDC_PIC_NV21;
    }
};

BenchFrames &Frames()
{
    static BenchFrames stFrames;
    return stFrames;
}

void BM_AffineTransform_neon(benchmark::State &state)
{
    BenchFrames &f = Frames();
    for (auto _ : state) {
        AffineTransform_neon(&f.para, &f.src.pic, &f.src.pic, &f.dst.pic, f.afMatrix, &f.stArea, f.scratch.data());
        benchmark::ClobberMemory();
    }
}

void BM_AffineTransform_neon_face(benchmark::State &state)
{
    BenchFrames &f = Frames();
    float afFace[9];
    AffineFaceHomography(1.0, afFace);
    for (auto _ : state) {
        AffineTransform_neon(&f.para, &f.src.pic, &f.src.pic, &f.dst.pic, afFace, &f.stArea, f.scratch.data());
        benchmark::ClobberMemory();
    }
}

// The plain twin on the same four workers: positions and sampler that define the bytes.
void BM_AffineTransform_plain(benchmark::State &state)
{
    BenchFrames &f = Frames();
    for (auto _ : state) {
        AffineTransformBands(&f.para, &f.src.pic, &f.dst.pic, f.afMatrix, &f.stArea, f.scratch.data(), 0, 0);
        benchmark::ClobberMemory();
    }
}

void BM_OpenCV_warpPerspective(benchmark::State &state)
{
    BenchFrames &f = Frames();
    cv::setNumThreads(2);
    cv::Mat srcY(kHeight, kWidth, CV_8UC1, f.src.pic.pY);
    cv::Mat dstY(kHeight, kWidth, CV_8UC1, f.dst.pic.pY);
    cv::Mat srcC(kHeight / 2, kWidth / 2, CV_8UC2, AffineChromaPlane(&f.src.pic));
    cv::Mat dstC(kHeight / 2, kWidth / 2, CV_8UC2, AffineChromaPlane(&f.dst.pic));
    cv::Mat m(3, 3, CV_64F);
    for (int i = 0; i < 9; i++) {
        m.at<double>(i / 3, i % 3) = f.afMatrix[i];
    }
    // Chroma coordinates are half the luma ones: Mc = diag(1/2, 1/2, 1) M diag(2, 2, 1).
    const cv::Mat half = (cv::Mat_<double>(3, 3) << 0.5, 0, 0, 0, 0.5, 0, 0, 0, 1);
    const cv::Mat twice = (cv::Mat_<double>(3, 3) << 2, 0, 0, 0, 2, 0, 0, 0, 1);
    const cv::Mat mc = half * m * twice;
    for (auto _ : state) {
        cv::warpPerspective(srcY, dstY, m, dstY.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP);
        cv::warpPerspective(srcC, dstC, mc, dstC.size(), cv::INTER_NEAREST | cv::WARP_INVERSE_MAP);
        benchmark::ClobberMemory();
    }
}

void BM_memcpy_frame(benchmark::State &state)
{
    BenchFrames &f = Frames();
    for (auto _ : state) {
        memcpy(f.dst.bytes.data(), f.src.bytes.data(), f.src.FrameBytes());
        benchmark::ClobberMemory();
    }
}

BENCHMARK(BM_AffineTransform_neon)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_AffineTransform_neon_face)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_AffineTransform_plain)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_OpenCV_warpPerspective)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_memcpy_frame)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);

// Keeps each run's real time per iteration for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> times;
    RatioReporter() : ConsoleReporter(OO_Tabular) {}   // no colour codes in the captured text
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &r : runs) {
            times[r.benchmark_name()] = r.GetAdjustedRealTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    // The workers log their start and a failed pinning (on machines with fewer than four cores)
    // on every call: keep that out of the report.
    fflush(stdout);
    fflush(stderr);
    const int iOut = dup(1), iErr = dup(2);
    const int iNull = open("/dev/null", O_WRONLY);
    dup2(iNull, 1);
    dup2(iNull, 2);
    std::ostringstream report;
    RatioReporter reporter;
    reporter.SetOutputStream(&report);
    reporter.SetErrorStream(&report);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    fflush(stdout);
    fflush(stderr);
    dup2(iOut, 1);
    dup2(iErr, 2);
    close(iNull);
    std::cout << report.str();
    const double dWarp = reporter.times["BM_AffineTransform_neon/min_time:2.000/real_time"];
    const double dCv = reporter.times["BM_OpenCV_warpPerspective/min_time:2.000/real_time"];
    const double dCopy = reporter.times["BM_memcpy_frame/min_time:1.000/real_time"];
    const double dPlain = reporter.times["BM_AffineTransform_plain/iterations:3/real_time"];
    if (dWarp > 0 && dCv > 0 && dCopy > 0) {
        std::cout << "ratio warp / OpenCV warpPerspective: " << dWarp / dCv << "\n"
                  << "ratio warp / memcpy of the frame:    " << dWarp / dCopy << "\n";
    }
    if (dPlain > 0 && dWarp > 0) {
        std::cout << "ratio plain twin / warp:             " << dPlain / dWarp << "\n";
    }
    return 0;
}

// The line check's kernels stage by stage on the cases of the equivalence harness: factor-8
// downscale of a 4000 x 3000 luma plane, Sobel edge map and Hough detection at 500 x 375, each
// plain and NEON, beside OpenCV doing the same job (area resize, Sobel + threshold, HoughLinesP).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "linedetect/downscale.h"
#include "linedetect/hough.h"
#include "linedetect/line_kernels_cases.h"
#include "linedetect/sobel.h"

namespace {

using namespace line_kernels;

constexpr int32_t kW = kBenchWidth / kBenchFactor;
constexpr int32_t kH = kBenchHeight / kBenchFactor;

// A luma plane that looks like a room: a lit gradient, rotated boxes and bars of varied grey at
// many angles (window frames, shelves, door edges) and sensor noise.
std::vector<uint8_t> RenderScene(int32_t iWidth, int32_t iHeight, uint32_t uSeed)
{
    cv::RNG rng(uSeed);
    cv::Mat img(iHeight, iWidth, CV_8UC1);
    for (int32_t y = 0; y < iHeight; y++) {
        for (int32_t x = 0; x < iWidth; x++) {
            img.at<uint8_t>(y, x) = (uint8_t)(60 + 80 * x / iWidth + 40 * y / iHeight);
        }
    }
    const float fScale = (float)std::min(iWidth, iHeight);
    for (int32_t k = 0; k < 40; k++) {
        const cv::Point2f c(rng.uniform(0.0f, (float)iWidth), rng.uniform(0.0f, (float)iHeight));
        const float fThick = (k % 3 == 0) ? 0.02f * fScale : rng.uniform(0.1f, 0.6f) * fScale;
        const cv::RotatedRect box(c, cv::Size2f(rng.uniform(0.2f, 1.2f) * fScale, fThick), rng.uniform(0.0f, 180.0f));
        cv::Point2f ap[4];
        box.points(ap);
        const std::vector<cv::Point> poly(ap, ap + 4);
        cv::fillConvexPoly(img, poly, cv::Scalar(rng.uniform(20, 236)));
    }
    cv::Mat noise(iHeight, iWidth, CV_8SC1);
    rng.fill(noise, cv::RNG::UNIFORM, -4, 5);
    cv::add(img, noise, img, cv::noArray(), CV_8U);
    return std::vector<uint8_t>(img.datastart, img.dataend);
}

struct Frames {
    std::vector<uint8_t> luma;    // 4000 x 3000 rendered scene
    std::vector<uint8_t> small;   // its factor-8 reduction
    std::vector<uint8_t> edges;   // the edge map of the reduction
};

const Frames &BenchFrames()
{
    static Frames s_frames;
    if (s_frames.luma.empty()) {
        s_frames.luma = RenderScene(kBenchWidth, kBenchHeight, 2024);
        s_frames.small.resize((size_t)kW * kH);
        s_frames.edges.resize((size_t)kW * kH);
        DownScaleData(s_frames.luma.data(), kBenchFactor, kBenchWidth, kBenchHeight, s_frames.small.data());
        CalcSobel(s_frames.small.data(), s_frames.edges.data(), kW, kH, kBenchThresh);
    }
    return s_frames;
}

template <void (*pfnDownScale)(const uint8_t *, int32_t, int32_t, int32_t, uint8_t *)>
void BM_DownScale8(benchmark::State &state)
{
    const Frames &f = BenchFrames();
    std::vector<uint8_t> out((size_t)kW * kH);
    for (auto _ : state) {
        pfnDownScale(f.luma.data(), kBenchFactor, kBenchWidth, kBenchHeight, out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * (int64_t)f.luma.size());
}
BENCHMARK_TEMPLATE(BM_DownScale8, DownScaleData)->Name("DownScale8/plain")->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_DownScale8, DownScaleData_NEON)->Name("DownScale8/neon")->Unit(benchmark::kMicrosecond);

void BM_DownScale8_OpenCV(benchmark::State &state)
{
    const Frames &f = BenchFrames();
    const cv::Mat luma(kBenchHeight, kBenchWidth, CV_8UC1, (void *)f.luma.data());
    cv::Mat out;
    for (auto _ : state) {
        cv::resize(luma, out, cv::Size(kW, kH), 0, 0, cv::INTER_AREA);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * (int64_t)f.luma.size());
}
BENCHMARK(BM_DownScale8_OpenCV)->Name("DownScale8/opencv")->Unit(benchmark::kMicrosecond);

template <int32_t (*pfnSobel)(const uint8_t *, uint8_t *, int32_t, int32_t, int32_t)>
void BM_Sobel(benchmark::State &state)
{
    const Frames &f = BenchFrames();
    std::vector<uint8_t> out((size_t)kW * kH);
    for (auto _ : state) {
        pfnSobel(f.small.data(), out.data(), kW, kH, kBenchThresh);
        benchmark::ClobberMemory();
    }
}
BENCHMARK_TEMPLATE(BM_Sobel, CalcSobel)->Name("Sobel/plain")->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_Sobel, CalcSobel_NEON)->Name("Sobel/neon")->Unit(benchmark::kMicrosecond);

void BM_Sobel_OpenCV(benchmark::State &state)
{
    const Frames &f = BenchFrames();
    const cv::Mat small(kH, kW, CV_8UC1, (void *)f.small.data());
    cv::Mat gx, gy, mag, out;
    for (auto _ : state) {
        // The same L1 magnitude and threshold: |gx| + |gy| >= T.
        cv::Sobel(small, gx, CV_16S, 1, 0);
        cv::Sobel(small, gy, CV_16S, 0, 1);
        mag = cv::abs(gx) + cv::abs(gy);
        cv::threshold(mag, out, kBenchThresh - 1, 255, cv::THRESH_BINARY);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Sobel_OpenCV)->Name("Sobel/opencv")->Unit(benchmark::kMicrosecond);

// Voting alone, on the points of the edge map.
template <int32_t (*pfnVote)(tagST_LINE_DETECT *)>
void BM_Vote(benchmark::State &state)
{
    const Frames &f = BenchFrames();
    std::vector<uint8_t> scratch(HoughScratchSize(kW, kH));
    std::vector<stLine> lines(LDC_HOUGH_MAX_LINES);
    LineDetectionHough(f.edges.data(), kW, kH, lines.data(), kH / 5, scratch.data());   // trig and points
    const int32_t iRhoMax = HoughRhoMax(kW, kH);
    tagST_LINE_DETECT st;
    st.iPointNum = 0;
    for (uint8_t e : f.edges) {
        st.iPointNum += (e == 255);
    }
    st.iThetaNum = LDC_HOUGH_THETA_NUM;
    st.iRhoMax = iRhoMax;
    st.piTrig = (int32_t *)scratch.data();
    st.puiPoints = (uint32_t *)(scratch.data() + LDC_HOUGH_TRIG_BYTES);
    st.piAccum = (int32_t *)(scratch.data() + LDC_HOUGH_TRIG_BYTES + (size_t)kW * kH * 4);
    for (auto _ : state) {
        pfnVote(&st);
        benchmark::ClobberMemory();
    }
    state.counters["points"] = st.iPointNum;
}
BENCHMARK_TEMPLATE(BM_Vote, CountLineProb)->Name("HoughVote/plain")->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_Vote, CountLineProb_NEON)->Name("HoughVote/neon")->Unit(benchmark::kMicrosecond);

void BM_Hough(benchmark::State &state)
{
    const Frames &f = BenchFrames();
    std::vector<uint8_t> scratch(HoughScratchSize(kW, kH));
    std::vector<stLine> lines(LDC_HOUGH_MAX_LINES);
    int32_t iCount = 0;
    for (auto _ : state) {
        iCount = LineDetectionHough(f.edges.data(), kW, kH, lines.data(), kH / 5, scratch.data());
        benchmark::DoNotOptimize(iCount);
    }
    state.counters["lines"] = iCount;
}
BENCHMARK(BM_Hough)->Name("Hough/neon")->Unit(benchmark::kMicrosecond);

void BM_Hough_OpenCV(benchmark::State &state)
{
    const Frames &f = BenchFrames();
    const cv::Mat edges(kH, kW, CV_8UC1, (void *)f.edges.data());
    std::vector<cv::Vec4i> lines;
    for (auto _ : state) {
        cv::HoughLinesP(edges, lines, 1, CV_PI / 180, kH / 5, kH / 5, 2);
        benchmark::DoNotOptimize(lines.data());
    }
    state.counters["lines"] = (double)lines.size();
}
BENCHMARK(BM_Hough_OpenCV)->Name("Hough/opencv")->Unit(benchmark::kMicrosecond);

// The three stages as the line check runs them.
void BM_AllStages(benchmark::State &state)
{
    const Frames &f = BenchFrames();
    std::vector<uint8_t> small((size_t)kW * kH), edges((size_t)kW * kH), scratch(HoughScratchSize(kW, kH));
    std::vector<stLine> lines(LDC_HOUGH_MAX_LINES);
    for (auto _ : state) {
        DownScaleData_NEON(f.luma.data(), kBenchFactor, kBenchWidth, kBenchHeight, small.data());
        CalcSobel_NEON(small.data(), edges.data(), kW, kH, kBenchThresh);
        benchmark::DoNotOptimize(LineDetectionHough(edges.data(), kW, kH, lines.data(), kH / 5, scratch.data()));
    }
}
BENCHMARK(BM_AllStages)->Name("AllStages/neon")->Unit(benchmark::kMicrosecond);

// Console output plus the ratios of every stage against its plain twin and its OpenCV peer, in
// CPU time: the machine is shared, and wall time mostly measures waiting for a core.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &r : runs) {
            m_times[r.benchmark_name()] = r.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override
    {
        ConsoleReporter::Finalize();
        for (const char *pcStage : {"DownScale8", "Sobel", "HoughVote", "Hough"}) {
            const std::string stage(pcStage);
            const auto neon = m_times.find(stage + "/neon");
            if (neon == m_times.end()) {
                continue;
            }
            for (const char *pcPeer : {"plain", "opencv"}) {
                const auto peer = m_times.find(stage + "/" + pcPeer);
                if (peer != m_times.end()) {
                    printf("%-10s neon / %-6s = %.3f\n", pcStage, pcPeer, neon->second / peer->second);
                }
            }
        }
    }

private:
    std::map<std::string, double> m_times;
};

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

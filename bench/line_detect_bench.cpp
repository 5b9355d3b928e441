// The whole line check on a 4000 x 3000 frame of rendered, camera-like content (straight edges
// at many angles, window-like grids, texture, face-like blobs), in bend and classifier mode.
// Peer: OpenCV's area downscale + Sobel + threshold + probabilistic Hough on the same frame.
#include <benchmark/benchmark.h>
#include <math.h>
#include <string.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <random>
#include <vector>

#include "linedetect/line_detect.h"
#include "records/ldc_para.h"
#include "runtime/runtime.h"

namespace {

const int kW = 4000;
const int kH = 3000;

const cv::Mat &SceneLuma()
{
    static cv::Mat img;
    if (!img.empty()) {
        return img;
    }
    img.create(kH, kW, CV_8UC1);
    // Smooth background gradient with fine sensor-like noise.
    std::mt19937 rng(42);
    for (int y = 0; y < kH; y++) {
        uint8_t *row = img.ptr<uint8_t>(y);
        for (int x = 0; x < kW; x++) {
            row[x] = (uint8_t)(70 + 60 * x / kW + 30 * y / kH + (int)(rng() % 9));
        }
    }
    // Window grid of a building facade, slightly rotated.
    for (int i = 0; i < 6; i++) {
        for (int j = 0; j < 4; j++) {
            const cv::Point2f c(600.0f + i * 520.0f, 500.0f + j * 560.0f);
            const cv::RotatedRect r(c, cv::Size2f(300, 360), 3.0f);
            cv::Point2f p[4];
            r.points(p);
            std::vector<cv::Point> poly(p, p + 4);
            cv::fillConvexPoly(img, poly, cv::Scalar(40 + 20 * ((i + j) % 3)));
        }
    }
    // Long straight edges at many angles (door frames, table edges, horizon).
    for (int a = 0; a < 180; a += 15) {
        const double t = a * M_PI / 180.0;
        const cv::Point c(kW / 2 + (int)(900 * cos(3 * t)), kH / 2 + (int)(700 * sin(2 * t)));
        const cv::Point d((int)(1600 * cos(t)), (int)(1600 * sin(t)));
        cv::line(img, c - d, c + d, cv::Scalar(a % 2 ? 220 : 25), 10, cv::LINE_AA);
    }
    // Textured region (foliage-like) and three face-like blobs.
    for (int k = 0; k < 4000; k++) {
        const cv::Point p(200 + (int)(rng() % 900), 2000 + (int)(rng() % 900));
        cv::circle(img, p, 4 + (int)(rng() % 12), cv::Scalar((double)(rng() % 255)), -1);
    }
    for (int k = 0; k < 3; k++) {
        const cv::Point c(1300 + k * 700, 1500 + (k % 2) * 200);
        cv::ellipse(img, c, cv::Size(230, 300), 0, 0, 360, cv::Scalar(175), -1, cv::LINE_AA);
        cv::ellipse(img, c + cv::Point(-80, -60), cv::Size(35, 20), 0, 0, 360, cv::Scalar(60), -1);
        cv::ellipse(img, c + cv::Point(80, -60), cv::Size(35, 20), 0, 0, 360, cv::Scalar(60), -1);
        cv::ellipse(img, c + cv::Point(0, 120), cv::Size(90, 25), 0, 0, 360, cv::Scalar(110), -1);
    }
    return img;
}

// Instance record as the lifecycle leaves it for the 4000 x 3000 profile.
struct Instance {
    explicit Instance(int iMode, int iBendValue)
    {
        memset(&para, 0, sizeof(para));
        para.iImgWidth = kW;
        para.iImgHeight = kH;
        para.iBinarizationThresh = 100;
        para.fConnectLineRatio = 0.5f;
        para.fLineLengthRatio = 0.5f;
        para.afGlobalFDCCoefficients[3] = 1e-4f;
        para.iBendValue = iBendValue;
        para.iBendDecideMode = iMode;
        para.iSvmFactor = kH / 2;
        int32_t iOffset = 0;
        uBlock = MemoMalloc(19760224u, 16, &iOffset);   // the lifecycle's size for 4000 x 3000
        para.pucWorkBuf = (uint8_t *)uBlock + iOffset;
    }
    ~Instance() { MemoFree(uBlock); }
    uintptr_t uBlock;
    tagST_LDC_PARA para;
};

void Run(benchmark::State &state, int iMode, int iBendValue)
{
    const cv::Mat &img = SceneLuma();
    Instance inst(iMode, iBendValue);
    int32_t iResult = 0;
    for (auto _ : state) {
        iResult = LineDetect(img.data, &inst.para);
        benchmark::DoNotOptimize(iResult);
    }
    state.counters["verdict"] = iResult;
}

// Bend mode with the profile's tolerance (the first bending line ends the check), and with a
// tolerance that lets every line through (every line judged: the worst case).
void BM_LineDetect_Bend(benchmark::State &state) { Run(state, 0, 4); }
void BM_LineDetect_BendAllJudged(benchmark::State &state) { Run(state, 0, 1 << 20); }
void BM_LineDetect_Classifier(benchmark::State &state) { Run(state, 1, 0); }

void BM_OpenCV_AreaSobelHoughP(benchmark::State &state)
{
    const cv::Mat &img = SceneLuma();
    cv::Mat small, gx, gy, mag, edge;
    std::vector<cv::Vec4i> lines;
    for (auto _ : state) {
        cv::resize(img, small, cv::Size(kW / 8, kH / 8), 0, 0, cv::INTER_AREA);
        cv::Sobel(small, gx, CV_16S, 1, 0);
        cv::Sobel(small, gy, CV_16S, 0, 1);
        cv::convertScaleAbs(gx, gx);
        cv::convertScaleAbs(gy, gy);
        cv::add(gx, gy, mag);
        cv::threshold(mag, edge, 99, 255, cv::THRESH_BINARY);
        cv::HoughLinesP(edge, lines, 1, CV_PI / 180, 375 / 5, 375 / 2, 2);
        benchmark::DoNotOptimize(lines.data());
    }
    state.counters["lines"] = (double)lines.size();
}

BENCHMARK(BM_LineDetect_Bend)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LineDetect_BendAllJudged)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LineDetect_Classifier)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenCV_AreaSobelHoughP)->Unit(benchmark::kMillisecond);

}  // namespace

// Runs the benchmarks, then prints the library/OpenCV ratios of wall and CPU time (the machine is
// shared, so CPU time is the steadier figure).
int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    struct Timing {
        std::string name, aggregate;
        double dReal, dCpu;
    };
    class Collect : public benchmark::ConsoleReporter {
    public:
        void ReportRuns(const std::vector<Run> &runs) override
        {
            for (const Run &r : runs) {
                times.push_back({r.run_name.function_name, r.aggregate_name, r.GetAdjustedRealTime(),
                                 r.GetAdjustedCPUTime()});
            }
            ConsoleReporter::ReportRuns(runs);
        }
        std::vector<Timing> times;
    } reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    for (const Timing &t : reporter.times) {
        if (t.name.find("OpenCV") != std::string::npos || t.aggregate == "stddev" ||
            t.aggregate == "cv") {
            continue;
        }
        for (const Timing &p : reporter.times) {
            if (p.name.find("OpenCV") != std::string::npos && p.aggregate == t.aggregate) {
                printf("%-28s %-6s wall %.3f ms (%.2fx OpenCV), cpu %.3f ms (%.2fx OpenCV)\n",
                       t.name.c_str(), t.aggregate.c_str(), t.dReal, t.dReal / p.dReal, t.dCpu,
                       t.dCpu / p.dCpu);
            }
        }
    }
    benchmark::Shutdown();
    return 0;
}

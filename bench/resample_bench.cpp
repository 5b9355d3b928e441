// The resampling core's group samplers on the harness's kinds of positions (tests/resample), over
// a whole 4000 x 3000 NV21 frame on one thread: every row pair's groups, vector and plain. Shows
// what each kind of group costs (wide loads, pair gathers, clamps) apart from any stage.
#include <benchmark/benchmark.h>

#include <map>
#include <vector>

#include "resample/resample_cases.h"
#include "support/harness.h"

namespace {

constexpr int32_t kWidth = 4000;
constexpr int32_t kHeight = 3000;

struct KindFrames {
    tagST_RS_CASE stCase;
    std::vector<uint8_t> vucSrc;
    std::vector<uint8_t> vucDst;
    std::vector<std::vector<tagST_GROUP_POS>> vvstRows;   // positions of every row pair
};

const KindFrames &Frames(int32_t eKind)
{
    static std::map<int32_t, KindFrames> s_mapFrames;
    KindFrames &stFrames = s_mapFrames[eKind];
    if (stFrames.vvstRows.empty()) {
        stFrames.stCase = {kWidth, kHeight, 0, eKind, 7};
        stFrames.vucSrc = ldc_test::RandomBytes((size_t)kWidth * kHeight * 3 / 2, 7);
        stFrames.vucDst.assign(stFrames.vucSrc.size(), 0);
        for (int32_t iY = 0; iY < kHeight; iY += 2) {
            stFrames.vvstRows.push_back(RsPositions(stFrames.stCase, iY));
        }
    }
    return stFrames;
}

void BM_ResampleGroups(benchmark::State &state)
{
    const KindFrames &stFrames = Frames((int32_t)state.range(0));
    const bool bNeon = state.range(1) != 0;
    std::vector<uint8_t> vucDst = stFrames.vucDst;
    const tagST_RESAMPLE_PLANES stPlanes = RsPlanes(stFrames.stCase, stFrames.vucSrc.data(), vucDst.data());
    for (auto _ : state) {
        for (size_t r = 0; r < stFrames.vvstRows.size(); r++) {
            const std::vector<tagST_GROUP_POS> &vstPos = stFrames.vvstRows[r];
            (bNeon ? ResampleGroups_neon : ResampleGroups)(&stPlanes, 2 * (int32_t)r, 0, vstPos.data(),
                                                           (int32_t)vstPos.size());
        }
        benchmark::ClobberMemory();
    }
    state.SetLabel(RsDescribe(stFrames.stCase) + (bNeon ? ", vector" : ", plain"));
}

BENCHMARK(BM_ResampleGroups)
    ->ArgsProduct({{RS_CONTIGUOUS, RS_SCALED, RS_FOLDED, RS_SPREAD, RS_EDGES}, {1, 0}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(0.5);

}  // namespace

BENCHMARK_MAIN();

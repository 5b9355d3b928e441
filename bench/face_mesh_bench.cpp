// The face mesh solve on a 100-degree lens: 4000 x 3000 still capture and 640 x 480 preview, three
// faces (centre, left border, top-right corner) and ten; from zero (a still, or a scene cut), from
// the previous frame's mesh with the same faces, and with faces that moved by 3 pixels (a
// detector's jitter); the cold solve also with the line term fed the most segments it takes
// (a room's edges: rows and columns of segments across the frame).
#include <benchmark/benchmark.h>
#include <math.h>
#include <string.h>

#include <vector>

#include "mesh/face_mesh.h"

namespace {

struct MeshCase {
    int32_t iW;
    int32_t iH;
    std::vector<int32_t> viFaces;
    std::vector<stLine> vstLines;
    tagST_MESH_INPUT stIn;
    std::vector<float> vfMesh;
    std::vector<double> vdWork;   // 8-byte aligned

    MeshCase(int32_t iWidth, int32_t iHeight, int32_t iFaces, int32_t iLines = 0) : iW(iWidth), iH(iHeight)
    {
        for (int32_t k = 0; k < iLines; k++) {
            // Alternately a row and a column, each spanning half the frame, spread over it.
            const int32_t iAt = 1 + (k / 2) % 31, iHalf = (k / 2) / 31;
            stLine stL;
            memset(&stL, 0, sizeof(stL));
            if (k % 2 == 0) {
                stL.Pnt0 = {iHalf * iW / 2 + 8, iAt * iH / 32};
                stL.Pnt1 = {(iHalf + 1) * iW / 2 - 8, iAt * iH / 32 + 4};
            } else {
                stL.Pnt0 = {iAt * iW / 32, iHalf * iH / 2 + 8};
                stL.Pnt1 = {iAt * iW / 32 + 4, (iHalf + 1) * iH / 2 - 8};
            }
            vstLines.push_back(stL);
        }
        // Widened rectangles as fractions of the frame: left, top, right, bottom.
        static const float s_aafThree[3][4] = {
            {0.43f, 0.40f, 0.57f, 0.60f}, {0.01f, 0.37f, 0.21f, 0.63f}, {0.74f, 0.01f, 0.98f, 0.33f}};
        for (int32_t k = 0; k < iFaces; k++) {
            float afR[4];
            if (iFaces == 3) {
                memcpy(afR, s_aafThree[k], sizeof(afR));
            } else {
                // A row of five faces above a row of five.
                const float fX = 0.02f + 0.196f * (float)(k % 5), fY = k < 5 ? 0.1f : 0.55f;
                const float afRow[4] = {fX, fY, fX + 0.16f, fY + 0.3f};
                memcpy(afR, afRow, sizeof(afR));
            }
            viFaces.push_back((int32_t)(afR[0] * iW));
            viFaces.push_back((int32_t)(afR[1] * iH));
            viFaces.push_back((int32_t)(afR[2] * iW));
            viFaces.push_back((int32_t)(afR[3] * iH));
        }
        memset(&stIn, 0, sizeof(stIn));
        stIn.iWidth = iW;
        stIn.iHeight = iH;
        stIn.fFocal = 0.5f * (float)iW / tanf(50.0f * 3.14159265f / 180.0f);
        stIn.stLens.fCx = (float)((iW / 2) | 1);
        stIn.stLens.fCy = (float)((iH / 2) | 1);
        const float fCorner2 = stIn.stLens.fCx * stIn.stLens.fCx + stIn.stLens.fCy * stIn.stLens.fCy;
        stIn.stLens.fC1 = -0.1f / fCorner2;   // a 10 % barrel at the corner
        stIn.iFaceNum = iFaces;
        stIn.paiFaces = (const int32_t(*)[4])viFaces.data();
        stIn.fStrength = 1.0f;
        stIn.iLineNum = iLines;
        stIn.pstLines = iLines > 0 ? vstLines.data() : NULL;
        vfMesh.assign(FaceMeshBytes(iW, iH, 0) / sizeof(float), 0.0f);
        vdWork.assign(FaceMeshWorkBytes(iW, iH, 0) / sizeof(double) + 1, 0.0);
    }

    int32_t Solve(const float *pfWarm, tagST_MESH_STATS *pstStats)
    {
        stIn.pfWarmStart = pfWarm;
        return FaceMeshSolve(&stIn, vfMesh.data(), (uint8_t *)vdWork.data(),
                             (uint32_t)(vdWork.size() * sizeof(double)), pstStats);
    }

    void Shift(int32_t iDx, int32_t iDy)
    {
        for (size_t i = 0; i < viFaces.size(); i += 2) {
            viFaces[i] += iDx;
            viFaces[i + 1] += iDy;
        }
    }
};

void Report(benchmark::State &state, const tagST_MESH_STATS &stStats)
{
    state.counters["iterations"] = stStats.iIterations;
    state.counters["coarse"] = stStats.iCoarseIterations;
    state.counters["rounds"] = stStats.iRounds;
    state.counters["strength"] = stStats.fStrength;
    state.counters["residual"] = stStats.fResidual;
}

void BM_MeshCold(benchmark::State &state)
{
    MeshCase stCase((int32_t)state.range(0), (int32_t)state.range(1), (int32_t)state.range(2), (int32_t)state.range(3));
    tagST_MESH_STATS stStats;
    for (auto _ : state) {
        benchmark::DoNotOptimize(stCase.Solve(NULL, &stStats));
    }
    Report(state, stStats);
}

void BM_MeshWarm(benchmark::State &state)
{
    MeshCase stCase((int32_t)state.range(0), (int32_t)state.range(1), (int32_t)state.range(2));
    tagST_MESH_STATS stStats;
    stCase.Solve(NULL, &stStats);
    for (auto _ : state) {
        benchmark::DoNotOptimize(stCase.Solve(stCase.vfMesh.data(), &stStats));
    }
    Report(state, stStats);
}

// Every solve starts from the mesh of the faces 3 pixels away, the faces stepping back and forth.
void BM_MeshWarmJitter(benchmark::State &state)
{
    MeshCase stCase((int32_t)state.range(0), (int32_t)state.range(1), (int32_t)state.range(2));
    tagST_MESH_STATS stStats;
    stCase.Solve(NULL, &stStats);
    int32_t iSign = 1;
    for (auto _ : state) {
        stCase.Shift(3 * iSign, -3 * iSign);
        iSign = -iSign;
        benchmark::DoNotOptimize(stCase.Solve(stCase.vfMesh.data(), &stStats));
    }
    Report(state, stStats);
}

}  // namespace

BENCHMARK(BM_MeshCold)
    ->Args({4000, 3000, 3, 0})
    ->Args({4000, 3000, 3, 64})
    ->Args({4000, 3000, 10, 64})
    ->Args({640, 480, 3, 64})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshWarm)->Args({4000, 3000, 3})->Args({640, 480, 3})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshWarmJitter)->Args({4000, 3000, 3})->Args({640, 480, 3})->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

#include "quality_probe.h"

#include <math.h>
#include <string.h>

namespace {

const int32_t kFinePeriod = 16;     // 16 levels per pixel
const int32_t kMediumPeriod = 256;  // one level per pixel

enum { PROBE_FINE0, PROBE_FINE1, PROBE_MEDIUM0, PROBE_MEDIUM1, PROBE_COARSE, PROBE_COUNT };

uint8_t ProbeValue(int32_t iKind, int32_t t, int32_t iExtent)
{
    switch (iKind) {
    case PROBE_FINE0: return (uint8_t)(16 * (t % kFinePeriod));
    case PROBE_FINE1: return (uint8_t)(16 * ((t + kFinePeriod / 2) % kFinePeriod));
    case PROBE_MEDIUM0: return (uint8_t)(t % kMediumPeriod);
    case PROBE_MEDIUM1: return (uint8_t)((t + kMediumPeriod / 2) % kMediumPeriod);
    default: return (uint8_t)lround(255.0 * t / (iExtent > 1 ? iExtent - 1 : 1));
    }
}

// Distance of t to the nearest multiple of dPeriod shifted by dShift.
double WrapDistance(double t, double dPeriod, double dShift)
{
    const double dU = fmod(fmod(t - dShift, dPeriod) + dPeriod, dPeriod);
    return dU < dPeriod - dU ? dU : dPeriod - dU;
}

// One ramp pair: the phase whose wrap lies farther from the estimate is read (the other may be
// smeared by its wrap), and its period is chosen to agree with the estimate.
double DecodePair(double dEstimate, uint8_t ucPhase0, uint8_t ucPhase1, int32_t iPeriod, double dLevelsPerPixel)
{
    const bool bPhase0 = WrapDistance(dEstimate, iPeriod, 0) >= WrapDistance(dEstimate, iPeriod, iPeriod / 2);
    const double t = bPhase0 ? ucPhase0 / dLevelsPerPixel : ucPhase1 / dLevelsPerPixel - iPeriod / 2;
    return t + iPeriod * floor((dEstimate - t) / iPeriod + 0.5);
}

void DecodeAxis(const std::vector<std::vector<uint8_t>> &vvucOut, int32_t iExtent, size_t uPixels, float *pfOut)
{
    for (size_t i = 0; i < uPixels; i++) {
        const double dCoarse = vvucOut[PROBE_COARSE][i] * (iExtent - 1) / 255.0;
        const double dMedium = DecodePair(dCoarse, vvucOut[PROBE_MEDIUM0][i], vvucOut[PROBE_MEDIUM1][i],
                                          kMediumPeriod, 1.0);
        pfOut[i] = (float)DecodePair(dMedium, vvucOut[PROBE_FINE0][i], vvucOut[PROBE_FINE1][i], kFinePeriod,
                                     256.0 / kFinePeriod);
    }
}

}  // namespace

void ProbeSourceMap(int32_t iW, int32_t iH, const QualityRenderer &fnRender, tagST_QP_MAP *pstMap)
{
    const size_t uPixels = (size_t)iW * iH;
    std::vector<uint8_t> vucIn(uPixels * 3 / 2, 128), vucOut(uPixels * 3 / 2);
    pstMap->iWidth = iW;
    pstMap->iHeight = iH;
    pstMap->vfX.assign(uPixels, 0.0f);
    pstMap->vfY.assign(uPixels, 0.0f);
    for (int32_t iAxis = 0; iAxis < 2; iAxis++) {
        const int32_t iExtent = iAxis == 0 ? iW : iH;
        std::vector<std::vector<uint8_t>> vvucOut(PROBE_COUNT);
        for (int32_t iKind = 0; iKind < PROBE_COUNT; iKind++) {
            for (int32_t y = 0; y < iH; y++) {
                for (int32_t x = 0; x < iW; x++) {
                    vucIn[(size_t)y * iW + x] = ProbeValue(iKind, iAxis == 0 ? x : y, iExtent);
                }
            }
            memset(vucIn.data() + uPixels, 128, uPixels / 2);
            fnRender(vucIn.data(), vucOut.data());
            vvucOut[iKind].assign(vucOut.begin(), vucOut.begin() + uPixels);
        }
        DecodeAxis(vvucOut, iExtent, uPixels, iAxis == 0 ? pstMap->vfX.data() : pstMap->vfY.data());
    }
}

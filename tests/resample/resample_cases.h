// Cases of the resampling core's group samplers, shared by the harness and the bench: a frame of
// one size and layout with fixed-seed bytes, and on a few of its row pairs a row of groups whose
// block positions follow one of the kinds below.
#ifndef LDC_TESTS_RESAMPLE_RESAMPLE_CASES_H
#define LDC_TESTS_RESAMPLE_RESAMPLE_CASES_H

#include <stdint.h>
#include <stdio.h>

#include <limits>
#include <random>
#include <string>
#include <vector>

#include "resample/resample.h"

enum eRsPositions {
    RS_CONTIGUOUS,   // adjacent blocks with one fraction: wide loads, and the clamped gather at the frame's end
    RS_SCALED,       // blocks 2.6 pixels apart on a slant, as a face homography spreads them: pair gathers
    RS_FOLDED,       // distances to block 0 that only add up as adjacent ones do, (0, 0, 6, 6) and kin,
                     // or adjacent across a row's end (the last blocks of one row, the first of the
                     // next): chroma runs that would pass the row's and the plane's end
    RS_SPREAD,       // anywhere in and around the frame: clamps on both sides
    RS_EDGES,        // the last column and row, (-1, 0), NaN, infinities, huge and denormal values
    RS_KINDS
};

struct tagST_RS_CASE {
    int32_t iWidth;
    int32_t iHeight;
    int32_t ePicType;   // 0 NV21, 1 NV12, 2 I420
    int32_t ePositions;
    uint32_t uSeed;
};

inline std::string RsDescribe(const tagST_RS_CASE &c)
{
    static const char *const apcKind[] = {"contiguous", "scaled", "folded", "spread", "edges"};
    char acText[96];
    snprintf(acText, sizeof(acText), "%dx%d type %d, %s positions, seed %u", c.iWidth, c.iHeight, c.ePicType,
             apcKind[c.ePositions], c.uSeed);
    return acText;
}

// Frames of at least one group wide: short ones (fewer than six rows, whose neighbour reads reach
// the frame's end), odd heights, an odd width (semi-planar only), and a camera-sized row.
inline std::vector<tagST_RS_CASE> RsCases()
{
    const int32_t aaiSizes[][2] = {{8, 2}, {16, 4}, {24, 6}, {40, 23}, {37, 9}, {64, 48}, {96, 34}};
    std::vector<tagST_RS_CASE> vstCases;
    uint32_t uSeed = 11;
    for (const auto &aiSize : aaiSizes) {
        for (int32_t ePicType = 0; ePicType < 3; ePicType++) {
            for (int32_t eKind = 0; eKind < RS_KINDS && !(ePicType == 2 && (aiSize[0] & 1)); eKind++) {
                vstCases.push_back({aiSize[0], aiSize[1], ePicType, eKind, uSeed++});
            }
        }
    }
    return vstCases;
}

// The sampler's view of a source and a destination frame, each held as one block.
inline tagST_RESAMPLE_PLANES RsPlanes(const tagST_RS_CASE &c, const uint8_t *pucSrc, uint8_t *pucDst)
{
    const int32_t iLuma = c.iWidth * c.iHeight;
    const int32_t iV = (c.ePicType == 2) ? iLuma + iLuma / 4 : iLuma;
    tagST_RESAMPLE_PLANES stPlanes = {pucSrc, pucSrc + iLuma, pucSrc + iV, pucDst, pucDst + iLuma, pucDst + iV,
                                      c.iWidth, c.iHeight, c.ePicType == 2, c.iWidth, {}, 0, 0};
    ResamplePreparePlanes(&stPlanes);
    return stPlanes;
}

// Row pairs the harness samples: the first, one in the middle, the last.
inline std::vector<int32_t> RsRows(const tagST_RS_CASE &c)
{
    return {0, (c.iHeight / 2) & ~1, (c.iHeight - 2) & ~1};
}

// Positions of the W / 8 groups of one row pair.
inline std::vector<tagST_GROUP_POS> RsPositions(const tagST_RS_CASE &c, int32_t iY)
{
    std::mt19937 rng(c.uSeed * 7919u + (uint32_t)iY);
    const auto Uniform = [&](float fLo, float fHi) { return fLo + (fHi - fLo) * (float)(rng() >> 8) / 16777216.0f; };
    const auto Fraction = [&]() { return (float)(rng() % 128) / 128.0f + (float)(rng() % 3) / 1024.0f; };
    const float fW = (float)c.iWidth;
    const float fH = (float)c.iHeight;
    const float fInf = std::numeric_limits<float>::infinity();
    const float afEdgesX[] = {std::numeric_limits<float>::quiet_NaN(), fInf, -fInf, 1e30f, -1e30f, 1e-40f, -0.0f,
                              -0.5f, -1.0f, fW - 1.0f, fW - 1.5f, fW - 2.0f + 127.0f / 128.0f, 3e9f, fW - 2.0f};
    const float afEdgesY[] = {std::numeric_limits<float>::quiet_NaN(), fInf, -fInf, -2e9f, 1e-40f, -0.25f,
                              fH - 1.0f, fH - 1.5f, fH - 2.0f + 0.5f, fH - 2.0f, 0.0f};
    const int32_t aaiFolded[][4] = {{0, 0, 6, 6}, {0, 6, 0, 6}, {0, 3, 3, 6}, {0, 12, 0, 0}, {0, -2, 8, 6}, {0, 2, 4, 6}};
    std::vector<tagST_GROUP_POS> vstPos((size_t)(c.iWidth / RESAMPLE_GROUP_COLS));
    for (tagST_GROUP_POS &stPos : vstPos) {
        const float fX0 = (float)(int32_t)Uniform(-2.0f, fW - 4.0f);
        const float fY0 = (float)(int32_t)Uniform(-1.0f, fH);
        const float fFx = Fraction();
        const float fFy = Fraction();
        const int32_t *piFold = aaiFolded[rng() % 6];
        const bool bWrap = rng() % 2 == 0;
        const int32_t iWrapRow = 3 + (int32_t)(rng() % 4);   // rows H - 3 .. H - 6
        const int32_t iWrapAt = 1 + (int32_t)(rng() % 3);    // the first block on the next row
        for (int32_t k = 0; k < 4; k++) {
            switch (c.ePositions) {
            case RS_CONTIGUOUS:
                stPos.afX[k] = fX0 + (float)(2 * k) + fFx;
                stPos.afY[k] = fY0 + fFy;
                break;
            case RS_SCALED:
                stPos.afX[k] = fX0 + 2.6f * (float)k + fFx;
                stPos.afY[k] = fY0 + 0.3f * (float)k + fFy;
                break;
            case RS_FOLDED:
                if (bWrap) {
                    stPos.afX[k] = (k < iWrapAt ? fW - (float)(2 * (iWrapAt - k)) : (float)(2 * (k - iWrapAt))) + fFx;
                    stPos.afY[k] = fH - (float)iWrapRow + (k < iWrapAt ? 0.0f : 1.0f) + fFy;
                } else {
                    stPos.afX[k] = fX0 + (float)piFold[k] + fFx;
                    stPos.afY[k] = fY0 + fFy;
                }
                break;
            case RS_SPREAD:
                stPos.afX[k] = Uniform(-4.0f, fW + 4.0f);
                stPos.afY[k] = Uniform(-4.0f, fH + 4.0f);
                break;
            default:
                stPos.afX[k] = afEdgesX[rng() % (sizeof(afEdgesX) / sizeof(afEdgesX[0]))];
                stPos.afY[k] = afEdgesY[rng() % (sizeof(afEdgesY) / sizeof(afEdgesY[0]))];
                break;
            }
        }
    }
    return vstPos;
}

#endif

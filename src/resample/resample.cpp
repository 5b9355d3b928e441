// Plain samplers of the resampling core. They define the bytes; ResampleGroups_neon must give
// the same on every target.
#include "resample/resample.h"

#include <stdlib.h>

#include "platform/platform.h"

void ResamplePreparePlanes(tagST_RESAMPLE_PLANES *pstPlanes)
{
    const int32_t iW = pstPlanes->iWidth;
    const int32_t iH = pstPlanes->iHeight;
    const int32_t bPlanar = pstPlanes->bPlanar;
    const int32_t iChromaBytes = bPlanar ? (iW >> 1) * (iH >> 1) : iW * (iH >> 1);
    const uint8_t *pucLastPlane = bPlanar ? pstPlanes->pucSrcV : pstPlanes->pucSrcU;
    tagST_SOURCE_EXTENT *pstSrc = &pstPlanes->stExtent;
    pstSrc->pucBase = pstPlanes->pucSrcY;
    pstSrc->iLumaLast = (int32_t)(pucLastPlane - pstPlanes->pucSrcY) + iChromaBytes - 1;
    pstSrc->iChromaRowLast = (iH >> 1) - 1;
    pstSrc->iChromaLast = iChromaBytes - (bPlanar ? 1 : 2);
    pstSrc->iWideLast = pstSrc->iLumaLast - 2 * iW - 8;
    // A base offset is at most W H - 1 and its neighbours reach 2 W + 2 bytes further.
    pstSrc->bShortFrame = (iW * iH + 2 * iW + 1 > pstSrc->iLumaLast) ? 1 : 0;
    pstPlanes->iInnerX = ResampleInnerLimit(iW);
    pstPlanes->iInnerY = ResampleInnerLimit(iH);
}

// A block's source position after the clamp, with its 7-bit fractions.
typedef struct tagST_BLOCK_SAMPLE {
    int32_t iX;
    int32_t iY;
    uint8_t ucFx;
    uint8_t ucFy;
} tagST_BLOCK_SAMPLE;

// trunc(128 s) - 128 trunc(s): scaling by 128 is exact, so these are the first 7 bits below the
// truncated position; 0 where the clamp moved the position, and for positions in (-1, 0).
static inline uint8_t FractionQ7(float fS, int32_t iRaw, int32_t bInside)
{
    if (!bInside) {
        return 0;
    }
    const int32_t iFrac = TruncF32ToS32(fS * 128.0f) - iRaw * 128;
    return (uint8_t)(iFrac > 0 ? iFrac : 0);
}

static inline tagST_BLOCK_SAMPLE SampleBlock(const tagST_RESAMPLE_PLANES *pstPlanes, float fSx, float fSy)
{
    const int32_t iRawX = TruncF32ToS32(fSx);
    const int32_t iRawY = TruncF32ToS32(fSy);
    int32_t bInsideX;
    int32_t bInsideY;
    tagST_BLOCK_SAMPLE stSample;
    stSample.iX = ResampleClampIndex(iRawX, pstPlanes->iInnerX, &bInsideX);
    stSample.iY = ResampleClampIndex(iRawY, pstPlanes->iInnerY, &bInsideY);
    stSample.ucFx = FractionQ7(fSx, iRawX, bInsideX);
    stSample.ucFy = FractionQ7(fSy, iRawY, bInsideY);
    return stSample;
}

// 7-bit bilinear of one pixel: each row (a (128 - fx) + b fx + 32) >> 6 keeps one extra bit
// (0..510), then (upper (128 - fy) + lower fy + 128) >> 8 removes it. The weights sum to 128, so
// every sum fits the vector twin's 16-bit lanes (at most 510 x 128).
static inline uint8_t BilinearQ7(uint32_t uA, uint32_t uB, uint32_t uC, uint32_t uD, uint32_t uFx, uint32_t uFy)
{
    const uint32_t uUpper = (uA * (128u - uFx) + uB * uFx + 32u) >> 6;
    const uint32_t uLower = (uC * (128u - uFx) + uD * uFx + 32u) >> 6;
    return (uint8_t)((uUpper * (128u - uFy) + uLower * uFy + 128u) >> 8);
}

// Luma of one 2 x 2 block whose pixel (j, i) is sampled at iOff + j + i W, every read clamped
// into the frame.
static void InterpolateBlock(const tagST_SOURCE_EXTENT *pstSrc, const char *pcSampler, uint8_t *pucDst,
                             int32_t iPitch, int32_t iOff, uint8_t ucFx, uint8_t ucFy)
{
    for (int32_t i = 0; i < 2; i++) {
        for (int32_t j = 0; j < 2; j++) {
            const int32_t iS = iOff + j + i * iPitch;
            pucDst[i * iPitch + j] =
                BilinearQ7(ResampleLumaAt(pstSrc, pcSampler, iS), ResampleLumaAt(pstSrc, pcSampler, iS + 1),
                           ResampleLumaAt(pstSrc, pcSampler, iS + iPitch),
                           ResampleLumaAt(pstSrc, pcSampler, iS + iPitch + 1), ucFx, ucFy);
        }
    }
}

// Luma of one group (2 x 8 pixels) from the four blocks' offsets; returns the contiguity verdict,
// which also selects the chroma bytes.
static int32_t InterpolateLumaBlock(uint8_t *pucDst, const tagST_SOURCE_EXTENT *pstSrc, int32_t iPitch,
                                    const int32_t aiOffset[4], const uint8_t aucFx[4], const uint8_t aucFy[4])
{
    static const char *const s_pcSampler = "ResampleGroups";
    const int32_t bContiguous = (ResampleSpreadSum(aiOffset) == RESAMPLE_CONTIGUOUS_SUM) ? 1 : 0;
    for (int32_t k = 0; k < 4; k++) {
        const int32_t iOff = bContiguous ? aiOffset[0] + 2 * k : aiOffset[k];
        InterpolateBlock(pstSrc, s_pcSampler, pucDst + 2 * k, iPitch, iOff, aucFx[k], aucFy[k]);
    }
    return bContiguous;
}

// The chroma of one block: the pair at iSrc (semi-planar) or the U and V bytes at iSrc (planar)
// to iDst.
static inline void CopyChroma(const tagST_RESAMPLE_PLANES *pstPlanes, const char *pcSampler, int32_t iDst,
                              int32_t iSrc)
{
    const tagST_SOURCE_EXTENT *pstSrc = &pstPlanes->stExtent;
    if (pstPlanes->bPlanar) {
        RESAMPLE_CHECK_READ(pstSrc, pcSampler, pstPlanes->pucSrcU + iSrc, 1);
        RESAMPLE_CHECK_READ(pstSrc, pcSampler, pstPlanes->pucSrcV + iSrc, 1);
        pstPlanes->pucDstU[iDst] = pstPlanes->pucSrcU[iSrc];
        pstPlanes->pucDstV[iDst] = pstPlanes->pucSrcV[iSrc];
    } else {
        RESAMPLE_CHECK_READ(pstSrc, pcSampler, pstPlanes->pucSrcU + iSrc, 2);
        pstPlanes->pucDstU[iDst] = pstPlanes->pucSrcU[iSrc];
        pstPlanes->pucDstU[iDst + 1] = pstPlanes->pucSrcU[iSrc + 1];
    }
}

// Source offset of a block's nearest chroma sample: halves rounded up, so that chroma is taken at
// the nearest chroma position, in the semi-planar layout always at a pair's first byte.
static inline int32_t NearestChroma(const tagST_RESAMPLE_PLANES *pstPlanes, int32_t iIx, int32_t iIy)
{
    const int32_t bPlanar = pstPlanes->bPlanar;
    return ResampleChromaOffset(&pstPlanes->stExtent, ((iIx + 1) >> 1) * (bPlanar ? 1 : 2), (iIy + 1) >> 1,
                                bPlanar ? pstPlanes->iWidth >> 1 : pstPlanes->iWidth);
}

void ResampleGroups(const tagST_RESAMPLE_PLANES *pstPlanes, int32_t iY, int32_t iX, const tagST_GROUP_POS *pstPos,
                    int32_t iCount)
{
    const int32_t iW = pstPlanes->iWidth;
    const int32_t iStepC = pstPlanes->bPlanar ? 1 : 2;   // chroma bytes per block in a plane
    const int32_t iChromaLast = pstPlanes->stExtent.iChromaLast;
    uint8_t *pucDstY = pstPlanes->pucDstY + iY * iW + iX;
    const int32_t iDstC = ResampleGroupChromaRow(pstPlanes, iY) + (pstPlanes->bPlanar ? iX >> 1 : iX);
    for (int32_t g = 0; g < iCount; g++) {
        int32_t aiOffset[4];
        int32_t aiChroma[4];
        uint8_t aucFx[4];
        uint8_t aucFy[4];
        for (int32_t k = 0; k < 4; k++) {
            const tagST_BLOCK_SAMPLE stS = SampleBlock(pstPlanes, pstPos[g].afX[k], pstPos[g].afY[k]);
            aiOffset[k] = stS.iX + stS.iY * iW;
            aiChroma[k] = NearestChroma(pstPlanes, stS.iX, stS.iY);
            aucFx[k] = stS.ucFx;
            aucFy[k] = stS.ucFy;
        }
        const int32_t bContiguous =
            InterpolateLumaBlock(pucDstY + RESAMPLE_GROUP_COLS * g, &pstPlanes->stExtent, iW, aiOffset, aucFx, aucFy);
        for (int32_t k = 0; k < 4; k++) {
            // A contiguous run that would pass the plane's end stops at its last sample.
            const int32_t iSrc = bContiguous ? ResampleMinS32(aiChroma[0] + iStepC * k, iChromaLast) : aiChroma[k];
            CopyChroma(pstPlanes, "ResampleGroups", iDstC + 4 * iStepC * g + iStepC * k, iSrc);
        }
    }
}

void ResampleNearestBlocks(const tagST_RESAMPLE_PLANES *pstPlanes, int32_t iY, int32_t iX,
                           const tagST_GROUP_POS *pstPos, int32_t iBlocks)
{
    static const char *const s_pcSampler = "ResampleNearestBlocks";
    const tagST_SOURCE_EXTENT *pstSrc = &pstPlanes->stExtent;
    const int32_t iW = pstPlanes->iWidth;
    const int32_t bPlanar = pstPlanes->bPlanar;
    const int32_t iPitchC = bPlanar ? iW >> 1 : iW;
    for (int32_t j = 0; j < iBlocks; j++) {
        int32_t bInside;
        const int32_t iIx = ResampleClampIndex(TruncF32ToS32(pstPos->afX[j]), pstPlanes->iInnerX, &bInside);
        const int32_t iIy = ResampleClampIndex(TruncF32ToS32(pstPos->afY[j]), pstPlanes->iInnerY, &bInside);
        const int32_t iXj = iX + 2 * j;
        const int32_t iSrc = iIy * iW + iIx;
        uint8_t *pucDst = pstPlanes->pucDstY + iY * iW + iXj;
        pucDst[0] = ResampleLumaAt(pstSrc, s_pcSampler, iSrc);
        pucDst[1] = ResampleLumaAt(pstSrc, s_pcSampler, iSrc + 1);
        pucDst[iW] = ResampleLumaAt(pstSrc, s_pcSampler, iSrc + iW);
        pucDst[iW + 1] = ResampleLumaAt(pstSrc, s_pcSampler, iSrc + iW + 1);
        // Not the groups' nearest chroma: the column as it is (semi-planar) or halved down
        // (planar), the row halved down; kept as the tail has always done it.
        const int32_t iSrcC = ResampleChromaOffset(pstSrc, bPlanar ? iIx >> 1 : iIx, iIy >> 1, iPitchC);
        CopyChroma(pstPlanes, s_pcSampler, (iY >> 1) * iPitchC + (bPlanar ? iXj >> 1 : iXj), iSrcC);
    }
}

void ResampleBilinearBlock(const tagST_RESAMPLE_PLANES *pstPlanes, int32_t iX, int32_t iY, int32_t iIx,
                           int32_t iIy, uint8_t ucFx, uint8_t ucFy)
{
    static const char *const s_pcSampler = "ResampleBilinearBlock";
    const int32_t iW = pstPlanes->iWidth;
    const int32_t bPlanar = pstPlanes->bPlanar;
    InterpolateBlock(&pstPlanes->stExtent, s_pcSampler, pstPlanes->pucDstY + iY * iW + iX, iW, iIx + iIy * iW, ucFx,
                     ucFy);
    const int32_t iDstC = (iY >> 1) * (bPlanar ? iW >> 1 : iW) + (bPlanar ? iX >> 1 : iX);
    CopyChroma(pstPlanes, s_pcSampler, iDstC, NearestChroma(pstPlanes, iIx, iIy));
}

#if defined(LDC_CHECK_READS)
void ResampleCheckReadFailed(const char *pcSampler, ptrdiff_t lOffset, int32_t iBytes, int32_t iBlockBytes)
{
    LdcLog(LDC_LOG_ERROR, "%s reads %d bytes at offset %ld of a %d-byte source frame\n", pcSampler, iBytes,
           (long)lOffset, iBlockBytes);
    abort();
}
#endif

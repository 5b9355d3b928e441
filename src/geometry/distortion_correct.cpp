#include "geometry/distortion_correct.h"

#include <pthread.h>
#include <stdlib.h>

#include "boundscheck/bounds_check.h"
#include "platform/platform.h"
#include "runtime/runtime.h"

// Horizontal and vertical passes of the 7-bit bilinear filter in 16-bit lanes: the products and
// their sum wrap at 16 bits, the rounding shifts do not overflow (as NEON's rounding shifts),
// and the vertical sum saturates before the final narrowing keeps the low 8 bits.
static inline uint16_t BilinearPassQ7(uint32_t uA, uint32_t uB, uint16_t uFrac)
{
    const uint16_t uSum = (uint16_t)(uA * (uint16_t)(128u - uFrac) + uB * uFrac);
    return (uint16_t)(((uint32_t)uSum + 32u) >> 6);
}

static inline uint8_t BilinearQ7(uint8_t ucA, uint8_t ucB, uint8_t ucC, uint8_t ucD, uint16_t uFx,
                                 uint16_t uFy)
{
    const uint16_t uUpper = BilinearPassQ7(ucA, ucB, uFx);
    const uint16_t uLower = BilinearPassQ7(ucC, ucD, uFx);
    const uint32_t uSum = (uint32_t)(uint16_t)(uUpper * (uint16_t)(128u - uFy)) +
                          (uint32_t)(uint16_t)(uLower * uFy);
    const uint32_t uSat = uSum > 0xFFFFu ? 0xFFFFu : uSum;
    return (uint8_t)((uSat + 128u) >> 8);
}

static inline int32_t SatS16(int32_t iValue)
{
    return iValue > INT16_MAX ? INT16_MAX : (iValue < INT16_MIN ? INT16_MIN : iValue);
}

static inline uint16_t SatU16(int32_t iValue)
{
    return (uint16_t)(iValue > 0xFFFF ? 0xFFFF : (iValue < 0 ? 0 : iValue));
}

int32_t InterpolateLumaBlock(uint8_t *pucDst, const tagST_SRC_BLOCK *pstBlock, int32_t iPitch,
                             const int32_t aiOffset[4], const uint16_t auFx[4],
                             const uint16_t auFy[4])
{
    static const char *const s_pcKernel = "InterpolateLumaBlock";
    // Only the sum of the distances to block 0 is tested, so (0, 6, 6) counts as contiguous too
    // and then reads blocks 1 and 2 from o0 + 2 and o0 + 4: kept, the chroma follows the choice.
    const int32_t iSum = SatS16(aiOffset[1] - aiOffset[0]) + SatS16(aiOffset[2] - aiOffset[0]) +
                         SatS16(aiOffset[3] - aiOffset[0]);
    const int32_t bContiguous = (iSum == 12) ? 1 : 0;
    for (int32_t k = 0; k < 4; k++) {
        const int32_t iBase = bContiguous ? aiOffset[0] + 2 * k : aiOffset[k];
        for (int32_t i = 0; i < 2; i++) {
            for (int32_t j = 0; j < 2; j++) {
                // Reads past the block's end (frames of fewer than six rows) take its last byte.
                const int32_t iS = iBase + j + i * iPitch;
                pucDst[i * iPitch + 2 * k + j] = BilinearQ7(
                    LdcLumaAt(pstBlock, s_pcKernel, iS), LdcLumaAt(pstBlock, s_pcKernel, iS + 1),
                    LdcLumaAt(pstBlock, s_pcKernel, iS + iPitch),
                    LdcLumaAt(pstBlock, s_pcKernel, iS + iPitch + 1), auFx[k], auFy[k]);
            }
        }
    }
    return bContiguous;
}

void BeginDistortionBand(const tagST_LDC_WORK *pstWork, int32_t bPlanar, int32_t iIndex, int32_t iCount,
                         tagST_LDC_BAND *pstBand)
{
    tagST_LDC_PARA *pstPara = pstWork->pstPara;
    pstBand->stBlock = LdcSourceBlock(pstWork->pucSrcY, pstWork->pucSrcU, pstWork->pucSrcV, pstPara->iImgWidth,
                                      pstPara->iImgHeight, bPlanar);
    pstBand->iInnerX = LdcInnerLimit(pstPara->iImgWidth);
    pstBand->iInnerY = LdcInnerLimit(pstPara->iImgHeight);

    // The slot is independent of the band.
    ClaimAffinitySlot(pstPara->aiThreadState, pstPara->aiThreadMask, iCount);

    const int32_t bLens = (pstPara->iLDCEnable == 1) ? 1 : 0;
    const int32_t *piArea = bLens ? pstPara->aiLDCArea : pstPara->aiGlobalFDCArea;
    GetRadialModel(pstPara, bLens, &pstBand->stModel);
    pstBand->iLeft = piArea[0];
    pstBand->iRight = piArea[2];
    pstBand->iGroups = (piArea[2] + 1 - piArea[0]) / 8;

    // Even shares so that every band starts on a row pair; the last band takes the remainder.
    const int32_t iRows = piArea[3] + 1 - piArea[1];
    const int32_t iShare = (iCount > 0) ? (iRows / iCount) & ~1 : 0;
    pstBand->iStart = piArea[1] + iShare * iIndex;
    pstBand->iRows = (iIndex == iCount - 1) ? piArea[3] + 1 - pstBand->iStart : iShare;
}

// Mapping of one block origin as the vector groups evaluate it (lane order of the NEON twin).
typedef struct tagST_LDC_SAMPLE {
    int32_t iX;
    int32_t iY;
    uint16_t uFx;
    uint16_t uFy;
} tagST_LDC_SAMPLE;

static void MapGroupColumn(const tagST_LDC_BAND *pstBand, float fX, float fDy, float fR2y,
                           tagST_LDC_SAMPLE *pstSample)
{
    const tagST_RADIAL_MODEL *pstModel = &pstBand->stModel;
    const float fDx = fX - pstModel->fCx;
    const float fR2 = fDx * fDx + fR2y;
    const float fF = RadialFactorGrouped(pstModel, fR2);
    const float fSx = fF * fDx + pstModel->fCx;
    const float fSy = fF * fDy + pstModel->fCy;
    const int32_t iRawX = TruncF32ToS32(fSx);
    const int32_t iRawY = TruncF32ToS32(fSy);
    int32_t bInsideX;
    int32_t bInsideY;
    pstSample->iX = LdcClampIndex(iRawX, pstBand->iInnerX, &bInsideX);
    pstSample->iY = LdcClampIndex(iRawY, pstBand->iInnerY, &bInsideY);
    // Scaling by 128 is exact, so the fraction is the first 7 bits below the truncated position.
    pstSample->uFx = bInsideX ? SatU16(TruncF32ToS32(fSx * 128.0f) - iRawX * 128) : 0;
    pstSample->uFy = bInsideY ? SatU16(TruncF32ToS32(fSy * 128.0f) - iRawY * 128) : 0;
}

// Maps the four block origins of group g and interpolates its 2 x 8 luma block; returns the
// interpolator's contiguity verdict, which also selects the chroma bytes.
static int32_t CorrectLumaGroup(const tagST_LDC_WORK *pstWork, const tagST_LDC_BAND *pstBand,
                                int32_t iY, int32_t iGroup, tagST_LDC_SAMPLE astSample[4])
{
    const int32_t iW = pstWork->pstPara->iImgWidth;
    const int32_t iX0 = pstBand->iLeft + 8 * iGroup;
    const float fDy = (float)iY - pstBand->stModel.fCy;
    int32_t aiOffset[4];
    uint16_t auFx[4];
    uint16_t auFy[4];
    for (int32_t k = 0; k < 4; k++) {
        MapGroupColumn(pstBand, (float)(iX0 + 2 * k), fDy, fDy * fDy, &astSample[k]);
        aiOffset[k] = astSample[k].iX + astSample[k].iY * iW;
        auFx[k] = astSample[k].uFx;
        auFy[k] = astSample[k].uFy;
    }
    return InterpolateLumaBlock(pstWork->pucDstY + iY * iW + iX0, &pstBand->stBlock, iW, aiOffset,
                                auFx, auFy);
}

void DistortionCorrect_NV12(const tagST_LDC_WORK *pstWork, int32_t iIndex, int32_t iCount)
{
    static const char *const s_pcKernel = "DistortionCorrect_NV12";
    tagST_LDC_BAND stBand;
    BeginDistortionBand(pstWork, 0, iIndex, iCount, &stBand);
    const int32_t iW = pstWork->pstPara->iImgWidth;
    const int32_t iChromaLast = stBand.stBlock.iChromaLast;
    for (int32_t iY = stBand.iStart; iY < stBand.iStart + stBand.iRows; iY += 2) {
        for (int32_t g = 0; g < stBand.iGroups; g++) {
            tagST_LDC_SAMPLE astSample[4];
            const int32_t bContiguous = CorrectLumaGroup(pstWork, &stBand, iY, g, astSample);
            // Nearest chroma pair, rounded half up and always starting on the pair's first byte;
            // clamped into the plane (the bottom row rounds up to one row past it).
            int32_t aiChroma[4];
            for (int32_t k = 0; k < 4; k++) {
                aiChroma[k] = LdcChromaOffset(&stBand.stBlock, 2 * ((astSample[k].iX + 1) >> 1),
                                              (astSample[k].iY + 1) >> 1, iW);
            }
            uint8_t *pucDst = pstWork->pucDstU + (iY * iW) / 2 + stBand.iLeft + 8 * g;
            for (int32_t k = 0; k < 4; k++) {
                const int32_t iSrc = bContiguous ? LdcMinS32(aiChroma[0] + 2 * k, iChromaLast) : aiChroma[k];
                LDC_CHECK_READ(&stBand.stBlock, s_pcKernel, pstWork->pucSrcU + iSrc, 2);
                pucDst[2 * k] = pstWork->pucSrcU[iSrc];
                pucDst[2 * k + 1] = pstWork->pucSrcU[iSrc + 1];
            }
        }
    }
    DistortionCorrectTail_NV12(pstWork, &stBand);
}

void DistortionCorrect_YUV420(const tagST_LDC_WORK *pstWork, int32_t iIndex, int32_t iCount)
{
    static const char *const s_pcKernel = "DistortionCorrect_YUV420";
    tagST_LDC_BAND stBand;
    BeginDistortionBand(pstWork, 1, iIndex, iCount, &stBand);
    const int32_t iW = pstWork->pstPara->iImgWidth;
    const int32_t iHalfW = iW >> 1;
    const int32_t iChromaLast = stBand.stBlock.iChromaLast;
    for (int32_t iY = stBand.iStart; iY < stBand.iStart + stBand.iRows; iY += 2) {
        for (int32_t g = 0; g < stBand.iGroups; g++) {
            tagST_LDC_SAMPLE astSample[4];
            const int32_t bContiguous = CorrectLumaGroup(pstWork, &stBand, iY, g, astSample);
            int32_t aiChroma[4];
            for (int32_t k = 0; k < 4; k++) {
                aiChroma[k] = LdcChromaOffset(&stBand.stBlock, (astSample[k].iX + 1) >> 1,
                                              (astSample[k].iY + 1) >> 1, iHalfW);
            }
            // The NEON twin stores 8 bytes and writes 4 of them back unchanged; the bytes that
            // change are these four per plane.
            const int32_t iDst = (stBand.iLeft >> 1) + 4 * g + (iY * iW) / 4;
            for (int32_t k = 0; k < 4; k++) {
                const int32_t iSrc = bContiguous ? LdcMinS32(aiChroma[0] + k, iChromaLast) : aiChroma[k];
                LDC_CHECK_READ(&stBand.stBlock, s_pcKernel, pstWork->pucSrcU + iSrc, 1);
                LDC_CHECK_READ(&stBand.stBlock, s_pcKernel, pstWork->pucSrcV + iSrc, 1);
                pstWork->pucDstU[iDst + k] = pstWork->pucSrcU[iSrc];
                pstWork->pucDstV[iDst + k] = pstWork->pucSrcV[iSrc];
            }
        }
    }
    DistortionCorrectTail_YUV420(pstWork, &stBand);
}

// Source position of an output pixel in the tail, evaluated as the area search does.
static void MapTailPixel(const tagST_LDC_BAND *pstBand, int32_t iX, float fDy, int32_t *piX, int32_t *piY)
{
    const tagST_RADIAL_MODEL *pstModel = &pstBand->stModel;
    const float fDx = (float)iX - pstModel->fCx;
    const float fF = RadialFactorSerial(pstModel, fDx * fDx + fDy * fDy);
    int32_t bInside;
    *piX = LdcClampIndex(TruncF32ToS32(pstModel->fCx + fF * fDx), pstBand->iInnerX, &bInside);
    *piY = LdcClampIndex(TruncF32ToS32(pstModel->fCy + fF * fDy), pstBand->iInnerY, &bInside);
}

// Nearest-sample luma of one 2 x 2 block; returns the source position through piX / piY.
static void CopyTailLuma(const tagST_LDC_WORK *pstWork, const tagST_LDC_BAND *pstBand, int32_t iX,
                         int32_t iY, int32_t *piX, int32_t *piY)
{
    static const char *const s_pcKernel = "DistortionCorrectTail";
    const int32_t iW = pstWork->pstPara->iImgWidth;
    MapTailPixel(pstBand, iX, (float)iY - pstBand->stModel.fCy, piX, piY);
    const int32_t iSrc = *piY * iW + *piX;
    uint8_t *pucDst = pstWork->pucDstY + iY * iW + iX;
    pucDst[0] = LdcLumaAt(&pstBand->stBlock, s_pcKernel, iSrc);
    pucDst[1] = LdcLumaAt(&pstBand->stBlock, s_pcKernel, iSrc + 1);
    pucDst[iW] = LdcLumaAt(&pstBand->stBlock, s_pcKernel, iSrc + iW);
    pucDst[iW + 1] = LdcLumaAt(&pstBand->stBlock, s_pcKernel, iSrc + iW + 1);
}

void DistortionCorrectTail_NV12(const tagST_LDC_WORK *pstWork, const tagST_LDC_BAND *pstBand)
{
    const int32_t iW = pstWork->pstPara->iImgWidth;
    for (int32_t iY = pstBand->iStart; iY < pstBand->iStart + pstBand->iRows; iY += 2) {
        for (int32_t iX = pstBand->iLeft + 8 * pstBand->iGroups; iX <= pstBand->iRight; iX += 2) {
            int32_t iSx;
            int32_t iSy;
            CopyTailLuma(pstWork, pstBand, iX, iY, &iSx, &iSy);
            // Unlike the groups, the chroma column is not rounded to a pair: an odd source column
            // straddles two pairs. Kept as the tail has always done it. The pair at the end of
            // the last chroma row would pass the plane: clamped to the last pair.
            const uint8_t *pucSrc =
                pstWork->pucSrcU + LdcChromaOffset(&pstBand->stBlock, iSx, iSy >> 1, iW);
            LDC_CHECK_READ(&pstBand->stBlock, "DistortionCorrectTail_NV12", pucSrc, 2);
            uint8_t *pucDst = pstWork->pucDstU + (iY / 2) * iW + iX;
            pucDst[0] = pucSrc[0];
            pucDst[1] = pucSrc[1];
        }
    }
}

void DistortionCorrectTail_YUV420(const tagST_LDC_WORK *pstWork, const tagST_LDC_BAND *pstBand)
{
    const int32_t iHalfW = pstWork->pstPara->iImgWidth >> 1;
    for (int32_t iY = pstBand->iStart; iY < pstBand->iStart + pstBand->iRows; iY += 2) {
        for (int32_t iX = pstBand->iLeft + 8 * pstBand->iGroups; iX <= pstBand->iRight; iX += 2) {
            int32_t iSx;
            int32_t iSy;
            CopyTailLuma(pstWork, pstBand, iX, iY, &iSx, &iSy);
            // Halves rounded down here, half up in the groups: kept as the tail has always done it.
            const int32_t iSrc = LdcChromaOffset(&pstBand->stBlock, iSx >> 1, iSy >> 1, iHalfW);
            const int32_t iDst = (iY / 2) * iHalfW + iX / 2;
            LDC_CHECK_READ(&pstBand->stBlock, "DistortionCorrectTail_YUV420", pstWork->pucSrcU + iSrc, 1);
            LDC_CHECK_READ(&pstBand->stBlock, "DistortionCorrectTail_YUV420", pstWork->pucSrcV + iSrc, 1);
            pstWork->pucDstU[iDst] = pstWork->pucSrcU[iSrc];
            pstWork->pucDstV[iDst] = pstWork->pucSrcV[iSrc];
        }
    }
}

static void *RunBandThread(void *pArg, LdcDistortionBody pfnBody)
{
    const tagST_THREAD_PARAM *pstThread = (const tagST_THREAD_PARAM *)pArg;
    // Always four bands: the count belongs to the entry, not to the thread record.
    pfnBody((const tagST_LDC_WORK *)pstThread->arg, pstThread->index, LDC_THREAD_NUM);
    pthread_exit(NULL);
}

void *DistortionCorrectThread_NV12(void *pArg)
{
    return RunBandThread(pArg, DistortionCorrect_neon_NV12);
}

void *DistortionCorrectThread_YUV420(void *pArg)
{
    return RunBandThread(pArg, DistortionCorrect_neon_YUV420);
}

static void *DistortionCorrectPlainThread_NV12(void *pArg)
{
    return RunBandThread(pArg, DistortionCorrect_NV12);
}

static void *DistortionCorrectPlainThread_YUV420(void *pArg)
{
    return RunBandThread(pArg, DistortionCorrect_YUV420);
}

// x of the top-left pixel of the four blocks of each group, so that the workers never convert
// column numbers: quadruple k is (left + 8k, + 2, + 4, + 6), each one 8.0 past the previous.
static void FillColumnTable(const tagST_LDC_PARA *pstPara, int32_t iLeft, int32_t iRight)
{
    uint8_t *pucTable =
        pstPara->pucWorkBuf + LDC_COLUMN_TABLE_OFFSET(pstPara->iImgWidth, pstPara->iImgHeight);
    if (iRight < iLeft) {
        // An empty rectangle (a collapsed valid area) has no columns; its bands have no rows.
        return;
    }
    const size_t uBytes = LDC_COLUMN_TABLE_BYTES(iLeft, iRight);
    float afQuad[4] = {(float)iLeft, (float)(iLeft + 2), (float)(iLeft + 4), (float)(iLeft + 6)};
    for (size_t uDone = 0; uDone < uBytes; uDone += sizeof(afQuad)) {
        (void)memcpy_s(pucTable + uDone, uBytes - uDone, afQuad, sizeof(afQuad));
        for (int32_t i = 0; i < 4; i++) {
            afQuad[i] += 8.0f;
        }
    }
}

static int32_t RunDistortionCorrect(tagST_LDC_PARA *pstPara, uint8_t *const *ppucSrc, uint8_t *const *ppucDst,
                                    LdcThreadRoutine pfnThread, LdcDistortionBody pfnBody)
{
    const int32_t *piArea = (pstPara->iLDCEnable == 1) ? pstPara->aiLDCArea : pstPara->aiGlobalFDCArea;
    FillColumnTable(pstPara, piArea[0], piArea[2]);
    for (int32_t i = 0; i < LDC_THREAD_NUM; i++) {
        pstPara->aiThreadMask[i] = 1 << i;
        pstPara->aiThreadState[i] = 0;
    }
    const tagST_LDC_WORK stWork = {pstPara,    ppucSrc[0], ppucSrc[1], ppucSrc[2],
                                   ppucDst[0], ppucDst[1], ppucDst[2]};
    if (create_thread_lock(pfnThread, (void *)&stWork, LDC_THREAD_NUM) != 0) {
        // The workers could not be started: one band covering the whole rectangle, here.
        pfnBody(&stWork, 0, 1);
    }
    return 0;
}

// The remap as it was before the resampling core, kept while the move is checked.
int32_t DistortionCorrectBefore(int32_t iPlanar, tagST_LDC_PARA *pstPara, uint8_t *const *ppucSrc,
                                uint8_t *const *ppucDst, int32_t bNeon)
{
    if (bNeon) {
        return iPlanar ? RunDistortionCorrect(pstPara, ppucSrc, ppucDst, DistortionCorrectThread_YUV420,
                                              DistortionCorrect_neon_YUV420)
                       : RunDistortionCorrect(pstPara, ppucSrc, ppucDst, DistortionCorrectThread_NV12,
                                              DistortionCorrect_neon_NV12);
    }
    return iPlanar ? RunDistortionCorrect(pstPara, ppucSrc, ppucDst, DistortionCorrectPlainThread_YUV420,
                                          DistortionCorrect_YUV420)
                   : RunDistortionCorrect(pstPara, ppucSrc, ppucDst, DistortionCorrectPlainThread_NV12,
                                          DistortionCorrect_NV12);
}

void DistortionMapGroups(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                         const uint8_t *pucColumns, tagST_GROUP_POS *pstPos)
{
    (void)iFirst;
    const tagST_RADIAL_MODEL *pstModel = (const tagST_RADIAL_MODEL *)pStage;
    const float fDy = (float)pstRow->iY - pstModel->fCy;
    const float fR2y = fDy * fDy;
    for (int32_t g = 0; g < iCount; g++) {
        float afX[4];
        (void)memcpy_s(afX, sizeof(afX), pucColumns + (size_t)g * RESAMPLE_QUAD_BYTES, sizeof(afX));
        for (int32_t k = 0; k < 4; k++) {
            const float fDx = afX[k] - pstModel->fCx;
            const float fF = RadialFactorGrouped(pstModel, fDx * fDx + fR2y);
            pstPos[g].afX[k] = fF * fDx + pstModel->fCx;
            pstPos[g].afY[k] = fF * fDy + pstModel->fCy;
        }
    }
}

void DistortionMapTail(const void *pStage, int32_t iY, int32_t iX, int32_t iBlocks, tagST_GROUP_POS *pstPos)
{
    const tagST_RADIAL_MODEL *pstModel = (const tagST_RADIAL_MODEL *)pStage;
    const float fDy = (float)iY - pstModel->fCy;
    for (int32_t j = 0; j < iBlocks; j++) {
        const float fDx = (float)(iX + 2 * j) - pstModel->fCx;
        const float fF = RadialFactorSerial(pstModel, fDx * fDx + fDy * fDy);
        pstPos->afX[j] = pstModel->fCx + fF * fDx;
        pstPos->afY[j] = pstModel->fCy + fF * fDy;
    }
}

// The model and rectangle that iLDCEnable chooses, its column table in the working buffer, and the
// core's workers over the rectangle.
static int32_t RemapOnCore(int32_t iPlanar, tagST_LDC_PARA *pstPara, uint8_t *const *ppucSrc,
                           uint8_t *const *ppucDst, int32_t bNeon)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    const int32_t bLens = (pstPara->iLDCEnable == 1) ? 1 : 0;
    const int32_t *piArea = bLens ? pstPara->aiLDCArea : pstPara->aiGlobalFDCArea;
    tagST_RADIAL_MODEL stModel;
    GetRadialModel(pstPara, bLens, &stModel);
    uint8_t *pucColumns = pstPara->pucWorkBuf + LDC_COLUMN_TABLE_OFFSET(iW, iH);
    const int32_t iCols = piArea[2] + 1 - piArea[0];
    if (iCols > 0) {
        // An empty rectangle (a collapsed valid area) has no columns.
        ResampleFillColumns(pucColumns, piArea[0], (iCols + RESAMPLE_GROUP_COLS - 1) / RESAMPLE_GROUP_COLS);
    }
    tagST_RESAMPLE_JOB stJob;
    (void)memset_s(&stJob, sizeof(stJob), 0, sizeof(stJob));
    tagST_RESAMPLE_PLANES *pstPlanes = &stJob.stPlanes;
    pstPlanes->pucSrcY = ppucSrc[0];
    pstPlanes->pucSrcU = ppucSrc[1];
    pstPlanes->pucSrcV = ppucSrc[2];
    pstPlanes->pucDstY = ppucDst[0];
    pstPlanes->pucDstU = ppucDst[1];
    pstPlanes->pucDstV = ppucDst[2];
    pstPlanes->iWidth = iW;
    pstPlanes->iHeight = iH;
    pstPlanes->bPlanar = iPlanar ? 1 : 0;
    pstPlanes->iChromaRowWidth = iW;
    stJob.iLeft = piArea[0];
    stJob.iTop = piArea[1];
    stJob.iCols = iCols;
    stJob.iRows = piArea[3] + 1 - piArea[1];
    stJob.pucColumns = pucColumns;
    stJob.pStage = &stModel;
    stJob.pfnGroups = bNeon ? DistortionMapGroups_neon : DistortionMapGroups;
    stJob.pfnTail = DistortionMapTail;
    stJob.piThreadState = pstPara->aiThreadState;
    stJob.piThreadMask = pstPara->aiThreadMask;
    return bNeon ? ResampleFrame_neon(&stJob) : ResampleFrame(&stJob);
}

int32_t DistortionCorrect_neon(int32_t iPlanar, tagST_LDC_PARA *pstPara, uint8_t *const *ppucSrc,
                               uint8_t *const *ppucDst)
{
    return RemapOnCore(iPlanar, pstPara, ppucSrc, ppucDst, 1);
}

int32_t DistortionCorrect(int32_t iPlanar, tagST_LDC_PARA *pstPara, uint8_t *const *ppucSrc,
                          uint8_t *const *ppucDst)
{
    return RemapOnCore(iPlanar, pstPara, ppucSrc, ppucDst, 0);
}

#if defined(LDC_CHECK_READS)
void LdcCheckReadFailed(const char *pcKernel, ptrdiff_t lOffset, int32_t iBytes, int32_t iBlockBytes)
{
    LdcLog(LDC_LOG_ERROR, "%s reads %d bytes at offset %ld of a %d-byte source frame\n", pcKernel, iBytes,
           (long)lOffset, iBlockBytes);
    abort();
}
#endif

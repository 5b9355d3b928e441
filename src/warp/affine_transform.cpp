// Drivers, thread entries and the plain worker bodies of the affine warp. The plain bodies define
// the bytes: they repeat every single-precision operation of the vector bodies in the same order,
// including the 8-bit reciprocal estimate with its two refinement steps, so that both give the
// same output on every target.
#include "warp/affine_transform.h"

#include <math.h>
#include <stddef.h>

#include "boundscheck/bounds_check.h"
#include "platform/neon.h"
#include "runtime/runtime.h"

void AffineClaimCore(tagST_LDC_PARA *pstPara, int32_t iCount)
{
    ClaimAffinitySlot(pstPara->aiThreadState, pstPara->aiThreadMask, iCount);
}

void AffineBandRows(const tagST_AFFINE_TASK *pstTask, int32_t iIndex, int32_t iCount, int32_t *piRowStart,
                    int32_t *piRowEnd)
{
    const int32_t iShare = (pstTask->iHeight / iCount) & ~1;   // every band starts on a row pair
    *piRowStart = pstTask->iStartY + iIndex * iShare;
    *piRowEnd = (iIndex == iCount - 1) ? pstTask->iStartY + pstTask->iHeight : *piRowStart + iShare;
}

uint8_t *AffineChromaPlane(const tagST_PIC *pstPic)
{
    return (pstPic->pV != NULL && pstPic->pV < pstPic->pU) ? pstPic->pV : pstPic->pU;
}

void AffineFillColumnTable(uint8_t *pucScratch, int32_t iStartX, int32_t iPicWidth)
{
    const int32_t iEntries = (iPicWidth + AFFINE_GROUP_COLS - 1) / AFFINE_GROUP_COLS;
    const size_t uTableBytes = (size_t)iEntries * AFFINE_QUAD_BYTES;
    for (int32_t k = 0; k < iEntries; k++) {
        const int32_t iX = iStartX + AFFINE_GROUP_COLS * k;
        const float afQuad[4] = {(float)iX, (float)(iX + 2), (float)(iX + 4), (float)(iX + 6)};
        (void)memcpy_s(pucScratch + (size_t)k * AFFINE_QUAD_BYTES, uTableBytes - (size_t)k * AFFINE_QUAD_BYTES,
                       afQuad, sizeof(afQuad));
    }
}

// The main pass (and the scalar companions, which share its arithmetic) adds the row's terms
// first: den = m6 x + (m7 y + m8), sx = m0 x + (m1 y + m2), sy = m3 x + (m4 y + m5). The other
// order changes the last bit of some positions and with it a weight, one or two levels.
typedef struct tagST_AFFINE_ROW {
    float fDen;
    float fSx;
    float fSy;
} tagST_AFFINE_ROW;

static inline tagST_AFFINE_ROW AffineRowTerms(const float *pfM, float fY)
{
    const tagST_AFFINE_ROW stRow = {pfM[7] * fY + pfM[8], pfM[1] * fY + pfM[2], pfM[4] * fY + pfM[5]};
    return stRow;
}

// The tail pass adds the terms left to right: den = m6 x + m7 y + m8, and likewise sx and sy.
static inline float AffineTailDen(const float *pfM, float fX, float fY)
{
    return pfM[6] * fX + pfM[7] * fY + pfM[8];
}

static inline float AffineTailNumX(const float *pfM, float fX, float fY)
{
    return pfM[0] * fX + pfM[1] * fY + pfM[2];
}

static inline float AffineTailNumY(const float *pfM, float fX, float fY)
{
    return pfM[3] * fX + pfM[4] * fY + pfM[5];
}

// One bilinear luma pixel at block offset iOff with 7-bit weights. The intermediate widths are
// those of the vector lanes (8-bit weights, 16-bit sums), so out-of-range weights wrap the same
// way there. Every read is clamped into the source block (a no-op except on frames of fewer
// than six rows).
static inline uint8_t InterpolateLumaPixel(const tagST_SRC_BLOCK *pstBlock, const char *pcKernel, int32_t iOff,
                                           int32_t iPitch, uint8_t ucFx, uint8_t ucFy)
{
    const uint8_t ucGx = (uint8_t)(128 - ucFx);
    const uint8_t ucGy = (uint8_t)(128 - ucFy);
    const uint16_t usTop = (uint16_t)(LdcLumaAt(pstBlock, pcKernel, iOff) * ucGx +
                                      LdcLumaAt(pstBlock, pcKernel, iOff + 1) * ucFx);
    const uint16_t usBottom = (uint16_t)(LdcLumaAt(pstBlock, pcKernel, iOff + iPitch) * ucGx +
                                         LdcLumaAt(pstBlock, pcKernel, iOff + iPitch + 1) * ucFx);
    const uint32_t uTop = ((uint32_t)usTop + 32u) >> 6;          // keeps one extra bit, 0..510
    const uint32_t uBottom = ((uint32_t)usBottom + 32u) >> 6;
    const uint32_t uSum = (uint16_t)(uTop * ucGy + uBottom * ucFy) + 128u;
    return (uint8_t)((uSum > 0xFFFFu ? 0xFFFFu : uSum) >> 8);    // saturating add, as the lanes do
}

// 2 x 2 luma block whose pixels share the weights and are sampled one pixel apart.
static inline void InterpolateLumaBlock(uint8_t *pucDst, const tagST_SRC_BLOCK *pstBlock, const char *pcKernel,
                                        int32_t iOff, int32_t iPitch, uint8_t ucFx, uint8_t ucFy)
{
    pucDst[0] = InterpolateLumaPixel(pstBlock, pcKernel, iOff, iPitch, ucFx, ucFy);
    pucDst[1] = InterpolateLumaPixel(pstBlock, pcKernel, iOff + 1, iPitch, ucFx, ucFy);
    pucDst[iPitch] = InterpolateLumaPixel(pstBlock, pcKernel, iOff + iPitch, iPitch, ucFx, ucFy);
    pucDst[iPitch + 1] = InterpolateLumaPixel(pstBlock, pcKernel, iOff + iPitch + 1, iPitch, ucFx, ucFy);
}

// Fraction of v in 1/128 units as the vector code derives it: trunc(128 v) - 128 trunc(v) in
// wrapping 32-bit lanes, narrowed with unsigned saturation to 16 bits, then to a byte.
static inline uint8_t FractionWeight(float fV, int32_t iV)
{
    const int32_t iDiff = (int32_t)((uint32_t)TruncF32ToS32(fV * 128.0f) - ((uint32_t)iV << 7));
    return (uint8_t)(iDiff < 0 ? 0 : (iDiff > 0xFFFF ? 0xFFFF : iDiff));
}

static inline int32_t SaturateS16(int32_t iV)
{
    return iV < -32768 ? -32768 : (iV > 32767 ? 32767 : iV);
}

tagST_AFFINE_LIMITS AffineSourceLimits(const tagST_PIC *pstSrc)
{
    tagST_AFFINE_LIMITS stLimits;
    stLimits.iInnerX = LdcInnerLimit(pstSrc->iWidth);
    stLimits.iInnerY = LdcInnerLimit(pstSrc->iHeight);
    return stLimits;
}

tagST_SRC_BLOCK AffineSourceBlock(const tagST_PIC *pstSrc, int32_t bPlanar)
{
    return LdcSourceBlock(pstSrc->pY, pstSrc->pU, pstSrc->pV, pstSrc->iWidth, pstSrc->iHeight, bPlanar);
}

// Plain twin of the vector main pass: groups of four blocks with the reciprocal estimate.
static void AffineMainPass(const tagST_AFFINE_TASK *pstTask, int32_t iRowStart, int32_t iRowEnd, int32_t bPlanar)
{
    static const char *const s_pcKernel = "AffineTransformBand (main pass)";
    const float *pfM = pstTask->pfMatrix;
    const int32_t iPitch = pstTask->pstSrc->iWidth;
    const int32_t iPitchC = bPlanar ? (iPitch >> 1) : iPitch;
    const int32_t iStepC = bPlanar ? 1 : 2;   // bytes per chroma sample in the plane read
    const int32_t iGroups = pstTask->iWidth / AFFINE_GROUP_COLS;
    const float fDenStep = 8.0f * pfM[6];
    const tagST_AFFINE_LIMITS stLimits = AffineSourceLimits(pstTask->pstSrc);
    const tagST_SRC_BLOCK stBlock = AffineSourceBlock(pstTask->pstSrc, bPlanar);
    const uint8_t *pucSrcC = pstTask->pstSrc->pU;
    const uint8_t *pucSrcV = pstTask->pstSrc->pV;
    uint8_t *pucDstC = pstTask->pstDst->pU;
    uint8_t *pucDstV = pstTask->pstDst->pV;

    for (int32_t iY = iRowStart; iY < iRowEnd; iY += 2) {
        const tagST_AFFINE_ROW stRow = AffineRowTerms(pfM, (float)iY);
        float afX[4];
        float afDen[4];
        (void)memcpy_s(afX, sizeof(afX), pstTask->pucScratch, sizeof(afX));
        for (int32_t k = 0; k < 4; k++) {
            afDen[k] = pfM[6] * afX[k] + stRow.fDen;
        }
        uint8_t *pucDstRow = pstTask->pstDst->pY + (ptrdiff_t)iY * iPitch;
        for (int32_t g = 0; g < iGroups; g++) {
            (void)memcpy_s(afX, sizeof(afX), pstTask->pucScratch + (size_t)g * AFFINE_QUAD_BYTES, sizeof(afX));
            int32_t aiOff[4];
            int32_t aiChroma[4];
            uint8_t aucFx[4];
            uint8_t aucFy[4];
            for (int32_t k = 0; k < 4; k++) {
                float fR = RecipEstimateF32(afDen[k]);
                fR = fR * RecipStepF32(afDen[k], fR);
                fR = fR * RecipStepF32(afDen[k], fR);
                const float fSx = (pfM[0] * afX[k] + stRow.fSx) * fR;
                const float fSy = (pfM[3] * afX[k] + stRow.fSy) * fR;
                // Clamped into the frame: a homography fitted to a few faces sends the far
                // corners of the output well outside the source.
                int32_t bInsideX;
                int32_t bInsideY;
                const int32_t iIx = LdcClampIndex(TruncF32ToS32(fSx), stLimits.iInnerX, &bInsideX);
                const int32_t iIy = LdcClampIndex(TruncF32ToS32(fSy), stLimits.iInnerY, &bInsideY);
                aucFx[k] = bInsideX ? FractionWeight(fSx, iIx) : 0;
                aucFy[k] = bInsideY ? FractionWeight(fSy, iIy) : 0;
                aiOff[k] = iIx + iIy * iPitch;
                // Nearest chroma: halving with rounding half up, clamped into the plane.
                aiChroma[k] = LdcChromaOffset(&stBlock, ((iIx + 1) >> 1) * iStepC, (iIy + 1) >> 1, iPitchC);
                afDen[k] += fDenStep;
            }
            // Only the sum of the saturated differences is tested, deliberately: four blocks
            // whose offsets merely add up like a contiguous strip are read as one.
            int32_t iDiffSum = 0;
            for (int32_t k = 1; k < 4; k++) {
                iDiffSum += SaturateS16(aiOff[k] - aiOff[0]);
            }
            const int32_t bContiguous = (iDiffSum == AFFINE_CONTIGUOUS_SUM);
            const int32_t iX = pstTask->iStartX + AFFINE_GROUP_COLS * g;
            for (int32_t k = 0; k < 4; k++) {
                const int32_t iOff = bContiguous ? aiOff[0] + 2 * k : aiOff[k];
                InterpolateLumaBlock(pucDstRow + iX + 2 * k, &stBlock, s_pcKernel, iOff, iPitch, aucFx[k], aucFy[k]);
            }
            const ptrdiff_t iDstC = (ptrdiff_t)(iY >> 1) * iPitchC + (bPlanar ? (iX >> 1) : iX);
            for (int32_t k = 0; k < 4; k++) {
                const int32_t iC = bContiguous ? LdcMinS32(aiChroma[0] + iStepC * k, stBlock.iChromaLast) : aiChroma[k];
                LDC_CHECK_READ(&stBlock, s_pcKernel, pucSrcC + iC, iStepC);
                if (bPlanar) {
                    LDC_CHECK_READ(&stBlock, s_pcKernel, pucSrcV + iC, 1);
                    pucDstC[iDstC + k] = pucSrcC[iC];
                    pucDstV[iDstC + k] = pucSrcV[iC];
                } else {
                    pucDstC[iDstC + 2 * k] = pucSrcC[iC];
                    pucDstC[iDstC + 2 * k + 1] = pucSrcC[iC + 1];
                }
            }
        }
    }
}

// Nearest-sample luma of one 2 x 2 block at block offset iOff and the chroma of the block:
// semi-planar the pair starting at ix as it is (not rounded to a pair boundary like the main
// pass: an odd ix straddles two pairs, kept so on purpose), planar the samples at half ix and iy
// rounded down.
static void CopyNearestBlock(const tagST_AFFINE_TASK *pstTask, const tagST_SRC_BLOCK *pstBlock, int32_t bPlanar,
                             int32_t iX, int32_t iY, int32_t iIx, int32_t iIy)
{
    static const char *const s_pcKernel = "AffineTail";
    const int32_t iPitch = pstTask->pstSrc->iWidth;
    const int32_t iPitchC = bPlanar ? (iPitch >> 1) : iPitch;
    const int32_t iOff = iIx + iIy * iPitch;
    uint8_t *pucD = pstTask->pstDst->pY + (ptrdiff_t)iY * iPitch + iX;
    pucD[0] = LdcLumaAt(pstBlock, s_pcKernel, iOff);
    pucD[1] = LdcLumaAt(pstBlock, s_pcKernel, iOff + 1);
    pucD[iPitch] = LdcLumaAt(pstBlock, s_pcKernel, iOff + iPitch);
    pucD[iPitch + 1] = LdcLumaAt(pstBlock, s_pcKernel, iOff + iPitch + 1);
    const ptrdiff_t iD = (ptrdiff_t)(iY >> 1) * iPitchC + (bPlanar ? (iX >> 1) : iX);
    const int32_t iS = LdcChromaOffset(pstBlock, bPlanar ? (iIx >> 1) : iIx, iIy >> 1, iPitchC);
    const uint8_t *pucSrcC = pstTask->pstSrc->pU;
    uint8_t *pucDstC = pstTask->pstDst->pU;
    LDC_CHECK_READ(pstBlock, s_pcKernel, pucSrcC + iS, bPlanar ? 1 : 2);
    if (bPlanar) {
        LDC_CHECK_READ(pstBlock, s_pcKernel, pstTask->pstSrc->pV + iS, 1);
        pucDstC[iD] = pucSrcC[iS];
        pstTask->pstDst->pV[iD] = pstTask->pstSrc->pV[iS];
    } else {
        pucDstC[iD] = pucSrcC[iS];
        pucDstC[iD + 1] = pucSrcC[iS + 1];
    }
}

static void AffineTail(const tagST_AFFINE_TASK *pstTask, int32_t iRowStart, int32_t iRowEnd, int32_t bPlanar)
{
    const int32_t iTailX = pstTask->iStartX + (pstTask->iWidth / AFFINE_GROUP_COLS) * AFFINE_GROUP_COLS;
    const int32_t iEndX = pstTask->iStartX + pstTask->iWidth;
    if (iTailX >= iEndX) {
        return;
    }
    const float *pfM = pstTask->pfMatrix;
    const tagST_AFFINE_LIMITS stLimits = AffineSourceLimits(pstTask->pstSrc);
    const tagST_SRC_BLOCK stBlock = AffineSourceBlock(pstTask->pstSrc, bPlanar);

    for (int32_t iY = iRowStart; iY < iRowEnd; iY += 2) {
        const float fY = (float)iY;
        const float fR = 1.0f / AffineTailDen(pfM, (float)iTailX, fY);
        for (int32_t iX = iTailX; iX < iEndX; iX += 2) {
            const float fX = (float)iX;
            // Clamped into the frame like the main pass.
            int32_t bInside;
            const int32_t iIx = LdcClampIndex(TruncF32ToS32(AffineTailNumX(pfM, fX, fY) * fR), stLimits.iInnerX, &bInside);
            const int32_t iIy = LdcClampIndex(TruncF32ToS32(AffineTailNumY(pfM, fX, fY) * fR), stLimits.iInnerY, &bInside);
            CopyNearestBlock(pstTask, &stBlock, bPlanar, iX, iY, iIx, iIy);
        }
    }
}

void AffineTail_NV12(const tagST_AFFINE_TASK *pstTask, int32_t iRowStart, int32_t iRowEnd)
{
    AffineTail(pstTask, iRowStart, iRowEnd, 0);
}

void AffineTail_YUV420(const tagST_AFFINE_TASK *pstTask, int32_t iRowStart, int32_t iRowEnd)
{
    AffineTail(pstTask, iRowStart, iRowEnd, 1);
}

int32_t AffineTransformBand_NV12(const tagST_AFFINE_TASK *pstTask, int32_t iIndex, int32_t iCount)
{
    int32_t iRowStart;
    int32_t iRowEnd;
    AffineClaimCore(pstTask->pstPara, iCount);
    AffineBandRows(pstTask, iIndex, iCount, &iRowStart, &iRowEnd);
    AffineMainPass(pstTask, iRowStart, iRowEnd, 0);
    AffineTail_NV12(pstTask, iRowStart, iRowEnd);
    return 0;
}

int32_t AffineTransformBand_YUV420(const tagST_AFFINE_TASK *pstTask, int32_t iIndex, int32_t iCount)
{
    int32_t iRowStart;
    int32_t iRowEnd;
    AffineClaimCore(pstTask->pstPara, iCount);
    AffineBandRows(pstTask, iIndex, iCount, &iRowStart, &iRowEnd);
    AffineMainPass(pstTask, iRowStart, iRowEnd, 1);
    AffineTail_YUV420(pstTask, iRowStart, iRowEnd);
    return 0;
}

// Thread entries: the band count is the stage's constant, not taken from the record.
static void *AffineTransformThread_NV12(void *pArg)
{
    const tagST_THREAD_PARAM *pstThread = (const tagST_THREAD_PARAM *)pArg;
    (void)AffineTransformBand_neon_NV12((const tagST_AFFINE_TASK *)pstThread->arg, pstThread->index,
                                        LDC_THREAD_NUM);
    return NULL;
}

static void *AffineTransformThread_YUV420(void *pArg)
{
    const tagST_THREAD_PARAM *pstThread = (const tagST_THREAD_PARAM *)pArg;
    (void)AffineTransformBand_neon_YUV420((const tagST_AFFINE_TASK *)pstThread->arg, pstThread->index,
                                          LDC_THREAD_NUM);
    return NULL;
}

static int32_t RunAffineWorkers(tagST_LDC_PARA *pstPara, tagST_PIC *pstSrc, tagST_PIC *pstDst, float *pfMatrix,
                                tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch, LdcThreadRoutine pfnEntry,
                                int32_t (*pfnBand)(const tagST_AFFINE_TASK *, int32_t, int32_t))
{
    AffineFillColumnTable(pucScratch, pstArea->iStartX, pstSrc->iWidth);
    tagST_AFFINE_TASK stTask = {pstSrc, pstDst, pstArea->iStartX, pstArea->iStartY, pstArea->iWidth,
                                pstArea->iHeight, pfMatrix, pucScratch, pstPara};
    for (int32_t i = 0; i < LDC_THREAD_NUM; i++) {
        pstPara->aiThreadMask[i] = 1 << i;
        pstPara->aiThreadState[i] = 0;
    }
    if (create_thread_lock(pfnEntry, &stTask, LDC_THREAD_NUM) != 0) {
        // Workers could not be started: this thread warps the whole area (and stays pinned).
        (void)pfnBand(&stTask, 0, 1);
    }
    return 0;
}

// The warp as it was before the resampling core, kept while the move is checked.
int32_t AffineTransformBefore(tagST_LDC_PARA *pstPara, tagST_PIC *pstSrc, tagST_PIC *pstDst, float *pfMatrix,
                              tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch, int32_t bPlanar)
{
    return bPlanar ? RunAffineWorkers(pstPara, pstSrc, pstDst, pfMatrix, pstArea, pucScratch,
                                      AffineTransformThread_YUV420, AffineTransformBand_neon_YUV420)
                   : RunAffineWorkers(pstPara, pstSrc, pstDst, pfMatrix, pstArea, pucScratch,
                                      AffineTransformThread_NV12, AffineTransformBand_neon_NV12);
}

void AffineMapGroups(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                     const uint8_t *pucColumns, tagST_GROUP_POS *pstPos)
{
    const float *pfM = (const float *)pStage;
    const tagST_AFFINE_ROW stRow = AffineRowTerms(pfM, (float)pstRow->iY);
    const float fDenStep = 8.0f * pfM[6];
    float afX[4];
    if (iFirst == 0) {
        (void)memcpy_s(afX, sizeof(afX), pucColumns, sizeof(afX));
        for (int32_t k = 0; k < 4; k++) {
            pstRow->afCarry[k] = pfM[6] * afX[k] + stRow.fDen;
        }
    }
    for (int32_t g = 0; g < iCount; g++) {
        (void)memcpy_s(afX, sizeof(afX), pucColumns + (size_t)g * RESAMPLE_QUAD_BYTES, sizeof(afX));
        for (int32_t k = 0; k < 4; k++) {
            const float fDen = pstRow->afCarry[k];
            float fR = RecipEstimateF32(fDen);
            fR = fR * RecipStepF32(fDen, fR);
            fR = fR * RecipStepF32(fDen, fR);
            pstPos[g].afX[k] = (pfM[0] * afX[k] + stRow.fSx) * fR;
            pstPos[g].afY[k] = (pfM[3] * afX[k] + stRow.fSy) * fR;
            pstRow->afCarry[k] = fDen + fDenStep;
        }
    }
}

void AffineMapTail(const void *pStage, int32_t iY, int32_t iX, int32_t iBlocks, tagST_GROUP_POS *pstPos)
{
    const float *pfM = (const float *)pStage;
    const float fY = (float)iY;
    // One true division per row pair at the first tail column: the tail is treated as affine
    // within a row, deliberately.
    const float fR = 1.0f / AffineTailDen(pfM, (float)iX, fY);
    for (int32_t j = 0; j < iBlocks; j++) {
        const float fX = (float)(iX + 2 * j);
        pstPos->afX[j] = AffineTailNumX(pfM, fX, fY) * fR;
        pstPos->afY[j] = AffineTailNumY(pfM, fX, fY) * fR;
    }
}

int32_t AffineTransformBands(tagST_LDC_PARA *pstPara, tagST_PIC *pstSrc, tagST_PIC *pstDst, float *pfMatrix,
                              tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch, int32_t bPlanar, int32_t bNeon)
{
    const int32_t iW = pstSrc->iWidth;
    ResampleFillColumns(pucScratch, pstArea->iStartX, (iW + RESAMPLE_GROUP_COLS - 1) / RESAMPLE_GROUP_COLS);
    tagST_RESAMPLE_JOB stJob;
    (void)memset_s(&stJob, sizeof(stJob), 0, sizeof(stJob));
    tagST_RESAMPLE_PLANES *pstPlanes = &stJob.stPlanes;
    pstPlanes->pucSrcY = pstSrc->pY;
    pstPlanes->pucSrcU = pstSrc->pU;
    pstPlanes->pucSrcV = pstSrc->pV;
    pstPlanes->pucDstY = pstDst->pY;
    pstPlanes->pucDstU = pstDst->pU;
    pstPlanes->pucDstV = pstDst->pV;
    pstPlanes->iWidth = iW;
    pstPlanes->iHeight = pstSrc->iHeight;
    pstPlanes->bPlanar = bPlanar;
    pstPlanes->iChromaRowWidth = bPlanar ? iW & ~1 : iW;   // rows (W >> 1) apart in each plane
    stJob.iLeft = pstArea->iStartX;
    stJob.iTop = pstArea->iStartY;
    stJob.iCols = pstArea->iWidth;
    stJob.iRows = pstArea->iHeight;
    stJob.pucColumns = pucScratch;
    stJob.pStage = pfMatrix;
    stJob.pfnGroups = bNeon ? AffineMapGroups_neon : AffineMapGroups;
    stJob.pfnTail = AffineMapTail;
    stJob.piThreadState = pstPara->aiThreadState;
    stJob.piThreadMask = pstPara->aiThreadMask;
    return bNeon ? ResampleFrame_neon(&stJob) : ResampleFrame(&stJob);
}

int32_t AffineTransform_neon_NV12(tagST_LDC_PARA *pstPara, tagST_PIC *pstFrame, tagST_PIC *pstSrc,
                                  tagST_PIC *pstDst, float *pfMatrix, tagST_REGISTRATION_AREA *pstArea,
                                  uint8_t *pucScratch)
{
    (void)pstFrame;
    return AffineTransformBands(pstPara, pstSrc, pstDst, pfMatrix, pstArea, pucScratch, 0, 1);
}

int32_t AffineTransform_neon_YUV420(tagST_LDC_PARA *pstPara, tagST_PIC *pstFrame, tagST_PIC *pstSrc,
                                    tagST_PIC *pstDst, float *pfMatrix, tagST_REGISTRATION_AREA *pstArea,
                                    uint8_t *pucScratch)
{
    (void)pstFrame;
    return AffineTransformBands(pstPara, pstSrc, pstDst, pfMatrix, pstArea, pucScratch, 1, 1);
}

int32_t AffineTransform_neon(tagST_LDC_PARA *pstPara, tagST_PIC *pstFrame, tagST_PIC *pstSrc, tagST_PIC *pstDst,
                             float *pfMatrix, tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch)
{
    if (pstPara->ePicType == LDC_PIC_YUV420) {
        return AffineTransform_neon_YUV420(pstPara, pstFrame, pstSrc, pstDst, pfMatrix, pstArea, pucScratch);
    }
    return AffineTransform_neon_NV12(pstPara, pstFrame, pstSrc, pstDst, pfMatrix, pstArea, pucScratch);
}

// Weight of the scalar companions: the absolute fraction times 128, truncated.
static inline uint8_t AbsFractionWeight(float fV, int32_t iV)
{
    return (uint8_t)TruncF32ToS32(fabsf(fV - (float)iV) * 128.0f);
}

static inline int32_t ClampS32(int32_t iV, int32_t iLo, int32_t iHi)
{
    return iV < iLo ? iLo : (iV > iHi ? iHi : iV);
}

// The scalar companions take the frame's size from pstGeometry and its planes from pstSrc.
static tagST_RESAMPLE_PLANES CompanionPlanes(const tagST_PIC *pstGeometry, const tagST_PIC *pstSrc,
                                             const tagST_PIC *pstDst, int32_t bPlanar)
{
    tagST_RESAMPLE_PLANES stPlanes;
    (void)memset_s(&stPlanes, sizeof(stPlanes), 0, sizeof(stPlanes));
    stPlanes.pucSrcY = pstSrc->pY;
    stPlanes.pucSrcU = pstSrc->pU;
    stPlanes.pucSrcV = pstSrc->pV;
    stPlanes.pucDstY = pstDst->pY;
    stPlanes.pucDstU = pstDst->pU;
    stPlanes.pucDstV = pstDst->pV;
    stPlanes.iWidth = pstGeometry->iWidth;
    stPlanes.iHeight = pstGeometry->iHeight;
    stPlanes.bPlanar = bPlanar;
    ResamplePreparePlanes(&stPlanes);
    return stPlanes;
}

int32_t AffineTransform_NV12(tagST_PIC *pstGeometry, tagST_PIC *pstSrc, tagST_PIC *pstDst, float *pfMatrix,
                             tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch)
{
    (void)pucScratch;
    const float *pfM = pfMatrix;
    const int32_t iEndX = pstArea->iStartX + pstArea->iWidth;
    const float fDenStep = 8.0f * pfM[6];
    const tagST_RESAMPLE_PLANES stPlanes = CompanionPlanes(pstGeometry, pstSrc, pstDst, 0);

    for (int32_t iY = pstArea->iStartY; iY < pstArea->iStartY + pstArea->iHeight; iY += 2) {
        const tagST_AFFINE_ROW stRow = AffineRowTerms(pfM, (float)iY);
        float fDen = pfM[6] * (float)pstArea->iStartX + stRow.fDen;
        float fR = 0.0f;
        for (int32_t iX = pstArea->iStartX; iX < iEndX; iX += 2) {
            // One exact reciprocal per 8 columns, taken at the group's first block; a last
            // partial group is handled like a whole one.
            if ((iX - pstArea->iStartX) % RESAMPLE_GROUP_COLS == 0) {
                fR = 1.0f / fDen;
                fDen += fDenStep;
            }
            const float fX = (float)iX;
            const float fSx = (pfM[0] * fX + stRow.fSx) * fR;
            const float fSy = (pfM[3] * fX + stRow.fSy) * fR;
            // Clamped into the frame like the worker kernels.
            int32_t bInsideX;
            int32_t bInsideY;
            const int32_t iIx = ResampleClampIndex(TruncF32ToS32(fSx), stPlanes.iInnerX, &bInsideX);
            const int32_t iIy = ResampleClampIndex(TruncF32ToS32(fSy), stPlanes.iInnerY, &bInsideY);
            ResampleBilinearBlock(&stPlanes, iX, iY, iIx, iIy, bInsideX ? AbsFractionWeight(fSx, iIx) : 0,
                                  bInsideY ? AbsFractionWeight(fSy, iIy) : 0);
        }
    }
    return 0;
}

int32_t AffineTransform_YUV420(tagST_PIC *pstGeometry, tagST_PIC *pstSrc, tagST_PIC *pstDst, float *pfMatrix,
                               tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch)
{
    (void)pucScratch;
    const float *pfM = pfMatrix;
    const int32_t iEndX = pstArea->iStartX + pstArea->iWidth;
    const float fDenStep = 2.0f * pfM[6];
    const tagST_RESAMPLE_PLANES stPlanes = CompanionPlanes(pstGeometry, pstSrc, pstDst, 1);

    for (int32_t iY = pstArea->iStartY; iY < pstArea->iStartY + pstArea->iHeight; iY += 2) {
        const tagST_AFFINE_ROW stRow = AffineRowTerms(pfM, (float)iY);
        float fDen = pfM[6] * (float)pstArea->iStartX + stRow.fDen;
        for (int32_t iX = pstArea->iStartX; iX < iEndX; iX += 2) {
            const float fX = (float)iX;
            const float fSx = (pfM[0] * fX + stRow.fSx) / fDen;
            const float fSy = (pfM[3] * fX + stRow.fSy) / fDen;
            fDen += fDenStep;
            // Clamped into the frame like the worker kernels, then this companion's own limits,
            // which use the area's width and height as upper bounds, not its far edges; kept so
            // on purpose. The weights come from the position before the area limits.
            int32_t bInsideX;
            int32_t bInsideY;
            const int32_t iRawX = ResampleClampIndex(TruncF32ToS32(fSx), stPlanes.iInnerX, &bInsideX);
            const int32_t iRawY = ResampleClampIndex(TruncF32ToS32(fSy), stPlanes.iInnerY, &bInsideY);
            ResampleBilinearBlock(&stPlanes, iX, iY, ClampS32(iRawX, pstArea->iStartX, pstArea->iWidth - 1),
                                  ClampS32(iRawY, pstArea->iStartY, pstArea->iHeight - 1),
                                  bInsideX ? AbsFractionWeight(fSx, iRawX) : 0,
                                  bInsideY ? AbsFractionWeight(fSy, iRawY) : 0);
        }
    }
    return 0;
}

int32_t AffineTransform(tagST_PIC *pstGeometry, tagST_PIC *pstSrc, tagST_PIC *pstDst, float *pfMatrix,
                        tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch, int32_t iPicType)
{
    if (iPicType == LDC_PIC_YUV420) {
        return AffineTransform_YUV420(pstGeometry, pstSrc, pstDst, pfMatrix, pstArea, pucScratch);
    }
    return AffineTransform_NV12(pstGeometry, pstSrc, pstDst, pfMatrix, pstArea, pucScratch);
}

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
    // Plain reads and writes without a lock: a lost race only moves a worker to another core.
    for (int32_t i = 0; i < iCount && i < LDC_THREAD_NUM; i++) {
        if (pstPara->aiThreadState[i] == 0) {
            pstPara->aiThreadState[i] = 1;
            (void)set_thread_affinity_mask(pstPara->aiThreadMask[i]);
            return;
        }
    }
    (void)set_thread_affinity_mask(-1);
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

// Denominator and numerators of the mapping as the scalar passes evaluate them.
static inline float AffineDen(const float *pfM, float fX, float fY)
{
    return pfM[6] * fX + pfM[7] * fY + pfM[8];
}

static inline float AffineNumX(const float *pfM, float fX, float fY)
{
    return pfM[0] * fX + pfM[1] * fY + pfM[2];
}

static inline float AffineNumY(const float *pfM, float fX, float fY)
{
    return pfM[3] * fX + pfM[4] * fY + pfM[5];
}

// One bilinear luma pixel at p with 7-bit weights. The intermediate widths are those of the
// vector lanes (8-bit weights, 16-bit sums), so out-of-range weights wrap the same way there.
static inline uint8_t InterpolateLumaPixel(const uint8_t *p, int32_t iPitch, uint8_t ucFx, uint8_t ucFy)
{
    const uint8_t ucGx = (uint8_t)(128 - ucFx);
    const uint8_t ucGy = (uint8_t)(128 - ucFy);
    const uint16_t usTop = (uint16_t)(p[0] * ucGx + p[1] * ucFx);
    const uint16_t usBottom = (uint16_t)(p[iPitch] * ucGx + p[iPitch + 1] * ucFx);
    const uint32_t uTop = ((uint32_t)usTop + 32u) >> 6;          // keeps one extra bit, 0..510
    const uint32_t uBottom = ((uint32_t)usBottom + 32u) >> 6;
    const uint32_t uSum = (uint16_t)(uTop * ucGy + uBottom * ucFy) + 128u;
    return (uint8_t)((uSum > 0xFFFFu ? 0xFFFFu : uSum) >> 8);    // saturating add, as the lanes do
}

// 2 x 2 luma block whose pixels share the weights and are sampled one pixel apart.
static inline void InterpolateLumaBlock(uint8_t *pucDst, const uint8_t *pucSrc, int32_t iPitch, uint8_t ucFx,
                                        uint8_t ucFy)
{
    pucDst[0] = InterpolateLumaPixel(pucSrc, iPitch, ucFx, ucFy);
    pucDst[1] = InterpolateLumaPixel(pucSrc + 1, iPitch, ucFx, ucFy);
    pucDst[iPitch] = InterpolateLumaPixel(pucSrc + iPitch, iPitch, ucFx, ucFy);
    pucDst[iPitch + 1] = InterpolateLumaPixel(pucSrc + iPitch + 1, iPitch, ucFx, ucFy);
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

// Plain twin of the vector main pass: groups of four blocks with the reciprocal estimate.
static void AffineMainPass(const tagST_AFFINE_TASK *pstTask, int32_t iRowStart, int32_t iRowEnd, int32_t bPlanar)
{
    const float *pfM = pstTask->pfMatrix;
    const int32_t iPitch = pstTask->pstSrc->iWidth;
    const int32_t iPitchC = bPlanar ? (iPitch >> 1) : iPitch;
    const int32_t iGroups = pstTask->iWidth / AFFINE_GROUP_COLS;
    const float fDenStep = 8.0f * pfM[6];
    const uint8_t *pucSrcY = pstTask->pstSrc->pY;
    const uint8_t *pucSrcC = bPlanar ? pstTask->pstSrc->pU : AffineChromaPlane(pstTask->pstSrc);
    const uint8_t *pucSrcV = pstTask->pstSrc->pV;
    uint8_t *pucDstC = bPlanar ? pstTask->pstDst->pU : AffineChromaPlane(pstTask->pstDst);
    uint8_t *pucDstV = pstTask->pstDst->pV;

    for (int32_t iY = iRowStart; iY < iRowEnd; iY += 2) {
        const float fY = (float)iY;
        const float fDenRow = pfM[7] * fY + pfM[8];
        const float fSxRow = pfM[1] * fY + pfM[2];
        const float fSyRow = pfM[4] * fY + pfM[5];
        float afX[4];
        float afDen[4];
        (void)memcpy_s(afX, sizeof(afX), pstTask->pucScratch, sizeof(afX));
        for (int32_t k = 0; k < 4; k++) {
            afDen[k] = pfM[6] * afX[k] + fDenRow;
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
                const float fSx = (pfM[0] * afX[k] + fSxRow) * fR;
                const float fSy = (pfM[3] * afX[k] + fSyRow) * fR;
                const int32_t iIx = TruncF32ToS32(fSx);
                const int32_t iIy = TruncF32ToS32(fSy);
                aucFx[k] = FractionWeight(fSx, iIx);
                aucFy[k] = FractionWeight(fSy, iIy);
                aiOff[k] = (int32_t)((uint32_t)iIx + (uint32_t)iIy * (uint32_t)iPitch);
                // Nearest chroma: halving with rounding half up; a semi-planar pair is 2 bytes.
                const int32_t iCx = (int32_t)((uint32_t)iIx + 1u) >> 1;
                const int32_t iCy = (int32_t)((uint32_t)iIy + 1u) >> 1;
                aiChroma[k] = (int32_t)((uint32_t)iCy * (uint32_t)iPitchC + (uint32_t)iCx * (bPlanar ? 1u : 2u));
                afDen[k] += fDenStep;
            }
            // Only the sum of the saturated differences is tested, deliberately: four blocks
            // whose offsets merely add up like a contiguous strip are read as one.
            int32_t iDiffSum = 0;
            for (int32_t k = 1; k < 4; k++) {
                iDiffSum += SaturateS16((int32_t)((uint32_t)aiOff[k] - (uint32_t)aiOff[0]));
            }
            const int32_t bContiguous = (iDiffSum == AFFINE_CONTIGUOUS_SUM);
            const int32_t iX = pstTask->iStartX + AFFINE_GROUP_COLS * g;
            for (int32_t k = 0; k < 4; k++) {
                const int32_t iOff = bContiguous ? aiOff[0] + 2 * k : aiOff[k];
                InterpolateLumaBlock(pucDstRow + iX + 2 * k, pucSrcY + iOff, iPitch, aucFx[k], aucFy[k]);
            }
            const ptrdiff_t iDstC = (ptrdiff_t)(iY >> 1) * iPitchC + (bPlanar ? (iX >> 1) : iX);
            for (int32_t k = 0; k < 4; k++) {
                const int32_t iC = bContiguous ? aiChroma[0] + (bPlanar ? k : 2 * k) : aiChroma[k];
                if (bPlanar) {
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

static void AffineTail(const tagST_AFFINE_TASK *pstTask, int32_t iRowStart, int32_t iRowEnd, int32_t bPlanar)
{
    const int32_t iTailX = pstTask->iStartX + (pstTask->iWidth / AFFINE_GROUP_COLS) * AFFINE_GROUP_COLS;
    const int32_t iEndX = pstTask->iStartX + pstTask->iWidth;
    if (iTailX >= iEndX) {
        return;
    }
    const float *pfM = pstTask->pfMatrix;
    const int32_t iPitch = pstTask->pstSrc->iWidth;
    const int32_t iPitchC = bPlanar ? (iPitch >> 1) : iPitch;
    const uint8_t *pucSrcY = pstTask->pstSrc->pY;
    uint8_t *pucDstY = pstTask->pstDst->pY;
    const uint8_t *pucSrcC = bPlanar ? pstTask->pstSrc->pU : AffineChromaPlane(pstTask->pstSrc);
    uint8_t *pucDstC = bPlanar ? pstTask->pstDst->pU : AffineChromaPlane(pstTask->pstDst);

    for (int32_t iY = iRowStart; iY < iRowEnd; iY += 2) {
        const float fY = (float)iY;
        const float fR = 1.0f / AffineDen(pfM, (float)iTailX, fY);
        for (int32_t iX = iTailX; iX < iEndX; iX += 2) {
            const float fX = (float)iX;
            const int32_t iIx = TruncF32ToS32(AffineNumX(pfM, fX, fY) * fR);
            const int32_t iIy = TruncF32ToS32(AffineNumY(pfM, fX, fY) * fR);
            const uint8_t *pucS = pucSrcY + (ptrdiff_t)iIy * iPitch + iIx;
            uint8_t *pucD = pucDstY + (ptrdiff_t)iY * iPitch + iX;
            pucD[0] = pucS[0];
            pucD[1] = pucS[1];
            pucD[iPitch] = pucS[iPitch];
            pucD[iPitch + 1] = pucS[iPitch + 1];
            if (bPlanar) {
                const ptrdiff_t iS = (ptrdiff_t)(iIy >> 1) * iPitchC + (iIx >> 1);
                const ptrdiff_t iD = (ptrdiff_t)(iY >> 1) * iPitchC + (iX >> 1);
                pucDstC[iD] = pucSrcC[iS];
                pstTask->pstDst->pV[iD] = pstTask->pstSrc->pV[iS];
            } else {
                // The tail takes the pair at ix as it is, not rounded to a pair boundary like the
                // main pass: an odd ix straddles two pairs. Kept so on purpose.
                const ptrdiff_t iS = (ptrdiff_t)(iIy >> 1) * iPitchC + iIx;
                const ptrdiff_t iD = (ptrdiff_t)(iY >> 1) * iPitchC + iX;
                pucDstC[iD] = pucSrcC[iS];
                pucDstC[iD + 1] = pucSrcC[iS + 1];
            }
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

int32_t AffineTransform_neon_NV12(tagST_LDC_PARA *pstPara, tagST_PIC *pstFrame, tagST_PIC *pstSrc,
                                  tagST_PIC *pstDst, float *pfMatrix, tagST_REGISTRATION_AREA *pstArea,
                                  uint8_t *pucScratch)
{
    (void)pstFrame;
    return RunAffineWorkers(pstPara, pstSrc, pstDst, pfMatrix, pstArea, pucScratch, AffineTransformThread_NV12,
                            AffineTransformBand_neon_NV12);
}

int32_t AffineTransform_neon_YUV420(tagST_LDC_PARA *pstPara, tagST_PIC *pstFrame, tagST_PIC *pstSrc,
                                    tagST_PIC *pstDst, float *pfMatrix, tagST_REGISTRATION_AREA *pstArea,
                                    uint8_t *pucScratch)
{
    (void)pstFrame;
    return RunAffineWorkers(pstPara, pstSrc, pstDst, pfMatrix, pstArea, pucScratch,
                            AffineTransformThread_YUV420, AffineTransformBand_neon_YUV420);
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

int32_t AffineTransform_NV12(tagST_PIC *pstGeometry, tagST_PIC *pstSrc, tagST_PIC *pstDst, float *pfMatrix,
                             tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch)
{
    (void)pucScratch;
    const float *pfM = pfMatrix;
    const int32_t iPitch = pstGeometry->iWidth;
    const int32_t iEndX = pstArea->iStartX + pstArea->iWidth;
    const float fDenStep = 8.0f * pfM[6];
    const uint8_t *pucSrcC = AffineChromaPlane(pstSrc);
    uint8_t *pucDstC = AffineChromaPlane(pstDst);

    for (int32_t iY = pstArea->iStartY; iY < pstArea->iStartY + pstArea->iHeight; iY += 2) {
        const float fY = (float)iY;
        float fDen = AffineDen(pfM, (float)pstArea->iStartX, fY);
        float fR = 0.0f;
        for (int32_t iX = pstArea->iStartX; iX < iEndX; iX += 2) {
            // One exact reciprocal per 8 columns, taken at the group's first block; a last
            // partial group is handled like a whole one.
            if ((iX - pstArea->iStartX) % AFFINE_GROUP_COLS == 0) {
                fR = 1.0f / fDen;
                fDen += fDenStep;
            }
            const float fX = (float)iX;
            const float fSx = AffineNumX(pfM, fX, fY) * fR;
            const float fSy = AffineNumY(pfM, fX, fY) * fR;
            const int32_t iIx = TruncF32ToS32(fSx);
            const int32_t iIy = TruncF32ToS32(fSy);
            InterpolateLumaBlock(pstDst->pY + (ptrdiff_t)iY * iPitch + iX,
                                 pstSrc->pY + (ptrdiff_t)iIy * iPitch + iIx, iPitch, AbsFractionWeight(fSx, iIx),
                                 AbsFractionWeight(fSy, iIy));
            const ptrdiff_t iS = (ptrdiff_t)((iIy + 1) >> 1) * iPitch + 2 * ((iIx + 1) >> 1);
            const ptrdiff_t iD = (ptrdiff_t)(iY >> 1) * iPitch + iX;
            pucDstC[iD] = pucSrcC[iS];
            pucDstC[iD + 1] = pucSrcC[iS + 1];
        }
    }
    return 0;
}

int32_t AffineTransform_YUV420(tagST_PIC *pstGeometry, tagST_PIC *pstSrc, tagST_PIC *pstDst, float *pfMatrix,
                               tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch)
{
    (void)pucScratch;
    const float *pfM = pfMatrix;
    const int32_t iPitch = pstGeometry->iWidth;
    const int32_t iPitchC = iPitch >> 1;
    const int32_t iEndX = pstArea->iStartX + pstArea->iWidth;
    const float fDenStep = 2.0f * pfM[6];

    for (int32_t iY = pstArea->iStartY; iY < pstArea->iStartY + pstArea->iHeight; iY += 2) {
        const float fY = (float)iY;
        float fDen = AffineDen(pfM, (float)pstArea->iStartX, fY);
        for (int32_t iX = pstArea->iStartX; iX < iEndX; iX += 2) {
            const float fX = (float)iX;
            const float fSx = AffineNumX(pfM, fX, fY) / fDen;
            const float fSy = AffineNumY(pfM, fX, fY) / fDen;
            fDen += fDenStep;
            // The limits use the area's width and height as upper bounds, not its far edges;
            // kept so on purpose. The weights come from the unlimited position.
            const int32_t iRawX = TruncF32ToS32(fSx);
            const int32_t iRawY = TruncF32ToS32(fSy);
            const int32_t iIx = ClampS32(iRawX, pstArea->iStartX, pstArea->iWidth - 1);
            const int32_t iIy = ClampS32(iRawY, pstArea->iStartY, pstArea->iHeight - 1);
            InterpolateLumaBlock(pstDst->pY + (ptrdiff_t)iY * iPitch + iX,
                                 pstSrc->pY + (ptrdiff_t)iIy * iPitch + iIx, iPitch,
                                 AbsFractionWeight(fSx, iRawX), AbsFractionWeight(fSy, iRawY));
            const ptrdiff_t iS = (ptrdiff_t)((iIy + 1) >> 1) * iPitchC + ((iIx + 1) >> 1);
            const ptrdiff_t iD = (ptrdiff_t)(iY >> 1) * iPitchC + (iX >> 1);
            pstDst->pU[iD] = pstSrc->pU[iS];
            pstDst->pV[iD] = pstSrc->pV[iS];
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

// The warp's own part: the matrix positions for the resampling core, the drivers, and the scalar
// companions. The plain position functions define the bytes: they repeat every single-precision
// operation of the vector twin in the same order, including the 8-bit reciprocal estimate with
// its two refinement steps, so that both give the same output on every target.
#include "warp/affine_transform.h"

#include <math.h>
#include <stddef.h>

#include "boundscheck/bounds_check.h"
#include "platform/neon.h"

uint8_t *AffineChromaPlane(const tagST_PIC *pstPic)
{
    return (pstPic->pV != NULL && pstPic->pV < pstPic->pU) ? pstPic->pV : pstPic->pU;
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

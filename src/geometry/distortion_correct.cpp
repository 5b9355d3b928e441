#include "geometry/distortion_correct.h"

#include "boundscheck/bounds_check.h"
#include "geometry/lens_model.h"

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
static int32_t RunDistortionCorrect(int32_t iPlanar, tagST_LDC_PARA *pstPara, uint8_t *const *ppucSrc,
                                    uint8_t *const *ppucDst, int32_t bNeon)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    const int32_t bLens = (pstPara->iLDCEnable == 1) ? 1 : 0;
    const int32_t *piArea = bLens ? pstPara->aiLDCArea : pstPara->aiGlobalFDCArea;
    tagST_RADIAL_MODEL stModel;
    GetRadialModel(pstPara, bLens, &stModel);
    tagST_RESAMPLE_JOB stJob;
    ResampleAreaJob(iPlanar, iW, iH, ppucSrc, ppucDst, piArea, pstPara->pucWorkBuf + LDC_COLUMN_TABLE_OFFSET(iW, iH),
                    pstPara->aiThreadState, pstPara->aiThreadMask, &stJob);
    stJob.pStage = &stModel;
    stJob.pfnGroups = bNeon ? DistortionMapGroups_neon : DistortionMapGroups;
    stJob.pfnTail = DistortionMapTail;
    return bNeon ? ResampleFrame_neon(&stJob) : ResampleFrame(&stJob);
}

int32_t DistortionCorrect_neon(int32_t iPlanar, tagST_LDC_PARA *pstPara, uint8_t *const *ppucSrc,
                               uint8_t *const *ppucDst)
{
    return RunDistortionCorrect(iPlanar, pstPara, ppucSrc, ppucDst, 1);
}

int32_t DistortionCorrect(int32_t iPlanar, tagST_LDC_PARA *pstPara, uint8_t *const *ppucSrc,
                          uint8_t *const *ppucDst)
{
    return RunDistortionCorrect(iPlanar, pstPara, ppucSrc, ppucDst, 0);
}

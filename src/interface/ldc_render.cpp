// The render step of the frame driver: remap and warp as the plan says, or copy.
#include "interface/ldc_render.h"

#include "boundscheck/bounds_check.h"
#include "geometry/distortion_correct.h"
#include "records/work_buffer.h"
#include "warp/affine_transform.h"
#include "warp/fill_blank.h"

// Every byte of the intermediate image that the remap will not write (outside its rectangle) is
// taken from the input at the same position first: the warp, and the face homography in
// particular, reaches beyond the rectangle, and must not see bytes of earlier frames or of the
// line check.
static void PrepareIntermediate(const tagST_LDC_PARA *pstPara, tagST_PIC *pstIn, tagST_PIC *pstInter)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    const int32_t *piArea = pstPara->iLDCEnable == 1 ? pstPara->aiLDCArea : pstPara->aiGlobalFDCArea;
    const int32_t bFillable = ((iW | iH) & 1) == 0 && piArea[0] >= 0 && piArea[1] >= 0 &&
                              piArea[0] < piArea[2] && piArea[1] < piArea[3] && piArea[2] < iW &&
                              piArea[3] < iH && ((piArea[0] | piArea[1]) & 1) == 0 &&
                              (piArea[2] & piArea[3] & 1) == 1;
    if (!bFillable) {
        // Odd frame sizes or an unusable rectangle: the border fill needs even row pairs.
        const size_t uFrameBytes = LdcFrameBytes(iW, iH);
        (void)memcpy_s(pstInter->pY, uFrameBytes, pstIn->pY, uFrameBytes);
        return;
    }
    // The fill may also copy the rectangle's last row pair; the remap overwrites it afterwards.
    const int32_t iRows = piArea[3] + 1 - piArea[1];
    if (pstPara->ePicType == LDC_PIC_YUV420) {
        FillBlank_neon_YUV420(pstInter, pstIn, piArea[0], piArea[1], piArea[2] + 1, iRows);
    } else {
        FillBlank_neon_NV12(pstInter, pstIn, piArea[0], piArea[1], piArea[2] + 1, iRows);
    }
}

// The remap from the input into the intermediate image at the start of the working buffer, then
// the warp of the whole intermediate image into the output.
static void RemapAndWarp(tagST_LDC_PARA *pstPara, tagST_PIC *pstIn, tagST_PIC *pstInter, tagST_PIC *pstOut,
                         const float *pfPlanMatrix)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    uint8_t *pucScratch = pstPara->pucWorkBuf + LDC_WORK_SCRATCH_OFFSET(iW, iH);
    PrepareIntermediate(pstPara, pstIn, pstInter);
    uint8_t *const apucIn[3] = {pstIn->pY, pstIn->pU, pstIn->pV};
    uint8_t *const apucInter[3] = {pstInter->pY, pstInter->pU, pstInter->pV};
    DistortionCorrect_neon(pstPara->ePicType == LDC_PIC_YUV420, pstPara, apucIn, apucInter);
    // The warp works on row pairs and column pairs: on a frame of odd size it would write a chroma
    // row past the end of the caller's output. It covers the even part; the odd last luma row or
    // column is taken from the input as it stands.
    tagST_REGISTRATION_AREA stArea = {0, 0, iW & ~1, iH & ~1};
    tagST_PIC stFrame = *pstOut;
    float afMatrix[9];
    (void)memcpy_s(afMatrix, sizeof(afMatrix), pfPlanMatrix, sizeof(afMatrix));
    AffineTransform_neon(pstPara, &stFrame, pstInter, pstOut, afMatrix, &stArea, pucScratch);
    if (iW & 1) {
        for (int32_t y = 0; y < iH; y++) {
            pstOut->pY[(size_t)y * iW + iW - 1] = pstIn->pY[(size_t)y * iW + iW - 1];
        }
    }
    if (iH & 1) {
        (void)memcpy_s(pstOut->pY + (size_t)(iH - 1) * iW, (size_t)iW, pstIn->pY + (size_t)(iH - 1) * iW, (size_t)iW);
    }
}

void RenderFrame(tagST_LDC_PARA *pstPara, const tagST_LDC_PLAN *pstPlan, uint8_t *pucIn, uint8_t *pucOut)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    if (pstPlan->ePath == LDC_PATH_COPY) {
        const size_t uFrameBytes = LdcFrameBytes(iW, iH);
        (void)memcpy_s(pucOut, uFrameBytes, pucIn, uFrameBytes);
        return;
    }
    tagST_PIC stIn, stOut, stInter;
    BuildPicture(&stIn, pucIn, iW, iH, pstPara->ePicType);
    BuildPicture(&stOut, pucOut, iW, iH, pstPara->ePicType);
    BuildPicture(&stInter, pstPara->pucWorkBuf, iW, iH, pstPara->ePicType);
    RemapAndWarp(pstPara, &stIn, &stInter, &stOut, pstPlan->afMatrix);
}

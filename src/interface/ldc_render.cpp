// The render step of the frame driver: remap (through the face mesh on the mesh path) and warp as
// the plan says, or copy.
#include "interface/ldc_render.h"

#include "boundscheck/bounds_check.h"
#include "geometry/distortion_correct.h"
#include "interface/ldc_mesh.h"
#include "mesh/mesh_render.h"
#include "records/work_buffer.h"
#include "warp/affine_transform.h"
#include "warp/fill_blank.h"

// The rectangle the remap writes: the lens model's when iLDCEnable is 1, else the face model's.
static const int32_t *RemapRectangle(const tagST_LDC_PARA *pstPara)
{
    return pstPara->iLDCEnable == 1 ? pstPara->aiLDCArea : pstPara->aiGlobalFDCArea;
}

// An even frame and a rectangle inside it with even left and top and odd right and bottom: the
// border fill can frame it, row pair by row pair.
static int32_t RectangleIsFillable(const tagST_LDC_PARA *pstPara)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    const int32_t *piArea = RemapRectangle(pstPara);
    return ((iW | iH) & 1) == 0 && piArea[0] >= 0 && piArea[1] >= 0 && piArea[0] < piArea[2] &&
           piArea[1] < piArea[3] && piArea[2] < iW && piArea[3] < iH && ((piArea[0] | piArea[1]) & 1) == 0 &&
           (piArea[2] & piArea[3] & 1) == 1;
}

// Every byte of the remap's destination that the remap will not write (outside its rectangle) is
// taken from the input at the same position first: the warp, and the face homography in
// particular, reaches beyond the rectangle, and must not see bytes of earlier frames or of the
// line check.
static void PrepareIntermediate(const tagST_LDC_PARA *pstPara, tagST_PIC *pstIn, tagST_PIC *pstInter)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    const int32_t *piArea = RemapRectangle(pstPara);
    if (!RectangleIsFillable(pstPara)) {
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

// The lens remap, through the plan's face mesh when it has one.
static void Remap(tagST_LDC_PARA *pstPara, const tagST_LDC_PLAN *pstPlan, const tagST_PIC *pstIn,
                  const tagST_PIC *pstDst)
{
    uint8_t *const apucIn[3] = {pstIn->pY, pstIn->pU, pstIn->pV};
    uint8_t *const apucDst[3] = {pstDst->pY, pstDst->pU, pstDst->pV};
    const int32_t iPlanar = pstPara->ePicType == LDC_PIC_YUV420;
    if (pstPlan->pfMesh != NULL) {
        (void)MeshRemap_neon(iPlanar, pstPara, pstPlan->pfMesh, apucIn, apucDst, LdcMeshScratch(pstPara));
    } else {
        DistortionCorrect_neon(iPlanar, pstPara, apucIn, apucDst);
    }
}

// Whether the warp would reproduce the intermediate image byte for byte, so that the remap can
// write the output itself: the identity matrix (every position a whole pixel, no fraction), on an
// even frame (an odd one keeps its last row and column from the input and the chroma bytes the
// warp's pairs do not reach), with a rectangle inside the frame or no rectangle at all.
static int32_t WarpIsACopy(const tagST_LDC_PARA *pstPara, const float *pfMatrix)
{
    static const float s_afIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    for (int32_t i = 0; i < 9; i++) {
        if (pfMatrix[i] != s_afIdentity[i]) {
            return 0;
        }
    }
    const int32_t *piArea = RemapRectangle(pstPara);
    const int32_t bEmpty = piArea[2] < piArea[0] || piArea[3] < piArea[1];
    return ((pstPara->iImgWidth | pstPara->iImgHeight) & 1) == 0 && (bEmpty || RectangleIsFillable(pstPara));
}

// The remap from the input into the intermediate image at the start of the working buffer, then
// the warp of the whole intermediate image into the output.
static void RemapAndWarp(tagST_LDC_PARA *pstPara, const tagST_LDC_PLAN *pstPlan, tagST_PIC *pstIn,
                         tagST_PIC *pstInter, tagST_PIC *pstOut)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    uint8_t *pucScratch = pstPara->pucWorkBuf + LDC_WORK_SCRATCH_OFFSET(iW, iH);
    PrepareIntermediate(pstPara, pstIn, pstInter);
    Remap(pstPara, pstPlan, pstIn, pstInter);
    // The warp works on row pairs and column pairs: on a frame of odd size it would write a chroma
    // row past the end of the caller's output. It covers the even part; the odd last luma row or
    // column is taken from the input as it stands.
    tagST_REGISTRATION_AREA stArea = {0, 0, iW & ~1, iH & ~1};
    tagST_PIC stFrame = *pstOut;
    float afMatrix[9];
    (void)memcpy_s(afMatrix, sizeof(afMatrix), pstPlan->afMatrix, sizeof(afMatrix));
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
    if (WarpIsACopy(pstPara, pstPlan->afMatrix)) {
        // One pass: the bytes of the remap into the intermediate image and its identity warp.
        PrepareIntermediate(pstPara, &stIn, &stOut);
        Remap(pstPara, pstPlan, &stIn, &stOut);
        return;
    }
    BuildPicture(&stInter, pstPara->pucWorkBuf, iW, iH, pstPara->ePicType);
    RemapAndWarp(pstPara, pstPlan, &stIn, &stInter, &stOut);
}

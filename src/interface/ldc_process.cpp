// The frame driver: checks the call, adapts the instance to the frame's size and orientation,
// decides from the faces and the configuration which corrections run, fits the face homography
// under the field-of-view budget, then remaps and warps the frame, or copies it.
#include <math.h>
#include <stdint.h>

#include "boundscheck/bounds_check.h"
#include "geometry/distortion_correct.h"
#include "geometry/homography.h"
#include "interface/diagnostics.h"
#include "interface/ldc_process.h"
#include "linedetect/line_detect.h"
#include "platform/neon.h"
#include "platform/platform.h"
#include "records/ldc_para.h"
#include "records/work_buffer.h"
#include "warp/affine_transform.h"
#include "warp/fill_blank.h"

#define LDC_FOV_ROUNDS 20          // at most this many fits, the strength shrinking each round
#define LDC_FOV_SHRINK 0.9f
#define LDC_FACE_EDGE_TOLERANCE 3  // pixels a face's outer edge may move outward

static const float s_afIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

static int32_t SaturateToInt32(int64_t lValue)
{
    return lValue > INT32_MAX ? INT32_MAX : (lValue < INT32_MIN ? INT32_MIN : (int32_t)lValue);
}

// Plane pointers of a frame at pucBase. The semi-planar types get the start of the interleaved
// plane for both layouts: their kernels copy whole chroma pairs relative to it, and handed
// B + S + 1 for NV21 they would leave the first chroma byte unwritten and touch one byte past
// the end of the frame.
void BuildPicture(tagST_PIC *pstPic, uint8_t *pucBase, int32_t iWidth, int32_t iHeight,
                  int32_t ePicType)
{
    const int32_t iS = iWidth * iHeight;
    pstPic->iWidth = iWidth;
    pstPic->iHeight = iHeight;
    pstPic->iReserved = 0;
    pstPic->pY = pucBase;
    pstPic->pU = pucBase + iS;
    if (ePicType == LDC_PIC_YUV420) {
        pstPic->pV = pucBase + iS + iS / 4;
    } else {
        pstPic->pV = pucBase + iS + (ePicType == LDC_PIC_NV12 ? 1 : 0);
    }
}

static void TransposeInstance(tagST_LDC_PARA *pstPara)
{
    int32_t iTmp = pstPara->iImgWidth;
    pstPara->iImgWidth = pstPara->iImgHeight;
    pstPara->iImgHeight = iTmp;
    float fTmp = pstPara->afCameraMatrix[2];
    pstPara->afCameraMatrix[2] = pstPara->afCameraMatrix[5];
    pstPara->afCameraMatrix[5] = fTmp;
    fTmp = pstPara->afDistortionCoefficients[3];
    pstPara->afDistortionCoefficients[3] = pstPara->afDistortionCoefficients[4];
    pstPara->afDistortionCoefficients[4] = fTmp;
    int32_t *apiAreas[2] = {pstPara->aiLDCArea, pstPara->aiGlobalFDCArea};
    for (int32_t i = 0; i < 2; i++) {
        int32_t *piArea = apiAreas[i];
        iTmp = piArea[0];
        piArea[0] = piArea[1];
        piArea[1] = iTmp;
        iTmp = piArea[2];
        piArea[2] = piArea[3];
        piArea[3] = iTmp;
    }
}

// Stores the valid faces widened by one eighth of their size on every side and returns their
// number; an invalid face switches face correction off for the frame.
static int32_t CollectFaces(tagST_LDC_PARA *pstPara, const ST_LDC_FRAME_INFO *pstFrameInfo)
{
    int32_t iValid = 0;
    const int32_t iNum = pstFrameInfo->iFaceNum < LDC_MAX_FACES ? pstFrameInfo->iFaceNum : LDC_MAX_FACES;
    for (int32_t i = 0; i < iNum; i++) {
        const ST_FACE_RECT *pstFace = &pstFrameInfo->pstFaces[i];
        // 64-bit sizes: a hostile rectangle must not overflow.
        const int64_t lW = (int64_t)pstFace->iRight - pstFace->iLeft + 1;
        const int64_t lH = (int64_t)pstFace->iBottom - pstFace->iTop + 1;
        if (lW <= 1 || lH <= 1) {
            LdcLog(LDC_LOG_ERROR, "The coordinates of faces have error!\n");
            pstPara->iFDCEnable = 0;
            continue;
        }
        int32_t *piRect = pstPara->aiFaceRect[iValid++];
        piRect[0] = SaturateToInt32(pstFace->iLeft - (lW >> 3));
        piRect[1] = SaturateToInt32(pstFace->iTop - (lH >> 3));
        piRect[2] = SaturateToInt32(pstFace->iRight + (lW >> 3));
        piRect[3] = SaturateToInt32(pstFace->iBottom + (lH >> 3));
    }
    return iValid;
}

// Whether some face reaches beyond the central square of half-side R around the principal point.
static int32_t AnyFaceOutsideCentre(const tagST_LDC_PARA *pstPara)
{
    const int64_t lCu = TruncF32ToS32(pstPara->afCameraMatrix[2]);
    const int64_t lCv = TruncF32ToS32(pstPara->afCameraMatrix[5]);
    const int64_t lR = TruncF32ToS32((float)(lCu < lCv ? lCu : lCv) * pstPara->fRestrictedAreaRatio);
    for (int32_t i = 0; i < pstPara->iFaceNum; i++) {
        const int32_t *piRect = pstPara->aiFaceRect[i];
        const int64_t lDx = llabs(piRect[0] - lCu) > llabs(piRect[2] - lCu) ? llabs(piRect[0] - lCu)
                                                                           : llabs(piRect[2] - lCu);
        const int64_t lDy = llabs(piRect[1] - lCv) > llabs(piRect[3] - lCv) ? llabs(piRect[1] - lCv)
                                                                           : llabs(piRect[3] - lCv);
        if (lDx > lR || lDy > lR) {
            return 1;
        }
    }
    return 0;
}

// Field of view lost by a warp matrix, in percent: the frame's corners mapped, clamped to the
// frame, and the covered width and height taken from the mean of the two sides.
static int32_t FovLoss(const float *pfH, int32_t iW, int32_t iH)
{
    tag_VECTOR astCorner[4] = {{0, 0}, {iW, 0}, {0, iH}, {iW, iH}};
    tag_VECTOR astMapped[4];
    MatrixAffine(4, pfH, iW, iH, astCorner, astMapped);
    const int32_t iCovW = ((astMapped[1].x + astMapped[3].x) - (astMapped[0].x + astMapped[2].x)) >> 1;
    const int32_t iCovH = ((astMapped[2].y + astMapped[3].y) - (astMapped[0].y + astMapped[1].y)) >> 1;
    const float fRatioW = (float)iCovW / (float)iW;
    const float fRatioH = (float)iCovH / (float)iH;
    return TruncF32ToS32(100.0f * (1.0f - (fRatioW < fRatioH ? fRatioW : fRatioH)));
}

// Pairs every corner of every widened face with where the face mapping of strength fG moves it:
// towards the frame centre by s = 1 + g r^2 / fx^2.
static int32_t BuildFacePairs(const tagST_LDC_PARA *pstPara, float fG, tag_VECTOR *pstSrc,
                              tag_VECTOR *pstDst)
{
    const int32_t iCx = pstPara->iImgWidth >> 1;
    const int32_t iCy = pstPara->iImgHeight >> 1;
    const float fFx2 = pstPara->afCameraMatrix[0] * pstPara->afCameraMatrix[0];
    int32_t iNum = 0;
    for (int32_t i = 0; i < pstPara->iFaceNum; i++) {
        const int32_t *piRect = pstPara->aiFaceRect[i];
        const int32_t aiCornerX[4] = {piRect[0], piRect[2], piRect[0], piRect[2]};
        const int32_t aiCornerY[4] = {piRect[1], piRect[1], piRect[3], piRect[3]};
        for (int32_t k = 0; k < 4; k++) {
            const float fDx = (float)((int64_t)aiCornerX[k] - iCx);
            const float fDy = (float)((int64_t)aiCornerY[k] - iCy);
            const float fR2 = fDx * fDx + fDy * fDy;
            const float fS = 1.0f + fG * fR2 / fFx2;
            pstSrc[iNum].x = aiCornerX[k];
            pstSrc[iNum].y = aiCornerY[k];
            pstDst[iNum].x = TruncF32ToS32(floorf((float)iCx + fDx * fS + 0.5f));
            pstDst[iNum].y = TruncF32ToS32(floorf((float)iCy + fDy * fS + 0.5f));
            iNum++;
        }
    }
    return iNum;
}

// Maps one point through pfH; non-finite results come back as NaN and fail the comparisons
// below on the safe side.
static void MapPoint(const float *pfH, float fX, float fY, float *pfX, float *pfY)
{
    const float fW = pfH[6] * fX + pfH[7] * fY + pfH[8];
    *pfX = (pfH[0] * fX + pfH[1] * fY + pfH[2]) / fW;
    *pfY = (pfH[3] * fX + pfH[4] * fY + pfH[5]) / fW;
}

// A face passes when the matrix moves neither of its outer edges (the ones facing away from the
// frame centre, horizontally and vertically) more than the tolerance further out.
static int32_t FaceKeepsItsEdges(const tagST_LDC_PARA *pstPara, const float *pfH, const int32_t *piRect)
{
    const int32_t iCx = pstPara->iImgWidth >> 1;
    const int32_t iCy = pstPara->iImgHeight >> 1;
    const int32_t bRight = (int32_t)(((int64_t)piRect[0] + piRect[2]) >> 1) >= iCx;
    const int32_t bBelow = (int32_t)(((int64_t)piRect[1] + piRect[3]) >> 1) >= iCy;
    const float fEdgeX = (float)(bRight ? piRect[2] : piRect[0]);
    const float fEdgeY = (float)(bBelow ? piRect[3] : piRect[1]);
    const float fTol = (float)LDC_FACE_EDGE_TOLERANCE;
    for (int32_t k = 0; k < 2; k++) {
        float fX, fY;
        MapPoint(pfH, fEdgeX, (float)piRect[k ? 3 : 1], &fX, &fY);
        if (!(bRight ? fX <= fEdgeX + fTol : fX >= fEdgeX - fTol)) {
            return 0;
        }
        MapPoint(pfH, (float)piRect[k ? 2 : 0], fEdgeY, &fX, &fY);
        if (!(bBelow ? fY <= fEdgeY + fTol : fY >= fEdgeY - fTol)) {
            return 0;
        }
    }
    return 1;
}

// The face homography, weakened until its field-of-view loss fits the budget. Returns 1 when the
// correction is accepted (pfH then holds it).
static int32_t FitFaceHomography(tagST_LDC_PARA *pstPara, float *pfH, uint8_t *pucScratch)
{
    int32_t iLoss = 100;
    int32_t iRet = 0;
    if (pstPara->iFOVLost <= 99) {
        tag_VECTOR astSrc[LDC_MAX_FACES * 4];
        tag_VECTOR astDst[LDC_MAX_FACES * 4];
        float fG = -fabsf(pstPara->fCorrectionDegree);
        for (int32_t iRound = 0; iRound < LDC_FOV_ROUNDS; iRound++) {
            tagST_POINT_PAIRS stPairs = {astSrc, astDst, BuildFacePairs(pstPara, fG, astSrc, astDst)};
            iRet = HomographyEstimation(&stPairs, pfH, pucScratch);
            iLoss = FovLoss(pfH, pstPara->iImgWidth, pstPara->iImgHeight);
            if (iLoss <= pstPara->iFOVLost) {
                break;
            }
            fG *= LDC_FOV_SHRINK;
        }
    }
    // With a budget of 100 no fit is made: the identity costs nothing and is accepted.
    if (iLoss > pstPara->iFOVLost) {
        // The text says 10 % whatever the budget; integrators grep for it as it stands.
        LdcLog(LDC_LOG_ERROR, "FOV is lost %d%%, more than 10%%, ret of H is %d!\n", iLoss, iRet);
        return 0;
    }
    LdcLog(LDC_LOG_INFO, "FOV is lost %d%%, ret of H is %d\n", iLoss, iRet);
    if (pstPara->iFaceNum > 1) {
        for (int32_t i = 0; i < pstPara->iFaceNum; i++) {
            if (!FaceKeepsItsEdges(pstPara, pfH, pstPara->aiFaceRect[i])) {
                LdcLog(LDC_LOG_ERROR, "bFDCEffect = %d\n", 0);
                return 0;
            }
        }
    }
    return 1;
}

// A uniform scale with translation that stretches the remap area over the whole output frame.
static void StretchAreaMatrix(const tagST_LDC_PARA *pstPara, float *pfMatrix)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    int32_t aiArea[4] = {0, 0, iW - 1, iH - 1};
    if (pstPara->iLDCEnable == 1) {
        (void)memcpy_s(aiArea, sizeof(aiArea), pstPara->aiLDCArea, sizeof(aiArea));
    } else if (pstPara->iFDCEnable != 1) {
        (void)memcpy_s(aiArea, sizeof(aiArea), pstPara->aiGlobalFDCArea, sizeof(aiArea));
    }
    const float fAreaW = (float)(aiArea[2] - aiArea[0] + 1);
    const float fAreaH = (float)(aiArea[3] - aiArea[1] + 1);
    const float fScaleW = fAreaW / (float)iW;
    const float fScaleH = fAreaH / (float)iH;
    const float fS = fScaleW < fScaleH ? fScaleW : fScaleH;
    LdcLog(LDC_LOG_INFO, "FOV is lost %d%%\n", TruncF32ToS32(100.0f * (1.0f - fS)));
    // The scaled frame is centred on the area.
    const float afMatrix[9] = {fS, 0, (float)aiArea[0] + (fAreaW - fS * (float)iW) * 0.5f,
                               0, fS, (float)aiArea[1] + (fAreaH - fS * (float)iH) * 0.5f,
                               0, 0, 1};
    (void)memcpy_s(pfMatrix, sizeof(afMatrix), afMatrix, sizeof(afMatrix));
}

static int32_t MatrixIsFinite(const float *pfMatrix)
{
    for (int32_t i = 0; i < 9; i++) {
        if (!isfinite(pfMatrix[i])) {
            return 0;
        }
    }
    return 1;
}

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
        const size_t uFrameBytes = (size_t)iW * iH * 3 / 2;
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
                         float *pfMatrix)
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
    AffineTransform_neon(pstPara, &stFrame, pstInter, pstOut, pfMatrix, &stArea, pucScratch);
    if (iW & 1) {
        for (int32_t y = 0; y < iH; y++) {
            pstOut->pY[(size_t)y * iW + iW - 1] = pstIn->pY[(size_t)y * iW + iW - 1];
        }
    }
    if (iH & 1) {
        (void)memcpy_s(pstOut->pY + (size_t)(iH - 1) * iW, (size_t)iW, pstIn->pY + (size_t)(iH - 1) * iW, (size_t)iW);
    }
}

int32_t IQV_LDC_Process(void *pHandle, const ST_LDC_FRAME_INFO *pstFrameInfo, uint8_t *pucIn, uint8_t *pucOut)
{
    LdcLog(LDC_LOG_INFO, "Enter IQV_LDC_Process.\n");
    LogVersion();
    const int64_t lStart = GetTime();
    tagST_LDC_PARA *pstPara = (tagST_LDC_PARA *)pHandle;
    if (pstPara == NULL || pstFrameInfo == NULL || pucIn == NULL || pucOut == NULL) {
        LdcLog(LDC_LOG_ERROR, "The point of input param is NULL!\n");
        return LDC_ERR_PARAM;
    }
    const int32_t iW = pstFrameInfo->iImgWidth;
    const int32_t iH = pstFrameInfo->iImgHeight;
    int32_t bBadSize = 0;
    if (iW < 1 || iW > LDC_MAX_IMAGE_SIZE) {
        LdcLog(LDC_LOG_ERROR, "iImgWidth: %d > %d\n", iW, LDC_MAX_IMAGE_SIZE);
        bBadSize = 1;
    }
    if (iH < 1 || iH > LDC_MAX_IMAGE_SIZE) {
        LdcLog(LDC_LOG_ERROR, "iImgHeight: %d > %d\n", iH, LDC_MAX_IMAGE_SIZE);
        bBadSize = 1;
    }
    if (bBadSize) {
        return LDC_ERR_PARAM;
    }
    // Without a face array there are no faces to read, whatever the count says.
    const int32_t iFaceNum = pstFrameInfo->pstFaces != NULL ? pstFrameInfo->iFaceNum : 0;
    LdcLog(LDC_LOG_INFO, "iImgWidth = %d, iImgHeight = %d, iISO = %d, iFaceNum = %d.\n", iW, iH,
           pstFrameInfo->iISO, pstFrameInfo->iFaceNum);
    // At most LDC_MAX_LOGGED_FACES rectangles are logged and read: a hostile count (INT_MAX)
    // would otherwise stall the frame on billions of lines and read far past the caller's array.
    const int32_t iLogged = iFaceNum < LDC_MAX_LOGGED_FACES ? iFaceNum : LDC_MAX_LOGGED_FACES;
    for (int32_t i = 0; i < iLogged; i++) {
        const ST_FACE_RECT *pstFace = &pstFrameInfo->pstFaces[i];
        LdcLog(LDC_LOG_INFO, "Face No. %d Coord<left, top, right, bottom>: %d, %d, %d, %d\n", i + 1,
               pstFace->iLeft, pstFace->iTop, pstFace->iRight, pstFace->iBottom);
    }
    if (iFaceNum > iLogged) {
        LdcLog(LDC_LOG_INFO, "%d more faces are not logged.\n", iFaceNum - iLogged);
    }
    const size_t uFrameBytes = (size_t)iW * iH * 3 / 2;

    const int32_t bSame = (iW == pstPara->iImgWidth && iH == pstPara->iImgHeight);
    const int32_t bTransposed = (iW == pstPara->iImgHeight && iH == pstPara->iImgWidth);
    if (!bSame && !bTransposed) {
        ST_LDC_INPUT_PARA stInput = {iW, iH, NULL, pstPara->ePicType};
        const int32_t iRet = IQV_LDC_Reset(pstPara, &stInput);
        if (iRet != LDC_OK) {
            (void)memcpy_s(pucOut, uFrameBytes, pucIn, uFrameBytes);
            return iRet;
        }
    }
    // After a Reset too: a profile matched in the other orientation leaves the instance in its own.
    if (iW != iH && iW == pstPara->iImgHeight && iH == pstPara->iImgWidth) {
        TransposeInstance(pstPara);
    }

    tagST_PIC stIn, stOut, stInter;
    BuildPicture(&stIn, pucIn, iW, iH, pstPara->ePicType);
    BuildPicture(&stOut, pucOut, iW, iH, pstPara->ePicType);
    BuildPicture(&stInter, pstPara->pucWorkBuf, iW, iH, pstPara->ePicType);

    pstPara->iLDCEnable = pstPara->iLDCFlag;
    pstPara->iFDCEnable = pstPara->iFDCFlag;
    ST_LDC_FRAME_INFO stFaces = *pstFrameInfo;
    stFaces.iFaceNum = iFaceNum;
    pstPara->iFaceNum = iFaceNum > 0 ? CollectFaces(pstPara, &stFaces) : 0;
    if (pstPara->iFaceNum == 0) {
        pstPara->iFDCEnable = 0;
    }
    if (pstPara->iFaceNum > 1) {
        if (pstPara->iMultiFacesLDCFlag != 1) {
            pstPara->iLDCEnable = 0;
        }
        if (pstPara->iMultiFacesFDCFlag != 1) {
            pstPara->iFDCEnable = 0;
        }
    }
    if (pstPara->iLDCAreaRestrictedFlag == 1 || pstPara->iFDCAreaRestrictedFlag == 1) {
        const int32_t bOutside = AnyFaceOutsideCentre(pstPara);
        if (pstPara->iLDCAreaRestrictedFlag == 1 && !bOutside) {
            pstPara->iLDCEnable = 0;
        }
        if (pstPara->iFDCAreaRestrictedFlag == 1 && !bOutside) {
            pstPara->iFDCEnable = 0;
        }
    }

    float afMatrix[9];
    (void)memcpy_s(afMatrix, sizeof(afMatrix), s_afIdentity, sizeof(s_afIdentity));
    int32_t bWarp = 0;
    int32_t bGlobal = 0;
    if (pstPara->iFaceNum <= 1 || pstPara->iFDCEnable != 1) {
        pstPara->iFDCMode = 0;
    } else {
        pstPara->iFDCMode = pstPara->iGolbalFDCFlag;
        if (pstPara->iFDCMode == 1) {
            pstPara->iFDCMode = LineDetect(pucIn, pstPara);
            if (pstPara->iFDCMode == 1) {
                pstPara->iLDCEnable = 0;
                pstPara->iFDCEnable = 0;
                bGlobal = 1;
            }
        }
    }
    if (!bGlobal && pstPara->iFDCEnable == 1) {
        float afH[9];
        (void)memcpy_s(afH, sizeof(afH), s_afIdentity, sizeof(s_afIdentity));
        if (FitFaceHomography(pstPara, afH, pstPara->pucWorkBuf + LDC_WORK_SCRATCH_OFFSET(iW, iH))) {
            MtrxAB3(afMatrix, afH, afMatrix);
            pstPara->iLDCEnable = 1;
            bWarp = 1;
        }
    }
    if (!bWarp) {
        if (bGlobal || pstPara->iFDCMode > 0) {
            StretchAreaMatrix(pstPara, afMatrix);
            bWarp = 1;
        } else {
            pstPara->iLDCEnable = 0;
        }
    }
    if (bWarp && !MatrixIsFinite(afMatrix)) {
        LdcLog(LDC_LOG_ERROR, "The warp matrix is not finite, the frame is copied!\n");
        bWarp = 0;
    }
    if (bWarp) {
        RemapAndWarp(pstPara, &stIn, &stInter, &stOut, afMatrix);
    } else {
        (void)memcpy_s(pucOut, uFrameBytes, pucIn, uFrameBytes);
    }

    LdcLog(LDC_LOG_INFO, "The time of IQV_LDC_Process is = %d ms\n", (int32_t)((GetTime() - lStart) / 1000));
    DumpFramesIfRequested(pstFrameInfo, pucIn, pucOut);
    LdcLog(LDC_LOG_INFO, "Exit IQV_LDC_Process.\n");
    return LDC_OK;
}

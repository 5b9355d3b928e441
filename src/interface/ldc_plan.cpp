// The frame driver's decisions for one frame: which corrections run, the line check, the face
// homography under the field-of-view budget with its per-face check, and the global stretch.
#include "interface/ldc_plan.h"

#include <math.h>
#include <stdlib.h>

#include "boundscheck/bounds_check.h"
#include "geometry/homography.h"
#include "interface/ldc_mesh.h"
#include "platform/neon.h"
#include "platform/platform.h"
#include "records/work_buffer.h"

#define LDC_FOV_ROUNDS 20          // at most this many fits, the strength shrinking each round
#define LDC_FOV_SHRINK 0.9f
#define LDC_FACE_EDGE_TOLERANCE 3  // pixels a face's outer edge may move outward

static const float s_afIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

void InitFramePlan(tagST_LDC_PLAN *pstPlan)
{
    (void)memset_s(pstPlan, sizeof(*pstPlan), 0, sizeof(*pstPlan));
    (void)memcpy_s(pstPlan->afMatrix, sizeof(pstPlan->afMatrix), s_afIdentity, sizeof(s_afIdentity));
    pstPlan->ePath = LDC_PATH_COPY;
    pstPlan->eRefusal = LDC_REFUSAL_NONE;
    pstPlan->iRefusedFace = -1;
}

static int32_t SaturateToInt32(int64_t lValue)
{
    return lValue > INT32_MAX ? INT32_MAX : (lValue < INT32_MIN ? INT32_MIN : (int32_t)lValue);
}

// Switches face correction off for the frame; the plan keeps the first reason.
static void RefuseFaces(tagST_LDC_PARA *pstPara, tagST_LDC_PLAN *pstPlan, int32_t eWhy)
{
    if (pstPara->iFDCEnable == 1) {
        pstPlan->eRefusal = eWhy;
    }
    pstPara->iFDCEnable = 0;
}

// Stores the valid faces widened by one eighth of their size on every side and returns their
// number; an invalid face switches face correction off for the frame.
static int32_t CollectFaces(tagST_LDC_PARA *pstPara, const ST_FACE_RECT *pstFaces, int32_t iFaceNum,
                            tagST_LDC_PLAN *pstPlan)
{
    int32_t iValid = 0;
    const int32_t iNum = iFaceNum < LDC_MAX_FACES ? iFaceNum : LDC_MAX_FACES;
    for (int32_t i = 0; i < iNum; i++) {
        const ST_FACE_RECT *pstFace = &pstFaces[i];
        // 64-bit sizes: a hostile rectangle must not overflow.
        const int64_t lW = (int64_t)pstFace->iRight - pstFace->iLeft + 1;
        const int64_t lH = (int64_t)pstFace->iBottom - pstFace->iTop + 1;
        if (lW <= 1 || lH <= 1) {
            LdcLog(LDC_LOG_ERROR, "The coordinates of faces have error!\n");
            RefuseFaces(pstPara, pstPlan, LDC_REFUSAL_BAD_FACE);
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

// Which corrections the flags and the faces allow: the faces validated and widened, then the
// several-faces and restricted-area rules.
static void DecideCorrections(tagST_LDC_PARA *pstPara, const ST_FACE_RECT *pstFaces, int32_t iFaceNum,
                              tagST_LDC_PLAN *pstPlan)
{
    pstPara->iLDCEnable = pstPara->iLDCFlag;
    pstPara->iFDCEnable = pstPara->iFDCFlag;
    if (pstPara->iFDCEnable != 1) {
        pstPlan->eRefusal = LDC_REFUSAL_FLAG;
    }
    pstPara->iFaceNum = iFaceNum > 0 ? CollectFaces(pstPara, pstFaces, iFaceNum, pstPlan) : 0;
    if (pstPara->iFaceNum == 0) {
        RefuseFaces(pstPara, pstPlan, LDC_REFUSAL_NO_FACE);
    }
    if (pstPara->iFaceNum > 1) {
        if (pstPara->iMultiFacesLDCFlag != 1) {
            pstPara->iLDCEnable = 0;
        }
        if (pstPara->iMultiFacesFDCFlag != 1) {
            RefuseFaces(pstPara, pstPlan, LDC_REFUSAL_MULTI_FACES);
        }
    }
    if (pstPara->iLDCAreaRestrictedFlag == 1 || pstPara->iFDCAreaRestrictedFlag == 1) {
        const int32_t bOutside = AnyFaceOutsideCentre(pstPara);
        if (pstPara->iLDCAreaRestrictedFlag == 1 && !bOutside) {
            pstPara->iLDCEnable = 0;
        }
        if (pstPara->iFDCAreaRestrictedFlag == 1 && !bOutside) {
            RefuseFaces(pstPara, pstPlan, LDC_REFUSAL_CENTRE);
        }
    }
}

// The global-correction mode; with mode 1 the line check decides. Returns 1 when it chose the
// global correction (face and lens correction are then off for the frame).
static int32_t ChooseMode(tagST_LDC_PARA *pstPara, const uint8_t *pucLuma, tagST_LDC_PLAN *pstPlan)
{
    if (pstPara->iFaceNum <= 1 || pstPara->iFDCEnable != 1) {
        pstPara->iFDCMode = 0;
        return 0;
    }
    pstPara->iFDCMode = pstPara->iGolbalFDCFlag;
    if (pstPara->iFDCMode != 1) {
        return 0;
    }
    pstPlan->bLineCheck = 1;
    pstPara->iFDCMode = CheckLines(pucLuma, pstPara, &pstPlan->stLineCheck, pstPlan->astLines, LDC_PLAN_MAX_LINES);
    if (pstPara->iFDCMode != 1) {
        return 0;
    }
    pstPara->iLDCEnable = 0;
    pstPara->iFDCEnable = 0;
    return 1;
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

// The face homography, weakened until its field-of-view loss fits the budget, then each face
// checked against it. Returns 1 when the correction is accepted; the plan's matrix then holds it.
static int32_t PlanFaceHomography(tagST_LDC_PARA *pstPara, tagST_LDC_PLAN *pstPlan)
{
    float afH[9];
    (void)memcpy_s(afH, sizeof(afH), s_afIdentity, sizeof(s_afIdentity));
    uint8_t *pucScratch = pstPara->pucWorkBuf + LDC_WORK_SCRATCH_OFFSET(pstPara->iImgWidth, pstPara->iImgHeight);
    int32_t iLoss = 100;
    int32_t iRet = 0;
    if (pstPara->iFOVLost <= 99) {
        tag_VECTOR astSrc[LDC_MAX_FACES * 4];
        tag_VECTOR astDst[LDC_MAX_FACES * 4];
        float fG = -fabsf(pstPara->fCorrectionDegree);
        for (int32_t iRound = 0; iRound < LDC_FOV_ROUNDS; iRound++) {
            tagST_POINT_PAIRS stPairs = {astSrc, astDst, BuildFacePairs(pstPara, fG, astSrc, astDst)};
            iRet = HomographyEstimation(&stPairs, afH, pucScratch);
            iLoss = FovLoss(afH, pstPara->iImgWidth, pstPara->iImgHeight);
            pstPlan->iFitRounds = iRound + 1;
            pstPlan->fFitDegree = fG;
            if (iLoss <= pstPara->iFOVLost) {
                break;
            }
            fG *= LDC_FOV_SHRINK;
        }
    }
    pstPlan->iFitStatus = iRet;
    pstPlan->iFitFovLost = iLoss;
    // With a budget of 100 no fit is made: the identity costs nothing and is accepted.
    if (iLoss > pstPara->iFOVLost) {
        // The text says 10 % whatever the budget; integrators grep for it as it stands.
        LdcLog(LDC_LOG_ERROR, "FOV is lost %d%%, more than 10%%, ret of H is %d!\n", iLoss, iRet);
        pstPlan->eRefusal = LDC_REFUSAL_FOV;
        return 0;
    }
    LdcLog(LDC_LOG_INFO, "FOV is lost %d%%, ret of H is %d\n", iLoss, iRet);
    if (pstPara->iFaceNum > 1) {
        for (int32_t i = 0; i < pstPara->iFaceNum; i++) {
            if (!FaceKeepsItsEdges(pstPara, afH, pstPara->aiFaceRect[i])) {
                LdcLog(LDC_LOG_ERROR, "bFDCEffect = %d\n", 0);
                pstPlan->eRefusal = LDC_REFUSAL_FACE_EDGE;
                pstPlan->iRefusedFace = i;
                return 0;
            }
        }
    }
    MtrxAB3(pstPlan->afMatrix, afH, pstPlan->afMatrix);
    return 1;
}

// A uniform scale with translation that stretches the remap area over the whole output frame;
// returns the field of view it costs, in percent.
static int32_t StretchAreaMatrix(const tagST_LDC_PARA *pstPara, float *pfMatrix)
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
    const int32_t iLoss = TruncF32ToS32(100.0f * (1.0f - fS));
    LdcLog(LDC_LOG_INFO, "FOV is lost %d%%\n", iLoss);
    // The scaled frame is centred on the area.
    const float afMatrix[9] = {fS, 0, (float)aiArea[0] + (fAreaW - fS * (float)iW) * 0.5f,
                               0, fS, (float)aiArea[1] + (fAreaH - fS * (float)iH) * 0.5f,
                               0, 0, 1};
    (void)memcpy_s(pfMatrix, sizeof(afMatrix), afMatrix, sizeof(afMatrix));
    return iLoss;
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

void PlanFrame(tagST_LDC_PARA *pstPara, const ST_FACE_RECT *pstFaces, int32_t iFaceNum, const uint8_t *pucLuma,
               tagST_LDC_PLAN *pstPlan)
{
    DecideCorrections(pstPara, pstFaces, iFaceNum, pstPlan);
    if (pstPara->iFDCMethod == LDC_FDC_MESH) {
        PlanFaceMesh(pstPara, pucLuma, pstPlan);
    } else if (ChooseMode(pstPara, pucLuma, pstPlan)) {
        pstPlan->ePath = LDC_PATH_GLOBAL;
        pstPlan->iFovLost = StretchAreaMatrix(pstPara, pstPlan->afMatrix);
    } else if (pstPara->iFDCEnable == 1 && PlanFaceHomography(pstPara, pstPlan)) {
        pstPara->iLDCEnable = 1;
        pstPlan->ePath = pstPlan->iFitRounds > 0 ? LDC_PATH_FACE : LDC_PATH_LENS;
        pstPlan->iFovLost = pstPlan->iFitRounds > 0 ? pstPlan->iFitFovLost : 0;
    } else if (pstPara->iFDCMode > 0) {
        // Global mode 2: the stretched remap instead of the refused face correction.
        pstPlan->ePath = LDC_PATH_FALLBACK;
        pstPlan->iFovLost = StretchAreaMatrix(pstPara, pstPlan->afMatrix);
    } else {
        pstPara->iLDCEnable = 0;
    }
    if (pstPlan->ePath != LDC_PATH_COPY && !MatrixIsFinite(pstPlan->afMatrix)) {
        LdcLog(LDC_LOG_ERROR, "The warp matrix is not finite, the frame is copied!\n");
        pstPlan->ePath = LDC_PATH_COPY;
        pstPlan->bNotFinite = 1;
    }
    pstPlan->iFaceNum = pstPara->iFaceNum;
    (void)memcpy_s(pstPlan->aiFaceRect, sizeof(pstPlan->aiFaceRect), pstPara->aiFaceRect,
                   sizeof(pstPara->aiFaceRect[0]) * (size_t)pstPara->iFaceNum);
}

#include "geometry/lens_model.h"

void GetRadialModel(const tagST_LDC_PARA *pstPara, int32_t bLens, tagST_RADIAL_MODEL *pstModel)
{
    if (bLens) {
        // The radius is normalised by fx alone on both axes; fy plays no part.
        const float fQ = 1.0f / pstPara->afCameraMatrix[0];
        const float fQ2 = fQ * fQ;
        pstModel->fCx = pstPara->afCameraMatrix[2];
        pstModel->fCy = pstPara->afCameraMatrix[5];
        pstModel->fC1 = fQ2 * pstPara->afDistortionCoefficients[0];
        pstModel->fC2 = (pstPara->afDistortionCoefficients[1] * fQ2) * fQ2;
        pstModel->fC3 = ((fQ2 * pstPara->afDistortionCoefficients[2]) * fQ2) * fQ2;
    } else {
        // Integer halving first: an odd width of 1001 puts the centre at 500.0.
        pstModel->fCx = (float)(pstPara->iImgWidth >> 1);
        pstModel->fCy = (float)(pstPara->iImgHeight >> 1);
        pstModel->fC1 = pstPara->afGlobalFDCCoefficients[0];
        pstModel->fC2 = pstPara->afGlobalFDCCoefficients[1];
        pstModel->fC3 = pstPara->afGlobalFDCCoefficients[2];
    }
}

// Source coordinate along one axis of the output pixel (x, y): fCentre + f * fD.
static inline float MapAxis(const tagST_RADIAL_MODEL *pstModel, float fDx, float fDy, float fD,
                            float fCentre)
{
    const float fF = RadialFactorSerial(pstModel, fDx * fDx + fDy * fDy);
    return fCentre + fF * fD;
}

enum { SCAN_ACCEPTED, SCAN_REJECTED, SCAN_FAILED };

// One column (bVertical == 0, fixed x) or one row of samples. A sample beyond the near side
// rejects the whole line at once; a sample beyond the far side of a line not yet rejected fails
// the search. NaN passes both tests.
static int ScanLine(const tagST_RADIAL_MODEL *pstModel, int32_t bColumn, int32_t iFixed,
                    int32_t iCount, float fLimit, int32_t bNearIsLow)
{
    for (int32_t i = 0; i < iCount; i++) {
        const float fDx = (float)(bColumn ? iFixed : i) - pstModel->fCx;
        const float fDy = (float)(bColumn ? i : iFixed) - pstModel->fCy;
        const float fS = bColumn ? MapAxis(pstModel, fDx, fDy, fDx, pstModel->fCx)
                                 : MapAxis(pstModel, fDx, fDy, fDy, pstModel->fCy);
        const bool bBeyondLow = fS < 0.0f;
        const bool bBeyondHigh = fS > fLimit;
        if (bNearIsLow ? bBeyondLow : bBeyondHigh) {
            return SCAN_REJECTED;
        }
        if (bNearIsLow ? bBeyondHigh : bBeyondLow) {
            return SCAN_FAILED;
        }
    }
    return SCAN_ACCEPTED;
}

// Scans lines from iFirst towards iLast (inclusive, step +1 or -1) and stores the first accepted
// one in *piEdge; an all-rejected scan leaves *piEdge as it was. Returns 0 on failure.
static int32_t FindEdge(const tagST_RADIAL_MODEL *pstModel, int32_t bColumn, int32_t iFirst,
                        int32_t iLast, int32_t iCount, float fLimit, int32_t *piEdge)
{
    const int32_t iStep = (iLast >= iFirst) ? 1 : -1;
    const int32_t bNearIsLow = (iStep == 1);
    for (int32_t i = iFirst;; i += iStep) {
        const int iResult = ScanLine(pstModel, bColumn, i, iCount, fLimit, bNearIsLow);
        if (iResult == SCAN_FAILED) {
            return 0;
        }
        if (iResult == SCAN_ACCEPTED) {
            *piEdge = i;
            return 1;
        }
        if (i == iLast) {
            return 1;
        }
    }
}

void GetUndistortedArea(tagST_LDC_PARA *pstPara, int32_t iMode)
{
    const int32_t bLens = (iMode == LDC_AREA_LENS);
    int32_t *piSwitch = bLens ? &pstPara->iLDCFlag : &pstPara->iGolbalFDCFlag;
    int32_t *piArea = bLens ? pstPara->aiLDCArea : pstPara->aiGlobalFDCArea;
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;

    if (*piSwitch < 1) {
        piArea[0] = 0;
        piArea[1] = 0;
        piArea[2] = (iW & ~1) - 1;
        piArea[3] = (iH & ~1) - 1;
        return;
    }

    tagST_RADIAL_MODEL stModel;
    GetRadialModel(pstPara, bLens, &stModel);
    const float fMaxX = (float)(iW - 1);
    const float fMaxY = (float)(iH - 1);
    int32_t iLeft = piArea[0];
    int32_t iTop = piArea[1];
    int32_t iRight = piArea[2];
    int32_t iBottom = piArea[3];
    if (!FindEdge(&stModel, 1, 0, iW - 1, iH, fMaxX, &iLeft) ||
        !FindEdge(&stModel, 1, iW - 1, 0, iH, fMaxX, &iRight) ||
        !FindEdge(&stModel, 0, 0, iH - 1, iW, fMaxY, &iTop) ||
        !FindEdge(&stModel, 0, iH - 1, 0, iW, fMaxY, &iBottom)) {
        // Some pixel maps beyond the far side: no usable rectangle. Deliberately not rounded.
        *piSwitch = 0;
        piArea[0] = 0;
        piArea[1] = 0;
        piArea[2] = iW - 1;
        piArea[3] = iH - 1;
        return;
    }

    // The wider margin wins on each axis, so the rectangle is centred on the frame.
    if (iLeft <= (iW - 1) - iRight) {
        iLeft = (iW - 1) - iRight;
    } else {
        iRight = (iW - 1) - iLeft;
    }
    if (iTop <= (iH - 1) - iBottom) {
        iTop = (iH - 1) - iBottom;
    } else {
        iBottom = (iH - 1) - iTop;
    }
    if (iLeft >= iRight || iTop >= iBottom) {
        *piSwitch = 0;   // collapsed; the rounded rectangle is still stored
    }
    piArea[0] = (iLeft + 1) & ~1;
    piArea[1] = (iTop + 1) & ~1;
    piArea[2] = ((iRight + 1) & ~1) - 1;
    piArea[3] = ((iBottom + 1) & ~1) - 1;
}

#include "quality_metrics.h"

#include <math.h>

#include <algorithm>

namespace {

const int32_t kSuper = 4;          // silhouette samples per pixel and axis
const int32_t kMinLinePoints = 16;
const int32_t kCoarseStep = 8;     // the line scan looks for sign changes this far apart first
const double kNeighbourReach = 3.0;
const int32_t kClampMargin = 2;    // pixels next to a clamped one, or to the frame's edge, are not trusted

double Dot(const double *a, const double *b)
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

void Cross(const double *a, const double *b, double *c)
{
    c[0] = a[1] * b[2] - a[2] * b[1];
    c[1] = a[2] * b[0] - a[0] * b[2];
    c[2] = a[0] * b[1] - a[1] * b[0];
}

// The corrected point at a fractional output position, bilinear over the four pixels.
bool SampleMap(const tagST_QP_MAP &stMap, double dX, double dY, double *pdQx, double *pdQy)
{
    dX = std::min(std::max(dX, 0.0), stMap.iWidth - 1.0);
    dY = std::min(std::max(dY, 0.0), stMap.iHeight - 1.0);
    const int32_t iX = std::min((int32_t)dX, stMap.iWidth - 2 < 0 ? 0 : stMap.iWidth - 2);
    const int32_t iY = std::min((int32_t)dY, stMap.iHeight - 2 < 0 ? 0 : stMap.iHeight - 2);
    const double dFx = dX - iX, dFy = dY - iY;
    const size_t i00 = (size_t)iY * stMap.iWidth + iX;
    const size_t aiIdx[4] = {i00, i00 + 1, i00 + stMap.iWidth, i00 + stMap.iWidth + 1};
    const double adW[4] = {(1 - dFx) * (1 - dFy), dFx * (1 - dFy), (1 - dFx) * dFy, dFx * dFy};
    *pdQx = 0;
    *pdQy = 0;
    for (int32_t k = 0; k < 4; k++) {
        *pdQx += adW[k] * stMap.vfX[aiIdx[k]];
        *pdQy += adW[k] * stMap.vfY[aiIdx[k]];
    }
    return !std::isnan(*pdQx) && !std::isnan(*pdQy);
}

bool PixelRay(const tagST_QS_LENS &stLens, const tagST_QP_MAP &stMap, size_t uIndex, double *pdRay)
{
    const double dQx = stMap.vfX[uIndex], dQy = stMap.vfY[uIndex];
    if (std::isnan(dQx) || std::isnan(dQy)) {
        return false;
    }
    RayOfCorrected(stLens, dQx, dQy, pdRay);
    return true;
}

tagST_QM_FACE MeasureFace(const tagST_QS_SCENE &stScene, const tagST_QS_SPHERE &stSphere, const tagST_QP_MAP &stMap)
{
    const int32_t iW = stMap.iWidth, iH = stMap.iHeight;
    tagST_QM_FACE stFace = {0.0, 0};
    int32_t iX0 = iW, iY0 = iH, iX1 = -1, iY1 = -1;
    for (int32_t y = 0; y < iH; y++) {
        for (int32_t x = 0; x < iW; x++) {
            double adRay[3];
            if (PixelRay(stScene.stLens, stMap, (size_t)y * iW + x, adRay) && RayInSphere(stSphere, adRay)) {
                iX0 = std::min(iX0, x);
                iX1 = std::max(iX1, x);
                iY0 = std::min(iY0, y);
                iY1 = std::max(iY1, y);
                // At the border, or next to a pixel that shows no scene point.
                const size_t i = (size_t)y * iW + x;
                if (x == 0 || y == 0 || x == iW - 1 || y == iH - 1 || std::isnan(stMap.vfX[i - 1]) ||
                    std::isnan(stMap.vfX[i + 1]) || std::isnan(stMap.vfX[i - iW]) || std::isnan(stMap.vfX[i + iW])) {
                    stFace.bCut = 1;
                }
            }
        }
    }
    if (iX1 < 0) {
        stFace.bCut = 1;
        return stFace;
    }
    double dM0 = 0, dMx = 0, dMy = 0, dMxx = 0, dMxy = 0, dMyy = 0;
    for (int32_t y = std::max(0, iY0 - 2); y <= std::min(iH - 1, iY1 + 2); y++) {
        for (int32_t x = std::max(0, iX0 - 2); x <= std::min(iW - 1, iX1 + 2); x++) {
            for (int32_t j = 0; j < kSuper; j++) {
                for (int32_t i = 0; i < kSuper; i++) {
                    const double dX = x + (i + 0.5) / kSuper - 0.5, dY = y + (j + 0.5) / kSuper - 0.5;
                    double dQx, dQy, adRay[3];
                    if (!SampleMap(stMap, dX, dY, &dQx, &dQy)) {
                        continue;
                    }
                    RayOfCorrected(stScene.stLens, dQx, dQy, adRay);
                    if (RayInSphere(stSphere, adRay)) {
                        dM0 += 1;
                        dMx += dX;
                        dMy += dY;
                        dMxx += dX * dX;
                        dMxy += dX * dY;
                        dMyy += dY * dY;
                    }
                }
            }
        }
    }
    const double dA = dMxx / dM0 - (dMx / dM0) * (dMx / dM0);
    const double dB = dMxy / dM0 - (dMx / dM0) * (dMy / dM0);
    const double dC = dMyy / dM0 - (dMy / dM0) * (dMy / dM0);
    const double dRoot = sqrt(0.25 * (dA - dC) * (dA - dC) + dB * dB);
    const double dMax = 0.5 * (dA + dC) + dRoot, dMin = 0.5 * (dA + dC) - dRoot;
    stFace.dAxisRatio = dMax > 0 ? sqrt(std::max(0.0, dMin) / dMax) : 0.0;
    return stFace;
}

// Whether a line's lens-corrected image inside the frame stays farther than two face radii
// from every face.
bool LineIsFar(const tagST_QS_SCENE &stScene, const tagST_QS_LINE &stLine)
{
    const tagST_QS_LENS &stLens = stScene.stLens;
    for (const tagST_QS_SPHERE &stSphere : stScene.vstSpheres) {
        double dCx, dCy, dR;
        SphereImageDisc(stLens, stSphere, &dCx, &dCy, &dR);
        for (int32_t i = 0; i <= 1000; i++) {
            double adP[3], dQx, dQy;
            for (int32_t k = 0; k < 3; k++) {
                adP[k] = stLine.adP0[k] + (stLine.adP1[k] - stLine.adP0[k]) * i / 1000.0;
            }
            if (CorrectedOfRay(stLens, adP, &dQx, &dQy) && dQx >= 0 && dQx <= stLens.iWidth - 1 && dQy >= 0 &&
                dQy <= stLens.iHeight - 1 && hypot(dQx - dCx, dQy - dCy) <= 2.0 * dR) {
                return false;
            }
        }
    }
    return true;
}

// Points where the output shows the line: sign changes of the ray's side of the line's plane
// between neighbouring pixels, across rows (bAlongRows) or columns, kept inside the segment and
// where no face hides it.
void LinePoints(const tagST_QS_SCENE &stScene, const tagST_QS_LINE &stLine, const tagST_QP_MAP &stMap,
                std::vector<double> *pvdPoints)
{
    const tagST_QS_LENS &stLens = stScene.stLens;
    const int32_t iW = stMap.iWidth, iH = stMap.iHeight;
    double adN[3];
    Cross(stLine.adP0, stLine.adP1, adN);
    double dQx0, dQy0, dQx1, dQy1;
    CorrectedOfRay(stLens, stLine.adP0, &dQx0, &dQy0);
    CorrectedOfRay(stLens, stLine.adP1, &dQx1, &dQy1);
    const bool bAlongRows = fabs(dQx1 - dQx0) < fabs(dQy1 - dQy0);   // steep: one point per row
    const int32_t iOuter = bAlongRows ? iH : iW, iInner = bAlongRows ? iW : iH;
    auto side = [&](int32_t iO, int32_t iI, double *pdG) {
        const size_t uIndex = bAlongRows ? (size_t)iO * iW + iI : (size_t)iI * iW + iO;
        double adRay[3];
        if (!PixelRay(stLens, stMap, uIndex, adRay)) {
            return false;
        }
        *pdG = Dot(adN, adRay);
        return true;
    };
    std::vector<double> vdFound;   // (outer index, inner position) pairs in scan order
    for (int32_t iO = 0; iO < iOuter; iO++) {
        double dGPrev;
        bool bPrev = side(iO, 0, &dGPrev);
        for (int32_t iI = 0; iI < iInner - 1;) {
            const int32_t iNext = std::min(iI + kCoarseStep, iInner - 1);
            double dGNext;
            const bool bNext = side(iO, iNext, &dGNext);
            if (bPrev && bNext && (dGPrev > 0) == (dGNext > 0)) {
                iI = iNext;
                dGPrev = dGNext;
                continue;
            }
            // A change somewhere in between (or an unknown end): pixel by pixel.
            for (int32_t k = iI; k < iNext; k++) {
                double dG0, dG1;
                if (!side(iO, k, &dG0) || !side(iO, k + 1, &dG1) || (dG0 > 0) == (dG1 > 0)) {
                    continue;
                }
                const double dT = dG0 / (dG0 - dG1);
                const double dX = bAlongRows ? k + dT : iO, dY = bAlongRows ? iO : k + dT;
                if (dX < kClampMargin || dY < kClampMargin || dX > iW - 1 - kClampMargin ||
                    dY > iH - 1 - kClampMargin) {
                    continue;
                }
                double dQx, dQy, adRay[3], adC0[3], adC1[3];
                if (!SampleMap(stMap, dX, dY, &dQx, &dQy)) {
                    continue;
                }
                RayOfCorrected(stLens, dQx, dQy, adRay);
                Cross(stLine.adP0, adRay, adC0);
                Cross(adRay, stLine.adP1, adC1);
                if (Dot(adC0, adN) < 0 || Dot(adC1, adN) < 0) {
                    continue;   // on the line's extension, not the segment
                }
                bool bHidden = false;
                for (const tagST_QS_SPHERE &stSphere : stScene.vstSpheres) {
                    bHidden = bHidden || RayInSphere(stSphere, adRay);
                }
                if (!bHidden) {
                    vdFound.push_back(iO);
                    vdFound.push_back(k + dT);
                }
            }
            iI = iNext;
            bPrev = bNext;
            dGPrev = dGNext;
        }
    }
    // A point counts when the line also crosses a neighbouring row (column) next to it: a single
    // crossing far from the rest is a glitch of the clamp's ragged edge, not the line.
    pvdPoints->clear();
    const size_t uN = vdFound.size() / 2;
    for (size_t i = 0; i < uN; i++) {
        bool bNeighbour = false;
        for (size_t j = i > 8 ? i - 8 : 0; j < std::min(uN, i + 9) && !bNeighbour; j++) {
            bNeighbour = fabs(vdFound[2 * j] - vdFound[2 * i]) == 1.0 &&
                         fabs(vdFound[2 * j + 1] - vdFound[2 * i + 1]) < kNeighbourReach;
        }
        if (bNeighbour) {
            pvdPoints->push_back(bAlongRows ? vdFound[2 * i + 1] : vdFound[2 * i]);
            pvdPoints->push_back(bAlongRows ? vdFound[2 * i] : vdFound[2 * i + 1]);
        }
    }
}

// Sum of squared distances of the points from their total-least-squares line.
double StraightnessResidual(const std::vector<double> &vdPoints)
{
    const size_t uN = vdPoints.size() / 2;
    double dMx = 0, dMy = 0;
    for (size_t i = 0; i < uN; i++) {
        dMx += vdPoints[2 * i];
        dMy += vdPoints[2 * i + 1];
    }
    dMx /= uN;
    dMy /= uN;
    double dA = 0, dB = 0, dC = 0;
    for (size_t i = 0; i < uN; i++) {
        const double dX = vdPoints[2 * i] - dMx, dY = vdPoints[2 * i + 1] - dMy;
        dA += dX * dX;
        dB += dX * dY;
        dC += dY * dY;
    }
    // The smaller eigenvalue of the scatter matrix is the squared residual sum.
    return std::max(0.0, 0.5 * (dA + dC) - sqrt(0.25 * (dA - dC) * (dA - dC) + dB * dB));
}

// Mean covered extent along rows (bRows) or columns: the corrected coordinate of the last valid
// pixel minus that of the first.
double MeanExtent(const tagST_QP_MAP &stMap, bool bRows)
{
    const int32_t iLines = bRows ? stMap.iHeight : stMap.iWidth, iN = bRows ? stMap.iWidth : stMap.iHeight;
    const std::vector<float> &vf = bRows ? stMap.vfX : stMap.vfY;
    double dSum = 0;
    int32_t iCount = 0;
    for (int32_t iL = 0; iL < iLines; iL++) {
        float fFirst = NAN, fLast = NAN;
        for (int32_t i = 0; i < iN; i++) {
            const float f = vf[bRows ? (size_t)iL * stMap.iWidth + i : (size_t)i * stMap.iWidth + iL];
            if (!std::isnan(f)) {
                fFirst = std::isnan(fFirst) ? f : fFirst;
                fLast = f;
            }
        }
        if (!std::isnan(fFirst)) {
            dSum += fLast - fFirst;
            iCount++;
        }
    }
    return iCount ? dSum / iCount : 0.0;
}

// 1 / (smallest singular value) of the map's Jacobian, from differences over four pixels (the
// corrections evaluate their positions per 2 x 2 block); the largest over the frame.
double LargestMagnification(const tagST_QP_MAP &stMap)
{
    const int32_t iW = stMap.iWidth, iH = stMap.iHeight, iD = 2;
    double dMax = 0;
    for (int32_t y = iD; y < iH - iD; y++) {
        for (int32_t x = iD; x < iW - iD; x++) {
            const size_t i = (size_t)y * iW + x;
            const double dAx = (stMap.vfX[i + iD] - stMap.vfX[i - iD]) / (2.0 * iD);
            const double dAy = (stMap.vfY[i + iD] - stMap.vfY[i - iD]) / (2.0 * iD);
            const double dBx = (stMap.vfX[i + iD * iW] - stMap.vfX[i - iD * iW]) / (2.0 * iD);
            const double dBy = (stMap.vfY[i + iD * iW] - stMap.vfY[i - iD * iW]) / (2.0 * iD);
            if (std::isnan(dAx + dAy + dBx + dBy)) {
                continue;
            }
            // Singular values of [[dAx, dBx], [dAy, dBy]]: sqrt of the eigenvalues of J^T J.
            const double dP = dAx * dAx + dAy * dAy, dQ = dBx * dBx + dBy * dBy, dR = dAx * dBx + dAy * dBy;
            const double dMin = 0.5 * (dP + dQ) - sqrt(0.25 * (dP - dQ) * (dP - dQ) + dR * dR);
            dMax = std::max(dMax, dMin > 1e-12 ? 1.0 / sqrt(dMin) : 1e6);
        }
    }
    return dMax;
}

}  // namespace

void CorrectedMap(const tagST_QS_LENS &stLens, const tagST_QP_MAP &stSource, tagST_QP_MAP *pstCorrected)
{
    const int32_t iW = stSource.iWidth, iH = stSource.iHeight;
    *pstCorrected = stSource;
    for (size_t i = 0; i < stSource.vfX.size(); i++) {
        double dQx, dQy;
        if (LensInverse(stLens, stSource.vfX[i], stSource.vfY[i], &dQx, &dQy)) {
            pstCorrected->vfX[i] = (float)dQx;
            pstCorrected->vfY[i] = (float)dQy;
        } else {
            pstCorrected->vfX[i] = NAN;
            pstCorrected->vfY[i] = NAN;
        }
    }
    // A corrected frame clamps positions outside its source to the edge: such pixels repeat the
    // samples of their neighbours and show no scene point of their own. The comparison skips one
    // pixel, since the clamp acts per 2 x 2 block and the odd pixel of a block may differ by one.
    const float fMinStep = 0.6f;
    std::vector<uint8_t> vucRepeated(stSource.vfX.size(), 0);
    for (int32_t y = 0; y < iH; y++) {
        for (int32_t x = 0; x < iW; x++) {
            const size_t i = (size_t)y * iW + x;
            const size_t uRight = x + 2 < iW ? i + 2 : i - 2, uBelow = y + 2 < iH ? i + 2 * iW : i - 2 * iW;
            const float fStepX = hypotf(stSource.vfX[uRight] - stSource.vfX[i], stSource.vfY[uRight] - stSource.vfY[i]);
            const float fStepY = hypotf(stSource.vfX[uBelow] - stSource.vfX[i], stSource.vfY[uBelow] - stSource.vfY[i]);
            vucRepeated[i] = fStepX < fMinStep || fStepY < fMinStep;
        }
    }
    // The clamp's edge is ragged by a block: two pixels around a repeated one are dropped too.
    for (int32_t y = 0; y < iH; y++) {
        for (int32_t x = 0; x < iW; x++) {
            bool bNear = false;
            for (int32_t j = std::max(0, y - kClampMargin); j <= std::min(iH - 1, y + kClampMargin) && !bNear; j++) {
                for (int32_t i = std::max(0, x - kClampMargin); i <= std::min(iW - 1, x + kClampMargin); i++) {
                    bNear = bNear || vucRepeated[(size_t)j * iW + i];
                }
            }
            if (bNear) {
                pstCorrected->vfX[(size_t)y * iW + x] = NAN;
                pstCorrected->vfY[(size_t)y * iW + x] = NAN;
            }
        }
    }
}

void MeasureCorrectedMap(const tagST_QS_SCENE &stScene, const tagST_QP_MAP &stMap, tagST_QM_RESULT *pstResult)
{
    const int32_t iW = stMap.iWidth, iH = stMap.iHeight;
    pstResult->vstFaces.clear();
    pstResult->dWorstBorderRatio = 1.0;
    pstResult->dCentreRatio = 1.0;
    pstResult->iCut = 0;
    for (const tagST_QS_SPHERE &stSphere : stScene.vstSpheres) {
        const tagST_QM_FACE stFace = MeasureFace(stScene, stSphere, stMap);
        pstResult->vstFaces.push_back(stFace);
        pstResult->iCut += stFace.bCut;
        if (stSphere.bCentre) {
            pstResult->dCentreRatio = stFace.dAxisRatio;
        } else {
            pstResult->dWorstBorderRatio = std::min(pstResult->dWorstBorderRatio, stFace.dAxisRatio);
        }
    }

    double dSumAll = 0, dSumFar = 0, dWorst = 0;
    size_t uAll = 0, uFar = 0;
    pstResult->iLines = 0;
    pstResult->iFarLines = 0;
    std::vector<double> vdPoints;
    pstResult->vstLines.clear();
    for (const tagST_QS_LINE &stLine : stScene.vstLines) {
        LinePoints(stScene, stLine, stMap, &vdPoints);
        const size_t uN = vdPoints.size() / 2;
        if (uN < (size_t)kMinLinePoints) {
            continue;
        }
        const double dResidual = StraightnessResidual(vdPoints);
        dWorst = std::max(dWorst, sqrt(dResidual / uN));
        dSumAll += dResidual;
        uAll += uN;
        pstResult->iLines++;
        const bool bFar = LineIsFar(stScene, stLine);
        if (bFar) {
            dSumFar += dResidual;
            uFar += uN;
            pstResult->iFarLines++;
        }
        const tagST_QM_LINE stMeasured = {(int32_t)(&stLine - stScene.vstLines.data()),
                                          sqrt(dResidual / uN) * 1000.0 / iW, (int32_t)uN, bFar ? 1 : 0};
        pstResult->vstLines.push_back(stMeasured);
    }
    const double dPerMille = 1000.0 / iW;
    pstResult->dLinesRms = uAll ? sqrt(dSumAll / uAll) * dPerMille : 0.0;
    pstResult->dFarLinesRms = uFar ? sqrt(dSumFar / uFar) * dPerMille : 0.0;
    pstResult->dWorstLineRms = dWorst * dPerMille;

    pstResult->dMagnification = LargestMagnification(stMap);
    pstResult->dFovKept = std::min(MeanExtent(stMap, true) / (iW - 1), MeanExtent(stMap, false) / (iH - 1));
}

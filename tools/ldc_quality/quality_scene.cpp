#include "quality_scene.h"

#include <math.h>
#include <string.h>

#include <algorithm>

#include "config/config_schema.h"
#include "records/ldc_para.h"

namespace {

const double kPi = 3.14159265358979323846;

// The room, in metres: the camera at the origin looking along +z, y down.
const double kRoomHalfWidth = 1.5;
const double kFloorY = 1.0;
const double kCeilingY = -1.0;
const double kBackZ = 3.0;
const double kGridStep = 0.25;
const double kLineHalfWidth = 0.012;
const double kHeadRadius = 0.09;
const double kNearZ = 0.05;   // lines start this far in front of the camera

double Dot(const double *a, const double *b)
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

void Normalise(double *a)
{
    const double d = sqrt(Dot(a, a));
    a[0] /= d;
    a[1] /= d;
    a[2] /= d;
}

void Cross(const double *a, const double *b, double *c)
{
    c[0] = a[1] * b[2] - a[2] * b[1];
    c[1] = a[2] * b[0] - a[0] * b[2];
    c[2] = a[0] * b[1] - a[1] * b[0];
}

double RadialFactor(const tagST_QS_LENS &stLens, double dR2)
{
    const double dQ2 = 1.0 / (stLens.dFx * stLens.dFx);
    const double dC1 = stLens.adK[0] * dQ2;
    const double dC2 = stLens.adK[1] * dQ2 * dQ2;
    const double dC3 = stLens.adK[2] * dQ2 * dQ2 * dQ2;
    return 1.0 + dC1 * dR2 + dC2 * dR2 * dR2 + dC3 * dR2 * dR2 * dR2;
}

// d (r f(r^2)) / dr.
double RadialSlope(const tagST_QS_LENS &stLens, double dR)
{
    const double dQ2 = 1.0 / (stLens.dFx * stLens.dFx);
    const double dR2 = dR * dR;
    return 1.0 + 3.0 * stLens.adK[0] * dQ2 * dR2 + 5.0 * stLens.adK[1] * dQ2 * dQ2 * dR2 * dR2 +
           7.0 * stLens.adK[2] * dQ2 * dQ2 * dQ2 * dR2 * dR2 * dR2;
}

void FillMonotoneRadius(tagST_QS_LENS *pstLens)
{
    const double dLimit = 4.0 * hypot(pstLens->iWidth, pstLens->iHeight);
    pstLens->dRMono = dLimit;
    for (double dR = 0; dR < dLimit; dR += 0.25) {
        if (RadialSlope(*pstLens, dR) <= 0) {
            pstLens->dRMono = dR;
            return;
        }
    }
}

// Places a sphere of angular radius dAlpha along the image direction (dUx, dUy) from the
// principal point, as far out as the margin allows (dUx = dUy = 0: at the principal point).
tagST_QS_SPHERE PlaceSphere(const tagST_QS_LENS &stLens, double dUx, double dUy, double dAlpha, double dMargin,
                            const char *pcName)
{
    tagST_QS_SPHERE stSphere;
    stSphere.dAlpha = dAlpha;
    stSphere.dDist = kHeadRadius / sin(dAlpha);
    stSphere.bCentre = (dUx == 0 && dUy == 0);
    stSphere.strName = pcName;
    auto direction = [&](double dTheta, double *pdDir) {
        pdDir[0] = sin(dTheta) * dUx;
        pdDir[1] = sin(dTheta) * dUy;
        pdDir[2] = cos(dTheta);
    };
    auto fits = [&](double dTheta) {
        double adDir[3];
        direction(dTheta, adDir);
        std::vector<double> vdRays;
        SilhouetteRays(adDir, dAlpha, 64, &vdRays);
        for (size_t i = 0; i < vdRays.size(); i += 3) {
            double dQx, dQy;
            if (!CorrectedOfRay(stLens, &vdRays[i], &dQx, &dQy) || dQx < dMargin ||
                dQx > stLens.iWidth - 1 - dMargin || dQy < dMargin || dQy > stLens.iHeight - 1 - dMargin) {
                return false;
            }
        }
        return true;
    };
    double dLo = 0, dHi = 0;
    if (!stSphere.bCentre) {
        dHi = kPi / 2 - dAlpha;
        for (int32_t i = 0; i < 60; i++) {
            const double dMid = 0.5 * (dLo + dHi);
            (fits(dMid) ? dLo : dHi) = dMid;
        }
    }
    direction(dLo, stSphere.adDir);
    return stSphere;
}

void AddLine(tagST_QS_SCENE *pstScene, double dX0, double dY0, double dZ0, double dX1, double dY1, double dZ1)
{
    tagST_QS_LINE stLine = {{dX0, dY0, dZ0}, {dX1, dY1, dZ1}};
    pstScene->vstLines.push_back(stLine);
}

// Distance to the nearest grid line along one surface coordinate.
double GridDistance(double dV)
{
    const double dK = floor(dV / kGridStep + 0.5);
    return fabs(dV - dK * kGridStep);
}

// Colour (BGR, 0..255) seen along a ray.
void Shade(const tagST_QS_SCENE &stScene, const double *pdRay, double *pdBgr)
{
    double adD[3] = {pdRay[0], pdRay[1], pdRay[2]};
    Normalise(adD);
    // Nearest sphere.
    double dBestT = 1e30;
    const tagST_QS_SPHERE *pstHit = NULL;
    for (const tagST_QS_SPHERE &stSphere : stScene.vstSpheres) {
        const double dB = stSphere.dDist * Dot(adD, stSphere.adDir);
        const double dR = stSphere.dDist * sin(stSphere.dAlpha);
        const double dDisc = dB * dB - (stSphere.dDist * stSphere.dDist - dR * dR);
        if (dDisc >= 0 && dB - sqrt(dDisc) < dBestT) {
            dBestT = dB - sqrt(dDisc);
            pstHit = &stSphere;
        }
    }
    if (pstHit != NULL) {
        double adN[3];
        const double dR = pstHit->dDist * sin(pstHit->dAlpha);
        for (int32_t k = 0; k < 3; k++) {
            adN[k] = (dBestT * adD[k] - pstHit->dDist * pstHit->adDir[k]) / dR;
        }
        double adLight[3] = {0.25, -0.35, -1.0};   // behind the camera, a little up and right
        Normalise(adLight);
        const double dLambert = std::max(0.0, Dot(adN, adLight));
        const double adSkin[3] = {120, 165, 225};
        for (int32_t k = 0; k < 3; k++) {
            pdBgr[k] = adSkin[k] * (0.35 + 0.65 * dLambert);
        }
        return;
    }
    // Inside a box every ray leaves through exactly one face first.
    double dT = kBackZ / adD[2];
    int32_t iFace = 0;   // 0 back, 1 floor, 2 ceiling, 3 side walls
    if (adD[1] > 0 && kFloorY / adD[1] < dT) {
        dT = kFloorY / adD[1];
        iFace = 1;
    }
    if (adD[1] < 0 && kCeilingY / adD[1] < dT) {
        dT = kCeilingY / adD[1];
        iFace = 2;
    }
    if (adD[0] != 0 && (adD[0] > 0 ? kRoomHalfWidth : -kRoomHalfWidth) / adD[0] < dT) {
        dT = (adD[0] > 0 ? kRoomHalfWidth : -kRoomHalfWidth) / adD[0];
        iFace = 3;
    }
    const double dX = dT * adD[0], dY = dT * adD[1], dZ = dT * adD[2];
    static const double aadBase[4][3] = {{200, 215, 228}, {120, 150, 170}, {238, 238, 238}, {215, 198, 175}};
    double dU, dV;
    switch (iFace) {
    case 0: dU = dX; dV = dY; break;
    case 1:
    case 2: dU = dX; dV = dZ; break;
    default: dU = dZ; dV = dY; break;
    }
    const bool bLine = GridDistance(dU) < kLineHalfWidth || GridDistance(dV) < kLineHalfWidth;
    for (int32_t k = 0; k < 3; k++) {
        pdBgr[k] = bLine ? 50.0 : aadBase[iFace][k];
    }
}

}  // namespace

void LensForward(const tagST_QS_LENS &stLens, double dQx, double dQy, double *pdPx, double *pdPy)
{
    const double dDx = dQx - stLens.dU0;
    const double dDy = dQy - stLens.dV0;
    const double dF = RadialFactor(stLens, dDx * dDx + dDy * dDy);
    *pdPx = stLens.dU0 + dF * dDx;
    *pdPy = stLens.dV0 + dF * dDy;
}

bool LensInverse(const tagST_QS_LENS &stLens, double dPx, double dPy, double *pdQx, double *pdQy)
{
    const double dDx = dPx - stLens.dU0;
    const double dDy = dPy - stLens.dV0;
    const double dRho = hypot(dDx, dDy);
    if (dRho == 0) {
        *pdQx = dPx;
        *pdQy = dPy;
        return true;
    }
    const double dRMax = stLens.dRMono;
    if (dRMax * RadialFactor(stLens, dRMax * dRMax) < dRho) {
        return false;
    }
    // Newton inside the bracket [lo, hi] of the monotone part, bisecting when a step leaves it.
    double dLo = 0, dHi = dRMax, dR = std::min(dRho, dRMax);
    for (int32_t i = 0; i < 100; i++) {
        const double dG = dR * RadialFactor(stLens, dR * dR) - dRho;
        if (dG < 0) {
            dLo = dR;
        } else {
            dHi = dR;
        }
        double dNext = dR - dG / RadialSlope(stLens, dR);
        if (!(dNext > dLo && dNext < dHi)) {
            dNext = 0.5 * (dLo + dHi);
        }
        if (fabs(dNext - dR) < 1e-10 * (1.0 + dR)) {
            dR = dNext;
            break;
        }
        dR = dNext;
    }
    *pdQx = stLens.dU0 + dDx * dR / dRho;
    *pdQy = stLens.dV0 + dDy * dR / dRho;
    return true;
}

static double OddNextToCentre(int32_t iSize)
{
    const int32_t iHalf = iSize / 2;
    return (double)((iHalf & 1) ? iHalf : iHalf + 1);
}

bool MakeLens(int32_t iW, int32_t iH, double dHfov, bool bSample, const std::string &strSampleConfig,
              tagST_QS_LENS *pstLens, std::string *pstrError)
{
    memset(pstLens, 0, sizeof(*pstLens));
    pstLens->iWidth = iW;
    pstLens->iHeight = iH;
    const double dR2 = (double)(iW >> 1) * (iW >> 1) + (double)(iH >> 1) * (iH >> 1);
    if (bSample) {
        tagST_LDC_PARA stPara;
        memset(&stPara, 0, sizeof(stPara));
        stPara.iImgWidth = iW;
        stPara.iImgHeight = iH;
        if (ParseConfigFile(strSampleConfig.c_str(), &stPara) != LDC_OK || stPara.iImgWidth != iW) {
            *pstrError = "no " + std::to_string(iW) + "x" + std::to_string(iH) + " profile in " + strSampleConfig;
            return false;
        }
        pstLens->dFx = stPara.afCameraMatrix[0];
        pstLens->dU0 = stPara.afCameraMatrix[2];
        pstLens->dV0 = stPara.afCameraMatrix[5];
        for (int32_t k = 0; k < 3; k++) {
            pstLens->adK[k] = stPara.afDistortionCoefficients[k];
        }
    } else {
        pstLens->dFx = 0.5 * iW / tan(0.5 * dHfov * kPi / 180.0);
        pstLens->dU0 = OddNextToCentre(iW);
        pstLens->dV0 = OddNextToCentre(iH);
        const double dCx = std::max(pstLens->dU0, iW - 1 - pstLens->dU0);
        const double dCy = std::max(pstLens->dV0, iH - 1 - pstLens->dV0);
        pstLens->adK[0] = -0.1 * pstLens->dFx * pstLens->dFx / (dCx * dCx + dCy * dCy);
    }
    // 4 % + 1 % at the corner of the frame centre's circle: the sample profiles' rule.
    pstLens->adGlobal[0] = 0.04 / dR2;
    pstLens->adGlobal[1] = 0.01 / (dR2 * dR2);
    pstLens->adGlobal[2] = 0;
    pstLens->adGlobal[3] = 1.0 / pstLens->dFx;
    FillMonotoneRadius(pstLens);
    return true;
}

void RayOfCorrected(const tagST_QS_LENS &stLens, double dQx, double dQy, double *pdRay)
{
    pdRay[0] = (dQx - stLens.dU0) / stLens.dFx;
    pdRay[1] = (dQy - stLens.dV0) / stLens.dFx;
    pdRay[2] = 1.0;
}

bool CorrectedOfRay(const tagST_QS_LENS &stLens, const double *pdRay, double *pdQx, double *pdQy)
{
    if (pdRay[2] <= 1e-9) {
        return false;
    }
    *pdQx = stLens.dU0 + stLens.dFx * pdRay[0] / pdRay[2];
    *pdQy = stLens.dV0 + stLens.dFx * pdRay[1] / pdRay[2];
    return true;
}

void SilhouetteRays(const double *pdDir, double dAlpha, int32_t iCount, std::vector<double> *pvdRays)
{
    double adE1[3], adE2[3];
    const double adUp[3] = {0, 1, 0};
    Cross(pdDir, adUp, adE1);
    if (Dot(adE1, adE1) < 1e-12) {
        const double adSide[3] = {1, 0, 0};
        Cross(pdDir, adSide, adE1);
    }
    Normalise(adE1);
    Cross(pdDir, adE1, adE2);
    pvdRays->clear();
    for (int32_t i = 0; i < iCount; i++) {
        const double dPhi = 2.0 * kPi * i / iCount;
        for (int32_t k = 0; k < 3; k++) {
            pvdRays->push_back(cos(dAlpha) * pdDir[k] + sin(dAlpha) * (cos(dPhi) * adE1[k] + sin(dPhi) * adE2[k]));
        }
    }
}

void SphereImageDisc(const tagST_QS_LENS &stLens, const tagST_QS_SPHERE &stSphere, double *pdCx, double *pdCy,
                     double *pdR)
{
    std::vector<double> vdRays;
    SilhouetteRays(stSphere.adDir, stSphere.dAlpha, 128, &vdRays);
    double dL = 1e30, dT = 1e30, dR = -1e30, dB = -1e30;
    for (size_t i = 0; i < vdRays.size(); i += 3) {
        double dQx, dQy;
        if (!CorrectedOfRay(stLens, &vdRays[i], &dQx, &dQy)) {
            continue;
        }
        dL = std::min(dL, dQx);
        dR = std::max(dR, dQx);
        dT = std::min(dT, dQy);
        dB = std::max(dB, dQy);
    }
    *pdCx = 0.5 * (dL + dR);
    *pdCy = 0.5 * (dT + dB);
    *pdR = 0.5 * std::max(dR - dL, dB - dT);
}

bool RayInSphere(const tagST_QS_SPHERE &stSphere, const double *pdRay)
{
    return Dot(pdRay, stSphere.adDir) > cos(stSphere.dAlpha) * sqrt(Dot(pdRay, pdRay));
}

void BuildScene(const tagST_QS_LENS &stLens, double dHfov, tagST_QS_SCENE *pstScene)
{
    pstScene->stLens = stLens;
    pstScene->dHfov = dHfov;
    pstScene->vstLines.clear();
    pstScene->vstSpheres.clear();
    pstScene->vstFaces.clear();
    const double dW = kRoomHalfWidth, dS = kGridStep;
    for (double dX = -dW; dX <= dW + 1e-9; dX += dS) {
        AddLine(pstScene, dX, kCeilingY, kBackZ, dX, kFloorY, kBackZ);    // back wall, vertical
        AddLine(pstScene, dX, kFloorY, kNearZ, dX, kFloorY, kBackZ);      // floor, receding
        AddLine(pstScene, dX, kCeilingY, kNearZ, dX, kCeilingY, kBackZ);  // ceiling, receding
    }
    for (double dY = kCeilingY; dY <= kFloorY + 1e-9; dY += dS) {
        AddLine(pstScene, -dW, dY, kBackZ, dW, dY, kBackZ);   // back wall, horizontal
    }
    for (double dZ = dS; dZ < kBackZ - 1e-9; dZ += dS) {
        AddLine(pstScene, -dW, kFloorY, dZ, dW, kFloorY, dZ);       // floor, across
        AddLine(pstScene, -dW, kCeilingY, dZ, dW, kCeilingY, dZ);   // ceiling, across
        AddLine(pstScene, -dW, kCeilingY, dZ, -dW, kFloorY, dZ);    // side walls, vertical
        AddLine(pstScene, dW, kCeilingY, dZ, dW, kFloorY, dZ);
    }
    for (double dY = kCeilingY + dS; dY < kFloorY - 1e-9; dY += dS) {
        AddLine(pstScene, -dW, dY, kNearZ, -dW, dY, kBackZ);   // side walls, receding
        AddLine(pstScene, dW, dY, kNearZ, dW, dY, kBackZ);
    }

    // Heads as large as a portrait at this field of view shows them: the centre head's image
    // radius is a tenth of the frame height.
    const double dAlpha = atan(0.1 * stLens.iHeight / stLens.dFx);
    const double dMargin = 0.03 * stLens.iWidth;
    const double dCornerX = stLens.iWidth - 1 - stLens.dU0, dCornerY = -stLens.dV0;
    const double dCornerLen = hypot(dCornerX, dCornerY);
    pstScene->vstSpheres.push_back(PlaceSphere(stLens, 0, 0, dAlpha, dMargin, "centre"));
    pstScene->vstSpheres.push_back(PlaceSphere(stLens, -1, 0, dAlpha, dMargin, "border"));
    pstScene->vstSpheres.push_back(
        PlaceSphere(stLens, dCornerX / dCornerLen, dCornerY / dCornerLen, dAlpha, dMargin, "corner"));

    // A detector's rectangle: the silhouette's box in recorded pixels.
    for (const tagST_QS_SPHERE &stSphere : pstScene->vstSpheres) {
        std::vector<double> vdRays;
        SilhouetteRays(stSphere.adDir, stSphere.dAlpha, 256, &vdRays);
        double dL = 1e30, dT = 1e30, dR = -1e30, dB = -1e30;
        for (size_t i = 0; i < vdRays.size(); i += 3) {
            double dQx, dQy, dPx, dPy;
            if (!CorrectedOfRay(stLens, &vdRays[i], &dQx, &dQy)) {
                continue;
            }
            LensForward(stLens, dQx, dQy, &dPx, &dPy);
            dL = std::min(dL, dPx);
            dR = std::max(dR, dPx);
            dT = std::min(dT, dPy);
            dB = std::max(dB, dPy);
        }
        ST_FACE_RECT stFace = {std::max(0, (int32_t)floor(dL)), std::max(0, (int32_t)floor(dT)),
                               std::min(stLens.iWidth - 1, (int32_t)ceil(dR)),
                               std::min(stLens.iHeight - 1, (int32_t)ceil(dB))};
        pstScene->vstFaces.push_back(stFace);
    }
}

cv::Mat RenderScene(const tagST_QS_SCENE &stScene, int32_t iSuper)
{
    const tagST_QS_LENS &stLens = stScene.stLens;
    cv::Mat stImage(stLens.iHeight, stLens.iWidth, CV_8UC3);
    for (int32_t y = 0; y < stLens.iHeight; y++) {
        uint8_t *pucRow = stImage.ptr<uint8_t>(y);
        for (int32_t x = 0; x < stLens.iWidth; x++) {
            double adSum[3] = {0, 0, 0};
            for (int32_t j = 0; j < iSuper; j++) {
                for (int32_t i = 0; i < iSuper; i++) {
                    const double dPx = x + (i + 0.5) / iSuper - 0.5;
                    const double dPy = y + (j + 0.5) / iSuper - 0.5;
                    double dQx, dQy, adRay[3], adBgr[3] = {0, 0, 0};
                    if (LensInverse(stLens, dPx, dPy, &dQx, &dQy)) {
                        RayOfCorrected(stLens, dQx, dQy, adRay);
                        Shade(stScene, adRay, adBgr);
                    }
                    for (int32_t k = 0; k < 3; k++) {
                        adSum[k] += adBgr[k];
                    }
                }
            }
            for (int32_t k = 0; k < 3; k++) {
                pucRow[3 * x + k] = (uint8_t)std::min(255.0, adSum[k] / (iSuper * iSuper) + 0.5);
            }
        }
    }
    return stImage;
}

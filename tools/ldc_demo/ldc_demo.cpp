// ldc_demo: renders a straight grid as a real 640 x 480 barrel lens would see it, corrects the
// frame with DistortionCorrect_neon, writes both as PNG and prints how straight the grid lines
// are before and after (RMS distance of the traced line points from their fitted lines).
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "geometry/distortion_correct.h"
#include "geometry/lens_model.h"
#include "runtime/runtime.h"

namespace {

// The real calibration of a 640 x 480 wide-angle module.
const int kWidth = 640;
const int kHeight = 480;
const float kFx = 535.91573f;
const float kU0 = 342.28315f;
const float kV0 = 235.57083f;
const float kK1 = -0.26637261f;
const float kK2 = -0.038588899f;
const float kK3 = 0.23839153f;
const int kGridStep = 40;

// The principal point lies on odd pixel coordinates, as the configuration reader makes it.
float OddCoordinate(float fValue)
{
    const int n = (int)fValue;
    return (n & 1) ? (float)n : (float)(int)(fValue + 1.0f);
}

// Radius in the corrected image whose mapped radius is fRd: the lens model maps a corrected
// point at radius r to r * f(r^2); bisection, f being monotone over the frame.
double UndistortRadius(const tagST_RADIAL_MODEL &stModel, double dRd)
{
    double dLo = 0.0;
    double dHi = 4.0 * dRd + 1.0;
    for (int i = 0; i < 60; i++) {
        const double dMid = 0.5 * (dLo + dHi);
        const double dR2 = dMid * dMid;
        const double dMapped =
            dMid * (1.0 + stModel.fC1 * dR2 + stModel.fC2 * dR2 * dR2 + stModel.fC3 * dR2 * dR2 * dR2);
        (dMapped < dRd ? dLo : dHi) = dMid;
    }
    return 0.5 * (dLo + dHi);
}

// Darkness of the ideal grid at a corrected-image position: lines 2 pixels wide, anti-aliased.
double GridInk(double dX, double dY)
{
    auto fDist = [](double d) {
        const double dM = fmod(fmod(d, (double)kGridStep) + kGridStep, (double)kGridStep);
        return fmin(dM, kGridStep - dM);
    };
    const double dD = fmin(fDist(dX - kWidth / 2), fDist(dY - kHeight / 2));
    return fmax(0.0, fmin(1.0, 1.5 - dD));
}

// NV21 frame of the grid as the lens records it: every recorded pixel shows the corrected-image
// point that the model maps onto it. Chroma carries a colour wash so that it is checked too.
std::vector<uint8_t> RenderDistortedGrid(const tagST_RADIAL_MODEL &stModel)
{
    std::vector<uint8_t> vFrame(kWidth * kHeight * 3 / 2);
    for (int y = 0; y < kHeight; y++) {
        for (int x = 0; x < kWidth; x++) {
            const double dDx = x - stModel.fCx;
            const double dDy = y - stModel.fCy;
            const double dRd = hypot(dDx, dDy);
            const double dScale = dRd > 0 ? UndistortRadius(stModel, dRd) / dRd : 1.0;
            const double dInk = GridInk(stModel.fCx + dDx * dScale, stModel.fCy + dDy * dScale);
            vFrame[y * kWidth + x] = (uint8_t)lround(230.0 - 200.0 * dInk);
        }
    }
    uint8_t *pucVu = vFrame.data() + kWidth * kHeight;
    for (int y = 0; y < kHeight / 2; y++) {
        for (int x = 0; x < kWidth / 2; x++) {
            pucVu[y * kWidth + 2 * x] = (uint8_t)(128 + 40 * y / (kHeight / 2) - 20);
            pucVu[y * kWidth + 2 * x + 1] = (uint8_t)(128 + 40 * x / (kWidth / 2) - 20);
        }
    }
    return vFrame;
}

// Traces one dark grid line through the luma plane from a known point on it, one sample per
// row (bVertical) or per column, as the ink-weighted centroid in a small window that follows the
// line. Returns the traced points as (along, across) pairs.
std::vector<std::pair<double, double>> TraceLine(const uint8_t *pucY, bool bVertical,
                                                 double dStart, int iAlongFrom, int iAlongTo)
{
    std::vector<std::pair<double, double>> vPoints;
    const int iAcrossMax = bVertical ? kWidth : kHeight;
    const int iMid = (iAlongFrom + iAlongTo) / 2;
    for (int iDir = -1; iDir <= 1; iDir += 2) {
        double dAcross = dStart;
        for (int a = iMid; a >= iAlongFrom && a <= iAlongTo; a += iDir) {
            double dSum = 0.0;
            double dWeight = 0.0;
            for (int c = (int)dAcross - 5; c <= (int)dAcross + 5; c++) {
                if (c < 0 || c >= iAcrossMax) {
                    continue;
                }
                const int iValue = bVertical ? pucY[a * kWidth + c] : pucY[c * kWidth + a];
                const double dInk = fmax(0.0, 200.0 - iValue);
                dSum += dInk * c;
                dWeight += dInk;
            }
            if (dWeight <= 0.0) {
                break;
            }
            dAcross = dSum / dWeight;
            if (iDir == 1 || a != iMid) {
                vPoints.emplace_back(a, dAcross);
            }
        }
    }
    return vPoints;
}

// Sum of squared distances of the points from their least-squares line across = p * along + q.
double SquaredResiduals(const std::vector<std::pair<double, double>> &vPoints)
{
    double dSa = 0, dSc = 0, dSaa = 0, dSac = 0;
    const double dN = (double)vPoints.size();
    for (const auto &p : vPoints) {
        dSa += p.first;
        dSc += p.second;
        dSaa += p.first * p.first;
        dSac += p.first * p.second;
    }
    const double dSlope = (dN * dSac - dSa * dSc) / (dN * dSaa - dSa * dSa);
    const double dOffset = (dSc - dSlope * dSa) / dN;
    double dSum = 0.0;
    for (const auto &p : vPoints) {
        const double dE = p.second - (dSlope * p.first + dOffset);
        dSum += dE * dE / (1.0 + dSlope * dSlope);
    }
    return dSum;
}

// RMS distance of traced grid points from their fitted lines, over the grid lines that cross the
// central 80 % of the frame. ptStart maps an ideal grid position to where the line is found on the
// centre row or column of the image being measured.
template <typename MapFn>
double Straightness(const uint8_t *pucY, MapFn fnStart)
{
    double dSum = 0.0;
    size_t uCount = 0;
    for (int iX = kWidth / 2 - 5 * kGridStep; iX <= kWidth / 2 + 5 * kGridStep; iX += kGridStep) {
        const auto vPoints = TraceLine(pucY, true, fnStart(iX, kHeight / 2).first, kHeight / 10,
                                       kHeight - kHeight / 10);
        dSum += SquaredResiduals(vPoints);
        uCount += vPoints.size();
    }
    for (int iY = kHeight / 2 - 4 * kGridStep; iY <= kHeight / 2 + 4 * kGridStep; iY += kGridStep) {
        const auto vPoints = TraceLine(pucY, false, fnStart(kWidth / 2, iY).second, kWidth / 10,
                                       kWidth - kWidth / 10);
        dSum += SquaredResiduals(vPoints);
        uCount += vPoints.size();
    }
    return sqrt(dSum / (double)uCount);
}

bool WritePng(const std::string &sPath, const std::vector<uint8_t> &vFrame)
{
    cv::Mat mNv21(kHeight * 3 / 2, kWidth, CV_8UC1, (void *)vFrame.data());
    cv::Mat mBgr;
    cv::cvtColor(mNv21, mBgr, cv::COLOR_YUV2BGR_NV21);
    return cv::imwrite(sPath, mBgr);
}

}  // namespace

int main(int argc, char **argv)
{
    const std::string sOutDir = argc > 1 ? argv[1] : ".";

    tagST_LDC_PARA stPara;
    memset(&stPara, 0, sizeof(stPara));
    stPara.iImgWidth = kWidth;
    stPara.iImgHeight = kHeight;
    stPara.ePicType = LDC_PIC_NV21;
    stPara.iLDCFlag = 1;
    stPara.iLDCEnable = 1;
    const float afMatrix[9] = {kFx, 0, OddCoordinate(kU0), 0, kFx, OddCoordinate(kV0), 0, 0, 1};
    memcpy(stPara.afCameraMatrix, afMatrix, sizeof(afMatrix));
    stPara.afDistortionCoefficients[0] = kK1;
    stPara.afDistortionCoefficients[1] = kK2;
    stPara.afDistortionCoefficients[2] = kK3;
    GetUndistortedArea(&stPara, LDC_AREA_LENS);

    // Working buffer: the remap keeps its column table just past one frame's worth of bytes.
    const uint32_t uBufSize = LDC_COLUMN_TABLE_OFFSET(kWidth, kHeight) + LDC_COLUMN_TABLE_BYTES(0, kWidth) + 64;
    int32_t iOffset = 0;
    const uintptr_t uBlock = MemoMalloc(uBufSize, 16, &iOffset);
    if (uBlock == 0) {
        fprintf(stderr, "out of memory\n");
        return 1;
    }
    stPara.pucWorkBuf = (uint8_t *)uBlock + iOffset;
    stPara.pucWorkBufRaw = (uint8_t *)uBlock;

    tagST_RADIAL_MODEL stModel;
    GetRadialModel(&stPara, 1, &stModel);
    std::vector<uint8_t> vBefore = RenderDistortedGrid(stModel);
    // The remap's bilinear reads reach two rows below the mapped position: keep slack behind.
    vBefore.resize(vBefore.size() + 2 * kWidth + 16);
    std::vector<uint8_t> vAfter(kWidth * kHeight * 3 / 2, 0);

    const int iS = kWidth * kHeight;
    // Luma, interleaved chroma and the second chroma pointer, which the semi-planar remap does not read.
    uint8_t *const apucSrc[3] = {vBefore.data(), vBefore.data() + iS, NULL};
    uint8_t *const apucDst[3] = {vAfter.data(), vAfter.data() + iS, NULL};
    DistortionCorrect_neon(0, &stPara, apucSrc, apucDst);
    MemoFree(uBlock);
    vBefore.resize(kWidth * kHeight * 3 / 2);

    // In the recorded frame an ideal grid point p lies where the model maps p.
    auto fnDistorted = [&](int iX, int iY) {
        const float fDx = (float)iX - stModel.fCx;
        const float fDy = (float)iY - stModel.fCy;
        const float fF = RadialFactorSerial(&stModel, fDx * fDx + fDy * fDy);
        return std::make_pair((double)(stModel.fCx + fF * fDx), (double)(stModel.fCy + fF * fDy));
    };
    auto fnIdeal = [](int iX, int iY) { return std::make_pair((double)iX, (double)iY); };
    const double dBefore = Straightness(vBefore.data(), fnDistorted);
    const double dAfter = Straightness(vAfter.data(), fnIdeal);

    const std::string sBeforePath = sOutDir + "/demo_before.png";
    const std::string sAfterPath = sOutDir + "/demo_after.png";
    if (!WritePng(sBeforePath, vBefore) || !WritePng(sAfterPath, vAfter)) {
        fprintf(stderr, "cannot write the PNG files to %s\n", sOutDir.c_str());
        return 1;
    }
    printf("lens: fx = %.5f, (u0, v0) = (%.0f, %.0f), k1..k3 = %.8f %.9f %.8f; valid area [%d, %d, %d, %d]\n",
           kFx, stModel.fCx, stModel.fCy, kK1, kK2, kK3, stPara.aiLDCArea[0], stPara.aiLDCArea[1],
           stPara.aiLDCArea[2], stPara.aiLDCArea[3]);
    printf("straightness of the grid lines (RMS distance from fitted lines, pixels):\n");
    printf("  before correction: %.3f\n  after correction:  %.3f\n", dBefore, dAfter);
    printf("wrote %s and %s\n", sBeforePath.c_str(), sAfterPath.c_str());
    return 0;
}

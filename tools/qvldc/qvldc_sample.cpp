#include "qvldc_sample.h"

#include <math.h>
#include <string.h>

#include <algorithm>

#include <opencv2/imgproc.hpp>

#include "config/config_schema.h"

bool LoadLensModel(const std::string &strConfig, tagST_QV_SIZE stSize, tagST_RADIAL_MODEL *pstModel,
                   std::string *pstrError)
{
    tagST_LDC_PARA stPara;
    memset(&stPara, 0, sizeof(stPara));
    stPara.iImgWidth = stSize.iWidth;
    stPara.iImgHeight = stSize.iHeight;
    if (ParseConfigFile(strConfig.c_str(), &stPara) != LDC_OK) {
        *pstrError = "no usable profile for this size in " + strConfig + " (see the log above)";
        return false;
    }
    GetRadialModel(&stPara, 1, pstModel);
    // A profile of the other orientation serves this size with its axes swapped.
    if (stPara.iImgWidth != stSize.iWidth) {
        std::swap(pstModel->fCx, pstModel->fCy);
    }
    return true;
}

namespace {

// Scene coordinates are fractions of the frame (u across, v down) in corrected pixels; the
// canvas extends beyond the frame by what the lens squeezes in at the border.
struct SceneCanvas {
    cv::Mat stImage;
    double dW;
    double dH;
    double dOx;   // corrected pixel of canvas column 0
    double dOy;

    cv::Point At(double dU, double dV) const
    {
        return cv::Point((int)lround((dU * dW - dOx) * 16.0), (int)lround((dV * dH - dOy) * 16.0));
    }
    int Len(double dFractionOfWidth) const { return std::max(1, (int)lround(dFractionOfWidth * dW)); }
    int Len16(double dFractionOfWidth) const { return (int)lround(dFractionOfWidth * dW * 16.0); }

    void Box(double dU0, double dV0, double dU1, double dV1, const cv::Scalar &stColor, int iThick = cv::FILLED)
    {
        cv::rectangle(stImage, At(dU0, dV0), At(dU1, dV1), stColor, iThick, cv::LINE_AA, 4);
    }
    void Line(double dU0, double dV0, double dU1, double dV1, const cv::Scalar &stColor, double dThick)
    {
        cv::line(stImage, At(dU0, dV0), At(dU1, dV1), stColor, Len(dThick), cv::LINE_AA, 4);
    }
    void Poly(const std::vector<cv::Point> &vstPts, const cv::Scalar &stColor)
    {
        cv::fillPoly(stImage, std::vector<std::vector<cv::Point>>{vstPts}, stColor, cv::LINE_AA, 4);
    }
    // Ellipse with its centre in scene fractions and half-axes in fractions of the width.
    void Ellipse(double dU, double dV, double dA, double dB, const cv::Scalar &stColor, double dStart = 0,
                 double dEnd = 360, int iThick = cv::FILLED)
    {
        cv::ellipse(stImage, At(dU, dV), cv::Size(Len16(dA), Len16(dB)), 0, dStart, dEnd, stColor, iThick,
                    cv::LINE_AA, 4);
    }
};

void DrawWindows(SceneCanvas &stC, double dU0, double dV0, double dU1, double dV1, int iCols, int iRows)
{
    const double dCellW = (dU1 - dU0) / iCols;
    const double dCellH = (dV1 - dV0) / iRows;
    for (int r = 0; r < iRows; r++) {
        for (int c = 0; c < iCols; c++) {
            const double dU = dU0 + c * dCellW + 0.22 * dCellW;
            const double dV = dV0 + r * dCellH + 0.2 * dCellH;
            stC.Box(dU, dV, dU + 0.56 * dCellW, dV + 0.6 * dCellH, cv::Scalar(235, 235, 235));
            stC.Box(dU + 0.06 * dCellW, dV + 0.06 * dCellH, dU + 0.5 * dCellW, dV + 0.54 * dCellH,
                    cv::Scalar(110, 75, 45));
        }
    }
}

void DrawPerson(SceneCanvas &stC, double dU, double dV, double dA, const cv::Scalar &stShirt)
{
    const double dB = 1.36 * dA;                         // face half-height, as a fraction of the width
    const double dBv = dB * stC.dW / stC.dH;             // the same in fractions of the height
    const cv::Scalar stSkin(125, 165, 220), stSkinDark(95, 130, 185), stHair(35, 45, 70);
    // Shoulders, and the body below them running out of the picture.
    stC.Ellipse(dU, dV + 2.1 * dBv, 2.1 * dA, 0.9 * dB, stShirt);
    stC.Box(dU - 2.1 * dA, dV + 2.1 * dBv, dU + 2.1 * dA, 2.0, stShirt);
    stC.Box(dU - 0.38 * dA, dV + 0.6 * dBv, dU + 0.38 * dA, dV + 1.35 * dBv, stSkinDark);
    stC.Ellipse(dU, dV - 0.22 * dBv, 1.1 * dA, 0.9 * dB, stHair);
    stC.Ellipse(dU, dV, dA, dB, stSkin);
    for (int iSide = -1; iSide <= 1; iSide += 2) {
        stC.Line(dU + iSide * 0.62 * dA, dV - 0.34 * dBv, dU + iSide * 0.18 * dA, dV - 0.40 * dBv, stHair, 0.14 * dA);
        // Shadowed sockets make the eye band darker than cheeks and nose bridge, as in a
        // photograph (and as face detectors expect).
        stC.Ellipse(dU + iSide * 0.38 * dA, dV - 0.17 * dBv, 0.27 * dA, 0.15 * dB, stSkinDark);
        stC.Ellipse(dU + iSide * 0.38 * dA, dV - 0.16 * dBv, 0.19 * dA, 0.08 * dB, cv::Scalar(225, 225, 225));
        stC.Ellipse(dU + iSide * 0.38 * dA, dV - 0.16 * dBv, 0.09 * dA, 0.09 * dA, cv::Scalar(40, 45, 60));
    }
    stC.Line(dU, dV - 0.08 * dBv, dU - 0.06 * dA, dV + 0.2 * dBv, stSkinDark, 0.06 * dA);
    stC.Line(dU - 0.06 * dA, dV + 0.2 * dBv, dU + 0.1 * dA, dV + 0.22 * dBv, stSkinDark, 0.06 * dA);
    stC.Ellipse(dU, dV + 0.42 * dBv, 0.32 * dA, 0.13 * dB, cv::Scalar(70, 60, 165), 0, 180);
}

}  // namespace

namespace {

// The corrected position whose lens image is the recorded pixel (dX, dY); false beyond what the
// model can correct.
bool CorrectedPosition(const tagST_RADIAL_MODEL &stModel, float fRMax, double dX, double dY, double *pdQx,
                       double *pdQy)
{
    const double dDx = dX - stModel.fCx;
    const double dDy = dY - stModel.fCy;
    const double dRho = hypot(dDx, dDy);
    const float fR = InvertRadialModel(&stModel, (float)dRho, fRMax);
    const double dScale = (dRho > 0 && fR >= 0) ? fR / dRho : 1.0;
    *pdQx = stModel.fCx + dDx * dScale;
    *pdQy = stModel.fCy + dDy * dScale;
    return fR >= 0;
}

// A small deterministic generator, so that a varied batch is the same on every machine.
struct Lcg {
    uint32_t uState;
    double Next()
    {
        uState = uState * 1664525u + 1013904223u;
        return (uState >> 8) / 16777216.0;
    }
    double Range(double dLo, double dHi) { return dLo + (dHi - dLo) * Next(); }
};

}  // namespace

std::vector<tagST_QV_PERSON> SamplePeople()
{
    return {{0.125, 0.44, 0.052, cv::Scalar(150, 90, 40)}, {0.865, 0.47, 0.058, cv::Scalar(60, 120, 60)}};
}

std::vector<tagST_QV_PERSON> VariedPeople(int32_t iFrame)
{
    Lcg stRand = {0x9E3779B9u ^ (uint32_t)iFrame * 2654435761u};
    const cv::Scalar astShirt[4] = {cv::Scalar(150, 90, 40), cv::Scalar(60, 120, 60), cv::Scalar(40, 60, 160),
                                    cv::Scalar(120, 120, 120)};
    // Every fourth frame without anyone; the others with one to three people, spread across the
    // frame from left to right so that they seldom overlap.
    const int32_t iPeople = iFrame % 4 == 0 ? 0 : 1 + (int32_t)(stRand.Next() * 3.0);
    std::vector<tagST_QV_PERSON> vstPeople;
    for (int32_t i = 0; i < iPeople; i++) {
        const double dSlot = (i + 0.5) / iPeople;
        const double dU = std::min(0.95, std::max(0.05, dSlot + stRand.Range(-0.45, 0.45) / iPeople));
        vstPeople.push_back({dU, stRand.Range(0.22, 0.62), stRand.Range(0.03, 0.085), astShirt[(iFrame + i) % 4]});
    }
    return vstPeople;
}

void PrepareRecording(const tagST_RADIAL_MODEL &stModel, tagST_QV_SIZE stSize, tagST_QV_RECORDING *pstRec)
{
    const int32_t iW = stSize.iWidth;
    const int32_t iH = stSize.iHeight;
    const float fRMax = 4.0f * (float)std::max(iW, iH);
    pstRec->stModel = stModel;
    pstRec->stSize = stSize;

    // Corrected positions of the frame's border: the canvas must hold all of them.
    double dMinX = 0, dMinY = 0, dMaxX = iW, dMaxY = iH;
    for (int32_t i = 0; i <= 64; i++) {
        const double adX[4] = {iW * i / 64.0, iW * i / 64.0, 0, (double)iW};
        const double adY[4] = {0, (double)iH, iH * i / 64.0, iH * i / 64.0};
        for (int32_t k = 0; k < 4; k++) {
            double dQx, dQy;
            if (CorrectedPosition(stModel, fRMax, adX[k], adY[k], &dQx, &dQy)) {
                dMinX = std::min(dMinX, dQx);
                dMaxX = std::max(dMaxX, dQx);
                dMinY = std::min(dMinY, dQy);
                dMaxY = std::max(dMaxY, dQy);
            }
        }
    }
    pstRec->dOx = floor(dMinX) - 4;
    pstRec->dOy = floor(dMinY) - 4;
    pstRec->stCanvas = cv::Size((int32_t)ceil(dMaxX - pstRec->dOx) + 8, (int32_t)ceil(dMaxY - pstRec->dOy) + 8);

    // Each recorded pixel shows the scene at the corrected position whose lens image it is.
    pstRec->stMapX.create(iH, iW, CV_32FC1);
    pstRec->stMapY.create(iH, iW, CV_32FC1);
    for (int32_t y = 0; y < iH; y++) {
        float *pfX = pstRec->stMapX.ptr<float>(y);
        float *pfY = pstRec->stMapY.ptr<float>(y);
        for (int32_t x = 0; x < iW; x++) {
            double dQx, dQy;
            if (CorrectedPosition(stModel, fRMax, x, y, &dQx, &dQy)) {
                pfX[x] = (float)(dQx - pstRec->dOx);
                pfY[x] = (float)(dQy - pstRec->dOy);
            } else {
                pfX[x] = -1.0f;
                pfY[x] = -1.0f;
            }
        }
    }
}

void RenderSample(const tagST_QV_RECORDING &stRec, const std::vector<tagST_QV_PERSON> &vstPeople,
                  cv::Mat *pstRecorded, std::vector<ST_FACE_RECT> *pvstFaces)
{
    const tagST_RADIAL_MODEL &stModel = stRec.stModel;
    const int32_t iW = stRec.stSize.iWidth;
    const int32_t iH = stRec.stSize.iHeight;
    SceneCanvas stC;
    stC.dW = iW;
    stC.dH = iH;
    stC.dOx = stRec.dOx;
    stC.dOy = stRec.dOy;
    const int32_t iCw = stRec.stCanvas.width;
    const int32_t iCh = stRec.stCanvas.height;
    stC.stImage.create(iCh, iCw, CV_8UC3);
    // Sky, lighter towards the horizon.
    for (int32_t y = 0; y < iCh; y++) {
        const double dT = std::min(1.0, std::max(0.0, (y + stC.dOy) / (0.62 * iH)));
        stC.stImage.row(y).setTo(cv::Scalar(235 + 15 * dT, 190 + 45 * dT, 140 + 75 * dT));
    }
    const double dFar = 2.0;   // scene fractions beyond the frame, safely past the canvas
    // Ground below a horizon tilted by about one degree.
    const double dHorizonL = 0.635, dHorizonR = 0.605;
    auto horizon = [&](double dU) { return dHorizonL + (dHorizonR - dHorizonL) * dU; };
    stC.Poly({stC.At(-dFar, horizon(-dFar)), stC.At(1 + dFar, horizon(1 + dFar)), stC.At(1 + dFar, 1 + dFar),
              stC.At(-dFar, 1 + dFar)}, cv::Scalar(105, 140, 120));
    // Road to a vanishing point on the horizon, its edges at several angles.
    const double dVanU = 0.5, dVanV = horizon(0.5);
    stC.Poly({stC.At(dVanU - 0.01, dVanV), stC.At(dVanU + 0.01, dVanV), stC.At(1.05, 1 + dFar * 0.2),
              stC.At(-0.05, 1 + dFar * 0.2)}, cv::Scalar(95, 95, 95));
    stC.Line(dVanU - 0.005, dVanV, 0.08, 1.2, cv::Scalar(240, 240, 240), 0.004);
    stC.Line(dVanU + 0.005, dVanV, 0.92, 1.2, cv::Scalar(240, 240, 240), 0.004);
    stC.Line(dVanU, dVanV, 0.5, 1.2, cv::Scalar(60, 200, 230), 0.003);

    // Tall buildings cut by the left and right borders: their long edges bend most.
    stC.Box(-dFar, -0.3, 0.115, horizon(0.115), cv::Scalar(150, 160, 175));
    DrawWindows(stC, -0.25, 0.0, 0.10, horizon(0.1) - 0.04, 6, 8);
    stC.Box(0.885, 0.05, 1 + dFar, horizon(0.885), cv::Scalar(165, 175, 190));
    DrawWindows(stC, 0.90, 0.10, 1.25, horizon(0.9) - 0.04, 6, 7);
    // Office block with a flat roof.
    stC.Box(0.19, 0.08, 0.44, horizon(0.44), cv::Scalar(175, 195, 215));
    stC.Box(0.19, 0.08, 0.44, horizon(0.44), cv::Scalar(60, 70, 80), stC.Len(0.003));
    DrawWindows(stC, 0.20, 0.11, 0.43, horizon(0.43) - 0.05, 4, 6);
    // House with a gable roof and a door.
    const double dRoofV = 0.27;
    stC.Box(0.56, dRoofV, 0.82, horizon(0.82), cv::Scalar(200, 215, 230));
    stC.Poly({stC.At(0.54, dRoofV), stC.At(0.69, 0.12), stC.At(0.84, dRoofV)}, cv::Scalar(60, 70, 150));
    DrawWindows(stC, 0.575, dRoofV + 0.03, 0.805, dRoofV + 0.17, 3, 2);
    stC.Box(0.655, 0.47, 0.725, horizon(0.69), cv::Scalar(40, 75, 120));
    stC.Box(0.665, 0.485, 0.715, horizon(0.69), cv::Scalar(70, 115, 165));
    // Lamp post.
    stC.Line(0.515, 0.22, 0.515, 0.78, cv::Scalar(50, 50, 50), 0.005);
    stC.Line(0.515, 0.22, 0.545, 0.22, cv::Scalar(50, 50, 50), 0.004);

    for (const tagST_QV_PERSON &stPerson : vstPeople) {
        DrawPerson(stC, stPerson.dU, stPerson.dV, stPerson.dA, stPerson.stShirt);
    }
    const double dBlur = iW / 2500.0;
    if (dBlur >= 0.5) {
        cv::GaussianBlur(stC.stImage, stC.stImage, cv::Size(0, 0), dBlur);
    }

    cv::remap(stC.stImage, *pstRecorded, stRec.stMapX, stRec.stMapY, cv::INTER_LINEAR, cv::BORDER_CONSTANT,
              cv::Scalar(0, 0, 0));

    // The face boxes go forward through the model: the recorded position of a corrected point.
    pvstFaces->clear();
    for (const tagST_QV_PERSON &stPerson : vstPeople) {
        const double dA = stPerson.dA * iW;
        const double dB = 1.36 * dA;
        const double dCx = stPerson.dU * iW;
        const double dCy = stPerson.dV * iH;
        double dL = 1e9, dT = 1e9, dR = -1e9, dBot = -1e9;
        for (int32_t i = 0; i < 256; i++) {
            const double dT01 = i / 256.0;
            const double adX[4] = {dCx - dA + 2 * dA * dT01, dCx - dA + 2 * dA * dT01, dCx - dA, dCx + dA};
            const double adY[4] = {dCy - dB, dCy + dB, dCy - dB + 2 * dB * dT01, dCy - dB + 2 * dB * dT01};
            for (int32_t k = 0; k < 4; k++) {
                const float fDx = (float)(adX[k] - stModel.fCx);
                const float fDy = (float)(adY[k] - stModel.fCy);
                const float fF = RadialFactorSerial(&stModel, fDx * fDx + fDy * fDy);
                const double dPx = stModel.fCx + fF * fDx;
                const double dPy = stModel.fCy + fF * fDy;
                dL = std::min(dL, dPx);
                dR = std::max(dR, dPx);
                dT = std::min(dT, dPy);
                dBot = std::max(dBot, dPy);
            }
        }
        pvstFaces->push_back({std::max(0, (int32_t)floor(dL)), std::max(0, (int32_t)floor(dT)),
                              std::min(iW - 1, (int32_t)ceil(dR)), std::min(iH - 1, (int32_t)ceil(dBot))});
    }
}

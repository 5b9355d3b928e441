#include "qvldc_view.h"

#include <math.h>
#include <stdio.h>

#include <algorithm>

#include "geometry/lens_model.h"
#include "qvldc_parse.h"

namespace {

const int32_t kFaceEdgeSamples = 16;   // points per side of a face box: the lens bends its sides

// The remap of the frame's path: the lens model over aiLDCArea when the lens correction ran,
// else the global face model over aiGlobalFDCArea (as the remap itself chooses).
struct Remap {
    int32_t bUsed;
    tagST_RADIAL_MODEL stModel;
    const int32_t *piArea;
};

Remap FrameRemap(const tagST_LDC_PLAN &stPlan, const tagST_LDC_PARA &stPara)
{
    Remap stRemap;
    stRemap.bUsed = stPlan.ePath != LDC_PATH_COPY;
    const int32_t bLens = stPara.iLDCEnable == 1;
    GetRadialModel(&stPara, bLens, &stRemap.stModel);
    stRemap.piArea = bLens ? stPara.aiLDCArea : stPara.aiGlobalFDCArea;
    return stRemap;
}

bool InArea(const int32_t *piArea, float fX, float fY)
{
    return fX >= (float)piArea[0] && fX <= (float)piArea[2] && fY >= (float)piArea[1] && fY <= (float)piArea[3];
}

void MapMatrix(const double *pdM, double dX, double dY, double *pdX, double *pdY)
{
    const double dW = pdM[6] * dX + pdM[7] * dY + pdM[8];
    *pdX = dW > 0.0 ? (pdM[0] * dX + pdM[1] * dY + pdM[2]) / dW : NAN;
    *pdY = dW > 0.0 ? (pdM[3] * dX + pdM[4] * dY + pdM[5]) / dW : NAN;
}

// Inverse of a 3 x 3 matrix by its adjugate; false when it is singular.
bool Invert3(const double *pdM, double *pdInv)
{
    const double adAdj[9] = {pdM[4] * pdM[8] - pdM[5] * pdM[7], pdM[2] * pdM[7] - pdM[1] * pdM[8],
                             pdM[1] * pdM[5] - pdM[2] * pdM[4], pdM[5] * pdM[6] - pdM[3] * pdM[8],
                             pdM[0] * pdM[8] - pdM[2] * pdM[6], pdM[2] * pdM[3] - pdM[0] * pdM[5],
                             pdM[3] * pdM[7] - pdM[4] * pdM[6], pdM[1] * pdM[6] - pdM[0] * pdM[7],
                             pdM[0] * pdM[4] - pdM[1] * pdM[3]};
    const double dDet = pdM[0] * adAdj[0] + pdM[1] * adAdj[3] + pdM[2] * adAdj[6];
    if (!(fabs(dDet) > 1e-300) || !isfinite(dDet)) {
        return false;
    }
    // Exactly adj / det: a point whose den under pdM was positive keeps a positive den under
    // the inverse (1 / den), so MapMatrix treats both directions alike.
    for (int32_t i = 0; i < 9; i++) {
        pdInv[i] = adAdj[i] / dDet;
    }
    return true;
}

// Where the output shows an input point (beyond its edges when it does not): NaN when the
// remap's model cannot place it.
void InputToOutput(const Remap &stRemap, const double *pdInv, const tagST_LDC_PARA &stPara, float fX, float fY,
                   double *pdX, double *pdY)
{
    float fQx = fX;
    float fQy = fY;
    if (stRemap.bUsed) {
        const tagST_RADIAL_MODEL &stModel = stRemap.stModel;
        const float fDx = fX - stModel.fCx;
        const float fDy = fY - stModel.fCy;
        const float fRho = sqrtf(fDx * fDx + fDy * fDy);
        const float fR = InvertRadialModel(&stModel, fRho, 4.0f * (float)std::max(stPara.iImgWidth, stPara.iImgHeight));
        const float fScale = fRho > 0.0f ? fR / fRho : 1.0f;
        if (fR < 0.0f) {
            *pdX = *pdY = NAN;
            return;
        }
        // Taken on the model's whole plane: a point the remap's rectangle leaves out lies beyond
        // the intermediate image and so beyond the output's edge as well.
        fQx = stModel.fCx + fDx * fScale;
        fQy = stModel.fCy + fDy * fScale;
    }
    MapMatrix(pdInv, fQx, fQy, pdX, pdY);
}

void MeasureFace(const Remap &stRemap, const double *pdInv, const tagST_LDC_PARA &stPara, const int32_t *piRect,
                 tagST_QV_FACE_VIEW *pstFace)
{
    const int32_t iW = stPara.iImgWidth;
    const int32_t iH = stPara.iImgHeight;
    // What the input itself shows of the widened face; the rest was never in the picture.
    const float fL = (float)std::max(0, piRect[0]);
    const float fT = (float)std::max(0, piRect[1]);
    const float fR = (float)std::min(iW - 1, piRect[2]);
    const float fB = (float)std::min(iH - 1, piRect[3]);
    double adBox[4] = {INFINITY, INFINITY, -INFINITY, -INFINITY};
    bool bLost = fL > fR || fT > fB;
    for (int32_t i = 0; i <= kFaceEdgeSamples && !bLost; i++) {
        const float fU = (float)i / kFaceEdgeSamples;
        const float afX[4] = {fL + (fR - fL) * fU, fL + (fR - fL) * fU, fL, fR};
        const float afY[4] = {fT, fB, fT + (fB - fT) * fU, fT + (fB - fT) * fU};
        for (int32_t k = 0; k < 4; k++) {
            double dX, dY;
            InputToOutput(stRemap, pdInv, stPara, afX[k], afY[k], &dX, &dY);
            if (!isfinite(dX) || !isfinite(dY)) {
                bLost = true;
                break;
            }
            adBox[0] = std::min(adBox[0], dX);
            adBox[1] = std::min(adBox[1], dY);
            adBox[2] = std::max(adBox[2], dX);
            adBox[3] = std::max(adBox[3], dY);
        }
    }
    const double adBeyond[4] = {-adBox[0], -adBox[1], adBox[2] - (iW - 1), adBox[3] - (iH - 1)};
    pstFace->bCut = bLost;
    for (int32_t k = 0; k < 4; k++) {
        pstFace->afBox[k] = bLost ? NAN : (float)adBox[k];
        pstFace->aiCut[k] = bLost ? 0 : (int32_t)std::min(1e9, std::max(0.0, floor(adBeyond[k] + 0.5)));
        pstFace->bCut |= pstFace->aiCut[k] > 0;
    }
}

// The warp's clamping, per 2 x 2 output block as the warp evaluates its matrix: how deep the
// blocks whose source lies beyond each side of the intermediate image reach into the output.
void MeasureBorder(const double *pdM, int32_t iW, int32_t iH, tagST_QV_VIEW *pstView)
{
    int32_t aiDepth[4] = {0, 0, 0, 0};
    int64_t lClamped = 0;
    int64_t lBlocks = 0;
    for (int32_t y = 0; y < iH; y += 2) {
        for (int32_t x = 0; x < iW; x += 2) {
            double dX, dY;
            MapMatrix(pdM, x, y, &dX, &dY);
            const bool abOut[4] = {!(dX >= 0.0), !(dY >= 0.0), !(dX <= iW - 1.0), !(dY <= iH - 1.0)};
            const int32_t aiReach[4] = {x + 2, y + 2, iW - x, iH - y};
            bool bAny = false;
            for (int32_t k = 0; k < 4; k++) {
                if (abOut[k]) {
                    aiDepth[k] = std::max(aiDepth[k], aiReach[k]);
                    bAny = true;
                }
            }
            lClamped += bAny;
            lBlocks++;
        }
    }
    for (int32_t k = 0; k < 4; k++) {
        const int32_t iSide = (k == QV_LEFT || k == QV_RIGHT) ? iW : iH;
        pstView->afBorder[k] = 100.0f * (float)std::min(aiDepth[k], iSide) / (float)iSide;
    }
    pstView->fBorderArea = lBlocks > 0 ? (float)(100.0 * (double)lClamped / (double)lBlocks) : 0.0f;
}

// Magnification of the output over the intermediate image at the output's centre: one over the
// square root of the matrix's Jacobian determinant there.
float CentreZoom(const double *pdM, int32_t iW, int32_t iH)
{
    const double dX = iW * 0.5;
    const double dY = iH * 0.5;
    const double dW = pdM[6] * dX + pdM[7] * dY + pdM[8];
    double dSx, dSy;
    MapMatrix(pdM, dX, dY, &dSx, &dSy);
    const double dJ00 = (pdM[0] - dSx * pdM[6]) / dW;
    const double dJ01 = (pdM[1] - dSx * pdM[7]) / dW;
    const double dJ10 = (pdM[3] - dSy * pdM[6]) / dW;
    const double dJ11 = (pdM[4] - dSy * pdM[7]) / dW;
    return (float)(1.0 / sqrt(fabs(dJ00 * dJ11 - dJ01 * dJ10)));
}

}  // namespace

void OutputToInput(const tagST_LDC_PLAN &stPlan, const tagST_LDC_PARA &stPara, float fX, float fY,
                   int32_t bClampToSource, float *pfX, float *pfY)
{
    const Remap stRemap = FrameRemap(stPlan, stPara);
    *pfX = fX;
    *pfY = fY;
    if (!stRemap.bUsed) {
        return;
    }
    double adM[9];
    std::copy(stPlan.afMatrix, stPlan.afMatrix + 9, adM);
    double dX, dY;
    MapMatrix(adM, fX, fY, &dX, &dY);
    float fQx = (float)dX;
    float fQy = (float)dY;
    if (bClampToSource) {
        fQx = std::min(std::max(fQx, 0.0f), (float)(stPara.iImgWidth - 1));
        fQy = std::min(std::max(fQy, 0.0f), (float)(stPara.iImgHeight - 1));
    }
    // Inside the remap's rectangle, or anywhere on the model's plane when not clamped; the
    // intermediate image holds the input unmoved around a clamped rectangle.
    const bool bRemapped = !bClampToSource || InArea(stRemap.piArea, fQx, fQy);
    const tagST_RADIAL_MODEL &stModel = stRemap.stModel;
    const float fDx = fQx - stModel.fCx;
    const float fDy = fQy - stModel.fCy;
    const float fF = bRemapped ? RadialFactorSerial(&stModel, fDx * fDx + fDy * fDy) : 1.0f;
    *pfX = stModel.fCx + fF * fDx;
    *pfY = stModel.fCy + fF * fDy;
}

void MeasureView(const tagST_LDC_PLAN &stPlan, const tagST_LDC_PARA &stPara, tagST_QV_VIEW *pstView)
{
    const int32_t iW = stPara.iImgWidth;
    const int32_t iH = stPara.iImgHeight;
    const Remap stRemap = FrameRemap(stPlan, stPara);
    double adM[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    if (stRemap.bUsed) {
        std::copy(stPlan.afMatrix, stPlan.afMatrix + 9, adM);
    }
    double adInv[9];
    const bool bInvertible = Invert3(adM, adInv);
    pstView->fOutWidth = (float)iW;
    pstView->fOutHeight = (float)iH;
    pstView->fZoom = CentreZoom(adM, iW, iH);
    float afEnd[4];
    OutputToInput(stPlan, stPara, 0.0f, (float)(iH >> 1), 1, &afEnd[0], &afEnd[1]);
    OutputToInput(stPlan, stPara, (float)(iW - 1), (float)(iH >> 1), 1, &afEnd[2], &afEnd[3]);
    pstView->afShown[0] = 100.0f * (afEnd[2] - afEnd[0]) / (float)std::max(1, iW - 1);
    OutputToInput(stPlan, stPara, (float)(iW >> 1), 0.0f, 1, &afEnd[0], &afEnd[1]);
    OutputToInput(stPlan, stPara, (float)(iW >> 1), (float)(iH - 1), 1, &afEnd[2], &afEnd[3]);
    pstView->afShown[1] = 100.0f * (afEnd[3] - afEnd[1]) / (float)std::max(1, iH - 1);
    MeasureBorder(adM, iW, iH, pstView);
    pstView->vstFaces.assign((size_t)std::max(0, std::min(stPlan.iFaceNum, (int32_t)LDC_MAX_FACES)),
                             tagST_QV_FACE_VIEW());
    for (size_t i = 0; i < pstView->vstFaces.size(); i++) {
        tagST_QV_FACE_VIEW *pstFace = &pstView->vstFaces[i];
        if (bInvertible) {
            MeasureFace(stRemap, adInv, stPara, stPlan.aiFaceRect[i], pstFace);
        } else {
            *pstFace = {{NAN, NAN, NAN, NAN}, {0, 0, 0, 0}, 1};
        }
    }
}

float WidestBorder(const tagST_QV_VIEW &stView)
{
    return *std::max_element(stView.afBorder, stView.afBorder + 4);
}

int32_t CutFaceCount(const tagST_QV_VIEW &stView)
{
    return (int32_t)std::count_if(stView.vstFaces.begin(), stView.vstFaces.end(),
                                  [](const tagST_QV_FACE_VIEW &stFace) { return stFace.bCut != 0; });
}

std::string ZoomText(const tagST_QV_VIEW &stView)
{
    char acLine[256];
    snprintf(acLine, sizeof(acLine),
             "zoom at the frame centre: %.3fx; the output spans %.1f%% of the input's width and %.1f%% of its height",
             (double)stView.fZoom, (double)stView.afShown[0], (double)stView.afShown[1]);
    return acLine;
}

std::string BorderText(const tagST_QV_VIEW &stView)
{
    if (!(WidestBorder(stView) > 0.0f)) {
        return "edge repeated where the warp ran out of source: nowhere";
    }
    char acLine[320];
    snprintf(acLine, sizeof(acLine),
             "edge repeated where the warp ran out of source: left %.1f%% and right %.1f%% of the width, "
             "top %.1f%% and bottom %.1f%% of the height (%.1f%% of the frame)",
             (double)stView.afBorder[QV_LEFT], (double)stView.afBorder[QV_RIGHT], (double)stView.afBorder[QV_TOP],
             (double)stView.afBorder[QV_BOTTOM], (double)stView.fBorderArea);
    return acLine;
}

std::string FacesText(const tagST_QV_VIEW &stView)
{
    std::string strFaces = "faces in the output: ";
    if (stView.vstFaces.empty()) {
        strFaces += "none valid";
    } else if (CutFaceCount(stView) == 0) {
        float fMargin = INFINITY;
        for (const tagST_QV_FACE_VIEW &stFace : stView.vstFaces) {
            fMargin = std::min({fMargin, stFace.afBox[QV_LEFT], stFace.afBox[QV_TOP],
                                stView.fOutWidth - 1 - stFace.afBox[QV_RIGHT],
                                stView.fOutHeight - 1 - stFace.afBox[QV_BOTTOM]});
        }
        strFaces += "all " + std::to_string(stView.vstFaces.size()) + " inside, the closest " +
                    std::to_string((int32_t)fMargin) + " px from an edge";
    } else {
        static const char *const apcSide[4] = {"left", "top", "right", "bottom"};
        strFaces += std::to_string(CutFaceCount(stView)) + " of " + std::to_string(stView.vstFaces.size()) + " cut:";
        for (size_t i = 0; i < stView.vstFaces.size(); i++) {
            const tagST_QV_FACE_VIEW &stFace = stView.vstFaces[i];
            if (!stFace.bCut) {
                continue;
            }
            std::string strSides;
            for (int32_t k = 0; k < 4; k++) {
                if (stFace.aiCut[k] > 0) {
                    strSides += std::string(strSides.empty() ? "" : ",") + " " + std::to_string(stFace.aiCut[k]) +
                                " px past the " + apcSide[k];
                }
            }
            strFaces += " face " + std::to_string(i + 1) + (strSides.empty() ? " (not placed)" : strSides) + ";";
        }
        strFaces.pop_back();
    }
    return strFaces + " (widened faces)";
}

std::vector<std::string> ViewLines(const tagST_QV_VIEW &stView)
{
    return {ZoomText(stView), BorderText(stView), FacesText(stView)};
}

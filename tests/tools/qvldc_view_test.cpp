// What qvldc reports about an output: the zoom, the band where the warp repeats the frame's edge
// and the faces the output cuts, against plans whose geometry is known in closed form.
// (InvertRadialModel comes from qvldc_parse.cpp, which qvldc_test.cpp compiles into this binary.)
#include <gtest/gtest.h>

#include <math.h>
#include <string.h>

#include "../../tools/qvldc/qvldc_view.cpp"

namespace {

const int32_t kW = 640;
const int32_t kH = 480;

// An instance after a face-path frame: the lens model (k1 only) over the whole frame.
tagST_LDC_PARA LensPara(float fK1)
{
    tagST_LDC_PARA stPara;
    memset(&stPara, 0, sizeof(stPara));
    stPara.iImgWidth = kW;
    stPara.iImgHeight = kH;
    stPara.iLDCEnable = 1;
    const float afCamera[9] = {500, 0, 321, 0, 500, 239, 0, 0, 1};
    memcpy(stPara.afCameraMatrix, afCamera, sizeof(afCamera));
    stPara.afDistortionCoefficients[0] = fK1;
    const int32_t aiArea[4] = {0, 0, kW - 1, kH - 1};
    memcpy(stPara.aiLDCArea, aiArea, sizeof(aiArea));
    return stPara;
}

tagST_LDC_PLAN Plan(const float *pfMatrix, const std::vector<std::vector<int32_t>> &vviFaces)
{
    tagST_LDC_PLAN stPlan;
    InitFramePlan(&stPlan);
    stPlan.ePath = LDC_PATH_FACE;
    memcpy(stPlan.afMatrix, pfMatrix, sizeof(stPlan.afMatrix));
    stPlan.iFaceNum = (int32_t)vviFaces.size();
    for (size_t i = 0; i < vviFaces.size(); i++) {
        memcpy(stPlan.aiFaceRect[i], vviFaces[i].data(), sizeof(stPlan.aiFaceRect[i]));
    }
    return stPlan;
}

// The output pixel (x, y) samples the intermediate image at (s (x - cx) + cx + tx, s (y - cy) + cy).
std::vector<float> ScaleShift(float fS, float fTx)
{
    const float fCx = kW * 0.5f, fCy = kH * 0.5f;
    return {fS, 0, fCx * (1 - fS) + fTx, 0, fS, fCy * (1 - fS), 0, 0, 1};
}

TEST(QvldcView, BordersOfScaledAndShiftedWarps)
{
    const tagST_LDC_PARA stPara = LensPara(0.0f);
    tagST_QV_VIEW stView;
    // Zoomed in: the output samples inside the source everywhere.
    MeasureView(Plan(ScaleShift(0.8f, 0).data(), {}), stPara, &stView);
    EXPECT_NEAR(1.25f, stView.fZoom, 1e-4f);
    EXPECT_EQ(0.0f, WidestBorder(stView));
    // Zoomed out by 1.25: a band of W (1 - 1 / 1.25) / 2 = 10 % of each side samples beyond it.
    MeasureView(Plan(ScaleShift(1.25f, 0).data(), {}), stPara, &stView);
    EXPECT_NEAR(0.8f, stView.fZoom, 1e-4f);
    for (int32_t k = 0; k < 4; k++) {
        EXPECT_NEAR(10.0f, stView.afBorder[k], 1e-3f) << k;
    }
    // Shifted right by 64 px: the last 64 columns (10 % of the width) repeat the right edge.
    MeasureView(Plan(ScaleShift(1.0f, 64.0f).data(), {}), stPara, &stView);
    EXPECT_NEAR(10.0f, stView.afBorder[QV_RIGHT], 1e-3f);
    EXPECT_NEAR(10.0f, stView.fBorderArea, 1e-3f);
    EXPECT_EQ(0.0f, stView.afBorder[QV_LEFT] + stView.afBorder[QV_TOP] + stView.afBorder[QV_BOTTOM]);
    // Its mirror image (x -> x - 64) puts the band on the other side.
    std::vector<float> vfMirror = ScaleShift(1.0f, -64.0f);
    tagST_QV_VIEW stMirror;
    MeasureView(Plan(vfMirror.data(), {}), stPara, &stMirror);
    EXPECT_NEAR(stView.afBorder[QV_RIGHT], stMirror.afBorder[QV_LEFT], 1e-3f);
    EXPECT_EQ(0.0f, stMirror.afBorder[QV_RIGHT]);
}

TEST(QvldcView, FacesCutByAZoom)
{
    const tagST_LDC_PARA stPara = LensPara(0.0f);
    tagST_QV_VIEW stView;
    // Twice the size about the centre: a face in the middle stays, one near the left edge leaves
    // the frame by twice its distance beyond the quarter line.
    MeasureView(Plan(ScaleShift(0.5f, 0).data(), {{300, 220, 339, 259}, {140, 200, 179, 239}}), stPara, &stView);
    ASSERT_EQ(2u, stView.vstFaces.size());
    EXPECT_FALSE(stView.vstFaces[0].bCut);
    EXPECT_NEAR(2.0f * 39.0f, stView.vstFaces[0].afBox[QV_RIGHT] - stView.vstFaces[0].afBox[QV_LEFT], 0.01f);
    EXPECT_TRUE(stView.vstFaces[1].bCut);
    EXPECT_EQ(2 * (160 - 140), stView.vstFaces[1].aiCut[QV_LEFT]);
    EXPECT_EQ(1, CutFaceCount(stView));
    // The copy path shows the frame as it came: nothing is cut, whatever the matrix says.
    tagST_LDC_PLAN stCopy = Plan(ScaleShift(0.5f, 0).data(), {{140, 200, 179, 239}});
    stCopy.ePath = LDC_PATH_COPY;
    MeasureView(stCopy, stPara, &stView);
    EXPECT_EQ(0, CutFaceCount(stView));
    EXPECT_EQ(1.0f, stView.fZoom);
}

TEST(QvldcView, InputAndOutputDirectionsMeet)
{
    // A barrel lens and a projective warp: the output position found for a small face, traced
    // back to the input, lands on the face.
    const tagST_LDC_PARA stPara = LensPara(-0.25f);
    const float afH[9] = {0.93f, 0.02f, 20.0f, -0.01f, 0.95f, 12.0f, 0.00005f, -0.00003f, 1.0f};
    const std::vector<std::vector<int32_t>> vviFaces = {{100, 80, 102, 82}, {520, 380, 522, 382}, {330, 200, 332, 202}};
    const tagST_LDC_PLAN stPlan = Plan(afH, vviFaces);
    tagST_QV_VIEW stView;
    MeasureView(stPlan, stPara, &stView);
    for (size_t i = 0; i < vviFaces.size(); i++) {
        const tagST_QV_FACE_VIEW &stFace = stView.vstFaces[i];
        float fX, fY;
        OutputToInput(stPlan, stPara, 0.5f * (stFace.afBox[0] + stFace.afBox[2]),
                      0.5f * (stFace.afBox[1] + stFace.afBox[3]), 0, &fX, &fY);
        EXPECT_NEAR(vviFaces[i][0] + 1.0f, fX, 0.3f) << i;
        EXPECT_NEAR(vviFaces[i][1] + 1.0f, fY, 0.3f) << i;
    }
}

}  // namespace

// Line classifier: the model's own kernel, prediction, fixed parameters, count guard, defaults.
#include <gtest/gtest.h>
#include <math.h>
#include <string.h>

#include <string>

#include "linedetect/svm.h"
#include "platform/neon.h"

namespace {

tagST_SVM_MODEL LoadedModel(bool bDefaultVectors)
{
    tagST_SVM_MODEL stModel;
    memset(&stModel, 0, sizeof(stModel));
    if (bDefaultVectors) {
        SvmInstallDefaultModel(&stModel);
    }
    SvmLoadModel(&stModel);
    return stModel;
}

// |x - y|^2 + |x|^2 + |y|^2: equal vectors do not give 1, only zero ones do.
TEST(Svm, KernelAddsBothNormsToTheDistance)
{
    const float afX[4] = {0.25f, -0.5f, 0.75f, 1.0f};
    const float afY[4] = {-0.25f, 0.5f, 0.75f, 0.0f};   // |x - y|^2 = 2.25, |x|^2 = 1.875, |y|^2 = 0.875
    EXPECT_FLOAT_EQ((float)exp(-0.53 * 2.0 * 1.875), SvmKernelRBF(afX, afX, 0.53f));
    EXPECT_FLOAT_EQ((float)exp(-0.53 * (2.25 + 1.875 + 0.875)), SvmKernelRBF(afX, afY, 0.53f));
    const float afZero[4] = {0, 0, 0, 0};
    EXPECT_EQ(1.0f, SvmKernelRBF(afZero, afZero, 0.53f));
}

TEST(Svm, LoadModelFixesParametersAndKeepsVectors)
{
    tagST_SVM_MODEL stModel;
    memset(&stModel, 0x5A, sizeof(stModel));
    stModel.aiNSv[0] = 3;
    stModel.aiNSv[1] = 4;
    stModel.afSvCoef[5] = -2.5f;
    stModel.afSv[17] = 0.75f;
    SvmLoadModel(&stModel);
    EXPECT_EQ((std::vector<int32_t>{0, 2, 2, 139, 1, 0, 3, 4}),
              (std::vector<int32_t>{stModel.iSvmType, stModel.iKernelType, stModel.iNrClass, stModel.iTotalSv,
                                    stModel.aiLabel[0], stModel.aiLabel[1], stModel.aiNSv[0], stModel.aiNSv[1]}));
    EXPECT_EQ((std::vector<float>{0.53f, -2.5f, 0.75f}),
              (std::vector<float>{stModel.fGamma, stModel.afSvCoef[5], stModel.afSv[17]}));
    EXPECT_EQ(0x3F6CE3BDu, FloatBits(stModel.fRho));   // 0.92535
}

// With the zero vector every kernel value is exactly 1, so the decision is the sum of the named
// coefficients minus rho.
TEST(Svm, PredictionSumsTheNamedVectorsAndZeroMeansBending)
{
    tagST_SVM_MODEL stModel = LoadedModel(false);
    const float afOrigin[4] = {0, 0, 0, 0};
    stModel.aiNSv[0] = 1;
    stModel.afSvCoef[0] = stModel.fRho;
    EXPECT_EQ(0, SvmPredict(&stModel, afOrigin));
    stModel.afSvCoef[0] = nextafterf(stModel.fRho, 1.0f);
    EXPECT_EQ(1, SvmPredict(&stModel, afOrigin));

    // Vectors beyond nSV[0] + nSV[1] are poisoned: reading them would turn the sum into NaN (0).
    for (float &f : stModel.afSvCoef) {
        f = NAN;
    }
    const float afCoef[3] = {1.5f, 0.75f, -0.5f};
    memcpy(stModel.afSvCoef, afCoef, sizeof(afCoef));
    stModel.aiNSv[0] = 2;
    stModel.aiNSv[1] = 1;
    EXPECT_EQ(1, SvmPredict(&stModel, afOrigin));
    stModel.afSvCoef[2] = -50.0f;   // the class 1 vector counts too
    EXPECT_EQ(0, SvmPredict(&stModel, afOrigin));

    // Counts beyond the table or negative are clamped instead of read out of bounds.
    for (float &f : stModel.afSvCoef) {
        f = 1.0f;
    }
    stModel.aiNSv[0] = 150;
    stModel.aiNSv[1] = 100;
    EXPECT_EQ(1, SvmPredict(&stModel, afOrigin));
    stModel.aiNSv[0] = -5;
    stModel.aiNSv[1] = 3;
    EXPECT_EQ(0, SvmPredict(&stModel, afOrigin));
    // With fewer than two classes the first label comes back without evaluation.
    stModel.iNrClass = 1;
    EXPECT_EQ(1, SvmPredict(&stModel, afOrigin));
}

TEST(Svm, DefaultModelJudgesLinesOfTheTrainingProfile)
{
    // 4000 x 3000 frame, SvmFactor 1500: a long line through the middle stays straight, a long
    // line along the top border bends.
    const tagST_SVM_MODEL stModel = LoadedModel(true);
    const stLine stMiddle = {0, 90, {800, 1496}, {3200, 1552}};
    const stLine stTop = {64, 91, {104, 64}, {3896, 128}};
    EXPECT_EQ(1, SortLineBySvm(&stModel, &stMiddle, 1500));
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, SortLineBySvm(&stModel, &stTop, 1500));
    EXPECT_EQ("I/ZB5QU_QVLDC: Rho=64, Theta=91, Pnt0=(104, 64), Pnt1=(3896, 128)\n"
              "I/ZB5QU_QVLDC: There are some lines becoming bended by using global FDC method! "
              "The SvmPredict value is 0\n",
              testing::internal::GetCapturedStderr());
}

}  // namespace

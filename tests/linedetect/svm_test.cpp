// Line classifier: the model's own kernel, prediction, fixed parameters, count guard, defaults.
#include <gtest/gtest.h>
#include <math.h>
#include <string.h>

#include <string>

#include "linedetect/svm.h"
#include "platform/neon.h"

namespace {

tagST_SVM_MODEL DefaultModel()
{
    tagST_SVM_MODEL stModel;
    memset(&stModel, 0, sizeof(stModel));
    SvmInstallDefaultModel(&stModel);
    SvmLoadModel(&stModel);
    return stModel;
}

TEST(Svm, KernelAddsBothNormsToTheDistance)
{
    const float afX[4] = {0.25f, -0.5f, 0.75f, 1.0f};
    const float afY[4] = {-0.125f, 0.5f, 0.375f, -0.25f};
    double dXX = 0, dYY = 0, dXY = 0;
    for (int i = 0; i < 4; i++) {
        dXX += afX[i] * afX[i];
        dYY += afY[i] * afY[i];
        dXY += afX[i] * afY[i];
    }
    // Equal vectors do not give 1 but exp(-gamma * 2 * |x|^2).
    EXPECT_FLOAT_EQ((float)exp(-0.53 * 2.0 * dXX), SvmKernelRBF(afX, afX, 0.53f));
    EXPECT_LT(SvmKernelRBF(afX, afX, 0.53f), 0.2f);
    EXPECT_FLOAT_EQ((float)exp(-0.53 * 2.0 * (dXX + dYY - dXY)), SvmKernelRBF(afX, afY, 0.53f));
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
    EXPECT_EQ(0, stModel.iSvmType);
    EXPECT_EQ(2, stModel.iKernelType);
    EXPECT_EQ(0.53f, stModel.fGamma);
    EXPECT_EQ(2, stModel.iNrClass);
    EXPECT_EQ(139, stModel.iTotalSv);
    EXPECT_EQ(0x3F6CE3BDu, FloatBits(stModel.fRho));
    EXPECT_EQ(0.92535f, stModel.fRho);
    EXPECT_EQ(1, stModel.aiLabel[0]);
    EXPECT_EQ(0, stModel.aiLabel[1]);
    EXPECT_EQ(3, stModel.aiNSv[0]);
    EXPECT_EQ(4, stModel.aiNSv[1]);
    EXPECT_EQ(-2.5f, stModel.afSvCoef[5]);
    EXPECT_EQ(0.75f, stModel.afSv[17]);
}

TEST(Svm, DecisionOfExactlyZeroMeansBending)
{
    tagST_SVM_MODEL stModel;
    memset(&stModel, 0, sizeof(stModel));
    SvmLoadModel(&stModel);
    stModel.aiNSv[0] = 1;
    const float afOrigin[4] = {0, 0, 0, 0};   // kernel with the zero vector is exactly 1
    stModel.afSvCoef[0] = stModel.fRho;
    EXPECT_EQ(0, SvmPredict(&stModel, afOrigin));
    stModel.afSvCoef[0] = nextafterf(stModel.fRho, 1.0f);
    EXPECT_EQ(1, SvmPredict(&stModel, afOrigin));
    // With fewer than two classes the first label comes back without evaluation.
    stModel.iNrClass = 1;
    stModel.afSvCoef[0] = 0.0f;
    EXPECT_EQ(1, SvmPredict(&stModel, afOrigin));
}

TEST(Svm, ConfiguredGammaAndRhoNeverTakeEffect)
{
    const tagST_SVM_MODEL stDefault = DefaultModel();
    tagST_SVM_MODEL stConfigured = stDefault;
    stConfigured.fGamma = 2.0f;
    stConfigured.fRho = 5.0f;
    int iDiffersBeforeLoad = 0;
    tagST_SVM_MODEL stLoaded = stConfigured;
    SvmLoadModel(&stLoaded);
    for (int i = 0; i < 400; i++) {
        const float afX[4] = {(float)(i % 7) * 0.4f, (float)(i % 5) * 0.4f, (float)(i % 11) * 0.25f,
                              (float)(i % 3) * 0.6f};
        EXPECT_EQ(SvmPredict(&stDefault, afX), SvmPredict(&stLoaded, afX)) << i;
        iDiffersBeforeLoad += SvmPredict(&stDefault, afX) != SvmPredict(&stConfigured, afX);
    }
    EXPECT_GT(iDiffersBeforeLoad, 0);
}

TEST(Svm, OnlyTheNamedVectorsAreEvaluated)
{
    tagST_SVM_MODEL stModel;
    memset(&stModel, 0, sizeof(stModel));
    SvmLoadModel(&stModel);
    // Vectors beyond nSV[0] + nSV[1] are poisoned: reading them would turn the sum into NaN.
    for (int k = 0; k < LDC_SVM_MAX_SV; k++) {
        stModel.afSvCoef[k] = NAN;
        for (int f = 0; f < LDC_SVM_FEATURES; f++) {
            stModel.afSv[k * LDC_SVM_FEATURES + f] = 0.1f * (float)(k % 4) + 0.05f * (float)f;
        }
    }
    const float afCoef[3] = {1.5f, 0.75f, -0.5f};
    const float afX[4] = {0.2f, 0.1f, 0.3f, 0.4f};
    stModel.aiNSv[0] = 2;
    stModel.aiNSv[1] = 1;
    float fSum = 0.0f;
    for (int k = 0; k < 3; k++) {
        stModel.afSvCoef[k] = afCoef[k];
        fSum += afCoef[k] * SvmKernelRBF(afX, &stModel.afSv[k * LDC_SVM_FEATURES], 0.53f);
    }
    const int iExpected = fSum - stModel.fRho > 0.0f ? 1 : 0;
    EXPECT_EQ(iExpected, SvmPredict(&stModel, afX));
    // A larger class 1 coefficient flips it the other way: the three vectors really count.
    stModel.afSvCoef[2] = iExpected ? -50.0f : 50.0f;
    EXPECT_EQ(1 - iExpected, SvmPredict(&stModel, afX));

    // Counts beyond the table or negative are clamped instead of read out of bounds.
    for (int k = 0; k < LDC_SVM_MAX_SV; k++) {
        stModel.afSvCoef[k] = 1.0f;
    }
    stModel.aiNSv[0] = 150;
    stModel.aiNSv[1] = 100;
    EXPECT_EQ(1, SvmPredict(&stModel, afX));
    stModel.aiNSv[0] = -5;
    stModel.aiNSv[1] = 3;
    EXPECT_EQ(0, SvmPredict(&stModel, afX));
}

TEST(Svm, DefaultTablesAreOrderedByClass)
{
    const int iN0 = aiSvDefaultNSv[0], iN1 = aiSvDefaultNSv[1];
    ASSERT_GT(iN0, 0);
    ASSERT_GT(iN1, 0);
    ASSERT_LE(iN0 + iN1, LDC_SVM_MAX_SV);
    for (int k = 0; k < LDC_SVM_MAX_SV; k++) {
        if (k < iN0) {
            EXPECT_GT(afSvCoeff[k], 0.0f) << k;
        } else if (k < iN0 + iN1) {
            EXPECT_LT(afSvCoeff[k], 0.0f) << k;
        } else {
            EXPECT_EQ(0.0f, afSvCoeff[k]) << k;
            for (int f = 0; f < LDC_SVM_FEATURES; f++) {
                EXPECT_EQ(0.0f, afSvValue[k * LDC_SVM_FEATURES + f]) << k;
            }
        }
    }
}

TEST(Svm, DefaultModelJudgesLinesOfTheTrainingProfile)
{
    // 4000 x 3000 frame, SvmFactor 1500: a long line through the middle stays straight, a long
    // line along the top border bends.
    const tagST_SVM_MODEL stModel = DefaultModel();
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

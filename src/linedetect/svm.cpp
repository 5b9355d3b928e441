// Line classifier: libsvm-style two-class prediction with the model's own radial kernel.
#include "linedetect/svm.h"

#include <math.h>

#include "boundscheck/bounds_check.h"
#include "linedetect/line_bend.h"   // LogBendingLine
#include "platform/neon.h"
#include "platform/platform.h"

void SvmLoadModel(tagST_SVM_MODEL *pstModel)
{
    // The configured Gamma and Rho are overwritten on purpose: the shipped vectors were fitted with
    // these values, and configurations in the field carry other (unused) numbers.
    pstModel->iSvmType = LDC_SVM_TYPE_CLASSIFY;
    pstModel->iKernelType = LDC_SVM_KERNEL_RBF;
    pstModel->fGamma = LDC_SVM_GAMMA;
    pstModel->iNrClass = 2;
    pstModel->iTotalSv = LDC_SVM_TOTAL_SV;
    pstModel->fRho = BitsFloat(LDC_SVM_RHO_BITS);
    pstModel->aiLabel[0] = 1;
    pstModel->aiLabel[1] = 0;
}

float SvmKernelRBF(const float *pfX, const float *pfY, float fGamma)
{
    // Squared distance plus both squared norms: the model was trained with exactly this sum.
    float fSum = 0.0f;
    for (int32_t i = 0; i < LDC_SVM_FEATURES; i++) {
        const float fDiff = pfX[i] - pfY[i];
        fSum += fDiff * fDiff;
        fSum += pfX[i] * pfX[i];
        fSum += pfY[i] * pfY[i];
    }
    return (float)exp((double)(-(fGamma * fSum)));
}

static int32_t ClampSvCount(int32_t iValue, int32_t iMax)
{
    return iValue < 0 ? 0 : (iValue > iMax ? iMax : iValue);
}

int32_t SvmPredict(const tagST_SVM_MODEL *pstModel, const float *pfFeatures)
{
    if (pstModel->iNrClass < 2) {
        return pstModel->aiLabel[0];
    }
    // Only the vectors the two classes name are evaluated, so a configured model whose counts do
    // not add up to the fixed vector count never sums a kernel value that was not computed.
    const int32_t iTotal = ClampSvCount(pstModel->aiNSv[0] + pstModel->aiNSv[1], LDC_SVM_MAX_SV);
    const int32_t iStart1 = ClampSvCount(pstModel->aiNSv[0], iTotal);
    float afKernel[LDC_SVM_MAX_SV];
    for (int32_t k = 0; k < iTotal; k++) {
        afKernel[k] = SvmKernelRBF(pfFeatures, &pstModel->afSv[k * LDC_SVM_FEATURES],
                                   pstModel->fGamma);
    }
    float fSum = 0.0f;
    for (int32_t k = 0; k < iStart1; k++) {
        fSum += pstModel->afSvCoef[k] * afKernel[k];
    }
    for (int32_t k = iStart1; k < iTotal; k++) {
        fSum += pstModel->afSvCoef[k] * afKernel[k];
    }
    fSum -= pstModel->fRho;
    // One pairwise vote; class 1 wins ties, so a decision of exactly 0 means "bends".
    int32_t aiVote[2] = {0, 0};
    aiVote[fSum > 0.0f ? 0 : 1]++;
    const int32_t iWinner = aiVote[1] > aiVote[0] ? 1 : 0;
    return pstModel->aiLabel[iWinner];
}

int32_t SortLineBySvm(const tagST_SVM_MODEL *pstModel, const stLine *pstLine, int32_t iDivisor)
{
    const float fDivisor = (float)iDivisor;
    const float afFeatures[LDC_SVM_FEATURES] = {
        (float)pstLine->Pnt0.x / fDivisor, (float)pstLine->Pnt0.y / fDivisor,
        (float)pstLine->Pnt1.x / fDivisor, (float)pstLine->Pnt1.y / fDivisor};
    const int32_t iLabel = SvmPredict(pstModel, afFeatures);
    if (iLabel == 1) {
        return 1;
    }
    LogBendingLine(pstLine);
    LdcLog(LDC_LOG_INFO,
           "There are some lines becoming bended by using global FDC method! The SvmPredict value "
           "is %d\n",
           iLabel);
    return 0;
}

void SvmInstallDefaultModel(tagST_SVM_MODEL *pstModel)
{
    memcpy_s(pstModel->afSvCoef, sizeof(pstModel->afSvCoef), afSvCoeff, sizeof(afSvCoeff));
    memcpy_s(pstModel->afSv, sizeof(pstModel->afSv), afSvValue, sizeof(afSvValue));
    pstModel->aiNSv[0] = aiSvDefaultNSv[0];
    pstModel->aiNSv[1] = aiSvDefaultNSv[1];
}

// The line classifier's model record, embedded in the instance record.
#ifndef LDC_RECORDS_SVM_MODEL_H
#define LDC_RECORDS_SVM_MODEL_H

#include <stdint.h>

#define LDC_SVM_MAX_SV 200     // room for support vectors (and coefficients)
#define LDC_SVM_FEATURES 4     // Pnt0.x, Pnt0.y, Pnt1.x, Pnt1.y, each divided by SvmFactor

typedef struct tagST_SVM_MODEL {
    int32_t iSvmType;                                   // 0: classification
    int32_t iKernelType;                                // 2: radial kernel
    float fGamma;
    int32_t iNrClass;                                   // 2
    int32_t iTotalSv;                                   // number of kernel evaluations
    float fRho;
    int32_t aiLabel[2];                                 // class 0 -> 1, class 1 -> 0
    int32_t aiNSv[2];                                   // vectors per class
    float afSvCoef[LDC_SVM_MAX_SV];                     // class 0's first
    float afSv[LDC_SVM_MAX_SV * LDC_SVM_FEATURES];      // vector after vector
} tagST_SVM_MODEL;

#endif

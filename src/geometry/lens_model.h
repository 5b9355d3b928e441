// The radial model shared by the valid-area search and the remap kernels: an output pixel (x, y)
// takes its value from (cx + f dx, cy + f dy), dx = x - cx, dy = y - cy,
// f = 1 + c1 r2 + c2 r2^2 + c3 r2^3. The lens model uses the principal point and k1..k3 scaled by
// powers of 1 / fx; the global face model uses the frame centre and the first three global
// face-correction coefficients.
#ifndef LDC_GEOMETRY_LENS_MODEL_H
#define LDC_GEOMETRY_LENS_MODEL_H

#include <stdint.h>

#include "records/ldc_para.h"

#define LDC_AREA_FACE 0   // GetUndistortedArea modes
#define LDC_AREA_LENS 1

typedef struct tagST_RADIAL_MODEL {
    float fCx;
    float fCy;
    float fC1;
    float fC2;
    float fC3;
} tagST_RADIAL_MODEL;

// The lens model when bLens is non-zero, the global face model otherwise.
void GetRadialModel(const tagST_LDC_PARA *pstPara, int32_t bLens, tagST_RADIAL_MODEL *pstModel);

// f evaluated left to right, 1 + c1 r2 + c2 r2^2 + c3 r2^3: the area search and the remap's
// tail columns.
static inline float RadialFactorSerial(const tagST_RADIAL_MODEL *pstModel, float fR2)
{
    const float fR4 = fR2 * fR2;
    const float fR6 = fR4 * fR2;
    return 1.0f + pstModel->fC1 * fR2 + pstModel->fC2 * fR4 + pstModel->fC3 * fR6;
}

// f as the remap's vector groups evaluate it, (c1 r2 + (c2 r2^2 + c3 r2^3)) + 1; the roundings
// differ from RadialFactorSerial and both orders are kept.
static inline float RadialFactorGrouped(const tagST_RADIAL_MODEL *pstModel, float fR2)
{
    const float fR4 = fR2 * fR2;
    const float fR6 = fR4 * fR2;
    return (pstModel->fC1 * fR2 + (pstModel->fC2 * fR4 + pstModel->fC3 * fR6)) + 1.0f;
}

// Finds the largest centred rectangle of output pixels whose mapped positions stay inside the
// frame (mode LDC_AREA_LENS: aiLDCArea, else aiGlobalFDCArea), with left and top even and right
// and bottom odd; clears iLDCFlag or iGolbalFDCFlag when there is none.
void GetUndistortedArea(tagST_LDC_PARA *pstPara, int32_t iMode);

#endif

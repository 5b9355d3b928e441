// The face mesh solve's loops four vertices at a time; the floats are those of the plain loops in
// face_mesh_kernels.h (each vertex's products and sums in the same order), the last few vertices go
// through them.
#include "mesh/face_mesh_kernels.h"
#include "platform/neon.h"

// One component of the stencil: the plain loop's sum, term pair by term pair.
static inline float32x4_t StencilQ(const float *pfX, int32_t iC, const float32x4_t *pvCoef)
{
    float32x4_t vY = vmulq_f32(pvCoef[0], vld1q_f32(pfX));
    vY = vaddq_f32(vY, VmlaqF32(vmulq_f32(pvCoef[1], vld1q_f32(pfX + 1)), pvCoef[2], vld1q_f32(pfX - 1)));
    vY = vaddq_f32(vY, VmlaqF32(vmulq_f32(pvCoef[3], vld1q_f32(pfX + 2)), pvCoef[4], vld1q_f32(pfX - 2)));
    vY = vaddq_f32(vY, VmlaqF32(vmulq_f32(pvCoef[5], vld1q_f32(pfX + iC)), pvCoef[6], vld1q_f32(pfX - iC)));
    vY = vaddq_f32(vY, VmlaqF32(vmulq_f32(pvCoef[7], vld1q_f32(pfX + 2 * iC)), pvCoef[8], vld1q_f32(pfX - 2 * iC)));
    vY = vaddq_f32(vY, VmlaqF32(vmulq_f32(pvCoef[9], vld1q_f32(pfX + iC + 1)), pvCoef[10], vld1q_f32(pfX - iC - 1)));
    return vaddq_f32(vY, VmlaqF32(vmulq_f32(pvCoef[11], vld1q_f32(pfX + iC - 1)), pvCoef[12], vld1q_f32(pfX - iC + 1)));
}

void FaceMeshStencil_neon(const float *const *apfStencil, const float *pfX0, const float *pfX1, float *pfY0,
                          float *pfY1, int32_t iC, int32_t iBegin, int32_t iEnd)
{
    const float *pfC = apfStencil[0], *pfE = apfStencil[1], *pfEE = apfStencil[2], *pfS = apfStencil[3];
    const float *pfSS = apfStencil[4], *pfSE = apfStencil[5], *pfSW = apfStencil[6];
    int32_t i = iBegin;
    for (; i + 4 <= iEnd; i += 4) {
        const float32x4_t avCoef[13] = {
            vld1q_f32(pfC + i),
            vld1q_f32(pfE + i),          vld1q_f32(pfE + i - 1),
            vld1q_f32(pfEE + i),         vld1q_f32(pfEE + i - 2),
            vld1q_f32(pfS + i),          vld1q_f32(pfS + i - iC),
            vld1q_f32(pfSS + i),         vld1q_f32(pfSS + i - 2 * iC),
            vld1q_f32(pfSE + i),         vld1q_f32(pfSE + i - iC - 1),
            vld1q_f32(pfSW + i),         vld1q_f32(pfSW + i - iC + 1)};
        vst1q_f32(pfY0 + i, StencilQ(pfX0 + i, iC, avCoef));
        vst1q_f32(pfY1 + i, StencilQ(pfX1 + i, iC, avCoef));
    }
    FaceMeshStencil(apfStencil, pfX0, pfX1, pfY0, pfY1, iC, i, iEnd);
}

void FaceMeshJacobi_neon(const float *pfDiagInv, const float *pfR, const float *pfT, float *pfZ, float fOmega,
                         int32_t iBegin, int32_t iEnd)
{
    const float32x4_t vOmega = vdupq_n_f32(fOmega);
    int32_t i = iBegin;
    if (pfT == NULL) {
        for (; i + 4 <= iEnd; i += 4) {
            vst1q_f32(pfZ + i, vmulq_f32(vmulq_f32(vOmega, vld1q_f32(pfDiagInv + i)), vld1q_f32(pfR + i)));
        }
    } else {
        for (; i + 4 <= iEnd; i += 4) {
            const float32x4_t vStep = vmulq_f32(vOmega, vld1q_f32(pfDiagInv + i));
            vst1q_f32(pfZ + i, VmlaqF32(vld1q_f32(pfZ + i), vStep, vsubq_f32(vld1q_f32(pfR + i), vld1q_f32(pfT + i))));
        }
    }
    FaceMeshJacobi(pfDiagInv, pfR, pfT, pfZ, fOmega, i, iEnd);
}

void FaceMeshAxpy_neon(float *pfY, const float *pfA, float fScale, const float *pfB, int32_t iBegin, int32_t iEnd)
{
    const float32x4_t vScale = vdupq_n_f32(fScale);
    int32_t i = iBegin;
    for (; i + 4 <= iEnd; i += 4) {
        vst1q_f32(pfY + i, VmlaqF32(vld1q_f32(pfA + i), vScale, vld1q_f32(pfB + i)));
    }
    FaceMeshAxpy(pfY, pfA, fScale, pfB, i, iEnd);
}

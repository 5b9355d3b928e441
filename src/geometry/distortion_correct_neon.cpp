// The radial model's positions of four blocks at a time, in RadialFactorGrouped's order; the
// floats are those of DistortionMapGroups.
#include "geometry/distortion_correct.h"
#include "geometry/lens_model.h"
#include "geometry/lens_model_neon.h"

void DistortionMapGroups_neon(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                              const uint8_t *pucColumns, tagST_GROUP_POS *pstPos)
{
    (void)iFirst;
    const tagST_RADIAL_MODEL *pstModel = (const tagST_RADIAL_MODEL *)pStage;
    const float32x4_t vCx = vdupq_n_f32(pstModel->fCx);
    const float32x4_t vCy = vdupq_n_f32(pstModel->fCy);
    const float32x4_t vC1 = vdupq_n_f32(pstModel->fC1);
    const float32x4_t vC2 = vdupq_n_f32(pstModel->fC2);
    const float32x4_t vC3 = vdupq_n_f32(pstModel->fC3);
    const float fDy = (float)pstRow->iY - pstModel->fCy;
    const float32x4_t vDy = vdupq_n_f32(fDy);
    const float32x4_t vR2y = vdupq_n_f32(fDy * fDy);
    for (int32_t g = 0; g < iCount; g++, pucColumns += RESAMPLE_QUAD_BYTES) {
        // The table is read as bytes: its offset in the working buffer follows the frame size. Every
        // row pair reads the same 16 bytes a group of it, so it stays cached: no prefetch.
        const float32x4_t vDx = vsubq_f32(vreinterpretq_f32_u8(vld1q_u8(pucColumns)), vCx);
        const float32x4_t vR2 = vaddq_f32(vmulq_f32(vDx, vDx), vR2y);
        const float32x4_t vF = RadialFactorGroupedQ(vC1, vC2, vC3, vR2);
        vst1q_f32(pstPos[g].afX, vaddq_f32(vmulq_f32(vF, vDx), vCx));
        vst1q_f32(pstPos[g].afY, vaddq_f32(vmulq_f32(vF, vDy), vCy));
    }
}

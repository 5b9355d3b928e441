// The matrix positions of four blocks at a time in 4-lane single precision, with the reciprocal
// estimate instead of a division; the floats are those of AffineMapGroups.
#include "warp/affine_transform.h"

#include "platform/neon.h"

#define AFFINE_PREFETCH_TABLE 64   // bytes ahead in the column table

void AffineMapGroups_neon(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                          const uint8_t *pucColumns, tagST_GROUP_POS *pstPos)
{
    const float *pfM = (const float *)pStage;
    const tagST_AFFINE_ROW stRow = AffineRowTerms(pfM, (float)pstRow->iY);
    const float32x4_t vSxRow = vdupq_n_f32(stRow.fSx);
    const float32x4_t vSyRow = vdupq_n_f32(stRow.fSy);
    const float32x4_t vDenStep = vdupq_n_f32(8.0f * pfM[6]);
    // The table may sit at any byte of the working buffer: load it as bytes.
    float32x4_t vDen = (iFirst == 0) ? vaddq_f32(vmulq_n_f32(vreinterpretq_f32_u8(vld1q_u8(pucColumns)), pfM[6]),
                                                 vdupq_n_f32(stRow.fDen))
                                     : vld1q_f32(pstRow->afCarry);
    for (int32_t g = 0; g < iCount; g++, pucColumns += RESAMPLE_QUAD_BYTES) {
        __builtin_prefetch(pucColumns + AFFINE_PREFETCH_TABLE);
        const float32x4_t vX = vreinterpretq_f32_u8(vld1q_u8(pucColumns));
        // 1 / den: 8-bit estimate and two Newton-Raphson steps, r := r (2 - den r).
        float32x4_t vR = VrecpeqF32(vDen);
        vR = vmulq_f32(vR, VrecpsqF32(vDen, vR));
        vR = vmulq_f32(vR, VrecpsqF32(vDen, vR));
        vst1q_f32(pstPos[g].afX, vmulq_f32(vaddq_f32(vmulq_n_f32(vX, pfM[0]), vSxRow), vR));
        vst1q_f32(pstPos[g].afY, vmulq_f32(vaddq_f32(vmulq_n_f32(vX, pfM[3]), vSyRow), vR));
        vDen = vaddq_f32(vDen, vDenStep);
    }
    vst1q_f32(pstRow->afCarry, vDen);
}

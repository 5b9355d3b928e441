// The matrix positions of four blocks at a time in 4-lane single precision, with the reciprocal
// estimate instead of a division; the floats are those of AffineMapGroups.
#include "warp/affine_transform.h"

#include "platform/neon.h"

// 1 / den: 8-bit estimate and two Newton-Raphson steps, r := r (2 - den r).
static inline float32x4_t Reciprocal(float32x4_t vDen)
{
    float32x4_t vR = VrecpeqF32(vDen);
    vR = vmulq_f32(vR, VrecpsqF32(vDen, vR));
    return vmulq_f32(vR, VrecpsqF32(vDen, vR));
}

#if !defined(__arm__)
// The same for denominators that VisRecipPlainF32 admits, without the guards of arm64 and the
// host.
static inline float32x4_t ReciprocalPlain(float32x4_t vDen)
{
    float32x4_t vR = VrecpeqPlainF32(vDen);
    vR = vmulq_f32(vR, VrecpsqPlainF32(vDen, vR));
    return vmulq_f32(vR, VrecpsqPlainF32(vDen, vR));
}
#endif

// Positions of iCount groups from the denominators vDen on; returns the denominators after them.
template <float32x4_t (*pfnReciprocal)(float32x4_t)>
static inline float32x4_t MapRun(const float *pfM, const tagST_AFFINE_ROW *pstRow, float32x4_t vDen, int32_t iCount,
                                 const uint8_t *pucColumns, tagST_GROUP_POS *pstPos)
{
    const float32x4_t vSxRow = vdupq_n_f32(pstRow->fSx);
    const float32x4_t vSyRow = vdupq_n_f32(pstRow->fSy);
    const float32x4_t vDenStep = vdupq_n_f32(8.0f * pfM[6]);
    for (int32_t g = 0; g < iCount; g++, pucColumns += RESAMPLE_QUAD_BYTES) {
        // Every row pair reads the same 16 bytes a group of the table, so it stays cached.
        const float32x4_t vX = vreinterpretq_f32_u8(vld1q_u8(pucColumns));
        const float32x4_t vR = pfnReciprocal(vDen);
        vst1q_f32(pstPos[g].afX, vmulq_f32(vaddq_f32(vmulq_n_f32(vX, pfM[0]), vSxRow), vR));
        vst1q_f32(pstPos[g].afY, vmulq_f32(vaddq_f32(vmulq_n_f32(vX, pfM[3]), vSyRow), vR));
        vDen = vaddq_f32(vDen, vDenStep);
    }
    return vDen;
}

void AffineMapGroups_neon(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                          const uint8_t *pucColumns, tagST_GROUP_POS *pstPos)
{
    const float *pfM = (const float *)pStage;
    const tagST_AFFINE_ROW stRow = AffineRowTerms(pfM, (float)pstRow->iY);
    // The table may sit at any byte of the working buffer: load it as bytes.
    const float32x4_t vDen = (iFirst == 0) ? vaddq_f32(vmulq_n_f32(vreinterpretq_f32_u8(vld1q_u8(pucColumns)), pfM[6]),
                                                       vdupq_n_f32(stRow.fDen))
                                           : vld1q_f32(pstRow->afCarry);
#if !defined(__arm__)
    // Each lane's denominators move monotonically along the run (the same step added each time),
    // so when the first and the one after the last have one sign and VisRecipPlainF32 admits both,
    // it admits all of them; otherwise the run is done again with the guards.
    float32x4_t vNext = MapRun<ReciprocalPlain>(pfM, &stRow, vDen, iCount, pucColumns, pstPos);
    const uint32x4_t vuSameSign =
        vcgeq_s32(veorq_s32(vreinterpretq_s32_f32(vDen), vreinterpretq_s32_f32(vNext)), vdupq_n_s32(0));
    if (vminvq_u32(vandq_u32(vuSameSign, vandq_u32(VisRecipPlainF32(vDen), VisRecipPlainF32(vNext)))) == 0) {
        vNext = MapRun<Reciprocal>(pfM, &stRow, vDen, iCount, pucColumns, pstPos);
    }
#else
    const float32x4_t vNext = MapRun<Reciprocal>(pfM, &stRow, vDen, iCount, pucColumns, pstPos);
#endif
    vst1q_f32(pstRow->afCarry, vNext);
}

// RadialFactorGrouped on four lanes, in its order of operations: the one vector form of the
// radial factor, for the lens remap's and the face mesh's vector position functions.
#ifndef LDC_GEOMETRY_LENS_MODEL_NEON_H
#define LDC_GEOMETRY_LENS_MODEL_NEON_H

#include "platform/neon.h"

static inline float32x4_t RadialFactorGroupedQ(float32x4_t vC1, float32x4_t vC2, float32x4_t vC3, float32x4_t vR2)
{
    const float32x4_t vR4 = vmulq_f32(vR2, vR2);
    const float32x4_t vR6 = vmulq_f32(vR4, vR2);
    return vaddq_f32(vaddq_f32(vmulq_f32(vC1, vR2), vaddq_f32(vmulq_f32(vC2, vR4), vmulq_f32(vC3, vR6))),
                     vdupq_n_f32(1.0f));
}

#endif

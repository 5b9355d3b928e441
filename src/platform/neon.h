// NEON intrinsics, native on ARM and through SIMDe elsewhere, plus the few operations whose
// results differ between ARM, arm64 and x86-64 unless they are pinned down here. Plain and vector
// code both go through these helpers, so every target produces the bytes of 32-bit ARM.
#ifndef LDC_PLATFORM_NEON_H
#define LDC_PLATFORM_NEON_H

#include <stdint.h>
#include <string.h>

#if defined(LDC_NEON_THROUGH_SIMDE)
#define SIMDE_ENABLE_NATIVE_ALIASES
#include <simde/arm/neon.h>
#else
#include <arm_neon.h>
#endif

// ARM's float-to-integer rule: truncate toward zero, saturate at the int32 limits, NaN gives 0.
// C++ leaves NaN and out-of-range conversions undefined (x86-64 yields INT_MIN).
static inline int32_t TruncF32ToS32(float f)
{
    if (f != f) {
        return 0;
    }
    if (f >= 2147483648.0f) {
        return INT32_MAX;
    }
    if (f <= -2147483648.0f) {
        return INT32_MIN;
    }
    return (int32_t)f;
}

static inline int32_t TruncF64ToS32(double d)
{
    if (d != d) {
        return 0;
    }
    if (d >= 2147483648.0) {
        return INT32_MAX;
    }
    if (d <= -2147483648.0) {
        return INT32_MIN;
    }
    return (int32_t)d;
}

// Vector twin of TruncF32ToS32 (vcvtq_s32_f32 follows the ARM rule natively and in SIMDe).
static inline int32x4_t VcvtqS32F32(float32x4_t v)
{
    return vcvtq_s32_f32(v);
}

// trunc(128 v) per lane by the same rule: scaling by 128 is exact, so ARM's fixed-point conversion
// with 7 fraction bits gives it in one instruction.
static inline int32x4_t VcvtqS32F32Q7(float32x4_t v)
{
#if defined(__arm__) || defined(__aarch64__)
    return vcvtq_n_s32_f32(v, 7);
#else
    return VcvtqS32F32(vmulq_n_f32(v, 128.0f));
#endif
}

// a + b c with the product rounded before the sum, as the plain code computes it: one instruction
// on 32-bit ARM (VMLA is not fused), two elsewhere (the fused forms of arm64 and x86 round once).
static inline float32x4_t VmlaqF32(float32x4_t vA, float32x4_t vB, float32x4_t vC)
{
#if defined(__arm__)
    return vmlaq_f32(vA, vB, vC);
#else
    return vaddq_f32(vA, vmulq_f32(vB, vC));
#endif
}

static inline uint32_t FloatBits(float f)
{
    uint32_t u;
    memcpy(&u, &f, sizeof(u));
    return u;
}

static inline float BitsFloat(uint32_t u)
{
    float f;
    memcpy(&f, &u, sizeof(f));
    return f;
}

// The reciprocal estimate of 32-bit ARM's VRECPE (8 significant bits from a 256-entry rule),
// with the Advanced SIMD flush-to-zero of ARMv7: tiny inputs give infinity, huge ones zero.
static inline float RecipEstimateF32(float f)
{
    const uint32_t u = FloatBits(f);
    const uint32_t uSign = u & 0x80000000u;
    const uint32_t uExp = (u >> 23) & 0xFFu;
    const uint32_t uFrac = u & 0x7FFFFFu;
    if (uExp == 0xFFu) {
        return uFrac ? BitsFloat(0x7FC00000u) : BitsFloat(uSign);   // NaN -> default NaN, inf -> 0
    }
    if (uExp == 0u) {
        return BitsFloat(uSign | 0x7F800000u);                        // zero or flushed denormal
    }
    if (uExp >= 253u) {
        return BitsFloat(uSign);                                       // result would be denormal
    }
    const uint32_t uScaled = 256u + (uFrac >> 15);                    // 1.fraction in 9 bits
    const uint32_t uA = uScaled * 2u + 1u;
    const uint32_t uB = (1u << 19) / uA;
    const uint32_t uEstimate = (uB + 1u) / 2u;                         // 256..511
    const uint32_t uResultExp = 253u - uExp;
    return BitsFloat(uSign | (uResultExp << 23) | ((uEstimate & 0xFFu) << 15));
}

// 32-bit ARM's Advanced SIMD flushes denormal operands to zero.
static inline float FlushDenormalF32(float f)
{
    const uint32_t u = FloatBits(f);
    return ((u & 0x7F800000u) == 0u) ? BitsFloat(u & 0x80000000u) : f;
}

// One Newton-Raphson step factor of 32-bit ARM's VRECPS: 2 - a * b with denormal operands
// flushed, the product rounded before the subtraction (arm64's FRECPS fuses it), and 2 for
// infinity times zero.
static inline float RecipStepF32(float a, float b)
{
    a = FlushDenormalF32(a);
    b = FlushDenormalF32(b);
    const float fProd = a * b;
    if (fProd != fProd && a == a && b == b) {
        return 2.0f;
    }
    return 2.0f - fProd;
}

#if !defined(__arm__)
// Lanes whose magnitude is below 2^-126 (denormals and zeros), as 32-bit ARM's flush-to-zero sees them.
static inline uint32x4_t VisTinyF32(float32x4_t v)
{
    return vcltq_f32(vabsq_f32(v), vdupq_n_f32(1.17549435e-38f));
}

static inline float32x4_t VflushDenormalF32(float32x4_t v)
{
    const float32x4_t vSignedZero = vreinterpretq_f32_u32(vandq_u32(vreinterpretq_u32_f32(v), vdupq_n_u32(0x80000000u)));
    return vbslq_f32(VisTinyF32(v), vSignedZero, v);
}
#endif

static inline float32x4_t VrecpeqF32(float32x4_t v)
{
#if defined(__arm__)
    return vrecpeq_f32(v);
#elif defined(__aarch64__)
    // arm64 keeps denormals: tiny inputs give finite estimates and huge ones denormal results,
    // where 32-bit ARM gives infinity and zero.
    const uint32x4_t vSign = vandq_u32(vreinterpretq_u32_f32(v), vdupq_n_u32(0x80000000u));
    const float32x4_t vSignedInf = vreinterpretq_f32_u32(vorrq_u32(vSign, vdupq_n_u32(0x7F800000u)));
    const float32x4_t vSignedZero = vreinterpretq_f32_u32(vSign);
    const uint32x4_t vHuge = vcgeq_f32(vabsq_f32(v), vdupq_n_f32(8.50705917e+37f));   // 2^126
    const float32x4_t vEstimate = vbslq_f32(vHuge, vSignedZero, vrecpeq_f32(v));
    return vbslq_f32(VisTinyF32(v), vSignedInf, vEstimate);
#else
    float af[4];
    vst1q_f32(af, v);
    for (int i = 0; i < 4; i++) {
        af[i] = RecipEstimateF32(af[i]);
    }
    return vld1q_f32(af);
#endif
}

static inline float32x4_t VrecpsqF32(float32x4_t a, float32x4_t b)
{
#if defined(__arm__)
    return vrecpsq_f32(a, b);
#else
    a = VflushDenormalF32(a);
    b = VflushDenormalF32(b);
    const float32x4_t vProd = vmulq_f32(a, b);
    const uint32x4_t vInfTimesZero =
        vandq_u32(vmvnq_u32(vceqq_f32(vProd, vProd)), vandq_u32(vceqq_f32(a, a), vceqq_f32(b, b)));
    return vbslq_f32(vInfTimesZero, vdupq_n_f32(2.0f), vsubq_f32(vdupq_n_f32(2.0f), vProd));
#endif
}

#if !defined(__arm__)
// Lanes of magnitude in [2^-125, 2^125). For such a d, VrecpeqF32 needs none of its special
// cases, and the steps r (2 - d r) from it meet no denormal, infinity or NaN (r stays above
// 2^-126), so there VrecpsqF32 is a plain multiply and subtract: the unguarded pair below gives
// the same floats. (32-bit ARM's native pair needs no guards at all.)
static inline uint32x4_t VisRecipPlainF32(float32x4_t v)
{
    const float32x4_t vAbs = vabsq_f32(v);
    return vandq_u32(vcgeq_f32(vAbs, vdupq_n_f32(2.35098870e-38f)), vcltq_f32(vAbs, vdupq_n_f32(4.25352959e+37f)));
}

static inline float32x4_t VrecpeqPlainF32(float32x4_t v)
{
#if defined(__aarch64__)
    return vrecpeq_f32(v);
#else
    // RecipEstimateF32's rule in lanes. Its integer quotient 2^19 / (2 (256 + f) + 1) comes from a
    // float division: the quotient is at least 1 / 1023 away from an integer, far beyond the
    // division's rounding, so truncating it gives the same integer.
    const uint32x4_t vu = vreinterpretq_u32_f32(v);
    const uint32x4_t vuA =
        vaddq_u32(vshlq_n_u32(vshrq_n_u32(vandq_u32(vu, vdupq_n_u32(0x7FFFFFu)), 15), 1), vdupq_n_u32(513u));
    float afA[4];
    vst1q_f32(afA, vcvtq_f32_u32(vuA));
    int32_t aiB[4];
    for (int32_t k = 0; k < 4; k++) {
        aiB[k] = (int32_t)(524288.0f / afA[k]);   // 512..1022
    }
    const uint32x4_t vuB = vreinterpretq_u32_s32(vld1q_s32(aiB));
    const uint32x4_t vuEstimate = vandq_u32(vshrq_n_u32(vaddq_u32(vuB, vdupq_n_u32(1u)), 1), vdupq_n_u32(0xFFu));
    const uint32x4_t vuExp = vsubq_u32(vdupq_n_u32(253u), vandq_u32(vshrq_n_u32(vu, 23), vdupq_n_u32(0xFFu)));
    return vreinterpretq_f32_u32(vorrq_u32(vorrq_u32(vandq_u32(vu, vdupq_n_u32(0x80000000u)), vshlq_n_u32(vuExp, 23)),
                                           vshlq_n_u32(vuEstimate, 15)));
#endif
}

static inline float32x4_t VrecpsqPlainF32(float32x4_t a, float32x4_t b)
{
    return vsubq_f32(vdupq_n_f32(2.0f), vmulq_f32(a, b));
}
#endif

#endif

// The reciprocal helpers behind the warp's main pass. 32-bit ARM's VRECPE and VRECPS define the
// bytes; the scalar model (the plain twins' arithmetic) and the vector helpers must agree with
// them wherever the warp can take them.
#include <gtest/gtest.h>

#include "platform/neon.h"
#include "warp/affine_transform_cases.h"   // AffineRng

namespace {

// Reciprocal helpers. Inputs: random bit patterns, every table entry of the estimate and the
// edges of the float range (zeros, denormals, the normal limits, 2^126, infinities, NaN).
std::vector<uint32_t> RecipInputs()
{
    std::vector<uint32_t> bits = {0x00000000u, 0x80000000u, 0x00000001u, 0x007FFFFFu, 0x807FFFFFu, 0x00400000u,
                                  0x00800000u, 0x80800000u, 0x3F800000u, 0xBF800000u, 0x3F7FFFFFu, 0x3FFFFFFFu,
                                  0x7E7FFFFFu, 0x7E800000u, 0xFE800000u, 0x7F7FFFFFu, 0x7F800000u, 0xFF800000u,
                                  0x7FC00000u, 0x7F800001u, 0x3F000000u, 0x3F008000u, 0x447A0000u};
    for (uint32_t u = 0; u < 256; u++) {
        bits.push_back(0x3F800000u | (u << 15));
    }
    AffineRng rng(12345);
    for (int i = 0; i < 20000; i++) {
        bits.push_back(rng.Next());
    }
    return bits;
}

// Compares lane results bitwise (any NaN equals any NaN) and names the first differing inputs.
template <typename Vector, typename Scalar>
::testing::AssertionResult SameLanes(const std::vector<uint32_t> &a, const std::vector<uint32_t> &b, Vector vec,
                                     Scalar ref)
{
    for (size_t i = 0; i < a.size(); i += 4) {
        float afA[4], afB[4], afOut[4];
        for (int k = 0; k < 4; k++) {
            afA[k] = BitsFloat(a[(i + k) % a.size()]);
            afB[k] = BitsFloat(b[(i + k) % b.size()]);
        }
        vst1q_f32(afOut, vec(vld1q_f32(afA), vld1q_f32(afB)));
        for (int k = 0; k < 4; k++) {
            const float fRef = ref(afA[k], afB[k]);
            if (!(fRef != fRef && afOut[k] != afOut[k]) && FloatBits(fRef) != FloatBits(afOut[k])) {
                char ac[96];
                snprintf(ac, sizeof(ac), "inputs 0x%08X, 0x%08X: scalar 0x%08X, vector 0x%08X", FloatBits(afA[k]),
                         FloatBits(afB[k]), FloatBits(fRef), FloatBits(afOut[k]));
                return ::testing::AssertionFailure() << ac;
            }
        }
    }
    return ::testing::AssertionSuccess();
}

#if defined(__arm__)
// 32-bit ARM's own VRECPE defines the estimate: the scalar model must reproduce it everywhere,
// flushed denormals and out-of-range results included.
TEST(RecipEstimate, ScalarModelMatchesArmv7Vrecpe)
{
    const std::vector<uint32_t> bits = RecipInputs();
    EXPECT_TRUE(SameLanes(bits, bits, [](float32x4_t a, float32x4_t) { return vrecpeq_f32(a); },
                          [](float a, float) { return RecipEstimateF32(a); }));
}
#endif

// The vector helpers give the scalar model's bits on every target, flushed denormals,
// infinity times zero and out-of-range estimates included.
TEST(RecipEstimate, VectorHelpersMatchScalarModelEverywhere)
{
    const std::vector<uint32_t> bits = RecipInputs();
    std::vector<uint32_t> other(bits.rbegin(), bits.rend());
    other[0] = 0x7F800000u;   // pairs a denormal with infinity
    std::vector<uint32_t> first = bits;
    first[0] = 0x00000001u;
    EXPECT_TRUE(SameLanes(bits, bits, [](float32x4_t a, float32x4_t) { return VrecpeqF32(a); },
                          [](float a, float) { return RecipEstimateF32(a); }));
    EXPECT_TRUE(SameLanes(first, other, [](float32x4_t a, float32x4_t b) { return VrecpsqF32(a, b); },
                          [](float a, float b) { return RecipStepF32(a, b); }));
}

}  // namespace

// Vector worker bodies of the affine warp: four 2 x 2 blocks per step, the mapping in 4-lane
// single precision with the reciprocal estimate instead of a division, bilinear luma in 8-bit
// weights and 16-bit sums. affine_transform.cpp holds the plain twins that define the bytes.
#include "warp/affine_transform.h"

#include <stddef.h>

#include "geometry/distortion_correct.h"
#include "platform/neon.h"

#define AFFINE_PREFETCH_SRC 32      // bytes ahead on every source row
#define AFFINE_PREFETCH_TABLE 64    // bytes ahead in the column table

// Lanes 2k and 2k + 1 take p[aiOff[k]] and p[aiOff[k] + 1]: one block's byte pair per 16-bit lane.
static inline uint8x8_t GatherPairs(const uint8_t *p, const int32_t *aiOff)
{
    uint16x4_t v = vdup_n_u16(0);
    v = vset_lane_u16((uint16_t)(p[aiOff[0]] | (p[aiOff[0] + 1] << 8)), v, 0);
    v = vset_lane_u16((uint16_t)(p[aiOff[1]] | (p[aiOff[1] + 1] << 8)), v, 1);
    v = vset_lane_u16((uint16_t)(p[aiOff[2]] | (p[aiOff[2] + 1] << 8)), v, 2);
    v = vset_lane_u16((uint16_t)(p[aiOff[3]] | (p[aiOff[3] + 1] << 8)), v, 3);
    return vreinterpret_u8_u16(v);
}

// LdcGatherRowsClamped into vectors, out of line so that this rare path costs the common ones no
// registers.
static __attribute__((noinline)) void GatherRowsClamped(const tagST_SRC_BLOCK *pstBlock, int32_t iPitch,
                                                        const int32_t *aiOff, int32_t bContiguous,
                                                        uint8x8_t avucA[3], uint8x8_t avucB[3])
{
    uint8_t aaucA[3][8];
    uint8_t aaucB[3][8];
    LdcGatherRowsClamped(pstBlock, "AffineTransformBand_neon (clamped gather)", iPitch, aiOff, bContiguous, aaucA, aaucB);
    for (int32_t r = 0; r < 3; r++) {
        avucA[r] = vld1_u8(aaucA[r]);
        avucB[r] = vld1_u8(aaucB[r]);
    }
}

// Horizontal pass of one source row: (a (128 - fx) + b fx + 32) >> 6, one extra bit kept.
static inline uint16x8_t LerpRow(uint8x8_t vA, uint8x8_t vB, uint8x8_t vGx, uint8x8_t vFx)
{
    return vrshrq_n_u16(vmlal_u8(vmull_u8(vA, vGx), vB, vFx), 6);
}

// Vertical pass: (top (128 - fy) + bottom fy, saturated, + 128) >> 8.
static inline uint8x8_t LerpColumn(uint16x8_t vTop, uint16x8_t vBottom, uint16x8_t vGy, uint16x8_t vFy)
{
    const uint16x8_t vSum = vmlaq_u16(vmulq_u16(vTop, vGy), vBottom, vFy);
    return vshrn_n_u16(vqaddq_u16(vSum, vdupq_n_u16(128)), 8);
}

static void AffineMainPass_neon(const tagST_AFFINE_TASK *pstTask, int32_t iRowStart, int32_t iRowEnd,
                                int32_t bPlanar)
{
    static const char *const s_pcKernel = "AffineTransformBand_neon";
    const float *pfM = pstTask->pfMatrix;
    const int32_t iPitch = pstTask->pstSrc->iWidth;
    const int32_t iPitchC = bPlanar ? (iPitch >> 1) : iPitch;
    const int32_t iGroups = pstTask->iWidth / AFFINE_GROUP_COLS;
    const uint8_t *pucTable = pstTask->pucScratch;
    const uint8_t *pucSrcY = pstTask->pstSrc->pY;
    const uint8_t *pucSrcC = pstTask->pstSrc->pU;
    const uint8_t *pucSrcV = pstTask->pstSrc->pV;
    uint8_t *pucDstC = pstTask->pstDst->pU;
    uint8_t *pucDstV = pstTask->pstDst->pV;
    const tagST_SRC_BLOCK stBlock = AffineSourceBlock(pstTask->pstSrc, bPlanar);
    const tagST_AFFINE_LIMITS stLimits = AffineSourceLimits(pstTask->pstSrc);

    const float32x4_t vDenStep = vdupq_n_f32(8.0f * pfM[6]);
    const int32x4_t vInnerX = vdupq_n_s32(stLimits.iInnerX);
    const int32x4_t vInnerY = vdupq_n_s32(stLimits.iInnerY);
    const int32x4_t vPitch = vdupq_n_s32(iPitch);
    const int32x4_t vPitchC = vdupq_n_s32(iPitchC);
    const int32x4_t vOne = vdupq_n_s32(1);
    const int32x4_t vChromaRowLast = vdupq_n_s32(stBlock.iChromaRowLast);
    const int32x4_t vChromaLast = vdupq_n_s32(stBlock.iChromaLast);
    const uint8x8_t v128 = vdup_n_u8(128);

    for (int32_t iY = iRowStart; iY < iRowEnd; iY += 2) {
        const float fY = (float)iY;
        const float32x4_t vSxRow = vdupq_n_f32(pfM[1] * fY + pfM[2]);
        const float32x4_t vSyRow = vdupq_n_f32(pfM[4] * fY + pfM[5]);
        // The table may sit at any byte of the working buffer: load it as bytes.
        float32x4_t vDen = vaddq_f32(vmulq_n_f32(vreinterpretq_f32_u8(vld1q_u8(pucTable)), pfM[6]),
                                     vdupq_n_f32(pfM[7] * fY + pfM[8]));
        uint8_t *pucDstY0 = pstTask->pstDst->pY + (ptrdiff_t)iY * iPitch + pstTask->iStartX;
        uint8_t *pucDstY1 = pucDstY0 + iPitch;
        uint8_t *pucDstRowC = pucDstC + (ptrdiff_t)(iY >> 1) * iPitchC;
        uint8_t *pucDstRowV = pucDstV + (ptrdiff_t)(iY >> 1) * iPitchC;
        int32_t iX = pstTask->iStartX;

        for (int32_t g = 0; g < iGroups; g++, iX += AFFINE_GROUP_COLS) {
            const uint8_t *pucQuad = pucTable + (size_t)g * AFFINE_QUAD_BYTES;
            __builtin_prefetch(pucQuad + AFFINE_PREFETCH_TABLE);
            const float32x4_t vX = vreinterpretq_f32_u8(vld1q_u8(pucQuad));

            // 1 / den: 8-bit estimate and two Newton-Raphson steps, r := r (2 - den r).
            float32x4_t vR = VrecpeqF32(vDen);
            vR = vmulq_f32(vR, VrecpsqF32(vDen, vR));
            vR = vmulq_f32(vR, VrecpsqF32(vDen, vR));
            const float32x4_t vSx = vmulq_f32(vaddq_f32(vmulq_n_f32(vX, pfM[0]), vSxRow), vR);
            const float32x4_t vSy = vmulq_f32(vaddq_f32(vmulq_n_f32(vX, pfM[3]), vSyRow), vR);
            vDen = vaddq_f32(vDen, vDenStep);

            // Clamped into the frame (see LdcClampIndex): far output corners of a face
            // homography map well outside the source. Fractions in 1/128, negative ones
            // saturate to 0.
            int32x4_t vFx32;
            int32x4_t vFy32;
            const int32x4_t vIx = LdcClampIndex_neon(vSx, vInnerX, &vFx32);
            const int32x4_t vIy = LdcClampIndex_neon(vSy, vInnerY, &vFy32);
            const uint16x4_t vFx16 = vqmovun_s32(vFx32);
            const uint16x4_t vFy16 = vqmovun_s32(vFy32);
            // Each block's weight on both of its columns: (f0 f0 f1 f1 f2 f2 f3 f3).
            const uint8x8_t vFxFy = vmovn_u16(vcombine_u16(vFx16, vFy16));
            const uint8x8x2_t vW = vzip_u8(vFxFy, vFxFy);
            const uint8x8_t vFx = vW.val[0];
            const uint8x8_t vGx = vsub_u8(v128, vFx);
            const uint16x8_t vFy = vmovl_u8(vW.val[1]);
            const uint16x8_t vGy = vmovl_u8(vsub_u8(v128, vW.val[1]));

            const int32x4_t vOff = vmlaq_s32(vIx, vIy, vPitch);
            // Nearest chroma, row and start clamped into the plane (LdcChromaOffset).
            const int32x4_t vCx = vshrq_n_s32(vaddq_s32(vIx, vOne), 1);
            const int32x4_t vCy = vminq_s32(vshrq_n_s32(vaddq_s32(vIy, vOne), 1), vChromaRowLast);
            const int32x4_t vChroma = vminq_s32(vmlaq_s32(bPlanar ? vCx : vshlq_n_s32(vCx, 1), vCy, vPitchC), vChromaLast);
            int32_t aiOff[4];
            int32_t aiChroma[4];
            vst1q_s32(aiOff, vOff);
            vst1q_s32(aiChroma, vChroma);

            // Contiguity: only the sum of the saturated differences is tested, deliberately.
            const int32_t bContiguous = LdcOffsetSpreadSum(aiOff) == AFFINE_CONTIGUOUS_SUM;

            uint16x8_t vH0;
            uint16x8_t vH1;
            uint16x8_t vH2;
            if (bContiguous && aiOff[0] <= stBlock.iWideLast) {
                const uint8_t *pucS0 = pucSrcY + aiOff[0];
                const uint8_t *pucS1 = pucS0 + iPitch;
                const uint8_t *pucS2 = pucS1 + iPitch;
                LDC_CHECK_READ(&stBlock, s_pcKernel, pucS0, 9);
                LDC_CHECK_READ(&stBlock, s_pcKernel, pucS2, 9);
                __builtin_prefetch(pucS0 + AFFINE_PREFETCH_SRC);
                __builtin_prefetch(pucS1 + AFFINE_PREFETCH_SRC);
                __builtin_prefetch(pucS2 + AFFINE_PREFETCH_SRC);
                vH0 = LerpRow(vld1_u8(pucS0), vld1_u8(pucS0 + 1), vGx, vFx);
                vH1 = LerpRow(vld1_u8(pucS1), vld1_u8(pucS1 + 1), vGx, vFx);
                vH2 = LerpRow(vld1_u8(pucS2), vld1_u8(pucS2 + 1), vGx, vFx);
            } else if (bContiguous || stBlock.bShortFrame) {
                uint8x8_t avucA[3];
                uint8x8_t avucB[3];
                GatherRowsClamped(&stBlock, iPitch, aiOff, bContiguous, avucA, avucB);
                vH0 = LerpRow(avucA[0], avucB[0], vGx, vFx);
                vH1 = LerpRow(avucA[1], avucB[1], vGx, vFx);
                vH2 = LerpRow(avucA[2], avucB[2], vGx, vFx);
            } else {
                // Row r of every block: pairs at o_k + rW (left samples) and o_k + rW + 1 (right).
                const uint8_t *pucS1 = pucSrcY + iPitch;
                const uint8_t *pucS2 = pucS1 + iPitch;
                for (int32_t k = 0; k < 4; k++) {
                    LDC_CHECK_READ(&stBlock, s_pcKernel, pucSrcY + aiOff[k], 2 * iPitch + 3);
                }
                __builtin_prefetch(pucSrcY + aiOff[0] + AFFINE_PREFETCH_SRC);
                vH0 = LerpRow(GatherPairs(pucSrcY, aiOff), GatherPairs(pucSrcY + 1, aiOff), vGx, vFx);
                vH1 = LerpRow(GatherPairs(pucS1, aiOff), GatherPairs(pucS1 + 1, aiOff), vGx, vFx);
                vH2 = LerpRow(GatherPairs(pucS2, aiOff), GatherPairs(pucS2 + 1, aiOff), vGx, vFx);
            }
            vst1_u8(pucDstY0, LerpColumn(vH0, vH1, vGy, vFy));
            vst1_u8(pucDstY1, LerpColumn(vH1, vH2, vGy, vFy));
            pucDstY0 += AFFINE_GROUP_COLS;
            pucDstY1 += AFFINE_GROUP_COLS;

            if (bPlanar) {
                // Exactly 4 bytes per plane: the bytes behind the group stay as they are.
                uint8_t *pucU = pucDstRowC + (iX >> 1);
                uint8_t *pucV = pucDstRowV + (iX >> 1);
                for (int32_t k = 0; k < 4; k++) {
                    const int32_t iC = bContiguous ? LdcMinS32(aiChroma[0] + k, stBlock.iChromaLast) : aiChroma[k];
                    LDC_CHECK_READ(&stBlock, s_pcKernel, pucSrcC + iC, 1);
                    LDC_CHECK_READ(&stBlock, s_pcKernel, pucSrcV + iC, 1);
                    pucU[k] = pucSrcC[iC];
                    pucV[k] = pucSrcV[iC];
                }
            } else if (bContiguous && aiChroma[0] + 6 <= stBlock.iChromaLast) {
                LDC_CHECK_READ(&stBlock, s_pcKernel, pucSrcC + aiChroma[0], 8);
                vst1_u8(pucDstRowC + iX, vld1_u8(pucSrcC + aiChroma[0]));
            } else {
                if (bContiguous) {
                    // A run that would pass the plane's end: its pairs one by one, clamped.
                    for (int32_t k = 1; k < 4; k++) {
                        aiChroma[k] = LdcMinS32(aiChroma[0] + 2 * k, stBlock.iChromaLast);
                    }
                }
                for (int32_t k = 0; k < 4; k++) {
                    LDC_CHECK_READ(&stBlock, s_pcKernel, pucSrcC + aiChroma[k], 2);
                }
                vst1_u8(pucDstRowC + iX, GatherPairs(pucSrcC, aiChroma));
            }
        }
    }
}

int32_t AffineTransformBand_neon_NV12(const tagST_AFFINE_TASK *pstTask, int32_t iIndex, int32_t iCount)
{
    int32_t iRowStart;
    int32_t iRowEnd;
    AffineClaimCore(pstTask->pstPara, iCount);
    AffineBandRows(pstTask, iIndex, iCount, &iRowStart, &iRowEnd);
    AffineMainPass_neon(pstTask, iRowStart, iRowEnd, 0);
    AffineTail_NV12(pstTask, iRowStart, iRowEnd);
    return 0;
}

int32_t AffineTransformBand_neon_YUV420(const tagST_AFFINE_TASK *pstTask, int32_t iIndex, int32_t iCount)
{
    int32_t iRowStart;
    int32_t iRowEnd;
    AffineClaimCore(pstTask->pstPara, iCount);
    AffineBandRows(pstTask, iIndex, iCount, &iRowStart, &iRowEnd);
    AffineMainPass_neon(pstTask, iRowStart, iRowEnd, 1);
    AffineTail_YUV420(pstTask, iRowStart, iRowEnd);
    return 0;
}

void AffineMapGroups_neon(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                          const uint8_t *pucColumns, tagST_GROUP_POS *pstPos)
{
    const float *pfM = (const float *)pStage;
    const float fY = (float)pstRow->iY;
    const float32x4_t vSxRow = vdupq_n_f32(pfM[1] * fY + pfM[2]);
    const float32x4_t vSyRow = vdupq_n_f32(pfM[4] * fY + pfM[5]);
    const float32x4_t vDenStep = vdupq_n_f32(8.0f * pfM[6]);
    // The table may sit at any byte of the working buffer: load it as bytes.
    float32x4_t vDen = (iFirst == 0) ? vaddq_f32(vmulq_n_f32(vreinterpretq_f32_u8(vld1q_u8(pucColumns)), pfM[6]),
                                                 vdupq_n_f32(pfM[7] * fY + pfM[8]))
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

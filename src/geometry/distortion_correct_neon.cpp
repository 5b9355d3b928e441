// NEON worker bodies: four block origins per group in one float vector, 7-bit bilinear luma in
// 16-bit lanes. The bytes are those of the plain bodies in distortion_correct.cpp.
#include "geometry/distortion_correct.h"

// Two consecutive bytes as one little-endian 16-bit value (the compiler merges the two loads).
static inline uint32_t LoadPair(const uint8_t *pucSrc)
{
    return (uint32_t)pucSrc[0] | ((uint32_t)pucSrc[1] << 8);
}

static inline uint32_t LoadQuad(const uint8_t *pucSrc)
{
    return LoadPair(pucSrc) | (LoadPair(pucSrc + 2) << 16);
}

static inline uint8x8_t CombinePairs(uint32_t u0, uint32_t u1, uint32_t u2, uint32_t u3)
{
    return vcreate_u8((uint64_t)(u0 | (u1 << 16)) | ((uint64_t)(u2 | (u3 << 16)) << 32));
}

// Per-lane weights of the four blocks, each repeated for the block's two columns.
static inline uint16x8_t WidenBlockWeights(uint16x4_t vuFrac)
{
    const uint16x4x2_t vuZip = vzip_u16(vuFrac, vuFrac);
    return vcombine_u16(vuZip.val[0], vuZip.val[1]);
}

static inline uint16x8_t BilinearPassQ7_neon(uint8x8_t vucA, uint8x8_t vucB, uint16x8_t vuW0,
                                             uint16x8_t vuW1)
{
    return vrshrq_n_u16(vmlaq_u16(vmulq_u16(vmovl_u8(vucA), vuW0), vmovl_u8(vucB), vuW1), 6);
}

static inline uint8x8_t BilinearVerticalQ7_neon(uint16x8_t vuUpper, uint16x8_t vuLower,
                                                uint16x8_t vuW0, uint16x8_t vuW1)
{
    return vrshrn_n_u16(vqaddq_u16(vmulq_u16(vuUpper, vuW0), vmulq_u16(vuLower, vuW1)), 8);
}

// LdcGatherRowsClamped into vectors, out of line so that this rare path costs the common ones no
// registers.
static __attribute__((noinline)) void GatherBlockClamped(const tagST_SRC_BLOCK *pstBlock, int32_t iPitch,
                                                         const int32_t aiOffset[4], int32_t bContiguous,
                                                         uint8x8_t avucA[3], uint8x8_t avucB[3])
{
    uint8_t aaucA[3][8];
    uint8_t aaucB[3][8];
    LdcGatherRowsClamped(pstBlock, "InterpolateLumaBlock_neon (clamped gather)", iPitch, aiOffset, bContiguous, aaucA, aaucB);
    for (int32_t r = 0; r < 3; r++) {
        avucA[r] = vld1_u8(aaucA[r]);
        avucB[r] = vld1_u8(aaucB[r]);
    }
}

int32_t InterpolateLumaBlock_neon(uint8_t *pucDst, const tagST_SRC_BLOCK *pstBlock, int32_t iPitch,
                                  int32x4_t viOffset, uint16x4_t vuFx, uint16x4_t vuFy)
{
    static const char *const s_pcKernel = "InterpolateLumaBlock_neon";
    const uint8_t *pucSrc = pstBlock->pucBase;
    int32_t aiOffset[4];
    vst1q_s32(aiOffset, viOffset);
    // Only the sum of the distances to block 0 is tested (see InterpolateLumaBlock).
    const int32_t bContiguous = (LdcOffsetSpreadSum(aiOffset) == 12) ? 1 : 0;

    // Row r of the block: A holds the left and B the right neighbour of every output column.
    uint8x8_t avucA[3];
    uint8x8_t avucB[3];
    if (bContiguous && aiOffset[0] <= pstBlock->iWideLast) {
        const uint8_t *pucRow = pucSrc + aiOffset[0];
        for (int32_t r = 0; r < 3; r++, pucRow += iPitch) {
            LDC_CHECK_READ(pstBlock, s_pcKernel, pucRow, 9);
            __builtin_prefetch(pucRow + 32);
            avucA[r] = vld1_u8(pucRow);
            avucB[r] = vld1_u8(pucRow + 1);
        }
    } else if (bContiguous || pstBlock->bShortFrame) {
        GatherBlockClamped(pstBlock, iPitch, aiOffset, bContiguous, avucA, avucB);
    } else {
        for (int32_t k = 0; k < 4; k++) {
            LDC_CHECK_READ(pstBlock, s_pcKernel, pucSrc + aiOffset[k], 2 * iPitch + 3);
        }
        for (int32_t r = 0; r < 3; r++) {
            const uint8_t *pucRow = pucSrc + r * iPitch;
            __builtin_prefetch(pucRow + aiOffset[0] + 32);
            avucA[r] = CombinePairs(LoadPair(pucRow + aiOffset[0]), LoadPair(pucRow + aiOffset[1]),
                                    LoadPair(pucRow + aiOffset[2]), LoadPair(pucRow + aiOffset[3]));
            avucB[r] = CombinePairs(LoadPair(pucRow + aiOffset[0] + 1),
                                    LoadPair(pucRow + aiOffset[1] + 1),
                                    LoadPair(pucRow + aiOffset[2] + 1),
                                    LoadPair(pucRow + aiOffset[3] + 1));
        }
    }

    const uint16x8_t vuWx1 = WidenBlockWeights(vuFx);
    const uint16x8_t vuWx0 = vsubq_u16(vdupq_n_u16(128), vuWx1);
    const uint16x8_t vuWy1 = WidenBlockWeights(vuFy);
    const uint16x8_t vuWy0 = vsubq_u16(vdupq_n_u16(128), vuWy1);
    // Output row 0 blends source rows 0 and 1, output row 1 rows 1 and 2: three horizontal passes.
    const uint16x8_t vuH0 = BilinearPassQ7_neon(avucA[0], avucB[0], vuWx0, vuWx1);
    const uint16x8_t vuH1 = BilinearPassQ7_neon(avucA[1], avucB[1], vuWx0, vuWx1);
    const uint16x8_t vuH2 = BilinearPassQ7_neon(avucA[2], avucB[2], vuWx0, vuWx1);
    vst1_u8(pucDst, BilinearVerticalQ7_neon(vuH0, vuH1, vuWy0, vuWy1));
    vst1_u8(pucDst + iPitch, BilinearVerticalQ7_neon(vuH1, vuH2, vuWy0, vuWy1));
    return bContiguous;
}

typedef struct tagST_LDC_VMODEL {
    float32x4_t vCx;
    float32x4_t vCy;
    float32x4_t vC1;
    float32x4_t vC2;
    float32x4_t vC3;
    int32x4_t viInnerX;
    int32x4_t viInnerY;
} tagST_LDC_VMODEL;

static inline void LoadVectorModel(const tagST_LDC_BAND *pstBand, tagST_LDC_VMODEL *pstV)
{
    const tagST_RADIAL_MODEL *pstModel = &pstBand->stModel;
    pstV->viInnerX = vdupq_n_s32(pstBand->iInnerX);
    pstV->viInnerY = vdupq_n_s32(pstBand->iInnerY);
    pstV->vCx = vdupq_n_f32(pstModel->fCx);
    pstV->vCy = vdupq_n_f32(pstModel->fCy);
    pstV->vC1 = vdupq_n_f32(pstModel->fC1);
    pstV->vC2 = vdupq_n_f32(pstModel->fC2);
    pstV->vC3 = vdupq_n_f32(pstModel->fC3);
}

// One group's four block origins through the model, in RadialFactorGrouped's order:
// integer source positions and 7-bit fractions.
typedef struct tagST_LDC_VSAMPLE {
    int32x4_t viX;
    int32x4_t viY;
    uint16x4_t vuFx;
    uint16x4_t vuFy;
} tagST_LDC_VSAMPLE;

static inline void MapGroup_neon(const tagST_LDC_VMODEL *pstV, const uint8_t *pucQuad,
                                 float32x4_t vDy, float32x4_t vR2y, tagST_LDC_VSAMPLE *pstS)
{
    // The column table is read as bytes: its offset in the working buffer follows the frame size.
    const float32x4_t vX = vreinterpretq_f32_u8(vld1q_u8(pucQuad));
    const float32x4_t vDx = vsubq_f32(vX, pstV->vCx);
    const float32x4_t vR2 = vaddq_f32(vmulq_f32(vDx, vDx), vR2y);
    const float32x4_t vR4 = vmulq_f32(vR2, vR2);
    const float32x4_t vR6 = vmulq_f32(vR4, vR2);
    const float32x4_t vF = vaddq_f32(
        vaddq_f32(vmulq_f32(pstV->vC1, vR2), vaddq_f32(vmulq_f32(pstV->vC2, vR4),
                                                        vmulq_f32(pstV->vC3, vR6))),
        vdupq_n_f32(1.0f));
    const float32x4_t vSx = vaddq_f32(vmulq_f32(vF, vDx), pstV->vCx);
    const float32x4_t vSy = vaddq_f32(vmulq_f32(vF, vDy), pstV->vCy);
    int32x4_t viFx;
    int32x4_t viFy;
    pstS->viX = LdcClampIndex_neon(vSx, pstV->viInnerX, &viFx);
    pstS->viY = LdcClampIndex_neon(vSy, pstV->viInnerY, &viFy);
    pstS->vuFx = vqmovun_s32(viFx);
    pstS->vuFy = vqmovun_s32(viFy);
}

// Shared row-pair loop of both layouts: maps and interpolates every group, then hands the
// chroma of the group to pfnChroma with its source offsets' integer parts and the verdict.
template <typename ChromaStore>
static inline void CorrectBand_neon(const tagST_LDC_WORK *pstWork, const tagST_LDC_BAND *pstBand,
                                    ChromaStore fnChroma)
{
    const tagST_LDC_PARA *pstPara = pstWork->pstPara;
    const int32_t iW = pstPara->iImgWidth;
    const uint8_t *pucTable =
        pstPara->pucWorkBuf + LDC_COLUMN_TABLE_OFFSET(iW, pstPara->iImgHeight);
    tagST_LDC_VMODEL stV;
    LoadVectorModel(pstBand, &stV);
    const int32x4_t viW = vdupq_n_s32(iW);
    const int32x4_t viChromaRowLast = vdupq_n_s32(pstBand->stBlock.iChromaRowLast);
    const int32_t iEnd = pstBand->iStart + pstBand->iRows;
    for (int32_t iY = pstBand->iStart; iY < iEnd; iY += 2) {
        const float fDy = (float)iY - pstBand->stModel.fCy;
        const float32x4_t vDy = vdupq_n_f32(fDy);
        const float32x4_t vR2y = vdupq_n_f32(fDy * fDy);
        uint8_t *pucDstY = pstWork->pucDstY + iY * iW + pstBand->iLeft;
        const int32_t bLastPair = (iY + 2 >= iEnd) ? 1 : 0;
        for (int32_t g = 0; g < pstBand->iGroups; g++, pucDstY += 8) {
            __builtin_prefetch(pucTable + 16 * g + 64);
            tagST_LDC_VSAMPLE stS;
            MapGroup_neon(&stV, pucTable + 16 * g, vDy, vR2y, &stS);
            const int32x4_t viOffset = vmlaq_s32(stS.viX, stS.viY, viW);
            const int32_t bContiguous = InterpolateLumaBlock_neon(
                pucDstY, &pstBand->stBlock, iW, viOffset, stS.vuFx, stS.vuFy);
            // Nearest chroma position: halves rounded up, the row clamped into the plane (the
            // bottom luma row rounds up to one row past it).
            const int32x4_t viOne = vdupq_n_s32(1);
            fnChroma(iY, g, bContiguous, bLastPair && g == pstBand->iGroups - 1,
                     vshrq_n_s32(vaddq_s32(stS.viX, viOne), 1),
                     vminq_s32(vshrq_n_s32(vaddq_s32(stS.viY, viOne), 1), viChromaRowLast));
        }
    }
}

void DistortionCorrect_neon_NV12(const tagST_LDC_WORK *pstWork, int32_t iIndex, int32_t iCount)
{
    static const char *const s_pcKernel = "DistortionCorrect_neon_NV12";
    tagST_LDC_BAND stBand;
    BeginDistortionBand(pstWork, 0, iIndex, iCount, &stBand);
    const int32_t iW = pstWork->pstPara->iImgWidth;
    const int32x4_t viW = vdupq_n_s32(iW);
    const int32_t iChromaLast = stBand.stBlock.iChromaLast;
    const int32x4_t viChromaLast = vdupq_n_s32(iChromaLast);
    const uint8_t *pucSrc = pstWork->pucSrcU;
    CorrectBand_neon(pstWork, &stBand, [&](int32_t iY, int32_t g, int32_t bContiguous, int32_t,
                                           int32x4_t viHalfX, int32x4_t viHalfY) {
        uint8_t *pucDst = pstWork->pucDstU + (iY * iW) / 2 + stBand.iLeft + 8 * g;
        // Always the first byte of a pair; a pair past the plane's last is the last.
        int32_t aiChroma[4];
        vst1q_s32(aiChroma, vminq_s32(vmlaq_s32(vshlq_n_s32(viHalfX, 1), viHalfY, viW), viChromaLast));
        if (bContiguous && aiChroma[0] + 6 <= iChromaLast) {
            LDC_CHECK_READ(&stBand.stBlock, s_pcKernel, pucSrc + aiChroma[0], 8);
            vst1_u8(pucDst, vld1_u8(pucSrc + aiChroma[0]));
        } else {
            if (bContiguous) {
                // A run that would pass the plane's end: its pairs one by one, clamped.
                for (int32_t k = 1; k < 4; k++) {
                    aiChroma[k] = LdcMinS32(aiChroma[0] + 2 * k, iChromaLast);
                }
            }
            for (int32_t k = 0; k < 4; k++) {
                LDC_CHECK_READ(&stBand.stBlock, s_pcKernel, pucSrc + aiChroma[k], 2);
            }
            vst1_u8(pucDst, CombinePairs(LoadPair(pucSrc + aiChroma[0]), LoadPair(pucSrc + aiChroma[1]),
                                         LoadPair(pucSrc + aiChroma[2]),
                                         LoadPair(pucSrc + aiChroma[3])));
        }
    });
    DistortionCorrectTail_NV12(pstWork, &stBand);
}

// Four chroma bytes into an 8-byte store whose other half is read and written back unchanged.
// The band's last group stores its four bytes one by one instead: a span after it would reach
// into rows of another band, and one before it (the group at the start of a plane) would read
// bytes in front of the plane. Once per band, so the cost is nil.
static inline void StoreChromaQuad(uint8_t *pucDst, uint32_t uQuad, int32_t bBandEnd)
{
    if (bBandEnd) {
        for (int32_t k = 0; k < 4; k++) {
            pucDst[k] = (uint8_t)(uQuad >> (8 * k));
        }
        return;
    }
    const uint32x2_t vuSpan = vreinterpret_u32_u8(vld1_u8(pucDst));
    vst1_u8(pucDst, vreinterpret_u8_u32(vset_lane_u32(uQuad, vuSpan, 0)));
}

static inline uint32_t GatherChromaQuad(const uint8_t *pucSrc, const int32_t aiChroma[4])
{
    return (uint32_t)pucSrc[aiChroma[0]] | ((uint32_t)pucSrc[aiChroma[1]] << 8) |
           ((uint32_t)pucSrc[aiChroma[2]] << 16) | ((uint32_t)pucSrc[aiChroma[3]] << 24);
}

void DistortionCorrect_neon_YUV420(const tagST_LDC_WORK *pstWork, int32_t iIndex, int32_t iCount)
{
    static const char *const s_pcKernel = "DistortionCorrect_neon_YUV420";
    tagST_LDC_BAND stBand;
    BeginDistortionBand(pstWork, 1, iIndex, iCount, &stBand);
    const int32_t iW = pstWork->pstPara->iImgWidth;
    const int32x4_t viHalfW = vdupq_n_s32(iW >> 1);
    const int32_t iChromaLast = stBand.stBlock.iChromaLast;
    const int32x4_t viChromaLast = vdupq_n_s32(iChromaLast);
    CorrectBand_neon(pstWork, &stBand, [&](int32_t iY, int32_t g, int32_t bContiguous,
                                           int32_t bBandEnd, int32x4_t viHalfX, int32x4_t viHalfY) {
        const int32_t iDst = (stBand.iLeft >> 1) + 4 * g + (iY * iW) / 4;
        // A sample past the plane's last byte is the last byte.
        int32_t aiChroma[4];
        vst1q_s32(aiChroma, vminq_s32(vmlaq_s32(viHalfX, viHalfY, viHalfW), viChromaLast));
        const int32_t bRun = bContiguous && aiChroma[0] + 3 <= iChromaLast;
        if (bContiguous && !bRun) {
            // A contiguous run that would pass the plane's end: byte by byte, clamped.
            for (int32_t k = 1; k < 4; k++) {
                aiChroma[k] = LdcMinS32(aiChroma[0] + k, iChromaLast);
            }
        }
        for (int32_t k = 0; k < (bRun ? 1 : 4); k++) {
            LDC_CHECK_READ(&stBand.stBlock, s_pcKernel, pstWork->pucSrcU + aiChroma[k], bRun ? 4 : 1);
            LDC_CHECK_READ(&stBand.stBlock, s_pcKernel, pstWork->pucSrcV + aiChroma[k], bRun ? 4 : 1);
        }
        const uint32_t uU = bRun ? LoadQuad(pstWork->pucSrcU + aiChroma[0])
                                 : GatherChromaQuad(pstWork->pucSrcU, aiChroma);
        const uint32_t uV = bRun ? LoadQuad(pstWork->pucSrcV + aiChroma[0])
                                 : GatherChromaQuad(pstWork->pucSrcV, aiChroma);
        StoreChromaQuad(pstWork->pucDstU + iDst, uU, bBandEnd);
        StoreChromaQuad(pstWork->pucDstV + iDst, uV, bBandEnd);
    });
    DistortionCorrectTail_YUV420(pstWork, &stBand);
}

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
        __builtin_prefetch(pucColumns + 64);
        // The table is read as bytes: its offset in the working buffer follows the frame size.
        const float32x4_t vDx = vsubq_f32(vreinterpretq_f32_u8(vld1q_u8(pucColumns)), vCx);
        const float32x4_t vR2 = vaddq_f32(vmulq_f32(vDx, vDx), vR2y);
        const float32x4_t vR4 = vmulq_f32(vR2, vR2);
        const float32x4_t vR6 = vmulq_f32(vR4, vR2);
        const float32x4_t vF = vaddq_f32(
            vaddq_f32(vmulq_f32(vC1, vR2), vaddq_f32(vmulq_f32(vC2, vR4), vmulq_f32(vC3, vR6))), vdupq_n_f32(1.0f));
        vst1q_f32(pstPos[g].afX, vaddq_f32(vmulq_f32(vF, vDx), vCx));
        vst1q_f32(pstPos[g].afY, vaddq_f32(vmulq_f32(vF, vDy), vCy));
    }
}

// Vector twin of ResampleGroups: the four blocks of a group in 4-lane integer arithmetic, the
// luma of the group as one 2 x 8 block in 8-bit weights and 16-bit sums. The bytes are those of
// resample.cpp.
#include <string.h>

#include "resample/resample.h"

// Each group prefetches the luma row four below its first (new to the next row pair or the one
// after) and its chroma row's successor, next to the loads whose addresses they share (fewer ARM
// instructions than from one place before the paths split). A row pair's source follows a curve
// (the lens) or a slope (the warp) across the frame, so it enters new rows every few groups and
// reads each line only once or twice; the hardware's stream prefetch does not follow that, and
// without these every new line's loads wait on memory.
// The prefetch addresses may lie past the frame, where a prefetch is harmless.

// Two consecutive bytes as one little-endian 16-bit value (the compiler merges the two loads).
static inline uint32_t LoadPair(const uint8_t *pucSrc)
{
    return (uint32_t)pucSrc[0] | ((uint32_t)pucSrc[1] << 8);
}

static inline uint8x8_t CombinePairs(uint32_t u0, uint32_t u1, uint32_t u2, uint32_t u3)
{
    return vcreate_u8((uint64_t)(u0 | (u1 << 16)) | ((uint64_t)(u2 | (u3 << 16)) << 32));
}

#if !defined(__arm__) && !defined(__aarch64__)
// A 32-bit load from any byte address.
typedef uint32_t tUnalignedU32 __attribute__((aligned(1), may_alias));
#endif

// Rows 0..2 of a group from one word per block and row: bytes 0, 1 of block k's word are its left
// pair (lanes 2k, 2k + 1 of avucA[row]) and bytes 1, 2 its right pair (avucB[row]); byte 3 is not
// used.
static inline void GatherRowWords(const uint8_t *pucSrc, int32_t iPitch, const int32_t aiOffset[4], uint8x8_t avucA[3],
                                  uint8x8_t avucB[3])
{
#if defined(__aarch64__)
    // Eight-byte loads at register offsets from each row's start need no address arithmetic;
    // their first words are zipped into the lanes.
    for (int32_t r = 0; r < 3; r++, pucSrc += iPitch) {
        const uint32x2_t vu01 = vzip1_u32(vreinterpret_u32_u8(vld1_u8(pucSrc + aiOffset[0])),
                                          vreinterpret_u32_u8(vld1_u8(pucSrc + aiOffset[1])));
        const uint32x2_t vu23 = vzip1_u32(vreinterpret_u32_u8(vld1_u8(pucSrc + aiOffset[2])),
                                          vreinterpret_u32_u8(vld1_u8(pucSrc + aiOffset[3])));
        const uint32x4_t vuWords = vcombine_u32(vu01, vu23);
        avucA[r] = vreinterpret_u8_u16(vmovn_u32(vuWords));
        avucB[r] = vreinterpret_u8_u16(vshrn_n_u32(vuWords, 8));
    }
    __builtin_prefetch(pucSrc + iPitch + aiOffset[0]);
#elif defined(__arm__)
    // Lane loads straight from memory, each block's address stepping down the rows (a lane load
    // without an alignment hint takes any address).
    const uint8_t *apucRow[4];
    for (int32_t k = 0; k < 4; k++) {
        apucRow[k] = pucSrc + aiOffset[k];
    }
    uint32x4_t vuWords = vdupq_n_u32(0);
    for (int32_t r = 0; r < 3; r++) {
        vuWords = vld1q_lane_u32((const uint32_t *)(const void *)apucRow[0], vuWords, 0);
        vuWords = vld1q_lane_u32((const uint32_t *)(const void *)apucRow[1], vuWords, 1);
        vuWords = vld1q_lane_u32((const uint32_t *)(const void *)apucRow[2], vuWords, 2);
        vuWords = vld1q_lane_u32((const uint32_t *)(const void *)apucRow[3], vuWords, 3);
        for (int32_t k = 0; k < 4; k++) {
            apucRow[k] += iPitch;
        }
        avucA[r] = vreinterpret_u8_u16(vmovn_u32(vuWords));
        avucB[r] = vreinterpret_u8_u16(vshrn_n_u32(vuWords, 8));
    }
    __builtin_prefetch(apucRow[0] + iPitch);
#else
    const uint8_t *apucRow[4];
    for (int32_t k = 0; k < 4; k++) {
        apucRow[k] = pucSrc + aiOffset[k];
    }
    uint32x4_t vuWords = vdupq_n_u32(0);
    for (int32_t r = 0; r < 3; r++) {
        vuWords = vsetq_lane_u32(*(const tUnalignedU32 *)apucRow[0], vuWords, 0);
        vuWords = vsetq_lane_u32(*(const tUnalignedU32 *)apucRow[1], vuWords, 1);
        vuWords = vsetq_lane_u32(*(const tUnalignedU32 *)apucRow[2], vuWords, 2);
        vuWords = vsetq_lane_u32(*(const tUnalignedU32 *)apucRow[3], vuWords, 3);
        for (int32_t k = 0; k < 4; k++) {
            apucRow[k] += iPitch;
        }
        avucA[r] = vreinterpret_u8_u16(vmovn_u32(vuWords));
        avucB[r] = vreinterpret_u8_u16(vshrn_n_u32(vuWords, 8));
    }
    __builtin_prefetch(apucRow[0] + iPitch);
#endif
}

static inline uint32_t GatherBytes(const uint8_t *pucSrc, const int32_t aiOffset[4])
{
    return (uint32_t)pucSrc[aiOffset[0]] | ((uint32_t)pucSrc[aiOffset[1]] << 8) |
           ((uint32_t)pucSrc[aiOffset[2]] << 16) | ((uint32_t)pucSrc[aiOffset[3]] << 24);
}

// Rows 0..2 of a group with every read clamped into the frame: the left sample of each output
// column to avucA[row], the right one to avucB[row]. For frames of fewer than six rows and wide
// loads that would pass the frame's end; out of line so that this rare path costs the common
// ones no registers.
static __attribute__((noinline)) void GatherRowsClamped(const tagST_SOURCE_EXTENT *pstSrc, int32_t iPitch,
                                                        const int32_t aiOffset[4], int32_t bContiguous,
                                                        uint8x8_t avucA[3], uint8x8_t avucB[3])
{
    static const char *const s_pcSampler = "ResampleGroups_neon (clamped gather)";
    for (int32_t r = 0; r < 3; r++) {
        uint8_t aucA[8];
        uint8_t aucB[8];
        for (int32_t k = 0; k < 4; k++) {
            const int32_t iBase = (bContiguous ? aiOffset[0] + 2 * k : aiOffset[k]) + r * iPitch;
            for (int32_t j = 0; j < 2; j++) {
                aucA[2 * k + j] = ResampleLumaAt(pstSrc, s_pcSampler, iBase + j);
                aucB[2 * k + j] = ResampleLumaAt(pstSrc, s_pcSampler, iBase + j + 1);
            }
        }
        avucA[r] = vld1_u8(aucA);
        avucB[r] = vld1_u8(aucB);
    }
}

// ResampleSpreadSum in lanes: the distances to block 0 saturated to 16 bits, then added pairwise.
static inline int32_t SpreadSum_neon(int32x4_t viOffset)
{
    const int32x4_t viDelta = vsubq_s32(viOffset, vdupq_lane_s32(vget_low_s32(viOffset), 0));
    const int32x2_t viPairs = vpaddl_s16(vqmovn_s32(viDelta));
    return vget_lane_s32(vpadd_s32(viPairs, viPairs), 0);
}

// Horizontal pass of one source row: (a (128 - fx) + b fx + 32) >> 6, one extra bit kept.
static inline uint16x8_t LerpRow(uint8x8_t vucA, uint8x8_t vucB, uint8x8_t vucGx, uint8x8_t vucFx)
{
    return vrshrq_n_u16(vmlal_u8(vmull_u8(vucA, vucGx), vucB, vucFx), 6);
}

// Vertical pass: (upper (128 - fy) + lower fy + 128) >> 8; the sum stays within 16 bits.
static inline uint8x8_t LerpColumn(uint16x8_t vuUpper, uint16x8_t vuLower, uint16x8_t vuGy, uint16x8_t vuFy)
{
    return vrshrn_n_u16(vmlaq_u16(vmulq_u16(vuUpper, vuGy), vuLower, vuFy), 8);
}

template <int32_t bPlanar>
static inline void SampleGroups(const tagST_RESAMPLE_PLANES *pstPlanes, int32_t iY, int32_t iX,
                                const tagST_GROUP_POS *pstPos, int32_t iCount)
{
    static const char *const s_pcSampler = "ResampleGroups_neon";
    const tagST_SOURCE_EXTENT *pstSrc = &pstPlanes->stExtent;
    const int32_t iW = pstPlanes->iWidth;
    const int32_t iChromaLast = pstSrc->iChromaLast;
    const int32_t iWideLast = pstSrc->iWideLast;
    const int32_t bShortFrame = pstSrc->bShortFrame;
    const uint8_t *pucSrcY = pstPlanes->pucSrcY;
    const uint8_t *pucSrcU = pstPlanes->pucSrcU;
    const uint8_t *pucSrcV = pstPlanes->pucSrcV;
    const int32x4_t viInnerX = vdupq_n_s32(pstPlanes->iInnerX);
    const int32x4_t viInnerY = vdupq_n_s32(pstPlanes->iInnerY);
    const int32x4_t viW = vdupq_n_s32(iW);
    const int32x4_t viPitchC = vdupq_n_s32(bPlanar ? iW >> 1 : iW);
    const int32x4_t viChromaRowLast = vdupq_n_s32(pstSrc->iChromaRowLast);
    const int32x4_t viChromaLast = vdupq_n_s32(iChromaLast);
    const uint8x8_t vuc128 = vdup_n_u8(128);
    uint8_t *pucDstY = pstPlanes->pucDstY + iY * iW + iX;
    const int32_t iDstC = ResampleGroupChromaRow(pstPlanes, iY) + (bPlanar ? iX >> 1 : iX);
    uint8_t *pucDstU = pstPlanes->pucDstU + iDstC;
    uint8_t *pucDstV = bPlanar ? pstPlanes->pucDstV + iDstC : NULL;   // semi-planar: not read

    for (int32_t g = 0; g < iCount; g++, pucDstY += RESAMPLE_GROUP_COLS) {
        int32x4_t viFx;
        int32x4_t viFy;
        const int32x4_t viX = ResampleClampIndex_neon(vld1q_f32(pstPos[g].afX), viInnerX, &viFx);
        const int32x4_t viY = ResampleClampIndex_neon(vld1q_f32(pstPos[g].afY), viInnerY, &viFy);
        const int32x4_t viOffset = vmlaq_s32(viX, viY, viW);
        int32_t aiOffset[4];
        vst1q_s32(aiOffset, viOffset);
        const int32_t bContiguous = (SpreadSum_neon(viOffset) == RESAMPLE_CONTIGUOUS_SUM) ? 1 : 0;

        // Row r of the group: A holds the left and B the right neighbour of every output column.
        uint8x8_t avucA[3];
        uint8x8_t avucB[3];
        if (bContiguous && aiOffset[0] <= iWideLast) {
            const uint8_t *pucRow = pucSrcY + aiOffset[0];
            for (int32_t r = 0; r < 3; r++, pucRow += iW) {
                RESAMPLE_CHECK_READ(pstSrc, s_pcSampler, pucRow, 9);
                avucA[r] = vld1_u8(pucRow);
                avucB[r] = vld1_u8(pucRow + 1);
            }
            __builtin_prefetch(pucRow + iW);
        } else if (bContiguous || bShortFrame) {
            // Through arrays of their own: rows and offsets whose address escapes would live in
            // memory on every path.
            uint8x8_t avucClampedA[3];
            uint8x8_t avucClampedB[3];
            int32_t aiClampedOffset[4];
            vst1q_s32(aiClampedOffset, viOffset);
            GatherRowsClamped(pstSrc, iW, aiClampedOffset, bContiguous, avucClampedA, avucClampedB);
            for (int32_t r = 0; r < 3; r++) {
                avucA[r] = avucClampedA[r];
                avucB[r] = avucClampedB[r];
            }
        } else {
            // The words' loads (eight bytes on arm64) stay in the block: a clamped offset is at
            // most W H - W - 2, so they end by W H + W + 5, and groups mean W >= 8.
            for (int32_t k = 0; k < 4; k++) {
                RESAMPLE_CHECK_READ(pstSrc, s_pcSampler, pucSrcY + aiOffset[k], 2 * iW + 8);
            }
            GatherRowWords(pucSrcY, iW, aiOffset, avucA, avucB);
        }

        // Each block's weights on both of its columns: (f0 f0 f1 f1 f2 f2 f3 f3); 0..127.
        const uint8x8_t vucFxFy = vmovn_u16(vcombine_u16(vqmovun_s32(viFx), vqmovun_s32(viFy)));
        const uint8x8x2_t vucW = vzip_u8(vucFxFy, vucFxFy);
        const uint8x8_t vucFx = vucW.val[0];
        const uint8x8_t vucGx = vsub_u8(vuc128, vucFx);
        const uint16x8_t vuFy = vmovl_u8(vucW.val[1]);
        const uint16x8_t vuGy = vsubl_u8(vuc128, vucW.val[1]);
        // Output row 0 blends source rows 0 and 1, output row 1 rows 1 and 2.
        const uint16x8_t vuH0 = LerpRow(avucA[0], avucB[0], vucGx, vucFx);
        const uint16x8_t vuH1 = LerpRow(avucA[1], avucB[1], vucGx, vucFx);
        const uint16x8_t vuH2 = LerpRow(avucA[2], avucB[2], vucGx, vucFx);
        vst1_u8(pucDstY, LerpColumn(vuH0, vuH1, vuGy, vuFy));
        vst1_u8(pucDstY + iW, LerpColumn(vuH1, vuH2, vuGy, vuFy));

        // Nearest chroma: halves rounded up, the row and then the start clamped into the plane.
        const int32x4_t viCx = vrshrq_n_s32(viX, 1);   // (x + 1) >> 1
        const int32x4_t viCy = vminq_s32(vrshrq_n_s32(viY, 1), viChromaRowLast);
        int32_t aiChroma[4];
        vst1q_s32(aiChroma, vminq_s32(vmlaq_s32(bPlanar ? viCx : vshlq_n_s32(viCx, 1), viCy, viPitchC), viChromaLast));
        if (bPlanar) {
            const int32_t bRun = bContiguous && aiChroma[0] + 3 <= iChromaLast;
            if (bContiguous && !bRun) {
                // A contiguous run that would pass the plane's end: byte by byte, clamped.
                for (int32_t k = 1; k < 4; k++) {
                    aiChroma[k] = ResampleMinS32(aiChroma[0] + k, iChromaLast);
                }
            }
            for (int32_t k = 0; k < (bRun ? 1 : 4); k++) {
                RESAMPLE_CHECK_READ(pstSrc, s_pcSampler, pucSrcU + aiChroma[k], bRun ? 4 : 1);
                RESAMPLE_CHECK_READ(pstSrc, s_pcSampler, pucSrcV + aiChroma[k], bRun ? 4 : 1);
            }
            __builtin_prefetch(pucSrcU + (iW >> 1) + aiChroma[0]);
            __builtin_prefetch(pucSrcV + (iW >> 1) + aiChroma[0]);
            uint32_t uU;
            uint32_t uV;
            if (bRun) {
                memcpy(&uU, pucSrcU + aiChroma[0], sizeof(uU));
                memcpy(&uV, pucSrcV + aiChroma[0], sizeof(uV));
            } else {
                uU = GatherBytes(pucSrcU, aiChroma);
                uV = GatherBytes(pucSrcV, aiChroma);
            }
            // Exactly four bytes per plane: the bytes behind the group are not touched.
            memcpy(pucDstU + 4 * g, &uU, sizeof(uU));
            memcpy(pucDstV + 4 * g, &uV, sizeof(uV));
        } else if (bContiguous && aiChroma[0] + 6 <= iChromaLast) {
            const uint8_t *pucRun = pucSrcU + aiChroma[0];
            RESAMPLE_CHECK_READ(pstSrc, s_pcSampler, pucRun, 8);
            vst1_u8(pucDstU + 8 * g, vld1_u8(pucRun));
            __builtin_prefetch(pucRun + iW);
        } else {
            if (bContiguous) {
                // A run that would pass the plane's end: its pairs one by one, clamped.
                for (int32_t k = 1; k < 4; k++) {
                    aiChroma[k] = ResampleMinS32(aiChroma[0] + 2 * k, iChromaLast);
                }
            }
            for (int32_t k = 0; k < 4; k++) {
                RESAMPLE_CHECK_READ(pstSrc, s_pcSampler, pucSrcU + aiChroma[k], 2);
            }
            // Lanes 2k and 2k + 1 take the pair at aiChroma[k]; the prefetch before the loads
            // shares block 0's address with its load (fewer armhf instructions than after them).
            const uint8_t *pucPair = pucSrcU + aiChroma[0];
            __builtin_prefetch(pucPair + iW);
            vst1_u8(pucDstU + 8 * g, CombinePairs(LoadPair(pucPair), LoadPair(pucSrcU + aiChroma[1]),
                                                  LoadPair(pucSrcU + aiChroma[2]), LoadPair(pucSrcU + aiChroma[3])));
        }
    }
}

void ResampleGroups_neon(const tagST_RESAMPLE_PLANES *pstPlanes, int32_t iY, int32_t iX,
                         const tagST_GROUP_POS *pstPos, int32_t iCount)
{
    if (pstPlanes->bPlanar) {
        SampleGroups<1>(pstPlanes, iY, iX, pstPos, iCount);
    } else {
        SampleGroups<0>(pstPlanes, iY, iX, pstPos, iCount);
    }
}

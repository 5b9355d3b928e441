#include "linedetect/downscale.h"
#include "linedetect/downscale_internal.h"
#include "platform/neon.h"

// Adds neighbouring lanes of a and of b: lanes 0..3 from a, 4..7 from b. vpaddq_u16 exists only on
// arm64, so the halves go through the 64-bit form.
static inline uint16x8_t PairAddU16(uint16x8_t a, uint16x8_t b)
{
    return vcombine_u16(vpadd_u16(vget_low_u16(a), vget_high_u16(a)),
                        vpadd_u16(vget_low_u16(b), vget_high_u16(b)));
}

// Column-pair sums of iRows rows of 16 bytes: each lane holds 2 x iRows samples (at most 4080).
static inline uint16x8_t SumColumnPairs(const uint8_t *pucSrc, int32_t iStride, int32_t iRows)
{
    uint16x8_t vSum = vpaddlq_u8(vld1q_u8(pucSrc));
    for (int32_t r = 1; r < iRows; r++) {
        vSum = vpadalq_u8(vSum, vld1q_u8(pucSrc + r * iStride));
    }
    return vSum;
}

void DownScaleData16_NEON(const uint8_t *pucSrc, int32_t iWidth, int32_t iHeight, uint8_t *pucDst)
{
    const int32_t iOutW = iWidth / 4;
    const int32_t iOutH = iHeight / 4;
    const int32_t iVecW = iOutW & ~7;   // eight outputs (32 source columns) per step
    for (int32_t y = 0; y < iOutH; y++) {
        const uint8_t *pucRow = pucSrc + (size_t)y * 4 * iWidth;
        uint8_t *pucOut = pucDst + (size_t)y * iOutW;
        for (int32_t x = 0; x < iVecW; x += 8) {
            const uint16x8_t vA = SumColumnPairs(pucRow + x * 4, iWidth, 4);
            const uint16x8_t vB = SumColumnPairs(pucRow + x * 4 + 16, iWidth, 4);
            // Block sums reach 4080; the rounding narrow adds 8 before the shift by 4.
            vst1_u8(pucOut + x, vrshrn_n_u16(PairAddU16(vA, vB), 4));
        }
    }
    DownScaleBlocks(pucSrc, iWidth, iHeight, 4, 4, iVecW, pucDst);
}

void DownScaleData64_NEON(const uint8_t *pucSrc, int32_t iWidth, int32_t iHeight, uint8_t *pucDst)
{
    const int32_t iOutW = iWidth / 8;
    const int32_t iOutH = iHeight / 8;
    const int32_t iVecW = iOutW & ~7;   // eight outputs (64 source columns) per step
    for (int32_t y = 0; y < iOutH; y++) {
        const uint8_t *pucRow = pucSrc + (size_t)y * 8 * iWidth;
        uint8_t *pucOut = pucDst + (size_t)y * iOutW;
        for (int32_t x = 0; x < iVecW; x += 8) {
            const uint8_t *pucBlk = pucRow + x * 8;
            const uint16x8_t vA = SumColumnPairs(pucBlk, iWidth, 8);
            const uint16x8_t vB = SumColumnPairs(pucBlk + 16, iWidth, 8);
            const uint16x8_t vC = SumColumnPairs(pucBlk + 32, iWidth, 8);
            const uint16x8_t vD = SumColumnPairs(pucBlk + 48, iWidth, 8);
            // 64 samples sum to at most 16320, still inside 16 bits; + 32, >> 6 in the narrow.
            const uint16x8_t vSum = PairAddU16(PairAddU16(vA, vB), PairAddU16(vC, vD));
            vst1_u8(pucOut + x, vrshrn_n_u16(vSum, 6));
        }
    }
    DownScaleBlocks(pucSrc, iWidth, iHeight, 8, 6, iVecW, pucDst);
}

void DownScaleData_NEON(const uint8_t *pucSrc, int32_t iFactor, int32_t iWidth, int32_t iHeight, uint8_t *pucDst)
{
    if (iFactor == 4) {
        DownScaleData16_NEON(pucSrc, iWidth, iHeight, pucDst);
    } else if (iFactor == 8) {
        DownScaleData64_NEON(pucSrc, iWidth, iHeight, pucDst);
    }
}

// Vector copy kernels of the border fill: 16-byte chunks for the runs beside the rectangle,
// 32-byte luma and 16-byte chroma chunks for the bottom band, bytes for the remainders.
#include "warp/fill_blank.h"

#include "platform/neon.h"

// Remainders in 2-byte steps (a chroma pair or two luma pixels), a last odd byte alone.
static inline void CopyRemainder(uint8_t *pucDst, const uint8_t *pucSrc, size_t uBytes)
{
    size_t i = 0;
    for (; i + 2 <= uBytes; i += 2) {
        pucDst[i] = pucSrc[i];
        pucDst[i + 1] = pucSrc[i + 1];
    }
    if (i < uBytes) {
        pucDst[i] = pucSrc[i];
    }
}

// The fill's regions are computed inside the destination's planes, so uCapacity is not needed.
static void CopyRun_neon(uint8_t *pucDst, size_t uCapacity, const uint8_t *pucSrc, size_t uBytes)
{
    (void)uCapacity;
    size_t i = 0;
    for (; i + 16 <= uBytes; i += 16) {
        vst1q_u8(pucDst + i, vld1q_u8(pucSrc + i));
    }
    CopyRemainder(pucDst + i, pucSrc + i, uBytes - i);
}

static void CopyLumaBand_neon(uint8_t *pucDst, size_t uCapacity, const uint8_t *pucSrc, size_t uBytes)
{
    size_t i = 0;
    for (; i + 32 <= uBytes; i += 32) {
        const uint8x16_t vA = vld1q_u8(pucSrc + i);
        const uint8x16_t vB = vld1q_u8(pucSrc + i + 16);
        vst1q_u8(pucDst + i, vA);
        vst1q_u8(pucDst + i + 16, vB);
    }
    CopyRun_neon(pucDst + i, uCapacity - i, pucSrc + i, uBytes - i);
}

static const tagST_FILL_COPIES g_stNeonCopies = {CopyRun_neon, CopyLumaBand_neon, CopyRun_neon};

int32_t FillBlank_neon_NV12(tagST_PIC *pstDst, tagST_PIC *pstSrc, int32_t iLeft, int32_t iTop, int32_t iRight,
                            int32_t iRows)
{
    FillBlankRegions(pstDst, pstSrc, iLeft, iTop, iRight, iRows, 0, &g_stNeonCopies);
    return 0;
}

int32_t FillBlank_neon_YUV420(tagST_PIC *pstDst, tagST_PIC *pstSrc, int32_t iLeft, int32_t iTop, int32_t iRight,
                              int32_t iRows)
{
    FillBlankRegions(pstDst, pstSrc, iLeft, iTop, iRight, iRows, 1, &g_stNeonCopies);
    return 0;
}

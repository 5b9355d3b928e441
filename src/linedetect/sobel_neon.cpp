#include "linedetect/sobel.h"
#include "linedetect/sobel_internal.h"
#include "platform/neon.h"

// 1 + 2 * centre + 1: the Sobel smoothing of three samples, in 16 bits (at most 1020).
static inline uint16x8_t Smooth3(uint8x8_t a, uint8x8_t b, uint8x8_t c)
{
    return vaddq_u16(vaddl_u8(a, c), vshll_n_u8(b, 1));
}

int32_t CalcSobel_NEON(const uint8_t *pucSrc, uint8_t *pucDst, int32_t iWidth, int32_t iHeight, int32_t iThresh)
{
    SobelClearBorder(pucDst, iWidth, iHeight);
    // The magnitude saturates to 8 bits before the compare, which is exact for thresholds up to
    // 255: anything above 255 is an edge either way.
    const uint8x8_t vThresh = vdup_n_u8((uint8_t)iThresh);
    // Eight outputs x .. x+7 read columns x-1 .. x+8, so the vector part stops where x+8 would
    // pass the last column.
    const int32_t iVecEnd = 1 + ((iWidth - 2 > 0 ? iWidth - 2 : 0) & ~7);
    for (int32_t y = 1; y < iHeight - 1; y++) {
        const uint8_t *pucUp = pucSrc + (intptr_t)(y - 1) * iWidth;
        const uint8_t *pucMid = pucUp + iWidth;
        const uint8_t *pucDown = pucMid + iWidth;
        uint8_t *pucOut = pucDst + (intptr_t)y * iWidth;
        int32_t x = 1;
        for (; x + 8 <= iVecEnd; x += 8) {
            const uint8x8_t vUl = vld1_u8(pucUp + x - 1), vU = vld1_u8(pucUp + x), vUr = vld1_u8(pucUp + x + 1);
            const uint8x8_t vMl = vld1_u8(pucMid + x - 1), vMr = vld1_u8(pucMid + x + 1);
            const uint8x8_t vDl = vld1_u8(pucDown + x - 1), vD = vld1_u8(pucDown + x), vDr = vld1_u8(pucDown + x + 1);
            const uint16x8_t vGx = vabdq_u16(Smooth3(vUr, vMr, vDr), Smooth3(vUl, vMl, vDl));
            const uint16x8_t vGy = vabdq_u16(Smooth3(vUl, vU, vUr), Smooth3(vDl, vD, vDr));
            const uint8x8_t vMag = vqmovn_u16(vaddq_u16(vGx, vGy));
            vst1_u8(pucOut + x, vcge_u8(vMag, vThresh));
        }
        SobelRowTail(pucSrc, pucDst, iWidth, y, x, iThresh);
    }
    return 0;
}

#include "linedetect/sobel.h"
#include "linedetect/sobel_internal.h"
#include "platform/neon.h"

// The eight samples of one half of a 16-byte load, widened to 16 bits.
struct Row16 {
    uint16x8_t vLow;
    uint16x8_t vHigh;
};

static inline Row16 Widen(const uint8_t *puc)
{
    const uint8x16_t v = vld1q_u8(puc);
    return Row16{vmovl_u8(vget_low_u8(v)), vmovl_u8(vget_high_u8(v))};
}

// a + 2 * b + c, the Sobel smoothing of three samples (at most 1020).
static inline uint16x8_t Smooth3(uint16x8_t a, uint16x8_t b, uint16x8_t c)
{
    return vaddq_u16(vaddq_u16(a, c), vshlq_n_u16(b, 1));
}

// |a - b| as the larger of the two saturating differences (one is 0); the same as vabdq_u16,
// and cheaper where the intrinsics are emulated.
static inline uint16x8_t AbsDiff(uint16x8_t a, uint16x8_t b)
{
    return vorrq_u16(vqsubq_u16(a, b), vqsubq_u16(b, a));
}

// |gx| + |gy| for eight pixels from their 3 x 3 neighbourhoods (rows u, m, d; columns l, c, r).
static inline uint16x8_t Magnitude(uint16x8_t vUl, uint16x8_t vU, uint16x8_t vUr, uint16x8_t vMl, uint16x8_t vMr,
                                   uint16x8_t vDl, uint16x8_t vD, uint16x8_t vDr)
{
    const uint16x8_t vGx = AbsDiff(Smooth3(vUr, vMr, vDr), Smooth3(vUl, vMl, vDl));
    const uint16x8_t vGy = AbsDiff(Smooth3(vUl, vU, vUr), Smooth3(vDl, vD, vDr));
    return vaddq_u16(vGx, vGy);
}

int32_t CalcSobel_NEON(const uint8_t *pucSrc, uint8_t *pucDst, int32_t iWidth, int32_t iHeight, int32_t iThresh)
{
    SobelClearBorder(pucDst, iWidth, iHeight);
    // The magnitude saturates to 8 bits before the compare, which is exact for thresholds up to
    // 255: anything above 255 is an edge either way.
    const uint8x16_t vThresh = vdupq_n_u8((uint8_t)iThresh);
    for (int32_t y = 1; y < iHeight - 1; y++) {
        const uint8_t *pucUp = pucSrc + (intptr_t)(y - 1) * iWidth;
        const uint8_t *pucMid = pucUp + iWidth;
        const uint8_t *pucDown = pucMid + iWidth;
        uint8_t *pucOut = pucDst + (intptr_t)y * iWidth;
        int32_t x = 1;
        // Sixteen outputs x .. x+15 read columns x-1 .. x+16, which must not pass column w-1.
        for (; x + 16 <= iWidth - 1; x += 16) {
            const Row16 ul = Widen(pucUp + x - 1), u = Widen(pucUp + x), ur = Widen(pucUp + x + 1);
            const Row16 ml = Widen(pucMid + x - 1), mr = Widen(pucMid + x + 1);
            const Row16 dl = Widen(pucDown + x - 1), d = Widen(pucDown + x), dr = Widen(pucDown + x + 1);
            const uint16x8_t vLow =
                Magnitude(ul.vLow, u.vLow, ur.vLow, ml.vLow, mr.vLow, dl.vLow, d.vLow, dr.vLow);
            const uint16x8_t vHigh =
                Magnitude(ul.vHigh, u.vHigh, ur.vHigh, ml.vHigh, mr.vHigh, dl.vHigh, d.vHigh, dr.vHigh);
            const uint8x16_t vMag = vcombine_u8(vqmovn_u16(vLow), vqmovn_u16(vHigh));
            vst1q_u8(pucOut + x, vcgeq_u8(vMag, vThresh));
        }
        SobelRowTail(pucSrc, pucDst, iWidth, y, x, iThresh);
    }
    return 0;
}

// Binary edge map of the downscaled luma: 3x3 Sobel, L1 magnitude |gx| + |gy|, one threshold.
#ifndef LDC_LINEDETECT_SOBEL_H
#define LDC_LINEDETECT_SOBEL_H

#include <stdint.h>

#include "vkt_zb_ldc.h"   // LDC_EXPORT

#ifdef __cplusplus
extern "C" {
#endif

// pucDst (iWidth x iHeight, same stride as the source) receives 255 where the magnitude is at
// least iThresh and 0 elsewhere; the outer rows and columns are always 0, and an image of fewer
// than three rows is all 0. Source and destination must not overlap. Returns 0.
LDC_EXPORT int32_t CalcSobel(const uint8_t *pucSrc, uint8_t *pucDst, int32_t iWidth, int32_t iHeight,
                             int32_t iThresh);
// Same bytes as CalcSobel for iThresh in 0..255: the vector version saturates the magnitude to
// 8 bits and compares it with the low byte of iThresh.
LDC_EXPORT int32_t CalcSobel_NEON(const uint8_t *pucSrc, uint8_t *pucDst, int32_t iWidth, int32_t iHeight,
                                  int32_t iThresh);

#ifdef __cplusplus
}
#endif

#endif

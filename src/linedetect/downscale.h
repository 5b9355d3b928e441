// Block-averaging reduction of a luma plane by 4 or 8 on each axis, the first stage of the line
// check. The plain routines define the bytes; the _NEON twins produce the same output.
#ifndef LDC_LINEDETECT_DOWNSCALE_H
#define LDC_LINEDETECT_DOWNSCALE_H

#include <stdint.h>

#include "vkt_zb_ldc.h"   // LDC_EXPORT

#ifdef __cplusplus
extern "C" {
#endif

// Output size is (iWidth / F) x (iHeight / F); columns and rows beyond the last whole block are
// ignored. Each output is the F x F block sum plus F*F/2, shifted right by log2(F*F) (rounded
// half up). Rows are written densely (stride iWidth / F). Source stride is iWidth.
// iFactor 4 or 8; any other factor writes nothing.
LDC_EXPORT void DownScaleData(const uint8_t *pucSrc, int32_t iFactor, int32_t iWidth, int32_t iHeight,
                              uint8_t *pucDst);
// Factor 4: 16 samples per output.
LDC_EXPORT void DownScaleData16(const uint8_t *pucSrc, int32_t iWidth, int32_t iHeight, uint8_t *pucDst);
// Factor 8: 64 samples per output.
LDC_EXPORT void DownScaleData64(const uint8_t *pucSrc, int32_t iWidth, int32_t iHeight, uint8_t *pucDst);

LDC_EXPORT void DownScaleData_NEON(const uint8_t *pucSrc, int32_t iFactor, int32_t iWidth, int32_t iHeight,
                                   uint8_t *pucDst);
LDC_EXPORT void DownScaleData16_NEON(const uint8_t *pucSrc, int32_t iWidth, int32_t iHeight, uint8_t *pucDst);
LDC_EXPORT void DownScaleData64_NEON(const uint8_t *pucSrc, int32_t iWidth, int32_t iHeight, uint8_t *pucDst);

#ifdef __cplusplus
}
#endif

#endif

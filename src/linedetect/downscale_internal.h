// Pieces of the block averaging shared by the plain routines and the vector tails.
#ifndef LDC_LINEDETECT_DOWNSCALE_INTERNAL_H
#define LDC_LINEDETECT_DOWNSCALE_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

// One output: the iFactor x iFactor block at pucSrc, (sum + half) >> iShift.
uint8_t DownScaleBlock(const uint8_t *pucSrc, int32_t iStride, int32_t iFactor, int32_t iShift);

// Outputs iFirstCol .. iWidth/iFactor - 1 of every output row, one block at a time.
void DownScaleBlocks(const uint8_t *pucSrc, int32_t iWidth, int32_t iHeight, int32_t iFactor, int32_t iShift,
                     int32_t iFirstCol, uint8_t *pucDst);

#endif

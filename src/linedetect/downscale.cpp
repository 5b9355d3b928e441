#include "linedetect/downscale.h"

#include "linedetect/downscale_internal.h"

uint8_t DownScaleBlock(const uint8_t *pucSrc, int32_t iStride, int32_t iFactor, int32_t iShift)
{
    uint32_t uSum = 0;
    for (int32_t r = 0; r < iFactor; r++) {
        for (int32_t c = 0; c < iFactor; c++) {
            uSum += pucSrc[r * iStride + c];
        }
    }
    // Half a block of rounding: the average is rounded half up and cannot exceed 255.
    return (uint8_t)((uSum + (1u << (iShift - 1))) >> iShift);
}

void DownScaleBlocks(const uint8_t *pucSrc, int32_t iWidth, int32_t iHeight, int32_t iFactor, int32_t iShift,
                     int32_t iFirstCol, uint8_t *pucDst)
{
    const int32_t iOutW = iWidth / iFactor;
    const int32_t iOutH = iHeight / iFactor;
    for (int32_t y = 0; y < iOutH; y++) {
        const uint8_t *pucRow = pucSrc + (size_t)y * iFactor * iWidth;
        for (int32_t x = iFirstCol; x < iOutW; x++) {
            pucDst[(size_t)y * iOutW + x] = DownScaleBlock(pucRow + x * iFactor, iWidth, iFactor, iShift);
        }
    }
}

void DownScaleData16(const uint8_t *pucSrc, int32_t iWidth, int32_t iHeight, uint8_t *pucDst)
{
    DownScaleBlocks(pucSrc, iWidth, iHeight, 4, 4, 0, pucDst);
}

void DownScaleData64(const uint8_t *pucSrc, int32_t iWidth, int32_t iHeight, uint8_t *pucDst)
{
    DownScaleBlocks(pucSrc, iWidth, iHeight, 8, 6, 0, pucDst);
}

void DownScaleData(const uint8_t *pucSrc, int32_t iFactor, int32_t iWidth, int32_t iHeight, uint8_t *pucDst)
{
    if (iFactor == 4) {
        DownScaleData16(pucSrc, iWidth, iHeight, pucDst);
    } else if (iFactor == 8) {
        DownScaleData64(pucSrc, iWidth, iHeight, pucDst);
    }
}

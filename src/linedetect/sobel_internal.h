// Per-pixel Sobel pieces shared by CalcSobel and the tails of CalcSobel_NEON.
#ifndef LDC_LINEDETECT_SOBEL_INTERNAL_H
#define LDC_LINEDETECT_SOBEL_INTERNAL_H

#include <stdint.h>

// L1 gradient magnitude |gx| + |gy| (0..2040) at interior pixel x of the row at pucRow.
static inline int32_t SobelMagnitude(const uint8_t *pucRow, int32_t iStride, int32_t x)
{
    const uint8_t *pucUp = pucRow - iStride;
    const uint8_t *pucDown = pucRow + iStride;
    const int32_t iGx = (2 * pucRow[x + 1] + pucUp[x + 1] + pucDown[x + 1]) -
                        (2 * pucRow[x - 1] + pucUp[x - 1] + pucDown[x - 1]);
    const int32_t iGy = (2 * pucUp[x] + pucUp[x - 1] + pucUp[x + 1]) -
                        (2 * pucDown[x] + pucDown[x - 1] + pucDown[x + 1]);
    return (iGx < 0 ? -iGx : iGx) + (iGy < 0 ? -iGy : iGy);
}

// Columns iFirstCol .. iWidth-2 of interior row y; a magnitude equal to the threshold is an edge.
static inline void SobelRowTail(const uint8_t *pucSrc, uint8_t *pucDst, int32_t iWidth, int32_t y,
                                int32_t iFirstCol, int32_t iThresh)
{
    const uint8_t *pucRow = pucSrc + (intptr_t)y * iWidth;
    uint8_t *pucOut = pucDst + (intptr_t)y * iWidth;
    for (int32_t x = iFirstCol; x < iWidth - 1; x++) {
        pucOut[x] = (SobelMagnitude(pucRow, iWidth, x) < iThresh) ? 0 : 255;
    }
}

// Zeroes the rows 0 and H-1 and the outer columns of every interior row, which never hold edges.
void SobelClearBorder(uint8_t *pucDst, int32_t iWidth, int32_t iHeight);

#endif

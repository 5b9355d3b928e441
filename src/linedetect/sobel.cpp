#include "linedetect/sobel.h"

#include "boundscheck/bounds_check.h"
#include "linedetect/sobel_internal.h"

void SobelClearBorder(uint8_t *pucDst, int32_t iWidth, int32_t iHeight)
{
    if (iWidth < 1 || iHeight < 1) {
        return;
    }
    (void)memset_s(pucDst, (size_t)iWidth, 0, (size_t)iWidth);
    (void)memset_s(pucDst + (size_t)(iHeight - 1) * iWidth, (size_t)iWidth, 0, (size_t)iWidth);
    for (int32_t y = 1; y < iHeight - 1; y++) {
        pucDst[(size_t)y * iWidth] = 0;
        pucDst[(size_t)y * iWidth + iWidth - 1] = 0;
    }
}

int32_t CalcSobel(const uint8_t *pucSrc, uint8_t *pucDst, int32_t iWidth, int32_t iHeight, int32_t iThresh)
{
    SobelClearBorder(pucDst, iWidth, iHeight);
    for (int32_t y = 1; y < iHeight - 1; y++) {
        SobelRowTail(pucSrc, pucDst, iWidth, y, 1, iThresh);
    }
    return 0;
}

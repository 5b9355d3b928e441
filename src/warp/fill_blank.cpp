// Regions of the border fill and its plain twins.
#include "warp/fill_blank.h"

#include "boundscheck/bounds_check.h"
#include "warp/affine_transform.h"

// One plane of the fill, in row pairs of the luma plane. iRowPair is 2 for luma (two rows per
// pair) and 1 for chroma; iLeft and iRight are plane columns.
typedef struct tagST_FILL_PLANE {
    uint8_t *pucDst;
    const uint8_t *pucSrc;
    int32_t iPitch;
    int32_t iRows;       // rows of the plane
    int32_t iRowPair;
} tagST_FILL_PLANE;

static void CopyRows(const tagST_FILL_PLANE *pstPlane, FillBlankCopy pfnCopy, int32_t iRow, int32_t iCol,
                     ptrdiff_t iBytes)
{
    const ptrdiff_t iAt = (ptrdiff_t)iRow * pstPlane->iPitch + iCol;
    const ptrdiff_t iCapacity = (ptrdiff_t)pstPlane->iRows * pstPlane->iPitch - iAt;
    if (iBytes > 0 && iCapacity > 0) {
        pfnCopy(pstPlane->pucDst + iAt, (size_t)iCapacity, pstPlane->pucSrc + iAt, (size_t)iBytes);
    }
}

// iTop, iRows in luma rows; iLeft, iRight in this plane's columns.
static void FillPlane(const tagST_FILL_PLANE *pstPlane, int32_t iLeft, int32_t iTop, int32_t iRight,
                      int32_t iRows, FillBlankCopy pfnRun, FillBlankCopy pfnBand)
{
    const int32_t iPairRows = pstPlane->iRowPair;
    const int32_t iFirst = (iTop >> 1) * iPairRows;        // first plane row of the rectangle
    const int32_t iPitch = pstPlane->iPitch;
    // Top band, whole rows.
    CopyRows(pstPlane, pfnRun, 0, 0, (ptrdiff_t)iFirst * iPitch);
    // First row pair: its left columns.
    for (int32_t r = 0; r < iPairRows; r++) {
        CopyRows(pstPlane, pfnRun, iFirst + r, 0, iLeft);
    }
    // Further row pairs but the last: from the right edge of a row through the left columns of
    // the next one, which lie behind it in memory.
    for (int32_t p = 0; p < (iRows >> 1) - 1; p++) {
        for (int32_t r = 0; r < iPairRows; r++) {
            CopyRows(pstPlane, pfnRun, iFirst + p * iPairRows + r, iRight, (ptrdiff_t)iPitch - iRight + iLeft);
        }
    }
    // Bottom band from the rectangle's last row pair on: it may overwrite that pair's inside.
    const int32_t iBottom = ((iTop + iRows - 2) >> 1) * iPairRows;
    CopyRows(pstPlane, pfnBand, iBottom, 0, (ptrdiff_t)(pstPlane->iRows - iBottom) * iPitch);
}

void FillBlankRegions(tagST_PIC *pstDst, tagST_PIC *pstSrc, int32_t iLeft, int32_t iTop, int32_t iRight,
                      int32_t iRows, int32_t bPlanar, const tagST_FILL_COPIES *pstCopies)
{
    const int32_t iWidth = pstDst->iWidth;
    const int32_t iHeight = pstDst->iHeight;
    const tagST_FILL_PLANE stLuma = {pstDst->pY, pstSrc->pY, iWidth, iHeight, 2};
    FillPlane(&stLuma, iLeft, iTop, iRight, iRows, pstCopies->pfnRun, pstCopies->pfnLumaBand);
    if (bPlanar) {
        const tagST_FILL_PLANE stU = {pstDst->pU, pstSrc->pU, iWidth >> 1, iHeight >> 1, 1};
        const tagST_FILL_PLANE stV = {pstDst->pV, pstSrc->pV, iWidth >> 1, iHeight >> 1, 1};
        FillPlane(&stU, iLeft >> 1, iTop, iRight >> 1, iRows, pstCopies->pfnRun, pstCopies->pfnChromaBand);
        FillPlane(&stV, iLeft >> 1, iTop, iRight >> 1, iRows, pstCopies->pfnRun, pstCopies->pfnChromaBand);
    } else {
        const tagST_FILL_PLANE stC = {AffineChromaPlane(pstDst), AffineChromaPlane(pstSrc), iWidth, iHeight >> 1, 1};
        FillPlane(&stC, iLeft, iTop, iRight, iRows, pstCopies->pfnRun, pstCopies->pfnChromaBand);
    }
}

static void CopyBounded(uint8_t *pucDst, size_t uCapacity, const uint8_t *pucSrc, size_t uBytes)
{
    (void)memcpy_s(pucDst, uCapacity, pucSrc, uBytes);
}

static const tagST_FILL_COPIES g_stPlainCopies = {CopyBounded, CopyBounded, CopyBounded};

int32_t FillBlank_NV12(tagST_PIC *pstDst, tagST_PIC *pstSrc, int32_t iLeft, int32_t iTop, int32_t iRight,
                       int32_t iRows)
{
    FillBlankRegions(pstDst, pstSrc, iLeft, iTop, iRight, iRows, 0, &g_stPlainCopies);
    return 0;
}

int32_t FillBlank_YUV420(tagST_PIC *pstDst, tagST_PIC *pstSrc, int32_t iLeft, int32_t iTop, int32_t iRight,
                         int32_t iRows)
{
    FillBlankRegions(pstDst, pstSrc, iLeft, iTop, iRight, iRows, 1, &g_stPlainCopies);
    return 0;
}

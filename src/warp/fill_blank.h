// Border fill after a warp over a reduced rectangle: every pixel around the kept rectangle is
// copied from the source picture at the same position (no constant value, no edge replication).
// The frame driver does not call these; they are exported for callers that warp a sub-rectangle.
#ifndef LDC_WARP_FILL_BLANK_H
#define LDC_WARP_FILL_BLANK_H

#include <stddef.h>
#include <stdint.h>

#include "records/ldc_para.h"

#ifdef __cplusplus
extern "C" {
#endif

// The kept rectangle is [iLeft, iRight) x [iTop, iTop + iRows) in destination pixels; all four
// values even. Both pictures have the destination's size; its iWidth is the pitch of both.
// The last row pair of the rectangle may be overwritten with source pixels as well.
// The result carries no meaning (0).
LDC_EXPORT int32_t FillBlank_neon_NV12(tagST_PIC *pstDst, tagST_PIC *pstSrc, int32_t iLeft, int32_t iTop,
                                       int32_t iRight, int32_t iRows);
LDC_EXPORT int32_t FillBlank_neon_YUV420(tagST_PIC *pstDst, tagST_PIC *pstSrc, int32_t iLeft, int32_t iTop,
                                         int32_t iRight, int32_t iRows);

#ifdef __cplusplus
}
#endif

// Plain twins (bounded copies per run); same bytes.
int32_t FillBlank_NV12(tagST_PIC *pstDst, tagST_PIC *pstSrc, int32_t iLeft, int32_t iTop, int32_t iRight,
                       int32_t iRows);
int32_t FillBlank_YUV420(tagST_PIC *pstDst, tagST_PIC *pstSrc, int32_t iLeft, int32_t iTop, int32_t iRight,
                         int32_t iRows);

// Copies uBytes from pucSrc to pucDst, which has room for uCapacity bytes.
typedef void (*FillBlankCopy)(uint8_t *pucDst, size_t uCapacity, const uint8_t *pucSrc, size_t uBytes);

typedef struct tagST_FILL_COPIES {
    FillBlankCopy pfnRun;          // top band and the short runs beside the rectangle
    FillBlankCopy pfnLumaBand;     // bottom band, luma
    FillBlankCopy pfnChromaBand;   // bottom band, chroma
} tagST_FILL_COPIES;

// The regions of the fill, shared by both twins; only the copy primitives differ.
void FillBlankRegions(tagST_PIC *pstDst, tagST_PIC *pstSrc, int32_t iLeft, int32_t iTop, int32_t iRight,
                      int32_t iRows, int32_t bPlanar, const tagST_FILL_COPIES *pstCopies);

#endif

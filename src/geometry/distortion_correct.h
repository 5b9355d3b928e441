// Distortion-correction remap: every output pixel inside the model's rectangle takes its value
// from the input frame at the position the radial model maps it to. The resampling core
// (resample/resample.h) does the work in 2 x 2 blocks, four blocks a group, on four pinned
// workers; the remap gives it the rectangle, the column table and the model's positions.
// Pixels outside the rectangle are not written.
//
// The plain position functions and driver define the bytes; the _neon twins must give the same
// on every target.
#ifndef LDC_GEOMETRY_DISTORTION_CORRECT_H
#define LDC_GEOMETRY_DISTORTION_CORRECT_H

#include <stddef.h>
#include <stdint.h>

#include "records/ldc_para.h"
#include "records/work_buffer.h"
#include "resample/resample.h"

// The column table starts the scratch behind the intermediate image (records/work_buffer.h):
// one float quadruple per eight output columns.
#define LDC_COLUMN_TABLE_OFFSET(iWidth, iHeight) LDC_WORK_SCRATCH_OFFSET(iWidth, iHeight)
#define LDC_COLUMN_TABLE_BYTES(iLeft, iRight) ((size_t)(((iRight) - (iLeft) + 8) & ~7) * 2)

#ifdef __cplusplus
extern "C" {
#endif

// Remaps the source frame into the destination on four pinned workers (the calling thread does
// the whole rectangle itself when they cannot be started). ppucSrc and ppucDst each point to
// three consecutive plane pointers: luma, first chroma, second chroma. iPlanar is non-zero for
// picture type 2 (U plane, V plane, each of pitch W >> 1) and 0 for the semi-planar types, whose
// first chroma pointer is the first byte of the interleaved plane and whose second is not read.
// iLDCEnable chooses the model and the rectangle: 1 the lens model and aiLDCArea, else the global
// face model and aiGlobalFDCArea. The size and the working buffer (column table) come from the
// instance. Returns 0.
LDC_EXPORT int32_t DistortionCorrect_neon(int32_t iPlanar, tagST_LDC_PARA *pstPara, uint8_t *const *ppucSrc,
                                          uint8_t *const *ppucDst);

#ifdef __cplusplus
}
#endif

// The same with the plain positions and sampler.
int32_t DistortionCorrect(int32_t iPlanar, tagST_LDC_PARA *pstPara, uint8_t *const *ppucSrc,
                          uint8_t *const *ppucDst);

// Source positions through the radial model (pStage: its tagST_RADIAL_MODEL), the remap's
// position functions for the resampling core. The groups evaluate f as
// (c1 r2 + (c2 r2^2 + c3 r2^3)) + 1, the tail left to right, 1 + c1 r2 + c2 r2^2 + c3 r2^3; the
// roundings differ and both orders are kept.
void DistortionMapGroups(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                         const uint8_t *pucColumns, tagST_GROUP_POS *pstPos);
void DistortionMapGroups_neon(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                              const uint8_t *pucColumns, tagST_GROUP_POS *pstPos);
void DistortionMapTail(const void *pStage, int32_t iY, int32_t iX, int32_t iBlocks, tagST_GROUP_POS *pstPos);

#endif

// Distortion-correction remap: every output pixel inside the model's rectangle takes its value
// from the input frame at the position the radial model maps it to. The mapping is evaluated once
// per 2 x 2 output block, four blocks (eight columns) at a time; luma is interpolated bilinearly
// with 7-bit weights, chroma is the nearest sample. Pixels outside the rectangle are not written.
//
// The plain worker bodies and InterpolateLumaBlock define the bytes; the _neon twins must give
// the same bytes on every target (tests/geometry/distortion_correct_test.cpp compares them).
#ifndef LDC_GEOMETRY_DISTORTION_CORRECT_H
#define LDC_GEOMETRY_DISTORTION_CORRECT_H

#include <stdint.h>

#include "geometry/distortion_correct_reads.h"
#include "geometry/lens_model.h"
#include "interface/ldc_para.h"
#include "platform/neon.h"
#include "resample/resample.h"

// The column table lies in the working buffer just past one frame's worth of bytes, where the
// intermediate image ends: one float quadruple per eight output columns.
#define LDC_COLUMN_TABLE_OFFSET(iWidth, iHeight) (((iWidth) * (iHeight) * 3) / 2)
#define LDC_COLUMN_TABLE_BYTES(iLeft, iRight) ((size_t)(((iRight) - (iLeft) + 8) & ~7) * 2)

// Work record handed read-only to every worker. Semi-planar: pucSrcU / pucDstU address the
// interleaved chroma plane (pitch W) and the V pointers are not read. Planar: U and V planes of
// pitch W >> 1.
typedef struct tagST_LDC_WORK {
    tagST_LDC_PARA *pstPara;
    uint8_t *pucSrcY;
    uint8_t *pucSrcU;
    uint8_t *pucSrcV;
    uint8_t *pucDstY;
    uint8_t *pucDstU;
    uint8_t *pucDstV;
} tagST_LDC_WORK;

// One worker's share of the rectangle, with the model it maps through.
typedef struct tagST_LDC_BAND {
    tagST_RADIAL_MODEL stModel;
    int32_t iLeft;
    int32_t iRight;
    int32_t iStart;    // first row (even)
    int32_t iRows;     // even, may be 0
    int32_t iGroups;   // whole groups of eight columns; the rest is the tail
    tagST_SRC_BLOCK stBlock;   // the source frame block every read stays in
    int32_t iInnerX;           // block positions are clamped to [0, iInnerX] x [0, iInnerY]
    int32_t iInnerY;
} tagST_LDC_BAND;

typedef void (*LdcDistortionBody)(const tagST_LDC_WORK *pstWork, int32_t iIndex, int32_t iCount);

#ifdef __cplusplus
extern "C" {
#endif

// Remaps the source frame into the destination on four pinned workers (the calling thread does
// the whole rectangle itself when they cannot be started). ppucSrc and ppucDst each point to
// three consecutive plane pointers: luma, first chroma, second chroma. iPlanar is non-zero for
// picture type 2 (U plane, V plane, each of pitch W >> 1) and 0 for the semi-planar types, whose
// first chroma pointer is the first byte of the interleaved plane and whose second is not read.
// The size, the model, the rectangle and the working buffer (column table) come from the
// instance. Returns 0.
LDC_EXPORT int32_t DistortionCorrect_neon(int32_t iPlanar, tagST_LDC_PARA *pstPara, uint8_t *const *ppucSrc,
                                          uint8_t *const *ppucDst);

#ifdef __cplusplus
}
#endif

// The same driver, threads and fallback around the plain worker bodies.
int32_t DistortionCorrect(int32_t iPlanar, tagST_LDC_PARA *pstPara, uint8_t *const *ppucSrc,
                          uint8_t *const *ppucDst);

// Thread entries of create_thread_lock: band index of the thread record out of four bands.
void *DistortionCorrectThread_NV12(void *pArg);
void *DistortionCorrectThread_YUV420(void *pArg);

// Worker bodies: correct band iIndex of iCount.
void DistortionCorrect_neon_NV12(const tagST_LDC_WORK *pstWork, int32_t iIndex, int32_t iCount);
void DistortionCorrect_neon_YUV420(const tagST_LDC_WORK *pstWork, int32_t iIndex, int32_t iCount);
void DistortionCorrect_NV12(const tagST_LDC_WORK *pstWork, int32_t iIndex, int32_t iCount);
void DistortionCorrect_YUV420(const tagST_LDC_WORK *pstWork, int32_t iIndex, int32_t iCount);

// Shared by both twins of a body: claims an affinity slot and pins the calling thread, then
// fills in the model, the source block of the layout, the rectangle's columns and the rows of
// band iIndex out of iCount.
void BeginDistortionBand(const tagST_LDC_WORK *pstWork, int32_t bPlanar, int32_t iIndex, int32_t iCount,
                         tagST_LDC_BAND *pstBand);
// The columns right of the last whole group, nearest sample, two at a time (scalar in both
// twins).
void DistortionCorrectTail_NV12(const tagST_LDC_WORK *pstWork, const tagST_LDC_BAND *pstBand);
void DistortionCorrectTail_YUV420(const tagST_LDC_WORK *pstWork, const tagST_LDC_BAND *pstBand);

// Sum of the distances of blocks 1..3 to block 0, each saturated to 16 bits: the vector bodies'
// contiguity test. In scalar registers, where the offsets already are for the loads: the
// narrowing and pairwise lane sums plus the moves back out cost more.
static inline int32_t LdcOffsetSpreadSum(const int32_t aiOffset[4])
{
    int32_t iSum = 0;
    for (int32_t k = 1; k < 4; k++) {
        const int32_t iDelta = aiOffset[k] - aiOffset[0];
        iSum += iDelta > INT16_MAX ? INT16_MAX : (iDelta < INT16_MIN ? INT16_MIN : iDelta);
    }
    return iSum;
}

// Bilinear 2 x 8 luma block: output columns 2k, 2k + 1 of rows 0 and 1 (pucDst, pucDst + iPitch)
// are sampled at offset o_k of the source block (plus the column / row) with fractions fx_k, fy_k
// in 1/128. Returns 1 when the offsets were taken as contiguous (only their sum is tested): the
// block is then read as three 9-byte rows from o0, or, where those would pass the block's end,
// gathered from o0 + 2k with clamped reads; else 0.
int32_t InterpolateLumaBlock_neon(uint8_t *pucDst, const tagST_SRC_BLOCK *pstBlock, int32_t iPitch,
                                  int32x4_t viOffset, uint16x4_t vuFx, uint16x4_t vuFy);
int32_t InterpolateLumaBlock(uint8_t *pucDst, const tagST_SRC_BLOCK *pstBlock, int32_t iPitch,
                             const int32_t aiOffset[4], const uint16_t auFx[4],
                             const uint16_t auFy[4]);

// Source positions through the radial model (pStage), the remap's position functions of the
// resampling core. The groups evaluate f as (c1 r2 + (c2 r2^2 + c3 r2^3)) + 1, the tail left to
// right, 1 + c1 r2 + c2 r2^2 + c3 r2^3; both orders are kept.
void DistortionMapGroups(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                         const uint8_t *pucColumns, tagST_GROUP_POS *pstPos);
void DistortionMapGroups_neon(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                              const uint8_t *pucColumns, tagST_GROUP_POS *pstPos);
void DistortionMapTail(const void *pStage, int32_t iY, int32_t iX, int32_t iBlocks, tagST_GROUP_POS *pstPos);

// The remap as it was before the resampling core, plain (bNeon 0) or vector bodies.
int32_t DistortionCorrectBefore(int32_t iPlanar, tagST_LDC_PARA *pstPara, uint8_t *const *ppucSrc,
                                uint8_t *const *ppucDst, int32_t bNeon);

#endif

// Projective warp of a whole YUV 4:2:0 frame through a 3 x 3 matrix over an output rectangle.
//
// The matrix maps an output pixel (x, y) to the source position
//   sx = (m0 x + m1 y + m2) / den,  sy = (m3 x + m4 y + m5) / den,  den = m6 x + m7 y + m8,
// evaluated once per 2 x 2 output block. Luma is bilinear with 7-bit weights, chroma the nearest
// sample. The caller guarantees an even rectangle; nothing is validated.
//
// Source positions are clamped into the source frame, per block and per axis
// (LdcClampIndex): a homography fitted to one face's corners is exact near the face but sends
// far output corners hundreds of pixels outside the source. The truncated position ix (NaN
// gives 0) is limited to [0, W - 2], and a position that this moves loses its fraction: below
// the frame it samples column 0, at or past the last column W - 1 column W - 2, so that the
// block's second column and its right neighbours still lie in the frame and out-of-frame output
// repeats the first or last two columns (rows likewise). Positions in [0, W - 1) x [0, H - 1),
// which include every position whose neighbours the block reads inside the frame, keep their
// exact bytes, as do those in (-1, 0) in the vector kernels (their fraction saturated to 0
// anyway). Chroma and the remaining reads follow the block rules of
// geometry/distortion_correct_reads.h, so that no read leaves the source frame (W, H >= 2).
//
// Layout of the family:
//   AffineTransform_neon*            four pinned workers over row bands (frame driver's entry)
//   AffineTransformBand_neon_*       vector worker bodies (affine_transform_neon.cpp)
//   AffineTransformBand_*            their plain twins, which define the bytes
//   AffineTransform, _NV12, _YUV420  single-threaded scalar companions with their own
//                                    reciprocal and clamping rules (exported, not used inside)
#ifndef LDC_WARP_AFFINE_TRANSFORM_H
#define LDC_WARP_AFFINE_TRANSFORM_H

#include <stdint.h>

#include "geometry/distortion_correct_reads.h"
#include "interface/ldc_para.h"
#include "resample/resample.h"

// Output rectangle; all four values must be even.
typedef struct tagST_REGISTRATION_AREA {
    int32_t iStartX;
    int32_t iStartY;
    int32_t iWidth;
    int32_t iHeight;
} tagST_REGISTRATION_AREA;

// Read-only argument of the four workers, built on the driver's stack.
typedef struct tagST_AFFINE_TASK {
    tagST_PIC *pstSrc;
    tagST_PIC *pstDst;
    int32_t iStartX;
    int32_t iStartY;
    int32_t iWidth;
    int32_t iHeight;
    float *pfMatrix;
    uint8_t *pucScratch;   // column table: float quadruples x0 + 8k + {0, 2, 4, 6}
    tagST_LDC_PARA *pstPara;
} tagST_AFFINE_TASK;

#define AFFINE_GROUP_COLS 8     // output columns per vector step: four 2 x 2 blocks
#define AFFINE_QUAD_BYTES 16    // one column-table entry, four floats
// Sum of the luma offset differences of four contiguous blocks: 2 + 4 + 6.
#define AFFINE_CONTIGUOUS_SUM 12

#ifdef __cplusplus
extern "C" {
#endif

// Frame driver's entry: the planar kernel for picture type 2, the semi-planar one otherwise.
// pstFrame is accepted and not read. pucScratch needs 16 x ceil(pstSrc->iWidth / 8) bytes.
// Always returns 0.
LDC_EXPORT int32_t AffineTransform_neon(tagST_LDC_PARA *pstPara, tagST_PIC *pstFrame, tagST_PIC *pstSrc,
                                        tagST_PIC *pstDst, float *pfMatrix,
                                        tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch);
LDC_EXPORT int32_t AffineTransform_neon_NV12(tagST_LDC_PARA *pstPara, tagST_PIC *pstFrame, tagST_PIC *pstSrc,
                                             tagST_PIC *pstDst, float *pfMatrix,
                                             tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch);
LDC_EXPORT int32_t AffineTransform_neon_YUV420(tagST_LDC_PARA *pstPara, tagST_PIC *pstFrame,
                                               tagST_PIC *pstSrc, tagST_PIC *pstDst, float *pfMatrix,
                                               tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch);

// Single-threaded scalar versions on the caller's thread; the pitch comes from pstGeometry and
// the scratch is not used. _NV12 holds one exact reciprocal per 8 columns; _YUV420 divides per
// block and limits ix to [x0, area width - 1] and iy to [y0, area height - 1].
LDC_EXPORT int32_t AffineTransform_NV12(tagST_PIC *pstGeometry, tagST_PIC *pstSrc, tagST_PIC *pstDst,
                                        float *pfMatrix, tagST_REGISTRATION_AREA *pstArea,
                                        uint8_t *pucScratch);
LDC_EXPORT int32_t AffineTransform_YUV420(tagST_PIC *pstGeometry, tagST_PIC *pstSrc, tagST_PIC *pstDst,
                                          float *pfMatrix, tagST_REGISTRATION_AREA *pstArea,
                                          uint8_t *pucScratch);
// Picture type 2 goes to AffineTransform_YUV420, every other value to AffineTransform_NV12.
LDC_EXPORT int32_t AffineTransform(tagST_PIC *pstGeometry, tagST_PIC *pstSrc, tagST_PIC *pstDst,
                                   float *pfMatrix, tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch,
                                   int32_t iPicType);

#ifdef __cplusplus
}
#endif

// Worker bodies: pin the calling thread, then warp band iIndex of iCount (main pass over groups
// of 8 columns, then the nearest-sample tail). The vector bodies and their plain twins produce
// the same bytes on every target.
int32_t AffineTransformBand_neon_NV12(const tagST_AFFINE_TASK *pstTask, int32_t iIndex, int32_t iCount);
int32_t AffineTransformBand_neon_YUV420(const tagST_AFFINE_TASK *pstTask, int32_t iIndex, int32_t iCount);
int32_t AffineTransformBand_NV12(const tagST_AFFINE_TASK *pstTask, int32_t iIndex, int32_t iCount);
int32_t AffineTransformBand_YUV420(const tagST_AFFINE_TASK *pstTask, int32_t iIndex, int32_t iCount);

// Pieces shared by the vector bodies and their twins (affine_transform.cpp).

// Column table of the vector passes: ceil(iPicWidth / 8) quadruples x0 + 8k + {0, 2, 4, 6},
// written bytewise (the table may start at any byte of the working buffer).
void AffineFillColumnTable(uint8_t *pucScratch, int32_t iStartX, int32_t iPicWidth);
// Claims the first free affinity slot of the first iCount and pins the thread to its core.
void AffineClaimCore(tagST_LDC_PARA *pstPara, int32_t iCount);
// Rows [*piRowStart, *piRowEnd) of band iIndex: even shares, the last band takes the rest.
void AffineBandRows(const tagST_AFFINE_TASK *pstTask, int32_t iIndex, int32_t iCount, int32_t *piRowStart,
                    int32_t *piRowEnd);
// Start of the interleaved chroma plane: the lower of pU and pV (NV21 stores V first). Used by the
// border fill; the warp kernels take pU as that start for both semi-planar types, as the frame
// driver passes it.
uint8_t *AffineChromaPlane(const tagST_PIC *pstPic);

// Largest block column and row of the source: W - 2 and H - 2 (0 for a side below 2).
typedef struct tagST_AFFINE_LIMITS {
    int32_t iInnerX;
    int32_t iInnerY;
} tagST_AFFINE_LIMITS;

tagST_AFFINE_LIMITS AffineSourceLimits(const tagST_PIC *pstSrc);
// The source frame block of pstSrc (size and planes as the kernels address them).
tagST_SRC_BLOCK AffineSourceBlock(const tagST_PIC *pstSrc, int32_t bPlanar);

// Nearest-sample pass over the columns right of the last whole group, one exact reciprocal per
// row pair (the tail is treated as affine within a row).
void AffineTail_NV12(const tagST_AFFINE_TASK *pstTask, int32_t iRowStart, int32_t iRowEnd);
void AffineTail_YUV420(const tagST_AFFINE_TASK *pstTask, int32_t iRowStart, int32_t iRowEnd);

// Source positions through the matrix (pStage), the warp's position functions of the resampling
// core. The groups divide by the reciprocal estimate with two refinement steps, their
// denominators carried along the row by 8 m6 per group; the tail holds one exact reciprocal per
// row pair.
void AffineMapGroups(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                     const uint8_t *pucColumns, tagST_GROUP_POS *pstPos);
void AffineMapGroups_neon(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                          const uint8_t *pucColumns, tagST_GROUP_POS *pstPos);
void AffineMapTail(const void *pStage, int32_t iY, int32_t iX, int32_t iBlocks, tagST_GROUP_POS *pstPos);

// The warp as it was before the resampling core (vector bodies).
int32_t AffineTransformBefore(tagST_LDC_PARA *pstPara, tagST_PIC *pstSrc, tagST_PIC *pstDst, float *pfMatrix,
                              tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch, int32_t bPlanar);
// The warp over four pinned workers on the resampling core, with plain (bNeon 0) or vector
// positions and sampler: AffineTransform_neon and its fixed-layout twins, and their plain twin.
int32_t AffineTransformBands(tagST_LDC_PARA *pstPara, tagST_PIC *pstSrc, tagST_PIC *pstDst, float *pfMatrix,
                              tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch, int32_t bPlanar, int32_t bNeon);

#endif

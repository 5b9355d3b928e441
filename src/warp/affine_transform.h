// Projective warp of a whole YUV 4:2:0 frame through a 3 x 3 matrix over an output rectangle.
//
// The matrix maps an output pixel (x, y) to the source position
//   sx = (m0 x + m1 y + m2) / den,  sy = (m3 x + m4 y + m5) / den,  den = m6 x + m7 y + m8,
// evaluated once per 2 x 2 output block. The resampling core (resample/resample.h) samples the
// blocks on four pinned workers: bilinear luma with 7-bit weights, the nearest chroma, every
// position clamped into the source frame (a homography fitted to one face's corners is exact
// near the face but sends far output corners hundreds of pixels outside the source; those blocks
// repeat the edge samples). The warp gives the core the matrix's positions. The caller
// guarantees an even rectangle; nothing is validated.
//
// Layout of the family:
//   AffineTransform_neon*            the frame driver's entry: four pinned workers
//   AffineMapGroups(_neon)           the groups' positions, with the reciprocal estimate
//   AffineMapTail                    the tail's positions, one division per row pair
//   AffineTransform, _NV12, _YUV420  single-threaded scalar companions with their own
//                                    reciprocal and clamping rules (exported, not used inside)
#ifndef LDC_WARP_AFFINE_TRANSFORM_H
#define LDC_WARP_AFFINE_TRANSFORM_H

#include <stdint.h>

#include "records/ldc_para.h"
#include "resample/resample.h"

// Output rectangle; all four values must be even.
typedef struct tagST_REGISTRATION_AREA {
    int32_t iStartX;
    int32_t iStartY;
    int32_t iWidth;
    int32_t iHeight;
} tagST_REGISTRATION_AREA;

#ifdef __cplusplus
extern "C" {
#endif

// Frame driver's entry: the planar kernel for picture type 2, the semi-planar one otherwise.
// pstFrame is accepted and not read. pucScratch needs 16 x ceil(pstSrc->iWidth / 8) bytes: it
// receives the column table. Always returns 0.
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

// The warp over four pinned workers with the plain (bNeon 0) or vector positions and sampler:
// AffineTransform_neon and its fixed-layout twins are the vector form; the plain one defines the
// bytes.
int32_t AffineTransformBands(tagST_LDC_PARA *pstPara, tagST_PIC *pstSrc, tagST_PIC *pstDst, float *pfMatrix,
                             tagST_REGISTRATION_AREA *pstArea, uint8_t *pucScratch, int32_t bPlanar, int32_t bNeon);

// Source positions through the matrix (pStage: its nine floats), the warp's position functions for
// the resampling core. The groups divide by the reciprocal estimate with two refinement steps,
// their denominators carried along the row by 8 m6 per group; the tail takes one true division
// per row pair.
void AffineMapGroups(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                     const uint8_t *pucColumns, tagST_GROUP_POS *pstPos);
void AffineMapGroups_neon(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                          const uint8_t *pucColumns, tagST_GROUP_POS *pstPos);
void AffineMapTail(const void *pStage, int32_t iY, int32_t iX, int32_t iBlocks, tagST_GROUP_POS *pstPos);

// The groups (and the scalar companions, which share their arithmetic) add a position's row terms
// first: den = m6 x + (m7 y + m8), sx = m0 x + (m1 y + m2), sy = m3 x + (m4 y + m5). The other
// order changes the last bit of some positions and with it a weight, one or two levels.
typedef struct tagST_AFFINE_ROW {
    float fDen;
    float fSx;
    float fSy;
} tagST_AFFINE_ROW;

static inline tagST_AFFINE_ROW AffineRowTerms(const float *pfM, float fY)
{
    const tagST_AFFINE_ROW stRow = {pfM[7] * fY + pfM[8], pfM[1] * fY + pfM[2], pfM[4] * fY + pfM[5]};
    return stRow;
}

// Start of the interleaved chroma plane: the lower of pU and pV (NV21 stores V first). Used by the
// border fill; the warp takes pU as that start for both semi-planar types, as the frame driver
// passes it.
uint8_t *AffineChromaPlane(const tagST_PIC *pstPic);

#endif

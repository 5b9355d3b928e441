// 3 x 3 matrix algebra and the homography fit behind the face correction. Matrices are 9 floats,
// row-major, applied to column vectors (x, y, 1): (x, y) maps to
// ((h0 x + h1 y + h2) / w, (h3 x + h4 y + h5) / w) with w = h6 x + h7 y + h8.
#ifndef LDC_GEOMETRY_HOMOGRAPHY_H
#define LDC_GEOMETRY_HOMOGRAPHY_H

#include <stdint.h>

#include "vkt_zb_ldc.h"   // LDC_EXPORT

#define LDC_HOMOGRAPHY_SCRATCH_BYTES 148   // four 3 x 3 float matrices after rounding up to 4

typedef struct tag_VECTOR {
    int32_t x;
    int32_t y;
} tag_VECTOR;

// The fitted matrix maps pstSrc[i] onto pstDst[i], i < iNum.
typedef struct tagST_POINT_PAIRS {
    tag_VECTOR *pstSrc;
    tag_VECTOR *pstDst;
    int32_t iNum;
} tagST_POINT_PAIRS;

#ifdef __cplusplus
extern "C" {
#endif

// Normalised direct linear fit. pucScratch needs LDC_HOMOGRAPHY_SCRATCH_BYTES bytes (its address
// is rounded up to a multiple of 4). Always returns 0: with fewer than one pair, or with all
// source or all destination points on one vertical or horizontal line, pfH is not fitted and is
// only divided by its own ninth element.
LDC_EXPORT int32_t HomographyEstimation(const tagST_POINT_PAIRS *pstPairs, float *pfH,
                                        uint8_t *pucScratch);
// Same behaviour as HomographyEstimation, kept as a separate entry for the embedding application.
LDC_EXPORT int32_t RefineHomography(const tagST_POINT_PAIRS *pstPairs, float *pfH,
                                    uint8_t *pucScratch);

// C = A x B; C may be A or B. Returns the status of the final bounded copy (0).
LDC_EXPORT int32_t MtrxAB3(const float *pfA, const float *pfB, float *pfC);
// R = inverse of A; R may be A. A singular A gives non-finite elements (no check is made).
LDC_EXPORT int32_t MtrxInvA3(const float *pfA, float *pfR);

// Maps iNum points through H, truncates toward zero and clamps x to [0, iMaxX], y to [0, iMaxY].
LDC_EXPORT void MatrixAffine(int32_t iNum, const float *pfH, int32_t iMaxX, int32_t iMaxY,
                             const tag_VECTOR *pstIn, tag_VECTOR *pstOut);

// pstIn: corners top-left, top-right, bottom-left, bottom-right of a rectangle. pstOut: the same
// corners of the largest axis-aligned rectangle inside both it and the inner bounds of the
// corners mapped through H. Returns 0 (the value carries no information).
LDC_EXPORT int32_t GetValidArea(const float *pfH, const tag_VECTOR *pstIn, tag_VECTOR *pstOut);

#ifdef __cplusplus
}

// Internal to the fit, visible to its tests: Jacobi eigen-decomposition of the symmetric 9 x 9
// matrix afM, in place. afM ends (near) diagonal with the eigenvalues; column j of afV holds the
// eigenvector of afM[j][j].
void JacobiEigen(float afM[9][9], float afV[9][9]);
#endif

#endif

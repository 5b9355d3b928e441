// Homography fit and 3 x 3 matrix helpers. Everything is single precision except the two hypot
// calls of each Jacobi rotation, which take and return double; their results are rounded to
// float before any further arithmetic, so the fit's bytes depend only on float operations and
// the platform's hypot.
#include "geometry/homography.h"

#include <math.h>

#include "boundscheck/bounds_check.h"
#include "platform/neon.h"

namespace {

const int32_t kDlt = 9;                            // unknowns of the direct linear system
const int32_t kMaxRotations = 30 * kDlt * kDlt;    // 2430: enough sweeps for any 9 x 9 input
const float kFltEpsilon = 1.1920929e-7f;           // smallest spread and off-diagonal that count
const uint32_t kMatrixBytes = 9 * sizeof(float);

float AbsF(float f)
{
    return f < 0.0f ? -f : f;
}

int32_t ClampS32(int32_t iValue, int32_t iLow, int32_t iHigh)
{
    return iValue < iLow ? iLow : (iValue > iHigh ? iHigh : iValue);
}

int32_t MaxS32(int32_t a, int32_t b)
{
    return a > b ? a : b;
}

int32_t MinS32(int32_t a, int32_t b)
{
    return a < b ? a : b;
}

// Divides all nine elements by the ninth; the divisor is read once so the ninth becomes 1.
void NormaliseByNinth(const float *pfIn, float *pfOut)
{
    const float fW = pfIn[8];
    for (int32_t i = 0; i < 9; i++) {
        pfOut[i] = pfIn[i] / fW;
    }
}

// Rotates indices k and l of the vectors v[i * iStride] (i = 0..8) by (c, s):
// v_k' = c v_k + s v_l, v_l' = c v_l - s v_k. With a unit stride it rotates a row pair, with
// stride 9 a column pair.
void RotatePair(float *pfK, float *pfL, int32_t iStride, float fC, float fS)
{
    for (int32_t i = 0; i < kDlt; i++) {
        const float fK = pfK[i * iStride];
        const float fL = pfL[i * iStride];
        pfK[i * iStride] = fC * fK + fS * fL;
        pfL[i * iStride] = fC * fL - fS * fK;
    }
}

// Fills afVector with the eigenvector of the smallest eigenvalue: the eigenvalues (diagonal of
// afM) are sorted in descending order by selection (the first of equal values is selected),
// their vectors swapped along, and the last column is taken.
void SmallestEigenvector(float afM[kDlt][kDlt], float afV[kDlt][kDlt], float *pfVector)
{
    float afValue[kDlt];
    for (int32_t i = 0; i < kDlt; i++) {
        afValue[i] = afM[i][i];
    }
    for (int32_t i = 0; i < kDlt - 1; i++) {
        int32_t iBest = i;
        for (int32_t j = i + 1; j < kDlt; j++) {
            if (afValue[j] > afValue[iBest]) {
                iBest = j;
            }
        }
        if (iBest != i) {
            const float fValue = afValue[i];
            afValue[i] = afValue[iBest];
            afValue[iBest] = fValue;
            for (int32_t r = 0; r < kDlt; r++) {
                const float fV = afV[r][i];
                afV[r][i] = afV[r][iBest];
                afV[r][iBest] = fV;
            }
        }
    }
    for (int32_t r = 0; r < kDlt; r++) {
        pfVector[r] = afV[r][kDlt - 1];
    }
}

// Mean and scale of one coordinate of n points: scale = n / sum |c - mean|. Returns 0 when the
// spread is too small to normalise (all points on one line parallel to an axis).
int32_t AxisNormalisation(const tag_VECTOR *pstPoints, int32_t iNum, int32_t bY, float *pfMean,
                          float *pfScale)
{
    float fSum = 0.0f;
    for (int32_t i = 0; i < iNum; i++) {
        fSum += (float)(bY ? pstPoints[i].y : pstPoints[i].x);
    }
    const float fMean = fSum / (float)iNum;
    float fSpread = 0.0f;
    for (int32_t i = 0; i < iNum; i++) {
        fSpread += AbsF((float)(bY ? pstPoints[i].y : pstPoints[i].x) - fMean);
    }
    if (AbsF(fSpread) < kFltEpsilon) {
        return 0;
    }
    *pfMean = fMean;
    *pfScale = (float)iNum / fSpread;
    return 1;
}

// Adds the outer product L^T L to the normal matrix.
void AddOuterProduct(float afM[kDlt][kDlt], const float *pfL)
{
    for (int32_t i = 0; i < kDlt; i++) {
        for (int32_t j = 0; j < kDlt; j++) {
            afM[i][j] += pfL[i] * pfL[j];
        }
    }
}

// The normalised direct linear fit; leaves pfH untouched when the points cannot be normalised.
void FitHomography(const tagST_POINT_PAIRS *pstPairs, float *pfH, uint8_t *pucScratch)
{
    const int32_t iNum = pstPairs->iNum;
    if (iNum < 1) {
        return;
    }
    float fCSx = 0.0f, fCSy = 0.0f, fCDx = 0.0f, fCDy = 0.0f;
    float fSSx = 0.0f, fSSy = 0.0f, fSDx = 0.0f, fSDy = 0.0f;
    // Separate scales per axis (not one isotropic factor): the fit is conditioned on each axis.
    if (!AxisNormalisation(pstPairs->pstSrc, iNum, 0, &fCSx, &fSSx) ||
        !AxisNormalisation(pstPairs->pstSrc, iNum, 1, &fCSy, &fSSy) ||
        !AxisNormalisation(pstPairs->pstDst, iNum, 0, &fCDx, &fSDx) ||
        !AxisNormalisation(pstPairs->pstDst, iNum, 1, &fCDy, &fSDy)) {
        return;
    }

    float afM[kDlt][kDlt];
    for (int32_t i = 0; i < kDlt; i++) {
        for (int32_t j = 0; j < kDlt; j++) {
            afM[i][j] = 0.0f;
        }
    }
    for (int32_t i = 0; i < iNum; i++) {
        const float fX = ((float)pstPairs->pstSrc[i].x - fCSx) * fSSx;
        const float fY = ((float)pstPairs->pstSrc[i].y - fCSy) * fSSy;
        const float fU = ((float)pstPairs->pstDst[i].x - fCDx) * fSDx;
        const float fV = ((float)pstPairs->pstDst[i].y - fCDy) * fSDy;
        const float afLx[kDlt] = {fX, fY, 1.0f, 0.0f, 0.0f, 0.0f, -fU * fX, -fU * fY, -fU};
        const float afLy[kDlt] = {0.0f, 0.0f, 0.0f, fX, fY, 1.0f, -fV * fX, -fV * fY, -fV};
        AddOuterProduct(afM, afLx);
        AddOuterProduct(afM, afLy);
    }

    float afV[kDlt][kDlt];
    JacobiEigen(afM, afV);

    // Four matrices in the caller's scratch: S, Dinv, H0 and the product.
    float *pfS = (float *)(((uintptr_t)pucScratch + 3u) & ~(uintptr_t)3u);
    float *pfDinv = pfS + 9;
    float *pfH0 = pfS + 18;
    float *pfProduct = pfS + 27;
    SmallestEigenvector(afM, afV, pfH0);
    const float afS[9] = {fSSx, 0.0f, -fCSx * fSSx, 0.0f, fSSy, -fCSy * fSSy, 0.0f, 0.0f, 1.0f};
    const float afDinv[9] = {1.0f / fSDx, 0.0f, fCDx, 0.0f, 1.0f / fSDy, fCDy, 0.0f, 0.0f, 1.0f};
    (void)memcpy_s(pfS, kMatrixBytes, afS, kMatrixBytes);
    (void)memcpy_s(pfDinv, kMatrixBytes, afDinv, kMatrixBytes);
    // H = (Dinv x H0) x S.
    (void)MtrxAB3(pfDinv, pfH0, pfProduct);
    (void)MtrxAB3(pfProduct, pfS, pfProduct);
    NormaliseByNinth(pfProduct, pfH);
}

}  // namespace

// Cyclic-by-largest Jacobi on the symmetric matrix afM: afM ends (near) diagonal with the
// eigenvalues, the columns of afV hold the eigenvectors. The largest off-diagonal element is
// searched in the upper triangle row by row (k ascending, then l ascending) and the first of
// equal magnitudes wins, so ties always pick the same element.
void JacobiEigen(float afM[9][9], float afV[9][9])
{
    for (int32_t i = 0; i < kDlt; i++) {
        for (int32_t j = 0; j < kDlt; j++) {
            afV[i][j] = (i == j) ? 1.0f : 0.0f;
        }
    }
    for (int32_t iRot = 0; iRot < kMaxRotations; iRot++) {
        int32_t k = 0;
        int32_t l = 1;
        float fMax = AbsF(afM[0][1]);
        for (int32_t i = 0; i < kDlt - 1; i++) {
            for (int32_t j = i + 1; j < kDlt; j++) {
                if (AbsF(afM[i][j]) > fMax) {
                    fMax = AbsF(afM[i][j]);
                    k = i;
                    l = j;
                }
            }
        }
        if (fMax <= kFltEpsilon) {
            break;
        }
        // The angle with tan(2 theta) = a_kl / p, taken in (-45, 45] degrees:
        // tan(theta) = sign(p) a_kl / t with t = |p| + hypot(a_kl, p).
        const float fAkl = afM[k][l];
        const float fP = (afM[k][k] - afM[l][l]) * 0.5f;
        const float fT = AbsF(fP) + (float)hypot((double)fAkl, (double)fP);
        const float fR = (float)hypot((double)fAkl, (double)fT);
        const float fC = fT / fR;
        const float fS = (fP < 0.0f) ? -(fAkl / fR) : (fAkl / fR);
        // M' = J^T M J with J the identity except J_kk = J_ll = c, J_lk = s, J_kl = -s: columns
        // first, then rows. The off-block elements stay exactly symmetric; the zeroed pair is
        // set to 0 instead of keeping its rounding residue.
        RotatePair(&afM[0][k], &afM[0][l], kDlt, fC, fS);
        RotatePair(&afM[k][0], &afM[l][0], 1, fC, fS);
        afM[k][l] = 0.0f;
        afM[l][k] = 0.0f;
        RotatePair(&afV[0][k], &afV[0][l], kDlt, fC, fS);
    }
}

extern "C" {

int32_t HomographyEstimation(const tagST_POINT_PAIRS *pstPairs, float *pfH, uint8_t *pucScratch)
{
    FitHomography(pstPairs, pfH, pucScratch);
    // A second division, also when the fit returned early: the caller's own matrix is then
    // divided by its ninth element and the status still says 0 (the driver only logs it).
    NormaliseByNinth(pfH, pfH);
    return 0;
}

int32_t RefineHomography(const tagST_POINT_PAIRS *pstPairs, float *pfH, uint8_t *pucScratch)
{
    return HomographyEstimation(pstPairs, pfH, pucScratch);
}

int32_t MtrxAB3(const float *pfA, const float *pfB, float *pfC)
{
    float afC[9];
    for (int32_t i = 0; i < 3; i++) {
        for (int32_t j = 0; j < 3; j++) {
            afC[i * 3 + j] = pfA[i * 3] * pfB[j] + pfA[i * 3 + 1] * pfB[3 + j] +
                             pfA[i * 3 + 2] * pfB[6 + j];
        }
    }
    // Computed in a local first, so C may be A or B.
    return memcpy_s(pfC, kMatrixBytes, afC, kMatrixBytes);
}

int32_t MtrxInvA3(const float *pfA, float *pfR)
{
    const float a0 = pfA[0], a1 = pfA[1], a2 = pfA[2];
    const float a3 = pfA[3], a4 = pfA[4], a5 = pfA[5];
    const float a6 = pfA[6], a7 = pfA[7], a8 = pfA[8];
    const float fDet = a0 * a4 * a8 + a1 * a5 * a6 + a2 * a3 * a7 - a2 * a4 * a6 - a0 * a5 * a7 -
                       a1 * a3 * a8;
    // R = adj(A) / det, with no guard: a singular A is the caller's concern.
    const float afR[9] = {
        (a4 * a8 - a5 * a7) / fDet, (a2 * a7 - a1 * a8) / fDet, (a1 * a5 - a2 * a4) / fDet,
        (a5 * a6 - a3 * a8) / fDet, (a0 * a8 - a2 * a6) / fDet, (a2 * a3 - a0 * a5) / fDet,
        (a3 * a7 - a4 * a6) / fDet, (a1 * a6 - a0 * a7) / fDet, (a0 * a4 - a1 * a3) / fDet,
    };
    return memcpy_s(pfR, kMatrixBytes, afR, kMatrixBytes);
}

void MatrixAffine(int32_t iNum, const float *pfH, int32_t iMaxX, int32_t iMaxY,
                  const tag_VECTOR *pstIn, tag_VECTOR *pstOut)
{
    for (int32_t i = 0; i < iNum; i++) {
        const float fX = (float)pstIn[i].x;
        const float fY = (float)pstIn[i].y;
        const float fW = 1.0f / (pfH[6] * fX + pfH[7] * fY + pfH[8]);
        // A point at w = 0 gives a non-finite value; the ARM conversion rule keeps it defined.
        const int32_t iX = TruncF32ToS32((pfH[0] * fX + pfH[1] * fY + pfH[2]) * fW);
        const int32_t iY = TruncF32ToS32((pfH[3] * fX + pfH[4] * fY + pfH[5]) * fW);
        pstOut[i].x = ClampS32(iX, 0, iMaxX);
        pstOut[i].y = ClampS32(iY, 0, iMaxY);
    }
}

int32_t GetValidArea(const float *pfH, const tag_VECTOR *pstIn, tag_VECTOR *pstOut)
{
    // Corners in order top-left, top-right, bottom-left, bottom-right; mapped ones clamped to
    // one pixel beyond the bottom-right input corner.
    tag_VECTOR astMapped[4];
    MatrixAffine(4, pfH, pstIn[3].x + 1, pstIn[3].y + 1, pstIn, astMapped);
    const int32_t iLeft = MaxS32(pstIn[0].x, MaxS32(astMapped[0].x, astMapped[2].x));
    const int32_t iTop = MaxS32(pstIn[0].y, MaxS32(astMapped[0].y, astMapped[1].y));
    const int32_t iRight = MinS32(pstIn[3].x, MinS32(astMapped[1].x, astMapped[3].x));
    const int32_t iBottom = MinS32(pstIn[3].y, MinS32(astMapped[2].y, astMapped[3].y));
    pstOut[0].x = iLeft;
    pstOut[0].y = iTop;
    pstOut[1].x = iRight;
    pstOut[1].y = iTop;
    pstOut[2].x = iLeft;
    pstOut[2].y = iBottom;
    pstOut[3].x = iRight;
    pstOut[3].y = iBottom;
    return 0;
}

}  // extern "C"

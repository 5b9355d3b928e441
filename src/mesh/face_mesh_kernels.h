// The face mesh solve's inner loops over a level's planes (a margin of two rows and columns around
// the grid). The plain versions are inline here so that the vector twins in face_mesh_neon.cpp run
// their last few vertices through them without calling back into the solve.
#ifndef LDC_MESH_FACE_MESH_KERNELS_H
#define LDC_MESH_FACE_MESH_KERNELS_H

#include <stddef.h>
#include <stdint.h>

// The _neon twins give the same floats on every target: they run across vertices and keep
// each vertex's operations in order (32-bit NEON flushes denormal intermediates to zero where the
// plain code keeps them; the solve's values stay far above them).
// y = A x over vertices [iBegin, iEnd) of both components: apfStencil holds the centre, E, EE, S,
// SS, SE and SW coupling planes, iC the grid's columns.
void FaceMeshStencil_neon(const float *const *apfStencil, const float *pfX0, const float *pfX1, float *pfY0,
                          float *pfY1, int32_t iC, int32_t iBegin, int32_t iEnd);
// A damped Jacobi step z += (omega D^-1) (r - t), or z = (omega D^-1) r when pfT is NULL.
void FaceMeshJacobi_neon(const float *pfDiagInv, const float *pfR, const float *pfT, float *pfZ, float fOmega,
                         int32_t iBegin, int32_t iEnd);
// y = a + s b (y may be a or b; s = -1 or -alpha give a - b and a - alpha b exactly).
void FaceMeshAxpy_neon(float *pfY, const float *pfA, float fScale, const float *pfB, int32_t iBegin, int32_t iEnd);

// The 13-point stencil, both components in one pass (they share it): y = C x + the couplings to
// the two neighbours each way along the row, the column and the diagonals (each coupling stored
// once, at its first vertex).
static inline void FaceMeshStencil(const float *const *apfStencil, const float *__restrict pfX0,
                                   const float *__restrict pfX1, float *__restrict pfY0, float *__restrict pfY1,
                                   int32_t iC, int32_t iBegin, int32_t iEnd)
{
    const float *__restrict pfC = apfStencil[0], *__restrict pfE = apfStencil[1], *__restrict pfEE = apfStencil[2];
    const float *__restrict pfS = apfStencil[3], *__restrict pfSS = apfStencil[4], *__restrict pfSE = apfStencil[5];
    const float *__restrict pfSW = apfStencil[6];
    for (int32_t i = iBegin; i < iEnd; i++) {
        const float fC = pfC[i], fE = pfE[i], fW = pfE[i - 1], fEE = pfEE[i], fWW = pfEE[i - 2];
        const float fS = pfS[i], fN = pfS[i - iC], fSS = pfSS[i], fNN = pfSS[i - 2 * iC];
        const float fSE = pfSE[i], fNW = pfSE[i - iC - 1], fSW = pfSW[i], fNE = pfSW[i - iC + 1];
        pfY0[i] = fC * pfX0[i] + (fE * pfX0[i + 1] + fW * pfX0[i - 1]) + (fEE * pfX0[i + 2] + fWW * pfX0[i - 2]) +
                  (fS * pfX0[i + iC] + fN * pfX0[i - iC]) + (fSS * pfX0[i + 2 * iC] + fNN * pfX0[i - 2 * iC]) +
                  (fSE * pfX0[i + iC + 1] + fNW * pfX0[i - iC - 1]) + (fSW * pfX0[i + iC - 1] + fNE * pfX0[i - iC + 1]);
        pfY1[i] = fC * pfX1[i] + (fE * pfX1[i + 1] + fW * pfX1[i - 1]) + (fEE * pfX1[i + 2] + fWW * pfX1[i - 2]) +
                  (fS * pfX1[i + iC] + fN * pfX1[i - iC]) + (fSS * pfX1[i + 2 * iC] + fNN * pfX1[i - 2 * iC]) +
                  (fSE * pfX1[i + iC + 1] + fNW * pfX1[i - iC - 1]) + (fSW * pfX1[i + iC - 1] + fNE * pfX1[i - iC + 1]);
    }
}

static inline void FaceMeshJacobi(const float *__restrict pfDiagInv, const float *__restrict pfR,
                                  const float *__restrict pfT, float *__restrict pfZ, float fOmega, int32_t iBegin,
                                  int32_t iEnd)
{
    if (pfT == NULL) {
        for (int32_t i = iBegin; i < iEnd; i++) {
            pfZ[i] = fOmega * pfDiagInv[i] * pfR[i];
        }
        return;
    }
    for (int32_t i = iBegin; i < iEnd; i++) {
        pfZ[i] += fOmega * pfDiagInv[i] * (pfR[i] - pfT[i]);
    }
}

static inline void FaceMeshAxpy(float *pfY, const float *pfA, float fScale, const float *pfB, int32_t iBegin,
                                int32_t iEnd)
{
    for (int32_t i = iBegin; i < iEnd; i++) {
        pfY[i] = pfA[i] + fScale * pfB[i];
    }
}

#endif  // LDC_MESH_FACE_MESH_KERNELS_H

// The face mesh: a map from output pixels to lens-corrected (perspective) positions that makes
// faces conformal and leaves the rest of the frame in perspective. The renderer takes each output
// 2 x 2 block's source position as the lens model applied to the block's position plus the mesh
// displacement there (FaceMeshDisplacement); a zero mesh is lens correction alone.
//
// The mesh holds one displacement (dx, dy) per vertex of a regular grid over the output frame (by
// default a cell per 40 pixels of the longer side, 64 to 128 cells: 100 at 4000 x 3000, 64 at a
// preview, whose faces then still span a few cells), row-major and interleaved. It is
// the least-squares solution of
//   faces:       each widened face's region follows a similarity of its stereographic image that
//                keeps a size between the face's tangential and radial ones and takes its radial
//                stretch out, scaled by the strength; the face is placed so that the room it
//                frees is shared by the gaps to the frame's edge on both sides;
//   background:  from a face radius beyond each face the displacement is pulled to zero
//                (perspective, straight lines);
//   smoothness:  neighbouring vertices bend alike, except inside faces, and stiffly beyond a face
//                radius and a half around each face (the background's lines stay straight, what
//                a face changes spreads wide and flat);
//   lines:       along each given straight segment, fading out toward the faces, the
//                displacement across the segment stays affine, so the segment stays straight;
//   folds:       where a cell would shrink below a floor of its area, it is held at the floor;
// with the frame's edge held in place across it (free to slide along it), so that the output
// keeps the lens-only field of view. All
// weights are measured in the smallest face's radius, so the balance is the same at every frame
// and grid size. The normal equations are solved by conjugate gradients preconditioned with a
// multigrid V-cycle, from a warm start or from the cascade of coarser grids, single-threaded in a
// fixed order: equal inputs give equal floats on every target. A solution that still folds is
// solved again at a lower strength.
#ifndef LDC_MESH_FACE_MESH_H
#define LDC_MESH_FACE_MESH_H

#include <stdint.h>

#include "geometry/lens_model.h"
#include "linedetect/hough.h"   // stLine
#include "platform/neon.h"      // TruncF32ToS32

#define LDC_MESH_OK 0
#define LDC_MESH_ERR_ARGS (-1)      // missing pointers, bad size, or a work area too small
#define LDC_MESH_ERR_NUMERIC (-2)   // the solve left non-finite values; the mesh is zeroed
#define LDC_MESH_ERR_FOLD (-3)      // even the weakest correction tried folds the map; the mesh is zeroed

#define LDC_MESH_MAX_SEGMENTS 64    // straight segments used by the line term at most (the longest)

typedef struct tagST_MESH_GRID {
    int32_t iCols;     // vertices per row; the first column lies on x = 0, the last on x = width - 1
    int32_t iRows;     // vertex rows, likewise from y = 0 to y = height - 1
    float fStepX;      // output pixels between neighbouring vertices
    float fStepY;
    float fInvStepX;
    float fInvStepY;
} tagST_MESH_GRID;

typedef struct tagST_MESH_INPUT {
    int32_t iWidth;
    int32_t iHeight;
    float fFocal;                     // fx of the camera matrix, in pixels
    tagST_RADIAL_MODEL stLens;        // lens model: principal point and c1..c3
    int32_t iFaceNum;
    const int32_t (*paiFaces)[4];     // widened faces in recorded pixels: left, top, right, bottom
    const float *pfFaceStrength;      // per face 0..1, a fade that scales fStrength, or NULL for 1
    float fStrength;                  // 0 leaves faces as they are, 1 makes them conformal
    int32_t iLineNum;
    const stLine *pstLines;           // straight segments in recorded pixels, or NULL
    const float *pfWarmStart;         // a mesh of the same grid to start from (may be the output), or NULL
    int32_t iCells;                   // cells along the longer side, or 0 for the default
} tagST_MESH_INPUT;

typedef struct tagST_MESH_STATS {
    int32_t iIterations;         // conjugate-gradient iterations on the mesh's grid, all rounds
    int32_t iCoarseIterations;   // on the grid of half the cells that gives a cold start its start
    int32_t iRounds;             // solves; more than one when the map folded at a higher strength
    int32_t iFoldRounds;         // extra solves of the fold guard in the last round
    float fStrength;             // the strength of the mesh returned
    float fResidual;             // final residual relative to the right-hand side
} tagST_MESH_STATS;

// The grid of a frame size with iCells cells along the longer side (0: the default).
void FaceMeshGrid(int32_t iWidth, int32_t iHeight, int32_t iCells, tagST_MESH_GRID *pstGrid);

// Bytes of the mesh (two floats per vertex) and of the solver's work area for a frame size.
uint32_t FaceMeshBytes(int32_t iWidth, int32_t iHeight, int32_t iCells);
uint32_t FaceMeshWorkBytes(int32_t iWidth, int32_t iHeight, int32_t iCells);

// Solves the mesh into pfMesh (FaceMeshBytes) using pucWork (FaceMeshWorkBytes, 8-byte aligned).
// Without faces of any weight (none, all degenerate or outside, or strength 0) the mesh is
// exactly zero. A map that folds is solved again at a lower strength, a few times at most and
// within one budget of iterations for all rounds, so the time is bounded whatever the faces.
// Returns LDC_MESH_OK or a negative code; after a failure the mesh is zero, so a caller that
// renders it anyway gets lens correction alone.
int32_t FaceMeshSolve(const tagST_MESH_INPUT *pstIn, float *pfMesh, uint8_t *pucWork, uint32_t uWorkBytes,
                      tagST_MESH_STATS *pstStats);

// The mesh shown moves toward the mesh solved by at most fMaxStep pixels at any vertex: by the
// whole difference when it is that small, else by the share of it that moves the farthest vertex
// fMaxStep (a scene cut converges over a few frames without a jump). Returns the largest step.
float FaceMeshFollow(const tagST_MESH_GRID *pstGrid, const float *pfSolved, float *pfShown, float fMaxStep);

// The largest step FaceMeshFollow should take for a frame: a share of its longer side.
float FaceMeshStepBound(int32_t iWidth, int32_t iHeight);

// Displacement at the output position (fX, fY), bilinear over its cell; positions beyond the
// frame take the nearest cell's extension.
static inline void FaceMeshDisplacement(const tagST_MESH_GRID *pstGrid, const float *pfMesh, float fX, float fY,
                                        float *pfDx, float *pfDy)
{
    const float fU = fX * pstGrid->fInvStepX;
    const float fV = fY * pstGrid->fInvStepY;
    int32_t iI = TruncF32ToS32(fU);
    int32_t iJ = TruncF32ToS32(fV);
    iI = iI < 0 ? 0 : (iI > pstGrid->iCols - 2 ? pstGrid->iCols - 2 : iI);
    iJ = iJ < 0 ? 0 : (iJ > pstGrid->iRows - 2 ? pstGrid->iRows - 2 : iJ);
    const float fA = fU - (float)iI;
    const float fB = fV - (float)iJ;
    const float *pf00 = pfMesh + 2 * (iJ * pstGrid->iCols + iI);
    const float *pf10 = pf00 + 2 * pstGrid->iCols;
    *pfDx = (pf00[0] + fA * (pf00[2] - pf00[0])) + fB * ((pf10[0] + fA * (pf10[2] - pf10[0])) -
                                                         (pf00[0] + fA * (pf00[2] - pf00[0])));
    *pfDy = (pf00[1] + fA * (pf00[3] - pf00[1])) + fB * ((pf10[1] + fA * (pf10[3] - pf10[1])) -
                                                         (pf00[1] + fA * (pf00[3] - pf00[1])));
}

#endif

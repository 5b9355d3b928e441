#include "mesh/face_mesh.h"
#include "mesh/face_mesh_kernels.h"

#include <math.h>
#include <string.h>
#include <stdlib.h>

#include "vkt_zb_ldc.h"   // LDC_MAX_FACES, LDC_MAX_IMAGE_SIZE

#define LDC_MESH_CELL_PIXELS 40      // by default a cell spans about this many pixels of the longer side ...
#define LDC_MESH_DEFAULT_MIN_CELLS 64   // ... but a preview keeps this many cells: what matters is how
                                        // many cells a face spans (at 640 x 480, 32 cells left the
                                        // border face at 0.95 instead of 0.98 round at 120 degrees) ...
#define LDC_MESH_DEFAULT_MAX_CELLS 128  // ... and the largest frames no more (bounds the solve's time)
#define LDC_MESH_MIN_CELLS 4         // the coarsest level of the cascade has at least this many (its
                                     // solve by conjugate gradients then takes few iterations of few vertices)
#define LDC_MESH_MAX_CELLS 256
#define LDC_MESH_MAX_LEVELS 6
#define LDC_MESH_MAX_ITERATIONS 100  // per conjugate-gradient solve on the finest grid
#define LDC_MESH_ITERATION_BUDGET 80   // on the finest grid over all rounds: bounds the time whatever
                                       // the input (a still scene takes 10 to 30)
#define LDC_MESH_START_ITERATIONS 20   // per coarser grid of a cold start's cascade
#define LDC_MESH_TOLERANCE 3e-4      // relative residual at which a solve stops (the pictures and steps of 1e-4 to
                                     // within 0.01 px, in two iterations fewer)
#define LDC_MESH_START_TOLERANCE 1e-2     // the coarser grids only give the finest its start
#define LDC_MESH_COARSEST_TOLERANCE 1e-3  // the V-cycle's solve on its coarsest grid
#define LDC_MESH_LENS_STEPS 12       // Newton steps of the inverse lens model
#define LDC_MESH_LINE_SAMPLES 64     // line-term samples along a segment as long as the frame's longer
                                     // side, at most one a cell: finer grids then cost no more for them
#define LDC_MESH_SCAN_SEGMENTS 1024  // segments looked at for the line term, the longest taken first
#define LDC_MESH_MAX_SAMPLES 16384   // line-term samples over all levels
#define LDC_MESH_FIT_STEPS 12        // bisection steps of a crowded face's strength
#define LDC_MESH_MAX_FOLD_TERMS 4096 // cell corners the fold guard holds at most
#define LDC_MESH_FOLD_UNKNOWNS 6     // a corner's area involves three vertices
#define LDC_MESH_FOLD_ROUNDS 6       // solves, the strength shrinking each time, before giving up
#define LDC_MESH_FOLD_SHRINK 0.75f
#define LDC_MESH_STENCIL 7           // coefficient planes of the symmetric 13-point stencil

// The energy's weights, measured in the length of the smallest face's radius, so that the balance
// is the same at every frame and grid size.
static const float kFaceWeight = 512.0f;       // a face's pull toward its map: it wins inside the face
static const float kBackgroundWeight = 5.0f;   // the pull toward perspective away from the faces:
                                               // keeps the lines there straight
static const float kFaceInner = 0.8f;          // the pull is full up to this elliptic distance ...
static const float kFaceBand = 0.2f;           // ... and gone this much farther out
static const float kBackgroundStart = 1.0f;    // the background's pull starts at the face's outline ...
static const float kBackgroundBand = 1.5f;     // ... and is full this much farther out
static const float kBendWeight = 2.0f;         // bending near the faces: how far a face's change spreads
static const float kBendFar = 20.0f;           // bending away from them: the background's lines bend
                                               // less, and what a face changes spreads wider and flatter
static const float kBendFarStart = 1.5f;       // the stiffer bending starts this far out (elliptic
static const float kBendFarBand = 1.0f;        // distance) and is full this much farther
static const float kLineWeight = 200.0f;       // a straight segment's pull toward staying straight ...
static const float kLineFadeStart = 1.5f;      // ... nothing within this elliptic distance of a face ...
static const float kLineFadeBand = 1.5f;       // ... and full this much farther out: segments beside a
                                               // face leave its surroundings to it (a border face stays
                                               // round, 0.986 instead of 0.93 at 120 degrees)
static const float kSizeMix = 0.5f;            // size kept: 0 tangential, 1 radial (no face shrinks
                                               // or grows much, and both gaps stretch alike)
static const float kEdgeRelease = 0.25f;       // a face lets go within this share of its radius of
                                               // where its map leaves the frame
static const float kFoldWeight = 16.0f;        // the fold guard's pull toward the floor
static const float kFoldFloor = 0.3f;          // area ratio the guard holds a corner at ...
static const float kFoldMargin = 0.05f;        // ... once it comes within this of it (hysteresis)
static const float kFoldSettle = 0.05f;        // a round of the guard ends within this below the floor
static const int32_t kFoldGuardRounds = 4;     // solves of the fold guard at most
static const int32_t kSweeps = 4;              // Jacobi sweeps before and after each coarse correction
static const float kOmega = 1.5f;              // their damping (below 2: the l1 diagonal keeps them stable)

static const float kFitTolerance = 0.15f;      // how far (share of the radius) a corrected face may
                                               // reach beyond the frame past its widened box
static const float kMaxStereo = 0.81f;         // (r_s / 2f)^2 beyond which a face's map is cut off
static const float kMinAreaRatio = 0.1f;       // a cell may show at most ten times its area
static const float kStepShare = 0.01f;         // the shown mesh moves 1 % of the longer side a frame at most


// One face, in lens-corrected pixels.
typedef struct tagST_MESH_FACE {
    float fStereoCx;  // stereographic image of the face's centre
    float fStereoCy;
    float fScale;     // similarity scale
    float fOx;        // where the face's centre goes in the output
    float fOy;
    float afShape[4]; // inverse of the corrected face's shape: |afShape (p - O)| = 1 on its outline
    float fRadius;    // the face's smaller half extent
    float fStrength;  // 0..1: how far toward the face map
} tagST_MESH_FACE;

// What the placement of a face needs at a strength: the upright face (w, h), u, sec(theta),
// the size kept (1: tangential, sec: radial), the face's centre c, how far its centre moves
// per unit of strength along u, and the bounds its corrected box must keep.
typedef struct tagST_MESH_FACE_FIT {
    float fW;
    float fH;
    float fUx;
    float fUy;
    float fSec;
    float fKeep;
    float fCx;
    float fCy;
    float fMovePerStrength;
    float afBound[4];   // left, top, right, bottom
} tagST_MESH_FACE_FIT;

// A segment offered to the line term: its length in recorded pixels and its place in the input.
typedef struct tagST_MESH_SEGMENT_ORDER {
    float fLength;
    int32_t iIndex;
} tagST_MESH_SEGMENT_ORDER;

// A straight segment of the line term: its samples' displacement across it should stay an
// affine function of the position along it (the segment stays straight, across faces too).
typedef struct tagST_MESH_LINE {
    int32_t iFirst;    // its first sample
    int32_t iCount;
    float fNx;         // unit normal
    float fNy;
    float fMeanT;      // weighted mean and spread of the samples' positions along it
    float fSpreadT;    // sum of w (t - mean)^2
    float fWeightSum;  // sum of the samples' weights
} tagST_MESH_LINE;

typedef struct tagST_MESH_SAMPLE {
    int32_t iVertex;   // first vertex of the cell it lies in
    float afW[4];      // bilinear weights of the cell's corners (x, x + 1, x + cols, x + cols + 1)
    float fT;          // position along the segment
    float fWeight;     // 0..1: the term fades toward the faces
    float fAcross;     // scratch: the displacement across the segment
} tagST_MESH_SAMPLE;

// One corner term of the fold guard: coefficients over the unknowns, the right-hand side.
typedef struct tagST_MESH_FOLD_TERM {
    int32_t aiIndex[LDC_MESH_FOLD_UNKNOWNS];
    float afCoef[LDC_MESH_FOLD_UNKNOWNS];
    float fRhs;
} tagST_MESH_FOLD_TERM;

// One level of the cascade. Vectors are two planes (x, then y displacements), each with a margin
// of zeros around the grid so that the stencil reads two rows and columns beyond any vertex
// without a test; the stencil's coefficients are planes of the same shape.
typedef struct tagST_MESH_LEVEL {
    tagST_MESH_GRID stGrid;
    int32_t iVertices;
    int32_t iMargin;   // zeros before a plane's first vertex and after its last
    int32_t iPlane;    // floats of a plane: vertices and both margins
    float *apfStencil[LDC_MESH_STENCIL];   // centre, E, EE, S, SS, SE, SW couplings of each vertex
    float *pfRhsBase;  // the data terms' share
    float *pfRhs;      // with the fold terms
    float *pfDiagInv;
    float *pfX;
    float *pfR;
    float *pfZ;
    float *pfP;
    float *pfQ;
    tagST_MESH_LINE *pstLines;
    int32_t iLines;
    float fLineWeight;   // per sample
    tagST_MESH_FOLD_TERM *pstFolds;
    int32_t iFolds;
    // Where each column and row of this level lies on the next coarser level's grid: the cell's
    // first column (row) and the fraction, for the transfers between the levels.
    int32_t *piColCell;
    float *pfColFrac;
    int32_t *piRowCell;
    float *pfRowFrac;
} tagST_MESH_LEVEL;

#define LDC_MESH_VECTORS 8   // two-plane vectors of a level: rhs base, rhs, diagonal, x, r, z, p, q

// A grid of about iCellsLong cells along the longer side, as square as whole counts allow.
static void GridOfCells(int32_t iWidth, int32_t iHeight, int32_t iCellsLong, tagST_MESH_GRID *pstGrid)
{
    const int32_t iLong = iWidth > iHeight ? iWidth : iHeight;
    const float fStep = (float)(iLong - 1) / (float)iCellsLong;
    int32_t iCellsX = TruncF32ToS32((float)(iWidth - 1) / fStep + 0.5f);
    int32_t iCellsY = TruncF32ToS32((float)(iHeight - 1) / fStep + 0.5f);
    iCellsX = iCellsX < 2 ? 2 : iCellsX;
    iCellsY = iCellsY < 2 ? 2 : iCellsY;
    pstGrid->iCols = iCellsX + 1;
    pstGrid->iRows = iCellsY + 1;
    pstGrid->fStepX = iWidth > 1 ? (float)(iWidth - 1) / (float)iCellsX : 1.0f;
    pstGrid->fStepY = iHeight > 1 ? (float)(iHeight - 1) / (float)iCellsY : 1.0f;
    pstGrid->fInvStepX = 1.0f / pstGrid->fStepX;
    pstGrid->fInvStepY = 1.0f / pstGrid->fStepY;
}

static int32_t CellsOf(int32_t iWidth, int32_t iHeight, int32_t iCells)
{
    if (iCells <= 0) {
        const int32_t iLong = iWidth > iHeight ? iWidth : iHeight;
        iCells = (iLong + LDC_MESH_CELL_PIXELS / 2) / LDC_MESH_CELL_PIXELS;
        iCells = iCells < LDC_MESH_DEFAULT_MIN_CELLS ? LDC_MESH_DEFAULT_MIN_CELLS
                                                     : (iCells > LDC_MESH_DEFAULT_MAX_CELLS ? LDC_MESH_DEFAULT_MAX_CELLS : iCells);
    }
    return iCells < LDC_MESH_MIN_CELLS ? LDC_MESH_MIN_CELLS : (iCells > LDC_MESH_MAX_CELLS ? LDC_MESH_MAX_CELLS : iCells);
}

// Cells along the longer side of each level of the cascade, finest first; returns the count.
static int32_t LevelCells(int32_t iWidth, int32_t iHeight, int32_t iCells, int32_t *piCells)
{
    int32_t iLevels = 0;
    int32_t iC = CellsOf(iWidth, iHeight, iCells);
    piCells[iLevels++] = iC;
    while (iLevels < LDC_MESH_MAX_LEVELS && (iC + 1) / 2 >= LDC_MESH_MIN_CELLS) {
        iC = (iC + 1) / 2;
        piCells[iLevels++] = iC;
    }
    return iLevels;
}

void FaceMeshGrid(int32_t iWidth, int32_t iHeight, int32_t iCells, tagST_MESH_GRID *pstGrid)
{
    GridOfCells(iWidth, iHeight, CellsOf(iWidth, iHeight, iCells), pstGrid);
}

static int32_t VertexCount(const tagST_MESH_GRID *pstGrid)
{
    return pstGrid->iCols * pstGrid->iRows;
}

uint32_t FaceMeshBytes(int32_t iWidth, int32_t iHeight, int32_t iCells)
{
    tagST_MESH_GRID stGrid;
    FaceMeshGrid(iWidth, iHeight, iCells, &stGrid);
    return (uint32_t)VertexCount(&stGrid) * 2u * (uint32_t)sizeof(float);
}

// Floats of one level's arrays.
static uint32_t LevelFloats(const tagST_MESH_GRID *pstGrid)
{
    const uint32_t uPlane = (uint32_t)VertexCount(pstGrid) + 2u * (2u * (uint32_t)pstGrid->iCols + 2u);
    return uPlane * (LDC_MESH_STENCIL + 2u * LDC_MESH_VECTORS) + 2u * (uint32_t)(pstGrid->iCols + pstGrid->iRows);
}

uint32_t FaceMeshWorkBytes(int32_t iWidth, int32_t iHeight, int32_t iCells)
{
    int32_t aiCells[LDC_MESH_MAX_LEVELS];
    const int32_t iLevels = LevelCells(iWidth, iHeight, iCells, aiCells);
    uint32_t uFloats = 0;
    for (int32_t l = 0; l < iLevels; l++) {
        tagST_MESH_GRID stGrid;
        GridOfCells(iWidth, iHeight, aiCells[l], &stGrid);
        uFloats += LevelFloats(&stGrid);
    }
    tagST_MESH_GRID stFine;
    GridOfCells(iWidth, iHeight, aiCells[0], &stFine);
    // The levels' arrays, the segments and samples of every level, the fold terms, the segments'
    // order, a copy of the warm start and the fold guard's corner marks.
    return uFloats * (uint32_t)sizeof(float) +
           (uint32_t)iLevels * LDC_MESH_MAX_SEGMENTS * (uint32_t)sizeof(tagST_MESH_LINE) +
           LDC_MESH_MAX_SAMPLES * (uint32_t)sizeof(tagST_MESH_SAMPLE) +
           LDC_MESH_MAX_FOLD_TERMS * (uint32_t)sizeof(tagST_MESH_FOLD_TERM) +
           LDC_MESH_SCAN_SEGMENTS * (uint32_t)sizeof(tagST_MESH_SEGMENT_ORDER) +
           (uint32_t)VertexCount(&stFine) * (2u * (uint32_t)sizeof(float) + 4u);
}

// Carves one level's arrays from pfBase (zeroed: the margins stay zero for good); returns the
// first float after them.
static float *CarveLevel(float *pfBase, tagST_MESH_LEVEL *pstLevel)
{
    const tagST_MESH_GRID *pstGrid = &pstLevel->stGrid;
    pstLevel->iVertices = VertexCount(pstGrid);
    pstLevel->iMargin = 2 * pstGrid->iCols + 2;
    pstLevel->iPlane = pstLevel->iVertices + 2 * pstLevel->iMargin;
    memset(pfBase, 0, LevelFloats(pstGrid) * sizeof(float));
    float *pf = pfBase;
    for (int32_t k = 0; k < LDC_MESH_STENCIL; k++) {
        pstLevel->apfStencil[k] = pf + pstLevel->iMargin;
        pf += pstLevel->iPlane;
    }
    float **appfVectors[LDC_MESH_VECTORS] = {&pstLevel->pfRhsBase, &pstLevel->pfRhs, &pstLevel->pfDiagInv,
                                             &pstLevel->pfX, &pstLevel->pfR, &pstLevel->pfZ, &pstLevel->pfP,
                                             &pstLevel->pfQ};
    for (int32_t k = 0; k < LDC_MESH_VECTORS; k++) {
        *appfVectors[k] = pf;
        pf += 2 * pstLevel->iPlane;
    }
    pstLevel->piColCell = (int32_t *)pf;
    pstLevel->pfColFrac = pf + pstGrid->iCols;
    pstLevel->piRowCell = (int32_t *)(pstLevel->pfColFrac + pstGrid->iCols);
    pstLevel->pfRowFrac = pf + 2 * pstGrid->iCols + pstGrid->iRows;
    return pf + 2 * (pstGrid->iCols + pstGrid->iRows);
}

// Index of vertex v's component c (0: x, 1: y) in a level's vector.
static int32_t Unknown(const tagST_MESH_LEVEL *pstLevel, int32_t v, int32_t c)
{
    return c * pstLevel->iPlane + pstLevel->iMargin + v;
}

static void InverseLens(const tagST_RADIAL_MODEL *pstLens, float fPx, float fPy, float *pfQx, float *pfQy)
{
    const float fDx = fPx - pstLens->fCx;
    const float fDy = fPy - pstLens->fCy;
    const float fRho = sqrtf(fDx * fDx + fDy * fDy);
    float fR = fRho;
    for (int32_t i = 0; i < LDC_MESH_LENS_STEPS && fRho > 0.0f; i++) {
        const float fR2 = fR * fR;
        const float fG = fR * RadialFactorSerial(pstLens, fR2) - fRho;
        const float fSlope = 1.0f + fR2 * (3.0f * pstLens->fC1 + fR2 * (5.0f * pstLens->fC2 + fR2 * 7.0f * pstLens->fC3));
        if (!(fSlope > 0.1f)) {
            break;
        }
        fR = fR - fG / fSlope;
    }
    const float fScale = fRho > 0.0f ? fR / fRho : 1.0f;
    *pfQx = pstLens->fCx + fDx * fScale;
    *pfQy = pstLens->fCy + fDy * fScale;
}

// Stereographic image of a corrected point: r_s / r_p = 2 / (1 + sqrt(1 + (r_p / f)^2)).
static void Stereo(const tagST_MESH_INPUT *pstIn, float fX, float fY, float *pfSx, float *pfSy)
{
    const float fDx = fX - pstIn->stLens.fCx, fDy = fY - pstIn->stLens.fCy;
    const float fSigma = 2.0f / (1.0f + sqrtf(1.0f + (fDx * fDx + fDy * fDy) / (pstIn->fFocal * pstIn->fFocal)));
    *pfSx = pstIn->stLens.fCx + fDx * fSigma;
    *pfSy = pstIn->stLens.fCy + fDy * fSigma;
}

// The corrected point that the face map puts at the output point (fX, fY): the face map is the
// similarity of the stereographic image that takes the face's centre c to O, so
// T(p) = st^-1(st(c) + (p - O) / s) with st^-1(z) = c0 + (z - c0) / (1 - (r_s / 2f)^2).
static void FaceTarget(const tagST_MESH_FACE *pstFace, const tagST_MESH_INPUT *pstIn, float fX, float fY,
                       float *pfTx, float *pfTy)
{
    const float fZx = pstFace->fStereoCx + (fX - pstFace->fOx) / pstFace->fScale;
    const float fZy = pstFace->fStereoCy + (fY - pstFace->fOy) / pstFace->fScale;
    const float fDx = fZx - pstIn->stLens.fCx;
    const float fDy = fZy - pstIn->stLens.fCy;
    const float fTwoF = 2.0f * pstIn->fFocal;
    float fS2 = (fDx * fDx + fDy * fDy) / (fTwoF * fTwoF);
    fS2 = fS2 < kMaxStereo ? fS2 : kMaxStereo;
    const float fK = 1.0f / (1.0f - fS2);
    *pfTx = pstIn->stLens.fCx + fDx * fK;
    *pfTy = pstIn->stLens.fCy + fDy * fK;
}

// Distance from (fX, fY) along the unit vector (fUx, fUy) to the frame's edge.
static float DistanceToEdge(const tagST_MESH_INPUT *pstIn, float fX, float fY, float fUx, float fUy)
{
    float fT = 1e30f;
    if (fUx > 1e-6f) {
        fT = ((float)(pstIn->iWidth - 1) - fX) / fUx;
    } else if (fUx < -1e-6f) {
        fT = -fX / fUx;
    }
    float fTy = 1e30f;
    if (fUy > 1e-6f) {
        fTy = ((float)(pstIn->iHeight - 1) - fY) / fUy;
    } else if (fUy < -1e-6f) {
        fTy = -fY / fUy;
    }
    return fTy < fT ? fTy : fT;
}

// At strength s the corrected face keeps the remainder of the stretch and grows toward the size
// kept: its shape is R = (1 + s (k - 1)) S' D with S' = I + (1 - s) (sec - 1) u u^T and
// D = diag(w, h); its centre moves by s times the move along u, and then as little as it takes
// to keep its box within the bounds. Returns 0 when no place keeps it there; else stores the
// inverse shape and the centre when pstFace is given.
static int32_t FitFace(const tagST_MESH_FACE_FIT *pstFit, float fS, tagST_MESH_FACE *pstFace)
{
    const float fKeep = (1.0f - fS) * (pstFit->fSec - 1.0f);
    const float fGrow = 1.0f + fS * (pstFit->fKeep - 1.0f);
    const float fUx = pstFit->fUx, fUy = pstFit->fUy;
    const float fRxx = fGrow * (1.0f + fKeep * fUx * fUx) * pstFit->fW, fRxy = fGrow * fKeep * fUx * fUy * pstFit->fH;
    const float fRyx = fGrow * fKeep * fUx * fUy * pstFit->fW, fRyy = fGrow * (1.0f + fKeep * fUy * fUy) * pstFit->fH;
    const float fExtX = sqrtf(fRxx * fRxx + fRxy * fRxy), fExtY = sqrtf(fRyx * fRyx + fRyy * fRyy);
    float fOx = pstFit->fCx + fS * pstFit->fMovePerStrength * fUx;
    float fOy = pstFit->fCy + fS * pstFit->fMovePerStrength * fUy;
    const float fLoX = pstFit->afBound[0] + fExtX, fHiX = pstFit->afBound[2] - fExtX;
    const float fLoY = pstFit->afBound[1] + fExtY, fHiY = pstFit->afBound[3] - fExtY;
    if (!(fLoX <= fHiX && fLoY <= fHiY)) {
        return 0;
    }
    fOx = fOx < fLoX ? fLoX : (fOx > fHiX ? fHiX : fOx);
    fOy = fOy < fLoY ? fLoY : (fOy > fHiY ? fHiY : fOy);
    if (pstFace != NULL) {
        const float fDet = fRxx * fRyy - fRxy * fRyx;
        pstFace->afShape[0] = fRyy / fDet;
        pstFace->afShape[1] = -fRxy / fDet;
        pstFace->afShape[2] = -fRyx / fDet;
        pstFace->afShape[3] = fRxx / fDet;
        pstFace->fOx = fOx;
        pstFace->fOy = fOy;
    }
    return 1;
}

// The face's corrected box, radial direction, placement, similarity and output extents. Returns 0
// for a face that cannot be corrected (empty, nothing of it inside the frame, or a lens whose
// inverse breaks down on it).
static int32_t PrepareFace(const tagST_MESH_INPUT *pstIn, const int32_t *piRect, float fStrength,
                           tagST_MESH_FACE *pstFace)
{
    const float fW = (float)pstIn->iWidth, fH = (float)pstIn->iHeight;
    // Hostile rectangles are cut to a band around the frame first, so that every float below
    // stays small.
    float afR[4];
    for (int32_t k = 0; k < 4; k++) {
        const float fLimit = (k & 1) ? fH : fW;
        const float fV = (float)piRect[k];
        afR[k] = fV < -fLimit ? -fLimit : (fV > 2.0f * fLimit ? 2.0f * fLimit : fV);
    }
    if (!(afR[2] - afR[0] >= 2.0f && afR[3] - afR[1] >= 2.0f) || afR[2] < 0.0f || afR[3] < 0.0f ||
        afR[0] > fW - 1.0f || afR[1] > fH - 1.0f) {
        return 0;
    }
    // The corrected box of the rectangle's corners and edge middles.
    float fL = 1e30f, fT = 1e30f, fR = -1e30f, fB = -1e30f;
    for (int32_t k = 0; k < 8; k++) {
        static const float s_afU[8] = {0.0f, 0.5f, 1.0f, 1.0f, 1.0f, 0.5f, 0.0f, 0.0f};
        static const float s_afV[8] = {0.0f, 0.0f, 0.0f, 0.5f, 1.0f, 1.0f, 1.0f, 0.5f};
        float fQx, fQy;
        InverseLens(&pstIn->stLens, afR[0] + s_afU[k] * (afR[2] - afR[0]), afR[1] + s_afV[k] * (afR[3] - afR[1]),
                    &fQx, &fQy);
        fL = fQx < fL ? fQx : fL;
        fR = fQx > fR ? fQx : fR;
        fT = fQy < fT ? fQy : fT;
        fB = fQy > fB ? fQy : fB;
    }
    const float fCx = 0.5f * (fL + fR), fCy = 0.5f * (fT + fB);
    const float fDx = fCx - pstIn->stLens.fCx, fDy = fCy - pstIn->stLens.fCy;
    const float fRp = sqrtf(fDx * fDx + fDy * fDy);
    const float fUx = fRp > 0.5f ? fDx / fRp : 1.0f;
    const float fUy = fRp > 0.5f ? fDy / fRp : 0.0f;
    // The face is an upright ellipse of half extents (w, h) seen through the perspective stretch
    // S = I + (sec(theta) - 1) u u^T; its box has half extents |D S e_x| and |D S e_y| with
    // D = diag(w, h): two linear equations in w^2 and h^2. (A box alone cannot tell a face in a
    // corner, stretched along the diagonal, from a round one.)
    const float fHalfX = 0.5f * (fR - fL), fHalfY = 0.5f * (fB - fT);
    const float fSec = sqrtf(1.0f + (fRp / pstIn->fFocal) * (fRp / pstIn->fFocal));
    const float fSxx = 1.0f + (fSec - 1.0f) * fUx * fUx, fSxy = (fSec - 1.0f) * fUx * fUy;
    const float fSyy = 1.0f + (fSec - 1.0f) * fUy * fUy;
    const float fA2 = fSxx * fSxx, fB2 = fSxy * fSxy, fD2 = fSyy * fSyy;
    const float fDet = fA2 * fD2 - fB2 * fB2;   // sec (Sxx Syy + Sxy^2) > 0
    const float fMinHalf = 0.25f * (fHalfX < fHalfY ? fHalfX : fHalfY);
    const float fWsq = (fD2 * fHalfX * fHalfX - fB2 * fHalfY * fHalfY) / fDet;
    const float fHsq = (fA2 * fHalfY * fHalfY - fB2 * fHalfX * fHalfX) / fDet;
    const float fFw = fWsq > fMinHalf * fMinHalf ? sqrtf(fWsq) : fMinHalf;
    const float fFh = fHsq > fMinHalf * fMinHalf ? sqrtf(fHsq) : fMinHalf;
    pstFace->fRadius = fFw < fFh ? fFw : fFh;
    // The size kept lies between the tangential size (1) and the radial one (sec).
    const float fKeepSize = 1.0f + kSizeMix * (fSec - 1.0f);
    // Keeping the tangential size: s = (perspective tangential scale) / (stereographic scale)
    // = cos^2(theta / 2) / cos(theta) = (1 + sqrt(1 + tau^2)) / 2, tau = r_p / f.
    pstFace->fScale = 0.5f * (1.0f + fSec) * fKeepSize;
    Stereo(pstIn, fCx, fCy, &pstFace->fStereoCx, &pstFace->fStereoCy);
    // Where the corrected face goes: it loses radial size, and the room freed is shared by the
    // gaps to the frame's edge on both sides along u in proportion to their size, so that both
    // stretch alike. A face at the edge keeps its outer side where it was (the edge is held, and
    // a strip between would be magnified).
    tagST_MESH_FACE_FIT stFit = {fFw, fFh, fUx, fUy, fSec, fKeepSize, fCx, fCy, 0.0f, {0.0f, 0.0f, 0.0f, 0.0f}};
    const float fReach = sqrtf(fFw * fFw * fUx * fUx + fFh * fFh * fUy * fUy);   // |D u|
    const float fOut = DistanceToEdge(pstIn, fCx, fCy, fUx, fUy) - fSec * fReach;
    const float fIn = DistanceToEdge(pstIn, fCx, fCy, -fUx, -fUy) - fSec * fReach;
    const float fRoomOut = fOut > 0.0f ? fOut : 0.0f, fRoomIn = fIn > 0.0f ? fIn : 0.0f;
    stFit.fMovePerStrength = fRoomOut + fRoomIn > 0.0f
                                 ? (fSec - fKeepSize) * fReach * (fRoomIn - fRoomOut) / (fRoomIn + fRoomOut)
                                 : 0.0f;
    // The corrected face reaches beyond the frame's edge no farther than the face's widened box
    // does (up to a share of its radius, the slack between a detector's box and the face): a
    // face crowded into a corner gets the largest strength with which it stays there.
    const float fTolerance = kFitTolerance * pstFace->fRadius;
    stFit.afBound[0] = (fL < 0.0f ? fL : 0.0f) - fTolerance;
    stFit.afBound[1] = (fT < 0.0f ? fT : 0.0f) - fTolerance;
    stFit.afBound[2] = (fR > fW - 1.0f ? fR : fW - 1.0f) + fTolerance;
    stFit.afBound[3] = (fB > fH - 1.0f ? fB : fH - 1.0f) + fTolerance;
    float fFitting = fStrength;
    if (!FitFace(&stFit, fStrength, NULL)) {
        float fLo = 0.0f, fHi = fStrength;
        for (int32_t i = 0; i < LDC_MESH_FIT_STEPS; i++) {
            const float fMid = 0.5f * (fLo + fHi);
            if (FitFace(&stFit, fMid, NULL)) {
                fLo = fMid;
            } else {
                fHi = fMid;
            }
        }
        fFitting = fLo;
    }
    pstFace->fStrength = fFitting;
    FitFace(&stFit, fFitting, pstFace);
    return fFitting > 0.0f && isfinite(pstFace->fOx) && isfinite(pstFace->fOy) && isfinite(pstFace->fStereoCx) &&
           isfinite(pstFace->fStereoCy) && isfinite(pstFace->fScale) && isfinite(pstFace->afShape[0]) &&
           isfinite(pstFace->afShape[1]) && isfinite(pstFace->afShape[2]) && isfinite(pstFace->afShape[3]) &&
           pstFace->fRadius >= 1.0f && pstFace->fRadius < 1e6f;
}

static float Min4(float fA, float fB, float fC, float fD)
{
    const float fAB = fA < fB ? fA : fB, fCD = fC < fD ? fC : fD;
    return fAB < fCD ? fAB : fCD;
}

static float SmoothStep(float fT)
{
    fT = fT < 0.0f ? 0.0f : (fT > 1.0f ? 1.0f : fT);
    return fT * fT * (3.0f - 2.0f * fT);
}

// Elliptic distance of the output point (fX, fY) from the corrected face, 1 on its outline.
static float FaceDistance(const tagST_MESH_FACE *pstFace, float fX, float fY)
{
    const float fDx = fX - pstFace->fOx, fDy = fY - pstFace->fOy;
    const float fA = pstFace->afShape[0] * fDx + pstFace->afShape[1] * fDy;
    const float fB = pstFace->afShape[2] * fDx + pstFace->afShape[3] * fDy;
    return sqrtf(fA * fA + fB * fB);
}

// The faces' pull at an output point: the share of the face term (0..1) and its target
// displacement, and the elliptic distance to the nearest face.
static float FacePull(const tagST_MESH_INPUT *pstIn, const tagST_MESH_FACE *pstFaces, int32_t iFaces, float fX,
                      float fY, float *pfTx, float *pfTy, float *pfNearest)
{
    const float fMaxX = (float)(pstIn->iWidth - 1), fMaxY = (float)(pstIn->iHeight - 1);
    float fFaceSum = 0.0f, fTx = 0.0f, fTy = 0.0f, fNearest = 1e30f;
    for (int32_t k = 0; k < iFaces; k++) {
        const float fE = FaceDistance(&pstFaces[k], fX, fY);
        fNearest = fE < fNearest ? fE : fNearest;
        float fW = 1.0f - SmoothStep((fE - kFaceInner) / kFaceBand);
        if (fW > 0.0f) {
            float fQx, fQy;
            FaceTarget(&pstFaces[k], pstIn, fX, fY, &fQx, &fQy);
            // Around a face near the frame's edge the map's extension reaches beyond the
            // edge, which is held: there the face lets go (a target outside would fold
            // the map, one cut to the edge would flatten it).
            const float fInside = Min4(fQx, fMaxX - fQx, fQy, fMaxY - fQy);
            fW *= SmoothStep(fInside / (kEdgeRelease * pstFaces[k].fRadius));
            fFaceSum += fW;
            fTx += fW * pstFaces[k].fStrength * (fQx - fX);
            fTy += fW * pstFaces[k].fStrength * (fQy - fY);
        }
    }
    *pfNearest = fNearest;
    if (!(fFaceSum > 0.0f)) {
        *pfTx = *pfTy = 0.0f;
        return 0.0f;
    }
    // Overlapping faces share one target, their weighted mean.
    *pfTx = fTx / fFaceSum;
    *pfTy = fTy / fFaceSum;
    return fFaceSum < 1.0f ? fFaceSum : 1.0f;
}
// The length every weight is measured in: the smallest face's radius. The transition from a
// face to the background then spans a fixed share of it on any grid and at any frame size.
static float LengthScale(const tagST_MESH_FACE *pstFaces, int32_t iFaces)
{
    float fMinRadius = 1e30f;
    for (int32_t k = 0; k < iFaces; k++) {
        fMinRadius = pstFaces[k].fRadius < fMinRadius ? pstFaces[k].fRadius : fMinRadius;
    }
    return fMinRadius;
}

// Adds w [1 -2 1]^T [1 -2 1] over the vertices v - d, v, v + d to the stencil (d = 1: along a
// row, the E and EE planes; d = cols: along a column, S and SS).
static void AddSecondDifference(tagST_MESH_LEVEL *pstLevel, int32_t v, int32_t d, float fW)
{
    float *pfC = pstLevel->apfStencil[0];
    float *pfNear = pstLevel->apfStencil[d == 1 ? 1 : 3], *pfFar = pstLevel->apfStencil[d == 1 ? 2 : 4];
    pfC[v - d] += fW;
    pfC[v] += 4.0f * fW;
    pfC[v + d] += fW;
    pfNear[v - d] -= 2.0f * fW;
    pfNear[v] -= 2.0f * fW;
    pfFar[v - d] += fW;
}

// Per-vertex data weights and right-hand side, and the bending stencil of one level; returns the
// number of vertices a face reaches. The energy is an integral over the frame: per vertex (its
// cell's share) the faces' pull toward their targets and the background's toward zero, and the
// bending w |Hess d|^2 with w = weight * length^4 (second differences over step^2, squared),
// off inside faces and stiffer away from them, so that every grid discretises the same energy.
static int32_t BuildDataTerms(const tagST_MESH_INPUT *pstIn, const tagST_MESH_FACE *pstFaces, int32_t iFaces,
                              tagST_MESH_LEVEL *pstLevel)
{
    const tagST_MESH_GRID *pstGrid = &pstLevel->stGrid;
    const int32_t iCols = pstGrid->iCols, iRows = pstGrid->iRows;
    for (int32_t k = 0; k < LDC_MESH_STENCIL; k++) {
        memset(pstLevel->apfStencil[k], 0, (size_t)pstLevel->iVertices * sizeof(float));
    }
    // The bending weight of a vertex goes in the right-hand side's first plane until the
    // preconditioner's set-up fills it.
    float *pfBend = pstLevel->pfRhs + pstLevel->iMargin;
    const float fLength = LengthScale(pstFaces, iFaces);
    const float fL2 = fLength * fLength * pstGrid->fInvStepX * pstGrid->fInvStepY;
    const float fL4 = fL2 * fL2;
    int32_t iReached = 0;
    for (int32_t j = 0; j < iRows; j++) {
        for (int32_t i = 0; i < iCols; i++) {
            const int32_t v = j * iCols + i;
            float fTx, fTy, fNearest;
            const float fShare =
                FacePull(pstIn, pstFaces, iFaces, (float)i * pstGrid->fStepX, (float)j * pstGrid->fStepY, &fTx, &fTy,
                         &fNearest);
            iReached += fShare > 0.0f ? 1 : 0;
            const float fFace = kFaceWeight * fShare;
            pstLevel->apfStencil[0][v] =
                fFace + kBackgroundWeight * SmoothStep((fNearest - kBackgroundStart) / kBackgroundBand);
            pstLevel->pfRhsBase[Unknown(pstLevel, v, 0)] = fFace * fTx;
            pstLevel->pfRhsBase[Unknown(pstLevel, v, 1)] = fFace * fTy;
            const float fStiff = SmoothStep((fNearest - kBendFarStart) / kBendFarBand);
            pfBend[v] = fL4 * (1.0f - fShare) * (kBendWeight + fStiff * (kBendFar - kBendWeight));
        }
    }
    for (int32_t j = 0; j < iRows; j++) {
        for (int32_t i = 0; i < iCols; i++) {
            const int32_t v = j * iCols + i;
            if (i > 0 && i + 1 < iCols) {
                AddSecondDifference(pstLevel, v, 1, pfBend[v]);
            }
            if (j > 0 && j + 1 < iRows) {
                AddSecondDifference(pstLevel, v, iCols, pfBend[v]);
            }
        }
    }
    // Mixed differences per cell, 2 w_cell (d11 - d10 - d01 + d00)^2, w_cell the corners' mean.
    for (int32_t j = 0; j + 1 < iRows; j++) {
        for (int32_t i = 0; i + 1 < iCols; i++) {
            const int32_t v = j * iCols + i;
            const float fW = 0.5f * (pfBend[v] + pfBend[v + 1] + pfBend[v + iCols] + pfBend[v + iCols + 1]);
            float *pfC = pstLevel->apfStencil[0];
            pfC[v] += fW;
            pfC[v + 1] += fW;
            pfC[v + iCols] += fW;
            pfC[v + iCols + 1] += fW;
            pstLevel->apfStencil[1][v] -= fW;
            pstLevel->apfStencil[1][v + iCols] -= fW;
            pstLevel->apfStencil[3][v] -= fW;
            pstLevel->apfStencil[3][v + 1] -= fW;
            pstLevel->apfStencil[5][v] += fW;
            pstLevel->apfStencil[6][v + 1] += fW;   // v + 1 and v + cols
        }
    }
    return iReached;
}

// Whether component c (0: x, 1: y) of vertex v is held: the frame's edge keeps its place across
// the edge (the field of view stays that of lens correction alone) but slides along it, so that a
// face beside the edge does not pin the background's displacement to zero there (which bent the
// lines running from it across the frame).
static int32_t Held(const tagST_MESH_GRID *pstGrid, int32_t v, int32_t c)
{
    if (c == 0) {
        const int32_t i = v % pstGrid->iCols;
        return i == 0 || i == pstGrid->iCols - 1;
    }
    const int32_t j = v / pstGrid->iCols;
    return j == 0 || j == pstGrid->iRows - 1;
}

// Zeroes the held components of a two-plane vector.
static void ZeroHeld(const tagST_MESH_LEVEL *pstLevel, float *pfVector)
{
    const int32_t iCols = pstLevel->stGrid.iCols, iRows = pstLevel->stGrid.iRows;
    float *pfX = pfVector + pstLevel->iMargin, *pfY = pfX + pstLevel->iPlane;
    for (int32_t j = 0; j < iRows; j++) {
        pfX[j * iCols] = 0.0f;
        pfX[j * iCols + iCols - 1] = 0.0f;
    }
    memset(pfY, 0, (size_t)iCols * sizeof(float));
    memset(pfY + (iRows - 1) * iCols, 0, (size_t)iCols * sizeof(float));
}

// The cell of the output point (fX, fY): its first vertex and the bilinear fractions.
static int32_t CellOf(const tagST_MESH_GRID *pstGrid, float fX, float fY, float *pfA, float *pfB)
{
    const float fU = fX * pstGrid->fInvStepX, fV = fY * pstGrid->fInvStepY;
    int32_t iI = TruncF32ToS32(fU), iJ = TruncF32ToS32(fV);
    iI = iI < 0 ? 0 : (iI > pstGrid->iCols - 2 ? pstGrid->iCols - 2 : iI);
    iJ = iJ < 0 ? 0 : (iJ > pstGrid->iRows - 2 ? pstGrid->iRows - 2 : iJ);
    *pfA = fU - (float)iI;
    *pfB = fV - (float)iJ;
    return iJ * pstGrid->iCols + iI;
}

// Line terms: the longest segments, each taken to corrected pixels (where it is straight) and
// sampled once a cell (on fine grids less often: LDC_MESH_LINE_SAMPLES). Near a face the samples
// weigh less and within kLineFadeStart of it nothing (the face's map wins there); the rest of
// the segment, on both sides of a face it passes, stays on one line.
// The energy is weight * length * the integral along the segment of (d . n - its best affine
// fit)^2, over the cell's area: the squared distance of the corrected segment from its own best
// line. Returns the samples used.
static int32_t BuildLineTerms(const tagST_MESH_INPUT *pstIn, const tagST_MESH_FACE *pstFaces, int32_t iFaces,
                              const tagST_MESH_SEGMENT_ORDER *pstOrder, int32_t iSegments, tagST_MESH_LEVEL *pstLevel,
                              tagST_MESH_SAMPLE *pstSamples, int32_t iRoom)
{
    const tagST_MESH_GRID *pstGrid = &pstLevel->stGrid;
    pstLevel->iLines = 0;
    const float fMaxX = (float)(pstIn->iWidth - 1), fMaxY = (float)(pstIn->iHeight - 1);
    const float fStep = pstGrid->fStepX < pstGrid->fStepY ? pstGrid->fStepX : pstGrid->fStepY;
    const float fLong = (float)(pstIn->iWidth > pstIn->iHeight ? pstIn->iWidth : pstIn->iHeight);
    const float fSpacing = fStep > fLong / (float)LDC_MESH_LINE_SAMPLES ? fStep : fLong / (float)LDC_MESH_LINE_SAMPLES;
    pstLevel->fLineWeight =
        kLineWeight * LengthScale(pstFaces, iFaces) * fSpacing * pstGrid->fInvStepX * pstGrid->fInvStepY;
    int32_t iUsed = 0;
    for (int32_t l = 0; l < iSegments && pstLevel->iLines < LDC_MESH_MAX_SEGMENTS; l++) {
        const stLine *pstSegment = &pstIn->pstLines[pstOrder[l].iIndex];
        float fX0, fY0, fX1, fY1;
        InverseLens(&pstIn->stLens, (float)pstSegment->Pnt0.x, (float)pstSegment->Pnt0.y, &fX0, &fY0);
        InverseLens(&pstIn->stLens, (float)pstSegment->Pnt1.x, (float)pstSegment->Pnt1.y, &fX1, &fY1);
        const float fLen = sqrtf((fX1 - fX0) * (fX1 - fX0) + (fY1 - fY0) * (fY1 - fY0));
        // Too short to bend, or not a segment of this frame at all.
        if (!(fLen >= 3.0f * fSpacing) || !(fLen < 2.0f * (fMaxX + fMaxY))) {
            continue;
        }
        const int32_t iSteps = TruncF32ToS32(fLen / fSpacing);
        tagST_MESH_LINE *pstLine = &pstLevel->pstLines[pstLevel->iLines];
        pstLine->iFirst = iUsed;
        pstLine->iCount = 0;
        pstLine->fNx = -(fY1 - fY0) / fLen;
        pstLine->fNy = (fX1 - fX0) / fLen;
        float fSumT = 0.0f, fSumW = 0.0f;
        for (int32_t s = 0; s <= iSteps && iUsed < iRoom; s++) {
            const float fT = (float)s / (float)iSteps;
            const float fX = fX0 + fT * (fX1 - fX0), fY = fY0 + fT * (fY1 - fY0);
            float fTx, fTy, fNearest;
            if (!(fX >= 0.0f && fX <= fMaxX && fY >= 0.0f && fY <= fMaxY)) {
                continue;
            }
            FacePull(pstIn, pstFaces, iFaces, fX, fY, &fTx, &fTy, &fNearest);
            const float fWeight = SmoothStep((fNearest - kLineFadeStart) / kLineFadeBand);
            if (!(fWeight > 0.0f)) {
                continue;
            }
            tagST_MESH_SAMPLE *pstSample = &pstSamples[iUsed++];
            float fA, fB;
            const int32_t v = CellOf(pstGrid, fX, fY, &fA, &fB);
            pstSample->afW[0] = (1.0f - fA) * (1.0f - fB);
            pstSample->afW[1] = fA * (1.0f - fB);
            pstSample->afW[2] = (1.0f - fA) * fB;
            pstSample->afW[3] = fA * fB;
            pstSample->iVertex = v;
            pstSample->fT = fT * fLen;
            pstSample->fWeight = fWeight;
            fSumT += fWeight * pstSample->fT;
            fSumW += fWeight;
            pstLine->iCount++;
        }
        if (pstLine->iCount < 3) {
            iUsed -= pstLine->iCount;   // too few samples left to bend
            continue;
        }
        pstLine->fMeanT = fSumT / fSumW;
        pstLine->fWeightSum = fSumW;
        float fSpread = 0.0f;
        for (int32_t k = 0; k < pstLine->iCount; k++) {
            tagST_MESH_SAMPLE *pstSample = &pstSamples[pstLine->iFirst + k];
            pstSample->fT -= pstLine->fMeanT;
            fSpread += pstSample->fWeight * pstSample->fT * pstSample->fT;
        }
        if (!(fSpread > 0.0f)) {
            iUsed -= pstLine->iCount;
            continue;
        }
        pstLine->fSpreadT = fSpread;
        pstLevel->iLines++;
    }
    return iUsed;
}

// Adds a corner's gradient share for vertex v (both components) to a fold term, merging with
// the vertex when it is already there.
static void AddCornerShare(const tagST_MESH_LEVEL *pstLevel, tagST_MESH_FOLD_TERM *pstTerm, int32_t *piCount,
                           int32_t v, float fGx, float fGy)
{
    const int32_t iX = Unknown(pstLevel, v, 0);
    for (int32_t k = 0; k < *piCount; k += 2) {
        if (pstTerm->aiIndex[k] == iX) {
            pstTerm->afCoef[k] += fGx;
            pstTerm->afCoef[k + 1] += fGy;
            return;
        }
    }
    pstTerm->aiIndex[*piCount] = iX;
    pstTerm->afCoef[*piCount] = fGx;
    pstTerm->aiIndex[*piCount + 1] = Unknown(pstLevel, v, 1);
    pstTerm->afCoef[*piCount + 1] = fGy;
    *piCount += 2;
}

// The fold guard: at every cell corner whose area ratio (the Jacobian's determinant over the
// cell's area, 1 for lens correction alone) falls below the floor, or that the guard held
// before, a term asks the ratio, linearised at the level's x, to be the floor; the corners held
// are marked in pucActive. Returns the smallest ratio found.
static float BuildFoldTerms(tagST_MESH_LEVEL *pstLevel, float fLength, uint8_t *pucActive)
{
    const tagST_MESH_GRID *pstGrid = &pstLevel->stGrid;
    const int32_t iCols = pstGrid->iCols;
    const float fSx = pstGrid->fStepX, fSy = pstGrid->fStepY, fInvArea = 1.0f / (fSx * fSy);
    const float *pfX = pstLevel->pfX + pstLevel->iMargin, *pfY = pfX + pstLevel->iPlane;
    // Weight W over the squared ratio, scaled by length^2 like the displacements' terms.
    const float fRoot = sqrtf(kFoldWeight) * fLength;
    float fMin = 1e30f;
    pstLevel->iFolds = 0;
    for (int32_t j = 0; j + 1 < pstGrid->iRows; j++) {
        for (int32_t i = 0; i + 1 < iCols; i++) {
            const int32_t v00 = j * iCols + i, v10 = v00 + 1, v01 = v00 + iCols, v11 = v01 + 1;
            // The cell's edges along x (bottom, top) and along y (left, right); corner k spans
            // edge a = k / 2 along x and edge b = k % 2 along y.
            const int32_t aaiEdgeX[2][2] = {{v00, v10}, {v01, v11}}, aaiEdgeY[2][2] = {{v00, v01}, {v10, v11}};
            float afAx[2], afAy[2], afBx[2], afBy[2];
            for (int32_t e = 0; e < 2; e++) {
                afAx[e] = fSx + pfX[aaiEdgeX[e][1]] - pfX[aaiEdgeX[e][0]];
                afAy[e] = pfY[aaiEdgeX[e][1]] - pfY[aaiEdgeX[e][0]];
                afBx[e] = pfX[aaiEdgeY[e][1]] - pfX[aaiEdgeY[e][0]];
                afBy[e] = fSy + pfY[aaiEdgeY[e][1]] - pfY[aaiEdgeY[e][0]];
            }
            for (int32_t k = 0; k < 4; k++) {
                const float fAx = afAx[k >> 1], fAy = afAy[k >> 1], fBx = afBx[k & 1], fBy = afBy[k & 1];
                const float fRatio = (fAx * fBy - fAy * fBx) * fInvArea;
                fMin = fRatio < fMin ? fRatio : fMin;
                uint8_t *pucCorner = &pucActive[4 * v00 + k];
                *pucCorner = *pucCorner || fRatio < kFoldFloor + kFoldMargin;
                if (!*pucCorner || pstLevel->iFolds >= LDC_MESH_MAX_FOLD_TERMS) {
                    continue;
                }
                // d det / d a = (by, -bx), d det / d b = (-ay, ax), over the area; the held
                // components take no share.
                const int32_t *piA = aaiEdgeX[k >> 1], *piB = aaiEdgeY[k & 1];
                tagST_MESH_FOLD_TERM *pstTerm = &pstLevel->pstFolds[pstLevel->iFolds++];
                memset(pstTerm, 0, sizeof(*pstTerm));
                int32_t iCount = 0;
                const float fGax = fRoot * fBy * fInvArea, fGay = -fRoot * fBx * fInvArea;
                const float fGbx = -fRoot * fAy * fInvArea, fGby = fRoot * fAx * fInvArea;
                AddCornerShare(pstLevel, pstTerm, &iCount, piA[1], fGax, fGay);
                AddCornerShare(pstLevel, pstTerm, &iCount, piA[0], -fGax, -fGay);
                AddCornerShare(pstLevel, pstTerm, &iCount, piB[1], fGbx, fGby);
                AddCornerShare(pstLevel, pstTerm, &iCount, piB[0], -fGbx, -fGby);
                // g . x = g . x0 + root (floor - ratio0)
                float fGx0 = 0.0f;
                for (int32_t n = 0; n < iCount; n++) {
                    fGx0 += pstTerm->afCoef[n] * pstLevel->pfX[pstTerm->aiIndex[n]];
                }
                pstTerm->fRhs = fGx0 + fRoot * (kFoldFloor - fRatio);
                for (int32_t n = 0; n < iCount; n++) {
                    const int32_t c = n & 1;
                    if (Held(pstGrid, pstTerm->aiIndex[n] - c * pstLevel->iPlane - pstLevel->iMargin, c)) {
                        pstTerm->afCoef[n] = 0.0f;
                    }
                }
            }
        }
    }
    return fMin;
}

// The solve's loops run as vectors on ARM (the same floats: see face_mesh_kernels.h); elsewhere the
// compiler vectorises the plain ones.
#if defined(__arm__) || defined(__aarch64__)
#define MESH_STENCIL FaceMeshStencil_neon
#define MESH_JACOBI FaceMeshJacobi_neon
#define MESH_AXPY FaceMeshAxpy_neon
#else
#define MESH_STENCIL FaceMeshStencil
#define MESH_JACOBI FaceMeshJacobi
#define MESH_AXPY FaceMeshAxpy
#endif

// pfOut = A pfIn over every vertex (the margins hold the stencil's reads beyond the frame), the
// held components zeroed: their values (zero) take no part and their rows stay zero.
static void ApplySystem(const tagST_MESH_LEVEL *pstLevel, const tagST_MESH_SAMPLE *pstSamples, const float *pfIn,
                        float *pfOut)
{
    const int32_t iC = pstLevel->stGrid.iCols;
    MESH_STENCIL(pstLevel->apfStencil, pfIn + pstLevel->iMargin, pfIn + pstLevel->iPlane + pstLevel->iMargin,
                 pfOut + pstLevel->iMargin, pfOut + pstLevel->iPlane + pstLevel->iMargin, iC, 0, pstLevel->iVertices);
    // Lines: W S^T D (I - H) S, S the samples' bilinear reads across the line, D their weights, H
    // their weighted affine fit.
    const float *pfInX = pfIn + pstLevel->iMargin, *pfInY = pfInX + pstLevel->iPlane;
    float *pfOutX = pfOut + pstLevel->iMargin, *pfOutY = pfOutX + pstLevel->iPlane;
    for (int32_t l = 0; l < pstLevel->iLines; l++) {
        const tagST_MESH_LINE *pstLine = &pstLevel->pstLines[l];
        const tagST_MESH_SAMPLE *pstFirst = &pstSamples[pstLine->iFirst];
        float fSum = 0.0f, fSumT = 0.0f;
        for (int32_t k = 0; k < pstLine->iCount; k++) {
            const tagST_MESH_SAMPLE *pstS = &pstFirst[k];
            const int32_t v = pstS->iVertex;
            const float *pfW = pstS->afW;
            const float fX = (pfW[0] * pfInX[v] + pfW[1] * pfInX[v + 1]) + (pfW[2] * pfInX[v + iC] + pfW[3] * pfInX[v + iC + 1]);
            const float fY = (pfW[0] * pfInY[v] + pfW[1] * pfInY[v + 1]) + (pfW[2] * pfInY[v + iC] + pfW[3] * pfInY[v + iC + 1]);
            const float fAcross = pstLine->fNx * fX + pstLine->fNy * fY;
            ((tagST_MESH_SAMPLE *)pstS)->fAcross = fAcross;
            fSum += pstS->fWeight * fAcross;
            fSumT += pstS->fWeight * pstS->fT * fAcross;
        }
        const float fMean = fSum / pstLine->fWeightSum, fSlope = fSumT / pstLine->fSpreadT;
        for (int32_t k = 0; k < pstLine->iCount; k++) {
            const tagST_MESH_SAMPLE *pstS = &pstFirst[k];
            const int32_t v = pstS->iVertex;
            const float fE = pstLevel->fLineWeight * pstS->fWeight * (pstS->fAcross - fMean - fSlope * pstS->fT);
            const float fEx = fE * pstLine->fNx, fEy = fE * pstLine->fNy;
            const int32_t aiV[4] = {v, v + 1, v + iC, v + iC + 1};
            for (int32_t n = 0; n < 4; n++) {
                pfOutX[aiV[n]] += fEx * pstS->afW[n];
                pfOutY[aiV[n]] += fEy * pstS->afW[n];
            }
        }
    }
    for (int32_t t = 0; t < pstLevel->iFolds; t++) {
        const tagST_MESH_FOLD_TERM *pstTerm = &pstLevel->pstFolds[t];
        float fR = 0.0f;
        for (int32_t k = 0; k < LDC_MESH_FOLD_UNKNOWNS; k++) {
            fR += pstTerm->afCoef[k] * pfIn[pstTerm->aiIndex[k]];
        }
        for (int32_t k = 0; k < LDC_MESH_FOLD_UNKNOWNS; k++) {
            pfOut[pstTerm->aiIndex[k]] += fR * pstTerm->afCoef[k];
        }
    }
    ZeroHeld(pstLevel, pfOut);
}

// The preconditioner and smoother: the inverse of each row's l1 norm |a_ii| + sum |a_ij| (for the
// line terms, that of W S^T S, which bounds them), so that Jacobi sweeps converge whatever the
// terms couple; and the right-hand side with the fold terms' share. Zero for held components.
static void BuildPreconditioner(tagST_MESH_LEVEL *pstLevel, const tagST_MESH_SAMPLE *pstSamples)
{
    const int32_t iC = pstLevel->stGrid.iCols;
    float *pfDiagX = pstLevel->pfDiagInv + pstLevel->iMargin, *pfDiagY = pfDiagX + pstLevel->iPlane;
    const float *pfC = pstLevel->apfStencil[0], *pfE = pstLevel->apfStencil[1], *pfEE = pstLevel->apfStencil[2];
    const float *pfS = pstLevel->apfStencil[3], *pfSS = pstLevel->apfStencil[4], *pfSE = pstLevel->apfStencil[5];
    const float *pfSW = pstLevel->apfStencil[6];
    for (int32_t v = 0; v < pstLevel->iVertices; v++) {
        pfDiagX[v] = fabsf(pfC[v]) + (fabsf(pfE[v]) + fabsf(pfE[v - 1])) + (fabsf(pfEE[v]) + fabsf(pfEE[v - 2])) +
                     (fabsf(pfS[v]) + fabsf(pfS[v - iC])) + (fabsf(pfSS[v]) + fabsf(pfSS[v - 2 * iC])) +
                     (fabsf(pfSE[v]) + fabsf(pfSE[v - iC - 1])) + (fabsf(pfSW[v]) + fabsf(pfSW[v - iC + 1]));
        pfDiagY[v] = pfDiagX[v];
    }
    for (int32_t l = 0; l < pstLevel->iLines; l++) {
        const tagST_MESH_LINE *pstLine = &pstLevel->pstLines[l];
        const float fNx = fabsf(pstLine->fNx), fNy = fabsf(pstLine->fNy);
        for (int32_t k = 0; k < pstLine->iCount; k++) {
            const tagST_MESH_SAMPLE *pstS = &pstSamples[pstLine->iFirst + k];
            const float *afW = pstS->afW;
            const int32_t aiV[4] = {pstS->iVertex, pstS->iVertex + 1, pstS->iVertex + iC, pstS->iVertex + iC + 1};
            for (int32_t n = 0; n < 4; n++) {
                const float fW = pstLevel->fLineWeight * pstS->fWeight * afW[n] * (fNx + fNy);
                pfDiagX[aiV[n]] += fW * fNx;
                pfDiagY[aiV[n]] += fW * fNy;
            }
        }
    }
    memcpy(pstLevel->pfRhs, pstLevel->pfRhsBase, 2u * (uint32_t)pstLevel->iPlane * sizeof(float));
    for (int32_t t = 0; t < pstLevel->iFolds; t++) {
        const tagST_MESH_FOLD_TERM *pstTerm = &pstLevel->pstFolds[t];
        float fSum = 0.0f;
        for (int32_t k = 0; k < LDC_MESH_FOLD_UNKNOWNS; k++) {
            fSum += fabsf(pstTerm->afCoef[k]);
        }
        for (int32_t k = 0; k < LDC_MESH_FOLD_UNKNOWNS; k++) {
            pstLevel->pfDiagInv[pstTerm->aiIndex[k]] += fabsf(pstTerm->afCoef[k]) * fSum;
            pstLevel->pfRhs[pstTerm->aiIndex[k]] += pstTerm->afCoef[k] * pstTerm->fRhs;
        }
    }
    for (int32_t v = 0; v < pstLevel->iVertices; v++) {
        for (int32_t c = 0; c < 2; c++) {
            const int32_t n = Unknown(pstLevel, v, c);
            pstLevel->pfDiagInv[n] = pstLevel->pfDiagInv[n] > 0.0f ? 1.0f / pstLevel->pfDiagInv[n] : 0.0f;
        }
    }
    ZeroHeld(pstLevel, pstLevel->pfDiagInv);
    ZeroHeld(pstLevel, pstLevel->pfRhs);
}

// Dot products in double over four interleaved partial sums, added in a fixed order: the same
// sums on every target and run.
static double Dot(const float *pfA, const float *pfB, int32_t iN)
{
    double adSum[4] = {0.0, 0.0, 0.0, 0.0};
    int32_t i = 0;
    for (; i + 4 <= iN; i += 4) {
        for (int32_t k = 0; k < 4; k++) {
            adSum[k] += (double)pfA[i + k] * (double)pfB[i + k];
        }
    }
    for (; i < iN; i++) {
        adSum[0] += (double)pfA[i] * (double)pfB[i];
    }
    return (adSum[0] + adSum[1]) + (adSum[2] + adSum[3]);
}

// pfZ += omega D^-1 (pfR - A pfZ), or pfZ = omega D^-1 pfR when bZero.
static void JacobiSweep(const tagST_MESH_LEVEL *pstLevel, const tagST_MESH_SAMPLE *pstSamples, const float *pfR,
                        float *pfZ, float *pfTmp, int32_t bZero)
{
    if (!bZero) {
        ApplySystem(pstLevel, pstSamples, pfZ, pfTmp);
    }
    MESH_JACOBI(pstLevel->pfDiagInv, pfR, bZero ? NULL : pfTmp, pfZ, kOmega, 0, 2 * pstLevel->iPlane);
}

// The transfer tables of a level toward the next coarser one.
static void BuildTransfer(tagST_MESH_LEVEL *pstFine, const tagST_MESH_LEVEL *pstCoarse)
{
    const tagST_MESH_GRID *pstF = &pstFine->stGrid, *pstC = &pstCoarse->stGrid;
    float fA, fB;
    for (int32_t i = 0; i < pstF->iCols; i++) {
        pstFine->piColCell[i] = CellOf(pstC, (float)i * pstF->fStepX, 0.0f, &fA, &fB);
        pstFine->pfColFrac[i] = fA;
    }
    for (int32_t j = 0; j < pstF->iRows; j++) {
        pstFine->piRowCell[j] = CellOf(pstC, 0.0f, (float)j * pstF->fStepY, &fA, &fB) / pstC->iCols;
        pstFine->pfRowFrac[j] = fB;
    }
}

// pfFine (+)= P pfCoarse: bilinear prolongation; held components stay zero (both grids span the
// frame, so they are held on both).
static void ProlongVector(const tagST_MESH_LEVEL *pstCoarse, const float *pfCoarse, const tagST_MESH_LEVEL *pstFine,
                          float *pfFine, int32_t bAdd)
{
    const int32_t iCc = pstCoarse->stGrid.iCols, iCols = pstFine->stGrid.iCols, iRows = pstFine->stGrid.iRows;
    const int32_t *piColCell = pstFine->piColCell;
    const float *pfColFrac = pstFine->pfColFrac;
    // Each coarse row's values along the fine columns, once for the fine rows between it and the next.
    float aafAlong[2][LDC_MESH_MAX_CELLS + 1];
    for (int32_t c = 0; c < 2; c++) {
        float *pfF = pfFine + c * pstFine->iPlane + pstFine->iMargin;
        int32_t iHave = -2;   // the coarse row in aafAlong[0] (the next one in aafAlong[1])
        for (int32_t j = 0; j < iRows; j++, pfF += iCols) {
            const int32_t iRow = pstFine->piRowCell[j];
            if (iRow != iHave) {
                for (int32_t r = 0; r < 2; r++) {
                    const float *pfC = pfCoarse + c * pstCoarse->iPlane + pstCoarse->iMargin + (iRow + r) * iCc;
                    for (int32_t i = 0; i < iCols; i++) {
                        const int32_t n = piColCell[i];
                        aafAlong[r][i] = pfC[n] + pfColFrac[i] * (pfC[n + 1] - pfC[n]);
                    }
                }
                iHave = iRow;
            }
            const float fB = pstFine->pfRowFrac[j];
            const float *__restrict pf0 = aafAlong[0], *__restrict pf1 = aafAlong[1];
            for (int32_t i = 0; i < iCols; i++) {
                pfF[i] = (bAdd ? pfF[i] : 0.0f) + (pf0[i] + fB * (pf1[i] - pf0[i]));
            }
        }
    }
    ZeroHeld(pstFine, pfFine);
}

// pfCoarse = P^T pfFine times the ratio of the cell areas: every level's system is an energy per
// area, so the coarse one stands for P^T A P over that ratio. Held components stay zero.
static void RestrictVector(const tagST_MESH_LEVEL *pstFine, const float *pfFine, const tagST_MESH_LEVEL *pstCoarse,
                           float *pfCoarse)
{
    const tagST_MESH_GRID *pstF = &pstFine->stGrid, *pstC = &pstCoarse->stGrid;
    const int32_t iCc = pstC->iCols;
    const float fRatio = (pstF->fStepX * pstF->fStepY) / (pstC->fStepX * pstC->fStepY);
    memset(pfCoarse, 0, 2u * (uint32_t)pstCoarse->iPlane * sizeof(float));
    const int32_t iCols = pstF->iCols, iRows = pstF->iRows;
    const int32_t *piColCell = pstFine->piColCell;
    const float *pfColFrac = pstFine->pfColFrac;
    for (int32_t c = 0; c < 2; c++) {
        const float *pfF = pfFine + c * pstFine->iPlane + pstFine->iMargin;
        for (int32_t j = 0; j < iRows; j++, pfF += iCols) {
            float *__restrict pfC0 = pfCoarse + c * pstCoarse->iPlane + pstCoarse->iMargin + pstFine->piRowCell[j] * iCc;
            float *__restrict pfC1 = pfC0 + iCc;
            const float fB = pstFine->pfRowFrac[j], fNotB = 1.0f - fB;
            for (int32_t i = 0; i < iCols; i++) {
                const float fA = pfColFrac[i], fNotA = 1.0f - fA;
                const int32_t n = piColCell[i];
                const float fV = fRatio * pfF[i];
                pfC0[n] += fNotA * fNotB * fV;
                pfC0[n + 1] += fA * fNotB * fV;
                pfC1[n] += fNotA * fB * fV;
                pfC1[n + 1] += fA * fB * fV;
            }
        }
    }
    ZeroHeld(pstCoarse, pfCoarse);
}

static int32_t ConjugateGradients(tagST_MESH_LEVEL *astLevels, const tagST_MESH_SAMPLE *pstSamples, int32_t iLevel,
                                  int32_t iLevels, double dTolerance, int32_t iMaxIterations, float *pfResidual);

// pfZ = M^-1 pfR at level l: a V-cycle over the levels below, or at the coarsest level a solve
// (conjugate gradients in that level's own arrays, to a thousandth: the cycle's smoothing above
// leaves more error than that).
static void VCycle(tagST_MESH_LEVEL *astLevels, const tagST_MESH_SAMPLE *pstSamples, int32_t l, int32_t iLevels,
                   const float *pfR, float *pfZ, float *pfTmp)
{
    tagST_MESH_LEVEL *pstLevel = &astLevels[l];
    const int32_t iN = 2 * pstLevel->iPlane;
    if (l == iLevels - 1) {
        memcpy(pstLevel->pfRhs, pfR, (size_t)iN * sizeof(float));
        memset(pstLevel->pfX, 0, (size_t)iN * sizeof(float));
        float fResidual;
        ConjugateGradients(astLevels, pstSamples, l, l + 1, LDC_MESH_COARSEST_TOLERANCE, 2 * pstLevel->iVertices,
                           &fResidual);
        memcpy(pfZ, pstLevel->pfX, (size_t)iN * sizeof(float));
        return;
    }
    tagST_MESH_LEVEL *pstCoarse = &astLevels[l + 1];
    for (int32_t s = 0; s < kSweeps; s++) {
        JacobiSweep(pstLevel, pstSamples, pfR, pfZ, pfTmp, s == 0);
    }
    ApplySystem(pstLevel, pstSamples, pfZ, pfTmp);
    MESH_AXPY(pfTmp, pfR, -1.0f, pfTmp, 0, iN);   // r - t, exactly
    RestrictVector(pstLevel, pfTmp, pstCoarse, pstCoarse->pfR);
    VCycle(astLevels, pstSamples, l + 1, iLevels, pstCoarse->pfR, pstCoarse->pfZ, pstCoarse->pfQ);
    ProlongVector(pstCoarse, pstCoarse->pfZ, pstLevel, pfZ, 1);
    for (int32_t s = 0; s < kSweeps; s++) {
        JacobiSweep(pstLevel, pstSamples, pfR, pfZ, pfTmp, 0);
    }
}

// Preconditioned conjugate gradients on A x = b at level iLevel from its x: the preconditioner is
// a V-cycle over the levels below when there are any, else Jacobi. Returns the iterations.
static int32_t ConjugateGradients(tagST_MESH_LEVEL *astLevels, const tagST_MESH_SAMPLE *pstSamples, int32_t iLevel,
                                  int32_t iLevels, double dTolerance, int32_t iMaxIterations, float *pfResidual)
{
    tagST_MESH_LEVEL *pstLevel = &astLevels[iLevel];
    const int32_t bMultigrid = iLevel + 1 < iLevels;
    const int32_t iN = 2 * pstLevel->iPlane;
    float *pfX = pstLevel->pfX, *pfR = pstLevel->pfR, *pfZ = pstLevel->pfZ, *pfP = pstLevel->pfP, *pfQ = pstLevel->pfQ;
    ApplySystem(pstLevel, pstSamples, pfX, pfQ);
    for (int32_t i = 0; i < iN; i++) {
        pfR[i] = pstLevel->pfDiagInv[i] != 0.0f ? pstLevel->pfRhs[i] - pfQ[i] : 0.0f;
    }
    const double dRhs = Dot(pstLevel->pfRhs, pstLevel->pfRhs, iN);
    const double dNorm = dRhs > 0.0 ? dRhs : 1.0;
    const double dStop = dTolerance * dTolerance * dNorm;
    double dRr = Dot(pfR, pfR, iN);
    double dRz = 0.0;
    int32_t iIter = 0;
    while (iIter < iMaxIterations && dRr > dStop) {
        if (bMultigrid) {
            VCycle(astLevels, pstSamples, iLevel, iLevels, pfR, pfZ, pfQ);
        } else {
            MESH_JACOBI(pstLevel->pfDiagInv, pfR, NULL, pfZ, 1.0f, 0, iN);
        }
        const double dRzNext = Dot(pfR, pfZ, iN);
        if (!(dRzNext > 0.0)) {
            break;
        }
        const float fBeta = iIter == 0 ? 0.0f : (float)(dRzNext / dRz);
        MESH_AXPY(pfP, pfZ, fBeta, pfP, 0, iN);
        dRz = dRzNext;
        ApplySystem(pstLevel, pstSamples, pfP, pfQ);
        const double dPq = Dot(pfP, pfQ, iN);
        if (!(dPq > 0.0)) {
            break;
        }
        const float fAlpha = (float)(dRz / dPq);
        MESH_AXPY(pfX, pfX, fAlpha, pfP, 0, iN);
        MESH_AXPY(pfR, pfR, -fAlpha, pfQ, 0, iN);   // r - alpha q, exactly
        dRr = Dot(pfR, pfR, iN);
        iIter++;
    }
    *pfResidual = (float)sqrt(dRr / dNorm);
    return iIter;
}

// Every level's terms for the faces: data, bending and line terms and the preconditioner.
// Returns 0 when no face reaches a vertex of the finest level.
static int32_t BuildLevels(const tagST_MESH_INPUT *pstIn, const tagST_MESH_FACE *pstFaces, int32_t iFaces,
                           const tagST_MESH_SEGMENT_ORDER *pstOrder, int32_t iSegments, tagST_MESH_LEVEL *astLevels,
                           int32_t iLevels, tagST_MESH_SAMPLE *pstSamples)
{
    int32_t iReached = 0;
    int32_t iUsed = 0;
    for (int32_t l = 0; l < iLevels; l++) {
        const int32_t iLevelReached = BuildDataTerms(pstIn, pstFaces, iFaces, &astLevels[l]);
        iReached = l == 0 ? iLevelReached : iReached;
        // Samples index from the pool's start; each level's lines take the next free ones.
        const int32_t iLevelUsed = BuildLineTerms(pstIn, pstFaces, iFaces, pstOrder, iSegments, &astLevels[l],
                                                  pstSamples + iUsed, LDC_MESH_MAX_SAMPLES - iUsed);
        for (int32_t n = 0; n < astLevels[l].iLines; n++) {
            astLevels[l].pstLines[n].iFirst += iUsed;
        }
        iUsed += iLevelUsed;
        astLevels[l].iFolds = 0;
        BuildPreconditioner(&astLevels[l], pstSamples);
    }
    return iReached;
}

// The finest level from the start in its x, then as many rounds of the fold guard as it takes,
// within iBudget iterations. Returns the iterations.
static int32_t SolveFinest(tagST_MESH_LEVEL *astLevels, int32_t iLevels, const tagST_MESH_SAMPLE *pstSamples,
                           float fLength, int32_t iBudget, uint8_t *pucActive, float *pfResidual, int32_t *piFoldRounds)
{
    tagST_MESH_LEVEL *pstFine = &astLevels[0];
    memset(pucActive, 0, 4u * (uint32_t)pstFine->iVertices);
    int32_t iIter = 0;
    for (int32_t iRound = 0;; iRound++) {
        const float fMin = BuildFoldTerms(pstFine, fLength, pucActive);
        if (iRound > 0 && fMin >= kFoldFloor - kFoldSettle) {
            break;
        }
        BuildPreconditioner(pstFine, pstSamples);
        const int32_t iLeft = iBudget - iIter;
        iIter += ConjugateGradients(astLevels, pstSamples, 0, iLevels, LDC_MESH_TOLERANCE,
                                    iLeft < LDC_MESH_MAX_ITERATIONS ? iLeft : LDC_MESH_MAX_ITERATIONS, pfResidual);
        if (iRound + 1 >= kFoldGuardRounds || iIter >= iBudget) {
            break;
        }
        *piFoldRounds = iRound + 1;
    }
    return iIter;
}

// The faces to correct at a strength; returns their number.
static int32_t PrepareFaces(const tagST_MESH_INPUT *pstIn, float fStrength, tagST_MESH_FACE *pstFaces)
{
    int32_t iFaces = 0;
    if (!(fStrength > 0.0f && fStrength <= 1.0f && pstIn->fFocal > 0.0f && isfinite(pstIn->fFocal) &&
          pstIn->paiFaces != NULL)) {
        return 0;
    }
    const int32_t iFaceNum = pstIn->iFaceNum < LDC_MAX_FACES ? pstIn->iFaceNum : LDC_MAX_FACES;
    for (int32_t k = 0; k < iFaceNum; k++) {
        const float fFade = pstIn->pfFaceStrength != NULL ? pstIn->pfFaceStrength[k] : 1.0f;
        if (fFade > 0.0f && fFade <= 1.0f) {
            iFaces += PrepareFace(pstIn, pstIn->paiFaces[k], fStrength * fFade, &pstFaces[iFaces]);
        }
    }
    return iFaces;
}

// Smallest ratio of a cell's area in corrected pixels to its area in the output, at the cells'
// corners (where a bilinear cell's Jacobian takes its extremes): 1 for lens correction alone,
// near 0 or below where the map folds or magnifies a strip without bound.
static float SmallestAreaRatio(const tagST_MESH_GRID *pstGrid, const float *pfMesh)
{
    const int32_t iCols = pstGrid->iCols;
    const float fSx = pstGrid->fStepX, fSy = pstGrid->fStepY;
    float fMin = 1e30f;
    for (int32_t j = 0; j + 1 < pstGrid->iRows; j++) {
        for (int32_t i = 0; i + 1 < iCols; i++) {
            const float *pf00 = pfMesh + 2 * (j * iCols + i), *pf10 = pf00 + 2, *pf01 = pf00 + 2 * iCols,
                        *pf11 = pf01 + 2;
            // Edge vectors of the corrected cell: top, bottom, left, right.
            const float fTx = fSx + pf10[0] - pf00[0], fTy = pf10[1] - pf00[1];
            const float fBx = fSx + pf11[0] - pf01[0], fBy = pf11[1] - pf01[1];
            const float fLx = pf01[0] - pf00[0], fLy = fSy + pf01[1] - pf00[1];
            const float fRx = pf11[0] - pf10[0], fRy = fSy + pf11[1] - pf10[1];
            const float afDet[4] = {fTx * fLy - fTy * fLx, fTx * fRy - fTy * fRx, fBx * fLy - fBy * fLx,
                                    fBx * fRy - fBy * fRx};
            for (int32_t k = 0; k < 4; k++) {
                fMin = afDet[k] < fMin ? afDet[k] : fMin;
            }
        }
    }
    return fMin / (fSx * fSy);
}

static int CompareSegments(const void *pvA, const void *pvB)
{
    const tagST_MESH_SEGMENT_ORDER *pstA = (const tagST_MESH_SEGMENT_ORDER *)pvA;
    const tagST_MESH_SEGMENT_ORDER *pstB = (const tagST_MESH_SEGMENT_ORDER *)pvB;
    if (pstA->fLength != pstB->fLength) {
        return pstA->fLength > pstB->fLength ? -1 : 1;
    }
    return pstA->iIndex < pstB->iIndex ? -1 : (pstA->iIndex > pstB->iIndex ? 1 : 0);
}

// The segments offered, longest first (a line finder lists them by angle: the first ones alone
// would all run one way); equal lengths keep the input's order. Returns their number.
static int32_t OrderSegments(const tagST_MESH_INPUT *pstIn, tagST_MESH_SEGMENT_ORDER *pstOrder)
{
    if (pstIn->pstLines == NULL || pstIn->iLineNum <= 0 || !(kLineWeight > 0.0f)) {
        return 0;
    }
    const int32_t iSegments = pstIn->iLineNum < LDC_MESH_SCAN_SEGMENTS ? pstIn->iLineNum : LDC_MESH_SCAN_SEGMENTS;
    for (int32_t l = 0; l < iSegments; l++) {
        const stLine *pstSegment = &pstIn->pstLines[l];
        const double dDx = (double)pstSegment->Pnt1.x - (double)pstSegment->Pnt0.x;
        const double dDy = (double)pstSegment->Pnt1.y - (double)pstSegment->Pnt0.y;
        pstOrder[l].fLength = (float)sqrt(dDx * dDx + dDy * dDy);
        pstOrder[l].iIndex = l;
    }
    qsort(pstOrder, (size_t)iSegments, sizeof(pstOrder[0]), CompareSegments);
    return iSegments;
}

int32_t FaceMeshSolve(const tagST_MESH_INPUT *pstIn, float *pfMesh, uint8_t *pucWork, uint32_t uWorkBytes,
                      tagST_MESH_STATS *pstStats)
{
    memset(pstStats, 0, sizeof(*pstStats));
    if (pstIn == NULL || pfMesh == NULL || pucWork == NULL || pstIn->iWidth < 2 || pstIn->iHeight < 2 ||
        pstIn->iWidth > LDC_MAX_IMAGE_SIZE || pstIn->iHeight > LDC_MAX_IMAGE_SIZE ||
        uWorkBytes < FaceMeshWorkBytes(pstIn->iWidth, pstIn->iHeight, pstIn->iCells) || ((uintptr_t)pucWork & 7u) != 0) {
        return LDC_MESH_ERR_ARGS;
    }
    int32_t aiCells[LDC_MESH_MAX_LEVELS];
    const int32_t iLevels = LevelCells(pstIn->iWidth, pstIn->iHeight, pstIn->iCells, aiCells);
    tagST_MESH_LEVEL astLevels[LDC_MESH_MAX_LEVELS];
    float *pfFree = (float *)pucWork;
    for (int32_t l = 0; l < iLevels; l++) {
        GridOfCells(pstIn->iWidth, pstIn->iHeight, aiCells[l], &astLevels[l].stGrid);
        pfFree = CarveLevel(pfFree, &astLevels[l]);
    }
    for (int32_t l = 0; l + 1 < iLevels; l++) {
        BuildTransfer(&astLevels[l], &astLevels[l + 1]);
    }
    tagST_MESH_LINE *pstLines = (tagST_MESH_LINE *)pfFree;
    for (int32_t l = 0; l < iLevels; l++) {
        astLevels[l].pstLines = pstLines + l * LDC_MESH_MAX_SEGMENTS;
        astLevels[l].iLines = 0;
        astLevels[l].pstFolds = NULL;
        astLevels[l].iFolds = 0;
    }
    tagST_MESH_SAMPLE *pstSamples = (tagST_MESH_SAMPLE *)(pstLines + iLevels * LDC_MESH_MAX_SEGMENTS);
    tagST_MESH_LEVEL *pstFine = &astLevels[0];
    pstFine->pstFolds = (tagST_MESH_FOLD_TERM *)(pstSamples + LDC_MESH_MAX_SAMPLES);
    tagST_MESH_SEGMENT_ORDER *pstOrder = (tagST_MESH_SEGMENT_ORDER *)(pstFine->pstFolds + LDC_MESH_MAX_FOLD_TERMS);
    const int32_t iSegments = OrderSegments(pstIn, pstOrder);
    float *pfStart = (float *)(pstOrder + LDC_MESH_SCAN_SEGMENTS);
    uint8_t *pucActive = (uint8_t *)(pfStart + 2 * pstFine->iVertices);
    const int32_t iV = pstFine->iVertices;
    const uint32_t uMeshBytes = (uint32_t)iV * 2u * (uint32_t)sizeof(float);

    // A warm start is kept aside: every round starts from it (a still scene then gives back its
    // mesh bit for bit, whatever round it was found in). Values that are not finite start from 0.
    if (pstIn->pfWarmStart != NULL) {
        for (int32_t i = 0; i < 2 * iV; i++) {
            pfStart[i] = isfinite(pstIn->pfWarmStart[i]) ? pstIn->pfWarmStart[i] : 0.0f;
        }
    } else {
        pfStart = NULL;
    }

    // Faces crowded together or into a corner can ask for more than the frame holds: the map
    // then folds. The strength is lowered until it does not, as the homography's is for its
    // field of view; after the last round the solve gives up.
    tagST_MESH_FACE astFaces[LDC_MAX_FACES];
    float fStrength = pstIn->fStrength;
    for (int32_t iRound = 0;; iRound++) {
        const int32_t iFaces = PrepareFaces(pstIn, fStrength, astFaces);
        if (iFaces == 0 || BuildLevels(pstIn, astFaces, iFaces, pstOrder, iSegments, astLevels, iLevels, pstSamples) == 0) {
            memset(pfMesh, 0, uMeshBytes);   // no face to correct: exactly lens correction alone
            memset(pstStats, 0, sizeof(*pstStats));
            return LDC_MESH_OK;
        }
        // The start: the warm start, else the cascade from the coarsest level, each level's
        // solution spread over the next (its smooth part is then right, and the finer solve only
        // has the detail to add).
        if (pfStart != NULL) {
            for (int32_t v = 0; v < iV; v++) {
                pstFine->pfX[Unknown(pstFine, v, 0)] = pfStart[2 * v];
                pstFine->pfX[Unknown(pstFine, v, 1)] = pfStart[2 * v + 1];
            }
            ZeroHeld(pstFine, pstFine->pfX);
        } else {
            memset(astLevels[iLevels - 1].pfX, 0, 2u * (uint32_t)astLevels[iLevels - 1].iPlane * sizeof(float));
            for (int32_t l = iLevels - 1; l > 0; l--) {
                float fResidual;
                pstStats->iCoarseIterations +=
                    ConjugateGradients(astLevels, pstSamples, l, iLevels, LDC_MESH_START_TOLERANCE,
                                       LDC_MESH_START_ITERATIONS, &fResidual);
                ProlongVector(&astLevels[l], astLevels[l].pfX, &astLevels[l - 1], astLevels[l - 1].pfX, 0);
            }
        }
        pstStats->iIterations +=
            SolveFinest(astLevels, iLevels, pstSamples, LengthScale(astFaces, iFaces),
                        LDC_MESH_ITERATION_BUDGET - pstStats->iIterations, pucActive, &pstStats->fResidual,
                        &pstStats->iFoldRounds);
        for (int32_t v = 0; v < iV; v++) {
            pfMesh[2 * v] = pstFine->pfX[Unknown(pstFine, v, 0)];
            pfMesh[2 * v + 1] = pstFine->pfX[Unknown(pstFine, v, 1)];
        }
        pstStats->iRounds = iRound + 1;
        pstStats->fStrength = fStrength;
        for (int32_t i = 0; i < 2 * iV; i++) {
            if (!isfinite(pfMesh[i])) {
                memset(pfMesh, 0, uMeshBytes);
                return LDC_MESH_ERR_NUMERIC;
            }
        }
        if (SmallestAreaRatio(&pstFine->stGrid, pfMesh) >= kMinAreaRatio) {
            return LDC_MESH_OK;
        }
        if (iRound + 1 == LDC_MESH_FOLD_ROUNDS || pstStats->iIterations >= LDC_MESH_ITERATION_BUDGET) {
            memset(pfMesh, 0, uMeshBytes);
            return LDC_MESH_ERR_FOLD;
        }
        fStrength *= LDC_MESH_FOLD_SHRINK;
    }
}

float FaceMeshStepBound(int32_t iWidth, int32_t iHeight)
{
    return (float)(iWidth > iHeight ? iWidth : iHeight) * kStepShare;
}

float FaceMeshFollow(const tagST_MESH_GRID *pstGrid, const float *pfSolved, float *pfShown, float fMaxStep)
{
    const int32_t iFloats = 2 * VertexCount(pstGrid);
    float fFarthest = 0.0f;
    for (int32_t i = 0; i < iFloats; i += 2) {
        const float fDx = pfSolved[i] - pfShown[i], fDy = pfSolved[i + 1] - pfShown[i + 1];
        const float fStep = sqrtf(fDx * fDx + fDy * fDy);
        fFarthest = fStep > fFarthest ? fStep : fFarthest;
    }
    if (!(fFarthest > fMaxStep)) {
        memcpy(pfShown, pfSolved, (size_t)iFloats * sizeof(float));
        return fFarthest;
    }
    const float fShare = fMaxStep / fFarthest;
    for (int32_t i = 0; i < iFloats; i++) {
        pfShown[i] += fShare * (pfSolved[i] - pfShown[i]);
    }
    return fMaxStep;
}

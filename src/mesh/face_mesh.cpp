#include "mesh/face_mesh.h"

#include <math.h>
#include <string.h>

#include "vkt_zb_ldc.h"   // LDC_MAX_FACES, LDC_MAX_IMAGE_SIZE

// Cells along the longer side, whatever the frame's size: a preview stream and a still capture of
// the same scene get the same correction (and finer grids only sharpen the transitions around
// faces, which then fold sooner).
#define LDC_MESH_CELLS 32
#define LDC_MESH_MAX_ITERATIONS 300  // bounds the solve's time whatever the input
#define LDC_MESH_TOLERANCE 1e-5      // relative residual at which the solve stops
#define LDC_MESH_LENS_STEPS 12       // Newton steps of the inverse lens model
#define LDC_MESH_SAMPLES_PER_CELL 2  // line-term samples per cell along a segment
#define LDC_MESH_MAX_TERMS 2048      // line-term sample triples
#define LDC_MESH_LINE_VERTICES 12    // a line term's vertices: three samples of four each
#define LDC_MESH_FIT_STEPS 12        // bisection steps of a crowded face's strength
#define LDC_MESH_FOLD_ROUNDS 6       // solves, the strength shrinking each time, before giving up
#define LDC_MESH_FOLD_SHRINK 0.75f

// Weights of the energy for displacements in pixels: per vertex (faces, background), per grid
// edge (smoothness) and per line sample. The face and background weights fade over bands of
// the elliptic face distance e (1 on the corrected face's outline). The smoothness follows the
// smallest face, so that the transition from a face to the background spans a fixed share of
// the face's radius whatever the grid's spacing; inside a face the face term alone rules.
static const float kFaceWeight = 64.0f;
static const float kBackgroundWeight = 1.0f;
static const float kFaceBand = 0.5f;           // face weight falls to zero from e = 1 to 1 + band
static const float kBackgroundBand = 1.5f;     // background weight rises from e = 1 to 1 + band
static const float kTransitionShare = 1.0f;    // decay length of the transition / face radius
static const float kLineWeight = 32.0f;
static const float kEdgeRelease = 0.25f;       // face weight fades over this share of its radius
                                               // as its target nears the frame's edge
static const float kFitTolerance = 0.15f;      // how far (share of the radius) a corrected face may
                                               // leave the face's widened box
static const float kMaxStereo = 0.81f;         // (r_s / 2f)^2 beyond which a face's map is cut off
static const float kMinAreaRatio = 0.1f;       // a cell may show at most ten times its area

// One face, in lens-corrected pixels.
typedef struct tagST_MESH_FACE {
    float fStereoCx;  // stereographic image of the face's centre
    float fStereoCy;
    float fScale;     // similarity scale: the face's tangential size kept
    float fOx;        // where the face's centre goes in the output
    float fOy;
    float afShape[4]; // inverse of the corrected face's shape: |afShape (p - O)| = 1 on its outline
    float fRadius;    // the face's smaller half extent
    float fStrength;  // 0..1: how far toward the face map
} tagST_MESH_FACE;

// What the placement of a face needs at a strength: the upright face (w, h), u, sec(theta),
// the half extents of its box and how far its centre moves per unit of strength along u.
typedef struct tagST_MESH_FACE_FIT {
    float fW;
    float fH;
    float fUx;
    float fUy;
    float fSec;
    float fHalfX;
    float fHalfY;
    float fMovePerStrength;
} tagST_MESH_FACE_FIT;

// One sample of the line term: n . (d(a) - 2 d(b) + d(c)) over the bilinear weights of a, b, c.
typedef struct tagST_MESH_LINE_TERM {
    int32_t aiVertex[LDC_MESH_LINE_VERTICES];
    float afWeight[LDC_MESH_LINE_VERTICES];
    float fNx;
    float fNy;
} tagST_MESH_LINE_TERM;

// One level's arrays in the work area: per vertex the data weight, the smoothness weights of
// the edges to the right and below, then two floats per vertex each for the right-hand side,
// the preconditioner and the four conjugate-gradient vectors.
typedef struct tagST_MESH_LEVEL {
    tagST_MESH_GRID stGrid;
    float *pfWeight;
    float *pfEdgeRight;
    float *pfEdgeDown;
    float *pfRhs;
    float *pfDiagInv;
    float *pfR;
    float *pfZ;
    float *pfP;
    float *pfQ;
} tagST_MESH_LEVEL;

static const uint32_t kVertexFloats = 3u + 6u * 2u;

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

void FaceMeshGrid(int32_t iWidth, int32_t iHeight, tagST_MESH_GRID *pstGrid)
{
    GridOfCells(iWidth, iHeight, LDC_MESH_CELLS, pstGrid);
}

// The grid of half the cells whose solution starts a cold solve.
static void CoarseGrid(int32_t iWidth, int32_t iHeight, tagST_MESH_GRID *pstGrid)
{
    GridOfCells(iWidth, iHeight, LDC_MESH_CELLS / 2, pstGrid);
}

static uint32_t VertexCount(const tagST_MESH_GRID *pstGrid)
{
    return (uint32_t)pstGrid->iCols * (uint32_t)pstGrid->iRows;
}

uint32_t FaceMeshBytes(int32_t iWidth, int32_t iHeight)
{
    tagST_MESH_GRID stGrid;
    FaceMeshGrid(iWidth, iHeight, &stGrid);
    return VertexCount(&stGrid) * 2u * (uint32_t)sizeof(float);
}

uint32_t FaceMeshWorkBytes(int32_t iWidth, int32_t iHeight)
{
    tagST_MESH_GRID stFine, stCoarse;
    FaceMeshGrid(iWidth, iHeight, &stFine);
    CoarseGrid(iWidth, iHeight, &stCoarse);
    // Both levels' arrays, the coarse solution, the line terms and a copy of the warm start.
    const uint32_t uFloats = VertexCount(&stFine) * kVertexFloats + VertexCount(&stCoarse) * (kVertexFloats + 2u);
    return uFloats * (uint32_t)sizeof(float) + LDC_MESH_MAX_TERMS * (uint32_t)sizeof(tagST_MESH_LINE_TERM) +
           FaceMeshBytes(iWidth, iHeight);
}

// Carves one level's arrays from pfBase; returns the first float after them.
static float *CarveLevel(float *pfBase, tagST_MESH_LEVEL *pstLevel)
{
    const int32_t iV = (int32_t)VertexCount(&pstLevel->stGrid);
    pstLevel->pfWeight = pfBase;
    pstLevel->pfEdgeRight = pfBase + iV;
    pstLevel->pfEdgeDown = pfBase + 2 * iV;
    pstLevel->pfRhs = pfBase + 3 * iV;
    pstLevel->pfDiagInv = pstLevel->pfRhs + 2 * iV;
    pstLevel->pfR = pstLevel->pfDiagInv + 2 * iV;
    pstLevel->pfZ = pstLevel->pfR + 2 * iV;
    pstLevel->pfP = pstLevel->pfZ + 2 * iV;
    pstLevel->pfQ = pstLevel->pfP + 2 * iV;
    return pstLevel->pfQ + 2 * iV;
}

// Corrected point of a recorded one: Newton on the radius, r f(r^2) = rho, from r = rho. A lens
// whose radius stops growing ends the steps where it stands.
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

// At strength s the corrected face keeps the remainder of the stretch: its shape is R = S' D with
// S' = I + (1 - s) (sec - 1) u u^T and D = diag(w, h), and its centre moves by s times the move.
// Returns how far the corrected face stays inside the face's box (negative: it leaves it) and,
// when pstFace is given, stores the inverse shape and the move there.
static float FitSlack(const tagST_MESH_FACE_FIT *pstFit, float fS, tagST_MESH_FACE *pstFace)
{
    const float fKeep = (1.0f - fS) * (pstFit->fSec - 1.0f);
    const float fUx = pstFit->fUx, fUy = pstFit->fUy;
    const float fRxx = (1.0f + fKeep * fUx * fUx) * pstFit->fW, fRxy = fKeep * fUx * fUy * pstFit->fH;
    const float fRyx = fKeep * fUx * fUy * pstFit->fW, fRyy = (1.0f + fKeep * fUy * fUy) * pstFit->fH;
    const float fMoveX = fS * pstFit->fMovePerStrength * fUx, fMoveY = fS * pstFit->fMovePerStrength * fUy;
    const float fSlackX = pstFit->fHalfX - sqrtf(fRxx * fRxx + fRxy * fRxy) - fabsf(fMoveX);
    const float fSlackY = pstFit->fHalfY - sqrtf(fRyx * fRyx + fRyy * fRyy) - fabsf(fMoveY);
    if (pstFace != NULL) {
        const float fDet = fRxx * fRyy - fRxy * fRyx;
        pstFace->afShape[0] = fRyy / fDet;
        pstFace->afShape[1] = -fRxy / fDet;
        pstFace->afShape[2] = -fRyx / fDet;
        pstFace->afShape[3] = fRxx / fDet;
        pstFace->fOx = fMoveX;
        pstFace->fOy = fMoveY;
    }
    return fSlackX < fSlackY ? fSlackX : fSlackY;
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
    // Keeping the tangential size: s = (perspective tangential scale) / (stereographic scale)
    // = cos^2(theta / 2) / cos(theta) = (1 + sqrt(1 + tau^2)) / 2, tau = r_p / f.
    pstFace->fScale = 0.5f * (1.0f + fSec);
    Stereo(pstIn, fCx, fCy, &pstFace->fStereoCx, &pstFace->fStereoCy);
    // Where the corrected face goes: it loses radial size, and the room freed is shared by the
    // gaps to the frame's edge on both sides along u in proportion to their size, so that both
    // stretch alike. A face at the edge keeps its outer side where it was (the edge is held, and
    // a strip between would be magnified).
    tagST_MESH_FACE_FIT stFit = {fFw, fFh, fUx, fUy, fSec, fHalfX, fHalfY, 0.0f};
    const float fReach = sqrtf(fFw * fFw * fUx * fUx + fFh * fFh * fUy * fUy);   // |D u|
    const float fOut = DistanceToEdge(pstIn, fCx, fCy, fUx, fUy) - fSec * fReach;
    const float fIn = DistanceToEdge(pstIn, fCx, fCy, -fUx, -fUy) - fSec * fReach;
    const float fRoomOut = fOut > 0.0f ? fOut : 0.0f, fRoomIn = fIn > 0.0f ? fIn : 0.0f;
    stFit.fMovePerStrength =
        fRoomOut + fRoomIn > 0.0f ? (fSec - 1.0f) * fReach * (fRoomIn - fRoomOut) / (fRoomIn + fRoomOut) : 0.0f;
    // The corrected face must come no nearer to an edge of the frame than the face's widened box
    // (up to a share of its radius, the slack between a detector's box and the face): a face
    // crowded into a corner gets the largest strength with which it stays there.
    const float fTolerance = -kFitTolerance * pstFace->fRadius;
    float fFitting = fStrength;
    if (FitSlack(&stFit, fStrength, NULL) < fTolerance) {
        float fLo = 0.0f, fHi = fStrength;
        for (int32_t i = 0; i < LDC_MESH_FIT_STEPS; i++) {
            const float fMid = 0.5f * (fLo + fHi);
            if (FitSlack(&stFit, fMid, NULL) < fTolerance) {
                fHi = fMid;
            } else {
                fLo = fMid;
            }
        }
        fFitting = fLo;
    }
    pstFace->fStrength = fFitting;
    FitSlack(&stFit, fFitting, pstFace);
    pstFace->fOx += fCx;
    pstFace->fOy += fCy;
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

// Per-vertex data weights, right-hand side and smoothness weights of one level; returns the
// number of vertices a face reaches.
static int32_t BuildDataTerms(const tagST_MESH_INPUT *pstIn, const tagST_MESH_FACE *pstFaces, int32_t iFaces,
                              tagST_MESH_LEVEL *pstLevel)
{
    const tagST_MESH_GRID *pstGrid = &pstLevel->stGrid;
    const int32_t iCols = pstGrid->iCols, iRows = pstGrid->iRows;
    int32_t iReached = 0;
    const float fMaxX = (float)(pstIn->iWidth - 1), fMaxY = (float)(pstIn->iHeight - 1);
    // The smoothness share of a vertex (its stiffness) goes in pfEdgeRight first.
    float *pfStiff = pstLevel->pfEdgeRight;
    for (int32_t j = 0; j < iRows; j++) {
        for (int32_t i = 0; i < iCols; i++) {
            const int32_t v = j * iCols + i;
            const float fX = (float)i * pstGrid->fStepX, fY = (float)j * pstGrid->fStepY;
            float fFaceSum = 0.0f, fTx = 0.0f, fTy = 0.0f, fNearest = 1e30f;
            for (int32_t k = 0; k < iFaces; k++) {
                const float fE = FaceDistance(&pstFaces[k], fX, fY);
                fNearest = fE < fNearest ? fE : fNearest;
                float fW = 1.0f - SmoothStep((fE - 1.0f) / kFaceBand);
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
            float fShare = 0.0f;
            if (fFaceSum > 0.0f) {
                // Overlapping faces share one target, their weighted mean.
                fTx = fTx / fFaceSum;
                fTy = fTy / fFaceSum;
                fShare = fFaceSum < 1.0f ? fFaceSum : 1.0f;
                iReached++;
            }
            const float fFace = kFaceWeight * fShare;
            pstLevel->pfWeight[v] = fFace + kBackgroundWeight * SmoothStep((fNearest - 1.0f) / kBackgroundBand);
            pstLevel->pfRhs[2 * v] = fFace * fTx;
            pstLevel->pfRhs[2 * v + 1] = fFace * fTy;
            pfStiff[v] = 1.0f - fShare;
        }
    }
    // The transition's decay length sqrt(smooth / background), in cells, follows the smallest face.
    float fMinRadius = 1e30f;
    for (int32_t k = 0; k < iFaces; k++) {
        fMinRadius = pstFaces[k].fRadius < fMinRadius ? pstFaces[k].fRadius : fMinRadius;
    }
    const float fCells = kTransitionShare * fMinRadius / (0.5f * (pstGrid->fStepX + pstGrid->fStepY));
    const float fSmooth = kBackgroundWeight * fCells * fCells;
    // Edge weights from the stiffness of both ends; pfEdgeDown first, since pfEdgeRight is
    // overwritten in place row by row after it.
    for (int32_t v = 0; v < iCols * iRows; v++) {
        pstLevel->pfEdgeDown[v] = v + iCols < iCols * iRows ? 0.5f * fSmooth * (pfStiff[v] + pfStiff[v + iCols]) : 0.0f;
    }
    for (int32_t j = 0; j < iRows; j++) {
        for (int32_t i = 0; i < iCols; i++) {
            const int32_t v = j * iCols + i;
            pstLevel->pfEdgeRight[v] = i + 1 < iCols ? 0.5f * fSmooth * (pfStiff[v] + pfStiff[v + 1]) : 0.0f;
        }
    }
    return iReached;
}

// Bilinear weights of an output point over its cell's four vertices, scaled by fScale, appended.
static void AddPointWeights(const tagST_MESH_GRID *pstGrid, float fX, float fY, float fScale,
                            tagST_MESH_LINE_TERM *pstTerm, int32_t *piCount)
{
    const float fU = fX * pstGrid->fInvStepX, fV = fY * pstGrid->fInvStepY;
    int32_t iI = TruncF32ToS32(fU), iJ = TruncF32ToS32(fV);
    iI = iI < 0 ? 0 : (iI > pstGrid->iCols - 2 ? pstGrid->iCols - 2 : iI);
    iJ = iJ < 0 ? 0 : (iJ > pstGrid->iRows - 2 ? pstGrid->iRows - 2 : iJ);
    const float fA = fU - (float)iI, fB = fV - (float)iJ;
    const int32_t v = iJ * pstGrid->iCols + iI;
    const int32_t aiV[4] = {v, v + 1, v + pstGrid->iCols, v + pstGrid->iCols + 1};
    const float afW[4] = {(1.0f - fA) * (1.0f - fB), fA * (1.0f - fB), (1.0f - fA) * fB, fA * fB};
    for (int32_t k = 0; k < 4; k++) {
        pstTerm->aiVertex[*piCount] = aiV[k];
        pstTerm->afWeight[*piCount] = fScale * afW[k];
        (*piCount)++;
    }
}

// Line terms: each segment goes to corrected pixels (where it is straight) and is sampled every
// half cell; each run of three samples asks the displacement across the segment to stay affine.
static int32_t BuildLineTerms(const tagST_MESH_INPUT *pstIn, const tagST_MESH_GRID *pstGrid,
                              tagST_MESH_LINE_TERM *pstTerms)
{
    int32_t iTerms = 0;
    const int32_t iLines = pstIn->pstLines == NULL || pstIn->iLineNum < 0
                               ? 0
                               : (pstIn->iLineNum < LDC_MESH_MAX_SEGMENTS ? pstIn->iLineNum : LDC_MESH_MAX_SEGMENTS);
    const float fMaxX = (float)(pstIn->iWidth - 1), fMaxY = (float)(pstIn->iHeight - 1);
    const float fSpacing = (pstGrid->fStepX < pstGrid->fStepY ? pstGrid->fStepX : pstGrid->fStepY) /
                           (float)LDC_MESH_SAMPLES_PER_CELL;
    for (int32_t l = 0; l < iLines && iTerms < LDC_MESH_MAX_TERMS; l++) {
        const stLine *pstLine = &pstIn->pstLines[l];
        float fX0, fY0, fX1, fY1;
        InverseLens(&pstIn->stLens, (float)pstLine->Pnt0.x, (float)pstLine->Pnt0.y, &fX0, &fY0);
        InverseLens(&pstIn->stLens, (float)pstLine->Pnt1.x, (float)pstLine->Pnt1.y, &fX1, &fY1);
        const float fLen = sqrtf((fX1 - fX0) * (fX1 - fX0) + (fY1 - fY0) * (fY1 - fY0));
        // Too short to bend, or not a segment of this frame at all.
        if (!(fLen >= 3.0f * fSpacing) || !(fLen < 2.0f * (fMaxX + fMaxY))) {
            continue;
        }
        const int32_t iSteps = TruncF32ToS32(fLen / fSpacing);
        const float fNx = -(fY1 - fY0) / fLen, fNy = (fX1 - fX0) / fLen;
        for (int32_t s = 1; s < iSteps && iTerms < LDC_MESH_MAX_TERMS; s++) {
            float afX[3], afY[3];
            int32_t bInside = 1;
            for (int32_t k = 0; k < 3; k++) {
                const float fT = (float)(s - 1 + k) / (float)iSteps;
                afX[k] = fX0 + fT * (fX1 - fX0);
                afY[k] = fY0 + fT * (fY1 - fY0);
                bInside = bInside && afX[k] >= 0.0f && afX[k] <= fMaxX && afY[k] >= 0.0f && afY[k] <= fMaxY;
            }
            if (!bInside) {
                continue;
            }
            tagST_MESH_LINE_TERM *pstTerm = &pstTerms[iTerms++];
            int32_t iCount = 0;
            AddPointWeights(pstGrid, afX[0], afY[0], 1.0f, pstTerm, &iCount);
            AddPointWeights(pstGrid, afX[1], afY[1], -2.0f, pstTerm, &iCount);
            AddPointWeights(pstGrid, afX[2], afY[2], 1.0f, pstTerm, &iCount);
            pstTerm->fNx = fNx;
            pstTerm->fNy = fNy;
        }
    }
    return iTerms;
}

// Zeroes the border vertices of a vector: their displacement is held at zero (the output keeps
// the lens-only frame's edge, and with it the field of view).
static void ZeroBorder(const tagST_MESH_GRID *pstGrid, float *pfV)
{
    const int32_t iCols = pstGrid->iCols, iRows = pstGrid->iRows;
    memset(pfV, 0, 2u * (uint32_t)iCols * sizeof(float));
    memset(pfV + 2 * (iRows - 1) * iCols, 0, 2u * (uint32_t)iCols * sizeof(float));
    for (int32_t j = 1; j < iRows - 1; j++) {
        float *pfRow = pfV + 2 * j * iCols;
        pfRow[0] = pfRow[1] = 0.0f;
        pfRow[2 * iCols - 2] = pfRow[2 * iCols - 1] = 0.0f;
    }
}

// pfOut = A pfIn on the inner vertices; the border comes out zero.
static void ApplySystem(const tagST_MESH_LEVEL *pstLevel, const tagST_MESH_LINE_TERM *pstTerms, int32_t iTerms,
                        const float *pfIn, float *pfOut)
{
    const int32_t iCols = pstLevel->stGrid.iCols, iRows = pstLevel->stGrid.iRows;
    const float *pfRight = pstLevel->pfEdgeRight, *pfDown = pstLevel->pfEdgeDown;
    for (int32_t j = 1; j < iRows - 1; j++) {
        for (int32_t i = 1; i < iCols - 1; i++) {
            const int32_t v = j * iCols + i;
            const float fER = pfRight[v], fEL = pfRight[v - 1], fED = pfDown[v], fEU = pfDown[v - iCols];
            for (int32_t c = 0; c < 2; c++) {
                const float fX = pfIn[2 * v + c];
                pfOut[2 * v + c] = pstLevel->pfWeight[v] * fX + fER * (fX - pfIn[2 * (v + 1) + c]) +
                                   fEL * (fX - pfIn[2 * (v - 1) + c]) + fED * (fX - pfIn[2 * (v + iCols) + c]) +
                                   fEU * (fX - pfIn[2 * (v - iCols) + c]);
            }
        }
    }
    for (int32_t t = 0; t < iTerms; t++) {
        const tagST_MESH_LINE_TERM *pstTerm = &pstTerms[t];
        float fR = 0.0f;
        for (int32_t k = 0; k < LDC_MESH_LINE_VERTICES; k++) {
            const int32_t v = pstTerm->aiVertex[k];
            fR += pstTerm->afWeight[k] * (pstTerm->fNx * pfIn[2 * v] + pstTerm->fNy * pfIn[2 * v + 1]);
        }
        fR *= kLineWeight;
        for (int32_t k = 0; k < LDC_MESH_LINE_VERTICES; k++) {
            const int32_t v = pstTerm->aiVertex[k];
            pfOut[2 * v] += fR * pstTerm->afWeight[k] * pstTerm->fNx;
            pfOut[2 * v + 1] += fR * pstTerm->afWeight[k] * pstTerm->fNy;
        }
    }
    ZeroBorder(&pstLevel->stGrid, pfOut);
}

// Inverse of A's diagonal (Jacobi preconditioner); zero on the border.
static void BuildPreconditioner(tagST_MESH_LEVEL *pstLevel, const tagST_MESH_LINE_TERM *pstTerms, int32_t iTerms)
{
    const int32_t iCols = pstLevel->stGrid.iCols, iRows = pstLevel->stGrid.iRows;
    float *pfDiag = pstLevel->pfDiagInv;
    for (int32_t j = 0; j < iRows; j++) {
        for (int32_t i = 0; i < iCols; i++) {
            const int32_t v = j * iCols + i;
            const float fLeft = i > 0 ? pstLevel->pfEdgeRight[v - 1] : 0.0f;
            const float fUp = j > 0 ? pstLevel->pfEdgeDown[v - iCols] : 0.0f;
            pfDiag[2 * v] = pstLevel->pfWeight[v] + pstLevel->pfEdgeRight[v] + fLeft + pstLevel->pfEdgeDown[v] + fUp;
            pfDiag[2 * v + 1] = pfDiag[2 * v];
        }
    }
    for (int32_t t = 0; t < iTerms; t++) {
        const tagST_MESH_LINE_TERM *pstTerm = &pstTerms[t];
        for (int32_t k = 0; k < LDC_MESH_LINE_VERTICES; k++) {
            const float fW2 = kLineWeight * pstTerm->afWeight[k] * pstTerm->afWeight[k];
            pfDiag[2 * pstTerm->aiVertex[k]] += fW2 * pstTerm->fNx * pstTerm->fNx;
            pfDiag[2 * pstTerm->aiVertex[k] + 1] += fW2 * pstTerm->fNy * pstTerm->fNy;
        }
    }
    for (int32_t v = 0; v < 2 * iCols * iRows; v++) {
        pfDiag[v] = 1.0f / pfDiag[v];
    }
    ZeroBorder(&pstLevel->stGrid, pfDiag);
}

// Dot products in double, in index order: the same sums on every target and run.
static double Dot(const float *pfA, const float *pfB, int32_t iN)
{
    double dSum = 0.0;
    for (int32_t i = 0; i < iN; i++) {
        dSum += (double)pfA[i] * (double)pfB[i];
    }
    return dSum;
}

// Preconditioned conjugate gradients on A x = b from the x given (border zero).
static int32_t SolveSystem(tagST_MESH_LEVEL *pstLevel, const tagST_MESH_LINE_TERM *pstTerms, int32_t iTerms,
                           float *pfX, float *pfResidual)
{
    const int32_t iN = 2 * (int32_t)VertexCount(&pstLevel->stGrid);
    float *pfR = pstLevel->pfR, *pfZ = pstLevel->pfZ, *pfP = pstLevel->pfP, *pfQ = pstLevel->pfQ;
    ApplySystem(pstLevel, pstTerms, iTerms, pfX, pfQ);
    for (int32_t i = 0; i < iN; i++) {
        pfR[i] = pstLevel->pfDiagInv[i] != 0.0f ? pstLevel->pfRhs[i] - pfQ[i] : 0.0f;
        pfZ[i] = pstLevel->pfDiagInv[i] * pfR[i];
        pfP[i] = pfZ[i];
    }
    const double dRhs = Dot(pstLevel->pfRhs, pstLevel->pfRhs, iN);
    const double dNorm = dRhs > 0.0 ? dRhs : 1.0;
    const double dStop = LDC_MESH_TOLERANCE * LDC_MESH_TOLERANCE * dNorm;
    double dRz = Dot(pfR, pfZ, iN);
    double dRr = Dot(pfR, pfR, iN);
    int32_t iIter = 0;
    while (iIter < LDC_MESH_MAX_ITERATIONS && dRr > dStop) {
        ApplySystem(pstLevel, pstTerms, iTerms, pfP, pfQ);
        const double dPq = Dot(pfP, pfQ, iN);
        if (!(dPq > 0.0)) {
            break;
        }
        const float fAlpha = (float)(dRz / dPq);
        for (int32_t i = 0; i < iN; i++) {
            pfX[i] += fAlpha * pfP[i];
            pfR[i] -= fAlpha * pfQ[i];
            pfZ[i] = pstLevel->pfDiagInv[i] * pfR[i];
        }
        const double dRzNext = Dot(pfR, pfZ, iN);
        const float fBeta = (float)(dRzNext / dRz);
        for (int32_t i = 0; i < iN; i++) {
            pfP[i] = pfZ[i] + fBeta * pfP[i];
        }
        dRz = dRzNext;
        dRr = Dot(pfR, pfR, iN);
        iIter++;
    }
    *pfResidual = (float)sqrt(dRr / dNorm);
    return iIter;
}

// One level from the start in pfX: data, line and smoothness terms, then the solve. Returns the
// iterations, or -1 when no face reaches a vertex of this level.
static int32_t SolveLevel(const tagST_MESH_INPUT *pstIn, const tagST_MESH_FACE *pstFaces, int32_t iFaces,
                          tagST_MESH_LEVEL *pstLevel, tagST_MESH_LINE_TERM *pstTerms, float *pfX, float *pfResidual)
{
    if (BuildDataTerms(pstIn, pstFaces, iFaces, pstLevel) == 0) {
        return -1;
    }
    const int32_t iTerms = BuildLineTerms(pstIn, &pstLevel->stGrid, pstTerms);
    BuildPreconditioner(pstLevel, pstTerms, iTerms);
    return SolveSystem(pstLevel, pstTerms, iTerms, pfX, pfResidual);
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

int32_t FaceMeshSolve(const tagST_MESH_INPUT *pstIn, float *pfMesh, uint8_t *pucWork, uint32_t uWorkBytes,
                      tagST_MESH_STATS *pstStats)
{
    memset(pstStats, 0, sizeof(*pstStats));
    if (pstIn == NULL || pfMesh == NULL || pucWork == NULL || pstIn->iWidth < 2 || pstIn->iHeight < 2 ||
        pstIn->iWidth > LDC_MAX_IMAGE_SIZE || pstIn->iHeight > LDC_MAX_IMAGE_SIZE ||
        uWorkBytes < FaceMeshWorkBytes(pstIn->iWidth, pstIn->iHeight) || ((uintptr_t)pucWork & 7u) != 0) {
        return LDC_MESH_ERR_ARGS;
    }
    tagST_MESH_LEVEL stFine, stCoarse;
    FaceMeshGrid(pstIn->iWidth, pstIn->iHeight, &stFine.stGrid);
    const int32_t iV = (int32_t)VertexCount(&stFine.stGrid);
    const uint32_t uMeshBytes = (uint32_t)iV * 2u * (uint32_t)sizeof(float);
    CoarseGrid(pstIn->iWidth, pstIn->iHeight, &stCoarse.stGrid);
    float *pfCoarseX = CarveLevel(CarveLevel((float *)pucWork, &stFine), &stCoarse);
    tagST_MESH_LINE_TERM *pstTerms = (tagST_MESH_LINE_TERM *)(pfCoarseX + 2 * VertexCount(&stCoarse.stGrid));

    // A warm start is kept aside: every round starts from it (a still scene then gives back its
    // mesh bit for bit, whatever round it was found in). Values that are not finite start from 0.
    float *pfStart = pstIn->pfWarmStart != NULL ? (float *)(pstTerms + LDC_MESH_MAX_TERMS) : NULL;
    if (pfStart != NULL) {
        memcpy(pfStart, pstIn->pfWarmStart, uMeshBytes);
        for (int32_t i = 0; i < 2 * iV; i++) {
            pfStart[i] = isfinite(pfStart[i]) ? pfStart[i] : 0.0f;
        }
        ZeroBorder(&stFine.stGrid, pfStart);
    }

    // Faces crowded together or into a corner can ask for more than the frame holds: the map
    // then folds. The strength is lowered until it does not, as the homography's is for its
    // field of view; after the last round the solve gives up.
    tagST_MESH_FACE astFaces[LDC_MAX_FACES];
    float fStrength = pstIn->fStrength;
    for (int32_t iRound = 0;; iRound++) {
        const int32_t iFaces = PrepareFaces(pstIn, fStrength, astFaces);
        // The start: the warm start, else the solution on half the cells spread over the fine
        // grid (its smooth part is then right, and the fine solve only has the detail to add).
        memset(pfMesh, 0, uMeshBytes);
        if (pfStart != NULL) {
            memcpy(pfMesh, pfStart, uMeshBytes);
        } else if (iFaces > 0) {
            memset(pfCoarseX, 0, 2u * VertexCount(&stCoarse.stGrid) * sizeof(float));
            float fResidual;
            const int32_t iCoarse = SolveLevel(pstIn, astFaces, iFaces, &stCoarse, pstTerms, pfCoarseX, &fResidual);
            pstStats->iCoarseIterations += iCoarse > 0 ? iCoarse : 0;
            const tagST_MESH_GRID *pstFine = &stFine.stGrid;
            for (int32_t j = 1; iCoarse > 0 && j < pstFine->iRows - 1; j++) {
                for (int32_t i = 1; i < pstFine->iCols - 1; i++) {
                    float *pf = pfMesh + 2 * (j * pstFine->iCols + i);
                    FaceMeshDisplacement(&stCoarse.stGrid, pfCoarseX, (float)i * pstFine->fStepX,
                                         (float)j * pstFine->fStepY, &pf[0], &pf[1]);
                }
            }
        }
        const int32_t iIter =
            iFaces > 0 ? SolveLevel(pstIn, astFaces, iFaces, &stFine, pstTerms, pfMesh, &pstStats->fResidual) : -1;
        if (iIter < 0) {
            memset(pfMesh, 0, uMeshBytes);   // no face to correct: exactly lens correction alone
            memset(pstStats, 0, sizeof(*pstStats));
            return LDC_MESH_OK;
        }
        pstStats->iIterations += iIter;
        pstStats->iRounds = iRound + 1;
        pstStats->fStrength = fStrength;
        for (int32_t i = 0; i < 2 * iV; i++) {
            if (!isfinite(pfMesh[i])) {
                memset(pfMesh, 0, uMeshBytes);
                return LDC_MESH_ERR_NUMERIC;
            }
        }
        if (SmallestAreaRatio(&stFine.stGrid, pfMesh) >= kMinAreaRatio) {
            return LDC_MESH_OK;
        }
        if (iRound + 1 == LDC_MESH_FOLD_ROUNDS) {
            memset(pfMesh, 0, uMeshBytes);
            return LDC_MESH_ERR_FOLD;
        }
        fStrength *= LDC_MESH_FOLD_SHRINK;
    }
}

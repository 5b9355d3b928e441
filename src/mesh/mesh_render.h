// The face mesh's render: every output 2 x 2 block inside the lens rectangle (aiLDCArea) takes
// its source position from the lens model applied to the block's position plus the mesh
// displacement there, and the resampling core samples the input frame at it. One pass, straight
// into the output; pixels outside the rectangle are not written, as with the lens remap.
//
// The displacement is bilinear over the mesh cell, so along a row pair it is linear in x within
// each cell, and its coefficients are linear in y within each band of cells. Per frame, every
// cell of every band gets the form at the band's top and its change to the band's bottom
// (MeshPrepare); a row pair lerps one cell's form when its groups enter the cell, and a block at
// column x of the cell, x' = x - cx, is then displaced and centred on the principal point in one
// multiply-add per axis:
//   dx = ax + x' bx,   ax = mesh x at x' = 0,  bx = 1 + mesh x slope,
//   dy = ay + x' by,   ay = mesh y at x' = 0 + (y - cy),  by = mesh y slope.
// With a zero mesh that is dx = x - cx, dy = y - cy: the lens remap's floats, and its bytes. The
// mesh parts stay small beside x', so the composition adds few roundings to the lens model's
// (against the exact composition: under 1e-3 px on a 4000 px frame, the lens alone 4e-4). The
// groups walk the cells along the row pair: a run of groups inside one cell keeps its form in
// registers, a group across a cell boundary takes each lane's own cell. Nothing depends on the
// cell size.
//
// The plain position functions define the bytes; the _neon twin gives the same on every target.
#ifndef LDC_MESH_MESH_RENDER_H
#define LDC_MESH_MESH_RENDER_H

#include <stdint.h>

#include "geometry/lens_model.h"
#include "mesh/face_mesh.h"
#include "records/ldc_para.h"
#include "resample/resample.h"

#define LDC_MESH_FORM_FLOATS 4   // one cell's form: ax, bx, ay (without y - cy), by
#define LDC_MESH_BAND_FLOATS 8   // per cell of a band: the form at the band's top, its change to the bottom
#define LDC_MESH_COLUMN_END (1 << 30)   // first column of the cell after the last: beyond any frame

// What the position functions read: the lens model, the grid and the tables of MeshPrepare.
typedef struct tagST_MESH_RENDER {
    tagST_RADIAL_MODEL stLens;
    tagST_MESH_GRID stGrid;
    const int32_t *piCellStart;   // iCols - 1 cells: first output column of each, then LDC_MESH_COLUMN_END
    const float *pfBands;         // band j, cell i at (j (iCols - 1) + i) LDC_MESH_BAND_FLOATS
    uint8_t *pucColumns;          // the groups' x' quadruples, from the rectangle's left (the job's column table)
    int32_t iLeft;                // the rectangle's first column
} tagST_MESH_RENDER;

// Bytes of the render's tables for a frame (MeshPrepare).
uint32_t MeshRowTableBytes(int32_t iWidth, int32_t iHeight);

// Fills pstMesh from the lens model, the grid and the mesh pfMesh on it, for groups from column
// iLeft over iCols columns, with its tables at pucTables (MeshRowTableBytes).
void MeshPrepare(const tagST_RADIAL_MODEL *pstLens, const tagST_MESH_GRID *pstGrid, const float *pfMesh,
                 int32_t iLeft, int32_t iCols, uint8_t *pucTables, tagST_MESH_RENDER *pstMesh);

// The cell of output column iX (cell i spans piCellStart[i] .. piCellStart[i + 1] - 1; the first
// and the last cell reach beyond the frame).
static inline int32_t MeshCellOf(const tagST_MESH_RENDER *pstMesh, int32_t iX)
{
    const int32_t iLast = pstMesh->stGrid.iCols - 2;
    int32_t i = TruncF32ToS32((float)iX * pstMesh->stGrid.fInvStepX);
    i = i < 0 ? 0 : (i > iLast ? iLast : i);
    // The estimate is off by a cell at most near a boundary; the starts decide.
    while (iX < pstMesh->piCellStart[i]) {
        i--;
    }
    while (iX >= pstMesh->piCellStart[i + 1]) {
        i++;
    }
    return i;
}

// The band of the row pair at iY: its first cell's entry in pfBands, and in *pfB the row's
// fraction within the band.
static inline const float *MeshBandOf(const tagST_MESH_RENDER *pstMesh, int32_t iY, float *pfB)
{
    const tagST_MESH_GRID *pstGrid = &pstMesh->stGrid;
    const float fV = (float)iY * pstGrid->fInvStepY;
    int32_t iJ = TruncF32ToS32(fV);
    iJ = iJ < 0 ? 0 : (iJ > pstGrid->iRows - 2 ? pstGrid->iRows - 2 : iJ);
    *pfB = fV - (float)iJ;
    return pstMesh->pfBands + (size_t)iJ * (size_t)(pstGrid->iCols - 1) * LDC_MESH_BAND_FLOATS;
}

// The form of cell iCell at fraction fB of its band pfBand, for a row fDy = y - cy:
// (top + fB change) + (0, 0, fDy, 0).
void MeshFormAt(const float *pfBand, int32_t iCell, float fB, float fDy, float afForm[LDC_MESH_FORM_FLOATS]);

// Renders the source frame through the mesh pfMesh (FaceMeshBytes for the instance's size) and
// the instance's lens model into the destination, over aiLDCArea, on four pinned workers (the
// calling thread does all of it when they cannot be started). ppucSrc and ppucDst as for
// DistortionCorrect_neon; pucTables takes the render's tables (MeshRowTableBytes); the column
// table goes where the remap's goes. Returns 0.
int32_t MeshRemap(int32_t iPlanar, tagST_LDC_PARA *pstPara, const float *pfMesh, uint8_t *const *ppucSrc,
                  uint8_t *const *ppucDst, uint8_t *pucTables);
int32_t MeshRemap_neon(int32_t iPlanar, tagST_LDC_PARA *pstPara, const float *pfMesh, uint8_t *const *ppucSrc,
                       uint8_t *const *ppucDst, uint8_t *pucTables);

// The position functions for the resampling core (pStage: a tagST_MESH_RENDER).
void MeshMapGroups(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                   const uint8_t *pucColumns, tagST_GROUP_POS *pstPos);
void MeshMapGroups_neon(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                        const uint8_t *pucColumns, tagST_GROUP_POS *pstPos);
void MeshMapTail(const void *pStage, int32_t iY, int32_t iX, int32_t iBlocks, tagST_GROUP_POS *pstPos);

#endif

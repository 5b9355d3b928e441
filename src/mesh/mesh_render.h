// The face mesh's render: every output 2 x 2 block inside the lens rectangle (aiLDCArea) takes
// its source position from the lens model applied to the block's position plus the mesh
// displacement there, and the resampling core samples the input frame at it. One pass, straight
// into the output; pixels outside the rectangle are not written, as with the lens remap.
//
// The displacement at output (x, y) is bilinear over the mesh cell, evaluated as the lerp along x
// of the cell's two vertical edges lerped to y first: per row pair the mesh's rows are lerped
// once into a row table of the cells' left edges and their left-to-right differences, then each
// block takes d = L + a (R - L), a being x's fraction within its cell. With a zero mesh every
// position is the lens remap's, float for float, and so are the bytes.
//
// The plain position functions define the bytes; the _neon twin gives the same on every target.
#ifndef LDC_MESH_MESH_RENDER_H
#define LDC_MESH_MESH_RENDER_H

#include <stdint.h>

#include "geometry/lens_model.h"
#include "mesh/face_mesh.h"
#include "records/ldc_para.h"
#include "resample/resample.h"

#define LDC_MESH_ROW_ENTRY_FLOATS 4   // per cell of a row pair: left dx, left dy, right - left (dx, dy)

// What the position functions read: the lens model, the grid and the row table.
typedef struct tagST_MESH_RENDER {
    tagST_RADIAL_MODEL stLens;
    tagST_MESH_GRID stGrid;
    const float *pfRows;   // row pair y / 2: (iCols - 1) entries of LDC_MESH_ROW_ENTRY_FLOATS
} tagST_MESH_RENDER;

// Bytes of the row table for a frame (every row pair of it).
uint32_t MeshRowTableBytes(int32_t iWidth, int32_t iHeight);

// Fills the row table pfRows (MeshRowTableBytes) of the mesh pfMesh on its grid for a frame of
// iHeight rows.
void MeshFillRows(const tagST_MESH_GRID *pstGrid, const float *pfMesh, int32_t iHeight, float *pfRows);

// Renders the source frame through the mesh pfMesh (FaceMeshBytes for the instance's size) and
// the instance's lens model into the destination, over aiLDCArea, on four pinned workers (the
// calling thread does all of it when they cannot be started). ppucSrc and ppucDst as for
// DistortionCorrect_neon; pucRowTable takes the row table (MeshRowTableBytes, 16-byte aligned);
// the column table goes where the remap's goes. Returns 0.
int32_t MeshRemap(int32_t iPlanar, tagST_LDC_PARA *pstPara, const float *pfMesh, uint8_t *const *ppucSrc,
                  uint8_t *const *ppucDst, uint8_t *pucRowTable);
int32_t MeshRemap_neon(int32_t iPlanar, tagST_LDC_PARA *pstPara, const float *pfMesh, uint8_t *const *ppucSrc,
                       uint8_t *const *ppucDst, uint8_t *pucRowTable);

// The position functions for the resampling core (pStage: a tagST_MESH_RENDER).
void MeshMapGroups(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                   const uint8_t *pucColumns, tagST_GROUP_POS *pstPos);
void MeshMapGroups_neon(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                        const uint8_t *pucColumns, tagST_GROUP_POS *pstPos);
void MeshMapTail(const void *pStage, int32_t iY, int32_t iX, int32_t iBlocks, tagST_GROUP_POS *pstPos);

#endif

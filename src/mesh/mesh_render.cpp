#include "mesh/mesh_render.h"

#include "boundscheck/bounds_check.h"
#include "geometry/distortion_correct.h"   // LDC_COLUMN_TABLE_OFFSET

static int32_t RowEntries(const tagST_MESH_GRID *pstGrid)
{
    return pstGrid->iCols - 1;
}

uint32_t MeshRowTableBytes(int32_t iWidth, int32_t iHeight)
{
    tagST_MESH_GRID stGrid;
    FaceMeshGrid(iWidth, iHeight, 0, &stGrid);
    return (uint32_t)((iHeight + 1) / 2) * (uint32_t)RowEntries(&stGrid) * LDC_MESH_ROW_ENTRY_FLOATS *
           (uint32_t)sizeof(float);
}

void MeshFillRows(const tagST_MESH_GRID *pstGrid, const float *pfMesh, int32_t iHeight, float *pfRows)
{
    const int32_t iCols = pstGrid->iCols;
    const int32_t iEntries = RowEntries(pstGrid);
    for (int32_t iY = 0; iY < iHeight; iY += 2) {
        const float fV = (float)iY * pstGrid->fInvStepY;
        int32_t iJ = TruncF32ToS32(fV);
        iJ = iJ < 0 ? 0 : (iJ > pstGrid->iRows - 2 ? pstGrid->iRows - 2 : iJ);
        const float fB = fV - (float)iJ;
        const float *pfTop = pfMesh + 2 * iJ * iCols;
        const float *pfBottom = pfTop + 2 * iCols;
        float *pfRow = pfRows + (size_t)(iY >> 1) * (size_t)iEntries * LDC_MESH_ROW_ENTRY_FLOATS;
        // The vertical edge of vertex column i at this row, then per cell its left edge and the
        // step to its right edge.
        float fLeftX = pfTop[0] + fB * (pfBottom[0] - pfTop[0]);
        float fLeftY = pfTop[1] + fB * (pfBottom[1] - pfTop[1]);
        for (int32_t i = 0; i < iEntries; i++) {
            const float fRightX = pfTop[2 * i + 2] + fB * (pfBottom[2 * i + 2] - pfTop[2 * i + 2]);
            const float fRightY = pfTop[2 * i + 3] + fB * (pfBottom[2 * i + 3] - pfTop[2 * i + 3]);
            float *pfEntry = pfRow + LDC_MESH_ROW_ENTRY_FLOATS * i;
            pfEntry[0] = fLeftX;
            pfEntry[1] = fLeftY;
            pfEntry[2] = fRightX - fLeftX;
            pfEntry[3] = fRightY - fLeftY;
            fLeftX = fRightX;
            fLeftY = fRightY;
        }
    }
}

// The row table's row of the row pair at iY.
static const float *TableRow(const tagST_MESH_RENDER *pstMesh, int32_t iY)
{
    return pstMesh->pfRows + (size_t)(iY >> 1) * (size_t)RowEntries(&pstMesh->stGrid) * LDC_MESH_ROW_ENTRY_FLOATS;
}

// The mesh's displacement at column fX of a table row: the cell's left edge plus x's fraction
// within the cell of the step to its right edge.
static inline void RowDisplacement(const tagST_MESH_GRID *pstGrid, const float *pfRow, float fX, float *pfDx,
                                   float *pfDy)
{
    const float fU = fX * pstGrid->fInvStepX;
    int32_t iI = TruncF32ToS32(fU);
    iI = iI < 0 ? 0 : (iI > pstGrid->iCols - 2 ? pstGrid->iCols - 2 : iI);
    const float fA = fU - (float)iI;
    const float *pfEntry = pfRow + LDC_MESH_ROW_ENTRY_FLOATS * iI;
    *pfDx = pfEntry[0] + fA * pfEntry[2];
    *pfDy = pfEntry[1] + fA * pfEntry[3];
}

// The lens model's positions of the displaced points, in the remap's order of operations: its
// groups' (RadialFactorGrouped, f d + c), its tail's (RadialFactorSerial, c + f d).
void MeshMapGroups(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                   const uint8_t *pucColumns, tagST_GROUP_POS *pstPos)
{
    (void)iFirst;
    const tagST_MESH_RENDER *pstMesh = (const tagST_MESH_RENDER *)pStage;
    const tagST_RADIAL_MODEL *pstLens = &pstMesh->stLens;
    const float *pfRow = TableRow(pstMesh, pstRow->iY);
    const float fY = (float)pstRow->iY;
    for (int32_t g = 0; g < iCount; g++) {
        float afX[4];
        (void)memcpy_s(afX, sizeof(afX), pucColumns + (size_t)g * RESAMPLE_QUAD_BYTES, sizeof(afX));
        for (int32_t k = 0; k < 4; k++) {
            float fMx, fMy;
            RowDisplacement(&pstMesh->stGrid, pfRow, afX[k], &fMx, &fMy);
            const float fDx = (afX[k] + fMx) - pstLens->fCx;
            const float fDy = (fY + fMy) - pstLens->fCy;
            const float fF = RadialFactorGrouped(pstLens, fDx * fDx + fDy * fDy);
            pstPos[g].afX[k] = fF * fDx + pstLens->fCx;
            pstPos[g].afY[k] = fF * fDy + pstLens->fCy;
        }
    }
}

void MeshMapTail(const void *pStage, int32_t iY, int32_t iX, int32_t iBlocks, tagST_GROUP_POS *pstPos)
{
    const tagST_MESH_RENDER *pstMesh = (const tagST_MESH_RENDER *)pStage;
    const tagST_RADIAL_MODEL *pstLens = &pstMesh->stLens;
    const float *pfRow = TableRow(pstMesh, iY);
    for (int32_t j = 0; j < iBlocks; j++) {
        const float fX = (float)(iX + 2 * j);
        float fMx, fMy;
        RowDisplacement(&pstMesh->stGrid, pfRow, fX, &fMx, &fMy);
        const float fDx = (fX + fMx) - pstLens->fCx;
        const float fDy = ((float)iY + fMy) - pstLens->fCy;
        const float fF = RadialFactorSerial(pstLens, fDx * fDx + fDy * fDy);
        pstPos->afX[j] = pstLens->fCx + fF * fDx;
        pstPos->afY[j] = pstLens->fCy + fF * fDy;
    }
}

// The row table and the column table, then the core's workers over the lens rectangle.
static int32_t RunMeshRemap(int32_t iPlanar, tagST_LDC_PARA *pstPara, const float *pfMesh, uint8_t *const *ppucSrc,
                            uint8_t *const *ppucDst, uint8_t *pucRowTable, int32_t bNeon)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    const int32_t *piArea = pstPara->aiLDCArea;
    tagST_MESH_RENDER stMesh;
    GetRadialModel(pstPara, 1, &stMesh.stLens);
    FaceMeshGrid(iW, iH, 0, &stMesh.stGrid);
    MeshFillRows(&stMesh.stGrid, pfMesh, iH, (float *)pucRowTable);
    stMesh.pfRows = (const float *)pucRowTable;
    // The remap's job over the same rectangle, so that a zero mesh gives its bytes.
    tagST_RESAMPLE_JOB stJob;
    ResampleAreaJob(iPlanar, iW, iH, ppucSrc, ppucDst, piArea, pstPara->pucWorkBuf + LDC_COLUMN_TABLE_OFFSET(iW, iH),
                    pstPara->aiThreadState, pstPara->aiThreadMask, &stJob);
    stJob.pStage = &stMesh;
    stJob.pfnGroups = bNeon ? MeshMapGroups_neon : MeshMapGroups;
    stJob.pfnTail = MeshMapTail;
    return bNeon ? ResampleFrame_neon(&stJob) : ResampleFrame(&stJob);
}

int32_t MeshRemap(int32_t iPlanar, tagST_LDC_PARA *pstPara, const float *pfMesh, uint8_t *const *ppucSrc,
                  uint8_t *const *ppucDst, uint8_t *pucRowTable)
{
    return RunMeshRemap(iPlanar, pstPara, pfMesh, ppucSrc, ppucDst, pucRowTable, 0);
}

int32_t MeshRemap_neon(int32_t iPlanar, tagST_LDC_PARA *pstPara, const float *pfMesh, uint8_t *const *ppucSrc,
                       uint8_t *const *ppucDst, uint8_t *pucRowTable)
{
    return RunMeshRemap(iPlanar, pstPara, pfMesh, ppucSrc, ppucDst, pucRowTable, 1);
}

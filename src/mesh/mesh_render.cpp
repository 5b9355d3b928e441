#include "mesh/mesh_render.h"

#include "boundscheck/bounds_check.h"
#include "geometry/distortion_correct.h"   // LDC_COLUMN_TABLE_OFFSET

static int32_t CellCount(const tagST_MESH_GRID *pstGrid)
{
    return pstGrid->iCols - 1;
}

// The cell starts and their end, rounded up to whole 16 bytes: the bands follow them.
static uint32_t CellStartBytes(const tagST_MESH_GRID *pstGrid)
{
    return ((uint32_t)(CellCount(pstGrid) + 1) * (uint32_t)sizeof(int32_t) + 15u) & ~15u;
}

// The bands, then the column table: (iWidth + 7) / 8 quadruples at most.
static uint32_t BandBytes(const tagST_MESH_GRID *pstGrid)
{
    return (uint32_t)(pstGrid->iRows - 1) * (uint32_t)CellCount(pstGrid) * LDC_MESH_BAND_FLOATS *
           (uint32_t)sizeof(float);
}

uint32_t MeshRowTableBytes(int32_t iWidth, int32_t iHeight)
{
    tagST_MESH_GRID stGrid;
    FaceMeshGrid(iWidth, iHeight, 0, &stGrid);
    return CellStartBytes(&stGrid) + BandBytes(&stGrid) +
           (uint32_t)(iWidth + RESAMPLE_GROUP_COLS - 1) / RESAMPLE_GROUP_COLS * RESAMPLE_QUAD_BYTES;
}

// The form of cell iCell along a vertex row pfRow (dx, dy per vertex): its displacement is
// left + (x - xi) slope, xi the cell's left column, written as its value at x = cx plus x' slope.
// In double, so that each coefficient is rounded once.
static void VertexRowForm(const tagST_MESH_GRID *pstGrid, float fCx, const float *pfRow, int32_t iCell,
                          double adForm[LDC_MESH_FORM_FLOATS])
{
    const double dFromLeft = (double)fCx - (double)iCell * (double)pstGrid->fStepX;
    const double dSlopeX = ((double)pfRow[2 * iCell + 2] - (double)pfRow[2 * iCell]) / (double)pstGrid->fStepX;
    const double dSlopeY = ((double)pfRow[2 * iCell + 3] - (double)pfRow[2 * iCell + 1]) / (double)pstGrid->fStepX;
    adForm[0] = (double)pfRow[2 * iCell] + dFromLeft * dSlopeX;
    adForm[1] = 1.0 + dSlopeX;
    adForm[2] = (double)pfRow[2 * iCell + 1] + dFromLeft * dSlopeY;
    adForm[3] = dSlopeY;
}

void MeshPrepare(const tagST_RADIAL_MODEL *pstLens, const tagST_MESH_GRID *pstGrid, const float *pfMesh,
                 int32_t iLeft, int32_t iCols, uint8_t *pucTables, tagST_MESH_RENDER *pstMesh)
{
    const int32_t iCells = CellCount(pstGrid);
    int32_t *piStart = (int32_t *)pucTables;
    float *pfBands = (float *)(pucTables + CellStartBytes(pstGrid));
    uint8_t *pucColumns = pucTables + CellStartBytes(pstGrid) + BandBytes(pstGrid);
    // Cell i starts at the first whole column at or right of its left vertex.
    piStart[0] = -LDC_MESH_COLUMN_END;
    for (int32_t i = 1; i < iCells; i++) {
        const float fLeft = (float)i * pstGrid->fStepX;
        const int32_t iStart = TruncF32ToS32(fLeft);
        piStart[i] = iStart + ((float)iStart < fLeft ? 1 : 0);
    }
    piStart[iCells] = LDC_MESH_COLUMN_END;
    for (int32_t j = 0; j + 1 < pstGrid->iRows; j++) {
        const float *pfTop = pfMesh + (size_t)2 * (size_t)j * (size_t)pstGrid->iCols;
        for (int32_t i = 0; i < iCells; i++) {
            double adTop[LDC_MESH_FORM_FLOATS];
            double adBottom[LDC_MESH_FORM_FLOATS];
            VertexRowForm(pstGrid, pstLens->fCx, pfTop, i, adTop);
            VertexRowForm(pstGrid, pstLens->fCx, pfTop + 2 * pstGrid->iCols, i, adBottom);
            float *pfEntry = pfBands + ((size_t)j * (size_t)iCells + (size_t)i) * LDC_MESH_BAND_FLOATS;
            for (int32_t c = 0; c < LDC_MESH_FORM_FLOATS; c++) {
                pfEntry[c] = (float)adTop[c];
                pfEntry[LDC_MESH_FORM_FLOATS + c] = (float)(adBottom[c] - adTop[c]);
            }
        }
    }
    // x' as the lens remap forms its x - cx.
    for (int32_t k = 0; k < (iCols + RESAMPLE_GROUP_COLS - 1) / RESAMPLE_GROUP_COLS; k++) {
        const int32_t iX = iLeft + RESAMPLE_GROUP_COLS * k;
        const float afQuad[4] = {(float)iX - pstLens->fCx, (float)(iX + 2) - pstLens->fCx,
                                 (float)(iX + 4) - pstLens->fCx, (float)(iX + 6) - pstLens->fCx};
        (void)memcpy_s(pucColumns + (size_t)k * RESAMPLE_QUAD_BYTES, sizeof(afQuad), afQuad, sizeof(afQuad));
    }
    pstMesh->stLens = *pstLens;
    pstMesh->stGrid = *pstGrid;
    pstMesh->piCellStart = piStart;
    pstMesh->pfBands = pfBands;
    pstMesh->pucColumns = pucColumns;
    pstMesh->iLeft = iLeft;
}

void MeshFormAt(const float *pfBand, int32_t iCell, float fB, float fDy, float afForm[LDC_MESH_FORM_FLOATS])
{
    const float *pfEntry = pfBand + (size_t)iCell * LDC_MESH_BAND_FLOATS;
    for (int32_t c = 0; c < LDC_MESH_FORM_FLOATS; c++) {
        // The vector twin adds a whole vector, zeros included.
        const float fAdd = c == 2 ? fDy : 0.0f;
        afForm[c] = (pfEntry[c] + fB * pfEntry[LDC_MESH_FORM_FLOATS + c]) + fAdd;
    }
}

// The lens model's positions of the displaced blocks, in the remap's order of operations: its
// groups' (RadialFactorGrouped, f d + c), its tail's (RadialFactorSerial, c + f d). Each block
// takes the form of its own cell, walking the cells along the row pair.
void MeshMapGroups(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                   const uint8_t *pucColumns, tagST_GROUP_POS *pstPos)
{
    const tagST_MESH_RENDER *pstMesh = (const tagST_MESH_RENDER *)pStage;
    const tagST_RADIAL_MODEL *pstLens = &pstMesh->stLens;
    float fB;
    const float *pfBand = MeshBandOf(pstMesh, pstRow->iY, &fB);
    const float fDyRow = (float)pstRow->iY - pstLens->fCy;
    const int32_t iX0 = pstMesh->iLeft + RESAMPLE_GROUP_COLS * iFirst;
    int32_t iCell = MeshCellOf(pstMesh, iX0);
    float afForm[LDC_MESH_FORM_FLOATS];
    MeshFormAt(pfBand, iCell, fB, fDyRow, afForm);
    for (int32_t g = 0; g < iCount; g++) {
        float afX[4];
        (void)memcpy_s(afX, sizeof(afX), pucColumns + (size_t)g * RESAMPLE_QUAD_BYTES, sizeof(afX));
        for (int32_t k = 0; k < 4; k++) {
            while (iX0 + RESAMPLE_GROUP_COLS * g + 2 * k >= pstMesh->piCellStart[iCell + 1]) {
                iCell++;
                MeshFormAt(pfBand, iCell, fB, fDyRow, afForm);
            }
            const float fDx = afForm[0] + afX[k] * afForm[1];
            const float fDy = afForm[2] + afX[k] * afForm[3];
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
    float fB;
    const float *pfBand = MeshBandOf(pstMesh, iY, &fB);
    for (int32_t j = 0; j < iBlocks; j++) {
        const int32_t iXj = iX + 2 * j;
        const float fX = (float)iXj - pstLens->fCx;
        float afForm[LDC_MESH_FORM_FLOATS];
        MeshFormAt(pfBand, MeshCellOf(pstMesh, iXj), fB, (float)iY - pstLens->fCy, afForm);
        const float fDx = afForm[0] + fX * afForm[1];
        const float fDy = afForm[2] + fX * afForm[3];
        const float fF = RadialFactorSerial(pstLens, fDx * fDx + fDy * fDy);
        pstPos->afX[j] = pstLens->fCx + fF * fDx;
        pstPos->afY[j] = pstLens->fCy + fF * fDy;
    }
}

// The tables and the column table, then the core's workers over the lens rectangle.
static int32_t RunMeshRemap(int32_t iPlanar, tagST_LDC_PARA *pstPara, const float *pfMesh, uint8_t *const *ppucSrc,
                            uint8_t *const *ppucDst, uint8_t *pucTables, int32_t bNeon)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    const int32_t *piArea = pstPara->aiLDCArea;
    tagST_RADIAL_MODEL stLens;
    GetRadialModel(pstPara, 1, &stLens);
    tagST_MESH_GRID stGrid;
    FaceMeshGrid(iW, iH, 0, &stGrid);
    tagST_MESH_RENDER stMesh;
    MeshPrepare(&stLens, &stGrid, pfMesh, piArea[0], piArea[2] + 1 - piArea[0], pucTables, &stMesh);
    // The remap's job over the same rectangle, so that a zero mesh gives its bytes; its groups
    // read the mesh's column table of x'.
    tagST_RESAMPLE_JOB stJob;
    ResampleAreaJob(iPlanar, iW, iH, ppucSrc, ppucDst, piArea, pstPara->pucWorkBuf + LDC_COLUMN_TABLE_OFFSET(iW, iH),
                    pstPara->aiThreadState, pstPara->aiThreadMask, &stJob);
    stJob.pucColumns = stMesh.pucColumns;
    stJob.pStage = &stMesh;
    stJob.pfnGroups = bNeon ? MeshMapGroups_neon : MeshMapGroups;
    stJob.pfnTail = MeshMapTail;
    return bNeon ? ResampleFrame_neon(&stJob) : ResampleFrame(&stJob);
}

int32_t MeshRemap(int32_t iPlanar, tagST_LDC_PARA *pstPara, const float *pfMesh, uint8_t *const *ppucSrc,
                  uint8_t *const *ppucDst, uint8_t *pucTables)
{
    return RunMeshRemap(iPlanar, pstPara, pfMesh, ppucSrc, ppucDst, pucTables, 0);
}

int32_t MeshRemap_neon(int32_t iPlanar, tagST_LDC_PARA *pstPara, const float *pfMesh, uint8_t *const *ppucSrc,
                       uint8_t *const *ppucDst, uint8_t *pucTables)
{
    return RunMeshRemap(iPlanar, pstPara, pfMesh, ppucSrc, ppucDst, pucTables, 1);
}

#include "interface/ldc_workbuf.h"

#include "linedetect/line_detect.h"
#include "mesh/face_mesh.h"
#include "mesh/mesh_render.h"

int32_t GetWorkBufSize(int32_t iWidth, int32_t iHeight)
{
    const uint32_t uLineCheck = LineDetectWorkSize(iWidth, iHeight);
    const uint32_t uFrame = (uint32_t)LDC_WORK_SCRATCH_OFFSET(iWidth, iHeight) + LDC_WORKBUF_RESERVE;
    return (int32_t)(uLineCheck > uFrame ? uLineCheck : uFrame);
}

static uint32_t MaxU32(uint32_t uA, uint32_t uB)
{
    return uA > uB ? uA : uB;
}

static uint32_t Align16(uint32_t u)
{
    return (u + 15u) & ~15u;
}

uint32_t LdcMeshBytes(int32_t iWidth, int32_t iHeight)
{
    return Align16(MaxU32(FaceMeshBytes(iWidth, iHeight, 0), FaceMeshBytes(iHeight, iWidth, 0)));
}

uint32_t LdcMeshScratchBytes(int32_t iWidth, int32_t iHeight)
{
    const uint32_t uSolve = MaxU32(FaceMeshWorkBytes(iWidth, iHeight, 0), FaceMeshWorkBytes(iHeight, iWidth, 0));
    const uint32_t uRows = MaxU32(MeshRowTableBytes(iWidth, iHeight), MeshRowTableBytes(iHeight, iWidth));
    return Align16(MaxU32(uSolve, uRows));
}

uint32_t LdcMeshWorkOffset(int32_t iWidth, int32_t iHeight)
{
    return Align16(MaxU32((uint32_t)GetWorkBufSize(iWidth, iHeight), (uint32_t)GetWorkBufSize(iHeight, iWidth)));
}

uint32_t LdcMeshWorkBytes(int32_t iWidth, int32_t iHeight)
{
    return (uint32_t)LDC_MESH_STATE_BYTES + 2 * LdcMeshBytes(iWidth, iHeight) + LdcMeshScratchBytes(iWidth, iHeight);
}

uint32_t LdcWorkBufBytes(const tagST_LDC_PARA *pstPara)
{
    const int32_t iW = pstPara->iImgWidth;
    const int32_t iH = pstPara->iImgHeight;
    if (pstPara->iFDCMethod != LDC_FDC_MESH) {
        return (uint32_t)GetWorkBufSize(iW, iH);
    }
    return LdcMeshWorkOffset(iW, iH) + LdcMeshWorkBytes(iW, iH);
}

static uint8_t *MeshPart(const tagST_LDC_PARA *pstPara)
{
    return pstPara->pucWorkBuf + LdcMeshWorkOffset(pstPara->iImgWidth, pstPara->iImgHeight);
}

tagST_MESH_STATE *LdcMeshState(const tagST_LDC_PARA *pstPara)
{
    return (tagST_MESH_STATE *)MeshPart(pstPara);
}

float *LdcMeshSolved(const tagST_LDC_PARA *pstPara)
{
    return (float *)(MeshPart(pstPara) + LDC_MESH_STATE_BYTES);
}

float *LdcMeshShown(const tagST_LDC_PARA *pstPara)
{
    return (float *)(MeshPart(pstPara) + LDC_MESH_STATE_BYTES + LdcMeshBytes(pstPara->iImgWidth, pstPara->iImgHeight));
}

uint8_t *LdcMeshScratch(const tagST_LDC_PARA *pstPara)
{
    return MeshPart(pstPara) + LDC_MESH_STATE_BYTES + 2 * LdcMeshBytes(pstPara->iImgWidth, pstPara->iImgHeight);
}

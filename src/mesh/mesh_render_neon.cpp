// The mesh's positions of four blocks at a time; the floats are those of MeshMapGroups. 32-bit
// NEON flushes denormal displacements to zero where the plain code keeps them: they vanish
// against the principal point (at least 1) before anything depends on them.
#include "geometry/lens_model_neon.h"
#include "mesh/mesh_render.h"

void MeshMapGroups_neon(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                        const uint8_t *pucColumns, tagST_GROUP_POS *pstPos)
{
    (void)iFirst;
    const tagST_MESH_RENDER *pstMesh = (const tagST_MESH_RENDER *)pStage;
    const tagST_RADIAL_MODEL *pstLens = &pstMesh->stLens;
    const int32_t iEntries = pstMesh->stGrid.iCols - 1;
    const float *pfRow = pstMesh->pfRows + (size_t)(pstRow->iY >> 1) * (size_t)iEntries * LDC_MESH_ROW_ENTRY_FLOATS;
    const float32x4_t vInvStep = vdupq_n_f32(pstMesh->stGrid.fInvStepX);
    const int32x4_t vLastCell = vdupq_n_s32(iEntries - 1);
    const float32x4_t vY = vdupq_n_f32((float)pstRow->iY);
    const float32x4_t vCx = vdupq_n_f32(pstLens->fCx);
    const float32x4_t vCy = vdupq_n_f32(pstLens->fCy);
    const float32x4_t vC1 = vdupq_n_f32(pstLens->fC1);
    const float32x4_t vC2 = vdupq_n_f32(pstLens->fC2);
    const float32x4_t vC3 = vdupq_n_f32(pstLens->fC3);
    for (int32_t g = 0; g < iCount; g++, pucColumns += RESAMPLE_QUAD_BYTES) {
        const float32x4_t vX = vreinterpretq_f32_u8(vld1q_u8(pucColumns));
        const float32x4_t vU = vmulq_f32(vX, vInvStep);
        const int32x4_t vCell = vminq_s32(vmaxq_s32(VcvtqS32F32(vU), vdupq_n_s32(0)), vLastCell);
        const float32x4_t vA = vsubq_f32(vU, vcvtq_f32_s32(vCell));
        // The table's x ascend, so lanes 0 and 3 in one cell put all four there: a cell is many
        // blocks wide, and most groups need its one entry. Otherwise lane k's entry (left dx,
        // left dy, step dx, step dy) becomes column k of a 4 x 4 transpose.
        const int32_t iCell0 = vgetq_lane_s32(vCell, 0);
        float32x4_t vLeftX, vLeftY, vStepX, vStepY;
        if (iCell0 == vgetq_lane_s32(vCell, 3)) {
            const float32x4_t vE = vld1q_f32(pfRow + LDC_MESH_ROW_ENTRY_FLOATS * iCell0);
            vLeftX = vdupq_lane_f32(vget_low_f32(vE), 0);
            vLeftY = vdupq_lane_f32(vget_low_f32(vE), 1);
            vStepX = vdupq_lane_f32(vget_high_f32(vE), 0);
            vStepY = vdupq_lane_f32(vget_high_f32(vE), 1);
        } else {
            const float32x4_t vE0 = vld1q_f32(pfRow + LDC_MESH_ROW_ENTRY_FLOATS * iCell0);
            const float32x4_t vE1 = vld1q_f32(pfRow + LDC_MESH_ROW_ENTRY_FLOATS * vgetq_lane_s32(vCell, 1));
            const float32x4_t vE2 = vld1q_f32(pfRow + LDC_MESH_ROW_ENTRY_FLOATS * vgetq_lane_s32(vCell, 2));
            const float32x4_t vE3 = vld1q_f32(pfRow + LDC_MESH_ROW_ENTRY_FLOATS * vgetq_lane_s32(vCell, 3));
            const float32x4x2_t vT01 = vtrnq_f32(vE0, vE1);
            const float32x4x2_t vT23 = vtrnq_f32(vE2, vE3);
            vLeftX = vcombine_f32(vget_low_f32(vT01.val[0]), vget_low_f32(vT23.val[0]));
            vLeftY = vcombine_f32(vget_low_f32(vT01.val[1]), vget_low_f32(vT23.val[1]));
            vStepX = vcombine_f32(vget_high_f32(vT01.val[0]), vget_high_f32(vT23.val[0]));
            vStepY = vcombine_f32(vget_high_f32(vT01.val[1]), vget_high_f32(vT23.val[1]));
        }
        const float32x4_t vDx = vsubq_f32(vaddq_f32(vX, vaddq_f32(vLeftX, vmulq_f32(vA, vStepX))), vCx);
        const float32x4_t vDy = vsubq_f32(vaddq_f32(vY, vaddq_f32(vLeftY, vmulq_f32(vA, vStepY))), vCy);
        const float32x4_t vR2 = vaddq_f32(vmulq_f32(vDx, vDx), vmulq_f32(vDy, vDy));
        const float32x4_t vF = RadialFactorGroupedQ(vC1, vC2, vC3, vR2);
        vst1q_f32(pstPos[g].afX, vaddq_f32(vmulq_f32(vF, vDx), vCx));
        vst1q_f32(pstPos[g].afY, vaddq_f32(vmulq_f32(vF, vDy), vCy));
    }
}

// The mesh's positions of four blocks at a time; the floats are those of MeshMapGroups. A run of
// groups inside one cell keeps the cell's form in registers; a group across a boundary blends
// the following cells' displacements into its later lanes. 32-bit NEON flushes denormal
// intermediates to zero where the plain code keeps them: they vanish against the principal point
// before anything depends on them.
#include "geometry/lens_model_neon.h"
#include "mesh/mesh_render.h"

// A cell's form, each coefficient on all four lanes.
typedef struct tagST_FORM_Q {
    float32x4_t vAx;
    float32x4_t vBx;
    float32x4_t vAy;
    float32x4_t vBy;
} tagST_FORM_Q;

// MeshFormAt on one vector: (top + b change) + (0, 0, y - cy, 0), spread over the lanes.
static inline void FormQ(const float *pfBand, int32_t iCell, float32x4_t vB, float32x4_t vAddDy, tagST_FORM_Q *pstForm)
{
    const float *pfEntry = pfBand + (size_t)iCell * LDC_MESH_BAND_FLOATS;
    const float32x4_t vE = vaddq_f32(VmlaqF32(vld1q_f32(pfEntry), vB, vld1q_f32(pfEntry + LDC_MESH_FORM_FLOATS)), vAddDy);
    pstForm->vAx = vdupq_lane_f32(vget_low_f32(vE), 0);
    pstForm->vBx = vdupq_lane_f32(vget_low_f32(vE), 1);
    pstForm->vAy = vdupq_lane_f32(vget_high_f32(vE), 0);
    pstForm->vBy = vdupq_lane_f32(vget_high_f32(vE), 1);
}

typedef struct tagST_LENS_Q {
    float32x4_t vCx;
    float32x4_t vCy;
    float32x4_t vC1;
    float32x4_t vC2;
    float32x4_t vC3;
} tagST_LENS_Q;

// The positions of displaced, centred blocks (vDx, vDy).
static inline void LensGroupQ(float32x4_t vDx, float32x4_t vDy, const tagST_LENS_Q *pstLens, tagST_GROUP_POS *pstPos)
{
    const float32x4_t vR2 = VmlaqF32(vmulq_f32(vDy, vDy), vDx, vDx);   // dx dx + dy dy, the sum commutes
    const float32x4_t vF = RadialFactorGroupedQ(pstLens->vC1, pstLens->vC2, pstLens->vC3, vR2);
    vst1q_f32(pstPos->afX, VmlaqF32(pstLens->vCx, vF, vDx));
    vst1q_f32(pstPos->afY, VmlaqF32(pstLens->vCy, vF, vDy));
}

void MeshMapGroups_neon(const void *pStage, tagST_RESAMPLE_ROW *pstRow, int32_t iFirst, int32_t iCount,
                        const uint8_t *pucColumns, tagST_GROUP_POS *pstPos)
{
    const tagST_MESH_RENDER *pstMesh = (const tagST_MESH_RENDER *)pStage;
    const int32_t *piStart = pstMesh->piCellStart;
    tagST_LENS_Q stLens;
    stLens.vCx = vdupq_n_f32(pstMesh->stLens.fCx);
    stLens.vCy = vdupq_n_f32(pstMesh->stLens.fCy);
    stLens.vC1 = vdupq_n_f32(pstMesh->stLens.fC1);
    stLens.vC2 = vdupq_n_f32(pstMesh->stLens.fC2);
    stLens.vC3 = vdupq_n_f32(pstMesh->stLens.fC3);
    float fB;
    const float *pfBand = MeshBandOf(pstMesh, pstRow->iY, &fB);
    const float32x4_t vB = vdupq_n_f32(fB);
    const float32x4_t vAddDy = vsetq_lane_f32((float)pstRow->iY - pstMesh->stLens.fCy, vdupq_n_f32(0.0f), 2);
    // Lane masks by the first lane that lies in the next cell.
    static const uint32_t s_auFrom[4][4] = {
        {~0u, ~0u, ~0u, ~0u}, {0u, ~0u, ~0u, ~0u}, {0u, 0u, ~0u, ~0u}, {0u, 0u, 0u, ~0u}};
    const int32_t iX0 = pstMesh->iLeft + RESAMPLE_GROUP_COLS * iFirst;
    int32_t iCell = MeshCellOf(pstMesh, iX0);
    int32_t iNext = piStart[iCell + 1];
    tagST_FORM_Q stForm;
    FormQ(pfBand, iCell, vB, vAddDy, &stForm);
    int32_t iXg = iX0;   // the first column of the next group
    for (int32_t iLeftOver = iCount;;) {
        // The groups whose last block lies left of the next cell.
        const int32_t iRoom = iNext - 7 - iXg;
        const int32_t iRun = ResampleMinS32(iRoom < 0 ? 0 : (iRoom >> 3) + 1, iLeftOver);
        iLeftOver -= iRun;
        iXg += RESAMPLE_GROUP_COLS * iRun;
        for (int32_t n = 0; n < iRun; n++, pucColumns += RESAMPLE_QUAD_BYTES, pstPos++) {
            const float32x4_t vX = vreinterpretq_f32_u8(vld1q_u8(pucColumns));
            LensGroupQ(VmlaqF32(stForm.vAx, vX, stForm.vBx), VmlaqF32(stForm.vAy, vX, stForm.vBy), &stLens, pstPos);
        }
        if (iLeftOver == 0) {
            return;
        }
        // This group reaches into the following cell(s): the lanes from each one's first column
        // on take its displacement. The previous group's last block lay before iNext, so the
        // first such lane is 0 .. 3.
        const float32x4_t vX = vreinterpretq_f32_u8(vld1q_u8(pucColumns));
        float32x4_t vDx = VmlaqF32(stForm.vAx, vX, stForm.vBx);
        float32x4_t vDy = VmlaqF32(stForm.vAy, vX, stForm.vBy);
        do {
            iCell++;
            FormQ(pfBand, iCell, vB, vAddDy, &stForm);
            const uint32x4_t vTake = vld1q_u32(s_auFrom[(iNext - iXg + 1) >> 1]);
            vDx = vbslq_f32(vTake, VmlaqF32(stForm.vAx, vX, stForm.vBx), vDx);
            vDy = vbslq_f32(vTake, VmlaqF32(stForm.vAy, vX, stForm.vBy), vDy);
            iNext = piStart[iCell + 1];
        } while (iXg + 6 >= iNext);
        LensGroupQ(vDx, vDy, &stLens, pstPos);
        pucColumns += RESAMPLE_QUAD_BYTES;
        pstPos++;
        iXg += RESAMPLE_GROUP_COLS;
        iLeftOver--;
    }
}

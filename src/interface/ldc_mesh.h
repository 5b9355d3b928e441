// The frame driver's face-mesh step (FDCMethod 1): in place of the face homography and the global
// correction, the faces that the driver's checks let through go to the face track, the track's
// faces to the mesh solve (warm-started from the last frame's solution), and the mesh shown
// follows the solution by a bounded step per frame, so that a scene cut converges over a few
// frames without a jump. The first frame of an instance (a photo, or a stream's start) has
// nothing shown before it: its faces and its mesh start at full strength. The state that carries
// over between frames lives in the third part of the working buffer (records/work_buffer.h).
#ifndef LDC_INTERFACE_LDC_MESH_H
#define LDC_INTERFACE_LDC_MESH_H

#include <stdint.h>

#include "interface/ldc_plan.h"
#include "mesh/face_track.h"
#include "records/ldc_para.h"

typedef struct tagST_MESH_STATE {
    int32_t iWidth;      // frame size the track and the mesh belong to; 0 x 0 before the first frame
    int32_t iHeight;
    int32_t bWarm;       // the solved mesh is a solution with faces: the next solve starts from it
    int32_t bShown;      // a mesh was shown since the state was cleared: the next one follows it
    tagST_FACE_TRACK stTrack;
} tagST_MESH_STATE;

#define LDC_MESH_STATE_BYTES ((sizeof(tagST_MESH_STATE) + 15) & ~(size_t)15)

// Where the mesh part starts (behind the larger of the other two parts in either orientation, so
// that a transposed instance finds it in the same place) and its bytes.
uint32_t LdcMeshWorkOffset(int32_t iWidth, int32_t iHeight);
uint32_t LdcMeshWorkBytes(int32_t iWidth, int32_t iHeight);

// Bytes of the working buffer an instance allocates: the mesh part only with FDCMethod 1.
uint32_t LdcWorkBufBytes(const tagST_LDC_PARA *pstPara);

// The instance's mesh part: the state, the mesh solved, the mesh shown and the scratch (solve,
// then row table).
tagST_MESH_STATE *LdcMeshState(const tagST_LDC_PARA *pstPara);
float *LdcMeshSolved(const tagST_LDC_PARA *pstPara);
float *LdcMeshShown(const tagST_LDC_PARA *pstPara);
uint8_t *LdcMeshScratch(const tagST_LDC_PARA *pstPara);

// Plans a frame of an instance with FDCMethod 1 after the driver's checks (DecideCorrections):
// feeds the track, solves the mesh, moves the mesh shown toward it and chooses the mesh path,
// the lens remap alone (the solve failed) or the copy (no face correction and no face fading
// out). With MeshLines, a solve keeps the straight lines the line finder finds on pucLuma (the
// frame's luma plane, or NULL for none) straight outside the faces.
void PlanFaceMesh(tagST_LDC_PARA *pstPara, const uint8_t *pucLuma, tagST_LDC_PLAN *pstPlan);

#endif

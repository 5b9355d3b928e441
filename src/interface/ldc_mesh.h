// The frame driver's face-mesh step (FDCMethod 1): in place of the face homography and the global
// correction, the faces that the driver's checks let through go to the face track, the track's
// faces to the mesh solve (warm-started from the last frame's solution), and the mesh shown
// follows the solution by a bounded step per frame, so that a scene cut converges over a few
// frames without a jump. The first frame of an instance (a photo, or a stream's start) has
// nothing shown before it: its faces and its mesh start at full strength. The state that carries
// over between frames lives in the third part of the working buffer (interface/ldc_workbuf.h).
#ifndef LDC_INTERFACE_LDC_MESH_H
#define LDC_INTERFACE_LDC_MESH_H

#include <stdint.h>

#include "interface/ldc_plan.h"
#include "interface/ldc_workbuf.h"
#include "records/ldc_para.h"


// Plans a frame of an instance with FDCMethod 1 after the driver's checks (DecideCorrections):
// feeds the track, solves the mesh, moves the mesh shown toward it and chooses the mesh path,
// the lens remap alone (the solve failed) or the copy (no face correction and no face fading
// out). With MeshLines, a solve keeps the straight lines the line finder finds on pucLuma (the
// frame's luma plane, or NULL for none) straight outside the faces.
void PlanFaceMesh(tagST_LDC_PARA *pstPara, const uint8_t *pucLuma, tagST_LDC_PLAN *pstPlan);

#endif

// The frame plan: which way the frame driver takes one frame, and why. PlanFrame makes the
// per-frame decisions (faces, flags, the line check, the face homography under the field-of-view
// budget, the global stretch), writes the instance's decision fields as before and records the
// path with its reasons; RenderFrame (ldc_render.h) carries the plan out. qvldc prints it.
#ifndef LDC_INTERFACE_LDC_PLAN_H
#define LDC_INTERFACE_LDC_PLAN_H

#include <stdint.h>

#include "linedetect/line_detect.h"
#include "mesh/face_mesh.h"
#include "records/ldc_para.h"
#include "records/lines.h"
#include "vkt_zb_ldc.h"

#define LDC_PLAN_MAX_LINES 128   // kept lines of the line check that a plan holds

typedef enum tagE_LDC_PATH {
    LDC_PATH_COPY = 0,   // nothing applies: the output is a byte copy of the input
    LDC_PATH_LENS,       // face correction with a budget of 100 %: no fit, the lens remap alone
    LDC_PATH_FACE,       // the face homography on the lens-corrected frame
    LDC_PATH_GLOBAL,     // the line check found no bending line: the global correction
    LDC_PATH_FALLBACK,   // a refused face correction falls back to the stretched remap (mode 2)
    LDC_PATH_MESH        // FDCMethod 1: the lens remap through the face mesh
} E_LDC_PATH;

// The first check that turned face correction off, or refused its homography.
typedef enum tagE_LDC_REFUSAL {
    LDC_REFUSAL_NONE = 0,
    LDC_REFUSAL_FLAG,          // FDCFlag is off
    LDC_REFUSAL_BAD_FACE,      // a face rectangle under two pixels wide or high
    LDC_REFUSAL_NO_FACE,       // no valid face
    LDC_REFUSAL_MULTI_FACES,   // several faces and MultiFacesFDCFlag off
    LDC_REFUSAL_CENTRE,        // restricted area: no face reaches beyond the central square
    LDC_REFUSAL_FOV,           // the last fit still cost more field of view than FOVLost
    LDC_REFUSAL_FACE_EDGE,     // the fit pushed the outer edge of face iRefusedFace out
    LDC_REFUSAL_MESH           // the face mesh solve failed (iMeshStatus): the lens remap alone
} E_LDC_REFUSAL;

typedef struct tagST_LDC_PLAN {
    int32_t ePath;                          // E_LDC_PATH
    float afMatrix[9];                      // warp matrix, output pixel -> intermediate image
    int32_t iFovLost;                       // field of view the path costs, percent
    int32_t bNotFinite;                     // the matrix was not finite: the frame is copied
    int32_t eRefusal;                       // E_LDC_REFUSAL
    int32_t iRefusedFace;                   // with LDC_REFUSAL_FACE_EDGE, else -1
    int32_t iFitRounds;                     // homography fits made, 0..20
    int32_t iFitStatus;                     // the last fit's status ("ret of H")
    float fFitDegree;                       // the strength of the last fit
    int32_t iFitFovLost;                    // the last fit's loss as logged (100 without a fit)
    int32_t bLineCheck;                     // the line check ran on this frame
    tagST_LINE_CHECK stLineCheck;           // what it saw and decided
    stLine astLines[LDC_PLAN_MAX_LINES];    // its first kept lines, frame pixels
    int32_t iFaceNum;                       // valid faces
    int32_t aiFaceRect[LDC_MAX_FACES][4];   // the valid faces, widened by an eighth on every side
    // FDCMethod 1:
    int32_t iMeshFaces;                     // faces the track handed to the solve, fading ones included
    int32_t iMeshStatus;                    // the solve's LDC_MESH_OK or error code
    tagST_MESH_STATS stMeshStats;
    tagST_MESH_GRID stMeshGrid;
    float fMeshStep;                        // the largest step the mesh shown took toward the solution
    const float *pfMesh;                    // the mesh the frame is rendered through (the instance's,
                                            // until its next frame); NULL off the mesh path
} tagST_LDC_PLAN;

// An empty plan: the copy path, the identity matrix, nothing refused, no line check.
void InitFramePlan(tagST_LDC_PLAN *pstPlan);

// Plans the frame for an instance already adapted to its size and orientation, from its first
// iFaceNum face rectangles and its luma plane (for the line check). pstPlan comes from
// InitFramePlan.
void PlanFrame(tagST_LDC_PARA *pstPara, const ST_FACE_RECT *pstFaces, int32_t iFaceNum, const uint8_t *pucLuma,
               tagST_LDC_PLAN *pstPlan);

#endif

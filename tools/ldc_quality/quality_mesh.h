// The mesh row: the face mesh solved for a scene's faces and rendered by a float reference
// renderer (per output pixel: mesh displacement, lens model, bilinear sample of the recording).
#ifndef LDC_QUALITY_MESH_H
#define LDC_QUALITY_MESH_H

#include <stdint.h>

#include <vector>

#include "mesh/face_mesh.h"
#include "mesh/face_track.h"
#include "quality_probe.h"
#include "quality_scene.h"

typedef struct tagST_QME_MESH {
    tagST_MESH_GRID stGrid;
    tagST_RADIAL_MODEL stLens;
    std::vector<float> vfMesh;
    tagST_MESH_STATS stColdStats;
    tagST_MESH_STATS stWarmStats;
    double dColdMs;   // solve from zero
    double dWarmMs;   // the same solve started from its own result
    int32_t iStatus;
} tagST_QME_MESH;

// Solves the mesh for the scene's faces widened as the frame driver widens them; with bLines the
// scene's straight lines go to the line term as a detector would report them.
void SolveSceneMesh(const tagST_QS_SCENE &stScene, float fStrength, bool bLines, tagST_QME_MESH *pstMesh);

// Frame-to-frame steadiness of the mesh: the largest change of any vertex's displacement (an
// output pixel's motion, in pixels) between consecutive frames.
typedef struct tagST_QME_TEMPORAL {
    double dJitterRaw;      // faces jittering by +-3 pixels on a static scene, fed straight in
    double dJitterTracked;  // the same through the face track, once the faces are in
    double dCutInStep;      // largest step while the faces fade in after a cut
    int32_t iCutInFrames;   // frames until no step exceeds 0.05 pixels
    double dCutOutStep;     // largest step while they fade out
    int32_t iCutOutFrames;
    double dMovingStep;     // the border face moving 10 pixels a frame, tracked
} tagST_QME_TEMPORAL;

void MeasureTemporal(const tagST_QS_SCENE &stScene, float fStrength, tagST_QME_TEMPORAL *pstTemporal);

// The reference renderer of a solved mesh for frames of the scene's size.
QualityRenderer MeshRenderer(const tagST_QME_MESH &stMesh, int32_t iWidth, int32_t iHeight);

#endif

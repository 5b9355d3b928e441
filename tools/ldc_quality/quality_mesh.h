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
    double dColdMs;   // solve from zero (processor time of the solving thread)
    double dWarmMs;   // the same solve started from its own result
    int32_t iStatus;
    int32_t iLines;   // segments handed to the line term
} tagST_QME_MESH;

// Which straight segments the mesh's line term gets: none, the ones the library's line finder
// finds on the recorded frame, or the scene's own lines (an upper bound of what a finder gives).
typedef enum tagE_QME_LINES {
    E_QME_LINES_NONE = 0,
    E_QME_LINES_DETECTED,
    E_QME_LINES_SCENE,
} tagE_QME_LINES;

typedef struct tagST_QME_SETUP {
    float fStrength;
    tagE_QME_LINES eLines;
    int32_t iCells;                  // cells along the longer side, 0 for the default
    const uint8_t *pucRecorded;      // the recorded frame's luma, for the detected lines
} tagST_QME_SETUP;

// Solves the mesh for the scene's faces widened as the frame driver widens them.
void SolveSceneMesh(const tagST_QS_SCENE &stScene, const tagST_QME_SETUP &stSetup, tagST_QME_MESH *pstMesh);

// The segments the library's line finder reports on a recorded luma plane, in recorded pixels:
// downscale, Sobel edges, Hough segments within 22 degrees of the axes, collinear pieces joined,
// the short ones dropped, with the sample configuration's thresholds.
std::vector<stLine> DetectedSegments(const uint8_t *pucLuma, int32_t iWidth, int32_t iHeight);

// Frame-to-frame steadiness of the mesh shown: the largest change of any vertex's displacement (an
// output pixel's motion, in pixels) between consecutive frames. Tracked runs go through the face
// track and the step bound, as a preview stream would.
typedef struct tagST_QME_TEMPORAL {
    double dJitterRaw;      // faces jittering by +-3 pixels on a static scene, fed straight in
    double dJitterTracked;  // the same through the face track, once the faces are in
    double dCutInStep;      // largest step while the faces fade in after a cut
    int32_t iCutInFrames;   // frames until no step exceeds 0.05 pixels
    double dCutOutStep;     // largest step while they fade out
    int32_t iCutOutFrames;
    double dMovingStep;     // the border face moving 10 pixels a frame, tracked
    double dBound;          // the step bound of the mesh shown (FaceMeshStepBound)
} tagST_QME_TEMPORAL;

void MeasureTemporal(const tagST_QS_SCENE &stScene, const tagST_QME_SETUP &stSetup, tagST_QME_TEMPORAL *pstTemporal);

// The reference renderer of a solved mesh for frames of the scene's size.
QualityRenderer MeshRenderer(const tagST_QME_MESH &stMesh, int32_t iWidth, int32_t iHeight);

#endif

// What a viewer of the corrected frame sees of the scene's known geometry, measured on the map
// from output pixels to corrected (perspective) points: the probe's recorded positions taken back
// through the lens model.
#ifndef LDC_QUALITY_METRICS_H
#define LDC_QUALITY_METRICS_H

#include <stdint.h>

#include <vector>

#include "quality_probe.h"
#include "quality_scene.h"

typedef struct tagST_QM_FACE {
    double dAxisRatio;   // minor over major axis of the silhouette's second moments (1 = round)
    int32_t bCut;        // the silhouette touches the frame's border, or is gone
} tagST_QM_FACE;

typedef struct tagST_QM_LINE {
    int32_t iIndex;    // in the scene's lines
    double dRms;       // px per 1000 px of width
    int32_t iPoints;
    int32_t bFar;
} tagST_QM_LINE;

typedef struct tagST_QM_RESULT {
    std::vector<tagST_QM_FACE> vstFaces;   // one per sphere of the scene
    double dWorstBorderRatio;              // smallest axis ratio of the faces away from the centre
    double dCentreRatio;
    int32_t iCut;
    // Distance from straight, RMS over the points of the lines (each line against its own best
    // line), in pixels per 1000 pixels of frame width: all lines, and the lines that pass farther
    // than two face radii from every face; and the worst single line.
    double dLinesRms;
    double dFarLinesRms;
    double dWorstLineRms;
    int32_t iLines;
    int32_t iFarLines;
    // Covered width and height of the scene (per row the corrected x of the last valid pixel minus
    // that of the first, averaged; likewise columns) relative to the lens-only frame; the smaller.
    double dFovKept;
    // Largest local magnification of the scene against lens-only correction: over the output
    // pixels, 1 / (smallest singular value of the map's Jacobian). A strip squeezed between a face
    // and the frame's edge shows up here; conformal faces (stretched one way only) do not.
    double dMagnification;
    std::vector<tagST_QM_LINE> vstLines;   // every line measured
} tagST_QM_RESULT;

// Corrected points of a source map. NaN marks a position without preimage under the lens and a
// pixel that repeats its neighbour's sample (a position clamped to the edge of the source).
void CorrectedMap(const tagST_QS_LENS &stLens, const tagST_QP_MAP &stSource, tagST_QP_MAP *pstCorrected);

void MeasureCorrectedMap(const tagST_QS_SCENE &stScene, const tagST_QP_MAP &stCorrected, tagST_QM_RESULT *pstResult);

#endif

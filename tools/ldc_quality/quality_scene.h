// Synthetic wide-angle scenes with known geometry for the quality benchmark: a box-shaped room
// whose walls, floor and ceiling carry straight grid lines, and head-sized spheres at the centre,
// the border and a corner, recorded by a pinhole camera through the library's radial lens model.
#ifndef LDC_QUALITY_SCENE_H
#define LDC_QUALITY_SCENE_H

#include <stdint.h>

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "vkt_zb_ldc.h"

// The camera as a size profile holds it. A corrected (perspective) point q takes its value from
// the recorded point c + f (q - c), f = 1 + c1 r^2 + c2 r^4 + c3 r^6, c_i = k_i / fx^(2i).
typedef struct tagST_QS_LENS {
    int32_t iWidth;
    int32_t iHeight;
    double dFx;
    double dU0;   // odd whole pixels, as the configuration reader leaves them
    double dV0;
    double adK[3];
    double adGlobal[4];   // global face-correction coefficients g0 g1 g2 and the bend strength
    double dRMono;        // corrected radius up to which the recorded radius still grows
} tagST_QS_LENS;

typedef struct tagST_QS_SPHERE {
    double adDir[3];   // unit direction of the centre from the camera
    double dAlpha;     // angular radius of the silhouette
    double dDist;      // distance of the centre
    int32_t bCentre;   // the face at the principal point (not a border face)
    std::string strName;
} tagST_QS_SPHERE;

typedef struct tagST_QS_LINE {
    double adP0[3];
    double adP1[3];
} tagST_QS_LINE;

typedef struct tagST_QS_SCENE {
    std::string strName;   // e.g. "640x480 fov100"
    double dHfov;          // horizontal field of view of the lens-corrected frame, degrees
    int32_t bSampleLens;   // the lens of the sample configuration (else a synthetic 10 % barrel)
    tagST_QS_LENS stLens;
    std::vector<tagST_QS_SPHERE> vstSpheres;
    std::vector<tagST_QS_LINE> vstLines;
    std::vector<ST_FACE_RECT> vstFaces;   // detector rectangles in recorded pixels, one per sphere
} tagST_QS_SCENE;

// Recorded position of the corrected point (dQx, dQy).
void LensForward(const tagST_QS_LENS &stLens, double dQx, double dQy, double *pdPx, double *pdPy);
// Corrected point of the recorded position (dPx, dPy); false where the model has no preimage.
bool LensInverse(const tagST_QS_LENS &stLens, double dPx, double dPy, double *pdQx, double *pdQy);

// A lens for a frame of iW x iH whose corrected frame spans dHfov degrees horizontally: the sample
// profile's camera when bSample (dHfov is then ignored and taken from it), else fx from the field
// of view, the principal point at the odd pixel next to the centre and a 10 % barrel at the
// farthest corner. The global coefficients squeeze the corner by 5 %, as the sample's do.
bool MakeLens(int32_t iW, int32_t iH, double dHfov, bool bSample, const std::string &strSampleConfig,
              tagST_QS_LENS *pstLens, std::string *pstrError);

// The room, its lines and three spheres (centre, left border, top-right corner) placed so that
// each silhouette stays inside the lens-corrected frame by a margin of 3 % of the width.
void BuildScene(const tagST_QS_LENS &stLens, double dHfov, tagST_QS_SCENE *pstScene);

// Ray direction (not normalised) of the corrected point (dQx, dQy).
void RayOfCorrected(const tagST_QS_LENS &stLens, double dQx, double dQy, double *pdRay);
// Corrected point of a ray; false for rays at or behind the image plane's horizon.
bool CorrectedOfRay(const tagST_QS_LENS &stLens, const double *pdRay, double *pdQx, double *pdQy);

// iCount rays on the rim of a sphere's silhouette (three doubles each).
void SilhouetteRays(const double *pdDir, double dAlpha, int32_t iCount, std::vector<double> *pvdRays);
// Centre and radius of a sphere's lens-corrected image: the box of its rim.
void SphereImageDisc(const tagST_QS_LENS &stLens, const tagST_QS_SPHERE &stSphere, double *pdCx, double *pdCy,
                     double *pdR);

// Whether the ray meets the sphere's silhouette.
bool RayInSphere(const tagST_QS_SPHERE &stSphere, const double *pdRay);

// The recorded frame (BGR): each recorded pixel shows the scene along the ray of its corrected
// point, supersampled iSuper x iSuper.
cv::Mat RenderScene(const tagST_QS_SCENE &stScene, int32_t iSuper);

#endif

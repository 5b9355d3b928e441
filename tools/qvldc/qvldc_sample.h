// The project's sample portrait scene, rendered as the configured wide-angle lens records it.
#ifndef QVLDC_SAMPLE_H
#define QVLDC_SAMPLE_H

#include <stdint.h>

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "geometry/lens_model.h"
#include "qvldc_parse.h"

// The lens model of the configuration's profile for stSize, in stSize's orientation.
bool LoadLensModel(const std::string &strConfig, tagST_QV_SIZE stSize, tagST_RADIAL_MODEL *pstModel,
                   std::string *pstrError);

// One person of the scene: the face's centre in fractions of the frame (u across, v down), its
// half-width as a fraction of the frame's width, and a shirt colour (BGR).
typedef struct tagST_QV_PERSON {
    double dU;
    double dV;
    double dA;
    cv::Scalar stShirt;
} tagST_QV_PERSON;

// The sample's two people, near the left and right borders.
std::vector<tagST_QV_PERSON> SamplePeople();
// Frame iFrame of a varied batch: none to three people, large and small, near the centre, the
// borders and the corners, the same for the same iFrame.
std::vector<tagST_QV_PERSON> VariedPeople(int32_t iFrame);

// How the lens records a frame of stSize: for each recorded pixel, the corrected position it
// shows on the scene's canvas. Computed once per size, reused for every scene.
typedef struct tagST_QV_RECORDING {
    tagST_RADIAL_MODEL stModel;
    tagST_QV_SIZE stSize;
    double dOx;   // corrected pixel of canvas column 0 and row 0
    double dOy;
    cv::Size stCanvas;
    cv::Mat stMapX;
    cv::Mat stMapY;
} tagST_QV_RECORDING;
void PrepareRecording(const tagST_RADIAL_MODEL &stModel, tagST_QV_SIZE stSize, tagST_QV_RECORDING *pstRec);

// Renders the scene (the people in front of buildings with windows, a door, a lamp post, a
// tilted horizon and a road in perspective) straight, then records it through the lens. pvstFaces
// receives the face rectangles in recorded pixels.
void RenderSample(const tagST_QV_RECORDING &stRec, const std::vector<tagST_QV_PERSON> &vstPeople,
                  cv::Mat *pstRecorded, std::vector<ST_FACE_RECT> *pvstFaces);

#endif

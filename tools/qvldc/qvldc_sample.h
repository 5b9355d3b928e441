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

// Renders the scene (two people near the left and right borders in front of buildings with
// windows, a door, a lamp post, a tilted horizon and a road in perspective) straight, then
// records it through the lens: each recorded pixel takes the scene at the corrected radius
// whose lens image it is. pvstFaces receives the face rectangles in recorded pixels.
void RenderSample(const tagST_RADIAL_MODEL &stModel, tagST_QV_SIZE stSize, cv::Mat *pstRecorded,
                  std::vector<ST_FACE_RECT> *pvstFaces);

#endif

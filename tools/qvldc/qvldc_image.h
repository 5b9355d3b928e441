// Frames in and out of qvldc: raw 4:2:0 files, photos, PNG views, face detection and the overlay.
#ifndef QVLDC_IMAGE_H
#define QVLDC_IMAGE_H

#include <stdint.h>

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "interface/ldc_plan.h"
#include "qvldc_parse.h"
#include "records/ldc_para.h"

// One frame in a library picture type.
typedef struct tagST_QV_FRAME {
    int32_t iWidth;
    int32_t iHeight;
    int32_t ePicType;
    std::vector<uint8_t> vucData;   // iWidth * iHeight * 3 / 2 bytes
} tagST_QV_FRAME;

// What the overlay writes as text, already worded.
typedef struct tagST_QV_DECISION {
    std::vector<std::string> vstrLines;
} tagST_QV_DECISION;

// Reads a raw frame or a PNG/JPEG photo (cropped to even sides), opening the path once; a photo's
// header is checked before it is decoded. A raw frame has stSize or, when that is 0 x 0, the size
// GuessFrameSize finds for its length among vstProfiles with vstFaces. On false *pstrError holds
// the reason (without the path).
bool LoadFrame(const std::string &strPath, tagST_QV_SIZE stSize, const std::vector<tagST_QV_SIZE> &vstProfiles,
               const std::vector<ST_FACE_RECT> &vstFaces, int32_t ePicType, tagST_QV_FRAME *pstFrame,
               std::string *pstrError);
bool SaveRaw(const std::string &strPath, const tagST_QV_FRAME &stFrame);
cv::Mat FrameToBgr(const tagST_QV_FRAME &stFrame);
// stBgr must have even sides.
void BgrToFrame(const cv::Mat &stBgr, int32_t ePicType, tagST_QV_FRAME *pstFrame);
bool SavePng(const std::string &strPath, const cv::Mat &stBgr);
// The picture scaled to iWidth pixels across (area averaging), or as it is for 0 or a width at
// least its own.
cv::Mat ScaledToWidth(const cv::Mat &stBgr, int32_t iWidth);
// A thumbnail for the report: a 320 pixel wide JPEG (sharper than the page's 200 CSS pixels on
// dense screens), small enough to inline every picture of a long batch.
std::vector<uint8_t> ThumbnailJpeg(const cv::Mat &stBgr);

// Faces of OpenCV's Haar cascade, as inclusive rectangles. On false *pstrError says what is wrong
// with the cascade file (without its path).
bool DetectFaces(const cv::Mat &stBgr, const std::string &strCascade, std::vector<ST_FACE_RECT> *pvstFaces,
                 std::string *pstrError);

// The input frame with the faces as given (thin white) and as the frame's plan widened them
// (thick yellow), the instance's valid areas (cyan: lens, magenta: global face correction), the
// lines the line check judged (green straight, red the one that bent, grey kept but not judged;
// painted with the library's DrawLine), the face mesh vfMesh on the plan's grid (orange: where
// the output's grid lines sample the input, through the mesh and the lens model; empty: none)
// and the decision text.
cv::Mat DrawOverlay(const cv::Mat &stBefore, const std::vector<ST_FACE_RECT> &vstFaces,
                    const tagST_LDC_PARA &stPara, const tagST_LDC_PLAN &stPlan, const std::vector<float> &vfMesh,
                    const tagST_QV_DECISION &stDecision);

#endif

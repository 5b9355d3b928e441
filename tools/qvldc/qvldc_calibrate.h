// qvldc --calibrate: a size profile's lens from chessboard photos taken with the camera itself,
// fitted to the library's own lens model (one focal length for both axes, radial k1..k3, no
// tangential terms, principal point on the odd whole pixels the library moves it to).
#ifndef QVLDC_CALIBRATE_H
#define QVLDC_CALIBRATE_H

#include <stdint.h>

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "qvldc_parse.h"

// What a profile says about the lens, in pixels of its frame size.
typedef struct tagST_QV_LENS {
    double dFx;       // fx = fy
    double dU0;
    double dV0;
    double adK[3];    // k1, k2, k3 (radius normalised by fx)
} tagST_QV_LENS;

typedef struct tagST_QV_CALIB_VIEW {
    std::string strName;
    int32_t bUsed;
    std::string strReason;             // why the photo was not used; empty when it was
    double dRms;                       // reprojection error of the photo (pixels), -1 without a board
    double dDistance;                  // distance of the board, in squares (times --square)
    std::vector<cv::Point2f> vstCorners;
} tagST_QV_CALIB_VIEW;

typedef struct tagST_QV_CALIBRATION {
    tagST_QV_SIZE stSize;
    tagST_QV_SIZE stBoard;             // inner corners, columns x rows
    tagST_QV_LENS stLens;              // principal point as the library stores it
    double dRms;                       // over the photos used, with that principal point
    double dFreeU0;                    // the principal point the photos put it at
    double dFreeV0;
    double dFreeRms;
    double dReach;                     // farthest corner seen, as a fraction of the way to the
                                       // farthest frame corner
    int32_t aiLDCArea[4];              // the lens area the library keeps for this profile
    std::vector<tagST_QV_CALIB_VIEW> vstViews;
} tagST_QV_CALIBRATION;

// The inner corners of a stBoard chessboard in a grey photo, refined to a fraction of a pixel;
// false unless every corner was found.
bool FindBoardCorners(const cv::Mat &stGray, tagST_QV_SIZE stBoard, std::vector<cv::Point2f> *pvstCorners);

// Reads every photo of strDir (.png, .jpg, .jpeg, .bmp, .tif, .tiff, by name order), finds the
// board in those of stSize and fits the lens. Photos of another size, without the board or far
// worse than the others stay in vstViews with the reason. False, with *pstrError, when the
// directory or fewer than 3 usable photos make a calibration impossible.
bool CalibrateDirectory(const std::string &strDir, tagST_QV_SIZE stSize, tagST_QV_SIZE stBoard, double dSquare,
                        tagST_QV_CALIBRATION *pstCalib, std::string *pstrError);

// A DistortionCorrection1 block for the configuration file, with the calibration's lens and the
// documented defaults for the keys that are not the lens's.
std::string FormatProfileBlock(const tagST_QV_CALIBRATION &stCalib);

// The --calibrate mode of the tool: prints the result, writes the block to --profile-out or
// prints it.
int RunCalibrate(const tagST_QV_OPTIONS &stOpt);

#endif

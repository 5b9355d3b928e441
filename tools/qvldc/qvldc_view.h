// What the output of a frame shows of its input, measured from the frame's plan: how much the
// warp zooms, where it ran out of source and repeats the frame's edge, and whether a face leaves
// the frame. The library's log states the field of view its fit budgeted; these are what a tuner
// sees in the picture. No OpenCV here, so the unit tests compile this file on every target.
#ifndef QVLDC_VIEW_H
#define QVLDC_VIEW_H

#include <stdint.h>

#include <string>
#include <vector>

#include "interface/ldc_plan.h"
#include "records/ldc_para.h"

enum { QV_LEFT = 0, QV_TOP, QV_RIGHT, QV_BOTTOM };

// One widened face of the plan as the output shows it.
typedef struct tagST_QV_FACE_VIEW {
    float afBox[4];      // bounding box in output pixels: left, top, right, bottom (may pass the frame)
    int32_t aiCut[4];    // pixels of the box beyond the left, top, right and bottom edges
    int32_t bCut;        // some part of the face that the input showed is not in the output
} tagST_QV_FACE_VIEW;

typedef struct tagST_QV_VIEW {
    float fOutWidth;          // the frame's size
    float fOutHeight;
    float fZoom;              // the warp's magnification at the frame centre: 1 none, above 1 in
    float afShown[2];         // the input's width and height the output spans along its centre
                              // lines, percent (the remap's stretch included)
    float afBorder[4];        // how deep the edge-repeating band reaches from each side, percent
                              // of the width (left, right) or the height (top, bottom)
    float fBorderArea;        // share of the output repeating an edge, percent
    std::vector<tagST_QV_FACE_VIEW> vstFaces;   // the plan's faces, in its order
} tagST_QV_VIEW;

// Where an output pixel looks in the input frame: through the plan's matrix into the
// intermediate image, then through the remap's radial model. With bClampToSource the position is
// first clamped into the intermediate image as the warp clamps it, and outside the remap's
// rectangle the intermediate holds the input unmoved: the pixel's actual source. Without, the
// position is taken on the model's whole plane, beyond the frame where the warp ran out of source.
void OutputToInput(const tagST_LDC_PLAN &stPlan, const tagST_LDC_PARA &stPara, float fX, float fY,
                   int32_t bClampToSource, float *pfX, float *pfY);

// Measures the frame whose plan and instance fields (after the frame) are given.
void MeasureView(const tagST_LDC_PLAN &stPlan, const tagST_LDC_PARA &stPara, tagST_QV_VIEW *pstView);

// The view in words: the zoom and span, the edge-repeating border, the faces; ViewLines gives
// the three in that order.
std::string ZoomText(const tagST_QV_VIEW &stView);
std::string BorderText(const tagST_QV_VIEW &stView);
std::string FacesText(const tagST_QV_VIEW &stView);
std::vector<std::string> ViewLines(const tagST_QV_VIEW &stView);

// The deepest edge-repeating band, percent of the side it runs along.
float WidestBorder(const tagST_QV_VIEW &stView);
// How many faces the output cuts.
int32_t CutFaceCount(const tagST_QV_VIEW &stView);

#endif

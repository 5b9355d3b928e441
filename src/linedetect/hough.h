// Fixed-point Hough transform over 180 whole-degree angles and extraction of straight segments
// from a binary edge map (0 / 255), in the coordinates of the downscaled image.
#ifndef LDC_LINEDETECT_HOUGH_H
#define LDC_LINEDETECT_HOUGH_H

#include <stddef.h>
#include <stdint.h>

#include "linedetect/hough_vote.h"
#include "records/lines.h"
#include "vkt_zb_ldc.h"   // LDC_EXPORT

#define LDC_HOUGH_TRIG_BYTES (LDC_HOUGH_THETA_NUM * 2 * 4)   // 1440: the scratch's trig table

#ifdef __cplusplus
extern "C" {
#endif

// Finds up to LDC_HOUGH_MAX_LINES segments in the iWidth x iHeight edge map, sorted by theta,
// and returns their number. pucScratch holds HoughScratchSize(iWidth, iHeight) bytes and needs
// no alignment; it is laid out as: trig table (180 pairs of int32), point list (iWidth*iHeight
// uint32), accumulator (182 x (2R+3) int32), run map (iWidth*iHeight bytes).
LDC_EXPORT int32_t LineDetectionHough(const uint8_t *pucEdge, int32_t iWidth, int32_t iHeight, stLine *pstLines,
                                      int32_t iMinVotes, uint8_t *pucScratch);

#ifdef __cplusplus
}
#endif

// Largest rho magnitude R = (int)sqrt(w*w + h*h + 0.5), the half added under the root.
int32_t HoughRhoMax(int32_t iWidth, int32_t iHeight);
// Bytes of scratch LineDetectionHough uses: 1440 + 5*w*h + 728*(2R+3).
size_t HoughScratchSize(int32_t iWidth, int32_t iHeight);

#endif

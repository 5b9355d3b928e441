// Fixed-point Hough transform over 180 whole-degree angles and extraction of straight segments
// from a binary edge map (0 / 255), in the coordinates of the downscaled image.
#ifndef LDC_LINEDETECT_HOUGH_H
#define LDC_LINEDETECT_HOUGH_H

#include <stddef.h>
#include <stdint.h>

#include "records/lines.h"
#include "vkt_zb_ldc.h"   // LDC_EXPORT

#define LDC_HOUGH_THETA_NUM 180    // whole degrees 0..179

// Argument record of the voting step. The accumulator has LDC_HOUGH_THETA_NUM + 2 rows of
// 2 * iRhoMax + 3 counters: row t + 1 is angle t, column iRhoMax + 1 + rho; the outer rows and
// columns are a zero guard band so that every real cell has four neighbours.
typedef struct tagST_LINE_DETECT {
    int32_t iPointNum;       // entries in puiPoints
    int32_t iThetaNum;       // always LDC_HOUGH_THETA_NUM
    int32_t iRhoMax;         // R of HoughRhoMax
    int32_t *piTrig;         // per angle: cos, sin in Q15
    uint32_t *puiPoints;     // edge points, row + (column << 16)
    int32_t *piAccum;        // vote counters
} tagST_LINE_DETECT;

#ifdef __cplusplus
extern "C" {
#endif

// Adds the votes of the first (iPointNum rounded down to a multiple of 4) points for the angles
// within 22 degrees of the axes (0..22, 67..89, 90..112, 157..179). Returns 0.
LDC_EXPORT int32_t CountLineProb(tagST_LINE_DETECT *pstLineDetect);
// Same counts as CountLineProb.
LDC_EXPORT int32_t CountLineProb_NEON(tagST_LINE_DETECT *pstLineDetect);

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

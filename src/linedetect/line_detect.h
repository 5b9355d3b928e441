// The line check before a global face correction: would the correction visibly bend a straight
// line of the scene?
#ifndef LDC_LINEDETECT_LINE_DETECT_H
#define LDC_LINEDETECT_LINE_DETECT_H

#include <stdint.h>

#include "records/ldc_para.h"
#include "records/lines.h"
#include "vkt_zb_ldc.h"

#define LDC_LD_JOIN_THETA 2        // pieces up to this many degrees apart may be joined
#define LDC_LD_JOIN_DISTANCE 2     // largest distance in pixels of a joined piece's inner end

#ifdef __cplusplus
extern "C" {
#endif

// 1 when no straight line of the luma plane would bend under the global face correction (also
// when there is no usable line), 0 when one would, or when the record has no working buffer.
// In classifier mode a record whose model holds no vectors gets the built-in default model.
LDC_EXPORT int32_t LineDetect(const uint8_t *pucLuma, tagST_LDC_PARA *pstPara);

#ifdef __cplusplus
}
#endif

// Downscale factor of the check: 8 when both sides exceed 640, else 4.
int32_t LineDetectFactor(int32_t iWidth, int32_t iHeight);

// Joins collinear pieces of iCount lines sorted by theta (pucAlive: iCount flag bytes), keeps
// the joined lines that are covered more than fConnectRatio of their length and at least
// iMinLength long, compacted to the front of pstLines, and returns how many were kept.
int32_t JoinDetectedLines(stLine *pstLines, int32_t iCount, uint8_t *pucAlive, float fConnectRatio,
                          int32_t iMinLength);

// Bytes of working buffer LineDetect uses for a frame of iWidth x iHeight (the first part of the
// layout in records/work_buffer.h): 25440 + 6wh + 728 (2R + 3) with w, h the downscaled size and
// R the Hough rho bound.
uint32_t LineDetectWorkSize(int32_t iWidth, int32_t iHeight);

#endif

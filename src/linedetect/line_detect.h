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

// What one line check saw and decided. It judges the kept lines in order, each scaled to frame
// pixels first, and stops at the first bending one: lines [0, iJudged) were judged, and when
// iVerdict is 0 the last of them is the one that bent.
typedef struct tagST_LINE_CHECK {
    int32_t iVerdict;   // LineDetect's answer
    int32_t iFactor;    // downscale factor
    int32_t iKept;      // lines left after joining and the length and coverage tests
    int32_t iJudged;    // lines judged, the bending one included
} tagST_LINE_CHECK;

// LineDetect, reporting what it saw in *pstCheck and copying the first min(iKept, iCap) kept
// lines, in frame pixels, to pstLines (iCap 0: none). The same verdict, bytes and log lines.
int32_t CheckLines(const uint8_t *pucLuma, tagST_LDC_PARA *pstPara, tagST_LINE_CHECK *pstCheck, stLine *pstLines,
                   int32_t iCap);

// Finding: downscales the luma plane by iFactor, builds the edge map, finds the Hough segments,
// joins them and keeps the long, well covered ones. Works in the line check's part of the working
// buffer pucWork; returns how many lines were kept, at its start in reduced pixels.
int32_t FindLines(const uint8_t *pucLuma, int32_t iWidth, int32_t iHeight, int32_t iFactor, int32_t iThresh,
                  float fConnectRatio, float fLengthRatio, uint8_t *pucWork);

// Judging: scales each of the iKept lines to frame pixels and judges it by the bend measure or the
// classifier, as the record selects, until one bends (it logs that one). Returns how many lines
// passed before it (iKept when none bends).
int32_t JudgeLines(const tagST_LDC_PARA *pstPara, stLine *pstLines, int32_t iKept, int32_t iFactor);

// FindLines with the record's thresholds on its frame, the kept lines scaled to frame pixels at
// the start of the record's working buffer (its line check part). Returns how many (0 without a
// working buffer).
int32_t FindFrameLines(const uint8_t *pucLuma, const tagST_LDC_PARA *pstPara);

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

// The line check as the library ran it on a frame, replayed so that its lines can be drawn.
#ifndef QVLDC_LINECHECK_H
#define QVLDC_LINECHECK_H

#include <stdint.h>

#include <vector>

#include "linedetect/hough.h"
#include "records/ldc_para.h"

typedef enum tagE_QV_LINE_STATE {
    QV_LINE_STRAIGHT = 0,   // judged and passed
    QV_LINE_BENDS,          // the line that ended the check
    QV_LINE_UNJUDGED        // kept but never judged: an earlier line already bent
} E_QV_LINE_STATE;

typedef struct tagST_QV_LINE_CHECK {
    int32_t bRanByLibrary;            // the frame driver called LineDetect for this frame
    int32_t iVerdict;                 // LineDetect's answer on the replay (1: no line bends)
    int32_t iFactor;                  // downscale factor of the check
    std::vector<stLine> vstLines;     // kept lines in frame pixels
    std::vector<int32_t> viState;     // E_QV_LINE_STATE per line
} tagST_QV_LINE_CHECK;

// Whether IQV_LDC_Process ran the line check on its last frame, from the decision fields it
// left: the check runs with several valid faces, face correction still on and the global mode 1;
// afterwards the mode holds the verdict, and only a verdict of 1 switches face correction off.
int32_t LineCheckRan(const tagST_LDC_PARA *pstPara);

// Replays LineDetect on pucLuma with the instance's settings and a private working buffer (the
// instance's own buffer holds the intermediate image once a frame is remapped), and reports the
// kept lines with their judgement. LineDetect's own log lines go to stderr as usual.
void ReplayLineCheck(const tagST_LDC_PARA *pstPara, const uint8_t *pucLuma, tagST_QV_LINE_CHECK *pstCheck);

#endif

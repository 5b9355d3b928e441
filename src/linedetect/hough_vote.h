// Voting step of the Hough transform: its argument record, the plain voter that defines the
// counts and its NEON twin, and the pieces both share. The segment extraction (hough.cpp) calls
// the NEON voter and reads the accumulator through the same pieces.
#ifndef LDC_LINEDETECT_HOUGH_VOTE_H
#define LDC_LINEDETECT_HOUGH_VOTE_H

#include <stdint.h>

#include "vkt_zb_ldc.h"   // LDC_EXPORT

#define LDC_HOUGH_THETA_NUM 180                        // whole degrees 0..179
#define LDC_HOUGH_ACCUM_ROWS (LDC_HOUGH_THETA_NUM + 2)   // one guard row above and below

// Argument record of the voting step. The accumulator has LDC_HOUGH_ACCUM_ROWS rows of
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

#ifdef __cplusplus
}
#endif

// The scratch area sits right after the w*h-byte Sobel output in the working buffer, so its
// counters are only byte aligned when w*h is odd. Accesses go through these types, which let the
// compiler assume nothing about alignment (no paired or multiple loads that would fault).
typedef int32_t HoughS32 __attribute__((aligned(1)));
typedef uint32_t HoughU32 __attribute__((aligned(1)));

// Voting is restricted to the angles within theta_num / 8 of the axes, taken as four passes, one
// per quarter: the first E + 1 angles of quarters 0 and 2 and the last Q - E of quarters 1 and 3.
// With 180 angles: 0..22, 67..89, 90..112, 157..179; the diagonal bands never collect votes.
typedef struct tagST_HOUGH_PASS {
    int32_t iFirst;
    int32_t iLast;   // inclusive
} tagST_HOUGH_PASS;

static inline void HoughVotePasses(int32_t iThetaNum, tagST_HOUGH_PASS astPass[4])
{
    const int32_t iQ = iThetaNum / 4;
    const int32_t iE = iThetaNum / 8;
    astPass[0] = tagST_HOUGH_PASS{0, iE};
    astPass[1] = tagST_HOUGH_PASS{iQ + iE, 2 * iQ - 1};
    astPass[2] = tagST_HOUGH_PASS{2 * iQ, 2 * iQ + iE};
    astPass[3] = tagST_HOUGH_PASS{3 * iQ + iE, 4 * iQ - 1};
}

// Points vote four at a time; the last one to three points of the list never vote.
static inline int32_t HoughVotingPoints(int32_t iPointNum)
{
    return iPointNum & ~3;
}

// Counter of angle t, rho 0: the accumulator row t + 1 starts after a guard column.
static inline HoughS32 *HoughAccumRho0(const tagST_LINE_DETECT *pst, int32_t t)
{
    return (HoughS32 *)pst->piAccum + (t + 1) * (2 * pst->iRhoMax + 3) + pst->iRhoMax + 1;
}

// floor(x cos + y sin) in Q15: the arithmetic shift rounds toward minus infinity.
static inline int32_t HoughRho(int32_t iCos, int32_t iSin, uint32_t uPoint)
{
    const int32_t y = (int32_t)(uPoint & 0xFFFFu);
    const int32_t x = (int32_t)(uPoint >> 16);
    return (iSin * y + iCos * x) >> 15;
}

#endif

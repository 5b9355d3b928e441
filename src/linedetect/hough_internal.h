// Pieces of the Hough transform shared by the plain and vector voting and by the detector.
#ifndef LDC_LINEDETECT_HOUGH_INTERNAL_H
#define LDC_LINEDETECT_HOUGH_INTERNAL_H

#include <stdint.h>

#include "linedetect/hough.h"

// The scratch area sits right after the w*h-byte Sobel output in the working buffer, so its
// counters are only byte aligned when w*h is odd. Accesses go through these types, which let the
// compiler assume nothing about alignment (no paired or multiple loads that would fault).
typedef int32_t HoughS32 __attribute__((aligned(1)));
typedef uint32_t HoughU32 __attribute__((aligned(1)));

#define LDC_HOUGH_TRIG_BYTES (LDC_HOUGH_THETA_NUM * 2 * 4)   // 1440
#define LDC_HOUGH_ACCUM_ROWS (LDC_HOUGH_THETA_NUM + 2)       // one guard row above and below

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

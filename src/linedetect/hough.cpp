#include "linedetect/hough.h"

#include <math.h>

#include "boundscheck/bounds_check.h"
#include "linedetect/hough_vote.h"
#include "platform/neon.h"

int32_t HoughRhoMax(int32_t iWidth, int32_t iHeight)
{
    // The half goes under the root, not after it.
    return TruncF64ToS32(sqrt((double)(iWidth * iWidth + iHeight * iHeight) + 0.5));
}

static size_t HoughAccumBytes(int32_t iRhoMax)
{
    return (size_t)LDC_HOUGH_ACCUM_ROWS * (size_t)(2 * iRhoMax + 3) * sizeof(int32_t);
}

size_t HoughScratchSize(int32_t iWidth, int32_t iHeight)
{
    const size_t uPixels = (size_t)iWidth * (size_t)iHeight;
    return LDC_HOUGH_TRIG_BYTES + uPixels * sizeof(uint32_t) + HoughAccumBytes(HoughRhoMax(iWidth, iHeight)) +
           uPixels;
}

// The walk of one peak: the map it reads, the peak it reports and the line records it fills.
typedef struct tagST_HOUGH_WALK {
    stLine *pstLines;
    int32_t iLineNum;
    int32_t iMinVotes;
    const uint8_t *pucRunMap;
    int32_t iWidth;
    int32_t iHeight;
    int32_t iRho;
    int32_t iTheta;
} tagST_HOUGH_WALK;

// Walks the run map over major positions iBegin .. iEnd-1 (rows, or columns when bFlat), the
// minor coordinate kept in Q15 from (iMinor0 << 15) | 16384 and advanced by iStep per pixel (0 for
// the exact vertical and horizontal walks). Stores every run of at least the minimum length that
// an empty pixel closes, from where the run began (the empty pixel before it, or the walk's first
// pixel) to that empty pixel; a run still open when the walk ends is dropped. Returns 1 when the
// line records are full.
static int32_t WalkRuns(tagST_HOUGH_WALK *pstWalk, int32_t iBegin, int32_t iEnd, int32_t iMinor0, int32_t iStep,
                        int32_t bFlat)
{
    const uint8_t *pucRunMap = pstWalk->pucRunMap;
    const int32_t iWidth = pstWalk->iWidth;
    const int32_t iMinVotes = pstWalk->iMinVotes;
    int32_t iPos = (iMinor0 << 15) | 16384;
    int32_t iRun = 0;
    int32_t iStartMajor = iBegin;
    int32_t iStartMinor = iMinor0;
    // On a map of three rows (columns) the truncated steps can leave the image by one pixel; the
    // row-major index then lands on a neighbouring row or in the accumulator's zero guard row just
    // before the run map, so the walk stays inside the scratch and reads 0 there.
    for (int32_t m = iBegin; m < iEnd; m++, iPos += iStep) {
        const int32_t n = iPos >> 15;
        const int32_t x = bFlat ? m : n;
        const int32_t y = bFlat ? n : m;
        const int32_t bEmpty = (pucRunMap[(intptr_t)y * iWidth + x] == 0);
        if (bEmpty && iRun >= iMinVotes) {
            const stPoint stStart = bFlat ? stPoint{iStartMajor, iStartMinor} : stPoint{iStartMinor, iStartMajor};
            pstWalk->pstLines[pstWalk->iLineNum++] = stLine{pstWalk->iRho, pstWalk->iTheta, stStart, stPoint{x, y}};
            if (pstWalk->iLineNum >= LDC_HOUGH_MAX_LINES) {
                return 1;
            }
        }
        // An empty pixel starts the next run itself, with count 0.
        iRun = bEmpty ? 0 : iRun + 1;
        iStartMajor = bEmpty ? m : iStartMajor;
        iStartMinor = bEmpty ? n : iStartMinor;
    }
    return 0;
}

// An end of a walk keeps two rows (columns) clear of the image border.
static inline int32_t ClampWalkEnd(int32_t v, int32_t iSize)
{
    if (v < 2) {
        v = 2;
    }
    if (v >= iSize - 2) {
        v = iSize - 3;
    }
    return v;
}

static inline int32_t MinS32(int32_t a, int32_t b)
{
    return a < b ? a : b;
}

static inline int32_t MaxS32(int32_t a, int32_t b)
{
    return a > b ? a : b;
}

// Angles 1..45 and 135..179: one pixel per row between the crossings of columns 2 and w-3, the
// column stepping in Q15. Flat lines (46..134) take the same walk with rows and columns
// exchanged: iMajorQ15 is the Q15 factor of the walked axis in x cos + y sin (sin for steep
// lines), iMinorQ15 that of the stepped axis.
static int32_t WalkSlanted(tagST_HOUGH_WALK *pstWalk, int32_t iMinorQ15, int32_t iMajorQ15, int32_t bFlat)
{
    const int32_t iMinorSize = bFlat ? pstWalk->iHeight : pstWalk->iWidth;
    const int32_t iMajorSize = bFlat ? pstWalk->iWidth : pstWalk->iHeight;
    const int32_t iP = pstWalk->iRho * 32768 + 16384;
    const int32_t iStep = (-iMajorQ15 * 32768 - 16384) / iMinorQ15;
    const int32_t iA = ClampWalkEnd((iP - 2 * iMinorQ15) / iMajorQ15, iMajorSize);
    const int32_t iB = ClampWalkEnd((iP + iMinorQ15 * (3 - iMinorSize)) / iMajorQ15, iMajorSize);
    const int32_t iBegin = MinS32(iA, iB);
    const int32_t iMinor0 = (iP - iMajorQ15 * iBegin) / iMinorQ15;
    if (iMinor0 < 1 || iMinor0 >= iMinorSize - 1) {
        return 0;
    }
    return WalkRuns(pstWalk, iBegin, MaxS32(iA, iB), iMinor0, iStep, bFlat);
}

// Angle 0: the single column of rho, rows 1..h-3.
static int32_t WalkVertical(tagST_HOUGH_WALK *pstWalk, const HoughS32 *piTrig)
{
    const int32_t x = (pstWalk->iRho * 32768 - piTrig[1] + 16384) / piTrig[0];
    if (x < 1 || x >= pstWalk->iWidth - 1) {
        return 0;
    }
    return WalkRuns(pstWalk, 1, pstWalk->iHeight - 2, x, 0, 0);
}

// Angle 90: the row where the line meets column 2, columns 2..w-4. Both ends differ from the
// vertical walk's rows 1..h-3; the detector's results depend on these exact ranges.
static int32_t WalkHorizontal(tagST_HOUGH_WALK *pstWalk, const HoughS32 *piTrig)
{
    const int32_t y = (pstWalk->iRho * 32768 - 2 * piTrig[2 * 90] + 16384) / piTrig[2 * 90 + 1];
    if (y < 1 || y >= pstWalk->iHeight - 1) {
        return 0;
    }
    return WalkRuns(pstWalk, 2, pstWalk->iWidth - 3, y, 0, 1);
}

static void BuildTrigTable(HoughS32 *piTrig)
{
    for (int32_t t = 0; t < LDC_HOUGH_THETA_NUM; t++) {
        // The radian step is single precision; cos and sin in double. Angle 0 comes out as
        // exactly (32768, 0).
        const float fAngle = (float)t * 0.017453292f;
        piTrig[2 * t] = TruncF64ToS32(cos((double)fAngle) * 32768.0);
        piTrig[2 * t + 1] = TruncF64ToS32(sin((double)fAngle) * 32768.0);
    }
}

// Cross-shaped dilation of the interior: a segment walk steps over one-pixel jitter. The border
// stays 0 from the clearing.
static void BuildRunMap(const uint8_t *pucEdge, int32_t iWidth, int32_t iHeight, uint8_t *pucRunMap)
{
    for (int32_t y = 1; y < iHeight - 1; y++) {
        const uint8_t *pucMid = pucEdge + (intptr_t)y * iWidth;
        const uint8_t *pucUp = pucMid - iWidth;
        const uint8_t *pucDown = pucMid + iWidth;
        uint8_t *pucOut = pucRunMap + (intptr_t)y * iWidth;
        for (int32_t x = 1; x < iWidth - 1; x++) {
            const uint8_t ucAny = pucMid[x] | pucMid[x - 1] | pucMid[x + 1] | pucUp[x] | pucDown[x];
            pucOut[x] = (ucAny != 0) ? 255 : 0;
        }
    }
}

// Edge maps are mostly empty: blocks of 16 zero bytes are skipped whole.
static int32_t BuildPointList(const uint8_t *pucEdge, int32_t iWidth, int32_t iHeight, HoughU32 *puiPoints)
{
    int32_t iNum = 0;
    for (int32_t y = 0; y < iHeight; y++) {
        const uint8_t *pucRow = pucEdge + (intptr_t)y * iWidth;
        for (int32_t x0 = 0; x0 < iWidth; x0 += 16) {
            const int32_t iEnd = (x0 + 16 < iWidth) ? x0 + 16 : iWidth;
            uint8_t ucAny = 0;
            for (int32_t x = x0; x < iEnd; x++) {
                ucAny |= pucRow[x];
            }
            if (ucAny == 0) {
                continue;
            }
            for (int32_t x = x0; x < iEnd; x++) {
                if (pucRow[x] == 255) {
                    puiPoints[iNum++] = (uint32_t)y + ((uint32_t)x << 16);
                }
            }
        }
    }
    return iNum;
}

int32_t LineDetectionHough(const uint8_t *pucEdge, int32_t iWidth, int32_t iHeight, stLine *pstLines,
                           int32_t iMinVotes, uint8_t *pucScratch)
{
    const int32_t iRhoMax = HoughRhoMax(iWidth, iHeight);
    const int32_t iCols = 2 * iRhoMax + 3;
    const size_t uPixels = (size_t)iWidth * (size_t)iHeight;
    const size_t uAccumBytes = HoughAccumBytes(iRhoMax);
    uint8_t *pucPoints = pucScratch + LDC_HOUGH_TRIG_BYTES;
    uint8_t *pucAccum = pucPoints + uPixels * sizeof(uint32_t);
    uint8_t *pucRunMap = pucAccum + uAccumBytes;

    (void)memset_s(pucAccum, uAccumBytes, 0, uAccumBytes);
    (void)memset_s(pucRunMap, uPixels, 0, uPixels);
    HoughS32 *piTrig = (HoughS32 *)pucScratch;
    BuildTrigTable(piTrig);
    BuildRunMap(pucEdge, iWidth, iHeight, pucRunMap);

    tagST_LINE_DETECT stVote;
    stVote.iPointNum = BuildPointList(pucEdge, iWidth, iHeight, (HoughU32 *)pucPoints);
    stVote.iThetaNum = LDC_HOUGH_THETA_NUM;
    stVote.iRhoMax = iRhoMax;
    stVote.piTrig = (int32_t *)pucScratch;
    stVote.puiPoints = (uint32_t *)pucPoints;
    stVote.piAccum = (int32_t *)pucAccum;
    (void)CountLineProb_NEON(&stVote);

    tagST_HOUGH_WALK stWalk;
    stWalk.pstLines = pstLines;
    stWalk.iLineNum = 0;
    stWalk.iMinVotes = iMinVotes;
    stWalk.pucRunMap = pucRunMap;
    stWalk.iWidth = iWidth;
    stWalk.iHeight = iHeight;
    // Angles in increasing order, so the lines come out sorted by theta.
    for (int32_t t = 0; t < LDC_HOUGH_THETA_NUM; t++) {
        HoughS32 *piRow = HoughAccumRho0(&stVote, t);
        for (int32_t iRho = -iRhoMax; iRho <= iRhoMax; iRho++) {
            // Nearly all counters are below the minimum: test eight at a time before looking closer.
            if (iRho + 8 <= iRhoMax) {
                int32_t bAny = 0;
                for (int32_t k = 0; k < 8; k++) {
                    bAny |= (piRow[iRho + k] >= iMinVotes);
                }
                if (!bAny) {
                    iRho += 7;
                    continue;
                }
            }
            HoughS32 *piCell = piRow + iRho;
            const int32_t iVotes = *piCell;
            // Strictly above all four neighbours; the guard band gives every cell four.
            if (iVotes < iMinVotes || iVotes <= piCell[-1] || iVotes <= piCell[1] || iVotes <= piCell[-iCols] ||
                iVotes <= piCell[iCols]) {
                continue;
            }
            *piCell = 0;
            piCell[-1] = 0;
            piCell[1] = 0;
            piCell[-iCols] = 0;
            piCell[iCols] = 0;
            stWalk.iRho = iRho;
            stWalk.iTheta = t;
            int32_t bFull;
            if (t == 0) {
                bFull = WalkVertical(&stWalk, piTrig);
            } else if (t == 90) {
                bFull = WalkHorizontal(&stWalk, piTrig);
            } else if (t <= 45 || t >= 135) {
                bFull = WalkSlanted(&stWalk, piTrig[2 * t], piTrig[2 * t + 1], 0);
            } else {
                bFull = WalkSlanted(&stWalk, piTrig[2 * t + 1], piTrig[2 * t], 1);
            }
            if (bFull) {
                return stWalk.iLineNum;
            }
        }
    }
    return stWalk.iLineNum;
}

// Line check driver: downscale, edge map, Hough segments, joining of collinear pieces, length
// and coverage tests, then a bend or classifier verdict per line, first failure ends the check.
// It works in the first part of the working buffer's layout (records/work_buffer.h).
#include "linedetect/line_detect.h"

#include <math.h>
#include <stdlib.h>

#include "boundscheck/bounds_check.h"
#include "linedetect/downscale.h"
#include "linedetect/hough.h"
#include "linedetect/line_bend.h"
#include "linedetect/sobel.h"
#include "linedetect/svm.h"
#include "platform/neon.h"
#include "records/work_buffer.h"

// The downscale factor changes only when both sides are larger than this.
static const int32_t kSmallSideLimit = 640;

int32_t LineDetectFactor(int32_t iWidth, int32_t iHeight)
{
    return (iWidth > kSmallSideLimit && iHeight > kSmallSideLimit) ? 8 : 4;
}

uint32_t LineDetectWorkSize(int32_t iWidth, int32_t iHeight)
{
    const int32_t iFactor = LineDetectFactor(iWidth, iHeight);
    const int32_t iW = iWidth / iFactor;
    const int32_t iH = iHeight / iFactor;
    return (uint32_t)(LDC_WORK_LINE_SCRATCH_OFFSET(iW, iH) + HoughScratchSize(iW, iH));
}

// Rounded length of a segment; the root in double precision.
static int32_t RoundedLength(stPoint stA, stPoint stB)
{
    const double dDx = (double)(stA.x - stB.x);
    const double dDy = (double)(stA.y - stB.y);
    return TruncF64ToS32(sqrt(dDx * dDx + dDy * dDy) + 0.5);
}

// Distances of the two inner points from the reference line through the outer points a, b.
// In the general case the distance is signed and not made absolute: a point on the negative side
// (c + m x - y < 0) always passes, however far it lies. The join tuning relies on that.
static void JoinDistances(stPoint stA, stPoint stB, const stPoint *pstTest, int32_t *piDist)
{
    if (stA.y == stB.y) {
        for (int32_t i = 0; i < 2; i++) {
            piDist[i] = abs(pstTest[i].y - stA.y);
        }
    } else if (stA.x == stB.x) {
        for (int32_t i = 0; i < 2; i++) {
            piDist[i] = abs(pstTest[i].x - stA.x);
        }
    } else {
        const float fDx = (float)(stA.x - stB.x);
        const float fM = (float)(stA.y - stB.y) / fDx;
        const float fC = (float)(stA.x * stB.y - stB.x * stA.y) / fDx;
        const double dNorm = sqrt((double)(1.0f + fM * fM));
        for (int32_t i = 0; i < 2; i++) {
            const float fSide = fC + fM * (float)pstTest[i].x - (float)pstTest[i].y;
            piDist[i] = TruncF64ToS32((double)fSide / dNorm + 0.5);
        }
    }
}

// Tries to join piece pstNext into the current segment; returns 0 when it lies off the line.
static int32_t JoinPiece(stLine *pstCur, const stLine *pstNext, int32_t *piCovered)
{
    // Reference line through the outer ends; ties keep the current segment's end as reference.
    stPoint stA, stB, astTest[2];
    if (pstNext->Pnt0.x < pstCur->Pnt0.x) {
        stA = pstNext->Pnt0;
        astTest[0] = pstCur->Pnt0;
    } else {
        stA = pstCur->Pnt0;
        astTest[0] = pstNext->Pnt0;
    }
    if (pstNext->Pnt1.x > pstCur->Pnt1.x) {
        stB = pstNext->Pnt1;
        astTest[1] = pstCur->Pnt1;
    } else {
        stB = pstCur->Pnt1;
        astTest[1] = pstNext->Pnt1;
    }
    int32_t aiDist[2];
    JoinDistances(stA, stB, astTest, aiDist);
    if (aiDist[0] > LDC_LD_JOIN_DISTANCE || aiDist[1] > LDC_LD_JOIN_DISTANCE) {
        return 0;
    }

    if (pstNext->Pnt0.x >= pstCur->Pnt0.x && pstNext->Pnt1.x <= pstCur->Pnt1.x) {
        return 1;   // inside the current segment: adds no coverage
    }
    if (pstNext->Pnt0.x <= pstCur->Pnt0.x && pstNext->Pnt1.x >= pstCur->Pnt1.x) {
        // The covering piece takes over, and the coverage falls back to the old segment's length
        // (not the accumulated one): joined lines must keep earning their coverage.
        *piCovered = RoundedLength(pstCur->Pnt0, pstCur->Pnt1);
        *pstCur = *pstNext;
        return 1;
    }
    *piCovered += RoundedLength(pstNext->Pnt0, pstNext->Pnt1);
    if (RoundedLength(pstCur->Pnt0, pstNext->Pnt1) > RoundedLength(pstNext->Pnt0, pstCur->Pnt1)) {
        pstCur->Pnt1 = pstNext->Pnt1;
    } else {
        pstCur->Pnt0 = pstNext->Pnt0;
    }
    return 1;
}

int32_t JoinDetectedLines(stLine *pstLines, int32_t iCount, uint8_t *pucAlive, float fConnectRatio,
                         int32_t iMinLength)
{
    memset_s(pucAlive, (size_t)iCount, 1, (size_t)iCount);
    int32_t iKept = 0;
    for (int32_t i = 0; i < iCount; i++) {
        if (!pucAlive[i]) {
            continue;
        }
        stLine stCur = pstLines[i];
        int32_t iCovered = RoundedLength(stCur.Pnt0, stCur.Pnt1);
        // Flags are not consulted here: a piece already absorbed by an earlier line is examined
        // again.
        for (int32_t j = i + 1; j < iCount && pstLines[j].theta <= stCur.theta + LDC_LD_JOIN_THETA;
             j++) {
            if (JoinPiece(&stCur, &pstLines[j], &iCovered)) {
                pucAlive[j] = 0;
            }
        }
        const int32_t iLength = RoundedLength(stCur.Pnt0, stCur.Pnt1);
        if ((float)iCovered > fConnectRatio * (float)iLength && iLength >= iMinLength) {
            // iKept <= i, so no record still to be examined is overwritten.
            pstLines[iKept++] = stCur;
        }
    }
    return iKept;
}

int32_t FindLines(const uint8_t *pucLuma, int32_t iWidth, int32_t iHeight, int32_t iFactor, int32_t iThresh,
                  float fConnectRatio, float fLengthRatio, uint8_t *pucWork)
{
    const int32_t iW = iWidth / iFactor;
    const int32_t iH = iHeight / iFactor;
    stLine *pstLines = (stLine *)pucWork;
    uint8_t *pucImage = pucWork + LDC_WORK_LINE_IMAGE_OFFSET;
    uint8_t *pucScratch = pucWork + LDC_WORK_LINE_SCRATCH_OFFSET(iW, iH);

    DownScaleData_NEON(pucLuma, iFactor, iWidth, iHeight, pucImage);
    CalcSobel_NEON(pucImage, pucScratch, iW, iH, iThresh);
    memcpy_s(pucImage, (size_t)(iW * iH), pucScratch, (size_t)(iW * iH));

    const int32_t iMinSide = iW < iH ? iW : iH;
    const int32_t iCount = LineDetectionHough(pucImage, iW, iH, pstLines, iMinSide / 5, pucScratch);
    if (iCount < 1) {
        return 0;
    }
    const int32_t iMinLength = TruncF32ToS32((float)iMinSide * fLengthRatio);
    return JoinDetectedLines(pstLines, iCount, pucScratch, fConnectRatio, iMinLength);
}

static void ScaleLine(stLine *pstLine, int32_t iFactor)
{
    pstLine->rho *= iFactor;
    pstLine->Pnt0.x *= iFactor;
    pstLine->Pnt0.y *= iFactor;
    pstLine->Pnt1.x *= iFactor;
    pstLine->Pnt1.y *= iFactor;
}

int32_t JudgeLines(const tagST_LDC_PARA *pstPara, stLine *pstLines, int32_t iKept, int32_t iFactor)
{
    const stPoint stCentre = {pstPara->iImgWidth / 2, pstPara->iImgHeight / 2};
    // The bend strength is the fourth global coefficient: the one configuration loading refuses
    // to be 0 in bend mode.
    const float fBendK = pstPara->afGlobalFDCCoefficients[3];
    for (int32_t i = 0; i < iKept; i++) {
        stLine *pstLine = &pstLines[i];
        ScaleLine(pstLine, iFactor);
        const int32_t iStraight =
            pstPara->iBendDecideMode == 1 ? SortLineBySvm(&pstPara->stSvmModel, pstLine, pstPara->iSvmFactor)
                                          : SortLineByBendValue(pstLine, stCentre, fBendK, pstPara->iBendValue);
        if (!iStraight) {
            return i;
        }
    }
    return iKept;
}

int32_t FindFrameLines(const uint8_t *pucLuma, const tagST_LDC_PARA *pstPara)
{
    if (pstPara->pucWorkBuf == NULL) {
        return 0;
    }
    const int32_t iFactor = LineDetectFactor(pstPara->iImgWidth, pstPara->iImgHeight);
    const int32_t iKept = FindLines(pucLuma, pstPara->iImgWidth, pstPara->iImgHeight, iFactor,
                                    pstPara->iBinarizationThresh, pstPara->fConnectLineRatio,
                                    pstPara->fLineLengthRatio, pstPara->pucWorkBuf);
    stLine *pstLines = (stLine *)pstPara->pucWorkBuf;
    for (int32_t i = 0; i < iKept; i++) {
        ScaleLine(&pstLines[i], iFactor);
    }
    return iKept;
}

int32_t CheckLines(const uint8_t *pucLuma, tagST_LDC_PARA *pstPara, tagST_LINE_CHECK *pstCheck, stLine *pstLines,
                   int32_t iCap)
{
    const int32_t iFactor = LineDetectFactor(pstPara->iImgWidth, pstPara->iImgHeight);
    pstCheck->iVerdict = 0;
    pstCheck->iFactor = iFactor;
    pstCheck->iKept = 0;
    pstCheck->iJudged = 0;
    if (pstPara->iBendDecideMode == 1) {
        SvmLoadModel(&pstPara->stSvmModel);
        // The configuration loads vectors only when it names them; without them the built-in
        // model applies.
        if (pstPara->stSvmModel.aiNSv[0] == 0 && pstPara->stSvmModel.aiNSv[1] == 0) {
            SvmInstallDefaultModel(&pstPara->stSvmModel);
        }
    }
    if (pstPara->pucWorkBuf == NULL) {
        return 0;   // cannot check: leave the global correction out (checked before any write)
    }
    stLine *pstKept = (stLine *)pstPara->pucWorkBuf;
    const int32_t iKept = FindLines(pucLuma, pstPara->iImgWidth, pstPara->iImgHeight, iFactor,
                                    pstPara->iBinarizationThresh, pstPara->fConnectLineRatio,
                                    pstPara->fLineLengthRatio, pstPara->pucWorkBuf);
    const int32_t iPassed = JudgeLines(pstPara, pstKept, iKept, iFactor);
    pstCheck->iVerdict = iPassed == iKept;
    pstCheck->iKept = iKept;
    pstCheck->iJudged = iPassed + (iPassed < iKept);
    const int32_t iCopied = iKept < iCap ? iKept : iCap;
    for (int32_t i = 0; i < iCopied; i++) {
        pstLines[i] = pstKept[i];
        if (i >= pstCheck->iJudged) {
            ScaleLine(&pstLines[i], iFactor);   // never judged: still in reduced pixels
        }
    }
    return pstCheck->iVerdict;
}

int32_t LineDetect(const uint8_t *pucLuma, tagST_LDC_PARA *pstPara)
{
    tagST_LINE_CHECK stCheck;
    return CheckLines(pucLuma, pstPara, &stCheck, NULL, 0);
}

#include "qvldc_linecheck.h"

#include <string.h>

#include "linedetect/downscale.h"
#include "linedetect/line_detect.h"
#include "linedetect/sobel.h"
#include "platform/neon.h"
#include "records/work_buffer.h"

int32_t LineCheckRan(const tagST_LDC_PARA *pstPara)
{
    return pstPara->iGolbalFDCFlag == 1 && pstPara->iFaceNum > 1 &&
           (pstPara->iFDCMode == 1 || pstPara->iFDCEnable == 1);
}

static stLine ScaleLine(const stLine &stIn, int32_t iFactor)
{
    stLine stOut = stIn;
    stOut.rho *= iFactor;
    stOut.Pnt0.x *= iFactor;
    stOut.Pnt0.y *= iFactor;
    stOut.Pnt1.x *= iFactor;
    stOut.Pnt1.y *= iFactor;
    return stOut;
}

static bool SameLine(const stLine &stA, const stLine &stB)
{
    return stA.rho == stB.rho && stA.theta == stB.theta && stA.Pnt0.x == stB.Pnt0.x && stA.Pnt0.y == stB.Pnt0.y &&
           stA.Pnt1.x == stB.Pnt1.x && stA.Pnt1.y == stB.Pnt1.y;
}

void ReplayLineCheck(const tagST_LDC_PARA *pstPara, const uint8_t *pucLuma, tagST_QV_LINE_CHECK *pstCheck)
{
    const int32_t iWidth = pstPara->iImgWidth;
    const int32_t iHeight = pstPara->iImgHeight;
    const int32_t iFactor = LineDetectFactor(iWidth, iHeight);
    const int32_t iW = iWidth / iFactor;
    const int32_t iH = iHeight / iFactor;
    std::vector<uint8_t> vucBuf(LineDetectWorkSize(iWidth, iHeight));
    stLine *pstLines = (stLine *)vucBuf.data();
    uint8_t *pucImage = vucBuf.data() + LDC_WORK_LINE_IMAGE_OFFSET;
    uint8_t *pucScratch = pucImage + (size_t)iW * iH;

    // LineDetect does not say how many lines it kept: the same stages, run here first, do.
    DownScaleData_NEON(pucLuma, iFactor, iWidth, iHeight, pucImage);
    CalcSobel_NEON(pucImage, pucScratch, iW, iH, pstPara->iBinarizationThresh);
    memcpy(pucImage, pucScratch, (size_t)iW * iH);
    const int32_t iMinSide = iW < iH ? iW : iH;
    const int32_t iCount = LineDetectionHough(pucImage, iW, iH, pstLines, iMinSide / 5, pucScratch);
    const int32_t iMinLength = TruncF32ToS32((float)iMinSide * pstPara->fLineLengthRatio);
    const int32_t iKept =
        iCount < 1 ? 0 : JoinDetectedLines(pstLines, iCount, pucScratch, pstPara->fConnectLineRatio, iMinLength);
    const std::vector<stLine> vstKept(pstLines, pstLines + iKept);

    tagST_LDC_PARA stCopy = *pstPara;
    stCopy.pucWorkBuf = vucBuf.data();
    pstCheck->bRanByLibrary = LineCheckRan(pstPara);
    pstCheck->iVerdict = LineDetect(pucLuma, &stCopy);
    pstCheck->iFactor = iFactor;
    pstCheck->vstLines.clear();
    pstCheck->viState.clear();

    // LineDetect leaves the kept lines at the front of its buffer and scales each to frame
    // pixels just before judging it; the first bending line ends the check, so the scaled
    // prefix tells which lines were judged and, on a verdict of 0, which one bent.
    int32_t iJudged = 0;
    while (iJudged < iKept && SameLine(pstLines[iJudged], ScaleLine(vstKept[iJudged], iFactor))) {
        iJudged++;
    }
    for (int32_t i = 0; i < iKept; i++) {
        int32_t eState = QV_LINE_UNJUDGED;
        if (i < iJudged) {
            eState = (pstCheck->iVerdict == 0 && i == iJudged - 1) ? QV_LINE_BENDS : QV_LINE_STRAIGHT;
        }
        pstCheck->vstLines.push_back(ScaleLine(vstKept[i], iFactor));
        pstCheck->viState.push_back(eState);
    }
}

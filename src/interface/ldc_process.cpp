// The frame driver, in its four steps: check the call, adapt the instance to the frame's size and
// orientation, plan the frame (ldc_plan.cpp), render it (ldc_render.cpp).
#include "interface/ldc_process.h"

#include "boundscheck/bounds_check.h"
#include "interface/diagnostics.h"
#include "interface/ldc_render.h"
#include "platform/platform.h"
#include "records/ldc_para.h"

// Arguments and frame size, then the frame and its faces logged. *piFaceNum receives the number
// of face rectangles there are to read.
static int32_t CheckCall(const tagST_LDC_PARA *pstPara, const ST_LDC_FRAME_INFO *pstFrameInfo, const uint8_t *pucIn,
                         const uint8_t *pucOut, int32_t *piFaceNum)
{
    if (pstPara == NULL || pstFrameInfo == NULL || pucIn == NULL || pucOut == NULL) {
        LdcLog(LDC_LOG_ERROR, "The point of input param is NULL!\n");
        return LDC_ERR_PARAM;
    }
    const int32_t iW = pstFrameInfo->iImgWidth;
    const int32_t iH = pstFrameInfo->iImgHeight;
    int32_t bBadSize = 0;
    if (iW < 1 || iW > LDC_MAX_IMAGE_SIZE) {
        LdcLog(LDC_LOG_ERROR, "iImgWidth: %d > %d\n", iW, LDC_MAX_IMAGE_SIZE);
        bBadSize = 1;
    }
    if (iH < 1 || iH > LDC_MAX_IMAGE_SIZE) {
        LdcLog(LDC_LOG_ERROR, "iImgHeight: %d > %d\n", iH, LDC_MAX_IMAGE_SIZE);
        bBadSize = 1;
    }
    if (bBadSize) {
        return LDC_ERR_PARAM;
    }
    // Without a face array there are no faces to read, whatever the count says.
    const int32_t iFaceNum = pstFrameInfo->pstFaces != NULL ? pstFrameInfo->iFaceNum : 0;
    LdcLog(LDC_LOG_INFO, "iImgWidth = %d, iImgHeight = %d, iISO = %d, iFaceNum = %d.\n", iW, iH,
           pstFrameInfo->iISO, pstFrameInfo->iFaceNum);
    // At most LDC_MAX_LOGGED_FACES rectangles are logged and read: a hostile count (INT_MAX)
    // would otherwise stall the frame on billions of lines and read far past the caller's array.
    const int32_t iLogged = iFaceNum < LDC_MAX_LOGGED_FACES ? iFaceNum : LDC_MAX_LOGGED_FACES;
    for (int32_t i = 0; i < iLogged; i++) {
        const ST_FACE_RECT *pstFace = &pstFrameInfo->pstFaces[i];
        LdcLog(LDC_LOG_INFO, "Face No. %d Coord<left, top, right, bottom>: %d, %d, %d, %d\n", i + 1,
               pstFace->iLeft, pstFace->iTop, pstFace->iRight, pstFace->iBottom);
    }
    if (iFaceNum > iLogged) {
        LdcLog(LDC_LOG_INFO, "%d more faces are not logged.\n", iFaceNum - iLogged);
    }
    *piFaceNum = iFaceNum;
    return LDC_OK;
}

static void TransposeInstance(tagST_LDC_PARA *pstPara)
{
    int32_t iTmp = pstPara->iImgWidth;
    pstPara->iImgWidth = pstPara->iImgHeight;
    pstPara->iImgHeight = iTmp;
    float fTmp = pstPara->afCameraMatrix[2];
    pstPara->afCameraMatrix[2] = pstPara->afCameraMatrix[5];
    pstPara->afCameraMatrix[5] = fTmp;
    fTmp = pstPara->afDistortionCoefficients[3];
    pstPara->afDistortionCoefficients[3] = pstPara->afDistortionCoefficients[4];
    pstPara->afDistortionCoefficients[4] = fTmp;
    int32_t *apiAreas[2] = {pstPara->aiLDCArea, pstPara->aiGlobalFDCArea};
    for (int32_t i = 0; i < 2; i++) {
        int32_t *piArea = apiAreas[i];
        iTmp = piArea[0];
        piArea[0] = piArea[1];
        piArea[1] = iTmp;
        iTmp = piArea[2];
        piArea[2] = piArea[3];
        piArea[3] = iTmp;
    }
}

// Resets the instance for a frame of another size (on failure the input is copied to the
// output and Reset's code returned), or transposes it for a frame of the other orientation.
static int32_t AdaptInstance(tagST_LDC_PARA *pstPara, int32_t iW, int32_t iH, const uint8_t *pucIn, uint8_t *pucOut)
{
    const int32_t bSame = (iW == pstPara->iImgWidth && iH == pstPara->iImgHeight);
    const int32_t bTransposed = (iW == pstPara->iImgHeight && iH == pstPara->iImgWidth);
    if (!bSame && !bTransposed) {
        ST_LDC_INPUT_PARA stInput = {iW, iH, NULL, pstPara->ePicType};
        const int32_t iRet = IQV_LDC_Reset(pstPara, &stInput);
        if (iRet != LDC_OK) {
            const size_t uFrameBytes = LdcFrameBytes(iW, iH);
            (void)memcpy_s(pucOut, uFrameBytes, pucIn, uFrameBytes);
            return iRet;
        }
    }
    // After a Reset too: a profile matched in the other orientation leaves the instance in its own.
    if (iW != iH && iW == pstPara->iImgHeight && iH == pstPara->iImgWidth) {
        TransposeInstance(pstPara);
    }
    return LDC_OK;
}

int32_t LdcProcessFrame(void *pHandle, const ST_LDC_FRAME_INFO *pstFrameInfo, uint8_t *pucIn, uint8_t *pucOut,
                        tagST_LDC_PLAN *pstPlan)
{
    LdcLog(LDC_LOG_INFO, "Enter IQV_LDC_Process.\n");
    LogVersion();
    const int64_t lStart = GetTime();
    tagST_LDC_PLAN stPlan;
    tagST_LDC_PLAN *pstFramePlan = pstPlan != NULL ? pstPlan : &stPlan;
    InitFramePlan(pstFramePlan);
    tagST_LDC_PARA *pstPara = (tagST_LDC_PARA *)pHandle;
    int32_t iFaceNum = 0;
    int32_t iRet = CheckCall(pstPara, pstFrameInfo, pucIn, pucOut, &iFaceNum);
    if (iRet != LDC_OK) {
        return iRet;
    }
    iRet = AdaptInstance(pstPara, pstFrameInfo->iImgWidth, pstFrameInfo->iImgHeight, pucIn, pucOut);
    if (iRet != LDC_OK) {
        return iRet;
    }
    PlanFrame(pstPara, pstFrameInfo->pstFaces, iFaceNum, pucIn, pstFramePlan);
    RenderFrame(pstPara, pstFramePlan, pucIn, pucOut);

    LdcLog(LDC_LOG_INFO, "The time of IQV_LDC_Process is = %d ms\n", (int32_t)((GetTime() - lStart) / 1000));
    DumpFramesIfRequested(pstFrameInfo, pucIn, pucOut);
    LdcLog(LDC_LOG_INFO, "Exit IQV_LDC_Process.\n");
    return LDC_OK;
}

int32_t IQV_LDC_Process(void *pHandle, const ST_LDC_FRAME_INFO *pstFrameInfo, uint8_t *pucIn, uint8_t *pucOut)
{
    return LdcProcessFrame(pHandle, pstFrameInfo, pucIn, pucOut, NULL);
}

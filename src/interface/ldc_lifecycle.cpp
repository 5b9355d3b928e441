// IQV_LDC_Create, IQV_LDC_Reset and IQV_LDC_Delete: an instance record filled from the
// configuration, its camera matrix checked, its valid areas computed and one working buffer.
#include <stdlib.h>
#include <string.h>

#include "boundscheck/bounds_check.h"
#include "config/config_schema.h"
#include "geometry/lens_model.h"
#include "interface/diagnostics.h"
#include "interface/ldc_workbuf.h"
#include "linedetect/line_detect.h"
#include "platform/platform.h"
#include "records/ldc_para.h"
#include "runtime/runtime.h"
#include "vkt_zb_ldc.h"

// fAlphaShown is the fx quoted by the message: Reset quotes its already cleared instance.
static int32_t CheckCameraMatrix(const tagST_LDC_PARA *pstPara, float fAlphaShown)
{
    const float *pfMatrix = pstPara->afCameraMatrix;
    if (!(pfMatrix[0] > 0.0f && pfMatrix[4] > 0.0f)) {
        LdcLog(LDC_LOG_ERROR, "Alpha in the camera matrix (%f) should be positive number!\n",
               (double)fAlphaShown);
        return LDC_ERR_CAMERA_MATRIX;
    }
    const float fU0 = pfMatrix[2];
    const float fV0 = pfMatrix[5];
    if (!(fU0 > 0.0f && fV0 > 0.0f && fU0 <= (float)pstPara->iImgWidth - 1.0f &&
          fV0 <= (float)pstPara->iImgHeight - 1.0f)) {
        LdcLog(LDC_LOG_ERROR,
               "(U0, V0) in the camera matrix (%f, %f) should be in the area of the image!\n",
               (double)fU0, (double)fV0);
        return LDC_ERR_CAMERA_MATRIX;
    }
    return LDC_OK;
}

static void ComputeValidAreas(tagST_LDC_PARA *pstPara)
{
    GetUndistortedArea(pstPara, LDC_AREA_LENS);
    LdcLog(LDC_LOG_INFO, "The undistorted points is limited in [%d, %d, %d, %d]!\n",
           pstPara->aiLDCArea[0], pstPara->aiLDCArea[1], pstPara->aiLDCArea[2],
           pstPara->aiLDCArea[3]);
    if (pstPara->iGolbalFDCFlag > 0) {
        GetUndistortedArea(pstPara, LDC_AREA_FACE);
    }
}

static int32_t AllocWorkBuf(tagST_LDC_PARA *pstPara)
{
    int32_t iOffset = 0;
    // Zero-filled: the mesh part of an FDCMethod 1 instance starts as an empty track.
    const uint32_t uSize = LdcWorkBufBytes(pstPara);
    const uintptr_t uBlock = MemoMalloc(uSize, LDC_WORKBUF_ALIGN, &iOffset);
    if (uBlock == 0) {
        return LDC_ERR_MEMORY;
    }
    pstPara->pucWorkBufRaw = (uint8_t *)uBlock;
    pstPara->pucWorkBuf = pstPara->pucWorkBufRaw + iOffset;
    return LDC_OK;
}

// Width, height and picture type of a Create or Reset request. The messages quote 0 as the lower
// bound although 0 is refused; callers match on them.
static int32_t CheckSizeAndType(const ST_LDC_INPUT_PARA *pstInputPara)
{
    if (pstInputPara->iImgWidth < 1 || pstInputPara->iImgWidth > LDC_MAX_IMAGE_SIZE) {
        LdcLog(LDC_LOG_ERROR, "The width of image (%d) should be in [%d, %d]!\n",
               pstInputPara->iImgWidth, 0, LDC_MAX_IMAGE_SIZE);
        return LDC_ERR_PARAM;
    }
    if (pstInputPara->iImgHeight < 1 || pstInputPara->iImgHeight > LDC_MAX_IMAGE_SIZE) {
        LdcLog(LDC_LOG_ERROR, "The height of image (%d) should be in [%d, %d]!\n",
               pstInputPara->iImgHeight, 0, LDC_MAX_IMAGE_SIZE);
        return LDC_ERR_PARAM;
    }
    if ((uint32_t)pstInputPara->ePicType > LDC_PIC_YUV420) {
        LdcLog(LDC_LOG_ERROR, "The type of image (%d) should be %d, %d or %d!\n",
               pstInputPara->ePicType, LDC_PIC_NV21, LDC_PIC_NV12, LDC_PIC_YUV420);
        return LDC_ERR_PARAM;
    }
    return LDC_OK;
}

// Copies the configuration path, at most 256 bytes: a path of 256 characters or more is left
// unterminated, and the store refuses it by its length before the field is ever read.
static void CopyCfgPath(char *pcDest, const char *pcSrc)
{
    (void)memcpy_s(pcDest, LDC_CFG_PATH_LEN, pcSrc, strnlen(pcSrc, LDC_CFG_PATH_LEN));
}

int32_t IQV_LDC_Create(void **pHandle, ST_LDC_INPUT_PARA *pstInputPara)
{
    LdcLog(LDC_LOG_INFO, "Enter IQV_LDC_Create.\n");
    LogVersion();
    if (pHandle == NULL) {
        LdcLog(LDC_LOG_ERROR, "pHandle is NULL!\n");
        return LDC_ERR_PARAM;
    }
    if (pstInputPara == NULL) {
        LdcLog(LDC_LOG_ERROR, "InputPara is NULL!\n");
        return LDC_ERR_PARAM;
    }
    if (pstInputPara->pucCfgPath == NULL) {
        LdcLog(LDC_LOG_ERROR, "Config path is NULL!\n");
        return LDC_ERR_PARAM;
    }
    if (CheckSizeAndType(pstInputPara) != LDC_OK) {
        return LDC_ERR_PARAM;
    }

    tagST_LDC_PARA *pstPara = (tagST_LDC_PARA *)malloc(sizeof(tagST_LDC_PARA));
    if (pstPara == NULL) {
        // The common clean-up runs on the missing record and logs its own refusal first.
        (void)IQV_LDC_Delete(NULL);
        LdcLog(LDC_LOG_ERROR, "malloc memory for pstLdcPara in IQV_LDC_Create is error!\n");
        return LDC_ERR_MEMORY;
    }
    (void)memset_s(pstPara, sizeof(*pstPara), 0, sizeof(*pstPara));
    LdcLog(LDC_LOG_INFO,
           "QVLDC params  in IQV_LDC_Create: iImgWidth = %d, iImgHeight = %d, pucCfgPath = %s, "
           "ePicType = %d.\n",
           pstInputPara->iImgWidth, pstInputPara->iImgHeight, pstInputPara->pucCfgPath,
           pstInputPara->ePicType);
    pstPara->iImgWidth = pstInputPara->iImgWidth;
    pstPara->iImgHeight = pstInputPara->iImgHeight;
    pstPara->ePicType = pstInputPara->ePicType;
    CopyCfgPath(pstPara->acCfgPath, pstInputPara->pucCfgPath);

    if (ParseConfigFile(pstInputPara->pucCfgPath, pstPara) != LDC_OK) {
        LdcLog(LDC_LOG_ERROR, "Parse config file in IQV_LDC_Create is error!\n");
        (void)IQV_LDC_Delete(pstPara);
        return LDC_ERR_CONFIG;
    }
    const int32_t iRet = CheckCameraMatrix(pstPara, pstPara->afCameraMatrix[0]);
    if (iRet != LDC_OK) {
        (void)IQV_LDC_Delete(pstPara);
        return iRet;
    }
    ComputeValidAreas(pstPara);
    if (AllocWorkBuf(pstPara) != LDC_OK) {
        LdcLog(LDC_LOG_ERROR, "malloc memory in IQV_LDC_Create is error!\n");
        (void)IQV_LDC_Delete(pstPara);
        return LDC_ERR_MEMORY;
    }
    *pHandle = pstPara;
    LdcLog(LDC_LOG_INFO, "Exit IQV_LDC_Create.\n");
    return LDC_OK;
}

int32_t IQV_LDC_Reset(void *pHandle, ST_LDC_INPUT_PARA *pstInputPara)
{
    if (pHandle == NULL || pstInputPara == NULL) {
        LdcLog(LDC_LOG_ERROR, "The point of input param is NULL!\n");
        return LDC_ERR_PARAM;
    }
    // Create's checks, before anything is freed, so that a refused request leaves the instance as
    // it was: a profile may hold a size outside 1..5000, and its working-buffer size would
    // overflow.
    if (CheckSizeAndType(pstInputPara) != LDC_OK) {
        return LDC_ERR_PARAM;
    }
    tagST_LDC_PARA *pstPara = (tagST_LDC_PARA *)pHandle;

    // From here on a failure leaves the instance hollow: zeroed, holding only its path and its
    // picture type, so that the next frame (its stored size is 0 x 0) comes through Reset again.
    // The type survives because that Reset asks for the instance's type: cleared to 0, it would
    // read an NV12 or I420 stream as NV21 from then on.
    MemoFree((uintptr_t)pstPara->pucWorkBufRaw);
    char acCfgPath[LDC_CFG_PATH_LEN];
    (void)memcpy_s(acCfgPath, sizeof(acCfgPath), pstPara->acCfgPath, sizeof(pstPara->acCfgPath));
    const int32_t ePicType = pstPara->ePicType;
    (void)memset_s(pstPara, sizeof(*pstPara), 0, sizeof(*pstPara));
    (void)memcpy_s(pstPara->acCfgPath, sizeof(pstPara->acCfgPath), acCfgPath, sizeof(acCfgPath));
    pstPara->ePicType = ePicType;

    tagST_LDC_PARA stFresh;
    (void)memset_s(&stFresh, sizeof(stFresh), 0, sizeof(stFresh));
    stFresh.iImgWidth = pstInputPara->iImgWidth;
    stFresh.iImgHeight = pstInputPara->iImgHeight;
    stFresh.ePicType = pstInputPara->ePicType;
    (void)memcpy_s(stFresh.acCfgPath, sizeof(stFresh.acCfgPath), acCfgPath, sizeof(acCfgPath));

    if (ParseConfigFile(stFresh.acCfgPath, &stFresh) != LDC_OK) {
        LdcLog(LDC_LOG_ERROR, "Parse config file in IQV_LDC_Reset is error!\n");
        return LDC_ERR_CONFIG;
    }
    // The message quotes the cleared instance's fx, always 0.000000; log readers rely on it.
    const int32_t iRet = CheckCameraMatrix(&stFresh, pstPara->afCameraMatrix[0]);
    if (iRet != LDC_OK) {
        return iRet;
    }
    ComputeValidAreas(&stFresh);
    if (AllocWorkBuf(&stFresh) != LDC_OK) {
        return LDC_ERR_MEMORY;
    }
    (void)memcpy_s(pstPara, sizeof(*pstPara), &stFresh, sizeof(stFresh));
    return LDC_OK;
}

int32_t IQV_LDC_Delete(void *pHandle)
{
    LdcLog(LDC_LOG_INFO, "Enter IQV_LDC_Delete.\n");
    if (pHandle == NULL) {
        LdcLog(LDC_LOG_ERROR, "The point of input param is NULL!\n");
        LdcLog(LDC_LOG_INFO, "Exit IQV_LDC_Delete.\n");
        return LDC_ERR_PARAM;
    }
    tagST_LDC_PARA *pstPara = (tagST_LDC_PARA *)pHandle;
    MemoFree((uintptr_t)pstPara->pucWorkBufRaw);
    pstPara->pucWorkBufRaw = NULL;
    free(pstPara);
    LdcLog(LDC_LOG_INFO, "Exit IQV_LDC_Delete.\n");
    return LDC_OK;
}

#include "interface/diagnostics.h"

#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include "boundscheck/bounds_check.h"
#include "platform/platform.h"
#include "records/ldc_para.h"

#define LDC_DUMP_TEXT_LEN 2048   // face text and file paths
#define LDC_DUMP_TIME_LEN 64
#define LDC_DUMP_DIR_LEN 256

void LogVersion(void)
{
    // The build stamps name the binary that wrote a log, so they are this build's own.
    LdcLog(LDC_LOG_INFO, "LDC Version : __%s__%s__%s__%s__ \n", LDC_VERSION_TEXT, __DATE__, __TIME__, "gcc");
}

int64_t GetTime(void)
{
    struct timeval stNow;
    gettimeofday(&stNow, NULL);
    return (int64_t)stNow.tv_sec * 1000000 + (int64_t)stNow.tv_usec;
}

// Writes one whole frame; a failure is only logged, the frame's result does not depend on it.
static void WriteFrameFile(const char *pcPath, const uint8_t *pucFrame, size_t uBytes, const char *pcWriteError)
{
    FILE *pFile = fopen(pcPath, "wb");
    if (pFile == NULL) {
        LdcLog(LDC_LOG_ERROR, "Open YUV file error!\n");
        return;
    }
    if (fwrite(pucFrame, 1, uBytes, pFile) < uBytes) {
        LdcLog(LDC_LOG_ERROR, "%s", pcWriteError);
    }
    fclose(pFile);
}

void DumpFrames(const ST_LDC_FRAME_INFO *pstFrameInfo, const uint8_t *pucIn, const uint8_t *pucOut)
{
    const time_t tNow = time(NULL);
    struct tm stLocal;
    if (localtime_r(&tNow, &stLocal) == NULL) {
        return;
    }
    char acTime[LDC_DUMP_TIME_LEN];
    if (strftime(acTime, sizeof(acTime), "%Y%m%d_%H%M%S", &stLocal) == 0) {
        return;
    }

    // The caller's rectangles, blank-separated, so that a file name tells which faces it had.
    char acFaces[LDC_DUMP_TEXT_LEN];
    (void)strcpy_s(acFaces, sizeof(acFaces), "coord_");
    size_t uFacesLen = strnlen(acFaces, sizeof(acFaces));
    const int32_t iFaceNum = (pstFrameInfo->pstFaces == NULL) ? 0
                           : (pstFrameInfo->iFaceNum > LDC_MAX_FACES) ? LDC_MAX_FACES
                                                                      : pstFrameInfo->iFaceNum;
    for (int32_t i = 0; i < iFaceNum; i++) {
        const ST_FACE_RECT *pstFace = &pstFrameInfo->pstFaces[i];
        const int iLen = sprintf_s(acFaces + uFacesLen, sizeof(acFaces) - uFacesLen,
                                   "left=%d_top=%d_right=%d_bottom=%d%s", pstFace->iLeft, pstFace->iTop,
                                   pstFace->iRight, pstFace->iBottom, (i + 1 < iFaceNum) ? " " : "");
        if (iLen < 0) {
            break;   // keep the faces that fit
        }
        uFacesLen += (size_t)iLen;
    }

    char acDir[LDC_DUMP_DIR_LEN];
    LdcDumpDir(acDir, sizeof(acDir));
    const size_t uBytes = LdcFrameBytes(pstFrameInfo->iImgWidth, pstFrameInfo->iImgHeight);
    char acPath[LDC_DUMP_TEXT_LEN];
    // A name too long for the buffer leaves it empty, and the open then fails and is logged.
    (void)sprintf_s(acPath, sizeof(acPath), "%s%s_%s_ISO=%d_org.yuv", acDir, acTime, acFaces,
                    pstFrameInfo->iISO);
    WriteFrameFile(acPath, pucIn, uBytes, "Write Org_YUV file error!\n");
    (void)sprintf_s(acPath, sizeof(acPath), "%s%s_%s_ISO=%d_output.yuv", acDir, acTime, acFaces,
                    pstFrameInfo->iISO);
    WriteFrameFile(acPath, pucOut, uBytes, "Write Dst_YUV file error!\n");
}

void DumpFramesIfRequested(const ST_LDC_FRAME_INFO *pstFrameInfo, const uint8_t *pucIn, const uint8_t *pucOut)
{
    char acValue[LDC_PROP_VALUE_MAX];
    (void)memset_s(acValue, sizeof(acValue), 0, sizeof(acValue));
    const int iLen = LdcPropertyGet(LDC_DUMP_PROPERTY, acValue);
    // An unset property shows as an empty character; only the first character decides.
    LdcLog(LDC_LOG_INFO, "save org image: length = %d, persist.camera.zb5qu.qvldc.yuv = %c.\n", iLen, acValue[0]);
    if (iLen > 0 && acValue[0] == '1') {
        DumpFrames(pstFrameInfo, pucIn, pucOut);
    }
}

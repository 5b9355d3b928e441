/* Builds against an installed tree and corrects one small grey frame. Usage: consumer CONFIG */
#include <stdio.h>
#include <string.h>
#include <vkt_zb_ldc.h>

int main(int argc, char **argv)
{
    static uint8_t aucIn[640 * 480 * 3 / 2], aucOut[sizeof(aucIn)];
    char acPath[256] = {0};
    void *pHandle = NULL;
    ST_FACE_RECT stFace = {60, 160, 130, 260};
    if (argc < 2 || strlen(argv[1]) >= sizeof(acPath)) return 2;
    strcpy(acPath, argv[1]);
    ST_LDC_INPUT_PARA stPara = {640, 480, acPath, LDC_PIC_NV21};
    ST_LDC_FRAME_INFO stFrame = {640, 480, 100, 1, &stFace};
    memset(aucIn, 128, sizeof(aucIn));
    int32_t iRet = IQV_LDC_Create(&pHandle, &stPara);
    if (iRet == LDC_OK) iRet = IQV_LDC_Process(pHandle, &stFrame, aucIn, aucOut);
    if (pHandle != NULL && IQV_LDC_Delete(pHandle) != LDC_OK) iRet = -1;
    printf("consumer: %d, first output byte %d\n", iRet, aucOut[0]);
    return iRet == LDC_OK && aucOut[0] == 128 ? 0 : 1;
}

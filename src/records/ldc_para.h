// The instance record (its address is the caller's handle) and the picture descriptor that
// every stage of the pipeline shares.
#ifndef LDC_RECORDS_LDC_PARA_H
#define LDC_RECORDS_LDC_PARA_H

#include <stdint.h>

#include "records/svm_model.h"
#include "vkt_zb_ldc.h"

#define LDC_CFG_PATH_LEN 256

// Picture descriptor: iWidth is also the row pitch of the luma plane and of an interleaved
// chroma plane; planar chroma planes have a pitch of iWidth >> 1.
typedef struct tagST_PIC {
    int32_t iWidth;
    int32_t iHeight;
    int32_t iReserved;
    uint8_t *pY;
    uint8_t *pU;   // first byte of the interleaved plane for the semi-planar types
    uint8_t *pV;
} tagST_PIC;

typedef struct tagST_LDC_PARA {
    int32_t iImgWidth;
    int32_t iImgHeight;
    int32_t ePicType;
    int32_t iYUVFlag;
    int32_t iLDCFlag;
    int32_t iFDCFlag;
    int32_t iMultiFacesLDCFlag;
    int32_t iMultiFacesFDCFlag;
    int32_t iGolbalFDCFlag;
    int32_t iLDCAreaRestrictedFlag;
    int32_t iFDCAreaRestrictedFlag;
    float fRestrictedAreaRatio;
    int32_t iLDCEnable;
    int32_t iFDCEnable;
    int32_t iFDCMode;
    int32_t iFOVLost;
    float fCorrectionDegree;
    float afCameraMatrix[9];            // fx, skew, u0 / 0, fy, v0 / 0, 0, 1
    float afDistortionCoefficients[5];  // k1, k2, k3, p1, p2
    float afGlobalFDCCoefficients[4];
    int32_t iBinarizationThresh;
    int32_t iBendDecideMode;
    float fConnectLineRatio;
    float fLineLengthRatio;
    int32_t iBendValue;
    tagST_SVM_MODEL stSvmModel;
    int32_t iSvmFactor;
    int32_t aiLDCArea[4];               // left, top, right, bottom, inclusive
    int32_t aiGlobalFDCArea[4];
    int32_t iFaceNum;
    int32_t aiFaceRect[LDC_MAX_FACES][4];
    char acCfgPath[LDC_CFG_PATH_LEN];
    uint8_t *pucWorkBuf;                // 16-byte aligned
    uint8_t *pucWorkBufRaw;             // the block to free
    int32_t aiThreadMask[4];
    int32_t aiThreadState[4];
} tagST_LDC_PARA;

#endif

// The instance record (its address is the caller's handle) and the picture descriptor that
// every stage of the pipeline shares.
#ifndef LDC_RECORDS_LDC_PARA_H
#define LDC_RECORDS_LDC_PARA_H

#include <stddef.h>
#include <stdint.h>

#include "records/svm_model.h"
#include "vkt_zb_ldc.h"

#define LDC_CFG_PATH_LEN 256

// Face-correction methods (FDCMethod): the face homography, or the conformal face mesh, which an
// instance takes only when its configuration asks for it.
#define LDC_FDC_HOMOGRAPHY 0
#define LDC_FDC_MESH 1

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

// Bytes of a width x height 4:2:0 frame: luma, then half as much chroma.
static inline size_t LdcFrameBytes(int32_t iWidth, int32_t iHeight)
{
    return (size_t)iWidth * (size_t)iHeight * 3 / 2;
}

// Plane pointers of a width x height frame at pucBase in the picture type's layout. The
// semi-planar types get the start of the interleaved plane for both orders: their kernels copy
// whole chroma pairs relative to it, and handed B + S + 1 for NV21 they would leave the first
// chroma byte unwritten and touch one byte past the end of the frame.
static inline void BuildPicture(tagST_PIC *pstPic, uint8_t *pucBase, int32_t iWidth, int32_t iHeight,
                                int32_t ePicType)
{
    const int32_t iS = iWidth * iHeight;
    pstPic->iWidth = iWidth;
    pstPic->iHeight = iHeight;
    pstPic->iReserved = 0;
    pstPic->pY = pucBase;
    pstPic->pU = pucBase + iS;
    if (ePicType == LDC_PIC_YUV420) {
        pstPic->pV = pucBase + iS + iS / 4;
    } else {
        pstPic->pV = pucBase + iS + (ePicType == LDC_PIC_NV12 ? 1 : 0);
    }
}

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
    int32_t iFDCMethod;                 // LDC_FDC_HOMOGRAPHY or LDC_FDC_MESH; last, so that the
                                        // fields before it keep their places
    int32_t iMeshLines;                 // 1: a mesh solve keeps the line finder's lines straight
} tagST_LDC_PARA;

#endif

#include "config/config_schema.h"

#include "boundscheck/bounds_check.h"
#include "config/xml_config.h"
#include "platform/neon.h"
#include "platform/platform.h"

#define LDC_PROFILE_ROWS(key)                                                                      \
    {                                                                                              \
        "/Config/DistortionCorrection1/" key, "/Config/DistortionCorrection2/" key,                \
        "/Config/DistortionCorrection3/" key, "/Config/DistortionCorrection4/" key,                \
        "/Config/DistortionCorrection5/" key, "/Config/DistortionCorrection6/" key,                \
        "/Config/DistortionCorrection7/" key, "/Config/DistortionCorrection8/" key                 \
    }

char acImageWidth[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN] = LDC_PROFILE_ROWS("ImageWidth");
char acImageHeight[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN] = LDC_PROFILE_ROWS("ImageHeight");
char acCameraMatrix[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN] = LDC_PROFILE_ROWS("CameraMatrix");
char acDistortionCoefficients[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN] =
    LDC_PROFILE_ROWS("DistortionCoefficients");
char acGlobalFDCCoefficients[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN] =
    LDC_PROFILE_ROWS("GlobalFDCCoefficients");
char acBendValue[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN] = LDC_PROFILE_ROWS("BendValue");
char acSvmFactor[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN] = LDC_PROFILE_ROWS("SvmFactor");

static int32_t NormaliseFlag(int32_t iValue)
{
    return iValue != 0 ? 1 : 0;
}

static int32_t ClampInt(int32_t iValue, int32_t iMin, int32_t iMax)
{
    return iValue < iMin ? iMin : (iValue > iMax ? iMax : iValue);
}

// The ratios scale pixel distances later on; a NaN read from the file ("nan" scans as a float)
// would survive both comparisons, so it is taken as 0 to keep every ratio within 0..1.
static float ClampRatio(float fValue)
{
    if (!(fValue >= 0.0f)) {
        return 0.0f;
    }
    return fValue > 1.0f ? 1.0f : fValue;
}

// The remap and the warp work on 2 x 2 chroma blocks, so the principal point is moved to an odd
// pixel coordinate: an odd whole part is kept, an even one moves up by one.
static float MakeOddCoordinate(float fValue)
{
    const int32_t iWhole = TruncF32ToS32(fValue);
    if ((iWhole & 1) != 0) {
        return (float)iWhole;
    }
    return (float)TruncF32ToS32(fValue + 1.0f);
}

// Classifier vectors; only read when the file selects classifier mode. The configured gamma and
// rho are stored as read; the classifier's loader decides what it uses.
static int32_t ParseSvmModel(const XmlConfig &stCfg, tagST_SVM_MODEL *pstModel)
{
    pstModel->fGamma = stCfg.GetFloat("/Config/LineDetection/SVM/Gamma", 0.0f);
    pstModel->fRho = stCfg.GetFloat("/Config/LineDetection/SVM/Rho", 0.0f);

    // A short vector leaves preset elements, so every destination starts at 0.
    (void)memset_s(pstModel->aiNSv, sizeof(pstModel->aiNSv), 0, sizeof(pstModel->aiNSv));
    if (!stCfg.GetVectorInt("/Config/LineDetection/SVM/SvNumber", pstModel->aiNSv, 2)) {
        LdcLog(LDC_LOG_ERROR, "Can't get the svm param: SvNumber!\n");
        return LDC_ERR_PARAM;
    }
    // Summed with 32-bit wrap-around, as the counts are only compared with the room there is.
    const int32_t iSvNum = (int32_t)((uint32_t)pstModel->aiNSv[0] + (uint32_t)pstModel->aiNSv[1]);
    if (iSvNum > LDC_SVM_MAX_SV) {
        LdcLog(LDC_LOG_ERROR, "The number of Sv is %d, can't be more than %d!\n", iSvNum,
               LDC_SVM_MAX_SV);
        return LDC_ERR_PARAM;
    }
    (void)memset_s(pstModel->afSvCoef, sizeof(pstModel->afSvCoef), 0, sizeof(pstModel->afSvCoef));
    if (!stCfg.GetVectorFloat("/Config/LineDetection/SVM/SvCoeff", pstModel->afSvCoef, iSvNum)) {
        LdcLog(LDC_LOG_ERROR, "Can't get the svm param: SvCoeff!\n");
        return LDC_ERR_PARAM;
    }
    (void)memset_s(pstModel->afSv, sizeof(pstModel->afSv), 0, sizeof(pstModel->afSv));
    // A count of 0 or less reads nothing but still requires the key; the product must not wrap.
    const int32_t iValueNum = iSvNum > 0 ? iSvNum * LDC_SVM_FEATURES : 0;
    if (!stCfg.GetVectorFloat("/Config/LineDetection/SVM/SvValue", pstModel->afSv, iValueNum)) {
        LdcLog(LDC_LOG_ERROR, "Can't get the svm param: SvValue!\n");
        return LDC_ERR_PARAM;
    }
    return LDC_OK;
}

// Profile iRow + 1: when its size matches the record's in either orientation, the record takes
// the profile's orientation and its lens parameters.
static int32_t ParseProfileIfMatching(const XmlConfig &stCfg, int32_t iRow, tagST_LDC_PARA *pstPara,
                                      bool *pbMatch)
{
    const int32_t iProfileWidth = stCfg.GetInteger(acImageWidth[iRow], 0);
    const int32_t iProfileHeight = stCfg.GetInteger(acImageHeight[iRow], 0);
    *pbMatch = (iProfileWidth == pstPara->iImgWidth && iProfileHeight == pstPara->iImgHeight) ||
               (iProfileWidth == pstPara->iImgHeight && iProfileHeight == pstPara->iImgWidth);
    if (!*pbMatch) {
        return LDC_OK;
    }
    pstPara->iImgWidth = iProfileWidth;
    pstPara->iImgHeight = iProfileHeight;

    float *pfMatrix = pstPara->afCameraMatrix;
    (void)memset_s(pfMatrix, sizeof(pstPara->afCameraMatrix), 0, sizeof(pstPara->afCameraMatrix));
    if (!stCfg.GetVectorFloat(acCameraMatrix[iRow], pfMatrix, 9)) {
        LdcLog(LDC_LOG_ERROR, "Can't get the camera matrix!\n");
        return LDC_ERR_PARAM;
    }
    pfMatrix[2] = MakeOddCoordinate(pfMatrix[2]);
    pfMatrix[5] = MakeOddCoordinate(pfMatrix[5]);

    (void)memset_s(pstPara->afDistortionCoefficients, sizeof(pstPara->afDistortionCoefficients), 0,
                   sizeof(pstPara->afDistortionCoefficients));
    if (!stCfg.GetVectorFloat(acDistortionCoefficients[iRow], pstPara->afDistortionCoefficients, 5)) {
        LdcLog(LDC_LOG_ERROR, "Can't get the distortion coefficients!\n");
        return LDC_ERR_PARAM;
    }
    (void)memset_s(pstPara->afGlobalFDCCoefficients, sizeof(pstPara->afGlobalFDCCoefficients), 0,
                   sizeof(pstPara->afGlobalFDCCoefficients));
    if (!stCfg.GetVectorFloat(acGlobalFDCCoefficients[iRow], pstPara->afGlobalFDCCoefficients, 4)) {
        LdcLog(LDC_LOG_ERROR, "Can't get the global FDC coefficients!\n");
        return LDC_ERR_PARAM;
    }
    // The bend measure scales every radius by the fourth coefficient and divides by the product;
    // the classifier never reads it.
    if (pstPara->afGlobalFDCCoefficients[3] == 0.0f && pstPara->iBendDecideMode == 0) {
        LdcLog(LDC_LOG_ERROR, "Error GolbalFDCCoeff!\n");
        return LDC_ERR_PARAM;
    }
    pstPara->iBendValue = stCfg.GetInteger(acBendValue[iRow], 0);
    const int32_t iShortSide =
        pstPara->iImgWidth < pstPara->iImgHeight ? pstPara->iImgWidth : pstPara->iImgHeight;
    pstPara->iSvmFactor = stCfg.GetInteger(acSvmFactor[iRow], iShortSide >> 1);
    return LDC_OK;
}

// Departure, so that a camera service neither hangs nor exhausts its memory on a configuration
// path: one that names no readable file, an empty one, anything but a regular file, or a file
// over the reader's limit fails the load here with its reason, instead of going on with the
// empty default document (which only ends in "Image size is not supportted!").
static bool ConfigFileUsable(const char *pcPath, const XMLResults *pstFile)
{
    switch (pstFile->error) {
    case eXMLErrorFileNotFound:
        LdcLog(LDC_LOG_ERROR, "The config file %s can't be read or is empty!\n", pcPath);
        return false;
    case eXMLErrorFileNotRegular:
        LdcLog(LDC_LOG_ERROR, "The config file %s is not a regular file!\n", pcPath);
        return false;
    case eXMLErrorFileTooLarge:
        LdcLog(LDC_LOG_ERROR, "The config file %s is larger than %d bytes!\n", pcPath,
               XML_FILE_MAX_BYTES);
        return false;
    default:
        return true;
    }
}

int32_t ParseConfigFile(const char *pcPath, tagST_LDC_PARA *pstPara)
{
    XmlConfig stCfg;
    XMLResults stFile;
    if (stCfg.LoadConfig(pcPath, &stFile) == 0 || !ConfigFileUsable(pcPath, &stFile)) {
        LdcLog(LDC_LOG_ERROR, "Can't load xml file!\n");
        return LDC_ERR_XML_LOAD;
    }

    pstPara->iLDCFlag = stCfg.GetInteger("/Config/Global/LDCFlag", 1);
    pstPara->iFDCFlag = stCfg.GetInteger("/Config/Global/FDCFlag", 1);
    pstPara->iYUVFlag = stCfg.GetInteger("/Config/Global/YUVFlag", 0);
    pstPara->iMultiFacesLDCFlag = stCfg.GetInteger("/Config/Global/MultiFacesLDCFlag", 1);
    pstPara->iMultiFacesFDCFlag = stCfg.GetInteger("/Config/Global/MultiFacesFDCFlag", 1);
    pstPara->iGolbalFDCFlag = stCfg.GetInteger("/Config/Global/GolbalFDCFlag", 1);
    pstPara->iLDCAreaRestrictedFlag = stCfg.GetInteger("/Config/Global/LDCAreaRestrictedFlag", 0);
    pstPara->iFDCAreaRestrictedFlag = stCfg.GetInteger("/Config/Global/FDCAreaRestrictedFlag", 0);
    pstPara->fRestrictedAreaRatio = stCfg.GetFloat("/Config/Global/RestrictedAreaRatio", 1.0f);
    pstPara->fCorrectionDegree =
        stCfg.GetFloat("/Config/FaceDistortionCorrection/CorrectionDegree", 0.0f);
    pstPara->iFOVLost = stCfg.GetInteger("/Config/FaceDistortionCorrection/FOVLost", 10);
    pstPara->iFDCMethod = stCfg.GetInteger("/Config/FaceDistortionCorrection/FDCMethod", LDC_FDC_HOMOGRAPHY);
    pstPara->iMeshLines = stCfg.GetInteger("/Config/FaceDistortionCorrection/MeshLines", 0);
    pstPara->iBendDecideMode = stCfg.GetInteger("/Config/LineDetection/BendDecideMode", 0);
    pstPara->iBinarizationThresh = stCfg.GetInteger("/Config/LineDetection/BinarizationThresh", 100);
    pstPara->fConnectLineRatio = stCfg.GetFloat("/Config/LineDetection/ConnectLineRatio", 0.5f);
    pstPara->fLineLengthRatio = stCfg.GetFloat("/Config/LineDetection/LineLengthRatio", 0.5f);

    // Only a mode of exactly 1 loads the classifier; 2 and above clamp to 1 below without one.
    if (pstPara->iBendDecideMode == 1) {
        const int32_t iRet = ParseSvmModel(stCfg, &pstPara->stSvmModel);
        if (iRet != LDC_OK) {
            return iRet;
        }
    }

    pstPara->iLDCFlag = NormaliseFlag(pstPara->iLDCFlag);
    pstPara->iFDCFlag = NormaliseFlag(pstPara->iFDCFlag);
    pstPara->iYUVFlag = NormaliseFlag(pstPara->iYUVFlag);
    pstPara->iMultiFacesLDCFlag = NormaliseFlag(pstPara->iMultiFacesLDCFlag);
    pstPara->iMultiFacesFDCFlag = NormaliseFlag(pstPara->iMultiFacesFDCFlag);
    pstPara->iLDCAreaRestrictedFlag = NormaliseFlag(pstPara->iLDCAreaRestrictedFlag);
    pstPara->iFDCAreaRestrictedFlag = NormaliseFlag(pstPara->iFDCAreaRestrictedFlag);
    pstPara->iMeshLines = NormaliseFlag(pstPara->iMeshLines);
    pstPara->iGolbalFDCFlag = ClampInt(pstPara->iGolbalFDCFlag, 0, 2);
    pstPara->iFOVLost = ClampInt(pstPara->iFOVLost, 0, 100);
    pstPara->iFDCMethod = ClampInt(pstPara->iFDCMethod, LDC_FDC_HOMOGRAPHY, LDC_FDC_MESH);
    pstPara->iBendDecideMode = ClampInt(pstPara->iBendDecideMode, 0, 1);
    pstPara->iBinarizationThresh = ClampInt(pstPara->iBinarizationThresh, 0, 255);
    pstPara->fRestrictedAreaRatio = ClampRatio(pstPara->fRestrictedAreaRatio);
    pstPara->fCorrectionDegree = ClampRatio(pstPara->fCorrectionDegree);
    pstPara->fConnectLineRatio = ClampRatio(pstPara->fConnectLineRatio);
    pstPara->fLineLengthRatio = ClampRatio(pstPara->fLineLengthRatio);

    for (int32_t iRow = 0; iRow < LDC_PROFILE_NUM; iRow++) {
        bool bMatch = false;
        const int32_t iRet = ParseProfileIfMatching(stCfg, iRow, pstPara, &bMatch);
        if (iRet != LDC_OK) {
            return iRet;
        }
        // The eighth profile is read but never served: shipped configurations keep their sizes
        // in profiles 1 to 7, and a size found only in the last one is refused.
        if (bMatch && iRow < LDC_PROFILE_NUM - 1) {
            return LDC_OK;
        }
    }
    LdcLog(LDC_LOG_ERROR, "Image size is not supportted!");
    return LDC_ERR_PARAM;
}

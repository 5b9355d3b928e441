// The configuration schema: which keys of the XML file fill which fields of the instance record,
// their defaults and ranges, and the eight size profiles of which one supplies the lens.
#ifndef LDC_CONFIG_CONFIG_SCHEMA_H
#define LDC_CONFIG_CONFIG_SCHEMA_H

#include <stdint.h>

#include "records/ldc_para.h"
#include "vkt_zb_ldc.h"   // LDC_EXPORT

#define LDC_PROFILE_NUM 8          // DistortionCorrection1 .. DistortionCorrection8
#define LDC_PROFILE_PATH_LEN 256

#ifdef __cplusplus
extern "C" {
#endif

// Row i - 1 holds the path of the key in profile i, e.g. "/Config/DistortionCorrection1/ImageWidth".
LDC_EXPORT extern char acImageWidth[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN];
LDC_EXPORT extern char acImageHeight[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN];
LDC_EXPORT extern char acCameraMatrix[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN];
LDC_EXPORT extern char acDistortionCoefficients[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN];
LDC_EXPORT extern char acGlobalFDCCoefficients[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN];
LDC_EXPORT extern char acBendValue[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN];
LDC_EXPORT extern char acSvmFactor[LDC_PROFILE_NUM][LDC_PROFILE_PATH_LEN];

#ifdef __cplusplus
}
#endif

// Fills the parameter fields of pstPara from the file at pcPath for the frame size already in
// pstPara (iImgWidth, iImgHeight; either orientation matches a profile, and the record is left
// in the profile's orientation). Returns 0, LDC_ERR_XML_LOAD when no document could be loaded,
// LDC_ERR_PARAM for any content error; on failure the record is partly filled.
int32_t ParseConfigFile(const char *pcPath, tagST_LDC_PARA *pstPara);

#endif

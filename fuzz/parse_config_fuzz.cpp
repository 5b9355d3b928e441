// libFuzzer target: arbitrary bytes as a configuration file, read by the schema for a few frame
// sizes and then by a whole IQV_LDC_Create / IQV_LDC_Reset / IQV_LDC_Delete cycle. Seeds: the
// shipped configurations (configs/) and the test configurations (tests/configs/).
#include <stdint.h>
#include <string.h>

#include <string>

#include "buffer_pool.h"
#include "config/config_schema.h"
#include "fuzz_scratch.h"
#include "records/ldc_para.h"
#include "vkt_zb_ldc.h"

// One file per fuzzing process.
static std::string g_sPath;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    g_sPath = ScratchPath("parse_config_fuzz", 0, "xml");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t uSize)
{
    if (!WriteScratch(g_sPath, pucData, uSize)) {
        return 0;
    }

    // The schema alone at one of the seeds' other profile sizes, picked by the input's length;
    // the lifecycle below covers 640 x 480 in both orientations. Parsing dominates the cost of
    // an execution, so each input is parsed three times only.
    static const int32_t s_aiSizes[][2] = {{320, 240}, {1280, 720}, {5000, 8}, {8, 5000}, {352, 288}};
    tagST_LDC_PARA stPara;
    memset(&stPara, 0, sizeof(stPara));
    stPara.iImgWidth = s_aiSizes[uSize % 5][0];
    stPara.iImgHeight = s_aiSizes[uSize % 5][1];
    (void)ParseConfigFile(g_sPath.c_str(), &stPara);

    tagST_POOL_SCOPE stPool;
    ST_LDC_INPUT_PARA stInput = {640, 480, g_sPath.c_str(), LDC_PIC_NV12};
    void *pHandle = NULL;
    if (IQV_LDC_Create(&pHandle, &stInput) == LDC_OK) {
        ST_LDC_INPUT_PARA stPortrait = {480, 640, NULL, LDC_PIC_YUV420};
        (void)IQV_LDC_Reset(pHandle, &stPortrait);
        (void)IQV_LDC_Delete(pHandle);
    }
    return 0;
}

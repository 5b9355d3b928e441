// Drives Create and Process the way a hostile or buggy camera HAL could: arbitrary configuration
// flags, face-correction methods and lens strengths, frame sizes that change between calls (resets, transpositions,
// unknown sizes), and face arrays with negative, huge, inverted, overlapping or too many
// rectangles. Frames are allocated to their exact size, so any access outside the caller's
// buffers is caught by AddressSanitizer.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "buffer_pool.h"
#include "fuzz_scratch.h"
#include "vkt_zb_ldc.h"

namespace {

std::string Profile(int iIndex, int iW, int iH, FuzzedDataProvider &fdp)
{
    const float fFx = fdp.ConsumeFloatingPointInRange<float>(-10.0f, 4.0f * (float)(iW + iH));
    const float fU0 = fdp.ConsumeFloatingPointInRange<float>(-2.0f, (float)iW + 2.0f);
    const float fV0 = fdp.ConsumeFloatingPointInRange<float>(-2.0f, (float)iH + 2.0f);
    char acText[1024];
    snprintf(acText, sizeof(acText),
             "<DistortionCorrection%d><ImageWidth>%d</ImageWidth><ImageHeight>%d</ImageHeight>"
             "<CameraMatrix>%g 0 %g 0 %g %g 0 0 1</CameraMatrix>"
             "<DistortionCoefficients>%g %g %g 0.001 -0.0003</DistortionCoefficients>"
             "<GlobalFDCCoefficients>%g %g %g %g</GlobalFDCCoefficients>"
             "<BendValue>%d</BendValue><SvmFactor>%d</SvmFactor></DistortionCorrection%d>",
             iIndex, iW, iH, fFx, fU0, fFx, fV0, fdp.ConsumeFloatingPointInRange<float>(-1.5f, 1.5f),
             fdp.ConsumeFloatingPointInRange<float>(-1.0f, 1.0f), fdp.ConsumeFloatingPointInRange<float>(-1.0f, 1.0f),
             fdp.ConsumeFloatingPointInRange<float>(-1e-3f, 1e-3f), fdp.ConsumeFloatingPointInRange<float>(-1e-6f, 1e-6f),
             fdp.ConsumeFloatingPointInRange<float>(-1e-9f, 1e-9f), fdp.ConsumeFloatingPointInRange<float>(-1e-3f, 1e-3f),
             fdp.ConsumeIntegralInRange<int>(-5, 20), fdp.ConsumeIntegralInRange<int>(-5, 100), iIndex);
    return acText;
}

std::string Configuration(int iW, int iH, int iW2, int iH2, FuzzedDataProvider &fdp)
{
    const int iBendMode = fdp.ConsumeIntegralInRange<int>(0, 2);
    char acText[2048];
    snprintf(acText, sizeof(acText),
             "<?xml version=\"1.0\"?><Config><Global><LDCFlag>%d</LDCFlag><FDCFlag>%d</FDCFlag>"
             "<MultiFacesLDCFlag>%d</MultiFacesLDCFlag><MultiFacesFDCFlag>%d</MultiFacesFDCFlag>"
             "<GolbalFDCFlag>%d</GolbalFDCFlag><LDCAreaRestrictedFlag>%d</LDCAreaRestrictedFlag>"
             "<FDCAreaRestrictedFlag>%d</FDCAreaRestrictedFlag><RestrictedAreaRatio>%g</RestrictedAreaRatio>"
             "</Global><FaceDistortionCorrection><CorrectionDegree>%g</CorrectionDegree><FOVLost>%d</FOVLost>"
             "<FDCMethod>%d</FDCMethod><MeshLines>%d</MeshLines></FaceDistortionCorrection><LineDetection><BendDecideMode>%d</BendDecideMode>"
             "<BinarizationThresh>%d</BinarizationThresh><ConnectLineRatio>%g</ConnectLineRatio>"
             "<LineLengthRatio>%g</LineLengthRatio>%s</LineDetection>",
             fdp.ConsumeIntegralInRange<int>(0, 1), fdp.ConsumeIntegralInRange<int>(0, 1),
             fdp.ConsumeIntegralInRange<int>(0, 1), fdp.ConsumeIntegralInRange<int>(0, 1),
             fdp.ConsumeIntegralInRange<int>(-1, 3), fdp.ConsumeIntegralInRange<int>(0, 1),
             fdp.ConsumeIntegralInRange<int>(0, 1), fdp.ConsumeFloatingPointInRange<float>(-0.5f, 1.5f),
             fdp.ConsumeFloatingPointInRange<float>(-0.5f, 1.5f), fdp.ConsumeIntegralInRange<int>(-5, 120),
             fdp.ConsumeIntegralInRange<int>(-1, 2), fdp.ConsumeIntegralInRange<int>(-1, 2), iBendMode, fdp.ConsumeIntegralInRange<int>(-10, 300), fdp.ConsumeFloatingPointInRange<float>(-0.5f, 1.5f),
             fdp.ConsumeFloatingPointInRange<float>(-0.5f, 1.5f),
             iBendMode == 1 ? "<SVM><SvNumber>1 1</SvNumber><SvCoeff>2.5 -1.5</SvCoeff>"
                              "<SvValue>0.1 0.2 -0.3 0.4 -0.5 0.6 0.7 -0.8</SvValue></SVM>"
                            : "");
    std::string sText = acText;
    sText += Profile(1, iW, iH, fdp);
    sText += Profile(2, iW2, iH2, fdp);
    sText += "</Config>";
    return sText;
}

void RunFrame(void *pHandle, int iW, int iH, int iISO, FuzzedDataProvider &fdp)
{
    const int iFaceNum = fdp.ConsumeIntegralInRange<int>(-2, 14);
    std::vector<ST_FACE_RECT> vFaces(iFaceNum > 0 ? iFaceNum : 0);
    for (ST_FACE_RECT &stFace : vFaces) {
        if (fdp.ConsumeBool()) {
            stFace.iLeft = fdp.ConsumeIntegralInRange<int32_t>(-iW, 2 * iW);
            stFace.iTop = fdp.ConsumeIntegralInRange<int32_t>(-iH, 2 * iH);
            stFace.iRight = stFace.iLeft + fdp.ConsumeIntegralInRange<int32_t>(-4, iW);
            stFace.iBottom = stFace.iTop + fdp.ConsumeIntegralInRange<int32_t>(-4, iH);
        } else {
            stFace.iLeft = fdp.ConsumeIntegral<int32_t>();
            stFace.iTop = fdp.ConsumeIntegral<int32_t>();
            stFace.iRight = fdp.ConsumeIntegral<int32_t>();
            stFace.iBottom = fdp.ConsumeIntegral<int32_t>();
        }
    }
    const size_t uBytes = (size_t)iW * iH * 3 / 2;
    uint8_t *pucIn = (uint8_t *)malloc(uBytes);
    uint8_t *pucOut = (uint8_t *)malloc(uBytes);
    // The input's bytes, repeated to fill the frame (a ramp without any), by doubling copies: a
    // loop per byte cost a fifth of an execution.
    const std::vector<uint8_t> vPixels = fdp.ConsumeBytes<uint8_t>(uBytes);
    if (vPixels.empty()) {
        for (size_t i = 0; i < uBytes; i++) {
            pucIn[i] = (uint8_t)(i * 7);
        }
    } else {
        memcpy(pucIn, vPixels.data(), vPixels.size());
        for (size_t uDone = vPixels.size(); uDone < uBytes; uDone *= 2) {
            memcpy(pucIn + uDone, pucIn, std::min(uDone, uBytes - uDone));
        }
    }
    ST_LDC_FRAME_INFO stInfo = {iW, iH, iISO, iFaceNum, vFaces.empty() ? NULL : vFaces.data()};
    IQV_LDC_Process(pHandle, &stInfo, pucIn, pucOut);
    free(pucIn);
    free(pucOut);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t uSize)
{
    FuzzedDataProvider fdp(pucData, uSize);
    const int iW = fdp.ConsumeIntegralInRange<int>(1, 72);
    const int iH = fdp.ConsumeIntegralInRange<int>(1, 72);
    const int iW2 = fdp.ConsumeIntegralInRange<int>(1, 72);
    const int iH2 = fdp.ConsumeIntegralInRange<int>(1, 72);
    const std::string sConfig = Configuration(iW, iH, iW2, iH2, fdp);

    static const std::string s_sPath = ScratchPath("process_fuzz", 0, "xml");
    if (!WriteScratch(s_sPath, sConfig.data(), sConfig.size())) {
        return 0;
    }
    tagST_POOL_SCOPE stPool;
    ST_LDC_INPUT_PARA stPara = {iW, iH, s_sPath.c_str(), fdp.ConsumeIntegralInRange<int32_t>(0, 2)};
    void *pHandle = NULL;
    if (IQV_LDC_Create(&pHandle, &stPara) == LDC_OK) {
        const int iFrames = fdp.ConsumeIntegralInRange<int>(1, 3);
        for (int i = 0; i < iFrames && fdp.remaining_bytes() > 0; i++) {
            // The instance's size, its transpose, the second profile or an unknown size.
            const int iChoice = fdp.ConsumeIntegralInRange<int>(0, 3);
            const int iFw = iChoice == 0 ? iW : iChoice == 1 ? iH : iChoice == 2 ? iW2 : fdp.ConsumeIntegralInRange<int>(1, 72);
            const int iFh = iChoice == 0 ? iH : iChoice == 1 ? iW : iChoice == 2 ? iH2 : fdp.ConsumeIntegralInRange<int>(1, 72);
            RunFrame(pHandle, iFw, iFh, fdp.ConsumeIntegral<int32_t>(), fdp);
        }
        IQV_LDC_Delete(pHandle);
    }
    return 0;
}

// qvldc: runs the library on dumped frames or photos the way the camera service does, prints
// the library's log and the decision it took, and draws what it saw. See UsageText().
#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "config/config_schema.h"
#include "config/xml_config.h"
#include "interface/ldc_para.h"
#include "qvldc_calibrate.h"
#include "qvldc_image.h"
#include "qvldc_linecheck.h"
#include "qvldc_parse.h"
#include "qvldc_sample.h"
#include "vkt_zb_ldc.h"

namespace {

// The host build logs to stderr; the tool catches a call's lines to read the field-of-view
// figures back, then lets them through unless told to be quiet.
std::string CaptureStderr(const std::function<void()> &fnCall)
{
    fflush(stderr);
    FILE *pTmp = tmpfile();
    const int iSaved = dup(2);
    if (pTmp == NULL || iSaved < 0) {
        fnCall();
        return std::string();
    }
    dup2(fileno(pTmp), 2);
    fnCall();
    fflush(stderr);
    dup2(iSaved, 2);
    close(iSaved);
    std::string strText;
    rewind(pTmp);
    char acBuf[4096];
    size_t uRead;
    while ((uRead = fread(acBuf, 1, sizeof(acBuf), pTmp)) > 0) {
        strText.append(acBuf, uRead);
    }
    fclose(pTmp);
    return strText;
}

bool ReadText(const std::string &strPath, std::string *pstrText)
{
    FILE *pFile = fopen(strPath.c_str(), "rb");
    if (pFile == NULL) {
        return false;
    }
    char acBuf[4096];
    size_t uRead;
    while ((uRead = fread(acBuf, 1, sizeof(acBuf), pFile)) > 0) {
        pstrText->append(acBuf, uRead);
    }
    fclose(pFile);
    return true;
}

bool WriteText(const std::string &strPath, const std::string &strText)
{
    FILE *pFile = fopen(strPath.c_str(), "wb");
    if (pFile == NULL) {
        return false;
    }
    const size_t uWritten = fwrite(strText.data(), 1, strText.size(), pFile);
    return fclose(pFile) == 0 && uWritten == strText.size();
}

bool MakeDir(const std::string &strPath)
{
    std::string strPart;
    for (size_t i = 0; i <= strPath.size(); i++) {
        if (i == strPath.size() || strPath[i] == '/') {
            if (!strPart.empty()) {
                mkdir(strPart.c_str(), 0755);
            }
        }
        if (i < strPath.size()) {
            strPart += strPath[i];
        }
    }
    struct stat stInfo;
    return stat(strPath.c_str(), &stInfo) == 0 && S_ISDIR(stInfo.st_mode);
}

// Sizes of the profiles the library serves (profile 8 never is).
std::vector<tagST_QV_SIZE> ProfileSizes(const std::string &strConfig)
{
    std::vector<tagST_QV_SIZE> vstSizes;
    XmlConfig config;
    if (!config.LoadConfig(strConfig.c_str())) {
        return vstSizes;
    }
    for (int32_t i = 0; i < LDC_PROFILE_NUM - 1; i++) {
        const tagST_QV_SIZE stSize = {config.GetInteger(acImageWidth[i], 0), config.GetInteger(acImageHeight[i], 0)};
        if (stSize.iWidth > 0 && stSize.iHeight > 0) {
            vstSizes.push_back(stSize);
        }
    }
    return vstSizes;
}

// Everything one processed frame leaves for the printout and the overlay.
struct FrameResult {
    int32_t iRet = 0;
    std::string strLog;
    tagST_QV_LOG_SUMMARY stLog = {};
    tagST_LDC_PARA stPara = {};   // the instance's decision fields after the frame
    std::string strPath;          // which way the frame went, in words
    int32_t iFovLost = 0;
    int32_t bHaveCheck = 0;
    tagST_QV_LINE_CHECK stCheck;
};

std::vector<std::string> DecisionLines(const FrameResult &stResult, const tagST_QV_FRAME &stFrame,
                                       int32_t iISO, const std::vector<ST_FACE_RECT> &vstFaces,
                                       const tagST_QV_LINE_CHECK *pstCheck)
{
    const tagST_LDC_PARA &stPara = stResult.stPara;
    std::vector<std::string> vstrLines;
    char acLine[512];
    snprintf(acLine, sizeof(acLine), "frame %dx%d %s, ISO %d, faces %zu given / %d valid", stFrame.iWidth,
             stFrame.iHeight, PicTypeName(stFrame.ePicType), iISO, vstFaces.size(), stPara.iFaceNum);
    vstrLines.push_back(acLine);
    snprintf(acLine, sizeof(acLine), "decision: LDC enable %d, FDC enable %d, FDC mode %d", stPara.iLDCEnable,
             stPara.iFDCEnable, stPara.iFDCMode);
    vstrLines.push_back(acLine);
    vstrLines.push_back("path: " + stResult.strPath);
    snprintf(acLine, sizeof(acLine), "field of view lost: %d%%%s", stResult.iFovLost,
             stResult.stLog.bFaceFit && stResult.stLog.bFaceFitRefused
                 ? (" (face fit refused at " + std::to_string(stResult.stLog.iFaceFovLost) + "%)").c_str() : "");
    vstrLines.push_back(acLine);
    if (pstCheck != NULL) {
        int32_t aiCount[3] = {0, 0, 0};
        for (int32_t eState : pstCheck->viState) {
            aiCount[eState]++;
        }
        snprintf(acLine, sizeof(acLine), "line check %s: %zu lines (%d straight, %d bend, %d not judged) -> %s",
                 pstCheck->bRanByLibrary ? "ran" : "not run by the library, replayed", pstCheck->vstLines.size(),
                 aiCount[QV_LINE_STRAIGHT], aiCount[QV_LINE_BENDS], aiCount[QV_LINE_UNJUDGED],
                 pstCheck->iVerdict == 1 ? "global correction allowed" : "a line would bend");
        vstrLines.push_back(acLine);
    }
    snprintf(acLine, sizeof(acLine), "areas: LDC [%d, %d, %d, %d] (cyan), global FDC [%d, %d, %d, %d] (magenta)",
             stPara.aiLDCArea[0], stPara.aiLDCArea[1], stPara.aiLDCArea[2], stPara.aiLDCArea[3],
             stPara.aiGlobalFDCArea[0], stPara.aiGlobalFDCArea[1], stPara.aiGlobalFDCArea[2],
             stPara.aiGlobalFDCArea[3]);
    vstrLines.push_back(acLine);
    return vstrLines;
}

FrameResult ProcessFrame(void *pHandle, const tagST_QV_FRAME &stIn, tagST_QV_FRAME *pstOut, int32_t iISO,
                         const std::vector<ST_FACE_RECT> &vstFaces, bool bEcho)
{
    FrameResult stResult;
    ST_LDC_FRAME_INFO stInfo = {stIn.iWidth, stIn.iHeight, iISO, (int32_t)vstFaces.size(),
                                vstFaces.empty() ? NULL : vstFaces.data()};
    *pstOut = stIn;
    stResult.strLog = CaptureStderr([&] {
        stResult.iRet = IQV_LDC_Process(pHandle, &stInfo, (uint8_t *)stIn.vucData.data(), pstOut->vucData.data());
    });
    if (bEcho) {
        fputs(stResult.strLog.c_str(), stderr);
    }
    stResult.stLog = ParseLibraryLog(stResult.strLog);
    stResult.stPara = *(const tagST_LDC_PARA *)pHandle;
    stResult.strPath = DescribeFramePath(stResult.stPara, stResult.stLog, &stResult.iFovLost);
    // The replay logs a bending line a second time; that copy is not the frame's and is dropped.
    if (stResult.stPara.pucWorkBuf != NULL && stResult.stPara.iImgWidth == stIn.iWidth) {
        CaptureStderr([&] { ReplayLineCheck(&stResult.stPara, stIn.vucData.data(), &stResult.stCheck); });
        stResult.bHaveCheck = 1;
    }
    return stResult;
}

cv::Mat MakeOverlay(const FrameResult &stResult, const tagST_QV_FRAME &stIn, const cv::Mat &stBefore, int32_t iISO,
                    const std::vector<ST_FACE_RECT> &vstFaces)
{
    const tagST_QV_LINE_CHECK *pstCheck = stResult.bHaveCheck ? &stResult.stCheck : NULL;
    tagST_QV_DECISION stDecision;
    stDecision.vstrLines = DecisionLines(stResult, stIn, iISO, vstFaces, pstCheck);
    return DrawOverlay(stBefore, vstFaces, stResult.stPara, pstCheck, stDecision);
}

int CreateInstance(const tagST_QV_OPTIONS &stOpt, int32_t iW, int32_t iH, void **ppHandle)
{
    // Create copies a fixed 256 bytes of the path: hand it storage of that size.
    char acPath[LDC_CFG_PATH_LEN] = {0};
    if (stOpt.strConfig.size() >= sizeof(acPath)) {
        fprintf(stderr, "qvldc: the configuration path is longer than %zu characters\n", sizeof(acPath) - 1);
        return LDC_ERR_PARAM;
    }
    memcpy(acPath, stOpt.strConfig.c_str(), stOpt.strConfig.size());
    ST_LDC_INPUT_PARA stInput = {iW, iH, acPath, stOpt.ePicType};
    int32_t iRet = LDC_OK;
    const std::string strLog = CaptureStderr([&] { iRet = IQV_LDC_Create(ppHandle, &stInput); });
    if (!stOpt.bQuiet || iRet != LDC_OK) {
        fputs(strLog.c_str(), stderr);
    }
    if (iRet != LDC_OK) {
        fprintf(stderr, "qvldc: IQV_LDC_Create failed with %d for %dx%d and %s\n", iRet, iW, iH,
                stOpt.strConfig.c_str());
    }
    return iRet;
}

void DeleteInstance(void *pHandle, int32_t bQuiet)
{
    const std::string strLog = CaptureStderr([&] { IQV_LDC_Delete(pHandle); });
    if (!bQuiet) {
        fputs(strLog.c_str(), stderr);
    }
}

int RunFrame(const tagST_QV_OPTIONS &stOpt)
{
    std::string strError;
    std::vector<ST_FACE_RECT> vstFaces = stOpt.vstFaces;
    int32_t iISO = stOpt.iISO;
    tagST_QV_SIZE stSize = stOpt.stSize;
    tagST_QV_DUMP_NAME stDump;
    const bool bDumpName = ParseDumpName(stOpt.strIn, &stDump);
    if (bDumpName) {
        // A dump carries the frame's own faces and ISO; faces on the command line still win.
        if (vstFaces.empty() && stOpt.strFacesFile.empty() && !stOpt.bDetectFaces) {
            vstFaces = stDump.vstFaces;
        }
        iISO = stDump.iISO;
    }
    if (!stOpt.strFacesFile.empty()) {
        std::string strText;
        int32_t iBadLine = 0;
        if (!ReadText(stOpt.strFacesFile, &strText) || !ParseFacesText(strText, &vstFaces, &iBadLine)) {
            fprintf(stderr, "qvldc: cannot read faces from %s (line %d)\n", stOpt.strFacesFile.c_str(), iBadLine);
            return 2;
        }
    }
    if (!IsPhotoPath(stOpt.strIn) && stSize.iWidth == 0) {
        struct stat stInfo;
        if (stat(stOpt.strIn.c_str(), &stInfo) == 0 &&
            !GuessFrameSize((uint64_t)stInfo.st_size, ProfileSizes(stOpt.strConfig), vstFaces, &stSize)) {
            fprintf(stderr, "qvldc: %s: no profile of %s has a frame of %lld bytes; give --size WxH\n",
                    stOpt.strIn.c_str(), stOpt.strConfig.c_str(), (long long)stInfo.st_size);
            return 2;
        }
    }
    tagST_QV_FRAME stIn;
    if (!LoadFrame(stOpt.strIn, stSize, stOpt.ePicType, &stIn, &strError)) {
        fprintf(stderr, "qvldc: %s\n", strError.c_str());
        return 2;
    }
    const cv::Mat stBefore = FrameToBgr(stIn);
    if (stOpt.bDetectFaces) {
        if (!DetectFaces(stBefore, stOpt.strCascade, &vstFaces, &strError)) {
            fprintf(stderr, "qvldc: %s\n", strError.c_str());
            return 2;
        }
        printf("qvldc: the detector found %zu face(s)\n", vstFaces.size());
    }
    void *pHandle = NULL;
    if (CreateInstance(stOpt, stIn.iWidth, stIn.iHeight, &pHandle) != LDC_OK) {
        return 1;
    }
    tagST_QV_FRAME stOut;
    const FrameResult stResult = ProcessFrame(pHandle, stIn, &stOut, iISO, vstFaces, !stOpt.bQuiet);
    int iExit = 0;
    if (stResult.iRet != LDC_OK) {
        fprintf(stderr, "qvldc: IQV_LDC_Process returned %d\n", stResult.iRet);
        iExit = 1;
    }
    for (const std::string &strLine :
         DecisionLines(stResult, stIn, iISO, vstFaces, stResult.bHaveCheck ? &stResult.stCheck : NULL)) {
        printf("%s\n", strLine.c_str());
    }
    auto save = [&](bool bOk, const std::string &strPath) {
        if (!bOk) {
            fprintf(stderr, "qvldc: cannot write %s\n", strPath.c_str());
            iExit = 1;
        }
    };
    if (!stOpt.strOutYuv.empty()) {
        save(SaveRaw(stOpt.strOutYuv, stOut), stOpt.strOutYuv);
    }
    if (!stOpt.strOutPng.empty()) {
        save(SavePng(stOpt.strOutPng, FrameToBgr(stOut)), stOpt.strOutPng);
    }
    if (!stOpt.strBeforePng.empty()) {
        save(SavePng(stOpt.strBeforePng, stBefore), stOpt.strBeforePng);
    }
    if (!stOpt.strOverlayPng.empty()) {
        save(SavePng(stOpt.strOverlayPng, MakeOverlay(stResult, stIn, stBefore, iISO, vstFaces)),
             stOpt.strOverlayPng);
    }
    DeleteInstance(pHandle, stOpt.bQuiet);
    return iExit;
}

int RunBatch(const tagST_QV_OPTIONS &stOpt)
{
    std::vector<std::string> vstrNames;
    DIR *pDir = opendir(stOpt.strIn.c_str());
    if (pDir == NULL) {
        fprintf(stderr, "qvldc: cannot open the directory %s\n", stOpt.strIn.c_str());
        return 2;
    }
    while (struct dirent *pstEntry = readdir(pDir)) {
        tagST_QV_DUMP_NAME stName;
        if (ParseDumpName(pstEntry->d_name, &stName) && stName.bInput) {
            vstrNames.push_back(pstEntry->d_name);
        }
    }
    closedir(pDir);
    std::sort(vstrNames.begin(), vstrNames.end());
    if (vstrNames.empty()) {
        fprintf(stderr, "qvldc: no dumped input frames (*_org.yuv) in %s\n", stOpt.strIn.c_str());
        return 2;
    }
    const std::string strOutDir = stOpt.strOutDir.empty() ? stOpt.strIn + "/qvldc" : stOpt.strOutDir;
    if (!MakeDir(strOutDir)) {
        fprintf(stderr, "qvldc: cannot create %s\n", strOutDir.c_str());
        return 2;
    }
    const std::vector<tagST_QV_SIZE> vstProfiles = ProfileSizes(stOpt.strConfig);
    std::string strCsv = "file,width,height,iso,faces,valid_faces,ldc_enable,fdc_enable,fdc_mode,fov_lost,path,ms\n";
    void *pHandle = NULL;
    int32_t iFailed = 0;
    for (size_t i = 0; i < vstrNames.size(); i++) {
        const std::string &strName = vstrNames[i];
        const std::string strPath = stOpt.strIn + "/" + strName;
        fprintf(stderr, "[%zu/%zu] %s\n", i + 1, vstrNames.size(), strName.c_str());
        tagST_QV_DUMP_NAME stDump;
        ParseDumpName(strName, &stDump);
        tagST_QV_SIZE stSize = stOpt.stSize;
        struct stat stInfo;
        if (stSize.iWidth == 0 &&
            (stat(strPath.c_str(), &stInfo) != 0 ||
             !GuessFrameSize((uint64_t)stInfo.st_size, vstProfiles, stDump.vstFaces, &stSize))) {
            fprintf(stderr, "qvldc: %s: size unknown (no profile fits its length); skipped\n", strName.c_str());
            iFailed++;
            continue;
        }
        tagST_QV_FRAME stIn;
        std::string strError;
        if (!LoadFrame(strPath, stSize, stOpt.ePicType, &stIn, &strError)) {
            fprintf(stderr, "qvldc: %s; skipped\n", strError.c_str());
            iFailed++;
            continue;
        }
        // One instance for the whole run: Process re-reads the configuration itself when the
        // size changes, as it does on the phone.
        if (pHandle == NULL && CreateInstance(stOpt, stIn.iWidth, stIn.iHeight, &pHandle) != LDC_OK) {
            iFailed++;
            continue;
        }
        tagST_QV_FRAME stOut;
        const FrameResult stResult = ProcessFrame(pHandle, stIn, &stOut, stDump.iISO, stDump.vstFaces, !stOpt.bQuiet);
        if (stResult.iRet != LDC_OK) {
            iFailed++;
        }
        const std::string strStem = strOutDir + "/" + strName.substr(0, strName.size() - 4);
        const cv::Mat stBefore = FrameToBgr(stIn);
        if (!SavePng(strStem + "_after.png", FrameToBgr(stOut)) ||
            !SavePng(strStem + "_overlay.png", MakeOverlay(stResult, stIn, stBefore, stDump.iISO, stDump.vstFaces))) {
            fprintf(stderr, "qvldc: cannot write into %s\n", strOutDir.c_str());
            iFailed++;
        }
        const tagST_LDC_PARA &stPara = stResult.stPara;
        char acRow[1024];
        snprintf(acRow, sizeof(acRow), "\"%s\",%d,%d,%d,%zu,%d,%d,%d,%d,%d,\"%s\",%d\n", strName.c_str(),
                 stIn.iWidth, stIn.iHeight, stDump.iISO, stDump.vstFaces.size(), stPara.iFaceNum,
                 stPara.iLDCEnable, stPara.iFDCEnable, stPara.iFDCMode, stResult.iFovLost,
                 stResult.strPath.c_str(), stResult.stLog.iTimeMs);
        strCsv += acRow;
        fprintf(stderr, "[%zu/%zu] %s: mode %d, LDC %d, FDC %d, FOV lost %d%%, %s\n", i + 1, vstrNames.size(),
                strName.c_str(), stPara.iFDCMode, stPara.iLDCEnable, stPara.iFDCEnable, stResult.iFovLost,
                stResult.strPath.c_str());
    }
    if (pHandle != NULL) {
        DeleteInstance(pHandle, stOpt.bQuiet);
    }
    if (!WriteText(strOutDir + "/summary.csv", strCsv)) {
        fprintf(stderr, "qvldc: cannot write %s/summary.csv\n", strOutDir.c_str());
        return 1;
    }
    printf("qvldc: %zu frame(s), %d failed; results in %s (summary.csv)\n", vstrNames.size(), iFailed,
           strOutDir.c_str());
    return iFailed ? 1 : 0;
}

int RunRender(const tagST_QV_OPTIONS &stOpt)
{
    const tagST_QV_SIZE stSize = stOpt.stSize.iWidth ? stOpt.stSize : tagST_QV_SIZE{4000, 3000};
    if ((stSize.iWidth | stSize.iHeight) & 1) {
        fprintf(stderr, "qvldc: 4:2:0 frames have even sides\n");
        return 2;
    }
    std::string strError;
    tagST_RADIAL_MODEL stModel;
    if (!LoadLensModel(stOpt.strConfig, stSize, &stModel, &strError)) {
        fprintf(stderr, "qvldc: %s\n", strError.c_str());
        return 2;
    }
    // Every size goes into one dump directory, as on the phone: --batch then meets a size change.
    const std::string strDumps = stOpt.strIn + "/dumps";
    if (!MakeDir(stOpt.strIn) || !MakeDir(strDumps)) {
        fprintf(stderr, "qvldc: cannot create %s\n", strDumps.c_str());
        return 2;
    }
    cv::Mat stRecorded;
    std::vector<ST_FACE_RECT> vstFaces;
    RenderSample(stModel, stSize, &stRecorded, &vstFaces);
    const std::string strStem = stOpt.strIn + "/sample_" + std::to_string(stSize.iWidth) + "x" + std::to_string(stSize.iHeight);
    std::string strFaces = "# face rectangles of " + strStem + ".png: left,top,right,bottom (inclusive)\n";
    for (const ST_FACE_RECT &stFace : vstFaces) {
        strFaces += std::to_string(stFace.iLeft) + "," + std::to_string(stFace.iTop) + "," +
                    std::to_string(stFace.iRight) + "," + std::to_string(stFace.iBottom) + "\n";
    }
    tagST_QV_FRAME stFrame;
    BgrToFrame(stRecorded, LDC_PIC_NV21, &stFrame);
    // A fixed time stamp keeps the sample's dump name the same from run to run.
    const std::string strDump = strDumps + "/" + FormatDumpName("20261122_120000", vstFaces, stOpt.iISO, 1);
    if (!SavePng(strStem + ".png", stRecorded) || !WriteText(strStem + "_faces.txt", strFaces) ||
        !SaveRaw(strDump, stFrame)) {
        fprintf(stderr, "qvldc: cannot write the sample into %s\n", stOpt.strIn.c_str());
        return 1;
    }
    printf("qvldc: rendered %s.png (%dx%d), faces in %s_faces.txt, NV21 dump %s\n", strStem.c_str(),
           stSize.iWidth, stSize.iHeight, strStem.c_str(), strDump.c_str());
    fputs(strFaces.c_str(), stdout);
    return 0;
}

}  // namespace

int main(int iArgc, char **ppcArgv)
{
    // Line by line, so that the decision and the library's log keep their order in one stream.
    setvbuf(stdout, NULL, _IOLBF, 0);
    tagST_QV_OPTIONS stOpt;
    std::string strError;
    if (!ParseOptions(iArgc, ppcArgv, &stOpt, &strError)) {
        fprintf(stderr, "qvldc: %s\n", strError.c_str());
        return 2;
    }
    switch (stOpt.eMode) {
    case QV_MODE_HELP:
        fputs(UsageText(), stdout);
        return 0;
    case QV_MODE_BATCH:
        return RunBatch(stOpt);
    case QV_MODE_RENDER:
        return RunRender(stOpt);
    case QV_MODE_CALIBRATE:
        return RunCalibrate(stOpt);
    default:
        return RunFrame(stOpt);
    }
}

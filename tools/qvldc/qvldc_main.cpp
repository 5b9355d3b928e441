// qvldc: runs the library on dumped frames or photos the way the camera service does, prints
// the library's log and the decision it took, and draws what it saw. See UsageText().
#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <limits.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "config/config_schema.h"
#include "config/xml_config.h"
#include "config/xml_parser.h"
#include "interface/ldc_process.h"
#include "qvldc_calibrate.h"
#include "qvldc_image.h"
#include "qvldc_io.h"
#include "qvldc_parse.h"
#include "qvldc_report.h"
#include "qvldc_sample.h"
#include "qvldc_view.h"
#include "records/ldc_para.h"
#include "vkt_zb_ldc.h"

namespace {

// What the library printed besides its log during the run, folded (see PassLibraryOutput).
std::vector<tagST_QV_REPEAT> s_vstOtherLines;

// A batch's progress bar is on the terminal's last line; anything else printed first clears it.
bool s_bProgressShown = false;

void ClearProgress()
{
    if (s_bProgressShown) {
        fputs("\r\033[K", stderr);
        s_bProgressShown = false;
    }
}

// The library's log lines go through as they came unless the tuner asked for quiet. Anything
// else it prints, the worker-pinning warnings above all (every stage of every frame on a machine
// with fewer cores than workers), is counted and shown once at the end of the run. pvstrNoted,
// when given, receives the library's error lines and its other lines, folded, for a report.
void PassLibraryOutput(const std::string &strText, bool bEchoLog, std::vector<std::string> *pvstrNoted = NULL)
{
    std::istringstream stream(strText);
    std::string strLine;
    std::vector<tagST_QV_REPEAT> vstOther;
    while (std::getline(stream, strLine)) {
        if (IsLibraryLogLine(strLine)) {
            if (bEchoLog) {
                ClearProgress();
                fprintf(stderr, "%s\n", strLine.c_str());
            }
            if (pvstrNoted != NULL && strLine[0] == 'E') {
                pvstrNoted->push_back(strLine);
            }
        } else if (strLine.find_first_not_of(" \t\r") != std::string::npos) {
            CountRepeatedLine(strLine, &s_vstOtherLines);
            CountRepeatedLine(strLine, &vstOther);
        }
    }
    for (const tagST_QV_REPEAT &stLine : vstOther) {
        if (pvstrNoted != NULL) {
            pvstrNoted->push_back(RepeatedLineText(stLine));
        }
    }
}

// cv::Exception derives from std::exception; its what() spans lines and names OpenCV's sources.
std::string ExceptionText(const std::exception &e)
{
    const cv::Exception *pstCv = dynamic_cast<const cv::Exception *>(&e);
    return pstCv != NULL ? "OpenCV refused it: " + JoinLines(pstCv->err) : std::string("failed: ") + e.what();
}

void PrintOtherLines()
{
    for (const tagST_QV_REPEAT &stLine : s_vstOtherLines) {
        fprintf(stderr, "%s\n", RepeatedLineText(stLine).c_str());
    }
}

// One error line for the file it is about.
void Refuse(const std::string &strPath, const std::string &strWhy)
{
    ClearProgress();
    fprintf(stderr, "qvldc: %s: %s\n", strPath.c_str(), strWhy.c_str());
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
    int32_t iTimeMs = -1;         // as the library logged it
    tagST_LDC_PARA stPara = {};   // the instance's decision fields after the frame
    tagST_LDC_PLAN stPlan = {};   // the driver's plan of the frame (its mesh pointer cleared)
    std::vector<float> vfMesh;    // the face mesh the frame was rendered through, if any
    std::string strPath;          // which way the frame went and why, in words
    tagST_QV_VIEW stView;         // what the output shows of the input
    std::vector<std::string> vstrLibrary;   // the library's error lines and other output, folded
};

std::vector<std::string> DecisionLines(const FrameResult &stResult, const tagST_QV_FRAME &stFrame,
                                       int32_t iISO, const std::vector<ST_FACE_RECT> &vstFaces)
{
    const tagST_LDC_PARA &stPara = stResult.stPara;
    const tagST_LDC_PLAN &stPlan = stResult.stPlan;
    std::vector<std::string> vstrLines;
    char acLine[512];
    snprintf(acLine, sizeof(acLine), "frame %dx%d %s, ISO %d, faces %zu given / %d valid", stFrame.iWidth,
             stFrame.iHeight, PicTypeName(stFrame.ePicType), iISO, vstFaces.size(), stPlan.iFaceNum);
    vstrLines.push_back(acLine);
    snprintf(acLine, sizeof(acLine), "decision: LDC enable %d, FDC enable %d, FDC mode %d", stPara.iLDCEnable,
             stPara.iFDCEnable, stPara.iFDCMode);
    vstrLines.push_back(acLine);
    vstrLines.push_back("path: " + stResult.strPath);
    snprintf(acLine, sizeof(acLine), "field of view lost: %d%%", stPlan.iFovLost);
    if (stPlan.iFitRounds > 0) {
        snprintf(acLine + strlen(acLine), sizeof(acLine) - strlen(acLine),
                 " (face fit: %d round(s), last strength %.4f, ret of H %d, loss %d%%)", stPlan.iFitRounds,
                 (double)stPlan.fFitDegree, stPlan.iFitStatus, stPlan.iFitFovLost);
    }
    vstrLines.push_back(acLine);
    if (stPlan.ePath == LDC_PATH_MESH || stPlan.eRefusal == LDC_REFUSAL_MESH) {
        const tagST_MESH_STATS &stStats = stPlan.stMeshStats;
        snprintf(acLine, sizeof(acLine),
                 "face mesh: %d face(s) tracked, %dx%d vertices, status %d, strength %.3f, %d iteration(s) in %d "
                 "round(s), step %.2f px",
                 stPlan.iMeshFaces, stPlan.stMeshGrid.iCols, stPlan.stMeshGrid.iRows, stPlan.iMeshStatus,
                 (double)stStats.fStrength, stStats.iIterations, stStats.iRounds, (double)stPlan.fMeshStep);
        vstrLines.push_back(acLine);
    }
    if (stPlan.bLineCheck) {
        const tagST_LINE_CHECK &stCheck = stPlan.stLineCheck;
        snprintf(acLine, sizeof(acLine), "line check: %d lines kept, %d judged, %d drawn -> %s", stCheck.iKept,
                 stCheck.iJudged, PlanLineCount(stPlan),
                 stCheck.iVerdict == 1 ? "global correction allowed" : "the last judged line would bend");
        vstrLines.push_back(acLine);
    }
    snprintf(acLine, sizeof(acLine), "areas: LDC [%d, %d, %d, %d] (cyan), global FDC [%d, %d, %d, %d] (magenta)",
             stPara.aiLDCArea[0], stPara.aiLDCArea[1], stPara.aiLDCArea[2], stPara.aiLDCArea[3],
             stPara.aiGlobalFDCArea[0], stPara.aiGlobalFDCArea[1], stPara.aiGlobalFDCArea[2],
             stPara.aiGlobalFDCArea[3]);
    vstrLines.push_back(acLine);
    for (const std::string &strLine : ViewLines(stResult.stView)) {
        vstrLines.push_back(strLine);
    }
    return vstrLines;
}

FrameResult ProcessFrame(void *pHandle, const tagST_QV_FRAME &stIn, tagST_QV_FRAME *pstOut, int32_t iISO,
                         const std::vector<ST_FACE_RECT> &vstFaces, bool bEcho)
{
    FrameResult stResult;
    ST_LDC_FRAME_INFO stInfo = {stIn.iWidth, stIn.iHeight, iISO, (int32_t)vstFaces.size(),
                                vstFaces.empty() ? NULL : vstFaces.data()};
    *pstOut = stIn;
    stResult.strLog = CaptureOutput([&] {
        stResult.iRet = LdcProcessFrame(pHandle, &stInfo, (uint8_t *)stIn.vucData.data(), pstOut->vucData.data(),
                                        &stResult.stPlan);
    });
    PassLibraryOutput(stResult.strLog, bEcho, &stResult.vstrLibrary);
    stResult.iTimeMs = LibraryTimeMs(stResult.strLog);
    stResult.stPara = *(const tagST_LDC_PARA *)pHandle;
    // The mesh lives in the instance's working buffer until its next frame: keep a copy.
    if (stResult.stPlan.pfMesh != NULL) {
        const tagST_MESH_GRID &stGrid = stResult.stPlan.stMeshGrid;
        stResult.vfMesh.assign(stResult.stPlan.pfMesh, stResult.stPlan.pfMesh + 2 * (size_t)stGrid.iCols * stGrid.iRows);
        stResult.stPlan.pfMesh = NULL;
    }
    stResult.strPath = DescribePlanPath(stResult.stPlan, stResult.stPara);
    MeasureView(stResult.stPlan, stResult.stPara, &stResult.stView);
    return stResult;
}

cv::Mat MakeOverlay(const FrameResult &stResult, const tagST_QV_FRAME &stIn, const cv::Mat &stBefore, int32_t iISO,
                    const std::vector<ST_FACE_RECT> &vstFaces)
{
    tagST_QV_DECISION stDecision;
    stDecision.vstrLines = DecisionLines(stResult, stIn, iISO, vstFaces);
    return DrawOverlay(stBefore, vstFaces, stResult.stPara, stResult.stPlan, stResult.vfMesh, stDecision);
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
    const std::string strLog = CaptureOutput([&] { iRet = IQV_LDC_Create(ppHandle, &stInput); });
    PassLibraryOutput(strLog, !stOpt.bQuiet || iRet != LDC_OK);
    if (iRet != LDC_OK) {
        fprintf(stderr, "qvldc: IQV_LDC_Create failed with %d for %dx%d and %s\n", iRet, iW, iH,
                stOpt.strConfig.c_str());
    }
    return iRet;
}

void DeleteInstance(void *pHandle, int32_t bQuiet)
{
    PassLibraryOutput(CaptureOutput([&] { IQV_LDC_Delete(pHandle); }), !bQuiet);
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
        std::vector<uint8_t> vucText;
        int32_t iBadLine = 0;
        if (!ReadInputFile(stOpt.strFacesFile, QV_MAX_FACES_FILE_BYTES, &vucText, &strError)) {
            Refuse(stOpt.strFacesFile, strError);
            return 2;
        }
        if (!ParseFacesText(std::string(vucText.begin(), vucText.end()), &vstFaces, &iBadLine)) {
            Refuse(stOpt.strFacesFile, "line " + std::to_string(iBadLine) +
                                           " is not a face L,T,R,B (inclusive, L <= R, T <= B)");
            return 2;
        }
    }
    const bool bGuessSize = !IsPhotoPath(stOpt.strIn) && stSize.iWidth == 0;
    tagST_QV_FRAME stIn;
    if (!LoadFrame(stOpt.strIn, stSize, bGuessSize ? ProfileSizes(stOpt.strConfig) : std::vector<tagST_QV_SIZE>(),
                   vstFaces, stOpt.ePicType, &stIn, &strError)) {
        Refuse(stOpt.strIn, strError);
        return 2;
    }
    const cv::Mat stBefore = FrameToBgr(stIn);
    if (stOpt.bDetectFaces) {
        if (!DetectFaces(stBefore, stOpt.strCascade, &vstFaces, &strError)) {
            Refuse(stOpt.strCascade, strError);
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
    for (const std::string &strLine : DecisionLines(stResult, stIn, iISO, vstFaces)) {
        printf("%s\n", strLine.c_str());
    }
    auto save = [&](bool bOk, const std::string &strPath) {
        if (!bOk) {
            Refuse(strPath, "cannot write it");
            iExit = 1;
        }
    };
    if (!stOpt.strOutYuv.empty()) {
        save(SaveRaw(stOpt.strOutYuv, stOut), stOpt.strOutYuv);
    }
    if (!stOpt.strOutPng.empty()) {
        save(SavePng(stOpt.strOutPng, ScaledToWidth(FrameToBgr(stOut), stOpt.iPngWidth)), stOpt.strOutPng);
    }
    if (!stOpt.strBeforePng.empty()) {
        save(SavePng(stOpt.strBeforePng, ScaledToWidth(stBefore, stOpt.iPngWidth)), stOpt.strBeforePng);
    }
    if (!stOpt.strOverlayPng.empty()) {
        save(SavePng(stOpt.strOverlayPng,
                     ScaledToWidth(MakeOverlay(stResult, stIn, stBefore, iISO, vstFaces), stOpt.iPngWidth)),
             stOpt.strOverlayPng);
    }
    DeleteInstance(pHandle, stOpt.bQuiet);
    return iExit;
}

// A batch in progress: its instance, its summary rows and, with --report, the report's rows.
struct BatchRun {
    std::string strOutDir;
    std::vector<tagST_QV_SIZE> vstProfiles;
    void *pHandle = NULL;   // the run's instance, created on the first frame that loads
    std::string strCsv;
    std::string strReportDir;   // absolute directory of the report; empty without --report
    std::vector<tagST_QV_REPORT_ROW> vstRows;
    std::vector<std::string> vstrSkipped;
};

// The text after "method! " in the library's line on a bending line, empty when none bent.
std::string BendText(const std::string &strLog)
{
    const std::string strMark = "by using global FDC method! ";
    const size_t uAt = strLog.find(strMark);
    return uAt == std::string::npos ? std::string() : strLog.substr(uAt + strMark.size(),
                                                                    strLog.find('\n', uAt) - uAt - strMark.size());
}

// Where the batch stands: a bar on a terminal; otherwise each frame's line ends with it.
struct Progress {
    bool bTerminal;
    int32_t iColumns;
    std::chrono::steady_clock::time_point tStart;

    double Seconds() const
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - tStart).count();
    }
    // Read once the frame is done: the rate counts the time of the frame it reports.
    std::string Line(int32_t iDone, int32_t iTotal) const
    {
        return bTerminal ? std::string() : ProgressText(iDone, iTotal, Seconds());
    }
    void Show(int32_t iDone, int32_t iTotal, const std::string &strName)
    {
        if (bTerminal) {
            ClearProgress();
            fprintf(stderr, "%s", ProgressBar(iDone, iTotal, Seconds(), strName, iColumns).c_str());
            fflush(stderr);
            s_bProgressShown = true;
        }
    }
};

// One dumped frame of a batch: false when it was skipped or did not come out whole.
bool RunBatchFrame(const tagST_QV_OPTIONS &stOpt, const std::string &strName, BatchRun *pstRun,
                   const Progress &stProgress, int32_t iDone, int32_t iTotal)
{
    const std::string strPath = stOpt.strIn + "/" + strName;
    tagST_QV_DUMP_NAME stDump;
    ParseDumpName(strName, &stDump);
    tagST_QV_FRAME stIn;
    std::string strError;
    if (!LoadFrame(strPath, stOpt.stSize, pstRun->vstProfiles, stDump.vstFaces, stOpt.ePicType, &stIn, &strError)) {
        Refuse(strPath, strError + "; skipped");
        pstRun->vstrSkipped.push_back(strName + ": " + strError);
        return false;
    }
    // A capture of its own on a fresh instance: with the face mesh an instance carries the last
    // frame's mesh and eases into a new scene, which unrelated dumps must not inherit. With
    // --stream one instance takes every frame, as on the phone (a size change re-reads the
    // configuration, the mesh follows).
    if (pstRun->pHandle != NULL && !stOpt.bStream) {
        DeleteInstance(pstRun->pHandle, 1);
        pstRun->pHandle = NULL;
    }
    if (pstRun->pHandle == NULL && CreateInstance(stOpt, stIn.iWidth, stIn.iHeight, &pstRun->pHandle) != LDC_OK) {
        pstRun->vstrSkipped.push_back(strName + ": IQV_LDC_Create failed");
        return false;
    }
    tagST_QV_FRAME stOut;
    const FrameResult stResult = ProcessFrame(pstRun->pHandle, stIn, &stOut, stDump.iISO, stDump.vstFaces, !stOpt.bQuiet);
    bool bOk = stResult.iRet == LDC_OK;
    const std::string strStem = pstRun->strOutDir + "/" + strName.substr(0, strName.size() - 4);
    const cv::Mat stBefore = FrameToBgr(stIn);
    const cv::Mat stAfter = FrameToBgr(stOut);
    const cv::Mat stOverlay = MakeOverlay(stResult, stIn, stBefore, stDump.iISO, stDump.vstFaces);
    const bool bReport = !pstRun->strReportDir.empty();
    if (!SavePng(strStem + "_after.png", stAfter) || !SavePng(strStem + "_overlay.png", stOverlay) ||
        (bReport && !SavePng(strStem + "_before.png", stBefore))) {
        Refuse(pstRun->strOutDir, "cannot write the pictures of " + strName);
        bOk = false;
    }
    const tagST_LDC_PARA &stPara = stResult.stPara;
    const tagST_LDC_PLAN &stPlan = stResult.stPlan;
    const tagST_QV_VIEW &stView = stResult.stView;
    char acRow[1536];
    snprintf(acRow, sizeof(acRow), "\"%s\",%d,%d,%d,%zu,%d,%d,%d,%d,%d,\"%s\",%d,%s,%.4f,%.2f,%.2f,%.2f,%.2f,%d,%d,%d\n",
             strName.c_str(), stIn.iWidth, stIn.iHeight, stDump.iISO, stDump.vstFaces.size(), stPlan.iFaceNum,
             stPara.iLDCEnable, stPara.iFDCEnable, stPara.iFDCMode, stPlan.iFovLost, stResult.strPath.c_str(),
             stResult.iTimeMs, PathKey(stPlan.ePath), (double)stView.fZoom, (double)stView.afBorder[QV_LEFT],
             (double)stView.afBorder[QV_TOP], (double)stView.afBorder[QV_RIGHT], (double)stView.afBorder[QV_BOTTOM],
             CutFaceCount(stView), stPlan.bLineCheck ? stPlan.stLineCheck.iKept : -1,
             stPlan.bLineCheck ? stPlan.stLineCheck.iJudged : -1);
    pstRun->strCsv += acRow;
    const std::string strProgress = stProgress.Line(iDone, iTotal);
    ClearProgress();
    fprintf(stderr, "%s: %s, FOV lost %d%%, zoom %.3fx, border %.1f%%, %d face(s) cut%s%s\n", strName.c_str(),
            PathKey(stPlan.ePath), stPlan.iFovLost, (double)stView.fZoom, (double)WidestBorder(stView),
            CutFaceCount(stView), strProgress.empty() ? "" : "; ", strProgress.c_str());
    if (bReport) {
        tagST_QV_REPORT_ROW stRow;
        stRow.strName = strName;
        stRow.iWidth = stIn.iWidth;
        stRow.iHeight = stIn.iHeight;
        stRow.iISO = stDump.iISO;
        stRow.iFacesGiven = (int32_t)stDump.vstFaces.size();
        stRow.iRet = stResult.iRet;
        stRow.iTimeMs = stResult.iTimeMs;
        stRow.iFovBudget = stPara.iFOVLost;
        stRow.iFDCMode = stPara.iFDCMode;
        stRow.stPlan = stPlan;
        stRow.strPath = stResult.strPath;
        stRow.strBendText = BendText(stResult.strLog);
        stRow.stView = stView;
        stRow.vstrLibrary = stResult.vstrLibrary;
        const std::pair<const char *, const cv::Mat *> astPictures[3] = {
            {"before", &stBefore}, {"after", &stAfter}, {"overlay", &stOverlay}};
        for (const auto &stPicture : astPictures) {
            char acAbs[PATH_MAX];
            const std::string strFile = strStem + "_" + stPicture.first + ".png";
            const bool bFound = realpath(strFile.c_str(), acAbs) != NULL;
            stRow.vstPictures.push_back({stPicture.first, bFound ? RelativeLink(pstRun->strReportDir, acAbs) : "",
                                         DataUri("image/jpeg", ThumbnailJpeg(*stPicture.second))});
        }
        pstRun->vstRows.push_back(stRow);
    }
    return bOk;
}

int32_t TerminalColumns()
{
    struct winsize stSize;
    return ioctl(fileno(stderr), TIOCGWINSZ, &stSize) == 0 && stSize.ws_col > 0 ? stSize.ws_col : 80;
}

int RunBatch(const tagST_QV_OPTIONS &stOpt)
{
    std::vector<std::string> vstrNames;
    DIR *pDir = opendir(stOpt.strIn.c_str());
    if (pDir == NULL) {
        Refuse(stOpt.strIn, std::string("cannot open the directory (") + strerror(errno) + ")");
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
        Refuse(stOpt.strIn, "no dumped input frames (*_org.yuv) in it");
        return 2;
    }
    BatchRun stRun;
    stRun.strOutDir = stOpt.strOutDir.empty() ? stOpt.strIn + "/qvldc" : stOpt.strOutDir;
    if (!MakeDir(stRun.strOutDir)) {
        Refuse(stRun.strOutDir, "cannot create the directory");
        return 2;
    }
    if (!stOpt.strReport.empty()) {
        const size_t uSlash = stOpt.strReport.find_last_of('/');
        const std::string strDir = uSlash == std::string::npos ? "." : stOpt.strReport.substr(0, uSlash + 1);
        char acAbs[PATH_MAX];
        if (!MakeDir(strDir) || realpath(strDir.c_str(), acAbs) == NULL) {
            Refuse(stOpt.strReport, "cannot create the report's directory");
            return 2;
        }
        stRun.strReportDir = acAbs;
    }
    stRun.vstProfiles = stOpt.stSize.iWidth == 0 ? ProfileSizes(stOpt.strConfig) : std::vector<tagST_QV_SIZE>();
    stRun.strCsv = "file,width,height,iso,faces,valid_faces,ldc_enable,fdc_enable,fdc_mode,fov_lost,path,ms,"
                   "path_key,zoom,border_left,border_top,border_right,border_bottom,faces_cut,lines_kept,"
                   "lines_judged\n";
    Progress stProgress = {isatty(fileno(stderr)) != 0, TerminalColumns(), std::chrono::steady_clock::now()};
    const int32_t iTotal = (int32_t)vstrNames.size();
    int32_t iFailed = 0;
    for (int32_t i = 0; i < iTotal; i++) {
        stProgress.Show(i, iTotal, vstrNames[i]);
        // A frame that trips OpenCV or runs out of memory costs that frame, not the batch.
        try {
            iFailed += !RunBatchFrame(stOpt, vstrNames[i], &stRun, stProgress, i + 1, iTotal);
        } catch (const std::exception &e) {
            Refuse(stOpt.strIn + "/" + vstrNames[i], ExceptionText(e) + "; skipped");
            stRun.vstrSkipped.push_back(vstrNames[i] + ": " + ExceptionText(e));
            iFailed++;
        }
    }
    if (stProgress.bTerminal) {
        stProgress.Show(iTotal, iTotal, "");
        fputc('\n', stderr);
        s_bProgressShown = false;
    }
    if (stRun.pHandle != NULL) {
        DeleteInstance(stRun.pHandle, stOpt.bQuiet);
    }
    if (!WriteText(stRun.strOutDir + "/summary.csv", stRun.strCsv)) {
        Refuse(stRun.strOutDir + "/summary.csv", "cannot write it");
        return 1;
    }
    if (!stOpt.strReport.empty()) {
        if (!WriteText(stOpt.strReport, ReportHtml(stOpt.strIn, stRun.vstRows, stRun.vstrSkipped))) {
            Refuse(stOpt.strReport, "cannot write it");
            return 1;
        }
        printf("qvldc: report in %s\n", stOpt.strReport.c_str());
    }
    printf("qvldc: %d frame(s), %d failed; results in %s (summary.csv)\n", iTotal, iFailed, stRun.strOutDir.c_str());
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
    tagST_QV_RECORDING stRec;
    PrepareRecording(stModel, stSize, &stRec);
    cv::Mat stRecorded;
    std::vector<ST_FACE_RECT> vstFaces;
    tagST_QV_FRAME stFrame;
    if (stOpt.iSampleFrames > 0) {
        // A batch of dumps with varied people; a fixed time stamp per frame keeps the names the
        // same from run to run.
        for (int32_t i = 0; i < stOpt.iSampleFrames; i++) {
            RenderSample(stRec, VariedPeople(i), &stRecorded, &vstFaces);
            BgrToFrame(stRecorded, LDC_PIC_NV21, &stFrame);
            char acStamp[32];
            snprintf(acStamp, sizeof(acStamp), "20261123_%02d%02d%02d", 12 + i / 3600, i / 60 % 60, i % 60);
            if (!SaveRaw(strDumps + "/" + FormatDumpName(acStamp, vstFaces, stOpt.iISO, 1), stFrame)) {
                fprintf(stderr, "qvldc: cannot write the sample into %s\n", strDumps.c_str());
                return 1;
            }
        }
        printf("qvldc: rendered %d frame(s) of %dx%d with varied people into %s\n", stOpt.iSampleFrames,
               stSize.iWidth, stSize.iHeight, strDumps.c_str());
        return 0;
    }
    RenderSample(stRec, SamplePeople(), &stRecorded, &vstFaces);
    const std::string strStem = stOpt.strIn + "/sample_" + std::to_string(stSize.iWidth) + "x" + std::to_string(stSize.iHeight);
    std::string strFaces = "# face rectangles of " + strStem + ".png: left,top,right,bottom (inclusive)\n";
    for (const ST_FACE_RECT &stFace : vstFaces) {
        strFaces += std::to_string(stFace.iLeft) + "," + std::to_string(stFace.iTop) + "," +
                    std::to_string(stFace.iRight) + "," + std::to_string(stFace.iBottom) + "\n";
    }
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

// The configuration with the --set values, in a temporary file that the library reads instead
// (it re-reads it whenever the frame size changes, so it lives until the end of the run).
bool ApplySets(const std::vector<uint8_t> &vucXml, tagST_QV_OPTIONS *pstOpt, std::string *pstrTemp)
{
    std::string strError;
    std::string strXml(vucXml.begin(), vucXml.end());
    for (const auto &stSet : pstOpt->vstSets) {
        std::string strOut;
        bool bAdded = false;
        if (!SetConfigValue(strXml, stSet.first, stSet.second, &strOut, &bAdded, &strError)) {
            Refuse(pstOpt->strConfig, "--set " + stSet.first + "=" + stSet.second + ": " + strError);
            return false;
        }
        strXml.swap(strOut);
        printf("qvldc: %s set to %s%s\n", stSet.first.c_str(), stSet.second.c_str(),
               bAdded ? " (added: the file has no such element, and the library reads only the keys it knows)" : "");
    }
    const char *pcTmp = getenv("TMPDIR");
    std::string strTemplate = std::string(pcTmp != NULL && *pcTmp ? pcTmp : "/tmp") + "/qvldc_config_XXXXXX.xml";
    const int iFd = mkstemps(&strTemplate[0], 4);
    if (iFd < 0) {
        Refuse(strTemplate, std::string("cannot create the configuration with --set (") + strerror(errno) + ")");
        return false;
    }
    close(iFd);
    *pstrTemp = strTemplate;
    if (!WriteText(strTemplate, strXml)) {
        Refuse(strTemplate, "cannot write the configuration with --set");
        return false;
    }
    pstOpt->strConfig = strTemplate;
    return true;
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
    // The library refuses such a configuration too, but a tool that guesses frame sizes from it
    // would then blame the frame.
    std::vector<uint8_t> vucConfig;
    if (!stOpt.strConfig.empty() && !ReadInputFile(stOpt.strConfig, QV_MAX_CONFIG_FILE_BYTES, &vucConfig, &strError)) {
        Refuse(stOpt.strConfig, strError);
        return 2;
    }
    std::string strTempConfig;
    if (!stOpt.vstSets.empty() && stOpt.eMode != QV_MODE_HELP && !ApplySets(vucConfig, &stOpt, &strTempConfig)) {
        if (!strTempConfig.empty()) {
            unlink(strTempConfig.c_str());
        }
        return 2;
    }
    int iExit = 0;
    try {
        switch (stOpt.eMode) {
        case QV_MODE_HELP:
            fputs(UsageText(), stdout);
            break;
        case QV_MODE_BATCH:
            iExit = RunBatch(stOpt);
            break;
        case QV_MODE_RENDER:
            iExit = RunRender(stOpt);
            break;
        case QV_MODE_CALIBRATE:
            iExit = RunCalibrate(stOpt);
            break;
        default:
            iExit = RunFrame(stOpt);
            break;
        }
    } catch (const std::exception &e) {
        Refuse(stOpt.strIn, ExceptionText(e));
        iExit = 1;
    }
    PrintOtherLines();
    if (!strTempConfig.empty()) {
        unlink(strTempConfig.c_str());
    }
    return iExit;
}
